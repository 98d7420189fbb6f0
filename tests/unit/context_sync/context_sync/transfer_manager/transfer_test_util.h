// Helpers shared by the transfer manager's tests: chunk objects built the way a client builds
// them, and a bounded wait on a condition that keeps the event loop turning.
#pragma once

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include "common/event_wait.h"

#include <QFile>
#include <QJsonObject>

#include <functional>

namespace transfer_test {

using context_sync_engine::chunk_codec_t;

inline QJsonObject make_chunk(const QString& file, int index, qint64 total, const QByteArray& raw,
    int remaining = 0, int level = 9)
{
    chunk_codec_t::header_t header;
    header.file = file;
    header.chunk_index = index;
    header.total_chunks = total;
    header.remaining_files = remaining;
    return chunk_codec_t::build_chunk(header, raw, level);
}

// Chunk `index` of `content` cut into 512000-byte pieces.
inline QByteArray piece(const QByteArray& content, int index)
{
    return content.mid(qsizetype(index) * chunk_codec_t::CHUNK_SIZE, chunk_codec_t::CHUNK_SIZE);
}

// Turns the event loop (deferred deletions included) until `done` holds or `timeout_ms` passes;
// returns the last value of done.
inline bool wait_until(const std::function<bool()>& done, int timeout_ms = 10000)
{
    return test_support::wait_until(
        done, timeout_ms, test_support::wait_turn_t::events_and_deletions);
}

inline QByteArray read_all(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

} // namespace transfer_test
