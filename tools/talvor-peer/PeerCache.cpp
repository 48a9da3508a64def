// PeerCache.cpp — the engine's side of the shared block cache: the segment,
// the chains, its own block lookup and the allocation of new blocks.
// Loads and flush entries: PeerCacheQueues.cpp.
#include "PeerCache.h"

#include "PeerImage.h"

#include <cstring>
#include <set>
#include <sys/shm.h>
#include <unistd.h>

namespace talvorpeer {

namespace {

const int ATTACH_POLL_US = 10000;
// Entries that fit behind the head of a map page.
const int MAP_ENTRIES_FIT =
    (CACHE_PAGE_SIZE - (int)sizeof(BASEFILEBLOCKMAPHEAD_CACHE)) / (int)sizeof(BASEFILEBLOCKMAP_CACHE);

unsigned long long Mix(unsigned long long x)
{
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDULL;
    x ^= x >> 33;
    x *= 0xC4CEB9FE1A85EC53ULL;
    x ^= x >> 33;
    return x;
}

} // namespace

void PeerCacheMakeBlock(LPBYTE lpBlock, BYTE bFileNo, BYTE bFileType, UINT nBlockNo, long long llTs)
{
    memset(lpBlock, 0, sizeof(BLOCKHEAD));
    unsigned long long nSeed = Mix(((unsigned long long)bFileNo << 56) ^ ((unsigned long long)nBlockNo << 24) ^
                                   (unsigned long long)llTs);
    // The head is not a multiple of 8 bytes: the last piece is cut short,
    // never written past the block.
    for (int i = (int)sizeof(BLOCKHEAD); i < PEERCACHE_BLOCK_SIZE; i += 8) {
        nSeed = Mix(nSeed + 0x9E3779B97F4A7C15ULL);
        int nPiece = PEERCACHE_BLOCK_SIZE - i < 8 ? PEERCACHE_BLOCK_SIZE - i : 8;
        memcpy(lpBlock + i, &nSeed, (size_t)nPiece);
    }
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)lpBlock;
    lpHead->m_nBlockNo = nBlockNo;
    TalvorStoreShared(&lpHead->m_nTimestamp, llTs);
    // In use by the engine: the disk copy must not keep these.
    lpHead->m_nLockTimestamp = llTs;
    TalvorStoreShared(&lpHead->m_bStatus, 1);
    lpHead->m_bThreadNum = 2;
    lpHead->m_nBlockSize = PEERCACHE_BLOCK_SIZE;
    lpHead->m_nBlockHeadSize = (int)sizeof(BLOCKHEAD);
    lpHead->m_bFileNo = bFileNo;
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    lpHead->m_bNodeType = bFileType == FILETYPE_INDEX ? (BYTE)(1 + nBlockNo % 2) : 0;
    lpHead->m_bFlushCode = PeerCacheFlushCode(llTs);
    lpHead->m_nObjectID = 1;
    lpHead->m_nInnerMaxNo = 1;
    lpHead->m_nDataFlag = BLOCK_DATAFLAG;
}

void PeerCacheDiskImage(LPBYTE lpBlock)
{
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)lpBlock;
    TalvorStoreShared(&lpHead->m_bSaveFlag, 0);
    TalvorStoreShared(&lpHead->m_bFlushFlag, 0);
    lpHead->m_nLockTimestamp = 0;
    lpHead->m_bStatus = 0;
    lpHead->m_bThreadNum = 0;
}

CPeerCache::~CPeerCache()
{
    for (auto& it : m_mapSems) CloseEvent(it.second);
    if (m_lpBase != nullptr) shmdt(m_lpBase);
}

