// DbFileCheckCache.cpp — a cache-mode file, read page by page: its head, the
// extended head pages, the map pages and every block they name, and the
// object chains, which run by block number through the map entries.
#include "DbFileCheck.h"

#include "DbFileLayout.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// What the walk keeps of one map entry, by block number.
struct CacheEntry {
    UINT m_nNextBlockNo;
    int m_nID;
};

struct CacheWalk {
    CDbChecker* m_pChecker;
    LPDBFILESUMMARY m_pFile;
    int m_fd;
    long long m_nSize;
    TABLEFILEHEAD m_stHead;       // the index head shares every field read here
    BYTE m_arPage[CACHE_PAGE_SIZE];
    CacheEntry* m_arEntries;      // [block number], 0 unused
    long long m_nEntries;         // block numbers the map pages cover, plus 1
    UINT* m_arFirst;              // first blocks of object chains
    long long m_nFirst;
    long long m_nFirstCap;
};

BOOL ReadAt(CacheWalk& w, long long nOffset, void* lpBuf, size_t nSize)
{
    return nOffset >= 0 && nOffset <= w.m_nSize - (long long)nSize && TalvorReadFull(w.m_fd, lpBuf, nSize, (off_t)nOffset);
}

BOOL IsTable(const CacheWalk& w) { return w.m_pFile->m_bFileType == FILETYPE_TABLE; }

void AddFirst(CacheWalk& w, UINT nBlockNo)
{
    if (nBlockNo == 0) return;
    if (w.m_nFirst == w.m_nFirstCap) {
        long long nCap = w.m_nFirstCap == 0 ? 1024 : w.m_nFirstCap * 2;
        UINT* p = (UINT*)realloc(w.m_arFirst, (size_t)nCap * sizeof(UINT));
        if (p == nullptr) return;
        w.m_arFirst = p;
        w.m_nFirstCap = nCap;
    }
    w.m_arFirst[w.m_nFirst++] = nBlockNo;
}

// The object entries of one page (head or extended): the first block of each
// chain, or the root block of each index.
void TakeObjects(CacheWalk& w, const BYTE* lpEntries, int nCount)
{
    for (int i = 0; i < nCount; i++) {
        if (IsTable(w)) {
            CACHEFILETABLEDEF st;
            memcpy(&st, lpEntries + (size_t)i * sizeof(st), sizeof(st));
            if (st.m_nID == 0) continue;
            w.m_pFile->m_nObjectsInUse++;
            AddFirst(w, st.m_nFullBlockNo);
            AddFirst(w, st.m_nFreeBlockNo);
        } else {
            INDEXROOTSTRUCT st;
            memcpy(&st, lpEntries + (size_t)i * sizeof(st), sizeof(st));
            if (st.m_nIndexID == 0) continue;
            w.m_pFile->m_nObjectsInUse++;
            AddFirst(w, st.m_nBlockNo);
        }
    }
}

void WalkExtendedHeads(CacheWalk& w)
{
    const int nExFlag = IsTable(w) ? TABLEFILEEX_DATAFLAG : INDEXFILEEX_DATAFLAG;
    const int nExCap = IsTable(w) ? TABLEFILEHEADEX_OBJECT_NUM : INDEXFILEHEADEX_OBJECT_NUM;
    long long arSeen[256];
    int nSeen = 0;
    for (long long nOffset = w.m_stHead.m_nNextFileHeadOffset; nOffset != 0;) {
        for (int i = 0; i < nSeen; i++) {
            if (arSeen[i] == nOffset) {
                w.m_pChecker->Report(DBCHECK_LOOP, w.m_pFile, nOffset, "the chain of extended heads comes back to %lld",
                                     nOffset);
                return;
            }
        }
        if (nSeen == 255) {
            w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset, "more than 255 extended heads");
            return;
        }
        arSeen[nSeen++] = nOffset;
        if (nOffset % CACHE_PAGE_SIZE != 0 || !ReadAt(w, nOffset, w.m_arPage, CACHE_PAGE_SIZE)) {
            w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset,
                                 "extended head %d at %lld is not a whole page inside the file", nSeen, nOffset);
            return;
        }
        TABLEFILEHEADEX stEx;
        memcpy(&stEx, w.m_arPage, sizeof(stEx));
        if (stEx.m_nDataFlag != nExFlag) {
            w.m_pChecker->Report(DBCHECK_MARK, w.m_pFile, nOffset, "extended head %d has the mark 0x%08X, not 0x%08X",
                                 nSeen, (UINT)stEx.m_nDataFlag, (UINT)nExFlag);
            return;
        }
        if (stEx.m_bExHeadNo != nSeen)
            w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, nOffset + 6, "extended head %d says it is number %d", nSeen,
                                 stEx.m_bExHeadNo);
        int nCount = stEx.m_nExHeadMaxObjectNum == 0 || stEx.m_nExHeadMaxObjectNum > nExCap ? nExCap
                                                                                             : stEx.m_nExHeadMaxObjectNum;
        TakeObjects(w, w.m_arPage + offsetof(TABLEFILEHEADEX, m_stFileObject), nCount);
        w.m_pFile->m_nExtendedHeads++;
        nOffset = stEx.m_nNextFileHeadOffset;
    }
}

