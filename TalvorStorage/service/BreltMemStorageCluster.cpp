// BreltMemStorageCluster.cpp — the cluster commands the engine writes into
// the command record: adding nodes and standby connections, backups, and
// the two halves of taking the database apart and building it again.
//
// All of it runs on the storage thread, which serves nothing else while a
// command runs. Every command but a refused 10 ends with its final code, so
// the engine never waits on one that failed.
#include "BreltMemStorage.h"

#include "BackupChainCheck.h"
#include "LogManager.h"
#include "StorageCacheBridge.h"
#include "TalvorCacheStorage.h"
#include "TalvorFlashback.h"
#include "TalvorRestoreMark.h"
#include "TalvorStandby.h"
#include "TalvorTrace.h"
#include "ConfigHelper.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <time.h>
#include <unistd.h>

namespace {

const int STANDBY_SLOTS = 256;
// The cache's threads let go of the files before they are removed.
const useconds_t CACHE_FREE_WAIT_US = 100000;
// The archive destination list a restore reads its chain from.
const int RESTORE_PATH_SIZE = 512;
static_assert(sizeof(((LPSYSTEMFILEHEAD)nullptr)->m_lpArchiveDesPath) == RESTORE_PATH_SIZE, "archive path size");

// A refused command 10 stays and is met again at every turn: one line for
// the whole stretch.
volatile BYTE g_bForbidRefusalTraced = 0;

void TraceSaveFailure(LONG nCode)
{
    Trace0("ClusterCommand", 1, nCode,
           TALVOR_TEXT("Talvor存储服务将内存修改保存到文件失败!",
                       "Talvor storage service failed to save memory modification to file!"));
}

} // namespace

void CBreltMemStorageModule::SaveForCommand(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                            UINT& nRedoLogMaxID, LONG nCode)
{
    if (m_pMemoryFileHead == nullptr) return;
    if (FAILED(SaveChange2File(lpCritSection, FALSE, nTimestamp, nRedoLogMaxID))) TraceSaveFailure(nCode);
}

void CBreltMemStorageModule::ClearForbidFlags(LPTALVORCOMMAND lpClusterCmd)
{
    if (m_pMemoryFileHead != nullptr) TalvorStoreShared(&m_pMemoryFileHead->m_bForbidSaveFlag, 0);
    TalvorStoreShared(&lpClusterCmd->m_bForbidSaveFlag, 0);
}

