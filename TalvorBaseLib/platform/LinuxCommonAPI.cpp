// LinuxCommonAPI.cpp — latches, guards, waits, events, threads, shims.
#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <malloc.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

int g_nThreadStackSize = TALVOR_DEFAULT_THREAD_STACK;

namespace {

inline int AtomicExchange(volatile int* p, int v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
inline int AtomicLoad(volatile int* p) { return __atomic_load_n(p, __ATOMIC_SEQ_CST); }
inline void AtomicAdd(volatile int* p, int v) { __atomic_add_fetch(p, v, __ATOMIC_SEQ_CST); }

inline void CpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// The slow path shared by all acquires. The waiter is counted before its
// last test of the flag; the releaser clears the flag before it reads the
// count (both sequentially consistent). Whichever comes second sees the
// other, so a waiter either wins the flag or is posted: no lost wake-up.
void SleepUntilAcquired(LPTALVOR_SECTION lp)
{
    AtomicAdd(&lp->m_nWaitedCount, 1);
    while (AtomicExchange(&lp->m_nLockFlag, 1) != 0) {
        while (sem_wait(&lp->m_hEvent) != 0 && errno == EINTR) {
        }
    }
    AtomicAdd(&lp->m_nWaitedCount, -1);
}

inline void SetOwner(LPTALVOR_SECTION lp, UINT nID) { __atomic_store_n(&lp->m_nThreadID, nID, __ATOMIC_RELAXED); }

struct timespec DeadlineAfterMs(UINT nTime)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    TimeraddMS(&now, nTime);
    struct timespec ts;
    ts.tv_sec = now.tv_sec;
    ts.tv_nsec = now.tv_usec * 1000L;
    return ts;
}

int SemWaitMs(sem_t* sem, UINT nTime)
{
    if (nTime == 0) return sem_trywait(sem) == 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    struct timespec ts = DeadlineAfterMs(nTime);
    if (sem_timedwait(sem, &ts) == 0) return WAIT_OBJECT_0;
    if (errno == ETIMEDOUT || errno == EAGAIN) return WAIT_TIMEOUT;
    return WAIT_FAILED;
}

} // namespace

int ThreadRegistryState(pthread_t thThread);

UINT GetCurrentThreadId() { return (UINT)syscall(SYS_gettid); }

void InitThreadCritSection(LPTALVORCRITICALSECTION lpCritSection)
{
    memset(lpCritSection, 0, sizeof(*lpCritSection));
    lpCritSection->m_nThreadID = (int)GetCurrentThreadId();
}

void InitializeCriticalTalvor(LPTALVOR_SECTION lp)
{
    lp->m_nLockFlag = 0;
    lp->m_nRecursionCount = 0;
    lp->m_nWaitedCount = 0;
    lp->m_nSpinCount = 0;
    lp->m_nRank = LATCHRANK_NONE;
    lp->m_nThreadID = TALVOR_NO_OWNER;
    sem_init(&lp->m_hEvent, 0, 1);
}

void DeleteCriticalTalvor(LPTALVOR_SECTION lp) { sem_destroy(&lp->m_hEvent); }

void TalvorSetLatchRank(LPTALVOR_SECTION lp, int nRank) { lp->m_nRank = nRank; }

namespace {

// Debug builds: every ranked latch the thread already holds (other than lp
// itself, a recursion) ranks below lp.
[[maybe_unused]] bool LatchOrderKept(LPTALVOR_SECTION lp, LPTALVORCRITICALSECTION lpCritSection)
{
    if (lp->m_nRank == LATCHRANK_NONE) return true;
    const int nHeld = lpCritSection->m_nCritPos < TALVOR_CRITSTACK_SIZE ? lpCritSection->m_nCritPos : TALVOR_CRITSTACK_SIZE;
    // Taken again by its holder: a recursion waits for nobody.
    for (int i = 0; i < nHeld; i++) {
        if (lpCritSection->m_pCritStack[i] == lp) return true;
    }
    for (int i = 0; i < nHeld; i++) {
        LPTALVOR_SECTION pHeld = lpCritSection->m_pCritStack[i];
        if (pHeld == nullptr || pHeld->m_nRank == LATCHRANK_NONE) continue;
        if (pHeld->m_nRank >= lp->m_nRank) return false;
    }
    return true;
}

} // namespace

