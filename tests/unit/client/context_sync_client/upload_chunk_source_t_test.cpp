#include "context_sync_client/upload_chunk_source_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/md5_hex.h"
#include "common/temp_tree_t.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>

using context_sync_client::upload_chunk_source_t;
using codec_t = context_sync_engine::chunk_codec_t;

namespace {

codec_t::header_t shared_header()
{
    codec_t::header_t header;
    header.file = QStringLiteral("background/big.bin");
    header.remaining_files = 3;
    header.percent = 0;
    return header;
}

// The request as the server's rr layer reads it: {"type", "payload": {"message": chunk}}.
QJsonObject chunk_of(const QByteArray& body, QString* type = nullptr)
{
    const QJsonObject request = QJsonDocument::fromJson(body).object();
    if (type)
        *type = request.value(QStringLiteral("type")).toString();
    return request.value(QStringLiteral("payload"))
        .toObject()
        .value(QStringLiteral("message"))
        .toObject();
}

} // namespace

TEST(upload_chunk_source_t, EveryChunkDecodesBackToItsPartOfTheFile)
{
    test_support::temp_tree_t tree;
    const QByteArray content
        = test_support::temp_tree_t::random_bytes(2 * codec_t::CHUNK_SIZE + 1234);
    ASSERT_TRUE(tree.write(QStringLiteral("big.bin"), content));
    // One chunk ahead, two, and more workers than chunks: the same bodies in the same order.
    for (const int ahead : { 1, 2, upload_chunk_source_t::MAX_AHEAD }) {
        SCOPED_TRACE(ahead);
        upload_chunk_source_t source(
            tree.path(QStringLiteral("big.bin")), shared_header(), 9, ahead);
        EXPECT_EQ(source.ahead(), ahead);
        ASSERT_TRUE(source.open()) << source.error().toStdString();
        ASSERT_EQ(source.total_chunks(), 3);

        QByteArray joined;
        for (int index = 0; index < 3; ++index) {
            EXPECT_EQ(source.taken(), index);
            const upload_chunk_source_t::chunk_t chunk = source.take();
            ASSERT_TRUE(chunk.ok);
            source.refill();
            QString type;
            const QJsonObject object = chunk_of(chunk.body, &type);
            EXPECT_EQ(type, QStringLiteral("ctx_chunk"));
            const codec_t::decoded_t decoded = codec_t::decode_chunk(object);
            ASSERT_TRUE(decoded.valid);
            EXPECT_EQ(decoded.fields.header.file, QStringLiteral("background/big.bin"));
            EXPECT_EQ(decoded.fields.header.chunk_index, index);
            EXPECT_EQ(decoded.fields.header.total_chunks, 3);
            EXPECT_EQ(decoded.fields.header.remaining_files, 3);
            EXPECT_EQ(decoded.fields.compression, 9);
            EXPECT_EQ(chunk.raw_size, decoded.bytes.size());
            joined += decoded.bytes;
        }
        EXPECT_EQ(source.taken(), 3);
        EXPECT_EQ(joined, content);
        EXPECT_EQ(source.file_hash(), test_support::md5_hex(content));
    }
}

TEST(upload_chunk_source_t, AskingForNoWorkerCountTakesOnePerCoreWithinTheLimit)
{
    test_support::temp_tree_t tree;
    upload_chunk_source_t source(tree.path(QStringLiteral("any.bin")), shared_header(), 9);
    EXPECT_EQ(source.ahead(),
        std::clamp(QThread::idealThreadCount(), 1, upload_chunk_source_t::MAX_AHEAD));
    upload_chunk_source_t capped(tree.path(QStringLiteral("any.bin")), shared_header(), 9, 1000);
    EXPECT_EQ(capped.ahead(), upload_chunk_source_t::MAX_AHEAD);
}

TEST(upload_chunk_source_t, AFileOfWholeChunksEndsWithoutAnEmptyChunk)
{
    test_support::temp_tree_t tree;
    const QByteArray content = test_support::temp_tree_t::text_bytes(2 * codec_t::CHUNK_SIZE);
    ASSERT_TRUE(tree.write(QStringLiteral("two.txt"), content));
    upload_chunk_source_t source(tree.path(QStringLiteral("two.txt")), shared_header(), 1);
    ASSERT_TRUE(source.open());
    ASSERT_EQ(source.total_chunks(), 2);
    EXPECT_EQ(source.take().raw_size, codec_t::CHUNK_SIZE);
    EXPECT_EQ(source.take().raw_size, codec_t::CHUNK_SIZE);
    EXPECT_EQ(source.file_hash(), test_support::md5_hex(content));
}

TEST(upload_chunk_source_t, AMissingFileIsRefusedWithItsPathAndReason)
{
    test_support::temp_tree_t tree;
    const QString path = tree.path(QStringLiteral("gone.bin"));
    upload_chunk_source_t source(path, shared_header(), 9);
    EXPECT_FALSE(source.open());
    EXPECT_TRUE(source.error().startsWith(QStringLiteral("cannot read %1: ").arg(path)))
        << source.error().toStdString();
    EXPECT_EQ(source.total_chunks(), 0);
}

TEST(upload_chunk_source_t, DestroyedWhilePreparingAChunkWaitsForIt)
{
    // The worker reads the file and the hasher the source owns; destroying the source in the
    // middle must wait for it (the sanitizer builds turn a wrong order into a failure).
    test_support::temp_tree_t tree;
    const QByteArray content = test_support::temp_tree_t::random_bytes(3 * codec_t::CHUNK_SIZE);
    ASSERT_TRUE(tree.write(QStringLiteral("big.bin"), content));
    for (int taken = 0; taken < 3; ++taken) {
        upload_chunk_source_t source(tree.path(QStringLiteral("big.bin")), shared_header(), 9);
        ASSERT_TRUE(source.open());
        for (int i = 0; i < taken; ++i)
            ASSERT_TRUE(source.take().ok);
        EXPECT_EQ(source.taken(), taken);
    }
}
