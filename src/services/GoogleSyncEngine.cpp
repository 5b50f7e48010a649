#include "services/GoogleSyncEngine.h"

#include "google/GoogleCalendarMapper.h"
#include "google/StableUUID.h"

#include "support/DateCalendar.h"

#include <QHash>
#include <QSet>
#include <QTimeZone>

#include <algorithm>
#include <deque>
#include <iterator>
#include <type_traits>

namespace tavelo {

namespace {

const QString& consumerMailDomain() {
    static const QString domain = QStringLiteral("gmail.com");
    return domain;
}

// The text without surrounding white space, or nothing when that is empty.
// Ids almost never carry spaces, so the common case is a shared copy.
std::optional<QString> trimmedID(const std::optional<QString>& text) {
    if (!text || text->isEmpty()) return std::nullopt;
    if (!text->front().isSpace() && !text->back().isSpace()) return *text;
    QString trimmed = text->trimmed();
    if (trimmed.isEmpty()) return std::nullopt;
    return trimmed;
}

bool hasToken(const std::optional<QString>& token) { return token && !token->trimmed().isEmpty(); }

bool isHexColor(const QString& text) {
    if (text.size() != 7 || text[0] != u'#') return false;
    for (qsizetype i = 1; i < 7; ++i) {
        const char16_t c = text[i].unicode();
        const bool hex = (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        if (!hex) return false;
    }
    return true;
}

void setSyncState(AppSnapshot& snapshot, GoogleCalendarSyncState state) {
    for (auto& existing : snapshot.googleSyncStates) {
        if (existing.calendarID == state.calendarID) {
            existing = std::move(state);
            return;
        }
    }
    snapshot.googleSyncStates.push_back(std::move(state));
}

void validateListing(const std::vector<GoogleEventPage>& pages) {
    using Kind = GoogleSyncEngineError::Kind;
    if (pages.empty()) throw GoogleSyncEngineError(Kind::incompletePagination);
    for (std::size_t i = 0; i + 1 < pages.size(); ++i)
        if (!hasToken(pages[i].nextPageToken)) throw GoogleSyncEngineError(Kind::incompletePagination);
    if (hasToken(pages.back().nextPageToken)) throw GoogleSyncEngineError(Kind::incompletePagination);
    if (!hasToken(pages.back().nextSyncToken)) throw GoogleSyncEngineError(Kind::missingSyncToken);
}

// Which of the program's private properties a record carries.
enum PrivateKey : unsigned char { groupKey = 1, parentKey = 2, busyBlockKey = 4 };

unsigned char privateKeysOf(const GoogleEventDTO& dto) {
    using namespace GoogleCalendarMapper;
    unsigned char keys = 0;
    if (dto.privateProperty(groupIDKey())) keys |= groupKey;
    if (dto.privateProperty(parentEventIDKey())) keys |= parentKey;
    if (dto.privateProperty(generatedBusyBlockKey())) keys |= busyBlockKey;
    return keys;
}

void preserveState(const CalendarEvent& stored, unsigned char keys, CalendarEvent& mapped) {
    mapped.kind = stored.kind;
    mapped.isCompleted = stored.isCompleted;
    if (!mapped.tagID) mapped.tagID = stored.tagID;
    if (!(keys & groupKey)) mapped.groupID = stored.groupID;
    if (!(keys & parentKey)) mapped.sourceEventID = stored.sourceEventID;
    if (!(keys & busyBlockKey)) mapped.isGeneratedBusyBlock = stored.isGeneratedBusyBlock;
}

bool isKnownZone(const QString& id) { return !id.isEmpty() && QTimeZone(id.toUtf8()).isValid(); }

// The stored events of a calendar that a listing names, by Google id. The
// first of several copies is the one that is updated; the others go when
// Google lists the id again. In a full listing a stored Google event that the
// listing does not name goes too; events without a Google id are pending
// local work and always stay.
struct StoredCopies {
    QHash<QString, std::size_t> first;
    std::vector<std::pair<QString, std::size_t>> extra;
    std::vector<std::size_t> dropped;
};

template <class Names>
StoredCopies storedCopies(const std::vector<CalendarEvent>& events, const UUID& calendarID, const Names& named,
                          const QSet<QString>& deleted, bool full) {
    StoredCopies copies;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const auto& e = events[i];
        if (e.calendarID != calendarID) continue;
        auto id = trimmedID(e.googleEventID);
        if (!id) continue;
        if (!named.contains(*id) && !deleted.contains(*id)) {
            if (full) copies.dropped.push_back(i);
            continue;
        }
        if (copies.first.contains(*id))
            copies.extra.emplace_back(std::move(*id), i);
        else
            copies.first.insert(std::move(*id), i);
    }
    return copies;
}

// Removes the events at `positions` (in any order, repeats allowed) in one
// pass, keeping the order of the rest.
void eraseAt(std::vector<CalendarEvent>& events, const std::vector<std::size_t>& positions) {
    if (positions.empty()) return;
    std::vector<char> drop(events.size(), 0);
    for (std::size_t position : positions) drop[position] = 1;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (drop[i]) continue;
        if (kept != i) events[kept] = std::move(events[i]);
        ++kept;
    }
    events.erase(events.begin() + static_cast<std::ptrdiff_t>(kept), events.end());
}

} // namespace

