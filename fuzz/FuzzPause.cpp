// FuzzPause.cpp — the daemon's pauses (usleep between polls and retries)
// return at once in the fuzz programs that drive its libraries. A pause
// paces a loop but decides nothing an input can reach: every wait of the
// daemon is bounded by the clock or by a count, and the clock still runs,
// so a loop that would hang still hangs and the run's time-out still reports
// it. Without this an input costs some ten pauses of a millisecond or more,
// and a million runs of a target take hours.
#include <sched.h>
#include <unistd.h>

extern "C" int usleep(useconds_t)
{
    sched_yield();
    return 0;
}
