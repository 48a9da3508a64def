// LogManager.cpp — the singleton, the queue of the daemon's own lines, its
// writer thread and the start and stop of the trace threads.
//
// A caller pays one vsnprintf, one malloc and a spin latch held for two
// pointer stores; it never touches the file nor waits for the writer. The
// queue is bounded: in a trace storm lines are refused and counted, and the
// writer says how many in a line of its own once it catches up.
#include "LogManager.h"

#include "ConfigHelper.h"
#include "CrashContainment.h"
#include "ShareMemory.h"

#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

TALVOR_SECTION g_CritTrace; // zero-filled: usable before any constructor runs
// Trace calls between reading the singleton and leaving it, counted by
// generation: the teardown turns the generation and waits only for calls of
// the old one (later calls cannot see the old object) before it frees it.
int g_nTraceGeneration = 0;
long long g_arTraceUsers[2] = {0, 0};
const int TRACE_TITLE_SIZE = 128;
// After a failed open of the daemon's file, the next attempt waits this long
// (the lines meanwhile are counted as lost).
const long long OPEN_RETRY_MS = 1000;
const int TEARDOWN_WAIT_US = 2000000;
// How long a start whose redo service failed waits for the trace threads.
const UINT REDO_FAILED_STOP_SECONDS = 30;

// The trace latch the calling thread holds, for the crash handler.
__thread LPTALVOR_SECTION t_pHeldTraceLatch __attribute__((tls_model("initial-exec"))) = nullptr;

// The local time of the last stamp of this thread: localtime_r takes a
// process-wide lock, so it runs at most once a minute per thread.
struct LocalTimeCache {
    long long m_nSecond; // the UTC second the cached fields belong to
    struct tm m_tm;
};
__thread LocalTimeCache t_stTimeCache __attribute__((tls_model("initial-exec"))) = {-1, {}};

// The kernel thread id, asked of the kernel once per thread: the trace path
// stamps every line with it and a system call per line is dear.
__thread UINT t_nThreadId __attribute__((tls_model("initial-exec"))) = 0;

inline UINT CachedThreadId()
{
    if (t_nThreadId == 0) t_nThreadId = GetCurrentThreadId();
    return t_nThreadId;
}

void LockTraceLatch(LPTALVOR_SECTION lp)
{
    EnterCriticalTalvorEx(lp);
    t_pHeldTraceLatch = lp;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

void UnlockTraceLatch(LPTALVOR_SECTION lp)
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    t_pHeldTraceLatch = nullptr;
    LeaveCriticalTalvor(lp);
}

void FastLocalTime(SYSTEMTIME* pst)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    LocalTimeCache& c = t_stTimeCache;
    long long nDelta = (long long)tv.tv_sec - c.m_nSecond;
    if (c.m_nSecond < 0 || nDelta < 0 || c.m_tm.tm_sec + nDelta > 59) {
        time_t t = tv.tv_sec;
        localtime_r(&t, &c.m_tm);
        c.m_nSecond = tv.tv_sec;
        nDelta = 0;
    }
    pst->wYear = (WORD)(c.m_tm.tm_year + 1900);
    pst->wMonth = (WORD)(c.m_tm.tm_mon + 1);
    pst->wDayOfWeek = (WORD)c.m_tm.tm_wday;
    pst->wDay = (WORD)c.m_tm.tm_mday;
    pst->wHour = (WORD)c.m_tm.tm_hour;
    pst->wMinute = (WORD)c.m_tm.tm_min;
    pst->wSecond = (WORD)(c.m_tm.tm_sec + nDelta);
    pst->wMilliseconds = (WORD)(tv.tv_usec / 1000);
}

