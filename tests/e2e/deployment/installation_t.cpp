#include "installation_t.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <csignal>

namespace deployment {

installation_t::installation_t(const QString& folder, const QString& installation_id)
    : folder_(folder)
    , id_(installation_id)
    , root_(folder + QStringLiteral("/root/"))
{
    QDir().mkpath(root_ + QStringLiteral("background"));
    QDir().mkpath(folder_ + QStringLiteral("/state"));
}

installation_t::~installation_t()
{
    stop();
}

bool installation_t::start(const endpoint_t& broker, const QString& client_id, int log_level)
{
    stop();
    const QString state = folder_ + QStringLiteral("/state");
    QJsonObject mqtt { { "host", broker.host }, { "port", broker.port }, { "client_id", client_id },
        { "keepalive", 5 }, { "topic_base", broker.topic_base },
        { "protocol_version", broker.protocol } };
    if (!broker.username.isEmpty()) {
        mqtt.insert(QStringLiteral("username"), broker.username);
        mqtt.insert(QStringLiteral("password"), broker.password);
    }
    const QJsonObject document { { "static",
        QJsonObject { { "orvane",
            QJsonObject {
                { "paths",
                    QJsonObject { { "client_communication", state },
                        { "logs", state + QStringLiteral("/logs") } } },
                { "comunication",
                    QJsonObject { { "global", QJsonObject { { "installation_id", id_ } } },
                        { "mqtt", mqtt } } },
            } } } } };
    const QString settings = folder_ + QStringLiteral("/settings.json");
    QFile file(settings);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    file.write(QJsonDocument(document).toJson());
    file.close();
    server_ = std::make_unique<server_e2e::server_process_t>();
    if (!server_->start({ QStringLiteral("--root"), root_, QStringLiteral("--config"), settings,
            QStringLiteral("--log-level"), QString::number(log_level) }))
        return false;
    return server_->wait_for_output(QStringLiteral("Context sync service running on "), 20000);
}

void installation_t::kill()
{
    if (!server_ || !server_->is_running())
        return;
    server_->signal(SIGKILL);
    server_->wait_finished(10000);
}

void installation_t::stop()
{
    if (!server_ || !server_->is_running())
        return;
    server_->signal(SIGTERM);
    if (!server_->wait_finished(15000))
        server_->signal(SIGKILL);
    server_->wait_finished(5000);
}

qint64 installation_t::pid() const
{
    return server_ ? server_->pid() : 0;
}

QString installation_t::output()
{
    return server_ ? server_->output() : QString();
}

QList<reliability::log_line_t> installation_t::logs()
{
    return reliability::parse_console(output());
}

int installation_t::count_logged(const QString& message, int level)
{
    int count = 0;
    for (const reliability::log_line_t& line : logs())
        count += line.message == message && (level < 0 || line.level == level) ? 1 : 0;
    return count;
}

bool installation_t::wait_logged(const QString& message, int level, int count, int timeout_ms)
{
    return reliability::wait_until(
        [&] { return count_logged(message, level) >= count; }, timeout_ms);
}

bool installation_t::wait_fragment(const QString& fragment, int count, int timeout_ms)
{
    return reliability::wait_until([&] { return output().count(fragment) >= count; }, timeout_ms);
}

} // namespace deployment
