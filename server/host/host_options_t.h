// The command line of context_sync_server, parsed into plain values. Parsing is pure: it prints
// nothing and never exits, so main() decides what a bad option costs (a usage message on stderr
// and exit status 2) and the rules can be checked without starting a process.
//
//   --root DIR            the synchronised tree (created when missing; a trailing "/" is added)
//   --config FILE         file mode: settings from a JSON document shaped like the configuration
//                         server's
//   --config-server URL   http mode: settings from the configuration server at URL
//   --state-dir DIR       where comunication.json and the logs go when the settings name no folder
//   --broker HOST:PORT    MQTT broker, overriding the one in comunication.json
//   --log-level N         0..6, most verbose level written to the console and the log file
//   --chunk-cache-mb N    MiB of encoded chunks shared by the file senders (0: off; default 32)
//   --help, --version
//
// Plain value type: no thread affinity, no signals.
#pragma once

#include <QString>
#include <QStringList>

namespace host {

class host_options_t {
public:
    enum class action_t { run, help, version };

    // Exit status of a command line that cannot be obeyed.
    static constexpr int usage_exit_code = 2;
    // Largest accepted --chunk-cache-mb.
    static constexpr int max_chunk_cache_mb = 4096;

    // Parses `arguments` (the program name first, as QCoreApplication::arguments() gives them).
    // On failure returns false and sets `error` to one sentence naming the culprit.
    static bool parse(const QStringList& arguments, host_options_t& options, QString& error);
    static QString usage(const QString& program);

    // "HOST:PORT" with a non-empty host and a port in 1..65535; "[::1]:PORT" for IPv6.
    static bool parse_broker(const QString& text, QString& host, int& port);

    action_t action = action_t::run;
    QString root; // empty: the built-in context root
    QString config_file; // file mode when set
    QString config_server; // http mode at this URL when set
    QString state_dir; // empty: derived from the context root
    QString broker_host; // empty: no override
    int broker_port = 0;
    int log_level = -1; // -1: the options object's defaults
    int chunk_cache_mb = -1; // -1: the options object's default
};

} // namespace host
