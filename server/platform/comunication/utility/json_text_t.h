// Compact JSON text of the rr layer's envelopes, byte for byte what
// QJsonDocument::toJson(QJsonDocument::Compact) writes, but cheap for the long plain-ASCII strings
// that chunks carry (their Base64 data is about 680 KB per chunk). Qt's writer escapes such a
// string one UTF-16 unit at a time, which cost about a sixth of the server's work per chunk sent;
// here a string made only of printable ASCII without '"' or '\' is copied as it stands, and every
// other value is still written by Qt, so the output never differs.
// Pure functions, no state, any thread.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringView>

namespace comunication::utility {

class json_text_t {
public:
    static QByteArray compact(const QJsonObject& object);
    static QByteArray compact(const QJsonArray& array);

    // True when `text` can stand between quotes in JSON as it is: printable ASCII only, without
    // '"' or '\\'.
    static bool plain_ascii(QStringView text);

private:
    static void append_object(QByteArray& out, const QJsonObject& object);
    static void append_array(QByteArray& out, const QJsonArray& array);
    static void append_value(QByteArray& out, const QJsonValue& value);
    static void append_string(QByteArray& out, const QString& text);
};

} // namespace comunication::utility
