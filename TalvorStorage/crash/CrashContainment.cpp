// CrashContainment.cpp — a fault in a worker thread unwinds that thread only.
//
// A contained thread registers a jump point when it starts. The fault handler
// logs a stack trace, files the thread for restart and longjmps back to its
// jump point; the thread gives back its latches (TalvorCriticalRelease) and
// ends, and the main thread starts a new one with the same entry and argument.
//
// The handler logs, allocates and starts addr2line from signal context. What
// it needs that the interrupted code could hold is guarded: the trace path
// and the thread lists run in deferral regions (a signal sent from outside
// waits for the region's end), and a real fault inside the trace path gives
// its latch back before the handler traces.
#include "CrashContainment.h"

#include "TalvorTrace.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <semaphore.h>
#include <time.h>
#include <link.h>
#include <new>
#include <unistd.h>

namespace {

const int MAX_STACK_FRAMES = 256;
// addr2line is given this long; a tool that hangs must not hold the thread.
const int ADDR2LINE_TIMEOUT_S = 10;
// After a failed restart the main thread waits before the next attempt.
const int RESTART_RETRY_PAUSE_US = 100000;

// The registry. Static mutexes: usable before any constructor runs and by
// threads that outlive the module object.
CRITICAL_SECTION g_critThreads = PTHREAD_MUTEX_INITIALIZER;
LPTALVORTHREAD g_pThreadHead = nullptr;
CRITICAL_SECTION g_critCrashedThreads = PTHREAD_MUTEX_INITIALIZER;
LPCRASHTHREAD g_pCrashedThreads = nullptr;
LPCRASHFAULTHOOK g_pFaultHook = nullptr;

__thread int t_nDeferDepth __attribute__((tls_model("initial-exec"))) = 0;
__thread volatile sig_atomic_t t_nDeferredSignal __attribute__((tls_model("initial-exec"))) = 0;

const char* SegvReason(int nCode)
{
    if (nCode == SEGV_MAPERR) return "Address not mapped to object.";
    if (nCode == SEGV_ACCERR) return "Invalid permissions for mapped object.";
    return "the signal may send by other process.";
}

// A path spliced into a shell command must not end a word or start one.
bool IsShellSafePath(const char* lpPath)
{
    if (lpPath == nullptr || *lpPath == '\0') return false;
    for (const char* p = lpPath; *p != '\0'; ++p) {
        char c = *p;
        bool bOk = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                   c == '/' || c == '_' || c == '-' || c == '+';
        if (!bOk) return false;
    }
    return true;
}

// addr2line reads addresses of the file, not of the running image: a frame
// of a position-independent executable is given relative to its load base.
unsigned long long FileAddress(unsigned long long nAddress)
{
    Dl_info exe;
    Dl_info frame;
    if (dladdr((void*)&CrashHandler, &exe) == 0 || dladdr((void*)nAddress, &frame) == 0) return nAddress;
    if (frame.dli_fbase != exe.dli_fbase || exe.dli_fbase == nullptr) return nAddress;
    const unsigned char* pIdent = (const unsigned char*)exe.dli_fbase;
    if (memcmp(pIdent, ELFMAG, SELFMAG) != 0) return nAddress;
    if (((const ElfW(Ehdr)*)exe.dli_fbase)->e_type != ET_DYN) return nAddress;
    return nAddress - (unsigned long long)exe.dli_fbase;
}

void TraceStack()
{
    void* arFrames[MAX_STACK_FRAMES];
    int nFrames = backtrace(arFrames, MAX_STACK_FRAMES);
    char** lpSymbols = nFrames > 0 ? backtrace_symbols(arFrames, nFrames) : nullptr;
    if (lpSymbols == nullptr) return;
    char szExe[MAX_PATH] = {0};
    GetModuleFileName(nullptr, szExe, sizeof(szExe));
    for (int i = 0; i < nFrames; i++) CrashTraceFrame(lpSymbols[i], szExe);
    free(lpSymbols);
}

// backtrace loads its unwinder on first use; done at a quiet moment rather
// than in the handler.
void WarmUpBacktrace()
{
    static int s_nWarm = 0;
    if (__atomic_exchange_n(&s_nWarm, 1, __ATOMIC_ACQ_REL) != 0) return;
    void* arFrame[2];
    backtrace(arFrame, 2);
}

// A record whose thread has not yet reached its setjmp has nothing to jump
// to: its jmp_buf is still as SetThreadData zeroed it.
bool IsJumpPointSet(const jmp_buf& jb)
{
    static const jmp_buf s_jbZero = {};
    return memcmp(&jb[0].__jmpbuf, &s_jbZero[0].__jmpbuf, sizeof(jb[0].__jmpbuf)) != 0;
}

// Lock of a thread list, inside a deferral region.
class CListLock {
public:
    explicit CListLock(LPCRITICAL_SECTION lpcs) : m_lpcs(lpcs)
    {
        CrashDeferEnter();
        pthread_mutex_lock(m_lpcs);
    }
    ~CListLock() { UnLock(); }
    void UnLock()
    {
        if (m_lpcs == nullptr) return;
        pthread_mutex_unlock(m_lpcs);
        m_lpcs = nullptr;
        CrashDeferLeave();
    }
    CListLock(const CListLock&) = delete;
    CListLock& operator=(const CListLock&) = delete;

private:
    LPCRITICAL_SECTION m_lpcs;
};

} // namespace

