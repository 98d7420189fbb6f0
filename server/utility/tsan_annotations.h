// Happens-before annotations for ThreadSanitizer at the points where this system hands work to
// another thread through Qt's event queue (QMetaObject::invokeMethod, queued or blocking-queued).
//
// Qt orders such a call with the lock of the receiving thread's event queue and, for a
// blocking-queued call, with a semaphore. The Qt libraries of the distribution are not built
// with ThreadSanitizer, and these locks are futexes, so TSan sees neither: every object handed
// over that way (the functor Qt allocates, what it captures, what it writes for the caller) looks
// like a race. The annotations below tell TSan about exactly these hand-overs and nothing else.
// Without ThreadSanitizer every function here is empty and inlined away.
//
// Use handed_over() around the functor of an invokeMethod() call that crosses threads:
//
//     QMetaObject::invokeMethod(target, utility::tsan::handed_over([target, paths] {
//         target->start(paths);
//     }), Qt::QueuedConnection);
//
// What the posting thread did before the call happens-before the functor runs; what the functor
// did happens-before the functor object is destroyed, which for a blocking-queued call is before
// invokeMethod() returns (Qt drops the caller's reference last). Header only; no thread of its
// own, owns nothing, emits nothing.
#pragma once

#include <type_traits>
#include <utility>

#if defined(__SANITIZE_THREAD__)
#define CONTEXT_SYNC_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CONTEXT_SYNC_TSAN 1
#endif
#endif

#ifdef CONTEXT_SYNC_TSAN
extern "C" {
void __tsan_acquire(void* addr);
void __tsan_release(void* addr);
}
#endif

namespace utility::tsan {

// Publishes what this thread has done so far under `token`.
inline void release(const void* token) noexcept
{
#ifdef CONTEXT_SYNC_TSAN
    __tsan_release(const_cast<void*>(token));
#else
    (void)token;
#endif
}

// Sees everything published under `token` before, as if a lock had been taken.
inline void acquire(const void* token) noexcept
{
#ifdef CONTEXT_SYNC_TSAN
    __tsan_acquire(const_cast<void*>(token));
#else
    (void)token;
#endif
}

// A functor that carries the happens-before edges of a hand-over through Qt's event queue. The
// token is the wrapper's own address: Qt moves the functor into the object it queues, the last
// move (the one into that object) publishes everything written so far, the capture included,
// and the call on the receiving thread acquires it before it reads any capture. The end of the
// call publishes again for the destructor, which may run on the posting thread.
template <typename F> class handed_over_t {
public:
    explicit handed_over_t(F call)
        : call_(std::move(call))
    {
        release(this);
    }
    handed_over_t(const handed_over_t& other)
        : call_(other.call_)
    {
        release(this);
    }
    handed_over_t(handed_over_t&& other) noexcept(std::is_nothrow_move_constructible_v<F>)
        : call_(std::move(other.call_))
    {
        release(this);
    }
    handed_over_t& operator=(const handed_over_t&) = delete;
    handed_over_t& operator=(handed_over_t&&) = delete;
    ~handed_over_t() { acquire(this); }

    decltype(auto) operator()()
    {
        acquire(this);
        const published_on_exit_t published { this };
        return call_();
    }

private:
    struct published_on_exit_t {
        const void* token;
        ~published_on_exit_t() { release(token); }
    };

    F call_;
};

template <typename F> handed_over_t<std::decay_t<F>> handed_over(F&& call)
{
    return handed_over_t<std::decay_t<F>>(std::forward<F>(call));
}

} // namespace utility::tsan
