// Export macro of libcontext_sync. The library is built with hidden visibility; every class and
// free function that other programs (the host, the client, the tests) call carries
// CONTEXT_SYNC_EXPORT so that it is exported by name.
#pragma once

#include <QtCore/qglobal.h>

#if defined(CONTEXT_SYNC_BUILDING_LIBRARY)
#define CONTEXT_SYNC_EXPORT Q_DECL_EXPORT
#else
#define CONTEXT_SYNC_EXPORT Q_DECL_IMPORT
#endif
