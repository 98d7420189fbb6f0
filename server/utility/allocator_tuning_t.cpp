#include "utility/allocator_tuning_t.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#if defined(__GLIBC__) && defined(M_MMAP_THRESHOLD) && defined(M_TRIM_THRESHOLD)                   \
    && defined(M_ARENA_MAX)
#define CONTEXT_SYNC_TUNE_GLIBC_MALLOC 1
#endif

namespace utility {

bool allocator_tuning_t::keep_chunk_pages()
{
#ifdef CONTEXT_SYNC_TUNE_GLIBC_MALLOC
    // mallopt() answers 1 on success.
    const bool arena = mallopt(M_ARENA_MAX, 1) == 1;
    const bool mmap = mallopt(M_MMAP_THRESHOLD, MMAP_THRESHOLD) == 1;
    const bool trim = mallopt(M_TRIM_THRESHOLD, TRIM_THRESHOLD) == 1;
    return arena && mmap && trim;
#else
    return false;
#endif
}

void allocator_tuning_t::give_back_free_memory()
{
#ifdef CONTEXT_SYNC_TUNE_GLIBC_MALLOC
    malloc_trim(0);
#endif
}

} // namespace utility