void EnterCriticalTalvor(LPTALVOR_SECTION lp, UINT nID)
{
    if (AtomicExchange(&lp->m_nLockFlag, 1) == 0) {
        SetOwner(lp, nID);
        return;
    }
    // Only the owner ever writes its own id here, so a match means we hold it.
    if (__atomic_load_n(&lp->m_nThreadID, __ATOMIC_RELAXED) == nID) {
        lp->m_nRecursionCount++;
        return;
    }
    SleepUntilAcquired(lp);
    SetOwner(lp, nID);
}

void EnterCriticalTalvor(LPTALVOR_SECTION lp)
{
    if (AtomicExchange(&lp->m_nLockFlag, 1) == 0) return;
    SleepUntilAcquired(lp);
}

void EnterCriticalTalvorEx(LPTALVOR_SECTION lp)
{
    if (AtomicExchange(&lp->m_nLockFlag, 1) == 0) return;
    // Spin only while few spin and nobody sleeps: the trace path holds the
    // latch for a few instructions, cheaper to wait out than a sleep.
    if (AtomicLoad(&lp->m_nWaitedCount) == 0 && AtomicLoad(&lp->m_nSpinCount) <= 2) {
        AtomicAdd(&lp->m_nSpinCount, 1);
        for (int i = 1; i < 16384; i++) {
            CpuRelax();
            if (AtomicLoad(&lp->m_nLockFlag) == 0) {
                if (AtomicExchange(&lp->m_nLockFlag, 1) == 0) {
                    AtomicAdd(&lp->m_nSpinCount, -1);
                    return;
                }
                continue;
            }
            if (AtomicLoad(&lp->m_nWaitedCount) != 0 || AtomicLoad(&lp->m_nSpinCount) > 3) break;
            if (i % 256 == 0) sched_yield();
        }
        AtomicAdd(&lp->m_nSpinCount, -1);
    }
    SleepUntilAcquired(lp);
}

void LeaveCriticalTalvor(LPTALVOR_SECTION lp)
{
    if (lp->m_nRecursionCount > 0) {
        lp->m_nRecursionCount--;
        return;
    }
    SetOwner(lp, TALVOR_NO_OWNER);
    __atomic_store_n(&lp->m_nLockFlag, 0, __ATOMIC_SEQ_CST);
    if (AtomicLoad(&lp->m_nWaitedCount) > 0) {
        // A counted waiter stays counted while it wakes, so a holder that
        // releases and retakes in a loop would post once per round and bank
        // thousands of wake-ups. A token still pending is enough: whoever
        // takes it tests the flag after this store.
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        int nValue = 0;
        if (sem_getvalue(&lp->m_hEvent, &nValue) != 0 || nValue <= 0) sem_post(&lp->m_hEvent);
    }
}

void TalvorCriticalRelease(LPTALVORCRITICALSECTION lpCritSection)
{
    if (lpCritSection == nullptr) return;
    for (int i = 0; i < TALVOR_CRITSTACK_SIZE; i++) {
        if (lpCritSection->m_pCritStack[i] != nullptr) {
            LeaveCriticalTalvor(lpCritSection->m_pCritStack[i]);
            lpCritSection->m_pCritStack[i] = nullptr;
        }
    }
}

CTalvorCriticalSectionPtr::CTalvorCriticalSectionPtr(LPTALVOR_SECTION lp, LPTALVORCRITICALSECTION lpCritSection)
    : m_lpcs(lp), m_lpCritStack(nullptr), m_lpCritSection(lpCritSection)
{
    assert(lpCritSection == nullptr || LatchOrderKept(lp, lpCritSection));
    EnterCriticalTalvor(lp, lpCritSection ? (UINT)lpCritSection->m_nThreadID : GetCurrentThreadId());
    if (lpCritSection == nullptr) return;
    // A 21st nested guard holds its latch unrecorded: the crash release
    // cannot see it, but the stack never overflows.
    if ((unsigned)lpCritSection->m_nCritPos > TALVOR_CRITSTACK_SIZE - 1) {
        m_lpCritSection = nullptr;
        return;
    }
    m_lpCritStack = &lpCritSection->m_pCritStack[lpCritSection->m_nCritPos];
    *m_lpCritStack = lp;
    lpCritSection->m_nCritPos++;
}