bool CPeerCache::Attach(int nWaitMs)
{
    for (int nWaited = 0;; nWaited += ATTACH_POLL_US / 1000) {
        if (m_lpBase == nullptr) {
            int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
            struct shmid_ds ds;
            if (nId >= 0 && shmctl(nId, IPC_STAT, &ds) == 0 && ds.shm_segsz >= sizeof(CacheBufferHead)) {
                void* p = shmat(nId, nullptr, 0);
                if (p != (void*)-1) {
                    m_lpBase = (LPBYTE)p;
                    m_llSize = (long long)ds.shm_segsz;
                }
            }
        }
        if (m_lpBase != nullptr && TalvorLoadShared(&Head()->m_bStatus) == CACHESTATUS_READY) return CheckHead();
        if (nWaited >= nWaitMs) break;
        usleep(ATTACH_POLL_US);
    }
    m_strError = m_lpBase == nullptr ? "no cache segment" : "the cache did not become ready";
    return false;
}

// The head must describe the segment it stands in, as the layout of that
// size gives it; else no offset of it can be trusted.
bool CPeerCache::CheckHead()
{
    LPCacheBufferHead lpHead = Head();
    if (lpHead->m_nDataFlag != CACHEBUFFER_DATAFLAG || lpHead->m_llCacheTotalSize != m_llSize ||
        !CacheComputeLayout(m_llSize, lpHead->m_nFIFOSize, m_layout) ||
        lpHead->m_nBlockBufNum != m_layout.m_nBlockBufNum || lpHead->m_llCacheFIFOOffset != m_layout.m_llFIFOOffset ||
        lpHead->m_llCacheFlashBackOffset != m_layout.m_llFlashBackOffset ||
        lpHead->m_nCacheFlushOffset != CACHE_FLUSH_OFFSET || lpHead->m_nCacheIndexFlushOffset != CACHE_INDEXFLUSH_OFFSET ||
        lpHead->m_nCacheFlushFileOffset != CACHE_FLUSHFILE_OFFSET ||
        lpHead->m_nCacheFlushTableFileOffset != CACHE_FLUSHTSFILE_OFFSET ||
        m_layout.m_llFlashBackOffset + CACHE_FLASHBACK_SIZE > m_llSize) {
        m_strError = "the cache head does not fit its segment";
        return false;
    }
    return true;
}

bool CPeerCache::IsBlockNo(long long nBlockNo) const
{
    return nBlockNo >= (long long)m_layout.m_nFirstFreeNo && nBlockNo <= (long long)m_layout.m_nBlockBufNum;
}

bool CPeerCache::IsBlockOffset(long long llOffset) const
{
    return llOffset > 0 && llOffset % CACHE_BLOCK_SIZE == 0 && IsBlockNo(llOffset / CACHE_BLOCK_SIZE) &&
           llOffset + CACHE_BLOCK_SIZE <= m_layout.m_llFIFOOffset;
}

UINT* CPeerCache::Link(UINT nBlockNo) const { return (UINT*)(m_lpBase + CacheLinkOffset(nBlockNo)); }

LPBYTE CPeerCache::BlockAt(long long llCache) const { return IsBlockOffset(llCache) ? m_lpBase + llCache : nullptr; }

bool CPeerCache::TakeFreeBlock(long long& llCache)
{
    LPCacheBufferHead lpHead = Head();
    int nFirst = TalvorLoadShared(&lpHead->m_nFreeNo);
    if (nFirst == 0 || !IsBlockNo(nFirst)) return false;
    UINT nNext = *Link((UINT)nFirst);
    if (nNext != 0 && !IsBlockNo(nNext)) return false;
    *Link((UINT)nFirst) = 0;
    PeerFence();
    TalvorStoreShared(&lpHead->m_nFreeNo, (int)nNext);
    llCache = CacheBlockOffset((UINT)nFirst);
    return true;
}

