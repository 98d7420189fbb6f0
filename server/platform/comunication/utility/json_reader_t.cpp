#include "platform/comunication/utility/json_reader_t.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QLatin1StringView>
#include <QList>

#include <cstring>

namespace comunication::utility {

namespace {

// A long plain string value of the text: its characters, quotes not included.
struct span_t {
    qsizetype begin = 0;
    qsizetype size = 0;
};

// A marker is "\u0000L<index>" in the text, a NUL, 'L' and the decimal index as a value.
constexpr char16_t MARKER_LEAD = u'\0';
constexpr char16_t MARKER_TAG = u'L';

bool special(uchar c)
{
    return c == '"' || c == '\\' || c < 0x20 || c >= 0x80;
}

// Position of the first byte from `from` that ends a plain run inside a string ('"', '\\', a
// control character or a non-ASCII byte), or `size`. Blocks of 64 bytes are tested without an
// early exit, which the compiler turns into a vector loop; the long strings are all plain.
qsizetype plain_run_end(const uchar* text, qsizetype from, qsizetype size)
{
    constexpr qsizetype BLOCK = 64;
    qsizetype i = from;
    while (size - i >= BLOCK) {
        // Byte-wide arithmetic only, so that the vector lanes stay bytes.
        uchar any = 0;
        for (qsizetype k = 0; k < BLOCK; ++k) {
            const uchar c = text[i + k];
            any |= uchar(c == '"') | uchar(c == '\\') | uchar(uchar(c - 0x20) >= 0x60);
        }
        if (any != 0)
            break;
        i += BLOCK;
    }
    while (i < size && !special(text[i]))
        ++i;
    return i;
}

bool json_space(uchar c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Finds the long plain string values of `text`. False when the text has an unterminated string
// (Qt then reports the error on the whole text).
bool find_long_strings(const QByteArray& text, QList<span_t>& spans)
{
    const auto* data = reinterpret_cast<const uchar*>(text.constData());
    const qsizetype size = text.size();
    qsizetype i = 0;
    for (;;) {
        // Outside strings only a quote matters: it opens the next string.
        const void* quote = std::memchr(data + i, '"', size_t(size - i));
        if (!quote)
            return true;
        const qsizetype begin = static_cast<const uchar*>(quote) - data + 1;
        bool plain = true;
        qsizetype j = begin;
        for (;;) {
            j = plain_run_end(data, j, size);
            if (j >= size)
                return false;
            const uchar c = data[j];
            if (c == '"')
                break;
            plain = false;
            // An escape: the next byte cannot close the string.
            j += c == '\\' ? 2 : 1;
            if (j > size)
                return false;
        }
        const qsizetype end = j; // the closing quote
        i = end + 1;
        if (!plain || end - begin < json_reader_t::LONG_STRING)
            continue;
        qsizetype next = i;
        while (next < size && json_space(data[next]))
            ++next;
        if (next < size && data[next] == ':')
            continue; // a key: kept, so that objects keep their shape
        spans.append({ begin, end - begin });
    }
}

// The marker's index, or -1 when `text` is not exactly a marker.
qsizetype marker_index(const QString& text)
{
    if (text.size() < 3 || text.size() > 12 || text.at(0) != QChar(MARKER_LEAD)
        || text.at(1) != QChar(MARKER_TAG))
        return -1;
    bool ok = false;
    const qsizetype index = QStringView(text).mid(2).toLongLong(&ok);
    if (!ok || index < 0 || QString::number(index) != QStringView(text).mid(2))
        return -1;
    return index;
}

struct restore_t {
    const QByteArray& text;
    const QList<span_t>& spans;
    QList<bool> seen;
    bool ok = true;
};

// Puts the original strings back in place of their markers; true when `value` changed. Clears
// `ok` when a value looks like a marker without being one that was placed, or repeats one.
bool restore(QJsonValue& value, restore_t& state)
{
    switch (value.type()) {
    case QJsonValue::String: {
        const QString text = value.toString();
        if (text.isEmpty() || text.at(0) != QChar(MARKER_LEAD))
            return false;
        const qsizetype index = marker_index(text);
        if (index < 0 || index >= state.spans.size() || state.seen.at(index)) {
            state.ok = false;
            return false;
        }
        state.seen[index] = true;
        const span_t& span = state.spans.at(index);
        value = QJsonValue(QLatin1StringView(state.text.constData() + span.begin, span.size));
        return true;
    }
    case QJsonValue::Object: {
        QJsonObject object = value.toObject();
        bool changed = false;
        for (auto it = object.begin(); it != object.end(); ++it) {
            QJsonValue child = it.value();
            if (restore(child, state)) {
                it.value() = child;
                changed = true;
            }
        }
        if (changed)
            value = object;
        return changed;
    }
    case QJsonValue::Array: {
        QJsonArray array = value.toArray();
        bool changed = false;
        for (qsizetype i = 0; i < array.size(); ++i) {
            QJsonValue child = array.at(i);
            if (restore(child, state)) {
                array.replace(i, child);
                changed = true;
            }
        }
        if (changed)
            value = array;
        return changed;
    }
    default:
        return false;
    }
}

} // namespace

qsizetype json_reader_t::long_string_values(const QByteArray& text)
{
    QList<span_t> spans;
    return find_long_strings(text, spans) ? spans.size() : -1;
}

QJsonDocument json_reader_t::parse(const QByteArray& text, QJsonParseError* error)
{
    if (text.size() < LONG_STRING || text.size() > MAX_FAST_TEXT)
        return QJsonDocument::fromJson(text, error);
    QList<span_t> spans;
    if (!find_long_strings(text, spans) || spans.isEmpty())
        return QJsonDocument::fromJson(text, error);

    // The text with every long string's characters replaced by its marker. Both are plain
    // string contents between the same quotes, so the reduced text is valid JSON exactly when
    // the original is, with the same structure.
    QByteArray reduced;
    reduced.reserve(text.size() - spans.size() * LONG_STRING + 64);
    qsizetype copied = 0;
    for (qsizetype i = 0; i < spans.size(); ++i) {
        reduced.append(text.constData() + copied, spans.at(i).begin - copied);
        reduced.append("\\u0000L");
        reduced.append(QByteArray::number(i));
        copied = spans.at(i).begin + spans.at(i).size;
    }
    reduced.append(text.constData() + copied, text.size() - copied);

    QJsonParseError reduced_error {};
    const QJsonDocument document = QJsonDocument::fromJson(reduced, &reduced_error);
    if (reduced_error.error != QJsonParseError::NoError) {
        if (error)
            *error = reduced_error;
        return document;
    }

    restore_t state { text, spans, QList<bool>(spans.size(), false) };
    QJsonValue root
        = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    restore(root, state);
    bool all_seen = state.ok;
    for (const bool seen : std::as_const(state.seen))
        all_seen = all_seen && seen;
    if (!all_seen)
        return QJsonDocument::fromJson(text, error);
    if (error)
        *error = reduced_error;
    return root.isArray() ? QJsonDocument(root.toArray()) : QJsonDocument(root.toObject());
}

} // namespace comunication::utility
