// TalvorCacheChain.cpp — the chains of the cache map and the load groups.
//
// A chain is a run of 32-bit links, one per cache block, 0 at its end. The
// engine moves blocks between chains while it runs, so every link read here
// is bounded to the block area and every walk to the number of blocks: a
// broken chain is reported, never followed out of the segment.
#include "TalvorCacheStorage.h"

#include "TalvorTrace.h"

#include <cstring>
#include <new>

// The chain code reads both kinds of head through the table layouts.
static_assert(offsetof(TABLEFILEHEAD, m_nCacheStartOffset) == offsetof(INDEXFILEHEAD, m_nCacheStartOffset));
static_assert(offsetof(TABLEFILEHEADEX, m_nNextFileHeadCacheOffset) ==
              offsetof(INDEXFILEHEADEX, m_nNextFileHeadCacheOffset));

UINT CTalvorCacheStorage::GetLink(UINT nBlockNo) const
{
    return *(volatile UINT*)(m_pCacheBufferAddr + CacheLinkOffset(nBlockNo));
}

void CTalvorCacheStorage::SetLink(UINT nBlockNo, UINT nLink)
{
    *(volatile UINT*)(m_pCacheBufferAddr + CacheLinkOffset(nBlockNo)) = nLink;
}

// A number that names a cache block proper: not a head or map block, not
// past the last.
BOOL CTalvorCacheStorage::IsCacheBlock(UINT nBlockNo) const
{
    return nBlockNo >= m_layout.m_nFirstFreeNo && nBlockNo <= m_layout.m_nBlockBufNum;
}

// A cache offset at which a page of a file's chain may stand.
BOOL CTalvorCacheStorage::IsPageOffset(long long llOffset) const
{
    if (llOffset <= 0 || llOffset % CACHE_BLOCK_SIZE != 0) return FALSE;
    long long llBlock = llOffset / CACHE_BLOCK_SIZE;
    return llBlock <= (long long)m_layout.m_nBlockBufNum && IsCacheBlock((UINT)llBlock);
}

// Takes the first block of the free chain; its link is cleared.
int CTalvorCacheStorage::PopFreeBlock(UINT& nBlockNo)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    UINT nFirst = (UINT)h->m_nFreeNo;
    if (nFirst == 0) return CACHE_RESULT_NOFREEBLOCK;
    UINT nNext = IsCacheBlock(nFirst) ? GetLink(nFirst) : 0;
    if (!IsCacheBlock(nFirst) || (nNext != 0 && !IsCacheBlock(nNext))) {
        Trace("LoadFile2Cache", 0, 60002001,
              TALVOR_TEXT("缓存空闲链已损坏，块号：%u，下一块：%u", "The free chain of the cache is broken, block: %u, next: %u"),
              nFirst, nNext);
        return CACHE_RESULT_BADCHAIN;
    }
    h->m_nFreeNo = (int)nNext;
    SetLink(nFirst, 0);
    nBlockNo = nFirst;
    return 0;
}

// The last block of the chain that begins at nFirst.
int CTalvorCacheStorage::FindChainEnd(UINT nFirst, UINT& nLast) const
{
    UINT nBlock = nFirst;
    for (UINT nSteps = 0; nSteps <= m_layout.m_nBlockBufNum; nSteps++) {
        if (!IsCacheBlock(nBlock)) break;
        UINT nNext = GetLink(nBlock);
        if (nNext == 0) {
            nLast = nBlock;
            return 0;
        }
        nBlock = nNext;
    }
    Trace("LoadFile2Cache", 0, 60002002,
          TALVOR_TEXT("缓存中文件的块链已损坏，首块：%u，坏块：%u", "A file's chain in the cache is broken, first block: %u, bad block: %u"),
          nFirst, nBlock);
    return CACHE_RESULT_BADCHAIN;
}

// The first nWanted blocks of the chain at nFirst; nFound may be fewer.
int CTalvorCacheStorage::CollectChain(UINT nFirst, UINT* pBlocks, int nWanted, int& nFound) const
{
    nFound = 0;
    UINT nBlock = nFirst;
    while (nBlock != 0 && nFound < nWanted) {
        if (!IsCacheBlock(nBlock)) return CACHE_RESULT_BADCHAIN;
        pBlocks[nFound++] = nBlock;
        nBlock = GetLink(nBlock);
    }
    return 0;
}

