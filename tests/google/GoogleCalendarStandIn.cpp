#include "google/GoogleCalendarStandIn.h"

#include "google/GoogleOAuthStandIn.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <algorithm>

namespace tavelo::testing {

namespace {

CannedResponse jsonReply(int status, const QJsonObject& object) {
    return CannedResponse::json(status, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// The instant of a start or end; all-day dates count from midnight UTC.
std::optional<QDateTime> instantOf(const QJsonValue& value) {
    const QJsonObject object = value.toObject();
    if (object.value("dateTime").isString()) {
        QDateTime t = QDateTime::fromString(object.value("dateTime").toString(), Qt::ISODate);
        if (t.isValid()) return t.toUTC();
    }
    if (object.value("date").isString()) {
        const QDate d = QDate::fromString(object.value("date").toString(), Qt::ISODate);
        if (d.isValid()) return QDateTime(d, QTime(0, 0), Qt::UTC);
    }
    return std::nullopt;
}

// Google's patch semantics: members of objects merge, null removes, anything
// else (arrays included) replaces.
void mergePatch(QJsonObject& target, const QJsonObject& patch) {
    for (auto it = patch.begin(); it != patch.end(); ++it) {
        if (it->isNull()) {
            target.remove(it.key());
        } else if (it->isObject() && target.value(it.key()).isObject()) {
            QJsonObject inner = target.value(it.key()).toObject();
            mergePatch(inner, it->toObject());
            target.insert(it.key(), inner);
        } else if (it->isObject()) {
            QJsonObject inner;
            mergePatch(inner, it->toObject());
            target.insert(it.key(), inner);
        } else {
            target.insert(it.key(), *it);
        }
    }
}

// A query parameter, if sent.
std::optional<QString> param(const std::map<QString, QString>& query, const char* key) {
    auto it = query.find(QString::fromLatin1(key));
    return it == query.end() ? std::nullopt : std::optional<QString>(it->second);
}

// A request body that is one JSON object.
std::optional<QJsonObject> objectBody(const QByteArray& body) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
    return document.object();
}

} // namespace

GoogleCalendarStandIn::GoogleCalendarStandIn() {
    server_.setFallback([this](const RecordedRequest& request) { return handle(request); });
}

QUrl GoogleCalendarStandIn::baseURL() const { return QUrl(server_.baseUrl() + QLatin1String(kBasePath)); }

CannedResponse GoogleCalendarStandIn::googleError(int status, const char* reason, const char* message) {
    QJsonObject error{{"domain", "global"}, {"reason", reason}, {"message", message}};
    QJsonObject body{{"error", QJsonObject{{"errors", QJsonArray{error}}, {"code", status}, {"message", message}}}};
    return jsonReply(status, body);
}

void GoogleCalendarStandIn::addCalendar(const QString& id, const QString& summary, bool primary,
                                        const QString& accessRole, const QString& timeZone) {
    QJsonObject entry{{"kind", "calendar#calendarListEntry"},
                      {"etag", QStringLiteral("\"%1\"").arg(++sequence_)},
                      {"id", id},
                      {"summary", summary},
                      {"timeZone", timeZone},
                      {"backgroundColor", "#039be5"},
                      {"selected", true},
                      {"accessRole", accessRole}};
    if (primary) entry.insert("primary", true);
    if (!calendars_.contains(id)) calendarOrder_.push_back(id);
    calendars_[id].entry = entry;
}

bool GoogleCalendarStandIn::matchesETag(const RecordedRequest& request, const StoredEvent& stored) {
    const auto ifMatch = request.header("if-match");
    return !ifMatch || *ifMatch == "*" || QString::fromUtf8(*ifMatch) == stored.body.value("etag").toString();
}

void GoogleCalendarStandIn::stamp(StoredEvent& stored) {
    stored.sequence = ++sequence_;
    stored.body.insert("etag", QStringLiteral("\"%1\"").arg(stored.sequence));
    // Google's clock as the stand-in keeps it: a second per change, so that
    // every change is later than the one before.
    const QDateTime updated = QDateTime(QDate(2026, 11, 1), QTime(0, 0), Qt::UTC).addSecs(stored.sequence);
    stored.body.insert("updated", updated.toString(Qt::ISODateWithMs));
}

QJsonObject GoogleCalendarStandIn::putEvent(const QString& calendarID, QJsonObject event) {
    auto& calendar = calendars_[calendarID];
    if (!event.contains("id")) event.insert("id", QStringLiteral("remote%1").arg(++tokenCounter_));
    if (!event.contains("status")) event.insert("status", "confirmed");
    event.insert("kind", "calendar#event");
    StoredEvent& stored = calendar.events[event.value("id").toString()];
    stored.body = event;
    stamp(stored);
    return stored.body;
}

void GoogleCalendarStandIn::cancelEvent(const QString& calendarID, const QString& eventID) {
    auto& stored = calendars_.at(calendarID).events.at(eventID);
    stored.body.insert("status", "cancelled");
    stamp(stored);
}

std::optional<QJsonObject> GoogleCalendarStandIn::event(const QString& calendarID, const QString& eventID) const {
    auto calendar = calendars_.find(calendarID);
    if (calendar == calendars_.end()) return std::nullopt;
    auto it = calendar->second.events.find(eventID);
    if (it == calendar->second.events.end()) return std::nullopt;
    return it->second.body;
}

int GoogleCalendarStandIn::liveEventCount(const QString& calendarID) const {
    auto calendar = calendars_.find(calendarID);
    if (calendar == calendars_.end()) return 0;
    return int(std::count_if(calendar->second.events.begin(), calendar->second.events.end(), [](const auto& e) {
        return e.second.body.value("status").toString() != QLatin1String("cancelled");
    }));
}

void GoogleCalendarStandIn::expireSyncTokens() { syncTokens_.clear(); }

void GoogleCalendarStandIn::failNext(const QByteArray& method, CannedResponse response) {
    faults_[method].push_back(std::move(response));
}

int GoogleCalendarStandIn::countOf(const QByteArray& method) const {
    const auto& all = server_.requests();
    return int(std::count_if(all.begin(), all.end(), [&](const RecordedRequest& r) { return r.method == method; }));
}

std::optional<CannedResponse> GoogleCalendarStandIn::handle(const RecordedRequest& request) {
    for (const auto& [method, fragment] : holds_)
        if (method == request.method && (request.path + '?' + request.query).contains(fragment)) return std::nullopt;
    for (auto it = pathFaults_.begin(); it != pathFaults_.end(); ++it) {
        if (it->method == request.method && (request.path + '?' + request.query).contains(it->fragment)) {
            CannedResponse fault = it->response;
            pathFaults_.erase(it);
            return fault;
        }
    }
    if (auto& queue = faults_[request.method]; !queue.empty()) {
        CannedResponse fault = queue.front();
        queue.pop_front();
        return fault;
    }
    const auto authorization = request.header("authorization").value_or(QByteArray());
    const QString bearer = QString::fromUtf8(authorization.mid(7));
    const bool accepted = tokens_.contains(bearer) || (validator_ && validator_(bearer));
    if (!authorization.startsWith("Bearer ") || !accepted) return googleError(401, "authError", "Invalid Credentials");

    const QByteArray base = kBasePath;
    if (!request.path.startsWith(base + '/')) return googleError(404, "notFound", "Not Found");
    std::vector<QString> segments;
    for (const QByteArray& raw : request.path.mid(base.size() + 1).split('/'))
        segments.push_back(QUrl::fromPercentEncoding(raw));
    const auto query = parseForm(request.query).value_or(std::map<QString, QString>());

    const QByteArray& method = request.method;
    if (segments.size() == 3 && segments[0] == "users" && segments[1] == "me" && segments[2] == "calendarList" &&
        method == "GET")
        return listCalendars();
    if (segments.size() == 1 && segments[0] == "freeBusy" && method == "POST") return freeBusy(request);
    if (segments.size() >= 3 && segments[0] == "calendars" && segments[2] == "events") {
        const QString& calendarID = segments[1];
        if (!calendars_.contains(calendarID)) return googleError(404, "notFound", "Not Found");
        if (segments.size() == 3 && method == "GET") return listEvents(calendarID, query);
        if (segments.size() == 3 && method == "POST") return insertEvent(calendarID, request, query);
        if (segments.size() == 4 && method == "GET") return readEvent(calendarID, segments[3]);
        if (segments.size() == 4 && method == "PATCH") return patchEvent(calendarID, segments[3], request, query);
        if (segments.size() == 4 && method == "DELETE") return deleteEvent(calendarID, segments[3], request);
    }
    return googleError(404, "notFound", "Not Found");
}

// Every calendar on one page: the tests keep far fewer than a page holds.
CannedResponse GoogleCalendarStandIn::listCalendars() {
    QJsonArray items;
    for (const QString& id : calendarOrder_) items.append(calendars_.at(id).entry);
    return jsonReply(200, QJsonObject{{"kind", "calendar#calendarList"}, {"items", items}});
}

QJsonObject GoogleCalendarStandIn::listedForm(const StoredEvent& stored) const {
    if (stored.body.value("status").toString() == QLatin1String("cancelled"))
        return QJsonObject{{"kind", "calendar#event"},
                           {"etag", stored.body.value("etag")},
                           {"id", stored.body.value("id")},
                           {"status", "cancelled"}};
    return stored.body;
}

CannedResponse GoogleCalendarStandIn::listEvents(const QString& calendarID, const std::map<QString, QString>& query) {
    Calendar& calendar = calendars_.at(calendarID);
    const auto value = [&](const char* key) { return param(query, key); };
    int pageSize = 250;
    if (auto max = value("maxResults")) pageSize = std::min(max->toInt(), kMaximumEventPageSize);

    Cursor cursor;
    if (auto pageToken = value("pageToken")) {
        auto it = cursors_.find(*pageToken);
        if (it == cursors_.end() || it->second.calendarID != calendarID)
            return googleError(400, "invalid", "Invalid page token value.");
        cursor = it->second;
    } else {
        // Listings by time range are not kept here: the app lists whole calendars.
        const auto syncToken = value("syncToken");
        if (value("timeMin") || value("timeMax")) return googleError(400, "invalid", "Not supported here.");
        cursor.calendarID = calendarID;
        cursor.snapshot = sequence_;
        std::vector<const StoredEvent*> chosen;
        if (syncToken) {
            auto it = syncTokens_.find(*syncToken);
            if (it == syncTokens_.end() || it->second.first != calendarID)
                return googleError(410, "fullSyncRequired", "Sync token is no longer valid, a full sync is required.");
            for (const auto& [id, stored] : calendar.events)
                if (stored.sequence > it->second.second) chosen.push_back(&stored);
            std::sort(chosen.begin(), chosen.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
        } else {
            const bool showDeleted = value("showDeleted") == QStringLiteral("true");
            for (const auto& [id, stored] : calendar.events) {
                const bool cancelled = stored.body.value("status").toString() == QLatin1String("cancelled");
                if (!cancelled || showDeleted) chosen.push_back(&stored);
            }
        }
        for (const auto* stored : chosen) cursor.ids.push_back(stored->body.value("id").toString());
    }

    QJsonArray items;
    std::size_t next = cursor.offset;
    while (next < cursor.ids.size() && items.size() < pageSize) {
        auto it = calendar.events.find(cursor.ids[next++]);
        if (it == calendar.events.end()) continue;
        advanceConference(it->second);
        items.append(listedForm(it->second));
    }
    QJsonObject body{{"kind", "calendar#events"}, {"timeZone", calendar.entry.value("timeZone")}, {"items", items}};
    if (next < cursor.ids.size()) {
        const QString token = QStringLiteral("page-%1").arg(++tokenCounter_);
        cursor.offset = next;
        cursors_[token] = cursor;
        body.insert("nextPageToken", token);
    } else {
        const QString token = QStringLiteral("sync-%1").arg(++tokenCounter_);
        syncTokens_[token] = {calendarID, cursor.snapshot};
        body.insert("nextSyncToken", token);
    }
    return jsonReply(200, body);
}

bool GoogleCalendarStandIn::startsConference(const QJsonObject& body, const std::map<QString, QString>& query) {
    return param(query, "conferenceDataVersion") == QStringLiteral("1") &&
           body.value("conferenceData").toObject().value("createRequest").isObject();
}

void GoogleCalendarStandIn::startConference(QJsonObject& body, const QJsonObject& asked, StoredEvent& stored) {
    QJsonObject create = asked.value("createRequest").toObject();
    create.insert("status", QJsonObject{{"statusCode", "pending"}});
    body.insert("conferenceData", QJsonObject{{"createRequest", create}});
    stored.conferencePending = true;
}

void GoogleCalendarStandIn::advanceConference(StoredEvent& stored) {
    if (!stored.conferencePending) return;
    stored.conferencePending = false;
    const QString link = QStringLiteral("https://meet.google.com/tav-%1-elo").arg(stored.sequence % 10000);
    QJsonObject conference = stored.body.value("conferenceData").toObject();
    QJsonObject create = conference.value("createRequest").toObject();
    create.insert("status", QJsonObject{{"statusCode", "success"}});
    conference.insert("createRequest", create);
    conference.insert("entryPoints", QJsonArray{QJsonObject{{"entryPointType", "video"}, {"uri", link}}});
    conference.insert("conferenceId", link.section('/', -1));
    stored.body.insert("conferenceData", conference);
    stored.body.insert("hangoutLink", link);
    stamp(stored);
}

CannedResponse GoogleCalendarStandIn::insertEvent(const QString& calendarID, const RecordedRequest& request,
                                                  const std::map<QString, QString>& query) {
    auto parsed = objectBody(request.body);
    if (!parsed) return googleError(400, "parseError", "Parse Error");
    QJsonObject body = *parsed;
    auto& events = calendars_.at(calendarID).events;
    QString id = body.value("id").toString();
    if (id.isEmpty()) id = QStringLiteral("gen%1").arg(++tokenCounter_);
    if (events.contains(id)) return googleError(409, "duplicate", "The requested identifier already exists.");
    if (!instantOf(body.value("start")) || !instantOf(body.value("end")))
        return googleError(400, "required", "Missing time.");

    body.insert("id", id);
    body.insert("kind", "calendar#event");
    body.insert("status", "confirmed");
    body.insert("iCalUID", id + QStringLiteral("@google.com"));
    StoredEvent stored;
    if (startsConference(body, query))
        startConference(body, body.value("conferenceData").toObject(), stored);
    else
        body.remove("conferenceData");
    stored.body = body;
    stamp(stored);
    events[id] = stored;
    return jsonReply(200, stored.body);
}

CannedResponse GoogleCalendarStandIn::readEvent(const QString& calendarID, const QString& eventID) {
    auto& events = calendars_.at(calendarID).events;
    auto it = events.find(eventID);
    if (it == events.end()) return googleError(404, "notFound", "Not Found");
    advanceConference(it->second);
    return jsonReply(200, it->second.body);
}

CannedResponse GoogleCalendarStandIn::patchEvent(const QString& calendarID, const QString& eventID,
                                                 const RecordedRequest& request,
                                                 const std::map<QString, QString>& query) {
    auto& events = calendars_.at(calendarID).events;
    auto it = events.find(eventID);
    if (it == events.end() || it->second.body.value("status").toString() == QLatin1String("cancelled"))
        return googleError(404, "notFound", "Not Found");
    if (!matchesETag(request, it->second)) return googleError(412, "conditionNotMet", "Precondition Failed");
    auto parsed = objectBody(request.body);
    if (!parsed) return googleError(400, "parseError", "Parse Error");
    QJsonObject patch = *parsed;
    patch.remove("id");
    const bool conference = startsConference(patch, query);
    if (!conference) patch.remove("conferenceData");

    QJsonObject merged = it->second.body;
    mergePatch(merged, patch);
    if (conference) {
        startConference(merged, patch.value("conferenceData").toObject(), it->second);
        merged.remove("hangoutLink");
    }
    it->second.body = merged;
    stamp(it->second);
    return jsonReply(200, it->second.body);
}

CannedResponse GoogleCalendarStandIn::deleteEvent(const QString& calendarID, const QString& eventID,
                                                  const RecordedRequest& request) {
    auto& events = calendars_.at(calendarID).events;
    auto it = events.find(eventID);
    if (it == events.end()) return googleError(404, "notFound", "Not Found");
    if (it->second.body.value("status").toString() == QLatin1String("cancelled"))
        return googleError(410, "deleted", "Resource has been deleted");
    if (!matchesETag(request, it->second)) return googleError(412, "conditionNotMet", "Precondition Failed");
    it->second.body.insert("status", "cancelled");
    stamp(it->second);
    return CannedResponse{204, {}, {}};
}

CannedResponse GoogleCalendarStandIn::freeBusy(const RecordedRequest& request) {
    const QJsonObject body = QJsonDocument::fromJson(request.body).object();
    const QDateTime from = QDateTime::fromString(body.value("timeMin").toString(), Qt::ISODate);
    const QDateTime to = QDateTime::fromString(body.value("timeMax").toString(), Qt::ISODate);
    if (!from.isValid() || !to.isValid()) return googleError(400, "required", "Missing timeMin or timeMax.");
    if (from >= to) return googleError(400, "timeRangeEmpty", "The specified time range is empty.");
    QJsonObject calendars;
    for (const QJsonValue item : body.value("items").toArray()) {
        const QString id = item.toObject().value("id").toString();
        auto calendar = calendars_.find(id);
        if (calendar == calendars_.end()) continue;
        std::vector<std::pair<QDateTime, QDateTime>> periods;
        for (const auto& [eventID, stored] : calendar->second.events) {
            if (stored.body.value("status").toString() == QLatin1String("cancelled")) continue;
            if (stored.body.value("transparency").toString() == QLatin1String("transparent")) continue;
            const auto start = instantOf(stored.body.value("start"));
            const auto end = instantOf(stored.body.value("end"));
            if (!start || !end || *end <= from || *start >= to) continue;
            periods.emplace_back(std::max(*start, from.toUTC()), std::min(*end, to.toUTC()));
        }
        std::sort(periods.begin(), periods.end());
        QJsonArray busy;
        for (const auto& [start, end] : periods)
            busy.append(QJsonObject{{"start", start.toString(Qt::ISODate)}, {"end", end.toString(Qt::ISODate)}});
        calendars.insert(id, QJsonObject{{"busy", busy}});
    }
    return jsonReply(200, QJsonObject{{"kind", "calendar#freeBusy"},
                                      {"timeMin", body.value("timeMin")},
                                      {"timeMax", body.value("timeMax")},
                                      {"calendars", calendars}});
}

} // namespace tavelo::testing
