// chunk_codec_t is the wire format of a chunked transfer, as pure static functions: how a file is
// cut into chunks of 512000 bytes, how one chunk is turned into its JSON object (MD5 of the raw
// bytes, optional zlib compression with the 4-byte big-endian length framing of qCompress, Base64)
// and back, and the two-key acknowledgement object that answers each chunk. The server's sender
// and receiver and the client program all use it, so both ends of the wire share one definition.
//
// Thread: none; every function is reentrant and touches no shared state. Owns nothing, emits
// nothing. Building reads only the raw bytes it is given; decoding reads the Base64 text straight
// from the chunk's string into one buffer of decoded bytes.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QJsonObject>
#include <QString>
#include <QStringView>

class QIODevice;

namespace context_sync_engine {

class chunk_cache_t;

class CONTEXT_SYNC_EXPORT chunk_codec_t {
public:
    // Size of every chunk but the last of a file.
    static constexpr qint64 CHUNK_SIZE = 512000;
    // Highest zlib level; a larger requested level is written and applied as this.
    static constexpr int MAX_COMPRESSION_LEVEL = 9;

    // Keys of the chunk object.
    static const QString KEY_FILE;
    static const QString KEY_CHUNK_INDEX;
    static const QString KEY_REMAINING_FILES;
    static const QString KEY_TOTAL_CHUNKS;
    static const QString KEY_DATA;
    static const QString KEY_COMPRESSION;
    static const QString KEY_HASH;
    static const QString KEY_PERCENT;
    static const QString KEY_SPEED;
    // Key of the acknowledgement's index (camel case, unlike the chunk's "chunk_index").
    static const QString KEY_ACK_CHUNK_INDEX;

    // Everything of a chunk object except its payload.
    struct header_t {
        QString file;
        int chunk_index = 0;
        int remaining_files = 0;
        // Wider than the int the sender counts in, so that a receiver can refuse an absurd count
        // instead of having it silently read as 0.
        qint64 total_chunks = 0;
        qint64 percent = 0;
        double speed = 0.0;
    };

    // A chunk object as a receiver reads it: each field with its default when absent or of the
    // wrong type.
    struct fields_t {
        header_t header;
        int compression = 0;
        QString data;
        QString hash;
    };

    struct decoded_t {
        fields_t fields;
        QByteArray bytes; // decoded (and decompressed) payload; empty on any decoding failure
        QString actual_hash; // MD5 hex of bytes
        bool valid = false; // actual_hash equals the chunk's "hash", compared case-sensitively
    };

    struct ack_t {
        QString file;
        int chunk_index = 0;
    };

    // Number of chunks of a file of `file_size` bytes: 0 for an empty file, no empty trailing
    // chunk for an exact multiple of CHUNK_SIZE.
    static qint64 chunk_count(qint64 file_size);

    // Lower-case hexadecimal MD5 of `bytes`.
    static QString hash_hex(QByteArrayView bytes);

    // The "compression" value a sender writes for `level`: 0 when not compressing, else the level
    // (at most MAX_COMPRESSION_LEVEL).
    static int effective_compression(int level);

    // Base64 text of the payload of `raw`: compressed with the qCompress framing when `level` >= 1.
    static QByteArray encode_payload(QByteArrayView raw, int level);

    // The nine-key chunk object for the raw chunk bytes `raw`.
    static QJsonObject build_chunk(const header_t& header, QByteArrayView raw, int level);
    // The same object, byte for byte, with the "data" text taken from `cache` when these raw bytes
    // were encoded at this level before (by any sender), else encoded and stored there.
    static QJsonObject build_chunk(
        const header_t& header, QByteArrayView raw, int level, chunk_cache_t& cache);

    // Reads up to CHUNK_SIZE bytes from the current position of `device` into `buffer`, reusing
    // its allocation; returns false on a read error (buffer then empty).
    static bool read_chunk(QIODevice& device, QByteArray& buffer);

    // Reads the nine keys with their defaults.
    static fields_t read_fields(const QJsonObject& chunk);

    // Exactly what QByteArray::fromBase64Encoding(text.toUtf8()).decoded gives (standard alphabet,
    // invalid characters skipped), about five times cheaper for the strict Base64 that senders
    // write: four characters are looked up at once into 24 bits. Anything else (characters
    // outside the alphabet, '=' before the end, odd padding) is left to Qt's lenient decoder.
    static QByteArray decode_base64(QStringView text);

    // Base64-decodes `data` (leniently: characters outside the alphabet are skipped) and, when
    // `compression` is non-zero, decompresses it. Corrupt or truncated framing, or a declared
    // length above CHUNK_SIZE, yields empty bytes.
    static QByteArray decode_payload(const QString& data, int compression);

    // read_fields + decode_payload + hash check.
    static decoded_t decode_chunk(const QJsonObject& chunk);

    // The acknowledgement of the chunk (`file`, `chunk_index`).
    static QJsonObject build_ack(const QString& file, int chunk_index);
    // "file" (empty when absent) and "chunkIndex" (0 when absent or not an integer).
    static ack_t read_ack(const QJsonObject& ack);
};

} // namespace context_sync_engine
