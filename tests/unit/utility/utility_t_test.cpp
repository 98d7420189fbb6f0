#include "common/log_capture_t.h"
#include "common/temp_tree_t.h"

#include "utility/orvane_option_t.h"
#include "utility/utility_t.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using utility::utility_t;

namespace {

QJsonObject parse(const char* text)
{
    return QJsonDocument::fromJson(QByteArray(text)).object();
}

QJsonValue path_value(const QJsonObject& object, const QString& path)
{
    return utility_t::getJsonObjValue(object, path);
}

} // namespace

// ---- flags and numbers ---------------------------------------------------------------------

TEST(UtilityT, QJsonValueToBoolReadsNumbersZeroAndOneAsTrue)
{
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(0)), 1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(1)), 1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(2)), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(0.5)), -1);
}

TEST(UtilityT, QJsonValueToBoolReadsDigitStrings)
{
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("0")), 0);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("1")), 1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("")), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("2")), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("01")), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue("true")), -1);
}

TEST(UtilityT, QJsonValueToBoolReadsBoolsAndRefusesTheRest)
{
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(true)), 1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(false)), 0);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue()), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(QJsonArray { 1 })), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(QJsonObject())), -1);
    EXPECT_EQ(utility_t::QJsonValueToBool(QJsonValue(QJsonValue::Undefined)), -1);
}

TEST(UtilityT, QjsonValueToNumberGivesTextOrEmpty)
{
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue("12a")), "");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue(2.5)), "2.5");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue(1234567.0)), "1.23457e+06");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue(true)), "1");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue(false)), "0");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue("0042")), "0042");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue("")), "");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue()), "");
    EXPECT_EQ(utility_t::QjsonValueToNumber(QJsonValue(QJsonArray { 1 })), "");
}

// ---- identifiers -----------------------------------------------------------------------------

TEST(UtilityT, GenerateNumberUUIdNeverContainsALetter)
{
    const QRegularExpression digits(QRegularExpression::anchoredPattern("[0-9]{32,64}"));
    QSet<QString> seen;
    for (int i = 0; i < 500; ++i) {
        const QString id = utility_t::generateNumberUUId();
        ASSERT_TRUE(digits.match(id).hasMatch()) << id.toStdString();
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 500);
}

TEST(UtilityT, GenerateInstallationIdIs32LowerCaseHexDigits)
{
    const QRegularExpression hex(QRegularExpression::anchoredPattern("[0-9a-f]{32}"));
    const QString first = utility_t::generateInstallationId();
    const QString second = utility_t::generateInstallationId();
    EXPECT_TRUE(hex.match(first).hasMatch()) << first.toStdString();
    EXPECT_TRUE(hex.match(second).hasMatch()) << second.toStdString();
    EXPECT_NE(first, second);
}

TEST(UtilityT, GenerateUUIdIs32HexDigitsWithoutBracesOrDashes)
{
    const QRegularExpression hex(QRegularExpression::anchoredPattern("[0-9a-fA-F]{32}"));
    const QString id = utility_t::generateUUId();
    EXPECT_TRUE(hex.match(id).hasMatch()) << id.toStdString();
}

// ---- dew point and temperatures -------------------------------------------------------------

TEST(UtilityT, DewPointOfTwentyCelsiusAtHalfHumidity)
{
    test_support::log_capture_t capture;
    EXPECT_FLOAT_EQ(utility_t::calculate_dew_point(20.0f, 50.0f, false, 2), 9.25f);
    const QStringList trace = capture.messages(6);
    ASSERT_EQ(trace.size(), 2);
    EXPECT_EQ(trace[0], "Calculate dew point");
    EXPECT_TRUE(trace[1].startsWith("Dew point in celsius 9.25")) << trace[1].toStdString();
}

