// TalvorCacheStorage.h — the shared block cache of cache-mode files.
//
// One segment (key SHMKEY_CACHEBUFFER) of 16384-byte cache blocks that the
// engine works in; CacheLayout.h says where each area lies. This object
// makes the segment or takes over one that survived a restart, and keeps the
// chains in the cache map: the free chain, and per file the chain of its head
// pages and map blocks. Which block of a file sits in which cache block is
// the engine's own lookup; the daemon only ever names cache offsets.
//
// What is here: the segment (Initialize, Free), the chains (LoadFile2Cache,
// NewFile2Cache, the walk to a file's first map block), the load groups,
// the two flush pipelines with their threads (TalvorCacheFlush*.cpp; the
// module is reached through TalvorCacheFlush.h), the load threads
// (TalvorCacheLoad.cpp) and the preload (TalvorCachePreload.cpp). The
// module makes the object at start when "buffercachesize" asks for a cache.
//
// Threads: Initialize and Free are for the start-up (main) thread alone, with
// no latch held. The chain functions take m_csCache themselves; the caller
// holds no latch of this object.
#pragma once

#include "CacheLayout.h"
#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

class CBreltMemStorageModule;
class ITalvorCacheModule;
struct CacheFlushKind;
struct CacheFlushRun;

// Results of the chain functions besides 0.
inline constexpr int CACHE_RESULT_NOFREEBLOCK = 9500;   // the free chain is empty
inline constexpr int CACHE_RESULT_BADCHAIN = 1;         // a chain or a page in it is not what it should be
inline constexpr int CACHE_RESULT_NOCHAIN = 4;          // a head names no following page in the cache

// How long a file command waits for the cache's threads to leave a file
// before it is refused, in ms: far past any one write of a healthy disk (a
// growth writes 64 MiB), so only a hung one reaches it.
inline constexpr UINT CACHE_PAUSE_DEADLINE_MS = 60000;

// ---- Load threads (TalvorCacheLoad.cpp) ----
// How long Free waits for one load thread to end, in ms.
inline constexpr UINT CACHE_LOAD_JOIN_MS = 10000;
// LoadIndexBlock / LoadTableBlock: the object's free cursor reached 0.
inline constexpr int CACHE_RESULT_CACHEFULL = 9501;
// Preload: bytes read from a file at a time, and where its blocks begin.
inline constexpr int CACHE_PRELOAD_PIECE = 8388608;
inline constexpr long long CACHE_PRELOAD_FROM = 32768;
// ---- end of the load threads' declarations ----

// Per file: its load thread and semaphores.
typedef struct _stu_FileLoadInfo {
    HTHREADTYPE m_hStorageLoadThread;
    HEVENTTYPE m_hStorageLoad;
    HEVENTTYPE m_hCacheLoad;
} stu_FileLoadInfo;

class CTalvorCacheStorage {
public:
    CTalvorCacheStorage();
    // Detaches the segment and removes it: a normal end leaves no cache. A
    // survivor that Initialize refused is left in place.
    virtual ~CTalvorCacheStorage();

    // Every buffer of a direct transfer: 512-aligned, released with free().
    static void* get_aligned_buffer(size_t nSize) { return ::get_aligned_buffer(nSize); }

    // Makes the segment of nCacheBufferSize MiB, or takes over the one that
    // survived a restart. A survivor with status CACHESTATUS_READY, its own
    // size and a head that passes every bound is kept byte for byte
    // (m_bExists TRUE), with its own FIFO area if nLRUPercent has changed;
    // its flush pools too, since posted entries still name their images.
    // One with status 1, 255 or any other is rebuilt as new, every table
    // and block reset. One of another size, with a damaged mark or a field
    // out of bounds is rebuilt too, unless another process is attached to
    // it: then the start is refused and the segment left as it is.
    // Result: S_OK; 1 when the kernel refuses the segment (e.g. its size
    // limit is below the size asked); E_FAIL for a size below 32 MiB, a null
    // pStorage, a failed attach or a refused survivor. Each failure traced.
    // Main thread, at start; no latch held.
    int Initialize(LPCTSTR lpszMemFileName, int nCacheBufferSize, int nLRUPercent, CBreltMemStorageModule* pStorage,
                   BOOL bFileCache);

