#include "platform/comunication/utility/json_text_t.h"

#include <QJsonDocument>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using comunication::utility::json_text_t;

namespace {

QByteArray qt_text(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray base64_of_random(qsizetype size)
{
    QByteArray raw(size, Qt::Uninitialized);
    QRandomGenerator generator(7);
    for (char& c : raw)
        c = char(generator.generate());
    return raw.toBase64();
}

} // namespace

TEST(JsonTextT, WritesAChunkEnvelopeExactlyAsQtDoes)
{
    const QByteArray data = base64_of_random(512000);
    const QJsonObject chunk { { "file", "background/wall.png" }, { "chunk_index", 3 },
        { "remaining_files", 0 }, { "total_chunks", 98 },
        { "data", QJsonValue(QLatin1StringView(data)) }, { "compression", 9 },
        { "hash", "0123456789abcdef0123456789abcdef" }, { "percent", 0 },
        { "speed", 1779340000.125 } };
    const QJsonObject envelope { { "type", "ctx_chunk" }, { "subtype", "" }, { "payload", chunk } };
    const QByteArray text = json_text_t::compact(envelope);
    EXPECT_EQ(text, qt_text(envelope));
    EXPECT_GT(text.size(), data.size());
}

TEST(JsonTextT, EscapesWhatQtEscapes)
{
    const QJsonObject object {
        { "quote", "say \"hi\"" },
        { "backslash", "C:\\path" },
        { "controls", QString::fromUtf8("a\nb\tc\rd\be\ff\x01g\x1f") },
        { "delete", QString::fromUtf8("x\x7fy") },
        { "latin", QString::fromUtf8("caf\xc3\xa9") },
        { "emoji", QString::fromUtf8("\xf0\x9f\x98\x80 smile") },
        { "lone surrogate", QString(QChar(0xd800)) },
        { "slash", "a/b" },
        { "key \"quoted\"\n", "value" },
        { "", "" },
    };
    EXPECT_EQ(json_text_t::compact(object), qt_text(object));
}

TEST(JsonTextT, KeepsQtNumberBooleanAndNullFormatting)
{
    const QJsonObject object {
        { "int", 42 },
        { "negative", -7 },
        { "big", qint64(1) << 53 },
        { "bigger", double(qint64(1) << 60) },
        { "fraction", 0.1 },
        { "tiny", 1e-300 },
        { "huge", 1e300 },
        { "negative zero", -0.0 },
        { "nan", std::numeric_limits<double>::quiet_NaN() },
        { "infinity", std::numeric_limits<double>::infinity() },
        { "true", true },
        { "false", false },
        { "null", QJsonValue() },
    };
    EXPECT_EQ(json_text_t::compact(object), qt_text(object));
}

TEST(JsonTextT, WritesNestedObjectsAndArraysInQtOrder)
{
    QJsonArray list { 1, "two", QJsonArray { 3, QJsonObject { { "four", 4 } } }, QJsonArray {},
        QJsonObject {}, QJsonValue(), false };
    const QJsonObject object { { "zeta", list },
        { "alpha", QJsonObject { { "b", 1 }, { "a", 2 } } }, { "empty", QJsonObject {} },
        { "middle", QJsonArray { "x" } } };
    EXPECT_EQ(json_text_t::compact(object), qt_text(object));
    EXPECT_EQ(json_text_t::compact(list), QJsonDocument(list).toJson(QJsonDocument::Compact));
    EXPECT_EQ(json_text_t::compact(QJsonObject {}), QByteArray("{}"));
    EXPECT_EQ(json_text_t::compact(QJsonArray {}), QByteArray("[]"));
}

TEST(JsonTextT, TakesOnlyPrintableAsciiWithoutQuoteOrBackslashAsPlain)
{
    EXPECT_TRUE(json_text_t::plain_ascii(QString::fromLatin1(base64_of_random(1000))));
    EXPECT_TRUE(json_text_t::plain_ascii(QString()));
    EXPECT_TRUE(json_text_t::plain_ascii(u" ~/+="));
    EXPECT_FALSE(json_text_t::plain_ascii(u"a\"b"));
    EXPECT_FALSE(json_text_t::plain_ascii(u"a\\b"));
    EXPECT_FALSE(json_text_t::plain_ascii(u"a\nb"));
    EXPECT_FALSE(json_text_t::plain_ascii(QString(QChar(0))));
    EXPECT_FALSE(json_text_t::plain_ascii(u"a\x7f"));
    EXPECT_FALSE(json_text_t::plain_ascii(QString::fromUtf8("caf\xc3\xa9")));
    EXPECT_FALSE(json_text_t::plain_ascii(QString(QChar(0xd800))));
}
