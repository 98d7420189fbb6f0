// Where context_sync_server takes its settings from, and the folders it derives from them. In
// file mode (--config FILE) the document has the configuration server's shape and is applied
// exactly as the configuration server client applies the one it fetches; in http mode that client
// does the work. Either way the MQTT settings end in "<client folder>/config/comunication.json",
// which is then read back, and --broker replaces only host and port of what was read (in memory:
// the file keeps what the settings said).
//
// Folders: the client folder and the logs folder are the ones the settings name; when they name
// none, the state folder is used: --state-dir, or "context_sync_state" next to the context root
// (for "/data/context_root/" that is "/data/context_sync_state"), with the logs in its "logs/".
//
// Static functions only: no object, no thread affinity, no signals. They log through the log
// facility and report failures by their result.
#pragma once

#include "platform/comunication/config/mosquittocnf_t.h"

#include <QJsonObject>
#include <QString>

namespace utility {
class orvane_option_t;
}

namespace host {

class host_settings_t {
public:
    // Absolute form of `dir` with exactly one trailing "/", as the library wants a context root.
    static QString normalise_root(const QString& dir);
    // "<parent of the root>/context_sync_state".
    static QString default_state_dir(const QString& context_root);

    // Reads a settings document; false with `error` set when the file is unreadable or not a JSON
    // object.
    static bool read_document(const QString& path, QJsonObject& document, QString& error);
    // Copies into `options` the same values, from the same paths, as the configuration server
    // client does: folders, certificates, serial device, product name, cloud URLs, installation id.
    static void apply_document(const QJsonObject& document, utility::orvane_option_t& options);
    // File mode has nowhere to store a new installation id but the client file itself: take the
    // document's, else the one already in "<client folder>/config/comunication.json", else a new
    // one. It is written into `document` under both installation id paths and into `options`.
    static QString ensure_installation_id(
        QJsonObject& document, const QString& client_folder, utility::orvane_option_t& options);

    // The MQTT settings of "<client folder>/config/comunication.json" (defaults when it cannot be
    // read), with host and port replaced when `broker_host` is not empty.
    static comunication::config::mosquittocnf_t mqtt_settings(
        const QString& client_folder, const QString& broker_host, int broker_port);
};

} // namespace host
