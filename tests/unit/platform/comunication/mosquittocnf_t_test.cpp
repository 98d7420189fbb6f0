#include "platform/comunication/config/mosquittocnf_t.h"

#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

using comunication::config::mosquittocnf_t;

TEST(mosquittocnf_t, DefaultsMatchTheDocumentedOnes)
{
    const mosquittocnf_t cnf;
    EXPECT_EQ(cnf.getHost(), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(cnf.getPort(), 1883);
    EXPECT_EQ(cnf.getClientId(), QStringLiteral("context-sync-server"));
    EXPECT_EQ(cnf.getProtocolVersion(), 5);
    EXPECT_EQ(cnf.getKeepalive(), 30);
    EXPECT_EQ(cnf.getTopicBase(), QStringLiteral("orvane"));
    EXPECT_FALSE(cnf.isTls());
    EXPECT_TRUE(cnf.getUsername().isEmpty());
    EXPECT_EQ(cnf.getPublishTimeoutMs(), 10000);
    EXPECT_EQ(cnf.getSubscribeTimeoutMs(), 10000);
}

TEST(mosquittocnf_t, ReadsEveryMemberFromTheClientFolder)
{
    test_support::temp_tree_t tree;
    const QJsonObject document { { "global", QJsonObject { { "installation_id", "0123abcd" } } },
        { "mqtt",
            QJsonObject { { "host", "10.0.0.7" }, { "port", 8883 }, { "client_id", "srv-1" },
                { "username", "srv" }, { "password", "secret" }, { "protocol_version", "3.1.1" },
                { "keepalive", 12 }, { "topic_base", "orvane/0123abcd" },
                { "tls",
                    QJsonObject { { "ca_file", "/etc/ca.pem" }, { "cert_file", "/etc/c.pem" },
                        { "key_file", "/etc/k.pem" } } } } } };
    tree.write(QStringLiteral("config/comunication.json"), QJsonDocument(document).toJson());
    bool ok = false;
    const mosquittocnf_t cnf = mosquittocnf_t::fromClientFolder(tree.root(), &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(cnf.getInstallationId(), QStringLiteral("0123abcd"));
    EXPECT_EQ(cnf.getHost(), QStringLiteral("10.0.0.7"));
    EXPECT_EQ(cnf.getPort(), 8883);
    EXPECT_EQ(cnf.getClientId(), QStringLiteral("srv-1"));
    EXPECT_EQ(cnf.getUsername(), QStringLiteral("srv"));
    EXPECT_EQ(cnf.getPassword(), QStringLiteral("secret"));
    EXPECT_EQ(cnf.getProtocolVersion(), mosquittocnf_t::protocol_v311);
    EXPECT_EQ(cnf.getKeepalive(), 12);
    EXPECT_EQ(cnf.getTopicBase(), QStringLiteral("orvane/0123abcd"));
    EXPECT_TRUE(cnf.isTls());
    EXPECT_EQ(cnf.getCaFile(), QStringLiteral("/etc/ca.pem"));
    EXPECT_EQ(cnf.getCertFile(), QStringLiteral("/etc/c.pem"));
    EXPECT_EQ(cnf.getKeyFile(), QStringLiteral("/etc/k.pem"));
    // What toJson() writes reads back the same.
    const mosquittocnf_t again = mosquittocnf_t::fromJson(cnf.toJson());
    EXPECT_EQ(again.toJson(), cnf.toJson());
}

TEST(mosquittocnf_t, MissingMembersKeepTheirDefaults)
{
    const mosquittocnf_t cnf = mosquittocnf_t::fromJson(
        QJsonObject { { "mqtt", QJsonObject { { "host", "broker.local" }, { "port", "1999" } } } });
    EXPECT_EQ(cnf.getHost(), QStringLiteral("broker.local"));
    EXPECT_EQ(cnf.getPort(), 1999);
    EXPECT_EQ(cnf.getClientId(), QStringLiteral("context-sync-server"));
    EXPECT_EQ(cnf.getTopicBase(), QStringLiteral("orvane"));
    EXPECT_EQ(cnf.getProtocolVersion(), 5);
    EXPECT_FALSE(cnf.isTls());
}

TEST(mosquittocnf_t, ProtocolVersionTexts)
{
    const auto version = [](const QJsonValue& value) {
        return mosquittocnf_t::fromJson(
            QJsonObject { { "mqtt", QJsonObject { { "protocol_version", value } } } })
            .getProtocolVersion();
    };
    EXPECT_EQ(version(5), 5);
    EXPECT_EQ(version("5"), 5);
    EXPECT_EQ(version(4), 4);
    EXPECT_EQ(version(311), 4);
    EXPECT_EQ(version("3.1.1"), 4);
    test_support::log_capture_t logs;
    EXPECT_EQ(version("7"), 5);
    EXPECT_TRUE(logs.contains(QStringLiteral("Unknown MQTT protocol version 7, using 5"), 3));
}

TEST(mosquittocnf_t, MissingOrBrokenFileKeepsDefaultsAndLogs)
{
    test_support::log_capture_t logs;
    test_support::temp_tree_t tree;
    bool ok = true;
    const mosquittocnf_t missing = mosquittocnf_t::fromClientFolder(tree.root(), &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(missing.getHost(), QStringLiteral("127.0.0.1"));
    const QString path = tree.root() + QStringLiteral("config/comunication.json");
    EXPECT_TRUE(logs.contains(
        QStringLiteral("Unable to read MQTT settings %1, using defaults").arg(path), 2));

    tree.write(QStringLiteral("config/comunication.json"), QByteArrayLiteral("[1, 2]"));
    ok = true;
    mosquittocnf_t::fromClientFolder(tree.root(), &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(logs.contains(
        QStringLiteral("MQTT settings %1 are not a JSON object, using defaults").arg(path), 2));
}

TEST(mosquittocnf_t, ClientIdCharacters)
{
    for (const char* good : { "a", "alice", "Client_01", "x.y-z", "0123456789" })
        EXPECT_TRUE(mosquittocnf_t::isValidClientId(QLatin1String(good))) << good;
    EXPECT_TRUE(mosquittocnf_t::isValidClientId(QString(64, QLatin1Char('a'))));
    EXPECT_FALSE(mosquittocnf_t::isValidClientId(QString(65, QLatin1Char('a'))));
    for (const char* bad : { "", "a/b", "a+b", "#", "+", "a b", "a$", "\xc3\xa9t\xc3\xa9", "a\nb" })
        EXPECT_FALSE(mosquittocnf_t::isValidClientId(QString::fromUtf8(bad))) << bad;
}
