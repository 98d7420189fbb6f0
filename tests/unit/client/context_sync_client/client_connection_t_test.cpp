#include "context_sync_client/client_connection_t.h"

#include "scripted_server_t.h"

#include "platform/comunication/config/mosquittocnf_t.h"

#include "common/mosquitto_broker_t.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

using context_sync_client::client_connection_t;

TEST(client_connection_t, OpenWithoutBrokerFailsWithTheAddressInTheError)
{
    client_connection_t::settings_t settings;
    settings.port = test_support::mosquitto_broker_t::free_port();
    client_connection_t connection(settings);
    QString error;
    EXPECT_FALSE(connection.open(500, &error));
    EXPECT_EQ(error,
        QStringLiteral("no MQTT broker accepted the connection at 127.0.0.1:%1 within 500 ms")
            .arg(settings.port));
    EXPECT_FALSE(connection.isConnected());
}

TEST(client_connection_t, InvalidClientIdIsRefusedBeforeConnecting)
{
    client_connection_t::settings_t settings;
    settings.client_id = QStringLiteral("bad/id");
    client_connection_t connection(settings);
    QString error;
    EXPECT_FALSE(connection.open(500, &error));
    EXPECT_EQ(error,
        QStringLiteral(
            "client id \"bad/id\" refused: use 1 to 64 characters of A-Z a-z 0-9 . _ -"));
}

TEST(client_connection_t, RandomClientIdsAreValidAndDistinct)
{
    const QString first = client_connection_t::random_client_id();
    const QString second = client_connection_t::random_client_id();
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral("^ctxsync-[0-9a-f]{8}$")).match(first).hasMatch());
    EXPECT_TRUE(comunication::config::mosquittocnf_t::isValidClientId(first));
    EXPECT_NE(first, second);
}

TEST(client_connection_t, RequestsCarryTheClientIdAndAnswersArriveWithTheirKind)
{
    test_support::mosquitto_broker_t broker;
    ASSERT_TRUE(broker.start());
    client_test::scripted_server_t server(broker);
    ASSERT_TRUE(server.start());
    server.react = [&server](const client_test::scripted_server_t::request_t& request) {
        server.respond(QStringLiteral("ctx_list"), request.origin,
            QJsonObject { { QStringLiteral("background/a.png"), QStringLiteral("00") } });
        server.respond(QStringLiteral("ctx_stop_transfer"), QStringLiteral("all"), {});
    };
    client_connection_t::settings_t settings;
    settings.host = broker.host();
    settings.port = broker.port();
    settings.client_id = QStringLiteral("client-one");
    client_connection_t connection(settings);
    ASSERT_TRUE(connection.open(10000));
    // The retained status of the service says it is there.
    EXPECT_TRUE(connection.wait_until(
        [&] { return connection.serviceStatus() == QLatin1String("online"); }, 5000));

    struct packet_t {
        QString type;
        QJsonObject payload;
        bool broadcast;
    };
    QList<packet_t> packets;
    QObject::connect(&connection, &client_connection_t::packet_received, &connection,
        [&packets](
            const QString& type, const QString&, const QJsonObject& payload, bool broadcast) {
            packets.append({ type, payload, broadcast });
        });
    connection.send(QStringLiteral("ctx_request"), {});
    ASSERT_TRUE(connection.wait_until([&] { return packets.size() == 2; }, 5000));
    ASSERT_EQ(server.requests.size(), 1);
    EXPECT_EQ(server.requests[0].origin, QStringLiteral("client-one"));
    EXPECT_EQ(server.requests[0].type, QStringLiteral("ctx_request"));
    EXPECT_EQ(packets[0].type, QStringLiteral("ctx_list"));
    EXPECT_FALSE(packets[0].broadcast);
    EXPECT_EQ(packets[0].payload.value(QStringLiteral("background/a.png")).toString(),
        QStringLiteral("00"));
    EXPECT_EQ(packets[1].type, QStringLiteral("ctx_stop_transfer"));
    EXPECT_TRUE(packets[1].broadcast);
}
