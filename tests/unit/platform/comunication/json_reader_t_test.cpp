// The rr layer's body parser against QJsonDocument::fromJson: the same document and the same
// verdict for chunk envelopes, for texts with long strings in every kind of place, for texts that
// try to pass for its markers, and for broken texts.
#include "platform/comunication/utility/json_reader_t.h"

#include "platform/comunication/utility/json_text_t.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>

#include <gtest/gtest.h>

using comunication::utility::json_reader_t;
using comunication::utility::json_text_t;

namespace {

QByteArray base64_of_random(qsizetype size, quint32 seed = 7)
{
    QByteArray raw(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (char& c : raw)
        c = char(generator.generate());
    return raw.toBase64();
}

// Parses `text` both ways and expects the same verdict and document.
void expect_same(const QByteArray& text)
{
    QJsonParseError qt_error {};
    const QJsonDocument qt = QJsonDocument::fromJson(text, &qt_error);
    QJsonParseError error {};
    error.error = QJsonParseError::UnterminatedObject; // must be overwritten
    const QJsonDocument ours = json_reader_t::parse(text, &error);
    EXPECT_EQ(error.error, qt_error.error) << text.left(200).toStdString();
    EXPECT_EQ(ours, qt) << text.left(200).toStdString();
    EXPECT_EQ(ours.isObject(), qt.isObject());
    EXPECT_EQ(ours.isArray(), qt.isArray());
}

QByteArray chunk_envelope(const QByteArray& data)
{
    const QJsonObject chunk { { "file", "background/wall.png" }, { "chunk_index", 3 },
        { "remaining_files", 0 }, { "total_chunks", 98 },
        { "data", QJsonValue(QLatin1StringView(data)) }, { "compression", 9 },
        { "hash", "0123456789abcdef0123456789abcdef" }, { "percent", 0 },
        { "speed", 1779340000.125 } };
    return json_text_t::compact(QJsonObject {
        { "type", "ctx_chunk" }, { "payload", QJsonObject { { "message", chunk } } } });
}

} // namespace

TEST(JsonReaderT, ReadsAChunkRequestAsQtDoes)
{
    const QByteArray data = base64_of_random(512000);
    const QByteArray text = chunk_envelope(data);
    expect_same(text);
    // The data is the one string taken past Qt's parser.
    EXPECT_EQ(json_reader_t::long_string_values(text), 1);
    const QJsonDocument document = json_reader_t::parse(text);
    EXPECT_EQ(document.object()["payload"].toObject()["message"].toObject()["data"].toString(),
        QString::fromLatin1(data));
}

TEST(JsonReaderT, ShortTextsAndShortStringsAreQtsOwn)
{
    expect_same("{}");
    expect_same("[]");
    expect_same("{\"type\":\"ctx_request\",\"payload\":{}}");
    expect_same("");
    expect_same("nonsense");
    // Long text, but every string shorter than the threshold.
    QJsonArray many;
    for (int i = 0; i < 2000; ++i)
        many.append(QStringLiteral("value %1").arg(i));
    expect_same(QJsonDocument(QJsonObject { { "list", many } }).toJson());
}

TEST(JsonReaderT, LongStringsInEveryPlaceReadAsQtDoes)
{
    const QByteArray a = base64_of_random(6000, 1);
    const QByteArray b = base64_of_random(9000, 2);
    const QByteArray exact(json_reader_t::LONG_STRING, 'x');
    const QByteArray under(json_reader_t::LONG_STRING - 1, 'y');
    const QList<QByteArray> texts {
        // Top-level array, nested arrays and objects, several long strings, whitespace.
        "[\"" + a + "\",\"" + b + "\"]",
        " [ [ \"" + a + "\" ] , { \"k\" : \"" + b + "\" } ]\n",
        "{\"x\":[1,2,{\"y\":\"" + a + "\"}],\"z\":\"" + exact + "\",\"w\":\"" + under + "\"}",
        // A long key stays a key (with and without space before the colon).
        "{\"" + a + "\":1,\"" + b + "\" :\"" + a + "\"}",
        // The same long string twice.
        "{\"p\":\"" + a + "\",\"q\":\"" + a + "\"}",
        // Duplicate keys: the long value of one of them is dropped by Qt.
        "{\"d\":\"" + a + "\",\"d\":\"" + b + "\"}",
        "{\"d\":\"" + a + "\",\"d\":2}",
        // Long strings that are not plain: escapes, non-ASCII, an escaped quote.
        "{\"e\":\"" + a + "\\n" + b + "\"}",
        "{\"e\":\"" + a + "\\\"" + b + "\"}",
        "{\"u\":\"" + a + "\xc3\xa9" + b + "\"}",
        "{\"u\":\"" + a + "\\u00e9\"}",
    };
    for (const QByteArray& text : texts)
        expect_same(text);
    // Values only, plain only, from LONG_STRING bytes on.
    const QList<qsizetype> expected { 2, 2, 2, 1, 2, 2, 1, 0, 0, 0, 0 };
    for (qsizetype i = 0; i < texts.size(); ++i)
        EXPECT_EQ(json_reader_t::long_string_values(texts.at(i)), expected.at(i)) << i;
}

TEST(JsonReaderT, ValuesThatLookLikeMarkersAreNotConfused)
{
    const QByteArray a = base64_of_random(6000, 3);
    const QList<QByteArray> texts {
        // A real value equal to the marker of the first long string, before and after it.
        "{\"m\":\"\\u0000L0\",\"d\":\"" + a + "\"}",
        "{\"d\":\"" + a + "\",\"m\":\"\\u0000L0\"}",
        // Written with other escapes, and a marker of an index that was never placed.
        "{\"m\":\"\\u0000\\u004c0\",\"d\":\"" + a + "\"}",
        "{\"m\":\"\\u0000L7\",\"d\":\"" + a + "\"}",
        "{\"m\":\"\\u0000L00\",\"d\":\"" + a + "\"}",
        "{\"m\":\"\\u0000Lx\",\"d\":\"" + a + "\"}",
        "{\"m\":\"\\u0000\",\"d\":\"" + a + "\"}",
        // A key that looks like a marker.
        "{\"\\u0000L0\":\"" + a + "\"}",
    };
    for (const QByteArray& text : texts)
        expect_same(text);
}

TEST(JsonReaderT, BrokenTextsAreRefusedWithQtsError)
{
    const QByteArray a = base64_of_random(6000, 4);
    const QList<QByteArray> texts {
        "{\"d\":\"" + a, // unterminated long string
        "{\"d\":\"" + a + "\"", // unterminated object
        "{\"d\":\"" + a + "\",}", // trailing comma
        "{\"d\":\"" + a + "\" \"e\":1}", // missing comma
        "{\"d\":12\"" + a + "\"}", // string after a number
        "[\"" + a + "\",\"" + a + "\\", // ends in an escape
        "{\"d\":\"" + a + "\"}garbage",
        "\"" + a + "\"", // a bare string
        "{\"d\":\"" + a + "\\x\"}", // bad escape
        "{\"d\":\"" + a + "\x01\"}", // control character in a string
        "{\"d\":\"" + a + "\xff\"}", // not UTF-8
    };
    for (const QByteArray& text : texts)
        expect_same(text);
    EXPECT_EQ(json_reader_t::long_string_values(texts.at(0)), -1);
    EXPECT_EQ(json_reader_t::long_string_values(texts.at(5)), -1);
}

TEST(JsonReaderT, RandomDamageToAChunkRequestReadsAsQtDoes)
{
    // Chunk requests with a few bytes overwritten by JSON's structural and special characters.
    const QByteArray clean = chunk_envelope(base64_of_random(20000, 5));
    const QByteArray specials = "\"\\{}[]:, \n\x01\x80"
                                "0aL";
    QRandomGenerator generator(99);
    for (int round = 0; round < 300; ++round) {
        QByteArray text = clean;
        const int changes = 1 + int(generator.bounded(3));
        for (int i = 0; i < changes; ++i) {
            // Mostly around the short fields at both ends of the text.
            const qsizetype at = generator.bounded(2) == 0
                ? qsizetype(generator.bounded(200))
                : text.size() - 1 - qsizetype(generator.bounded(200));
            text[at] = specials.at(generator.bounded(int(specials.size())));
        }
        expect_same(text);
    }
}
