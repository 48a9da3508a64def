// TestClock.h — the tests' one clock and one bounded wait.
#pragma once

#include <functional>

namespace talvortest {

// Milliseconds of the monotonic clock: for deadlines and durations only.
long long NowMs();

// Looks at fnPred every nPollMs until it holds or nTimeoutMs have passed;
// the answer of the last look. Never waits longer than the time-out and
// one poll, so a lost wake-up fails a test instead of hanging it.
bool WaitUntil(const std::function<bool()>& fnPred, long long nTimeoutMs, int nPollMs = 1);

} // namespace talvortest