void CheckCacheBlock(CacheWalk& w, UINT nBlockNo, const BASEFILEBLOCKMAP_CACHE& e, long long nEntryOffset)
{
    if (e.m_nBlockSize <= 0 || e.m_nBlockOffset <= 0 || e.m_nBlockOffset < w.m_stHead.m_nBlockStartOffset ||
        e.m_nBlockOffset > w.m_nSize - e.m_nBlockSize) {
        w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nEntryOffset,
                             "the map entry of block %u points at %lld (%d bytes), outside the block area [%lld, %lld)",
                             nBlockNo, (long long)e.m_nBlockOffset, (int)e.m_nBlockSize,
                             (long long)w.m_stHead.m_nBlockStartOffset, w.m_nSize);
        return;
    }
    BASEBLOCKHEAD stBlock;
    if (!ReadAt(w, e.m_nBlockOffset, &stBlock, sizeof(stBlock))) {
        w.m_pChecker->Report(DBCHECK_READ, w.m_pFile, e.m_nBlockOffset, "cannot read block %u: %s", nBlockNo,
                             strerror(errno));
        return;
    }
    if (stBlock.m_nDataFlag == 0 && stBlock.m_nBlockNo == 0) return;
    w.m_pFile->m_nBlocksChecked++;
    if (stBlock.m_nDataFlag != BLOCK_DATAFLAG) {
        w.m_pChecker->Report(DBCHECK_MARK, w.m_pFile, e.m_nBlockOffset, "block %u has the mark 0x%08X, not 0x%08X (QNDB)",
                             nBlockNo, (UINT)stBlock.m_nDataFlag, (UINT)BLOCK_DATAFLAG);
        return;
    }
    if (stBlock.m_nBlockNo != nBlockNo || stBlock.m_bFileNo != w.m_pFile->m_bFileNo ||
        stBlock.m_nBlockSize != e.m_nBlockSize)
        w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, e.m_nBlockOffset,
                             "block %u says it is block %u of file %d with %d bytes; its map entry says %d bytes",
                             nBlockNo, (UINT)stBlock.m_nBlockNo, (int)stBlock.m_bFileNo, stBlock.m_nBlockSize,
                             (int)e.m_nBlockSize);
}

BOOL GrowEntries(CacheWalk& w, long long nCount)
{
    if (nCount <= w.m_nEntries) return TRUE;
    CacheEntry* p = (CacheEntry*)realloc(w.m_arEntries, (size_t)nCount * sizeof(CacheEntry));
    if (p == nullptr) return FALSE;
    memset(p + w.m_nEntries, 0, (size_t)(nCount - w.m_nEntries) * sizeof(CacheEntry));
    w.m_arEntries = p;
    w.m_nEntries = nCount;
    return TRUE;
}

void TakeMapPage(CacheWalk& w, long long nOffset, int nMapNo, const BASEFILEBLOCKMAPHEAD_CACHE& stMap)
{
    const int nPerMap = w.m_stHead.m_nMaxBlockMapNum;
    if (!GrowEntries(w, (long long)nMapNo * nPerMap + 1)) return;
    for (int i = 0; i < stMap.m_nBlockMapNum; i++) {
        long long nEntryOffset = nOffset + (long long)sizeof(BASEFILEBLOCKMAPHEAD_CACHE) +
                                 (long long)i * (long long)sizeof(BASEFILEBLOCKMAP_CACHE);
        BASEFILEBLOCKMAP_CACHE e;
        memcpy(&e, w.m_arPage + (nEntryOffset - nOffset), sizeof(e));
        UINT nBlockNo = (UINT)((long long)(nMapNo - 1) * nPerMap + i + 1);
        w.m_pFile->m_nMapEntries++;
        if (e.m_nID == 0) continue;
        if (e.m_nBlockNo != nBlockNo)
            w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, nEntryOffset, "entry %d of map page %d says block %u, not %u",
                                 i, nMapNo, (UINT)e.m_nBlockNo, nBlockNo);
        w.m_arEntries[nBlockNo].m_nID = e.m_nID;
        w.m_arEntries[nBlockNo].m_nNextBlockNo = e.m_nNextBlockNo;
        CheckCacheBlock(w, nBlockNo, e, nEntryOffset);
    }
}