// --- a listing taken in page by page ---------------------------------------------

struct GoogleEventListing::State {
    // Times read in a zone that a later page may still replace: what is
    // needed to read them again.
    struct ZoneBound {
        QString zoneID;
        UUID localID;
        GoogleEventDateTimeDTO start;
        GoogleEventDateTimeDTO end;
        // The whole record, when it could not be read in `zoneID`.
        std::unique_ptr<GoogleEventDTO> record;
    };
    struct Entry {
        QString googleID; // trimmed; empty when the record has none
        // The event the record maps to, unless it waits in `fresh` (at
        // `slot`) or the record could not be read.
        std::unique_ptr<CalendarEvent> mapped;
        std::ptrdiff_t slot = -1;
        unsigned char privateKeys = 0;
        std::unique_ptr<ZoneBound> zoneBound;
    };

    State(const CalendarSource& calendar, DateCalendar zone, const AppSnapshot& snapshot)
        : calendarID(calendar.id), zone(std::move(zone)), storedEvents(&snapshot.events),
          storedEventCount(snapshot.events.size()) {}

    UUID calendarID;
    DateCalendar zone;
    QString zoneID;
    bool followsPageZones = false;
    std::optional<QString> statedZone;
    // The events of the snapshot the listing will be merged into, read
    // only while pages come in. A short listing looks its few ids up in one
    // pass; a longer one indexes the calendar's stored ids, once.
    const std::vector<CalendarEvent>* storedEvents;
    QHash<QString, UUID> storedIDs;
    bool indexed = false;

    // The local ids of the stored events that `page` names (all of them once
    // indexed). The first stored copy of an id is the one a listing updates.
    const QHash<QString, UUID>& storedIDsFor(const GoogleEventPage& page, QHash<QString, UUID>& found) {
        if (indexed) return storedIDs;
        const bool shortListing = pageCount < 2 && storedEvents->size() > 8 * page.events.size() + 64;
        QSet<QString> wanted;
        if (shortListing) {
            for (const auto& dto : page.events)
                if (auto id = trimmedID(dto.id)) wanted.insert(std::move(*id));
        }
        QHash<QString, UUID>& into = shortListing ? found : storedIDs;
        for (const auto& e : *storedEvents) {
            if (e.calendarID != calendarID) continue;
            auto id = trimmedID(e.googleEventID);
            if (!id || (shortListing && !wanted.contains(*id)) || into.contains(*id)) continue;
            into.insert(std::move(*id), e.id);
        }
        if (!shortListing) {
            indexed = true;
            storedEvents = nullptr;
        }
        return into;
    }

    // Every record, in listing order.
    std::deque<Entry> entries;
    // Events of ids the snapshot does not store yet, in the order their
    // first readable record came; a later readable record of an id takes
    // its place, and the earlier event goes back to its own entry. This is
    // the storage the merged events end up in.
    std::vector<CalendarEvent> fresh;
    std::vector<std::size_t> freshOwner; // the entry whose event each slot holds
    std::size_t storedEventCount = 0;
    // Every id the listing names (readable or not), with its slot in `fresh`
    // or -1; the ids named more than once, and those the listing deletes.
    QHash<QString, std::ptrdiff_t> named;
    QSet<QString> repeated;
    QSet<QString> deleted;

