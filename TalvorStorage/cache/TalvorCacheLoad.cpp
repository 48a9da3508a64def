// TalvorCacheLoad.cpp — one load thread per cache-mode file: it reads the
// blocks the engine asks for through the file's load slots into the cache.
//
// A slot is written by another process. Every field of it is bounded before
// use, and a block is read into a private buffer and checked there: the
// cache block the engine named is written only with a whole block that is
// the one asked for, so a refused or failed request leaves it as it was and
// a half-read block is never answered as loaded.
#include "TalvorCacheStorage.h"

#include "CrashContainment.h"
#include "TalvorCacheFlush.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>


namespace {

// Tries of the check byte: first a microsecond apart, then a millisecond;
// past the last the slot is taken as it stands (its fields are bounded).
// The fuzz build tries twice of each: its slots carry any check byte, and
// 0.1 s a slot would turn a group of them into a hang.
#ifdef TALVOR_FUZZ_SHORT_WAITS
const int VERIFY_FAST_TRIES = 2;
const int VERIFY_ALL_TRIES = 4;
#else
const int VERIFY_FAST_TRIES = 100;
const int VERIFY_ALL_TRIES = 200;
#endif
const int PAUSE_SLEEP_MS = 1;

struct LoadThreadArg {
    BYTE m_bFileNo;
    CTalvorCacheStorage* m_pCache;
};

struct LoadThreadContext {
    LoadThreadArg* m_pArg;
};

BYTE ExpectedVerification(long long llCacheOffset)
{
    return (BYTE)((llCacheOffset / CACHE_BLOCK_SIZE) % 255 + 1);
}

void LoadBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    LoadThreadContext* pCtx = (LoadThreadContext*)lpContext;
    pCtx->m_pArg->m_pCache->StorageLoad(lpCritSection, pCtx->m_pArg->m_bFileNo);
}

} // namespace

int CTalvorCacheStorage::OpenLoadEvents(BYTE bFileNo)
{
    char szName[64];
    snprintf(szName, sizeof(szName), "%s%02X", SEMNAME_CACHELOADEVENT_PREFIX, (unsigned)bFileNo);
    m_stFileLoadInfo[bFileNo].m_hCacheLoad = CreateEventSem(nullptr, szName);
    snprintf(szName, sizeof(szName), "%s%02X", SEMNAME_STORAGELOADEVENT_PREFIX, (unsigned)bFileNo);
    m_stFileLoadInfo[bFileNo].m_hStorageLoad = CreateEventSem(nullptr, szName);
    if (m_stFileLoadInfo[bFileNo].m_hCacheLoad != nullptr && m_stFileLoadInfo[bFileNo].m_hStorageLoad != nullptr)
        return 0;
    Trace("InitFileLoadThreadAndEvent", 1, 60009002,
          TALVOR_TEXT("打开文件加载信号量失败,文件号:%d,错误码:%d",
                      "Failed to open the load semaphores of file number %d, error code: %d"),
          (int)bFileNo, errno);
    CloseLoadEvents(bFileNo);
    return 1;
}

void CTalvorCacheStorage::CloseLoadEvents(BYTE bFileNo)
{
    CloseEvent(m_stFileLoadInfo[bFileNo].m_hCacheLoad);
    CloseEvent(m_stFileLoadInfo[bFileNo].m_hStorageLoad);
    m_stFileLoadInfo[bFileNo].m_hCacheLoad = nullptr;
    m_stFileLoadInfo[bFileNo].m_hStorageLoad = nullptr;
}

// The semaphores are opened before the thread starts, so that its first
// wait already has one to wait on.
int CTalvorCacheStorage::InitFileLoadThreadAndEvent(BYTE bFileNo)
{
    stu_FileLoadInfo& info = m_stFileLoadInfo[bFileNo];
    if (info.m_hStorageLoad != nullptr || info.m_hCacheLoad != nullptr) return 1;
    LoadThreadArg* pArg = new (std::nothrow) LoadThreadArg;
    if (pArg == nullptr) {
        Trace("InitFileLoadThreadAndEvent", 1, 60009001,
              TALVOR_TEXT("初始化线程参数失败(%d),错误码:%d", "Failed to initialize thread parameter (%d), error code: %d"),
              (int)bFileNo, ENOMEM);
        return 1;
    }
    pArg->m_bFileNo = bFileNo;
    pArg->m_pCache = this;
    if (OpenLoadEvents(bFileNo) != 0) {
        delete pArg;
        return 1;
    }
    int rc = CreateJoinableThread(&info.m_hStorageLoadThread, StorageLoadThread, pArg);
    if (rc != 0) {
        Trace("InitFileLoadThreadAndEvent", 1, 60009004,
              TALVOR_TEXT("创建StorageLoadThread失败(%d),错误码:%d", "Failed to create StorageLoadThread (%d), error code: %d"),
              (int)bFileNo, rc);
        info.m_hStorageLoadThread = 0;
        CloseLoadEvents(bFileNo);
        delete pArg;
        return 1;
    }
    return 0;
}

