#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>

#include "stores/AppStore.h"
#include "support/Async.h"

namespace tavelo {

// Keeps a workspace's Google calendars fresh while its window lives: asks the
// store for its throttled refresh when the store arrives, once a minute, and
// whenever the application becomes active. The store decides whether enough
// time has passed; this only knocks.
class GoogleRefreshSchedule : public QObject {
    Q_OBJECT
public:
    static constexpr int kCheckIntervalMilliseconds = 60 * 1000;

    explicit GoogleRefreshSchedule(Clock now = systemClock(), QObject* parent = nullptr);
    ~GoogleRefreshSchedule() override;

    // The store of the current workspace, or null without one. A new store
    // is asked at once.
    void setStore(AppStore* store);
    AppStore* store() const { return store_.data(); }
    // Asks the store now, unless an earlier question is still running.
    void check();
    // How many questions were put to a store; for the tests of the wiring.
    int checkCount() const { return checkCount_; }

private:
    Clock now_;
    QPointer<AppStore> store_;
    QTimer timer_;
    bool isChecking_ = false;
    int checkCount_ = 0;
};

} // namespace tavelo
