#include "utility/utility_t.h"

#include "platform/logs/classlogs.h"
#include "utility/orvane_option_t.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QException>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <QTime>
#include <QTimer>
#include <QUuid>
#include <QVariant>

#include <charconv>
#include <cmath>
#include <exception>

namespace utility {

namespace {

constexpr const char* kLogFile = "server/utility/utility_t";

#define UTILITY_LOG(message, level) ORVANE_LOG((message), (level), kLogFile)

const QRegularExpression& digits_only()
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("\\d*")));
    return pattern;
}

// Shortest text that reads back as the same float, in general notation.
QString float_text(float value)
{
    char buffer[64];
    const auto result
        = std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::general);
    return QString::fromLatin1(buffer, int(result.ptr - buffer));
}

// One step of a JSON path: a key (or, applied to an array, an index written as text) or an index
// given in brackets.
struct path_token_t {
    QString key;
    int index = -1;
    bool bracketed = false;
};

// Splits the first "/"-separated step of `path` into its tokens and returns the rest of the path.
// "name[3]/x" gives {name, [3]} and "x"; "[1][2]" gives {[1], [2]} (an empty name in front of a
// bracket means the current value itself). A malformed bracket makes `ok` false.
QList<path_token_t> split_step(const QString& path, QString& rest, bool& ok)
{
    QList<path_token_t> tokens;
    ok = true;
    const qsizetype slash = path.indexOf(QLatin1Char('/'));
    const qsizetype bracket = path.indexOf(QLatin1Char('['));
    qsizetype end = path.size();
    if (slash >= 0)
        end = slash;
    if (bracket >= 0 && bracket < end)
        end = bracket;

    const QString name = path.left(end);
    const bool has_brackets = end == bracket;
    if (!(has_brackets && name.isEmpty()))
        tokens.append(path_token_t { name, -1, false });

    if (!has_brackets) {
        rest = end < path.size() ? path.mid(end + 1) : QString();
        return tokens;
    }

    qsizetype pos = end;
    while (pos < path.size() && path.at(pos) == QLatin1Char('[')) {
        const qsizetype close = path.indexOf(QLatin1Char(']'), pos);
        if (close < 0) {
            ok = false;
            rest.clear();
            return tokens;
        }
        bool number = false;
        const int index = path.mid(pos + 1, close - pos - 1).toInt(&number);
        if (!number)
            ok = false;
        tokens.append(path_token_t { QString(), index, true });
        pos = close + 1;
    }
    if (pos < path.size() && path.at(pos) == QLatin1Char('/'))
        ++pos;
    rest = path.mid(pos);
    return tokens;
}

// Index that `token` designates in an array, -1 when it designates none.
int token_index(const path_token_t& token)
{
    if (token.bracketed)
        return token.index;
    bool ok = false;
    const int index = token.key.toInt(&ok);
    return ok ? index : -1;
}

QJsonValue child_of(const QJsonValue& node, const path_token_t& token)
{
    if (node.isArray())
        return node.toArray().at(token_index(token));
    if (node.isObject() && !token.bracketed)
        return node.toObject().value(token.key);
    return QJsonValue(QJsonValue::Undefined);
}

QJsonValue get_value(const QJsonValue& root, const QString& path)
{
    QString rest;
    bool ok = true;
    const QList<path_token_t> tokens = split_step(path, rest, ok);
    if (!ok)
        return QJsonValue(QJsonValue::Undefined);
    QJsonValue found = root;
    for (const path_token_t& token : tokens)
        found = child_of(found, token);
    // A path that runs on past a plain value ends at that value.
    if (rest.isEmpty() || !(found.isArray() || found.isObject()))
        return found;
    return get_value(found, rest);
}

// Most nulls that one write may add in front of a new array element.
constexpr qsizetype kMaxArrayGap = 4096;

// Stores `value` under `token` in `node`, turning `node` into the container the token needs:
// a bracketed index needs an array; a key needs an object unless `node` already is an array, in
// which case the key is read as an index. Gaps before a new array index are filled with null, up
// to kMaxArrayGap of them; an index farther out is refused like a negative one.
void set_child(QJsonValue& node, const path_token_t& token, const QJsonValue& value)
{
    if (node.isArray() || token.bracketed) {
        QJsonArray array = node.toArray();
        const int index = token_index(token);
        // An index far past the end would fill the gap with millions of nulls (a path such as
        // "list[2000000000]" exhausts memory); no document we read has arrays anywhere near that.
        if (index < 0 || index - array.size() > kMaxArrayGap) {
            UTILITY_LOG(QStringLiteral("Wrong index: %1")
                            .arg(token.bracketed ? QString::number(token.index) : token.key),
                3);
            return;
        }
        while (array.size() < index)
            array.append(QJsonValue(QJsonValue::Null));
        if (index < array.size())
            array.replace(index, value);
        else
            array.append(value);
        node = array;
        return;
    }
    QJsonObject object = node.toObject();
    object.insert(token.key, value);
    node = object;
}