void* CTalvorCacheStorage::StorageLoadThread(LPVOID lpParam)
{
    LoadThreadArg* pArg = (LoadThreadArg*)lpParam;
    BYTE bFileNo = pArg->m_bFileNo;
    CTalvorCacheStorage* pCache = pArg->m_pCache;
    Trace("StorageLoadThread", 3, 60001017,
          TALVOR_TEXT("文件号:%d,StorageLoadThread线程启动!", "File number: %d, StorageLoadThread thread started!"),
          (int)bFileNo);
    LoadThreadContext stCtx = {pArg};
    TalvorRunContained(StorageLoadThread, lpParam, &pCache->m_stFileLoadInfo[bFileNo].m_hStorageLoadThread, LoadBody,
                       nullptr, &stCtx);
    Trace("StorageLoadThread", 3, 60001008,
          TALVOR_TEXT("文件号:%d,StorageLoadThread线程关闭!", "File number: %d, StorageLoadThread thread closed!"),
          (int)bFileNo);
    delete pArg;
    return nullptr;
}

HRESULT CTalvorCacheStorage::StorageLoad(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo)
{
    LPCacheBufferBlockOperate lpGroup = nullptr;
    int nNum = 0;
    if (m_pCacheBufferHead == nullptr || GetCacheLoadSlot(bFileNo, lpGroup, nNum) != 0 || nNum <= 0) {
        Trace("StorageLoad", 1, 60004000,
              TALVOR_TEXT("找不到给定文件号%d对应的加载槽", "Cannot find corresponding load slot for the given file number %d"),
              (int)bFileNo);
        return 1;
    }
    LPstu_FileCacheLoadInfo lpInfo = &m_pCacheBufferHead->m_stFileCacheLoadInfo[bFileNo];
    LPBYTE lpPrivate = nullptr;
    int nPrivateSize = 0;
    while (!TalvorLoadShared(&m_bExit)) {
        // The reading position is ours, but it lies in shared memory: a
        // damaged one restarts the group rather than leaving it.
        BYTE bPos = TalvorLoadShared(&lpInfo->m_bStorageLoadPos);
        if (bPos >= nNum) {
            TalvorStoreShared(&lpInfo->m_bStorageLoadPos, 0);
            bPos = 0;
        }
        LPCacheBufferBlockOperate lpSlot = &lpGroup[bPos];
        if (!WaitForPostedSlot(lpInfo, lpSlot, bFileNo)) continue;
        WaitForVerification(lpSlot);
        BYTE bSlotFile = 0;
        if (!EnterServe(bFileNo, lpSlot, bSlotFile)) break;
        BYTE bSuccess = ServeSlot(lpCritSection, lpSlot, bSlotFile, lpPrivate, nPrivateSize);
        LeaveServe(bFileNo);
        AnswerSlot(lpInfo, lpSlot, bPos, nNum, bSuccess, bFileNo);
    }
    free(lpPrivate);
    return 0;
}

// A read that meets the end of the file gives zeros for the rest, which
// would pass every check of the head: a file cut shorter than its recorded
// size must refuse the blocks it no longer holds whole.
BOOL CTalvorCacheStorage::OnDisk(LPFILEINFO pFileInfo, long long llFileOffset, int nSize)
{
    struct stat st;
    if (CTalvorFileIO::Current()->Stat(pFileInfo->m_lpszFilePath, &st) == 0 &&
        llFileOffset <= (long long)st.st_size - nSize)
        return TRUE;
    Trace("StorageLoad", 1, 60004005,
          TALVOR_TEXT("文件比记录的短,拒绝加载,路径:%s,文件位置:%lld,大小:%d",
                      "The file is shorter than recorded, load refused, path: %s, file location: %lld, size: %d"),
          pFileInfo->m_lpszFilePath, llFileOffset, nSize);
    return FALSE;
}

// Bytes past the end of the file come back as zeros, so a block whose last
// byte is not zero was read whole from the file, and asking the file's size
// (a path lookup per request) is needed only for a block that ends in zero.
BOOL CTalvorCacheStorage::ReadWhole(LPFILEINFO pFileInfo, long long llFileOffset, int nSize, const BYTE* lpRead)
{
    if (lpRead[nSize - 1] != 0) return TRUE;
    return OnDisk(pFileInfo, llFileOffset, nSize);
}

