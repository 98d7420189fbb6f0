// Parsing of the rr layer's incoming bodies: the same document and the same verdict as
// QJsonDocument::fromJson, but cheap for the long plain-ASCII strings that chunks carry (about
// 680 KB of Base64 each). Qt's parser checks and copies such a string one byte at a time, about
// as much work per chunk as inflating and hashing it. Here one pass over the text finds every
// string value of at least LONG_STRING bytes made only of printable ASCII without '"' or '\';
// Qt parses the text with each of them replaced by a short marker, and the markers are then
// replaced by the original strings taken from the text as they stand. Anything unusual (a marker
// that a value could be mistaken for, an unterminated string, a text above MAX_FAST_TEXT) is left
// to Qt's parser on the whole text, so the result never differs.
// Pure functions, no state, any thread.
#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace comunication::utility {

class json_reader_t {
public:
    // Shorter strings are left to Qt: the saving would not pay for the markers.
    static constexpr qsizetype LONG_STRING = 4096;
    // Texts above this are parsed by Qt alone, so that its own size limits decide them.
    static constexpr qsizetype MAX_FAST_TEXT = 16 * 1024 * 1024;

    // As QJsonDocument::fromJson(text, error): the same document, and an error exactly when Qt
    // reports one (with the same error code; the offset may differ when long strings precede it).
    static QJsonDocument parse(const QByteArray& text, QJsonParseError* error = nullptr);

    // How many string values of `text` parse() takes past Qt's parser (-1 for a text with an
    // unterminated string); for tests and diagnostics.
    static qsizetype long_string_values(const QByteArray& text);
};

} // namespace comunication::utility
