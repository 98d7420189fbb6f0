// file_download_t brings files of the server's tree into a local folder. It sends one download
// request for the whole batch, then takes the server's chunks as they come (one file after the
// other, one chunk at a time): each chunk is decoded and checked against its MD5 before it is
// acknowledged and appended to a temporary file next to its destination ("TMP_ctxsync_<name>"),
// and a complete file is renamed into place only when the MD5 of the whole file equals the hash of
// the server's list. A chunk that fails its check is not acknowledged (the server then gives the
// file up) and the file is reported as failed. Files of 0 bytes travel without any chunk; they
// are created locally from the list alone.
//
// Paths are checked before anything is written: a path that is not a safe relative path, or whose
// folder would resolve outside the destination folder (through a link), is refused.
//
// Thread: the owner's thread (that of the connection); run() spins the connection's local event
// loop. Owns the temporary file of the file in progress and removes it when the file fails.
// Signals: progress after every written chunk and every finished file.
#pragma once

#include "context_sync_client/context_tree_t.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

namespace context_sync_client {

class client_connection_t;

class file_download_t : public QObject {
    Q_OBJECT
public:
    // Prefix of the temporary files; it starts with "TMP_" so that scans on either side ignore it.
    static const QString TEMP_PREFIX;
    // How long the end of the server's batch (its list broadcast) may precede a last chunk.
    static constexpr int END_GRACE_MS = 1500;

    struct file_result_t {
        QString path;
        bool ok = false;
        bool refused = false; // the path was refused before anything was written
        QString error;
    };
    struct result_t {
        QList<file_result_t> files;
        qint64 bytes = 0;
        bool timed_out = false;
        bool ok() const;
        QStringList failed() const;
    };

    file_download_t(client_connection_t& connection, const QString& dir, QObject* parent = nullptr);
    ~file_download_t() override;

    // Downloads every file of `files` (relative path to the MD5 of the server's list). Waits at
    // most `timeout_ms` of silence from the server; a file that has not arrived by then fails.
    result_t run(const file_map_t& files, int timeout_ms);

    // The absolute destination of `relative` below `dir`, with its folders created; empty, with
    // the reason in `error`, when the path is unsafe or its folder resolves outside `dir`.
    static QString prepare_target(const QString& dir, const QString& relative, QString* error);
    // Writes `path` through a temporary file renamed into place (an empty file when `bytes` is
    // empty).
    static bool write_atomically(const QString& path, const QByteArray& bytes, QString* error);

signals:
    void progress(qint64 bytes, int files_done, int files_total, QString current);

private:
    struct active_t {
        QString path;
        QString target;
        std::unique_ptr<QFile> temp;
        std::unique_ptr<QCryptographicHash> hasher;
        qint64 total_chunks = 0;
        int next_index = 0;
    };

    void on_packet(
        const QString& type, const QString& subtype, const QJsonObject& payload, bool broadcast);
    void on_chunk(const QJsonObject& chunk);
    // `path` by value: callers pass the active file's own path, which this may destroy.
    void finish_file(QString path, bool ok, const QString& error);
    void drop_active();

    client_connection_t& connection_;
    QString dir_;
    file_map_t expected_;
    QHash<QString, file_result_t> results_;
    QStringList order_;
    std::unique_ptr<active_t> active_;
    qint64 bytes_ = 0;
    QElapsedTimer clock_;
    qint64 last_activity_ms_ = 0;
    qint64 end_seen_ms_ = -1;
    bool stopped_by_server_ = false;
};

} // namespace context_sync_client