HRESULT CBreltMemStorageModule::ClusterCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                                               LPTALVORPROGRESS lpTalvorProgress, const UINT& nRedoLogMaxID)
{
    BYTE bCommand = TalvorLoadShared(&lpClusterCmd->m_bCommandType);
    if (bCommand != CLUSTERCMD_ADDNODE_FROMLOG) g_bForbidRefusalTraced = 0;
    UINT nMaxID = nRedoLogMaxID;
    switch (bCommand) {
    case CLUSTERCMD_ADDNODE_FROMLOG:
        if (TalvorLoadShared(&lpClusterCmd->m_bForbidSaveFlag) == 1) {
            if (!g_bForbidRefusalTraced)
                Trace0("ClusterCommand", 1, 10012010,
                       TALVOR_TEXT("Talvor存储服务当前状态不允许添加备用处理服务!",
                                   "Current status of talvor storage service does not allow adding standby processing service!"));
            g_bForbidRefusalTraced = 1;
            return E_FAIL;
        }
        g_bForbidRefusalTraced = 0;
        AddNode(lpCritSection, lpClusterCmd, lpTalvorProgress, nMaxID, TRUE);
        return S_OK;
    case CLUSTERCMD_ADDNODE:
        AddNode(lpCritSection, lpClusterCmd, lpTalvorProgress, nMaxID, FALSE);
        return S_OK;
    case CLUSTERCMD_FULLBACKUP:
    case CLUSTERCMD_INCREMENTBACKUP:
        RunBackupCommand(lpCritSection, lpClusterCmd, lpTalvorProgress, nMaxID, bCommand);
        return S_OK;
    case CLUSTERCMD_CLEARRESOURCE: {
        if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nStatus = PROGRESS_RUNNING;
        TalvorStoreShared(&lpClusterCmd->m_bForbidSaveFlag, 1);
        usleep(1000);
        UINT nLogMaxID = nMaxID;
        USHORT usGuid = 0;
        ClearResource(lpCritSection, nLogMaxID, usGuid);
        m_nClearedRedoLogMaxID = nLogMaxID;
        usleep(1000);
        // The flag stays up: nothing released is touched until a rebuild.
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_NONE);
        return S_OK;
    }
    case CLUSTERCMD_REBUILDRESOURCE:
        RebuildCommand(lpCritSection, nMaxID);
        // A failed rebuild leaves no head, and no flag of a head that is
        // gone is cleared: the command's own stays up with it.
        if (m_pMemoryFileHead != nullptr) ClearForbidFlags(lpClusterCmd);
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_NONE);
        return S_OK;
    case CLUSTERCMD_RESTORE:
        RestoreCommand(lpCritSection, lpClusterCmd);
        return S_OK;
    case CLUSTERCMD_ADDSTANDBY:
        lpClusterCmd->m_bResult = AddStandby(lpCritSection, lpClusterCmd);
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_FINISHED);
        return S_OK;
    case CLUSTERCMD_REMOVESTANDBY:
        RemoveStandby(lpCritSection, lpClusterCmd->m_ulIP, lpClusterCmd->m_usPort);
        lpClusterCmd->m_bResult = CLUSTERRESULT_OK;
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_FINISHED);
        return S_OK;
    case CLUSTERCMD_WRITEUNDOCACHE:
        if (m_pFlashback != nullptr && m_pMemoryFileHead != nullptr) m_pFlashback->StartWriteUndoCache(lpCritSection, FALSE);
        lpClusterCmd->m_bResult = CLUSTERRESULT_OK;
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_NONE);
        return S_OK;
    case CLUSTERCMD_TESTSPEED:
        TestSpeedCommand(lpCritSection, lpClusterCmd);
        lpClusterCmd->m_bResult = CLUSTERRESULT_OK;
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_NONE);
        return S_OK;
    default:
        // 0, the daemon's own 1 and 12, and codes it does not know: left
        // for the engine to clear.
        return S_OK;
    }
}

void CBreltMemStorageModule::AddNode(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                                     LPTALVORPROGRESS lpTalvorProgress, UINT& nMaxID, BOOL bStandby)
{
    SaveForCommand(lpCritSection, lpClusterCmd->m_nTimestamp, nMaxID, bStandby ? 10012011 : 10012001);
    TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_RUNNING);
    FlushCacheFile(lpCritSection);
    int nAdded = ClusterAddNewNode(lpCritSection, lpTalvorProgress, lpClusterCmd->m_ulLocalIP, lpClusterCmd->m_ulIP,
                                   lpClusterCmd->m_usPort, lpClusterCmd->m_nTimestamp, bStandby, lpClusterCmd->m_nLogNo,
                                   bStandby ? lpClusterCmd->m_nLogPos : 0);
    if (nAdded < 0 && !bStandby) TraceSaveFailure(10012002);
    ClearForbidFlags(lpClusterCmd);
    TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_NONE);
    SaveForCommand(lpCritSection, 0, nMaxID, bStandby ? 10012013 : 10012003);
}

int CBreltMemStorageModule::ClusterAddNewNode(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                                              UINT ulLocalIP, UINT ulIP, USHORT usPort, long long nTimestamp,
                                              BOOL bStandby, UINT nLogNo, UINT nLogPos)
{
    // With the database taken apart there is nothing to copy.
    if (m_pMemoryFileHead == nullptr) {
        Trace0("ClusterAddNewNode", 1, 10012036,
               TALVOR_TEXT("数据库已被拆除,无法向新节点复制", "The database has been taken apart: there is nothing to copy to a joining node"));
        return -1;
    }
    int nResult = CTalvorClusterFiletransfer::ClusterAddNewNode(lpCritSection, this, lpTalvorProgress, ulLocalIP, ulIP,
                                                                usPort, nTimestamp, bStandby, nLogNo, nLogPos);
    return nResult == 0 ? 0 : -1;
}