void FormatTitle(char* lpTitle, LONG dwThreadID, UINT dwLevel, UINT dwErrorCode, LPCTSTR szFuncationName)
{
    SYSTEMTIME st;
    FastLocalTime(&st);
    snprintf(lpTitle, TRACE_TITLE_SIZE, "\r\n%04d-%02d-%02d %02d:%02d:%02d.%03d %d\t% 2d   % 10d %s ", st.wYear, st.wMonth,
             st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds, (int)dwThreadID, (int)dwLevel, (int)dwErrorCode,
             szFuncationName ? szFuncationName : "");
}

inline BOOL LoadFlag(const volatile BOOL* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline void StoreFlag(volatile BOOL* p, BOOL b) { __atomic_store_n(p, b, __ATOMIC_RELEASE); }

// Records carry their cost in the queue's bound: the record and its text.
inline long long RecordCost(int nLen) { return (long long)sizeof(CLogManager::TALVORTRACE) + nLen + 1; }

} // namespace

CLogManager* CLogManager::m_pSinstance = nullptr;

void TraceAbandonLatchAfterFault()
{
    LPTALVOR_SECTION lp = t_pHeldTraceLatch;
    if (lp == nullptr) return;
    t_pHeldTraceLatch = nullptr;
    LeaveCriticalTalvor(lp);
}

CLogManager::CLogManager()
    : m_nNum(0), m_pFile(nullptr), m_lpTraceDir(nullptr), m_lpRedoDir(nullptr), m_pTraceFileAddr(nullptr),
      m_hTraceFile(0), m_hTraceEvent(nullptr), m_pLogFileAddr(nullptr), m_hLogFile(0), m_hLogEvent(nullptr),
      m_hLogEmptyEvent(nullptr), m_pTraceHead(nullptr), m_pTraceTail(nullptr), m_pMemoryFileHead(nullptr),
      m_pTalvorRedoLog(nullptr), m_bExit(FALSE), m_bLogExit(FALSE), m_hWriteTraceThread(0), m_hWriteTraceThreadEx(0),
      m_hWriteLogThread(0), m_hArchiveLogThread(0), m_nTraceFileSize(0), m_nLogFileSize(0), m_bEnvironmentReady(FALSE),
      m_bInFileWrite(FALSE), m_pServiceFile(nullptr), m_bInServiceWrite(FALSE), m_nServiceProcessID(0),
      m_nServiceWriteSize(0), m_nWriteSize(0), m_nQueuedBytes(0), m_nQueueLimit(TRACE_QUEUE_DEFAULT_LIMIT),
      m_nDroppedLines(0), m_nLostLines(0), m_bOpenFailureTold(FALSE), m_nNextOpenTryMs(0),
      m_bRingOpenFailureTold(FALSE), m_pWritingChain(nullptr)
{
    m_bQueuedSemMade = sem_init(&m_semQueued, 0, 0) == 0;
    m_szServicePath[0] = '\0';
    InitializeCriticalTalvor(&m_critTrace);
    TalvorSetLatchRank(&m_critTrace, LATCHRANK_TRACE);
    InitializeCriticalTalvor(&m_critWrite);
    TalvorSetLatchRank(&m_critWrite, LATCHRANK_TRACEWRITE);
}

CLogManager::~CLogManager()
{
    // No thread may outlive the object: stop any still running.
    StopTraceThreads(5);
    if (m_pTraceFileAddr != nullptr) {
        CShareMemory::ShMemDetach(m_pTraceFileAddr);
        usleep(1000);
        if (m_hTraceFile > 0) CShareMemory::DestoryShareMemory(m_hTraceFile);
    }
    if (m_pLogFileAddr != nullptr) {
        CShareMemory::ShMemDetach(m_pLogFileAddr);
        usleep(1000);
        if (m_hLogFile > 0) CShareMemory::DestoryShareMemory(m_hLogFile);
    }
    // The redo threads were joined with the trace threads.
    ReleaseRedoService();
    WriteAllTrace();
    free(m_lpTraceDir);
    m_lpTraceDir = nullptr;
    free(m_lpRedoDir);
    m_lpRedoDir = nullptr;
    CTalvorAppendFile::Close(m_pFile);
    m_pFile = nullptr;
    CTalvorAppendFile::Close(m_pServiceFile);
    m_pServiceFile = nullptr;
    CloseEvent(m_hTraceEvent);
    CloseEvent(m_hLogEvent);
    CloseEvent(m_hLogEmptyEvent);
    DeleteCriticalTalvor(&m_critWrite);
    DeleteCriticalTalvor(&m_critTrace);
}

