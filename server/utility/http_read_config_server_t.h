// Client of the device's configuration server. At start-up read_configuration() fetches the whole
// configuration document once, copies what the server needs into the options object
// (orvane_option_t), makes sure an installation id exists (creating one and storing it on the
// configuration server if not) and writes the MQTT client settings to
// "<client folder>/config/comunication.json".
//
// A QObject singleton (createInstance/getInstance/destroyInstance under a static mutex), used
// once from the start-up thread; it owns its HTTP client and emits no signals. The server's
// address is cnfserver::base unless setBaseUrl() gave another one (the host's command line, tests).
// When a new installation id cannot be stored the process ends: the server cannot run without one.
#pragma once

#include "context_sync/context_sync_export.h"

#include "platform/http/http_t.h"

#include <QJsonObject>
#include <QMutex>
#include <QObject>
#include <QString>

namespace utility {

class CONTEXT_SYNC_EXPORT http_read_config_server_t : public QObject {
    Q_OBJECT

public:
    static http_read_config_server_t* createInstance(QObject* parent = nullptr);
    // The instance, created on first use.
    static http_read_config_server_t* getInstance(QObject* parent = nullptr);
    static void destroyInstance();

    static QString baseUrl();
    // An empty URL puts the default back.
    static void setBaseUrl(const QString& url);

    // False when the server could not be reached, answered with an error or something that is not
    // JSON, or sent an empty document; the options are then left as they were.
    bool read_configuration();
    // Creates and stores an installation id when `configuration` has none; `prefix` is the
    // configuration server's URL. Ends the process (status 0) if the id cannot be stored.
    void check_HTTP_InstallationId(QJsonObject& configuration, http_t& http, const QString& prefix);
    // Writes the communication settings of `configuration` to the client folder's
    // "config/comunication.json"; false (and a log line) when it cannot.
    bool generate_HTTP_ClientFileConfig(const QJsonObject& configuration);

private:
    explicit http_read_config_server_t(QObject* parent);
    ~http_read_config_server_t() override;

    static http_read_config_server_t* instance;
    static QMutex mutex;
    static QString base_url;

    http_t http;
};

} // namespace utility