void CBreltMemStorageModule::RunBackupCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                                              LPTALVORPROGRESS lpTalvorProgress, UINT& nMaxID, BYTE bCommand)
{
    BOOL bFull = bCommand == CLUSTERCMD_FULLBACKUP;
    BOOL bDone = FALSE;
    // With the database taken apart there is nothing to back up.
    if (m_pMemoryFileHead != nullptr) {
        SaveForCommand(lpCritSection, lpClusterCmd->m_nTimestamp, nMaxID, bFull ? 10012014 : 10012015);
        TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_RUNNING);
        FlushCacheFile(lpCritSection);
        char* lpPath = m_pMemoryFileHead->m_lpArchiveDesPath;
        int nPathSize = (int)sizeof(m_pMemoryFileHead->m_lpArchiveDesPath);
        if (bFull)
            bDone = BackupFull(lpCritSection, lpTalvorProgress, lpPath, nPathSize, lpClusterCmd->m_nTimestamp,
                               (int)lpClusterCmd->m_nLogNo, (int)lpClusterCmd->m_nLogPos, lpClusterCmd->m_ulLocalIP,
                               lpClusterCmd->m_bAbort);
        else
            bDone = BackupIncremental(lpCritSection, lpTalvorProgress, lpPath, nPathSize, lpClusterCmd->m_bLevel,
                                      lpClusterCmd->m_nTimestamp, lpClusterCmd->m_nTimestamp2,
                                      (int)lpClusterCmd->m_nLogNo, (int)lpClusterCmd->m_nLogPos,
                                      lpClusterCmd->m_ulLocalIP, lpClusterCmd->m_bAbort);
    } else {
        Trace0("ClusterCommand", 1, 10012032,
               TALVOR_TEXT("数据库已被拆除,无法备份", "The database has been taken apart: there is nothing to back up"));
    }
    lpClusterCmd->m_bResult = bDone ? CLUSTERRESULT_OK : CLUSTERRESULT_FAILED;
    ClearForbidFlags(lpClusterCmd);
    TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_FINISHED);
}

// A rebuild over a database that is up would load every file a second
// time: it is refused, and the database goes on as it is.
void CBreltMemStorageModule::RebuildCommand(LPTALVORCRITICALSECTION lpCritSection, UINT nMaxID)
{
    if (m_pMemoryFileHead != nullptr) {
        Trace0("ClusterCommand", 2, 10013005,
               TALVOR_TEXT("数据库正在运行,未拆除,无需重建", "The database is up and was not taken apart: nothing is rebuilt"));
        return;
    }
    RecoverResource(lpCritSection, FALSE, nMaxID > m_nClearedRedoLogMaxID ? nMaxID : m_nClearedRedoLogMaxID, 0);
}

// The chain a restore would rebuild from, checked whole while the running
// database still stands: the restore removes that database first, and a
// chain found unusable afterwards would leave the node with nothing.
BOOL CBreltMemStorageModule::RestoreChainUsable(char* lpArchiveDesPath, long long nTimestamp,
                                                const char* lpOwnSystemFile)
{
    BACKUPCHAIN stChain;
    if (!CheckBackupChain(lpArchiveDesPath, RESTORE_PATH_SIZE, nTimestamp, &stChain)) {
        Trace("ClusterCommand", 1, 10012033,
              TALVOR_TEXT("备份链[%lld]不可用,拒绝恢复,数据库保持不变",
                          "The backup chain [%lld] cannot be used: the restore is refused and the database is left as it is"),
              nTimestamp);
        return FALSE;
    }
    // The rebuild opens the system file this node is configured with: a
    // chain that restores another would leave it with none.
    if (strncmp(stChain.m_szSystemFile, lpOwnSystemFile, sizeof(stChain.m_szSystemFile)) != 0) {
        Trace("ClusterCommand", 1, 10012035,
              TALVOR_TEXT("备份链[%lld]恢复的系统文件[%s]不是本数据库的[%s],拒绝恢复,数据库保持不变",
                          "The backup chain [%lld] restores the system file [%s], not this database's [%s]: the restore is refused and the database is left as it is"),
              nTimestamp, stChain.m_szSystemFile, lpOwnSystemFile);
        return FALSE;
    }
    return TRUE;
}

