// The rr layer behind an access-controlled broker (the ACL of docs/deployment.md) and over TLS
// with a CA that the test generates.

#include "rr_test_support.h"

#include "common/log_capture_t.h"
#include "common/mosquitto_broker_t.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <sys/resource.h>

using rr_test::client_t;
using rr_test::server_t;
using rr_test::settle;
using rr_test::wait_until;
using test_support::log_capture_t;
using test_support::mosquitto_broker_t;

namespace {

bool run(const QString& program, const QStringList& arguments, const QString& dir = QString())
{
    QProcess process;
    if (!dir.isEmpty())
        process.setWorkingDirectory(dir);
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        return false;
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

// The ACL block of docs/deployment.md, the one that starts with "# orvane.acl".
QString deployment_acl()
{
    QFile file(QStringLiteral(CONTEXT_SYNC_SOURCE_DIR "/docs/deployment.md"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QString text = QString::fromUtf8(file.readAll());
    const QRegularExpression block(QStringLiteral("```conf\\n(# orvane\\.acl\\n.*?)```"),
        QRegularExpression::DotMatchesEverythingOption);
    return block.match(text).captured(1);
}

struct acl_broker_t {
    mosquitto_broker_t broker;
    bool ok = false;

    acl_broker_t()
    {
        const QString acl = deployment_acl();
        if (acl.isEmpty())
            return;
        const QString dir = broker.work_dir();
        QFile acl_file(dir + QStringLiteral("/orvane.acl"));
        if (!acl_file.open(QIODevice::WriteOnly))
            return;
        acl_file.write(acl.toUtf8());
        acl_file.close();
        const QString passwd = dir + QStringLiteral("/orvane.passwd");
        if (!run("mosquitto_passwd", { "-c", "-b", passwd, "context-sync-server", "server-pw" })
            || !run("mosquitto_passwd", { "-b", passwd, "alice", "alice-pw" })
            || !run("mosquitto_passwd", { "-b", passwd, "bob", "bob-pw" })
            || !run("mosquitto_passwd", { "-b", passwd, "mallory", "mallory-pw" }))
            return;
        mosquitto_broker_t::config_t config;
        config.allow_anonymous = false;
        config.global = { QStringLiteral("per_listener_settings false"),
            QStringLiteral("password_file %1").arg(passwd),
            QStringLiteral("acl_file %1/orvane.acl").arg(dir) };
        config.listener = { QStringLiteral("use_username_as_clientid true") };
        ok = broker.start(config);
    }
};

comunication::config::mosquittocnf_t user_settings(const mosquitto_broker_t& broker,
    const QString& client_id, const QString& user, const QString& password)
{
    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker, client_id);
    cnf.setCredentials(user, password);
    return cnf;
}

} // namespace

TEST(deployment_acl, DocumentHasTheAclBlock)
{
    const QString acl = deployment_acl();
    EXPECT_TRUE(acl.contains(QStringLiteral("pattern write orvane/rr/+/req/%c")));
    EXPECT_TRUE(acl.contains(QStringLiteral("pattern read orvane/rr/+/res/%c")));
}

TEST(deployment_acl, ClientCannotPublishARequestUnderAnotherClientsId)
{
    log_capture_t logs;
    acl_broker_t setup;
    ASSERT_TRUE(setup.ok) << setup.broker.log().toStdString();
    mosquitto_broker_t& broker = setup.broker;
    server_t server(
        user_settings(broker, "context-sync-server", "context-sync-server", "server-pw"));
    client_t bob(user_settings(broker, "bob", "bob", "bob-pw"));
    // mallory logs in as herself but claims the client id "bob"; the broker renames her to
    // mallory, so requests to req/bob are not hers to write and bob's answers not hers to read.
    client_t mallory(user_settings(broker, "bob", "mallory", "mallory-pw"));
    client_t alice(user_settings(broker, "alice", "alice", "alice-pw"));
    ASSERT_TRUE(wait_until([&] {
        return bob.statuses.contains("online") && alice.statuses.contains("online")
            && mallory.statuses.contains("online");
    })) << broker.log().toStdString();
    EXPECT_TRUE(broker.log().contains(QStringLiteral("as mallory (p5, c1, k5, u'mallory')")));

    mallory.service()->send_request(QStringLiteral("ctx_delete_request"), QJsonObject());
    // The honest requests come after it, from alice and bob; when both have arrived, the forged
    // one has been dealt with by the broker.
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    bob.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 2; }));
    settle(200);
    ASSERT_EQ(server.requests.size(), 2);
    QStringList origins { server.requests.at(0).origin, server.requests.at(1).origin };
    origins.sort();
    EXPECT_EQ(origins, (QStringList { "alice", "bob" }));
    for (const rr_test::request_t& request : server.requests)
        EXPECT_EQ(request.body.value("type").toString(), QStringLiteral("ctx_request"));
    const QStringList denied
        = broker.log().split('\n').filter(QStringLiteral("Denied PUBLISH from mallory"));
    EXPECT_EQ(denied.filter(QStringLiteral("'orvane/rr/context_sync/req/bob'")).size(), 1)
        << broker.log().toStdString();

    // The MQTT 5 PUBACK tells the forging client why its request went nowhere.
    EXPECT_TRUE(logs.wait_for(QStringLiteral("MQTT publish to orvane/rr/context_sync/req/bob "
                                             "refused by the broker: Not authorized"),
        2));

    // bob's answer reaches bob and not the client that claimed his id.
    server.service()->response_to_service(QStringLiteral("ctx_list"), QStringLiteral("bob"),
        QJsonObject { { "a.txt", "00" } }, QString());
    ASSERT_TRUE(wait_until([&] { return bob.responses.size() == 1; }));
    settle(200);
    EXPECT_TRUE(mallory.responses.isEmpty());
}

