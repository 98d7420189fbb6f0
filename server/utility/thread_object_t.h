// thread_object_t ends objects that were given a thread of their own (a file sender on its
// QThread): the object is deleted on its own thread, and that thread is asked to quit, awaited and
// deleted in turn, so neither outlives the other and nothing is deleted across threads.
//
// Thread: no state; deleteInstance() may be called from any thread but the object's own one, which
// is never quit from inside itself. Owns nothing; emits nothing. Each call logs
// "Instance of %1 destroyed" with the object's name once the deletion is under way.
#pragma once

#include "context_sync/context_sync_export.h"

#include <QObject>
#include <QPointer>
#include <QString>

class QThread;

namespace utility {

class CONTEXT_SYNC_EXPORT thread_object_t {
public:
    thread_object_t() = delete;

    // Deletes `instance` later on its own thread. When that thread is not the caller's and is
    // running it is asked to quit; with `wait` the call blocks until it has finished (without a
    // limit) and the QThread object is deleted later, without `wait` it is deleted once it has
    // finished. A null pointer does nothing.
    template <typename T> static void deleteInstance(QPointer<T> instance, const bool& wait = true)
    {
        if (!instance)
            return;
        QObject* object = instance.data();
        const QString name = object->objectName();
        QThread* thread = object->thread();
        object->deleteLater();
        finish_thread(thread, wait);
        log_destroyed(name);
    }

    // The thread half of deleteInstance: quit, (await,) delete later. Does nothing for a null
    // thread, the caller's own thread or a thread that is not running.
    static void finish_thread(QThread* thread, const bool& wait);

private:
    static void log_destroyed(const QString& name);
};

} // namespace utility