    // Opens the four flush semaphores and starts the two flush threads
    // (TalvorCacheFlushThread.cpp). S_OK; E_FAIL traced when a semaphore
    // cannot be had or a thread cannot start (what did start is stopped by
    // Free). Needs SetCacheModule first (E_FAIL without it). Main thread, at
    // start; no latch held.
    int CreateEventAndThread();
    // What the flush threads reach of the module (TalvorCacheFlush.h); set
    // before CreateEventAndThread, null until then. Main thread.
    void SetCacheModule(ITalvorCacheModule* pModule) { m_pCacheModule = pModule; }

    // The two flush loops (TalvorCacheFlush.cpp): serve the ring of their
    // file type in order, open files on request, grow files short of room
    // and push the write buffers out when idle, until m_bExit; then finish
    // what is posted, drain the buffers, and return 0. E_FAIL only when the
    // work buffer or the module is missing. The flush thread of the kind,
    // or a test in its place; lpCritSection is that thread's record; no
    // latch held on entry or return.
    HRESULT StorageFlush(LPTALVORCRITICALSECTION lpCritSection);
    HRESULT StorageIndexFlush(LPTALVORCRITICALSECTION lpCritSection);
    // Thread bodies; lpParam the cache object. Each makes the backends of
    // its file type, then runs its loop under crash containment.
    static void* StorageFlushThread(LPVOID lpParam);
    static void* StorageIndexFlushThread(LPVOID lpParam);
    // Grows by 64 MiB every file of bFileType with a backend whose cached
    // head shows no more than 128 MiB unallocated. Nothing without a
    // flashback object of the module. A flush thread; no latch held.
    void FileSpaceManage(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType);
    // For each file of the kind without a backend: makes one and brings
    // the file in (Initialize). 0; 1 when one failed (traced, m_bExit set,
    // the object deleted). The flush thread of the kind, no latch held.
    int CreateBackendsFor(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind);
    // Holds the cache's threads off file bFileNo (m_bPauseFileNo). TRUE once
    // each running flush loop has answered it (at its top or between two
    // ring entries, AnswerPause) and no load thread is serving a slot of
    // the file: from then on none of them
    // touches the file's descriptor, its backend or its row until
    // ResumeFile, so the caller may change or free them. A ring entry or a
    // load slot for the file waits meanwhile. FALSE when that has not
    // happened within m_nPauseDeadlineMs (a thread hung in a write): the
    // pause is taken back, 60001018 is traced, and the caller must leave the
    // file alone. The command thread (one pause at a time), no latch held:
    // it waits for the other threads.
    BOOL PauseFile(BYTE bFileNo);
    // Ends the pause PauseFile granted. The command thread.
    void ResumeFile();
    // How long PauseFile waits for the threads; tests shorten it.
    UINT m_nPauseDeadlineMs = CACHE_PAUSE_DEADLINE_MS;
    // Waits (1 ms at a time, m_bExit ends it with E_FAIL) for every
    // cache-mode file's backend, then preloads index files and, when the
    // whole index fits, table files (TalvorCachePreload.cpp). A cache taken
    // over whole loads nothing. 0 also when the cache fills early; 4 / 1
    // when an index file's first map block cannot be found in the cache
    // (head without / with a next page); E_FAIL on a bad head size, a broken
    // map chain or a failed read. The head's m_bStatus ends 0, or 255 on a
    // failure. Each file's next piece is read by a reader thread of the
    // sweep while the current one is copied (TalvorCachePreloadReader.h);
    // the reader never touches the cache and is joined before the sweep
    // ends, and without its buffer or thread the sweep reads on its own.
    // Main thread, no latch held, before the engine runs.
    HRESULT InitCacheHead(LPTALVORCRITICALSECTION lpCritSection);
    // At a stop with the engine lost (TalvorCacheFlushLast.cpp): writes
    // every block marked dirty in the cache to its place in its file (by
    // the file's map in the cache) and clears its marks whatever the
    // write gave; then every file's head and the map blocks marked or newer
    // than the head. 0; 1 without the module or a buffer, or when a file's
    // chain is broken; 4 when a head names no next page (the other files
    // are written all the same). Main thread, flush threads ended; no latch.
    int FlushFileBlock(LPTALVORCRITICALSECTION lpCritSection);
    // Lets the destructor detach the segment without removing it: a start
    // that failed after taking over a whole cache hands it on as it found
    // it. Main thread, after Free.
    void KeepSegmentOnRelease() { LetGoOfSurvivor(); }
    // Asks the cache threads to stop; 0. Any thread.
    int Exit();
    // Asks the cache threads to stop, joins the flush threads (up to 400 s
    // each; they finish what is posted first) and the load threads (see
    // StopLoadThreads), and closes the semaphores; the segment stays until
    // the destructor. Main thread, at the end.
    int Free();

