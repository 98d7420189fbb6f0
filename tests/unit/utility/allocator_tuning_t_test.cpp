#include "utility/allocator_tuning_t.h"

#include <gtest/gtest.h>

#include <cstdlib>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CONTEXT_SYNC_OWN_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CONTEXT_SYNC_OWN_ALLOCATOR 1
#endif
#endif

using utility::allocator_tuning_t;

#if defined(__GLIBC__) && !defined(CONTEXT_SYNC_OWN_ALLOCATOR)

namespace {
// Blocks glibc currently serves from mappings of their own.
std::size_t mapped_blocks()
{
    return mallinfo2().hblks;
}
} // namespace

TEST(allocator_tuning_t, AChunkSizedBlockComesFromTheHeapAndALargerOneIsMapped)
{
    ASSERT_TRUE(allocator_tuning_t::keep_chunk_pages());
    const std::size_t before = mapped_blocks();

    // The largest allocation of a chunk's path: its Base64 widened to UTF-16, about 1.4 MB.
    void* chunk_sized = std::malloc(1400 * 1024);
    ASSERT_NE(chunk_sized, nullptr);
    EXPECT_EQ(mapped_blocks(), before);
    std::free(chunk_sized);

    void* whole_upload = std::malloc(allocator_tuning_t::MMAP_THRESHOLD + 1024);
    ASSERT_NE(whole_upload, nullptr);
    EXPECT_EQ(mapped_blocks(), before + 1);
    std::free(whole_upload);
    EXPECT_EQ(mapped_blocks(), before);

    allocator_tuning_t::give_back_free_memory();
}

#else

TEST(allocator_tuning_t, DoesNothingWhereGlibcDoesNotAllocate)
{
    // The sanitizers bring their own allocator, which ignores glibc's settings.
    GTEST_SKIP() << "glibc's allocator is not in use in this build";
}

#endif
