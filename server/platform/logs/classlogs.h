// The process's log facility: a singleton that queues every line to one background writer thread,
// which hands it to spdlog sinks (console and a rotating file, each with its own level limit) and
// to any registered listeners (tests attach an in-memory capture this way).
//
// Threads: log_asynch() may be called from any thread and never blocks on I/O; sinks and listeners
// run on the writer thread, in the order the lines were queued. flush() waits until everything
// queued before it has been written. destroyInstance() flushes, so nothing is lost at a normal
// shutdown. Without an instance, write() drops the line.
#pragma once

#include "platform/logs/log_level.h"
#include "platform/logs/log_record_t.h"

#include <QString>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace spdlog::sinks {
class sink;
}

namespace utility::logs {

struct classlogs_settings_t {
    unsigned level_std = 4;     // console gets lines whose level is at most this
    unsigned level_file = 5;    // the file gets lines whose level is at most this
    unsigned size_mb = 25;      // size of one log file before it rotates
    unsigned rotate = 5;        // files kept in rotation
    QString folder;             // empty: no log file
    QString file_name = QStringLiteral("server-orvane");
    bool console = true;
};

class classlogs {
public:
    using listener_t = std::function<void(const log_record_t&)>;

    static classlogs* createInstance(const classlogs_settings_t& settings = {});
    static classlogs* getInstance();
    static void destroyInstance();

    // Logs through the instance if there is one; drops the line otherwise.
    static void write(const QString& message, int level, const char* function, const char* file,
                      int line);

    void log_asynch(const QString& message, int level, const QString& function,
                    const QString& file, int line);

    // Blocks until every line queued before the call has reached the sinks and listeners.
    void flush();

    int add_listener(listener_t listener);
    void remove_listener(int id);

    const classlogs_settings_t& settings() const { return settings_; }
    // Path of the current log file, empty when there is none.
    QString file_path() const;

    classlogs(const classlogs&) = delete;
    classlogs& operator=(const classlogs&) = delete;

private:
    explicit classlogs(const classlogs_settings_t& settings);
    ~classlogs();

    void run();
    void emit_record(const log_record_t& record);

    classlogs_settings_t settings_;
    std::shared_ptr<spdlog::sinks::sink> console_sink_;
    std::shared_ptr<spdlog::sinks::sink> file_sink_;

    std::mutex queue_mutex_;
    std::condition_variable queue_cv_;
    std::condition_variable written_cv_;
    std::deque<log_record_t> queue_;
    std::uint64_t queued_ = 0;
    std::uint64_t written_ = 0;
    bool stopping_ = false;

    std::mutex listeners_mutex_;
    std::map<int, listener_t> listeners_;
    int next_listener_id_ = 1;

    std::thread writer_;
};

}  // namespace utility::logs

// Logs `message` at `level` with the calling function and line; `file` is the log's source name
// of the calling class (for example "server/utility/utility_t").
#define ORVANE_LOG(message, level, file) \
    ::utility::logs::classlogs::write((message), (level), __func__, (file), __LINE__)
