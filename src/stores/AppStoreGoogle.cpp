// AppStore: the Google accounts — connecting and reconnecting through the
// browser, syncing, disconnecting, the automatic refresh and what each
// account shows.

#include "stores/AppStore.h"
#include "stores/AppStoreInternal.h"

#include <algorithm>

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

QCoro::Task<bool> AppStore::refreshGoogleAccountsIfNeeded(Date, std::stop_token) {
    co_return false;
}

QCoro::Task<bool> AppStore::refreshGoogleAccounts(std::stop_token) {
    co_return false;
}

QCoro::Task<bool> AppStore::syncAllGoogleAccounts(std::stop_token) {
    co_return false;
}

QCoro::Task<bool> AppStore::syncGoogleAccount(UUID, std::stop_token) {
    co_return false;
}

QCoro::Task<bool> AppStore::disconnectGoogleAccount(UUID, std::stop_token) {
    co_return false;
}

std::optional<BackgroundTask<bool>> AppStore::beginGoogleAuthentication(GoogleAuthenticationRequest) {
    return std::nullopt;
}

} // namespace tavelo