CTalvorCriticalSectionPtr::~CTalvorCriticalSectionPtr() { UnLock(); }

void CTalvorCriticalSectionPtr::UnLock()
{
    if (m_lpcs != nullptr) {
        LeaveCriticalTalvor(m_lpcs);
        m_lpcs = nullptr;
    }
    if (m_lpCritSection != nullptr) {
        *m_lpCritStack = nullptr;
        if (m_lpCritSection->m_nCritPos > 0) m_lpCritSection->m_nCritPos--;
        m_lpCritSection = nullptr;
    }
}

void InitializeCriticalSection(LPCRITICAL_SECTION lpcs)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(lpcs, &attr);
    pthread_mutexattr_destroy(&attr);
}

void DeleteCriticalSection(LPCRITICAL_SECTION lpcs) { pthread_mutex_destroy(lpcs); }

CCriticalSectionPtr::CCriticalSectionPtr(LPCRITICAL_SECTION lpcs) : m_lpcs(lpcs) { pthread_mutex_lock(m_lpcs); }

CCriticalSectionPtr::~CCriticalSectionPtr() { UnLock(); }

void CCriticalSectionPtr::UnLock()
{
    if (m_lpcs != nullptr) {
        pthread_mutex_unlock(m_lpcs);
        m_lpcs = nullptr;
    }
}

// ---------------------------------------------------------------- waits

void TimeraddMS(struct timeval* a, UINT ms)
{
    a->tv_sec += ms / 1000;
    a->tv_usec += (long)(ms % 1000) * 1000;
    if (a->tv_usec > 999999) {
        a->tv_sec += a->tv_usec / 1000000;
        a->tv_usec %= 1000000;
    }
}

int WaitForSingleObject(sem_t* semMutex, UINT nTime)
{
    if (semMutex == nullptr) {
        if (nTime != 0) usleep(1000);
        return WAIT_TIMEOUT;
    }
    return SemWaitMs(semMutex, nTime);
}

int WaitForSingleObject(const sem_t& semMutex, UINT nTime) { return SemWaitMs(const_cast<sem_t*>(&semMutex), nTime); }

BOOL IsThreadAlive(const pthread_t& thThread)
{
    if (thThread == 0) return FALSE;
    int nState = ThreadRegistryState(thThread);
    if (nState >= 0) return nState == 1 ? TRUE : FALSE;
    // Not one of ours: the signal probe is all there is.
    int rc = pthread_kill(thThread, 0);
    return (rc == ESRCH || rc == EINVAL) ? FALSE : TRUE;
}

int WaitForSingleObject(const pthread_t& thThread, UINT nTime)
{
    if (thThread == 0) {
        if (nTime != 0) usleep(1000);
        return WAIT_FAILED;
    }
    long long start = TalvorMonotonicMs();
    for (;;) {
        if (!IsThreadAlive(thThread)) return WAIT_OBJECT_0;
        if (TalvorMonotonicMs() - start > (long long)nTime) return WAIT_TIMEOUT;
        usleep(1000);
    }
}

int WaitForMultipleObjects(int nCount, HTHREADTYPE* pThreadHandle, BOOL, UINT dwMilliseconds)
{
    long long start = TalvorMonotonicMs();
    for (;;) {
        bool bAllGone = true;
        for (int i = 0; i < nCount; i++) {
            if (pThreadHandle[i] == 0) continue;
            if (!IsThreadAlive(pThreadHandle[i])) {
                pThreadHandle[i] = 0;
                continue;
            }
            bAllGone = false;
            if (TalvorMonotonicMs() - start > (long long)dwMilliseconds) return WAIT_TIMEOUT;
        }
        if (bAllGone) return WAIT_OBJECT_0;
        usleep(1000);
    }
}

