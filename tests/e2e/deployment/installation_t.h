// One installation's server for a deployment test: a context root, a state folder and a settings
// file in a folder of the test, and the real context_sync_server process started on them against
// a chosen broker endpoint (address, MQTT version, topic base, credentials). Its console is kept
// and read line by line. Used from the test's thread; the process is stopped (SIGTERM, then
// SIGKILL, by its PID) when the object dies.
#pragma once

#include "deployment_support.h"

#include "server_process_t.h"

#include <QString>

#include <memory>

namespace deployment {

class installation_t {
public:
    // `folder` must exist; the root, state folder and settings file are made below it.
    installation_t(const QString& folder, const QString& installation_id);
    ~installation_t();
    installation_t(const installation_t&) = delete;
    installation_t& operator=(const installation_t&) = delete;

    QString id() const { return id_; }
    // The context root, with a trailing "/".
    QString root() const { return root_; }

    // Starts the server against `broker` as `client_id` at `log_level` and waits until its service
    // runs.
    bool start(const endpoint_t& broker, const QString& client_id, int log_level = 4);
    void kill();
    void stop();
    bool running() const { return server_ && server_->is_running(); }
    qint64 pid() const;

    // Console of the current process.
    QString output();
    QList<reliability::log_line_t> logs();
    int count_logged(const QString& message, int level);
    bool wait_logged(const QString& message, int level, int count = 1, int timeout_ms = 15000);
    bool wait_fragment(const QString& fragment, int count = 1, int timeout_ms = 15000);

    // Relative path to MD5 of the files below the root.
    reliability::snapshot_t files() const { return reliability::snapshot(root_); }

private:
    QString folder_;
    QString id_;
    QString root_;
    std::unique_ptr<server_e2e::server_process_t> server_;
};

} // namespace deployment
