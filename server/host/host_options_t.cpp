#include "host/host_options_t.h"

#include "utility/cnfserver.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QUrl>

namespace host {

namespace {

// One table for the parser and the usage text, so that the two never disagree.
struct option_row_t {
    const char* name;
    const char* value;
    const char* help;
};

const option_row_t kRows[] = {
    { "root", "DIR", "context root to keep in step (created when missing)" },
    { "config", "FILE", "file mode: read the settings from this JSON document" },
    { "config-server", "URL", "http mode: read the settings from the configuration server at URL" },
    { "state-dir", "DIR",
        "folder for config/comunication.json and logs/ when the settings name none\n"
        "(default: <parent of the root>/context_sync_state)" },
    { "broker", "HOST:PORT", "MQTT broker, overriding the one in comunication.json" },
    { "log-level", "N", "most verbose log level, 0 (fatal only) to 6 (trace); default 4" },
    { "chunk-cache-mb", "N",
        "MiB of encoded chunks kept for other clients of the same file; 0 turns\n"
        "the cache off (default 32)" },
    { "help", nullptr, "print this help and exit" },
    { "version", nullptr, "print the version and exit" },
};

} // namespace

bool host_options_t::parse_broker(const QString& text, QString& host, int& port)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0 || colon == text.size() - 1)
        return false;
    QString name = text.left(colon);
    if (name.startsWith(QLatin1Char('[')) && name.endsWith(QLatin1Char(']')))
        name = name.mid(1, name.size() - 2);
    else if (name.contains(QLatin1Char(':')))
        return false; // a bare IPv6 address is ambiguous; it must be bracketed
    if (name.isEmpty() || name.contains(QLatin1Char(' ')))
        return false;
    bool ok = false;
    const int number = text.mid(colon + 1).toInt(&ok);
    if (!ok || number < 1 || number > 65535)
        return false;
    host = name;
    port = number;
    return true;
}

bool host_options_t::parse(const QStringList& arguments, host_options_t& options, QString& error)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    for (const option_row_t& row : kRows) {
        QCommandLineOption option(QString::fromLatin1(row.name), QString::fromLatin1(row.help));
        if (row.value)
            option.setValueName(QString::fromLatin1(row.value));
        parser.addOption(option);
    }
    if (!parser.parse(arguments)) {
        error = parser.errorText();
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        error = QStringLiteral("Unexpected argument: '%1'.")
                    .arg(parser.positionalArguments().first());
        return false;
    }

    options = host_options_t();
    if (parser.isSet(QStringLiteral("help"))) {
        options.action = action_t::help;
        return true;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        options.action = action_t::version;
        return true;
    }

    // An empty value would silently mean "use the default" for most options: refuse it instead.
    for (const option_row_t& row : kRows) {
        const QString name = QString::fromLatin1(row.name);
        if (row.value && parser.isSet(name) && parser.value(name).trimmed().isEmpty()) {
            error = QStringLiteral("Option '--%1' needs a non-empty value.").arg(name);
            return false;
        }
    }

    options.root = parser.value(QStringLiteral("root"));
    options.config_file = parser.value(QStringLiteral("config"));
    options.config_server = parser.value(QStringLiteral("config-server"));
    options.state_dir = parser.value(QStringLiteral("state-dir"));

    if (!options.config_file.isEmpty() && !options.config_server.isEmpty()) {
        error = QStringLiteral("Options '--config' and '--config-server' exclude each other.");
        return false;
    }
    if (!options.config_server.isEmpty()) {
        const QUrl url(options.config_server, QUrl::StrictMode);
        if (!url.isValid() || url.scheme() != QLatin1String("http") || url.host().isEmpty()) {
            error = QStringLiteral("Invalid value for '--config-server': '%1' (expected "
                                   "http://HOST:PORT/).")
                        .arg(options.config_server);
            return false;
        }
    }
    if (parser.isSet(QStringLiteral("broker"))) {
        const QString broker = parser.value(QStringLiteral("broker"));
        if (!parse_broker(broker, options.broker_host, options.broker_port)) {
            error = QStringLiteral("Invalid value for '--broker': '%1' (expected HOST:PORT).")
                        .arg(broker);
            return false;
        }
    }
    if (parser.isSet(QStringLiteral("log-level"))) {
        const QString level = parser.value(QStringLiteral("log-level"));
        bool ok = false;
        const int number = level.toInt(&ok);
        if (!ok || number < 0 || number > 6) {
            error = QStringLiteral("Invalid value for '--log-level': '%1' (expected 0 to 6).")
                        .arg(level);
            return false;
        }
        options.log_level = number;
    }
    if (parser.isSet(QStringLiteral("chunk-cache-mb"))) {
        const QString size = parser.value(QStringLiteral("chunk-cache-mb"));
        bool ok = false;
        const int number = size.toInt(&ok);
        if (!ok || number < 0 || number > max_chunk_cache_mb) {
            error = QStringLiteral("Invalid value for '--chunk-cache-mb': '%1' (expected 0 to %2).")
                        .arg(size)
                        .arg(max_chunk_cache_mb);
            return false;
        }
        options.chunk_cache_mb = number;
    }
    return true;
}

QString host_options_t::usage(const QString& program)
{
    QString text = QStringLiteral("Usage: %1 [options]\n"
                                  "Keeps a context root in step with its clients over MQTT.\n\n"
                                  "Options:\n")
                       .arg(QFileInfo(program).fileName());
    for (const option_row_t& row : kRows) {
        QString head = QStringLiteral("  --%1").arg(QString::fromLatin1(row.name));
        if (row.value)
            head += QLatin1Char(' ') + QString::fromLatin1(row.value);
        const QStringList lines = QString::fromLatin1(row.help).split(QLatin1Char('\n'));
        text += head.leftJustified(24) + QLatin1Char(' ') + lines.first() + QLatin1Char('\n');
        for (int i = 1; i < lines.size(); ++i)
            text += QString(25, QLatin1Char(' ')) + lines.at(i) + QLatin1Char('\n');
    }
    text += QStringLiteral("\nWithout --config or --config-server the settings come from the "
                           "configuration server\nat %1. SIGINT or SIGTERM stops the server "
                           "cleanly (exit status 0).\n")
                .arg(utility::cnfserver::base);
    return text;
}

} // namespace host
