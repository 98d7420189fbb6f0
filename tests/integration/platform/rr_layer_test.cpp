// The rr layer against a real mosquitto: requests, answers, presence, broker failures.

#include "rr_test_support.h"

#include "platform/database/database_t.h"
#include "platform/database/rr/rr_base_t.h"

#include "common/log_capture_t.h"
#include "common/mosquitto_broker_t.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <sys/resource.h>

using comunication::protoserver_t;
using comunication::service::service_rr_base_t;
using comunication::service::service_rr_server_t;
using rr_test::client_t;
using rr_test::server_t;
using rr_test::settle;
using rr_test::wait_until;
using test_support::log_capture_t;
using test_support::mosquitto_broker_t;

namespace {

bool server_ready(client_t& client)
{
    return wait_until([&] { return client.statuses.contains(QStringLiteral("online")); });
}

QJsonObject sample_payload()
{
    return QJsonObject { { QStringLiteral("message"), QJsonArray { QStringLiteral("a/b.txt") } } };
}

} // namespace

TEST(service_rr_server_t, RequestReachesOnRequestWithOriginFromTopicAndWhoisSignal)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));

    // The descriptor is wired the way the sync service wires it: on_request -> whois.
    database::database_t db;
    database::rr::rr_base_t* rr = db.get_rr(QStringLiteral("context_sync"));
    ASSERT_NE(rr, nullptr);
    QList<std::pair<QString, QJsonObject>> updates;
    QObject context;
    QObject::connect(server.service(), &service_rr_server_t::on_request, &context,
        [rr](QString origin, QJsonObject body, QString) { rr->whois(origin, body); });
    QObject::connect(rr, &database::rr::rr_base_t::on_update_state, &context,
        [&updates](const QString& name, const QVariant& data, const QList<QString>&,
            const QMap<QString, QVariant>&) {
            updates.append({ name, data.toJsonObject() });
        });

    // A "sender" in the body claims to be bob; the topic says alice.
    QJsonObject body { { QStringLiteral("type"), QStringLiteral("ctx_download_request") },
        { QStringLiteral("sender"), QStringLiteral("bob") },
        { QStringLiteral("payload"), sample_payload() } };
    alice.service()->send_raw_request(QJsonDocument(body).toJson(QJsonDocument::Compact));

    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1 && updates.size() == 1; }));
    EXPECT_EQ(server.requests.at(0).origin, QStringLiteral("alice"));
    EXPECT_EQ(server.requests.at(0).service, QStringLiteral("context_sync"));
    EXPECT_EQ(server.requests.at(0).body, body);
    EXPECT_EQ(updates.at(0).first, QStringLiteral("ctx_download_request"));
    EXPECT_EQ(updates.at(0).second,
        (QJsonObject { { QStringLiteral("sender"), QStringLiteral("alice") },
            { QStringLiteral("payload"), sample_payload() } }));
}

TEST(service_rr_server_t, AnswerReachesExactlyOneClientOrAll)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    client_t bob(rr_test::settings(broker, QStringLiteral("bob")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(bob.wait_ready());
    ASSERT_TRUE(server_ready(alice));

    const QJsonObject list { { QStringLiteral("a.txt"), QStringLiteral("0123") } };
    // From another thread on purpose: pool workers call it directly.
    server.service()->response_to_service(
        QStringLiteral("ctx_list"), QStringLiteral("alice"), list, QString());
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 1; }));
    EXPECT_EQ(alice.responses.at(0).type, QStringLiteral("ctx_list"));
    EXPECT_EQ(alice.responses.at(0).subtype, QString());
    EXPECT_EQ(alice.responses.at(0).payload, list);
    EXPECT_FALSE(alice.responses.at(0).broadcast);

    server.service()->response_to_service(QStringLiteral("state_of_service"), QStringLiteral("all"),
        QJsonObject { { QStringLiteral("context_hash"), "ab" } }, QStringLiteral("ready_to_check"));
    ASSERT_TRUE(
        wait_until([&] { return alice.responses.size() == 2 && bob.responses.size() == 1; }));
    // The broadcast went out after the answer to alice; bob got only the broadcast.
    for (const rr_test::response_t& response : { alice.responses.at(1), bob.responses.at(0) }) {
        EXPECT_EQ(response.type, QStringLiteral("state_of_service"));
        EXPECT_EQ(response.subtype, QStringLiteral("ready_to_check"));
        EXPECT_EQ(response.payload.value(QStringLiteral("context_hash")), QStringLiteral("ab"));
        EXPECT_TRUE(response.broadcast);
    }
    settle(100);
    EXPECT_EQ(bob.responses.size(), 1);
}

