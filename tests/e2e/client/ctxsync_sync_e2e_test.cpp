// Many clients and clients that stay in step, end to end: real ctxsync processes (pull, sync)
// against the real server program and a real broker, with the broker and the server killed and
// restarted under them.

#include "client_test_env_t.h"

#include "context_sync_client/context_tree_t.h"

#include "common/temp_tree_t.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <memory>

#include <gtest/gtest.h>

using context_sync_client::context_tree_t;
using context_sync_client::file_map_t;

namespace {

QByteArray image(const QString& name)
{
    QFile file(QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString md5(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

// Every file below `dir` whose name starts with "TMP_" (the client's temporary files).
QStringList temporaries(const QString& dir)
{
    QStringList found;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (it.fileName().startsWith(QLatin1String("TMP_")))
            found.append(path);
    }
    return found;
}

// A ctxsync process that runs while the test goes on; its output is collected as it comes.
class ctxsync_child_t {
public:
    explicit ctxsync_child_t(const QStringList& arguments)
    {
        process_.start(QStringLiteral(CTXSYNC_PATH), arguments);
    }
    ~ctxsync_child_t()
    {
        if (process_.state() != QProcess::NotRunning) {
            process_.kill();
            process_.waitForFinished(5000);
        }
    }
    bool started() { return process_.waitForStarted(10000); }
    void read()
    {
        process_.waitForReadyRead(5);
        out_ += QString::fromUtf8(process_.readAllStandardOutput());
        err_ += QString::fromUtf8(process_.readAllStandardError());
    }
    bool wait_for(const QString& fragment, int timeout_ms = 20000)
    {
        return client_test::wait_until(
            [&] {
                read();
                return out_.contains(fragment);
            },
            timeout_ms);
    }
    void signal(int number) { ::kill(pid_t(process_.processId()), number); }
    // The exit code once the process ended within `timeout_ms`; -1 otherwise or after a crash.
    int finish(int timeout_ms = 15000)
    {
        const bool ended = client_test::wait_until(
            [&] {
                read();
                return process_.state() == QProcess::NotRunning;
            },
            timeout_ms);
        read();
        if (!ended || process_.exitStatus() != QProcess::NormalExit)
            return -1;
        return process_.exitCode();
    }
    const QString& out() const { return out_; }
    const QString& err() const { return err_; }
    QList<QJsonObject> events() const
    {
        QList<QJsonObject> documents;
        for (const QString& line : out_.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            documents.append(QJsonDocument::fromJson(line.toUtf8()).object());
        return documents;
    }

private:
    QProcess process_;
    QString out_;
    QString err_;
};

class ctxsync_follow : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(env.start()); }

    QStringList common() const
    {
        return { QStringLiteral("--broker"), env.broker_text(), QStringLiteral("--timeout"),
            QStringLiteral("10") };
    }
    // Runs a ctxsync command to its end and returns its exit code.
    int run(const QStringList& arguments)
    {
        ctxsync_child_t child(common() + arguments);
        return child.started() ? child.finish(60000) : -1;
    }
    // Waits until `dir` holds exactly `expected`.
    static bool folder_becomes(
        const QString& dir, const file_map_t& expected, int timeout_ms = 20000)
    {
        return client_test::wait_until(
            [&] { return context_tree_t::scan_local(dir) == expected; }, timeout_ms);
    }
    // Puts bg_640x284.png on the server and returns the server's tree.
    file_map_t serve_one_image()
    {
        const QString png = QStringLiteral("background/bg_640x284.png");
        EXPECT_TRUE(env.root().write(png, image(QStringLiteral("bg_640x284.png"))));
        const file_map_t files { { png, md5(image(QStringLiteral("bg_640x284.png"))) } };
        EXPECT_TRUE(env.wait_for_server_tree(files, 20000));
        return files;
    }
    // Puts `count` copies of the 1 MiB test image (three chunks each) on the server.
    file_map_t serve_big_files(int count)
    {
        const QByteArray big = image(QStringLiteral("padded_1048576.png"));
        file_map_t files;
        for (int i = 1; i <= count; ++i) {
            const QString path = QStringLiteral("background/big%1.png").arg(i);
            EXPECT_TRUE(env.root().write(path, big));
            files.insert(path, md5(big));
        }
        EXPECT_TRUE(env.wait_for_server_tree(files, 20000));
        return files;
    }

    client_test::client_test_env_t env;
};

} // namespace

TEST_F(ctxsync_follow, TwentyTwoPullsStartedAtOnceAllSucceed)
{
    // Five backgrounds, one of three chunks; the server serves ten clients at a time and ignores
    // the others, who must try again.
    const QStringList names { QStringLiteral("padded_1048576.png"),
        QStringLiteral("bg_640x284.png"), QStringLiteral("bg_640x284_baseline.jpg"),
        QStringLiteral("bg_640x284_exif.jpg"), QStringLiteral("bg_640x284_progressive.jpg") };
    file_map_t expected;
    for (const QString& name : names) {
        ASSERT_TRUE(env.root().write(QStringLiteral("background/") + name, image(name)));
        expected.insert(QStringLiteral("background/") + name, md5(image(name)));
    }
    ASSERT_TRUE(env.wait_for_server_tree(expected, 20000));

    constexpr int kClients = 22;
    test_support::temp_tree_t folders;
    std::vector<std::unique_ptr<ctxsync_child_t>> pulls;
    for (int i = 0; i < kClients; ++i)
        pulls.push_back(std::make_unique<ctxsync_child_t>(common()
            + QStringList { QStringLiteral("--json"), QStringLiteral("pull"),
                folders.path(QStringLiteral("client%1").arg(i)) }));
    int retries = 0;
    for (int i = 0; i < kClients; ++i) {
        ASSERT_EQ(pulls[i]->finish(120000), 0) << i << ": " << pulls[i]->err().toStdString();
        const QJsonObject report = QJsonDocument::fromJson(pulls[i]->out().toUtf8()).object();
        EXPECT_TRUE(report.value(QStringLiteral("in_step")).toBool()) << i;
        EXPECT_TRUE(report.value(QStringLiteral("failed")).toArray().isEmpty()) << i;
        const int tries = report.value(QStringLiteral("tries")).toInt();
        EXPECT_GE(tries, 1) << i;
        EXPECT_EQ(report.value(QStringLiteral("retries")).toInt(), tries - 1) << i;
        retries += tries - 1;
        EXPECT_EQ(
            context_tree_t::scan_local(folders.path(QStringLiteral("client%1").arg(i))), expected)
            << i;
    }
    // More clients than the server serves at once: some were turned away and came back.
    EXPECT_GT(retries, 0);
    EXPECT_TRUE(temporaries(folders.root()).isEmpty());
}

TEST_F(ctxsync_follow, SyncFollowsPushRenameDeleteAndReplace)
{
    const QString png = QStringLiteral("background/bg_640x284.png");
    file_map_t expected = serve_one_image();

    test_support::temp_tree_t folder;
    ASSERT_TRUE(folder.write(QStringLiteral("background/local_only.txt"), "extra"));
    ctxsync_child_t sync(common()
        + QStringList { QStringLiteral("--json"), QStringLiteral("sync"),
            QStringLiteral("--delete"), folder.root() });
    ASSERT_TRUE(sync.started());
    ASSERT_TRUE(sync.wait_for(QStringLiteral("\"context_hash\":\"%1\",\"event\":\"in_step\"")
                                  .arg(context_tree_t::cumulative_hash(expected))))
        << sync.out().toStdString() << sync.err().toStdString();
    EXPECT_EQ(context_tree_t::scan_local(folder.root()), expected);

    // A push by another client.
    const QString jpg = QStringLiteral("background/bg_640x284_baseline.jpg");
    ASSERT_EQ(run({ QStringLiteral("push"),
                  QStringLiteral(CONTEXT_SYNC_TEST_DATA_DIR "/images/bg_640x284_baseline.jpg") }),
        0);
    expected.insert(jpg, md5(image(QStringLiteral("bg_640x284_baseline.jpg"))));
    ASSERT_TRUE(folder_becomes(folder.root(), expected)) << sync.out().toStdString();

    // A rename: the content is here already, so nothing is downloaded.
    const QString moved = QStringLiteral("background/moved.png");
    ASSERT_EQ(run({ QStringLiteral("mv"), png, moved }), 0);
    expected.insert(moved, expected.take(png));
    ASSERT_TRUE(folder_becomes(folder.root(), expected)) << sync.out().toStdString();

    // A delete.
    ASSERT_EQ(run({ QStringLiteral("rm"), jpg }), 0);
    expected.remove(jpg);
    ASSERT_TRUE(folder_becomes(folder.root(), expected)) << sync.out().toStdString();

    // A replace: the server's tree becomes another client's folder.
    test_support::temp_tree_t other;
    ASSERT_TRUE(other.write(moved, image(QStringLiteral("bg_640x284_progressive.jpg"))));
    ASSERT_TRUE(other.write(
        QStringLiteral("background/exif.jpg"), image(QStringLiteral("bg_640x284_exif.jpg"))));
    ASSERT_EQ(run({ QStringLiteral("replace"), other.root() }), 0);
    expected = context_tree_t::scan_local(other.root());
    ASSERT_TRUE(folder_becomes(folder.root(), expected)) << sync.out().toStdString();
    ASSERT_TRUE(sync.wait_for(QStringLiteral("\"context_hash\":\"%1\",\"event\":\"in_step\"")
                                  .arg(context_tree_t::cumulative_hash(expected))));

    // SIGTERM while idle ends it cleanly.
    sync.signal(SIGTERM);
    EXPECT_EQ(sync.finish(), 0);
    const QList<QJsonObject> events = sync.events();
    ASSERT_GE(events.size(), 2);
    QStringList pulled;
    QStringList deleted;
    QString copied_from;
    for (const QJsonObject& event : events) {
        const QString name = event.value(QStringLiteral("event")).toString();
        EXPECT_TRUE(QStringList(
            { QStringLiteral("started"), QStringLiteral("in_step"), QStringLiteral("pulled"),
                QStringLiteral("deleted"), QStringLiteral("retrying"),
                QStringLiteral("disconnected"), QStringLiteral("stopped") })
                        .contains(name))
            << name.toStdString();
        if (name == QLatin1String("pulled"))
            pulled.append(event.value(QStringLiteral("path")).toString());
        if (name == QLatin1String("deleted"))
            deleted.append(event.value(QStringLiteral("path")).toString());
        if (name == QLatin1String("pulled") && event.value(QStringLiteral("path")) == moved
            && copied_from.isEmpty())
            copied_from = event.value(QStringLiteral("from")).toString();
    }
    EXPECT_EQ(events.first().value(QStringLiteral("event")).toString(), QStringLiteral("started"));
    EXPECT_EQ(events.last().value(QStringLiteral("event")).toString(), QStringLiteral("stopped"));
    EXPECT_EQ(copied_from, png);
    // The replace may reach the client in one round or in several: the order of its two files
    // is not fixed.
    QStringList pulled_expected { png, jpg, moved, QStringLiteral("background/exif.jpg"), moved };
    QStringList deleted_expected { QStringLiteral("background/local_only.txt"), png, jpg };
    pulled.sort();
    deleted.sort();
    pulled_expected.sort();
    deleted_expected.sort();
    EXPECT_EQ(pulled, pulled_expected) << pulled.join(' ').toStdString();
    EXPECT_EQ(deleted, deleted_expected) << deleted.join(' ').toStdString();
    EXPECT_TRUE(temporaries(folder.root()).isEmpty());
}

TEST_F(ctxsync_follow, SyncSurvivesBrokerAndServerRestarts)
{
    const QString png = QStringLiteral("background/bg_640x284.png");
    file_map_t expected = serve_one_image();

    test_support::temp_tree_t folder;
    ctxsync_child_t sync(common() + QStringList { QStringLiteral("sync"), folder.root() });
    ASSERT_TRUE(sync.started());
    ASSERT_TRUE(sync.wait_for(QStringLiteral("in step: 1 files, context hash %1\n")
                                  .arg(context_tree_t::cumulative_hash(expected))))
        << sync.out().toStdString() << sync.err().toStdString();

    // The broker dies and comes back; meanwhile the server's tree changes.
    if (!env.broker().restart())
        GTEST_SKIP() << "the broker is not ours to restart";
    ASSERT_TRUE(sync.wait_for(
        QStringLiteral("disconnected: connection to %1 lost; waiting\n").arg(env.broker_text())))
        << sync.out().toStdString();
    const QString exif = QStringLiteral("background/exif.jpg");
    ASSERT_TRUE(env.root().write(exif, image(QStringLiteral("bg_640x284_exif.jpg"))));
    expected.insert(exif, md5(image(QStringLiteral("bg_640x284_exif.jpg"))));
    ASSERT_TRUE(folder_becomes(folder.root(), expected, 30000)) << sync.out().toStdString();

    // The server dies (its Will says "offline"), its tree changes while it is away, and it
    // comes back: the client waits for "online" and checks again.
    env.server().signal(SIGKILL);
    ASSERT_TRUE(env.server().wait_finished(10000));
    ASSERT_TRUE(sync.wait_for(QStringLiteral("disconnected: the server went away; waiting\n")))
        << sync.out().toStdString();
    const QString progressive = QStringLiteral("background/progressive.jpg");
    ASSERT_TRUE(env.root().write(progressive, image(QStringLiteral("bg_640x284_progressive.jpg"))));
    expected.insert(progressive, md5(image(QStringLiteral("bg_640x284_progressive.jpg"))));
    ASSERT_TRUE(env.restart_server());
    ASSERT_TRUE(folder_becomes(folder.root(), expected, 30000)) << sync.out().toStdString();
    ASSERT_TRUE(sync.wait_for(QStringLiteral("in step: 3 files, context hash %1\n")
                                  .arg(context_tree_t::cumulative_hash(expected))))
        << sync.out().toStdString();

    sync.signal(SIGINT);
    EXPECT_EQ(sync.finish(), 0);
    EXPECT_TRUE(sync.out().endsWith(QStringLiteral("stopped\n"))) << sync.out().toStdString();
    EXPECT_TRUE(sync.out().startsWith(
        QStringLiteral("syncing %1 with %2 as ").arg(folder.root(), env.broker_text())))
        << sync.out().toStdString();
    EXPECT_TRUE(sync.out().contains(QStringLiteral("pulled   %1\n").arg(exif)));
    EXPECT_TRUE(sync.out().contains(QStringLiteral("pulled   %1\n").arg(progressive)));
    EXPECT_TRUE(temporaries(folder.root()).isEmpty());
}

TEST_F(ctxsync_follow, SigtermDuringASyncDownloadLeavesNoPartialFile)
{
    const file_map_t served = serve_big_files(5);
    test_support::temp_tree_t folder;
    ctxsync_child_t sync(
        common() + QStringList { QStringLiteral("--json"), QStringLiteral("sync"), folder.root() });
    ASSERT_TRUE(sync.started());
    // A temporary file exists only while a file is on its way.
    ASSERT_TRUE(
        client_test::wait_until([&] { return !temporaries(folder.root()).isEmpty(); }, 30000))
        << sync.out().toStdString();
    sync.signal(SIGTERM);
    EXPECT_EQ(sync.finish(), 0) << sync.err().toStdString();
    EXPECT_TRUE(temporaries(folder.root()).isEmpty());
    // Whatever arrived is complete; the rest is absent.
    const file_map_t local = context_tree_t::scan_local(folder.root());
    EXPECT_LT(local.size(), served.size());
    for (auto it = local.cbegin(); it != local.cend(); ++it)
        EXPECT_EQ(it.value(), served.value(it.key())) << it.key().toStdString();
    EXPECT_EQ(
        sync.events().last().value(QStringLiteral("event")).toString(), QStringLiteral("stopped"));
}

TEST_F(ctxsync_follow, APullEndsAtOnceWhenTheServerDies)
{
    const file_map_t served = serve_big_files(5);
    test_support::temp_tree_t folder;
    // A silence of 60 s would be waited out without the server's Will.
    ctxsync_child_t pull({ QStringLiteral("--broker"), env.broker_text(),
        QStringLiteral("--timeout"), QStringLiteral("60"), QStringLiteral("pull"), folder.root() });
    ASSERT_TRUE(pull.started());
    ASSERT_TRUE(
        client_test::wait_until([&] { return !temporaries(folder.root()).isEmpty(); }, 30000))
        << pull.out().toStdString();
    env.server().signal(SIGKILL);
    EXPECT_EQ(pull.finish(20000), 1) << pull.err().toStdString();
    EXPECT_TRUE(pull.err().endsWith(
        QStringLiteral("ctxsync: the server went away during the transfer; nothing partial was "
                       "kept\n")))
        << pull.err().toStdString();
    EXPECT_TRUE(pull.err().contains(
        QStringLiteral(": the server went away (its status is \"offline\") before the file "
                       "arrived\n")))
        << pull.err().toStdString();
    EXPECT_TRUE(temporaries(folder.root()).isEmpty());
    const file_map_t local = context_tree_t::scan_local(folder.root());
    EXPECT_LT(local.size(), served.size());
    for (auto it = local.cbegin(); it != local.cend(); ++it)
        EXPECT_EQ(it.value(), served.value(it.key())) << it.key().toStdString();
}
