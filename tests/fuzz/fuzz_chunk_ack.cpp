// Acknowledgement parsing, as a sender meets acknowledgements from the network. The first byte
// chooses the mode:
//   0: the rest is the text of an acknowledgement object; reading it must give the "file" text
//      when it is a string (else empty) and an index that only comes from "chunkIndex";
//   1: the rest names a file (UTF-8) and the first four bytes an index; the acknowledgement built
//      for them, sent through its text form, must read back as the same pair.

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "fuzz_support.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>
#include <cstring>

using context_sync_engine::chunk_codec_t;

namespace {

void ack_text(const QByteArray& text)
{
    const QJsonObject ack = QJsonDocument::fromJson(text).object();
    const chunk_codec_t::ack_t read = chunk_codec_t::read_ack(ack);
    const QJsonValue file = ack.value(chunk_codec_t::KEY_FILE);
    FUZZ_CHECK(read.file == (file.isString() ? file.toString() : QString()));
    if (!ack.contains(chunk_codec_t::KEY_ACK_CHUNK_INDEX))
        FUZZ_CHECK(read.chunk_index == 0);
}

void round_trip(const QByteArray& input)
{
    if (input.size() < 4)
        return;
    std::int32_t index = 0;
    std::memcpy(&index, input.constData(), sizeof index);
    const QString file = QString::fromUtf8(input.mid(4));
    const QJsonObject ack = chunk_codec_t::build_ack(file, index);
    const QJsonObject received
        = QJsonDocument::fromJson(QJsonDocument(ack).toJson(QJsonDocument::Compact)).object();
    const chunk_codec_t::ack_t read = chunk_codec_t::read_ack(received);
    FUZZ_CHECK(read.file == file);
    FUZZ_CHECK(read.chunk_index == index);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::ensure_application();
    if (size == 0)
        return 0;
    const QByteArray rest(reinterpret_cast<const char*>(data) + 1, qsizetype(size - 1));
    if (data[0] % 2 == 0)
        ack_text(rest);
    else
        round_trip(rest);
    return 0;
}