BOOL CTalvorCacheStorage::WaitForPostedSlot(LPstu_FileCacheLoadInfo, LPCacheBufferBlockOperate lpSlot, BYTE bFileNo)
{
    if (TalvorLoadShared(&lpSlot->m_bStatus) == CACHELOAD_POSTED) return TRUE;
    HEVENTTYPE hEvent = m_stFileLoadInfo[bFileNo].m_hCacheLoad;
    if (hEvent != nullptr)
        WaitForSingleObject(hEvent, (UINT)(m_nWaitTime > 0 ? m_nWaitTime : 1));
    else
        Sleep(PAUSE_SLEEP_MS);
    return FALSE;
}

// The engine writes the check byte last; until it fits the cache offset the
// slot may still be half written.
void CTalvorCacheStorage::WaitForVerification(LPCacheBufferBlockOperate lpSlot)
{
    for (int nTry = 0; nTry < VERIFY_ALL_TRIES && !TalvorLoadShared(&m_bExit); nTry++) {
        if (TalvorLoadShared(&lpSlot->m_bVerification) == ExpectedVerification(lpSlot->m_llCacheBlockOffset)) return;
        if (nTry < VERIFY_FAST_TRIES)
            usleep(1);
        else
            Sleep(PAUSE_SLEEP_MS);
    }
}

BOOL CTalvorCacheStorage::EnterServe(BYTE bThreadFile, LPCacheBufferBlockOperate lpSlot, BYTE& bSlotFile)
{
    for (;;) {
        bSlotFile = lpSlot->m_bFileNo;
        // Marked before the pause is read: see m_arLoadServing.
        TalvorStoreSharedFull(&m_arLoadServing[bThreadFile], bSlotFile);
        if (TalvorLoadShared(&m_bExit)) break;
        if (bSlotFile == 0 || bSlotFile != TalvorLoadSharedFull(&m_bPauseFileNo)) return TRUE;
        LeaveServe(bThreadFile);
        Sleep(PAUSE_SLEEP_MS);
        WaitForVerification(lpSlot);
    }
    LeaveServe(bThreadFile);
    return FALSE;
}

void CTalvorCacheStorage::LeaveServe(BYTE bThreadFile)
{
    TalvorStoreSharedFull(&m_arLoadServing[bThreadFile], 0);
}

// The cache block a slot names, when [offset, offset + nSize) lies inside
// the block area and starts on a cache block; else null.
LPBYTE CTalvorCacheStorage::SlotTarget(LPCacheBufferBlockOperate lpSlot, int nSize) const
{
    long long llOffset = lpSlot->m_llCacheBlockOffset;
    long long llFirst = CacheBlockOffset(m_layout.m_nFirstFreeNo);
    long long llEnd = m_pCacheBufferHead->m_llCacheFIFOOffset;
    if (llEnd > m_layout.m_llFIFOOffset) llEnd = m_layout.m_llFIFOOffset;
    if (llOffset < llFirst || llOffset % CACHE_BLOCK_SIZE != 0 || nSize <= 0 || llOffset > llEnd - nSize)
        return nullptr;
    return m_pCacheBufferAddr + llOffset;
}

