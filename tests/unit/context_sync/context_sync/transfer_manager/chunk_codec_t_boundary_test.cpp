// Chunk counts and chunk headers at the 32-bit boundaries. Files above 2 GiB and 4 GiB exist on
// the devices, which run a 32-bit userland: every figure here must come out the same whether
// qsizetype and long are 32 or 64 bits wide, so each expected value is written out as a literal.
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

using context_sync_engine::chunk_codec_t;

namespace {

constexpr qint64 GiB = qint64(1024) * 1024 * 1024;

// The chunk object as the other end reads it after the trip through the broker: serialised to
// compact JSON text and parsed again.
QJsonObject over_the_wire(const QJsonObject& chunk)
{
    return QJsonDocument::fromJson(QJsonDocument(chunk).toJson(QJsonDocument::Compact)).object();
}

} // namespace

TEST(ChunkCodecBoundary, ChunkCountAroundTwoGiB)
{
    // 4194 x 512000 = 2147328000 is the last exact multiple below 2^31.
    EXPECT_EQ(chunk_codec_t::chunk_count(2147328000), 4194);
    EXPECT_EQ(chunk_codec_t::chunk_count(2147328001), 4195);
    EXPECT_EQ(chunk_codec_t::chunk_count(qint64(INT_MAX)), 4195);
    EXPECT_EQ(chunk_codec_t::chunk_count(qint64(INT_MAX) + 1), 4195);
    EXPECT_EQ(chunk_codec_t::chunk_count(2 * GiB + 1), 4195);
    // 4195 x 512000 = 2147840000, the first exact multiple above 2^31.
    EXPECT_EQ(chunk_codec_t::chunk_count(2147840000), 4195);
    EXPECT_EQ(chunk_codec_t::chunk_count(2147840001), 4196);
    EXPECT_EQ(chunk_codec_t::chunk_count(3 * GiB), 6292);
}

TEST(ChunkCodecBoundary, ChunkCountAroundFourGiB)
{
    EXPECT_EQ(chunk_codec_t::chunk_count(qint64(UINT32_MAX)), 8389);
    EXPECT_EQ(chunk_codec_t::chunk_count(4 * GiB), 8389);
    EXPECT_EQ(chunk_codec_t::chunk_count(4 * GiB + 1), 8389);
    // 8389 x 512000 = 4295168000, the first exact multiple above 2^32; its low 32 bits are 200704.
    EXPECT_EQ(chunk_codec_t::chunk_count(4295168000), 8389);
    EXPECT_EQ(chunk_codec_t::chunk_count(4295168001), 8390);
    EXPECT_EQ(chunk_codec_t::chunk_count(200704), 1);
}

TEST(ChunkCodecBoundary, ChunkCountAtTheEndOfTheIntAndInt64Ranges)
{
    // The largest file whose count still fits the int a sender counts in, and one byte more.
    const qint64 largest = qint64(INT_MAX) * chunk_codec_t::CHUNK_SIZE;
    EXPECT_EQ(largest, qint64(1099511627264000));
    EXPECT_EQ(chunk_codec_t::chunk_count(largest), qint64(INT_MAX));
    EXPECT_EQ(chunk_codec_t::chunk_count(largest + 1), qint64(INT_MAX) + 1);
    // The remainder test keeps the largest size from overflowing: no "+ CHUNK_SIZE - 1" rounding.
    EXPECT_EQ(chunk_codec_t::chunk_count(INT64_MAX), qint64(18014398509482));
    EXPECT_EQ(chunk_codec_t::chunk_count(INT64_MIN), 0);
    EXPECT_EQ(chunk_codec_t::chunk_count(-1), 0);
}

TEST(ChunkCodecBoundary, TotalChunksAndPercentAbove32BitsCrossTheWireExactly)
{
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("big.bin");
    header.chunk_index = INT_MAX;
    header.remaining_files = INT_MAX;
    header.total_chunks = qint64(UINT32_MAX) + 5;
    header.percent = qint64(1) << 40;
    const QJsonObject chunk = over_the_wire(chunk_codec_t::build_chunk(header, "x", 9));

    const chunk_codec_t::fields_t fields = chunk_codec_t::read_fields(chunk);
    EXPECT_EQ(fields.header.total_chunks, qint64(4294967300));
    EXPECT_EQ(fields.header.percent, qint64(1099511627776));
    EXPECT_EQ(fields.header.chunk_index, INT_MAX);
    EXPECT_EQ(fields.header.remaining_files, INT_MAX);
    EXPECT_EQ(chunk.value(chunk_codec_t::KEY_TOTAL_CHUNKS).toInteger(), qint64(4294967300));
}

TEST(ChunkCodecBoundary, LargestExactTotalChunksSurvivesTheWire)
{
    // JSON numbers are doubles: 2^53 is the largest count every integer below which is exact.
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("huge.bin");
    header.total_chunks = qint64(1) << 53;
    const QJsonObject chunk = over_the_wire(chunk_codec_t::build_chunk(header, "", 0));
    EXPECT_EQ(chunk_codec_t::read_fields(chunk).header.total_chunks, qint64(9007199254740992));
}

TEST(ChunkCodecBoundary, IndexAboveTheIntRangeReadsAsZero)
{
    // The index and file counts are ints on both ends: a larger number is not an int and takes
    // the default, on 32-bit and 64-bit builds alike.
    QJsonObject chunk;
    chunk.insert(chunk_codec_t::KEY_CHUNK_INDEX, qint64(INT_MAX) + 1);
    chunk.insert(chunk_codec_t::KEY_REMAINING_FILES, qint64(UINT32_MAX) + 1);
    const chunk_codec_t::fields_t fields = chunk_codec_t::read_fields(over_the_wire(chunk));
    EXPECT_EQ(fields.header.chunk_index, 0);
    EXPECT_EQ(fields.header.remaining_files, 0);

    QJsonObject ack;
    ack.insert(chunk_codec_t::KEY_FILE, QStringLiteral("big.bin"));
    ack.insert(chunk_codec_t::KEY_ACK_CHUNK_INDEX, qint64(INT_MAX) + 1);
    EXPECT_EQ(chunk_codec_t::read_ack(over_the_wire(ack)).chunk_index, 0);
}
