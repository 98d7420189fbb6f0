#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/temp_tree_t.h"
#include "transfer_test_util.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QJsonDocument>
#include <QtEndian>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;
using test_support::temp_tree_t;
using transfer_test::make_chunk;

namespace {

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

// A chunk object with its "data" and "hash" replaced.
QJsonObject with(QJsonObject chunk, const QString& key, const QJsonValue& value)
{
    chunk.insert(key, value);
    return chunk;
}

} // namespace

TEST(ChunkCodec, ChunkCountUsesWholeChunksAndNoEmptyTrailingChunk)
{
    EXPECT_EQ(chunk_codec_t::chunk_count(0), 0);
    EXPECT_EQ(chunk_codec_t::chunk_count(1), 1);
    EXPECT_EQ(chunk_codec_t::chunk_count(511999), 1);
    EXPECT_EQ(chunk_codec_t::chunk_count(512000), 1);
    EXPECT_EQ(chunk_codec_t::chunk_count(512001), 2);
    EXPECT_EQ(chunk_codec_t::chunk_count(1024000), 2);
    EXPECT_EQ(chunk_codec_t::chunk_count(5 * 1024 * 1024), 11);
}

TEST(ChunkCodec, ChunkCountIsComputedIn64Bits)
{
    // 5 GiB does not fit 32 bits; 5368709120 / 512000 = 10485.76.
    EXPECT_EQ(chunk_codec_t::chunk_count(qint64(5) * 1024 * 1024 * 1024), 10486);
    EXPECT_EQ(chunk_codec_t::chunk_count(qint64(512000) * 5000000), 5000000);
}

TEST(ChunkCodec, BuiltChunkHasExactlyTheNineKeysWithTheirTypes)
{
    chunk_codec_t::header_t header;
    header.file = QStringLiteral("background/wall.png");
    header.chunk_index = 3;
    header.remaining_files = 2;
    header.total_chunks = 7;
    header.percent = 0;
    header.speed = 1700000000.0;
    const QByteArray raw = temp_tree_t::text_bytes(1000);
    const QJsonObject chunk = chunk_codec_t::build_chunk(header, raw, 9);

    EXPECT_EQ(chunk.keys(),
        (QStringList { "chunk_index", "compression", "data", "file", "hash", "percent",
            "remaining_files", "speed", "total_chunks" }));
    EXPECT_EQ(chunk.value("file").toString(), header.file);
    EXPECT_TRUE(chunk.value("chunk_index").isDouble());
    EXPECT_EQ(chunk.value("chunk_index").toInt(), 3);
    EXPECT_EQ(chunk.value("remaining_files").toInt(), 2);
    EXPECT_EQ(chunk.value("total_chunks").toInt(), 7);
    EXPECT_EQ(chunk.value("compression").toInt(), 9);
    EXPECT_EQ(chunk.value("percent").toInteger(), 0);
    EXPECT_DOUBLE_EQ(chunk.value("speed").toDouble(), 1700000000.0);
    EXPECT_EQ(chunk.value("hash").toString(), md5(raw));
    EXPECT_TRUE(chunk.value("data").isString());
}

