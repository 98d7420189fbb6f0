// In-memory capture of the log facility for tests. It registers a listener with the current
// classlogs instance on construction and removes it on destruction. Lines arrive on the log
// writer thread; every query first waits until everything logged so far has been written, so a
// test may assert right after the action that logs, and a "nothing was logged" check is exact.
#pragma once

#include "platform/logs/log_record_t.h"

#include <QList>
#include <QString>

#include <chrono>
#include <memory>
#include <condition_variable>
#include <mutex>

namespace test_support {

class log_capture_t {
public:
    log_capture_t();
    ~log_capture_t();
    log_capture_t(const log_capture_t&) = delete;
    log_capture_t& operator=(const log_capture_t&) = delete;

    // Every record so far, in order.
    QList<utility::logs::log_record_t> records();
    // Messages only, optionally only those of one level (-1: any level).
    QStringList messages(int level = -1);

    bool contains(const QString& message, int level = -1);
    int count(const QString& message, int level = -1);
    // True if some message contains `fragment` (any level when level is -1).
    bool contains_fragment(const QString& fragment, int level = -1);

    // Waits until `message` (exact text) has been logged at `level` (-1: any), for lines logged
    // by other threads later on; returns false after `timeout`.
    bool wait_for(const QString& message, int level = -1,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

    void clear();

private:
    void sync();
    // Shared with the listener, which runs on the log writer thread: the state lives on the heap
    // so that it never depends on where the capture itself was constructed.
    struct state_t {
        std::mutex mutex;
        std::condition_variable changed;
        QList<utility::logs::log_record_t> records;
    };
    static bool matches_locked(const state_t& state, const QString& message, int level);

    std::shared_ptr<state_t> state_ = std::make_shared<state_t>();
    int listener_id_ = 0;
};

}  // namespace test_support
