// TalvorCacheFlushLast.cpp — FlushFileBlock, the last pass at a stop when
// the engine was lost: every block the cache holds marked dirty goes to its
// file, then every file's head and the map blocks changed since the head.
//
// No engine is left to post requests, so the pass builds them itself from
// the cache; everything it reads there was written by a process that died,
// and each offset, number and chain step is bounded before use.
#include "TalvorCacheFlush.h"

#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <cstring>

namespace {

const int LASTFLUSH_BUFFER = CACHE_BLOCK_SIZE;

bool IsCacheModeFile(LPFILEINFO p)
{
    return p != nullptr && ((BYTE)p->m_bFileType == FILETYPE_TABLE || (BYTE)p->m_bFileType == FILETYPE_INDEX);
}

} // namespace

// The buffer for a block of nSize: the work buffer, or a larger one kept
// for the rest of the pass. Null when none can be had.
static LPBYTE BufferFor(LPBYTE& lpWork, int& nWorkSize, int nSize)
{
    if (nSize <= nWorkSize) return lpWork;
    LPBYTE lpLarger = (LPBYTE)get_aligned_buffer((size_t)nSize);
    if (lpLarger == nullptr) return nullptr;
    free(lpWork);
    lpWork = lpLarger;
    nWorkSize = nSize;
    return lpWork;
}

LPBYTE CTalvorCacheStorage::CachedPage(long long llOffset) const
{
    return IsPageOffset(llOffset) ? m_pCacheBufferAddr + llOffset : nullptr;
}

LPTABLEFILEHEAD CTalvorCacheStorage::CachedFileHead(BYTE bFileNo) const
{
    UINT nHead = m_pCacheBufferHead->m_nFileInfoNo[bFileNo];
    if (!IsCacheBlock(nHead)) return nullptr;
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(m_pCacheBufferAddr + CacheBlockOffset(nHead));
    int nMark = lpHead->m_nDataFlag;
    return nMark == TABLEFILE_DATAFLAG || nMark == INDEXFILE_DATAFLAG ? lpHead : nullptr;
}

int CTalvorCacheStorage::FirstMapOf(LPTABLEFILEHEAD lpHead, long long& llMapOffset)
{
    if (lpHead->m_nDataFlag == INDEXFILE_DATAFLAG)
        return GetFirstIndexMapCacheAddr((LPINDEXFILEHEAD)lpHead, m_pCacheBufferAddr, llMapOffset);
    return GetFirstTableMapCacheAddr(lpHead, m_pCacheBufferAddr, llMapOffset);
}

LPBASEFILEBLOCKMAPHEAD_CACHE CTalvorCacheStorage::MapBlockOf(LPTABLEFILEHEAD lpHead, int nMapNo)
{
    long long llOffset = 0;
    if (FirstMapOf(lpHead, llOffset) != 0) return nullptr;
    LPBYTE lpPage = CachedPage(llOffset);
    // A chain longer than the cache has blocks loops.
    for (int nStep = 1; lpPage != nullptr && nStep <= (int)m_layout.m_nBlockBufNum; nStep++) {
        LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
        if (lpMap->m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG) return nullptr;
        if (nStep == nMapNo) return lpMap;
        lpPage = CachedPage(lpMap->m_nNextBlockMapOffset_Cache);
    }
    return nullptr;
}

BOOL CTalvorCacheStorage::LastFlushRequestOf(LPBASEBLOCKHEAD lpBlock, long long llCacheOffset, stu_CacheFlush& stReq)
{
    BYTE bFileNo = lpBlock->m_bFileNo;
    UINT nBlockNo = lpBlock->m_nBlockNo;
    int nSize = lpBlock->m_nBlockSize;
    LPTABLEFILEHEAD lpHead = CachedFileHead(bFileNo);
    int nMax = lpHead != nullptr ? lpHead->m_nMaxBlockMapNum : 0;
    int nEntry = nMax > 0 ? (int)((nBlockNo - 1) % (UINT)nMax) : -1;
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = nullptr;
    if (nMax > 0 && (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE) + (long long)(nEntry + 1) * sizeof(BASEFILEBLOCKMAP_CACHE) <=
                        CACHE_PAGE_SIZE)
        lpMap = MapBlockOf(lpHead, (int)((nBlockNo - 1) / (UINT)nMax) + 1);
    if (lpMap == nullptr) {
        Trace("FlushFileBlock", 1, 60007002,
              TALVOR_TEXT("刷新块失败,MAP头为空,文件号%d,块号:%d,块大小:%d",
                          "Failed to flush block. MAP header is empty, file number %d, block number: %d, block size: %d"),
              (int)bFileNo, (int)nBlockNo, nSize);
        return FALSE;
    }
    memset(&stReq, 0, sizeof(stReq));
    stReq.m_bBlockType = CACHEFLUSH_DATA;
    stReq.m_bFileNo = bFileNo;
    stReq.m_bFlushCode = lpBlock->m_bFlushCode;
    stReq.m_nBlockNo = nBlockNo;
    stReq.m_nBlockSize = nSize;
    stReq.m_llTimestamp = lpBlock->m_nTimestamp;
    stReq.m_llTransTimestamp = lpBlock->m_nTimestamp;
    stReq.m_llCacheBlockOffset = llCacheOffset;
    stReq.m_llFileBlockOffset = lpMap->m_pBlockMap[nEntry].m_nBlockOffset;
    return TRUE;
}

