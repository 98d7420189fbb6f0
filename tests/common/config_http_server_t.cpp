#include "config_http_server_t.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTcpServer>

namespace test_support {

config_http_server_t::~config_http_server_t()
{
    stop();
}

bool config_http_server_t::start(const QJsonObject& document, const options_t& options)
{
    stop();
    const QString document_path = dir_.filePath(QStringLiteral("document.json"));
    QFile file(document_path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        error_ = QStringLiteral("cannot write ") + document_path;
        return false;
    }
    file.write(QJsonDocument(document).toJson());
    file.close();
    QFile::remove(dir_.filePath(QStringLiteral("puts.log")));

    QStringList arguments { QStringLiteral(CONTEXT_SYNC_TESTS_DIR "/common/config_http_server.py"),
        QStringLiteral("--document"), document_path, QStringLiteral("--put-log"),
        dir_.filePath(QStringLiteral("puts.log")), QStringLiteral("--get-status"),
        QString::number(options.get_status), QStringLiteral("--delay-ms"),
        QString::number(options.delay_ms) };
    if (options.fail_put)
        arguments << QStringLiteral("--fail-put");
    if (options.non_json)
        arguments << QStringLiteral("--non-json");

    process_.setProcessChannelMode(QProcess::SeparateChannels);
    process_.start(QStringLiteral("python3"), arguments);
    if (!process_.waitForStarted(10000)) {
        error_ = QStringLiteral("python3 did not start: ") + process_.errorString();
        return false;
    }
    const QDeadlineTimer deadline(10000);
    QByteArray line;
    while (!deadline.hasExpired()) {
        if (process_.canReadLine()) {
            line = process_.readLine().trimmed();
            break;
        }
        if (process_.state() != QProcess::Running)
            break;
        process_.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
    }
    if (!line.startsWith("PORT ")) {
        error_ = QStringLiteral("server did not report its port: ")
            + QString::fromLocal8Bit(process_.readAllStandardError());
        stop();
        return false;
    }
    port_ = quint16(line.mid(5).toUInt());
    return port_ != 0;
}

void config_http_server_t::stop()
{
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(5000);
    }
    port_ = 0;
}

QString config_http_server_t::base_url() const
{
    return QStringLiteral("http://127.0.0.1:%1/").arg(port_);
}

QList<config_http_server_t::put_t> config_http_server_t::puts() const
{
    QList<put_t> result;
    QFile file(dir_.filePath(QStringLiteral("puts.log")));
    if (!file.open(QIODevice::ReadOnly))
        return result;
    while (!file.atEnd()) {
        const QJsonObject entry = QJsonDocument::fromJson(file.readLine()).object();
        if (!entry.isEmpty())
            result.append(put_t { entry.value(QStringLiteral("path")).toString(),
                entry.value(QStringLiteral("body")).toString() });
    }
    return result;
}

quint16 config_http_server_t::unused_port()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

} // namespace test_support
