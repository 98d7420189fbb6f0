// The database of rr service descriptors. get_rr(name) returns the descriptor of a known service,
// creating it on first use; the same object is returned on every later call. Unknown names give
// nullptr and a level-3 log line.
//
// Thread: lives on the thread that created it; get_rr() may be called from any thread (a mutex
// guards the table) and the descriptors it creates live on the database's thread. Owns the
// descriptors and deletes them with itself. Emits no signals.
#pragma once

#include "platform/database/rr/rr_base_t.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QString>

namespace database {

class database_t : public QObject {
    Q_OBJECT
public:
    explicit database_t(QObject* parent = nullptr);
    ~database_t() override;

    rr::rr_base_t* get_rr(const QString& name);

private:
    QMutex mutex_;
    QHash<QString, rr::rr_base_t*> rr_;
};

} // namespace database
