#include "log_capture_t.h"

#include "platform/logs/classlogs.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

namespace test_support {

using utility::logs::classlogs;
using utility::logs::log_record_t;

log_capture_t::log_capture_t()
{
    if (classlogs* logs = classlogs::getInstance()) {
        logs->flush();  // lines logged before the capture existed are not ours
        listener_id_ = logs->add_listener([state = state_](const log_record_t& record) {
            std::lock_guard lock(state->mutex);
            state->records.append(record);
            state->changed.notify_all();
        });
    }
}

log_capture_t::~log_capture_t()
{
    if (classlogs* logs = classlogs::getInstance(); logs && listener_id_)
        logs->remove_listener(listener_id_);
}

void log_capture_t::sync()
{
    if (classlogs* logs = classlogs::getInstance())
        logs->flush();
}

QList<log_record_t> log_capture_t::records()
{
    sync();
    std::lock_guard lock(state_->mutex);
    return state_->records;
}

QStringList log_capture_t::messages(int level)
{
    QStringList result;
    for (const log_record_t& record : records())
        if (level < 0 || record.level == level)
            result.append(record.message);
    return result;
}

bool log_capture_t::contains(const QString& message, int level)
{
    return count(message, level) > 0;
}

int log_capture_t::count(const QString& message, int level)
{
    int n = 0;
    for (const log_record_t& record : records())
        if (record.message == message && (level < 0 || record.level == level))
            ++n;
    return n;
}

bool log_capture_t::contains_fragment(const QString& fragment, int level)
{
    for (const log_record_t& record : records())
        if (record.message.contains(fragment) && (level < 0 || record.level == level))
            return true;
    return false;
}

bool log_capture_t::matches_locked(const state_t& state, const QString& message, int level)
{
    for (const log_record_t& record : state.records)
        if (record.message == message && (level < 0 || record.level == level))
            return true;
    return false;
}

bool log_capture_t::wait_for(const QString& message, int level, std::chrono::milliseconds timeout)
{
    // Keep the caller's event loop turning: the line may come from a queued slot of this thread.
    QDeadlineTimer deadline(timeout);
    for (;;) {
        {
            std::unique_lock lock(state_->mutex);
            if (matches_locked(*state_, message, level))
                return true;
            state_->changed.wait_for(lock, std::chrono::milliseconds(10));
            if (matches_locked(*state_, message, level))
                return true;
        }
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
}

void log_capture_t::clear()
{
    sync();
    std::lock_guard lock(state_->mutex);
    state_->records.clear();
}

}  // namespace test_support