TEST(service_rr_server_t, SevenHundredKilobyteAnswerArrivesIntact)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());

    QByteArray raw(525 * 1024, Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32*>(raw.data()), raw.size() / 4);
    const QString data = QString::fromLatin1(raw.toBase64());
    ASSERT_GE(data.size(), 700 * 1024);
    const QJsonObject chunk { { QStringLiteral("file"), QStringLiteral("big.bin") },
        { QStringLiteral("data"), data } };
    server.service()->response_to_service(
        QStringLiteral("ctx_chunk"), QStringLiteral("alice"), chunk, QString());
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 1; }, 10000));
    EXPECT_EQ(alice.responses.at(0).payload.value(QStringLiteral("data")).toString(), data);
    EXPECT_EQ(alice.responses.at(0).payload, chunk);
}

TEST(service_rr_server_t, InvalidDestinationIsRefusedWithALogLine)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    server.service()->response_to_service(
        QStringLiteral("ctx_list"), QStringLiteral("+"), QJsonObject(), QString());
    EXPECT_TRUE(logs.contains(
        QStringLiteral("[context_sync] Answer ctx_list refused: \"+\" is not a valid client id"),
        3));
    settle(100);
    EXPECT_TRUE(alice.responses.isEmpty());
}

TEST(service_rr_server_t, BadRequestsAreLoggedAndIgnoredAndTheConnectionStaysUp)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    comunication::config::mosquittocnf_t cnf
        = rr_test::settings(broker, QStringLiteral("context-sync-server"));
    cnf.setMaxRequestBytes(4096);
    server_t server(cnf);
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));

    const QString prefix = QStringLiteral("[context_sync] Request from client alice refused: ");
    const QByteArray oversize = QByteArray("{\"type\": \"ctx_request\", \"payload\": {\"x\": \"")
        + QByteArray(5000, 'x') + QByteArray("\"}}");
    const QList<std::pair<QByteArray, QString>> cases {
        { QByteArrayLiteral("not json at all"), QStringLiteral("body is not JSON") },
        { QByteArrayLiteral("{\"type\": \"ctx_request\""), QStringLiteral("body is not JSON") },
        { QByteArrayLiteral("[{\"type\": \"ctx_request\"}]"),
            QStringLiteral("body is not a JSON object") },
        { QByteArrayLiteral("{\"payload\": {}}"),
            QStringLiteral("\"type\" is missing or not a string") },
        { QByteArrayLiteral("{\"type\": 3, \"payload\": {}}"),
            QStringLiteral("\"type\" is missing or not a string") },
        { QByteArrayLiteral("{\"type\": null}"),
            QStringLiteral("\"type\" is missing or not a string") },
        { QByteArray(), QStringLiteral("empty body") },
        { oversize,
            QStringLiteral("body of %1 bytes exceeds the limit of 4096 bytes")
                .arg(oversize.size()) },
    };
    for (const auto& [body, reason] : cases)
        alice.service()->send_raw_request(body);
    // A good request last: when it arrives, every bad one before it has been handled.
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    EXPECT_EQ(
        server.requests.at(0).body.value(QStringLiteral("type")), QStringLiteral("ctx_request"));
    for (const auto& [body, reason] : cases)
        EXPECT_TRUE(logs.contains(prefix + reason, 3)) << reason.toStdString();
    EXPECT_EQ(logs.count(prefix + QStringLiteral("body is not JSON"), 3), 2);
    EXPECT_TRUE(server.proto().isConnected());
    EXPECT_TRUE(alice.proto().isConnected());
    EXPECT_EQ(server.proto().connectAttempts(), 1);
}

