// The sender with files of 4 GiB and more: sizes, chunk counts and percentages are 64-bit even
// where the build's qsizetype and long are 32 bits. The large files are sparse (a resize of an
// empty file), so they take no disk space, and only their first chunks are sent.
#include "context_sync/context_sync/transfer_manager/file_sender_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"
#include "transfer_test_util.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

using context_sync_engine::chunk_codec_t;
using context_sync_engine::file_sender_t;
using test_support::log_capture_t;
using test_support::temp_tree_t;
using transfer_test::wait_until;

namespace {

constexpr qint64 GiB = qint64(1024) * 1024 * 1024;

struct harness_t {
    temp_tree_t tree;
    std::unique_ptr<file_sender_t> sender;
    QList<QJsonObject> chunks;
    QList<double> overall;
    QList<QPair<QString, double>> progress;

    harness_t()
    {
        sender = std::make_unique<file_sender_t>("c1", tree.root());
        file_sender_t* s = sender.get();
        QObject::connect(s, &file_sender_t::publish_chunk, s,
            [this](const QString&, const QJsonObject& chunk) { chunks.append(chunk); });
        QObject::connect(s, &file_sender_t::overallProgressUpdated, s,
            [this](const QString&, double percent) { overall.append(percent); });
        QObject::connect(s, &file_sender_t::fileProgressUpdated, s,
            [this](const QString&, const QString& file, double percent) {
                progress.append({ file, percent });
            });
    }

    ~harness_t()
    {
        sender->stop();
        sender.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    // A file of `size` bytes that are all zero, without writing them.
    bool make_sparse(const QString& relative, qint64 size) const
    {
        QFile file(tree.path(relative));
        return file.open(QIODevice::WriteOnly) && file.resize(size) && file.size() == size;
    }

    void ack(const QJsonObject& chunk)
    {
        sender->ackReceiver(chunk_codec_t::build_ack(
            chunk.value("file").toString(), chunk.value("chunk_index").toInt()));
    }

    bool wait_chunks(int n)
    {
        return wait_until([&] { return chunks.size() >= n; });
    }
};

} // namespace

TEST(FileSenderLargeFile, FileOfFiveGiBIsAnnouncedWithItsFullChunkCount)
{
    log_capture_t logs;
    harness_t h;
    ASSERT_TRUE(h.make_sparse("five.bin", 5 * GiB));
    h.sender->start({ h.tree.path("five.bin") });
    ASSERT_TRUE(h.wait_chunks(1));

    const chunk_codec_t::decoded_t first = chunk_codec_t::decode_chunk(h.chunks[0]);
    EXPECT_TRUE(first.valid);
    EXPECT_EQ(first.fields.header.file, "five.bin");
    EXPECT_EQ(first.fields.header.chunk_index, 0);
    // 5368709120 / 512000 = 10485.76.
    EXPECT_EQ(first.fields.header.total_chunks, 10486);
    EXPECT_EQ(first.fields.header.percent, 0);
    EXPECT_EQ(first.bytes, QByteArray(512000, '\0'));
    EXPECT_TRUE(logs.contains("Start sending file: five.bin with total chunk: 10486", 6));

    h.ack(h.chunks[0]);
    ASSERT_TRUE(h.wait_chunks(2));
    EXPECT_EQ(h.chunks[1].value("chunk_index").toInt(), 1);
    ASSERT_EQ(h.progress.size(), 1);
    EXPECT_EQ(h.progress[0].first, "five.bin");
    // Position over size in double: 512000 / 5368709120 x 100.
    EXPECT_DOUBLE_EQ(h.progress[0].second, 0.0095367431640625);
}

TEST(FileSenderLargeFile, BatchSizeAboveFourGiBIsNotWrapped)
{
    harness_t h;
    // 1000 + 2^32 bytes: a batch total kept in 32 bits would be 1000, and the small file alone
    // would then count as 100 % of it.
    ASSERT_TRUE(h.tree.write("small.bin", temp_tree_t::random_bytes(1000, 3)));
    ASSERT_TRUE(h.make_sparse("four.bin", 4 * GiB));
    h.sender->start({ h.tree.path("small.bin"), h.tree.path("four.bin") });
    ASSERT_TRUE(h.wait_chunks(1));
    EXPECT_EQ(h.chunks[0].value("remaining_files").toInt(), 1);
    h.ack(h.chunks[0]);

    ASSERT_TRUE(h.wait_chunks(2));
    // 1000 / 4294968296 x 100 = 0.0000232..., truncated.
    EXPECT_EQ(h.overall, QList<double> { 0.0 });
    const chunk_codec_t::fields_t second = chunk_codec_t::read_fields(h.chunks[1]);
    EXPECT_EQ(second.header.file, "four.bin");
    EXPECT_EQ(second.header.total_chunks, 8389);
    EXPECT_EQ(second.header.remaining_files, 0);
    // The quotient of the integer percentage is taken first: 1000 / 4294968296 = 0.
    EXPECT_EQ(second.header.percent, 0);

    h.ack(h.chunks[1]);
    ASSERT_TRUE(h.wait_chunks(3));
    ASSERT_EQ(h.progress.size(), 2);
    EXPECT_EQ(h.progress[1].first, "four.bin");
    // 512000 / 2^32 x 100.
    EXPECT_DOUBLE_EQ(h.progress[1].second, 0.011920928955078125);
}
