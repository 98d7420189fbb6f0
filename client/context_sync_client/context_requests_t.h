// context_requests_t asks the server to change its tree: remove files, rename one, or make the
// whole tree equal to a local folder (replace). The server answers a removal or a rename with its
// list at once, but that list is the one from before the change: the tree is only rescanned by the
// server's watcher a moment later, and the new list is then broadcast. So every request here
// checks its preconditions against a fresh list, sends the request, and then waits for a list that
// shows the change (asking again every second), and reports each entry by what that list shows.
//
// replace: the folder is described to the server as its files object (path to MD5); the server
// copies, renames and removes within its tree to match and answers with ctx_stop_transfer; what
// it cannot make from its own files (new or changed content) is then pushed, and whatever is left
// over is removed. Local files that the server would not keep are left out and reported.
//
// Thread: the owner's thread (that of the connection); every call spins the connection's local
// event loop. Owns nothing. Signals: progress while replace pushes files.
#pragma once

#include "context_sync_client/context_tree_t.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

namespace context_sync_client {

class client_connection_t;

class context_requests_t : public QObject {
    Q_OBJECT
public:
    struct entry_t {
        QString path;
        QString action; // "remove", "rename", "upload", "skip"
        bool ok = false;
        bool refused = false; // refused by the client's checks or not kept by the server
        QString error;
    };
    struct result_t {
        QList<entry_t> entries;
        bool timed_out = false;
        QString error; // a failure of the whole request (no list, no answer)
        bool in_step = false; // replace: the server's tree equals the folder afterwards
        file_map_t server; // the last list seen
        bool ok() const;
        bool any_refused() const;
    };

    explicit context_requests_t(client_connection_t& connection, QObject* parent = nullptr);

    result_t remove(const QStringList& paths, int timeout_ms);
    result_t rename(const QString& from, const QString& to, int timeout_ms);
    result_t replace(const QString& dir, int timeout_ms);

signals:
    void progress(qint64 bytes, int files_done, int files_total, QString current);

private:
    static bool path_refused(const QString& path, const QString& action, result_t& result);

    client_connection_t& connection_;
};

} // namespace context_sync_client