    std::size_t pageCount = 0;
    bool brokenChain = false;
    bool lastHadNextPage = false;
    std::optional<QString> lastSyncToken;
    int skipped = 0;
};

GoogleEventListing::GoogleEventListing(std::unique_ptr<State> state) : state_(std::move(state)) {}

GoogleEventListing::GoogleEventListing(const CalendarSource& calendar, const DateCalendar& timeZone,
                                       const AppSnapshot& snapshot)
    : state_(std::make_unique<State>(calendar, timeZone, snapshot)) {
    state_->zoneID = timeZone.timeZoneID();
}

GoogleEventListing GoogleEventListing::followingPageZones(const CalendarSource& calendar,
                                                          const QString& fallbackTimeZoneID,
                                                          const AppSnapshot& snapshot) {
    auto state = std::make_unique<State>(calendar, GoogleCalendarMapper::calendarForTimeZone(fallbackTimeZoneID),
                                         snapshot);
    state->zoneID = fallbackTimeZoneID;
    state->followsPageZones = true;
    return GoogleEventListing(std::move(state));
}

GoogleEventListing::GoogleEventListing(GoogleEventListing&&) noexcept = default;
GoogleEventListing& GoogleEventListing::operator=(GoogleEventListing&&) noexcept = default;
GoogleEventListing::~GoogleEventListing() = default;

const std::optional<QString>& GoogleEventListing::statedTimeZone() const { return state_->statedZone; }

void GoogleEventListing::add(const GoogleEventPage& page) {
    State& s = *state_;
    if (s.pageCount > 0 && !s.lastHadNextPage) s.brokenChain = true;
    ++s.pageCount;
    s.lastHadNextPage = hasToken(page.nextPageToken);
    s.lastSyncToken = page.nextSyncToken;
    s.skipped += page.skippedItemCount;

    if (s.followsPageZones && page.timeZone && isKnownZone(*page.timeZone)) {
        s.statedZone = *page.timeZone;
        if (*page.timeZone != s.zoneID) {
            s.zoneID = *page.timeZone;
            s.zone = GoogleCalendarMapper::calendarForTimeZone(s.zoneID);
        }
    }

    QHash<QString, UUID> storedOnPage;
    const QHash<QString, UUID>& storedIDs = s.storedIDsFor(page, storedOnPage);
    for (const auto& dto : page.events) {
        State::Entry entry;
        entry.googleID = trimmedID(dto.id).value_or(QString());
        UUID localID;
        std::ptrdiff_t* slot = nullptr;
        if (entry.googleID.isEmpty()) {
            localID = stableUUID(s.calendarID, entry.googleID);
        } else {
            auto at = s.named.find(entry.googleID);
            if (at != s.named.end())
                s.repeated.insert(entry.googleID);
            else
                at = s.named.insert(entry.googleID, -1);
            slot = &at.value();
            const auto stored = storedIDs.constFind(entry.googleID);
            localID = stored != storedIDs.cend() ? *stored : stableUUID(s.calendarID, entry.googleID);
        }
        auto mapped = GoogleCalendarMapper::event(dto, localID, s.calendarID, s.zone);
        entry.privateKeys = privateKeysOf(dto);
        if (s.followsPageZones && GoogleCalendarMapper::timesDependOnCalendarZone(dto)) {
            auto bound = std::make_unique<State::ZoneBound>();
            bound->zoneID = s.zoneID;
            bound->localID = localID;
            bound->start = *dto.start;
            bound->end = *dto.end;
            if (!mapped) bound->record = std::make_unique<GoogleEventDTO>(dto);
            entry.zoneBound = std::move(bound);
        }
        const std::size_t index = s.entries.size();
        if (!mapped) {
            // Counted as skipped by the merge.
        } else if (entry.googleID.isEmpty() || storedIDs.contains(entry.googleID)) {
            entry.mapped = std::make_unique<CalendarEvent>(std::move(*mapped));
        } else if (*slot >= 0) {
            auto& previous = s.entries[s.freshOwner[*slot]];
            previous.mapped = std::make_unique<CalendarEvent>(std::move(s.fresh[*slot]));
            previous.slot = -1;
            s.fresh[*slot] = std::move(*mapped);
            s.freshOwner[*slot] = index;
            entry.slot = static_cast<std::ptrdiff_t>(*slot);
        } else {
            if (s.fresh.size() == s.fresh.capacity() && s.fresh.size() >= s.storedEventCount) {
                // Room for the stored events too, so that the merge can put
                // them in front without moving every event again.
                s.fresh.reserve(2 * s.fresh.size() + s.storedEventCount + 64);
            }
            entry.slot = static_cast<std::ptrdiff_t>(s.fresh.size());
            *slot = entry.slot;
            s.fresh.push_back(std::move(*mapped));
            s.freshOwner.push_back(index);
        }
        s.entries.push_back(std::move(entry));
    }
    for (const auto& rawID : page.deletedEventIDs)
        if (auto id = trimmedID(rawID)) s.deleted.insert(std::move(*id));
}

