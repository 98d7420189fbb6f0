// ctxsync_cli_t is the ctxsync command line: it parses the arguments, opens the connection when
// the command needs the server, runs one command with the client library and prints the outcome,
// as text for people or as one JSON document for scripts (--json). Errors go to the error stream
// as "ctxsync: ..." lines and the exit code tells what went wrong (see exit_code_t).
//
// Thread: the program's main thread, inside a QCoreApplication (the library's operations spin
// local event loops). Owns the connection while a command runs. Emits nothing.
#pragma once

#include "context_sync_client/client_connection_t.h"
#include "context_sync_client/context_tree_t.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <memory>

class ctxsync_cli_t {
public:
    enum exit_code_t : int {
        exit_ok = 0,
        exit_failed = 1, // a transfer or an operation failed
        exit_usage = 2, // bad arguments
        exit_no_broker = 3, // the broker could not be reached
        exit_timeout = 4, // the server did not answer in time
        exit_refused = 5, // a file or path was refused (by the client's checks or the server)
        exit_not_in_step = 6, // status: the folder differs from the server
    };

    ctxsync_cli_t(std::FILE* out = stdout, std::FILE* err = stderr);
    ~ctxsync_cli_t();

    // `arguments` without the program name.
    int run(const QStringList& arguments);

    static QString usage();

    // Asks a running watch, sync or pull to end (from a signal handler: only sets a flag).
    static void request_stop();

private:
    int parse(const QStringList& arguments);
    int connect_server();

    int cmd_list();
    int cmd_status();
    int cmd_pull();
    int cmd_push();
    int cmd_rm();
    int cmd_mv();
    int cmd_replace();
    int cmd_watch();
    int cmd_sync();
    int cmd_inspect_image();

    void out(const QString& line);
    void err(const QString& line);
    void out_json(const QJsonObject& document);
    // Reports a failure of the whole command (also as {"error", "exit_code"} with --json) and
    // returns `code`.
    int fail(int code, const QString& message);
    bool progress_enabled() const;

    std::FILE* out_;
    std::FILE* err_;
    context_sync_client::client_connection_t::settings_t settings_;
    QString command_;
    QStringList positional_;
    QString to_ = QStringLiteral("background/");
    bool json_ = false;
    bool delete_ = false;
    bool force_ = false;
    int timeout_ms_ = 10000;
    qint64 deadline_ms_ = 120000;
    std::unique_ptr<context_sync_client::client_connection_t> connection_;
};
