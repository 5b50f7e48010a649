// AICloudStore: AI schedules and their cache file.

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

// --- AI schedules -------------------------------------------------------------------------

QCoro::Task<void> AICloudStore::refresh(std::stop_token stop) {
    if (!session_ || isRefreshing_) co_return;
    QPointer<AICloudStore> self(this);
    setIsRefreshing(true);
    emitChanges();
    const std::int64_t generation = generation_;

    std::exception_ptr failure;
    try {
        auto state =
            co_await send<AICloudState>("GET", QStringLiteral("state"), std::nullopt, std::nullopt, std::nullopt, stop);
        ensureCurrent(self, generation, stop);
        setState(std::move(state));
        writeCache();
        setErrorMessage(std::nullopt);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) co_return;
    // On failure the screen keeps showing the last known state.
    if (failure && generation == generation_ && !isCancellation(failure))
        setErrorMessage(localizedDescription(failure));
    if (generation == generation_) setIsRefreshing(false);
    emitChanges();
}

QCoro::Task<void> AICloudStore::save(AISchedule schedule, std::stop_token stop) {
    co_await send<AISchedule>("PUT", QStringLiteral("schedules"), cloudjson::toBytes(encodeJson(schedule)),
                              std::nullopt, std::nullopt, stop);
    co_await refresh(stop);
}

QCoro::Task<void> AICloudStore::runNow(UUID scheduleID, std::stop_token stop) {
    co_await send<CloudStringMap>("POST", QStringLiteral("run"),
                                  runBody(scheduleID), std::nullopt,
                                  std::nullopt, stop);
    co_await refresh(stop);
}

QCoro::Task<void> AICloudStore::deleteSchedule(UUID scheduleID, std::stop_token stop) {
    co_await send<CloudStringMap>("DELETE", QStringLiteral("schedules/") + scheduleID.toString().toLower(),
                                  std::nullopt, std::nullopt, std::nullopt, stop);
    co_await refresh(stop);
}

void AICloudStore::writeCache() {
    const auto path = cacheFilePath();
    if (!path) return;
    if (!QDir().mkpath(QFileInfo(*path).absolutePath())) throw CloudError(kCacheWriteFailed);
    QSaveFile file(*path);
    const std::string json = encodeJson(state_);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(json.data(), static_cast<qint64>(json.size())) != static_cast<qint64>(json.size()) ||
        !file.commit())
        throw CloudError(kCacheWriteFailed);
}

std::optional<AICloudState> AICloudStore::readCache(const QString& workspaceID) const {
    QFile file(deps_.cacheDirectory + QStringLiteral("/users/") + workspaceID + QStringLiteral("/ai-cloud-cache.json"));
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaximumCacheBytes) return std::nullopt;
    const QByteArray data = file.readAll();
    try {
        return AICloudState::fromCloudJson(std::string_view(data.constData(), static_cast<std::size_t>(data.size())));
    } catch (const std::exception& error) {
        // The next refresh writes it anew; until then nothing is shown.
        qCWarning(lcAICloud) << "unreadable AI cache" << file.fileName() << error.what();
        return std::nullopt;
    }
}


} // namespace tavelo