int CTalvorCacheStorage::LoadFile2Cache(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, long long& llCacheOffset)
{
    CTalvorCriticalSectionPtr lock(&m_csCache, lpCritSection);
    LPCacheBufferHead h = m_pCacheBufferHead;
    if (h->m_nFreeNo == 0) return CACHE_RESULT_NOFREEBLOCK;
    // Find where to hang the block before taking it, so that a broken file
    // chain leaves the free chain as it was.
    UINT nFirst = h->m_nFileInfoNo[bFileNo];
    UINT nLast = 0;
    if (nFirst != 0 && FindChainEnd(nFirst, nLast) != 0) return CACHE_RESULT_BADCHAIN;
    UINT nBlock = 0;
    int nResult = PopFreeBlock(nBlock);
    if (nResult != 0) return nResult;
    if (nFirst == 0) {
        h->m_nFileInfoNo[bFileNo] = nBlock;
        nResult = InitCacheLoadSlot(bFileNo);
        if (nResult != 0) {
            // No load group: the file is not in the cache after all, and its
            // block goes back to the free chain.
            h->m_nFileInfoNo[bFileNo] = 0;
            SetLink(nBlock, (UINT)h->m_nFreeNo);
            h->m_nFreeNo = (int)nBlock;
            return nResult;
        }
    } else {
        SetLink(nLast, nBlock);
    }
    llCacheOffset = CacheBlockOffset(nBlock);
    return 0;
}

// Gives file bFileNo a load group: a recycled one, one from the head
// blocks while 64 slots are left there, else one from a cache block.
int CTalvorCacheStorage::InitCacheLoadSlot(BYTE bFileNo)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    if (h->m_bRecycleFileNo != 0) return TakeRecycledGroup(bFileNo);
    int nValid = h->m_nValidLoadSlotNum;
    if (nValid < 0 || nValid > m_layout.m_nLoadSlotNum) {
        Trace("InitCacheLoadSlot", 0, 60002005,
              TALVOR_TEXT("缓存头中剩余的加载槽数越界：%d，总数：%d", "The cache head's count of load slots left is out of bounds: %d of %d"),
              nValid, m_layout.m_nLoadSlotNum);
        return CACHE_RESULT_BADCHAIN;
    }
    memset(&h->m_stFileCacheLoadInfo[bFileNo], 0, sizeof(stu_FileCacheLoadInfo));
    if (nValid >= CACHE_LOADGROUP_SLOTS) {
        TakeHeadAreaGroup(bFileNo, nValid);
        return 0;
    }
    return TakeBlockGroup(bFileNo);
}

int CTalvorCacheStorage::TakeRecycledGroup(BYTE bFileNo)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    BYTE r = h->m_bRecycleFileNo;
    stu_FileCacheLoadInfo old = h->m_stFileCacheLoadInfo[r];
    if (!IsGroupBounded(old.m_nCacheLoadHeadOffset, old.m_bLoadSlotNum)) {
        Trace("InitCacheLoadSlot", 0, 60002003,
              TALVOR_TEXT("可回收的加载组越界，文件号：%d，偏移：%lld，槽数：%d",
                          "A recycled load group lies out of bounds, file number: %d, offset: %lld, slots: %d"),
              (int)r, old.m_nCacheLoadHeadOffset, (int)old.m_bLoadSlotNum);
        return CACHE_RESULT_BADCHAIN;
    }
    memset(&h->m_stFileCacheLoadInfo[r], 0, sizeof(stu_FileCacheLoadInfo));
    h->m_bRecycleFileNo = old.m_bNextRecycleFileNo;
    LPstu_FileCacheLoadInfo g = &h->m_stFileCacheLoadInfo[bFileNo];
    memset(g, 0, sizeof(*g));
    g->m_bLoadSlotNum = old.m_bLoadSlotNum;
    g->m_nCacheLoadHeadOffset = old.m_nCacheLoadHeadOffset;
    return 0;
}

// 64 slots, or all that are left when fewer than 128 are: the last group
// takes the rest, which is what keeps it below 128.
void CTalvorCacheStorage::TakeHeadAreaGroup(BYTE bFileNo, int nValid)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    int nSlots = nValid < 2 * CACHE_LOADGROUP_SLOTS ? nValid : CACHE_LOADGROUP_SLOTS;
    LPstu_FileCacheLoadInfo g = &h->m_stFileCacheLoadInfo[bFileNo];
    g->m_bLoadSlotNum = (BYTE)nSlots;
    // The slot count of the layout, not the head's copy: the offset must
    // stay inside the area whatever the shared head says.
    g->m_nCacheLoadHeadOffset = CACHE_LOAD_OFFSET + (long long)(m_layout.m_nLoadSlotNum - nValid) * 32;
    h->m_nValidLoadSlotNum = nValid - nSlots;
}

