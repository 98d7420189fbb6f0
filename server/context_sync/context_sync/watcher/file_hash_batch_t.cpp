#include "context_sync/context_sync/watcher/file_hash_batch_t.h"

#include <QThread>

#include <system_error>

#include <time.h>

namespace context_sync_engine {

namespace {

qint64 realtime_ns()
{
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<qint64>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

} // namespace

file_hash_batch_t::file_hash_batch_t(hash_function_t hash_function, int helpers)
    : hash_function(std::move(hash_function))
    , helper_limit(helpers > 0 ? helpers : 0)
{
}

file_hash_batch_t::~file_hash_batch_t()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    work_added.notify_all();
    for (std::thread& helper : helpers)
        helper.join();
}

int file_hash_batch_t::default_helpers()
{
    // Qt counts the cores this process may run on (its CPU affinity), not all of the machine's.
    const int cores = QThread::idealThreadCount();
    return cores > 1 ? cores - 1 : 0;
}

void file_hash_batch_t::add(const QString& path)
{
    {
        std::lock_guard<std::mutex> guard(lock);
        job_t job;
        job.result.path = path;
        jobs.push_back(std::move(job));
        if (static_cast<int>(helpers.size()) < helper_limit) {
            try {
                helpers.emplace_back([this] { helper_loop(); });
            } catch (const std::system_error&) {
                // No thread to be had: the helpers that exist and the owner do the work.
            }
        }
    }
    work_added.notify_one();
}

bool file_hash_batch_t::take_ready(result_t& result)
{
    std::lock_guard<std::mutex> guard(lock);
    if (jobs.empty() || !jobs.front().done)
        return false;
    result = std::move(jobs.front().result);
    jobs.pop_front();
    ++taken;
    return true;
}

bool file_hash_batch_t::take_next(result_t& result)
{
    std::unique_lock<std::mutex> guard(lock);
    if (jobs.empty())
        return false;
    while (!jobs.front().done) {
        if (has_unclaimed())
            hash_next_unclaimed(guard);
        else
            job_done.wait(guard);
    }
    result = std::move(jobs.front().result);
    jobs.pop_front();
    ++taken;
    return true;
}

std::size_t file_hash_batch_t::size() const
{
    std::lock_guard<std::mutex> guard(lock);
    return jobs.size();
}

int file_hash_batch_t::helpers_started() const
{
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<int>(helpers.size());
}

void file_hash_batch_t::helper_loop()
{
    std::unique_lock<std::mutex> guard(lock);
    for (;;) {
        work_added.wait(guard, [this] { return stopping || has_unclaimed(); });
        if (stopping)
            return;
        hash_next_unclaimed(guard);
    }
}

bool file_hash_batch_t::has_unclaimed() const
{
    return next_claim < taken + jobs.size();
}

void file_hash_batch_t::hash_next_unclaimed(std::unique_lock<std::mutex>& guard)
{
    job_t& job = jobs[next_claim - taken];
    ++next_claim;
    guard.unlock();
    // Only this thread touches the claimed job until it is marked done under the lock.
    job.result.started_ns = realtime_ns();
    try {
        job.result.hash = hash_function(job.result.path);
    } catch (...) {
        // Nothing may escape a helper thread; the file counts as unreadable.
        job.result.hash.clear();
    }
    guard.lock();
    job.done = true;
    job_done.notify_all();
}

} // namespace context_sync_engine
