#include "context_sync_client/retry_backoff_t.h"

#include <algorithm>

namespace context_sync_client {

retry_backoff_t::retry_backoff_t()
    : generator_(QRandomGenerator::securelySeeded())
{
}

retry_backoff_t::retry_backoff_t(quint32 seed)
    : generator_(seed)
{
}

int retry_backoff_t::ceiling_ms(int try_number)
{
    if (try_number < 2)
        return 0;
    // 500 * 2^4 already exceeds the ceiling: larger exponents need no shifting (nor overflow).
    const int doublings = std::min(try_number - 2, 5);
    return std::min(MAX_MS, BASE_MS << doublings);
}

int retry_backoff_t::wait_before(int try_number)
{
    const int ceiling = ceiling_ms(try_number);
    if (ceiling == 0)
        return 0;
    const int floor = ceiling / 2;
    return floor + int(generator_.bounded(quint32(ceiling - floor + 1)));
}

int retry_backoff_t::next_wait()
{
    ++tries_;
    return wait_before(tries_);
}

int retry_backoff_t::slot_free_wait()
{
    return int(generator_.bounded(quint32(SLOT_JITTER_MS + 1)));
}

} // namespace context_sync_client
