#include "context_sync/context_sync/transfer_manager/path_safety_t.h"

#include <QList>
#include <QStringView>

namespace context_sync_engine {

namespace {

bool refuse(QString* reason, const QString& text)
{
    if (reason)
        *reason = text;
    return false;
}

bool is_control(QChar ch)
{
    return ch.category() == QChar::Other_Control;
}

} // namespace

bool path_safety_t::is_safe_relative_path(const QString& path, QString* reason)
{
    if (path.isEmpty())
        return refuse(reason, QStringLiteral("is empty"));
    if (!QStringView(path).isValidUtf16())
        return refuse(reason, QStringLiteral("is not valid text"));
    // UTF-8 length without building the UTF-8 bytes: 1 byte below U+0080, 2 below U+0800, 3 for
    // the rest of the BMP, and 4 per surrogate pair (2 per surrogate).
    qsizetype bytes = 0;
    for (const QChar ch : path) {
        const char16_t unit = ch.unicode();
        if (is_control(ch))
            return refuse(reason, QStringLiteral("contains a control character"));
        if (unit == u'\\')
            return refuse(reason, QStringLiteral("contains a backslash"));
        bytes += unit < 0x80 ? 1 : unit < 0x800 ? 2 : ch.isSurrogate() ? 2 : 3;
    }
    if (bytes > MAX_PATH_BYTES)
        return refuse(
            reason, QStringLiteral("is longer than %1 bytes").arg(QString::number(MAX_PATH_BYTES)));
    if (path.startsWith(u'/'))
        return refuse(reason, QStringLiteral("is absolute"));

    for (const QStringView segment : QStringView(path).split(u'/')) {
        if (segment.isEmpty())
            return refuse(reason, QStringLiteral("contains an empty segment"));
        if (segment == u"..")
            return refuse(reason, QStringLiteral("contains a '..' segment"));
        if (segment == u".")
            return refuse(reason, QStringLiteral("contains a '.' segment"));
    }
    return true;
}

QString path_safety_t::printable(const QString& path)
{
    QString out;
    out.reserve(path.size());
    for (const QChar ch : path) {
        if (is_control(ch) || ch == u'\\')
            out += QStringLiteral("\\x%1").arg(ch.unicode(), 2, 16, QLatin1Char('0'));
        else
            out += ch;
    }
    return out;
}

} // namespace context_sync_engine
