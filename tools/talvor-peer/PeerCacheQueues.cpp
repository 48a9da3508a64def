// PeerCacheQueues.cpp — the engine's writing side of the cache's queues: a
// file's load slots, the two flush rings and the two pools of images. The
// engine moves only the writing positions; the daemon frees what it took.
#include "PeerCache.h"

#include "PeerClock.h"
#include "PeerImage.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace talvorpeer {

namespace {

// The completion of a late load request: after the daemon has had time to
// see the stale slot.
const int LATE_COMPLETION_US = 30000;
// Where the engine keeps the images of its pools: the flashback area, 16
// page images then 32 timestamp array images.
const long long TS_IMAGES_AT = (long long)CACHE_FLUSHFILE_NUM * CACHE_PAGE_SIZE;
const int TS_IMAGE_SIZE = SYSTEMFILE_TIMESTAMP_NUM * (int)sizeof(long long);

BYTE CheckByte(long long llCache) { return (BYTE)((llCache / CACHE_BLOCK_SIZE) % 255 + 1); }

} // namespace

HEVENTTYPE CPeerCache::Semaphore(const char* lpszName)
{
    auto it = m_mapSems.find(lpszName);
    if (it != m_mapSems.end()) return it->second;
    HEVENTTYPE h = CreateEventSem(nullptr, lpszName);
    m_mapSems[lpszName] = h;
    return h;
}

HEVENTTYPE CPeerCache::LoadSemaphore(const char* lpszPrefix, BYTE bFileNo)
{
    char szName[64];
    snprintf(szName, sizeof(szName), "%s%02X", lpszPrefix, (unsigned)bFileNo);
    return Semaphore(szName);
}

// The file's load group, bounded to the slot area of the head blocks or
// to the block area; null when it has none the engine may use.
LPCacheBufferBlockOperate CPeerCache::LoadGroup(BYTE bFileNo, int& nNum)
{
    LPstu_FileCacheLoadInfo lpInfo = &Head()->m_stFileCacheLoadInfo[bFileNo];
    long long llFirst = lpInfo->m_nCacheLoadHeadOffset;
    nNum = lpInfo->m_bLoadSlotNum;
    long long llEnd = llFirst + (long long)nNum * (long long)sizeof(CacheBufferBlockOperate);
    bool bInHead = llFirst >= CACHE_LOAD_OFFSET && llEnd <= m_layout.m_llLoadEnd;
    long long llBlock = llFirst - llFirst % CACHE_BLOCK_SIZE;
    bool bInBlock = IsBlockOffset(llBlock) && llEnd <= llBlock + CACHE_BLOCK_SIZE;
    if (TalvorLoadShared(&lpInfo->m_bStatus) != 0 || nNum <= 0 || nNum > CACHE_LOADGROUP_MAX_SLOTS ||
        !(bInHead || bInBlock))
        return nullptr;
    return (LPCacheBufferBlockOperate)(m_lpBase + llFirst);
}

int CPeerCache::LoadBlock(PeerCacheFile& file, UINT nBlockNo, long long llCache, PeerLoadFault eFault,
                          BYTE bFaultFile, int nWaitMs)
{
    int nNum = 0;
    LPCacheBufferBlockOperate lpGroup = LoadGroup(file.m_bFileNo, nNum);
    LPBASEFILEBLOCKMAP_CACHE lpEntry = MapEntry(file, nBlockNo);
    if (lpGroup == nullptr || lpEntry == nullptr || BlockAt(llCache) == nullptr) {
        m_strError = "no usable load group, map entry or cache block";
        return PEERCACHE_TIMEOUT;
    }
    LPstu_FileCacheLoadInfo lpInfo = &Head()->m_stFileCacheLoadInfo[file.m_bFileNo];
    BYTE bPos = lpInfo->m_bCacheLoadPos;
    if (bPos >= nNum) bPos = 0;
    LPCacheBufferBlockOperate lpSlot = &lpGroup[bPos];
    // A slot still posted from before is the daemon's until answered.
    auto fnFree = [&] { return TalvorLoadShared(&lpSlot->m_bStatus) != CACHELOAD_POSTED; };
    if (!WaitEventUntil(nullptr, nWaitMs, WAKE_SLICE_MS, fnFree)) return PEERCACHE_TIMEOUT;
    TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_FREE);
    UINT nNo = eFault == PEERLOAD_NUMBER ? nBlockNo + 1 : nBlockNo;
    BYTE bFile = eFault == PEERLOAD_FILE ? bFaultFile : file.m_bFileNo;
    int nSize = eFault == PEERLOAD_SIZE ? lpEntry->m_nBlockSize / 2 : lpEntry->m_nBlockSize;
    if (eFault == PEERLOAD_LATE) {
        // Half written: another block's fields and a check byte that does
        // not fit yet, already marked posted.
        lpSlot->m_bFileNo = file.m_bFileNo;
        lpSlot->m_nBlockNo = nBlockNo + 1;
        lpSlot->m_llFileBlockOffset = CACHE_PAGE_SIZE;
        lpSlot->m_llCacheBlockOffset = llCache;
        TalvorStoreShared(&lpSlot->m_bVerification, (BYTE)(CheckByte(llCache) + 1));
        PeerFence();
        TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_POSTED);
        SetEvent(LoadSemaphore(SEMNAME_CACHELOADEVENT_PREFIX, file.m_bFileNo));
        usleep(LATE_COMPLETION_US);
    }
    lpSlot->m_bSuccess = 0;
    lpSlot->m_bFileNo = bFile;
    lpSlot->m_nBlockNo = nNo;
    lpSlot->m_llCacheBlockOffset = llCache;
    lpSlot->m_llFileBlockOffset = lpEntry->m_nBlockOffset;
    lpSlot->m_nBlockSize = nSize;
    PeerFence();
    TalvorStoreShared(&lpSlot->m_bVerification, CheckByte(llCache));
    PeerFence();
    TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_POSTED);
    TalvorStoreShared(&lpInfo->m_bCacheLoadPos, (bPos + 1) % nNum);
    SetEvent(LoadSemaphore(SEMNAME_CACHELOADEVENT_PREFIX, file.m_bFileNo));
    HEVENTTYPE hDone = LoadSemaphore(SEMNAME_STORAGELOADEVENT_PREFIX, file.m_bFileNo);
    auto fnDone = [&] { return TalvorLoadShared(&lpSlot->m_bStatus) == CACHELOAD_DONE; };
    if (!WaitEventUntil(hDone, nWaitMs, WAKE_SLICE_MS, fnDone)) return PEERCACHE_TIMEOUT;
    PeerFence();
    int nSuccess = lpSlot->m_bSuccess;
    TalvorStoreShared(&lpSlot->m_bStatus, CACHELOAD_FREE);
    return nSuccess;
}

