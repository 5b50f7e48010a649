#pragma once

#include "services/GoogleAccountService.h"
#include "stores/StoreTestSupport.h"
#include "support/Async.h"

#include <QCoro/QCoroTimer>

#include <deque>
#include <map>

namespace tavelo::test {

// The local store seen as a Google one whose answers the test decides: each
// browser wait and each free-busy answer stops until the test lets it
// through, failures and statuses are set beforehand.
class ScriptedGoogle final : public ForwardingCalendarService, public GoogleAccountService {
public:
    using ForwardingCalendarService::ForwardingCalendarService;

    std::deque<Continuation<bool>> browsers;
    bool holdBrowser = false;
    std::exception_ptr failure;
    // The status each account is left with by a failure.
    std::map<UUID, GoogleSyncStatus> statusesAfterFailure;
    std::map<UUID, GoogleSyncStatus> statuses;
    std::vector<QString> calls;
    std::deque<Continuation<bool>> freeBusyAnswers;

    // Connections and disconnections are scripted to fail only.
    QCoro::Task<Account> connectGoogleAccount(std::stop_token token) override {
        calls.push_back("connect");
        co_await browser(token);
        throw std::logic_error("a connection that succeeds is not scripted");
    }
    QCoro::Task<Account> reconnectGoogleAccount(UUID id, std::stop_token token) override {
        calls.push_back("reconnect");
        co_await browser(token);
        statuses[id] = GoogleSyncStatus::connected;
        auto inner = in;
        const auto accounts = co_await inner->fetchAccounts();
        for (const auto& account : accounts)
            if (account.id == id) co_return account;
        throw std::runtime_error("no such account");
    }
    QCoro::Task<void> syncGoogleAccount(UUID, std::stop_token token) override {
        calls.push_back("sync");
        co_await outcome(token);
    }
    QCoro::Task<void> syncAllGoogleAccounts(std::stop_token token) override {
        calls.push_back("syncAll");
        co_await outcome(token);
    }
    QCoro::Task<void> disconnectGoogleAccount(UUID, std::stop_token token) override {
        calls.push_back("disconnect");
        co_await outcome(token);
        throw std::logic_error("a disconnection that succeeds is not scripted");
    }
    QCoro::Task<Events> retryMutation(GoogleMutationOperation, UUID, Events, std::vector<GoogleMutationDestination>) override {
        throw std::logic_error("not used here");
    }
    QCoro::Task<std::vector<CalendarBusyInterval>> freeBusy(std::set<UUID> ids, DateInterval interval,
                                                            std::optional<UUID> excluding) override {
        auto inner = in;
        co_await freeBusyAnswers.emplace_back();
        co_return co_await inner->freeBusy(std::move(ids), interval, excluding);
    }
    QCoro::Task<GoogleSyncStatus> googleSyncStatus(UUID id) override {
        const auto known = statuses.find(id);
        co_return known == statuses.end() ? GoogleSyncStatus::connected : known->second;
    }
    QCoro::Task<std::vector<GoogleSyncWarning>> googleSyncWarnings(UUID) override {
        co_return std::vector<GoogleSyncWarning>();
    }

private:
    QCoro::Task<void> browser(std::stop_token token) {
        if (holdBrowser) {
            Continuation<bool> wait = browsers.emplace_back();
            co_await wait;
        } else {
            co_await later();
        }
        checkCancellation(token);
        if (failure) std::rethrow_exception(failure);
    }
    // Google answers later, never within the call.
    static QCoro::Task<void> later() { co_await QCoro::sleepFor(std::chrono::milliseconds(0)); }
    QCoro::Task<void> outcome(std::stop_token token) {
        co_await later();
        checkCancellation(token);
        if (failure) {
            for (const auto& [id, status] : statusesAfterFailure) statuses[id] = status;
            std::rethrow_exception(failure);
        }
    }
};

} // namespace tavelo::test
