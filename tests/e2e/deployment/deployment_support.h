// What the deployment tests share besides their classes: where a program connects (a broker's
// address, its MQTT version, the installation's topic base and the program's credentials), ctxsync
// runs against such an endpoint, background images of a chosen size, and the memory figures of a
// process. Plain functions and values, used from the test's thread.
#pragma once

#include "reliability_env_t.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace deployment {

using reliability::run_t;

// Where one program connects, and as whom.
struct endpoint_t {
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 0;
    int protocol = 5; // 5, or 4 for MQTT 3.1.1
    QString topic_base = QStringLiteral("orvane");
    QString username;
    QString password;

    QString text() const { return QStringLiteral("%1:%2").arg(host).arg(port); }
    // The topic of the rr tree below this endpoint's base, e.g. "rr/context_sync/status".
    QString topic(const QString& below_rr) const
    {
        return topic_base + QStringLiteral("/rr/") + below_rr;
    }
};

// ctxsync's options for `at` as `client_id`, then `command`.
QStringList ctxsync_arguments(
    const endpoint_t& at, const QString& client_id, const QStringList& command, int timeout_s = 20);
// Runs ctxsync to its end (code -1 when it crashed or outlived `wall_ms`).
run_t ctxsync(const endpoint_t& at, const QString& client_id, const QStringList& command,
    int timeout_s = 20, int wall_ms = 120000);

// A valid 640 x 284 PNG of exactly `size` bytes whose bulk is an ancillary chunk of incompressible
// bytes (seeded by `seed`): a file of two whole chunks travels as two messages of about 680 KB.
QByteArray padded_png(qsizetype size, quint32 seed);

// A value of /proc/<pid>/status in KiB ("VmRSS", "VmHWM"); -1 when the process is gone.
qint64 proc_status_kib(qint64 pid, const char* key);

// The fixture image of the tests' data folder.
QByteArray fixture(const QString& name);

} // namespace deployment