stu_CacheFlush* CPeerCache::Ring(bool bIndex) const
{
    return (stu_CacheFlush*)(m_lpBase + (bIndex ? CACHE_INDEXFLUSH_OFFSET : CACHE_FLUSH_OFFSET));
}

volatile BYTE* CPeerCache::WritePos(bool bIndex) const
{
    return bIndex ? &Head()->m_bCacheIndexFlushPos : &Head()->m_bCacheFlushPos;
}

PeerFlushPost CPeerCache::DataEntry(PeerCacheFile& file, UINT nBlockNo, long long llTs)
{
    PeerFlushPost post;
    memset(&post.m_stEntry, 0, sizeof(post.m_stEntry));
    post.m_bIndex = file.m_bFileType == FILETYPE_INDEX;
    long long llCache = file.m_mapBlocks[nBlockNo];
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)BlockAt(llCache);
    LPBASEFILEBLOCKMAP_CACHE lpEntry = MapEntry(file, nBlockNo);
    stu_CacheFlush& e = post.m_stEntry;
    e.m_bBlockType = CACHEFLUSH_DATA;
    e.m_bFileNo = file.m_bFileNo;
    e.m_nBlockNo = nBlockNo;
    e.m_nBlockSize = PEERCACHE_BLOCK_SIZE;
    e.m_llTimestamp = llTs;
    e.m_llCacheBlockOffset = llCache;
    e.m_llFileBlockOffset = lpEntry != nullptr ? (long long)lpEntry->m_nBlockOffset : 0;
    if (lpBlock != nullptr) {
        e.m_bFlushCode = lpBlock->m_bFlushCode;
        e.m_llTransTimestamp = lpBlock->m_nTimestamp;
        // From now on the flush owns the change; a failed write marks the
        // block to be saved again.
        TalvorStoreShared(&lpBlock->m_bFlushFlag, 1);
        PeerFence();
        TalvorStoreShared(&lpBlock->m_bSaveFlag, 0);
    }
    return post;
}

LPBYTE CPeerCache::ImageOf(const PeerFlushPost& post) const
{
    const stu_CacheFlush& e = post.m_stEntry;
    if (e.m_llCacheBlockOffset == 0) return nullptr;
    return m_lpBase + e.m_llCacheBlockOffset;
}

bool CPeerCache::PageEntry(PeerCacheFile& file, BYTE bType, PeerFlushPost& post)
{
    memset(&post.m_stEntry, 0, sizeof(post.m_stEntry));
    post.m_bIndex = file.m_bFileType == FILETYPE_INDEX;
    LPstu_CacheFlushFile lpPool = (LPstu_CacheFlushFile)(m_lpBase + CACHE_FLUSHFILE_OFFSET);
    int nImage = -1;
    for (int i = 0; i < CACHE_FLUSHFILE_NUM && nImage < 0; i++)
        if (TalvorLoadShared(&lpPool[i].m_bStatus) == 0) nImage = i;
    if (nImage < 0) {
        m_strError = "no free page image";
        return false;
    }
    TalvorStoreShared(&lpPool[nImage].m_bStatus, 1);
    long long llImage = m_layout.m_llFlashBackOffset + (long long)nImage * CACHE_PAGE_SIZE;
    stu_CacheFlush& e = post.m_stEntry;
    e.m_bBlockType = bType;
    e.m_bReserved = (BYTE)nImage;
    e.m_bFileNo = file.m_bFileNo;
    e.m_nBlockSize = CACHE_PAGE_SIZE;
    e.m_llCacheBlockOffset = llImage;
    if (bType == CACHEFLUSH_HEAD) {
        TalvorStoreShared(&file.m_lpHead->m_bSaveFlag, 0);
        e.m_llTimestamp = file.m_lpHead->m_nTimestamp;
        e.m_llTransTimestamp = e.m_llTimestamp;
        memcpy(m_lpBase + llImage, file.m_lpHead, CACHE_PAGE_SIZE);
    } else {
        TalvorStoreShared(&file.m_lpMap->m_bSaveFlag, 0);
        e.m_nBlockNo = (UINT)file.m_lpMap->m_nMapNo;
        e.m_llTimestamp = file.m_lpMap->m_nTimestamp;
        e.m_llTransTimestamp = e.m_llTimestamp;
        e.m_llFileBlockOffset = file.m_lpHead->m_nBlockMapStartOffset;
        memcpy(m_lpBase + llImage, file.m_lpMap, CACHE_PAGE_SIZE);
    }
    return true;
}

