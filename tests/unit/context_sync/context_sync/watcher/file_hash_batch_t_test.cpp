// The batch that hashes a scan's files on helper threads: results in the order the files were
// queued, the owner's thread hashing what nobody has started, no helper on one core, unreadable
// files and failing hash functions, and destruction with work left.
#include "context_sync/context_sync/watcher/file_hash_batch_t.h"

#include "context_sync/context_sync/watcher/context_monitor_t.h"

#include "common/event_wait.h"
#include "common/md5_hex.h"
#include "common/temp_tree_t.h"

#include <QCryptographicHash>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <time.h>

using context_sync_engine::context_monitor_t;
using context_sync_engine::file_hash_batch_t;
using test_support::md5_hex;
using test_support::temp_tree_t;

namespace {

constexpr int kWaitMs = 8000;

qint64 realtime_ns()
{
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<qint64>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Waits (bounded) until `done` holds. Helper threads wait here as well, and the batch sends no
// events: the wait only yields.
bool wait_until(const std::function<bool()>& done)
{
    return test_support::wait_until(done, kWaitMs, test_support::wait_turn_t::yield_only);
}

// Records which thread hashed which path.
struct thread_log_t {
    void record(const QString& path)
    {
        std::lock_guard<std::mutex> guard(lock);
        threads[path] = std::this_thread::get_id();
    }
    std::thread::id of(const QString& path)
    {
        std::lock_guard<std::mutex> guard(lock);
        return threads[path];
    }
    std::mutex lock;
    std::map<QString, std::thread::id> threads;
};

} // namespace

TEST(FileHashBatch, ResultsComeBackInTheOrderTheFilesWereAdded)
{
    constexpr int kFiles = 120;
    temp_tree_t tree;
    QStringList paths;
    QStringList expected;
    for (int i = 0; i < kFiles; ++i) {
        // Sizes from 0 to a few read blocks, so that files finish out of order.
        const QByteArray content = temp_tree_t::random_bytes((i * 7919) % 600000, i + 1);
        const QString rel = QStringLiteral("f_%1.bin").arg(i);
        ASSERT_TRUE(tree.write(rel, content));
        paths.append(tree.path(rel));
        expected.append(md5_hex(content));
    }

    file_hash_batch_t batch(&context_monitor_t::compute_file_hash, 3);
    const qint64 before = realtime_ns();
    for (const QString& path : paths)
        batch.add(path);
    EXPECT_EQ(batch.size(), static_cast<std::size_t>(kFiles));

    for (int i = 0; i < kFiles; ++i) {
        file_hash_batch_t::result_t result;
        ASSERT_TRUE(batch.take_next(result));
        EXPECT_EQ(result.path, paths.at(i));
        EXPECT_EQ(result.hash, expected.at(i)) << i;
        EXPECT_GE(result.started_ns, before);
        EXPECT_LE(result.started_ns, realtime_ns());
    }
    file_hash_batch_t::result_t none;
    EXPECT_FALSE(batch.take_next(none));
    EXPECT_FALSE(batch.take_ready(none));
    EXPECT_EQ(batch.size(), 0u);
    EXPECT_EQ(batch.helpers_started(), 3);
}

TEST(FileHashBatch, WithoutHelpersTheOwnerHashesEverythingWhenAsked)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("a", "first"));
    ASSERT_TRUE(tree.write("b", "second"));
    thread_log_t log;
    std::atomic<int> calls { 0 };
    file_hash_batch_t batch(
        [&](const QString& path) {
            ++calls;
            log.record(path);
            return context_monitor_t::compute_file_hash(path);
        },
        0);
    batch.add(tree.path("a"));
    batch.add(tree.path("b"));

    // Nobody hashes before the owner asks.
    file_hash_batch_t::result_t result;
    EXPECT_FALSE(batch.take_ready(result));
    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(batch.helpers_started(), 0);

    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.hash, md5_hex("first"));
    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.hash, md5_hex("second"));
    EXPECT_EQ(log.of(tree.path("a")), std::this_thread::get_id());
    EXPECT_EQ(log.of(tree.path("b")), std::this_thread::get_id());
}

