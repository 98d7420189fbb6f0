// GoogleTest entry point for every test executable. A QCoreApplication exists for the whole run so
// that queued signals, timers and QSignalSpy::wait work; the log facility is created with the
// console off (set CONTEXT_SYNC_TEST_LOG_CONSOLE=1 to see it) so that tests can capture lines.

#include "platform/logs/classlogs.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);

    utility::logs::classlogs_settings_t settings;
    settings.console = qEnvironmentVariableIntValue("CONTEXT_SYNC_TEST_LOG_CONSOLE") != 0;
    settings.level_std = 6;
    utility::logs::classlogs::createInstance(settings);

    const int result = RUN_ALL_TESTS();
    utility::logs::classlogs::destroyInstance();
    return result;
}
