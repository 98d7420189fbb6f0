// Turns SIGINT and SIGTERM into a Qt signal on the thread that owns the object, with the classic
// self-pipe: the asynchronous signal handler only write()s the signal number to a socket pair
// (async-signal-safe), and a QSocketNotifier on the other end emits termination_requested() from
// the event loop, where stopping the server is safe.
//
// One instance per process (the handler writes to a process-wide descriptor). It lives on the
// thread that creates it (the main thread), owns the socket pair and its notifier, and restores
// the previous handlers when destroyed. After the first request the default actions are back, so
// a second Ctrl-C during a stuck shutdown still ends the process.
#pragma once

#include <QObject>

#include <csignal>

class QSocketNotifier;

namespace host {

class signal_notifier_t : public QObject {
    Q_OBJECT
public:
    explicit signal_notifier_t(QObject* parent = nullptr);
    ~signal_notifier_t() override;

    // False when the socket pair or the handlers could not be installed.
    bool isValid() const { return valid_; }

signals:
    void termination_requested(int signal_number);

private:
    static void handler(int signal_number);
    void on_readable();
    void restore_handlers();

    bool valid_ = false;
    bool handlers_installed_ = false;
    int fds_[2] = { -1, -1 };
    QSocketNotifier* notifier_ = nullptr;
    struct sigaction previous_int_ { };
    struct sigaction previous_term_ { };
};

} // namespace host