void remove_child(QJsonValue& node, const path_token_t& token)
{
    if (node.isArray()) {
        QJsonArray array = node.toArray();
        const int index = token_index(token);
        if (index < 0 || index >= array.size()) {
            UTILITY_LOG(QStringLiteral("No: %1").arg(
                            token.bracketed ? QString::number(token.index) : token.key),
                3);
            return;
        }
        array.removeAt(index);
        UTILITY_LOG(QStringLiteral("Remove: %1").arg(index), 3);
        node = array;
        return;
    }
    const QString key = token.bracketed ? QString::number(token.index) : token.key;
    QJsonObject object = node.toObject();
    if (!node.isObject() || token.bracketed || !object.contains(key)) {
        UTILITY_LOG(QStringLiteral("No: %1").arg(key), 3);
        return;
    }
    object.remove(key);
    node = object;
}

void update_value(QJsonValue& root, const QString& path, const QJsonValue& value);

void update_tokens(QJsonValue& node, const QList<path_token_t>& tokens, int position,
    const QString& rest, const QJsonValue& value)
{
    const path_token_t& token = tokens.at(position);
    const bool last_token = position == tokens.size() - 1;
    if (last_token && rest.isEmpty()) {
        if (value.isNull())
            remove_child(node, token);
        else
            set_child(node, token, value);
        return;
    }
    QJsonValue sub = child_of(node, token);
    if (last_token)
        update_value(sub, rest, value);
    else
        update_tokens(sub, tokens, position + 1, rest, value);
    // Removing something below a missing branch must not create that branch.
    if (sub.isUndefined())
        return;
    set_child(node, token, sub);
}

void update_value(QJsonValue& root, const QString& path, const QJsonValue& value)
{
    QString rest;
    bool ok = true;
    const QList<path_token_t> tokens = split_step(path, rest, ok);
    if (!ok) {
        UTILITY_LOG(QStringLiteral("Wrong index: %1").arg(path), 3);
        return;
    }
    if (tokens.isEmpty()) {
        if (!rest.isEmpty())
            update_value(root, rest, value);
        return;
    }
    update_tokens(root, tokens, 0, rest, value);
}

QString exception_text(const std::exception& error)
{
    return QString::fromLocal8Bit(error.what());
}

} // namespace

QJsonObject utility_t::readFromFile(const QString& path)
{
    try {
        if (!QFile::exists(path)) {
            UTILITY_LOG(QStringLiteral("File not exist ... ") + path, 1);
            return {};
        }
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            UTILITY_LOG(
                QStringLiteral("Unable to open file ... %1 (%2)").arg(path, file.errorString()), 2);
            return {};
        }
        const QByteArray data = file.readAll();
        file.close();
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(data, &error);
        if (error.error != QJsonParseError::NoError) {
            UTILITY_LOG(QStringLiteral("Error parsing file"), 2);
            return {};
        }
        if (!document.isObject())
            UTILITY_LOG(QStringLiteral("Not a json object ... ") + path, 2);
        return document.object();
    } catch (const std::exception& error) {
        UTILITY_LOG(QStringLiteral("Handling exception: ") + exception_text(error), 1);
    } catch (const QString& error) {
        UTILITY_LOG(QStringLiteral("Handling exception: ") + error, 1);
    }
    return {};
}

bool utility_t::writeToFile(
    const QString& path, const QJsonObject& object, QFileDevice::Permissions permissions)
{
    try {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            UTILITY_LOG(
                QStringLiteral("Unable to open file ... %1 (%2)").arg(path, file.errorString()), 2);
            return false;
        }
        const QByteArray text = QJsonDocument(object).toJson(QJsonDocument::Indented);
        const bool written = file.write(text) == text.size();
        file.close();
        if (!written || file.error() != QFileDevice::NoError) {
            UTILITY_LOG(
                QStringLiteral("Unable to write file ... %1 (%2)").arg(path, file.errorString()),
                2);
            return false;
        }
        if (permissions == QFileDevice::Permissions())
            permissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser
                | QFileDevice::ReadGroup | QFileDevice::ReadOther;
        file.setPermissions(permissions);
        return true;
    } catch (const std::exception& error) {
        UTILITY_LOG(QStringLiteral("Handling exception: ") + exception_text(error), 1);
    } catch (const QString& error) {
        UTILITY_LOG(QStringLiteral("Handling exception: ") + error, 1);
    }
    return false;
}

bool utility_t::fileExists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() && info.isFile();
}

