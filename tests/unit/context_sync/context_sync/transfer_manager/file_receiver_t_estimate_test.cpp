// The receiver's size estimate and progress at the 32-bit boundaries. The estimate of a file is
// the decoded size of its first chunk times "total_chunks", multiplied in 32 bits on purpose
// (wrapping, then widened with sign), while the receiver's totals and the upload limit are 64-bit.
// Each expected value is a literal, so the 32-bit and the 64-bit build must agree on all of them.
// Only first chunks are sent: the files are announced as large, never transferred whole.
#include "context_sync/context_sync/transfer_manager/file_receiver_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QJsonObject>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_receiver_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::make_chunk;

namespace {

constexpr qint64 GiB = qint64(1024) * 1024 * 1024;

struct harness_t {
    temp_tree_t tree;
    std::unique_ptr<file_receiver_t> receiver;
    int acks = 0;

    explicit harness_t(qint64 upload_limit)
    {
        receiver = std::make_unique<file_receiver_t>(tree.root(), "TMP_file_receive", "server");
        receiver->setUploadLimit(upload_limit);
        QObject::connect(receiver.get(), &file_receiver_t::sendChunkAck, receiver.get(),
            [this](const QString&, int, const QJsonObject&, const QString&) { ++acks; });
    }

    void feed_first(const QString& file, qint64 total_chunks, const QByteArray& raw)
    {
        receiver->processChunk(make_chunk(file, 0, total_chunks, raw), "c1");
    }
};

// A full first chunk, as every file larger than one chunk starts.
QByteArray full_chunk()
{
    return temp_tree_t::random_bytes(chunk_codec_t::CHUNK_SIZE, 7);
}

} // namespace

TEST(FileReceiverEstimate, LargestEstimateBelowTwoGiBStaysPositive)
{
    log_capture_t logs;
    harness_t h(8 * GiB);
    // 512000 x 4194 = 2147328000 <= INT_MAX.
    h.feed_first("below.bin", 4194, full_chunk());
    EXPECT_EQ(h.acks, 1);
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(2147328000));
    EXPECT_EQ(h.receiver->receivedBytes(), 512000);
    // 512000 x 100 / 2147328000 = 0.0238...
    EXPECT_TRUE(
        logs.contains_fragment("Receive file below.bin: chunk: 1/4194 percent: 0%[0%] speed: "));
}

TEST(FileReceiverEstimate, EstimateAboveTwoGiBWrapsToANegativeSize)
{
    log_capture_t logs;
    harness_t h(8 * GiB);
    // 512000 x 4195 = 2147840000 = 2^31 + 356352, read back as 2147840000 - 2^32.
    h.feed_first("above.bin", 4195, full_chunk());
    EXPECT_EQ(h.acks, 1);
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(-2147127296));
    // 51200000 / -2147127296 = -0.0238..., truncated toward zero.
    EXPECT_TRUE(
        logs.contains_fragment("Receive file above.bin: chunk: 1/4195 percent: 0%[0%] speed: "));
}

TEST(FileReceiverEstimate, EstimateAboveFourGiBKeepsOnlyItsLow32Bits)
{
    log_capture_t logs;
    harness_t h(8 * GiB);
    // 512000 x 8389 = 4295168000 = 2^32 + 200704: a 4 GiB file is estimated at 200704 bytes.
    h.feed_first("four.bin", 8389, full_chunk());
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(200704));
    // 512000 x 100 / 200704 = 255.10...
    EXPECT_TRUE(
        logs.contains_fragment("Receive file four.bin: chunk: 1/8389 percent: 255%[255%] speed: "));
}

TEST(FileReceiverEstimate, ShortFirstChunkTimesIntMaxWrapsToMinusTwo)
{
    log_capture_t logs;
    harness_t h(INT64_MAX);
    // 2 x 2147483647 = 2^32 - 2, read back as -2: the percentage turns negative.
    h.feed_first("short.bin", INT_MAX, "ab");
    EXPECT_EQ(h.acks, 1);
    EXPECT_EQ(h.receiver->expectedBytes(), -2);
    EXPECT_TRUE(logs.contains_fragment(
        "Receive file short.bin: chunk: 1/2147483647 percent: -100%[-100%] speed: "));
}

TEST(FileReceiverEstimate, OneByteTimesIntMaxIsExact)
{
    harness_t h(INT64_MAX);
    h.feed_first("one.bin", INT_MAX, "a");
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(INT_MAX));
}

TEST(FileReceiverEstimate, ReceiverTotalAddsEstimatesIn64Bits)
{
    log_capture_t logs;
    harness_t h(8 * GiB);
    // Three estimates of 2147328000 each add up to 6441984000, above 2^32.
    h.feed_first("a.bin", 4194, full_chunk());
    h.feed_first("b.bin", 4194, full_chunk());
    h.feed_first("c.bin", 4194, full_chunk());
    EXPECT_EQ(h.acks, 3);
    EXPECT_EQ(h.receiver->filesInReception(), 3);
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(6441984000));
    EXPECT_EQ(h.receiver->receivedBytes(), 1536000);
    // Overall: 1536000 x 100 / 6441984000 = 0.0238...; per file likewise.
    EXPECT_TRUE(
        logs.contains_fragment("Receive file c.bin: chunk: 1/4194 percent: 0%[0%] speed: "));
}

TEST(FileReceiverEstimate, WrappedEstimatesMakeTheOverallPercentageMeaningful)
{
    log_capture_t logs;
    harness_t h(8 * GiB);
    // 200704 (a 4 GiB file) + 2147328000 = 2147528704: above INT_MAX, kept whole in the total.
    h.feed_first("four.bin", 8389, full_chunk());
    h.feed_first("below.bin", 4194, full_chunk());
    EXPECT_EQ(h.receiver->expectedBytes(), qint64(2147528704));
    // four.bin: 512000 x 100 / 200704 = 255; overall: 1024000 x 100 / 2147528704 = 0.047...
    EXPECT_TRUE(
        logs.contains_fragment("Receive file four.bin: chunk: 1/8389 percent: 255%[0%] speed: "));
}

TEST(FileReceiverEstimate, UploadLimitAboveFourGiBIsComparedIn64Bits)
{
    log_capture_t logs;
    harness_t h(5 * GiB);
    // 5 GiB / 512000 = 10485.76: 10485 chunks fit, 10486 do not.
    h.feed_first("fits.bin", 10485, "x");
    h.feed_first("over.bin", 10486, "x");
    EXPECT_EQ(h.acks, 1);
    EXPECT_EQ(h.receiver->filesInReception(), 1);
    EXPECT_TRUE(logs.contains("Refused file over.bin from client c1: 10486 chunks exceed the "
                              "upload limit of 5368709120 bytes",
        3));
}

TEST(FileReceiverEstimate, TotalChunksJustAboveIntMaxIsInvalidWhateverTheLimit)
{
    log_capture_t logs;
    harness_t h(INT64_MAX);
    h.feed_first("wide.bin", qint64(INT_MAX) + 1, "x");
    h.feed_first("wider.bin", qint64(UINT32_MAX) + 1, "x");
    EXPECT_EQ(h.acks, 0);
    EXPECT_EQ(h.receiver->filesInReception(), 0);
    EXPECT_EQ(h.receiver->expectedBytes(), 0);
    EXPECT_TRUE(
        logs.contains("Refused file wide.bin from client c1: invalid total_chunks 2147483648", 3));
    EXPECT_TRUE(
        logs.contains("Refused file wider.bin from client c1: invalid total_chunks 4294967296", 3));
}
