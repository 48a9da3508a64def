// TalvorCacheFlushEntry.cpp — one entry of a flush ring carried out: the
// fit test, the bounds of every place the entry names, the write, and the
// result code left for the engine.
//
// Everything in an entry comes from the engine, perhaps from one that died
// while it wrote the entry. Offsets and sizes are bounded to the segment,
// the pools and the file before anything is read or written; an entry that
// names a place outside them is refused as unusable and writes nothing.
//
// A timestamp entry says that every block the engine posted before it is
// on disk. It is committed only when that holds: the write buffers of the
// pipeline's files are drained and synced first, and no block write of the
// pipeline has failed without being written again since.
#include "TalvorCacheFlush.h"

#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

enum {
    FLUSHENTRY_HANDLED = 0,
    FLUSHENTRY_PAUSED = 1,  // equals FLUSHRING_PAUSED of the loop
};

bool IsPageType(BYTE bType)
{
    return bType == CACHEFLUSH_HEAD || bType == CACHEFLUSH_MAP || bType == CACHEFLUSH_EXHEAD;
}

// Where a failed block write is remembered: by file and place.
int FindFailed(const CacheFlushRun& run, BYTE bFileNo, long long llOffset)
{
    for (int i = 0; i < run.nFailed; i++)
        if (run.arFailedFileNo[i] == bFileNo && run.arFailedOffset[i] == llOffset) return i;
    return -1;
}

void RememberFailed(CacheFlushRun& run, BYTE bFileNo, long long llOffset)
{
    if (FindFailed(run, bFileNo, llOffset) >= 0) return;
    if (run.nFailed >= CACHEFLUSH_FAILED_MAX) {
        run.bFailedOverflow = TRUE;
        return;
    }
    run.arFailedFileNo[run.nFailed] = bFileNo;
    run.arFailedOffset[run.nFailed] = llOffset;
    run.nFailed++;
}

void ForgetFailed(CacheFlushRun& run, BYTE bFileNo, long long llOffset)
{
    int i = FindFailed(run, bFileNo, llOffset);
    if (i < 0) return;
    run.nFailed--;
    run.arFailedFileNo[i] = run.arFailedFileNo[run.nFailed];
    run.arFailedOffset[i] = run.arFailedOffset[run.nFailed];
}

// The place in the file an entry writes: a head always goes to 0.
long long FilePlace(const stu_CacheFlush* p)
{
    return p->m_bBlockType == CACHEFLUSH_HEAD ? 0 : (long long)p->m_llFileBlockOffset;
}

} // namespace

LPBYTE CTalvorCacheStorage::SegmentBytes(long long llOffset, long long llSize) const
{
    if (m_pCacheBufferAddr == nullptr || llSize <= 0) return nullptr;
    if (llOffset < (long long)CACHE_HEAD_BLOCKS * CACHE_BLOCK_SIZE || llOffset > m_llCacheBufferSize - llSize)
        return nullptr;
    return m_pCacheBufferAddr + llOffset;
}

