#include "common/config_http_server_t.h"

#include "platform/http/http_t.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using test_support::config_http_server_t;

namespace {

QJsonObject sample_document()
{
    return QJsonDocument::fromJson(R"({"installation":{"installation_id":"abc"},"list":[1,2]})")
        .object();
}

} // namespace

TEST(HttpT, UrlJoinsBaseAndPathWithOneSlash)
{
    EXPECT_EQ(http_t("http://127.0.0.1:4321/").url(""), "http://127.0.0.1:4321/");
    EXPECT_EQ(http_t("http://127.0.0.1:4321").url("a/b?x=1"), "http://127.0.0.1:4321/a/b?x=1");
    EXPECT_EQ(http_t("http://127.0.0.1:4321/").url("/a"), "http://127.0.0.1:4321/a");
    EXPECT_EQ(http_t().url("http://h/x"), "http://h/x");
    EXPECT_EQ(http_t().timeout(), 5000);
}

TEST(HttpT, JsonTextOfAnyValue)
{
    EXPECT_EQ(http_t::toJsonText(QJsonValue("abc")), "\"abc\"");
    EXPECT_EQ(http_t::toJsonText(QJsonValue(12)), "12");
    EXPECT_EQ(http_t::toJsonText(QJsonValue(true)), "true");
    EXPECT_EQ(http_t::toJsonText(QJsonValue()), "null");
    EXPECT_EQ(http_t::toJsonText(QJsonArray { 1, "x" }), "[1,\"x\"]");
    EXPECT_EQ(http_t::toJsonText(QJsonObject { { "k", 1 } }), "{\"k\":1}");

    bool ok = false;
    EXPECT_EQ(http_t::fromJsonText("\"abc\"", ok), QJsonValue("abc"));
    EXPECT_TRUE(ok);
    EXPECT_EQ(http_t::fromJsonText(" {\"k\": 1} ", ok), QJsonValue(QJsonObject { { "k", 1 } }));
    EXPECT_TRUE(ok);
    http_t::fromJsonText("1, 2", ok);
    EXPECT_FALSE(ok);
    http_t::fromJsonText("<html>", ok);
    EXPECT_FALSE(ok);
}

TEST(HttpT, GetParsesTheJsonDocument)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(sample_document())) << server.error().toStdString();
    const httpresponse_t response = http_t(server.base_url()).get("");
    EXPECT_FALSE(response.getError()) << response.getErrorString().toStdString();
    EXPECT_EQ(response.getStatus(), 200);
    EXPECT_EQ(response.getData().toObject(), sample_document());
}

TEST(HttpT, GetOfAMemberGivesThatValue)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(sample_document())) << server.error().toStdString();
    const http_t http(server.base_url());
    EXPECT_EQ(http.get("installation/installation_id").getData(), QJsonValue("abc"));
    EXPECT_EQ(http.get("list").getData(), QJsonValue(QJsonArray { 1, 2 }));
}

TEST(HttpT, PutSendsJsonBodyToTheRelativePath)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(sample_document())) << server.error().toStdString();
    const http_t http(server.base_url());
    const httpresponse_t response
        = http.put("installation/installation_id?runtriggers=true", QJsonValue("new-id"));
    EXPECT_FALSE(response.getError()) << response.getErrorString().toStdString();
    EXPECT_EQ(response.getData(), QJsonValue(QJsonObject { { "result", "ok" } }));
    const auto puts = server.puts();
    ASSERT_EQ(puts.size(), 1);
    EXPECT_EQ(puts[0].path, "/installation/installation_id?runtriggers=true");
    EXPECT_EQ(puts[0].body, "\"new-id\"");
    EXPECT_EQ(http.get("installation/installation_id").getData(), QJsonValue("new-id"));
}

TEST(HttpT, ErrorStatusIsAnError)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(sample_document())) << server.error().toStdString();
    const http_t http(server.base_url());
    const httpresponse_t missing = http.get("no/such/member");
    EXPECT_TRUE(missing.getError());
    EXPECT_EQ(missing.getStatus(), 404);
    EXPECT_EQ(missing.getErrorString(), "HTTP status 404");
    EXPECT_TRUE(missing.getData().isNull());
}

TEST(HttpT, FailedPutIsAnError)
{
    config_http_server_t server;
    config_http_server_t::options_t options;
    options.fail_put = true;
    ASSERT_TRUE(server.start(sample_document(), options)) << server.error().toStdString();
    const httpresponse_t response = http_t(server.base_url()).put("x", QJsonValue(1));
    EXPECT_TRUE(response.getError());
    EXPECT_EQ(response.getStatus(), 500);
    EXPECT_EQ(response.getErrorString(), "HTTP status 500");
    EXPECT_EQ(server.puts().size(), 1);
}

TEST(HttpT, NonJsonAnswerIsAnError)
{
    config_http_server_t server;
    config_http_server_t::options_t options;
    options.non_json = true;
    ASSERT_TRUE(server.start(sample_document(), options)) << server.error().toStdString();
    const httpresponse_t response = http_t(server.base_url()).get("");
    EXPECT_TRUE(response.getError());
    EXPECT_EQ(response.getStatus(), 200);
    EXPECT_EQ(response.getErrorString(), "answer is not JSON");
    EXPECT_EQ(response.getBody(), "<html>configuration server</html>");
    EXPECT_TRUE(response.getData().isNull());
}

TEST(HttpT, UnreachableServerIsAnError)
{
    const quint16 port = config_http_server_t::unused_port();
    ASSERT_NE(port, 0);
    const httpresponse_t response
        = http_t(QStringLiteral("http://127.0.0.1:%1/").arg(port)).get("");
    EXPECT_TRUE(response.getError());
    EXPECT_EQ(response.getStatus(), 0);
    EXPECT_FALSE(response.getErrorString().isEmpty());
}

TEST(HttpT, SlowServerRunsIntoTheTimeout)
{
    config_http_server_t server;
    config_http_server_t::options_t options;
    options.delay_ms = 3000;
    ASSERT_TRUE(server.start(sample_document(), options)) << server.error().toStdString();
    const httpresponse_t response = http_t(server.base_url(), 300).get("");
    EXPECT_TRUE(response.getError());
    EXPECT_EQ(response.getErrorString(), "no answer within 300 ms");
}

TEST(HttpT, InvalidUrlIsRefusedWithoutARequest)
{
    const httpresponse_t response = http_t("not a url").get("x");
    EXPECT_TRUE(response.getError());
    EXPECT_TRUE(response.getErrorString().startsWith("invalid URL: "));
}

TEST(HttpT, DefaultResponseIsAnError)
{
    const httpresponse_t response;
    EXPECT_TRUE(response.getError());
    EXPECT_EQ(response.getStatus(), 0);
}
