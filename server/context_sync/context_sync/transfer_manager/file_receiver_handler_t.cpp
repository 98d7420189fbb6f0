#include "context_sync/context_sync/transfer_manager/file_receiver_handler_t.h"

#include <QTimer>

namespace context_sync_engine {

file_receiver_handler_t::file_receiver_handler_t(QObject* parent)
    : QObject(parent)
{
}

file_receiver_handler_t::~file_receiver_handler_t()
{
    reset();
}

void file_receiver_handler_t::reset()
{
    delete chunk_timer;
    chunk_timer = nullptr;
    delete aux_object;
    aux_object = nullptr;
}

} // namespace context_sync_engine