namespace {

const char* RestoreMarkFault(int nRead)
{
    switch (nRead) {
    case RESTOREMARK_UNREADABLE: return TALVOR_TEXT("无法读取", "it cannot be read");
    case RESTOREMARK_WRONGSIZE: return TALVOR_TEXT("大小不对,可能不完整", "it is not of a mark's size, torn or no mark");
    default: return TALVOR_TEXT("标志或校验和不对", "its marks or its sum are wrong");
    }
}

} // namespace

void CBreltMemStorageModule::RestoreCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd)
{
    if (m_pMemoryFileHead == nullptr) {
        RestoreAgain(lpCritSection, lpClusterCmd);
    } else {
        long long nTimestamp = lpClusterCmd->m_nTimestamp;
        char* lpPath = (char*)malloc(RESTORE_PATH_SIZE);
        if (lpPath == nullptr) {
            Trace("ClusterCommand", 1, 10012042,
                  TALVOR_TEXT("内存不足,拒绝恢复,时间戳:%lld", "No memory is left: the restore is refused, timestamp: %lld"),
                  nTimestamp);
        } else {
            memcpy(lpPath, m_pMemoryFileHead->m_lpArchiveDesPath, RESTORE_PATH_SIZE);
            const char* lpOwn = m_lpSystemFileInfo != nullptr ? m_lpSystemFileInfo->m_lpszFilePath : "";
            if (RestoreChainUsable(lpPath, nTimestamp, lpOwn))
                RunRestore(lpCritSection, lpClusterCmd, lpPath, nTimestamp);
            free(lpPath);
        }
    }
    if (m_pMemoryFileHead != nullptr) ClearForbidFlags(lpClusterCmd);
    TalvorStoreShared(&lpClusterCmd->m_bCommandType, CLUSTERCMD_FINISHED);
}

void CBreltMemStorageModule::RunRestore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                                        char* lpPath, long long nTimestamp)
{
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetProgress() : nullptr;
    if (lpProgress != nullptr) lpProgress->m_nStatus = PROGRESS_RUNNING;
    TalvorStoreShared(&lpClusterCmd->m_bForbidSaveFlag, 1);
    usleep(1000);
    UINT nLogMaxID = 0;
    USHORT usDBGuid = 0;
    const long long nStartMs = TalvorMonotonicMs();
    ClearResource(lpCritSection, nLogMaxID, usDBGuid);
    usleep(1000);
    const long long nClearedMs = TalvorMonotonicMs();
    BOOL bRestored =
        RecoverIncrement(lpCritSection, lpProgress, lpPath, RESTORE_PATH_SIZE, nTimestamp, nLogMaxID, usDBGuid);
    const long long nRestoredMs = TalvorMonotonicMs();
    BOOL bBack = RecoverResource(lpCritSection, TRUE, nLogMaxID, usDBGuid);
    // Where an operator's wait went: only the middle stage is the copy.
    Trace("ClusterCommand", 3, 10012037,
          TALVOR_TEXT("恢复到%lld结束(文件:%d,服务:%d):拆除数据库%lld毫秒,恢复文件%lld毫秒,重建服务%lld毫秒",
                      "Restore to %lld ended (files: %d, service: %d): taking the database apart %lld ms, restoring the files %lld ms, bringing it back %lld ms"),
          nTimestamp, bRestored, bBack, nClearedMs - nStartMs, nRestoredMs - nClearedMs, TalvorMonotonicMs() - nRestoredMs);
}