void WalkMapPages(CacheWalk& w)
{
    const long long nMaxPages = w.m_nSize / CACHE_PAGE_SIZE + 1;
    long long nPrev = 0;
    int nMapNo = 0;
    for (long long nOffset = w.m_stHead.m_nBlockMapStartOffset; nOffset != 0;) {
        nMapNo++;
        // Map pages lie in allocation order: a step back is a loop.
        if (nOffset <= nPrev || nMapNo > nMaxPages) {
            w.m_pChecker->Report(DBCHECK_LOOP, w.m_pFile, nOffset, "the chain of map pages comes back to %lld", nOffset);
            return;
        }
        nPrev = nOffset;
        if (nOffset % CACHE_PAGE_SIZE != 0 || !ReadAt(w, nOffset, w.m_arPage, CACHE_PAGE_SIZE)) {
            w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset, "map page %d at %lld is not a whole page inside the file",
                                 nMapNo, nOffset);
            return;
        }
        BASEFILEBLOCKMAPHEAD_CACHE stMap;
        memcpy(&stMap, w.m_arPage, sizeof(stMap));
        if (stMap.m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG) {
            w.m_pChecker->Report(DBCHECK_MARK, w.m_pFile, nOffset, "map page %d has the mark 0x%08X, not 0x%08X (QNDM)",
                                 nMapNo, (UINT)stMap.m_nDataFlag, (UINT)BLOCKMAP_CACHE_DATAFLAG);
            return;
        }
        if (stMap.m_nMapNo != nMapNo)
            w.m_pChecker->Report(DBCHECK_HEAD, w.m_pFile, nOffset + 20, "map page %d says it is number %d", nMapNo,
                                 (int)stMap.m_nMapNo);
        if (stMap.m_nBlockMapNum < 0 || stMap.m_nBlockMapNum > w.m_stHead.m_nMaxBlockMapNum) {
            w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, nOffset + 4, "map page %d claims %d entries; it holds %d",
                                 nMapNo, (int)stMap.m_nBlockMapNum, w.m_stHead.m_nMaxBlockMapNum);
            return;
        }
        w.m_pFile->m_nMapBlocks++;
        TakeMapPage(w, nOffset, nMapNo, stMap);
        nOffset = stMap.m_nNextBlockMapOffset;
    }
}

void WalkChains(CacheWalk& w)
{
    BYTE* arVisit = (BYTE*)calloc((size_t)(w.m_nEntries > 0 ? w.m_nEntries : 1), 1);
    if (arVisit == nullptr) return;
    for (long long k = 0; k < w.m_nFirst; k++) {
        UINT nFirst = w.m_arFirst[k];
        memset(arVisit, 0, (size_t)(w.m_nEntries > 0 ? w.m_nEntries : 1));
        for (UINT n = nFirst; n != 0;) {
            if ((long long)n >= w.m_nEntries || w.m_arEntries[n].m_nID == 0) {
                w.m_pChecker->Report(DBCHECK_BOUND, w.m_pFile, -1,
                                     "the chain that starts at block %u reaches block %u, which no map entry holds",
                                     nFirst, n);
                break;
            }
            if (arVisit[n]) {
                w.m_pChecker->Report(DBCHECK_LOOP, w.m_pFile, -1, "the chain that starts at block %u comes back to block %u",
                                     nFirst, n);
                break;
            }
            arVisit[n] = 1;
            n = w.m_arEntries[n].m_nNextBlockNo;
        }
    }
    free(arVisit);
}

