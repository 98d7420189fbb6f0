// The chunk codec's Base64 decoder against Qt's lenient one: every input must give the same bytes,
// whether it takes the fast path (strict Base64) or falls back to Qt.
#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QRandomGenerator>

#include <gtest/gtest.h>

using context_sync_engine::chunk_codec_t;

namespace {

QByteArray qt_decode(const QString& text)
{
    return QByteArray::fromBase64Encoding(text.toUtf8()).decoded;
}

QByteArray random_bytes(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (char& c : bytes)
        c = char(generator.generate());
    return bytes;
}

} // namespace

TEST(ChunkCodecBase64, StrictBase64OfEveryLengthDecodesToTheBytes)
{
    for (qsizetype size = 0; size <= 70; ++size) {
        const QByteArray raw = random_bytes(size, quint32(size) + 1);
        const QString padded = QString::fromLatin1(raw.toBase64());
        EXPECT_EQ(chunk_codec_t::decode_base64(padded), raw) << size;
        const QString unpadded = QString::fromLatin1(raw.toBase64(QByteArray::OmitTrailingEquals));
        EXPECT_EQ(chunk_codec_t::decode_base64(unpadded), raw) << size;
        EXPECT_EQ(chunk_codec_t::decode_base64(unpadded), qt_decode(unpadded)) << size;
    }
}

TEST(ChunkCodecBase64, AChunkSizedTextDecodesToTheChunk)
{
    const QByteArray raw = random_bytes(chunk_codec_t::CHUNK_SIZE, 11);
    EXPECT_EQ(chunk_codec_t::decode_base64(QString::fromLatin1(raw.toBase64())), raw);
}

TEST(ChunkCodecBase64, EveryByteValueDecodesAsQtDoes)
{
    // Every character 0..255 (and some above) at every place of a group, alone and inside valid
    // text: invalid ones are skipped by the fallback exactly as Qt skips them.
    const QString valid = QString::fromLatin1(random_bytes(30, 3).toBase64());
    for (int c = 0; c < 300; ++c) {
        for (int place = 0; place < 8; ++place) {
            QString text = valid;
            text[place] = QChar(char16_t(c));
            EXPECT_EQ(chunk_codec_t::decode_base64(text), qt_decode(text)) << c << " " << place;
        }
        const QString alone(4, QChar(char16_t(c)));
        EXPECT_EQ(chunk_codec_t::decode_base64(alone), qt_decode(alone)) << c;
    }
}

TEST(ChunkCodecBase64, OddPaddingAndLengthsDecodeAsQtDoes)
{
    const QStringList texts { "", "=", "==", "===", "====", "Q", "QQ",
        "QQ=", "QQ==", "QQ===", "QQQ",
        "QQQ=", "QQQ==", "QQQQ=", "QQ==QQ==", "Q===", "QR==", "QRS=", "QQQQQ", "QQ=Q", "=QQQ",
        "QQQQ====", "QQ\n==", "Q Q Q Q", "QUJD\r\nREVG", "-_-_", "QUJD-_==", "\xc3\xa9QUJD",
        "QUJD\xc3\xa9" };
    for (const QString& text : texts)
        EXPECT_EQ(chunk_codec_t::decode_base64(text), qt_decode(text)) << text.toStdString();
}

TEST(ChunkCodecBase64, RandomTextsFromTheAlphabetAndItsNeighboursDecodeAsQtDoes)
{
    // Mostly alphabet characters with now and then padding, spaces, line breaks, URL-safe
    // characters, control and non-Latin-1 characters, in every length up to 40.
    const QString pool
        = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
                         "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/==== "
                         "\n\r-_.\t\x7f\u00e9\u20ac");
    QRandomGenerator generator(1234);
    for (int round = 0; round < 20000; ++round) {
        const int size = int(generator.bounded(41));
        QString text;
        for (int i = 0; i < size; ++i)
            text += pool.at(generator.bounded(int(pool.size())));
        ASSERT_EQ(chunk_codec_t::decode_base64(text), qt_decode(text)) << text.toStdString();
    }
}

TEST(ChunkCodecBase64, DecodingAPayloadUsesTheSameBytes)
{
    const QByteArray raw = random_bytes(100000, 5);
    const QString data = QString::fromLatin1(qCompress(raw, 9).toBase64());
    EXPECT_EQ(chunk_codec_t::decode_payload(data, 9), raw);
    // A line break every 76 characters (as MIME writes) still decodes, through the fallback.
    QString wrapped;
    for (qsizetype i = 0; i < data.size(); i += 76)
        wrapped += data.mid(i, 76) + QLatin1Char('\n');
    EXPECT_EQ(chunk_codec_t::decode_payload(wrapped, 9), raw);
}