void utility_t::printJsonObject(const QJsonObject& object, QJsonDocument::JsonFormat format)
{
    UTILITY_LOG(QString::fromUtf8(QJsonDocument(object).toJson(format)), 6);
}

void utility_t::printJson(const QJsonValue& value, QJsonDocument::JsonFormat format)
{
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        for (const QJsonValue& element : array)
            printJson(element, format);
        return;
    }
    if (value.isObject()) {
        printJsonObject(value.toObject(), format);
        return;
    }
    QString text;
    switch (value.type()) {
    case QJsonValue::Bool:
        text = value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
        break;
    case QJsonValue::Double:
        text = QString::number(value.toDouble());
        break;
    case QJsonValue::String:
        text = value.toString();
        break;
    case QJsonValue::Null:
        text = QStringLiteral("null");
        break;
    default:
        text = QStringLiteral("udefined");
        break;
    }
    UTILITY_LOG(QStringLiteral("Value is %1").arg(text), 4);
}

namespace {

// Keeps the calling thread's events flowing until the time of day reaches the deadline. Each round
// waits for events at most 100 ms, so the loop sleeps instead of spinning.
void wait_processing_events(int milliseconds)
{
    const QTime deadline = QTime::currentTime().addMSecs(milliseconds);
    QEventLoop loop;
    QTimer tick;
    tick.setSingleShot(true);
    QObject::connect(&tick, &QTimer::timeout, &loop, &QEventLoop::quit);
    for (QTime now = QTime::currentTime(); now < deadline; now = QTime::currentTime()) {
        tick.start(qMin(100, now.msecsTo(deadline)));
        loop.exec();
    }
}

} // namespace

void utility_t::aSleep(int seconds)
{
    UTILITY_LOG(QStringLiteral("Wait ") + QString::number(seconds) + QStringLiteral(" sec...."), 6);
    wait_processing_events(seconds * 1000);
}

void utility_t::amSleep(int milliseconds)
{
    UTILITY_LOG(
        QStringLiteral("Wait ") + QString::number(milliseconds) + QStringLiteral(" millisec...."),
        6);
    wait_processing_events(milliseconds);
}

QJsonObject utility_t::QStringToQJsonObject(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        UTILITY_LOG(QStringLiteral("Error parsing file"), 2);
        return {};
    }
    return document.object();
}

QJsonArray utility_t::QStringToQJSonArray(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        UTILITY_LOG(QStringLiteral("Error parsing file"), 2);
        return {};
    }
    return document.array();
}

QJsonValue utility_t::QStringToQJsonValue(const QString& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        UTILITY_LOG(QStringLiteral("Error parsing file"), 2);
        return QJsonObject();
    }
    if (document.isArray())
        return document.array();
    return document.object();
}

QString utility_t::QJsonArrayToQString(const QJsonArray& array, QJsonDocument::JsonFormat format)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(format));
}

QString utility_t::QJsonObjectToQString(const QJsonObject& object, QJsonDocument::JsonFormat format)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(format));
}

QList<QString> utility_t::QJsonArrayToQStringList(const QJsonArray& array)
{
    return QVariant(array.toVariantList()).toStringList();
}

int utility_t::QJsonValueToBool(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? 1 : 0;
    case QJsonValue::Double: {
        // Both 0 and 1 read as true: that is what deployed configurations rely on.
        const double number = value.toDouble();
        return (number == 0 || number == 1) ? 1 : -1;
    }
    case QJsonValue::String: {
        const QString text = value.toString();
        if (!digits_only().match(text).hasMatch())
            return -1;
        if (text == QLatin1String("1"))
            return 1;
        if (text == QLatin1String("0"))
            return 0;
        return -1;
    }
    default:
        return -1;
    }
}

QString utility_t::QjsonValueToNumber(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QJsonValue::Double:
        return QString::number(value.toDouble(), 'g', 6);
    case QJsonValue::String: {
        const QString text = value.toString();
        return digits_only().match(text).hasMatch() ? text : QString();
    }
    default:
        return QString();
    }
}

QJsonValue utility_t::getJsonValue(QJsonValue& root, const QString& path)
{
    return get_value(root, path);
}

QJsonValue utility_t::getJsonObjValue(const QJsonObject& object, const QString& path)
{
    QJsonValue root(object);
    return getJsonValue(root, path);
}

void utility_t::updateJsonValue(QJsonValue& root, const QString& path, const QJsonValue& value)
{
    update_value(root, path, value);
}

void utility_t::updateJsonValue(
    QJsonDocument& document, const QString& path, const QJsonValue& value)
{
    QJsonValue root
        = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    update_value(root, path, value);
    if (root.isArray())
        document.setArray(root.toArray());
    else
        document.setObject(root.toObject());
}