// The database that named the archive was taken apart by the restore that
// failed, so the mark it left is the only record of where the chain lies.
// A mark that cannot be trusted whole is no ground to write on: without it
// the node stays down rather than start on a mixture.
void CBreltMemStorageModule::RestoreAgain(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd)
{
    long long nTimestamp = lpClusterCmd->m_nTimestamp;
    // The path the rebuild will open, as it reads it.
    TalvorConfigInit(m_cConfigPath);
    char szSystemFile[MAX_PATH] = {0};
    char szMemName[sizeof(((stu_FILEINFO*)nullptr)->m_lpszTablespaceName)] = {0};
    GetSystemFilePath(lpCritSection, szSystemFile, szMemName);
    TALVORRESTOREMARK stMark;
    int nRead = TalvorReadRestoreMark(szSystemFile, stMark);
    if (nRead == RESTOREMARK_ABSENT) {
        Trace("ClusterCommand", 1, 10012034,
              TALVOR_TEXT("没有打开的数据库,也没有未完成的恢复的标记,拒绝恢复,时间戳:%lld",
                          "No database is open and no restore that did not finish is marked: the restore is refused, timestamp: %lld"),
              nTimestamp);
        return;
    }
    if (nRead != RESTOREMARK_READ) {
        Trace("ClusterCommand", 1, 10012038,
              TALVOR_TEXT("未完成的恢复留下的标记[%s.restoring]不可用(%s),拒绝恢复,未写入任何文件,时间戳:%lld",
                          "The mark [%s.restoring] of a restore that did not finish cannot be used (%s): the restore is refused and no file is written, timestamp: %lld"),
              szSystemFile, RestoreMarkFault(nRead), nTimestamp);
        return;
    }
    // The operator may ask another point than the failed run did (its
    // backup may be the cause): either way the chain asked now is restored
    // whole over no files.
    if (nTimestamp == 0) nTimestamp = stMark.m_nTimestamp;
    if (!RestoreChainUsable(stMark.m_lpArchiveDesPath, nTimestamp, szSystemFile)) return;
    Trace("ClusterCommand", 3, 10012039,
          TALVOR_TEXT("未完成的恢复(到%lld)重新执行,恢复到%lld,备份目录取自恢复标记",
                      "A restore (to %lld) that did not finish is run again, to %lld, from the archive its mark keeps"),
          stMark.m_nTimestamp, nTimestamp);
    // The restore removes every file of the chain asked before it writes.
    // Asked for another point, the failed run's chain may have made files
    // this one does not name: they go too, when that chain still reads (its
    // backup may be the very cause it does not); otherwise such a file
    // stays, named by no list the restored database has.
    if (nTimestamp != stMark.m_nTimestamp &&
        !RemoveChainFiles(stMark.m_lpArchiveDesPath, RESTORE_PATH_SIZE, stMark.m_nTimestamp))
        Trace("ClusterCommand", 1, 10012040,
              TALVOR_TEXT("未完成的恢复(到%lld)写入的文件未能全部删除,只有它写过的文件可能留下",
                          "Not every file the restore to %lld that did not finish wrote could be removed: a file only it wrote may stay"),
              stMark.m_nTimestamp);
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetProgress() : nullptr;
    if (lpProgress != nullptr) lpProgress->m_nStatus = PROGRESS_RUNNING;
    const long long nStartMs = TalvorMonotonicMs();
    BOOL bRestored = RecoverIncrement(lpCritSection, lpProgress, stMark.m_lpArchiveDesPath, RESTORE_PATH_SIZE,
                                      nTimestamp, stMark.m_nRedoLogMaxID, stMark.m_usDatabaseGuid);
    const long long nRestoredMs = TalvorMonotonicMs();
    BOOL bBack = RecoverResource(lpCritSection, TRUE, stMark.m_nRedoLogMaxID, stMark.m_usDatabaseGuid);
    Trace("ClusterCommand", 3, 10012041,
          TALVOR_TEXT("重新执行的恢复到%lld结束(文件:%d,服务:%d):恢复文件%lld毫秒,重建服务%lld毫秒",
                      "The restore run again to %lld ended (files: %d, service: %d): restoring the files %lld ms, bringing it back %lld ms"),
          nTimestamp, bRestored, bBack, nRestoredMs - nStartMs, TalvorMonotonicMs() - nRestoredMs);
}

void CBreltMemStorageModule::TestSpeedCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd)
{
    stu_FILEINFO* p = m_arFileInfo[lpClusterCmd->m_bFileNo];
    if (p == nullptr || p->m_pStorageFile == nullptr) return;
    p->m_pStorageFile->TestSpeed(lpCritSection, m_lpBuffer, (int)lpClusterCmd->m_nMethod,
                                 (int)lpClusterCmd->m_nBufferSize);
}

// --- Standby slots.
//
// A standby thread destroys its own object when it ends (ReleaseStandby), so
// the storage thread reaches a slot's object only under m_critStandby, and
// across a Reset, which waits for the thread, with a hold that keeps the
// object alive until it lets go.