TEST(service_rr_server_t, MalformedOriginsAreLoggedAndIgnored)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));

    const QString base = QStringLiteral("orvane/rr/context_sync/req");
    const QByteArray body = QByteArrayLiteral("{\"type\":\"ctx_request\",\"payload\":{}}");
    const QString long_id(65, QLatin1Char('x'));
    // Through the broker: extra levels, an empty level, a bad character, a 65-character id.
    for (const QString& topic :
        { base + "/eve/extra", base + "/", base, base + "/e%20v", base + "/" + long_id }) {
        QProcess pub;
        pub.start(QStringLiteral("mosquitto_pub"),
            { "-h", broker.host(), "-p", QString::number(broker.port()), "-q", "1", "-t", topic,
                "-m", QString::fromUtf8(body) });
        ASSERT_TRUE(pub.waitForFinished(5000));
        EXPECT_EQ(pub.exitCode(), 0) << topic.toStdString();
    }
    // Wildcards never get through a broker (publishing to them is a protocol error), so they are
    // handed to the service's receive path directly, on its thread.
    QMetaObject::invokeMethod(
        &server.proto(),
        [&] {
            server.service()->receive(base + "/+", body);
            server.service()->receive(base + "/#", body);
            server.service()->receive(base + "/a+b", body);
        },
        Qt::BlockingQueuedConnection);
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    ASSERT_TRUE(logs.wait_for(QStringLiteral("[context_sync] Request on topic %1 refused: \"%2\" "
                                             "is not a valid client id")
                                  .arg(base + "/" + long_id, long_id),
        3));
    EXPECT_EQ(server.requests.at(0).origin, QStringLiteral("alice"));
    for (const auto& [topic, origin] :
        QList<std::pair<QString, QString>> { { base + "/eve/extra", "eve/extra" },
            { base + "/", "" }, { base, "" }, { base + "/e%20v", "e%20v" }, { base + "/+", "+" },
            { base + "/#", "#" }, { base + "/a+b", "a+b" } }) {
        EXPECT_TRUE(logs.contains(QStringLiteral("[context_sync] Request on topic %1 refused: "
                                                 "\"%2\" is not a valid client id")
                                      .arg(topic, origin),
            3))
            << topic.toStdString();
    }
    EXPECT_TRUE(server.proto().isConnected());
}

TEST(service_rr_server_t, WillOfALostClientEmitsOnDisconnectionAndCleanLeaveEmitsOnEnd)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    {
        client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
        ASSERT_TRUE(alice.wait_ready());
        ASSERT_TRUE(server_ready(alice));
    }
    // alice stopped cleanly: presence "offline", no Will.
    ASSERT_TRUE(wait_until([&] { return server.ends == QStringList { QStringLiteral("alice") }; }));

    // carol is a separate process that dies without a goodbye; the broker sends her Will.
    QProcess carol;
    carol.start(QStringLiteral("mosquitto_sub"),
        { "-h", broker.host(), "-p", QString::number(broker.port()), "-i", "carol", "-t",
            "orvane/rr/context_sync/res/carol", "--will-topic", "orvane/rr/presence/carol",
            "--will-payload", "lost", "--will-qos", "1" });
    ASSERT_TRUE(carol.waitForStarted(5000));
    ASSERT_TRUE(wait_until([&] { return broker.log().contains("as carol"); }));
    carol.kill();
    carol.waitForFinished(5000);
    ASSERT_TRUE(wait_until([&] {
        return server.disconnections == QStringList { QStringLiteral("carol") };
    })) << server.disconnections.join(',').toStdString()
        << "\n"
        << broker.log().toStdString();
    EXPECT_EQ(server.ends, QStringList { QStringLiteral("alice") });
}

TEST(service_rr_client_t, ConnectionLossPublishesTheClientWill)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t dave(rr_test::settings(broker, QStringLiteral("dave")));
    ASSERT_TRUE(dave.wait_ready());
    ASSERT_TRUE(server_ready(dave));
    // A second connection under the same id makes the broker drop the first one without a
    // DISCONNECT from it, which is how a lost link looks to the broker: the Will goes out.
    QProcess usurper;
    usurper.start(QStringLiteral("mosquitto_sub"),
        { "-h", broker.host(), "-p", QString::number(broker.port()), "-i", "dave", "-t",
            "unrelated" });
    ASSERT_TRUE(usurper.waitForStarted(5000));
    ASSERT_TRUE(wait_until([&] { return server.disconnections.contains(QStringLiteral("dave")); }));
    usurper.kill();
    usurper.waitForFinished(5000);
}

