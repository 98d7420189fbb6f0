#include "context_sync_client/upload_chunk_source_t.h"

#include "platform/comunication/service/service_rr_client_t.h"
#include "platform/database/rr/definition/rr_packet_type_context_sync_t.h"

#include <QDateTime>
#include <QJsonObject>
#include <QThread>

#include <algorithm>
#include <system_error>

namespace context_sync_client {

namespace {
using codec_t = context_sync_engine::chunk_codec_t;
using packet_t = database::rr::definition::rr_packet_type_context_sync_t;

int ahead_for(int requested)
{
    const int wanted = requested > 0 ? requested : QThread::idealThreadCount();
    return std::clamp(wanted, 1, upload_chunk_source_t::MAX_AHEAD);
}
} // namespace

upload_chunk_source_t::upload_chunk_source_t(
    const QString& local_path, const codec_t::header_t& header, int compression_level, int ahead)
    : file_(local_path)
    , header_(header)
    , level_(compression_level)
    , ahead_(ahead_for(ahead))
{
}

upload_chunk_source_t::~upload_chunk_source_t()
{
    // The futures of std::async wait for their threads when they are destroyed; the workers
    // touch nothing of this object, so the order does not matter.
    pending_.clear();
}

bool upload_chunk_source_t::open()
{
    if (!file_.open(QIODevice::ReadOnly)) {
        error_ = QStringLiteral("cannot read %1: %2").arg(file_.fileName(), file_.errorString());
        return false;
    }
    total_ = codec_t::chunk_count(file_.size());
    refill();
    return true;
}

void upload_chunk_source_t::refill()
{
    while (!read_failed_ && read_ < total_ && int(pending_.size()) < ahead_) {
        QByteArray raw;
        if (!codec_t::read_chunk(file_, raw)) {
            read_failed_ = true;
            error_
                = QStringLiteral("cannot read %1: %2").arg(file_.fileName(), file_.errorString());
            return;
        }
        hasher_.addData(raw);
        codec_t::header_t header = header_;
        header.chunk_index = int(read_);
        header.total_chunks = total_;
        header.speed = double(QDateTime::currentSecsSinceEpoch());
        ++read_;
        // A thread of its own per chunk: starting one costs tens of microseconds against the
        // milliseconds of a level-9 compression. Without a thread to be had, the chunk is built
        // when it is taken, as a plain stop-and-wait upload would.
        try {
            pending_.push_back(
                std::async(std::launch::async, &upload_chunk_source_t::build, header, raw, level_));
        } catch (const std::system_error&) {
            pending_.push_back(std::async(
                std::launch::deferred, &upload_chunk_source_t::build, header, raw, level_));
        }
    }
}

upload_chunk_source_t::chunk_t upload_chunk_source_t::take()
{
    if (pending_.empty())
        refill();
    if (pending_.empty()) {
        // Only a read error leaves nothing to take; nothing more comes from that file.
        taken_ = total_;
        return {};
    }
    chunk_t chunk = pending_.front().get();
    pending_.pop_front();
    ++taken_;
    return chunk;
}

QString upload_chunk_source_t::file_hash() const
{
    return QString::fromLatin1(hasher_.result().toHex());
}

upload_chunk_source_t::chunk_t upload_chunk_source_t::build(
    const codec_t::header_t& header, const QByteArray& raw, int level)
{
    chunk_t chunk;
    // Requests carry their argument in "message"; answers carry the chunk as the payload.
    chunk.body = comunication::service::service_rr_client_t::request_body(
        packet_t::ctx_chunk.ToString(),
        QJsonObject { { QStringLiteral("message"), codec_t::build_chunk(header, raw, level) } });
    chunk.raw_size = raw.size();
    chunk.ok = true;
    return chunk;
}

} // namespace context_sync_client
