// What the fault-injection and hostile-client tests share: a private mosquitto (optionally behind
// the deployment ACL), a context root with a state folder and an "outside" folder beside it, the
// real context_sync_server process started in file mode at log level 6, platform rr clients on the
// test's side, the ctxsync program, and readers of the server's console (every line with its
// level), of the trees on disk and of the server's list.
//
// Used from the test's thread only. Events are processed only inside the waits, so every
// observation is made after a bounded wait, never after a bare sleep. Everything started is
// stopped, by its own PID, when the fixture dies.
#pragma once

#include "server_process_t.h"

#include "rr_test_support.h"

#include "common/event_wait.h"
#include "common/md5_hex.h"
#include "common/mosquitto_broker_t.h"
#include "common/temp_tree_t.h"

#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace reliability {

// One line of the server's console: "[time] [level] [source] [function:line] message".
struct log_line_t {
    int level = -1; // the facility's number: 1 critical, 2 error, 3 warning, 4 info, 5 debug, 6
                    // trace; -1 for lines of other writers (Qt's warning stream)
    QString source;
    QString message; // for lines of other writers: the whole line
};

QList<log_line_t> parse_console(const QString& output);

// Relative path to MD5 of every regular file below `dir` (hidden and TMP_ files included).
using snapshot_t = QMap<QString, QString>;
snapshot_t snapshot(const QString& dir);

QByteArray read_file(const QString& path);
using test_support::md5_hex;
QString fixture_image(const QString& name);

// The outcome of a program run to its end.
struct run_t {
    int code = -1; // -1: crashed or did not end in time
    QString out;
    QString err;
};

// ctxsync as a child process that the test may kill (SIGKILL) while it runs.
class ctxsync_process_t {
public:
    ~ctxsync_process_t();
    bool start(const QStringList& arguments);
    void kill();
    // Waits for the end; the outcome of the run (code -1 when killed or still running).
    run_t finish(int timeout_ms);
    bool is_running() const { return process_.state() != QProcess::NotRunning; }

private:
    QProcess process_;
};

class reliability_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // --- the broker -------------------------------------------------------------------------
    bool start_broker();
    // The broker behind the ACL of docs/deployment.md, with users context-sync-server, alice and
    // mallory (password "<user>-pw").
    bool start_acl_broker();
    QString broker_text() const;

    // --- the server -------------------------------------------------------------------------
    // Where the context root lives (absolute, trailing "/"); call before start_server().
    void set_root(const QString& absolute_root) { root_ = absolute_root; }
    QString root() const { return root_; }
    QString outside() const { return outside_; }
    // Starts the server (file mode, log level `log_level`) and waits until its service runs.
    bool start_server(int log_level = 6);
    // SIGKILL, then waits for the end.
    void kill_server();
    bool server_running() const { return server_ && server_->is_running(); }
    // Console of the current server process (earlier processes: previous_output()).
    QString output();
    QString previous_output() const { return previous_output_; }
    QList<log_line_t> logs();
    bool logged(const QString& message, int level);
    int count_logged(const QString& message, int level);
    int count_fragment(const QString& fragment);
    bool wait_logged(const QString& message, int level, int timeout_ms = 10000);
    bool wait_fragment(const QString& fragment, int count = 1, int timeout_ms = 10000);
    // The lines at levels 1 to 3 whose message contains none of `expected` fragments: what the
    // server complained about unexpectedly.
    QStringList complaints(const QStringList& expected = {});

    // --- clients ----------------------------------------------------------------------------
    // A connected rr client whose subscriptions are in place (with a user: logged in as it).
    std::unique_ptr<rr_test::client_t> client(
        const QString& id, const QString& user = QString(), const QString& password = QString());
    // Publishes `body` on any `topic` through `client`'s connection (what a hostile client can
    // send but the rr client never would).
    static void publish_raw(
        rr_test::client_t& client, const QString& topic, const QByteArray& body);
    QString request_topic(const QString& client_id) const;
    // Sends one chunk of an upload: chunk `index` of `bytes` cut in 512000-byte chunks.
    static QJsonObject chunk_of(const QString& file, const QByteArray& bytes, int index,
        int remaining_files = 0, int level = 9);
    static void send_chunk(rr_test::client_t& client, const QJsonObject& chunk);
    // Waits for the acknowledgement of (`file`, `index`) from position `from` on; -1 after the
    // wait.
    static int wait_ack(rr_test::client_t& client, const QString& file, int index, int from = 0,
        int timeout_ms = 10000);
    // Waits until the retained status of the service says `status` to `client`.
    bool wait_status(rr_test::client_t& client, const QString& status, int timeout_ms = 15000);
    enum class to_t { anyone, requester, everybody };
    static int wait_response(rr_test::client_t& client, const QString& type, int from = 0,
        int timeout_ms = 10000, to_t to = to_t::anyone);
    // The server's list as answered to `client` alone (asks again every second: no answer comes
    // while the server rescans); `ok` false when none came.
    QJsonObject server_list(rr_test::client_t& client, bool* ok = nullptr, int timeout_ms = 10000);
    // Waits until the server's list equals `expected`.
    bool wait_list(rr_test::client_t& client, const QJsonObject& expected, int timeout_ms = 15000);
    // The list that the files on disk below the root call for (no TMP_ entries, no hidden ones).
    QJsonObject disk_list();

    // --- ctxsync ----------------------------------------------------------------------------
    QStringList ctxsync_arguments(
        const QString& client_id, const QStringList& command, int timeout_s = 10) const;
    run_t ctxsync(const QString& client_id, const QStringList& command, int timeout_s = 10,
        int wall_ms = 90000);

    // --- pieces of the set-up ---------------------------------------------------------------
    void put_image(const QString& relative, const QString& fixture);

    test_support::mosquitto_broker_t broker_;
    test_support::temp_tree_t dirs_;

private:
    void write_settings();

    QString root_;
    QString state_;
    QString outside_;
    QString settings_path_;
    QString server_user_;
    QString server_password_;
    std::unique_ptr<server_e2e::server_process_t> server_;
    QString previous_output_;
};

// Processes events until `done` holds or `timeout_ms` passes (no default: each wait names its own).
using test_support::wait_until;

} // namespace reliability
