// A private mosquitto broker for one test: started on a free loopback port with its own
// configuration file (log to stderr, run as root, no persistence), ready once a TCP connection to
// it succeeds. It is stopped by its PID, and can be killed (SIGKILL) and restarted on the same port
// with the same configuration, so that tests can inject broker failures.
//
// When the environment variable CONTEXT_SYNC_TEST_BROKER=host:port is set (for runs where the
// tests cannot start processes, such as under user-mode emulation), that broker is used instead and
// kill()/restart() report failure.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace test_support {

class mosquitto_broker_t {
public:
    struct config_t {
        QStringList global;    // lines before the listener (for example an acl_file)
        QStringList listener;  // lines right after the listener line (for example TLS files)
        bool allow_anonymous = true;
    };

    mosquitto_broker_t();
    ~mosquitto_broker_t();
    mosquitto_broker_t(const mosquitto_broker_t&) = delete;
    mosquitto_broker_t& operator=(const mosquitto_broker_t&) = delete;

    bool start();
    bool start(const config_t& config);
    bool restart();
    void stop();   // SIGTERM, then waits for the process
    void kill();   // SIGKILL, then waits for the process
    bool is_running() const;
    bool is_external() const { return external_; }

    QString host() const { return host_; }
    quint16 port() const { return port_; }
    qint64 pid() const;
    // Everything the broker wrote to stderr so far.
    QString log() const;
    // A folder that lives as long as the broker, for ACL, password and certificate files.
    QString work_dir() const { return dir_.path(); }

    static quint16 free_port();

private:
    bool launch();
    bool wait_ready(int timeout_ms) const;

    QTemporaryDir dir_;
    config_t config_;
    std::unique_ptr<QProcess> process_;
    QString host_ = QStringLiteral("127.0.0.1");
    quint16 port_ = 0;
    bool external_ = false;
};

}  // namespace test_support
