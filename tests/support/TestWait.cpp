#include "support/TestWait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QThread>

namespace tavelo::testing {

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (!condition()) QThread::usleep(200);
    }
    return true;
}

} // namespace tavelo::testing
