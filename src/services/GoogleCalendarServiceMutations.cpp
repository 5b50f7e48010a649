// Event changes through the Google calendar service. Changes to the program's
// own calendars go straight to the local store. Changes that would have to
// reach a Google calendar are refused with a write failure until the fan-out
// to Google is in place: writing them only locally would let the next full
// listing silently take them away again.

#include "services/GoogleCalendarService.h"

#include "google/GoogleLog.h"
#include "services/LocalCalendarService.h"

#include <set>

namespace tavelo {

namespace {

std::set<UUID> googleCalendarIDs(const AppSnapshot& snapshot) {
    std::set<UUID> ids;
    for (const auto& calendar : snapshot.calendars)
        if (calendar.googleCalendarID) ids.insert(calendar.id);
    return ids;
}

void refuseGoogleWrite() {
    qCWarning(googleSyncLog, "Changing events on Google calendars is not available in this build");
    throw CalendarServiceError(CalendarServiceError::Kind::writeFailed);
}

} // namespace

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::createEvents(std::vector<CalendarEvent> events) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult loaded = co_await local_->load();
    const auto google = googleCalendarIDs(loaded.snapshot);
    for (const auto& event : events)
        if (google.contains(event.calendarID)) refuseGoogleWrite();
    std::vector<CalendarEvent> all = co_await local_->createEvents(std::move(events));
    co_return all;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::updateEvents(UUID groupID,
                                                                            std::vector<CalendarEvent> events) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult loaded = co_await local_->load();
    const auto google = googleCalendarIDs(loaded.snapshot);
    for (const auto& event : events)
        if (google.contains(event.calendarID)) refuseGoogleWrite();
    for (const auto& event : loaded.snapshot.events)
        if ((event.id == groupID || event.sourceEventID == groupID) && google.contains(event.calendarID))
            refuseGoogleWrite();
    std::vector<CalendarEvent> all = co_await local_->updateEvents(groupID, std::move(events));
    co_return all;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::deleteEvents(UUID groupID) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult loaded = co_await local_->load();
    const auto google = googleCalendarIDs(loaded.snapshot);
    for (const auto& event : loaded.snapshot.events)
        if ((event.id == groupID || event.sourceEventID == groupID) && google.contains(event.calendarID))
            refuseGoogleWrite();
    std::vector<CalendarEvent> all = co_await local_->deleteEvents(groupID);
    co_return all;
}

QCoro::Task<std::vector<CalendarBusyInterval>> GoogleCalendarService::freeBusy(std::set<UUID> calendarIDs,
                                                                               DateInterval interval,
                                                                               std::optional<UUID> excludingGroupID) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    // The local copy of every calendar, Google's included, as of the last sync.
    std::vector<CalendarBusyInterval> busy = co_await local_->freeBusy(calendarIDs, interval, excludingGroupID);
    co_return busy;
}

} // namespace tavelo
