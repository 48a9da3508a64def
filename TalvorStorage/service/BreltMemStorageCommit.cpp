// BreltMemStorageCommit.cpp — the persistence pass of the module over every
// memory-mode file, the commit of the persisted-up-to timestamp, and the
// writers of the shared cache's timestamps into the system file.
//
// Durability order: every file's pass syncs what it wrote before it
// returns, so that when the 80 dynamic bytes carrying m_nBeginTimestamp are
// written (and synced themselves: the system file is not opened O_SYNC),
// every block that timestamp covers is on the disk already.
#include "BreltMemStorage.h"

#include "LogManager.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"
#include "TalvorMemoryStorage.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <unistd.h>

namespace {

// The owner (kernel thread id) of the pass gate, 0 when free.
volatile UINT g_nSavePassOwner = 0;
// How long a pass waits for the one that runs (the main thread's last pass
// at stop waits for the storage thread's): 1 ms steps.
const int SAVEPASS_GATE_WAITS = 120000;
const long long DISK_WARNING_DEFAULT_MIB = 512;

template <class T>
void PutField(BYTE* lpPart, size_t nFieldOffset, T v)
{
    memcpy(lpPart + nFieldOffset - SYSTEMFILE_DYNAMIC_OFFSET, &v, sizeof(v));
}

// The dynamic part of the system head as written at a commit. The engine
// and the redo writer go on writing some of its fields (the command byte,
// the current group, the next log number, the end stamp): each of those is
// read whole, so that no torn number reaches the disk; the other bytes are
// this thread's own.
void SnapshotDynamicPart(const SYSTEMFILEHEAD* lpHead, BYTE* lpPart)
{
    const size_t nLiveFirst = offsetof(SYSTEMFILEHEAD, m_bStorageCMD);
    const size_t nLiveEnd = offsetof(SYSTEMFILEHEAD, m_nFreeBlockOffset);
    static_assert(
        offsetof(SYSTEMFILEHEAD, m_nEndTimestamp) + sizeof(long long) == offsetof(SYSTEMFILEHEAD, m_nFreeBlockOffset),
        "the written fields lie together");
    const BYTE* lpSrc = (const BYTE*)lpHead;
    memcpy(lpPart, lpSrc + SYSTEMFILE_DYNAMIC_OFFSET, nLiveFirst - SYSTEMFILE_DYNAMIC_OFFSET);
    PutField(lpPart, offsetof(SYSTEMFILEHEAD, m_bStorageCMD), TalvorLoadShared(&lpHead->m_bStorageCMD));
    PutField(lpPart, offsetof(SYSTEMFILEHEAD, m_bCurrentRedoGroup), TalvorLoadShared(&lpHead->m_bCurrentRedoGroup));
    PutField(lpPart, offsetof(SYSTEMFILEHEAD, m_nRedoLogMaxID), TalvorLoadShared(&lpHead->m_nRedoLogMaxID));
    PutField(lpPart, offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp), TalvorLoadShared(&lpHead->m_nBeginTimestamp));
    PutField(lpPart, offsetof(SYSTEMFILEHEAD, m_nEndTimestamp), TalvorLoadShared(&lpHead->m_nEndTimestamp));
    memcpy(lpPart + nLiveEnd - SYSTEMFILE_DYNAMIC_OFFSET, lpSrc + nLiveEnd,
           SYSTEMFILE_DYNAMIC_OFFSET + SYSTEMFILE_DYNAMIC_SIZE - nLiveEnd);
}