TEST(deployment_acl, WrongPasswordIsRefusedAndRetriedWithoutSpinning)
{
    log_capture_t logs;
    acl_broker_t setup;
    ASSERT_TRUE(setup.ok);
    comunication::config::mosquittocnf_t cnf
        = user_settings(setup.broker, "alice", "alice", "wrong");
    cnf.setReconnectDelays(100, 400);
    client_t alice(cnf);
    ASSERT_TRUE(logs.wait_for(QStringLiteral("MQTT connection to 127.0.0.1:%1 refused: %2")
                                  .arg(setup.broker.port())
                                  .arg(QStringLiteral("Not authorized")),
        2, std::chrono::seconds(5)))
        << logs.messages(2).join('\n').toStdString();
    settle(1000);
    EXPECT_FALSE(alice.proto().isConnected());
    EXPECT_LE(alice.proto().connectAttempts(), 8);
    // The refusal is reported once per attempt, with its reason, and not again as a failure.
    EXPECT_FALSE(logs.contains_fragment(
        QStringLiteral("MQTT connection to 127.0.0.1:%1 failed: ").arg(setup.broker.port())));
}

namespace {

struct tls_files_t {
    QString dir;
    bool ok = false;

    explicit tls_files_t(const QString& where)
        : dir(where)
    {
        const QString openssl = QStringLiteral("openssl");
        const QStringList ec { "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-nodes" };
        QFile san(dir + "/san.ext");
        if (!san.open(QIODevice::WriteOnly))
            return;
        san.write("subjectAltName=IP:127.0.0.1\n");
        san.close();
        ok = run(openssl,
                 QStringList { "req", "-x509" } + ec
                     + QStringList { "-keyout", "ca.key", "-out", "ca.crt", "-days", "1", "-subj",
                         "/CN=test CA" },
                 dir)
            && run(openssl,
                QStringList { "req", "-x509" } + ec
                    + QStringList { "-keyout", "other.key", "-out", "other.crt", "-days", "1",
                        "-subj", "/CN=other CA" },
                dir)
            && run(openssl,
                QStringList { "req" } + ec
                    + QStringList { "-keyout", "server.key", "-out", "server.csr", "-subj",
                        "/CN=127.0.0.1" },
                dir)
            && run(openssl,
                { "x509", "-req", "-in", "server.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
                    "-CAcreateserial", "-out", "server.crt", "-days", "1", "-extfile", "san.ext" },
                dir);
    }
};

bool start_tls_broker(mosquitto_broker_t& broker, const tls_files_t& files)
{
    mosquitto_broker_t::config_t config;
    config.listener = { QStringLiteral("cafile %1/ca.crt").arg(files.dir),
        QStringLiteral("certfile %1/server.crt").arg(files.dir),
        QStringLiteral("keyfile %1/server.key").arg(files.dir) };
    return broker.start(config);
}

} // namespace

TEST(protoserver_t, TlsWithTheTestCaConnectsAndServes)
{
    mosquitto_broker_t broker;
    tls_files_t files(broker.work_dir());
    ASSERT_TRUE(files.ok);
    ASSERT_TRUE(start_tls_broker(broker, files)) << broker.log().toStdString();

    comunication::config::mosquittocnf_t server_cnf
        = rr_test::settings(broker, "context-sync-server");
    server_cnf.setTls(files.dir + "/ca.crt");
    server_t server(server_cnf);
    comunication::config::mosquittocnf_t alice_cnf = rr_test::settings(broker, "alice");
    alice_cnf.setTls(files.dir + "/ca.crt");
    client_t alice(alice_cnf);
    ASSERT_TRUE(alice.wait_ready()) << broker.log().toStdString();
    ASSERT_TRUE(wait_until([&] { return alice.statuses.contains("online"); }));

    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    EXPECT_EQ(server.requests.at(0).origin, QStringLiteral("alice"));
    server.service()->response_to_service(QStringLiteral("ctx_list"), QStringLiteral("alice"),
        QJsonObject { { "a.txt", "00" } }, QString());
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 1; }));
    EXPECT_EQ(alice.responses.at(0).payload, (QJsonObject { { "a.txt", "00" } }));
    EXPECT_EQ(server.proto().connectAttempts(), 1);
}

TEST(protoserver_t, TlsWithAWrongCaFailsCleanlyWithoutSpinning)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    tls_files_t files(broker.work_dir());
    ASSERT_TRUE(files.ok);
    ASSERT_TRUE(start_tls_broker(broker, files));

    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker, "context-sync-server");
    cnf.setTls(files.dir + "/other.crt");
    cnf.setReconnectDelays(100, 400);
    rusage before {};
    getrusage(RUSAGE_SELF, &before);
    server_t server(cnf);
    settle(1500);
    rusage after {};
    getrusage(RUSAGE_SELF, &after);

    EXPECT_FALSE(server.proto().isConnected());
    EXPECT_GE(server.proto().connectAttempts(), 2);
    EXPECT_LE(server.proto().connectAttempts(), 8);
    EXPECT_TRUE(logs.contains_fragment(
        QStringLiteral("MQTT connection to 127.0.0.1:%1 failed: ").arg(broker.port()), 2))
        << logs.messages(2).join('\n').toStdString();
    const auto cpu_ms = [](const rusage& r) {
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000
            + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1000;
    };
    EXPECT_LT(cpu_ms(after) - cpu_ms(before), 700);
    EXPECT_EQ(server.service()->getState(), comunication::service::service_rr_base_t::connecting);
}
