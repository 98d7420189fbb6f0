// The receiver's 5000 ms chunk timer with a real timer: a file announced with "total_chunks" 0
// never completes, and its timer ends the download state while its chunks stay. In an executable
// of its own so that CTest runs it beside the other timeouts.
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QElapsedTimer>
#include <QSignalSpy>

#include <gtest/gtest.h>

using context_sync_engine::file_receiver_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::make_chunk;

TEST(FileReceiver, TotalChunksZeroEndsTheDownloadStateAfterTheChunkTimeout)
{
    log_capture_t logs;
    temp_tree_t tree;
    file_receiver_t receiver(tree.root(), "TMP_file_receive", "server");
    QSignalSpy acks(&receiver, &file_receiver_t::sendChunkAck);
    QSignalSpy download(&receiver, &file_receiver_t::in_download_change);

    // Started before the chunk goes in, so that a busy machine pausing this thread between the
    // receiver's timer start and ours cannot make the time-out look early.
    QElapsedTimer since_chunk;
    since_chunk.start();
    receiver.processChunk(make_chunk("never.txt", 0, 0, "bytes"), "c1");
    EXPECT_EQ(acks.size(), 1);
    ASSERT_EQ(download.size(), 1);
    EXPECT_TRUE(download.at(0).at(0).toBool());

    ASSERT_TRUE(download.wait(8000));
    EXPECT_GE(since_chunk.elapsed(), 4700);
    EXPECT_FALSE(download.at(1).at(0).toBool());
    EXPECT_FALSE(receiver.inDownload());
    EXPECT_TRUE(
        logs.contains("Chunk reception timeout! Transfer interrupted! For file never.txt", 2));
    // The file's state stays: a later chunk of the same file reuses it.
    EXPECT_EQ(receiver.filesInReception(), 1);
    receiver.processChunk(make_chunk("never.txt", 1, 0, "more"), "c1");
    EXPECT_EQ(receiver.filesInReception(), 1);
    EXPECT_EQ(receiver.receivedBytes(), 9);
    EXPECT_TRUE(receiver.inDownload());
    EXPECT_FALSE(tree.exists("never.txt"));
}
