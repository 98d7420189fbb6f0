// Bounded waits for the tests. The usual wait keeps the calling thread's event loop turning, so
// that queued signals, timers and socket notifiers of objects living on the test's thread are
// delivered while a test waits; the other kinds of turn are for threads that run no event loop.
// The test areas' own wait_until() helpers forward here and only add their default timeout.
#pragma once

#include <functional>

namespace test_support {

// What a wait does between two looks at its condition.
enum class wait_turn_t {
    // Processes the calling thread's events.
    events,
    // Processes them and delivers deferred deletions as well, as a returning event loop would: for
    // tests whose objects are deleteLater()'d while no event loop runs on the test's thread.
    events_and_deletions,
    // Only yields the processor and touches no event loop: for plain threads, and for conditions
    // that other threads set without sending any event.
    yield_only,
};

// Waits until `done` holds or `timeout_ms` passes; returns the last value of `done`.
bool wait_until(
    const std::function<bool()>& done, int timeout_ms, wait_turn_t turn = wait_turn_t::events);
// Processes events for `ms`, to show that something does NOT happen in that time.
void settle(int ms);

} // namespace test_support
