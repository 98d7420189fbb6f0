// file_upload_t pushes local files into the server's tree, in the chunk format that the server's
// receiver reads: each file is read one chunk of 512000 bytes at a time (never whole), each chunk
// is hashed, compressed and Base64-coded, sent, and its acknowledgement awaited before the next
// one goes (stop-and-wait). The coding of the next chunks runs on worker threads while the
// current one waits for its acknowledgement (upload_chunk_source_t), so that a chunk's round trip
// overlaps with coding the next. A chunk without an acknowledgement within the time-out fails its
// file and the rest of the batch.
//
// The server keeps only what may live in its tree (background images of the right kind, under
// "background/") and deletes the rest after its next scan, without a message. So, once everything
// is acknowledged, the upload waits for the server's watcher to settle, fetches the list, and
// reports every file whose path is missing from it, or listed with another MD5, as refused.
// placement_problem() tells beforehand, from the local file, why the server would refuse it.
//
// Thread: the owner's thread (that of the connection); run() spins the connection's local event
// loop, and the chunk source's workers code chunks meanwhile. Owns the file being read while it
// is sent. Signals: progress after every acknowledged chunk.
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

namespace context_sync_client {

class client_connection_t;

class file_upload_t : public QObject {
    Q_OBJECT
public:
    static constexpr int COMPRESSION_LEVEL = 9;

    struct item_t {
        QString local_path;
        QString remote_path; // relative to the server's root
    };
    struct file_result_t {
        QString local_path;
        QString remote_path;
        QString hash; // MD5 of the local file, when it was read
        bool ok = false;
        bool refused = false; // refused by the client's checks or removed by the server
        QString error;
    };
    struct result_t {
        QList<file_result_t> files;
        qint64 bytes = 0;
        // From the first chunk read until the last acknowledgement (or failure) of the batch:
        // the chunk traffic alone, without connecting and without the verification afterwards.
        qint64 transfer_ms = 0;
        bool timed_out = false;
        bool ok() const;
        bool any_refused() const;
    };

    explicit file_upload_t(client_connection_t& connection, QObject* parent = nullptr);

    // Sends every item in order. With `verify`, waits for the server's list afterwards and marks
    // the files that it did not keep as refused. `timeout_ms` bounds each wait for the server.
    result_t run(const QList<item_t>& items, int timeout_ms, bool verify = true);

    // True when `remote_path` names a file directly in "background/", the one folder that the
    // server keeps.
    static bool in_image_folder(const QString& remote_path);
    // Why the server would not keep `local_path` at `remote_path` (empty when it would): only
    // "background/" may hold files, and only 640 x 284 JPEG or PNG images of at most 1 MiB.
    static QString placement_problem(const QString& local_path, const QString& remote_path);
    // Why `local_path` cannot be sent at all (empty when it can): unreadable, empty, or larger
    // than the server's upload limit; or an unsafe `remote_path`.
    static QString transfer_problem(const QString& local_path, const QString& remote_path);

signals:
    void progress(qint64 bytes, int files_done, int files_total, QString current);

private:
    bool send_file(const item_t& item, int remaining, qint64 batch_bytes, qint64& completed_bytes,
        int timeout_ms, file_result_t& result, int files_done, int files_total);

    client_connection_t& connection_;
    qint64 bytes_ = 0;
    bool stopped_by_server_ = false;
    bool ack_matched_ = false;
    QString ack_file_;
    int ack_index_ = -1;
};

} // namespace context_sync_client