BOOL EnterSavePass()
{
    UINT nSelf = GetCurrentThreadId();
    for (int i = 0; i < SAVEPASS_GATE_WAITS; i++) {
        UINT nFree = 0;
        if (__atomic_compare_exchange_n(&g_nSavePassOwner, &nFree, nSelf, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            return TRUE;
        usleep(1000);
    }
    return FALSE;
}

void LeaveSavePass() { __atomic_store_n(&g_nSavePassOwner, 0, __ATOMIC_RELEASE); }

} // namespace

void TalvorReleaseSavePass()
{
    UINT nSelf = GetCurrentThreadId();
    __atomic_compare_exchange_n(&g_nSavePassOwner, &nSelf, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

HRESULT CBreltMemStorageModule::SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, BOOL bForce,
                                                long long nTimestamp, UINT& nRedoLogMaxID)
{
    return RunSavePass(lpCritSection, bForce, nTimestamp, nRedoLogMaxID) == SAVEPASS_FAILED ? E_FAIL : S_OK;
}

int CBreltMemStorageModule::RunSavePass(LPTALVORCRITICALSECTION lpCritSection, BOOL bForce, long long nTimestamp,
                                        UINT& nRedoLogMaxID)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr || m_lpBuffer == nullptr || m_lpHeadBuf == nullptr) return SAVEPASS_DONE;
    if (!EnterSavePass()) {
        Trace0("SaveChange2File", 1, 10110010,
               TALVOR_TEXT("上一次持久化仍在进行,本次持久化未执行", "The previous persistence pass is still running; this pass was not run"));
        return SAVEPASS_FAILED;
    }
    // The engine's end stamp is published after its changes: taken first.
    if (nTimestamp == 0) nTimestamp = TalvorLoadShared(&lpHead->m_nEndTimestamp);
    int nResult = 0;
    if (nTimestamp > lpHead->m_nBeginTimestamp || TalvorLoadShared(&lpHead->m_bSaveFlag) == 1 || bForce) {
        stu_FILEINFO* pSystem = m_lpSystemFileInfo;
        if (pSystem != nullptr && pSystem->m_pStorageFile != nullptr) {
            CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
            BOOL bFlashbackFlag = FALSE;
            nResult = pSystem->m_pStorageFile->SaveChange2File(lpCritSection, pSystem, nTimestamp,
                                                               lpHead->m_nBeginTimestamp, m_lpBuffer, m_lpHeadBuf,
                                                               bForce, bFlashbackFlag);
        }
        for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
            if (p == pSystem || p->m_pStorageFile == nullptr || IsCacheFileType((BYTE)p->m_bFileType)) continue;
            BOOL bFlashbackFlag = FALSE;
            int nFile = p->m_pStorageFile->SaveChange2File(lpCritSection, p, nTimestamp, lpHead->m_nBeginTimestamp,
                                                           m_lpBuffer, m_lpHeadBuf, bForce, bFlashbackFlag);
            // A refusal outweighs a file that only waits for a later pass.
            if (nFile != 0 && (nResult == 0 || nResult == SAVECHANGE_PENDING)) nResult = nFile;
            if (nFile != 0 || bFlashbackFlag) TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
        }
        if (nResult != 0) {
            LeaveSavePass();
            return nResult == SAVECHANGE_PENDING ? SAVEPASS_PENDING : SAVEPASS_FILEFAILED;
        }
    }
    HRESULT hr = CommitTimestamp(lpCritSection, nTimestamp, nRedoLogMaxID);
    LeaveSavePass();
    return FAILED(hr) ? SAVEPASS_FAILED : SAVEPASS_DONE;
}

HRESULT CBreltMemStorageModule::CommitTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                                UINT& nRedoLogMaxID)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    // The redo writer raises the log number while the pass runs.
    if (lpHead->m_nBeginTimestamp == nTimestamp && TalvorLoadShared(&lpHead->m_nRedoLogMaxID) == nRedoLogMaxID)
        return S_OK;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    long long nOld = lpHead->m_nBeginTimestamp;
    UINT nRedoLogID = TalvorLoadShared(&lpHead->m_nRedoLogMaxID);
    TalvorStoreShared(&lpHead->m_nBeginTimestamp, nTimestamp);
    const char* lpszPath = m_lpSystemFileInfo != nullptr ? m_lpSystemFileInfo->m_lpszFilePath : "";
    int fd = m_lpSystemFileInfo != nullptr ? Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile) : -1;
    if (fd < 0) {
        TalvorStoreShared(&lpHead->m_nBeginTimestamp, nOld);
        Trace("SaveChange2File", 1, 10110001,
              TALVOR_TEXT("设置物理文件位置失败,错误码:%d,路径:%s,位置:%lld",
                          "Failed to set physical file location, error code: %d, path: %s, location: %lld"),
              EBADF, lpszPath, (long long)SYSTEMFILE_DYNAMIC_OFFSET);
        return E_FAIL;
    }
    // A private copy: the engine goes on writing its fields of these bytes.
    BYTE arDynamic[SYSTEMFILE_DYNAMIC_SIZE];
    SnapshotDynamicPart(lpHead, arDynamic);
    errno = 0;
    if (!TalvorWriteFull(fd, arDynamic, sizeof(arDynamic), SYSTEMFILE_DYNAMIC_OFFSET) ||
        CTalvorFileIO::Current()->FSync(fd) != 0) {
        int nErr = errno != 0 ? errno : EIO;
        TalvorStoreShared(&lpHead->m_nBeginTimestamp, nOld);
        Trace("SaveChange2File", 1, 10110003,
              TALVOR_TEXT("从内存写入物理文件失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                          "Failed to write from memory to physical file, error code: %d, path: %s, write location: %lld, write size: %d"),
              nErr, lpszPath, (long long)SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE);
        return E_FAIL;
    }
    nRedoLogMaxID = nRedoLogID;
    return S_OK;
}