BOOL CTalvorCacheStorage::EntryInBounds(const stu_CacheFlush* p, const CacheFlushKind& kind, int nPos)
{
    BYTE bType = p->m_bBlockType;
    long long llCache = p->m_llCacheBlockOffset;
    int nSize = p->m_nBlockSize;
    BOOL bOk = TRUE;
    if (bType == CACHEFLUSH_TIMESTAMPS) {
        bOk = llCache == 0 || (p->m_bReserved < CACHE_FLUSHTSFILE_NUM &&
                               SegmentBytes(llCache, CACHEFLUSH_TSIMAGE_SIZE) != nullptr);
    } else if (IsPageType(bType)) {
        bOk = llCache != 0 && (bType == CACHEFLUSH_HEAD || p->m_llFileBlockOffset != 0) &&
              p->m_bReserved < CACHE_FLUSHFILE_NUM && nSize == CACHE_PAGE_SIZE && llCache % DB_IO_ALIGN == 0 &&
              SegmentBytes(llCache, nSize) != nullptr;
    } else if (bType == CACHEFLUSH_DATA) {
        // A data block lies in the block area, on a cache block's start.
        long long llBlocks = (long long)(CACHE_HEAD_BLOCKS + m_layout.m_nMapBlocks) * CACHE_BLOCK_SIZE;
        bOk = llCache != 0 && p->m_llFileBlockOffset != 0 && nSize >= (int)sizeof(BASEBLOCKHEAD) &&
              nSize % DB_IO_ALIGN == 0 && llCache % CACHE_BLOCK_SIZE == 0 && llCache >= llBlocks &&
              llCache <= m_layout.m_llFIFOOffset - nSize && SegmentBytes(llCache, nSize) != nullptr;
    } else {
        bOk = llCache != 0 && p->m_llFileBlockOffset != 0;
    }
    if (bOk) return TRUE;
    const char* lpszText = kind.bIndex
        ? "索引文件写盘错误，FileNo：%d，BlockNo：%d，nCacheOffset：%lld, nBlockOffset：%lld, bStorageFlushPos: %d, BlockType: %d"
        : "表数据文件写盘错误，FileNo：%d，BlockNo：%d，nCacheOffset：%lld, nBlockOffset：%lld, bStorageFlushPos: %d, BlockType: %d";
    Trace(kind.bIndex ? "StorageIndexFlush" : "StorageFlush", 1, kind.nUnusableCode, lpszText, (int)p->m_bFileNo,
          (int)p->m_nBlockNo, llCache, (long long)p->m_llFileBlockOffset, nPos, (int)bType);
    return FALSE;
}

BOOL CTalvorCacheStorage::EntryInsideFile(const stu_CacheFlush* p, LPFILEINFO pFile, const CacheFlushKind& kind,
                                          int nPos)
{
    BYTE bType = p->m_bBlockType;
    if (bType != CACHEFLUSH_DATA && !IsPageType(bType)) return TRUE;
    long long llPlace = FilePlace(p);
    int nSize = p->m_nBlockSize;
    // Only the head goes to the head page.
    BOOL bOk = (bType == CACHEFLUSH_HEAD || llPlace >= CACHE_PAGE_SIZE) && llPlace % DB_IO_ALIGN == 0 &&
               llPlace <= pFile->m_liFileSize - nSize;
    if (bOk) return TRUE;
    Trace(kind.bIndex ? "StorageIndexFlush" : "StorageFlush", 1, kind.nUnusableCode,
          TALVOR_TEXT("刷新条目的文件位置超出文件,拒绝写入,文件号:%d,块号:%d,文件位置:%lld,大小:%d,文件大小:%lld,位置:%d",
                      "A flush entry's file place lies outside the file, write refused, file number: %d, block number: %d, file place: %lld, size: %d, file size: %lld, position: %d"),
          (int)p->m_bFileNo, (int)p->m_nBlockNo, llPlace, nSize, pFile->m_liFileSize, nPos);
    return FALSE;
}

BOOL CTalvorCacheStorage::EntryFits(const stu_CacheFlush* p, const CacheFlushKind& kind)
{
    BYTE bType = p->m_bBlockType;
    if (bType == CACHEFLUSH_TIMESTAMPS) return TRUE;
    if (bType == CACHEFLUSH_DATA && p->m_llTimestamp == 0) return TRUE;
    if (bType != CACHEFLUSH_DATA && !IsPageType(bType)) return TRUE;
    // Bounded by EntryInBounds before.
    LPBYTE lpImage = SegmentBytes(p->m_llCacheBlockOffset, p->m_nBlockSize);
    if (lpImage == nullptr) return FALSE;
    int nMark = *(volatile int*)lpImage;
    if (bType == CACHEFLUSH_MAP)
        return nMark == BLOCKMAP_CACHE_DATAFLAG &&
               (UINT)((volatile BASEFILEBLOCKMAPHEAD_CACHE*)lpImage)->m_nMapNo == p->m_nBlockNo;
    if (bType == CACHEFLUSH_DATA) {
        volatile BASEBLOCKHEAD* lpBlock = (volatile BASEBLOCKHEAD*)lpImage;
        return nMark == BLOCK_DATAFLAG && lpBlock->m_nBlockNo == p->m_nBlockNo && lpBlock->m_bFileNo == p->m_bFileNo &&
               lpBlock->m_nBlockSize == p->m_nBlockSize;
    }
    if (FileOfKind(p->m_bFileNo, kind.bFileType) == nullptr) return FALSE;
    if (bType == CACHEFLUSH_EXHEAD)
        return nMark == kind.nExHeadMark && ((volatile TABLEFILEHEADEX*)lpImage)->m_bFileNo == p->m_bFileNo;
    volatile TABLEFILEHEAD* lpHead = (volatile TABLEFILEHEAD*)lpImage;
    return nMark == kind.nHeadMark && lpHead->m_bFileType == kind.bFileType && lpHead->m_bFileNo == p->m_bFileNo;
}