bool CPeerCache::OpenFile(BYTE bFileNo, BYTE bFileType, const std::string& strPath, PeerCacheFile& file)
{
    file = PeerCacheFile();
    file.m_bFileNo = bFileNo;
    file.m_bFileType = bFileType;
    file.m_strPath = strPath;
    UINT nHeadNo = Head()->m_nFileInfoNo[bFileNo];
    if (!IsBlockNo(nHeadNo)) {
        m_strError = "file " + std::to_string(bFileNo) + " has no head page in the cache";
        return false;
    }
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(m_lpBase + CacheBlockOffset(nHeadNo));
    int nMark = bFileType == FILETYPE_TABLE ? TABLEFILE_DATAFLAG : INDEXFILE_DATAFLAG;
    if (lpHead->m_nDataFlag != nMark || lpHead->m_bFileNo != bFileNo || lpHead->m_bFileType != bFileType ||
        lpHead->m_nMaxBlockMapNum <= 0 || lpHead->m_nMaxBlockMapNum > MAP_ENTRIES_FIT) {
        m_strError = "file " + std::to_string(bFileNo) + ": the cached head page is not its head";
        return false;
    }
    file.m_lpHead = lpHead;
    if (!FindFirstMap(file)) return false;
    BuildLookup(file);
    return true;
}

// Along the head's chain of cache offsets, through the extended pages, to
// the first map block; a chain that is too long is a loop.
bool CPeerCache::FindFirstMap(PeerCacheFile& file)
{
    int nExMark = file.m_bFileType == FILETYPE_TABLE ? TABLEFILEEX_DATAFLAG : INDEXFILEEX_DATAFLAG;
    long long llNext = file.m_lpHead->m_nCacheStartOffset;
    for (int nStep = 0; nStep <= 256; nStep++) {
        LPBYTE lpPage = BlockAt(llNext);
        if (lpPage == nullptr) break;
        int nMark = *(volatile int*)lpPage;
        if (nMark == BLOCKMAP_CACHE_DATAFLAG) {
            file.m_lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
            file.m_llMapCache = llNext;
            int nUsed = file.m_lpMap->m_nBlockMapNum;
            if (file.m_lpMap->m_nMapNo != 1 || nUsed < 0 || nUsed > file.m_lpHead->m_nMaxBlockMapNum) break;
            return true;
        }
        if (nMark != nExMark) break;
        llNext = ((LPTABLEFILEHEADEX)lpPage)->m_nNextFileHeadCacheOffset;
    }
    m_strError = "file " + std::to_string(file.m_bFileNo) + ": no first map block along the head chain";
    return false;
}

// The engine's lookup, made again from the cache: blocks that nobody's
// chain holds and that bear the file's block of a number in its map. The
// newest version wins where one block stands twice.
void CPeerCache::BuildLookup(PeerCacheFile& file)
{
    std::set<UINT> setChained;
    UINT nBlockBufNum = m_layout.m_nBlockBufNum;
    for (UINT n = (UINT)TalvorLoadShared(&Head()->m_nFreeNo); IsBlockNo(n) && setChained.size() <= nBlockBufNum;
         n = *Link(n))
        if (!setChained.insert(n).second) break;
    for (int i = 0; i < MAX_FILE_NUM; i++)
        for (UINT n = Head()->m_nFileInfoNo[i]; IsBlockNo(n) && setChained.size() <= nBlockBufNum; n = *Link(n))
            if (!setChained.insert(n).second) break;
    std::map<UINT, long long> mapTs;
    UINT nMapped = (UINT)file.m_lpMap->m_nBlockMapNum;
    for (UINT n = m_layout.m_nFirstFreeNo; n <= nBlockBufNum; n++) {
        if (setChained.count(n) != 0) continue;
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(m_lpBase + CacheBlockOffset(n));
        if (lpBlock->m_nDataFlag != BLOCK_DATAFLAG || lpBlock->m_bFileNo != file.m_bFileNo ||
            lpBlock->m_nBlockSize != PEERCACHE_BLOCK_SIZE || lpBlock->m_nBlockNo == 0 || lpBlock->m_nBlockNo > nMapped)
            continue;
        UINT nNo = lpBlock->m_nBlockNo;
        long long llTs = TalvorLoadShared(&lpBlock->m_nTimestamp);
        if (mapTs.count(nNo) != 0 && mapTs[nNo] >= llTs) continue;
        mapTs[nNo] = llTs;
        file.m_mapBlocks[nNo] = CacheBlockOffset(n);
    }
}