HRESULT CBreltMemStorageModule::WriteSystemFileAt(const void* lpSrc, int nSize, long long nOffset, LONG nSeekCode,
                                                  LONG nWriteCode, BOOL bIndexText)
{
    const char* lpszPath = m_lpSystemFileInfo != nullptr ? m_lpSystemFileInfo->m_lpszFilePath : "";
    int fd = m_lpSystemFileInfo != nullptr ? Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile) : -1;
    if (fd < 0) {
        if (bIndexText)
            Trace("WriteCacheIndexTimestamp", 1, nSeekCode,
                  TALVOR_TEXT("设置物理文件的位置失败,错误码:%d,路径:%s,位置:%lld",
                              "Failed to set the location of physical file, error code: %d, path: %s, location: %lld"),
                  EBADF, lpszPath, nOffset);
        else
            Trace("WriteCacheTableTimestamp", 1, nSeekCode,
                  TALVOR_TEXT("设置物理文件位置失败,错误码:%d,路径:%s,位置:%lld",
                              "Failed to set physical file location, error code: %d, path: %s, location: %lld"),
                  EBADF, lpszPath, nOffset);
        return E_FAIL;
    }
    errno = 0;
    if (!TalvorWriteFull(fd, lpSrc, (size_t)nSize, (off_t)nOffset)) {
        Trace(bIndexText ? "WriteCacheIndexTimestamp" : "WriteCacheTableTimestamp", 1, nWriteCode,
              TALVOR_TEXT("从内存写入物理文件失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                          "Failed to write from memory to physical file, error code: %d, path: %s, write location: %lld, write size: %d"),
              errno != 0 ? errno : EIO, lpszPath, nOffset, nSize);
        return E_FAIL;
    }
    return S_OK;
}

namespace {

// The cache's timestamps count in memory only while saving is held off.
BOOL SavingHeldOff(CTalvorFlashback* pFlashback, LPSYSTEMFILEHEAD lpHead)
{
    LPTALVORCOMMAND lpCmd = pFlashback != nullptr ? pFlashback->GetClusterCommand() : nullptr;
    return lpCmd == nullptr || lpCmd->m_bForbidSaveFlag == 1 || lpHead->m_bForbidSaveFlag == 1;
}

void WakeRedoWriter()
{
    CLogManager* pLog = CLogManager::GetInstancePtr();
    if (pLog != nullptr && pLog->m_hLogEvent != nullptr) SetEvent(pLog->m_hLogEvent);
}

} // namespace

HRESULT CBreltMemStorageModule::WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                                         LPBYTE lpTableTimestamp, int nTimestampNum)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr) return S_OK;
    // The pass copies the head under the latch: the stamp and its array
    // change under it too, so that no pass writes one without the other.
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    if (lpHead->m_nCacheTableTimestamp >= nTimestamp && (lpTableTimestamp == nullptr || nTimestampNum == 0)) return S_OK;
    lpHead->m_nCacheTableTimestamp = nTimestamp;
    if (SavingHeldOff(m_pFlashback, lpHead)) return S_OK;
    WakeRedoWriter();
    if (FAILED(WriteSystemFileAt(&nTimestamp, sizeof(nTimestamp), SYSTEMFILE_CACHETABLETS_OFFSET, 10017001, 10017002,
                                 FALSE)))
        return E_FAIL;
    if (lpTableTimestamp != nullptr) {
        lpHead->m_usTableTimestampNum = (USHORT)nTimestampNum;
        memcpy(lpHead->m_arTableTimestamp, lpTableTimestamp, sizeof(lpHead->m_arTableTimestamp));
    } else if (nTimestampNum == 255 && lpHead->m_usTableTimestampNum != 0) {
        lpHead->m_usTableTimestampNum = 0;
    } else {
        return S_OK;
    }
    return WriteSystemFileAt(&lpHead->m_usTableTimestampNum, SYSTEMFILE_TSARRAY_WRITE_SIZE,
                             SYSTEMFILE_TABLETSARRAY_OFFSET, 10017003, 10017004, FALSE);
}