namespace {

BOOL SameServer(CTalvorStandby* pStandby, UINT ulIP, USHORT usPort)
{
    UINT ulSlotIP = 0;
    USHORT usSlotPort = 0;
    pStandby->GetServerInfo(ulSlotIP, usSlotPort);
    return ulSlotIP == ulIP && usSlotPort == usPort;
}

} // namespace

CTalvorStandby* CBreltMemStorageModule::HoldStandby(int nSlot)
{
    CTalvorStandby* pStandby = m_arTalvorStandby[nSlot];
    if (pStandby != nullptr) pStandby->m_nSlotHolds++;
    return pStandby;
}

BOOL CBreltMemStorageModule::LetGoStandby(CTalvorStandby* pStandby)
{
    return --pStandby->m_nSlotHolds == 0 && pStandby->m_bHandedBack;
}

BOOL CBreltMemStorageModule::ResetStandbyOf(LPTALVORCRITICALSECTION lpCritSection, UINT ulIP, USHORT usPort)
{
    for (int i = 0; i < STANDBY_SLOTS; i++) {
        CTalvorCriticalSectionPtr latch(&m_critStandby, lpCritSection);
        CTalvorStandby* pStandby = m_arTalvorStandby[i];
        if (pStandby == nullptr || !SameServer(pStandby, ulIP, usPort)) continue;
        HoldStandby(i);
        latch.UnLock();
        // Up to 3.2 s of waiting for the thread, which may end meanwhile.
        BOOL bTaken = pStandby->Reset() == 0;
        CTalvorCriticalSectionPtr relatch(&m_critStandby, lpCritSection);
        BOOL bDestroy = LetGoStandby(pStandby);
        relatch.UnLock();
        if (bDestroy) delete pStandby;
        if (bTaken) return TRUE;
    }
    return FALSE;
}

int CBreltMemStorageModule::PutStandbyInSlot(LPTALVORCRITICALSECTION lpCritSection, CTalvorStandby* pStandby)
{
    CTalvorCriticalSectionPtr latch(&m_critStandby, lpCritSection);
    for (int i = 0; i < STANDBY_SLOTS; i++) {
        if (m_arTalvorStandby[i] != nullptr) continue;
        LPSTORAGEMEMHEAD lpChannel = m_pFlashback != nullptr ? m_pFlashback->GetStorageMemHead() : nullptr;
        if (lpChannel != nullptr) __atomic_add_fetch(&lpChannel->m_bStandbyThreads, 1, __ATOMIC_ACQ_REL);
        __atomic_store_n(&m_arTalvorStandby[i], pStandby, __ATOMIC_RELEASE);
        return i;
    }
    return -1;
}

int CBreltMemStorageModule::StandbySlotsTaken()
{
    CTalvorCriticalSectionPtr latch(&m_critStandby, nullptr);
    int nTaken = 0;
    for (int i = 0; i < STANDBY_SLOTS; i++) nTaken += m_arTalvorStandby[i] != nullptr;
    return nTaken;
}

BYTE CBreltMemStorageModule::AddStandby(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd)
{
    UINT ulIP = lpClusterCmd->m_ulIP;
    USHORT usPort = lpClusterCmd->m_usPort;
    if (ResetStandbyOf(lpCritSection, ulIP, usPort)) return CLUSTERRESULT_OK;
    // Only this thread fills slots: one free now is free when the new
    // object is put in it.
    if (StandbySlotsTaken() >= STANDBY_SLOTS) return CLUSTERRESULT_NOSTANDBYSLOT;
    CTalvorStandby* pStandby = new (std::nothrow) CTalvorStandby();
    if (pStandby == nullptr) return CLUSTERRESULT_OUTOFMEMORY;
    if (pStandby->Initialize(this, m_pMemoryFileHead, ulIP, usPort, lpClusterCmd->m_ulLocalIP,
                             lpClusterCmd->m_nLogNo) != STANDBYINIT_OK) {
        delete pStandby;
        return CLUSTERRESULT_STANDBYSETUPFAILED;
    }
    BYTE bResult = CLUSTERRESULT_OK;
    if (PutStandbyInSlot(lpCritSection, pStandby) < 0) {
        // Not reached while this thread alone fills slots; should it be, the
        // thread ends at once and, finding no slot, destroys its object.
        pStandby->Uninitialize();
        bResult = CLUSTERRESULT_NOSTANDBYSLOT;
    }
    pStandby->Publish();
    return bResult;
}

