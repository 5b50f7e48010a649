// AppStore: the Google accounts — connecting and reconnecting through the
// browser, syncing, disconnecting, the automatic refresh and what each
// account shows.

#include "stores/AppStore.h"
#include "stores/AppStoreInternal.h"

#include <QPointer>

#include <algorithm>
#include <exception>
#include <map>
#include <vector>

namespace tavelo {

// --- What an account shows -----------------------------------------------

GoogleSyncStatus AppStore::googleSyncStatus(const UUID& accountID) const {
    if (const auto known = googleSyncStatuses_.find(accountID); known != googleSyncStatuses_.end())
        return known->second;
    const auto account =
        std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& a) { return a.id == accountID; });
    if (account == accounts_.end() || !account->googleSubject || !googleAccountService_) return GoogleSyncStatus::idle;
    return account->isConnected ? GoogleSyncStatus::connected : GoogleSyncStatus::reconnectRequired;
}

QString AppStore::googleStatusMessage(const UUID& accountID) const {
    switch (googleSyncStatus(accountID)) {
    case GoogleSyncStatus::idle:
        return googleAccountService_ ? QStringLiteral("待機中") : QStringLiteral("ローカルキャッシュ");
    case GoogleSyncStatus::syncing:
        return QStringLiteral("バックグラウンドで同期中");
    case GoogleSyncStatus::connected: {
        const auto warnings = googleSyncWarnings_.find(accountID);
        if (warnings != googleSyncWarnings_.end() && !warnings->second.empty())
            return QStringLiteral("一部の項目を確認してください");
        return QStringLiteral("接続中");
    }
    case GoogleSyncStatus::reconnectRequired:
        return QStringLiteral("Googleアカウントを再接続してください。");
    case GoogleSyncStatus::failed:
        return QStringLiteral("同期に失敗しました。今すぐ同期をもう一度お試しください。");
    }
    return {};
}

std::optional<Date> AppStore::googleLastSync(const UUID& accountID) const {
    const auto account =
        std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& a) { return a.id == accountID; });
    if (account == accounts_.end()) return std::nullopt;
    return account->lastSync;
}

std::optional<QString> AppStore::googleConfigurationMessage() const {
    if (googleAccountService_) return std::nullopt;
    return QStringLiteral("Google連携を利用するには %1 にOAuth設定を保存してください。ローカル機能は引き続き利用できます。")
        .arg(googleOAuthConfigurationPath_);
}

// --- Actions ---------------------------------------------------------------

namespace {

constexpr double kAutomaticRefreshInterval = 300;

std::vector<UUID> googleAccountIDs(const std::vector<Account>& accounts) {
    std::vector<UUID> ids;
    for (const auto& account : accounts)
        if (account.googleSubject) ids.push_back(account.id);
    return ids;
}

std::exception_ptr cancellation() {
    return std::make_exception_ptr(CancellationError());
}

// The body of a background task whose store has gone.
QCoro::Task<bool> nothingToDo() {
    co_return false;
}

} // namespace

QCoro::Task<bool> AppStore::refreshGoogleAccountsIfNeeded(Date now, std::stop_token token) {
    if (lastAutomaticGoogleRefresh_ && now < lastAutomaticGoogleRefresh_->addingSeconds(kAutomaticRefreshInterval))
        co_return false;
    // Set before the sync starts: a failed attempt counts as well.
    lastAutomaticGoogleRefresh_ = now;
    co_return co_await refreshGoogleAccounts(std::move(token));
}

QCoro::Task<bool> AppStore::refreshGoogleAccounts(std::stop_token token) {
    QPointer<AppStore> self(this);
    if (isSyncing_) co_return false;
    co_await load(token);
    if (!self || token.stop_requested() || isSyncing_ || !didLoad_) co_return false;
    if (!googleAccountService_) co_return false;
    if (googleAccountIDs(accounts_).empty()) co_return true;
    co_return co_await syncAllGoogleAccounts(std::move(token));
}

