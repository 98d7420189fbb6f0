// Many installations on one broker: 20 servers, each with its own context root, topic base
// orvane/<installation_id> and broker user, share one mosquitto behind the per-installation ACL of
// docs/deployment.md, and every installation has its own two clients. Each installation's clients
// converge; a client of one installation can neither send another requests nor read its answers.
// The broker's and the servers' memory is reported idle and busy.

#include "installation_t.h"
#include "topic_watch_t.h"

#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <iostream>
#include <vector>

using namespace deployment;
using reliability::md5_hex;

namespace {

constexpr int kInstallations = 20;
constexpr qsizetype kFileSize = 1024000;

QString installation_id(int index)
{
    return QStringLiteral("%1").arg(0x5a000000 + index, 8, 16, QLatin1Char('0'));
}

// The shared ACL block of docs/deployment.md, cut in the server's part and a client's part.
bool shared_acl(QString& server_part, QString& client_part)
{
    const QString text = QString::fromUtf8(
        reliability::read_file(QStringLiteral(CONTEXT_SYNC_SOURCE_DIR "/docs/deployment.md")));
    const QRegularExpression block(QStringLiteral("```conf\\n(# orvane-shared\\.acl\\n.*?)```"),
        QRegularExpression::DotMatchesEverythingOption);
    const QString acl = block.match(text).captured(1);
    const qsizetype client = acl.indexOf(QLatin1String("# Each client USER"));
    if (acl.isEmpty() || client < 0)
        return false;
    server_part = acl.left(client);
    client_part = acl.mid(client);
    return true;
}

// Resets the peak resident size that VmHWM reports.
void reset_peak(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/clear_refs").arg(pid));
    if (file.open(QIODevice::WriteOnly))
        file.write("5");
}

class deployment_installations : public ::testing::Test {
protected:
    endpoint_t as(int index, const QString& user) const
    {
        endpoint_t at;
        at.port = broker_.port();
        at.topic_base = QStringLiteral("orvane/") + installation_id(index);
        at.username = user;
        at.password = user + QStringLiteral("-pw");
        return at;
    }
    static QString alice(int index) { return QStringLiteral("alice-") + installation_id(index); }
    static QString bob(int index) { return QStringLiteral("bob-") + installation_id(index); }
    static QString server_user(int index)
    {
        return installation_id(index) + QStringLiteral("-server");
    }

    struct memory_t {
        qint64 broker_kib = 0;
        qint64 servers_kib = 0;
        qint64 largest_server_kib = 0;
    };
    memory_t memory(const char* key)
    {
        memory_t figures;
        figures.broker_kib = proc_status_kib(broker_.pid(), key);
        for (const auto& installation : installations_) {
            const qint64 kib = proc_status_kib(installation->pid(), key);
            figures.servers_kib += kib;
            figures.largest_server_kib = std::max(figures.largest_server_kib, kib);
        }
        return figures;
    }
    void report(const char* what, const memory_t& figures)
    {
        std::cout << "memory " << what << ": broker " << figures.broker_kib << " KiB, "
                  << kInstallations << " servers " << figures.servers_kib << " KiB (largest "
                  << figures.largest_server_kib << " KiB)\n";
        RecordProperty(std::string(what) + "_broker_kib", int(figures.broker_kib));
        RecordProperty(std::string(what) + "_servers_kib", int(figures.servers_kib));
    }

    test_support::temp_tree_t dirs_;
    test_support::mosquitto_broker_t broker_;
    std::vector<std::unique_ptr<installation_t>> installations_;
};

} // namespace

