// Client-id spoofing against the real server program behind the broker set up as the deployment
// guide says (password file, use_username_as_clientid, the guide's own ACL block). mallory, a
// legitimate user, tries to act as alice: by publishing on alice's request topic, by claiming
// alice's client id at connection, by naming alice inside the body, by faking alice's presence
// and the service's status. Every attempt must come to nothing for alice and the tree, and
// mallory must still be served as herself.

#include "reliability_env_t.h"

#include "common/log_capture_t.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using reliability::fixture_image;
using reliability::snapshot;
using reliability::snapshot_t;

namespace {

class hostile_spoofing : public reliability::reliability_test {
protected:
    void SetUp() override
    {
        reliability_test::SetUp();
        ASSERT_TRUE(start_acl_broker()) << broker_.log().toStdString();
        put_image(QStringLiteral("background/one.png"), fixture_image("bg_640x284.png"));
        put_image(QStringLiteral("background/two.jpg"), fixture_image("bg_640x284_baseline.jpg"));
        ASSERT_TRUE(start_server()) << output().toStdString();
        alice_
            = client(QStringLiteral("alice"), QStringLiteral("alice"), QStringLiteral("alice-pw"));
        mallory_ = client(
            QStringLiteral("mallory"), QStringLiteral("mallory"), QStringLiteral("mallory-pw"));
        ASSERT_TRUE(wait_status(*alice_, QStringLiteral("online"))) << broker_.log().toStdString();
        ASSERT_TRUE(wait_status(*mallory_, QStringLiteral("online")));
        bool ok = false;
        before_list_ = server_list(*alice_, &ok);
        ASSERT_TRUE(ok) << output().toStdString();
        ASSERT_EQ(before_list_.size(), 2);
        before_root_ = snapshot(root());
    }

    QStringList denied_topics() const
    {
        QStringList topics;
        for (const QString& line : broker_.log().split(QLatin1Char('\n'))) {
            if (!line.contains(QStringLiteral("Denied PUBLISH from mallory")))
                continue;
            const int open = int(line.indexOf(QStringLiteral("'")));
            const int close = int(line.indexOf(QStringLiteral("'"), open + 1));
            if (open >= 0 && close > open)
                topics.append(line.mid(open + 1, close - open - 1));
        }
        return topics;
    }

    // Nothing of alice's was touched: the tree and the list are as before, alice is still
    // connected and served, and every request that the server took as alice's was one of her own
    // list requests.
    void expect_alice_untouched()
    {
        bool ok = false;
        EXPECT_EQ(server_list(*alice_, &ok), before_list_);
        EXPECT_TRUE(ok);
        rr_test::settle(1500);
        EXPECT_EQ(snapshot(root()), before_root_);
        int own = 0;
        for (const reliability::log_line_t& line : logs()) {
            if (!line.message.contains(QStringLiteral("from client alice")))
                continue;
            EXPECT_EQ(line.message,
                QStringLiteral("[context_sync] Incoming request ctx_request from client alice"));
            ++own;
        }
        EXPECT_GE(own, 1);
        EXPECT_FALSE(output().contains(QStringLiteral("[alice] on_disconnection")));
        EXPECT_FALSE(output().contains(QStringLiteral("[alice] on_end")));
        EXPECT_TRUE(alice_->proto().isConnected());
    }

    // A connection that claims `id` but logs in as `user`; not waited for with a probe on its
    // own answer topic, which the ACL does not let it write.
    std::unique_ptr<rr_test::client_t> impostor(const QString& id, const QString& user)
    {
        comunication::config::mosquittocnf_t cnf = rr_test::settings(broker_, id);
        cnf.setCredentials(user, user + QStringLiteral("-pw"));
        auto made = std::make_unique<rr_test::client_t>(cnf);
        EXPECT_TRUE(wait_status(*made, QStringLiteral("online")));
        return made;
    }

    std::unique_ptr<rr_test::client_t> alice_;
    std::unique_ptr<rr_test::client_t> mallory_;
    QJsonObject before_list_;
    snapshot_t before_root_;
};

} // namespace

