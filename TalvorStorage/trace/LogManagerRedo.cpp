// LogManagerRedo.cpp — the redo service of the log manager: the redo object,
// its writer and archiver threads under crash containment, and the cluster
// road that takes the redo log away and brings it back.
//
// The writer is the only consumer of the redo ring and runs at real-time
// priority where the system permits it. No thread may outlive the redo
// object: both entries count themselves in it, and it is freed only when
// the count is back to 0.
#include "LogManager.h"

#include "CrashContainment.h"
#include "ConfigHelper.h"
#include "TalvorRedoLog.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace {

const int WRITER_RT_PRIORITY = 80;
const int RELEASE_WAIT_MS = 5000;
const int CLEAR_JOIN_SECONDS = 30;

void EnterRedoObject(CTalvorRedoLog* pRedo) { __atomic_add_fetch(&pRedo->m_nThreadsInside, 1, __ATOMIC_SEQ_CST); }
void LeaveRedoObject(CTalvorRedoLog* pRedo) { __atomic_sub_fetch(&pRedo->m_nThreadsInside, 1, __ATOMIC_SEQ_CST); }

void JoinBefore(HTHREADTYPE& hThread, const struct timespec& ts)
{
    if (hThread != 0) pthread_timedjoin_np(hThread, nullptr, &ts);
    hThread = 0;
}

// What a redo thread's fault path needs; it lives in the entry's frame.
struct RedoThreadContext {
    CLogManager* m_pLog;
    CTalvorRedoLog* m_pRedo;
    // Files the archiver has open, so that a fault closes them.
    void* volatile m_hFile;
    void* volatile m_hSrcFile;
};

void WriterBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    ((RedoThreadContext*)lpContext)->m_pRedo->WriteLog(*lpCritSection);
}

void WriterCleanup(void* lpContext)
{
    RedoThreadContext* pCtx = (RedoThreadContext*)lpContext;
    // The engine is told that the ring can't be trusted; the restarted
    // writer opens a group only when data comes again.
    LPFILE_TRACEMEMFILEHEAD pHead = (LPFILE_TRACEMEMFILEHEAD)pCtx->m_pLog->m_pLogFileAddr;
    if (pHead != nullptr) {
        pHead->m_bReadException = REDOREAD_EXCEPTION;
        // The engine resets the ring: no rest of a cut record will come.
        pHead->m_nItemSize = 0;
        pHead->m_nReadPos = pHead->m_nFileHeaderSize;
    }
    usleep(32000);
    LeaveRedoObject(pCtx->m_pRedo);
}

void ArchiverBody(void* lpContext, LPTALVORCRITICALSECTION)
{
    RedoThreadContext* pCtx = (RedoThreadContext*)lpContext;
    pCtx->m_pRedo->ArchiveFile((void*&)pCtx->m_hFile, (void*&)pCtx->m_hSrcFile);
}

void ArchiverCleanup(void* lpContext)
{
    RedoThreadContext* pCtx = (RedoThreadContext*)lpContext;
    void* h = pCtx->m_hFile;
    Talvor_CloseFile(h);
    h = pCtx->m_hSrcFile;
    Talvor_CloseFile(h);
    usleep(32000);
    LeaveRedoObject(pCtx->m_pRedo);
}

} // namespace

// The writer asks for real-time priority itself, so that a writer started
// again after a crash has it too. Refused, it runs as an ordinary thread and
// says so once.
static void RaiseWriterPriority()
{
    static int s_nTold = 0;
    struct sched_param stParam;
    memset(&stParam, 0, sizeof(stParam));
    stParam.sched_priority = WRITER_RT_PRIORITY;
    int rc = pthread_setschedparam(pthread_self(), SCHED_FIFO, &stParam);
    if (rc != 0 && __atomic_exchange_n(&s_nTold, 1, __ATOMIC_ACQ_REL) == 0)
        Trace("StartTalvorLog", 3, 20030009,
              TALVOR_TEXT("Redo日志写入线程无法使用实时优先级(%d)，按普通线程运行",
                          "The redo log writer cannot have real-time priority (%d): it runs as an ordinary thread"),
              rc);
}

void* CLogManager::WriteLogThread(LPVOID lpParam)
{
    CLogManager* pLog = (CLogManager*)lpParam;
    RaiseWriterPriority();
    usleep(100000);
    RedoThreadContext stCtx = {pLog, pLog->m_pTalvorRedoLog, nullptr, nullptr};
    if (stCtx.m_pRedo == nullptr) return nullptr;
    EnterRedoObject(stCtx.m_pRedo);
    TalvorRunContained(WriteLogThread, lpParam, &pLog->m_hWriteLogThread, WriterBody, WriterCleanup, &stCtx);
    LeaveRedoObject(stCtx.m_pRedo);
    return nullptr;
}