CLogManager& CLogManager::instance() { return *GetInstancePtr(); }

CLogManager* CLogManager::GetInstancePtr()
{
    // Sequentially consistent: the teardown's count of callers relies on it.
    CLogManager* p = __atomic_load_n(&m_pSinstance, __ATOMIC_SEQ_CST);
    if (p != nullptr) return p;
    CrashDeferEnter();
    LockTraceLatch(&g_CritTrace);
    p = __atomic_load_n(&m_pSinstance, __ATOMIC_ACQUIRE);
    if (p == nullptr) {
        p = new (std::nothrow) CLogManager();
        __atomic_store_n(&m_pSinstance, p, __ATOMIC_RELEASE);
    }
    UnlockTraceLatch(&g_CritTrace);
    CrashDeferLeave();
    return p;
}

void CLogManager::DestoryInstance()
{
    CLogManager* p = __atomic_load_n(&m_pSinstance, __ATOMIC_ACQUIRE);
    if (p == nullptr) return;
    // Threads first, while their lines still reach this object.
    p->StopTraceThreads(5);
    CrashDeferEnter();
    LockTraceLatch(&g_CritTrace);
    p = __atomic_exchange_n(&m_pSinstance, (CLogManager*)nullptr, __ATOMIC_SEQ_CST);
    UnlockTraceLatch(&g_CritTrace);
    CrashDeferLeave();
    if (p == nullptr) return;
    // A caller that read the old pointer was counted before it read it, in
    // the generation before this turn.
    int nOld = __atomic_fetch_xor(&g_nTraceGeneration, 1, __ATOMIC_SEQ_CST);
    long long* pUsers = &g_arTraceUsers[nOld & 1];
    for (int i = 0; i < TEARDOWN_WAIT_US / 100 && __atomic_load_n(pUsers, __ATOMIC_SEQ_CST) != 0; i++) usleep(100);
    if (__atomic_load_n(pUsers, __ATOMIC_SEQ_CST) != 0) {
        // Somebody is stuck inside the trace path: freeing would pull the
        // object from under it. Leaving it costs memory only.
        fprintf(stderr, "TalvorStorage: the log manager is left in memory: a trace call did not end\n");
        return;
    }
    delete p;
}

// The log directory is the database directory's "Log/"; the redo directory
// its "Redo/". A moved installation ("install" = 1) leaves both unset and
// the files go beside the executable.
BOOL CLogManager::Init()
{
    if (TalvorConfigGetValueInt("System", "install", 0) == 1) return TRUE;
    char szDefault[MAX_PATH + 16];
    TalvorDefaultDatabaseDir(szDefault, sizeof(szDefault));
    char szDbPath[MAX_PATH] = {0};
    TalvorConfigGetValueString("System", "databasepath", szDefault, szDbPath, sizeof(szDbPath));
    size_t nLen = strlen(szDbPath);
    const char* lpSep = (nLen > 0 && szDbPath[nLen - 1] == '/') ? "" : "/";
    char szDir[MAX_PATH + 8];
    snprintf(szDir, sizeof(szDir), "%s%sLog/", szDbPath, lpSep);
    if (!TalvorPathExists(szDir)) CreateDirectory(szDir, nullptr);
    char* lpTraceDir = strdup(szDir);
    snprintf(szDir, sizeof(szDir), "%s%sRedo/", szDbPath, lpSep);
    if (!TalvorPathExists(szDir)) CreateDirectory(szDir, nullptr);
    char* lpRedoDir = strdup(szDir);
    free(m_lpTraceDir);
    m_lpTraceDir = lpTraceDir;
    free(m_lpRedoDir);
    m_lpRedoDir = lpRedoDir;
    return TRUE;
}

