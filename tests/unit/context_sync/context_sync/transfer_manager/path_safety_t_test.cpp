#include "context_sync/context_sync/transfer_manager/path_safety_t.h"

#include <QList>

#include <gtest/gtest.h>

using context_sync_engine::path_safety_t;

namespace {

struct row_t {
    QString path;
    QString reason; // empty: accepted
};

} // namespace

TEST(PathSafety, AcceptsOrdinaryRelativePaths)
{
    for (const QString& path : { QStringLiteral("a"), QStringLiteral("background/wall.png"),
             QStringLiteral("a/b/c.txt"), QStringLiteral("..a/b.."), QStringLiteral(".hidden"),
             QStringLiteral("a/.b/c"), QStringLiteral("TMP_x/y"),
             QStringLiteral("spaces are fine/ü €.png"), QStringLiteral("[TO_SEND]x.png") }) {
        QString reason = QStringLiteral("untouched");
        EXPECT_TRUE(path_safety_t::is_safe_relative_path(path, &reason)) << path.toStdString();
        EXPECT_EQ(reason, "untouched");
    }
}

TEST(PathSafety, RefusesEveryUnsafeShapeWithItsReason)
{
    const QList<row_t> rows = {
        { QString(), "is empty" },
        { "/etc/passwd", "is absolute" },
        { "/", "is absolute" },
        { "..", "contains a '..' segment" },
        { "../x", "contains a '..' segment" },
        { "a/../../x", "contains a '..' segment" },
        { "a/..", "contains a '..' segment" },
        { ".", "contains a '.' segment" },
        { "./a", "contains a '.' segment" },
        { "a/./b", "contains a '.' segment" },
        { "a\\b", "contains a backslash" },
        { "..\\x", "contains a backslash" },
        { QString("a") + QChar(0) + "b", "contains a control character" },
        { "a\nb", "contains a control character" },
        { "a\tb", "contains a control character" },
        { QString("a") + QChar(0x7f), "contains a control character" },
        { QString("a") + QChar(0x85), "contains a control character" },
        { "a//b", "contains an empty segment" },
        { "a/", "contains an empty segment" },
        { QString(1025, 'x'), "is longer than 1024 bytes" },
        { QString(QChar(0xd800)) + "x", "is not valid text" },
    };
    for (const row_t& row : rows) {
        QString reason;
        EXPECT_FALSE(path_safety_t::is_safe_relative_path(row.path, &reason))
            << path_safety_t::printable(row.path).toStdString();
        EXPECT_EQ(reason, row.reason) << path_safety_t::printable(row.path).toStdString();
    }
    // Without a reason pointer the answer is the same.
    EXPECT_FALSE(path_safety_t::is_safe_relative_path("../x"));
}

TEST(PathSafety, LengthLimitCountsUtf8Bytes)
{
    EXPECT_TRUE(path_safety_t::is_safe_relative_path(QString(1024, 'x')));
    // 512 two-byte characters are 1024 bytes; one more is over.
    EXPECT_TRUE(path_safety_t::is_safe_relative_path(QString(512, QChar(0xfc))));
    EXPECT_FALSE(path_safety_t::is_safe_relative_path(QString(513, QChar(0xfc))));
    // 341 three-byte characters are 1023 bytes; 342 are 1026.
    EXPECT_TRUE(path_safety_t::is_safe_relative_path(QString(341, QChar(0x20ac))));
    EXPECT_FALSE(path_safety_t::is_safe_relative_path(QString(342, QChar(0x20ac))));
    // A surrogate pair is 4 bytes: 256 of them are exactly 1024.
    QString emoji;
    for (int i = 0; i < 256; ++i)
        emoji += QString::fromUtf8("\xF0\x9F\x98\x80");
    EXPECT_EQ(emoji.toUtf8().size(), 1024);
    EXPECT_TRUE(path_safety_t::is_safe_relative_path(emoji));
    EXPECT_FALSE(path_safety_t::is_safe_relative_path(emoji + "x"));
}

TEST(PathSafety, PrintableEscapesControlCharactersAndBackslashes)
{
    EXPECT_EQ(path_safety_t::printable(QString("a") + QChar(0) + "b\n\\c"), "a\\x00b\\x0a\\x5cc");
    EXPECT_EQ(path_safety_t::printable("plain/path.txt"), "plain/path.txt");
}
