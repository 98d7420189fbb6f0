// retry_backoff_t gives the waits between the tries of a request that a busy server ignored: a
// randomised exponential back-off, so that a crowd of clients turned away at the same moment does
// not come back in step. The wait before try n (n >= 2) is drawn uniformly from [c/2, c]
// milliseconds, where c = min(MAX_MS, BASE_MS * 2^(n-2)): 250-500 ms before the second try,
// 500-1000 before the third, and so on up to 4-8 s. Every client of the service uses these
// numbers (docs/protocol.md, "Staying in step").
//
// A turned-away client that sees another client's batch end (the server's list broadcast) knows
// that a slot is free: it asks again after a short wait drawn uniformly from [0, SLOT_JITTER_MS]
// instead of the back-off, so that the clients that saw the same broadcast spread out.
//
// Thread: any, one object per sequence of tries; not shared. Owns its random generator (seeded
// from the system's entropy, or with a fixed seed for tests). Emits nothing.
#pragma once

#include <QRandomGenerator>

namespace context_sync_client {

class retry_backoff_t {
public:
    static constexpr int BASE_MS = 500;
    static constexpr int MAX_MS = 8000;
    static constexpr int SLOT_JITTER_MS = 250;

    retry_backoff_t();
    explicit retry_backoff_t(quint32 seed);

    // The ceiling c of the wait before try `try_number` (0 for the first try, which waits for
    // nothing).
    static int ceiling_ms(int try_number);
    // A wait before try `try_number`, uniform in [c/2, c].
    int wait_before(int try_number);
    // The wait before the next try; the first call gives the wait before try 2.
    int next_wait();
    // The wait after a list broadcast that says a slot is free, uniform in [0, SLOT_JITTER_MS].
    int slot_free_wait();
    // Starts again with try 2.
    void reset() { tries_ = 1; }
    // Tries counted so far (the first try included).
    int tries() const { return tries_; }

private:
    QRandomGenerator generator_;
    int tries_ = 1;
};

} // namespace context_sync_client
