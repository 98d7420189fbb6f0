#include "common/config_http_server_t.h"
#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include "platform/logs/classlogs.h"
#include "utility/cnfserver.h"
#include "utility/http_read_config_server_t.h"
#include "utility/orvane_option_t.h"
#include "utility/utility_t.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

using test_support::config_http_server_t;
using utility::http_read_config_server_t;
using utility::orvane_option_t;
using utility::utility_t;

namespace {

const QString kId = QStringLiteral("0123456789abcdef0123456789abcdef");
const char* const kChildUrl = "CONTEXT_SYNC_CONFIG_CHILD_URL";
const char* const kChildRecord = "CONTEXT_SYNC_CONFIG_CHILD_RECORD";
const char* const kChildClient = "CONTEXT_SYNC_CONFIG_CHILD_CLIENT";

QJsonObject json(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// A complete configuration document whose client folder is `client_folder`.
QJsonObject full_document(const QString& client_folder, const QString& installation_id = kId)
{
    return json(QStringLiteral(R"({
      "installation": {"installation_id": "%2", "cloud_enabled": true},
      "static": {
        "kzrconf": {"serial": "/dev/ttyS3"},
        "device": {"product_name": "hub-one", "product_code": "H1"},
        "orvane": {
          "comunication": {
            "global": {"installation_id": "%2"},
            "mqtt": {"host": "127.0.0.1", "port": 1883, "topic_base": "orvane"}
          },
          "paths": {
            "cacerts": ["/etc/orvane/a.pem", "/etc/orvane/b.pem"],
            "plugins": "/opt/orvane/plugins",
            "logs": "/var/log/orvane",
            "client_communication": "%1",
            "system_ca_certs": "/etc/ssl/certs"
          },
          "urls": {"cloud_service": "https://service.example", "cloud_web": "https://web.example"}
        },
        "mosquitto": {"mqtt_cloud_url": "mqtts://cloud.example:8883"}
      }
    })")
                    .arg(client_folder, installation_id));
}

QJsonObject without_installation_id(QJsonObject document)
{
    QJsonValue root(document);
    utility_t::updateJsonValue(root, "installation/installation_id", QJsonValue());
    utility_t::updateJsonValue(
        root, "static/orvane/comunication/global/installation_id/", QJsonValue());
    return root.toObject();
}

// Options object, configuration client bound to `url`; both go away with the fixture.
class HttpReadConfigServerT : public ::testing::Test {
protected:
    void SetUp() override
    {
        const QByteArray old_path = qgetenv("PATH");
        qputenv("PATH", "/nonexistent"); // no getprop here: keep start-up quick and quiet
        options = orvane_option_t::createInstance(
            QCoreApplication::instance(), "linux", "1", {}, "b", "c", "t");
        qputenv("PATH", old_path);
    }
    void TearDown() override
    {
        http_read_config_server_t::destroyInstance();
        http_read_config_server_t::setBaseUrl(QString());
        orvane_option_t::destroyInstance();
    }

    http_read_config_server_t* client_for(const config_http_server_t& server)
    {
        http_read_config_server_t::setBaseUrl(server.base_url());
        return http_read_config_server_t::getInstance();
    }

    QString comunication_file() const { return tree.path("client/config/comunication.json"); }

    orvane_option_t* options = nullptr;
    test_support::temp_tree_t tree;
};

} // namespace

TEST_F(HttpReadConfigServerT, SingletonIsCreatedOnFirstUse)
{
    http_read_config_server_t::destroyInstance();
    http_read_config_server_t* first = http_read_config_server_t::getInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(http_read_config_server_t::createInstance(), first);
    EXPECT_EQ(http_read_config_server_t::getInstance(), first);
    http_read_config_server_t::destroyInstance();
    EXPECT_NE(http_read_config_server_t::getInstance(), nullptr);
}

TEST_F(HttpReadConfigServerT, BaseUrlDefaultsToTheLoopbackServer)
{
    EXPECT_EQ(http_read_config_server_t::baseUrl(), "http://127.0.0.1:4321/");
    http_read_config_server_t::setBaseUrl("http://127.0.0.1:9999/");
    EXPECT_EQ(http_read_config_server_t::baseUrl(), "http://127.0.0.1:9999/");
    test_support::log_capture_t capture;
    options->print();
    EXPECT_TRUE(capture.contains("Url config server: http://127.0.0.1:9999/", 4));
    http_read_config_server_t::setBaseUrl(QString());
    EXPECT_EQ(http_read_config_server_t::baseUrl(), "http://127.0.0.1:4321/");
}