TEST_F(hostile_spoofing, ForgedRequestsOnAnotherClientsTopicAreDeniedByTheBroker)
{
    test_support::log_capture_t logs;
    const QString alice_topic = request_topic(QStringLiteral("alice"));
    const QByteArray remove = QJsonDocument(
        QJsonObject { { "type", "ctx_delete_request" },
            { "payload",
                QJsonObject {
                    { "message", QJsonArray { "background/one.png", "background/two.jpg" } } } } })
                                  .toJson(QJsonDocument::Compact);
    const QByteArray rename = QJsonDocument(
        QJsonObject { { "type", "ctx_rename_request" },
            { "payload",
                QJsonObject { { "message",
                    QJsonArray {
                        QJsonObject { { "background/one.png", "background/gone.png" } } } } } } })
                                  .toJson(QJsonDocument::Compact);
    const QByteArray replace
        = QJsonDocument(QJsonObject { { "type", "ctx_replace_request" },
                            { "payload", QJsonObject { { "message", QJsonObject() } } } })
              .toJson(QJsonDocument::Compact);
    publish_raw(*mallory_, alice_topic, remove);
    publish_raw(*mallory_, alice_topic, rename);
    publish_raw(*mallory_, alice_topic, replace);
    // Faking alice's goodbye and the service's own status.
    publish_raw(*mallory_, QStringLiteral("orvane/rr/presence/alice"), "lost");
    publish_raw(*mallory_, QStringLiteral("orvane/rr/context_sync/status"), "offline");
    // A later request of mallory's own is answered: the broker has dealt with everything before.
    bool ok = false;
    server_list(*mallory_, &ok);
    ASSERT_TRUE(ok) << output().toStdString();

    const QStringList denied = denied_topics();
    EXPECT_EQ(denied.count(alice_topic), 3) << broker_.log().toStdString();
    EXPECT_EQ(denied.count(QStringLiteral("orvane/rr/presence/alice")), 1);
    EXPECT_EQ(denied.count(QStringLiteral("orvane/rr/context_sync/status")), 1);
    // Over MQTT 5 the forging client learns why: its PUBACK says so.
    EXPECT_TRUE(logs.wait_for(
        QStringLiteral("MQTT publish to %1 refused by the broker: Not authorized").arg(alice_topic),
        2));
    EXPECT_TRUE(
        wait_logged(QStringLiteral("[context_sync] Incoming request ctx_request from client "
                                   "mallory"),
            6));
    EXPECT_FALSE(output().contains(QStringLiteral("Delete request from client")));
    EXPECT_FALSE(output().contains(QStringLiteral("Rename request from client")));
    EXPECT_FALSE(output().contains(QStringLiteral("Import request from client")));
    // The retained status still says what the server said, to a client that comes later.
    mallory_.reset();
    auto late = client(
        QStringLiteral("mallory"), QStringLiteral("mallory"), QStringLiteral("mallory-pw"));
    EXPECT_TRUE(wait_status(*late, QStringLiteral("online")));
    EXPECT_FALSE(late->statuses.contains(QStringLiteral("offline")));
    expect_alice_untouched();
}

TEST_F(hostile_spoofing, ClaimingAnotherClientsIdAtConnectionGetsTheUsersOwnIdAndNothingOfTheOther)
{
    // mallory's connection says "alice"; the broker names it after the user, so alice's session
    // is not taken over and alice's topics stay closed to it. (mallory's own connection goes
    // first: the impostor's would take its session over.)
    mallory_.reset();
    auto impostor = this->impostor(QStringLiteral("alice"), QStringLiteral("mallory"));
    EXPECT_TRUE(broker_.log().contains(QStringLiteral("as mallory (p5, c1, k5, u'mallory')")))
        << broker_.log().toStdString();
    impostor->service()->send_request(QStringLiteral("ctx_delete_request"),
        QJsonObject { { "message", QJsonArray { "background/one.png" } } });
    // alice's own request is answered to alice alone; the impostor hears nothing addressed to it.
    const int from = int(impostor->responses.size());
    bool ok = false;
    EXPECT_EQ(server_list(*alice_, &ok), before_list_);
    EXPECT_TRUE(ok);
    rr_test::settle(500);
    for (int i = from; i < impostor->responses.size(); ++i)
        EXPECT_TRUE(impostor->responses.at(i).broadcast)
            << impostor->responses.at(i).type.toStdString();
    EXPECT_EQ(denied_topics().count(request_topic(QStringLiteral("alice"))), 1)
        << broker_.log().toStdString();

    // The same through ctxsync, as a user would try it: the forged removal times out unanswered.
    impostor.reset();
    reliability::ctxsync_process_t run;
    ASSERT_TRUE(run.start(ctxsync_arguments(QStringLiteral("alice"),
        { "--username", "mallory", "--password", "mallory-pw", "rm", "background/two.jpg" }, 3)));
    const reliability::run_t result = run.finish(30000);
    EXPECT_EQ(result.code, 4) << result.err.toStdString();
    expect_alice_untouched();
}

