// Path access into JSON trees (utility_t::getJsonValue, getJsonObjValue, updateJsonValue), as the
// configuration client uses it on documents that come from the configuration server. Input: the
// path on the first line, the value to write on the second (any JSON value; an unparsable line
// writes a string), the document in the rest. Every function runs on every input; after an update
// with a value that is not null, reading the same path back must give that value whenever the path
// is a plain chain of keys.

#include "utility/utility_t.h"

#include "fuzz_support.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QRegularExpression>

#include <cstddef>
#include <cstdint>

using utility::utility_t;

namespace {

QJsonValue parse_value(const QByteArray& line)
{
    // Wrapped in an array so that scalars parse too.
    const QJsonDocument document = QJsonDocument::fromJson("[" + line + "]");
    if (document.isArray() && document.array().size() == 1)
        return document.array().at(0);
    return QJsonValue(QString::fromUtf8(line));
}

// Keys of letters only, separated by single "/": the paths whose meaning does not depend on the
// kind of container met on the way.
bool plain_key_chain(const QString& path)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z]+(/[A-Za-z]+)*$"));
    return pattern.match(path).hasMatch();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));
    const QList<QByteArray> parts = input.split('\n');
    const QString path = QString::fromUtf8(parts.value(0));
    const QJsonValue value = parse_value(parts.value(1));
    const qsizetype head = parts.value(0).size() + parts.value(1).size() + 2;
    const QJsonDocument document = QJsonDocument::fromJson(input.mid(head));

    QJsonValue root
        = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    utility_t::getJsonValue(root, path);
    utility_t::getJsonObjValue(document.object(), path);

    QJsonValue updated = root;
    utility_t::updateJsonValue(updated, path, value);
    if (!value.isNull() && root.isObject() && plain_key_chain(path)) {
        // The chain may pass through arrays or plain values of the original; only a chain of
        // objects (or missing keys) must hold the value afterwards.
        bool objects_only = true;
        QJsonValue node = root;
        const QStringList keys = path.split(QLatin1Char('/'));
        for (qsizetype i = 0; i + 1 < keys.size() && objects_only; ++i) {
            node = node.toObject().value(keys.at(i));
            objects_only = node.isObject() || node.isUndefined();
        }
        if (objects_only)
            FUZZ_CHECK(utility_t::getJsonValue(updated, path) == value);
    }

    QJsonDocument copy = document;
    utility_t::updateJsonValue(copy, path, value);
    utility_t::updateJsonValue(copy, path, QJsonValue(QJsonValue::Null));
    return 0;
}