TEST(protoserver_t, BrokerKilledAndRestartedServiceReconnectsResubscribesAndKeepsServing)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    // Persistence lets alice's session (subscriptions, queued QoS 1 messages) survive the kill,
    // as on a production broker.
    mosquitto_broker_t::config_t config;
    config.global = { QStringLiteral("persistence true"),
        QStringLiteral("persistence_location %1/").arg(broker.work_dir()),
        QStringLiteral("autosave_interval 1"), QStringLiteral("autosave_on_changes true") };
    ASSERT_TRUE(broker.start(config));
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    comunication::config::mosquittocnf_t alice_cnf = rr_test::settings(broker, "alice");
    alice_cnf.setProtocolVersion(comunication::config::mosquittocnf_t::protocol_v311);
    alice_cnf.setCleanSession(false);
    client_t alice(alice_cnf);
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    // The kill must come after the broker has saved alice's subscriptions.
    ASSERT_TRUE(wait_until([&] {
        const QString log = broker.log();
        const int subscribed = log.lastIndexOf(QStringLiteral("Sending SUBACK to alice"));
        return subscribed >= 0
            && log.indexOf(QStringLiteral("Saving in-memory database"), subscribed) >= 0;
    }));

    broker.kill();
    ASSERT_TRUE(wait_until([&] { return !server.proto().isConnected(); }));
    ASSERT_TRUE(wait_until(
        [&] { return server.service()->getState() == service_rr_base_t::reconnecting; }));
    // Answers published during the outage.
    for (int i = 0; i < 3; ++i) {
        server.service()->response_to_service(QStringLiteral("ctx_list"), QStringLiteral("alice"),
            QJsonObject { { QStringLiteral("n"), i } }, QString());
    }
    settle(300);
    EXPECT_TRUE(alice.responses.isEmpty());

    ASSERT_TRUE(broker.restart());
    ASSERT_TRUE(wait_until([&] { return server.proto().isConnected(); }, 10000));
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 3; }, 10000));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(alice.responses.at(i).payload.value(QStringLiteral("n")).toInt(), i);

    // Re-subscribed: a new request is served.
    ASSERT_TRUE(wait_until([&] { return alice.proto().isConnected(); }, 10000));
    alice.service()->send_request(QStringLiteral("ctx_delete_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 2; }, 10000));
    EXPECT_EQ(server.requests.at(1).body.value(QStringLiteral("type")),
        QStringLiteral("ctx_delete_request"));
    server.service()->response_to_service(QStringLiteral("ctx_list"), QStringLiteral("alice"),
        QJsonObject { { QStringLiteral("n"), 3 } }, QString());
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 4; }));

    EXPECT_TRUE(logs.contains_fragment(
        QStringLiteral("MQTT connection to 127.0.0.1:%1 lost: ").arg(broker.port()), 2));
    EXPECT_GE(logs.count(QStringLiteral("MQTT connected to 127.0.0.1:%1 as context-sync-server")
                             .arg(broker.port()),
                  4),
        2);
    // connecting -> running -> reconnecting -> running
    ASSERT_GE(server.states.size(), 4);
    EXPECT_EQ(server.states.mid(0, 4),
        (QList<int> { service_rr_base_t::connecting, service_rr_base_t::running,
            service_rr_base_t::reconnecting, service_rr_base_t::running }));
}

TEST(protoserver_t, PublishWithoutAcknowledgementTimesOut)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker, "context-sync-server");
    cnf.setPublishTimeoutMs(300);
    server_t server(cnf);
    ASSERT_TRUE(wait_until([&] { return server.proto().isConnected(); }));
    // The broker must have taken the server's "online" status (a subscriber sees it only after
    // the broker has acknowledged it) before it dies: on a slow run the kill could otherwise
    // come first, and that publication would time out as well.
    client_t observer(rr_test::settings(broker, QStringLiteral("observer")));
    ASSERT_TRUE(observer.wait_ready());
    ASSERT_TRUE(server_ready(observer));
    broker.kill();
    ASSERT_TRUE(wait_until([&] { return !server.proto().isConnected(); }));
    server.service()->response_to_service(
        QStringLiteral("ctx_list"), QStringLiteral("all"), QJsonObject(), QString());
    ASSERT_TRUE(wait_until([&] { return !server.timeouts_publish.isEmpty(); }, 3000));
    EXPECT_EQ(
        server.timeouts_publish, QStringList { QStringLiteral("orvane/rr/context_sync/bcast") });
    EXPECT_TRUE(logs.contains(
        QStringLiteral("MQTT publish to orvane/rr/context_sync/bcast not acknowledged in time"),
        3));
}

