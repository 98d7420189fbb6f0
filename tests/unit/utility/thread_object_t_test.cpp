// utility::thread_object_t::deleteInstance: an object with a thread of its own is deleted on that
// thread, and the thread is quit, awaited and deleted in turn.

#include "utility/thread_object_t.h"

#include "common/event_wait.h"
#include "common/log_capture_t.h"

#include <QPointer>
#include <QThread>

#include <gtest/gtest.h>

namespace {

// No event loop runs on the test's thread: deferred deletions are delivered by the wait, as a
// returning event loop would.
bool wait_until(const std::function<bool()>& done, int timeout_ms = 5000)
{
    return test_support::wait_until(
        done, timeout_ms, test_support::wait_turn_t::events_and_deletions);
}

} // namespace

TEST(ThreadObject, DeleteInstanceDeletesTheObjectOnItsThreadAndEndsTheThread)
{
    test_support::log_capture_t log;
    auto* thread = new QThread();
    thread->start();
    auto* object = new QObject();
    object->setObjectName(QStringLiteral("worker"));
    object->moveToThread(thread);
    QPointer<QObject> guarded(object);
    QPointer<QThread> guarded_thread(thread);

    utility::thread_object_t::deleteInstance(QPointer<QObject>(object), true);

    // wait = true: the object is gone and the thread has finished when the call returns. A
    // deferred deletion of an object of that thread can only have run on it.
    EXPECT_TRUE(guarded.isNull());
    EXPECT_TRUE(thread->isFinished());
    EXPECT_TRUE(log.contains(QStringLiteral("Instance of worker destroyed"), 6));
    // The thread object itself goes on the next turn of this thread's event loop.
    EXPECT_TRUE(wait_until([&] { return guarded_thread.isNull(); }));
}

TEST(ThreadObject, WithoutWaitTheThreadIsDeletedOnceFinished)
{
    auto* thread = new QThread();
    thread->start();
    auto* object = new QObject();
    object->moveToThread(thread);
    QPointer<QObject> guarded(object);
    QPointer<QThread> guarded_thread(thread);

    utility::thread_object_t::deleteInstance(guarded, false);

    EXPECT_TRUE(wait_until([&] { return guarded_thread.isNull(); }));
    EXPECT_TRUE(guarded.isNull());
}

TEST(ThreadObject, AnObjectOnTheCallersThreadLeavesTheThreadRunning)
{
    test_support::log_capture_t log;
    auto* object = new QObject();
    object->setObjectName(QStringLiteral("local"));
    QPointer<QObject> guarded(object);

    utility::thread_object_t::deleteInstance(guarded, true);

    EXPECT_FALSE(guarded.isNull()); // deleted later, not at once
    EXPECT_TRUE(wait_until([&] { return guarded.isNull(); }));
    EXPECT_TRUE(QThread::currentThread()->isRunning());
    EXPECT_TRUE(log.contains(QStringLiteral("Instance of local destroyed"), 6));
}

TEST(ThreadObject, ANullPointerDoesNothing)
{
    test_support::log_capture_t log;
    utility::thread_object_t::deleteInstance(QPointer<QObject>(), true);
    EXPECT_TRUE(log.records().isEmpty());
}