int CTalvorCacheStorage::TakeBlockGroup(BYTE bFileNo)
{
    LPCacheBufferHead h = m_pCacheBufferHead;
    if (h->m_nLoadCacheNo == 0) {
        UINT nBlock = 0;
        int nResult = PopFreeBlock(nBlock);
        if (nResult != 0) return nResult;
        h->m_nLoadCacheNo = nBlock;
        h->m_nLoadCacheOffset = 0;
    }
    UINT nOffset = h->m_nLoadCacheOffset;
    if (!IsCacheBlock(h->m_nLoadCacheNo) || nOffset >= (UINT)CACHE_BLOCK_SIZE || nOffset % 32 != 0) {
        Trace("InitCacheLoadSlot", 0, 60002004,
              TALVOR_TEXT("加载槽缓存块越界，块号：%u，偏移：%u", "The load slot block lies out of bounds, block: %u, offset: %u"),
              h->m_nLoadCacheNo, nOffset);
        return CACHE_RESULT_BADCHAIN;
    }
    int nLeft = (int)((CACHE_BLOCK_SIZE - nOffset) / 32);
    LPstu_FileCacheLoadInfo g = &h->m_stFileCacheLoadInfo[bFileNo];
    g->m_nCacheLoadHeadOffset = CacheBlockOffset(h->m_nLoadCacheNo) + nOffset;
    if (nLeft >= 2 * CACHE_LOADGROUP_SLOTS) {
        g->m_bLoadSlotNum = (BYTE)CACHE_LOADGROUP_SLOTS;
        h->m_nLoadCacheOffset = nOffset + CACHE_LOADGROUP_SLOTS * 32;
    } else {
        g->m_bLoadSlotNum = (BYTE)nLeft;
        h->m_nLoadCacheNo = 0;
        h->m_nLoadCacheOffset = 0;
    }
    return 0;
}

// A group of nSlots slots at llOffset lies wholly in the head blocks' slot
// area or wholly in one cache block.
BOOL CTalvorCacheStorage::IsGroupBounded(long long llOffset, int nSlots) const
{
    if (nSlots < 1 || nSlots > CACHE_LOADGROUP_MAX_SLOTS || llOffset <= 0) return FALSE;
    long long llEnd = llOffset + (long long)nSlots * 32;
    if (llOffset >= CACHE_LOAD_OFFSET && llEnd <= m_layout.m_llLoadEnd)
        return (llOffset - CACHE_LOAD_OFFSET) % 32 == 0;
    long long llBlock = llOffset / CACHE_BLOCK_SIZE;
    if (llBlock > (long long)m_layout.m_nBlockBufNum || !IsCacheBlock((UINT)llBlock)) return FALSE;
    return llOffset % 32 == 0 && llEnd <= CacheBlockOffset((UINT)llBlock) + CACHE_BLOCK_SIZE;
}

int CTalvorCacheStorage::GetCacheLoadSlot(BYTE bFileNo, LPCacheBufferBlockOperate& lpCacheLoadHead, int& nNum)
{
    stu_FileCacheLoadInfo g = m_pCacheBufferHead->m_stFileCacheLoadInfo[bFileNo];
    if (g.m_nCacheLoadHeadOffset == 0 || g.m_bStatus != 0) return 1;
    if (!IsGroupBounded(g.m_nCacheLoadHeadOffset, g.m_bLoadSlotNum)) return 1;
    lpCacheLoadHead = (LPCacheBufferBlockOperate)(m_pCacheBufferAddr + g.m_nCacheLoadHeadOffset);
    nNum = g.m_bLoadSlotNum;
    return 0;
}

int CTalvorCacheStorage::NewFile2Cache(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, BYTE bFileType,
                                       LPBYTE lpBuf, int nExHeadNum)
{
    if (lpBuf == nullptr || !IsCacheFileType(bFileType) || nExHeadNum < 0 || nExHeadNum > MAX_FILE_NUM) return 1;
    int nWanted = nExHeadNum + 2;
    UINT* pBlocks = new (std::nothrow) UINT[nWanted];
    if (pBlocks == nullptr) return 1;
    int nFound = 0;
    {
        CTalvorCriticalSectionPtr lock(&m_csCache, lpCritSection);
        int nResult = CollectChain(m_pCacheBufferHead->m_nFileInfoNo[bFileNo], pBlocks, nWanted, nFound);
        if (nResult != 0 || nFound < nWanted) {
            delete[] pBlocks;
            return nResult != 0 ? nResult : CACHE_RESULT_NOFREEBLOCK;
        }
    }
    // Pages behind the head first, each naming the next by cache offset;
    // the head last, so that the chain is whole before the head that starts
    // it appears.
    for (int i = 1; i <= nExHeadNum; i++) {
        LPBYTE pPage = m_pCacheBufferAddr + CacheBlockOffset(pBlocks[i]);
        memcpy(pPage, lpBuf + (size_t)i * CACHE_PAGE_SIZE, CACHE_PAGE_SIZE);
        // Table and index extended pages keep the link at the same place.
        ((LPTABLEFILEHEADEX)pPage)->m_nNextFileHeadCacheOffset = CacheBlockOffset(pBlocks[i + 1]);
    }
    memcpy(m_pCacheBufferAddr + CacheBlockOffset(pBlocks[nExHeadNum + 1]),
           lpBuf + (size_t)(nExHeadNum + 1) * CACHE_PAGE_SIZE, CACHE_PAGE_SIZE);
    TalvorFlushCPU4Write();
    LPBYTE pHead = m_pCacheBufferAddr + CacheBlockOffset(pBlocks[0]);
    memcpy(pHead, lpBuf, CACHE_PAGE_SIZE);
    ((LPTABLEFILEHEAD)pHead)->m_nCacheStartOffset = CacheBlockOffset(pBlocks[1]);
    TalvorFlushCPU4Write();
    delete[] pBlocks;
    return InitFileLoadThreadAndEvent(bFileNo);
}