    // Takes the first block of the free chain and appends it to the chain
    // of file bFileNo; a file's first block becomes its head page and gets
    // the file its load group. 0 with llCacheOffset the block's offset;
    // CACHE_RESULT_NOFREEBLOCK when none is free or no load group is left;
    // CACHE_RESULT_BADCHAIN when the file's chain leaves the block area or
    // loops (nothing is changed then). Takes m_csCache.
    int LoadFile2Cache(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, long long& llCacheOffset);
    // Copies the pages of a new file (head, nExHeadNum extended heads, first
    // map block; 16384 bytes each, in file order in lpBuf) into the file's
    // chain, linking each page to the next by cache offset. 0;
    // CACHE_RESULT_NOFREEBLOCK when the chain holds fewer than nExHeadNum + 2
    // blocks; 1 for a bad argument. Takes m_csCache.
    int NewFile2Cache(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, BYTE bFileType, LPBYTE lpBuf,
                      int nExHeadNum);
    // Opens the file's two load semaphores and starts its load thread
    // (TalvorCacheLoad.cpp). 0; 1 when it has them already, or traced when
    // a semaphore or the thread cannot be had (nothing left open). Any
    // thread that adds a file; no latch held.
    int InitFileLoadThreadAndEvent(BYTE bFileNo);
    // File bFileNo's load group: 0 with its first slot and slot count; 1
    // when it has none, its status refuses it or it lies outside the slot
    // areas. Any thread; reads the head without a latch.
    int GetCacheLoadSlot(BYTE bFileNo, LPCacheBufferBlockOperate& lpCacheLoadHead, int& nNum);
    // From a cached head page (lpFileHead) to its first map block, along the
    // pages of this object's segment (lpCacheAddr is not needed and ignored): 0 with its cache offset in
    // nBlockMapCacheStartOffset; CACHE_RESULT_NOCHAIN when the head names no
    // next page; CACHE_RESULT_BADCHAIN when a page on the way bears another
    // mark, the chain ends or leaves the block area. Any thread, no latch.
    int GetFirstTableMapCacheAddr(LPTABLEFILEHEAD lpBaseFileHead, LPBYTE lpCacheAddr,
                                  long long& nBlockMapCacheStartOffset);
    int GetFirstIndexMapCacheAddr(LPINDEXFILEHEAD lpFileHead, LPBYTE lpCacheAddr, long long& nBlockMapCacheStartOffset);

    // The file grew on disk by llFileExpandSize bytes: its cached head
    // counts them, takes llTimestamp and is marked to be saved. 0; 1 when
    // the file has no head in the cache, the block there is not its head
    // (mark, file number) or the size is not positive. Cache threads.
    int ExpandFile2Cache(BYTE bFileNo, long long llFileExpandSize, long long llTimestamp);

