// Chunk decoding and verification, as a receiver meets chunks from the network. The first byte
// chooses the mode:
//   0: the rest is the text of a chunk object; it is parsed and decoded, and the verdict must
//      agree with the bytes that came out;
//   1: the rest is a bare payload (its first byte the "compression" value, then the Base64 text);
//      the codec's Base64 decoder must give exactly what Qt's lenient decoder gives;
//   2: the rest is raw file bytes, which are built into a chunk (level from the first byte) and
//      decoded again: the bytes and the header must come back unchanged and the chunk must verify.
// No decoded payload may ever be larger than a chunk, whatever the framing claims.

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "fuzz_support.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>

using context_sync_engine::chunk_codec_t;

namespace {

void check_decoded(const chunk_codec_t::decoded_t& decoded)
{
    FUZZ_CHECK(decoded.bytes.size() <= chunk_codec_t::CHUNK_SIZE);
    FUZZ_CHECK(decoded.actual_hash == chunk_codec_t::hash_hex(decoded.bytes));
    FUZZ_CHECK(decoded.valid == (decoded.actual_hash == decoded.fields.hash));
}

void chunk_text(const QByteArray& text)
{
    const QJsonObject chunk = QJsonDocument::fromJson(text).object();
    check_decoded(chunk_codec_t::decode_chunk(chunk));
}

void bare_payload(const QByteArray& input)
{
    if (input.isEmpty())
        return;
    const int compression = static_cast<signed char>(input.at(0));
    const QString data = QString::fromLatin1(input.constData() + 1, input.size() - 1);
    FUZZ_CHECK(chunk_codec_t::decode_base64(data)
        == QByteArray::fromBase64Encoding(data.toUtf8()).decoded);
    const QByteArray bytes = chunk_codec_t::decode_payload(data, compression);
    FUZZ_CHECK(bytes.size() <= chunk_codec_t::CHUNK_SIZE);
}

void round_trip(const QByteArray& input)
{
    if (input.isEmpty())
        return;
    const int level = static_cast<unsigned char>(input.at(0)) % 12;
    const QByteArray raw = input.mid(1, chunk_codec_t::CHUNK_SIZE);

    chunk_codec_t::header_t header;
    header.file = QStringLiteral("dir/file.bin");
    header.chunk_index = int(raw.size() % 7);
    header.remaining_files = 2;
    header.total_chunks = 3;
    header.percent = 50;
    header.speed = 1.5;
    const QJsonObject chunk = chunk_codec_t::build_chunk(header, raw, level);

    // Through the wire's text form, as a receiver gets it.
    const QJsonObject received
        = QJsonDocument::fromJson(QJsonDocument(chunk).toJson(QJsonDocument::Compact)).object();
    const chunk_codec_t::decoded_t decoded = chunk_codec_t::decode_chunk(received);
    check_decoded(decoded);
    FUZZ_CHECK(decoded.valid);
    FUZZ_CHECK(decoded.bytes == raw);
    FUZZ_CHECK(decoded.fields.compression == chunk_codec_t::effective_compression(level));
    FUZZ_CHECK(decoded.fields.header.file == header.file);
    FUZZ_CHECK(decoded.fields.header.chunk_index == header.chunk_index);
    FUZZ_CHECK(decoded.fields.header.remaining_files == header.remaining_files);
    FUZZ_CHECK(decoded.fields.header.total_chunks == header.total_chunks);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    if (size == 0)
        return 0;
    const QByteArray rest(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    switch (data[0] % 3) {
    case 0:
        chunk_text(rest);
        break;
    case 1:
        bare_payload(rest);
        break;
    default:
        round_trip(rest);
        break;
    }
    return 0;
}
