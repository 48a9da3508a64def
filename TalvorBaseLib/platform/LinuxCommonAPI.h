// LinuxCommonAPI.h — the platform floor: latches with a per-thread record of
// what each thread holds, scoped guards, semaphore events, bounded waits,
// thread start-up and the small time and file shims.
//
// Contract of the latch (TALVOR_SECTION):
//  * m_nLockFlag alone decides ownership: 0 free, 1 held.
//  * EnterCriticalTalvor(lp, id) is recursive for thread `id`; the other two
//    acquires are not and record no owner.
//  * A waiter sleeps on m_hEvent. A release posts only while somebody is
//    counted in m_nWaitedCount and no earlier post is still pending (the
//    semaphore's value is 0), and a waiter is counted before it last tests
//    the flag, so no wake-up is lost and the semaphore's value stays small:
//    waiters really sleep instead of spinning through a banked count.
//  * A latch lives in process memory only; what the daemon shares with the
//    engine is ordered by named events and the shared records' protocols.
#pragma once

#include "TalvorLatchOrder.h"
#include "TypeDef.h"

#include <cstdio>
#include <sys/time.h>
#include <unistd.h>

#define TALVOR_CRITSTACK_SIZE 20
#define TALVOR_NO_OWNER 0xFFFFFFFFu

typedef struct _TALVOR_SECTION {
    volatile int m_nLockFlag;
    int m_nRecursionCount;
    volatile UINT m_nThreadID;
    volatile int m_nWaitedCount;
    volatile int m_nSpinCount;
    int m_nRank;  // LATCHRANK_* (TalvorLatchOrder.h), checked in debug builds
    sem_t m_hEvent;
} TALVOR_SECTION, *LPTALVOR_SECTION;

// One per thread, a local of the thread's entry function. It lists the
// latches the thread holds through guards so that a crashed thread can give
// them back (TalvorCriticalRelease) and the others go on.
typedef struct _TALVORCRITICALSECTION {
    TALVOR_SECTION* m_pCritStack[TALVOR_CRITSTACK_SIZE];
    int m_nCritPos;
    int m_nThreadID;
} TALVORCRITICALSECTION, *LPTALVORCRITICALSECTION;

UINT GetCurrentThreadId();

// Zeroes a thread's record and stamps it with the calling thread's id.
void InitThreadCritSection(LPTALVORCRITICALSECTION lpCritSection);

// A free latch, unranked.
void InitializeCriticalTalvor(LPTALVOR_SECTION lp);
// Gives the latch its place in the order of TalvorLatchOrder.h. Once, before
// any thread takes it.
void TalvorSetLatchRank(LPTALVOR_SECTION lp, int nRank);
void DeleteCriticalTalvor(LPTALVOR_SECTION lp);
void EnterCriticalTalvor(LPTALVOR_SECTION lp, UINT nID);
void EnterCriticalTalvor(LPTALVOR_SECTION lp);
void EnterCriticalTalvorEx(LPTALVOR_SECTION lp);
void LeaveCriticalTalvor(LPTALVOR_SECTION lp);

// Gives back every latch recorded for the thread; used after a crash unwound
// frames whose guards will never run their destructors.
void TalvorCriticalRelease(LPTALVORCRITICALSECTION lpCritSection);

class CTalvorCriticalSectionPtr {
public:
    CTalvorCriticalSectionPtr(LPTALVOR_SECTION lp, LPTALVORCRITICALSECTION lpCritSection);
    virtual ~CTalvorCriticalSectionPtr();
    void UnLock();

    CTalvorCriticalSectionPtr(const CTalvorCriticalSectionPtr&) = delete;
    CTalvorCriticalSectionPtr& operator=(const CTalvorCriticalSectionPtr&) = delete;

private:
    LPTALVOR_SECTION m_lpcs;
    LPTALVOR_SECTION* m_lpCritStack;
    LPTALVORCRITICALSECTION m_lpCritSection;
};

// Recursive pthread mutexes behind a Windows name.
void InitializeCriticalSection(LPCRITICAL_SECTION lpcs);
void DeleteCriticalSection(LPCRITICAL_SECTION lpcs);

