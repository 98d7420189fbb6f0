#include "event_wait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

namespace test_support {

bool wait_until(const std::function<bool()>& done, int timeout_ms)
{
    const QDeadlineTimer deadline(timeout_ms);
    while (!done()) {
        if (deadline.hasExpired())
            return done();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

void settle(int ms)
{
    const QDeadlineTimer deadline(ms);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
}

} // namespace test_support