void CBreltMemStorageModule::RemoveStandby(LPTALVORCRITICALSECTION lpCritSection, UINT ulIP, USHORT usPort)
{
    CTalvorCriticalSectionPtr latch(&m_critStandby, lpCritSection);
    for (int i = 0; i < STANDBY_SLOTS; i++) {
        CTalvorStandby* pStandby = m_arTalvorStandby[i];
        if (pStandby != nullptr && SameServer(pStandby, ulIP, usPort)) pStandby->Uninitialize();
    }
}

void CBreltMemStorageModule::StopStandbys(LPTALVORCRITICALSECTION lpCritSection)
{
    CTalvorCriticalSectionPtr latch(&m_critStandby, lpCritSection);
    for (int i = 0; i < STANDBY_SLOTS; i++) {
        CTalvorStandby* pStandby = m_arTalvorStandby[i];
        if (pStandby != nullptr) pStandby->Uninitialize();
    }
    latch.UnLock();
    WaitForStandbySlots();
}

void CBreltMemStorageModule::ReleaseStandby(CTalvorStandby* pStandby)
{
    // Counted before the slot goes: whoever sees the slots empty and this
    // at 0 may destroy the module, latch and all.
    __atomic_add_fetch(&m_nStandbysLeaving, 1, __ATOMIC_ACQ_REL);
    // The thread's record is gone with the frames that held it.
    CTalvorCriticalSectionPtr latch(&m_critStandby, nullptr);
    for (int i = 0; i < STANDBY_SLOTS; i++) {
        if (m_arTalvorStandby[i] != pStandby) continue;
        LPSTORAGEMEMHEAD lpChannel = m_pFlashback != nullptr ? m_pFlashback->GetStorageMemHead() : nullptr;
        if (lpChannel != nullptr) __atomic_sub_fetch(&lpChannel->m_bStandbyThreads, 1, __ATOMIC_ACQ_REL);
        __atomic_store_n(&m_arTalvorStandby[i], (CTalvorStandby*)nullptr, __ATOMIC_RELEASE);
        break;
    }
    pStandby->m_bHandedBack = TRUE;
    BOOL bDestroy = pStandby->m_nSlotHolds == 0;
    latch.UnLock();
    if (bDestroy) delete pStandby;
    // The last touch of the module.
    __atomic_sub_fetch(&m_nStandbysLeaving, 1, __ATOMIC_ACQ_REL);
}

// --- Taking the database apart and building it again.

void CBreltMemStorageModule::ClearResource(LPTALVORCRITICALSECTION lpCritSection, UINT& nLogMaxID, USHORT& usDBGuid)
{
    memset(m_arFileInfo, 0, sizeof(m_arFileInfo));
    if (m_pTalvorCacheStorage != nullptr) {
        m_pTalvorCacheStorage->Free();
        usleep(CACHE_FREE_WAIT_US);
        delete m_pTalvorCacheStorage;
        m_pTalvorCacheStorage = nullptr;
        delete m_pCacheBridge;
        m_pCacheBridge = nullptr;
    }
    stu_FILEINFO* pInfo = m_pStorageInfo;
    m_pStorageInfo = nullptr;
    while (pInfo != nullptr) {
        stu_FILEINFO* pNext = pInfo->m_pNext;
        if (pInfo->m_pStorageFile != nullptr) pInfo->m_pStorageFile->Release();
        RemoveDatabaseFile(pInfo->m_lpszFilePath);
        free(pInfo);
        pInfo = pNext;
    }
    // The standby threads read the redo service: they end before it goes.
    StopStandbys(lpCritSection);
    SysClearTalvorLog();
    WaitForStandbySlots();
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead != nullptr) {
        nLogMaxID = lpHead->m_nRedoLogMaxID;
        usDBGuid = lpHead->m_usDatabaseGuid;
    }
    m_pMemoryFileHead = nullptr;
    usleep(1000);
    if (m_lpSystemFileInfo != nullptr) {
        char szSystemFile[sizeof(m_lpSystemFileInfo->m_lpszFilePath)];
        memcpy(szSystemFile, m_lpSystemFileInfo->m_lpszFilePath, sizeof(szSystemFile));
        ReleaseSystemFile();
        RemoveDatabaseFile(szSystemFile);
    }
    if (m_pFlashback != nullptr) m_pFlashback->UnInitRollback(1);
}

