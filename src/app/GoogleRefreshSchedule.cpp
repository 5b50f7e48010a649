#include "app/GoogleRefreshSchedule.h"

#include "stores/AppStore.h"

#include <QGuiApplication>

namespace tavelo {

namespace {

QCoro::Task<void> refresh(QPointer<AppStore> store, Date now, QPointer<QObject> owner, bool* isChecking) {
    try {
        if (store) co_await store->refreshGoogleAccountsIfNeeded(now);
    } catch (...) {
        // Failures are in the store's message bar already.
    }
    if (owner) *isChecking = false;
}

} // namespace

GoogleRefreshSchedule::GoogleRefreshSchedule(Clock now, QObject* parent) : QObject(parent), now_(std::move(now)) {
    timer_.setInterval(kCheckIntervalMilliseconds);
    connect(&timer_, &QTimer::timeout, this, &GoogleRefreshSchedule::check);
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        connect(gui, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive) check();
        });
    }
}

GoogleRefreshSchedule::~GoogleRefreshSchedule() = default;

void GoogleRefreshSchedule::setStore(AppStore* store) {
    if (store_ == store) return;
    store_ = store;
    isChecking_ = false;
    if (!store_) {
        timer_.stop();
        return;
    }
    timer_.start();
    check();
}

void GoogleRefreshSchedule::check() {
    if (!store_ || isChecking_) return;
    isChecking_ = true;
    ++checkCount_;
    // Dropped on purpose: the coroutine lives until it ends and touches this
    // object only while it exists.
    [[maybe_unused]] auto detached = refresh(store_, now_(), QPointer<QObject>(this), &isChecking_);
}

} // namespace tavelo