class CCriticalSectionPtr {
public:
    explicit CCriticalSectionPtr(LPCRITICAL_SECTION lpcs);
    virtual ~CCriticalSectionPtr();
    void UnLock();

    CCriticalSectionPtr(const CCriticalSectionPtr&) = delete;
    CCriticalSectionPtr& operator=(const CCriticalSectionPtr&) = delete;

private:
    LPCRITICAL_SECTION m_lpcs;
};

// --- Waits: 0 signalled, 258 timed out, -1 failed. Time-outs are bounded to
// 4,294,967 ms (the microsecond product is 32-bit); there is no infinite wait.
int WaitForSingleObject(sem_t* semMutex, UINT nTime);
int WaitForSingleObject(const sem_t& semMutex, UINT nTime);
int WaitForSingleObject(const pthread_t& thThread, UINT nTime);
int WaitForMultipleObjects(int nCount, HTHREADTYPE* pThreadHandle, BOOL bWaitAll, UINT dwMilliseconds);
int TalvorWaitForSingleThread(const pthread_t& thThread, UINT nTime);
int TalvorWaitForMultipleThread(int nCount, HTHREADTYPE* pThreadHandle, BOOL bWaitAll, UINT dwMilliseconds);
void TimeraddMS(struct timeval* a, UINT ms);

// --- Events (named POSIX semaphores, created signalled).
HEVENTTYPE CreateEventSem(LPSECURITY_ATTRIBUTES lpEventAttributes, LPCTSTR lpName);
BOOL CreateEventSemSuccess(HEVENTTYPE hEvent);
void SetEvent(sem_t* pSem);
void SetEvent(const sem_t& pSem);
void InitEvent(const EVENTTYPE& hEvent);
void FreeEvent(const EVENTTYPE& hEvent);
void CloseEvent(const HEVENTTYPE& hEvent);
int InitializeSecurityDescriptor(int* p, unsigned int n);
int SetSecurityDescriptorDacl(int* p, int a, void* b, int c);

// --- Threads.
typedef void* (*LPTHREAD_START_ROUTINE)(void*);
#define TALVOR_DEFAULT_THREAD_STACK 0x100000
// Stack of the daemon's own threads in bytes; 1 MiB until the configuration
// ("threadstacksize") has been read.
extern int g_nThreadStackSize;
int CreateThreadAllPlateForm(volatile HTHREADTYPE* pThread, LPTHREAD_START_ROUTINE fn, LPVOID lpParameter,
                             const UINT& dwThreadId, const char* pFunName);
// The daemon's own threads: joinable, with g_nThreadStackSize of stack.
// Returns 0 or the pthread error.
int CreateJoinableThread(HTHREADTYPE* pThread, LPTHREAD_START_ROUTINE fn, LPVOID lpParameter);
void CloseThreadHandle(const HTHREADTYPE& hThread);
// True while the thread has not ended. Works for detached and joinable
// threads alike (pthread_kill(t, 0) does not see an ended joinable thread).
BOOL IsThreadAlive(const pthread_t& thThread);
int GetLastError();
int WSAGetLastError();
void Sleep(int nMilliseconds);

// --- Time.
void GetSystemTimeAsFileTime(FILETIME* pFileTime);
long long FileTimeToInt64(const FILETIME& ft);
BOOL QueryPerformanceCounter(LARGE_INTEGER* lpCounter);
// Result: milliseconds of the monotonic clock, for deadlines that neither a
// step of the wall clock nor a pause cut short can move. Any thread.
long long TalvorMonotonicMs();
// Result: nanoseconds of the same clock, for measuring short stretches. Any thread.
long long TalvorMonotonicNs();
void GetLocalTime(LPSYSTEMTIME lpSystemTime);

