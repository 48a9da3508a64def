// PeerCache.h — the engine's side of the shared block cache: its own lookup
// of which cache block holds which block of a file, blocks taken from the
// free chain, loads through the file's load slots, and changes carried to
// disk through the two flush rings and their image pools.
//
// Everything read from the segment was written by another process and may
// be damaged: every offset, block number and slot count is bounded to the
// segment, the block area or the slot areas before it is used, and every
// wait on the daemon is bounded.
#pragma once

#include "CacheLayout.h"
#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <map>
#include <string>

namespace talvorpeer {

// Block size the stand-in gives every block it makes.
inline constexpr int PEERCACHE_BLOCK_SIZE = CACHE_BLOCK_SIZE;
// Result of a wait that the daemon did not answer in time.
inline constexpr int PEERCACHE_TIMEOUT = -1;

// The bytes of one version of a block as the engine keeps it in the cache:
// a head (mark, number, file, size, timestamp, a generation taken from the
// timestamp, and in-memory marks a disk copy must not keep) and a payload
// derived from (file, block, timestamp), so that any version can be made
// again to compare a file with. lpBlock holds PEERCACHE_BLOCK_SIZE bytes.
// Any thread.
void PeerCacheMakeBlock(LPBYTE lpBlock, BYTE bFileNo, BYTE bFileType, UINT nBlockNo, long long llTs);
// The same block as the daemon must write it: the save and flush marks,
// the lock stamp, the state and the use count zeroed. Any thread.
void PeerCacheDiskImage(LPBYTE lpBlock);
// Where the first map block of a cache-mode file (its bytes in strFile)
// places block nBlockNo; -1 when it names no such block or places it
// outside the file. Any thread.
long long PeerCacheDiskBlockOffset(const std::string& strFile, UINT nBlockNo);
// The generation (m_bFlushCode) of the version made at llTs.
inline BYTE PeerCacheFlushCode(long long llTs) { return (BYTE)(llTs * 7 + 1); }

// One cache-mode file as the engine finds it in the cache.
struct PeerCacheFile {
    BYTE m_bFileNo = 0;
    BYTE m_bFileType = 0;
    std::string m_strPath;
    LPTABLEFILEHEAD m_lpHead = nullptr;              // the cached head page
    LPBASEFILEBLOCKMAPHEAD_CACHE m_lpMap = nullptr;  // the first map block
    long long m_llMapCache = 0;                      // its cache offset
    std::map<UINT, long long> m_mapBlocks;           // block number -> cache offset
};

// A flush entry as the engine means to post it; posted by PostEntry.
struct PeerFlushPost {
    bool m_bIndex = false;
    int m_nPos = -1;                    // ring position once posted
    stu_CacheFlush m_stEntry;           // m_bStatus ignored
};

// Ways a load request can be wrong (LoadBlock).
enum PeerLoadFault {
    PEERLOAD_NONE = 0,
    PEERLOAD_LATE,    // posted with stale fields and check byte, completed 30 ms later
    PEERLOAD_NUMBER,  // the block number does not fit the file offset
    PEERLOAD_FILE,    // another file's number
    PEERLOAD_SIZE,    // half the block size
};

class CPeerCache {
public:
    ~CPeerCache();
    // Attaches the cache segment and waits (bounded) until its status is
    // ready; checks its head against the layout its size gives. False with
    // m_strError set. Main thread of the job.
    bool Attach(int nWaitMs);
    // Finds file bFileNo's head page and first map block in the cache and
    // builds the engine's lookup of its blocks. False with m_strError.
    bool OpenFile(BYTE bFileNo, BYTE bFileType, const std::string& strPath, PeerCacheFile& file);
    // Takes the first block of the free chain (link cleared). False when
    // none is left or the chain leaves the block area.
    bool TakeFreeBlock(long long& llCache);
    // Allocates the next block number of the file in its first map block
    // (place in the file, map entry, head counts), with a cache block from
    // the free chain made as the version at llTs. False when the map block
    // is full, the file has no room or no cache block is free.
    bool NewBlock(PeerCacheFile& file, long long llTs, UINT& nBlockNo);
    // Makes the version at llTs of a cached block and marks it to be saved.
    void ChangeBlock(PeerCacheFile& file, UINT nBlockNo, long long llTs);
    // The file's map entry of a block, or null.
    LPBASEFILEBLOCKMAP_CACHE MapEntry(PeerCacheFile& file, UINT nBlockNo);
    // The cache address of a cached block, or null.
    LPBYTE BlockAt(long long llCache) const;
    // Loads a block through the file's load group into the free cache block
    // llCache (prefilled by the caller): the daemon's m_bSuccess, or
    // PEERCACHE_TIMEOUT. bFaultFile is the file number PEERLOAD_FILE names.
    int LoadBlock(PeerCacheFile& file, UINT nBlockNo, long long llCache, PeerLoadFault eFault, BYTE bFaultFile,
                  int nWaitMs);
    // A data block entry of a cached block as it stands (type 3), ring by
    // file type; the block's flush mark is set and its save mark cleared.
    PeerFlushPost DataEntry(PeerCacheFile& file, UINT nBlockNo, long long llTs);
    // The head or first map block copied into a free image of the page
    // pool, its entry (types 1 and 2); the page's save mark cleared. False
    // when no image is free.
    bool PageEntry(PeerCacheFile& file, BYTE bType, PeerFlushPost& post);
    // A timestamp entry (type 4); with nArrayNum > 0 an image of the
    // timestamp pool holds nArrayNum timestamps from llTs down. False when
    // no image is free.
    bool TimestampEntry(bool bIndex, long long llTs, int nArrayNum, PeerFlushPost& post);
    // Posts an entry at the engine's writing position of its ring, status
    // last, and posts the ring's semaphore. False when the entry there is
    // still taken after nWaitMs.
    bool PostEntry(PeerFlushPost& post, int nWaitMs, bool bBeforeStatus(PeerFlushPost&, void*) = nullptr,
                   void* pArg = nullptr);
    // Waits until the daemon has freed a posted entry: its result code
    // (m_bReserved), or PEERCACHE_TIMEOUT.
    int WaitEntry(const PeerFlushPost& post, int nWaitMs, void (*fnIdle)(void*) = nullptr, void* pIdleArg = nullptr);
    // The image of a page entry, or null.
    LPBYTE ImageOf(const PeerFlushPost& post) const;

    LPCacheBufferHead Head() const { return (LPCacheBufferHead)m_lpBase; }
    const CACHELAYOUT& Layout() const { return m_layout; }
    std::string m_strError;

private:
    bool CheckHead();
    bool IsBlockNo(long long nBlockNo) const;
    bool IsBlockOffset(long long llOffset) const;
    UINT* Link(UINT nBlockNo) const;
    bool FindFirstMap(PeerCacheFile& file);
    void BuildLookup(PeerCacheFile& file);
    LPCacheBufferBlockOperate LoadGroup(BYTE bFileNo, int& nNum);
    stu_CacheFlush* Ring(bool bIndex) const;
    volatile BYTE* WritePos(bool bIndex) const;
    HEVENTTYPE Semaphore(const char* lpszName);
    HEVENTTYPE LoadSemaphore(const char* lpszPrefix, BYTE bFileNo);

    LPBYTE m_lpBase = nullptr;
    long long m_llSize = 0;
    CACHELAYOUT m_layout = {};
    std::map<std::string, HEVENTTYPE> m_mapSems;
};

} // namespace talvorpeer