void CTalvorCacheStorage::WaitForFit(const stu_CacheFlush* p, const CacheFlushKind& kind)
{
    // The engine may have posted the entry before its target is complete;
    // after the looks FlushBlock is the judge.
    for (int nLook = 0; nLook < CACHEFLUSH_FIT_SLOW_LOOKS; nLook++) {
        if (EntryFits(p, kind)) return;
        usleep(nLook < CACHEFLUSH_FIT_FAST_LOOKS ? 1 : 1000);
        TalvorFlushCPU4Read();
    }
}

void CTalvorCacheStorage::GiveBackImage(const stu_CacheFlush* p)
{
    BYTE bIndex = p->m_bReserved;
    if (!IsPageType(p->m_bBlockType) || m_pFlushFile == nullptr || bIndex >= CACHE_FLUSHFILE_NUM) return;
    // The engine polls the slot, and either pipeline may hand it back.
    TalvorStoreShared(&m_pFlushFile[bIndex].m_bStatus, 0);
}

int CTalvorCacheStorage::CarryOut(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, CacheFlushRun& run,
                                  BYTE& bResult)
{
    const CacheFlushKind& kind = *run.pKind;
    LPCacheBufferHead lpHead = m_pCacheBufferHead;
    int nPos = kind.bIndex ? lpHead->m_bStorageIndexFlushPos : lpHead->m_bStorageFlushPos;
    const char* lpszFunc = kind.bIndex ? "StorageIndexFlush" : "StorageFlush";
    if (!EntryInBounds(p, kind, nPos)) {
        bResult = CACHEFLUSH_UNUSABLE;
        return FLUSHENTRY_HANDLED;
    }
    // Before the file's descriptor is looked at: once the pause is
    // granted, the paused file may be freed (PauseFile). A timestamp waits
    // for any pause: its commit stands for every block posted before it,
    // and the paused file's buffered writes cannot be drained meanwhile.
    const BOOL bPaused = p->m_bBlockType == CACHEFLUSH_TIMESTAMPS ? TalvorLoadShared(&m_bPauseFileNo) != 0
                                                                  : IsPausedFile(p->m_bFileNo);
    if (bPaused) return FLUSHENTRY_PAUSED;
    WaitForFit(p, kind);
    if (++run.nEntries % CACHEFLUSH_SPACE_EVERY == 0) FileSpaceManage(lpCritSection, kind.bFileType);
    if (p->m_bBlockType == CACHEFLUSH_TIMESTAMPS) {
        bResult = CarryOutTimestamps(lpCritSection, p, run);
        return FLUSHENTRY_HANDLED;
    }
    BYTE bFileNo = p->m_bFileNo;
    LPFILEINFO pFile = FileOfKind(bFileNo, kind.bFileType);
    if (pFile == nullptr) {
        Trace(lpszFunc, 1, kind.nNoFileCode,
              TALVOR_TEXT("找不到文件号%d对应的文件名", "Cannot find the corresponding file name for given file number %d"),
              (int)bFileNo);
        GiveBackImage(p);
        bResult = CACHEFLUSH_NOFILE;
        return FLUSHENTRY_HANDLED;
    }
    if (pFile->m_pStorageFile == nullptr) {
        Trace(lpszFunc, 1, kind.nNoBackendCode,
              kind.bIndex ? TALVOR_TEXT("文件对象指针为空,文件号为:%d", "The file object pointer is empty, and the file number is: %d")
                          : TALVOR_TEXT("文件对象指针为空,文件号:%d", "The file object pointer is empty, file number: %d"),
              (int)bFileNo);
        GiveBackImage(p);
        bResult = CACHEFLUSH_NOBACKEND;
        return FLUSHENTRY_HANDLED;
    }
    if (IsPausedFile(bFileNo)) return FLUSHENTRY_PAUSED;
    if (!EntryInsideFile(p, pFile, kind, nPos)) {
        bResult = CACHEFLUSH_UNUSABLE;
        return FLUSHENTRY_HANDLED;
    }
    bResult = CarryOutBlock(lpCritSection, p, pFile, run);
    return FLUSHENTRY_HANDLED;
}