HRESULT CBreltMemStorageModule::WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                                         LPBYTE lpIndexTimestamp, int nTimestampNum)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr) return S_OK;
    // The pass copies the head under the latch: the stamp and its array
    // change under it too, so that no pass writes one without the other.
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    if (lpHead->m_nCacheIndexTimestamp >= nTimestamp && (lpIndexTimestamp == nullptr || nTimestampNum == 0)) return S_OK;
    lpHead->m_nCacheIndexTimestamp = nTimestamp;
    if (SavingHeldOff(m_pFlashback, lpHead)) return S_OK;
    WakeRedoWriter();
    if (FAILED(WriteSystemFileAt(&nTimestamp, sizeof(nTimestamp), SYSTEMFILE_CACHEINDEXTS_OFFSET, 10018001, 10018002,
                                 TRUE)))
        return E_FAIL;
    lpHead->m_usIndexTimestampNum = (USHORT)nTimestampNum;
    if (lpIndexTimestamp != nullptr)
        memcpy(lpHead->m_aIndexTimestamp, lpIndexTimestamp, sizeof(lpHead->m_aIndexTimestamp));
    return WriteSystemFileAt(&lpHead->m_usIndexTimestampNum, SYSTEMFILE_TSARRAY_WRITE_SIZE,
                             SYSTEMFILE_INDEXTSARRAY_OFFSET, 10018003, 10018004, TRUE);
}

void CBreltMemStorageModule::RecordCacheFileSize(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, long long llSize,
                                                 BOOL bLoadSize)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (p == nullptr || lpHead == nullptr) return;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    if (bLoadSize) TalvorSetLoadSize(p, llSize);
    if (p->m_lpFileInfo != nullptr) p->m_lpFileInfo->m_nFileSize = llSize;
    // The flags are polled without the latch: raised after the size.
    if (p->m_pSaveFlag != nullptr) TalvorStoreShared(p->m_pSaveFlag, 1);
    TalvorStoreShared(&lpHead->m_stFileObject[SYSTEMFILE_FILELIST_OBJECTID].m_bSaveFlag, 1);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
}

void CBreltMemStorageModule::ShowCacheLoadSize(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, long long llSize)
{
    if (p == nullptr) return;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    TalvorSetLoadSize(p, llSize);
}

void CBreltMemStorageModule::OnFileSpaceChange(BYTE bFileType, long long nFileFreeSize)
{
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead == nullptr) return;
    long long nWarning = lpHead->m_nDiskFileWarningSize != 0 ? lpHead->m_nDiskFileWarningSize : DISK_WARNING_DEFAULT_MIB;
    if (nFileFreeSize >= nWarning) return;
    if (bFileType == FILETYPE_TABLE) {
        lpHead->m_bTableFileStatus = 1;
        Trace("OnFileSpaceChange", 1, 10031001,
              TALVOR_TEXT("数据库表文件所在磁盘的剩余空间(%lld)小于警告空间",
                          "The remaining space (%lld) of the disk where the database table file is located is smaller than the warning space"),
              nFileFreeSize);
    } else if (bFileType == FILETYPE_INDEX) {
        lpHead->m_bIndexFileStatus = 1;
        Trace("OnFileSpaceChange", 1, 10031002,
              TALVOR_TEXT("数据库索引文件所在磁盘的剩余空间(%lld)小于警告空间",
                          "The remaining space (%lld) of the disk where the database index file is located is smaller than the warning space"),
              nFileFreeSize);
    }
}
