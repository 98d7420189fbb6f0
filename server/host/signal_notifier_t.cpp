#include "host/signal_notifier_t.h"

#include <QSocketNotifier>

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace host {

namespace {

// Write end of the socket pair; the handler can reach nothing else.
volatile std::sig_atomic_t g_write_fd = -1;

} // namespace

signal_notifier_t::signal_notifier_t(QObject* parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) != 0)
        return;
    // A full pipe must never block the handler; a lost byte only repeats a request already made.
    ::fcntl(fds_[0], F_SETFL, ::fcntl(fds_[0], F_GETFL) | O_NONBLOCK);
    ::fcntl(fds_[1], F_SETFL, ::fcntl(fds_[1], F_GETFL) | O_NONBLOCK);
    g_write_fd = fds_[0];

    notifier_ = new QSocketNotifier(fds_[1], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &signal_notifier_t::on_readable);

    struct sigaction action { };
    action.sa_handler = &signal_notifier_t::handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGINT, &action, &previous_int_) != 0)
        return;
    if (::sigaction(SIGTERM, &action, &previous_term_) != 0) {
        ::sigaction(SIGINT, &previous_int_, nullptr);
        return;
    }
    handlers_installed_ = true;
    valid_ = true;
}

signal_notifier_t::~signal_notifier_t()
{
    restore_handlers();
    g_write_fd = -1;
    delete notifier_;
    for (int& fd : fds_) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void signal_notifier_t::handler(int signal_number)
{
    const int saved_errno = errno;
    const int fd = g_write_fd;
    if (fd >= 0) {
        const unsigned char byte = static_cast<unsigned char>(signal_number);
        [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1);
    }
    errno = saved_errno;
}

void signal_notifier_t::restore_handlers()
{
    if (!handlers_installed_)
        return;
    ::sigaction(SIGINT, &previous_int_, nullptr);
    ::sigaction(SIGTERM, &previous_term_, nullptr);
    handlers_installed_ = false;
}

void signal_notifier_t::on_readable()
{
    unsigned char byte = 0;
    int last = 0;
    while (::read(fds_[1], &byte, 1) == 1)
        last = byte;
    if (last == 0)
        return;
    restore_handlers();
    emit termination_requested(last);
}

} // namespace host
