// context_monitor_t is the server's model of the context root: the map of relative file paths to
// MD5 hashes, the cumulative hash that clients compare with their own, and the JSON object of
// files that answers a client's list request. It watches the root with a QFileSystemWatcher,
// batches change notifications behind a single-shot 1000 ms debounce, rescans only the changed
// directories, deletes what may not live in the root (anything but background/ and "TMP_" working
// folders; anything in background/ that is not a valid background image) and reports each rescan.
//
// Thread: the monitor lives on the thread that creates it (the sync service's thread); its slots,
// its watcher and its timer run there. The getters and inUpdate() may also be called from other
// threads; they read a consistent copy under a small internal lock. While a scan runs, helper
// threads (one per further core, see file_hash_batch_t) hash the files it accepted; they touch
// nothing of the monitor, and the scan takes their results in and joins them before it returns.
// Owns: the watcher and the debounce timer (members, no parent), and the further file watchers
// that take the files once the watcher holds a share of them (see watch_add).
// Signals: in_update_change when the busy flag flips; tree_updated_files(names hash, content hash,
// diff) once from start_watcher (every file "new") and after a debounced scan that changed the
// tree (or while files still wait to be renamed into place); end_of_check after a debounced check
// that found nothing to report. debounce_timer_start/stop are internal.
//
// Links inside the root are never followed: a linked file or folder is removed as a link, so
// neither a scan nor a deletion reaches outside the root. Pipes, sockets and devices are removed
// without being opened.
//
// The static helpers (paths, hashing, tree differences, copy/move) touch no shared state and are
// used directly by the file handler, the sender and the receiver.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace context_sync_engine {

class file_hash_batch_t;

// Judges one file, given by its absolute path: true when it may stay in its directory.
using file_validator_t = std::function<bool(const QString&)>;

class CONTEXT_SYNC_EXPORT context_monitor_t : public QObject {
    Q_OBJECT

public:
    static constexpr QCryptographicHash::Algorithm algorithm_hash = QCryptographicHash::Md5;
    // A received file waits under this name prefix until it is renamed into place.
    inline static const QString prefix_file_to_send = QStringLiteral("[TO_SEND]");
    // Working files and folders whose base name starts with this (any case) are never touched.
    inline static const QString prefix_to_ignore = QStringLiteral("TMP_");

    context_monitor_t(const QString& name, const QString& root, QObject* parent = nullptr);
    ~context_monitor_t() override;

    context_monitor_t(const context_monitor_t&) = delete;
    context_monitor_t& operator=(const context_monitor_t&) = delete;

    // Getters: copies, safe to call from any thread.
    QString getRootPath() const;
    QStringList getFileList() const;
    QStringList getFileSync() const;
    QMap<QString, QString> getFileWithHashSync() const;
    QStringList getFileToSendList() const;
    QJsonObject get_files_json_object() const;
    QString get_cumulative_hash() const;
    QString get_names_hash() const;
    QString get_content_hash() const;
    bool isStarted() const;
    // Bytes read to hash files during scans since construction (a rescan reuses the hash of a
    // file whose size, times and inode did not change).
    quint64 get_bytes_hashed() const;

    // Busy flag: true from the first change of a debounce period until somebody asks after the
    // timer fired (the flag is cleared lazily, and in_update_change(false) is emitted then, on the
    // calling thread).
    bool inUpdate();
    void setInUpdate(const bool& _value);

    // Writes the watched directories, watched files and known files to the log (level 2).
    void print() const;

    // --- path helpers ---
    static QString adjust_path_directory(const QString& path);
    static QString absolute_to_relative_path(const QString& root, const QString& path);
    QString absolute_to_relative_path(const QString& path) const;
    static QString relative_to_absolute_path(const QString& root, const QString& relative);
    QString relative_to_absolute_path(const QString& relative) const;
    static void init_root_dir(const QString& path);

    // --- hashing ---
    static QString compute_hash(const QByteArray& data);
    // MD5 of the whole file, streamed; empty when the file cannot be opened.
    static QString compute_file_hash(const QString& path);

    // --- tree differences ---
    static QJsonObject calculate_diff_json_objects(
        const QMap<QString, QString>& old_tree, const QMap<QString, QString>& new_tree);
    // The current file map (old) against a client's files object (new).
    QJsonObject calculate_diff_json_objects(const QJsonObject& other) const;
    static QHash<QString, QSet<QString>> calculate_diff_stringlist(
        const QList<QString>& old, const QList<QString>& actual);
    static QHash<QString, QHash<QString, QSet<QString>>> calculate_diff_qhash(
        const QHash<QString, QList<QString>>& old, const QHash<QString, QList<QString>>& actual);

    // --- name prefixes ---
    static QString set_prefix_from_file_name(const QString& prefix, const QString& path);
    static QString unset_prefix_from_file_name(const QString& prefix, const QString& path);
    static QPair<QString, QString> getRenameValue(const QString& path);

    // --- local file operations ---
    static bool create_dir(const QString& path);
    static bool prepare_copy_move_file(const QString& src, const QString& dst,
        const bool& create_directory, const bool& overwrite);
    static bool move_file(const QString& src, const QString& dst, const bool& create_directory,
        const bool& overwrite);
    static bool copy_file(const QString& src, const QString& dst, const bool& create_directory,
        const bool& overwrite);

signals:
    void in_update_change(const bool& _value);
    void tree_updated_files(const QString& _cumulative_hash_file,
        const QString& _cumulative_hash_file_name, const QJsonObject& _diff_file_tree);
    void end_of_check();
    void debounce_timer_start();
    void debounce_timer_stop();

public slots:
    void rename_file_to_send(const QString& _filePath, const bool& _update_file_list = false);
    void start_watcher();
    void stop_watcher();
    context_sync_engine::file_validator_t validator(const QFileInfo& dir_info, bool& _deleted);
    bool scan_directories(const QSet<QString>& paths);
    void scan_directory_recursive(const QString& path);
    void clean_dir_file_removed();
    bool calculate_cumulative_hash();
    void on_directory_changed(const QString& path);
    void on_timeout_debounced();

private:
    void restart_debounce_timer();
    void stop_debounce_timer();