void CTalvorCacheStorage::LastFlushBlocks(LPTALVORCRITICALSECTION lpCritSection, LPBYTE& lpWork, int& nWorkSize)
{
    long long llAreaEnd = m_layout.m_llFIFOOffset;
    for (UINT n = m_layout.m_nFirstFreeNo; n <= m_layout.m_nBlockBufNum; n++) {
        long long llOffset = CacheBlockOffset(n);
        LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)(m_pCacheBufferAddr + llOffset);
        int nSize = lpBlock->m_nBlockSize;
        if (lpBlock->m_nDataFlag != BLOCK_DATAFLAG || lpBlock->m_bFileNo == 0 || lpBlock->m_nBlockNo == 0 || nSize == 0)
            continue;
        if (lpBlock->m_bSaveFlag != 1 && lpBlock->m_bFlushFlag != 1) continue;
        // A block runs over cache blocks behind it, never out of the area.
        if (nSize < (int)sizeof(BASEBLOCKHEAD) || nSize % DB_IO_ALIGN != 0 || llOffset > llAreaEnd - nSize) continue;
        stu_CacheFlush stReq;
        if (!LastFlushRequestOf(lpBlock, llOffset, stReq)) continue;
        LPFILEINFO pFile = m_pCacheModule->FileOf(stReq.m_bFileNo);
        if (!IsCacheModeFile(pFile) || pFile->m_pStorageFile == nullptr) continue;
        LPBYTE lpBuffer = BufferFor(lpWork, nWorkSize, nSize);
        if (lpBuffer != nullptr) pFile->m_pStorageFile->FlushBlock(lpCritSection, &stReq, lpBuffer);
        // No later chance comes for this block.
        lpBlock->m_bSaveFlag = 0;
        lpBlock->m_bFlushFlag = 0;
    }
}

int CTalvorCacheStorage::LastFlushHeadAndMaps(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFile, LPBYTE lpWork)
{
    BYTE bFileNo = pFile->m_bFileNo;
    LPTABLEFILEHEAD lpHead = CachedFileHead(bFileNo);
    if (lpHead == nullptr) return 0;
    long long nTimestamp = lpHead->m_nTimestamp;
    stu_CacheFlush stReq;
    memset(&stReq, 0, sizeof(stReq));
    stReq.m_bBlockType = CACHEFLUSH_HEAD;
    stReq.m_bFileNo = bFileNo;
    stReq.m_nBlockSize = CACHE_PAGE_SIZE;
    stReq.m_llTimestamp = nTimestamp;
    stReq.m_llTransTimestamp = nTimestamp;
    stReq.m_llCacheBlockOffset = (LPBYTE)lpHead - m_pCacheBufferAddr;
    lpHead->m_bSaveFlag = 0;
    pFile->m_pStorageFile->FlushBlock(lpCritSection, &stReq, lpWork);
    long long llMap = 0;
    int nRet = FirstMapOf(lpHead, llMap);
    if (nRet != 0) return nRet;
    long long llFileOffset = lpHead->m_nBlockMapStartOffset;
    LPBYTE lpPage = CachedPage(llMap);
    for (UINT nStep = 0; lpPage != nullptr && nStep <= m_layout.m_nBlockBufNum; nStep++) {
        LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
        if (lpMap->m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG) break;
        if (lpMap->m_bSaveFlag == 1 || nTimestamp < lpMap->m_nTimestamp) {
            stReq.m_bBlockType = CACHEFLUSH_MAP;
            stReq.m_nBlockNo = (UINT)lpMap->m_nMapNo;
            stReq.m_llCacheBlockOffset = lpPage - m_pCacheBufferAddr;
            stReq.m_llFileBlockOffset = llFileOffset;
            lpMap->m_bSaveFlag = 0;
            pFile->m_pStorageFile->FlushBlock(lpCritSection, &stReq, lpWork);
        }
        llFileOffset = lpMap->m_nNextBlockMapOffset;
        lpPage = CachedPage(lpMap->m_nNextBlockMapOffset_Cache);
    }
    return 0;
}

int CTalvorCacheStorage::FlushFileBlock(LPTALVORCRITICALSECTION lpCritSection)
{
    if (m_pCacheModule == nullptr || m_pCacheBufferHead == nullptr) return 1;
    int nWorkSize = LASTFLUSH_BUFFER;
    LPBYTE lpWork = (LPBYTE)get_aligned_buffer((size_t)nWorkSize);
    if (lpWork == nullptr) return 1;
    LastFlushBlocks(lpCritSection, lpWork, nWorkSize);
    // A file whose chain is broken does not keep the others' heads and
    // maps from their files; the first such result is the pass's.
    int nResult = 0;
    for (int n = 0; n < MAX_FILE_NUM; n++) {
        LPFILEINFO pFile = m_pCacheModule->FileOf((BYTE)n);
        if (!IsCacheModeFile(pFile) || pFile->m_pStorageFile == nullptr) continue;
        int nRet = LastFlushHeadAndMaps(lpCritSection, pFile, lpWork);
        if (nRet != 0 && nResult == 0) nResult = nRet;
    }
    free(lpWork);
    return nResult;
}
