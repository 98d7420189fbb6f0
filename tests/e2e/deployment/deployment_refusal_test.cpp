// Brokers that refuse the server: none listening, wrong credentials, retained messages not
// available, an ACL that forbids part of the server's topics. Each refusal gives a clear log line,
// the server keeps trying, and nothing below the context root changes.

#include "installation_t.h"
#include "topic_watch_t.h"

#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

using namespace deployment;

namespace {

const QString kServerId = QStringLiteral("context-sync-server");

class deployment_refusal : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dirs_.mkdir(QStringLiteral("installation")));
        installation_ = std::make_unique<installation_t>(
            dirs_.path(QStringLiteral("installation")), QStringLiteral("0123abcd"));
        // What is on disk before: a background and a file the server would not list.
        ASSERT_TRUE(dirs_.write(QStringLiteral("installation/root/background/kept.png"),
            fixture(QStringLiteral("bg_640x284.png"))));
        before_ = installation_->files();
        ASSERT_EQ(before_.size(), 1);
    }

    // The server's refusal lines (level 2 and 3), in order.
    QStringList complaints()
    {
        QStringList found;
        for (const reliability::log_line_t& line : installation_->logs()) {
            if (line.level == 2 || line.level == 3)
                found.append(line.message);
        }
        return found;
    }

    // The server logs `message` at level 2 again and again: it keeps trying.
    void expect_retried(const QString& message)
    {
        EXPECT_TRUE(installation_->wait_logged(message, 2, 3, 20000))
            << installation_->output().toStdString();
    }

    void expect_untouched()
    {
        EXPECT_EQ(installation_->files(), before_);
        EXPECT_TRUE(installation_->running());
    }

    bool passwd(const QString& file, const QString& user, const QString& password, bool create)
    {
        QStringList arguments { QStringLiteral("-b"), file, user, password };
        if (create)
            arguments.prepend(QStringLiteral("-c"));
        return QProcess::execute(QStringLiteral("mosquitto_passwd"), arguments) == 0;
    }

    test_support::temp_tree_t dirs_;
    std::unique_ptr<installation_t> installation_;
    reliability::snapshot_t before_;
};

} // namespace

TEST_F(deployment_refusal, NoBrokerListening)
{
    endpoint_t nowhere;
    nowhere.port = test_support::mosquitto_broker_t::free_port();
    ASSERT_TRUE(installation_->start(nowhere, kServerId));
    expect_retried(
        QStringLiteral("MQTT connection to %1 failed: Connection refused").arg(nowhere.text()));
    expect_untouched();
}

TEST_F(deployment_refusal, WrongCredentials)
{
    test_support::mosquitto_broker_t broker;
    const QString file = broker.work_dir() + QStringLiteral("/passwd");
    ASSERT_TRUE(passwd(file, kServerId, QStringLiteral("right"), true));
    test_support::mosquitto_broker_t::config_t config;
    config.allow_anonymous = false;
    config.global = { QStringLiteral("password_file %1").arg(file) };
    ASSERT_TRUE(broker.start(config));
    endpoint_t at;
    at.port = broker.port();
    at.username = kServerId;
    at.password = QStringLiteral("wrong");
    ASSERT_TRUE(installation_->start(at, kServerId));
    expect_retried(QStringLiteral("MQTT connection to %1 refused: Not authorized").arg(at.text()));
    expect_untouched();
    at.protocol = 4;
    ASSERT_TRUE(installation_->start(at, kServerId));
    expect_retried(
        QStringLiteral("MQTT connection to %1 refused: Connection Refused: not authorised.")
            .arg(at.text()));
    expect_untouched();
}

TEST_F(deployment_refusal, NoRetainedMessages)
{
    test_support::mosquitto_broker_t broker;
    test_support::mosquitto_broker_t::config_t config;
    config.global = { QStringLiteral("retain_available false") };
    ASSERT_TRUE(broker.start(config));
    endpoint_t at;
    at.port = broker.port();
    ASSERT_TRUE(installation_->start(at, kServerId));
    expect_retried(
        QStringLiteral("MQTT connection to %1 refused: Retain not supported").arg(at.text()));
    expect_untouched();
    // MQTT 3.1.1 has no reason codes: the broker just closes the connection.
    at.protocol = 4;
    ASSERT_TRUE(installation_->start(at, kServerId));
    expect_retried(QStringLiteral("MQTT connection to %1 closed by the broker before it was "
                                  "accepted: check the MQTT version (protocol_version 3.1.1) and "
                                  "that the broker allows retained messages")
                       .arg(at.text()));
    expect_untouched();
}

// The connection stands; what the ACL forbids is refused one by one, and the server goes on.
TEST_F(deployment_refusal, AnAclThatForbidsTheStatusAndPresence)
{
    test_support::mosquitto_broker_t broker;
    const QString acl = broker.work_dir() + QStringLiteral("/acl");
    QFile file(acl);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("user context-sync-server\n"
               "topic readwrite orvane/rr/context_sync/req/#\n"
               "topic readwrite orvane/rr/context_sync/res/#\n"
               "topic readwrite orvane/rr/context_sync/bcast\n");
    file.close();
    const QString passwords = broker.work_dir() + QStringLiteral("/passwd");
    ASSERT_TRUE(passwd(passwords, kServerId, QStringLiteral("pw"), true));
    test_support::mosquitto_broker_t::config_t config;
    config.allow_anonymous = false;
    config.global = { QStringLiteral("password_file %1").arg(passwords),
        QStringLiteral("acl_file %1").arg(acl) };
    ASSERT_TRUE(broker.start(config));
    endpoint_t at;
    at.port = broker.port();
    at.username = kServerId;
    at.password = QStringLiteral("pw");
    ASSERT_TRUE(installation_->start(at, kServerId));
    EXPECT_TRUE(installation_->wait_logged(
        QStringLiteral("MQTT publish to orvane/rr/context_sync/status refused by the broker: Not "
                       "authorized"),
        2))
        << installation_->output().toStdString();
    EXPECT_EQ(installation_->count_logged(
                  QStringLiteral("MQTT connected to %1 as context-sync-server").arg(at.text()), 4),
        1);
    expect_untouched();
}
