// CrashContainment.h — what the crash handler needs from the rest of the
// daemon beyond the module's own operations (BreltMemStorage.h).
//
// A crash signal sent by another process (kill, tgkill) can land anywhere,
// also while the thread holds a latch or a lock the handler itself needs (the
// trace queue, the lists of contained threads). Code that holds such a lock
// runs inside a deferral region: a signal sent from outside waits for the
// region's end, then is raised again on the same thread. A real fault cannot
// wait (the instruction would fault again) and is handled at once.
#pragma once

#include "TypeDef.h"

#include <csignal>

void CrashDeferEnter();
// Leaves the region; the outermost leave re-raises a signal that came
// meanwhile.
void CrashDeferLeave();
// For the handler: TRUE when the signal was sent from outside into a region
// and has been kept for its end (the handler then returns at once).
BOOL CrashDeferSignal(int signum, const siginfo_t* info);
// For the handler: the thread leaves its frames by longjmp, so any region it
// was in is over.
void CrashDeferReset();

// Logs one frame of a stack trace (codes 10002010 to 10002020).
void CrashTraceFrame(const char* lpFrame, const char* lpExePath);

// For end-to-end tests only, inert unless the environment asks: a thread
// named in TALVOR_TEST_CRASH (comma-separated: "storage", "tracewriter",
// "tracecopier") faults once, the first time it asks.
BOOL CrashTestFaultDue(const char* lpThreadName);
// TRUE while the environment names the thread, fired or not (the restarted
// thread then shows that what the crash held is free again).
BOOL CrashTestAsked(const char* lpThreadName);
// A real invalid write (SIGSEGV, address not mapped).
void CrashTestFault();