BOOL CLogManager::WriteLog(LPCTSTR szFuncationName, LONG dwThreadID, UINT dwLevel, UINT dwErrorCode, LPCSTR szText)
{
    if (szText == nullptr || szText[0] == '\0') return FALSE;
    int nLen = (int)strnlen(szText, TRACE_TEXT_SIZE * 64);
    long long nCost = RecordCost(nLen);
    if (GetQueuedBytes() + nCost > m_nQueueLimit) {
        __atomic_add_fetch(&m_nDroppedLines, 1, __ATOMIC_RELAXED);
        return FALSE;
    }
    // The record and its text in one block: one allocation to make, one to
    // free on the writer's side.
    LPTALVORTRACE pRecord = (LPTALVORTRACE)malloc(sizeof(TALVORTRACE) + (size_t)nLen + 1);
    if (pRecord == nullptr) return FALSE;
    memset((void*)pRecord, 0, sizeof(TALVORTRACE));
    if (dwThreadID == 0) dwThreadID = (LONG)CachedThreadId();
    FormatTitle(pRecord->m_lpTitle, dwThreadID, dwLevel, dwErrorCode, szFuncationName);
    pRecord->m_nLen = nLen;
    pRecord->m_lpContent = (char*)(pRecord + 1);
    memcpy(pRecord->m_lpContent, szText, (size_t)nLen);
    pRecord->m_lpContent[nLen] = '\0';
    __atomic_add_fetch(&m_nQueuedBytes, nCost, __ATOMIC_RELAXED);

    LockTraceLatch(&m_critTrace);
    BOOL bWasEmpty = m_pTraceTail == nullptr;
    if (m_pTraceTail != nullptr)
        m_pTraceTail->m_pNext = pRecord;
    else
        __atomic_store_n(&m_pTraceHead, pRecord, __ATOMIC_RELAXED);
    m_pTraceTail = pRecord;
    UnlockTraceLatch(&m_critTrace);
    // One post a burst: the writer takes the whole queue when it wakes.
    if (bWasEmpty) WakeTraceWriter();
    return TRUE;
}

void CLogManager::WakeTraceWriter()
{
    if (m_bQueuedSemMade) sem_post(&m_semQueued);
}