TEST(UtilityT, DewPointInFahrenheitConvertsBothWays)
{
    test_support::log_capture_t capture;
    const float result = utility_t::calculate_dew_point(68.0f, 50.0f, true, 1);
    EXPECT_FLOAT_EQ(result, 48.7f);
    const QStringList trace = capture.messages(6);
    ASSERT_EQ(trace.size(), 5);
    EXPECT_EQ(trace[0], "Calculate dew point");
    EXPECT_EQ(trace[1], "Receve temperature in fahrenheit 68");
    EXPECT_EQ(trace[2], "Trasform temperature in celsius 20");
    EXPECT_TRUE(trace[3].startsWith("Dew point in celsius 9.25"));
    EXPECT_TRUE(trace[4].startsWith("Return dew point in fahrenheit 48.6"));
}

TEST(UtilityT, DewPointRoundsToTheRequestedDecimals)
{
    EXPECT_FLOAT_EQ(utility_t::calculate_dew_point(20.0f, 50.0f, false, 0), 9.0f);
    EXPECT_FLOAT_EQ(utility_t::calculate_dew_point(20.0f, 100.0f, false, 1), 20.0f);
}

TEST(UtilityT, TemperatureConversions)
{
    EXPECT_FLOAT_EQ(utility_t::fahrenheitToCelsius(212.0f), 100.0f);
    EXPECT_FLOAT_EQ(utility_t::fahrenheitToCelsius(-40.0f), -40.0f);
    EXPECT_FLOAT_EQ(utility_t::celsiusToFahrenheit(100.0f), 212.0f);
    EXPECT_FLOAT_EQ(utility_t::celsiusToFahrenheit(-40.0f), -40.0f);
    EXPECT_FLOAT_EQ(utility_t::celsiusToFahrenheit(37.0f), 98.6f);
}

// ---- JSON files ------------------------------------------------------------------------------

TEST(UtilityT, WriteToFileWithoutPermissionsIsReadableByAllWritableByOwner)
{
    test_support::temp_tree_t tree;
    const QString path = tree.path("settings.json");
    ASSERT_TRUE(utility_t::writeToFile(path, parse(R"({"a":1})")));
    // The "user" bits describe the current user, so only owner, group and other are compared.
    const int owner_group_other = int(QFile::permissions(path)) & ~0x0f00;
    EXPECT_EQ(owner_group_other, 0x6044);
    struct stat info { };
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST(UtilityT, WriteToFileAppliesGivenPermissions)
{
    test_support::temp_tree_t tree;
    const QString path = tree.path("secret.json");
    ASSERT_TRUE(utility_t::writeToFile(
        path, parse(R"({"a":1})"), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    struct stat info { };
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(UtilityT, WriteThenReadRoundTripsAndTruncates)
{
    test_support::temp_tree_t tree;
    const QString path = tree.path("doc.json");
    const QJsonObject big = parse(R"({"name":"ä ü","list":[1,2,{"x":null}],"nested":{"b":true}})");
    ASSERT_TRUE(utility_t::writeToFile(path, big));
    EXPECT_EQ(utility_t::readFromFile(path), big);
    // Written indented: one member per line.
    EXPECT_TRUE(tree.read("doc.json").contains("\n    \"list\""));

    const QJsonObject small = parse(R"({"k":"v"})");
    ASSERT_TRUE(utility_t::writeToFile(path, small));
    EXPECT_EQ(utility_t::readFromFile(path), small);
}

TEST(UtilityT, WriteToFileInMissingFolderFails)
{
    test_support::temp_tree_t tree;
    test_support::log_capture_t capture;
    const QString path = tree.path("missing/doc.json");
    EXPECT_FALSE(utility_t::writeToFile(path, parse(R"({"a":1})")));
    EXPECT_TRUE(capture.contains_fragment("Unable to open file ... " + path, 2));
    EXPECT_FALSE(tree.exists("missing/doc.json"));
}

TEST(UtilityT, ReadFromMissingFileLogsAndGivesEmptyObject)
{
    test_support::temp_tree_t tree;
    test_support::log_capture_t capture;
    const QString path = tree.path("none.json");
    EXPECT_TRUE(utility_t::readFromFile(path).isEmpty());
    EXPECT_TRUE(capture.contains("File not exist ... " + path, 1));
}

TEST(UtilityT, ReadFromMalformedFileLogsParseError)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("bad.json", "{\"a\": 1,"));
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::readFromFile(tree.path("bad.json")).isEmpty());
    EXPECT_TRUE(capture.contains("Error parsing file", 2));
}

TEST(UtilityT, ReadFromEmptyFileLogsParseError)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("empty.json", ""));
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::readFromFile(tree.path("empty.json")).isEmpty());
    EXPECT_TRUE(capture.contains("Error parsing file", 2));
}