// ---------------------------------------------------------------- deferral

void CrashDeferEnter()
{
    t_nDeferDepth++;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

void CrashDeferLeave()
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (t_nDeferDepth > 0) t_nDeferDepth--;
    if (t_nDeferDepth != 0) return;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    int nSignal = t_nDeferredSignal;
    if (nSignal == 0) return;
    t_nDeferredSignal = 0;
    // Delivered before pthread_kill returns, now that nothing is held.
    pthread_kill(pthread_self(), nSignal);
}

BOOL CrashDeferSignal(int signum, const siginfo_t* info)
{
    if (t_nDeferDepth == 0) return FALSE;
    // si_code above zero: the kernel raised it for this instruction, which
    // would only fault again.
    if (info != nullptr && info->si_code > 0) return FALSE;
    if (t_nDeferredSignal == 0) t_nDeferredSignal = signum;
    return TRUE;
}

void CrashDeferReset()
{
    t_nDeferDepth = 0;
    t_nDeferredSignal = 0;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

// ---------------------------------------------------------------- handler

// One frame "module(symbol+off) [addr]" as "demangled file:line"; frames that
// do not parse are logged raw and the trace goes on with the next.
void CrashTraceFrame(const char* lpFrame, const char* lpExePath)
{
    const char* pOpen = strchr(lpFrame, '(');
    const char* pPlus = pOpen ? strchr(pOpen, '+') : nullptr;
    if (pOpen == nullptr || pPlus == nullptr) {
        Trace0("CrashHandler", 3, 10002010, lpFrame);
        return;
    }
    char szMangled[512] = {0};
    size_t nLen = (size_t)(pPlus - pOpen - 1);
    if (nLen >= sizeof(szMangled)) nLen = sizeof(szMangled) - 1;
    memcpy(szMangled, pOpen + 1, nLen);
    int nStatus = 0;
    char* lpDemangled = nLen > 0 ? abi::__cxa_demangle(szMangled, nullptr, nullptr, &nStatus) : nullptr;
    if (lpDemangled == nullptr || nStatus != 0) {
        free(lpDemangled);
        Trace0("CrashHandler", 3, 10002011, lpFrame);
        return;
    }
    const char* pLeft = strchr(lpFrame, '[');
    const char* pRight = pLeft ? strchr(pLeft, ']') : nullptr;
    if (pLeft == nullptr || pRight == nullptr) {
        free(lpDemangled);
        Trace0("CrashHandler", 3, 10002012, lpFrame);
        return;
    }
    unsigned long long nAddress = strtoull(pLeft + 1, nullptr, 16);
    FILE* pPipe = nullptr;
    if (IsShellSafePath(lpExePath)) {
        char szCommand[1024];
        snprintf(szCommand, sizeof(szCommand), "timeout %d addr2line -e %s 0x%llx 2>/dev/null", ADDR2LINE_TIMEOUT_S,
                 lpExePath, FileAddress(nAddress));
        pPipe = popen(szCommand, "r");
    }
    if (pPipe == nullptr) {
        free(lpDemangled);
        Trace0("CrashHandler", 3, 10002013, lpFrame);
        return;
    }
    // A missing tool gives an empty line, not a hang.
    char szLine[257] = {0};
    if (fgets(szLine, sizeof(szLine), pPipe) == nullptr) szLine[0] = '\0';
    szLine[strcspn(szLine, "\n")] = '\0';
    // Drained so that the tool never blocks on a full pipe before pclose.
    char szRest[256];
    while (fgets(szRest, sizeof(szRest), pPipe) != nullptr) {
    }
    pclose(pPipe);
    Trace("CrashHandler", 3, 10002020, "%s %s", lpDemangled, szLine);
    free(lpDemangled);
}

void CrashHandler(int signum, siginfo_t* info, void*)
{
    if (CrashDeferSignal(signum, info)) return;
    // The thread leaves its frames for good: whatever it held in the trace
    // path is given back before the handler traces.
    CrashDeferReset();
    LPCRASHFAULTHOOK pHook = __atomic_load_n(&g_pFaultHook, __ATOMIC_ACQUIRE);
    if (pHook != nullptr) pHook();
    if (signum == SIGSEGV && info != nullptr) {
        Trace("CrashHandler", 3, 10002001,
              TALVOR_TEXT("SEGVINFO:[访问地址: %p; 错误码: %d; 错误信息: %s]", "SEGVINFO:[access address: %p; error code: %d; error info: %s]"),
              info->si_addr, info->si_code, SegvReason(info->si_code));
    }
    if (signum == SIGFPE && info != nullptr) {
        Trace("CrashHandler", 3, 10002002,
              TALVOR_TEXT("FPEINFO:[访问地址: %p;错误码: %d;]", "FPEINFO:[access address: %p;error code: %d;]"),
              info->si_addr, info->si_code);
    }
    Trace("CrashHandler", 3, 10002003,
          TALVOR_TEXT("收到信号 %d(%s)! 堆栈跟踪:", "Received signal %d(%s)! Stack trace:"), signum, strsignal(signum));
    TraceStack();
    CrashExceptionHandling();
}

void CrashInstallFaultHook(LPCRASHFAULTHOOK pHook) { __atomic_store_n(&g_pFaultHook, pHook, __ATOMIC_RELEASE); }

// ---------------------------------------------------------------- thread lists

void CrashSetThreadData(LPTALVORTHREADENTRY threadEntrance, void* lpParam, HTHREADTYPE* pThreadHandle)
{
    WarmUpBacktrace();
    LPTALVORTHREAD pRecord = new (std::nothrow) TALVORTHREAD;
    if (pRecord == nullptr) return; // the thread runs unprotected
    memset((void*)pRecord, 0, sizeof(*pRecord));
    pRecord->m_nThreadID = (int)GetCurrentThreadId();
    pRecord->m_lpParam = lpParam;
    pRecord->m_pThreadHandle = pThreadHandle;
    pRecord->m_pThread = threadEntrance;
    CListLock guard(&g_critThreads);
    pRecord->m_pNext = g_pThreadHead;
    g_pThreadHead = pRecord;
}

jmp_buf* CrashGetLongJmp()
{
    int nThreadID = (int)GetCurrentThreadId();
    CListLock guard(&g_critThreads);
    for (LPTALVORTHREAD p = g_pThreadHead; p != nullptr; p = p->m_pNext) {
        if (p->m_nThreadID == nThreadID) return &p->m_nJmpPoint;
    }
    return nullptr;
}

void CrashRemoveThreadData()
{
    int nThreadID = (int)GetCurrentThreadId();
    CListLock guard(&g_critThreads);
    LPTALVORTHREAD* ppLink = &g_pThreadHead;
    while (*ppLink != nullptr) {
        LPTALVORTHREAD p = *ppLink;
        if (p->m_nThreadID == nThreadID) {
            *ppLink = p->m_pNext;
            delete p;
        } else {
            ppLink = &p->m_pNext;
        }
    }
}

namespace {

// Posted when there is work for the main thread; made before main runs, so
// that a handler never meets it unmade.
struct MainWake {
    sem_t m_sem;
    bool m_bMade;
    MainWake() { m_bMade = sem_init(&m_sem, 0, 0) == 0; }
} g_stMainWake;

} // namespace

void CrashWakeMainThread()
{
    if (g_stMainWake.m_bMade) sem_post(&g_stMainWake.m_sem);
}

BOOL CrashWaitForMainWork(UINT nMs)
{
    if (!g_stMainWake.m_bMade) {
        usleep(nMs * 1000);
        return FALSE;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    long long nNanos = (long long)ts.tv_nsec + (long long)(nMs % 1000) * 1000000LL;
    ts.tv_sec += (time_t)(nMs / 1000) + (time_t)(nNanos / 1000000000LL);
    ts.tv_nsec = (long)(nNanos % 1000000000LL);
    while (sem_timedwait(&g_stMainWake.m_sem, &ts) != 0) {
        if (errno != EINTR) return FALSE;
    }
    // Posts banked meanwhile are covered by the look that follows.
    while (sem_trywait(&g_stMainWake.m_sem) == 0) {
    }
    return TRUE;
}

int CrashAppendCrashedThread(HTHREADTYPE* threadHandle, LPTALVORTHREADENTRY threadEntrance, void* threadArg)
{
    CListLock guard(&g_critCrashedThreads);
    LPCRASHTHREAD pRecord = new (std::nothrow) CRASHTHREAD;
    if (pRecord == nullptr) {
        Trace("AppendCrashedThread", 1, 1001501,
              TALVOR_TEXT("添加待恢复的崩溃线程时分配内存失败,错误码:%d",
                          "Failed to allocate memory by adding crash threads to be recovered, error code: %d"),
              errno);
        return 3;
    }
    pRecord->m_threadHandle = threadHandle;
    pRecord->m_pThread = threadEntrance;
    pRecord->m_vThreadArg = threadArg;
    pRecord->m_next = g_pCrashedThreads;
    // CrashHasCrashedThreads looks without the lock: the head is published
    // whole, after the record it points to.
    __atomic_store_n(&g_pCrashedThreads, pRecord, __ATOMIC_RELEASE);
    CrashWakeMainThread();
    return 0;
}

void CrashExceptionHandling()
{
    int nThreadID = (int)GetCurrentThreadId();
    LPTALVORTHREAD pFound = nullptr;
    bool bJumpReady = false;
    {
        CListLock guard(&g_critThreads);
        for (LPTALVORTHREAD p = g_pThreadHead; p != nullptr && pFound == nullptr; p = p->m_pNext) {
            if (p->m_nThreadID == nThreadID) pFound = p;
        }
        if (pFound != nullptr) bJumpReady = IsJumpPointSet(pFound->m_nJmpPoint);
    }
    if (pFound == nullptr || !bJumpReady) {
        Trace("ExceptionHandling", 3, 10032002, TALVOR_TEXT("线程[%d]无法提交自动恢复", "Thread [%d] cannot be submitted for automatic recovery"),
              nThreadID);
        // A record without a jump point would outlive its thread.
        if (pFound != nullptr) CrashRemoveThreadData();
        usleep(32000);
        pthread_exit(nullptr);
    }
    if (pFound->m_pThread != nullptr) {
        CrashAppendCrashedThread(pFound->m_pThreadHandle, pFound->m_pThread, pFound->m_lpParam);
        Trace("ExceptionHandling", 3, 10032001, TALVOR_TEXT("线程[%d]已经提交自动恢复", "Thread [%d] has been submitted for automatic recovery"),
              nThreadID);
    } else {
        Trace("ExceptionHandling", 3, 10032002,
              TALVOR_TEXT("线程[%d]出错后结束,不自动恢复", "Thread [%d] ends after the fault and is not started again"), nThreadID);
    }
    // The record stays for the thread itself to remove after the jump.
    longjmp(pFound->m_nJmpPoint, 1);
}

void CrashAutoRecoverCrashedThreads()
{
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) {
        Trace("AutoRecoverCrashedThread", 1, 1001401,
              TALVOR_TEXT("线程参数初始化失败(%d),错误码:%d", "Initialization thread parameter failed (%d), error code: %d"), rc, errno);
        return;
    }
    rc = pthread_attr_setstacksize(&attr, (size_t)g_nThreadStackSize);
    if (rc != 0) {
        Trace("AutoRecoverCrashedThread", 1, 1001403,
              TALVOR_TEXT("设置线程栈大小(%d)参数失败(%d),错误码:%d", "Setting thread stack size (%d) parameter failed (%d), error code: %d"),
              g_nThreadStackSize, rc, errno);
        pthread_attr_destroy(&attr);
        return;
    }
    bool bFailed = false;
    {
        CListLock guard(&g_critCrashedThreads);
        while (g_pCrashedThreads != nullptr) {
            LPCRASHTHREAD pRecord = g_pCrashedThreads;
            if (*pRecord->m_threadHandle != 0) {
                struct timespec ts;
                clock_gettime(CLOCK_REALTIME, &ts);
                ts.tv_nsec += 1000000;
                if (ts.tv_nsec >= 1000000000L) {
                    ts.tv_sec++;
                    ts.tv_nsec -= 1000000000L;
                }
                // Not gone yet: it frees itself when it ends.
                if (pthread_timedjoin_np(*pRecord->m_threadHandle, nullptr, &ts) != 0)
                    pthread_detach(*pRecord->m_threadHandle);
                *pRecord->m_threadHandle = 0;
            }
            rc = pthread_create(pRecord->m_threadHandle, &attr, pRecord->m_pThread, pRecord->m_vThreadArg);
            if (rc != 0) {
                Trace("AutoRecoverCrashedThread", 1, 1001404,
                      TALVOR_TEXT("重启崩溃线程失败(%d),错误码:%d", "Restart crash thread failed (%d), error code: %d"), rc, errno);
                *pRecord->m_threadHandle = 0;
                bFailed = true;
                break;
            }
            __atomic_store_n(&g_pCrashedThreads, pRecord->m_next, __ATOMIC_RELEASE);
            delete pRecord;
        }
    }
    rc = pthread_attr_destroy(&attr);
    if (rc != 0) {
        Trace("AutoRecoverCrashedThread", 1, 1001405,
              TALVOR_TEXT("销毁线程参数失败(%d),错误码:%d", "Failure to destroy thread parameters (%d), error code: %d"), rc, errno);
    }
    // The record waits for the next turn; the pause keeps a lasting failure
    // from filling the log at the main loop's pace.
    if (bFailed) usleep(RESTART_RETRY_PAUSE_US);
}

BOOL CrashHasCrashedThreads() { return __atomic_load_n(&g_pCrashedThreads, __ATOMIC_ACQUIRE) != nullptr; }

void CrashFreeThreadLists()
{
    CListLock guardCrashed(&g_critCrashedThreads);
    while (g_pCrashedThreads != nullptr) {
        LPCRASHTHREAD pNext = g_pCrashedThreads->m_next;
        delete g_pCrashedThreads;
        __atomic_store_n(&g_pCrashedThreads, pNext, __ATOMIC_RELEASE);
    }
    guardCrashed.UnLock();
    CListLock guard(&g_critThreads);
    while (g_pThreadHead != nullptr) {
        LPTALVORTHREAD pNext = g_pThreadHead->m_pNext;
        delete g_pThreadHead;
        g_pThreadHead = pNext;
    }
}

LPTALVORTHREAD CrashFindThreadData(int nThreadID)
{
    CListLock guard(&g_critThreads);
    for (LPTALVORTHREAD p = g_pThreadHead; p != nullptr; p = p->m_pNext) {
        if (p->m_nThreadID == nThreadID) return p;
    }
    return nullptr;
}

// ---------------------------------------------------------------- contained entry

void TalvorRunContained(LPTALVORTHREADENTRY pEntry, void* lpParam, HTHREADTYPE* pThreadHandle, LPCONTAINEDBODY pBody,
                        LPCONTAINEDCLEANUP pCleanup, void* lpContext)
{
    assert(pBody != nullptr);
    TALVORCRITICALSECTION stCritSection;
    InitThreadCritSection(&stCritSection);
    CrashSetThreadData(pEntry, lpParam, pThreadHandle);
    jmp_buf* pJmp = CrashGetLongJmp();
    // This frame stays live while the body runs, so the jump lands in it.
    if (pJmp != nullptr && setjmp(*pJmp) != 0) {
        // Back from a fault: give back what the abandoned frames held.
        TalvorCriticalRelease(&stCritSection);
        if (pCleanup != nullptr) pCleanup(lpContext);
        CrashRemoveThreadData();
        pthread_exit(nullptr);
    }
    pBody(lpContext, &stCritSection);
    CrashRemoveThreadData();
}

// ---------------------------------------------------------------- test trigger

namespace {

const char* const g_arTestCrashNames[] = {"storage", "tracewriter", "tracecopier", "standby"};
int g_nTestCrashFired = 0;

// Bit of a thread the environment names, or -1.
int TestCrashBit(const char* lpThreadName)
{
    const char* lpWanted = getenv("TALVOR_TEST_CRASH");
    if (lpWanted == nullptr || lpThreadName == nullptr) return -1;
    int nBit = -1;
    for (int i = 0; i < (int)(sizeof(g_arTestCrashNames) / sizeof(g_arTestCrashNames[0])); i++) {
        if (strcmp(g_arTestCrashNames[i], lpThreadName) == 0) nBit = i;
    }
    if (nBit < 0) return -1;
    size_t nName = strlen(lpThreadName);
    for (const char* p = lpWanted; *p != '\0';) {
        size_t nToken = strcspn(p, ",");
        if (nToken == nName && strncmp(p, lpThreadName, nName) == 0) return nBit;
        p += nToken;
        if (*p == ',') p++;
    }
    return -1;
}

} // namespace

BOOL CrashTestAsked(const char* lpThreadName) { return TestCrashBit(lpThreadName) >= 0; }

BOOL CrashTestFaultDue(const char* lpThreadName)
{
    int nBit = TestCrashBit(lpThreadName);
    if (nBit < 0) return FALSE;
    return (__atomic_fetch_or(&g_nTestCrashFired, 1 << nBit, __ATOMIC_ACQ_REL) & (1 << nBit)) == 0;
}

void CrashTestFault()
{
    // Read through a volatile so that no compiler sees the address.
    static volatile uintptr_t s_nBadAddress = 16;
    *(volatile int*)s_nBadAddress = 1;
}
