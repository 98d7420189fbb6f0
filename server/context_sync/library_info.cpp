#include "context_sync/library_info.h"

namespace context_sync_engine {

const char* library_version()
{
    return CONTEXT_SYNC_VERSION;
}

}  // namespace context_sync_engine