void GoogleEventListing::checkComplete() const {
    using Kind = GoogleSyncEngineError::Kind;
    const State& s = *state_;
    if (s.pageCount == 0 || s.brokenChain || s.lastHadNextPage) throw GoogleSyncEngineError(Kind::incompletePagination);
    if (!hasToken(s.lastSyncToken)) throw GoogleSyncEngineError(Kind::missingSyncToken);
}

struct GoogleEventListingAccess {
    static GoogleSyncMergeResult merge(GoogleEventListing&& listing, GoogleSyncMode mode, Date completedAt,
                                       AppSnapshot snapshot);
};

GoogleSyncMergeResult GoogleEventListingAccess::merge(GoogleEventListing&& listing, GoogleSyncMode mode,
                                                      Date completedAt, AppSnapshot snapshot) {
    listing.checkComplete();
    // The listing is used up by the merge.
    const std::unique_ptr<GoogleEventListing::State> state = std::move(listing.state_);
    GoogleEventListing::State& s = *state;

    // Times read in a zone other than the one the listing ended with are read
    // again. That can make a record readable or not, and so change which
    // record of an id comes first: every record then goes back to its own
    // entry and is placed anew.
    const bool reread = std::any_of(s.entries.cbegin(), s.entries.cend(), [&](const auto& entry) {
        return entry.zoneBound && entry.zoneBound->zoneID != s.zoneID;
    });
    if (reread) {
        for (std::size_t slot = 0; slot < s.fresh.size(); ++slot) {
            auto& owner = s.entries[s.freshOwner[slot]];
            owner.mapped = std::make_unique<CalendarEvent>(std::move(s.fresh[slot]));
            owner.slot = -1;
        }
        std::vector<CalendarEvent>().swap(s.fresh);
        for (auto& entry : s.entries) {
            if (!entry.zoneBound || entry.zoneBound->zoneID == s.zoneID) continue;
            const auto& bound = *entry.zoneBound;
            if (bound.record) {
                if (auto mapped = GoogleCalendarMapper::event(*bound.record, bound.localID, s.calendarID, s.zone))
                    entry.mapped = std::make_unique<CalendarEvent>(std::move(*mapped));
            } else if (entry.mapped) {
                if (auto times = GoogleCalendarMapper::eventTimes(bound.start, bound.end, s.zone)) {
                    entry.mapped->start = times->start;
                    entry.mapped->end = times->end;
                    entry.mapped->isAllDay = times->isAllDay;
                } else {
                    entry.mapped.reset();
                }
            }
        }
    }

    const UUID calendarID = s.calendarID;
    auto& events = snapshot.events;
    const auto& named = s.named;
    const auto& deleted = s.deleted;

    StoredCopies copies = storedCopies(events, calendarID, named, deleted, mode == GoogleSyncMode::full);
    auto& stored = copies.first;
    auto& extraCopies = copies.extra;
    auto& dropped = copies.dropped;

    // New events follow the stored ones, in the order of their first
    // readable record. When they were gathered as the pages came they are
    // already in that order, with room for the stored events in front.
    const std::size_t storedCount = events.size();
    QHash<QString, std::size_t> added;
    if (!reread) {
        if (s.fresh.size() >= storedCount && s.fresh.capacity() >= s.fresh.size() + storedCount) {
            s.fresh.insert(s.fresh.begin(), std::make_move_iterator(events.begin()),
                           std::make_move_iterator(events.end()));
            events.swap(s.fresh);
        } else {
            events.reserve(storedCount + s.fresh.size());
            std::move(s.fresh.begin(), s.fresh.end(), std::back_inserter(events));
        }
        std::vector<CalendarEvent>().swap(s.fresh);
    } else {
        std::size_t possiblyNew = 0;
        for (auto it = named.cbegin(); it != named.cend(); ++it)
            if (!stored.contains(it.key())) ++possiblyNew;
        events.reserve(storedCount + possiblyNew);
    }

    // Records of stored ids update the stored event where it is. Otherwise
    // (only when records were read again) a record's event goes at the end,
    // or, for an id already added, replaces the earlier event in its place.
    std::vector<char> replaced(storedCount, 0);
    // The stored form of an event named more than once, kept before it is
    // first overwritten: every record of the id is merged against it.
    QHash<std::size_t, CalendarEvent> originals;
    int skipped = s.skipped;
    for (auto& entry : s.entries) {
        if (!entry.mapped) {
            // The stored form stays until Google says otherwise.
            if (entry.slot < 0) ++skipped;
            continue;
        }
        const QString& googleID = entry.googleID;
        const auto storedAt = stored.constFind(googleID);
        if (storedAt != stored.cend()) {
            const std::size_t position = *storedAt;
            if (s.repeated.contains(googleID)) {
                auto original = originals.constFind(position);
                if (original == originals.cend()) original = originals.insert(position, events[position]);
                preserveState(*original, entry.privateKeys, *entry.mapped);
            } else {
                preserveState(events[position], entry.privateKeys, *entry.mapped);
            }
            events[position] = std::move(*entry.mapped);
            replaced[position] = 1;
        } else if (!reread) {
            // An earlier record of an id whose later record is in place.
        } else if (auto at = added.constFind(googleID); at != added.cend()) {
            events[*at] = std::move(*entry.mapped);
        } else {
            added.insert(googleID, events.size());
            events.push_back(std::move(*entry.mapped));
        }
        entry.mapped.reset();
    }

    // What goes besides: deleted events (a deletion overrides a record seen
    // earlier) and further copies of an id Google listed.
    for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
        if (deleted.contains(it.key())) dropped.push_back(it.value());
    }
    for (const auto& [id, position] : extraCopies) {
        if (deleted.contains(id) || replaced[stored.value(id)]) dropped.push_back(position);
    }
    if (!reread) {
        for (const auto& id : deleted) {
            const auto at = named.constFind(id);
            if (at != named.cend() && *at >= 0) dropped.push_back(storedCount + static_cast<std::size_t>(*at));
        }
    } else if (!deleted.isEmpty()) {
        for (auto it = added.cbegin(); it != added.cend(); ++it)
            if (deleted.contains(it.key())) dropped.push_back(it.value());
    }
    eraseAt(events, dropped);

    setSyncState(snapshot, GoogleCalendarSyncState{calendarID, s.lastSyncToken, completedAt});

    GoogleSyncMergeResult result{std::move(snapshot), {}};
    if (skipped > 0) result.warnings.push_back(GoogleSyncWarning::skippedEvents(calendarID, skipped));
    return result;
}

