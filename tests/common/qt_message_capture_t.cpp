#include "qt_message_capture_t.h"

#include <atomic>

namespace test_support {

namespace {
std::atomic<qt_message_capture_t*> current{nullptr};
}

qt_message_capture_t::qt_message_capture_t()
{
    current = this;
    previous_ = qInstallMessageHandler(&qt_message_capture_t::handler);
}

qt_message_capture_t::~qt_message_capture_t()
{
    qInstallMessageHandler(previous_);
    current = nullptr;
}

void qt_message_capture_t::handler(QtMsgType type, const QMessageLogContext& context,
                                   const QString& message)
{
    qt_message_capture_t* self = current.load();
    if (!self)
        return;
    {
        QMutexLocker lock(&self->mutex_);
        self->entries_.append({type, message});
    }
    if (self->previous_ && qEnvironmentVariableIntValue("CONTEXT_SYNC_TEST_LOG_CONSOLE"))
        self->previous_(type, context, message);
}

QList<qt_message_capture_t::entry_t> qt_message_capture_t::entries() const
{
    QMutexLocker lock(&mutex_);
    return entries_;
}

QStringList qt_message_capture_t::messages(QtMsgType type) const
{
    QStringList result;
    for (const entry_t& e : entries())
        if (e.type == type)
            result.append(e.message);
    return result;
}

bool qt_message_capture_t::contains(QtMsgType type, const QString& message) const
{
    return messages(type).contains(message);
}

void qt_message_capture_t::clear()
{
    QMutexLocker lock(&mutex_);
    entries_.clear();
}

}  // namespace test_support