TEST(UtilityT, ReadFromArrayFileRefusesIt)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("list.json", "[1, 2]"));
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::readFromFile(tree.path("list.json")).isEmpty());
    EXPECT_TRUE(capture.contains("Not a json object ... " + tree.path("list.json"), 2));
}

TEST(UtilityT, ReadFromFolderLogsOpenFailure)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.mkdir("folder.json"));
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::readFromFile(tree.path("folder.json")).isEmpty());
    EXPECT_TRUE(
        capture.contains_fragment("Unable to open file ... " + tree.path("folder.json"), 2));
}

TEST(UtilityT, ReadFromUnreadableFileLogsOpenFailure)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "running as root: permission bits do not stop root from reading";
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("locked.json", "{\"a\":1}"));
    ASSERT_TRUE(QFile::setPermissions(tree.path("locked.json"), QFileDevice::Permissions()));
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::readFromFile(tree.path("locked.json")).isEmpty());
    EXPECT_TRUE(
        capture.contains_fragment("Unable to open file ... " + tree.path("locked.json"), 2));
}

TEST(UtilityT, FileExistsOnlyForRegularFiles)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("a.txt", "x"));
    ASSERT_TRUE(tree.mkdir("dir"));
    EXPECT_TRUE(utility_t::fileExists(tree.path("a.txt")));
    EXPECT_FALSE(utility_t::fileExists(tree.path("dir")));
    EXPECT_FALSE(utility_t::fileExists(tree.path("missing")));
}

// ---- text conversions ------------------------------------------------------------------------

TEST(UtilityT, QStringToQJsonObjectParsesOrLogs)
{
    test_support::log_capture_t capture;
    EXPECT_EQ(utility_t::QStringToQJsonObject(R"({"a":[1]})"), parse(R"({"a":[1]})"));
    EXPECT_TRUE(capture.records().isEmpty());
    EXPECT_TRUE(utility_t::QStringToQJsonObject("[1,2]").isEmpty());
    EXPECT_TRUE(capture.records().isEmpty());
    EXPECT_TRUE(utility_t::QStringToQJsonObject("{oops").isEmpty());
    EXPECT_TRUE(capture.contains("Error parsing file", 2));
}

TEST(UtilityT, QStringToQJSonArrayParsesOrLogs)
{
    test_support::log_capture_t capture;
    EXPECT_EQ(utility_t::QStringToQJSonArray("[1,\"x\"]"), (QJsonArray { 1, "x" }));
    EXPECT_TRUE(utility_t::QStringToQJSonArray("{\"a\":1}").isEmpty());
    EXPECT_EQ(capture.count("Error parsing file", 2), 0);
    EXPECT_TRUE(utility_t::QStringToQJSonArray("[1,").isEmpty());
    EXPECT_EQ(capture.count("Error parsing file", 2), 1);
}

TEST(UtilityT, QStringToQJsonValueGivesArrayOrObject)
{
    test_support::log_capture_t capture;
    EXPECT_EQ(utility_t::QStringToQJsonValue("[1]"), QJsonValue(QJsonArray { 1 }));
    EXPECT_EQ(utility_t::QStringToQJsonValue("{\"a\":2}"), QJsonValue(parse("{\"a\":2}")));
    const QJsonValue bad = utility_t::QStringToQJsonValue("nope");
    EXPECT_TRUE(bad.isObject());
    EXPECT_TRUE(bad.toObject().isEmpty());
    EXPECT_TRUE(capture.contains("Error parsing file", 2));
}