QCoro::Task<bool> AppStore::syncAllGoogleAccounts(std::stop_token token) {
    std::vector<UUID> ids = googleAccountIDs(accounts_);
    GoogleOperation operation = [](GoogleAccountService& google, std::stop_token stop) {
        return google.syncAllGoogleAccounts(std::move(stop));
    };
    co_return co_await performGoogleAction(GoogleStoreAction::sync, std::move(ids), true, std::move(operation),
                                           std::move(token));
}

QCoro::Task<bool> AppStore::syncGoogleAccount(UUID accountID, std::stop_token token) {
    std::vector<UUID> ids{accountID};
    GoogleOperation operation = [accountID](GoogleAccountService& google, std::stop_token stop) {
        return google.syncGoogleAccount(accountID, std::move(stop));
    };
    co_return co_await performGoogleAction(GoogleStoreAction::sync, std::move(ids), true, std::move(operation),
                                           std::move(token));
}

QCoro::Task<bool> AppStore::disconnectGoogleAccount(UUID accountID, std::stop_token token) {
    std::vector<UUID> ids{accountID};
    GoogleOperation operation = [accountID](GoogleAccountService& google, std::stop_token stop) {
        return google.disconnectGoogleAccount(accountID, std::move(stop));
    };
    co_return co_await performGoogleAction(GoogleStoreAction::disconnect, std::move(ids), true, std::move(operation),
                                           std::move(token));
}

