// context_follower_t keeps a local folder in step with the server's tree until it is told to stop
// (ctxsync sync). It checks at once, then again after every announcement of the server (a ctx_list
// broadcast, a state_of_service, a ready_to_check), bursts of them coalesced into one check
// COALESCE_MS after the first. After every reconnection to the broker it sends ready_to_check with
// the folder's own cumulative hash, which the server answers only when its tree differs. While the
// service's retained status says "offline" it checks nothing, and checks again once it says
// "online".
//
// A check takes the list of the last ctx_list broadcast, or asks for the list when none came
// since the last check, and compares it with the folder. Announcements of the tree that the folder
// is in step with already (a broadcast list or a state_of_service of the same cumulative hash, as
// at the end of another client's batch) bring no check. A file whose content the folder holds
// already under another path (a rename on the server) is copied locally, verified, and placed
// atomically; the others are downloaded with file_download_t, which verifies every chunk and file,
// places files atomically and retries a busy server. With remove_extras, local files the server
// does not hold are removed. A check that fails (no list, a failed file) is repeated after the
// randomised back-off of retry_backoff_t. Once a check finds the folder in step, in_step is
// reported (again only after a change).
//
// Thread: the owner's thread (that of the connection); run() spins the connection's local event
// loop until the stop check returns true. Owns the download in progress (its temporary file is
// removed when the run stops). Signals: event, one per thing that happened, as a JSON object with
// "event" one of "started", "in_step", "pulled", "deleted", "retrying", "disconnected",
// "stopped".
#pragma once

#include "context_sync_client/context_tree_t.h"
#include "context_sync_client/retry_backoff_t.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace context_sync_client {

class client_connection_t;

class context_follower_t : public QObject {
    Q_OBJECT
public:
    // Announcements that come within this time of the first are answered by one check.
    static constexpr int COALESCE_MS = 300;

    struct options_t {
        bool remove_extras = false;
        // Longest wait for a list, and longest silence of a transfer under way.
        int timeout_ms = 10000;
        // True ends run() (checked regularly, also during a transfer).
        std::function<bool()> stop;
    };

    context_follower_t(client_connection_t& connection, const QString& dir,
        const options_t& options, QObject* parent = nullptr);

    // Follows the server until the stop check returns true; the connection must be open.
    void run();

    // True when `local` holds every file of `server` with its hash (and nothing else when
    // `remove_extras`).
    static bool in_step(const file_map_t& local, const file_map_t& server, bool remove_extras);

signals:
    void event(QJsonObject event);

private:
    enum class round_t { in_step, changed, failed, server_gone, stopped };

    void schedule(int delay_ms);
    round_t check();
    // Copies the verified content of `source` to `target` atomically; false with `error` set
    // when the source no longer has `hash`.
    bool copy_local(
        const QString& source, const QString& target, const QString& hash, QString* error) const;
    void remember(const QString& relative, const QString& hash);
    void emit_event(const QString& name, QJsonObject fields = {});
    bool stopping() const { return options_.stop && options_.stop(); }

    client_connection_t& connection_;
    QString dir_;
    options_t options_;
    context_tree_t::known_files_t known_;
    retry_backoff_t backoff_;
    QElapsedTimer clock_;
    qint64 check_due_ms_ = -1;
    // No check before this (the back-off after a failed check).
    qint64 not_before_ms_ = 0;
    bool online_ = true;
    bool ever_connected_ = false;
    // Cumulative hash of the server's tree that the folder was last found in step with.
    QString reported_hash_;
    // The list of the last ctx_list broadcast not yet checked.
    std::optional<file_map_t> announced_;
};

} // namespace context_sync_client
