#include "services/StoreWorker.h"

#include <QPromise>
#include <QThread>
#include <QThreadPool>

#include <atomic>

namespace tavelo {

namespace {
thread_local const StoreWorker* currentWorker = nullptr;
}

StoreWorker::StoreWorker() : pool_(std::make_unique<QThreadPool>()) {
    // One thread, kept for the life of the store: jobs run in order, and a
    // save never pays for starting a thread.
    pool_->setMaxThreadCount(1);
    pool_->setExpiryTimeout(-1);
}

StoreWorker::~StoreWorker() { pool_->waitForDone(); }

bool StoreWorker::isCurrentThread() const { return currentWorker == this; }

QFuture<void> StoreWorker::start(std::function<void()> job) {
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    pool_->start([this, promise, job = std::move(job)] {
        currentWorker = this;
        job();
        currentWorker = nullptr;
        promise->finish();
    });
    return future;
}

} // namespace tavelo
