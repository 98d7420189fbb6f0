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
// A request that no chunk has answered is turned away when another client's batch ends (the list
// broadcast) and, 1.5 s after the request, still no chunk of its own has come: that broadcast says
// a slot is free, so the request is sent again after a short random wait rather than after the
// back-off. A broadcast during the back-off cuts the wait the same way.
//
// Signals: progress after every written chunk and every finished file; retrying before each
// new try of a turned-away request.
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

#include "context_sync_client/retry_backoff_t.h"

#include <functional>
#include <memory>
#include <optional>

namespace context_sync_client {

class client_connection_t;

class file_download_t : public QObject {
    Q_OBJECT
public:
    // Prefix of the temporary files; it starts with "TMP_" so that scans on either side ignore it.
    static const QString TEMP_PREFIX;
    // How long the end of the server's batch (its list broadcast) may precede a last chunk.
    static constexpr int END_GRACE_MS = 1500;
    // How long a download request may go without a chunk of its own before it counts as ignored
    // by a busy server.
    static constexpr int BUSY_WINDOW_MS = 4000;

    struct file_result_t {
        QString path;
        bool ok = false;
        bool refused = false; // the path was refused before anything was written
        QString error;
        bool missing = false; // the server's list no longer holds the file
    };
    struct result_t {
        QList<file_result_t> files;
        qint64 bytes = 0;
        bool timed_out = false;
        // Download requests sent (the first try included).
        int tries = 0;
        // Of those, the tries sent early because a list broadcast said that a slot was free.
        int early_tries = 0;
        // The service announced itself "offline" during the run.
        bool server_gone = false;
        // The caller's cancel check ended the run.
        bool cancelled = false;
        int retries() const { return tries > 0 ? tries - 1 : 0; }
        bool ok() const;
        QStringList failed() const;
    };

    struct options_t {
        // A transfer under way that brings nothing for this long fails ("no data ...").
        int silence_ms = 10000;
        // Overall: no try is started after this many milliseconds from the start of run().
        qint64 deadline_ms = 120000;
        int busy_window_ms = BUSY_WINDOW_MS;
        // Checked regularly; true ends the run at once, the file in progress removed.
        std::function<bool()> cancelled;
        // Seed of the back-off's generator; none: seeded from the system's entropy.
        std::optional<quint32> seed;
    };

    // What to do with the files still pending when a batch ended or a request went unanswered.
    struct batch_verdict_t {
        QStringList missing; // the fresh list no longer holds them: they failed for good
        QStringList unsent; // the batch was served and ended without them, yet they are listed
        QStringList retry; // ask again after the back-off
        file_map_t new_hashes; // pending files that the fresh list holds with another hash
    };
    // `served`: at least one chunk of this try came. `fresh`: the newest list of the server, if
    // one came since the try began.
    static batch_verdict_t judge_batch_end(const QStringList& pending, const file_map_t& expected,
        const std::optional<file_map_t>& fresh, bool served);

    file_download_t(client_connection_t& connection, const QString& dir, QObject* parent = nullptr);
    ~file_download_t() override;

    // Downloads every file of `files` (relative path to the MD5 of the server's list). Waits at
    // most `timeout_ms` of silence from the server; a file that has not arrived by then fails.
    // A turned-away request is tried again for as long as the same `timeout_ms` allows.
    result_t run(const file_map_t& files, int timeout_ms);
    result_t run(const file_map_t& files, const options_t& options);

    // The absolute destination of `relative` below `dir`, with its folders created; empty, with
    // the reason in `error`, when the path is unsafe or its folder resolves outside `dir`.
    static QString prepare_target(const QString& dir, const QString& relative, QString* error);
    // Writes `path` through a temporary file renamed into place (an empty file when `bytes` is
    // empty).
    static bool write_atomically(const QString& path, const QByteArray& bytes, QString* error);

signals:
    void progress(qint64 bytes, int files_done, int files_total, QString current);
    // Try `try_number` follows in `wait_ms`; `reason` says why the last one did not bring the
    // files.
    void retrying(int try_number, int wait_ms, QString reason);

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
    bool server_gone_ = false;
    // A chunk of ours came since the current try was sent.
    bool served_ = false;
    std::optional<file_map_t> fresh_list_;
    std::unique_ptr<retry_backoff_t> backoff_;
    // The first list broadcast since the current try (or wait) began, and the random wait drawn
    // for it; -1: none yet.
    qint64 slot_free_ms_ = -1;
    int slot_jitter_ms_ = 0;
};

} // namespace context_sync_client
