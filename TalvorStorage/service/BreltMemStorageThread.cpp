// BreltMemStorageThread.cpp — the storage thread: it polls its two command
// sources (the command record of the channel, m_bStorageCMD of the system
// head) and runs the periodic persistence pass.
//
// The poll is paced by a 1 ms wait on "Global\TalvorSysStorageEvent", which
// the engine may post to be served sooner; the daemon never posts it.
#include "BreltMemStorage.h"

#include "CrashContainment.h"
#include "TalvorTrace.h"
#include "TalvorFlashback.h"

#include <sys/time.h>
#include <unistd.h>

namespace {

const int DEFAULT_INTERVAL_SECONDS = 3;
const int MAX_INTERVAL_SECONDS = 300;
// A pass that found a block changing under it did not commit; it is tried
// again this soon, a bounded number of times, rather than a whole interval
// later, so that a busy engine does not hold the commit back for long.
const long long PENDING_RETRY_MICROS = 20000;
const int PENDING_QUICK_RETRIES = 50;
// An idle thread that woke 1000 times a second cost about 1% of a core. After
// this many empty polls it waits longer; a post of the storage event still
// ends the wait at once, and any work brings the 1 ms poll back.
const int IDLE_POLLS_BEFORE_BACKOFF = 1000;
const UINT IDLE_WAIT_MS = 10;

long long NowMicros()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (long long)tv.tv_sec * 1000000LL + tv.tv_usec;
}

} // namespace

int TalvorPersistenceIntervalSeconds(int nConfigured)
{
    return nConfigured >= 1 && nConfigured <= MAX_INTERVAL_SECONDS ? nConfigured : DEFAULT_INTERVAL_SECONDS;
}

namespace {

void StorageThreadBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    CBreltMemStorageModule* pModule = (CBreltMemStorageModule*)lpContext;
    if (CrashTestFaultDue("storage")) {
        // Faults holding a latch, so that a test sees it given back.
        CTalvorCriticalSectionPtr guard(&pModule->m_crit, lpCritSection);
        CrashTestFault();
    } else if (CrashTestAsked("storage")) {
        // Restarted: the latch the crash held can be taken again.
        CTalvorCriticalSectionPtr guard(&pModule->m_crit, lpCritSection);
        Trace0("TalvorStorageThread", 3, 10099001,
               TALVOR_TEXT("测试：存储线程重启后取得了m_crit", "test: the restarted storage thread took m_crit"));
    }
    pModule->ServeStorageCommands(lpCritSection);
}

// A pass abandoned by a fault gives the one-pass gate back.
void StorageThreadCleanup(void*) { TalvorReleaseSavePass(); }

} // namespace

void* CBreltMemStorageModule::TalvorStorageThread(void* lpParam)
{
    CBreltMemStorageModule* pModule = (CBreltMemStorageModule*)lpParam;
    TalvorRunContained(TalvorStorageThread, lpParam, &pModule->m_hTalvorStorageThread, StorageThreadBody,
                       StorageThreadCleanup, pModule);
    return nullptr;
}

