// AICloudStore: tokens in the secret store, and announcing changes.

#include "ai/AICloudStore.h"
#include "ai/AICloudStoreInternal.h"

#include "support/Observable.h"

#include "ai/CloudJson.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QStringDecoder>
#include <QTextBoundaryFinder>

namespace tavelo {

using namespace aicloud;

// --- secret store ------------------------------------------------------------------------------

QCoro::Task<QString> AICloudStore::loadToken(QString key) {
    if (auto it = storedTokens_.find(key); it != storedTokens_.end()) co_return rememberedToken(it->second);
    QPointer<AICloudStore> self(this);
    const std::int64_t generation = generation_;
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    if (!self) throw CancellationError();
    // Another read or a save may have answered while this one waited.
    if (auto it = storedTokens_.find(key); it != storedTokens_.end()) co_return rememberedToken(it->second);

    const SecretReadResult result = co_await secrets->read(QString::fromLatin1(kKeychainService), key);
    if (!self) throw CancellationError();
    auto outcome = interpretRead(result);
    // Each key is asked once per run, a failure included; an account change
    // in between makes the answer stale.
    if (generation == generation_) storedTokens_.insert_or_assign(key, outcome);
    co_return rememberedToken(outcome);
}

QCoro::Task<void> AICloudStore::saveToken(QString token, QString key) {
    QPointer<AICloudStore> self(this);
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    const std::int32_t status = co_await secrets->save(QString::fromLatin1(kKeychainService), key, token.toUtf8());
    if (status != SecretStatus::success) throw CloudError(kKeySaveFailed, status);
    if (self) storedTokens_.insert_or_assign(key, token);
}

QCoro::Task<void> AICloudStore::removeToken(QString key) {
    QPointer<AICloudStore> self(this);
    auto lock = keychainLock_;
    auto secrets = deps_.secrets;
    co_await lock->acquire(false);
    LockRelease release{lock};
    co_await secrets->remove(QString::fromLatin1(kKeychainService), key);
    if (self) storedTokens_.erase(key);
}

// --- observable state ---------------------------------------------------------------------------

void AICloudStore::setState(AICloudState state) {
    if (assignIfChanged(state_, std::move(state))) pendingChanges_ |= kStateChange;
}

void AICloudStore::setAccount(std::optional<AIAccount> account) {
    if (assignIfChanged(account_, std::move(account))) pendingChanges_ |= kAccountChange;
}

void AICloudStore::setErrorMessage(std::optional<QString> message) {
    if (assignIfChanged(errorMessage_, std::move(message))) pendingChanges_ |= kErrorMessageChange;
}

void AICloudStore::setEndpoint(QString endpoint) {
    if (assignIfChanged(endpoint_, std::move(endpoint))) pendingChanges_ |= kEndpointChange;
}

void AICloudStore::setSession(std::optional<TaveloSession> session) {
    if (assignIfChanged(session_, std::move(session))) pendingChanges_ |= kSessionChange;
}

void AICloudStore::setIsRestoringSession(bool value) {
    if (assignIfChanged(isRestoringSession_, value)) pendingChanges_ |= kRestoringChange;
}

void AICloudStore::setIsRefreshing(bool value) {
    if (assignIfChanged(isRefreshing_, value)) pendingChanges_ |= kRefreshingChange;
}

void AICloudStore::setTaveloEmail(std::optional<QString> email) {
    if (assignIfChanged(taveloEmail_, std::move(email))) pendingChanges_ |= kEmailChange;
}

void AICloudStore::setConnectionID(QString id) {
    if (assignIfChanged(connectionID_, std::move(id))) pendingChanges_ |= kConnectionIDChange;
}

void AICloudStore::emitChanges() {
    // Signals go out after a whole step, so that a listener never sees a
    // half-applied account change.
    const unsigned changes = std::exchange(pendingChanges_, 0u);
    const auto workspace = workspaceID();
    const bool workspaceChanged = workspace != notifiedWorkspaceID_;
    notifiedWorkspaceID_ = workspace;
    QPointer<AICloudStore> self(this);
    auto emitIf = [&](unsigned bit, void (AICloudStore::*signal)()) {
        if ((changes & bit) && self) (this->*signal)();
    };
    emitIf(kEndpointChange, &AICloudStore::endpointChanged);
    emitIf(kSessionChange, &AICloudStore::sessionChanged);
    emitIf(kEmailChange, &AICloudStore::taveloEmailChanged);
    emitIf(kAccountChange, &AICloudStore::accountChanged);
    emitIf(kStateChange, &AICloudStore::stateChanged);
    emitIf(kErrorMessageChange, &AICloudStore::errorMessageChanged);
    emitIf(kRestoringChange, &AICloudStore::isRestoringSessionChanged);
    emitIf(kRefreshingChange, &AICloudStore::isRefreshingChanged);
    if (workspaceChanged && self) emit workspaceIDChanged();
    emitIf(kConnectionIDChange, &AICloudStore::connectionIDChanged);
}



} // namespace tavelo