BYTE CTalvorCacheStorage::CarryOutBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPFILEINFO pFile,
                                        CacheFlushRun& run)
{
    const CacheFlushKind& kind = *run.pKind;
    int nSize = p->m_nBlockSize;
    BYTE bType = p->m_bBlockType;
    LPBYTE lpBuffer = run.lpWork;
    LPBYTE lpLarge = nullptr;
    // Only a type FlushBlock writes fills the buffer, and EntryInBounds has
    // held its size to the segment. Any other type FlushBlock passes over:
    // its size is whatever the engine left there and must not have this
    // thread ask for up to 2 GiB, nor fail (and withhold the timestamps
    // behind it) when that cannot be had.
    if (nSize > kind.nWorkSize && (bType == CACHEFLUSH_DATA || IsPageType(bType))) {
        lpLarge = (LPBYTE)get_aligned_buffer((size_t)nSize);
        lpBuffer = lpLarge;
    }
    int nRet = lpBuffer != nullptr ? pFile->m_pStorageFile->FlushBlock(lpCritSection, p, lpBuffer) : 1;
    free(lpLarge);
    GiveBackImage(p);
    long long llPlace = FilePlace(p);
    if (nRet == 0) {
        ForgetFailed(run, p->m_bFileNo, llPlace);
        return CACHEFLUSH_DONE;
    }
    RememberFailed(run, p->m_bFileNo, llPlace);
    Trace(kind.bIndex ? "StorageIndexFlush" : "StorageFlush", 1, kind.nFailedCode,
          kind.bIndex ? TALVOR_TEXT("刷新失败,物理文件号:%d,块号:%d,数据块大小:%d",
                                    "Flush failed. Physical file number: %d, block number: %d, data block size: %d")
                      : TALVOR_TEXT("刷新物理文件失败,文件号%d,块号:%d,数据块类型:%d",
                                    "Failed to flush physical file, file number %d, block number: %d, data block type: %d"),
          (int)p->m_bFileNo, (int)p->m_nBlockNo, kind.bIndex ? nSize : (int)bType);
    return CACHEFLUSH_FAILED;
}

BYTE CTalvorCacheStorage::CarryOutTimestamps(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p,
                                             CacheFlushRun& run)
{
    const CacheFlushKind& kind = *run.pKind;
    long long llCache = p->m_llCacheBlockOffset;
    LPBYTE lpArray = llCache != 0 ? SegmentBytes(llCache, CACHEFLUSH_TSIMAGE_SIZE) : nullptr;
    long long llTimestamp = p->m_llTimestamp;
    BOOL bDurable = run.nFailed == 0 && !run.bFailedOverflow;
    if (bDurable) bDurable = DrainBuffers(lpCritSection, kind.bFileType, TRUE);
    HRESULT hr = E_FAIL;
    if (bDurable) {
        if (kind.bIndex)
            hr = m_pCacheModule->WriteCacheIndexTimestamp(lpCritSection, llTimestamp, lpArray, p->m_nTimestampNum);
        else
            hr = m_pCacheModule->WriteCacheTableTimestamp(lpCritSection, llTimestamp, lpArray, p->m_nTimestampNum);
    }
    if (lpArray != nullptr && m_pFlushTimestampFile != nullptr) {
        // The engine polls the status, and both flush loops may give back one slot.
        TalvorStoreShared(&m_pFlushTimestampFile[p->m_bReserved].m_bStatus, 0);
    }
    if (SUCCEEDED(hr)) return CACHEFLUSH_DONE;
    Trace(kind.bIndex ? "StorageIndexFlush" : "StorageFlush", 1, kind.nNotCommittedCode,
          TALVOR_TEXT("时间戳%lld未提交:之前的块未全部写入磁盘(失败块:%d)或写入系统文件失败",
                      "Timestamp %lld not committed: the blocks before it are not all on disk (failed blocks: %d) or the system file write failed"),
          llTimestamp, run.nFailed);
    return CACHEFLUSH_FAILED;
}