void CheckCacheHead(CacheWalk& w, USHORT usGuid)
{
    const TABLEFILEHEAD& h = w.m_stHead;
    LPDBFILESUMMARY p = w.m_pFile;
    if (h.m_nDataFlag != FileHeadDataFlag(p->m_bFileType))
        w.m_pChecker->Report(DBCHECK_MARK, p, 0, "the head's mark is 0x%08X, not 0x%08X for a %s file", (UINT)h.m_nDataFlag,
                             (UINT)FileHeadDataFlag(p->m_bFileType), DbFileTypeName(p->m_bFileType));
    if (h.m_bFileNo != p->m_bFileNo || h.m_bFileType != p->m_bFileType)
        w.m_pChecker->Report(DBCHECK_HEAD, p, 12, "the head names file %d of type %d; the list says file %d of type %d",
                             h.m_bFileNo, h.m_bFileType, p->m_bFileNo, p->m_bFileType);
    if (h.m_usDatabaseGuid != usGuid)
        w.m_pChecker->Report(DBCHECK_HEAD, p, 16, "the head belongs to database %u, not %u", (UINT)h.m_usDatabaseGuid,
                             (UINT)usGuid);
    if (h.m_nFileHeaderSize != CACHE_PAGE_SIZE || h.m_nBlockMapSize != CACHE_PAGE_SIZE ||
        h.m_nMaxBlockMapNum <= 0 || h.m_nMaxBlockMapNum > CACHE_MAX_BLOCKMAP_NUM)
        w.m_pChecker->Report(DBCHECK_HEAD, p, 38, "head size %d, map size %d and %d entries a map are not this mode's %d, %d, %d",
                             h.m_nFileHeaderSize, h.m_nBlockMapSize, h.m_nMaxBlockMapNum, CACHE_PAGE_SIZE, CACHE_PAGE_SIZE,
                             CACHE_MAX_BLOCKMAP_NUM);
    if (h.m_nFileTotalSize != w.m_nSize)
        w.m_pChecker->Report(DBCHECK_BOUND, p, 30, "the head gives a size of %lld bytes, the file has %lld",
                             (long long)h.m_nFileTotalSize, w.m_nSize);
    if (h.m_nFileFreeMemoryOffset < h.m_nBlockStartOffset || h.m_nFileFreeMemoryOffset > w.m_nSize)
        w.m_pChecker->Report(DBCHECK_BOUND, p, 78, "the free offset %lld lies outside the block area [%lld, %lld]",
                             (long long)h.m_nFileFreeMemoryOffset, (long long)h.m_nBlockStartOffset, w.m_nSize);
}

void FillCacheSummary(LPDBFILESUMMARY p, const TABLEFILEHEAD& h)
{
    p->m_bHeadRead = TRUE;
    p->m_nDataFlag = h.m_nDataFlag;
    p->m_bHeadFileNo = h.m_bFileNo;
    p->m_bHeadFileType = h.m_bFileType;
    p->m_usDatabaseGuid = h.m_usDatabaseGuid;
    p->m_nTimestamp = h.m_nTimestamp;
    p->m_nFileTotalSize = h.m_nFileTotalSize;
    p->m_nFreeOffset = h.m_nFileFreeMemoryOffset;
    p->m_nBlockNum = h.m_nBlockNum;
    p->m_nMaxObjectNum = (int)h.m_nMaxObjectNum;
    p->m_nCurrentObjectNum = (int)h.m_nCurrentObjectNum;
    p->m_nHeaderSize = h.m_nFileHeaderSize;
    p->m_nBlockMapSize = h.m_nBlockMapSize;
    p->m_nBlockMapStartOffset = h.m_nBlockMapStartOffset;
    p->m_nBlockStartOffset = h.m_nBlockStartOffset;
    p->m_nPersistentTimestamp = h.m_nPersistentTimestamp;
}

} // namespace

void DbCheckCacheFile(CDbChecker* pChecker, LPDBFILESUMMARY pFile, int fd, USHORT usGuid, BOOL bWalk)
{
    CacheWalk* pWalk = (CacheWalk*)calloc(1, sizeof(CacheWalk));
    if (pWalk == nullptr) return;
    CacheWalk& w = *pWalk;
    w.m_pChecker = pChecker;
    w.m_pFile = pFile;
    w.m_fd = fd;
    w.m_nSize = pFile->m_nDiskSize;
    if (!ReadAt(w, 0, w.m_arPage, CACHE_PAGE_SIZE)) {
        pChecker->Report(DBCHECK_HEAD, pFile, 0, "cannot read a head page of %d bytes (the file has %lld)", CACHE_PAGE_SIZE,
                         w.m_nSize);
        free(pWalk);
        return;
    }
    memcpy(&w.m_stHead, w.m_arPage, sizeof(w.m_stHead));
    FillCacheSummary(pFile, w.m_stHead);
    CheckCacheHead(w, usGuid);
    if (bWalk && w.m_stHead.m_nMaxBlockMapNum > 0 && w.m_stHead.m_nMaxBlockMapNum <= CACHE_MAX_BLOCKMAP_NUM) {
        int nHeadCap = IsTable(w) ? TABLEFILEHEAD_OBJECT_NUM : INDEXFILEHEAD_OBJECT_NUM;
        int nCount = w.m_stHead.m_nHeadMaxObjectNum == 0 || w.m_stHead.m_nHeadMaxObjectNum > nHeadCap
                         ? nHeadCap
                         : w.m_stHead.m_nHeadMaxObjectNum;
        size_t nObjects = IsTable(w) ? offsetof(TABLEFILEHEAD, m_stFileObject) : offsetof(INDEXFILEHEAD, m_stRootMap);
        TakeObjects(w, w.m_arPage + nObjects, nCount);
        WalkExtendedHeads(w);
        WalkMapPages(w);
        WalkChains(w);
    }
    free(w.m_arEntries);
    free(w.m_arFirst);
    free(pWalk);
}
