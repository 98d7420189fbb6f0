// Version of libcontext_sync, for the host's --version and for log headers.
#pragma once

#include "context_sync/context_sync_export.h"

namespace context_sync_engine {

CONTEXT_SYNC_EXPORT const char* library_version();

}  // namespace context_sync_engine
