// handed_over() around functors posted to another thread through Qt's event queue. In a normal
// build these check that the wrapper calls, returns and carries captures (move-only ones too) like
// the bare functor. In the TSan build (label "threaded") they also check the annotations
// themselves: each test reads plain, unsynchronised memory written by the other thread before or
// inside the posted call, which TSan reports as a race (and the test fails) unless the wrapper
// orders the accesses.
#include "utility/tsan_annotations.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

using utility::tsan::handed_over;

namespace {

// A receiver that lives on a thread of its own for the test's duration.
struct worker_t {
    QThread thread;
    QObject* target = new QObject();

    worker_t()
    {
        target->moveToThread(&thread);
        thread.start();
    }
    ~worker_t()
    {
        QMetaObject::invokeMethod(target, handed_over([object = target] { delete object; }),
            Qt::BlockingQueuedConnection);
        thread.quit();
        thread.wait();
    }
};

} // namespace

TEST(handed_over_t, CallsTheFunctorAndReturnsItsResult)
{
    int calls = 0;
    auto wrapped = handed_over([&calls] { return ++calls * 7; });
    EXPECT_EQ(wrapped(), 7);
    EXPECT_EQ(wrapped(), 14);
    EXPECT_EQ(calls, 2);
}

TEST(handed_over_t, QueuedCallSeesWhatThePosterWroteBeforePosting)
{
    worker_t worker;
    // Written after the worker thread started, so only the hand-over orders it for TSan.
    std::vector<std::string> written { "alpha", "beta" };
    written.push_back(std::string(1000, 'x'));

    std::vector<std::string> seen;
    Qt::HANDLE seen_on = nullptr;
    std::atomic<bool> done { false };
    QMetaObject::invokeMethod(worker.target, handed_over([&] {
        seen = written;
        seen_on = QThread::currentThreadId();
        done.store(true);
    }),
        Qt::QueuedConnection);

    for (int i = 0; i < 5000 && !done.load(); ++i)
        QThread::msleep(1);
    ASSERT_TRUE(done.load());
    // `seen` is read here only after the call that wrote it: ordered by the atomic flag.
    EXPECT_EQ(seen, written);
    EXPECT_NE(seen_on, QThread::currentThreadId());
}

TEST(handed_over_t, BlockingCallHandsItsWritesBackToTheCaller)
{
    worker_t worker;
    std::string result;
    Qt::HANDLE ran_on = nullptr;
    // No atomic and no lock of ours: only the blocking call orders the writes and the reads.
    QMetaObject::invokeMethod(worker.target, handed_over([&result, &ran_on] {
        result = std::string(2000, 'r');
        ran_on = QThread::currentThreadId();
    }),
        Qt::BlockingQueuedConnection);
    EXPECT_EQ(result, std::string(2000, 'r'));
    EXPECT_NE(ran_on, QThread::currentThreadId());
}

TEST(handed_over_t, MoveOnlyCaptureTravelsWithTheCall)
{
    worker_t worker;
    auto owned = std::make_unique<std::string>("moved along");
    std::string seen;
    QMetaObject::invokeMethod(worker.target,
        handed_over([owned = std::move(owned), &seen] { seen = *owned; }),
        Qt::BlockingQueuedConnection);
    EXPECT_EQ(seen, "moved along");
}
