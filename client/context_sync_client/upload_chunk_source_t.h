// upload_chunk_source_t reads one local file for an upload and turns it into the request bodies
// of its chunks (type "ctx_chunk", the chunk object as "message"), prepared ahead of the sending:
// while the caller sends chunk n and waits for its acknowledgement, worker threads compress,
// hash and Base64-code the next chunks, up to one per core (at most MAX_AHEAD). A
// stop-and-wait upload thus spends the round trip (broker, the server's decoding, the
// acknowledgement) preparing what comes next instead of idling, and a client with several cores
// compresses on all of them. Nothing changes on the wire: chunk n + 1 is still sent only after
// chunk n is acknowledged.
//
// Thread: the owner's. The file and the running MD5 of the whole file are read and fed on the
// owner's thread, in order; a worker (one std::async thread per chunk, so that every hand-over
// is a thread start and a join, which ThreadSanitizer sees) gets nothing but its chunk's raw
// bytes and header. The destructor waits for the workers still running. Owns the open file and
// at most MAX_AHEAD prepared chunks. Emits nothing.
#pragma once

#include "context_sync/context_sync/transfer_manager/chunk_codec_t.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QString>

#include <deque>
#include <future>

namespace context_sync_client {

class upload_chunk_source_t {
public:
    // More workers than this would only wait: the server decodes a chunk several times faster
    // than a level-9 compression produces one.
    static constexpr int MAX_AHEAD = 4;

    struct chunk_t {
        QByteArray body; // the whole request, ready for client_connection_t::send_raw()
        qint64 raw_size = 0; // bytes of the file it carries
        bool ok = false; // false: the file could not be read (error() tells why)
    };

    // `header` gives the fields every chunk of the file shares ("file", "remaining_files",
    // "percent"); the index, the count and "speed" are filled per chunk. `ahead` chunks are
    // prepared at once (0: one per core, at most MAX_AHEAD).
    upload_chunk_source_t(const QString& local_path,
        const context_sync_engine::chunk_codec_t::header_t& header, int compression_level,
        int ahead = 0);
    ~upload_chunk_source_t();
    upload_chunk_source_t(const upload_chunk_source_t&) = delete;
    upload_chunk_source_t& operator=(const upload_chunk_source_t&) = delete;

    // Opens the file and starts preparing its first chunks; false (and error()) when it cannot
    // be opened.
    bool open();
    qint64 total_chunks() const { return total_; }
    int ahead() const { return ahead_; }
    // Chunk number taken() of the file, waiting for it if it is still being prepared. Only for
    // taken() < total_chunks().
    chunk_t take();
    // Reads the next chunks of the file and hands them to workers until `ahead` are under way.
    // Call it after sending a taken chunk, so that reading does not delay the sending; take()
    // calls it itself when nothing is under way.
    void refill();
    qint64 taken() const { return taken_; }
    // Lower-case hexadecimal MD5 of the whole file, once every chunk was taken.
    QString file_hash() const;
    QString error() const { return error_; }

private:
    static chunk_t build(const context_sync_engine::chunk_codec_t::header_t& header,
        const QByteArray& raw, int level);

    QFile file_;
    const context_sync_engine::chunk_codec_t::header_t header_;
    const int level_;
    const int ahead_;
    qint64 total_ = 0;
    qint64 read_ = 0; // chunks read and handed to a worker
    qint64 taken_ = 0;
    bool read_failed_ = false;
    QCryptographicHash hasher_ { QCryptographicHash::Md5 };
    std::deque<std::future<chunk_t>> pending_;
    QString error_;
};

} // namespace context_sync_client