TEST_F(hostile_spoofing, AClientNamedInsideTheBodyIsIgnoredInFavourOfTheTopic)
{
    // "sender" is set by the server from the topic; one in the body changes nothing.
    const int alice_from = int(alice_->responses.size());
    const int mallory_from = int(mallory_->responses.size());
    mallory_->service()->send_raw_request(
        "{\"type\": \"ctx_request\", \"sender\": \"alice\", \"payload\": {\"sender\": \"alice\"}}");
    const int answer = wait_response(
        *mallory_, QStringLiteral("ctx_list"), mallory_from, 10000, to_t::requester);
    ASSERT_GE(answer, 0) << output().toStdString();
    EXPECT_EQ(mallory_->responses.at(answer).payload, before_list_);
    EXPECT_TRUE(logged(
        QStringLiteral("[context_sync] Incoming request ctx_request from client mallory"), 6));
    // A chunk is acknowledged to the client whose topic it came on.
    mallory_->service()->send_raw_request(QJsonDocument(
        QJsonObject { { "type", "ctx_chunk" }, { "sender", "alice" },
            { "payload",
                QJsonObject { { "sender", "alice" },
                    { "message",
                        chunk_of(QStringLiteral("background/probe.png"), QByteArray(600000, 'p'),
                            0) } } } }).toJson(QJsonDocument::Compact));
    // The first of two chunks: acknowledged, and the file never completes.
    EXPECT_GE(wait_ack(*mallory_, QStringLiteral("background/probe.png"), 0, mallory_from), 0);
    rr_test::settle(300);
    for (int i = alice_from; i < alice_->responses.size(); ++i)
        EXPECT_TRUE(alice_->responses.at(i).broadcast)
            << alice_->responses.at(i).type.toStdString();
    expect_alice_untouched();
}

TEST_F(hostile_spoofing, WrongPasswordsAndAnonymousConnectionsAreRefusedByTheBroker)
{
    reliability::ctxsync_process_t wrong;
    ASSERT_TRUE(wrong.start(ctxsync_arguments(
        QStringLiteral("alice"), { "--username", "alice", "--password", "guess", "list" }, 3)));
    reliability::run_t result = wrong.finish(30000);
    EXPECT_EQ(result.code, 3) << result.err.toStdString();
    reliability::ctxsync_process_t anonymous;
    ASSERT_TRUE(anonymous.start(ctxsync_arguments(QStringLiteral("alice"), { "list" }, 3)));
    result = anonymous.finish(30000);
    EXPECT_EQ(result.code, 3) << result.err.toStdString();
    // The rightful user with the right password is served (as mallory: a second connection
    // named alice would take over alice's session).
    mallory_.reset();
    reliability::ctxsync_process_t rightful;
    ASSERT_TRUE(rightful.start(ctxsync_arguments(QStringLiteral("mallory"),
        { "--username", "mallory", "--password", "mallory-pw", "--json", "list" }, 10)));
    result = rightful.finish(30000);
    EXPECT_EQ(result.code, 0) << result.err.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(result.out.toUtf8()).object().value("files").toObject(),
        before_list_);
    expect_alice_untouched();
}
