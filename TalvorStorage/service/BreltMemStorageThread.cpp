// BreltMemStorageThread.cpp — the storage thread: it polls its two command
// sources (the command record of the channel, m_bStorageCMD of the system
// head) and runs the periodic persistence pass.
//
// The poll is paced by a 1 ms wait on "Global\TalvorSysStorageEvent", which
// the engine may post to be served sooner; the daemon never posts it.
#include "BreltMemStorage.h"

#include "CrashContainment.h"
#include "DbFileLayout.h"
#include "TalvorTrace.h"
#include "TalvorFlashback.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <semaphore.h>
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
// The poll: an engine that writes a command without posting the storage
// event is served at the next turn, so the wait bounds its latency. A busy
// thread waits 1 ms. An idle one, after a quiet second, waits 1.8 ms: each
// turn costs the same CPU (about 20 us of kernel time on a virtual
// machine), and 1000 turns a second alone came to more than 1% of a core,
// while 1.8 ms still keeps the first unposted command after a quiet spell
// within 2 ms. A post ends the wait at once, and any command brings the
// 1 ms turn back. Both goals are measured together in bench/IdleCost.sh.
const UINT POLL_WAIT_MS = 1;
const long IDLE_POLL_WAIT_US = 1800;
const int IDLE_POLLS_BEFORE_SLOWER = 1000;
// With no engine running nobody writes a command without posting the event
// (the engine writes them only while it runs, and a post still wakes the
// thread at once): the idle poll may then be ten times slower. An idle
// daemon between two runs of the engine costs next to nothing that way.
const long ENGINE_ABSENT_POLL_WAIT_US = 20000;

// A wait of nMicros on the storage event; TRUE when it was posted.
BOOL WaitStorageEventMicros(HEVENTTYPE hEvent, long nMicros)
{
    if (hEvent == nullptr) {
        usleep((useconds_t)nMicros);
        return FALSE;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    long long nNanos = (long long)ts.tv_nsec + (long long)nMicros * 1000LL;
    ts.tv_sec += (time_t)(nNanos / 1000000000LL);
    ts.tv_nsec = (long)(nNanos % 1000000000LL);
    while (sem_timedwait(hEvent, &ts) != 0) {
        if (errno != EINTR) return FALSE;
    }
    return TRUE;
}

long long WallClockMicros()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (long long)tv.tv_sec * 1000000LL + tv.tv_usec;
}

LPSTORAGECLOCK volatile g_pStorageClock = WallClockMicros;

long long NowMicros() { return g_pStorageClock(); }

} // namespace

void TalvorSetStorageClock(LPSTORAGECLOCK pClock) { g_pStorageClock = pClock != nullptr ? pClock : WallClockMicros; }

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

BOOL CBreltMemStorageModule::EngineRuns()
{
    return m_pFlashback != nullptr && m_pFlashback->GetServiceState() == SERVICESTATE_RUNNING;
}

