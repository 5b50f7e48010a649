#pragma once

// Pure merges of what Google returned into the calendar snapshot. Google owns
// the fields it knows, the program owns what it alone adds, and a local id,
// once given, never changes. No input or output happens here.

#include "google/GoogleIdentity.h"
#include "google/GoogleWireRecords.h"
#include "models/AppSnapshot.h"
#include "services/GoogleAccountService.h"
#include "support/Error.h"

#include <memory>
#include <vector>

namespace tavelo {

class DateCalendar;

// One listing of a calendar (every page of it), taken in as the pages arrive.
// Each page's records are mapped at once and only what the merge needs is
// kept, so that the caller can drop the page before fetching the next: a
// large first listing is never held as records and as events together.
// Nothing reaches a snapshot until GoogleSyncEngine::mergingListing.
class GoogleEventListing {
public:
    // Times are read in `timeZone`; zones the pages state are ignored.
    // `snapshot` is the one the listing will be merged into: it has to stay
    // as it is until then, and events it already stores keep their local ids.
    GoogleEventListing(const CalendarSource& calendar, const DateCalendar& timeZone, const AppSnapshot& snapshot);
    // Times are read in the zone the pages state, the last stated known zone
    // winning for the whole listing; `fallbackTimeZoneID` while none does.
    static GoogleEventListing followingPageZones(const CalendarSource& calendar, const QString& fallbackTimeZoneID,
                                                 const AppSnapshot& snapshot);

    GoogleEventListing(GoogleEventListing&&) noexcept;
    GoogleEventListing& operator=(GoogleEventListing&&) noexcept;
    ~GoogleEventListing();

    void add(const GoogleEventPage& page);
    // Throws GoogleSyncEngineError unless the pages so far form a whole
    // listing ending with a sync token.
    void checkComplete() const;

    // The last known zone a page stated, if any did.
    const std::optional<QString>& statedTimeZone() const;

    struct State;

private:
    explicit GoogleEventListing(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
    friend struct GoogleEventListingAccess;
};

struct GoogleSyncMergeResult {
    AppSnapshot snapshot;
    std::vector<GoogleSyncWarning> warnings;

    bool operator==(const GoogleSyncMergeResult&) const = default;
};

// Where a set of event pages came from: a listing of everything, or the
// changes since a sync token.
enum class GoogleSyncMode { full, incremental };

// A listing that cannot be merged. The merge that raises it changes nothing.
class GoogleSyncEngineError final : public Error {
public:
    enum class Kind { incompletePagination, missingSyncToken };
    explicit GoogleSyncEngineError(Kind kind) : kind_(kind) {}

    Kind kind() const { return kind_; }
    const char* domain() const override { return "GoogleSyncEngineError"; }
    int code() const override { return static_cast<int>(kind_); }
    const char* what() const noexcept override {
        return kind_ == Kind::incompletePagination ? "The Google event listing is incomplete: a page is missing."
                                                   : "The Google event listing ended without a sync token.";
    }

private:
    Kind kind_;
};

// How a newly connected account looks.
struct GoogleAccountPresentation {
    AccountKind kind = AccountKind::work;
    QString colorHex;

    // Personal for Google's consumer mail domain, work for anything else.
    static GoogleAccountPresentation forEmail(const QString& email);
    bool operator==(const GoogleAccountPresentation&) const = default;
};

namespace GoogleSyncEngine {

// The namespace of account ids derived from OpenID subjects. A format
// constant: changing it gives every account a new id.
const UUID& accountNamespace();

// The colour accounts and calendars had before the program chose its own.
QString defaultGoogleColorHex();

GoogleSyncMergeResult upsertingAccount(const GoogleIdentity& identity, AppSnapshot snapshot);

GoogleSyncMergeResult mergingCalendars(const std::vector<GoogleCalendarListEntryDTO>& entries, const UUID& accountID,
                                       int skippedItemCount, AppSnapshot snapshot);

// Merges one whole listing of a calendar (every page of it) into the
// snapshot. `calendarTimeZone` is the calendar's zone, as made by
// GoogleCalendarMapper::calendarForTimeZone. Throws GoogleSyncEngineError
// when the pages do not form a complete listing.
GoogleSyncMergeResult mergingEventPages(const std::vector<GoogleEventPage>& pages, const CalendarSource& calendar,
                                        const DateCalendar& calendarTimeZone, GoogleSyncMode mode, Date completedAt,
                                        AppSnapshot snapshot);
// As above, releasing each page's records as soon as they are mapped, so that
// a large first listing is never held twice over.
GoogleSyncMergeResult mergingEventPages(std::vector<GoogleEventPage>&& pages, const CalendarSource& calendar,
                                        const DateCalendar& calendarTimeZone, GoogleSyncMode mode, Date completedAt,
                                        AppSnapshot snapshot);

// Merges a whole listing into the snapshot it was started with. Throws
// GoogleSyncEngineError when its pages do not form a complete listing.
GoogleSyncMergeResult mergingListing(GoogleEventListing&& listing, GoogleSyncMode mode, Date completedAt,
                                     AppSnapshot snapshot);

// Forgets the calendar's sync token, keeping its last sync time, so that the
// next listing is a full one.
AppSnapshot clearingSyncToken(const UUID& calendarID, AppSnapshot snapshot);

// Carries over to `mapped` what only the program knows about `stored`: its
// kind and completion, a tag Google does not name, and the links that the
// record's private properties do not state.
void preserveAppOwnedEventState(const CalendarEvent& stored, const GoogleEventDTO& dto, CalendarEvent& mapped);

} // namespace GoogleSyncEngine

} // namespace tavelo
