#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include "platform/logs/classlogs.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using utility::logs::classlogs;
using utility::logs::classlogs_settings_t;

namespace {

// Replaces the facility of the test main with one of the test's own, and puts the default one
// back afterwards.
class classlogs_swap_t {
public:
    explicit classlogs_swap_t(const classlogs_settings_t& settings)
    {
        classlogs::destroyInstance();
        classlogs::createInstance(settings);
    }
    ~classlogs_swap_t()
    {
        classlogs::destroyInstance();
        classlogs_settings_t quiet;
        quiet.console = false;
        classlogs::createInstance(quiet);
    }
};

QString read_all(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

}  // namespace

TEST(classlogs, CaptureSeesExactMessageLevelAndSource)
{
    test_support::log_capture_t capture;
    ORVANE_LOG(QStringLiteral("Hello %1").arg(42), 3, "server/test/classlogs_test");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].message, "Hello 42");
    EXPECT_EQ(records[0].level, 3);
    EXPECT_EQ(records[0].file, "server/test/classlogs_test");
    EXPECT_EQ(records[0].function, "TestBody");
}

TEST(classlogs, WithoutInstanceLinesAreDropped)
{
    classlogs::destroyInstance();
    EXPECT_EQ(classlogs::getInstance(), nullptr);
    ORVANE_LOG(QStringLiteral("dropped"), 2, "server/test/classlogs_test");  // must not crash
    classlogs_settings_t quiet;
    quiet.console = false;
    classlogs::createInstance(quiet);
    test_support::log_capture_t capture;
    EXPECT_FALSE(capture.contains("dropped"));
}

TEST(classlogs, FileGetsOnlyLinesUpToItsLevel)
{
    test_support::temp_tree_t tree;
    classlogs_settings_t settings;
    settings.console = false;
    settings.folder = tree.path("logs");
    settings.level_file = 3;
    classlogs_swap_t swap(settings);
    ORVANE_LOG(QStringLiteral("kept error"), 2, "f");
    ORVANE_LOG(QStringLiteral("kept warning"), 3, "f");
    ORVANE_LOG(QStringLiteral("filtered milestone"), 4, "f");
    classlogs::getInstance()->flush();
    const QString text = read_all(tree.path("logs/server-orvane.log"));
    EXPECT_TRUE(text.contains("kept error"));
    EXPECT_TRUE(text.contains("kept warning"));
    EXPECT_FALSE(text.contains("filtered milestone"));
}

TEST(classlogs, FileRotatesAtItsSizeAndKeepsTheGivenNumber)
{
    test_support::temp_tree_t tree;
    classlogs_settings_t settings;
    settings.console = false;
    settings.folder = tree.path("logs");
    settings.size_mb = 1;
    settings.rotate = 2;
    classlogs_swap_t swap(settings);
    const QString line(1000, 'x');
    for (int i = 0; i < 4000; ++i)  // about 4 MB: more than size x (rotate + 1)
        ORVANE_LOG(line, 2, "f");
    classlogs::getInstance()->flush();
    const QStringList files = QDir(tree.path("logs")).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(files, QStringList({"server-orvane.1.log", "server-orvane.2.log",
                                  "server-orvane.log"}));
    for (const QString& name : files)
        EXPECT_LE(QFileInfo(tree.path("logs/" + name)).size(), 1024 * 1024 + 2000);
}

TEST(classlogs, DestroyFlushesEverythingQueued)
{
    test_support::temp_tree_t tree;
    classlogs_settings_t settings;
    settings.console = false;
    settings.folder = tree.path("logs");
    {
        classlogs_swap_t swap(settings);
        for (int i = 0; i < 5000; ++i)
            ORVANE_LOG(QStringLiteral("line %1").arg(i), 4, "f");
        classlogs::destroyInstance();  // no flush() before: the destructor must drain the queue
        const QString text = read_all(tree.path("logs/server-orvane.log"));
        EXPECT_TRUE(text.contains("line 0\n"));
        EXPECT_TRUE(text.contains("line 4999\n"));
    }
}

TEST(classlogs, ManyThreadsLoseNoLineAndKeepEachThreadsOrder)
{
    test_support::log_capture_t capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                ORVANE_LOG(QStringLiteral("t%1 %2").arg(t).arg(i), 6, "f");
        });
    for (auto& thread : threads)
        thread.join();
    const QStringList lines = capture.messages(6);
    ASSERT_EQ(lines.size(), 2000);
    for (int t = 0; t < 4; ++t) {
        int last = -1;
        for (const QString& line : lines)
            if (line.startsWith(QStringLiteral("t%1 ").arg(t))) {
                const int i = line.section(' ', 1).toInt();
                EXPECT_EQ(i, last + 1);
                last = i;
            }
        EXPECT_EQ(last, 499);
    }
}
