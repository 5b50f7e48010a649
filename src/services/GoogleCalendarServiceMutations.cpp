// Event changes through the Google calendar service. A group of events can
// touch several Google calendars of several accounts, with no transaction
// across them, so recovery goes forward: each copy that reaches Google is
// saved locally at once, nothing that succeeded is undone, and what failed is
// named exactly so that a retry sends only the remainder. Inserts use ids the
// program chooses, so repeating one cannot duplicate an event.

#include "services/GoogleCalendarService.h"

#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarMapper.h"
#include "google/GoogleLog.h"
#include "services/GoogleSyncEngine.h"
#include "services/LocalCalendarService.h"
#include "support/DateCalendar.h"

#include <QTimeZone>

#include <algorithm>
#include <set>

namespace tavelo {

using APIKind = GoogleCalendarAPIError::Kind;

struct GoogleCalendarService::MutationRun {
    GoogleMutationOperation operation;
    AppSnapshot snapshot;
    std::optional<std::set<GoogleMutationDestination>> targeted;
    std::vector<GoogleMutationDestination> failed;
    std::vector<GoogleMutationDestination> conflicts;
    GoogleMutationFailureCause cause = GoogleMutationFailureCause::requestFailure;
    bool cancelled = false;

    bool resolve(const GoogleMutationDestination& d) const { return !targeted || targeted->contains(d); }
    void fail(const GoogleMutationDestination& d) {
        if (std::find(failed.begin(), failed.end(), d) == failed.end()) failed.push_back(d);
    }
    void conflict(const GoogleMutationDestination& d) {
        if (std::find(conflicts.begin(), conflicts.end(), d) == conflicts.end()) conflicts.push_back(d);
    }
};

namespace {

struct ProviderContext {
    QString googleCalendarID;
    DateCalendar timeZone;
    GoogleCalendarAPIClient client;
};

std::optional<QString> trimmedNonEmpty(const std::optional<QString>& text) {
    if (!text) return std::nullopt;
    QString t = text->trimmed();
    if (t.isEmpty()) return std::nullopt;
    return t;
}

const CalendarSource* findCalendar(const AppSnapshot& snapshot, const UUID& id) {
    for (const auto& c : snapshot.calendars)
        if (c.id == id) return &c;
    return nullptr;
}

std::optional<GoogleMutationDestination> mutationDestination(const CalendarEvent& event, const AppSnapshot& snapshot) {
    const CalendarSource* calendar = findCalendar(snapshot, event.calendarID);
    if (!calendar || !trimmedNonEmpty(calendar->googleCalendarID) || !calendar->accountID) return std::nullopt;
    return GoogleMutationDestination{*calendar->accountID, calendar->id, event.id};
}

void replaceOrAppend(AppSnapshot& snapshot, const CalendarEvent& event) {
    for (auto& e : snapshot.events) {
        if (e.id == event.id) {
            e = event;
            return;
        }
    }
    snapshot.events.push_back(event);
}

void removeEvent(AppSnapshot& snapshot, const UUID& id) {
    std::erase_if(snapshot.events, [&](const CalendarEvent& e) { return e.id == id; });
}

std::optional<CalendarEvent> storedEvent(const AppSnapshot& snapshot, const UUID& id) {
    for (const auto& e : snapshot.events)
        if (e.id == id) return e;
    return std::nullopt;
}

void validateEventCalendars(const std::vector<CalendarEvent>& events, const AppSnapshot& snapshot) {
    for (const auto& event : events) {
        if (!findCalendar(snapshot, event.calendarID)) {
            qCWarning(googleSyncLog, "An event names a calendar that does not exist");
            throw CalendarServiceError(CalendarServiceError::Kind::writeFailed);
        }
    }
}

// The conference to ask for: the event's own id, so that a repeated request
// asks for the same conference.
std::optional<QString> conferenceRequestID(const CalendarEvent& event, const std::optional<CalendarEvent>& compared) {
    if (event.meetURL != CalendarEvent::pendingMeetURL()) return std::nullopt;
    if (compared && compared->meetURL == event.meetURL) return std::nullopt;
    return event.id.toString().remove(QLatin1Char('-')).toLower();
}

std::set<GoogleEventPatchField> changedFields(const CalendarEvent& from, const CalendarEvent& to) {
    using F = GoogleEventPatchField;
    std::set<F> fields;
    if (from.title != to.title) fields.insert(F::summary);
    if (from.start != to.start || from.end != to.end || from.isAllDay != to.isAllDay) fields.insert(F::timing);
    if (from.notes != to.notes) fields.insert(F::description);
    if (from.location != to.location) fields.insert(F::location);
    if (from.recurrence != to.recurrence) fields.insert(F::recurrence);
    if (from.guests != to.guests) fields.insert(F::attendees);
    if (from.notifications != to.notifications) fields.insert(F::reminders);
    if (from.availability != to.availability) fields.insert(F::availability);
    if (from.visibility != to.visibility) fields.insert(F::visibility);
    if (from.groupID != to.groupID || from.sourceEventID != to.sourceEventID ||
        from.isGeneratedBusyBlock != to.isGeneratedBusyBlock || from.tagID != to.tagID)
        fields.insert(F::linkage);
    if (from.meetURL != to.meetURL) fields.insert(F::conference);
    return fields;
}

bool remoteChanged(const CalendarEvent& stored, const CalendarEvent& remote) {
    return stored.googleUpdatedAt && remote.googleUpdatedAt && *remote.googleUpdatedAt > *stored.googleUpdatedAt;
}

bool isPrecondition(const GoogleCalendarAPIError& e) { return e.kind() == APIKind::preconditionFailed; }
bool isGone(const GoogleCalendarAPIError& e) {
    return e.kind() == APIKind::httpFailure && (e.statusCode() == 404 || e.statusCode() == 410);
}

// The event Google answered with, as the program stores it.
CalendarEvent mapped(const GoogleEventDTO& dto, const CalendarEvent& desired, const DateCalendar& timeZone) {
    auto event = GoogleCalendarMapper::event(dto, desired.id, desired.calendarID, timeZone);
    if (!event) throw GoogleCalendarAPIError(APIKind::invalidResponse);
    GoogleSyncEngine::preserveAppOwnedEventState(desired, dto, *event);
    // A conference Google has not finished yet keeps its placeholder until a
    // later read brings the link.
    if (!event->meetURL && desired.meetURL == CalendarEvent::pendingMeetURL()) event->meetURL = desired.meetURL;
    return *event;
}

} // namespace

namespace {

ProviderContext providerContext(const CalendarEvent& event, const AppSnapshot& snapshot,
                                const std::map<UUID, QString>& calendarTimeZones,
                                const GoogleCalendarService::MakeAPIClient& makeAPIClient) {
    const CalendarSource* calendar = findCalendar(snapshot, event.calendarID);
    if (!calendar || !calendar->accountID) throw GoogleCalendarServiceError::accountNotFound();
    const Account* account = nullptr;
    for (const auto& a : snapshot.accounts)
        if (a.id == *calendar->accountID) account = &a;
    if (!account) throw GoogleCalendarServiceError::accountNotFound();
    const auto subject = trimmedNonEmpty(account->googleSubject);
    if (!subject) throw GoogleCalendarServiceError::reconnectRequired(account->id);
    QString zone;
    if (auto known = GoogleCalendarMapper::normalizedTimeZoneIdentifier(calendar->googleTimeZoneIdentifier))
        zone = *known;
    else if (auto it = calendarTimeZones.find(calendar->id); it != calendarTimeZones.end())
        zone = it->second;
    else
        zone = QString::fromUtf8(QTimeZone::systemTimeZoneId());
    return ProviderContext{calendar->googleCalendarID->trimmed(), GoogleCalendarMapper::calendarForTimeZone(zone),
                           makeAPIClient(*subject)};
}

} // namespace

// The event at Google under `googleID`, mapped with what only the program
// knows from `preserving`; nothing when it is gone.
static QCoro::Task<std::optional<CalendarEvent>> currentRemoteEventIfPresent(const ProviderContext& context,
                                                                             QString googleID,
                                                                             CalendarEvent preserving) {
    std::optional<GoogleEventDTO> dto;
    try {
        dto = co_await context.client.getEvent(context.googleCalendarID, googleID);
    } catch (const GoogleCalendarAPIError& e) {
        if (!isGone(e)) throw;
    }
    if (!dto || dto->status == QStringLiteral("cancelled")) co_return std::nullopt;
    CalendarEvent event = mapped(*dto, preserving, context.timeZone);
    co_return event;
}

QCoro::Task<void> GoogleCalendarService::upsertStep(MutationRun& run, CalendarEvent desired,
                                                    GoogleMutationDestination destination, bool probeRemote) {
    const ProviderContext context = providerContext(desired, run.snapshot, calendarTimeZones_, functions_.makeAPIClient);
    std::optional<CalendarEvent> base = storedEvent(run.snapshot, desired.id);
    if (base && base->calendarID != desired.calendarID) base.reset();
    if (base && !base->googleEventID) base.reset();
    if (!base && probeRemote) {
        // It may have reached Google in an earlier try that was cut short.
        const GoogleEventInsertDTO probe = GoogleCalendarMapper::insertRequest(desired, context.timeZone, std::nullopt);
        base = co_await currentRemoteEventIfPresent(context, probe.id, desired);
    }

    if (!base) {
        const GoogleEventInsertDTO request =
            GoogleCalendarMapper::insertRequest(desired, context.timeZone, conferenceRequestID(desired, std::nullopt));
        GoogleEventDTO dto = co_await context.client.insertEvent(context.googleCalendarID, request);
        replaceOrAppend(run.snapshot, mapped(dto, desired, context.timeZone));
        co_await local_->save(run.snapshot);
        co_return;
    }

    const auto fields = changedFields(*base, desired);
    if (fields.empty()) {
        CalendarEvent kept = desired;
        kept.googleEventID = base->googleEventID;
        kept.googleETag = base->googleETag;
        kept.googleUpdatedAt = base->googleUpdatedAt;
        replaceOrAppend(run.snapshot, kept);
        co_await local_->save(run.snapshot);
        co_return;
    }

    GoogleEventPatchDTO patch =
        GoogleCalendarMapper::patch(desired, context.timeZone, fields, conferenceRequestID(desired, base));
    patch.etag = base->googleETag;
    std::optional<GoogleEventDTO> dto;
    bool stale = false;
    try {
        dto = co_await context.client.updateEvent(context.googleCalendarID, *base->googleEventID, patch);
    } catch (const GoogleCalendarAPIError& e) {
        if (!isPrecondition(e)) throw;
        stale = true;
    }
    if (stale) {
        // Changed at Google since the last sync.
        auto remote = co_await currentRemoteEventIfPresent(context, *base->googleEventID, *base);
        if (!remote) {
            const GoogleEventInsertDTO request =
                GoogleCalendarMapper::insertRequest(desired, context.timeZone, conferenceRequestID(desired, std::nullopt));
            dto = co_await context.client.insertEvent(context.googleCalendarID, request);
        } else if (remoteChanged(*base, *remote)) {
            replaceOrAppend(run.snapshot, *remote);
            co_await local_->save(run.snapshot);
            run.fail(destination);
            run.conflict(destination);
            co_return;
        } else {
            patch.etag = remote->googleETag;
            dto = co_await context.client.updateEvent(context.googleCalendarID, *base->googleEventID, patch);
        }
    }
    replaceOrAppend(run.snapshot, mapped(*dto, desired, context.timeZone));
    co_await local_->save(run.snapshot);
}

QCoro::Task<void> GoogleCalendarService::deleteStep(MutationRun& run, CalendarEvent stored,
                                                    GoogleMutationDestination destination) {
    if (!stored.googleEventID) {
        removeEvent(run.snapshot, stored.id);
        co_await local_->save(run.snapshot);
        co_return;
    }
    const ProviderContext context = providerContext(stored, run.snapshot, calendarTimeZones_, functions_.makeAPIClient);
    bool stale = false;
    try {
        co_await context.client.deleteEvent(context.googleCalendarID, *stored.googleEventID, stored.googleETag);
    } catch (const GoogleCalendarAPIError& e) {
        if (!isPrecondition(e)) throw;
        stale = true;
    }
    if (stale) {
        auto remote = co_await currentRemoteEventIfPresent(context, *stored.googleEventID, stored);
        if (remote && remoteChanged(stored, *remote)) {
            replaceOrAppend(run.snapshot, *remote);
            co_await local_->save(run.snapshot);
            run.fail(destination);
            run.conflict(destination);
            co_return;
        }
        if (remote) co_await context.client.deleteEvent(context.googleCalendarID, *stored.googleEventID, remote->googleETag);
    }
    removeEvent(run.snapshot, stored.id);
    co_await local_->save(run.snapshot);
}

void GoogleCalendarService::recordFailure(MutationRun& run, const GoogleMutationDestination& destination,
                                          std::exception_ptr error) {
    if (isCancellation(error)) {
        run.cancelled = true;
        run.cause = GoogleMutationFailureCause::cancellation;
    } else {
        qCWarning(googleSyncLog, "A Google copy could not be written: %s", qUtf8Printable(localizedDescription(error)));
        bool reconnect = false;
        try {
            std::rethrow_exception(error);
        } catch (const GoogleCalendarAPIError& e) {
            reconnect = e.kind() == APIKind::reconnectRequired || e.kind() == APIKind::unauthorized;
        } catch (const GoogleCalendarServiceError& e) {
            reconnect = e.kind() == GoogleCalendarServiceError::Kind::reconnectRequired;
        } catch (...) {
        }
        if (reconnect) {
            statuses_[destination.accountID] = GoogleSyncStatus::reconnectRequired;
            for (auto& account : run.snapshot.accounts)
                if (account.id == destination.accountID) account.isConnected = false;
        }
    }
    run.fail(destination);
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::finishMutation(MutationRun& run) {
    co_await local_->save(run.snapshot);
    if (!run.failed.empty())
        throw GoogleCalendarServiceError::partialOperation(run.operation, run.failed, run.conflicts, run.cause);
    std::vector<CalendarEvent> events = run.snapshot.events;
    co_return events;
}

static std::optional<std::set<GoogleMutationDestination>> targetSet(
    const std::optional<std::vector<GoogleMutationDestination>>& targeting) {
    if (!targeting) return std::nullopt;
    return std::set<GoogleMutationDestination>(targeting->begin(), targeting->end());
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::createEventsUngated(
    std::vector<CalendarEvent> events, std::optional<std::vector<GoogleMutationDestination>> targeting) {
    CalendarLoadResult loaded = co_await local_->load();
    MutationRun run{GoogleMutationOperation::create, std::move(loaded.snapshot), targetSet(targeting)};
    validateEventCalendars(events, run.snapshot);
    for (const auto& event : events) {
        const auto destination = mutationDestination(event, run.snapshot);
        if (!destination) {
            replaceOrAppend(run.snapshot, event);
            continue;
        }
        if (!run.resolve(*destination)) continue;
        // Until Google has it, the copy stays in its desired form, without a Google id.
        if (!storedEvent(run.snapshot, event.id)) replaceOrAppend(run.snapshot, event);
        if (run.cancelled) {
            run.fail(*destination);
            continue;
        }
        std::exception_ptr failure;
        try {
            co_await upsertStep(run, event, *destination, false);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) recordFailure(run, *destination, failure);
    }
    std::vector<CalendarEvent> result = co_await finishMutation(run);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::updateEventsUngated(
    UUID groupID, std::vector<CalendarEvent> events, std::optional<std::vector<GoogleMutationDestination>> targeting) {
    CalendarLoadResult loaded = co_await local_->load();
    MutationRun run{GoogleMutationOperation::update, std::move(loaded.snapshot), targetSet(targeting)};
    validateEventCalendars(events, run.snapshot);

    struct Step {
        bool isDelete;
        CalendarEvent event;
        std::optional<GoogleMutationDestination> destination;
    };
    std::vector<Step> steps;
    std::set<UUID> desiredIDs;
    for (const auto& e : events) desiredIDs.insert(e.id);
    for (const auto& stored : run.snapshot.events) {
        if (stored.groupID != groupID) continue;
        auto desired = std::find_if(events.begin(), events.end(), [&](const CalendarEvent& e) { return e.id == stored.id; });
        // A move to another calendar is a delete there and an upsert here.
        const bool moved = desired != events.end() && desired->calendarID != stored.calendarID;
        if (desiredIDs.contains(stored.id) && !moved) continue;
        steps.push_back({true, stored, mutationDestination(stored, run.snapshot)});
    }
    for (const auto& desired : events) steps.push_back({false, desired, mutationDestination(desired, run.snapshot)});

    // Events of a move whose old copy could not be deleted. The old copy
    // keeps its place in the snapshot, with its Google id, until its delete
    // succeeds: were the new copy stored over it (both have the same id),
    // nothing would remember the copy left at Google, and no retry could
    // remove it. So the new copy waits as well, and both are retried.
    std::set<UUID> undeletedMoves;
    for (auto& step : steps) {
        if (!step.isDelete && undeletedMoves.contains(step.event.id)) {
            if (step.destination) run.fail(*step.destination);
            continue;
        }
        if (!step.destination) {
            if (step.isDelete)
                removeEvent(run.snapshot, step.event.id);
            else
                replaceOrAppend(run.snapshot, step.event);
            continue;
        }
        if (!run.resolve(*step.destination)) continue;
        if (run.cancelled) {
            run.fail(*step.destination);
            if (step.isDelete && desiredIDs.contains(step.event.id)) undeletedMoves.insert(step.event.id);
            continue;
        }
        std::exception_ptr failure;
        try {
            if (step.isDelete)
                co_await deleteStep(run, step.event, *step.destination);
            else
                co_await upsertStep(run, step.event, *step.destination, true);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            // A copy that did not reach Google is kept in its desired form.
            if (!step.isDelete) {
                auto stored = storedEvent(run.snapshot, step.event.id);
                CalendarEvent kept = step.event;
                if (stored && stored->calendarID == kept.calendarID) {
                    kept.googleEventID = stored->googleEventID;
                    kept.googleETag = stored->googleETag;
                    kept.googleUpdatedAt = stored->googleUpdatedAt;
                } else {
                    kept.googleEventID.reset();
                    kept.googleETag.reset();
                    kept.googleUpdatedAt.reset();
                }
                replaceOrAppend(run.snapshot, kept);
            }
            recordFailure(run, *step.destination, failure);
        }
        // A conflict keeps Google's version of the old copy: that copy stays, too.
        const bool oldCopyRemains = failure || std::find(run.failed.begin(), run.failed.end(), *step.destination) != run.failed.end();
        if (step.isDelete && oldCopyRemains && desiredIDs.contains(step.event.id)) undeletedMoves.insert(step.event.id);
    }
    std::vector<CalendarEvent> result = co_await finishMutation(run);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::deleteEventsUngated(
    UUID groupID, std::optional<std::vector<GoogleMutationDestination>> targeting) {
    CalendarLoadResult loaded = co_await local_->load();
    MutationRun run{GoogleMutationOperation::remove, std::move(loaded.snapshot), targetSet(targeting)};
    std::vector<CalendarEvent> group;
    for (const auto& e : run.snapshot.events)
        if (e.groupID == groupID) group.push_back(e);
    for (const auto& event : group) {
        const auto destination = mutationDestination(event, run.snapshot);
        if (!destination) {
            removeEvent(run.snapshot, event.id);
            continue;
        }
        if (!run.resolve(*destination)) continue;
        if (run.cancelled) {
            run.fail(*destination);
            continue;
        }
        std::exception_ptr failure;
        try {
            co_await deleteStep(run, event, *destination);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) recordFailure(run, *destination, failure);
    }
    std::vector<CalendarEvent> result = co_await finishMutation(run);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::createEvents(std::vector<CalendarEvent> events) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<CalendarEvent> result = co_await createEventsUngated(std::move(events), std::nullopt);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::updateEvents(UUID groupID,
                                                                            std::vector<CalendarEvent> events) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<CalendarEvent> result = co_await updateEventsUngated(groupID, std::move(events), std::nullopt);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::deleteEvents(UUID groupID) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<CalendarEvent> result = co_await deleteEventsUngated(groupID, std::nullopt);
    co_return result;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::retryMutation(
    GoogleMutationOperation operation, UUID groupID, std::vector<CalendarEvent> completeDesiredEvents,
    std::vector<GoogleMutationDestination> remainingDestinations) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::optional<std::vector<GoogleMutationDestination>> targeting = std::move(remainingDestinations);
    std::vector<CalendarEvent> result;
    switch (operation) {
    case GoogleMutationOperation::create:
        result = co_await createEventsUngated(std::move(completeDesiredEvents), targeting);
        break;
    case GoogleMutationOperation::update:
        result = co_await updateEventsUngated(groupID, std::move(completeDesiredEvents), targeting);
        break;
    case GoogleMutationOperation::remove:
        result = co_await deleteEventsUngated(groupID, targeting);
        break;
    }
    co_return result;
}

// The busy time of calendars across accounts. Google's calendars are asked
// through free-busy, one request per account, which is all or nothing for
// that account; the program's own calendars answer from the local store. The
// group being edited must not block itself: a Google period that lies wholly
// inside the group's own stored time is left out.
QCoro::Task<std::vector<CalendarBusyInterval>> GoogleCalendarService::freeBusy(std::set<UUID> calendarIDs,
                                                                               DateInterval interval,
                                                                               std::optional<UUID> excludingGroupID) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult loaded = co_await local_->load();
    const AppSnapshot& snapshot = loaded.snapshot;

    std::set<UUID> localIDs;
    std::vector<std::pair<UUID, std::vector<const CalendarSource*>>> byAccount;
    for (const auto& calendar : snapshot.calendars) {
        if (!calendarIDs.contains(calendar.id)) continue;
        if (!trimmedNonEmpty(calendar.googleCalendarID) || !calendar.accountID) {
            localIDs.insert(calendar.id);
            continue;
        }
        auto it = std::find_if(byAccount.begin(), byAccount.end(), [&](const auto& p) { return p.first == *calendar.accountID; });
        if (it == byAccount.end()) byAccount.push_back({*calendar.accountID, {&calendar}});
        else it->second.push_back(&calendar);
    }

    std::vector<CalendarBusyInterval> busy;
    if (!localIDs.empty()) busy = co_await local_->freeBusy(localIDs, interval, excludingGroupID);

    // The group's own time, merged.
    std::vector<DateInterval> own;
    if (excludingGroupID) {
        for (const auto& e : snapshot.events)
            if (e.groupID == *excludingGroupID && e.end > e.start) own.push_back({e.start, e.end});
        std::sort(own.begin(), own.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
        std::vector<DateInterval> merged;
        for (const auto& i : own) {
            if (!merged.empty() && i.start <= merged.back().end) merged.back().end = std::max(merged.back().end, i.end);
            else merged.push_back(i);
        }
        own = std::move(merged);
    }
    const auto fullyCovered = [&](const DateInterval& period) {
        return std::any_of(own.begin(), own.end(), [&](const DateInterval& i) { return i.start <= period.start && period.end <= i.end; });
    };

    const QString zone = QString::fromUtf8(QTimeZone::systemTimeZoneId());
    for (const auto& [accountID, calendars] : byAccount) {
        const Account* account = nullptr;
        for (const auto& a : snapshot.accounts)
            if (a.id == accountID) account = &a;
        if (!account) throw GoogleCalendarServiceError::accountNotFound();
        const auto subject = trimmedNonEmpty(account->googleSubject);
        if (!subject) throw GoogleCalendarServiceError::reconnectRequired(accountID);

        std::vector<QString> googleIDs;
        for (const auto* c : calendars) googleIDs.push_back(c->googleCalendarID->trimmed());
        std::vector<CalendarBusyInterval> found;
        std::exception_ptr failure;
        try {
            const GoogleCalendarAPIClient client = functions_.makeAPIClient(*subject);
            GoogleFreeBusyResponseDTO response = co_await client.freeBusy(googleIDs, interval.start, interval.end, zone);
            for (std::size_t k = 0; k < calendars.size(); ++k) {
                for (const auto& period : *response.calendars->at(googleIDs[k]).busy) {
                    const auto start = GoogleCalendarMapper::parseInstant(period.start);
                    const auto end = GoogleCalendarMapper::parseInstant(period.end);
                    if (!start || !end || !(*end > *start)) throw GoogleCalendarAPIError(APIKind::invalidResponse);
                    const DateInterval clipped{std::max(*start, interval.start), std::min(*end, interval.end)};
                    if (!(clipped.end > clipped.start) || fullyCovered(clipped)) continue;
                    found.push_back(CalendarBusyInterval{UUID(), calendars[k]->id, clipped});
                }
            }
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            if (isCancellation(failure)) std::rethrow_exception(failure);
            qCWarning(googleSyncLog, "Free-busy failed: %s", qUtf8Printable(localizedDescription(failure)));
            bool reconnect = false;
            try {
                std::rethrow_exception(failure);
            } catch (const GoogleCalendarAPIError& e) {
                reconnect = e.kind() == APIKind::reconnectRequired || e.kind() == APIKind::unauthorized;
            } catch (...) {
            }
            if (reconnect) {
                statuses_[accountID] = GoogleSyncStatus::reconnectRequired;
                co_await markAccountDisconnected(accountID);
                throw GoogleCalendarServiceError::reconnectRequired(accountID);
            }
            throw GoogleCalendarServiceError::syncFailed(accountID);
        }
        busy.insert(busy.end(), found.begin(), found.end());
    }
    co_return busy;
}

} // namespace tavelo
