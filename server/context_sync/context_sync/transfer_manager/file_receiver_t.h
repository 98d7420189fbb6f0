// file_receiver_t takes the chunks of files that clients upload into the context root. It checks
// each chunk (safe relative path, size limits for a new file, MD5 of the decoded bytes), keeps a
// file's chunks in memory until all have arrived, acknowledges every valid chunk, then writes the
// file once, sequentially, to a staging folder inside the root and renames it into place.
//
// Thread: one receiver serves all clients; it is a member of the sync service and lives on the
// service's thread, where processChunk() arrives through a queued connection and where its
// timers fire. receive_lock serialises processChunk(); signals are emitted while it is held, so
// connect to them with queued connections (as the service does) and never call back into
// processChunk() directly from a slot.
// Owns: the wait-for-next-file timer (member) and one file_receiver_handler_t per file in
// reception, each with its chunk timer.
// Signals: sendChunkAck per valid chunk (the acknowledgement object and the client to answer);
// file_received per file moved into place (absolute destination path); in_download_change when
// the download flag flips; start/stop_timer_wait_next_file drive the member timer.
//
// Refusals of our own, before anything else happens for the chunk (no acknowledgement, level-3
// log, state untouched): a "file" that is not a safe relative path; for the first chunk of a file,
// a "total_chunks" that is negative or whose total size exceeds the upload limit, or a file that
// would exceed the number of files in reception (timed-out receptions are discarded first to make
// room). A chunk whose "total_chunks" differs from the one its reception (the same client's, of
// the same file) began with starts that file anew (level-3 log): what was held belonged to an
// earlier upload of that client that went away, and completing with it would cut the new file at
// the old count or never complete it.
// Receptions are kept per client and path: two clients uploading one path at once each fill a
// reception of their own, so their chunks never mix, and one client's chunk (a bad one, or one
// with another chunk count) never completes, restarts or discards the other's file. Each
// completed file is moved into place whole; the upload that completes last is the one that stays,
// as with two uploads one after the other. When a client begins a file, other clients'
// receptions of that path that have been silent for the chunk timeout are dropped (level-3 log):
// their uploads have ended.
// A file that cannot be written whole to its staging file (a full or failing disk) never
// reaches the tree: level-2 log, the part file removed, everything held for the file dropped.
#pragma once

#include "context_sync/context_sync/transfer_manager/file_receiver_handler_t.h"
#include "context_sync/context_sync_export.h"

#include <QHash>
#include <QJsonObject>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <atomic>

namespace context_sync_engine {

class CONTEXT_SYNC_EXPORT file_receiver_t : public QObject {
    Q_OBJECT

public:
    // Silence tolerated inside a file, and between files of one batch.
    static constexpr int CHUNK_TIMEOUT_MS = 5000;
    static constexpr int WAIT_NEXT_FILE_MS = 5000;
    // Largest accepted upload: "total_chunks" x 512000 bytes may not exceed it.
    static constexpr qint64 DEFAULT_UPLOAD_LIMIT = qint64(64) * 1024 * 1024;
    static constexpr int DEFAULT_MAX_FILES_IN_RECEPTION = 32;

    Q_INVOKABLE file_receiver_t(const QString& _context_path, const QString& _tmp_folder_path,
        const QString& _client_id, QObject* parent = nullptr);
    ~file_receiver_t() override;

    file_receiver_t(const file_receiver_t&) = delete;
    file_receiver_t& operator=(const file_receiver_t&) = delete;

    // Writes the complete file of `_handler` to its staging file and renames it into place; false
    // when the staging file cannot be opened or written whole, or the rename fails.
    bool finalizeFile(const QString& _file, QPointer<file_receiver_handler_t> _handler);

    void printProgress();
    void printProgress(const QString& _path);

    void setInDownload(const bool& _value);
    bool inDownload();

    // Forgets the totals and empties the staging folder; files in reception are kept.
    void stop();
    void clean_tmp_folder_path();

    void setUploadLimit(qint64 _bytes);
    qint64 uploadLimit() const;
    void setMaxFilesInReception(int _files);
    int maxFilesInReception() const;

    QString getContextPath() const;
    QString getTmpFolderPath() const;
    // Totals over all files since construction or the last stop(), and the files in reception.
    qint64 receivedBytes() const;
    qint64 expectedBytes() const;
    int filesInReception() const;

    // Name of the staging file of the relative path `_file` below `tmp_folder`.
    static QString part_path_for(const QString& tmp_folder, const QString& _file);

public slots:
    // One chunk payload and the id of the client that sent it.
    void processChunk(const QJsonObject& _data, const QString& _sender);

signals:
    void sendChunkAck(QString _filePath, int _chunkIndex, QJsonObject data, QString _sender);
    void file_received(QString _filePath);
    void in_download_change(bool _value);
    void start_timer_wait_next_file();
    void stop_timer_wait_next_file();

private slots:
    void onChunkTimeout();

private:
    // Checks a first chunk against the limits; logs and returns false to refuse it.
    bool admit_new_file(const QString& file, qint64 chunks, const QString& sender);
    // Discards the receptions whose chunk timer is no longer running.
    void discard_stalled_receptions();
    // Drops the receptions of `file` by clients other than `sender` whose chunk timer has run out.
    void discard_stalled_receptions_of(const QString& file, const QString& sender);
    void discard_handler(const QString& key);
    void print_progress(file_receiver_handler_t& handler);

    QMutex receive_lock;
    QTimer wait_next_file_timer;
    // Read by inDownload() from other threads (the service's idle wait probes it from a pool
    // worker); written only on the receiver's thread.
    std::atomic<bool> in_download { false };
    QString client_id;
    QString context_path;
    QString tmp_folder_path;
    qint64 received_bytes = 0;
    qint64 expected_bytes = 0;
    int overall_percent = 0;
    int sender_percent = 0;
    double sender_speed = 0.0;
    // Keyed by client and relative path (reception_key in the source).
    QHash<QString, QPointer<file_receiver_handler_t>> handlers;

    qint64 upload_limit = DEFAULT_UPLOAD_LIMIT;
    int max_files_in_reception = DEFAULT_MAX_FILES_IN_RECEPTION;
};

} // namespace context_sync_engine