int TalvorWaitForSingleThread(const pthread_t& thThread, UINT nTime)
{
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return WAIT_FAILED;
    ts.tv_sec += nTime / 1000;
    ts.tv_nsec += (long)(nTime % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec++;
        ts.tv_nsec -= 1000000000L;
    }
    int rc = pthread_timedjoin_np(thThread, nullptr, &ts);
    if (rc == 0) return WAIT_OBJECT_0;
    return rc == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

int TalvorWaitForMultipleThread(int nCount, HTHREADTYPE* pThreadHandle, BOOL, UINT dwMilliseconds)
{
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return WAIT_FAILED;
    ts.tv_sec += dwMilliseconds / 1000;
    ts.tv_nsec += (long)(dwMilliseconds % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec++;
        ts.tv_nsec -= 1000000000L;
    }
    int nResult = WAIT_OBJECT_0;
    for (int i = 0; i < nCount; i++) {
        if (pThreadHandle[i] == 0) continue;
        int rc = pthread_timedjoin_np(pThreadHandle[i], nullptr, &ts);
        if (rc == 0)
            pThreadHandle[i] = 0;
        else
            nResult = rc == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
    }
    return nResult;
}

// ---------------------------------------------------------------- events

HEVENTTYPE CreateEventSem(LPSECURITY_ATTRIBUTES, LPCTSTR lpName)
{
    sem_t* sem = sem_open(lpName, O_CREAT, 0644, 1);
    return sem == SEM_FAILED ? nullptr : sem;
}

BOOL CreateEventSemSuccess(HEVENTTYPE hEvent) { return hEvent != nullptr; }

void SetEvent(sem_t* pSem)
{
    if (pSem != nullptr) sem_post(pSem);
}

void SetEvent(const sem_t& pSem) { sem_post(const_cast<sem_t*>(&pSem)); }

void InitEvent(const EVENTTYPE& hEvent) { sem_init(const_cast<sem_t*>(&hEvent), 0, 0); }

void FreeEvent(const EVENTTYPE& hEvent) { sem_destroy(const_cast<sem_t*>(&hEvent)); }

void CloseEvent(const HEVENTTYPE& hEvent)
{
    if (hEvent == nullptr) return;
    sem_close(hEvent);
    const_cast<HEVENTTYPE&>(hEvent) = nullptr;
}

int InitializeSecurityDescriptor(int*, unsigned int) { return 1; }

int SetSecurityDescriptorDacl(int*, int, void*, int) { return 1; }

// ---------------------------------------------------------------- threads

namespace {

// pthread_kill(t, 0) keeps answering 0 for a joinable thread that has ended
// but is not yet joined, so liveness of the threads we start is tracked here:
// each thread runs through a trampoline that marks its slot when it returns.
struct ThreadSlot {
    pthread_t m_hThread;
    volatile int m_nState; // 0 free, 1 running, 2 ended
};
const int THREAD_SLOTS = 1024;
ThreadSlot g_arThreadSlots[THREAD_SLOTS];
pthread_mutex_t g_mtxThreadSlots = PTHREAD_MUTEX_INITIALIZER;

// A thread marks its own slot ended without the registry's mutex.
inline int SlotState(int i) { return __atomic_load_n(&g_arThreadSlots[i].m_nState, __ATOMIC_ACQUIRE); }

struct ThreadStart {
    LPTHREAD_START_ROUTINE m_pfn;
    LPVOID m_lpParameter;
    int m_nSlot;
};

// Marks the slot ended when the thread's frame goes, whether the entry
// returns or the thread leaves by pthread_exit (which unwinds the frames).
struct ThreadSlotEnd {
    int m_nSlot;
    ~ThreadSlotEnd()
    {
        if (m_nSlot >= 0) __atomic_store_n(&g_arThreadSlots[m_nSlot].m_nState, 2, __ATOMIC_RELEASE);
    }
};

void* ThreadTrampoline(void* lp)
{
    ThreadStart start = *(ThreadStart*)lp;
    free(lp);
    ThreadSlotEnd end{start.m_nSlot};
    return start.m_pfn(start.m_lpParameter);
}

// A slot is reserved as running before the thread exists, so the thread can
// never be seen as ended before it began. Ended slots are reused.
int ReserveThreadSlot()
{
    pthread_mutex_lock(&g_mtxThreadSlots);
    int nSlot = -1;
    // Free slots first: an ended slot may still be waited on by its handle.
    for (int i = 0; i < THREAD_SLOTS && nSlot < 0; i++) {
        if (SlotState(i) == 0) nSlot = i;
    }
    for (int i = 0; i < THREAD_SLOTS && nSlot < 0; i++) {
        if (SlotState(i) == 2) nSlot = i;
    }
    if (nSlot >= 0) {
        g_arThreadSlots[nSlot].m_hThread = 0;
        g_arThreadSlots[nSlot].m_nState = 1;
    }
    pthread_mutex_unlock(&g_mtxThreadSlots);
    return nSlot;
}

int StartThread(pthread_t* pThread, LPTHREAD_START_ROUTINE fn, LPVOID lpParameter, bool bDetached)
{
    ThreadStart* pStart = (ThreadStart*)malloc(sizeof(ThreadStart));
    if (pStart == nullptr) return ENOMEM;
    pStart->m_pfn = fn;
    pStart->m_lpParameter = lpParameter;
    // Kept apart: once the thread runs, the trampoline frees pStart.
    const int nSlot = ReserveThreadSlot();
    pStart->m_nSlot = nSlot;
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc == 0) {
        rc = pthread_attr_setstacksize(&attr, (size_t)g_nThreadStackSize);
        if (rc == 0 && bDetached) rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (rc == 0) {
            pthread_mutex_lock(&g_mtxThreadSlots);
            rc = pthread_create(pThread, &attr, ThreadTrampoline, pStart);
            if (rc == 0 && nSlot >= 0) g_arThreadSlots[nSlot].m_hThread = *pThread;
            pthread_mutex_unlock(&g_mtxThreadSlots);
        }
        pthread_attr_destroy(&attr);
    }
    if (rc != 0) {
        if (nSlot >= 0) __atomic_store_n(&g_arThreadSlots[nSlot].m_nState, 0, __ATOMIC_RELEASE);
        free(pStart);
    }
    return rc;
}

} // namespace