void CBreltMemStorageModule::ServeStorageCommands(LPTALVORCRITICALSECTION lpCritSection)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr) {
        while (g_bEixt == 0) usleep(1000);
        return;
    }
    LPTALVORCOMMAND lpClusterCmd = m_pFlashback != nullptr ? m_pFlashback->GetClusterCommand() : nullptr;
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetTalvorProgress() : nullptr;
    UINT nRedoLogMaxID = lpHead->m_nRedoLogMaxID;
    long long liStart = NowMicros();
    long long liInterval = (long long)TalvorPersistenceIntervalSeconds(lpHead->m_nPersistenceIntervals) * 1000000LL;
    int nQuickRetries = 0;
    BOOL bPending = FALSE;
    int nIdlePolls = 0;

    while (g_bEixt == 0) {
        if (lpClusterCmd != nullptr) {
            if (lpClusterCmd->m_bCommandType != 0)
                ClusterCommand(lpCritSection, lpClusterCmd, lpProgress, nRedoLogMaxID);
            if (lpClusterCmd->m_bForbidSaveFlag == 1) {
                WaitForSingleObject(m_hStorageEvent, 1);
                continue;
            }
        }
        if (lpHead->m_bForbidSaveFlag == 1) {
            WaitForSingleObject(m_hStorageEvent, 1);
            continue;
        }
        BYTE bCommand = lpHead->m_bStorageCMD;
        if (bCommand == 1 || bCommand == 2 || bCommand == 3) nIdlePolls = 0;
        if (bCommand == 2) {
            int nPass = RunSavePass(lpCritSection, FALSE, 0, nRedoLogMaxID);
            if (nPass == SAVEPASS_FAILED)
                Trace("TalvorStorageThread", 1, 1001301,
                      TALVOR_TEXT("Talvor存储服务将内存修改保存到文件失败!",
                                  "Talvor storage service failed to save memory modification to file!"));
            bPending = nPass == SAVEPASS_PENDING;
            liStart = NowMicros();
            TalvorFlushCPU4Write();
            lpHead->m_bStorageCMD = 32;
            continue;
        }
        if (bCommand == 3) {
            FlushCacheFile(lpCritSection);
            TalvorFlushCPU4Write();
            lpHead->m_bStorageCMD = 32;
            continue;
        }
        if (bCommand == 1) {
            if (FAILED(FileCMD(lpCritSection)))
                Trace0("TalvorStorageThread", 1, 1001302,
                       TALVOR_TEXT("Talvor存储服务执行文件命令失败!", "Talvor storage service failed to execute file command!"));
            TalvorFlushCPU4Write();
            lpHead->m_bStorageCMD = 32;
            if (RunSavePass(lpCritSection, FALSE, 0, nRedoLogMaxID) == SAVEPASS_FAILED)
                Trace0("TalvorStorageThread", 1, 1001303,
                       TALVOR_TEXT("Talvor存储服务将内存修改保存到文件失败!",
                                   "Talvor storage service failed to save memory modification to file!"));
            liStart = NowMicros();
            continue;
        }
        long long liNow = NowMicros();
        if (liStart > liNow) liStart = liNow;  // the clock went back
        BOOL bQuick = bPending && nQuickRetries < PENDING_QUICK_RETRIES && liNow - liStart >= PENDING_RETRY_MICROS;
        if (liNow - liStart >= liInterval || bQuick) {
            liStart = liNow;
            int nPass = RunSavePass(lpCritSection, FALSE, 0, nRedoLogMaxID);
            if (nPass == SAVEPASS_FAILED)
                Trace0("TalvorStorageThread", 1, 1001304,
                       TALVOR_TEXT("Talvor存储服务将内存修改保存到文件失败!",
                                   "Talvor storage service failed to save memory modification to file!"));
            bPending = nPass == SAVEPASS_PENDING;
            nQuickRetries = bPending ? (bQuick ? nQuickRetries + 1 : 0) : 0;
        }
        UINT nWait = nIdlePolls >= IDLE_POLLS_BEFORE_BACKOFF && !bPending ? IDLE_WAIT_MS : 1;
        if (WaitForSingleObject(m_hStorageEvent, nWait) == 0 || (lpClusterCmd != nullptr && lpClusterCmd->m_bCommandType != 0))
            nIdlePolls = 0;
        else if (nIdlePolls < IDLE_POLLS_BEFORE_BACKOFF)
            nIdlePolls++;
    }
}

// File commands of the system file are a later part of the daemon: nothing
// is run and nothing fails.
HRESULT CBreltMemStorageModule::FileCMD(LPTALVORCRITICALSECTION) { return S_OK; }

HRESULT CBreltMemStorageModule::FlushCacheFile(LPTALVORCRITICALSECTION lpCritSection)
{
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
        if (p->m_pStorageFile == nullptr || !IsCacheFileType((BYTE)p->m_bFileType)) continue;
        // -1 means drained; the count only guards against a buffer that
        // never drains.
        for (int i = 0; i < 1000000 && p->m_pStorageFile->FlushBuffer(lpCritSection) != -1; i++) {
        }
    }
    return S_OK;
}

// Cluster and backup commands are a later part of the daemon. A command is
// answered at once with its final code, and with a failure result where the
// command has one, so that the engine waiting on it is not held up; the
// forbid flags are cleared as at the end of any cluster command.
HRESULT CBreltMemStorageModule::ClusterCommand(LPTALVORCRITICALSECTION, LPTALVORCOMMAND lpClusterCmd,
                                               LPTALVORPROGRESS, const UINT&)
{
    BYTE bCommand = lpClusterCmd->m_bCommandType;
    // 1 and 12 are the daemon's own values, waiting for the engine to read.
    if (bCommand == 0 || bCommand == 1 || bCommand == 12) return S_OK;
    static volatile int s_nTraced = 0;
    if (__atomic_exchange_n(&s_nTraced, 1, __ATOMIC_ACQ_REL) == 0)
        Trace("ClusterCommand", 1, 10060001,
              TALVOR_TEXT("集群命令(%d)尚不支持", "Cluster command (%d) is not supported yet"), (int)bCommand);
    BYTE bFinal = 0;
    switch (bCommand) {
    case 18: lpClusterCmd->m_bResult = 11; bFinal = 1; break;
    case 19: lpClusterCmd->m_bResult = 0; bFinal = 1; break;
    case 40:
    case 41: lpClusterCmd->m_bResult = 1; bFinal = 1; break;
    case 46: bFinal = 1; break;
    default: bFinal = 0; break;
    }
    lpClusterCmd->m_bForbidSaveFlag = 0;
    if (m_pMemoryFileHead != nullptr) m_pMemoryFileHead->m_bForbidSaveFlag = 0;
    TalvorFlushCPU4Write();
    lpClusterCmd->m_bCommandType = bFinal;
    return S_OK;
}