void* CLogManager::ArchiveLogThread(LPVOID lpParam)
{
    CLogManager* pLog = (CLogManager*)lpParam;
    usleep(100000);
    RedoThreadContext stCtx = {pLog, pLog->m_pTalvorRedoLog, nullptr, nullptr};
    if (stCtx.m_pRedo == nullptr) return nullptr;
    EnterRedoObject(stCtx.m_pRedo);
    TalvorRunContained(ArchiveLogThread, lpParam, &pLog->m_hArchiveLogThread, ArchiverBody, ArchiverCleanup, &stCtx);
    LeaveRedoObject(stCtx.m_pRedo);
    return nullptr;
}

// The redo object (made once), its groups, then its two threads; the writer
// at real-time priority where permitted.
BOOL CLogManager::StartRedoService(int nClusterNodeType, CTalvorFlashback* pFlashback)
{
    if (m_pMemoryFileHead == nullptr || m_pLogFileAddr == nullptr) return FALSE;
    // Already running: a second start changes nothing.
    if (m_hWriteLogThread != 0 && m_pTalvorRedoLog != nullptr) return TRUE;
    if (m_lpRedoDir == nullptr) {
        char szDir[MAX_PATH + 8];
        TraceExecutableDir(szDir, sizeof(szDir));
        strncat(szDir, "Redo/", sizeof(szDir) - strlen(szDir) - 1);
        if (!TalvorPathExists(szDir)) CreateDirectory(szDir, nullptr);
        m_lpRedoDir = strdup(szDir);
        if (m_lpRedoDir == nullptr) return FALSE;
    }
    if (m_pTalvorRedoLog == nullptr) {
        m_pTalvorRedoLog = new (std::nothrow) CTalvorRedoLog();
        if (m_pTalvorRedoLog == nullptr) return FALSE;
    }
    __atomic_store_n(&m_bLogExit, FALSE, __ATOMIC_RELEASE);
    m_pTalvorRedoLog->SetRingSize(m_nLogFileSize);
    if (!m_pTalvorRedoLog->Init(m_pMemoryFileHead, nClusterNodeType, (BOOL*)&m_bLogExit, m_lpRedoDir,
                                (char*)m_pLogFileAddr, m_hLogEvent, m_hLogEmptyEvent, FALSE, pFlashback))
        return FALSE;
    int rc = CreateJoinableThread(&m_hWriteLogThread, WriteLogThread, this);
    if (rc != 0) {
        m_hWriteLogThread = 0;
        printf("SetSystemFileHead, 创建WriteLogThread线程失败(%d)，错误码：%d\n", rc, errno);
        return FALSE;
    }
    rc = CreateJoinableThread(&m_hArchiveLogThread, ArchiveLogThread, this);
    if (rc != 0) {
        m_hArchiveLogThread = 0;
        printf("SetSystemFileHead, 创建ArchiveLogThread线程失败(%d)，错误码：%d\n", rc, errno);
        int rcCancel = pthread_cancel(m_hWriteLogThread);
        if (rcCancel != 0) printf("SetSystemFileHead, 取消WriteLogThread线程失败(%d)，错误码：%d\n", rcCancel, errno);
        HTHREADTYPE arThreads[1] = {m_hWriteLogThread};
        TalvorWaitForMultipleThread(1, arThreads, TRUE, 1000);
        m_hWriteLogThread = 0;
        return FALSE;
    }
    return TRUE;
}

void CLogManager::ReleaseRedoService()
{
    CTalvorRedoLog* pRedo = m_pTalvorRedoLog;
    if (pRedo == nullptr) return;
    for (int i = 0; i < RELEASE_WAIT_MS && __atomic_load_n(&pRedo->m_nThreadsInside, __ATOMIC_SEQ_CST) != 0; i++)
        usleep(1000);
    if (__atomic_load_n(&pRedo->m_nThreadsInside, __ATOMIC_SEQ_CST) != 0) {
        // Freeing it would pull the object from under a running thread.
        fprintf(stderr, "TalvorStorage: the redo log object is left in memory: a redo thread did not end\n");
        return;
    }
    m_pTalvorRedoLog = nullptr;
    delete pRedo;
}

BOOL CLogManager::OpenRings(LPSYSTEMFILEHEAD lpMemoryFileHead, CTalvorFlashback* pFlashback)
{
    m_pMemoryFileHead = lpMemoryFileHead;
    if (m_lpRedoDir == nullptr && TalvorConfigGetValueInt("System", "install", 0) != 1) Init();
    if (!m_bEnvironmentReady && !InitLogEnvironment(pFlashback, lpMemoryFileHead->m_nTalvorBufferCacheSize))
        return FALSE;
    return StartTraceThreads(TRUE) == 0;
}