TEST_F(HttpReadConfigServerT, FullDocumentFillsEveryOptionItNames)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(full_document(tree.path("client")))) << server.error().toStdString();
    test_support::log_capture_t capture;

    EXPECT_TRUE(client_for(server)->read_configuration());

    EXPECT_EQ(options->LogsFolder(), "/var/log/orvane");
    EXPECT_EQ(options->PluginFolder(), "/opt/orvane/plugins");
    EXPECT_EQ(options->SystemCaCerts(), "/etc/ssl/certs");
    EXPECT_EQ(options->CaCertsFile(), (QStringList { "/etc/orvane/a.pem", "/etc/orvane/b.pem" }));
    EXPECT_EQ(options->ClientFolder(), tree.path("client"));
    EXPECT_EQ(options->Serial(), "/dev/ttyS3");
    EXPECT_EQ(options->ProductName(), "hub-one");
    EXPECT_EQ(options->CloudService(), "https://service.example");
    EXPECT_EQ(options->CloudWeb(), "https://web.example");
    EXPECT_EQ(options->CloudMQTTUrl(), "mqtts://cloud.example:8883");
    EXPECT_EQ(options->InstallationId(), kId);

    EXPECT_TRUE(server.puts().isEmpty());
    EXPECT_TRUE(capture.contains("Save client configuration file to: " + comunication_file(), 4));
    EXPECT_FALSE(capture.contains("Generate new installation_id"));
    EXPECT_EQ(utility_t::readFromFile(comunication_file()),
        full_document(tree.path("client")).value("static")["orvane"]["comunication"].toObject());
}

TEST_F(HttpReadConfigServerT, SecondReadReplacesTheCertificateList)
{
    options->set_ca_certs_file({ "/old.pem" });
    QJsonObject document = full_document(tree.path("client"));
    QJsonValue root(document);
    utility_t::updateJsonValue(root, "static/orvane/paths/cacerts/", QJsonArray { "/new.pem" });
    config_http_server_t server;
    ASSERT_TRUE(server.start(root.toObject())) << server.error().toStdString();
    EXPECT_TRUE(client_for(server)->read_configuration());
    EXPECT_EQ(options->CaCertsFile(), QStringList { "/new.pem" });
}

TEST_F(HttpReadConfigServerT, EmptyDocumentChangesNothing)
{
    options->set_product_name("before");
    options->set_client_folder(tree.path("client"));
    options->set_installation_id("old-id");
    options->set_ca_certs_file({ "/keep.pem" });
    config_http_server_t server;
    ASSERT_TRUE(server.start(QJsonObject())) << server.error().toStdString();
    test_support::log_capture_t capture;

    EXPECT_FALSE(client_for(server)->read_configuration());

    EXPECT_TRUE(capture.contains(
        "Config server - wrong reponse to " + server.base_url() + " json is empty", 2));
    EXPECT_EQ(options->ProductName(), "before");
    EXPECT_EQ(options->ClientFolder(), tree.path("client"));
    EXPECT_EQ(options->InstallationId(), "old-id");
    EXPECT_EQ(options->CaCertsFile(), QStringList { "/keep.pem" });
    EXPECT_TRUE(options->LogsFolder().isEmpty());
    EXPECT_TRUE(server.puts().isEmpty());
    EXPECT_FALSE(QFile::exists(comunication_file()));
}

TEST_F(HttpReadConfigServerT, MissingInstallationIdIsGeneratedAndStored)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(without_installation_id(full_document(tree.path("client")))))
        << server.error().toStdString();
    test_support::log_capture_t capture;

    EXPECT_TRUE(client_for(server)->read_configuration());

    const auto puts = server.puts();
    ASSERT_EQ(puts.size(), 1);
    EXPECT_EQ(puts[0].path, "/installation/installation_id?runtriggers=true");
    bool ok = false;
    const QString id = http_t::fromJsonText(puts[0].body.toUtf8(), ok).toString();
    ASSERT_TRUE(ok) << puts[0].body.toStdString();
    EXPECT_TRUE(QRegularExpression(QRegularExpression::anchoredPattern("[0-9a-f]{32}"))
                    .match(id)
                    .hasMatch())
        << id.toStdString();

    const QStringList trace = capture.messages(6);
    const qsizetype generate = trace.indexOf("Generate new installation_id");
    ASSERT_GE(generate, 0);
    EXPECT_EQ(trace.value(generate + 1), "Save new instalaltion_id in config server: " + id);

    EXPECT_EQ(options->InstallationId(), id);
    const QJsonObject written = utility_t::readFromFile(comunication_file());
    EXPECT_EQ(written.value("global")["installation_id"].toString(), id);
    EXPECT_EQ(written.value("mqtt")["port"].toInt(), 1883);
}