GoogleAccountPresentation GoogleAccountPresentation::forEmail(const QString& email) {
    const QString domain = email.split(u'@', Qt::KeepEmptyParts).last().toLower();
    if (email.contains(u'@') && domain == consumerMailDomain())
        return {AccountKind::personal, QStringLiteral("#2E9E6B")};
    return {AccountKind::work, QStringLiteral("#3D6FE8")};
}

namespace GoogleSyncEngine {

const UUID& accountNamespace() {
    static const UUID id = UUID::literal("6B9AF26E-6156-4E2E-8FA8-857369DBA923");
    return id;
}

QString defaultGoogleColorHex() { return QStringLiteral("#4285F4"); }

GoogleSyncMergeResult upsertingAccount(const GoogleIdentity& identity, AppSnapshot snapshot) {
    const QString name = identity.name ? identity.name->trimmed() : QString();
    const auto presentation = GoogleAccountPresentation::forEmail(identity.email);
    for (auto& account : snapshot.accounts) {
        if (account.googleSubject != identity.subject) continue;
        if (!name.isEmpty()) account.name = name;
        account.email = identity.email;
        account.isConnected = true;
        if (account.colorHex.compare(defaultGoogleColorHex(), Qt::CaseInsensitive) == 0) {
            account.kind = presentation.kind;
            account.colorHex = presentation.colorHex;
        }
        return {std::move(snapshot), {}};
    }
    snapshot.accounts.push_back(Account{
        .id = stableUUID(accountNamespace(), identity.subject),
        .name = name.isEmpty() ? identity.email : name,
        .email = identity.email,
        .kind = presentation.kind,
        .colorHex = presentation.colorHex,
        .isConnected = true,
        .lastSync = std::nullopt,
        .googleSubject = identity.subject,
    });
    return {std::move(snapshot), {}};
}

GoogleSyncMergeResult mergingCalendars(const std::vector<GoogleCalendarListEntryDTO>& entries, const UUID& accountID,
                                       int skippedItemCount, AppSnapshot snapshot) {
    int skipped = skippedItemCount;
    for (const auto& entry : entries) {
        const auto googleID = trimmedID(entry.id);
        if (!googleID) {
            ++skipped;
            continue;
        }
        CalendarSource* existing = nullptr;
        for (auto& calendar : snapshot.calendars) {
            if (calendar.accountID == accountID && calendar.googleCalendarID &&
                calendar.googleCalendarID->trimmed() == *googleID) {
                existing = &calendar;
                break;
            }
        }
        CalendarSource merged;
        merged.id = existing ? existing->id : stableUUID(accountID, *googleID);
        merged.accountID = accountID;
        if (auto name = trimmedID(entry.summaryOverride))
            merged.name = *name;
        else if (auto summary = trimmedID(entry.summary))
            merged.name = *summary;
        else
            merged.name = *googleID;
        const QString color = entry.backgroundColor ? entry.backgroundColor->trimmed() : QString();
        merged.colorHex = isHexColor(color) ? color.toUpper() : defaultGoogleColorHex();
        merged.isVisible = entry.selected.value_or(false);
        merged.receivesBusyBlocks = false;
        merged.googleCalendarID = *googleID;
        merged.googleTimeZoneIdentifier = GoogleCalendarMapper::normalizedTimeZoneIdentifier(entry.timeZone);
        if (existing) {
            // The user's choices survive every sync.
            merged.isVisible = existing->isVisible;
            merged.receivesBusyBlocks = existing->receivesBusyBlocks;
            *existing = std::move(merged);
        } else {
            snapshot.calendars.push_back(std::move(merged));
        }
    }
    GoogleSyncMergeResult result{std::move(snapshot), {}};
    if (skipped > 0) result.warnings.push_back(GoogleSyncWarning::skippedCalendars(accountID, skipped));
    return result;
}

void preserveAppOwnedEventState(const CalendarEvent& stored, const GoogleEventDTO& dto, CalendarEvent& mapped) {
    preserveState(stored, privateKeysOf(dto), mapped);
}

namespace {

// When the pages are not const they belong to the merge, and each page's
// records are freed once mapped.
template <class Pages>
GoogleSyncMergeResult mergeListing(Pages& pages, const CalendarSource& calendar, const DateCalendar& calendarTimeZone,
                                   GoogleSyncMode mode, Date completedAt, AppSnapshot snapshot) {
    validateListing(pages);
    const UUID calendarID = calendar.id;
    auto& events = snapshot.events;

    // A first look at the listing: every id it names (readable or not), the
    // ids it names more than once, and the ids it deletes.
    QSet<QString> seen;
    QSet<QString> repeated;
    for (const auto& page : pages) {
        for (const auto& dto : page.events) {
            auto id = trimmedID(dto.id);
            if (!id) continue;
            if (seen.contains(*id))
                repeated.insert(*id);
            else
                seen.insert(std::move(*id));
        }
    }
    QSet<QString> deleted;
    for (const auto& page : pages) {
        for (const auto& rawID : page.deletedEventIDs) {
            if (auto id = trimmedID(rawID)) deleted.insert(std::move(*id));
        }
    }

    StoredCopies copies = storedCopies(events, calendarID, seen, deleted, mode == GoogleSyncMode::full);
    auto& stored = copies.first;
    auto& extraCopies = copies.extra;
    auto& dropped = copies.dropped;
    std::size_t possiblyNew = 0;
    for (const auto& id : seen)
        if (!stored.contains(id)) ++possiblyNew;

    // Mapped events go straight into the snapshot: an update where the stored
    // event is, a new event at the end. A later record of one id replaces the
    // earlier one in the same place.
    const std::size_t storedCount = events.size();
    events.reserve(storedCount + possiblyNew);
    std::vector<char> replaced(storedCount, 0);
    QHash<QString, std::size_t> added;
    // The stored form of an event named more than once, kept before it is
    // first overwritten: every record of the id is merged against it.
    QHash<std::size_t, CalendarEvent> originals;
    int skipped = 0;
    for (auto& page : pages) {
        skipped += page.skippedItemCount;
        for (const auto& dto : page.events) {
            const QString googleID = trimmedID(dto.id).value_or(QString());
            const auto storedAt = googleID.isEmpty() ? stored.cend() : stored.constFind(googleID);
            const bool hasStored = storedAt != stored.cend();
            const UUID localID = hasStored ? events[*storedAt].id : stableUUID(calendarID, googleID);
            auto mapped = GoogleCalendarMapper::event(dto, localID, calendarID, calendarTimeZone);
            if (!mapped) {
                // The stored form stays until Google says otherwise.
                ++skipped;
                continue;
            }
            if (hasStored) {
                const std::size_t position = *storedAt;
                if (repeated.contains(googleID)) {
                    auto original = originals.constFind(position);
                    if (original == originals.cend()) original = originals.insert(position, events[position]);
                    preserveAppOwnedEventState(*original, dto, *mapped);
                } else {
                    preserveAppOwnedEventState(events[position], dto, *mapped);
                }
                events[position] = std::move(*mapped);
                replaced[position] = 1;
            } else if (auto at = added.constFind(googleID); at != added.cend()) {
                events[*at] = std::move(*mapped);
            } else {
                added.insert(googleID, events.size());
                events.push_back(std::move(*mapped));
            }
        }
        if constexpr (!std::is_const_v<Pages>) std::vector<GoogleEventDTO>().swap(page.events);
    }

    // What goes besides: deleted events (a deletion overrides a record seen
    // earlier) and further copies of an id Google listed.
    for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
        if (deleted.contains(it.key())) dropped.push_back(it.value());
    }
    for (const auto& [id, position] : extraCopies) {
        if (deleted.contains(id) || replaced[stored.value(id)]) dropped.push_back(position);
    }
    if (!deleted.isEmpty()) {
        for (auto it = added.cbegin(); it != added.cend(); ++it)
            if (deleted.contains(it.key())) dropped.push_back(it.value());
    }
    eraseAt(events, dropped);