void CLogManager::WaitForTraceWork(UINT nMs)
{
    if (!m_bQueuedSemMade) {
        usleep(nMs * 1000);
        return;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    long long nNanos = (long long)ts.tv_nsec + (long long)(nMs % 1000) * 1000000LL;
    ts.tv_sec += (time_t)(nMs / 1000) + (time_t)(nNanos / 1000000000LL);
    ts.tv_nsec = (long)(nNanos % 1000000000LL);
    while (sem_timedwait(&m_semQueued, &ts) != 0 && errno == EINTR) {
    }
    // Posts banked meanwhile are covered by the take that follows.
    while (sem_trywait(&m_semQueued) == 0) {
    }
}

// Takes every queued line at once: one hold of the latch for a burst. What
// a crashed writer had taken and not yet written comes first.
CLogManager::LPTALVORTRACE CLogManager::TakeTraceChain()
{
    // Only under the writer's latch: while a live writer is in the middle of
    // a chain the rest is its own, and a second taker would write (and free)
    // its lines again. A crashed writer gave the latch back at its cleanup.
    if (__atomic_load_n(&m_pWritingChain, __ATOMIC_ACQUIRE) != nullptr) {
        EnterCriticalTalvor(&m_critWrite, CachedThreadId());
        LPTALVORTRACE pLeft = __atomic_exchange_n(&m_pWritingChain, (LPTALVORTRACE) nullptr, __ATOMIC_ACQ_REL);
        LeaveCriticalTalvor(&m_critWrite);
        if (pLeft != nullptr) return pLeft;
    }
    if (__atomic_load_n(&m_pTraceHead, __ATOMIC_RELAXED) == nullptr) return nullptr;
    CrashDeferEnter();
    LockTraceLatch(&m_critTrace);
    LPTALVORTRACE pChain = m_pTraceHead;
    __atomic_store_n(&m_pTraceHead, (LPTALVORTRACE) nullptr, __ATOMIC_RELAXED);
    m_pTraceTail = nullptr;
    UnlockTraceLatch(&m_critTrace);
    CrashDeferLeave();
    return pChain;
}

void CLogManager::ReleaseRecord(LPTALVORTRACE pRecord)
{
    __atomic_sub_fetch(&m_nQueuedBytes, RecordCost(pRecord->m_nLen), __ATOMIC_RELAXED);
    free(pRecord);
}

int CLogManager::TraceFileMaxSize()
{
    int nMax = TRACE_FILE_DEFAULT_MAX_SIZE;
    LPSYSTEMFILEHEAD lpHead = __atomic_load_n(&m_pMemoryFileHead, __ATOMIC_ACQUIRE);
    if (lpHead != nullptr) nMax = lpHead->m_nWriteTraceMaxSize;
    // A head that gives no size would open a new file for every line.
    return nMax > 0 ? nMax : TRACE_FILE_DEFAULT_MAX_SIZE;
}

// What the queue could not keep, told in the file once there is room again.
void CLogManager::WriteQueueNotes()
{
    char szTitle[TRACE_TITLE_SIZE];
    char szText[512];
    UINT nDropped = __atomic_exchange_n(&m_nDroppedLines, 0u, __ATOMIC_RELAXED);
    if (nDropped != 0) {
        FormatTitle(szTitle, 0, 1, 20010011, "WriteTrace");
        snprintf(szText, sizeof(szText),
                 TALVOR_TEXT("日志队列已满(%lld字节)，丢弃了%u行日志", "The trace queue was full (%lld bytes): %u lines were dropped"),
                 m_nQueueLimit, nDropped);
        m_pFile->AppendText(szTitle);
        m_pFile->AppendText(szText);
        m_nWriteSize += (long long)(strlen(szTitle) + strlen(szText));
    }
    if (m_nLostLines != 0) {
        FormatTitle(szTitle, 0, 1, 20010012, "WriteTrace");
        snprintf(szText, sizeof(szText),
                 TALVOR_TEXT("无法打开日志文件，丢失了%u行日志", "%u trace lines were lost: no log file could be opened"),
                 m_nLostLines);
        m_pFile->AppendText(szTitle);
        m_pFile->AppendText(szText);
        m_nWriteSize += (long long)(strlen(szTitle) + strlen(szText));
        m_nLostLines = 0;
    }
}

// One line into the file; the caller holds m_critWrite.
void CLogManager::WriteTraceRecord(LPTALVORTRACE pRecord, int nWriteTraceMaxSize)
{
    if (m_pFile == nullptr) CheckLogFile();
    if (m_pFile == nullptr) {
        m_nLostLines++;
        return;
    }
    StoreFlag(&m_bInFileWrite, TRUE);
    if (m_nLostLines != 0 || __atomic_load_n(&m_nDroppedLines, __ATOMIC_RELAXED) != 0) WriteQueueNotes();
    size_t nTitle = strlen(pRecord->m_lpTitle);
    m_pFile->Append(pRecord->m_lpTitle, nTitle);
    m_pFile->Append(pRecord->m_lpContent, (size_t)pRecord->m_nLen);
    StoreFlag(&m_bInFileWrite, FALSE);
    m_nWriteSize += (long long)nTitle + pRecord->m_nLen;
    if (m_nWriteSize >= nWriteTraceMaxSize) {
        CTalvorAppendFile::Close(m_pFile);
        m_pFile = nullptr;
        m_nWriteSize = 0;
    }
}

void CLogManager::WriteTraceChain(LPTALVORTRACE pChain, int nWriteTraceMaxSize)
{
    EnterCriticalTalvor(&m_critWrite, CachedThreadId());
    while (pChain != nullptr) {
        LPTALVORTRACE pRecord = pChain;
        pChain = pRecord->m_pNext;
        // The rest stays where a restarted writer finds it; the line being
        // written at a crash is given up.
        __atomic_store_n(&m_pWritingChain, pChain, __ATOMIC_RELEASE);
        WriteTraceRecord(pRecord, nWriteTraceMaxSize);
        ReleaseRecord(pRecord);
    }
    // A burst is flushed once, at its end.
    if (m_pFile != nullptr && __atomic_load_n(&m_pTraceHead, __ATOMIC_RELAXED) == nullptr) m_pFile->Flush();
    LeaveCriticalTalvor(&m_critWrite);
}

BOOL CLogManager::WriteTrace()
{
    const int nWriteTraceMaxSize = TraceFileMaxSize();
    // After a quiet second the writer waits for a line to be queued (or a
    // stop) instead of looking every millisecond: an idle daemon then costs
    // next to nothing, and a line still reaches its file at once. The wait
    // is bounded, so a lost post costs a second at most.
    const int nQuietPollsBeforeNap = 1000;
    const UINT nQuietWaitMs = 1000;
    int nQuietPolls = 0;
    while (!LoadFlag(&m_bExit)) {
        LPTALVORTRACE pChain = TakeTraceChain();
        if (pChain == nullptr) {
            if (nQuietPolls < nQuietPollsBeforeNap) {
                usleep(1000);
                nQuietPolls++;
            } else {
                WaitForTraceWork(nQuietWaitMs);
            }
            continue;
        }
        nQuietPolls = 0;
        WriteTraceChain(pChain, nWriteTraceMaxSize);
    }
    return TRUE;
}

BOOL CLogManager::WriteAllTrace()
{
    const int nWriteTraceMaxSize = TraceFileMaxSize();
    LPTALVORTRACE pChain;
    while ((pChain = TakeTraceChain()) != nullptr) WriteTraceChain(pChain, nWriteTraceMaxSize);
    EnterCriticalTalvor(&m_critWrite, CachedThreadId());
    if (m_pFile != nullptr) m_pFile->Flush();
    LeaveCriticalTalvor(&m_critWrite);
    return TRUE;
}

BOOL CLogManager::CheckLogFile()
{
    if (m_pFile != nullptr) return TRUE;
    long long nNow = TalvorMonotonicMs();
    if (nNow < m_nNextOpenTryMs) return FALSE;
    char szDir[MAX_PATH + 8];
    if (m_lpTraceDir != nullptr)
        snprintf(szDir, sizeof(szDir), "%s", m_lpTraceDir);
    else
        TraceExecutableDir(szDir, sizeof(szDir));
    LogFileManage("TalvorStorage*");
    char szPath[MAX_PATH + 64];
    TraceBuildFileName(szDir, "TalvorStorage", szPath, sizeof(szPath));
    m_pFile = TraceOpenNewFile(szPath);
    if (m_pFile == nullptr) {
        // The log itself cannot carry this: say it where someone may see it,
        // once for each stretch of failures.
        if (!m_bOpenFailureTold)
            fprintf(stderr, "TalvorStorage: cannot write the trace file %s: %s\n", szPath, strerror(errno));
        m_bOpenFailureTold = TRUE;
        m_nNextOpenTryMs = nNow + OPEN_RETRY_MS;
        return FALSE;
    }
    m_bOpenFailureTold = FALSE;
    TraceWriteStorageHead(m_pFile);
    m_nWriteSize = 0;
    return TRUE;
}

// A crash abandons a file only when it struck inside a write: its buffer
// may then hold half a piece. What is buffered is dropped with it, the
// descriptor is closed. Otherwise the file goes on.
void CLogManager::AbandonFilesAfterCrash(BOOL bService)
{
    // The owner is written by whichever thread takes the latch.
    if (__atomic_load_n(&m_critWrite.m_nThreadID, __ATOMIC_RELAXED) == CachedThreadId())
        LeaveCriticalTalvor(&m_critWrite);
    if (!bService && LoadFlag(&m_bInFileWrite)) {
        CTalvorAppendFile::Abandon(m_pFile);
        m_pFile = nullptr;
        m_nWriteSize = 0;
        StoreFlag(&m_bInFileWrite, FALSE);
    }
    if (bService && LoadFlag(&m_bInServiceWrite)) {
        CTalvorAppendFile::Abandon(m_pServiceFile);
        m_pServiceFile = nullptr;
        m_nServiceWriteSize = 0;
        StoreFlag(&m_bInServiceWrite, FALSE);
    }
}

// The writer of the daemon's own lines, under crash containment.
void* CLogManager::WriteTraceThreadEx(LPVOID lpParam)
{
    CLogManager* pLog = (CLogManager*)lpParam;
    TalvorRunContained(
        WriteTraceThreadEx, lpParam, &pLog->m_hWriteTraceThreadEx,
        [](void* lpContext, LPTALVORCRITICALSECTION) {
            if (CrashTestFaultDue("tracewriter")) CrashTestFault();
            ((CLogManager*)lpContext)->WriteTrace();
        },
        [](void* lpContext) { ((CLogManager*)lpContext)->AbandonFilesAfterCrash(FALSE); }, pLog);
    return nullptr;
}

int CLogManager::StartTraceThreads(BOOL bWithRing)
{
    StoreFlag(&m_bExit, FALSE);
    int rc = 0;
    if (bWithRing && m_hWriteTraceThread == 0) {
        rc = CreateJoinableThread(&m_hWriteTraceThread, WriteTraceThread, this);
        if (rc != 0) {
            m_hWriteTraceThread = 0;
            printf("SetSystemFileHead, 创建WriteTraceThread线程失败(%d)，错误码：%d\n", rc, errno);
            return rc;
        }
    }
    if (m_hWriteTraceThreadEx == 0) {
        rc = CreateJoinableThread(&m_hWriteTraceThreadEx, WriteTraceThreadEx, this);
        if (rc != 0) {
            m_hWriteTraceThreadEx = 0;
            printf("SetSystemFileHead, 创建WriteTraceThreadEx线程失败(%d)，错误码：%d\n", rc, errno);
            if (m_hWriteTraceThread != 0) {
                int rcCancel = pthread_cancel(m_hWriteTraceThread);
                if (rcCancel != 0)
                    printf("SetSystemFileHead, 取消WriteTraceThread线程失败(%d)，错误码：%d\n", rcCancel, errno);
                HTHREADTYPE arThreads[1] = {m_hWriteTraceThread};
                TalvorWaitForMultipleThread(1, arThreads, TRUE, 1000);
                m_hWriteTraceThread = 0;
            }
            return rc;
        }
    }
    return 0;
}

void CLogManager::StopTraceThreads(UINT nDeadlineSeconds)
{
    StoreFlag(&m_bExit, TRUE);
    WakeTraceWriter();
    if (m_hTraceEvent != nullptr) SetEvent(m_hTraceEvent);
    if (m_hWriteTraceThread == 0 && m_hWriteTraceThreadEx == 0 && m_hWriteLogThread == 0 && m_hArchiveLogThread == 0)
        return;
    // One common deadline for all of them.
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += nDeadlineSeconds;
    HTHREADTYPE* arThreads[] = {&m_hWriteTraceThread, &m_hWriteLogThread, &m_hArchiveLogThread, &m_hWriteTraceThreadEx};
    for (HTHREADTYPE* pThread : arThreads) {
        if (*pThread != 0) pthread_timedjoin_np(*pThread, nullptr, &ts);
        *pThread = 0;
    }
}

BOOL CLogManager::SetSystemFileHead(LPSYSTEMFILEHEAD lpMemoryFileHead, int nNodeType, CTalvorFlashback* pFlashback)
{
    if (lpMemoryFileHead != nullptr) {
        m_pMemoryFileHead = lpMemoryFileHead;
        if (m_lpRedoDir == nullptr && TalvorConfigGetValueInt("System", "install", 0) != 1) Init();
        if (!m_bEnvironmentReady && !InitLogEnvironment(pFlashback, lpMemoryFileHead->m_nTalvorBufferCacheSize))
            return FALSE;
        if (StartTraceThreads(TRUE) != 0) return FALSE;
        // The redo object and its two threads (LogManagerRedo.cpp).
        if (StartRedoService(nNodeType, pFlashback)) return TRUE;
        // No engine runs without its redo: the ring copier goes, and only
        // the writer of the daemon's own lines stays for the refusal.
        StopTraceThreads(REDO_FAILED_STOP_SECONDS);
        StartTraceThreads(FALSE);
        return FALSE;
    }
    StoreFlag(&m_bExit, TRUE);
    StoreFlag(&m_bLogExit, TRUE);
    if (m_hTraceEvent != nullptr) SetEvent(m_hTraceEvent);
    usleep(100000);
    StopTraceThreads(300);
    // The head goes with the system file; the last lines are measured
    // against the default size.
    m_pMemoryFileHead = nullptr;
    usleep(1000);
    return TRUE;
}

namespace {

// The sink of the trace front: the line joins the daemon's queue. Inside a
// deferral region, since the queue's latch must not be taken by a signal
// handler on top of itself.
void LogManagerTraceSink(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, LPCTSTR szLog)
{
    CrashDeferEnter();
    long long* pUsers = &g_arTraceUsers[__atomic_load_n(&g_nTraceGeneration, __ATOMIC_SEQ_CST) & 1];
    __atomic_add_fetch(pUsers, 1, __ATOMIC_SEQ_CST);
    CLogManager* pLog = CLogManager::GetInstancePtr();
    // Out of memory: the line is lost, the caller goes on.
    if (pLog != nullptr) pLog->WriteLog(szFuncationName, 0, (UINT)lLogLevel, (UINT)lLogErrorCode, szLog);
    __atomic_sub_fetch(pUsers, 1, __ATOMIC_SEQ_CST);
    CrashDeferLeave();
}

// Installed before main: tracing works from the first instruction on, and
// the singleton comes into being at the first line.
const bool g_bSinkInstalled =
    (TraceInstallSink(&LogManagerTraceSink), CrashInstallFaultHook(&TraceAbandonLatchAfterFault), true);

} // namespace

BOOL InitLogSystem()
{
    (void)g_bSinkInstalled;
    TraceInstallSink(&LogManagerTraceSink);
    CrashInstallFaultHook(&TraceAbandonLatchAfterFault);
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog == nullptr) return FALSE;
    pLog->Init();
    return TRUE;
}

void ExitLogSystem() { CLogManager::DestoryInstance(); }

void FlushLogSystem()
{
    // Torn down already (the full stop drains on its way out): nothing left.
    CLogManager* pLog = CLogManager::PeekInstancePtr();
    if (pLog != nullptr) pLog->WriteAllTrace();
}

BOOL StartLogSystemOwnLines()
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    return pLog != nullptr && pLog->StartTraceThreads(FALSE) == 0;
}

BOOL SetLogSystemFileHead(LPSYSTEMFILEHEAD lpMemoryFileHead, int nNodeType, CTalvorFlashback* pFlashback)
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog == nullptr) return FALSE;
    return pLog->SetSystemFileHead(lpMemoryFileHead, nNodeType, pFlashback);
}