BYTE CTalvorCacheStorage::ServeSlot(LPTALVORCRITICALSECTION lpCritSection, LPCacheBufferBlockOperate lpSlot,
                                    BYTE bSlotFile, LPBYTE& lpPrivate, int& nPrivateSize)
{
    // One copy of every field: the engine may still write the slot. The
    // file is the one the pause was checked against.
    UINT nBlockNo = lpSlot->m_nBlockNo;
    long long llFileOffset = lpSlot->m_llFileBlockOffset;
    int nSize = lpSlot->m_nBlockSize;
    LPFILEINFO pFileInfo = m_pCacheModule != nullptr ? m_pCacheModule->FileOf(bSlotFile) : nullptr;
    if (pFileInfo == nullptr) {
        Trace("StorageLoad", 1, 60004001,
              TALVOR_TEXT("找不到给定文件号%d对应的文件名", "Cannot find the corresponding file name for the given file number %d"),
              (int)bSlotFile);
        return CACHELOAD_NOFILE;
    }
    if (pFileInfo->m_pStorageFile == nullptr) {
        Trace("StorageLoad", 1, 60004002,
              TALVOR_TEXT("找不到给定文件号%d对应的文件名", "Cannot find the corresponding file name for the given file number %d"),
              (int)bSlotFile);
        return CACHELOAD_NOBACKEND;
    }
    LPBYTE lpTarget = SlotTarget(lpSlot, nSize);
    BOOL bInFile = nSize >= (int)sizeof(BASEBLOCKHEAD) && llFileOffset >= CACHE_BLOCK_SIZE &&
                   llFileOffset <= TalvorLoadShared(&pFileInfo->m_liFileSize) - nSize;
    if (lpTarget == nullptr || !bInFile || nBlockNo == 0) {
        Trace("StorageLoad", 1, 60004003,
              TALVOR_TEXT("加载请求超出缓存或文件,拒绝加载,文件号:%d,块号:%u,文件位置:%lld,大小:%d,缓存位置:%lld",
                          "A load request lies outside the cache or the file and is refused, file number: %d, block number: %u, file location: %lld, size: %d, cache location: %lld"),
              (int)bSlotFile, nBlockNo, llFileOffset, nSize, (long long)lpSlot->m_llCacheBlockOffset);
        return CACHELOAD_FAILED;
    }
    if (nSize > nPrivateSize) {
        free(lpPrivate);
        lpPrivate = (LPBYTE)get_aligned_buffer((size_t)nSize);
        nPrivateSize = lpPrivate != nullptr ? nSize : 0;
        if (lpPrivate == nullptr) return CACHELOAD_FAILED;
    }
    BYTE bResult = ReadAndCheck(lpCritSection, pFileInfo, bSlotFile, nBlockNo, llFileOffset, nSize, lpPrivate);
    if (bResult == CACHELOAD_OK && !ReadWhole(pFileInfo, llFileOffset, nSize, lpPrivate)) bResult = CACHELOAD_FAILED;
    if (bResult == CACHELOAD_OK) {
        memcpy(lpTarget, lpPrivate, (size_t)nSize);
        __atomic_thread_fence(__ATOMIC_RELEASE);
    }
    return bResult;
}

// The backend checks mark and number and clears the use count; the file
// and the size are checked here, on the private copy.
BYTE CTalvorCacheStorage::ReadAndCheck(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bSlotFile,
                                       UINT nBlockNo, long long llFileOffset, int nSize, LPBYTE lpPrivate)
{
    if (pFileInfo->m_pStorageFile->LoadBlock(lpCritSection, bSlotFile, nBlockNo, llFileOffset, nSize, lpPrivate) != 0)
        return CACHELOAD_FAILED;
    LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)lpPrivate;
    if (lpBlock->m_bFileNo == bSlotFile && lpBlock->m_nBlockSize == nSize) return CACHELOAD_OK;
    Trace("StorageLoad", 1, 60004004,
          TALVOR_TEXT("加载的数据块不是请求的块,文件号:%d(%d),块号:%u,大小:%d(%d),文件位置:%lld",
                      "The block read is not the one asked for, file number: %d(%d), block number: %u, size: %d(%d), file location: %lld"),
          (int)lpBlock->m_bFileNo, (int)bSlotFile, nBlockNo, (int)lpBlock->m_nBlockSize, nSize, llFileOffset);
    return CACHELOAD_FAILED;
}

void CTalvorCacheStorage::AnswerSlot(LPstu_FileCacheLoadInfo lpInfo, LPCacheBufferBlockOperate lpSlot, BYTE bPos,
                                     int nNum, BYTE bSuccess, BYTE bFileNo)
{
    lpSlot->m_bSuccess = bSuccess;
    BYTE bNow = TalvorLoadShared(&lpInfo->m_bStorageLoadPos);
    if (bNow == bPos) {
        TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_DONE);
        TalvorStoreShared(&lpInfo->m_bStorageLoadPos, (bPos + 1) % nNum);
    } else if (bNow == 0) {
        // The engine took the group back meanwhile: the slot is free again.
        TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_FREE);
    }
    SetEvent(m_stFileLoadInfo[bFileNo].m_hStorageLoad);
}

void CTalvorCacheStorage::StopLoadThreads()
{
    TalvorStoreShared(&m_bExit, 1);
    for (int i = 0; i < MAX_FILE_NUM; i++) {
        stu_FileLoadInfo& info = m_stFileLoadInfo[i];
        if (info.m_hStorageLoadThread != 0) {
            SetEvent(info.m_hCacheLoad);
            if (TalvorWaitForSingleThread(info.m_hStorageLoadThread, CACHE_LOAD_JOIN_MS) != WAIT_OBJECT_0) {
                // Its semaphores stay open: it may still wait on them.
                Trace("Free", 1, 60009011,
                      TALVOR_TEXT("文件号:%d,StorageLoadThread未在时限内结束", "File number: %d, StorageLoadThread did not end in time"),
                      i);
                continue;
            }
            info.m_hStorageLoadThread = 0;
        }
        CloseLoadEvents((BYTE)i);
    }
}