int CTalvorCacheStorage::WalkToFirstMap(long long llCacheStartOffset, long long llNextFileHeadOffset, int nExMark,
                                        long long& llMapOffset) const
{
    if (llCacheStartOffset == 0) return CACHE_RESULT_NOCHAIN;
    long long llOffset = llCacheStartOffset;
    // Without extended pages the next page must be the map; with them, at
    // most one page per cache block can stand between.
    UINT nMaxSteps = llNextFileHeadOffset == 0 ? 1 : m_layout.m_nBlockBufNum;
    for (UINT nStep = 0; nStep < nMaxSteps; nStep++) {
        if (!IsPageOffset(llOffset)) return CACHE_RESULT_BADCHAIN;
        int nMark = *(const int*)(m_pCacheBufferAddr + llOffset);
        if (nMark == BLOCKMAP_CACHE_DATAFLAG) {
            llMapOffset = llOffset;
            return 0;
        }
        if (llNextFileHeadOffset == 0 || nMark != nExMark) return CACHE_RESULT_BADCHAIN;
        llOffset = ((const TABLEFILEHEADEX*)(m_pCacheBufferAddr + llOffset))->m_nNextFileHeadCacheOffset;
    }
    return CACHE_RESULT_BADCHAIN;
}

int CTalvorCacheStorage::GetFirstTableMapCacheAddr(LPTABLEFILEHEAD lpBaseFileHead, LPBYTE,
                                                   long long& nBlockMapCacheStartOffset)
{
    if (lpBaseFileHead == nullptr) return CACHE_RESULT_BADCHAIN;
    return WalkToFirstMap(lpBaseFileHead->m_nCacheStartOffset, lpBaseFileHead->m_nNextFileHeadOffset,
                          TABLEFILEEX_DATAFLAG, nBlockMapCacheStartOffset);
}

int CTalvorCacheStorage::GetFirstIndexMapCacheAddr(LPINDEXFILEHEAD lpFileHead, LPBYTE,
                                                   long long& nBlockMapCacheStartOffset)
{
    if (lpFileHead == nullptr) return CACHE_RESULT_BADCHAIN;
    return WalkToFirstMap(lpFileHead->m_nCacheStartOffset, lpFileHead->m_nNextFileHeadOffset, INDEXFILEEX_DATAFLAG,
                          nBlockMapCacheStartOffset);
}

int CTalvorCacheStorage::ExpandFile2Cache(BYTE bFileNo, long long llFileExpandSize, long long llTimestamp)
{
    UINT nHead = m_pCacheBufferHead->m_nFileInfoNo[bFileNo];
    if (llFileExpandSize <= 0 || !IsCacheBlock(nHead)) return 1;
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(m_pCacheBufferAddr + CacheBlockOffset(nHead));
    int nMark = lpHead->m_nDataFlag;
    if ((nMark != TABLEFILE_DATAFLAG && nMark != INDEXFILE_DATAFLAG) || lpHead->m_bFileNo != bFileNo) {
        Trace("ExpandFile2Cache", 0, 60002006,
              TALVOR_TEXT("缓存中的文件头无效，文件号：%d，标志：%08X", "The file head in the cache is not valid, file number: %d, mark: %08X"),
              (int)bFileNo, (UINT)nMark);
        return 1;
    }
    lpHead->m_nFileTotalSize = lpHead->m_nFileTotalSize + llFileExpandSize;
    lpHead->m_nTimestamp = llTimestamp;
    TalvorFlushCPU4Write();
    lpHead->m_bSaveFlag = SAVEFLAG_DIRTY;
    return 0;
}