TEST(UtilityT, JsonToTextAndStringList)
{
    EXPECT_EQ(
        utility_t::QJsonArrayToQString(QJsonArray { 1, "a" }, QJsonDocument::Compact), "[1,\"a\"]");
    EXPECT_EQ(utility_t::QJsonObjectToQString(parse(R"({"k":"v"})"), QJsonDocument::Compact),
        "{\"k\":\"v\"}");
    EXPECT_EQ(utility_t::QJsonObjectToQString(parse(R"({"k":"v"})"), QJsonDocument::Indented),
        "{\n    \"k\": \"v\"\n}\n");
    EXPECT_EQ(utility_t::QJsonArrayToQStringList(QJsonArray { "a", "b", 3 }),
        (QStringList { "a", "b", "3" }));
}

// ---- path access -----------------------------------------------------------------------------

TEST(UtilityT, GetJsonValueFollowsKeysWithOrWithoutTrailingSlash)
{
    const QJsonObject doc = parse(R"({"static":{"device":{"product_name":"hub"}}})");
    EXPECT_EQ(path_value(doc, "static/device/product_name"), QJsonValue("hub"));
    EXPECT_EQ(path_value(doc, "static/device/product_name/"), QJsonValue("hub"));
    EXPECT_EQ(path_value(doc, "static/device/"), QJsonValue(parse(R"({"product_name":"hub"})")));
}

TEST(UtilityT, GetJsonValueReadsIndexes)
{
    const QJsonObject doc = parse(R"({"list":["a","b",{"x":7}],"m":[[1,2],[3,4]]})");
    EXPECT_EQ(path_value(doc, "list[1]"), QJsonValue("b"));
    EXPECT_EQ(path_value(doc, "list/1"), QJsonValue("b"));
    EXPECT_EQ(path_value(doc, "list[2]/x"), QJsonValue(7));
    EXPECT_EQ(path_value(doc, "list[2]x"), QJsonValue(7));
    EXPECT_EQ(path_value(doc, "m[1][0]"), QJsonValue(3));
    EXPECT_EQ(path_value(doc, "m[1]/1"), QJsonValue(4));
    EXPECT_EQ(path_value(doc, "m/0/1"), QJsonValue(2));
}

TEST(UtilityT, GetJsonValueOnArrayRootReadsFirstStepAsIndex)
{
    QJsonValue root(QJsonArray { "zero", QJsonObject { { "k", "v" } } });
    EXPECT_EQ(utility_t::getJsonValue(root, "0"), QJsonValue("zero"));
    EXPECT_EQ(utility_t::getJsonValue(root, "1/k"), QJsonValue("v"));
    EXPECT_EQ(utility_t::getJsonValue(root, "[1]/k"), QJsonValue("v"));
}

TEST(UtilityT, GetJsonValueMissingKeyOrIndexIsUndefined)
{
    const QJsonObject doc = parse(R"({"a":{"b":1},"list":[1,2]})");
    EXPECT_TRUE(path_value(doc, "missing").isUndefined());
    EXPECT_TRUE(path_value(doc, "a/missing").isUndefined());
    EXPECT_TRUE(path_value(doc, "missing/deeper/still").isUndefined());
    EXPECT_TRUE(path_value(doc, "list[5]").isUndefined());
    EXPECT_TRUE(path_value(doc, "list/5").isUndefined());
    EXPECT_TRUE(path_value(doc, "list/x").isUndefined());
    EXPECT_TRUE(path_value(doc, "a[0]").isUndefined());
    EXPECT_TRUE(path_value(doc, "list[1").isUndefined());
    EXPECT_TRUE(path_value(QJsonObject(), "a/b").isUndefined());
}

TEST(UtilityT, GetJsonValueStopsAtAPlainValue)
{
    // The rest of a path is only followed into arrays and objects.
    const QJsonObject doc = parse(R"({"a":"text","n":null})");
    EXPECT_EQ(path_value(doc, "a/b/c"), QJsonValue("text"));
    EXPECT_TRUE(path_value(doc, "n/x").isNull());
}

