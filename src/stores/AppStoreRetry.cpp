// AppStore: running the retry the message bar offers.

#include "stores/AppStore.h"
#include "stores/AppStoreInternal.h"

#include <QLoggingCategory>
#include <QThreadPool>

#include <QCoro/QCoroTimer>

#include "support/Observable.h"

#include "stores/EventAccessPolicy.h"
#include "stores/EventEquality.h"
#include "stores/EventMutationEngine.h"
#include "support/TextFolding.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

namespace tavelo {

using appstore::releaseInBackground;

// --- Retry ---------------------------------------------------------------

QCoro::Task<void> AppStore::retryLastOperation() {
    if (!retryOperation_) co_return;
    const StoreRetryOperation operation = *retryOperation_;
    using Kind = StoreRetryOperation::Kind;
    switch (operation.kind()) {
    case Kind::load:
        co_await load();
        break;
    case Kind::persist:
        try {
            co_await persist();
        } catch (const std::exception& error) {
            // Already on screen, with the same retry offer.
            qCInfo(lcAppStore) << "retried save failed again:" << error.what();
        }
        break;
    case Kind::setCalendarVisibility: {
        const auto& retry = *operation.as<StoreRetryOperation::SetCalendarVisibility>();
        co_await setCalendarVisibility(retry.id, retry.isVisible);
        break;
    }
    case Kind::updatePreferences:
        co_await updatePreferencesNow(operation.as<StoreRetryOperation::UpdatePreferences>()->preferences);
        break;
    case Kind::includePastSearchResults:
        co_await setPastSearchResultsIncluded(operation.as<StoreRetryOperation::IncludePastSearchResults>()->isIncluded);
        break;
    case Kind::setTaskCompletion: {
        const auto& retry = *operation.as<StoreRetryOperation::SetTaskCompletion>();
        co_await setTaskCompletion(retry.eventID, retry.isCompleted);
        break;
    }
    case Kind::syncGoogleAccount:
        co_await retrySyncGoogleAccount(operation.as<StoreRetryOperation::SyncGoogleAccount>()->accountID);
        break;
    case Kind::syncAllGoogleAccounts:
        co_await retrySyncAllGoogleAccounts();
        break;
    case Kind::reconnectGoogleAccount:
        co_await retryGoogleAuthentication(operation.as<StoreRetryOperation::ReconnectGoogleAccount>()->accountID);
        break;
    case Kind::connectGoogleAccount:
        co_await retryGoogleAuthentication(std::nullopt);
        break;
    case Kind::googleMutation:
        co_await retryGoogleMutation(operation.as<StoreRetryOperation::GoogleMutation>()->mutation);
        break;
    }
}


} // namespace tavelo