// -1 when the thread is not one of ours, else 1 running or 2 ended.
int ThreadRegistryState(pthread_t thThread)
{
    int nState = -1;
    pthread_mutex_lock(&g_mtxThreadSlots);
    for (int i = 0; i < THREAD_SLOTS; i++) {
        int nSlotState = SlotState(i);
        if (nSlotState != 0 && pthread_equal(g_arThreadSlots[i].m_hThread, thThread)) {
            nState = nSlotState;
            if (nState == 1) break; // a live thread wins over an ended one with a reused handle
        }
    }
    pthread_mutex_unlock(&g_mtxThreadSlots);
    return nState;
}

int CreateThreadAllPlateForm(volatile HTHREADTYPE* pThread, LPTHREAD_START_ROUTINE fn, LPVOID lpParameter,
                             const UINT&, const char*)
{
    pthread_t th = 0;
    if (StartThread(&th, fn, lpParameter, true) != 0) return 1;
    if (pThread != nullptr) *pThread = th;
    return 0;
}

int CreateJoinableThread(HTHREADTYPE* pThread, LPTHREAD_START_ROUTINE fn, LPVOID lpParameter)
{
    return StartThread(pThread, fn, lpParameter, false);
}

void CloseThreadHandle(const HTHREADTYPE& hThread) { const_cast<HTHREADTYPE&>(hThread) = 0; }

int GetLastError() { return errno; }

int WSAGetLastError() { return errno; }

void Sleep(int nMilliseconds) { usleep((useconds_t)nMilliseconds * 1000); }

// ---------------------------------------------------------------- time

void GetSystemTimeAsFileTime(FILETIME* pFileTime)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    unsigned long long t = ((unsigned long long)tv.tv_sec + 11644473600ULL) * 10000000ULL + (unsigned long long)tv.tv_usec * 10ULL;
    // The target often lies inside a packed record at an odd offset.
    FILETIME ft;
    ft.dwLowDateTime = (DWORD)(t & 0xFFFFFFFFu);
    ft.dwHighDateTime = (DWORD)(t >> 32);
    memcpy((void*)pFileTime, &ft, sizeof(ft));
}

long long FileTimeToInt64(const FILETIME& ft) { return (long long)(((unsigned long long)ft.dwHighDateTime << 32) | ft.dwLowDateTime); }

long long TalvorMonotonicNs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

long long TalvorMonotonicMs() { return TalvorMonotonicNs() / 1000000; }

BOOL QueryPerformanceCounter(LARGE_INTEGER* lpCounter)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    lpCounter->QuadPart = (LONGLONG)tv.tv_sec * 1000000LL + tv.tv_usec;
    return TRUE;
}

