#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include "utility/orvane_option_t.h"

#include <QCoreApplication>
#include <QFile>
#include <QTranslator>

#include <gtest/gtest.h>

using utility::orvane_option_t;

namespace {

// A fake "getprop" first on PATH for the life of the object. Its answers come from a shell case
// statement; it also records each property it was asked for.
class fake_getprop_t {
public:
    explicit fake_getprop_t(const QByteArray& case_body, int exit_code = 0)
    {
        const QByteArray script = "#!/bin/sh\n"
                                  "echo \"$1\" >> \""
            + QFile::encodeName(tree_.path("asked")) + "\"\ncase \"$1\" in\n" + case_body
            + "\nesac\nexit " + QByteArray::number(exit_code) + "\n";
        tree_.write("bin/getprop", script);
        QFile::setPermissions(tree_.path("bin/getprop"),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        old_path_ = qgetenv("PATH");
        qputenv("PATH", QFile::encodeName(tree_.path("bin")) + ":" + old_path_);
    }
    ~fake_getprop_t() { qputenv("PATH", old_path_); }

    QStringList asked() const
    {
        return QString::fromLocal8Bit(tree_.read("asked")).split('\n', Qt::SkipEmptyParts);
    }

private:
    test_support::temp_tree_t tree_;
    QByteArray old_path_;
};

const QByteArray kDeviceAnswers = "persist.sys.locale) echo 'it-it' ;;\n"
                                  "ro.product.manufacturer) echo '  Acme    Devices  ' ;;\n"
                                  "ro.product.brand) echo 'quelmo' ;;\n"
                                  "ro.build.display.id) echo 'HUB2-4.1.0-rc3' ;;";

orvane_option_t* create_options(const QString& platform = QStringLiteral("linux"))
{
    return orvane_option_t::createInstance(QCoreApplication::instance(), platform,
        QStringLiteral("2.3.4"), QJsonObject { { "server", "2.3.4" }, { "library", "0.1.0" } },
        QStringLiteral("main"), QStringLiteral("abc123"), QStringLiteral("2026-11-21T05:00:00"));
}

class OrvaneOptionT : public ::testing::Test {
protected:
    void TearDown() override { orvane_option_t::destroyInstance(); }
};

} // namespace

TEST_F(OrvaneOptionT, GetInstanceBeforeCreateIsNull)
{
    orvane_option_t::destroyInstance();
    EXPECT_EQ(orvane_option_t::getInstance(), nullptr);
}

TEST_F(OrvaneOptionT, CreateStoresHostFactsAndDefaults)
{
    fake_getprop_t getprop(kDeviceAnswers);
    orvane_option_t* options = create_options();
    ASSERT_NE(options, nullptr);
    EXPECT_EQ(orvane_option_t::getInstance(), options);
    EXPECT_EQ(options->Platform(), "linux");
    EXPECT_EQ(options->Version(), "2.3.4");
    EXPECT_EQ(options->Versions().value("library").toString(), "0.1.0");
    EXPECT_EQ(options->BuildBranch(), "main");
    EXPECT_EQ(options->BuildCommit(), "abc123");
    EXPECT_EQ(options->BuildTime(), "2026-11-21T05:00:00");

    EXPECT_EQ(options->LogLevelStd(), 4u);
    EXPECT_EQ(options->LogLevelFile(), 5u);
    EXPECT_EQ(options->LogSize(), 25u);
    EXPECT_EQ(options->LogRotate(), 5u);
    EXPECT_EQ(options->LogFileName(), "server-orvane");
    EXPECT_FALSE(options->Avahi_browse_option());
    EXPECT_EQ(options->DelayToSave(), 500);
    EXPECT_EQ(options->DelayIterationToForceSave(), 5);
    EXPECT_EQ(options->UpdateDateTimeToDatabase(), 600);
    EXPECT_EQ(options->LevelBusMonitor(), 0);
    EXPECT_EQ(options->ConfigurationMode(), utility::type_configuration_mode_t::http);
    EXPECT_TRUE(options->ProductName().isEmpty());
    EXPECT_TRUE(options->ClientFolder().isEmpty());
    EXPECT_TRUE(options->CaCertsFile().isEmpty());
    EXPECT_TRUE(options->InstallationId().isEmpty());
}

TEST_F(OrvaneOptionT, PropertyReadersTakeTheDeviceAnswers)
{
    fake_getprop_t getprop(kDeviceAnswers);
    test_support::log_capture_t capture;
    orvane_option_t* options = create_options();
    EXPECT_EQ(options->Language(), "it_IT");
    EXPECT_EQ(options->Manufacturer(), "Acme Devices");
    EXPECT_EQ(options->Brand(), database::definition::type_brand_t::QUELMO);
    EXPECT_EQ(options->ImageVersion(), "HUB2-4.1.0-rc3");
    EXPECT_EQ(options->ImageVersions(), (QStringList { "HUB2", "4.1.0", "rc3" }));
    EXPECT_EQ(getprop.asked(),
        (QStringList { "persist.sys.locale", "ro.product.manufacturer", "ro.product.brand",
            "ro.build.display.id" }));
    EXPECT_TRUE(capture.messages(3).isEmpty());
    EXPECT_TRUE(capture.contains("getprop ro.product.manufacturer EXIT CODE: 0", 6));
}

TEST_F(OrvaneOptionT, NonZeroExitLeavesUnknownValuesAndLogs)
{
    fake_getprop_t getprop(kDeviceAnswers, 1);
    test_support::log_capture_t capture;
    orvane_option_t* options = create_options();
    EXPECT_EQ(options->Manufacturer(), "unknown");
    EXPECT_EQ(options->Language(), "en_EN");
    EXPECT_EQ(options->Brand(), database::definition::type_brand_t::QUELMO);
    EXPECT_EQ(options->ImageVersion(), "");
    EXPECT_TRUE(options->ImageVersions().isEmpty());
    EXPECT_EQ(capture.messages(3),
        (QStringList { "Set unknown language ... en_EN", "Unknown manufacturer ... ",
            "Unknown brand apply Quelmo ... ", "Unknown image version ... " }));
}

TEST_F(OrvaneOptionT, EmptyAnswerFailsOnlyTheLanguage)
{
    fake_getprop_t getprop("*) echo '' ;;");
    test_support::log_capture_t capture;
    orvane_option_t* options = create_options();
    EXPECT_EQ(options->Language(), "en_EN");
    EXPECT_EQ(options->Manufacturer(), "");
    EXPECT_EQ(options->Brand(), database::definition::type_brand_t::QUELMO);
    EXPECT_EQ(options->ImageVersion(), "");
    EXPECT_EQ(capture.messages(3), (QStringList { "Set unknown language ... en_EN" }));
}

TEST_F(OrvaneOptionT, MissingGetpropFailsEveryReader)
{
    const QByteArray old_path = qgetenv("PATH");
    qputenv("PATH", "/nonexistent");
    test_support::log_capture_t capture;
    orvane_option_t* options = create_options();
    qputenv("PATH", old_path);
    EXPECT_EQ(options->Manufacturer(), "unknown");
    EXPECT_EQ(capture.messages(3).size(), 4);
    EXPECT_TRUE(capture.contains("getprop ro.product.brand EXIT CODE: -2", 6));
}

TEST_F(OrvaneOptionT, UnknownBrandTextGivesQuelmo)
{
    fake_getprop_t getprop("ro.product.brand) echo 'someotherbrand' ;;\n*) echo x ;;");
    test_support::log_capture_t capture;
    orvane_option_t* options = create_options();
    EXPECT_EQ(options->Brand(), database::definition::type_brand_t::QUELMO);
    EXPECT_FALSE(capture.contains("Unknown brand apply Quelmo ... "));
}

TEST_F(OrvaneOptionT, ReadersCanBeRunAgainAndReturnTheNewValue)
{
    orvane_option_t* options = nullptr;
    {
        fake_getprop_t getprop(kDeviceAnswers);
        options = create_options();
    }
    fake_getprop_t getprop("persist.sys.locale) echo 'de-at' ;;\n"
                           "ro.build.display.id) echo 'HUB3' ;;\n"
                           "ro.product.manufacturer) echo 'Other' ;;");
    EXPECT_EQ(options->read_language(), "de_AT");
    EXPECT_EQ(options->Language(), "de_AT");
    EXPECT_EQ(options->read_image_version(), "HUB3");
    EXPECT_EQ(options->ImageVersions(), QStringList { "HUB3" });
    EXPECT_EQ(options->read_manufacture(), "Other");
}

TEST_F(OrvaneOptionT, SecondCreateRestoresDefaultsButKeepsSpecialFunction)
{
    fake_getprop_t getprop(kDeviceAnswers);
    orvane_option_t* options = create_options();
    options->set_log_size(10);
    options->set_log_rotate(2);
    options->set_log_level_std(6);
    options->set_log_level_file(1);
    options->set_level_bus_monitor(3);
    options->set_avahi_browse_option(true);
    options->set_special_fuction_for_testing(true);
    EXPECT_EQ(options->LogSize(), 10u);

    orvane_option_t* again = orvane_option_t::createInstance(
        QCoreApplication::instance(), "other", "9.9", {}, "dev", "fff", "now");
    EXPECT_EQ(again, options);
    EXPECT_EQ(again->LogSize(), 25u);
    EXPECT_EQ(again->LogRotate(), 5u);
    EXPECT_EQ(again->LogLevelStd(), 4u);
    EXPECT_EQ(again->LogLevelFile(), 5u);
    EXPECT_EQ(again->LevelBusMonitor(), 0);
    EXPECT_FALSE(again->Avahi_browse_option());
    EXPECT_EQ(again->Platform(), "other");
    EXPECT_EQ(again->Version(), "9.9");

    test_support::log_capture_t capture;
    again->print();
    EXPECT_TRUE(capture.contains("SPECIAL FUNCTION FOR TESTING ENABLE", 4));
}

TEST_F(OrvaneOptionT, PrintListsEveryOptionInOrder)
{
    fake_getprop_t getprop(kDeviceAnswers);
    orvane_option_t* options = create_options();
    options->set_serial("/dev/ttyS1");
    options->set_product_name("hub");
    options->set_installation_id("0123456789abcdef0123456789abcdef");
    options->set_logs_folder("/var/log/orvane");
    options->set_plugin_folder("/opt/plugins");
    options->set_system_ca_certs("/etc/ssl/certs");
    options->set_client_folder("/opt/client");
    options->set_ca_certs_file({ "/a.pem", "/b.pem" });
    options->set_cloud_web("https://web");
    options->set_cloud_service("https://service");
    options->set_cloud_mqtt_url("mqtts://broker");

    test_support::log_capture_t capture;
    options->print();
    const QString dashes(80, '-');
    const QStringList expected {
        "::----------------------------------------------------------------------------::",
        "Versions: ",
        " - library: 0.1.0",
        " - server: 2.3.4",
        "Build branch: main",
        "Build commit: abc123",
        "Build time: 2026-11-21T05:00:00",
        "Image version: HUB2-4.1.0-rc3",
        "Language: it_IT",
        "Browse avahi: false",
        "Serial device: /dev/ttyS1",
        "Brand: QUELMO",
        "Product name: hub",
        "Url config server: http://127.0.0.1:4321/",
        "Installation id: 0123456789abcdef0123456789abcdef",
        "Folder Log: /var/log/orvane",
        "Folder plugin: /opt/plugins",
        "System CA certs: /etc/ssl/certs",
        "Folder client: /opt/client",
        "File certs: ",
        " - /a.pem",
        " - /b.pem",
        "Bus monitor: 0",
        "Cloud Web url: https://web",
        "Cloud Service url: https://service",
        "Cloud MQTT url: mqtts://broker",
        "Starting server with log level stdout: 4",
        "Starting server with log level file: 5",
        "Starting server with log size: 25 MB",
        "Starting server with log rotation: 5",
        "Dalay to save: 500 msec.",
        "Iteration force save: 5",
        "Update datetime to realtime db: 600 sec.",
        dashes,
        "Resource",
        dashes,
    };
    const QStringList lines = capture.messages(4);
    ASSERT_GE(lines.size(), expected.size() + 1);
    EXPECT_EQ(lines.mid(0, expected.size()), expected);
    EXPECT_EQ(lines.last(), dashes);
    EXPECT_FALSE(capture.contains("SPECIAL FUNCTION FOR TESTING ENABLE"));
    for (const auto& record : capture.records())
        EXPECT_EQ(record.file, "server/utility/orvane_option_t");
}

TEST_F(OrvaneOptionT, PrintBoxesTheSpecialFunctionWarning)
{
    fake_getprop_t getprop(kDeviceAnswers);
    orvane_option_t* options = create_options();
    options->set_special_fuction_for_testing(true);
    test_support::log_capture_t capture;
    options->print();
    const QString box
        = "::============================================================================::";
    const QStringList lines = capture.messages(4);
    ASSERT_GE(lines.size(), 8);
    EXPECT_EQ(lines.mid(0, 8),
        (QStringList {
            "::----------------------------------------------------------------------------::", box,
            "SPECIAL FUNCTION FOR TESTING ENABLE",
            "This makes it possible to execute commands normally prohibited in release "
            "execution.",
            "Not enabled it in real installation.",
            "This could degrade performance and fail to provide the necessary safety", box,
            "Versions: " }));
}

TEST_F(OrvaneOptionT, LanguageChangeRemovesInstalledTranslators)
{
    test_support::temp_tree_t tree;
    // The smallest translation file the loader accepts: its magic number and no messages.
    static const char magic[] = { '\x3c', '\xb8', '\x64', '\x18', '\xca', '\xef', '\x9c', '\x95',
        '\xcd', '\x21', '\x1c', '\xbf', '\x60', '\xa1', '\xbd', '\xdd' };
    ASSERT_TRUE(tree.write("ctx_it_IT.qm", QByteArray(magic, sizeof(magic))));

    orvane_option_t* options = nullptr;
    {
        fake_getprop_t getprop(kDeviceAnswers);
        options = create_options();
    }
    QTranslator translator;
    ASSERT_TRUE(options->installTranslator(&translator, "ctx", tree.root()));
    EXPECT_EQ(options->Traslators().value("ctx"), &translator);

    {
        fake_getprop_t same(kDeviceAnswers);
        options->read_language();
        EXPECT_EQ(options->Traslators().size(), 1);
    }
    fake_getprop_t other("persist.sys.locale) echo 'fr-fr' ;;");
    EXPECT_EQ(options->read_language(), "fr_FR");
    EXPECT_TRUE(options->Traslators().isEmpty());
}

TEST_F(OrvaneOptionT, MissingTranslationIsRefused)
{
    fake_getprop_t getprop(kDeviceAnswers);
    orvane_option_t* options = create_options();
    test_support::temp_tree_t tree;
    QTranslator translator;
    test_support::log_capture_t capture;
    EXPECT_FALSE(options->installTranslator(&translator, "ctx", tree.root()));
    EXPECT_TRUE(options->Traslators().isEmpty());
    EXPECT_TRUE(capture.contains("Unable to load translation ctx_it_IT from " + tree.root(), 3));
}
