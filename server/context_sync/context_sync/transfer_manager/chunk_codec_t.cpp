#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "context_sync/context_sync/transfer_manager/chunk_cache_t.h"

#include <QCryptographicHash>
#include <QIODevice>
#include <QJsonValue>
#include <QtEndian>

#include <zlib.h>

#include <algorithm>
#include <climits>

namespace context_sync_engine {

const QString chunk_codec_t::KEY_FILE = QStringLiteral("file");
const QString chunk_codec_t::KEY_CHUNK_INDEX = QStringLiteral("chunk_index");
const QString chunk_codec_t::KEY_REMAINING_FILES = QStringLiteral("remaining_files");
const QString chunk_codec_t::KEY_TOTAL_CHUNKS = QStringLiteral("total_chunks");
const QString chunk_codec_t::KEY_DATA = QStringLiteral("data");
const QString chunk_codec_t::KEY_COMPRESSION = QStringLiteral("compression");
const QString chunk_codec_t::KEY_HASH = QStringLiteral("hash");
const QString chunk_codec_t::KEY_PERCENT = QStringLiteral("percent");
const QString chunk_codec_t::KEY_SPEED = QStringLiteral("speed");
const QString chunk_codec_t::KEY_ACK_CHUNK_INDEX = QStringLiteral("chunkIndex");

namespace {

constexpr qsizetype FRAME_HEADER_SIZE = 4;

// Set in every table entry of a character outside the alphabet; never set by a valid one.
constexpr quint32 BASE64_INVALID = 0x80000000u;

// The 6-bit value of each Base64 character, already shifted to its place in a group of four
// (first character in bits 23..18, last in bits 5..0), so that a group is four lookups OR-ed.
struct base64_tables_t {
    quint32 place[4][256];
};

constexpr base64_tables_t make_base64_tables()
{
    base64_tables_t tables {};
    for (int c = 0; c < 256; ++c) {
        int value = -1;
        if (c >= 'A' && c <= 'Z')
            value = c - 'A';
        else if (c >= 'a' && c <= 'z')
            value = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            value = c - '0' + 52;
        else if (c == '+')
            value = 62;
        else if (c == '/')
            value = 63;
        for (int place = 0; place < 4; ++place) {
            tables.place[place][c]
                = value < 0 ? BASE64_INVALID : quint32(value) << (6 * (3 - place));
        }
    }
    return tables;
}

constexpr base64_tables_t BASE64 = make_base64_tables();

// Decodes `text` when it is strict Base64: only alphabet characters, then at most two '=' that
// complete the last group of four, or an unpadded last group of two or three characters. Returns
// false for anything else, leaving `out` unspecified.
bool decode_strict_base64(QStringView text, QByteArray& out)
{
    const char16_t* in = text.utf16();
    qsizetype size = text.size();
    qsizetype padding = 0;
    if (size % 4 == 0 && size > 0 && in[size - 1] == u'=')
        padding = in[size - 2] == u'=' ? 2 : 1;
    size -= padding;
    const qsizetype tail = size % 4;
    if (tail == 1)
        return false;
    if (padding != 0 && tail + padding != 4)
        return false;
    const qsizetype groups = size / 4;
    out.resize(groups * 3 + (tail == 0 ? 0 : tail - 1));
    auto* dst = reinterpret_cast<uchar*>(out.data());

    // Errors are collected, not tested per group: a valid text, the case that matters, runs
    // without branches. Units above 0xFF are caught by their high byte.
    quint32 invalid = 0;
    char16_t high = 0;
    for (qsizetype g = 0; g < groups; ++g, in += 4, dst += 3) {
        const char16_t c0 = in[0], c1 = in[1], c2 = in[2], c3 = in[3];
        high |= c0 | c1 | c2 | c3;
        const quint32 word = BASE64.place[0][c0 & 0xFF] | BASE64.place[1][c1 & 0xFF]
            | BASE64.place[2][c2 & 0xFF] | BASE64.place[3][c3 & 0xFF];
        invalid |= word;
        dst[0] = uchar(word >> 16);
        dst[1] = uchar(word >> 8);
        dst[2] = uchar(word);
    }
    if (tail != 0) {
        quint32 word = 0;
        for (qsizetype i = 0; i < tail; ++i) {
            high |= in[i];
            word |= BASE64.place[i][in[i] & 0xFF];
        }
        invalid |= word;
        dst[0] = uchar(word >> 16);
        if (tail == 3)
            dst[1] = uchar(word >> 8);
    }
    return (invalid & BASE64_INVALID) == 0 && (high & 0xFF00) == 0;
}

// Inflates the zlib stream that follows the 4-byte length of the qCompress framing. Unlike
// qUncompress, which keeps doubling its buffer until the stream fits, this never produces more
// than a chunk can hold, so a small message cannot expand into gigabytes. Trailing bytes after the
// end of the stream are ignored, as zlib's uncompress() does.
bool inflate_framed(QByteArrayView framed, QByteArray& out)
{
    out.clear();
    if (framed.size() < FRAME_HEADER_SIZE)
        return false;
    const quint32 declared = qFromBigEndian<quint32>(framed.data());
    if (declared > quint32(chunk_codec_t::CHUNK_SIZE))
        return false;
    if (framed.size() == FRAME_HEADER_SIZE)
        return declared == 0; // what qCompress makes of empty input

    z_stream stream {};
    if (inflateInit(&stream) != Z_OK)
        return false;

    const qsizetype limit = chunk_codec_t::CHUNK_SIZE;
    qsizetype capacity = std::max<qsizetype>(declared, 1);
    out.resize(capacity);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(framed.data() + FRAME_HEADER_SIZE));
    stream.avail_in = uInt(framed.size() - FRAME_HEADER_SIZE);
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = uInt(capacity);

