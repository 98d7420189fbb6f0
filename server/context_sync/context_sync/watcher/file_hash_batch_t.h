// file_hash_batch_t hashes a queue of files on helper threads while the thread that owns it goes
// on with other work (the monitor's scan validates the next entries and adds watches meanwhile),
// and hands the results back in the order the files were queued. When the owner asks for a result
// that is not ready yet, it hashes queued files itself instead of waiting idle; a batch without
// helpers (one core) therefore hashes every file on the owner's thread, in order.
//
// Thread: created, fed and read by one thread (the context monitor's). Up to `helpers` helper
// threads (std::thread) start with the first add() and are joined by the destructor, which
// abandons files nobody has started on. The hash function runs on any of these threads, so it
// must touch no shared state; each file is hashed whole by one thread, so a streaming hash
// function keeps at most one read block per thread in memory.
// Owns: the helper threads and the queue. Signals: none (not a QObject).
#pragma once

#include "context_sync/context_sync_export.h"

#include <QString>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT file_hash_batch_t {
public:
    // Absolute path to hash text; empty when the file cannot be read.
    using hash_function_t = std::function<QString(const QString&)>;

    struct result_t {
        QString path;
        QString hash;
        // CLOCK_REALTIME in nanoseconds just before the hash function was called for the file.
        qint64 started_ns = 0;
    };

    file_hash_batch_t(hash_function_t hash_function, int helpers);
    ~file_hash_batch_t();

    file_hash_batch_t(const file_hash_batch_t&) = delete;
    file_hash_batch_t& operator=(const file_hash_batch_t&) = delete;

    // Helpers worth starting here: one per core besides the owner's (none on one core).
    static int default_helpers();

    void add(const QString& path);
    // The oldest result not taken yet, if it is ready; false otherwise.
    bool take_ready(result_t& result);
    // The oldest result not taken yet, hashing queued files meanwhile; false when none is left.
    bool take_next(result_t& result);
    // Files queued and not taken yet.
    std::size_t size() const;
    // Helper threads started so far.
    int helpers_started() const;

private:
    struct job_t {
        result_t result;
        bool done = false;
    };

    void helper_loop();
    // Claims the oldest unclaimed job and hashes it with `lock` released meanwhile.
    void hash_next_unclaimed(std::unique_lock<std::mutex>& lock);
    bool has_unclaimed() const;

    const hash_function_t hash_function;
    const int helper_limit;

    mutable std::mutex lock;
    // Helpers wait for work (or the end); the owner waits for the oldest job to be done.
    std::condition_variable work_added;
    std::condition_variable job_done;
    // Front: the oldest job not taken. Jobs are only appended (references to the others stay
    // valid) and taken from the front once done, so a thread that claimed a job may use it
    // without the lock until it marks it done.
    std::deque<job_t> jobs;
    // Absolute job numbers: how many were taken from the front, and the next one to claim.
    std::size_t taken = 0;
    std::size_t next_claim = 0;
    bool stopping = false;
    std::vector<std::thread> helpers;
};

} // namespace context_sync_engine
