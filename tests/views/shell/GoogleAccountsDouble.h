#pragma once

// Google at the account seam: answers with the statuses and warnings the test
// sets and records every account action the store asks for.

#include "services/GoogleAccountService.h"
#include "stores/StoreTestSupport.h"
#include "support/Async.h"

#include <deque>
#include <functional>
#include <map>
#include <vector>

namespace tavelo::test {

class GoogleAccountsDouble final : public GoogleAccountService {
public:
    std::map<UUID, GoogleSyncStatus> statuses;
    std::map<UUID, std::vector<GoogleSyncWarning>> warnings;
    // What the browser sign-in brings back.
    Account signedIn{.id = uuid(0xA9), .name = "新規", .email = "new@gmail.example", .isConnected = true,
                     .googleSubject = QStringLiteral("sub-9")};

    // While set, a browser sign-in waits until the test lets it through.
    bool holdsSignIn = false;
    std::deque<Continuation<bool>> heldSignIns;
    void releaseSignIns() {
        for (auto& held : std::exchange(heldSignIns, {})) held.resume(true);
    }

    int connects = 0;
    std::vector<UUID> reconnected, disconnected, synced;
    int syncedAll = 0;

    QCoro::Task<Account> connectGoogleAccount(std::stop_token) override {
        ++connects;
        if (holdsSignIn) co_await heldSignIns.emplace_back();
        co_return Account(signedIn);
    }
    QCoro::Task<Account> reconnectGoogleAccount(UUID id, std::stop_token) override {
        reconnected.push_back(id);
        Account account = signedIn;
        account.id = id;
        co_return account;
    }
    QCoro::Task<void> disconnectGoogleAccount(UUID id, std::stop_token) override {
        disconnected.push_back(id);
        co_return;
    }
    QCoro::Task<void> syncGoogleAccount(UUID id, std::stop_token) override {
        synced.push_back(id);
        co_return;
    }
    QCoro::Task<void> syncAllGoogleAccounts(std::stop_token) override {
        ++syncedAll;
        co_return;
    }
    QCoro::Task<GoogleSyncStatus> googleSyncStatus(UUID id) override {
        const auto found = statuses.find(id);
        co_return found == statuses.end() ? GoogleSyncStatus::connected : found->second;
    }
    QCoro::Task<std::vector<GoogleSyncWarning>> googleSyncWarnings(UUID id) override {
        co_return std::vector<GoogleSyncWarning>(warnings[id]);
    }
    // Receives the copies a targeted retry sends; the stored events stay.
    std::function<void(std::vector<GoogleMutationDestination>)> onRetry;
    QCoro::Task<std::vector<CalendarEvent>> retryMutation(GoogleMutationOperation, UUID, std::vector<CalendarEvent>,
                                                          std::vector<GoogleMutationDestination> rest) override {
        if (!onRetry) throw std::logic_error("no mutation is retried here");
        onRetry(std::move(rest));
        co_return std::vector<CalendarEvent>{};
    }
};

} // namespace tavelo::test
