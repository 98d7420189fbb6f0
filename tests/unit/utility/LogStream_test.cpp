#include "common/log_capture_t.h"
#include "common/qt_message_capture_t.h"

#include "platform/logs/classlogs.h"
#include "utility/LogStream.h"

#include <gtest/gtest.h>

using utility::logs::classlogs;
using utility::logs::LogStream;

namespace {

// Takes the log facility away for one test and gives the test main's quiet one back afterwards.
class without_facility_t {
public:
    without_facility_t() { classlogs::destroyInstance(); }
    ~without_facility_t()
    {
        utility::logs::classlogs_settings_t quiet;
        quiet.console = false;
        quiet.level_std = 6;
        classlogs::createInstance(quiet);
    }
};

} // namespace

TEST(LogStream, HandsTheLineToTheFacilityWithItsOrigin)
{
    test_support::log_capture_t capture;
    LogStream(utility::logs::Info, "some_function", "server/utility/utility_t", 42)
        << "files: " << 3 << ", hash " << QStringLiteral("abc");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].message, "files: 3, hash abc");
    EXPECT_EQ(records[0].level, 4);
    EXPECT_EQ(records[0].function, "some_function");
    EXPECT_EQ(records[0].file, "server/utility/utility_t");
    EXPECT_EQ(records[0].line, 42);
}

TEST(LogStream, MacroFillsFunctionAndLine)
{
    test_support::log_capture_t capture;
    const int line = __LINE__ + 1;
    ORVANE_LOG_STREAM(utility::logs::Warning, "server/x/y_t") << "late ack";
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].message, "late ack");
    EXPECT_EQ(records[0].level, 3);
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[0].line, line);
}

TEST(LogStream, EmptyLineEmitsNothing)
{
    test_support::log_capture_t capture;
    {
        LogStream stream(utility::logs::Info, "f", "server/x", 1);
    }
    LogStream(utility::logs::Error, "f", "server/x", 2) << "";
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(LogStream, WithoutFacilityWritesToQtInformationStream)
{
    without_facility_t no_facility;
    test_support::qt_message_capture_t qt_messages;
    LogStream(utility::logs::Info, "run", "server/utility/utility_t", 7) << "hello " << 5;
    EXPECT_EQ(qt_messages.messages(QtInfoMsg),
        QStringList { "[server/utility/utility_t] [run] [7] hello 5" });
}

TEST(LogStream, WithoutFacilityEmptyLineWritesNothing)
{
    without_facility_t no_facility;
    test_support::qt_message_capture_t qt_messages;
    {
        LogStream stream(utility::logs::Info, "run", "server/x", 7);
    }
    EXPECT_TRUE(qt_messages.entries().isEmpty());
}
