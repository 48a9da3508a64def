// CrashContainment.h — a fault in a worker thread unwinds that thread only,
// and the main thread starts it again with the same entry and argument.
//
// Every contained thread of every subsystem enters through
// TalvorRunContained: it registers the thread's jump point, runs the body,
// and on a fault gives back the latches of the thread's TALVORCRITICALSECTION
// and lets the subsystem close what the abandoned frames held. The registry
// of contained threads and of crashed ones waiting for a restart lives here,
// below every subsystem, so that none has to reach up to the module.
//
// A crash signal sent by another process (kill, tgkill) can land anywhere,
// also while the thread holds a latch or a lock the handler itself needs (the
// trace queue, the lists of contained threads). Code that holds such a lock
// runs inside a deferral region: a signal sent from outside waits for the
// region's end, then is raised again on the same thread. A real fault cannot
// wait (the instruction would fault again) and is handled at once.
#pragma once

#include "LinuxCommonAPI.h"
#include "TypeDef.h"

#include <csetjmp>
#include <csignal>

typedef void* (*LPTALVORTHREADENTRY)(void*);

// A thread under crash containment: where to jump back to when it faults.
typedef struct stu_TalvorThread {
    int m_nThreadID;
    jmp_buf m_nJmpPoint;
    void* m_lpParam;
    HTHREADTYPE* m_pThreadHandle;
    LPTALVORTHREADENTRY m_pThread;
    stu_TalvorThread* m_pNext;
} TALVORTHREAD, *LPTALVORTHREAD;

// A crashed thread waiting for the main thread to start it again.
typedef struct stu_CRASHTHREAD {
    HTHREADTYPE* m_threadHandle;
    LPTALVORTHREADENTRY m_pThread;
    void* m_vThreadArg;
    stu_CRASHTHREAD* m_next;
} CRASHTHREAD, *LPCRASHTHREAD;

// --- The one contained entry.
// The body of a contained thread: its work, with the thread's latch record.
typedef void (*LPCONTAINEDBODY)(void* lpContext, LPTALVORCRITICALSECTION lpCritSection);
// After a fault, on the faulted thread, once its latches are given back:
// closes or resets what the abandoned frames held. May be null.
typedef void (*LPCONTAINEDCLEANUP)(void* lpContext);

// Runs pBody(lpContext) as the contained thread pEntry(lpParam) whose handle
// is *pThreadHandle. Returns when the body returns. After a fault it does not
// return: the latches are released, pCleanup runs, the thread is filed for a
// restart and ends. Call it from the thread entry itself; lpContext lives in
// the entry's frame (fields a fault path reads should be volatile). With
// pEntry null the thread is not started again after a fault: it cleans up
// and ends.
void TalvorRunContained(LPTALVORTHREADENTRY pEntry, void* lpParam, HTHREADTYPE* pThreadHandle, LPCONTAINEDBODY pBody,
                        LPCONTAINEDCLEANUP pCleanup, void* lpContext);

// --- The registry of contained and crashed threads. Any thread; each takes
// only the registry's own list lock, inside a deferral region.
void CrashSetThreadData(LPTALVORTHREADENTRY pEntry, void* lpParam, HTHREADTYPE* pThreadHandle);
// The calling thread's jump point, or null when it is not registered.
jmp_buf* CrashGetLongJmp();
void CrashRemoveThreadData();
// 0, or 3 when memory ran out (traced).
int CrashAppendCrashedThread(HTHREADTYPE* pThreadHandle, LPTALVORTHREADENTRY pEntry, void* lpParam);
// On the faulted thread, from the handler: files it for a restart and jumps
// back to its entry; a thread without a jump point ends here. Never returns.
[[noreturn]] void CrashExceptionHandling();
// TRUE while a crashed thread waits for its restart.
BOOL CrashHasCrashedThreads();
// Main thread: waits up to nMs for a crashed thread to be filed or for
// CrashWakeMainThread. TRUE when woken before the time ran out.
BOOL CrashWaitForMainWork(UINT nMs);
// Any thread, or a signal handler (async-signal-safe): ends the main
// thread's wait at once, e.g. for a stop.
void CrashWakeMainThread();
// Main thread: starts every crashed thread again (a failed start stays filed).
void CrashAutoRecoverCrashedThreads();
// At the end of the process, when no contained thread runs any more.
void CrashFreeThreadLists();
// For tests: the registered record of a live thread id, or null. The list
// lock is not held on return; the caller knows the thread is parked.
LPTALVORTHREAD CrashFindThreadData(int nThreadID);

// The handler of SIGSEGV, SIGFPE and SIGABRT.
void CrashHandler(int signum, siginfo_t* info, void* tmp);

// What the handler runs first on a real fault, before it traces: the log
// service gives back a trace latch the faulting code held. One hook.
typedef void (*LPCRASHFAULTHOOK)();
void CrashInstallFaultHook(LPCRASHFAULTHOOK pHook);

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
// "tracecopier", "standby") faults once, the first time it asks.
BOOL CrashTestFaultDue(const char* lpThreadName);
// TRUE while the environment names the thread, fired or not (the restarted
// thread then shows that what the crash held is free again).
BOOL CrashTestAsked(const char* lpThreadName);
// A real invalid write (SIGSEGV, address not mapped).
void CrashTestFault();
