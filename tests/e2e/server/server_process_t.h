// The context_sync_server program run as a child process for one test, with its standard output
// and error merged and kept. Signals are sent by PID, so SIGINT, SIGTERM and SIGKILL reach the
// program exactly as they would from a shell. Used from the test's thread only; the process is
// killed when the object dies.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

namespace server_e2e {

class server_process_t {
public:
    explicit server_process_t(const QString& program = QStringLiteral(CONTEXT_SYNC_SERVER_PATH));
    ~server_process_t();
    server_process_t(const server_process_t&) = delete;
    server_process_t& operator=(const server_process_t&) = delete;

    bool start(const QStringList& arguments);
    // Sends `signal_number` to the process.
    void signal(int signal_number);
    // Waits for the process to end; false when it still runs after `timeout_ms`.
    bool wait_finished(int timeout_ms);
    // Processes events until `fragment` appears in the output; false after `timeout_ms` or when
    // the process ended without writing it.
    bool wait_for_output(const QString& fragment, int timeout_ms);

    bool is_running() const;
    qint64 pid() const { return process_.processId(); }
    int exit_code() const { return process_.exitCode(); }
    QProcess::ExitStatus exit_status() const { return process_.exitStatus(); }
    QString output();

    // Runs the program to its end with `arguments`; returns its exit code (-1 when it crashed or
    // did not end within `timeout_ms`) and what it wrote to each stream.
    static int run(const QStringList& arguments, QString& standard_output, QString& standard_error,
        int timeout_ms = 20000);

private:
    QProcess process_;
    QString output_;
};

} // namespace server_e2e
