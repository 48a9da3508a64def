// PeerClock.h — the stand-in's two clocks: a monotonic one for deadlines, so
// that a wall-clock step never stretches or cuts a wait, and the wall clock
// for the "timestamp microseconds" lines a bench lines up across processes.
#pragma once

#include "LinuxCommonAPI.h"

#include <cstdio>
#include <ctime>

namespace talvorpeer {

inline long long NowMs() { return TalvorMonotonicMs(); }

// The longest sleep between two looks at what the daemon answers.
const UINT WAKE_SLICE_MS = 10;

inline long long WallMicros()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

// One "timestamp microseconds" line: when the record stamped nTimestamp was
// committed (the redo job) or taken (the standby node).
inline void WriteTimeLine(FILE* pTimes, long long nTimestamp)
{
    fprintf(pTimes, "%lld %lld\n", nTimestamp, WallMicros());
}

} // namespace talvorpeer