    // Model mutations go through these so that readers on other threads see whole values.
    void model_insert(const QString& relative, const QString& hash);
    void model_remove(const QString& relative);
    void model_clear();
    void file_to_send_remove_all(const QString& path);
    QMap<QString, QString> model_copy() const;
    // Watcher access under the model lock (getFileList() reads it from other threads).
    bool watch_add(const QString& path, bool is_dir);
    bool is_watched_dir(const QString& path) const;
    bool is_watched_file(const QString& path) const;
    void watch_remove(const QStringList& paths);
    QStringList watched_dirs() const;
    QStringList watched_files() const;
    void watch_clear();
    void sync_watch_sets();
    // The watcher holding files at `index` (0: watcher, i: file_watchers[i - 1]). Under model_lock.
    QFileSystemWatcher* file_watcher_at(qsizetype index);
    qsizetype file_watcher_for_new_file();
    void scan_one_directory(const QString& path);
    // compute_file_hash through QFile, for the paths that only QFile can open.
    static QString compute_qfile_hash(const QString& path);
    QString scanned_file_hash(const QString& path);
    // An accepted file of a scan: hashed at once on one core, else queued to be hashed by the
    // scan's helpers and taken into the model in scan order by finish_scanned_files.
    void queue_scanned_file(const QString& path);
    void finish_scanned_files(bool wait);
    // Watches a hashed file and puts it into the model (an empty hash leaves it out).
    void accept_scanned_file(const QString& path, const QString& hash);

    QHash<QString, file_validator_t> directory_validators;
    // Serialises the slots that touch the pending set and the file maps.
    QMutex mutex;
    std::atomic<bool> started { false };
    std::atomic<bool> in_update { false };
    QString monitor_name;
    QString root_path;
    QString current_dir_prefix;
    QSet<QString> pending_directories;
    QFileSystemWatcher watcher;
    QTimer debounce_timer;
    QMap<QString, QString> files_with_hash;
    QStringList file_to_send_list;
    QJsonObject files_json_object;
    QString content_hash;
    QString names_hash;
    QString cumulative_hash;

    // Guards the members above that the getters read from other threads (the file map, the list
    // of files to send, the hashes, the JSON object, the watcher's lists). Held only for the copy
    // or the single update, never across a call out or an emit.
    mutable std::mutex model_lock;
    // Mirrors the debounce timer's running state for readers on other threads.
    std::atomic<bool> timer_running { false };
    // Qt's watcher checks every path it is given against the plain list of everything it already
    // watches, and removes a path from that list by scanning all of it, so each watcher is given
    // at most file_watcher_share files: the watcher itself takes the directories and the first
    // share of files, further watchers (each its own inotify instance, a bounded number) take the
    // rest. Their file-changed signals are never connected, like the watcher's. stop_watcher
    // empties them and keeps them for the next start; they are closed with the monitor. Under
    // model_lock.
    std::vector<std::unique_ptr<QFileSystemWatcher>> file_watchers;
    // What the watchers watch, kept so that the scan's "already watched?" test does not copy the
    // watchers' lists for every entry: the directories, and each file with the index of the
    // watcher that holds it (as for file_watcher_at).
    QSet<QString> watched_dir_set;
    QHash<QString, qsizetype> watched_file_index;
    // Where the last file went; the next one goes there too while that watcher has room.
    qsizetype file_watcher_cursor = 0;
    // What a file looked like when it was last hashed by a scan. The hash is reused only when
    // nothing changed and the file had not been modified just before it was hashed (a change
    // within the file system's timestamp granularity could otherwise go unseen).
    struct file_stamp_t {
        qint64 size = -1;
        qint64 mtime_ns = 0;
        qint64 ctime_ns = 0;
        quint64 inode = 0;
        quint64 device = 0;
        bool operator==(const file_stamp_t& other) const
        {
            return size == other.size && mtime_ns == other.mtime_ns && ctime_ns == other.ctime_ns
                && inode == other.inode && device == other.device;
        }
    };
    struct cached_hash_t {
        file_stamp_t stamp;
        QString hash;
        bool trusted = false;
    };
    // Only the scans touch it, on the monitor's thread.
    QHash<QString, cached_hash_t> hash_cache;
    bool read_file_stamp(const QString& path, file_stamp_t& stamp) const;
    void remember_hash(
        const QString& path, const file_stamp_t& stamp, const QString& hash, qint64 started_ns);

    // During a scan with more than one core: the accepted files not taken into the model yet, in
    // scan order, and the batch that hashes those whose cached hash could not be reused. Both
    // belong to the monitor's thread and are empty between scans.
    struct pending_file_t {
        QString path;
        QString hash;
        file_stamp_t stamp;
        bool stamped = false;
        bool hashing = false;
    };
    std::deque<pending_file_t> pending_files;
    std::unique_ptr<file_hash_batch_t> hash_batch;
    int scan_helpers = 0;
    std::atomic<quint64> bytes_hashed { 0 };
    // Depth of scan_directory_recursive, so that the watch sets are refreshed once per scan.
    int scan_depth = 0;
};

} // namespace context_sync_engine