QString utility_t::generateInstallationId()
{
    static const QRegularExpression not_id_character(QStringLiteral("[^a-zA-Z0-9\\s]"));
    return QUuid::createUuid().toString().remove(not_id_character);
}

QString utility_t::generateUUId()
{
    static const QRegularExpression braces(QStringLiteral("[}{]"));
    return QUuid::createUuid().toString().remove(braces).remove(QLatin1Char('-'));
}

QString utility_t::generateNumberUUId()
{
    static const QRegularExpression braces(QStringLiteral("[}{]"));
    QString text = QUuid::createUuid().toString();
    static const char* const digits[] = { "10", "11", "12", "13", "14", "15" };
    for (int i = 0; i < 6; ++i)
        text.replace(QLatin1Char(char('a' + i)), QLatin1String(digits[i]));
    return text.remove(braces).remove(QLatin1Char('-'));
}

QString utility_t::getHash(const QString& text)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha1).toHex());
}

QString utility_t::getHash(const QJsonObject& object)
{
    return QString::fromLatin1(QCryptographicHash::hash(
        QJsonDocument(object).toJson(QJsonDocument::Compact), QCryptographicHash::Sha1)
                                   .toHex());
}

QString utility_t::getHash(const QString& file_path, QCryptographicHash::Algorithm algorithm)
{
    QFile file(file_path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(algorithm);
    // addData(QIODevice*) reads in blocks, so large files are never held in memory.
    if (!hash.addData(&file))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

bool utility_t::HaveEventLoop(QThread* thread)
{
    const bool have = thread && thread->eventDispatcher();
    UTILITY_LOG(
        have ? QStringLiteral("Have event loop") : QStringLiteral("Not have event loop"), 2);
    return have;
}

int utility_t::execProcess(const QString& program, const QStringList& arguments, int timeout_ms,
    QString& standard_output, QString& standard_error)
{
    QProcess process;
    process.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    if (orvane_option_t* options = orvane_option_t::getInstance()) {
        if (options->Platform() == QLatin1String("android_embedded"))
            process.setWorkingDirectory(QStringLiteral("/data/local"));
    }
    process.start(program, arguments, QIODevice::ReadWrite);
    int exit_code = -2;
    if (process.waitForStarted(timeout_ms)) {
        // Nothing is ever written to the program: give it end-of-file rather than a stdin that
        // never closes.
        process.closeWriteChannel();
        if (process.waitForFinished(timeout_ms)) {
            exit_code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        } else {
            process.kill();
            process.waitForFinished(1000);
            exit_code = -1;
        }
    }
    standard_output = QString::fromLocal8Bit(process.readAllStandardOutput()).simplified();
    standard_error = QString::fromLocal8Bit(process.readAllStandardError()).simplified();

    const QString joined = arguments.join(QLatin1Char(' '));
    UTILITY_LOG(QStringLiteral("%1 %2 EXIT CODE: %3").arg(program, joined).arg(exit_code), 6);
    UTILITY_LOG(
        QStringLiteral("%1 %2 STANDARD OUTPUT: %3").arg(program, joined, standard_output), 6);
    UTILITY_LOG(
        QStringLiteral("%1 %2 STANDARD ERROR : %3").arg(program, joined, standard_error), 6);
    return exit_code;
}

float utility_t::calculate_dew_point(
    float temperature, float humidity, bool fahrenheit, unsigned decimals)
{
    constexpr float a = 17.27f;
    constexpr float b = 237.7f;
    UTILITY_LOG(QStringLiteral("Calculate dew point"), 6);
    if (fahrenheit) {
        UTILITY_LOG(
            QStringLiteral("Receve temperature in fahrenheit %1").arg(float_text(temperature)), 6);
        temperature = float((temperature - 32) * 0.5555555555555556);
        UTILITY_LOG(
            QStringLiteral("Trasform temperature in celsius %1").arg(float_text(temperature)), 6);
    }
    const float g = a * temperature / (b + temperature) + std::log(humidity / 100.0f);
    float dew_point = b * g / (a - g);
    UTILITY_LOG(QStringLiteral("Dew point in celsius %1").arg(float_text(dew_point)), 6);
    if (fahrenheit) {
        dew_point = dew_point * 9 / 5 + 32;
        UTILITY_LOG(
            QStringLiteral("Return dew point in fahrenheit %1").arg(float_text(dew_point)), 6);
    }
    return QString::number(dew_point, 'f', int(decimals)).toFloat();
}

float utility_t::fahrenheitToCelsius(float fahrenheit)
{
    return float((double(fahrenheit) - 32.0) * 5.0 / 9.0);
}

float utility_t::celsiusToFahrenheit(float celsius)
{
    return float(double(celsius) * 9.0 / 5.0 + 32.0);
}

} // namespace utility
