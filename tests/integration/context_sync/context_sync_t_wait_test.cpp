// waiting_operation: the blocking wait until the monitor (and/or the receiver) is idle, reported
// on Qt's information stream. The long case (a time-out below 10000 ms is raised to 10000 ms)
// lives in this executable alone so that it runs in parallel with the others.

#include "service_harness.h"

#include "common/qt_message_capture_t.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>

using context_sync_engine::context_monitor_t;
using context_sync_engine::context_sync_t;
using context_sync_engine::context_sync_test_peer_t;
using service_test::host_t;
using service_test::settle;
using service_test::wait_until;

namespace {

struct fixture_t {
    host_t host;

    bool set_up()
    {
        if (!host.tree().write(
                QStringLiteral("background/a.png"), service_test::background_image(3000, 1)))
            return false;
        if (!host.create())
            return false;
        host.start(true);
        return true;
    }

    context_monitor_t& monitor() { return context_sync_test_peer_t::monitor(*host.service()); }

    // Restarts the monitor's debounce on its own thread, as a change of the tree does, so that
    // it reads as updating for the next second.
    void touch_monitor()
    {
        context_monitor_t* target = &monitor();
        host.on_service_thread([target] { emit target->debounce_timer_start(); });
    }

    // Runs waiting_operation on a thread of its own (it runs an event loop there) and returns
    // that thread, started.
    QThread* wait_in_thread(bool update, bool download, int timeout, qint64* elapsed_ms)
    {
        context_sync_t* service = host.service();
        QThread* thread = QThread::create([service, update, download, timeout, elapsed_ms] {
            QElapsedTimer timer;
            timer.start();
            service->waiting_operation(update, download, timeout);
            *elapsed_ms = timer.elapsed();
        });
        thread->start();
        return thread;
    }
};

} // namespace

TEST(ContextSyncWait, IdleServiceReturnsAtOnce)
{
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    ASSERT_TRUE(wait_until([&] { return !f.monitor().inUpdate(); }));
    test_support::qt_message_capture_t capture;

    f.host.service()->waiting_operation(true, true, 500);

    EXPECT_EQ(capture.messages(QtInfoMsg),
        (QStringList {
            "Initial check ...",
            "Read operation .... 00000000000",
            "Read operation .... 11111111111",
            "==============================> Exit initial ... ",
        }));
}

TEST(ContextSyncWait, BusyMonitorMakesAShortTimeOutWaitTenSeconds)
{
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    test_support::qt_message_capture_t capture;
    f.touch_monitor();
    ASSERT_TRUE(f.monitor().inUpdate());

    qint64 elapsed = -1;
    QThread* thread = f.wait_in_thread(true, false, 500, &elapsed);
    // Keep the monitor busy for longer than the wait can last.
    QElapsedTimer keeping;
    keeping.start();
    while (!thread->isFinished() && keeping.elapsed() < 20000) {
        f.touch_monitor();
        settle(300);
    }
    ASSERT_TRUE(thread->wait(5000));
    delete thread;

    EXPECT_GE(elapsed, 10000);
    const QStringList lines = capture.messages(QtInfoMsg);
    for (const char* expected : {
             "Initial check ...",
             "###############################################",
             "Context monitor busy ... wait ... in_update = 1;  in_download = 0; ",
             "==============================> Continue initial ... ",
             "Wait check ...",
             "Before exec",
             "waiting_operation",
             "Wait ...",
             "End of wait ...",
             "quit!",
             "After exec",
             "==============================> Exit wait ... ",
         }) {
        EXPECT_TRUE(lines.contains(QString::fromLatin1(expected))) << expected;
    }
    EXPECT_GE(lines.count(QStringLiteral("Wait ...")), 10);
    EXPECT_TRUE(lines.contains(QStringLiteral("loop is running:  true")));
    EXPECT_FALSE(
        lines.contains(QStringLiteral("==============================> Exit initial ... ")));
    // Everything went to the information stream, nothing to warnings.
    EXPECT_TRUE(capture.messages(QtWarningMsg).isEmpty());
}

TEST(ContextSyncWait, WaitEndsWhenTheMonitorBecomesIdle)
{
    fixture_t f;
    ASSERT_TRUE(f.set_up());
    test_support::qt_message_capture_t capture;
    f.touch_monitor();

    qint64 elapsed = -1;
    QThread* thread = f.wait_in_thread(true, true, 0, &elapsed);
    // Busy for about two seconds, then left alone: the debounce fires and the monitor is idle.
    for (int i = 0; i < 6; ++i) {
        f.touch_monitor();
        settle(300);
    }
    ASSERT_TRUE(wait_until([&] { return thread->isFinished(); }, 15000));
    thread->wait();
    delete thread;

    EXPECT_GE(elapsed, 1800);
    EXPECT_LT(elapsed, 10000);
    const QStringList lines = capture.messages(QtInfoMsg);
    EXPECT_TRUE(lines.contains(QStringLiteral("==============================> Exit wait ... ")));
    EXPECT_FALSE(f.monitor().inUpdate());
}