    bool ok = false;
    for (;;) {
        const int result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_STREAM_END) {
            ok = true;
            break;
        }
        if (result != Z_OK && result != Z_BUF_ERROR)
            break;
        if (stream.avail_out != 0)
            break; // input exhausted before the end of the stream: truncated
        if (capacity >= limit)
            break; // more than a chunk can hold
        // The declared length was short; grow once to the largest possible chunk.
        const qsizetype produced = capacity;
        capacity = limit;
        out.resize(capacity);
        stream.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
        stream.avail_out = uInt(capacity - produced);
    }
    const qsizetype produced = qsizetype(stream.total_out);
    inflateEnd(&stream);
    if (!ok) {
        out.clear();
        return false;
    }
    out.resize(produced);
    return true;
}

} // namespace

qint64 chunk_codec_t::chunk_count(qint64 file_size)
{
    if (file_size <= 0)
        return 0;
    return file_size / CHUNK_SIZE + (file_size % CHUNK_SIZE != 0 ? 1 : 0);
}

QString chunk_codec_t::hash_hex(QByteArrayView bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

int chunk_codec_t::effective_compression(int level)
{
    if (level < 1)
        return 0;
    return std::min(level, MAX_COMPRESSION_LEVEL);
}

QByteArray chunk_codec_t::encode_payload(QByteArrayView raw, int level)
{
    const int compression = effective_compression(level);
    if (compression == 0)
        return QByteArray::fromRawData(raw.data(), raw.size()).toBase64();
    return qCompress(reinterpret_cast<const uchar*>(raw.data()), raw.size(), compression)
        .toBase64();
}

namespace {

QJsonObject chunk_object(const chunk_codec_t::header_t& header, const QByteArray& base64,
    int compression, const QString& hash)
{
    QJsonObject chunk;
    chunk.insert(chunk_codec_t::KEY_FILE, header.file);
    chunk.insert(chunk_codec_t::KEY_CHUNK_INDEX, header.chunk_index);
    chunk.insert(chunk_codec_t::KEY_REMAINING_FILES, header.remaining_files);
    chunk.insert(chunk_codec_t::KEY_TOTAL_CHUNKS, header.total_chunks);
    chunk.insert(chunk_codec_t::KEY_DATA, QJsonValue(QLatin1StringView(base64)));
    chunk.insert(chunk_codec_t::KEY_COMPRESSION, compression);
    chunk.insert(chunk_codec_t::KEY_HASH, hash);
    chunk.insert(chunk_codec_t::KEY_PERCENT, header.percent);
    chunk.insert(chunk_codec_t::KEY_SPEED, header.speed);
    return chunk;
}

} // namespace

QJsonObject chunk_codec_t::build_chunk(const header_t& header, QByteArrayView raw, int level)
{
    return chunk_object(
        header, encode_payload(raw, level), effective_compression(level), hash_hex(raw));
}

QJsonObject chunk_codec_t::build_chunk(
    const header_t& header, QByteArrayView raw, int level, chunk_cache_t& cache)
{
    // One MD5 serves as the cache key and, in hexadecimal, as the chunk's "hash".
    const QByteArray md5 = QCryptographicHash::hash(raw, QCryptographicHash::Md5);
    const int compression = effective_compression(level);
    const QByteArray base64 = cache.encoded(chunk_cache_t::make_key(md5, raw.size(), compression),
        [raw, compression] { return encode_payload(raw, compression); });
    return chunk_object(header, base64, compression, QString::fromLatin1(md5.toHex()));
}

bool chunk_codec_t::read_chunk(QIODevice& device, QByteArray& buffer)
{
    buffer.resize(CHUNK_SIZE);
    const qint64 got = device.read(buffer.data(), CHUNK_SIZE);
    if (got < 0) {
        buffer.resize(0);
        return false;
    }
    buffer.resize(got);
    return true;
}

chunk_codec_t::fields_t chunk_codec_t::read_fields(const QJsonObject& chunk)
{
    fields_t fields;
    fields.header.file = chunk.value(KEY_FILE).toString();
    fields.header.chunk_index = chunk.value(KEY_CHUNK_INDEX).toInt(0);
    fields.header.remaining_files = chunk.value(KEY_REMAINING_FILES).toInt(0);
    fields.header.total_chunks = chunk.value(KEY_TOTAL_CHUNKS).toInteger(0);
    fields.header.percent = chunk.value(KEY_PERCENT).toInteger(0);
    fields.header.speed = chunk.value(KEY_SPEED).toDouble(0.0);
    fields.compression = chunk.value(KEY_COMPRESSION).toInt(0);
    fields.data = chunk.value(KEY_DATA).toString();
    fields.hash = chunk.value(KEY_HASH).toString();
    return fields;
}

QByteArray chunk_codec_t::decode_base64(QStringView text)
{
    QByteArray out;
    if (decode_strict_base64(text, out))
        return out;
    // Qt's lenient decoder, on an rvalue so that it decodes in the UTF-8 buffer.
    return QByteArray::fromBase64Encoding(text.toUtf8()).decoded;
}

QByteArray chunk_codec_t::decode_payload(const QString& data, int compression)
{
    QByteArray bytes = decode_base64(data);
    if (compression == 0)
        return bytes.size() <= CHUNK_SIZE ? bytes : QByteArray();
    QByteArray out;
    inflate_framed(bytes, out);
    return out;
}

chunk_codec_t::decoded_t chunk_codec_t::decode_chunk(const QJsonObject& chunk)
{
    decoded_t decoded;
    decoded.fields = read_fields(chunk);
    decoded.bytes = decode_payload(decoded.fields.data, decoded.fields.compression);
    decoded.actual_hash = hash_hex(decoded.bytes);
    decoded.valid = decoded.actual_hash == decoded.fields.hash;
    return decoded;
}

QJsonObject chunk_codec_t::build_ack(const QString& file, int chunk_index)
{
    QJsonObject ack;
    ack.insert(KEY_FILE, file);
    ack.insert(KEY_ACK_CHUNK_INDEX, chunk_index);
    return ack;
}

chunk_codec_t::ack_t chunk_codec_t::read_ack(const QJsonObject& ack)
{
    ack_t result;
    result.file = ack.value(KEY_FILE).toString();
    result.chunk_index = ack.value(KEY_ACK_CHUNK_INDEX).toInt(0);
    return result;
}

} // namespace context_sync_engine