TEST(service_rr_client_t, RequestWithoutAnswerTimesOut)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker, "erin");
    cnf.setResponseTimeoutMs(300);
    client_t erin(cnf);
    ASSERT_TRUE(erin.wait_ready());
    erin.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return !erin.timeouts_response.isEmpty(); }, 3000));
    EXPECT_EQ(
        erin.timeouts_response, QStringList { QStringLiteral("orvane/rr/context_sync/req/erin") });
}

TEST(protoserver_t, InvalidOwnClientIdIsRefusedAndNeverConnects)
{
    log_capture_t logs;
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("bad id/1")));
    ASSERT_TRUE(logs.wait_for(QStringLiteral("MQTT client id \"bad id/1\" refused: it must be 1 to "
                                             "64 characters of A-Z a-z 0-9 . _ -"),
        2));
    settle(200);
    EXPECT_FALSE(server.proto().isConnected());
    EXPECT_EQ(server.proto().connectAttempts(), 0);
}

TEST(protoserver_t, UnreachableBrokerIsRetriedWithBackOffWithoutSpinning)
{
    log_capture_t logs;
    comunication::config::mosquittocnf_t cnf(QStringLiteral("127.0.0.1"),
        mosquitto_broker_t::free_port(), QStringLiteral("context-sync-server"));
    cnf.setReconnectDelays(100, 400);
    rusage before {};
    getrusage(RUSAGE_SELF, &before);
    server_t server(cnf);
    settle(1500);
    rusage after {};
    getrusage(RUSAGE_SELF, &after);
    // 0, 100, 300, 700, 1100, 1500 ms: about six attempts, never hundreds.
    EXPECT_GE(server.proto().connectAttempts(), 3);
    EXPECT_LE(server.proto().connectAttempts(), 8);
    EXPECT_FALSE(server.proto().isConnected());
    EXPECT_TRUE(logs.contains_fragment(
        QStringLiteral("MQTT connection to 127.0.0.1:%1 failed: ").arg(cnf.getPort()), 2));
    const auto cpu_ms = [](const rusage& r) {
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000
            + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1000;
    };
    EXPECT_LT(cpu_ms(after) - cpu_ms(before), 700);
}

TEST(service_rr_server_t, StopEndsServingAndMarksTheStatusOfflineAndStartResumes)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")));
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));

    server.service()->stop();
    ASSERT_TRUE(wait_until([&] { return alice.statuses.contains(QStringLiteral("offline")); }));
    EXPECT_EQ(server.service()->getState(), service_rr_base_t::stopped);
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    settle(300);
    EXPECT_TRUE(server.requests.isEmpty());
    // Stopping twice is harmless.
    server.service()->stop();

    server.service()->start(service_rr_base_t::finish_on_stop);
    ASSERT_TRUE(wait_until([&] { return alice.statuses.endsWith(QStringLiteral("online")); }));
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    EXPECT_EQ(server.states,
        (QList<int> { service_rr_base_t::connecting, service_rr_base_t::running,
            service_rr_base_t::stopped, service_rr_base_t::running }));
}

TEST(service_rr_server_t, FinishAfterRequestStopsAfterTheFirstRequest)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    server_t server(rr_test::settings(broker, QStringLiteral("context-sync-server")), false);
    server.service()->start(service_rr_base_t::finish_after_request);
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));
    alice.service()->send_request(QStringLiteral("ctx_request"), QJsonObject());
    alice.service()->send_request(QStringLiteral("ctx_list"), QJsonObject());
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    ASSERT_TRUE(
        wait_until([&] { return server.service()->getState() == service_rr_base_t::stopped; }));
    settle(200);
    EXPECT_EQ(server.requests.size(), 1);
}

TEST(service_rr_server_t, LostServerConnectionTurnsTheStatusOfflineThroughItsWill)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    comunication::config::mosquittocnf_t cnf = rr_test::settings(broker, "context-sync-server");
    cnf.setReconnectDelays(2000, 2000);
    server_t server(cnf);
    client_t alice(rr_test::settings(broker, QStringLiteral("alice")));
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));
    // Another connection under the server's id makes the broker drop the server's connection
    // without a DISCONNECT: the Will marks the service offline.
    QProcess usurper;
    usurper.start(QStringLiteral("mosquitto_sub"),
        { "-h", broker.host(), "-p", QString::number(broker.port()), "-i", "context-sync-server",
            "-t", "unrelated" });
    ASSERT_TRUE(usurper.waitForStarted(5000));
    ASSERT_TRUE(wait_until([&] { return alice.statuses.contains(QStringLiteral("offline")); }));
    usurper.kill();
    usurper.waitForFinished(5000);
    // The server comes back after its back-off and says so.
    ASSERT_TRUE(
        wait_until([&] { return alice.statuses.endsWith(QStringLiteral("online")); }, 6000));
    EXPECT_EQ(alice.statuses,
        (QStringList {
            QStringLiteral("online"), QStringLiteral("offline"), QStringLiteral("online") }));
}

