// Inputs found by the fuzz_json_path fuzzer, replayed as ordinary tests.

#include "common/log_capture_t.h"

#include "utility/utility_t.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using utility::utility_t;

// The fuzzer's input "a[200000000]\n1\n{}": writing far past the end of an array used to append
// two hundred million nulls first, until the process ran out of memory or time.
TEST(UtilityTJsonPathRegression, UpdateFarPastArrayEndIsRefusedAndChangesNothing)
{
    test_support::log_capture_t capture;
    QJsonValue root { QJsonObject() };
    utility_t::updateJsonValue(root, QStringLiteral("a[200000000]"), QJsonValue(1));
    EXPECT_EQ(root, QJsonValue(QJsonObject()));
    EXPECT_TRUE(capture.contains(QStringLiteral("Wrong index: 200000000"), 3));
}

TEST(UtilityTJsonPathRegression, UpdateFarPastEndOfExistingArrayKeepsIt)
{
    test_support::log_capture_t capture;
    QJsonDocument document = QJsonDocument::fromJson(R"({"list":[1,2]})");
    utility_t::updateJsonValue(document, QStringLiteral("list/2000000000"), QJsonValue(true));
    EXPECT_EQ(document, QJsonDocument::fromJson(R"({"list":[1,2]})"));
    EXPECT_TRUE(capture.contains(QStringLiteral("Wrong index: 2000000000"), 3));
}

// The largest gap still filled: 4096 nulls after the last element, then the value.
TEST(UtilityTJsonPathRegression, UpdateJustWithinTheGapLimitStillFillsWithNull)
{
    QJsonValue root { QJsonObject { { QStringLiteral("list"), QJsonArray { 1 } } } };
    utility_t::updateJsonValue(root, QStringLiteral("list[4097]"), QJsonValue(7));
    const QJsonArray list = root.toObject().value(QStringLiteral("list")).toArray();
    ASSERT_EQ(list.size(), 4098);
    EXPECT_EQ(list.at(0), QJsonValue(1));
    EXPECT_TRUE(list.at(4096).isNull());
    EXPECT_EQ(list.at(4097), QJsonValue(7));

    test_support::log_capture_t capture;
    utility_t::updateJsonValue(root, QStringLiteral("list[8195]"), QJsonValue(8));
    EXPECT_EQ(root.toObject().value(QStringLiteral("list")).toArray().size(), 4098);
    EXPECT_TRUE(capture.contains(QStringLiteral("Wrong index: 8195"), 3));
}