BOOL CLogManager::StartTalvorLog(LPSYSTEMFILEHEAD lpMemoryFileHead, int nClusterNodeType, BOOL bRecover,
                                 CTalvorFlashback* pFlashback)
{
    m_pMemoryFileHead = lpMemoryFileHead;
    __atomic_store_n(&m_bLogExit, FALSE, __ATOMIC_RELEASE);
    if (m_pLogFileAddr == nullptr || lpMemoryFileHead == nullptr) return FALSE;
    // A redo object still held by a thread that outlived its stop stays.
    if (m_pTalvorRedoLog != nullptr) ReleaseRedoService();
    if (m_pTalvorRedoLog != nullptr) return FALSE;
    m_pTalvorRedoLog = new (std::nothrow) CTalvorRedoLog();
    if (m_pTalvorRedoLog == nullptr) return FALSE;
    m_pTalvorRedoLog->SetRingSize(m_nLogFileSize);
    if (!m_pTalvorRedoLog->Init(lpMemoryFileHead, nClusterNodeType, (BOOL*)&m_bLogExit, m_lpRedoDir,
                                (char*)m_pLogFileAddr, m_hLogEvent, m_hLogEmptyEvent, bRecover, pFlashback)) {
        Trace0("StartTalvorLog", 3, 20030001,
               TALVOR_TEXT("初始化Redo日志数据失败！", "Failed to initialize the redo log data!"));
        return FALSE;
    }
    int rc = CreateJoinableThread(&m_hWriteLogThread, WriteLogThread, this);
    if (rc != 0) {
        m_hWriteLogThread = 0;
        Trace("StartTalvorLog", 1, 20030005,
              TALVOR_TEXT("WriteLogThread线程创建失败(%d)，错误码：%d", "WriteLogThread thread creation failed (%d), error code: %d"),
              rc, errno);
        return FALSE;
    }
    rc = CreateJoinableThread(&m_hArchiveLogThread, ArchiveLogThread, this);
    if (rc != 0) {
        m_hArchiveLogThread = 0;
        Trace("StartTalvorLog", 1, 20030006,
              TALVOR_TEXT("创建ArchiveLogThread线程失败(%d)，错误码：%d", "Failed to create ArchiveLogThread thread (%d), error code: %d"),
              rc, errno);
        int rcCancel = pthread_cancel(m_hWriteLogThread);
        if (rcCancel != 0)
            Trace("StartTalvorLog", 1, 20030007,
                  TALVOR_TEXT("创建ArchiveLogThread线程失败后停止线程失败(%d)，错误码：%d",
                              "Stop after the creation ArchiveLogThread thread fails, Thread failure (%d), error code: %d"),
                  rcCancel, errno);
        HTHREADTYPE arThreads[1] = {m_hWriteLogThread};
        TalvorWaitForMultipleThread(1, arThreads, TRUE, 1000);
        m_hWriteLogThread = 0;
        return FALSE;
    }
    usleep(1000);
    Trace0("StartTalvorLog", 3, 20030000, TALVOR_TEXT("Redo日志线程已启动！", "Redo Log Thread Started!"));
    return TRUE;
}

void CLogManager::ClearTalvorLog()
{
    __atomic_store_n(&m_bLogExit, TRUE, __ATOMIC_RELEASE);
    // The writer may sleep a whole delay (a second by default) before it
    // sees the stop; woken, it drains the ring and ends at once.
    if (m_hLogEvent != nullptr && m_hWriteLogThread != 0) SetEvent(m_hLogEvent);
    usleep(100000);
    if (m_hWriteLogThread != 0) {
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        ts.tv_sec += CLEAR_JOIN_SECONDS;
        JoinBefore(m_hWriteLogThread, ts);
        JoinBefore(m_hArchiveLogThread, ts);
    }
    m_hWriteLogThread = 0;
    m_hArchiveLogThread = 0;
    ReleaseRedoService();
    // The database goes away after this: the trace writer stops reading
    // its head (the rollover size) before the image is released.
    __atomic_store_n(&m_pMemoryFileHead, (LPSYSTEMFILEHEAD) nullptr, __ATOMIC_RELEASE);
    Trace0("ClearTalvorLog", 3, 20020000, TALVOR_TEXT("Redo日志线程已关闭！", "Redo Log Thread Closed!"));
}

BOOL SysOpenTalvorLogRings(LPSYSTEMFILEHEAD lpMemoryFileHead, CTalvorFlashback* pFlashback)
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog == nullptr || lpMemoryFileHead == nullptr) return FALSE;
    return pLog->OpenRings(lpMemoryFileHead, pFlashback);
}

BOOL SysStartTalvorLog(LPSYSTEMFILEHEAD lpMemoryFileHead, int nClusterNodeType, BOOL bRecover,
                       CTalvorFlashback* pFlashback)
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog == nullptr) return FALSE;
    return pLog->StartTalvorLog(lpMemoryFileHead, nClusterNodeType, bRecover, pFlashback);
}

void SysClearTalvorLog()
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog != nullptr) pLog->ClearTalvorLog();
}
