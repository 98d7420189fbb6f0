#include "platform/comunication/utility/json_text_t.h"

#include <QJsonDocument>

namespace comunication::utility {

namespace {

// Qt's own text for one value: written as the only element of an array, brackets taken off.
void append_by_qt(QByteArray& out, const QJsonValue& value)
{
    const QByteArray wrapped = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    out.append(wrapped.constData() + 1, wrapped.size() - 2);
}

} // namespace

QByteArray json_text_t::compact(const QJsonObject& object)
{
    QByteArray out;
    append_object(out, object);
    return out;
}

QByteArray json_text_t::compact(const QJsonArray& array)
{
    QByteArray out;
    append_array(out, array);
    return out;
}

bool json_text_t::plain_ascii(QStringView text)
{
    // No early exit and plain 16-bit arithmetic: the compiler turns this into a vector loop over
    // the whole string (the strings that matter here are all plain). UTF-16 units are checked,
    // not a UTF-8 conversion, which would turn a lone surrogate into a plain '?'.
    const char16_t* units = text.utf16();
    const qsizetype size = text.size();
    unsigned bad = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t u = units[i];
        bad |= unsigned(char16_t(u - 0x20) > 0x5e) | unsigned(u == u'"') | unsigned(u == u'\\');
    }
    return bad == 0;
}

void json_text_t::append_object(QByteArray& out, const QJsonObject& object)
{
    out += '{';
    bool first = true;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (!first)
            out += ',';
        first = false;
        append_string(out, it.key());
        out += ':';
        append_value(out, it.value());
    }
    out += '}';
}

void json_text_t::append_array(QByteArray& out, const QJsonArray& array)
{
    out += '[';
    bool first = true;
    for (const QJsonValue& value : array) {
        if (!first)
            out += ',';
        first = false;
        append_value(out, value);
    }
    out += ']';
}

void json_text_t::append_value(QByteArray& out, const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Object:
        append_object(out, value.toObject());
        break;
    case QJsonValue::Array:
        append_array(out, value.toArray());
        break;
    case QJsonValue::String:
        append_string(out, value.toString());
        break;
    default:
        // Numbers, booleans and null: Qt's formatting of doubles is kept exactly.
        append_by_qt(out, value);
        break;
    }
}

void json_text_t::append_string(QByteArray& out, const QString& text)
{
    if (!plain_ascii(text)) {
        append_by_qt(out, QJsonValue(text));
        return;
    }
    out.reserve(out.size() + text.size() + 2);
    out += '"';
    out += text.toLatin1();
    out += '"';
}

} // namespace comunication::utility
