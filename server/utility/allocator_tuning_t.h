// allocator_tuning_t sets glibc's allocator for programs that move chunks: every chunk sent or
// received makes several allocations of 0.5 to 1.4 MB (the compressed bytes, their Base64, the
// JSON forms, the MQTT copy) on two or three threads. With glibc's defaults these come from fresh
// mappings, or from arena tops that are trimmed again at free, so every chunk faults its pages in
// anew: about a sixth of the server's CPU per chunk sent, a third of ctxsync's per chunk pulled.
//
// keep_chunk_pages() serves blocks below 4 MiB from the heap and trims it only when more than
// 16 MiB lie free at its top, which keeps those pages mapped from one chunk to the next; larger
// blocks (an upload held whole) still get their own mapping and go back to the system when freed.
// One arena for all threads: each further arena would keep up to 16 MiB at its top, which glibc
// never gives back for any but the first one, so a burst of transfers spread over several threads
// would leave tens of MB behind (ten pulls at once cost no more CPU per chunk with one arena). An
// explicit threshold also stops glibc from moving it on its own. give_back_free_memory() returns
// every free page to the system, for a long-running program to call now and then so that it goes
// back to its resting size once idle.
//
// Thread: keep_chunk_pages() first thing in main(), before any thread exists; the other from any
// thread. Without glibc both do nothing. Owns nothing, emits nothing.
#pragma once

#include "context_sync/context_sync_export.h"

namespace utility {

class CONTEXT_SYNC_EXPORT allocator_tuning_t {
public:
    static constexpr int MMAP_THRESHOLD = 4 * 1024 * 1024;
    static constexpr int TRIM_THRESHOLD = 16 * 1024 * 1024;

    // True when the settings were applied (glibc, and it accepted all three).
    static bool keep_chunk_pages();
    static void give_back_free_memory();
};

} // namespace utility
