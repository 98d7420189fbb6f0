// The key vocabulary of the configuration server's document. Keys are paths made by joining the
// prefixes ("base") of nested groups; each group's toString(key) builds the full path used with
// utility_t::getJsonObjValue / updateJsonValue, for example
//     cnfserver::statics_o::device_o::toString(cnfserver::statics_o::device_o::product_name)
//         == "static/device/product_name/"
// Only constant strings: no state, no thread affinity, no signals.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QString>

namespace utility {

class CONTEXT_SYNC_EXPORT cnfserver {
public:
    // Default address of the configuration server: the loopback address, port 4321.
    static const QString base;
    // Query that asks the configuration server to run its change triggers after a write.
    static const QString trigger;
    // Full URL of a relative path: base + path.
    static QString toString(const QString& path);

    class CONTEXT_SYNC_EXPORT installation_o {
    public:
        static const QString base;
        static const QString installation_id;
        static const QString mqtt_devices;
        static const QString cloud_enabled;
        static const QString master_version;
        static const QString master;
        static const QString master_model;
        // "installation/" + key, with no trailing "/".
        static QString toString(const QString& key);

        class CONTEXT_SYNC_EXPORT cloud_o {
        public:
            static const QString base;
            static const QString cloud_api_token;
            // "installation/cloud/" + key.
            static QString toString(const QString& key);
        };
    };

    class CONTEXT_SYNC_EXPORT statics_o {
    public:
        static const QString base;
        // "static/" + key + "/".
        static QString toString(const QString& key);

        class CONTEXT_SYNC_EXPORT kzrconf_o {
        public:
            static const QString base;
            static const QString serial;
            static QString toString(const QString& key);
        };

        class CONTEXT_SYNC_EXPORT device_o {
        public:
            static const QString base;
            static const QString product_code;
            static const QString product_name;
            static const QString version;
            static QString toString(const QString& key);
        };

        class CONTEXT_SYNC_EXPORT orvane_o {
        public:
            static const QString base;
            static const QString comunication;
            static const QString zeroconf;
            static QString toString(const QString& key);

            class CONTEXT_SYNC_EXPORT comunication_o {
            public:
                static const QString base;
                static QString toString(const QString& key);

                class CONTEXT_SYNC_EXPORT global_o {
                public:
                    static const QString base;
                    static const QString installation_id;
                    static QString toString(const QString& key);
                };
            };

            class CONTEXT_SYNC_EXPORT paths_o {
            public:
                static const QString base;
                static const QString cacerts;
                static const QString plugins;
                static const QString logs;
                static const QString client_communication;
                static const QString system_ca_certs;
                static QString toString(const QString& key);
            };

            class CONTEXT_SYNC_EXPORT urls_o {
            public:
                static const QString base;
                static const QString cloud_service;
                static const QString cloud_web;
                static QString toString(const QString& key);
            };
        };

        class CONTEXT_SYNC_EXPORT mosquitto_o {
        public:
            static const QString base;
            static const QString mqtt_cloud_url;
            static QString toString(const QString& key);
        };
    };

    class CONTEXT_SYNC_EXPORT realtime_o {
    public:
        static const QString base;
        static QString toString(const QString& key);

        class CONTEXT_SYNC_EXPORT orvane_o {
        public:
            static const QString base;
            static const QString database;
            static QString toString(const QString& key);

            class CONTEXT_SYNC_EXPORT database_o {
            public:
                static const QString base;
                static const QString installation;
                static QString toString(const QString& key);
            };
        };
    };

    class CONTEXT_SYNC_EXPORT orvane_o {
    public:
        static const QString base;
        static const QString database;
        static const QString presencesimulation;
        static const QString preserved_realtime;
        static const QString baos_stick_params;
        static QString toString(const QString& key);
    };
};

} // namespace utility
