#include "event_wait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <thread>

namespace test_support {

bool wait_until(const std::function<bool()>& done, int timeout_ms, wait_turn_t turn)
{
    const QDeadlineTimer deadline(timeout_ms);
    while (!done()) {
        if (deadline.hasExpired())
            return done();
        if (turn == wait_turn_t::yield_only) {
            std::this_thread::yield();
            continue;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (turn == wait_turn_t::events_and_deletions)
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
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
