#include "utility/thread_object_t.h"

#include "platform/logs/classlogs.h"

#include <QThread>

namespace utility {

namespace {

constexpr const char* LOG_SOURCE = "server/utility/thread_object_t";

} // namespace

void thread_object_t::finish_thread(QThread* thread, const bool& wait)
{
    // Quitting the caller's own thread from inside would leave this call waiting for itself.
    if (!thread || thread == QThread::currentThread() || !thread->isRunning())
        return;
    if (!wait) {
        QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
        thread->quit();
        return;
    }
    thread->quit();
    // The thread's last act is to run the deferred deletions posted to it, the instance's
    // included, so once wait() returns the instance is gone.
    thread->wait();
    thread->deleteLater();
}

void thread_object_t::log_destroyed(const QString& name)
{
    ORVANE_LOG(QStringLiteral("Instance of %1 destroyed").arg(name), 6, LOG_SOURCE);
}

} // namespace utility