TEST(ChunkCodec, CompressedPayloadIsQtFramingOfTheRawBytesInStandardBase64)
{
    const QByteArray raw = temp_tree_t::text_bytes(512000);
    const QJsonObject chunk = make_chunk("a.txt", 0, 1, raw);
    const QString data = chunk.value("data").toString();
    EXPECT_FALSE(data.contains('\n'));
    EXPECT_FALSE(data.contains('-'));
    EXPECT_FALSE(data.contains('_'));
    const QByteArray framed
        = QByteArray::fromBase64(data.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    ASSERT_GE(framed.size(), 4);
    // 4-byte big-endian length, then a zlib stream (CMF 0x78; level 9 gives FLG 0xDA).
    EXPECT_EQ(qFromBigEndian<quint32>(framed.constData()), 512000u);
    EXPECT_EQ(quint8(framed[4]), 0x78);
    EXPECT_EQ(quint8(framed[5]), 0xDA);
    EXPECT_EQ(qUncompress(framed), raw);
    // The hash covers the raw bytes, never the compressed form.
    EXPECT_EQ(chunk.value("hash").toString(), md5(raw));
    EXPECT_NE(chunk.value("hash").toString(), md5(framed));
}

TEST(ChunkCodec, LevelZeroOrLessSendsRawBytesWithCompressionZero)
{
    const QByteArray raw = temp_tree_t::random_bytes(3000, 7);
    for (int level : { 0, -1, -9 }) {
        const QJsonObject chunk = make_chunk("r.bin", 0, 1, raw, 0, level);
        EXPECT_EQ(chunk.value("compression").toInt(), 0) << level;
        EXPECT_EQ(chunk.value("data").toString(), QString::fromLatin1(raw.toBase64())) << level;
    }
    EXPECT_EQ(make_chunk("r.bin", 0, 1, raw, 0, 12).value("compression").toInt(), 9);
}

TEST(ChunkCodec, DecodesWhatItBuildsForEverySizeAndLevel)
{
    for (qsizetype size : { qsizetype(1), qsizetype(1000), qsizetype(511999), qsizetype(512000) }) {
        for (const QByteArray& raw :
            { temp_tree_t::random_bytes(size, 3), temp_tree_t::text_bytes(size) }) {
            for (int level : { 0, 1, 6, 9 }) {
                const chunk_codec_t::decoded_t decoded
                    = chunk_codec_t::decode_chunk(make_chunk("x/y.bin", 4, 9, raw, 1, level));
                EXPECT_TRUE(decoded.valid) << size << " " << level;
                EXPECT_EQ(decoded.bytes, raw) << size << " " << level;
                EXPECT_EQ(decoded.fields.header.file, "x/y.bin");
                EXPECT_EQ(decoded.fields.header.chunk_index, 4);
                EXPECT_EQ(decoded.fields.header.total_chunks, 9);
                EXPECT_EQ(decoded.fields.header.remaining_files, 1);
            }
        }
    }
}

TEST(ChunkCodec, DecodesPayloadsMadeByQCompress)
{
    const QByteArray raw = temp_tree_t::text_bytes(200000);
    const QString data = QString::fromLatin1(qCompress(raw, 5).toBase64());
    EXPECT_EQ(chunk_codec_t::decode_payload(data, 5), raw);
    // Any non-zero value means "compressed" to a reader.
    EXPECT_EQ(chunk_codec_t::decode_payload(data, 1), raw);
}

TEST(ChunkCodec, WrongHashIsInvalid)
{
    const QByteArray raw = temp_tree_t::random_bytes(1000);
    const QJsonObject chunk = with(make_chunk("f", 0, 1, raw), "hash", md5("other bytes"));
    const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(chunk);
    EXPECT_FALSE(decoded.valid);
    EXPECT_EQ(decoded.bytes, raw);
    EXPECT_EQ(decoded.actual_hash, md5(raw));
}

TEST(ChunkCodec, UpperCaseHashNeverMatches)
{
    const QByteArray raw = temp_tree_t::text_bytes(1000);
    const QJsonObject chunk = with(make_chunk("f", 0, 1, raw), "hash", md5(raw).toUpper());
    EXPECT_FALSE(chunk_codec_t::decode_chunk(chunk).valid);
}

TEST(ChunkCodec, Base64OutsideTheAlphabetIsSkippedAndTheHashDecides)
{
    const QByteArray raw = temp_tree_t::text_bytes(5000);
    QString data = make_chunk("f", 0, 1, raw, 0, 0).value("data").toString();
    // Characters outside the alphabet are dropped: the payload is unchanged.
    QString noisy = data;
    noisy.insert(8, QStringLiteral("!*\n "));
    EXPECT_TRUE(
        chunk_codec_t::decode_chunk(with(make_chunk("f", 0, 1, raw, 0, 0), "data", noisy)).valid);
    // Corrupting a character of the alphabet changes the bytes: the hash rejects it.
    QString corrupt = data;
    corrupt[10] = corrupt[10] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(
        chunk_codec_t::decode_chunk(with(make_chunk("f", 0, 1, raw, 0, 0), "data", corrupt)).valid);
}

TEST(ChunkCodec, TruncatedCompressionFramingDecodesToNothing)
{
    const QByteArray raw = temp_tree_t::text_bytes(100000);
    const QByteArray framed = qCompress(raw, 9);
    for (qsizetype keep : { qsizetype(0), qsizetype(2), qsizetype(4), qsizetype(5),
             framed.size() / 2, framed.size() - 1 }) {
        const QString data = QString::fromLatin1(framed.left(keep).toBase64());
        EXPECT_TRUE(chunk_codec_t::decode_payload(data, 9).isEmpty()) << keep;
        const QJsonObject chunk = with(make_chunk("f", 0, 1, raw), "data", data);
        EXPECT_FALSE(chunk_codec_t::decode_chunk(chunk).valid) << keep;
    }
}

TEST(ChunkCodec, NegativeCompressionOnRawDataIsRejected)
{
    const QByteArray raw = temp_tree_t::text_bytes(4000);
    const QJsonObject chunk = with(make_chunk("f", 0, 1, raw, 0, 0), "compression", -1);
    const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(chunk);
    EXPECT_EQ(decoded.fields.compression, -1);
    EXPECT_TRUE(decoded.bytes.isEmpty());
    EXPECT_FALSE(decoded.valid);
}

TEST(ChunkCodec, PayloadLargerThanAChunkDecodesToNothing)
{
    // A declared length above one chunk, and a stream that inflates past one chunk although its
    // header claims little: neither may cost more than a chunk of memory.
    const QByteArray big(4 * 1024 * 1024, 'z');
    const QString honest = QString::fromLatin1(qCompress(big, 9).toBase64());
    EXPECT_TRUE(chunk_codec_t::decode_payload(honest, 9).isEmpty());

    QByteArray lying = qCompress(big, 9);
    qToBigEndian<quint32>(1000, lying.data());
    EXPECT_TRUE(chunk_codec_t::decode_payload(QString::fromLatin1(lying.toBase64()), 9).isEmpty());

    // One byte more than a chunk, uncompressed.
    const QByteArray raw(chunk_codec_t::CHUNK_SIZE + 1, 'r');
    EXPECT_TRUE(chunk_codec_t::decode_payload(QString::fromLatin1(raw.toBase64()), 0).isEmpty());
}

TEST(ChunkCodec, ShortDeclaredLengthStillDecodesAChunk)
{
    // qUncompress tolerates a length field that is too small; so do we, up to one chunk.
    const QByteArray raw = temp_tree_t::text_bytes(300000);
    QByteArray framed = qCompress(raw, 9);
    qToBigEndian<quint32>(10, framed.data());
    EXPECT_EQ(chunk_codec_t::decode_payload(QString::fromLatin1(framed.toBase64()), 9), raw);
}

TEST(ChunkCodec, EmptyInputFramingDecodesToEmpty)
{
    EXPECT_EQ(qCompress(QByteArray(), 9), QByteArray(4, '\0'));
    const chunk_codec_t::decoded_t decoded
        = chunk_codec_t::decode_chunk(make_chunk("f", 0, 1, QByteArray()));
    EXPECT_TRUE(decoded.valid);
    EXPECT_TRUE(decoded.bytes.isEmpty());
    EXPECT_EQ(decoded.actual_hash, "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(ChunkCodec, MissingOrWronglyTypedFieldsTakeTheirDefaults)
{
    const chunk_codec_t::fields_t none = chunk_codec_t::read_fields(QJsonObject());
    EXPECT_TRUE(none.header.file.isEmpty());
    EXPECT_EQ(none.header.chunk_index, 0);
    EXPECT_EQ(none.header.remaining_files, 0);
    EXPECT_EQ(none.header.total_chunks, 0);
    EXPECT_EQ(none.compression, 0);
    EXPECT_TRUE(none.data.isEmpty());
    EXPECT_TRUE(none.hash.isEmpty());
    EXPECT_EQ(none.header.percent, 0);
    EXPECT_EQ(none.header.speed, 0.0);

    const QJsonObject wrong = QJsonDocument::fromJson(R"({"file": 12, "chunk_index": "3",
        "remaining_files": [1], "total_chunks": {"n": 2}, "data": 5, "compression": "9",
        "hash": true, "percent": "50", "speed": "fast"})")
                                  .object();
    const chunk_codec_t::fields_t typed = chunk_codec_t::read_fields(wrong);
    EXPECT_TRUE(typed.header.file.isEmpty());
    EXPECT_EQ(typed.header.chunk_index, 0);
    EXPECT_EQ(typed.header.remaining_files, 0);
    EXPECT_EQ(typed.header.total_chunks, 0);
    EXPECT_EQ(typed.compression, 0);
    EXPECT_TRUE(typed.data.isEmpty());
    EXPECT_TRUE(typed.hash.isEmpty());
    EXPECT_EQ(typed.header.percent, 0);
    EXPECT_EQ(typed.header.speed, 0.0);

    // A count beyond 32 bits is kept, so that the receiver can refuse it.
    const QJsonObject huge = QJsonDocument::fromJson(R"({"total_chunks": 1e12})").object();
    EXPECT_EQ(chunk_codec_t::read_fields(huge).header.total_chunks, qint64(1000000000000));
}

TEST(ChunkCodec, AckHasExactlyFileAndCamelCaseChunkIndex)
{
    const QJsonObject ack = chunk_codec_t::build_ack("a/b.txt", 5);
    EXPECT_EQ(ack.keys(), (QStringList { "chunkIndex", "file" }));
    EXPECT_EQ(ack.value("file").toString(), "a/b.txt");
    EXPECT_EQ(ack.value("chunkIndex").toInt(), 5);
    const chunk_codec_t::ack_t read = chunk_codec_t::read_ack(ack);
    EXPECT_EQ(read.file, "a/b.txt");
    EXPECT_EQ(read.chunk_index, 5);
}

TEST(ChunkCodec, AckWithSnakeCaseIndexReadsAsIndexZero)
{
    QJsonObject ack;
    ack.insert("file", "a.txt");
    ack.insert("chunk_index", 4);
    EXPECT_EQ(chunk_codec_t::read_ack(ack).chunk_index, 0);
    ack.insert("chunkIndex", "4");
    EXPECT_EQ(chunk_codec_t::read_ack(ack).chunk_index, 0);
}

TEST(ChunkCodec, ReadChunkTakesAtMostOneChunkFromTheCurrentPosition)
{
    QByteArray content = temp_tree_t::random_bytes(512001, 9);
    QBuffer device(&content);
    ASSERT_TRUE(device.open(QIODevice::ReadOnly));
    QByteArray buffer;
    ASSERT_TRUE(chunk_codec_t::read_chunk(device, buffer));
    EXPECT_EQ(buffer, content.left(512000));
    ASSERT_TRUE(chunk_codec_t::read_chunk(device, buffer));
    EXPECT_EQ(buffer, content.mid(512000));
    ASSERT_TRUE(chunk_codec_t::read_chunk(device, buffer));
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_TRUE(device.atEnd());
}