TEST(protoserver_t, Mqtt311ConnectionsServeLikeMqtt5Ones)
{
    mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    comunication::config::mosquittocnf_t server_cnf
        = rr_test::settings(broker, "context-sync-server");
    server_cnf.setProtocolVersion(comunication::config::mosquittocnf_t::protocol_v311);
    server_t server(server_cnf);
    comunication::config::mosquittocnf_t alice_cnf = rr_test::settings(broker, "alice");
    alice_cnf.setProtocolVersion(comunication::config::mosquittocnf_t::protocol_v311);
    client_t alice(alice_cnf);
    ASSERT_TRUE(alice.wait_ready());
    ASSERT_TRUE(server_ready(alice));
    EXPECT_TRUE(broker.log().contains(QStringLiteral("as context-sync-server (p2,")));
    EXPECT_TRUE(broker.log().contains(QStringLiteral("as alice (p2,")));
    alice.service()->send_request(QStringLiteral("ready_to_check"),
        QJsonObject { { QStringLiteral("message"),
            QJsonObject { { QStringLiteral("context_hash"), QStringLiteral("ff") } } } });
    ASSERT_TRUE(wait_until([&] { return server.requests.size() == 1; }));
    EXPECT_EQ(server.requests.at(0).origin, QStringLiteral("alice"));
    server.service()->response_to_service(QStringLiteral("ready_to_check"), QStringLiteral("alice"),
        QJsonObject { { QStringLiteral("context_hash"), "00" } }, QString());
    ASSERT_TRUE(wait_until([&] { return alice.responses.size() == 1; }));
    EXPECT_EQ(alice.responses.at(0).type, QStringLiteral("ready_to_check"));
}

TEST(protoserver_t, SubscriptionWithoutAcknowledgementTimesOut)
{
    // A peer that accepts the connection (CONNACK) and then answers nothing: no real broker
    // withholds a SUBACK, so the test plays that part with a bare TCP server.
    QTcpServer peer;
    ASSERT_TRUE(peer.listen(QHostAddress::LocalHost, 0));
    QList<QTcpSocket*> sockets;
    QObject::connect(&peer, &QTcpServer::newConnection, &peer, [&] {
        QTcpSocket* socket = peer.nextPendingConnection();
        sockets.append(socket);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket] {
            const QByteArray data = socket->readAll();
            if (!data.isEmpty() && (quint8(data.at(0)) & 0xF0) == 0x10)
                socket->write(QByteArray::fromHex("20020000")); // CONNACK, accepted
        });
    });

    log_capture_t logs;
    comunication::config::mosquittocnf_t cnf(
        QStringLiteral("127.0.0.1"), peer.serverPort(), QStringLiteral("context-sync-server"));
    cnf.setProtocolVersion(comunication::config::mosquittocnf_t::protocol_v311);
    cnf.setSubscribeTimeoutMs(300);
    server_t server(cnf, false);
    QStringList timeouts;
    QObject context;
    QObject::connect(server.service(), &service_rr_base_t::on_timeout_subscribe, &context,
        [&timeouts](QString topic) { timeouts.append(topic); });
    server.service()->start(service_rr_base_t::finish_on_stop);
    ASSERT_TRUE(wait_until([&] { return timeouts.size() == 2; }, 3000));
    timeouts.sort();
    EXPECT_EQ(timeouts,
        (QStringList { QStringLiteral("orvane/rr/context_sync/req/#"),
            QStringLiteral("orvane/rr/presence/+") }));
    EXPECT_TRUE(logs.contains(
        QStringLiteral(
            "MQTT subscription to orvane/rr/context_sync/req/# not acknowledged in time"),
        3));
    EXPECT_TRUE(server.proto().isConnected());
}