LPBASEFILEBLOCKMAP_CACHE CPeerCache::MapEntry(PeerCacheFile& file, UINT nBlockNo)
{
    int nMapNo = 0, nEntry = 0;
    if (!DbCacheMapLocation(nBlockNo, file.m_lpHead->m_nMaxBlockMapNum, &nMapNo, &nEntry) || nMapNo != 1 ||
        nEntry >= file.m_lpMap->m_nBlockMapNum)
        return nullptr;
    return &file.m_lpMap->m_pBlockMap[nEntry];
}

bool CPeerCache::NewBlock(PeerCacheFile& file, long long llTs, UINT& nBlockNo)
{
    LPTABLEFILEHEAD lpHead = file.m_lpHead;
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = file.m_lpMap;
    int nEntry = lpMap->m_nBlockMapNum;
    long long llPlace = lpHead->m_nFileFreeMemoryOffset;
    if (nEntry < 0 || nEntry >= lpHead->m_nMaxBlockMapNum || (UINT)nEntry != lpHead->m_nBlockNum ||
        llPlace < lpHead->m_nBlockStartOffset || llPlace % CACHE_PAGE_SIZE != 0 ||
        llPlace + PEERCACHE_BLOCK_SIZE > lpHead->m_nFileTotalSize) {
        m_strError = "file " + std::to_string(file.m_bFileNo) + ": no room for a new block in its first map block";
        return false;
    }
    long long llCache = 0;
    if (!TakeFreeBlock(llCache)) {
        m_strError = "no free cache block";
        return false;
    }
    nBlockNo = (UINT)nEntry + 1;
    PeerCacheMakeBlock(m_lpBase + llCache, file.m_bFileNo, file.m_bFileType, nBlockNo, llTs);
    file.m_mapBlocks[nBlockNo] = llCache;
    LPBASEFILEBLOCKMAP_CACHE lpEntry = &lpMap->m_pBlockMap[nEntry];
    lpEntry->m_nBlockNo = nBlockNo;
    lpEntry->m_nBlockSize = PEERCACHE_BLOCK_SIZE;
    lpEntry->m_nNextBlockNo = 0;
    lpEntry->m_nBlockOffset = llPlace;
    lpEntry->m_nID = 1;
    PeerFence();
    lpMap->m_nBlockMapNum = nEntry + 1;
    TalvorStoreShared(&lpMap->m_nTimestamp, llTs);
    TalvorStoreShared(&lpMap->m_bSaveFlag, 1);
    lpHead->m_nFileFreeMemoryOffset = llPlace + PEERCACHE_BLOCK_SIZE;
    lpHead->m_nBlockNum = nBlockNo;
    TalvorStoreShared(&lpHead->m_nTimestamp, llTs);
    TalvorStoreShared(&lpHead->m_bSaveFlag, 1);
    return true;
}

void CPeerCache::ChangeBlock(PeerCacheFile& file, UINT nBlockNo, long long llTs)
{
    LPBYTE lpBlock = BlockAt(file.m_mapBlocks[nBlockNo]);
    if (lpBlock == nullptr) return;
    // The mark is cleared first and set last: a flush in between sees an
    // unfinished block, never a finished one with half a payload.
    LPBLOCKHEAD lpHead = (LPBLOCKHEAD)lpBlock;
    BYTE bFlushFlag = TalvorLoadShared(&lpHead->m_bFlushFlag);
    PeerCacheMakeBlock(lpBlock, file.m_bFileNo, file.m_bFileType, nBlockNo, llTs);
    TalvorStoreShared(&lpHead->m_bFlushFlag, bFlushFlag);
    PeerFence();
    TalvorStoreShared(&file.m_lpHead->m_nTimestamp, llTs);
}

} // namespace talvorpeer