TEST(FileHashBatch, AHelperHashesWhileTheOwnerDoesSomethingElse)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("a", "content"));
    thread_log_t log;
    file_hash_batch_t batch(
        [&](const QString& path) {
            log.record(path);
            return context_monitor_t::compute_file_hash(path);
        },
        1);
    batch.add(tree.path("a"));

    file_hash_batch_t::result_t result;
    ASSERT_TRUE(wait_until([&] { return batch.take_ready(result); }));
    EXPECT_EQ(result.hash, md5_hex("content"));
    EXPECT_NE(log.of(tree.path("a")), std::this_thread::get_id());
    EXPECT_EQ(batch.helpers_started(), 1);
}

TEST(FileHashBatch, TheOwnerHashesTheNextFileWhileAHelperIsBusy)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("slow", "slow file"));
    ASSERT_TRUE(tree.write("quick", "quick file"));
    const QString slow = tree.path("slow");
    const QString quick = tree.path("quick");
    thread_log_t log;
    std::atomic<bool> slow_started { false };
    std::atomic<bool> slow_released { false };
    file_hash_batch_t batch(
        [&](const QString& path) {
            log.record(path);
            if (path == slow) {
                slow_started = true;
                // Held until the owner has hashed the quick file itself.
                wait_until([&] { return slow_released.load(); });
            } else {
                slow_released = true;
            }
            return context_monitor_t::compute_file_hash(path);
        },
        1);
    batch.add(slow);
    ASSERT_TRUE(wait_until([&] { return slow_started.load(); }));
    batch.add(quick);

    file_hash_batch_t::result_t result;
    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.path, slow);
    EXPECT_EQ(result.hash, md5_hex("slow file"));
    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.path, quick);
    EXPECT_EQ(result.hash, md5_hex("quick file"));
    EXPECT_NE(log.of(slow), std::this_thread::get_id());
    EXPECT_EQ(log.of(quick), std::this_thread::get_id());
}

TEST(FileHashBatch, AnUnreadableFileHasTheEmptyHash)
{
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("there", "x"));
    file_hash_batch_t batch(&context_monitor_t::compute_file_hash, 1);
    batch.add(tree.path("missing"));
    batch.add(tree.path("there"));
    file_hash_batch_t::result_t result;
    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.path, tree.path("missing"));
    EXPECT_TRUE(result.hash.isEmpty());
    ASSERT_TRUE(batch.take_next(result));
    EXPECT_EQ(result.hash, md5_hex("x"));
}

TEST(FileHashBatch, AHashFunctionThatThrowsCountsAsUnreadable)
{
    for (const int helpers : { 0, 1 }) {
        file_hash_batch_t batch(
            [](const QString& path) -> QString {
                if (path == "bad")
                    throw std::runtime_error("cannot hash");
                return QStringLiteral("ok");
            },
            helpers);
        batch.add("bad");
        batch.add("good");
        file_hash_batch_t::result_t result;
        ASSERT_TRUE(batch.take_next(result));
        EXPECT_TRUE(result.hash.isEmpty()) << helpers;
        ASSERT_TRUE(batch.take_next(result));
        EXPECT_EQ(result.hash, "ok") << helpers;
    }
}

TEST(FileHashBatch, DestroyingWithResultsNotTakenLeavesNoHashRunning)
{
    std::atomic<int> running { 0 };
    std::atomic<int> calls { 0 };
    {
        file_hash_batch_t batch(
            [&](const QString& path) {
                ++running;
                ++calls;
                std::this_thread::yield();
                --running;
                return path;
            },
            2);
        for (int i = 0; i < 1000; ++i)
            batch.add(QString::number(i));
        ASSERT_TRUE(wait_until([&] { return calls.load() > 0; }));
    }
    EXPECT_EQ(running.load(), 0);
    EXPECT_GT(calls.load(), 0);
}
