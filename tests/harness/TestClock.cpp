// TestClock.cpp — the monotonic clock and the bounded wait.
#include "TestClock.h"

#include <ctime>
#include <unistd.h>

namespace talvortest {

long long NowMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

bool WaitUntil(const std::function<bool()>& fnPred, long long nTimeoutMs, int nPollMs)
{
    long long nDeadline = NowMs() + nTimeoutMs;
    while (!fnPred()) {
        if (NowMs() >= nDeadline) return fnPred();
        usleep((useconds_t)nPollMs * 1000);
    }
    return true;
}

} // namespace talvortest