void CBreltMemStorageModule::RemoveDatabaseFile(const char* lpszPath)
{
    BOOL bRemoved = DeleteFile(lpszPath);
    Trace("ClearResource", bRemoved ? 3 : 1, bRemoved ? 10013010 : 10013011,
          bRemoved ? TALVOR_TEXT("已删除数据库文件:%s", "Removed the database file: %s")
                   : TALVOR_TEXT("删除数据库文件失败:%s", "Failed to remove the database file: %s"),
          lpszPath);
}

BOOL CBreltMemStorageModule::RecoverResource(LPTALVORCRITICALSECTION lpCritSection, BOOL bRecover, UINT nLogMaxID,
                                             USHORT usDBGuid)
{
    TalvorConfigInit(m_cConfigPath);
    if (FAILED(InitSysEnvironment(lpCritSection, FALSE, bRecover))) {
        Trace0("RecoverResource", 1, 10013001,
               TALVOR_TEXT("Talvor存储服务加载配置环境失败!", "Talvor storage service failed to load configuration environment!"));
        return AbandonRebuild();
    }
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (!bRecover) {
        if (nLogMaxID > lpHead->m_nRedoLogMaxID) lpHead->m_nRedoLogMaxID = nLogMaxID;
    } else if (lpHead->m_usDatabaseGuid == usDBGuid && nLogMaxID > lpHead->m_nRedoLogMaxID) {
        // A restored database of another identity keeps its own number; the
        // same one never goes back below a number its logs already used
        // (nor to the 0 of a restore that could not tell it).
        lpHead->m_nRedoLogMaxID = nLogMaxID;
    }
    // A daemon that started with no database has no rings yet.
    if (m_bRingsUnopened) {
        if (!SysOpenTalvorLogRings(lpHead, m_pFlashback)) return AbandonRebuild();
        m_bRingsUnopened = FALSE;
    }
    if (!SysStartTalvorLog(lpHead, m_nClusterNodeType, bRecover, m_pFlashback)) return AbandonRebuild();
    if (!m_pFlashback->InitRollback(lpCritSection, lpHead->m_nMemoryUndoSize)) return AbandonRebuild();
    if (FAILED(LoadFile(lpCritSection))) {
        Trace0("RecoverResource", 1, 10013002,
               TALVOR_TEXT("Talvor存储服务加载文件到内存失败!", "Talvor storage service failed to load the file into memory!"));
        return AbandonRebuild();
    }
    if (m_pTalvorCacheStorage != nullptr) {
        if (FAILED(m_pTalvorCacheStorage->CreateEventAndThread())) {
            Trace0("RecoverResource", 1, 10013003,
                   TALVOR_TEXT("Talvor存储服务创建命名事件和线程失败!",
                               "Talvor storage service failed to create named events and threads!"));
            return AbandonRebuild();
        }
        if (FAILED(m_pTalvorCacheStorage->InitCacheHead(lpCritSection))) {
            Trace0("RecoverResource", 1, 10013004,
                   TALVOR_TEXT("Talvor存储服务数据初始化失败!", "Talvor storage service data initialization failed!"));
            return AbandonRebuild();
        }
    }
    lpHead->m_bStatus = 0;
    Trace0("RecoverResource", 3, 10013000, TALVOR_TEXT("Talvor存储服务已重建!", "Talvor storage service rebuilt!"));
    return TRUE;
}

// A rebuild that failed half-way is let go again, files kept: the node is
// back where the clear left it, with no head, and a later rebuild starts
// from nothing.
BOOL CBreltMemStorageModule::AbandonRebuild()
{
    ReleaseCache();
    memset(m_arFileInfo, 0, sizeof(m_arFileInfo));
    ReleaseFileList();
    SysClearTalvorLog();
    ReleaseSystemFile();
    if (m_pFlashback != nullptr) m_pFlashback->UnInitRollback(0);
    Trace0("RecoverResource", 1, 10013006,
           TALVOR_TEXT("重建失败:数据库未打开,文件保留在磁盘上", "The rebuild failed: no database is open, and its files are left on disk"));
    return FALSE;
}