QCoro::Task<bool> AppStore::performGoogleAction(GoogleStoreAction action, std::vector<UUID> accountIDs,
                                                bool ownsTransaction, GoogleOperation operation,
                                                std::stop_token token) {
    QPointer<AppStore> self(this);
    const auto google = googleAccountService_;
    if (!google || isSyncing_) co_return false;

    setIsSyncing(true);
    const auto previousStatuses = googleSyncStatuses_;
    auto statuses = googleSyncStatuses_;
    for (const auto& id : accountIDs) statuses[id] = GoogleSyncStatus::syncing;
    setGoogleSyncStatuses(std::move(statuses));

    std::unique_ptr<TransactionHold> hold;
    if (ownsTransaction) {
        const bool acquired = co_await acquirePersistenceTransaction(true, token);
        if (!self) co_return false;
        if (!acquired) {
            // Nothing was asked of Google: the statuses are what they were.
            setGoogleSyncStatuses(previousStatuses);
            recordGoogleActionFailure(cancellation(), action, accountIDs);
            setIsSyncing(false);
            co_return false;
        }
        hold = std::make_unique<TransactionHold>(this);
    }

    std::exception_ptr failure;
    try {
        checkCancellation(token);
        co_await operation(*google, token);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;

    if (!failure) {
        try {
            co_await reloadSnapshotFromService();
        } catch (...) {
            failure = std::current_exception();
        }
        if (!self) co_return false;
        if (!failure) {
            co_await refreshGoogleState();
            if (!self) co_return false;
            clearPersistenceMessage();
            hold.reset();
            setIsSyncing(false);
            co_return true;
        }
    }

    // Whatever did get merged before the failure is shown.
    if (!hold) {
        hold = co_await holdTransaction();
        if (!hold) co_return false;
    }
    try {
        co_await reloadSnapshotFromService();
    } catch (const std::exception& error) {
        qCInfo(lcAppStore) << "reload after a failed Google action failed:" << error.what();
    }
    if (!self) co_return false;
    co_await refreshGoogleState();
    if (!self) co_return false;
    recordGoogleActionFailure(failure, action, accountIDs);
    hold.reset();
    setIsSyncing(false);
    co_return false;
}

// --- Browser authentication ------------------------------------------------

std::optional<BackgroundTask<bool>> AppStore::beginGoogleAuthentication(GoogleAuthenticationRequest request) {
    if (googleAuthenticationTask_) return std::nullopt;
    if (isSyncing_ || !googleAccountService_) return std::nullopt;

    std::map<UUID, GoogleSyncStatus> previousStatuses;
    if (request.reconnectAccountID)
        previousStatuses[*request.reconnectAccountID] = googleSyncStatus(*request.reconnectAccountID);

    const UUID generation = UUID::random();
    googleAuthenticationGeneration_ = generation;
    googleAuthenticationRequest_ = request;
    googleAuthenticationPreviousStatuses_ = previousStatuses;
    setIsSyncing(true);
    setIsGoogleAuthenticationPending(true);
    setGoogleAuthenticationMessage(std::nullopt);
    auto statuses = googleSyncStatuses_;
    for (const auto& [id, status] : previousStatuses) statuses[id] = GoogleSyncStatus::syncing;
    setGoogleSyncStatuses(std::move(statuses));

    QPointer<AppStore> self(this);
    auto task = BackgroundTask<bool>::start(
        [self, generation, request, previousStatuses](std::stop_token token) -> QCoro::Task<bool> {
            if (!self) return nothingToDo();
            return self->runGoogleAuthentication(generation, request, previousStatuses, std::move(token));
        });
    // An authentication that ended before `start` returned has already
    // cleared its place.
    if (isGoogleAuthenticationPending_ && googleAuthenticationGeneration_ == generation)
        googleAuthenticationTask_ = task;
    return task;
}

QCoro::Task<bool> AppStore::runGoogleAuthentication(UUID generation, GoogleAuthenticationRequest request,
                                                    std::map<UUID, GoogleSyncStatus> previousStatuses,
                                                    std::stop_token token) {
    QPointer<AppStore> self(this);
    const auto google = googleAccountService_;
    const bool acquired = co_await acquirePersistenceTransaction(true, token);
    if (!self) co_return false;
    if (!acquired) {
        completeGoogleAuthentication(generation, request, previousStatuses, cancellation(), false, std::nullopt);
        co_return false;
    }

    std::optional<Account> account;
    std::exception_ptr failure;
    try {
        checkCancellation(token);
        // The browser may take minutes; the transaction stays held meanwhile.
        if (request.reconnectAccountID)
            account = co_await google->reconnectGoogleAccount(*request.reconnectAccountID, token);
        else
            account = co_await google->connectGoogleAccount(token);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return false;
    if (googleAuthenticationGeneration_ != generation) {
        // A newer authentication has taken over: this result is void.
        completeGoogleAuthentication(generation, request, previousStatuses, failure, true, std::nullopt);
        co_return false;
    }

    try {
        co_await reloadSnapshotFromService();
    } catch (const std::exception& error) {
        qCInfo(lcAppStore) << "reload after an authentication failed:" << error.what();
    }
    if (!self) co_return false;
    co_await refreshGoogleState();
    if (!self) co_return false;
    completeGoogleAuthentication(generation, request, previousStatuses, failure, true, account);
    co_return !failure;
}

void AppStore::completeGoogleAuthentication(const UUID& generation, const GoogleAuthenticationRequest& request,
                                            const std::map<UUID, GoogleSyncStatus>& previousStatuses,
                                            std::exception_ptr providerError, bool ownsPersistenceTransaction,
                                            const std::optional<Account>& account) {
    if (ownsPersistenceTransaction) releasePersistenceTransaction();
    if (googleAuthenticationGeneration_ != generation) return;

    googleAuthenticationTask_.reset();
    googleAuthenticationGeneration_.reset();
    setIsGoogleAuthenticationPending(false);
    setIsSyncing(false);

    if (!providerError && account) {
        clearPersistenceMessage();
        setGoogleAuthenticationMessage(
            QStringLiteral("Google認証が完了しました。予定はバックグラウンドで同期します。"));
        startBackgroundGoogleSync(account->id);
        return;
    }
    restoreAuthenticationStatuses(previousStatuses, true);
    std::vector<UUID> ids;
    for (const auto& [id, status] : previousStatuses) ids.push_back(id);
    const auto action = request.reconnectAccountID ? GoogleStoreAction::reconnect : GoogleStoreAction::connect;
    recordGoogleActionFailure(providerError ? providerError : cancellation(), action, ids);
}

void AppStore::cancelGoogleAuthentication() {
    if (!googleAuthenticationTask_) return;
    auto task = *googleAuthenticationTask_;
    const auto request = googleAuthenticationRequest_;
    const auto previousStatuses = googleAuthenticationPreviousStatuses_;
    // Void first, so that the old task, whenever it ends, changes nothing.
    googleAuthenticationTask_.reset();
    googleAuthenticationGeneration_.reset();
    task.cancel();
    setIsGoogleAuthenticationPending(false);
    setIsSyncing(false);
    restoreAuthenticationStatuses(previousStatuses, true);
    std::vector<UUID> ids;
    for (const auto& [id, status] : previousStatuses) ids.push_back(id);
    recordGoogleActionFailure(cancellation(),
                              request.reconnectAccountID ? GoogleStoreAction::reconnect : GoogleStoreAction::connect,
                              ids);
}

void AppStore::restoreAuthenticationStatuses(const std::map<UUID, GoogleSyncStatus>& previousStatuses,
                                             bool onlyWhenStillSyncing) {
    auto statuses = googleSyncStatuses_;
    for (const auto& [id, previous] : previousStatuses) {
        const auto current = statuses.find(id);
        const bool syncing = current != statuses.end() && current->second == GoogleSyncStatus::syncing;
        if (onlyWhenStillSyncing && !syncing) continue;
        statuses[id] = previous;
    }
    setGoogleSyncStatuses(std::move(statuses));
}

void AppStore::startBackgroundGoogleSync(UUID accountID) {
    QPointer<AppStore> self(this);
    googleBackgroundSync_ = BackgroundTask<bool>::start([self, accountID](std::stop_token token) -> QCoro::Task<bool> {
        if (!self) return nothingToDo();
        return self->syncGoogleAccount(accountID, std::move(token));
    });
}

// --- Failure messages ------------------------------------------------------

void AppStore::recordGoogleActionFailure(std::exception_ptr failure, GoogleStoreAction action,
                                         const std::vector<UUID>& accountIDs) {
    const QString authenticationCancelled = QStringLiteral("Google認証をキャンセルしました。もう一度お試しください。");
    const QString reconnect = QStringLiteral("Googleアカウントを再接続してください。");
    const std::optional<UUID> single = accountIDs.size() == 1 ? std::optional<UUID>(accountIDs.front()) : std::nullopt;

    if (isCancellation(failure)) {
        if (action == GoogleStoreAction::connect) {
            recordFailure(authenticationCancelled, StoreRetryOperation::connectGoogleAccount());
        } else if (action == GoogleStoreAction::reconnect && single) {
            recordFailure(authenticationCancelled, StoreRetryOperation::reconnectGoogleAccount(*single));
        } else {
            recordFailure(QStringLiteral("Googleの操作をキャンセルしました。確認済みの同期結果は保持されています。"),
                          std::nullopt);
        }
        return;
    }

    std::vector<UUID> needingReconnect;
    for (const auto& id : accountIDs)
        if (googleSyncStatus(id) == GoogleSyncStatus::reconnectRequired) needingReconnect.push_back(id);

    if (needingReconnect.empty()) {
        switch (action) {
        case GoogleStoreAction::connect:
            recordFailure(QStringLiteral("Googleアカウントを接続できませんでした。ブラウザで認証をやり直してください。"),
                          StoreRetryOperation::connectGoogleAccount());
            return;
        case GoogleStoreAction::sync:
            recordFailure(QStringLiteral("Googleカレンダーを同期できませんでした。接続を確認して、もう一度お試しください。"),
                          single ? StoreRetryOperation::syncGoogleAccount(*single)
                                 : StoreRetryOperation::syncAllGoogleAccounts());
            return;
        case GoogleStoreAction::reconnect:
            recordFailure(QStringLiteral("Googleアカウントを再接続できませんでした。ブラウザで認証をやり直してください。"),
                          single ? std::optional(StoreRetryOperation::reconnectGoogleAccount(*single)) : std::nullopt);
            return;
        case GoogleStoreAction::disconnect:
            recordFailure(QStringLiteral("Googleアカウントの接続を解除できませんでした。もう一度お試しください。"),
                          std::nullopt);
            return;
        }
        return;
    }

    std::optional<StoreRetryOperation> retry;
    switch (action) {
    case GoogleStoreAction::connect:
        retry = StoreRetryOperation::connectGoogleAccount();
        break;
    case GoogleStoreAction::sync:
        if (single && needingReconnect.front() == *single) retry = StoreRetryOperation::reconnectGoogleAccount(*single);
        break;
    case GoogleStoreAction::reconnect:
        if (single) retry = StoreRetryOperation::reconnectGoogleAccount(*single);
        break;
    case GoogleStoreAction::disconnect:
        break;
    }
    recordFailure(reconnect, std::move(retry));
}

// --- Partial mutations -------------------------------------------------------

std::optional<AppStore::PartialMutationReport> AppStore::partialMutationReport(std::exception_ptr failure) {
    if (!failure) return std::nullopt;
    try {
        std::rethrow_exception(failure);
    } catch (const GoogleMutationPartialFailure& partial) {
        if (!partial.isPartialMutation()) return std::nullopt;
        return PartialMutationReport{partial.operation(), partial.remainingDestinations(),
                                     partial.conflictingDestinations().size()};
    } catch (...) {
    }
    return std::nullopt;
}

QCoro::Task<void> AppStore::handlePartialGoogleMutation(PartialMutationReport report, UUID groupID,
                                                        std::vector<CalendarEvent> completeDesiredEvents) {
    QPointer<AppStore> self(this);
    // What reached Google is stored; the screen shows exactly that.
    try {
        co_await reloadSnapshotFromService();
    } catch (const std::exception& error) {
        qCInfo(lcAppStore) << "reload after a partial mutation failed:" << error.what();
    }
    if (!self) co_return;

    if (report.remainingDestinations.empty()) {
        recordFailure(QStringLiteral("一部のカレンダーへの変更状態を確認できませんでした。予定を開き直してください。"),
                      std::nullopt);
        co_return;
    }
    const auto remaining = report.remainingDestinations.size();
    const auto conflicting = report.conflictingCount;
    PendingGoogleMutation pending{report.operation, groupID, std::move(completeDesiredEvents),
                                  std::move(report.remainingDestinations)};
    recordFailure(QStringLiteral("一部のカレンダーへの変更が未完了です（残り%1件、競合%2件）。確認後に再試行してください。")
                      .arg(remaining)
                      .arg(conflicting),
                  StoreRetryOperation::googleMutation(std::move(pending)));
}

QCoro::Task<void> AppStore::retryGoogleMutation(PendingGoogleMutation mutation) {
    QPointer<AppStore> self(this);
    const auto google = googleAccountService_;
    if (!google) co_return;
    const auto hold = co_await holdTransaction();
    if (!hold) co_return;

    // A retry shows nothing ahead of the service, so there is nothing to take
    // back on a failure: the reload below shows what arrived.
    std::exception_ptr failure;
    try {
        // Only the copies that did not arrive; the others stay as stored.
        std::vector<CalendarEvent> desired = mutation.completeDesiredEvents;
        std::vector<GoogleMutationDestination> remaining = mutation.remainingDestinations;
        co_await google->retryMutation(mutation.operation, mutation.groupID, std::move(desired), std::move(remaining));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return;
    if (!failure) {
        try {
            co_await reloadSnapshotFromService();
        } catch (...) {
            failure = std::current_exception();
        }
        if (!self) co_return;
        if (!failure) {
            clearPersistenceMessage();
            co_return;
        }
    }
    if (auto report = partialMutationReport(failure)) {
        co_await handlePartialGoogleMutation(std::move(*report), mutation.groupID,
                                             std::move(mutation.completeDesiredEvents));
        co_return;
    }
    recordMutationFailure(failure, std::nullopt);
}

// --- Retry seams -------------------------------------------------------------

QCoro::Task<void> AppStore::retrySyncGoogleAccount(UUID accountID) {
    co_await syncGoogleAccount(accountID);
}

QCoro::Task<void> AppStore::retrySyncAllGoogleAccounts() {
    co_await syncAllGoogleAccounts();
}

QCoro::Task<void> AppStore::retryGoogleAuthentication(std::optional<UUID> reconnectAccountID) {
    const auto request = reconnectAccountID ? GoogleAuthenticationRequest::reconnect(*reconnectAccountID)
                                            : GoogleAuthenticationRequest::connect();
    auto task = beginGoogleAuthentication(request);
    if (!task) co_return;
    try {
        co_await task->result();
    } catch (const std::exception& error) {
        // Its outcome is on screen already.
        qCInfo(lcAppStore) << "retried authentication ended with" << error.what();
    }
}

} // namespace tavelo
