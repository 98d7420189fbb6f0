#include "mosquitto_broker_t.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <csignal>

namespace test_support {

namespace {

QString mosquitto_program()
{
    QString found = QStandardPaths::findExecutable(QStringLiteral("mosquitto"));
    if (found.isEmpty())
        found = QStandardPaths::findExecutable(QStringLiteral("mosquitto"),
                                               {QStringLiteral("/usr/sbin"),
                                                QStringLiteral("/usr/local/sbin")});
    return found;
}

}  // namespace

mosquitto_broker_t::mosquitto_broker_t()
{
    const QString external = qEnvironmentVariable("CONTEXT_SYNC_TEST_BROKER");
    if (!external.isEmpty()) {
        const int colon = external.lastIndexOf(':');
        host_ = external.left(colon);
        port_ = quint16(external.mid(colon + 1).toUInt());
        external_ = true;
    }
}

mosquitto_broker_t::~mosquitto_broker_t()
{
    stop();
}

quint16 mosquitto_broker_t::free_port()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool mosquitto_broker_t::start()
{
    return start(config_t());
}

bool mosquitto_broker_t::start(const config_t& config)
{
    if (external_)
        return wait_ready(10000);
    config_ = config;
    port_ = free_port();
    return launch();
}

bool mosquitto_broker_t::restart()
{
    if (external_ || port_ == 0)
        return false;
    stop();
    return launch();
}

bool mosquitto_broker_t::launch()
{
    const QString conf_path = dir_.filePath(QStringLiteral("mosquitto.conf"));
    QFile conf(conf_path);
    if (!conf.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QStringList lines{QStringLiteral("log_dest stderr"), QStringLiteral("log_type all"),
                      QStringLiteral("user root"), QStringLiteral("persistence false")};
    lines += config_.global;
    lines += QStringLiteral("listener %1 %2").arg(port_).arg(host_);
    lines += QStringLiteral("allow_anonymous %1")
                 .arg(config_.allow_anonymous ? QStringLiteral("true") : QStringLiteral("false"));
    lines += config_.listener;
    conf.write(lines.join('\n').toUtf8() + '\n');
    conf.close();

    process_ = std::make_unique<QProcess>();
    process_->setProgram(mosquitto_program());
    process_->setArguments({QStringLiteral("-c"), conf_path});
    process_->setStandardOutputFile(QProcess::nullDevice());
    process_->setStandardErrorFile(dir_.filePath(QStringLiteral("mosquitto.log")),
                                   QIODevice::Append);
    process_->start();
    if (!process_->waitForStarted(5000))
        return false;
    return wait_ready(10000);
}

bool mosquitto_broker_t::wait_ready(int timeout_ms) const
{
    QDeadlineTimer deadline(timeout_ms);
    while (!deadline.hasExpired()) {
        if (!external_ && (!process_ || process_->state() == QProcess::NotRunning))
            return false;
        QTcpSocket socket;
        socket.connectToHost(host_, port_);
        if (socket.waitForConnected(200)) {
            socket.disconnectFromHost();
            return true;
        }
        QThread::msleep(20);
    }
    return false;
}

void mosquitto_broker_t::stop()
{
    if (!process_)
        return;
    if (process_->state() != QProcess::NotRunning) {
        ::kill(pid_t(process_->processId()), SIGTERM);
        if (!process_->waitForFinished(5000)) {
            ::kill(pid_t(process_->processId()), SIGKILL);
            process_->waitForFinished(5000);
        }
    }
    process_.reset();
}

void mosquitto_broker_t::kill()
{
    if (!process_)
        return;
    if (process_->state() != QProcess::NotRunning) {
        ::kill(pid_t(process_->processId()), SIGKILL);
        process_->waitForFinished(5000);
    }
    process_.reset();
}

bool mosquitto_broker_t::is_running() const
{
    if (external_)
        return true;
    return process_ && process_->state() == QProcess::Running;
}

qint64 mosquitto_broker_t::pid() const
{
    return process_ ? process_->processId() : 0;
}

QString mosquitto_broker_t::log() const
{
    QFile file(dir_.filePath(QStringLiteral("mosquitto.log")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

}  // namespace test_support