TEST_F(deployment_installations, TwentyInstallationsShareOneBrokerApart)
{
    QString server_part;
    QString client_part;
    ASSERT_TRUE(shared_acl(server_part, client_part));
    QString acl;
    const QString passwd = broker_.work_dir() + QStringLiteral("/orvane.passwd");
    QStringList users;
    for (int i = 0; i < kInstallations; ++i) {
        acl += QString(server_part).replace(QLatin1String("INSTALLATION"), installation_id(i));
        users << server_user(i);
        for (const QString& user : { alice(i), bob(i) }) {
            acl += QString(client_part)
                       .replace(QLatin1String("INSTALLATION"), installation_id(i))
                       .replace(QLatin1String("USER"), user);
            users << user;
        }
    }
    {
        QFile file(broker_.work_dir() + QStringLiteral("/orvane.acl"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(acl.toUtf8());
    }
    {
        // One mosquitto_passwd run for all users: a file of "user:password" lines, hashed with -U.
        QFile file(passwd);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        for (const QString& user : users)
            file.write((user + QLatin1Char(':') + user + QStringLiteral("-pw\n")).toUtf8());
    }
    ASSERT_EQ(
        QProcess::execute(QStringLiteral("mosquitto_passwd"), { QStringLiteral("-U"), passwd }), 0);
    test_support::mosquitto_broker_t::config_t config;
    config.allow_anonymous = false;
    config.global = { QStringLiteral("per_listener_settings false"),
        QStringLiteral("password_file %1").arg(passwd),
        QStringLiteral("acl_file %1/orvane.acl").arg(broker_.work_dir()),
        QStringLiteral("set_tcp_nodelay true") };
    config.listener = { QStringLiteral("use_username_as_clientid true") };
    ASSERT_TRUE(broker_.start(config));

    for (int i = 0; i < kInstallations; ++i) {
        ASSERT_TRUE(dirs_.mkdir(installation_id(i)));
        installations_.push_back(
            std::make_unique<installation_t>(dirs_.path(installation_id(i)), installation_id(i)));
        ASSERT_TRUE(installations_.back()->start(as(i, server_user(i)), server_user(i)));
    }
    for (int i = 0; i < kInstallations; ++i) {
        ASSERT_TRUE(installations_.at(size_t(i))->wait_logged(
            QStringLiteral("MQTT connected to 127.0.0.1:%1 as %2")
                .arg(broker_.port())
                .arg(server_user(i)),
            4))
            << installations_.at(size_t(i))->output().toStdString();
    }
    reliability::wait_until([] { return false; }, 2000); // the servers' first scans settle
    report("idle", memory("VmRSS"));

    // Busy: every installation's alice pushes its own file, then every bob pulls it, all at once.
    reset_peak(broker_.pid());
    for (const auto& installation : installations_)
        reset_peak(installation->pid());
    std::vector<QByteArray> files;
    std::vector<std::unique_ptr<reliability::ctxsync_process_t>> runs;
    for (int i = 0; i < kInstallations; ++i) {
        files.push_back(padded_png(kFileSize, quint32(100 + i)));
        const QString name = QStringLiteral("upload/%1.png").arg(installation_id(i));
        ASSERT_TRUE(dirs_.write(name, files.back()));
        runs.push_back(std::make_unique<reliability::ctxsync_process_t>());
        ASSERT_TRUE(runs.back()->start(ctxsync_arguments(
            as(i, alice(i)), alice(i), { QStringLiteral("push"), dirs_.path(name) }, 30)));
    }
    for (int i = 0; i < kInstallations; ++i) {
        const run_t result = runs.at(size_t(i))->finish(120000);
        EXPECT_EQ(result.code, 0) << installation_id(i).toStdString() << result.err.toStdString();
    }
    runs.clear();
    for (int i = 0; i < kInstallations; ++i) {
        ASSERT_TRUE(dirs_.mkdir(QStringLiteral("pulled/") + installation_id(i)));
        runs.push_back(std::make_unique<reliability::ctxsync_process_t>());
        ASSERT_TRUE(runs.back()->start(ctxsync_arguments(as(i, bob(i)), bob(i),
            { QStringLiteral("pull"), dirs_.path(QStringLiteral("pulled/") + installation_id(i)) },
            30)));
    }
    for (int i = 0; i < kInstallations; ++i) {
        const run_t result = runs.at(size_t(i))->finish(120000);
        EXPECT_EQ(result.code, 0) << installation_id(i).toStdString() << result.err.toStdString();
    }
    runs.clear();
    report("busy_peak", memory("VmHWM"));

    // Every installation converged on its own file, and only on it.
    for (int i = 0; i < kInstallations; ++i) {
        const QString name = QStringLiteral("background/%1.png").arg(installation_id(i));
        const reliability::snapshot_t expected { { name, md5_hex(files.at(size_t(i))) } };
        EXPECT_EQ(installations_.at(size_t(i))->files(), expected)
            << installation_id(i).toStdString();
        EXPECT_EQ(reliability::snapshot(dirs_.path(QStringLiteral("pulled/") + installation_id(i))),
            expected);
    }

    // mallory, a client of installation 1, tries installation 0.
    const QString mallory = alice(1);
    endpoint_t intruder = as(1, mallory);
    intruder.topic_base = as(0, alice(0)).topic_base;
    const reliability::snapshot_t before = installations_.at(0)->files();
    // Its other client listens to installation 0 meanwhile (a user has one connection at a time:
    // the client id is the user name).
    const QString listener = bob(1);
    endpoint_t eavesdropper = as(1, listener);
    topic_watch_t eavesdrop;
    ASSERT_TRUE(eavesdrop.start(eavesdropper, listener,
        { intruder.topic(QStringLiteral("#")),
            intruder.topic(QStringLiteral("context_sync/res/") + alice(0)),
            as(1, listener).topic(QStringLiteral("context_sync/status")) }));
    // Requests into installation 0's tree under its own id, and under alice's of installation 0.
    run_t result = ctxsync(intruder, mallory,
        { QStringLiteral("rm"), QStringLiteral("background/%1.png").arg(installation_id(0)) }, 3);
    EXPECT_EQ(result.code, 4) << result.out.toStdString() << result.err.toStdString();
    EXPECT_TRUE(
        publish(intruder, mallory, intruder.topic(QStringLiteral("context_sync/req/") + alice(0)),
            R"({"type":"ctx_remove","payload":{"files":["background/x.png"]}})"));
    EXPECT_TRUE(broker_.log().contains(QStringLiteral("Denied PUBLISH from %1").arg(mallory)))
        << broker_.log().right(2000).toStdString();
    // Meanwhile alice of installation 0 gets her answers, and mallory none of them.
    result = ctxsync(as(0, alice(0)), alice(0), { QStringLiteral("list") });
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(installations_.at(0)->files(), before);
    // Installation 1's server dies: its Will comes to mallory after everything published before.
    installations_.at(1)->kill();
    EXPECT_TRUE(eavesdrop.wait_message(
        as(1, mallory).topic(QStringLiteral("context_sync/status offline"))));
    EXPECT_EQ(eavesdrop.messages(),
        (QStringList { as(1, mallory).topic(QStringLiteral("context_sync/status online")),
            as(1, mallory).topic(QStringLiteral("context_sync/status offline")) }))
        << eavesdrop.messages().join('\n').toStdString();
    for (const reliability::log_line_t& line : installations_.at(0)->logs())
        EXPECT_FALSE(line.message.contains(mallory)) << line.message.toStdString();
}