TEST(UtilityT, UpdateJsonValueReplacesAndCreatesMembers)
{
    QJsonValue root(parse(R"({"a":{"b":1,"keep":true}})"));
    utility_t::updateJsonValue(root, "a/b", QJsonValue(2));
    utility_t::updateJsonValue(root, "x/y/z", QJsonValue("new"));
    EXPECT_EQ(root.toObject(), parse(R"({"a":{"b":2,"keep":true},"x":{"y":{"z":"new"}}})"));
}

TEST(UtilityT, UpdateJsonValueWithTrailingSlashWritesTheNamedMember)
{
    QJsonObject doc = parse(R"({"static":{"orvane":{"comunication":{"global":{}}}}})");
    QJsonValue root(doc);
    utility_t::updateJsonValue(
        root, "static/orvane/comunication/global/installation_id/", QJsonValue("id1"));
    utility_t::updateJsonValue(root, "installation/installation_id", QJsonValue("id1"));
    EXPECT_EQ(root.toObject(), parse(R"({"installation":{"installation_id":"id1"},
                        "static":{"orvane":{"comunication":{"global":{"installation_id":"id1"}}}}})"));
    EXPECT_EQ(utility_t::getJsonObjValue(
                  root.toObject(), "static/orvane/comunication/global/installation_id/"),
        QJsonValue("id1"));
}

TEST(UtilityT, UpdateJsonValueWritesIntoArrays)
{
    QJsonValue root(parse(R"({"list":[1,2,3],"m":[[1,2],[3,4]]})"));
    utility_t::updateJsonValue(root, "list[1]", QJsonValue("two"));
    utility_t::updateJsonValue(root, "list/3", QJsonValue(4));
    utility_t::updateJsonValue(root, "m[1][0]", QJsonValue(30));
    utility_t::updateJsonValue(root, "m[0]/1", QJsonValue(20));
    utility_t::updateJsonValue(root, "fresh[2]", QJsonValue(true));
    EXPECT_EQ(root.toObject(),
        parse(R"({"list":[1,"two",3,4],"m":[[1,20],[30,4]],"fresh":[null,null,true]})"));
}

TEST(UtilityT, UpdateJsonValueNullRemovesObjectMemberQuietly)
{
    QJsonValue root(parse(R"({"a":{"b":1,"c":2}})"));
    test_support::log_capture_t capture;
    utility_t::updateJsonValue(root, "a/b", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"a":{"c":2}})"));
    EXPECT_TRUE(capture.records().isEmpty());
}

TEST(UtilityT, UpdateJsonValueNullOnMissingKeyLogsNo)
{
    QJsonValue root(parse(R"({"a":{"c":2}})"));
    test_support::log_capture_t capture;
    utility_t::updateJsonValue(root, "a/b", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"a":{"c":2}})"));
    EXPECT_TRUE(capture.contains("No: b", 3));
}

TEST(UtilityT, UpdateJsonValueNullUnderMissingBranchCreatesNothing)
{
    QJsonValue root(parse(R"({"a":1})"));
    test_support::log_capture_t capture;
    utility_t::updateJsonValue(root, "x/y", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"a":1})"));
    EXPECT_TRUE(capture.contains("No: y", 3));
}

TEST(UtilityT, UpdateJsonValueNullRemovesArrayElementAndLogsIt)
{
    QJsonValue root(parse(R"({"list":["a","b","c"]})"));
    test_support::log_capture_t capture;
    utility_t::updateJsonValue(root, "list[1]", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"list":["a","c"]})"));
    EXPECT_TRUE(capture.contains("Remove: 1", 3));
    utility_t::updateJsonValue(root, "list/0", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"list":["c"]})"));
    EXPECT_TRUE(capture.contains("Remove: 0", 3));
    utility_t::updateJsonValue(root, "list[4]", QJsonValue());
    EXPECT_EQ(root.toObject(), parse(R"({"list":["c"]})"));
    EXPECT_TRUE(capture.contains("No: 4", 3));
}