    // The link of cache block nBlockNo (0 ends a chain). nBlockNo must be at
    // most m_nBlockBufNum. Any thread.
    UINT GetLink(UINT nBlockNo) const;
    // The computed layout the segment was built or checked against.
    const CACHELAYOUT& GetLayout() const { return m_layout; }

public:
    // Fields in the order of the design; most are for the threads to come.
    HEVENTTYPE m_hStorageFlush;
    HEVENTTYPE m_hStorageIndexFlush;
    HEVENTTYPE m_hCacheFlush;
    HEVENTTYPE m_hCacheIndexFlush;
    MFID m_hCacheBufferFile;
    HTHREADTYPE m_hStorageFlushThread;
    HTHREADTYPE m_hStorageIndexFlushThread;
    int m_nWaitTime;
    CBreltMemStorageModule* m_pStorage;
    TALVOR_SECTION m_crit;     // one open request at a time
    TALVOR_SECTION m_csCache;  // the free chain, file chains and load groups
    BOOL m_bExists;            // the segment was taken over whole
    BOOL m_bFileCache;
    LONGLONG m_llCacheBufferSize;
    LPBYTE m_pCacheBufferAddr;
    LPCacheBufferHead m_pCacheBufferHead;
    LPstu_CacheFlush m_pCacheFlush;
    LPstu_CacheFlush m_pCacheIndexFlush;
    LPstu_CacheFlushFile m_pFlushFile;
    LPstu_CacheFlushFile m_pFlushTimestampFile;
    long long m_nFIFOSize;
    int m_nCacheFlashBackSize;
    LPFILEINFO m_lpOpenFileInfo;
    UINT m_nFreeNo;
    volatile BYTE m_bTrunkIndex;
    volatile BYTE m_bLeaveIndex;
    // Set by the command thread, polled by the flush and load threads:
    // TalvorLoadShared and TalvorStoreShared only.
    volatile BYTE m_bPauseFileNo;
    // PauseFile's count of pauses, and per flush loop (table, index) the
    // count its loop top last saw and whether the loop runs: the handshake
    // that tells the command thread a loop no longer holds a paused file.
    // Shared accesses only; the count and the running marks sequentially
    // consistent (AnswerPause).
    volatile UINT m_nPauseSeq = 0;
    volatile UINT m_arPauseSeen[2] = {0, 0};
    volatile BYTE m_arFlushLoopUp[2] = {0, 0};
    // Per load thread (by its file number), the file of the slot it is
    // serving, 0 for none. It and m_bPauseFileNo are each stored before the
    // other is read, both sequentially consistent (PauseFile, EnterServe):
    // a load thread either sees the pause or is seen serving.
    volatile BYTE m_arLoadServing[MAX_FILE_NUM] = {};
    // Polled by the flush, load and preload threads: TalvorLoadShared and
    // TalvorStoreShared only.
    volatile BYTE m_bExit;
    UINT m_nTrunkFreeNo;
    UINT m_nMetaFreeNo;
    UINT m_nLeaveFreeNo;
    stu_FileLoadInfo m_stFileLoadInfo[MAX_FILE_NUM];
    ITalvorCacheModule* m_pCacheModule;

