#include "topic_watch_t.h"

#include <QRegularExpression>

#include <csignal>
#include <sys/types.h>

namespace deployment {

namespace {

QStringList connection_arguments(const endpoint_t& at, const QString& client_id)
{
    QStringList arguments { QStringLiteral("-h"), at.host, QStringLiteral("-p"),
        QString::number(at.port), QStringLiteral("-V"),
        at.protocol == 4 ? QStringLiteral("mqttv311") : QStringLiteral("mqttv5"),
        QStringLiteral("-i"), client_id, QStringLiteral("-q"), QStringLiteral("1") };
    if (!at.username.isEmpty())
        arguments << QStringLiteral("-u") << at.username << QStringLiteral("-P") << at.password;
    return arguments;
}

} // namespace

topic_watch_t::~topic_watch_t()
{
    stop();
}

bool topic_watch_t::start(
    const endpoint_t& at, const QString& client_id, const QStringList& filters)
{
    QStringList arguments = connection_arguments(at, client_id);
    arguments << QStringLiteral("-v") << QStringLiteral("-d");
    for (const QString& filter : filters)
        arguments << QStringLiteral("-t") << filter;
    process_.setProcessChannelMode(QProcess::MergedChannels);
    // Line-buffered, so that every message is seen when it arrives and not when a pipe buffer
    // fills.
    process_.start(QStringLiteral("stdbuf"),
        QStringList { QStringLiteral("-oL"), QStringLiteral("mosquitto_sub") } + arguments);
    if (!process_.waitForStarted(5000))
        return false;
    return reliability::wait_until(
               [this] {
                   read();
                   return subscribed_ || process_.state() == QProcess::NotRunning;
               },
               15000)
        && subscribed_;
}

void topic_watch_t::stop()
{
    if (process_.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(process_.processId()), SIGKILL);
    process_.waitForFinished(5000);
}

void topic_watch_t::read()
{
    pending_ += QString::fromUtf8(process_.readAll());
    static const QRegularExpression suback(QStringLiteral("^Subscribed \\(mid: \\d+\\): (.*)$"));
    for (;;) {
        const qsizetype newline = pending_.indexOf(QLatin1Char('\n'));
        if (newline < 0)
            break;
        const QString line = pending_.left(newline);
        pending_.remove(0, newline + 1);
        // Debug lines of the tool itself; everything else is a message.
        if (line.startsWith(QLatin1String("Client ")))
            continue;
        const QRegularExpressionMatch match = suback.match(line);
        if (match.hasMatch()) {
            for (const QString& qos : match.captured(1).split(QLatin1String(", ")))
                granted_.append(qos.toInt());
            subscribed_ = true;
            continue;
        }
        messages_.append(line);
    }
}

QStringList topic_watch_t::messages()
{
    read();
    return messages_;
}

QList<int> topic_watch_t::granted()
{
    read();
    return granted_;
}

bool topic_watch_t::wait_message(const QString& message, int timeout_ms)
{
    return reliability::wait_until([&] { return messages().contains(message); }, timeout_ms);
}

int topic_watch_t::count(const QString& message)
{
    return int(messages().count(message));
}

bool publish(const endpoint_t& at, const QString& client_id, const QString& topic,
    const QByteArray& payload, bool retain)
{
    QStringList arguments = connection_arguments(at, client_id);
    arguments << QStringLiteral("-t") << topic << QStringLiteral("-s");
    if (retain)
        arguments << QStringLiteral("-r");
    QProcess process;
    process.start(QStringLiteral("mosquitto_pub"), arguments);
    if (!process.waitForStarted(5000))
        return false;
    process.write(payload);
    process.closeWriteChannel();
    return process.waitForFinished(15000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
}

} // namespace deployment
