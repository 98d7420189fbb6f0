// Static helpers used all over the library: JSON conversion and path access, JSON files,
// hashing, identifiers, running external programs, waiting while the event loop runs, and the
// dew-point calculation. The class has no state; every function may be called from any thread.
// Failures are reported through the log facility and empty/false/-1 results, never by throwing.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QCryptographicHash>
#include <QFileDevice>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

class QThread;

namespace utility {

class CONTEXT_SYNC_EXPORT utility_t {
public:
    utility_t() = delete;

    // JSON files. readFromFile gives an empty object for a missing, unreadable or malformed file;
    // writeToFile writes indented JSON and applies `permissions` (owner read/write plus read for
    // everybody when the set is empty).
    static QJsonObject readFromFile(const QString& path);
    static bool writeToFile(
        const QString& path, const QJsonObject& object, QFileDevice::Permissions permissions = {});
    static bool fileExists(const QString& path);

    static void printJsonObject(
        const QJsonObject& object, QJsonDocument::JsonFormat format = QJsonDocument::Indented);
    static void printJson(
        const QJsonValue& value, QJsonDocument::JsonFormat format = QJsonDocument::Indented);

    // Wait the given time while the calling thread keeps processing its events.
    static void aSleep(int seconds);
    static void amSleep(int milliseconds);

    static QJsonObject QStringToQJsonObject(const QString& text);
    static QJsonArray QStringToQJSonArray(const QString& text);
    static QJsonValue QStringToQJsonValue(const QString& text);
    static QString QJsonArrayToQString(
        const QJsonArray& array, QJsonDocument::JsonFormat format = QJsonDocument::Compact);
    static QString QJsonObjectToQString(
        const QJsonObject& object, QJsonDocument::JsonFormat format = QJsonDocument::Compact);
    static QList<QString> QJsonArrayToQStringList(const QJsonArray& array);

    // 1 for true, 0 for false, -1 when the value does not read as a flag.
    static int QJsonValueToBool(const QJsonValue& value);
    static QString QjsonValueToNumber(const QJsonValue& value);

    // Path access into a JSON tree. Steps are separated by "/"; a step may carry indexes in
    // brackets ("name[3]", "matrix[1][0]"); a step applied to an array is read as an index. A
    // missing key or index gives an undefined value; a trailing "/" adds nothing; a path that runs
    // on past a plain value (string, number, bool, null) gives that value.
    static QJsonValue getJsonValue(QJsonValue& root, const QString& path);
    static QJsonValue getJsonObjValue(const QJsonObject& object, const QString& path);
    // Writes `value` at the path, creating missing containers; a null value removes the entry.
    // An array index more than 4096 past the array's end is refused (level 3, "Wrong index: n").
    static void updateJsonValue(QJsonValue& root, const QString& path, const QJsonValue& value);
    static void updateJsonValue(
        QJsonDocument& document, const QString& path, const QJsonValue& value);

    static QString generateInstallationId();
    static QString generateUUId();
    static QString generateNumberUUId();

    static QString getHash(const QString& text);
    static QString getHash(const QJsonObject& object);
    // Digest of a whole file, read in blocks; a null string when it cannot be opened or read.
    static QString getHash(const QString& file_path, QCryptographicHash::Algorithm algorithm);

    static bool HaveEventLoop(QThread* thread);

    // Runs `program` and waits up to `timeout_ms`. Returns its exit code, -2 when it could not be
    // started and -1 when it crashed or was killed after the time-out.
    static int execProcess(const QString& program, const QStringList& arguments, int timeout_ms,
        QString& standard_output, QString& standard_error);

    static float calculate_dew_point(
        float temperature, float humidity, bool fahrenheit, unsigned decimals);
    static float fahrenheitToCelsius(float fahrenheit);
    static float celsiusToFahrenheit(float celsius);
};

} // namespace utility
