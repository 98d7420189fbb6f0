// Bounded waits that keep the calling thread's event loop turning, so that queued signals, timers
// and socket notifiers of objects living on the test's thread are delivered while a test waits.
#pragma once

#include <functional>

namespace test_support {

// Processes events until `done` holds or `timeout_ms` passes; returns the last value of `done`.
bool wait_until(const std::function<bool()>& done, int timeout_ms);
// Processes events for `ms`, to show that something does NOT happen in that time.
void settle(int ms);

} // namespace test_support