void GetLocalTime(LPSYSTEMTIME lpSystemTime)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmLocal;
    time_t t = tv.tv_sec;
    localtime_r(&t, &tmLocal);
    lpSystemTime->wYear = (WORD)(tmLocal.tm_year + 1900);
    lpSystemTime->wMonth = (WORD)(tmLocal.tm_mon + 1);
    lpSystemTime->wDay = (WORD)tmLocal.tm_mday;
    lpSystemTime->wHour = (WORD)tmLocal.tm_hour;
    lpSystemTime->wMinute = (WORD)tmLocal.tm_min;
    lpSystemTime->wSecond = (WORD)tmLocal.tm_sec;
    lpSystemTime->wMilliseconds = (WORD)(tv.tv_usec / 1000);
}

// ---------------------------------------------------------------- files

int GetModuleFileName(char*, char* sFileName, int nSize)
{
    if (sFileName == nullptr || nSize <= 0) return 0;
    ssize_t n = readlink("/proc/self/exe", sFileName, (size_t)nSize);
    if (n >= 0 && n < nSize) sFileName[n] = '\0';
    else if (n >= nSize) sFileName[nSize - 1] = '\0';
    else sFileName[0] = '\0';
    return 0;
}

UINT GetFileSize(FILE* pFile, LPUINT)
{
    if (pFile == nullptr) return 0;
    long nPos = ftell(pFile);
    if (nPos < 0 || fseek(pFile, 0, SEEK_END) != 0) return 0;
    long nEnd = ftell(pFile);
    if (fseek(pFile, nPos, SEEK_SET) != 0 || nEnd < 0) return 0;
    return (UINT)nEnd;
}

void CreateDirectory(char* lpFilePath, void*) { CTalvorFileIO::Current()->MkDir(lpFilePath, 0777); }

BOOL DeleteFile(LPCTSTR lpFileName) { return CTalvorFileIO::Current()->Unlink(lpFileName) == 0 ? TRUE : FALSE; }

int MakeDirs(const char* lpszFilePath, size_t nCopySize, BOOL bBackslashToo, int* pnSyncErrno)
{
    if (pnSyncErrno != nullptr) *pnSyncErrno = 0;
    if (lpszFilePath == nullptr || lpszFilePath[0] == '\0') return 0;
    if (TalvorPathExists(lpszFilePath)) return 1;
    char szPath[MAX_PATH] = {0};
    if (nCopySize > sizeof(szPath)) nCopySize = sizeof(szPath);
    strncpy(szPath, lpszFilePath, nCopySize - 1);
    // Only directories followed by a separator are made: a file's path makes
    // its parents, and a directory's path must end in "/". Separators at
    // indexes 0 to 3 are passed over.
    for (size_t i = 4; i < nCopySize && szPath[i] != '\0'; i++) {
        if (szPath[i] != '/' && !(bBackslashToo && szPath[i] == '\\')) continue;
        szPath[i] = '\0';
        // Another process may be making the same directory: look twice
        // before creating, and try once more if it did not come.
        if (!TalvorPathExists(szPath)) {
            usleep(1000);
            if (!TalvorPathExists(szPath)) {
                CreateDirectory(szPath, nullptr);
                if (!TalvorPathExists(szPath)) {
                    usleep(1000);
                    CreateDirectory(szPath, nullptr);
                }
                // A file later synced into a directory whose own name never
                // reached the medium is lost with it at a power loss.
                if (TalvorPathExists(szPath) && TalvorSyncParentDirectory(szPath) != 0 && pnSyncErrno != nullptr &&
                    *pnSyncErrno == 0)
                    *pnSyncErrno = errno;
            }
        }
        szPath[i] = '/';
    }
    return 1;
}

int MakeDir(const char* lpszFilePath, int* pnSyncErrno) { return MakeDirs(lpszFilePath, MAX_PATH, FALSE, pnSyncErrno); }

void* get_aligned_buffer(size_t nSize) { return memalign(ALIGNED_BUFFER_ALIGNMENT, nSize); }

void* Talvor_MakeFileHandle(int fd)
{
    int* pCell = (int*)malloc(sizeof(int));
    if (pCell == nullptr) return nullptr;
    *pCell = fd;
    return pCell;
}

int Talvor_FileDescriptor(void* hFile) { return hFile == nullptr ? -1 : *(int*)hFile; }

void Talvor_CloseFile(void*& hFile)
{
    if (hFile == nullptr) return;
    int fd = *(int*)hFile;
    if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
    free(hFile);
    hFile = nullptr;
}