    setSyncState(snapshot, GoogleCalendarSyncState{calendarID, pages.back().nextSyncToken, completedAt});

    GoogleSyncMergeResult result{std::move(snapshot), {}};
    if (skipped > 0) result.warnings.push_back(GoogleSyncWarning::skippedEvents(calendarID, skipped));
    return result;
}

} // namespace

GoogleSyncMergeResult mergingEventPages(const std::vector<GoogleEventPage>& pages, const CalendarSource& calendar,
                                        const DateCalendar& calendarTimeZone, GoogleSyncMode mode, Date completedAt,
                                        AppSnapshot snapshot) {
    return mergeListing(pages, calendar, calendarTimeZone, mode, completedAt, std::move(snapshot));
}

GoogleSyncMergeResult mergingEventPages(std::vector<GoogleEventPage>&& pages, const CalendarSource& calendar,
                                        const DateCalendar& calendarTimeZone, GoogleSyncMode mode, Date completedAt,
                                        AppSnapshot snapshot) {
    GoogleEventListing listing(calendar, calendarTimeZone, snapshot);
    for (auto& page : pages) {
        listing.add(page);
        std::vector<GoogleEventDTO>().swap(page.events);
    }
    return mergingListing(std::move(listing), mode, completedAt, std::move(snapshot));
}

GoogleSyncMergeResult mergingListing(GoogleEventListing&& listing, GoogleSyncMode mode, Date completedAt,
                                     AppSnapshot snapshot) {
    return GoogleEventListingAccess::merge(std::move(listing), mode, completedAt, std::move(snapshot));
}

AppSnapshot clearingSyncToken(const UUID& calendarID, AppSnapshot snapshot) {
    for (auto& state : snapshot.googleSyncStates) {
        if (state.calendarID == calendarID) {
            state.syncToken.reset();
            return snapshot;
        }
    }
    snapshot.googleSyncStates.push_back(GoogleCalendarSyncState{calendarID, std::nullopt, std::nullopt});
    return snapshot;
}

} // namespace GoogleSyncEngine

} // namespace tavelo
