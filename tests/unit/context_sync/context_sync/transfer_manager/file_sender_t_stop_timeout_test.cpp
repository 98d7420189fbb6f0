// stop() does not stop the acknowledgement timer: a chunk in flight still ends in
// timeout_occurred 5000 ms later, with the relative path of the abandoned file. Real timer, in an
// executable of its own.
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>

#include <gtest/gtest.h>

using context_sync_engine::file_sender_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;

TEST(FileSender, StopWithAChunkInFlightStillTimesOut)
{
    log_capture_t logs;
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("dir/inflight.bin", temp_tree_t::random_bytes(800000, 2)));
    ASSERT_TRUE(tree.write("queued.bin", "queued"));
    file_sender_t sender("c4", tree.root());
    QSignalSpy chunks(&sender, &file_sender_t::publish_chunk);
    QSignalSpy timeouts(&sender, &file_sender_t::timeout_occurred);

    sender.start({ tree.path("dir/inflight.bin"), tree.path("queued.bin") });
    ASSERT_TRUE(chunks.wait(5000));
    QElapsedTimer since_chunk;
    since_chunk.start();
    sender.stop();
    EXPECT_FALSE(sender.inUpload());

    ASSERT_TRUE(timeouts.wait(8000));
    EXPECT_GE(since_chunk.elapsed(), 4700);
    ASSERT_EQ(timeouts.size(), 1);
    EXPECT_EQ(timeouts.at(0).at(0).toString(), "c4");
    EXPECT_EQ(timeouts.at(0).at(1).toString(), "dir/inflight.bin");
    // stop() zeroed the index; the path is kept.
    EXPECT_TRUE(logs.contains(
        "[Transfer file terminated] Timeout ack for client c4 for file dir/inflight.bin chunck: 0",
        3));
    EXPECT_EQ(chunks.size(), 1);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