    // ---- Load threads (TalvorCacheLoad.cpp) ----
    // The thread of one file: serves the file's load slots until m_bExit.
    // lpParam is a record {file number, this} from new (std::nothrow) that
    // the thread deletes at its end. Contained (TalvorRunContained).
    static void* StorageLoadThread(LPVOID lpParam);
    // The body of the thread: 0 when told to stop; 1 when the file has no
    // usable load group (60004000). Each posted slot is answered in
    // m_bSuccess: CACHELOAD_OK with the block copied whole into its cache
    // block; CACHELOAD_FAILED with the cache block untouched when a slot
    // field lies outside the block area or the file, or the block read is
    // not the one asked for (mark, number, file, size) or cannot be read;
    // CACHELOAD_NOFILE / CACHELOAD_NOBACKEND when the file is unknown. Every
    // wait is bounded by m_nWaitTime and sees m_bExit. The load thread;
    // holds no latch of this object; the backend takes its own inside.
    HRESULT StorageLoad(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo);
    // Joins every load thread (m_bExit must be set) up to CACHE_LOAD_JOIN_MS
    // each and closes their semaphores. Main thread, at the end.
    void StopLoadThreads();
    // Preload (TalvorCachePreload.cpp). Copy nBlockSize bytes (1 to 16384)
    // into the cache block at the object's cursor m_nFreeNo and move the
    // cursor along the free chain; the use count of the copy is cleared.
    // 0; CACHE_RESULT_CACHEFULL with the cursor 0 when no block is left (or
    // the chain leaves the block area); 1 for a bad size. Start-up thread,
    // alone on the cache.
    int LoadIndexBlock(LPBYTE lpBuf, int nBlockSize);
    int LoadTableBlock(LPBYTE lpBuf, int nBlockSize);
    // Where the preload shows its progress (the module's m_TalvorProgress);
    // null shows nothing.
    LPTALVORPROGRESS m_pLoadProgress = nullptr;
    // ---- end of the load threads' declarations ----

private:
    // Flush pipelines (TalvorCacheFlush.cpp, TalvorCacheFlushEntry.cpp);
    // the flush thread of the kind, no latch held.
    HRESULT RunFlushLoop(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind);
    void ServeOpenRequest(LPTALVORCRITICALSECTION lpCritSection, const CacheFlushKind& kind);
    int ServeRing(LPTALVORCRITICALSECTION lpCritSection, CacheFlushRun& run);
    void PushBuffersOnce(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType);
    BOOL DrainBuffers(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileType, BOOL bSync);
    BOOL EntryFits(const stu_CacheFlush* p, const CacheFlushKind& kind);
    void WaitForFit(const stu_CacheFlush* p, const CacheFlushKind& kind);
    int CarryOut(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, CacheFlushRun& run, BYTE& bResult);
    BYTE CarryOutTimestamps(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, CacheFlushRun& run);
    BYTE CarryOutBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPFILEINFO pFile, CacheFlushRun& run);
    BOOL EntryInBounds(const stu_CacheFlush* p, const CacheFlushKind& kind, int nPos);
    BOOL EntryInsideFile(const stu_CacheFlush* p, LPFILEINFO pFile, const CacheFlushKind& kind, int nPos);
    LPBYTE SegmentBytes(long long llOffset, long long llSize) const;
    LPFILEINFO FileOfKind(BYTE bFileNo, BYTE bFileType) const;
    // TRUE for the file PauseFile holds the loops off.
    BOOL IsPausedFile(BYTE bFileNo) const;
    // FileOfKind for the loops' sweeps over every file: null for a paused one.
    LPFILEINFO SweptFileOfKind(BYTE bFileNo, BYTE bFileType) const;
    void GiveBackImage(const stu_CacheFlush* p);
    BYTE OpenFileUseBuffer() const;
    // The last pass (TalvorCacheFlushLast.cpp); main thread, no latch.
    LPBYTE CachedPage(long long llOffset) const;
    // The cached head page of file bFileNo, or null when the cache holds
    // none with a head mark (also used by the preload).
    LPTABLEFILEHEAD CachedFileHead(BYTE bFileNo) const;
    int FirstMapOf(LPTABLEFILEHEAD lpHead, long long& llMapOffset);
    LPBASEFILEBLOCKMAPHEAD_CACHE MapBlockOf(LPTABLEFILEHEAD lpHead, int nMapNo);
    BOOL LastFlushRequestOf(LPBASEBLOCKHEAD lpBlock, long long llCacheOffset, stu_CacheFlush& stReq);
    void LastFlushBlocks(LPTALVORCRITICALSECTION lpCritSection, LPBYTE& lpWork, int& nWorkSize);
    int LastFlushHeadAndMaps(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFile, LPBYTE lpWork);
    // ---- Load threads (TalvorCacheLoad.cpp); no latch held ----
    int OpenLoadEvents(BYTE bFileNo);
    void CloseLoadEvents(BYTE bFileNo);
    BOOL WaitForPostedSlot(LPstu_FileCacheLoadInfo lpInfo, LPCacheBufferBlockOperate lpSlot, BYTE bFileNo);
    void WaitForVerification(LPCacheBufferBlockOperate lpSlot);
    // Marks the thread of bThreadFile as serving the slot's file (bSlotFile,
    // read once), as soon as that file is not paused: TRUE; FALSE with the
    // mark cleared when told to stop. LeaveServe clears the mark.
    BOOL EnterServe(BYTE bThreadFile, LPCacheBufferBlockOperate lpSlot, BYTE& bSlotFile);
    void LeaveServe(BYTE bThreadFile);
    // TRUE while a load thread serves a slot of bFileNo.
    BOOL LoadServing(BYTE bFileNo) const;
    // Tells PauseFile that this flush loop holds no file now.
    void AnswerPause(const CacheFlushKind& kind);
    // TRUE once every running flush loop has seen pause nSeq.
    BOOL LoopsSawPause(UINT nSeq) const;
    BYTE ServeSlot(LPTALVORCRITICALSECTION lpCritSection, LPCacheBufferBlockOperate lpSlot, BYTE bSlotFile,
                   LPBYTE& lpPrivate, int& nPrivateSize);
    LPBYTE SlotTarget(LPCacheBufferBlockOperate lpSlot, int nSize) const;
    // TRUE when the file holds [llFileOffset, + nSize) whole (one stat).
    static BOOL OnDisk(LPFILEINFO pFileInfo, long long llFileOffset, int nSize);
    // TRUE when the nSize bytes at lpRead, read at llFileOffset, came whole
    // from the file rather than partly from past its end; stats the file
    // only when the last byte is zero.
    static BOOL ReadWhole(LPFILEINFO pFileInfo, long long llFileOffset, int nSize, const BYTE* lpRead);
    BYTE ReadAndCheck(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bSlotFile, UINT nBlockNo,
                      long long llFileOffset, int nSize, LPBYTE lpPrivate);
    void AnswerSlot(LPstu_FileCacheLoadInfo lpInfo, LPCacheBufferBlockOperate lpSlot, BYTE bPos, int nNum,
                    BYTE bSuccess, BYTE bFileNo);
    // Preload (TalvorCachePreload.cpp).
    int CopyToCursor(LPBYTE lpBuf, int nBlockSize);
    BOOL WaitForBackends();
    HRESULT FailPreload(LPBYTE lpBuffer, HRESULT hr);
    // ---- end of the load threads' declarations ----

    // Segment (TalvorCacheSegment.cpp).
    int FindOrCreateSegment(LPCTSTR lpszMemFileName, BOOL& bFound);
    int DropForeignSizedSegment(MFID nId, LPCTSTR lpszMemFileName);
    BOOL IsSurvivorWhole() const;
    BOOL IsSurvivorWholeWithItsOwnFIFO();
    BOOL AreSurvivorChainsBounded() const;
    BOOL AreSurvivorLoadGroupsBounded() const;
    int TakeOverOrRebuild(LPCTSTR lpszMemFileName);
    void BuildHead(BOOL bZeroAll);
    void BuildFreeChain();
    void SetPointers();
    void ResetPools();
    void LetGoOfSurvivor();
    void Detach();

    // Chains (TalvorCacheChain.cpp); m_csCache held.
    void SetLink(UINT nBlockNo, UINT nLink);
    BOOL IsCacheBlock(UINT nBlockNo) const;
    int PopFreeBlock(UINT& nBlockNo);
    int FindChainEnd(UINT nFirst, UINT& nLast) const;
    int CollectChain(UINT nFirst, UINT* pBlocks, int nWanted, int& nFound) const;
    int InitCacheLoadSlot(BYTE bFileNo);
    int TakeRecycledGroup(BYTE bFileNo);
    void TakeHeadAreaGroup(BYTE bFileNo, int nValid);
    int TakeBlockGroup(BYTE bFileNo);
    BOOL IsGroupBounded(long long llOffset, int nSlots) const;
    int WalkToFirstMap(long long llCacheStartOffset, long long llNextFileHeadOffset, int nExMark,
                       long long& llMapOffset) const;
    BOOL IsPageOffset(long long llOffset) const;

    CACHELAYOUT m_layout;
};
