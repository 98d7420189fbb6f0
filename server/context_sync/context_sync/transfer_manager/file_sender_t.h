// file_sender_t sends a batch of files of the context root to one client, one file at a time and
// one chunk at a time (stop-and-wait: each chunk waits for its acknowledgement before the next is
// scheduled). It never touches the network: it emits each chunk object with publish_chunk and is
// fed the client's acknowledgements through ackReceiver().
//
// Thread: the service gives every sender a QThread of its own and reaches it only through queued
// calls (start, ackReceiver) and a blocking-queued stop(); inUpload() is the one call meant for
// other threads. Everything else, the timers included, runs on the sender's thread.
// Owns: the acknowledgement timer (single-shot, 5000 ms, created by the first start()) and the
// open file (at most one chunk of it in memory at a time).
// Signals: publish_chunk per chunk; fileProgressUpdated per accepted acknowledgement; file_sended
// then overallProgressUpdated per finished file; in_upload_change when the busy flag flips;
// timeout_occurred when an acknowledgement does not come. All carry the client id first.
//
// Chunk texts (the Base64 of the compressed bytes) are shared by all senders through
// chunk_cache_t::shared(), keyed by the content of the chunk, so that a file sent to many clients
// is compressed once.
//
// Pacing is shared by all senders through the static intervals, which the service rewrites as
// senders come and go; they are atomics so that writer and readers on different threads are safe.
// stop() emits in_upload_change while holding queue_lock: connect to it only with queued
// connections (as the service does), or a slot that calls back into the sender would deadlock.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QByteArray>
#include <QFile>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <atomic>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT file_sender_t : public QObject {
    Q_OBJECT

public:
    // zlib level of chunk payloads; 0 or less sends them uncompressed.
    static std::atomic<int> COMPRESSION_LEVEL;
    // Milliseconds between an acknowledgement (or the opening of a file) and the next chunk.
    static std::atomic<int> INTERVAL_BETWEEN_PACKET;
    // Milliseconds between the end of one file and the taking of the next.
    static std::atomic<int> INTERVAL_BETWEEN_FILES;

    // How long a published chunk waits for its acknowledgement.
    static constexpr int ACK_TIMEOUT_MS = 5000;

    Q_INVOKABLE file_sender_t(
        const QString& _client_id, const QString& _root_path, QObject* parent = nullptr);
    ~file_sender_t() override;

    file_sender_t(const file_sender_t&) = delete;
    file_sender_t& operator=(const file_sender_t&) = delete;

    // Busy flag, true from the taking of a file until the queue is found empty. Any thread.
    bool inUpload();
    void setInUpload(const bool& _value);

    // Internal steps, public so that the owner can drive them in tests.
    void processNextFile();
    void startSendingFileChunks(const QString& _path);

public slots:
    // Queues `files` (absolute paths below the root) and starts sending if idle.
    void start(const QList<QString>& files);
    // Abandons the batch. The acknowledgement timer keeps running, so a chunk in flight still
    // ends in timeout_occurred.
    void stop();
    // One acknowledgement payload from the client.
    void ackReceiver(const QJsonObject& _data);

signals:
    void publish_chunk(QString _client_id, QJsonObject _data);
    void fileProgressUpdated(QString clientId, QString file, double percent);
    void overallProgressUpdated(QString clientId, double percent);
    void file_sended(QString _client_id, QString _file_name);
    void in_upload_change(QString _client_id, bool _value);
    void timeout_occurred(QString clientId, QString file);
    void start_ack_timer();
    void stop_ack_timer();

private slots:
    void sendNextChunk();
    void onAckTimeout();

private:
    bool file_open() const;
    // Deferred chunk step: reads, builds and publishes the next chunk, then arms the ack timer.
    void send_chunk(quint64 generation);
    void close_current_file();
    bool queueable(const QString& path);

    int files_taken = 0;
    bool in_upload = false;
    QPointer<QTimer> ack_timer;
    QList<QString> queue;
    QMutex upload_lock;
    QMutex queue_lock;
    QString root_path;
    QString client_id;
    QPointer<QFile> current_file;
    QString current_relative_path;
    int chunk_index = 0;
    int total_chunks = 0;
    qint64 batch_bytes = 0;
    qint64 completed_bytes = 0;
    qint64 file_size = 0;
    int overall_percent = 0;
    double last_send_time = 0.0;

    // Deferred steps are single-shot timers that stop() does not cancel; each remembers the
    // generation it was scheduled in and does nothing once a stop, a timeout or a new file has
    // moved the generation on, so a stale step can never send a chunk of another file.
    quint64 generation = 0;
    // Reused read buffer: one chunk of raw bytes.
    QByteArray chunk_buffer;
};

} // namespace context_sync_engine