TEST_F(HttpReadConfigServerT, CheckWritesTheNewIdUnderBothPaths)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(QJsonObject { { "installation", QJsonObject() } }))
        << server.error().toStdString();
    QJsonObject document = without_installation_id(full_document(tree.path("client")));
    http_t http(server.base_url());

    http_read_config_server_t::getInstance()->check_HTTP_InstallationId(
        document, http, server.base_url());

    const QString id
        = utility_t::getJsonObjValue(document, "installation/installation_id").toString();
    EXPECT_EQ(id.size(), 32);
    EXPECT_EQ(
        utility_t::getJsonObjValue(document, "static/orvane/comunication/global/installation_id/"),
        QJsonValue(id));
    ASSERT_EQ(server.puts().size(), 1);
    EXPECT_EQ(server.puts()[0].body, "\"" + id + "\"");
    // The configuration server now holds it too.
    EXPECT_EQ(http.get("installation/installation_id").getData(), QJsonValue(id));
}

TEST_F(HttpReadConfigServerT, DocumentWithIdMakesNoPut)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(full_document(tree.path("client")))) << server.error().toStdString();
    QJsonObject document = full_document(tree.path("client"));
    const QJsonObject before = document;
    http_t http(server.base_url());
    test_support::log_capture_t capture;

    http_read_config_server_t::getInstance()->check_HTTP_InstallationId(
        document, http, server.base_url());

    EXPECT_TRUE(server.puts().isEmpty());
    EXPECT_EQ(document, before);
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST_F(HttpReadConfigServerT, BlankIdCountsAsMissing)
{
    config_http_server_t server;
    ASSERT_TRUE(server.start(full_document(tree.path("client"), "   ")))
        << server.error().toStdString();
    EXPECT_TRUE(client_for(server)->read_configuration());
    ASSERT_EQ(server.puts().size(), 1);
    EXPECT_EQ(options->InstallationId().size(), 32);
}

TEST_F(HttpReadConfigServerT, ClientFileIsWrittenWhenCloudUrlsAreEmpty)
{
    QJsonValue root(full_document(tree.path("client")));
    utility_t::updateJsonValue(root, "static/orvane/urls/cloud_service/", QJsonValue(""));
    utility_t::updateJsonValue(root, "static/orvane/urls/cloud_web/", QJsonValue());
    utility_t::updateJsonValue(root, "static/mosquitto/", QJsonValue());
    config_http_server_t server;
    ASSERT_TRUE(server.start(root.toObject())) << server.error().toStdString();
    options->set_cloud_web("https://stale.example");

    EXPECT_TRUE(client_for(server)->read_configuration());

    EXPECT_EQ(options->CloudService(), "");
    EXPECT_EQ(options->CloudWeb(), "");
    EXPECT_EQ(options->CloudMQTTUrl(), "");
    ASSERT_TRUE(QFile::exists(comunication_file()));
    EXPECT_EQ(utility_t::readFromFile(comunication_file()).value("global")["installation_id"],
        QJsonValue(kId));
}

TEST_F(HttpReadConfigServerT, ClientFileWithoutCommunicationSettingsIsAnEmptyObject)
{
    QJsonValue root(full_document(tree.path("client")));
    utility_t::updateJsonValue(root, "static/orvane/comunication/", QJsonValue());
    config_http_server_t server;
    ASSERT_TRUE(server.start(root.toObject())) << server.error().toStdString();
    EXPECT_TRUE(client_for(server)->read_configuration());
    ASSERT_TRUE(QFile::exists(comunication_file()));
    EXPECT_TRUE(utility_t::readFromFile(comunication_file()).isEmpty());
}

TEST_F(HttpReadConfigServerT, UnwritableClientFileIsLogged)
{
    ASSERT_TRUE(tree.write("client", "a file where the folder should be"));
    options->set_client_folder(tree.path("client"));
    test_support::log_capture_t capture;
    EXPECT_FALSE(http_read_config_server_t::getInstance()->generate_HTTP_ClientFileConfig(
        full_document(tree.path("client"))));
    EXPECT_TRUE(capture.contains("Save client configuration file to: " + comunication_file(), 4));
    EXPECT_TRUE(
        capture.contains("Error to craete mqtt configuration client " + comunication_file(), 2));
}

TEST_F(HttpReadConfigServerT, EmptyClientFolderIsRefused)
{
    options->set_client_folder(QString());
    test_support::log_capture_t capture;
    EXPECT_FALSE(http_read_config_server_t::getInstance()->generate_HTTP_ClientFileConfig(
        full_document(QString())));
    EXPECT_EQ(capture.messages(),
        QStringList { "Error to craete mqtt configuration client /config/comunication.json" });
}