void CBreltMemStorageModule::ServeStorageCommands(LPTALVORCRITICALSECTION lpCritSection)
{
    LPTALVORCOMMAND lpClusterCmd = m_pFlashback != nullptr ? m_pFlashback->GetClusterCommand() : nullptr;
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetTalvorProgress() : nullptr;
    if (m_pMemoryFileHead == nullptr && lpClusterCmd == nullptr) {
        while (TalvorLoadShared(&g_bEixt) == 0) usleep(1000);
        return;
    }
    LPSYSTEMFILEHEAD lpHead = nullptr;
    UINT nRedoLogMaxID = 0;
    long long liStart = NowMicros();
    long long liInterval = 0;
    int nQuickRetries = 0;
    BOOL bPending = FALSE;
    int nIdlePolls = 0;

    while (TalvorLoadShared(&g_bEixt) == 0) {
        if (lpClusterCmd != nullptr) {
            if (TalvorLoadShared(&lpClusterCmd->m_bCommandType) != 0)
                ClusterCommand(lpCritSection, lpClusterCmd, lpProgress, nRedoLogMaxID);
            if (TalvorLoadShared(&lpClusterCmd->m_bForbidSaveFlag) == 1) {
                WaitForSingleObject(m_hStorageEvent, POLL_WAIT_MS);
                continue;
            }
        }
        // A cluster command may take the database apart and build it again:
        // the head is the module's of this turn, and none means nothing to
        // save.
        if (m_pMemoryFileHead != lpHead) {
            lpHead = m_pMemoryFileHead;
            if (lpHead != nullptr) {
                nRedoLogMaxID = TalvorLoadShared(&lpHead->m_nRedoLogMaxID);
                liInterval = (long long)TalvorPersistenceIntervalSeconds(lpHead->m_nPersistenceIntervals) * 1000000LL;
                liStart = NowMicros();
                bPending = FALSE;
            }
        }
        if (lpHead == nullptr) {
            WaitForSingleObject(m_hStorageEvent, POLL_WAIT_MS);
            continue;
        }
        if (TalvorLoadShared(&lpHead->m_bForbidSaveFlag) == 1) {
            WaitForSingleObject(m_hStorageEvent, POLL_WAIT_MS);
            continue;
        }
        BYTE bCommand = TalvorLoadShared(&lpHead->m_bStorageCMD);
        if (bCommand == STORAGECMD_FILECMD || bCommand == STORAGECMD_SAVE || bCommand == STORAGECMD_FLUSHCACHE)
            nIdlePolls = 0;
        if (bCommand == 2) {
            int nPass = RunSavePass(lpCritSection, FALSE, 0, nRedoLogMaxID);
            if (nPass == SAVEPASS_FAILED)
                Trace("TalvorStorageThread", 1, 1001301,
                      TALVOR_TEXT("Talvor存储服务将内存修改保存到文件失败!",
                                  "Talvor storage service failed to save memory modification to file!"));
            bPending = nPass == SAVEPASS_PENDING;
            liStart = NowMicros();
            TalvorStoreShared(&lpHead->m_bStorageCMD, STORAGECMD_FINISHED);
            continue;
        }
        if (bCommand == 3) {
            FlushCacheFile(lpCritSection);
            TalvorStoreShared(&lpHead->m_bStorageCMD, STORAGECMD_FINISHED);
            continue;
        }
        if (bCommand == 1) {
            if (FAILED(FileCMD(lpCritSection)))
                Trace0("TalvorStorageThread", 1, 1001302,
                       TALVOR_TEXT("Talvor存储服务执行文件命令失败!", "Talvor storage service failed to execute file command!"));
            TalvorStoreShared(&lpHead->m_bStorageCMD, STORAGECMD_FINISHED);
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
        if (nIdlePolls < IDLE_POLLS_BEFORE_SLOWER || bPending) {
            if (WaitForSingleObject(m_hStorageEvent, POLL_WAIT_MS) != WAIT_OBJECT_0) nIdlePolls++;
            else nIdlePolls = 0;
        } else if (WaitStorageEventMicros(m_hStorageEvent, EngineRuns() ? IDLE_POLL_WAIT_US : ENGINE_ABSENT_POLL_WAIT_US)) {
            nIdlePolls = 0;
        }
        if (lpClusterCmd != nullptr && TalvorLoadShared(&lpClusterCmd->m_bCommandType) != 0) nIdlePolls = 0;
    }
}

HRESULT CBreltMemStorageModule::FileCMD(LPTALVORCRITICALSECTION lpCritSection)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr || m_lpSystemFileInfo == nullptr) return S_OK;
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(lpHead);
    if (lpObject->m_nID != SYSTEMFILE_FILELIST_OBJECTID) return S_OK;
    LPBYTE lpImage = m_lpSystemFileInfo->m_pFileAddr;
    long long nImageSize = m_lpSystemFileInfo->m_liFileSize;
    long long arFirst[2] = {lpObject->m_nFullBlockMapOffset, lpObject->m_nFreeBlockMapOffset};
    for (int nChain = 0; nChain < 2; nChain++) {
        HRESULT hr = S_OK;
        // The list comes from the engine's image: a chain or a block that
        // leaves it stops the walk like a block of the wrong kind.
        int nWalk = DbWalkMapChain(lpImage, nImageSize, arFirst[nChain], 0, nullptr,
                                   [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
                                       long long nBlock = lpEntry->m_nBlockOffset;
                                       if (!DbSystemBlockFits(lpImage, nImageSize, nBlock)) {
                                           hr = E_FAIL;
                                           return false;
                                       }
                                       hr = MemFileCMD(lpCritSection, (LPSYSTEMBLOCKHEAD)(lpImage + nBlock));
                                       return hr == S_OK;
                                   });
        if (nWalk == DBCHAIN_OK && hr == S_OK) continue;
        Trace0("FileCMD", 1, nChain == 0 ? 10050001 : 10050002,
               TALVOR_TEXT("加载系统文件中的内存文件数据失败", "Failed to load memory file data in system file"));
        return FAILED(hr) ? hr : E_FAIL;
    }
    return S_OK;
}

// MemFileCMD and the file commands live in BreltMemStorageFileCommand.cpp.

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
