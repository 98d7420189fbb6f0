#include "server_process_t.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <csignal>
#include <sys/types.h>

namespace server_e2e {

server_process_t::server_process_t(const QString& program)
{
    process_.setProgram(program);
    process_.setProcessChannelMode(QProcess::MergedChannels);
}

server_process_t::~server_process_t()
{
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(5000);
    }
}

bool server_process_t::start(const QStringList& arguments)
{
    output_.clear();
    process_.setArguments(arguments);
    process_.start();
    return process_.waitForStarted(10000);
}

void server_process_t::signal(int signal_number)
{
    const qint64 pid = process_.processId();
    if (pid > 0)
        ::kill(pid_t(pid), signal_number);
}

bool server_process_t::wait_finished(int timeout_ms)
{
    if (process_.state() == QProcess::NotRunning)
        return true;
    const bool finished = process_.waitForFinished(timeout_ms);
    output();
    return finished;
}

bool server_process_t::wait_for_output(const QString& fragment, int timeout_ms)
{
    QDeadlineTimer deadline(timeout_ms);
    while (!output().contains(fragment)) {
        if (deadline.hasExpired() || process_.state() == QProcess::NotRunning)
            return output().contains(fragment);
        // Other objects of the test (rr clients) deliver their signals through this loop.
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        process_.waitForReadyRead(20);
    }
    return true;
}

bool server_process_t::is_running() const
{
    return process_.state() != QProcess::NotRunning;
}

QString server_process_t::output()
{
    output_ += QString::fromLocal8Bit(process_.readAll());
    return output_;
}

int server_process_t::run(
    const QStringList& arguments, QString& standard_output, QString& standard_error, int timeout_ms)
{
    QProcess process;
    process.start(QStringLiteral(CONTEXT_SYNC_SERVER_PATH), arguments);
    if (!process.waitForStarted(10000))
        return -1;
    process.closeWriteChannel();
    const bool finished = process.waitForFinished(timeout_ms);
    if (!finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    standard_output = QString::fromLocal8Bit(process.readAllStandardOutput());
    standard_error = QString::fromLocal8Bit(process.readAllStandardError());
    if (!finished || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

} // namespace server_e2e
