// context_tree_t is the client's view of a context tree: the map of relative paths to MD5 hashes,
// for the server (from its file list) and for a local folder (from a scan), the cumulative hash
// that the server computes over the same map, and the comparison of two maps. The pure work
// (scan, hash, compare, JSON conversion) is static; an instance fetches the server's list through
// a client_connection_t.
//
// The server answers a list request only when its watcher is not in the middle of an update (the
// list then comes as a broadcast once the update ends, and not at all when the update changed
// nothing), so the fetch repeats the request every LIST_RETRY_MS until a list arrives.
//
// Thread: the owner's thread (that of the connection); the fetching calls spin the connection's
// local event loop. Owns nothing; emits no signals of its own.
#pragma once

#include <QHash>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <utility>

namespace context_sync_client {

class client_connection_t;

// Relative path ("/" separators, no leading "/") to lower-case MD5 hex.
using file_map_t = QMap<QString, QString>;

class context_tree_t {
public:
    static constexpr int LIST_RETRY_MS = 1000;
    // Debounce of the server's watcher plus a margin: a list asked for this long after a change
    // on the server reflects that change.
    static constexpr int SERVER_SETTLE_MS = 1500;
    // MD5 of zero bytes: the hash of an empty file.
    static const QString EMPTY_FILE_HASH;

    struct comparison_t {
        QStringList missing_locally; // on the server only
        QStringList changed; // on both, different content
        QStringList only_local; // local only
        bool in_step() const
        {
            return missing_locally.isEmpty() && changed.isEmpty() && only_local.isEmpty();
        }
    };

    // What identifies one version of a file without reading it: a file rewritten in place changes
    // its size or its modification and change times, one replaced changes its inode.
    struct file_stamp_t {
        quint64 device = 0;
        quint64 inode = 0;
        qint64 size = -1;
        qint64 mtime_ns = 0;
        qint64 ctime_ns = 0;
        bool operator==(const file_stamp_t& other) const
        {
            return device == other.device && inode == other.inode && size == other.size
                && mtime_ns == other.mtime_ns && ctime_ns == other.ctime_ns;
        }
        bool operator!=(const file_stamp_t& other) const { return !(*this == other); }
    };
    // A hash already known for one version of a file, so that a scan need not read it again.
    struct known_file_t {
        QString hash;
        file_stamp_t stamp;
    };
    // Relative path to what is known about it.
    using known_files_t = QHash<QString, known_file_t>;

    explicit context_tree_t(client_connection_t& connection);

    // While `cancelled` returns true, the fetching calls give up at once (checked regularly).
    void set_cancel_check(std::function<bool()> cancelled) { cancelled_ = std::move(cancelled); }

    // Asks for the server's list until one arrives (answer or broadcast) or `timeout_ms` passes.
    bool fetch_list(int timeout_ms, file_map_t* files, QString* error = nullptr);
    // Waits `settle_ms` first, so that the list reflects changes just made on the server; lists
    // that arrive during the wait are ignored.
    bool fetch_settled_list(
        int settle_ms, int timeout_ms, file_map_t* files, QString* error = nullptr);
    // Asks repeatedly until a list satisfies `accept` or `timeout_ms` passes; `files` receives the
    // last list seen either way (true only when accepted).
    bool wait_for_list(const std::function<bool(const file_map_t&)>& accept, int timeout_ms,
        file_map_t* files, QString* error = nullptr);

    // --- pure work ---
    // Every regular file below `dir` (symbolic links and anything whose path has a component
    // starting with "TMP_", in any case, are left out, as the server leaves them out), with its
    // MD5. Files that cannot be read are listed in `unreadable` and left out of the map.
    static file_map_t scan_local(const QString& dir, QStringList* unreadable = nullptr);
    // The same, but a file of `known` whose stamp is still the one recorded takes the recorded
    // hash instead of being read; any other file is hashed.
    static file_map_t scan_local(
        const QString& dir, const known_files_t& known, QStringList* unreadable = nullptr);
    // The stamp of the file at `path` itself (a link is not followed); false when it cannot be
    // had or is not a regular file.
    static bool stamp_of(const QString& path, file_stamp_t* stamp);
    // MD5 hex of (MD5 hex of all paths joined in map order) followed by (MD5 hex of all hashes
    // joined in the same order): the server's "context_hash".
    static QString cumulative_hash(const file_map_t& files);
    static file_map_t from_json(const QJsonObject& files);
    static QJsonObject to_json(const file_map_t& files);
    static comparison_t compare(const file_map_t& local, const file_map_t& server);
    // True when one component of the relative path starts with "TMP_" (any case).
    static bool is_ignored(const QString& relative_path);

private:
    client_connection_t& connection_;
    std::function<bool()> cancelled_;
};

} // namespace context_sync_client