TEST(UtilityT, UpdateJsonDocumentKeepsItsRootKind)
{
    QJsonDocument object_doc(parse(R"({"a":1})"));
    utility_t::updateJsonValue(object_doc, "b", QJsonValue(2));
    EXPECT_TRUE(object_doc.isObject());
    EXPECT_EQ(object_doc.object(), parse(R"({"a":1,"b":2})"));

    QJsonDocument array_doc(QJsonArray { 1, QJsonObject { { "k", 1 } } });
    utility_t::updateJsonValue(array_doc, "1/k", QJsonValue(5));
    utility_t::updateJsonValue(array_doc, "0", QJsonValue());
    ASSERT_TRUE(array_doc.isArray());
    EXPECT_EQ(array_doc.array(), (QJsonArray { QJsonObject { { "k", 5 } } }));

    QJsonDocument empty_doc;
    utility_t::updateJsonValue(empty_doc, "k", QJsonValue("v"));
    EXPECT_EQ(empty_doc.object(), parse(R"({"k":"v"})"));
}

// ---- hashes ----------------------------------------------------------------------------------

TEST(UtilityT, GetHashOfTextIsSha1Hex)
{
    EXPECT_EQ(
        utility_t::getHash(QStringLiteral("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(UtilityT, GetHashOfObjectHashesCompactText)
{
    const QJsonObject object = parse(R"({ "b" : 1 , "a" : "x" })");
    EXPECT_EQ(
        utility_t::getHash(object), utility_t::getHash(QStringLiteral("{\"a\":\"x\",\"b\":1}")));
}

TEST(UtilityT, GetHashOfFileStreamsTheWholeFile)
{
    test_support::temp_tree_t tree;
    ASSERT_TRUE(tree.write("abc.txt", "abc"));
    EXPECT_EQ(utility_t::getHash(tree.path("abc.txt"), QCryptographicHash::Md5),
        "900150983cd24fb0d6963f7d28e17f72");
    const QByteArray big = test_support::temp_tree_t::random_bytes(3 * 1024 * 1024 + 17, 9);
    ASSERT_TRUE(tree.write("big.bin", big));
    EXPECT_EQ(utility_t::getHash(tree.path("big.bin"), QCryptographicHash::Sha256),
        QString::fromLatin1(QCryptographicHash::hash(big, QCryptographicHash::Sha256).toHex()));
}

TEST(UtilityT, GetHashOfMissingFileIsNull)
{
    test_support::temp_tree_t tree;
    const QString hash = utility_t::getHash(tree.path("nothing"), QCryptographicHash::Md5);
    EXPECT_TRUE(hash.isNull());
}

// ---- printing ------------------------------------------------------------------------------

TEST(UtilityT, PrintJsonLogsEachPlainValue)
{
    test_support::log_capture_t capture;
    utility_t::printJson(QJsonArray { true, 2.5, "text", QJsonValue(), QJsonArray { false } });
    utility_t::printJson(QJsonValue(QJsonValue::Undefined));
    EXPECT_EQ(capture.messages(4),
        (QStringList { "Value is true", "Value is 2.5", "Value is text", "Value is null",
            "Value is false", "Value is udefined" }));
}

TEST(UtilityT, PrintJsonObjectLogsDocumentAtTrace)
{
    test_support::log_capture_t capture;
    utility_t::printJson(QJsonValue(parse(R"({"k":1})")), QJsonDocument::Compact);
    utility_t::printJsonObject(parse(R"({"k":1})"), QJsonDocument::Indented);
    EXPECT_EQ(capture.messages(6), (QStringList { "{\"k\":1}", "{\n    \"k\": 1\n}\n" }));
}

// ---- waiting and event loops ---------------------------------------------------------------

TEST(UtilityT, AmSleepWaitsWhileEventsKeepFlowing)
{
    test_support::log_capture_t capture;
    bool fired = false;
    QTimer::singleShot(20, [&fired] { fired = true; });
    QElapsedTimer elapsed;
    elapsed.start();
    utility_t::amSleep(250);
    EXPECT_GE(elapsed.elapsed(), 240);
    EXPECT_TRUE(fired);
    EXPECT_TRUE(capture.contains("Wait 250 millisec....", 6));
}

TEST(UtilityT, ASleepLogsSeconds)
{
    test_support::log_capture_t capture;
    utility_t::aSleep(1);
    EXPECT_TRUE(capture.contains("Wait 1 sec....", 6));
}

TEST(UtilityT, HaveEventLoopReportsTheDispatcher)
{
    test_support::log_capture_t capture;
    EXPECT_TRUE(utility_t::HaveEventLoop(QThread::currentThread()));
    EXPECT_TRUE(capture.contains("Have event loop", 2));
    QThread idle; // never started: no dispatcher yet
    EXPECT_FALSE(utility_t::HaveEventLoop(&idle));
    EXPECT_FALSE(utility_t::HaveEventLoop(nullptr));
    EXPECT_EQ(capture.count("Not have event loop", 2), 2);
}

// ---- processes -------------------------------------------------------------------------------

TEST(UtilityT, ExecProcessCollectsOutputsAndExitCode)
{
    test_support::log_capture_t capture;
    QString out;
    QString err;
    const QString script = "echo '  hello    world  '; echo '  bad  news ' >&2; exit 3";
    EXPECT_EQ(utility_t::execProcess("sh", { "-c", script }, 5000, out, err), 3);
    EXPECT_EQ(out, "hello world");
    EXPECT_EQ(err, "bad news");
    const QString prefix = "sh -c " + script;
    EXPECT_TRUE(capture.contains(prefix + " EXIT CODE: 3", 6));
    EXPECT_TRUE(capture.contains(prefix + " STANDARD OUTPUT: hello world", 6));
    EXPECT_TRUE(capture.contains(prefix + " STANDARD ERROR : bad news", 6));
}

TEST(UtilityT, ExecProcessGivesStdinEndOfFile)
{
    QString out;
    QString err;
    EXPECT_EQ(utility_t::execProcess("cat", {}, 5000, out, err), 0);
    EXPECT_EQ(out, "");
}

TEST(UtilityT, ExecProcessOfMissingProgramGivesMinusTwo)
{
    test_support::log_capture_t capture;
    QString out = "stale";
    QString err = "stale";
    EXPECT_EQ(utility_t::execProcess("/nonexistent/program", { "x" }, 2000, out, err), -2);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(capture.contains("/nonexistent/program x EXIT CODE: -2", 6));
}

TEST(UtilityT, ExecProcessKillsAProgramThatOverrunsItsTimeout)
{
    QString out;
    QString err;
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(utility_t::execProcess("sleep", { "30" }, 200, out, err), -1);
    EXPECT_LT(elapsed.elapsed(), 10000);
}

TEST(UtilityT, ExecProcessRunsInTheCurrentFolderOffDevice)
{
    utility::orvane_option_t::createInstance(
        QCoreApplication::instance(), "linux", "1", {}, "b", "c", "t");
    QString out;
    QString err;
    EXPECT_EQ(utility_t::execProcess("pwd", {}, 5000, out, err), 0);
    EXPECT_EQ(out, QDir::currentPath());
    utility::orvane_option_t::destroyInstance();
}

TEST(UtilityT, ExecProcessOnDeviceRunsInDataLocal)
{
    if (!QFileInfo(QStringLiteral("/data/local")).isDir())
        GTEST_SKIP() << "/data/local does not exist on this machine";
    utility::orvane_option_t::createInstance(
        QCoreApplication::instance(), "android_embedded", "1", {}, "b", "c", "t");
    QString out;
    QString err;
    EXPECT_EQ(utility_t::execProcess("pwd", {}, 5000, out, err), 0);
    EXPECT_EQ(out, "/data/local");
    utility::orvane_option_t::destroyInstance();
}
