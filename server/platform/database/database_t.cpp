#include "platform/database/database_t.h"

#include "platform/database/rr/rr_context_sync_t.h"
#include "platform/logs/classlogs.h"

#include <QMutexLocker>
#include <QThread>

namespace database {

namespace {
const char* const kLogSource = "server/platform/database/database_t";
}

database_t::database_t(QObject* parent)
    : QObject(parent)
{
}

database_t::~database_t()
{
    QMutexLocker lock(&mutex_);
    qDeleteAll(rr_);
    rr_.clear();
}

rr::rr_base_t* database_t::get_rr(const QString& name)
{
    QMutexLocker lock(&mutex_);
    if (rr::rr_base_t* found = rr_.value(name))
        return found;

    rr::rr_base_t* created = nullptr;
    if (name == rr::rr_type_t::context_sync_service.ToString())
        created = new rr::rr_context_sync_t();
    if (!created) {
        ORVANE_LOG(QStringLiteral("No rr descriptor for service %1").arg(name), 3, kLogSource);
        return nullptr;
    }
    // Created without a parent on the calling thread, then pushed to the database's thread, so
    // that get_rr() works from any thread without creating children across threads.
    if (created->thread() != thread())
        created->moveToThread(thread());
    rr_.insert(name, created);
    return created;
}

} // namespace database