TEST_F(HttpReadConfigServerT, UnreachableServerFailsCleanly)
{
    const quint16 port = config_http_server_t::unused_port();
    ASSERT_NE(port, 0);
    const QString url = QStringLiteral("http://127.0.0.1:%1/").arg(port);
    http_read_config_server_t::setBaseUrl(url);
    options->set_product_name("before");
    test_support::log_capture_t capture;

    EXPECT_FALSE(http_read_config_server_t::getInstance()->read_configuration());

    const QStringList errors = capture.messages(2);
    ASSERT_FALSE(errors.isEmpty());
    EXPECT_EQ(errors[0], "Config server - wrong reponse to " + url);
    EXPECT_EQ(options->ProductName(), "before");
}

TEST_F(HttpReadConfigServerT, NonJsonAnswerFailsCleanly)
{
    config_http_server_t server;
    config_http_server_t::options_t server_options;
    server_options.non_json = true;
    ASSERT_TRUE(server.start(full_document(tree.path("client")), server_options))
        << server.error().toStdString();
    test_support::log_capture_t capture;

    EXPECT_FALSE(client_for(server)->read_configuration());

    EXPECT_EQ(capture.messages(2),
        (QStringList { "Config server - wrong reponse to " + server.base_url(),
            "Config server - answer is not JSON" }));
    EXPECT_TRUE(options->ClientFolder().isEmpty());
    EXPECT_FALSE(QFile::exists(comunication_file()));
}

TEST_F(HttpReadConfigServerT, ErrorStatusFailsCleanly)
{
    config_http_server_t server;
    config_http_server_t::options_t server_options;
    server_options.get_status = 503;
    ASSERT_TRUE(server.start(full_document(tree.path("client")), server_options))
        << server.error().toStdString();
    test_support::log_capture_t capture;
    EXPECT_FALSE(client_for(server)->read_configuration());
    EXPECT_TRUE(capture.contains("Config server - wrong reponse to " + server.base_url(), 2));
    EXPECT_TRUE(capture.contains("Config server - HTTP status 503", 2));
}

TEST_F(HttpReadConfigServerT, WithoutOptionsObjectNothingIsRead)
{
    orvane_option_t::destroyInstance();
    config_http_server_t server;
    ASSERT_TRUE(server.start(without_installation_id(full_document(tree.path("client")))))
        << server.error().toStdString();
    test_support::log_capture_t capture;
    EXPECT_FALSE(client_for(server)->read_configuration());
    EXPECT_TRUE(capture.contains("Config server - options object not created", 2));
    EXPECT_TRUE(server.puts().isEmpty());
}

// Runs only as the child started by FailedPutEndsTheProcessWithStatusZero: reads a configuration
// without an installation id from a server that refuses to store one. read_configuration() must
// end the process; returning from it is reported as a failure.
TEST_F(HttpReadConfigServerT, ChildOfFailedPut)
{
    if (qEnvironmentVariableIsEmpty(kChildUrl))
        GTEST_SKIP() << "runs only as the child process of FailedPutEndsTheProcessWithStatusZero";

    QFile record(qEnvironmentVariable(kChildRecord));
    ASSERT_TRUE(record.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered));
    // Every log line reaches the record file, flushed, before the writer thread moves on.
    utility::logs::classlogs::getInstance()->add_listener(
        [&record](const utility::logs::log_record_t& line) {
            record.write(QByteArray::number(line.level) + "|" + line.message.toUtf8() + "\n");
        });
    options->set_client_folder(qEnvironmentVariable(kChildClient));
    http_read_config_server_t::setBaseUrl(qEnvironmentVariable(kChildUrl));
    http_read_config_server_t::getInstance()->read_configuration();
    record.write("RETURNED\n");
    FAIL() << "read_configuration() returned after a failed store of the installation id";
}

TEST_F(HttpReadConfigServerT, FailedPutEndsTheProcessWithStatusZero)
{
    config_http_server_t server;
    config_http_server_t::options_t server_options;
    server_options.fail_put = true;
    ASSERT_TRUE(
        server.start(without_installation_id(full_document(tree.path("client"))), server_options))
        << server.error().toStdString();

    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(kChildUrl, server.base_url());
    environment.insert(kChildRecord, tree.path("child.log"));
    environment.insert(kChildClient, tree.path("client"));
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
        { "--gtest_filter=HttpReadConfigServerT.ChildOfFailedPut" });
    ASSERT_TRUE(child.waitForFinished(60000)) << "child did not end";

    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0);
    const QStringList lines
        = QString::fromUtf8(tree.read("child.log")).split('\n', Qt::SkipEmptyParts);
    ASSERT_FALSE(lines.isEmpty()) << child.readAllStandardOutput().toStdString();
    EXPECT_EQ(lines.last(), "0|Unable to genarate installation id ...");
    EXPECT_FALSE(lines.contains("RETURNED"));
    EXPECT_TRUE(lines.contains("6|Generate new installation_id"));
    EXPECT_EQ(server.puts().size(), 1);
    EXPECT_FALSE(QFile::exists(comunication_file()));
}
