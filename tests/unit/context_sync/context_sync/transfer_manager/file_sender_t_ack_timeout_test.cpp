// The sender's 5000 ms acknowledgement timeout with a real timer, after an acknowledgement that is
// one chunk behind. In an executable of its own so that CTest runs it beside the other timeouts.
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QElapsedTimer>
#include <QSignalSpy>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_sender_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;

TEST(FileSender, AckOneBehindIsIgnoredAndTheTransferTimesOut)
{
    log_capture_t logs;
    temp_tree_t tree;
    ASSERT_TRUE(tree.write("big.txt", temp_tree_t::text_bytes(1100000)));
    file_sender_t sender("c1", tree.root());
    QSignalSpy chunks(&sender, &file_sender_t::publish_chunk);
    QSignalSpy timeouts(&sender, &file_sender_t::timeout_occurred);
    QSignalSpy sended(&sender, &file_sender_t::file_sended);

    sender.start({ tree.path("big.txt") });
    ASSERT_TRUE(chunks.wait(5000));
    sender.ackReceiver(chunk_codec_t::build_ack("big.txt", 0));
    ASSERT_TRUE(chunks.wait(5000));
    QElapsedTimer since_chunk;
    since_chunk.start();
    ASSERT_EQ(chunks.at(1).at(1).toJsonObject().value("chunk_index").toInt(), 1);

    sender.ackReceiver(chunk_codec_t::build_ack("big.txt", 0));
    EXPECT_TRUE(
        logs.contains("Error ack for file big.txt incoming chunk index: 0 aspected index: 1", 2));

    ASSERT_TRUE(timeouts.wait(8000));
    // A coarse timer may fire up to 5% early.
    EXPECT_GE(since_chunk.elapsed(), 4700);
    ASSERT_EQ(timeouts.size(), 1);
    EXPECT_EQ(timeouts.at(0).at(0).toString(), "c1");
    EXPECT_EQ(timeouts.at(0).at(1).toString(), "big.txt");
    EXPECT_TRUE(logs.contains(
        "[Transfer file terminated] Timeout ack for client c1 for file big.txt chunck: 1", 3));
    EXPECT_EQ(chunks.size(), 2);
    EXPECT_TRUE(sended.isEmpty());
    // Nothing is retried; the busy flag stays for the service to act on.
    EXPECT_TRUE(sender.inUpload());
    sender.ackReceiver(chunk_codec_t::build_ack("big.txt", 1));
    EXPECT_EQ(chunks.size(), 2);
}
