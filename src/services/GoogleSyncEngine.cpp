#include "services/GoogleSyncEngine.h"

#include "google/GoogleCalendarMapper.h"
#include "google/StableUUID.h"

#include <QHash>
#include <QSet>

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

} // namespace

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
    using namespace GoogleCalendarMapper;
    mapped.kind = stored.kind;
    mapped.isCompleted = stored.isCompleted;
    if (!mapped.tagID) mapped.tagID = stored.tagID;
    if (!dto.privateProperty(QString::fromUtf16(kGroupIDKey))) mapped.groupID = stored.groupID;
    if (!dto.privateProperty(QString::fromUtf16(kParentEventIDKey))) mapped.sourceEventID = stored.sourceEventID;
    if (!dto.privateProperty(QString::fromUtf16(kGeneratedBusyBlockKey)))
        mapped.isGeneratedBusyBlock = stored.isGeneratedBusyBlock;
}

GoogleSyncMergeResult mergingEventPages(const std::vector<GoogleEventPage>& pages, const CalendarSource& calendar,
                                        const DateCalendar& calendarTimeZone, GoogleSyncMode mode, Date completedAt,
                                        AppSnapshot snapshot) {
    validateListing(pages);
    const UUID calendarID = calendar.id;
    auto& events = snapshot.events;

    // The stored events of this calendar by Google id. The first of several
    // copies is the one that is updated; the others are dropped when Google
    // lists the id again.
    QHash<QString, std::size_t> stored;
    stored.reserve(static_cast<qsizetype>(events.size()));
    std::vector<std::pair<QString, std::size_t>> extraCopies;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const auto& e = events[i];
        if (e.calendarID != calendarID) continue;
        auto id = trimmedID(e.googleEventID);
        if (!id) continue; // pending local work
        if (stored.contains(*id))
            extraCopies.emplace_back(std::move(*id), i);
        else
            stored.insert(std::move(*id), i);
    }

    // The listing's events in order of first appearance; a later record of the
    // same id replaces the earlier one in place.
    std::vector<std::optional<CalendarEvent>> working;
    std::vector<QString> workingIDs;
    QHash<QString, std::size_t> workingIndex;
    QSet<QString> seen;
    int skipped = 0;
    for (const auto& page : pages) {
        skipped += page.skippedItemCount;
        for (const auto& dto : page.events) {
            const QString googleID = trimmedID(dto.id).value_or(QString());
            const auto storedAt = googleID.isEmpty() ? stored.cend() : stored.constFind(googleID);
            const bool hasStored = storedAt != stored.cend();
            const UUID localID = hasStored ? events[*storedAt].id : stableUUID(calendarID, googleID);
            auto mapped = GoogleCalendarMapper::event(dto, localID, calendarID, calendarTimeZone);
            if (!googleID.isEmpty()) seen.insert(googleID);
            if (!mapped) {
                // The stored form stays until Google says otherwise.
                ++skipped;
                continue;
            }
            if (hasStored) preserveAppOwnedEventState(events[*storedAt], dto, *mapped);
            if (auto at = workingIndex.constFind(googleID); at != workingIndex.cend()) {
                working[*at] = std::move(*mapped);
            } else {
                workingIndex.insert(googleID, working.size());
                workingIDs.push_back(googleID);
                working.push_back(std::move(*mapped));
            }
        }
    }

    QSet<QString> deleted;
    for (const auto& page : pages) {
        for (const auto& rawID : page.deletedEventIDs) {
            const QString id = rawID.trimmed();
            if (id.isEmpty()) continue;
            deleted.insert(id);
            if (auto at = workingIndex.constFind(id); at != workingIndex.cend()) working[*at].reset();
        }
    }

    // Which stored events go: those deleted, further copies of a listed id,
    // and in a full listing every Google event the listing did not name.
    std::vector<std::size_t> dropped;
    const bool full = mode == GoogleSyncMode::full;
    for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
        if (deleted.contains(it.key()) || (full && !seen.contains(it.key()))) dropped.push_back(it.value());
    }
    for (const auto& [id, position] : extraCopies) {
        if (deleted.contains(id) || workingIndex.contains(id) || (full && !seen.contains(id)))
            dropped.push_back(position);
    }

    // Updated events keep their place; new ones are appended in listing order.
    std::size_t addedCount = 0;
    for (std::size_t k = 0; k < working.size(); ++k) {
        if (!working[k]) continue;
        if (auto at = stored.constFind(workingIDs[k]); at != stored.cend()) {
            events[*at] = std::move(*working[k]);
            working[k].reset();
        } else {
            ++addedCount;
        }
    }
    if (!dropped.empty()) {
        std::vector<char> drop(events.size(), 0);
        for (std::size_t position : dropped) drop[position] = 1;
        std::size_t kept = 0;
        for (std::size_t i = 0; i < events.size(); ++i) {
            if (drop[i]) continue;
            if (kept != i) events[kept] = std::move(events[i]);
            ++kept;
        }
        events.erase(events.begin() + static_cast<std::ptrdiff_t>(kept), events.end());
    }
    events.reserve(events.size() + addedCount);
    for (auto& e : working)
        if (e) events.push_back(std::move(*e));

    setSyncState(snapshot, GoogleCalendarSyncState{calendarID, pages.back().nextSyncToken, completedAt});

    GoogleSyncMergeResult result{std::move(snapshot), {}};
    if (skipped > 0) result.warnings.push_back(GoogleSyncWarning::skippedEvents(calendarID, skipped));
    return result;
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