// Result: TRUE once fnDone holds, FALSE once nTotalMs have passed on the
// monotonic clock without it; fnDone has the last look. Between looks it
// waits on hEvent (nullptr: sleeps) for at most nSliceMs. Any thread.
// The clock ends the wait, never a count of slices: a semaphore keeps every
// post no one waited for (an answer seen before the wait began), and while
// it holds a count each wait on it returns at once.
template <class F>
BOOL WaitEventUntil(HEVENTTYPE hEvent, long long nTotalMs, UINT nSliceMs, F fnDone)
{
    const long long nDeadline = TalvorMonotonicMs() + nTotalMs;
    for (;;) {
        if (fnDone()) return TRUE;
        const long long nLeft = nDeadline - TalvorMonotonicMs();
        if (nLeft < 0) return FALSE;
        const UINT nWait = nLeft < (long long)nSliceMs ? (UINT)nLeft + 1 : nSliceMs;
        if (hEvent != nullptr)
            WaitForSingleObject(hEvent, nWait);
        else
            usleep((useconds_t)nWait * 1000);
    }
}

// --- Files and paths. What touches a file goes through CTalvorFileIO.
int GetModuleFileName(char* sModuleName, char* sFileName, int nSize);
UINT GetFileSize(FILE* pFile, LPUINT lpFileSizeHigh);
// mkdir with mode 0777 (before the umask); the result is not told.
void CreateDirectory(char* lpFilePath, void* lpParam);
// Unlinks a file (not a directory): TRUE when it went.
BOOL DeleteFile(LPCTSTR lpFileName);
// Makes the directories of a path: those followed by a "/". 1 whatever
// happened (the file's creation then fails if they did not come), 0 for a
// null or empty path. Each directory made is synced into its parent; with
// pnSyncErrno, the errno of the first such sync that failed goes there (0
// when none did), for callers whose files must outlive a power loss.
int MakeDir(const char* lpszFilePath, int* pnSyncErrno = nullptr);
// MakeDir's walk over a copy of nCopySize bytes (at most MAX_PATH); with
// bBackslashToo a backslash separates directories as well.
int MakeDirs(const char* lpszFilePath, size_t nCopySize, BOOL bBackslashToo, int* pnSyncErrno = nullptr);

// Barriers for readers and writers of rings shared with the engine.
inline void TalvorFlushCPU4Read() { __atomic_thread_fence(__ATOMIC_ACQUIRE); }
inline void TalvorFlushCPU4Write() { __atomic_thread_fence(__ATOMIC_RELEASE); }

// A flag or stamp of memory shared with the engine (or set by a signal
// handler) that another thread polls: read and written whole, and ordered
// so that whoever sees the value also sees what was written before it. The
// fences above give the engine that order for plain accesses; these give
// it in the memory model's own terms, which ThreadSanitizer can check.
template <class T>
inline T TalvorLoadShared(const volatile T* p)
{
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <class T, class V>
inline void TalvorStoreShared(volatile T* p, V v)
{
    __atomic_store_n(p, (T)v, __ATOMIC_RELEASE);
}
// The same, sequentially consistent: for two threads that each store one
// flag and then read the other's, where at least one must see the other.
template <class T>
inline T TalvorLoadSharedFull(const volatile T* p)
{
    return __atomic_load_n(p, __ATOMIC_SEQ_CST);
}
template <class T, class V>
inline void TalvorStoreSharedFull(volatile T* p, V v)
{
    __atomic_store_n(p, (T)v, __ATOMIC_SEQ_CST);
}

// A buffer for direct transfers, aligned to a page (so also to the 512 bytes
// every direct transfer needs); free() releases it. A buffer aligned to 512
// only would make each 4 KiB of a transfer span two pages, doubling the
// segments the kernel builds and halving direct write speed on disks with
// a low segment limit.
inline constexpr size_t ALIGNED_BUFFER_ALIGNMENT = 4096;
void* get_aligned_buffer(size_t nSize);

// File handles of the daemon are heap-held ints holding a descriptor, so that
// "no file" is a null pointer. Talvor_CloseFile closes (through the file
// layer) and frees the cell.
void* Talvor_MakeFileHandle(int fd);
int Talvor_FileDescriptor(void* hFile);
void Talvor_CloseFile(void*& hFile);
