#pragma once

// Pure merges of what Google returned into the calendar snapshot. Google owns
// the fields it knows, the program owns what it alone adds, and a local id,
// once given, never changes. No input or output happens here.

#include "google/GoogleIdentity.h"
#include "google/GoogleWireRecords.h"
#include "models/AppSnapshot.h"
#include "services/GoogleAccountService.h"
#include "support/Error.h"

#include <vector>

namespace tavelo {

class DateCalendar;

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

// Forgets the calendar's sync token, keeping its last sync time, so that the
// next listing is a full one.
AppSnapshot clearingSyncToken(const UUID& calendarID, AppSnapshot snapshot);

// Carries over to `mapped` what only the program knows about `stored`: its
// kind and completion, a tag Google does not name, and the links that the
// record's private properties do not state.
void preserveAppOwnedEventState(const CalendarEvent& stored, const GoogleEventDTO& dto, CalendarEvent& mapped);

} // namespace GoogleSyncEngine

} // namespace tavelo
