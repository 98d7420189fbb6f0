// The receiver's 5000 ms wait for the next file of a batch, with a real timer: a file completed
// with "remaining_files" 1 keeps the download state until the wait runs out. In an executable of
// its own so that CTest runs it beside the other timeouts.
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

TEST(FileReceiver, WaitForTheNextFileEndsTheDownloadStateAfterItsTimeout)
{
    log_capture_t logs;
    temp_tree_t tree;
    file_receiver_t receiver(tree.root(), "TMP_file_receive", "server");
    QSignalSpy download(&receiver, &file_receiver_t::in_download_change);
    QSignalSpy received(&receiver, &file_receiver_t::file_received);

    receiver.processChunk(make_chunk("first.txt", 0, 1, "first", 1), "c1");
    QElapsedTimer since_file;
    since_file.start();
    ASSERT_EQ(received.size(), 1);
    EXPECT_TRUE(receiver.inDownload());
    EXPECT_TRUE(logs.contains("Starting timer in download timeout ... ", 6));

    ASSERT_TRUE(download.wait(8000));
    EXPECT_GE(since_file.elapsed(), 4700);
    EXPECT_TRUE(logs.contains("Timeout wait next file ", 2));
    EXPECT_FALSE(receiver.inDownload());
    EXPECT_EQ(download.size(), 2);
    EXPECT_EQ(tree.read("first.txt"), "first");
}