bool CPeerCache::TimestampEntry(bool bIndex, long long llTs, int nArrayNum, PeerFlushPost& post)
{
    memset(&post.m_stEntry, 0, sizeof(post.m_stEntry));
    post.m_bIndex = bIndex;
    stu_CacheFlush& e = post.m_stEntry;
    e.m_bBlockType = CACHEFLUSH_TIMESTAMPS;
    e.m_llTimestamp = llTs;
    e.m_nTimestampNum = nArrayNum;
    if (nArrayNum <= 0) return true;
    LPstu_CacheFlushFile lpPool = (LPstu_CacheFlushFile)(m_lpBase + CACHE_FLUSHTSFILE_OFFSET);
    int nImage = -1;
    for (int i = 0; i < CACHE_FLUSHTSFILE_NUM && nImage < 0; i++)
        if (TalvorLoadShared(&lpPool[i].m_bStatus) == 0) nImage = i;
    if (nImage < 0 || nArrayNum > SYSTEMFILE_TIMESTAMP_NUM) {
        m_strError = "no free timestamp image";
        return false;
    }
    TalvorStoreShared(&lpPool[nImage].m_bStatus, 1);
    long long llImage = m_layout.m_llFlashBackOffset + TS_IMAGES_AT + (long long)nImage * TS_IMAGE_SIZE;
    long long* pArray = (long long*)(m_lpBase + llImage);
    memset(pArray, 0, (size_t)TS_IMAGE_SIZE);
    for (int i = 0; i < nArrayNum; i++) pArray[i] = llTs - i;
    e.m_bReserved = (BYTE)nImage;
    e.m_llCacheBlockOffset = llImage;
    return true;
}

bool CPeerCache::PostEntry(PeerFlushPost& post, int nWaitMs, bool (*fnBeforeStatus)(PeerFlushPost&, void*),
                           void* pArg)
{
    volatile BYTE* pPos = WritePos(post.m_bIndex);
    int nPos = TalvorLoadShared(pPos) % CACHE_FLUSH_RING_SIZE;
    stu_CacheFlush* p = &Ring(post.m_bIndex)[nPos];
    // The ring is full while the entry at the writing position is posted.
    if (!WaitEventUntil(nullptr, nWaitMs, WAKE_SLICE_MS, [&] { return TalvorLoadShared(&p->m_bStatus) == 0; })) {
        m_strError = "the flush ring stays full";
        return false;
    }
    memcpy((BYTE*)p + 1, (const BYTE*)&post.m_stEntry + 1, sizeof(stu_CacheFlush) - 1);
    post.m_nPos = nPos;
    if (fnBeforeStatus != nullptr && !fnBeforeStatus(post, pArg)) return false;
    PeerFence();
    TalvorStoreShared(&p->m_bStatus, 1);
    TalvorStoreShared(pPos, (nPos + 1) % CACHE_FLUSH_RING_SIZE);
    SetEvent(Semaphore(post.m_bIndex ? SEMNAME_CACHEINDEXFLUSHEVENT : SEMNAME_CACHEFLUSHEVENT));
    return true;
}

int CPeerCache::WaitEntry(const PeerFlushPost& post, int nWaitMs, void (*fnIdle)(void*), void* pIdleArg)
{
    if (post.m_nPos < 0) return PEERCACHE_TIMEOUT;
    stu_CacheFlush* p = &Ring(post.m_bIndex)[post.m_nPos];
    HEVENTTYPE hDone = Semaphore(post.m_bIndex ? SEMNAME_STORAGEINDEXFLUSHEVENT : SEMNAME_STORAGEFLUSHEVENT);
    // The engine's other work goes on between the looks.
    auto fnAnswered = [&] {
        if (TalvorLoadShared(&p->m_bStatus) == 0) return true;
        if (fnIdle != nullptr) fnIdle(pIdleArg);
        return false;
    };
    if (!WaitEventUntil(hDone, nWaitMs, WAKE_SLICE_MS, fnAnswered)) return PEERCACHE_TIMEOUT;
    PeerFence();
    return p->m_bReserved;
}

} // namespace talvorpeer
