#include "stores/AvailabilityPolicy.h"

#include "support/Error.h"

#include <algorithm>

namespace tavelo {

namespace {

// Runs the query with owned copies, so that the caller's values may go away
// while it waits.
QCoro::Task<EventAvailabilityState> queryAvailability(std::shared_ptr<CalendarService> service,
                                                      AppSnapshot accountsAndCalendars,
                                                      std::set<UUID> asked, DateInterval interval,
                                                      std::optional<UUID> excludingGroupID, std::stop_token token) {
    if (token.stop_requested()) co_return EventAvailabilityState::loading();
    std::set<UUID> busy;
    try {
        const auto intervals = co_await service->freeBusy(asked, interval, excludingGroupID);
        for (const auto& entry : intervals) busy.insert(entry.calendarID);
    } catch (const CancellationError&) {
        co_return EventAvailabilityState::loading();
    } catch (...) {
        co_return EventAvailabilityState::failure();
    }
    if (token.stop_requested()) co_return EventAvailabilityState::loading();
    co_return EventAvailabilityState::success(AvailabilityPolicy::assessment(accountsAndCalendars, asked, busy));
}

QCoro::Task<EventAvailabilityState> ready(EventAvailabilityState state) { co_return state; }

} // namespace

QString EventAvailabilityAssessment::summary() const {
    const auto n = static_cast<qsizetype>(accounts.size());
    if (n == 0) return QStringLiteral("作成先カレンダーを選択してください");
    const auto a = std::count_if(accounts.begin(), accounts.end(), [](const auto& row) { return row.isAvailable; });
    const bool all = a == n;
    if (scope == EventAvailabilityScope::allConnectedAccounts)
        return all ? QStringLiteral("%1つのアカウントすべてで空き時間です").arg(n)
                   : QStringLiteral("%1 / %2つのアカウントで空き時間です").arg(a).arg(n);
    return all ? QStringLiteral("選択した%1つのアカウントで空き時間です").arg(n)
               : QStringLiteral("選択した%1 / %2つのアカウントで空き時間です").arg(a).arg(n);
}

std::optional<bool> EventAvailabilityAssessment::isAccountAvailable(const UUID& accountID) const {
    const auto row = std::find_if(accounts.begin(), accounts.end(), [&](const auto& r) { return r.accountID == accountID; });
    if (row == accounts.end()) return std::nullopt;
    return row->isAvailable;
}

const EventAvailabilityAssessment* EventAvailabilityState::assessment() const {
    const auto* success = std::get_if<Success>(&value_);
    return success ? &success->assessment : nullptr;
}

QString EventAvailabilityState::text() const {
    if (isLoading()) return QStringLiteral("空き時間を確認中です");
    if (isFailure()) return QStringLiteral("空き時間を確認できませんでした");
    return assessment()->summary();
}

std::set<UUID> AvailabilityPolicy::calendarIDs(const std::set<UUID>& destinationCalendarIDs,
                                               const AppSnapshot& snapshot) {
    std::set<UUID> result;
    if (!snapshot.preferences.crossAccountAvailability) {
        for (const auto& source : snapshot.calendars)
            if (destinationCalendarIDs.contains(source.id)) result.insert(source.id);
        return result;
    }
    std::set<UUID> connected;
    for (const auto& account : snapshot.accounts)
        if (account.isConnected) connected.insert(account.id);
    for (const auto& source : snapshot.calendars)
        if (!source.accountID || connected.contains(*source.accountID)) result.insert(source.id);
    return result;
}

EventAvailabilityAssessment AvailabilityPolicy::assessment(const AppSnapshot& snapshot,
                                                           const std::set<UUID>& calendarIDs,
                                                           const std::set<UUID>& busyCalendarIDs) {
    std::set<UUID> askedAccounts;
    std::set<UUID> busyAccounts;
    for (const auto& source : snapshot.calendars) {
        if (!source.accountID || !calendarIDs.contains(source.id)) continue;
        askedAccounts.insert(*source.accountID);
        if (busyCalendarIDs.contains(source.id)) busyAccounts.insert(*source.accountID);
    }
    EventAvailabilityAssessment result;
    result.scope = snapshot.preferences.crossAccountAvailability ? EventAvailabilityScope::allConnectedAccounts
                                                                 : EventAvailabilityScope::selectedDestinations;
    for (const auto& account : snapshot.accounts)
        if (askedAccounts.contains(account.id))
            result.accounts.push_back({account.id, !busyAccounts.contains(account.id)});
    return result;
}

QCoro::Task<EventAvailabilityState> AvailabilityPolicy::eventAvailability(std::shared_ptr<CalendarService> service,
                                                                          const EventDraft& draft,
                                                                          const AppSnapshot& snapshot,
                                                                          const DateCalendar& calendar,
                                                                          std::stop_token token) {
    const std::set<UUID> destinations(draft.calendarIDs.begin(), draft.calendarIDs.end());
    auto asked = calendarIDs(destinations, snapshot);
    const EventDraft normalized = draft.normalizedForMutation(calendar);
    if (!(normalized.end > normalized.start))
        return ready(EventAvailabilityState::success(assessment(snapshot, asked, {})));

    // The assessment needs accounts, calendars and preferences only.
    AppSnapshot accountsAndCalendars;
    accountsAndCalendars.accounts = snapshot.accounts;
    accountsAndCalendars.calendars = snapshot.calendars;
    accountsAndCalendars.preferences = snapshot.preferences;
    return queryAvailability(std::move(service), std::move(accountsAndCalendars), std::move(asked),
                             DateInterval{normalized.start, normalized.end}, draft.groupID, std::move(token));
}

} // namespace tavelo
