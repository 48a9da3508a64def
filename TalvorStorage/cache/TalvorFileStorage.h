// TalvorFileStorage.h — the backend of a cache-mode file (types 10 and 11):
// its two handles, its 64 private write buffers of 256 KiB, and its block
// input and output. The engine works on the file's blocks in the shared
// cache (TalvorCacheStorage.h); this object reads blocks for the load
// threads and writes what the flush threads are asked to write.
//
// Handles. m_hFile of the descriptor reads and writes through the buffers;
// m_hFile2 is read-only and serves the reads that bypass them. Transfers are
// positional (pread/pwrite through CTalvorFileIO): what the design calls a
// seek is only the offset handed to the transfer, so a failed seek cannot
// happen and its message is never written. Load threads, the flush threads
// and backup readers share the handles without sharing a position.
//
// Write buffers. Only when the cache's m_bFileCache is set are they
// allocated; otherwise the use list is null and every read and write goes
// straight to the file. A buffer covers an aligned span of 262144 bytes and
// holds it whole (status 1 equal to disk, 2 with a changed range) or by
// 16384-byte parts (3, 4 with flags per part). A write into a buffer is on
// disk only once the buffer is written out: at eviction, by FlushBuffer, or
// when a read of a part forces it. Whoever needs all on disk calls
// FlushBuffer until it returns -1.
//
// What this object guarantees beyond the letter of the design, so that no
// caller sees stale bytes or loses a change:
//  * A transfer counts only when every byte moved; a short or failed write
//    is tried again whole, 3 tries in all, and then reported. A read that
//    meets the end of the file fills the rest of the target with zeros.
//  * A read that bypasses the buffers (it crosses a span, or is 256 KiB)
//    first writes out the changes buffered in its range, so it sees them.
//  * A write that bypasses the buffers is copied into every buffer that
//    holds part of its range once it is on disk, so none keeps old bytes.
//  * A write into a span held by parts that covers a part not yet read
//    only in part goes to the file instead: a part flagged changed is
//    written whole later, and its unread bytes would overwrite the disk.
//  * A read of a buffer held by parts tests every part it touches, so a
//    512-byte read of a part never read gives the file's bytes.
//  * A status 2 range grows to cover every write into it, and goes out
//    widened to 512-byte bounds so that direct I/O takes it.
//  * A flush request is bounded before use: its cache block must lie in
//    the block area of the segment (80005021) and its file place inside
//    the file (80005022 for a block, 80005023 for a page); a data block
//    never goes over the head page, an extended head never to offset 0.
//  * A move writes the buffers out before it copies the file, and a growth
//    lets the cached head learn the measured size, never a smaller one.
//
// Until the flush threads take open requests, NewFile and ChangeFilePath
// open the file on their own thread, with OpenFile's checks.
//
// Split by concern: TalvorFileStorage.cpp (life, open, small operations),
// TalvorFileStorageBuffers.cpp (lookup, eviction, write-out, FlushBuffer),
// TalvorFileStorageIO.cpp (ReadBlock, WriteBlock, LoadBlock),
// TalvorFileStorageFlush.cpp (FlushBlock), TalvorFileStorageSpeed.cpp
// (TestSpeed), TalvorFileStorageInit.cpp (Initialize), TalvorFileStorageNew.cpp
// (NewFile), TalvorFileStorageMove.cpp (ChangeFilePath),
// TalvorFileStorageGrow.cpp (ChangeFileSize).
//
// Threads and latch: m_crit (rank LATCHRANK_FILESTORE) guards the buffers.
// ReadBlock, WriteBlock and FlushBuffer take it themselves; the caller holds
// no latch of this object. FlushBlock never locks the live block in the
// cache: it writes a private copy that it has tested.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

class CTalvorCacheStorage;
class CBreltMemStorageModule;


// Sizes of the write buffers.
inline constexpr int FILESTORE_BUFFER_NUM = 64;
inline constexpr int FILESTORE_BUFFER_SIZE = 262144;
inline constexpr int FILESTORE_PART_SIZE = 16384;
inline constexpr int FILESTORE_PART_NUM = FILESTORE_BUFFER_SIZE / FILESTORE_PART_SIZE;
// A file with less than this free in its head asks for growth, which the
// flush thread makes in steps until the file has it.
inline constexpr long long FILESTORE_SPACE_RESERVE = 134217728;
// Tries of every transfer before a failure is reported.
inline constexpr int FILESTORE_IO_TRIES = 3;

// m_nStatus of a write buffer.
enum : int {
    FILEBUF_EMPTY = 0,
    FILEBUF_WHOLE = 1,          // the whole span, equal to the disk
    FILEBUF_WHOLE_CHANGED = 2,  // the whole span; m_nWriteBegin..m_nWriteEnd changed
    FILEBUF_PARTS = 3,          // only parts with a non-zero flag, none changed
    FILEBUF_PARTS_CHANGED = 4,  // as 3, at least one part changed
};

// m_bDataFlag of one part.
enum : BYTE {
    FILEPART_UNREAD = 0,
    FILEPART_ONDISK = 1,
    FILEPART_CHANGED = 2,
};

class CTalvorFileStorage : public IVirtualStorageFile {
public:
    struct stu_Cache_Buffer {
        volatile long long m_nFileBeginPos;
        volatile long long m_nFileEndPos;
        volatile int m_nStatus;          // FILEBUF_*
        volatile int m_nWriteBegin;
        volatile int m_nWriteEnd;
        BYTE m_bDataFlag[FILESTORE_PART_NUM];  // FILEPART_*
        stu_Cache_Buffer* m_pNext;       // hash bucket
        stu_Cache_Buffer* m_pLRUNext;    // towards the tail (older)
        stu_Cache_Buffer* m_pLRUPrev;    // towards the head (newer)
        LPBYTE m_lpBuffer;
    };

    // Takes the cache (may be null: then nothing can be opened). Allocates
    // the buffers only when the cache's m_bFileCache is set; if any of them
    // cannot be had, the object works without buffers.
    explicit CTalvorFileStorage(CTalvorCacheStorage* pTalvorCacheStorage);
    // With a descriptor: writes out the buffers, closes both handles and
    // clears m_pStorageFile. The drain is bounded: FlushBuffer is called at
    // most 2 x 64 times (each good call cleans a buffer, and nobody writes
    // meanwhile) and stops at its first failure, which has already been
    // tried 3 times; changes left behind are traced with their count
    // (80012010). Then frees the buffers and the latch. Owner's thread.
    ~CTalvorFileStorage() override;

    // Deletes the object; 0.
    int Release() override;
    // Brings the file into the cache at start: opens both handles (failure
    // 80001002), accepts a measured size other than m_liFileSize if the
    // first 8192 bytes read, then loads the head page, its extended pages
    // and its map blocks into the file's chain of the cache, linking each
    // page's cache offset from the page before (80001005 to 80001013,
    // 80001107 to 80001110). A cache taken over whole (m_bExists) must hold
    // the file's head already (80001012) and nothing is read. Keeps
    // *m_pLoadSize up to date. 0; 1 traced; or what the cache's
    // InitFileLoadThreadAndEvent gave. A flush thread; takes m_crit, and
    // the cache's m_csCache inside it.
    int Initialize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                   CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress,
                   BYTE bOpenFileUseBuffer) override;
    // Cache mode saves through the flush pipelines: 0, nothing done.
    int SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                        long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, BOOL bForce,
                        BOOL& bFlashbackFlag) override;
    // Grows the file to nFileSize by appending zeros in pieces of
    // nBufferSize (80007002, 80007003): whole pieces, so that the file may
    // end past nFileSize (80007004), unless nFileSize is below one piece.
    // The size reached goes to m_liFileSize, *m_pLoadSize, the cached head
    // and the file's row, with the save flags of the row, of the file list
    // and of the system head set; the cached head is then written straight
    // to offset 0 (80007005) and into any buffer holding it. A file already
    // as large writes nothing (80007001) but lets the head learn the
    // measured size. 0; 1 traced; 0 with nothing done without a cache
    // head or a system head. Storage thread; takes m_crit, left before the
    // disk space is told.
    int ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                       long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, long long nFileSize,
                       int nBufferSize, LPTALVORPROGRESS lpTalvorProgress) override;
    // Makes the file at m_liFileSize (at least 4 MiB; 80006001), which must
    // not exist (80006002): its head area (CacheFileHeadArea.h) and zeros
    // behind it, written in pieces of nInPutBufSize with *m_pLoadSize and
    // the progress following (80006003 to 80006005, 10111052). lpBuffer is
    // replaced by an aligned one of the area's size when it is smaller.
    // Then opens both handles (80006010) and puts the area's pages into the
    // chain the cache holds for the file (NewFile2Cache; the blocks must be
    // there). 0; 1 traced, or the cache's result. A partial file stays.
    // Until the flush threads take open requests, the open happens on the
    // caller's thread. Storage thread; no latch of this object.
    int NewFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, LPBYTE& lpBuffer, int& nInPutBufSize,
                USHORT usDatabaseGuid, CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress,
                BYTE bOpenFileUseBuffer) override;
    // 0, nothing done.
    int Save2File(LPFILEINFO pFileInfo, BOOL bNewFile, LPTALVORPROGRESS lpTalvorProgress) override;
    // Reads block nBlockNo (nBlockSize bytes at llFileBlockOffset) into
    // lpBuf through ReadBlock and checks file number, mark and block
    // number; clears m_bThreadNum of what was read. 0, or 1 traced
    // (80002001, 80002002). A load thread; takes m_crit inside ReadBlock.
    int LoadBlock(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, UINT nBlockNo, long long& llFileBlockOffset,
                  int nBlockSize, LPBYTE lpBuf) override;
    // Carries out one flush request from a private copy in lpBuffer (room
    // for m_nBlockSize bytes, 512-aligned). 0 written (on disk, not only in
    // a write buffer) or lapsed; 1 refused or failed, traced. A flush
    // thread; takes m_crit inside the write only, never a lock on the live
    // block.
    int FlushBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* pCacheFlush, LPBYTE lpBuffer) override;
    // Moves the file to lpszFilePath, which must not exist (80008001): makes
    // it (80008002), writes out every buffer (80008012, 80008013), copies
    // the file through lpBuffer in pieces of nBufferSize with *m_pLoadSize
    // following (80008004 to 80008007), closes both handles, removes the old
    // file (a failure is only traced, 80008009), and reopens at the new path
    // (80008010). 0 (80008011); 1 traced; a failed copy leaves the old file
    // open and the partial new one behind. Until the flush threads take
    // open requests the reopen happens here. Storage thread, with the file
    // paused in the cache; takes m_crit throughout.
    int ChangeFilePath(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, char* lpszFilePath,
                       LPBYTE lpBuffer, int nBufferSize, LPTALVORPROGRESS lpTalvorProgress,
                       BYTE bOpenFileUseBuffer) override;
    // Fields of the cached head of the file (0 when it is not in the cache
    // or lies outside it). Any thread, no latch.
    long long GetFreeMemoryOffset(LPFILEINFO pFileInfo) override;
    int GetHeadSize(LPFILEINFO pFileInfo) override;
    long long GetFileTimestamp(LPFILEINFO pFileInfo) override;
    // 1 when the cached head shows more than 128 MiB free, or cannot be
    // found; else 0. Any thread, no latch.
    BOOL CheckSpace(LPFILEINFO pFileInfo) override;
    // Opens both handles with the open modes (bOpenFileUseBuffer 0: direct
    // and synchronous) and checks the size. 0 with m_hFile and m_hFile2 of
    // pFileInfo set; 1 traced (80009001 to 80009004), nothing left open.
    // Stores pFileInfo. A flush thread; no latch.
    int OpenFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bOpenFileUseBuffer) override;
    // Reads nSize bytes at llPos into lpBuf, through the buffers where they
    // hold the range. 0; 1 for nSize below 1 or a failure (traced). Any
    // thread that owns lpBuf; takes m_crit, except on the direct path of
    // a range no buffer holds changes in.
    int ReadBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize) override;
    // Writes nSize bytes at llPos: into a buffer where the rules allow it,
    // else straight to m_hFile. 0 (in a buffer, or on disk); 1 after 3
    // failed tries, traced (80004002). Takes m_crit for the whole call.
    int WriteBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize);
    // Reads 4 GiB of the file in pattern nType (1 to 9, or 100 with reads
    // of nBufferSize rounded down to 1 KiB into a buffer of its own) through
    // m_hFile, around the buffers, and traces the time (80010000); a failed
    // read ends it with its code (80010001 to 80010005). lpBuffer holds at
    // least 262144 bytes. Another nType reads nothing and reports 0 reads;
    // so does a file too small for the pattern. The random pattern keeps
    // its places inside the file. Storage thread; takes m_crit throughout.
    void TestSpeed(LPTALVORCRITICALSECTION lpCritSection, LPBYTE lpBuffer, int nType, int nBufferSize) override;
    // 1 when a buffer has status 2 or 4. Reads status words only, no latch:
    // a stale answer costs one pass of the flush loop.
    BOOL CheckFlush() override;
    // Writes out the least recently used buffer with changes. 0 one
    // written; -1 none (or no buffers); 1 failed after 3 tries, traced
    // (80012002, 80012003), the buffer keeping its data and status. Takes
    // m_crit for the whole call, writes included.
    int FlushBuffer(LPTALVORCRITICALSECTION lpCritSection) override;

    // The buffer holding llPos with a status other than 0: 0 with it and
    // the offset in it, moved to the head of the use list; -1 with null.
    // Caller holds m_crit.
    int GetCacheBuffer(long long llPos, stu_Cache_Buffer*& pCacheBuffer, int& nBufPos);
    // Takes the least recently used buffer for the span of llPos: writes
    // out its changes, empties it, hashes it under the new span and puts it
    // at the head of the use list. 0 with status 0 for the caller to set;
    // -1 with null when llPos + nSize leaves the span or there are no
    // buffers; 1 with null when writing out failed (traced 80011002 or
    // 80011003; the buffer keeps its span, data and status). Caller holds
    // m_crit.
    int AllocCacheBuffer(long long llPos, int nSize, stu_Cache_Buffer*& pCacheBuffer, int& nBufPos);

    // Makes the directories of a file's path. 0 for a null or empty path;
    // otherwise 1, also when the path exists or is longer than 254
    // characters (then nothing is made): creating the file tells. Any
    // thread, no latch.
    BOOL MakeDir(char* lpszFilePath);
    // Tells the cache's module (OnFileSpaceChange) the free MiB of the
    // disk of the file's directory, with the file type. No latch held.
    void ChechDiskFree(LPFILEINFO pFileInfo);

    // For tests and the flush threads: the buffer array, and whether the
    // object has buffers at all.
    const stu_Cache_Buffer* Buffer(int i) const { return &m_arCacheBuffer[i]; }
    BOOL HasBuffers() const { return m_pCacheLRUHead != nullptr; }

    int m_nFlushCount;
    LPFILEINFO m_pFileInfo;
    CTalvorFlashback* m_pFlashback;
    CTalvorCacheStorage* m_pTalvorCacheStorage;
    TALVOR_SECTION m_crit;

private:
    // Which messages a write-out gives: its caller's codes and name.
    struct WriteOutCodes {
        const char* lpszFunc;
        LONG nRangeCode;  // a status 2 range failed
        LONG nRunCode;    // a run of changed parts failed
    };

    stu_Cache_Buffer m_arCacheBuffer[FILESTORE_BUFFER_NUM];
    stu_Cache_Buffer* m_arCacheHash[FILESTORE_BUFFER_NUM];
    stu_Cache_Buffer* m_pCacheLRUHead;
    stu_Cache_Buffer* m_pCacheLRUTail;
    // Whether the buffers are there. Set before the file is shared and
    // cleared after, so it is read without the latch, unlike the LRU ends
    // that every buffered access moves.
    BOOL m_bBuffered;

    // Buffers (TalvorFileStorageBuffers.cpp); m_crit held.
    void AllocateBuffers();
    void FreeBuffers();
    static int Bucket(long long llPos);
    void Unhash(stu_Cache_Buffer* p);
    void MoveToFront(stu_Cache_Buffer* p);
    // Writes out every change of the buffer: status 2 becomes 1, 4 becomes
    // 3. 0, or 1 traced with the codes given (what went out stays clean).
    int WriteOutBuffer(stu_Cache_Buffer* p, const WriteOutCodes& codes);
    // Writes the runs of changed parts in [nFrom, nTo) and marks them on
    // disk. 0, or 1 traced with nRunCode.
    int WriteChangedRuns(stu_Cache_Buffer* p, int nFrom, int nTo, const char* lpszFunc, LONG nRunCode);
    // Writes out the changes of every buffer that shares a byte with
    // [llPos, llPos + nSize). 0, or 1 traced (80003003 a range, 80003004 a
    // run of parts).
    int WriteOutOverlapping(long long llPos, int nSize, const char* lpszFunc);
    // After a direct write: copies its bytes into every buffer that holds
    // part of the range, so that none keeps older bytes than the disk.
    void CopyIntoOverlapping(long long llPos, const BYTE* lpBuf, int nSize);
    void SettleStatusByFlags(stu_Cache_Buffer* p);

    // Transfers (TalvorFileStorageIO.cpp).
    int Fd() const;
    int Fd2() const;
    // One whole transfer, up to 3 tries. TRUE when every byte moved (for a
    // read, also when it met the end of the file after at least one byte;
    // the rest is zeroed). nErr and nDone tell the last try.
    static BOOL WriteTries(int fd, const BYTE* lpBuf, int nSize, long long llPos, int& nErr, long long& nDone);
    static BOOL ReadTries(int fd, LPBYTE lpBuf, int nSize, long long llPos, int& nErr, long long& nDone);
    int WriteDirect(long long llPos, const BYTE* lpBuf, int nSize);
    int ReadDirect(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize);
    int WriteIntoBuffer(stu_Cache_Buffer* p, int nBufPos, const BYTE* lpBuf, int nSize);
    BOOL CanTakePartsWrite(const stu_Cache_Buffer* p, int nBufPos, int nSize) const;
    int ReadFromParts(stu_Cache_Buffer* p, int nBufPos, LPBYTE lpBuf, int nSize);
    int ReadMissIntoBuffer(long long llPos, LPBYTE lpBuf, int nSize, BOOL& bServed);
    const char* Path() const;
    // Opens both descriptors by the open modes; 0 or errno, none left open.
    int OpenDescriptors(BYTE bOpenFileUseBuffer, int& fd, int& fd2);
    // Makes them the descriptor's handles, closing what it held; 0 or errno.
    int TakeDescriptors(int fd, int fd2);
    int OpenHandles(BYTE bOpenFileUseBuffer);

    // New file (TalvorFileStorageNew.cpp).
    int WriteNewFileBody(int fd, LPBYTE lpBuffer, int nBufSize, long long llFrom, LPTALVORPROGRESS lpTalvorProgress);
    int CreateNewFile(LPBYTE lpBuffer, long long nArea, int nBufSize, LPTALVORPROGRESS lpTalvorProgress);
    int OpenThroughFlushThread(LPTALVORCRITICALSECTION lpCritSection, BYTE bOpenFileUseBuffer);

    // The file's head page in the cache, or null when the cache holds none
    // for it or the recorded block lies outside the block area.
    LPTABLEFILEHEAD CachedHead(LPFILEINFO pFileInfo) const;

    // Growth (TalvorFileStorageGrow.cpp); m_crit held, except by
    // RecordFileSize (the module's row of the file, the module's latch),
    // which is called with no latch held.
    LPSYSTEMFILEHEAD SystemHead() const;
    void RecordFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize, BOOL bLoadSize);
    int AppendZeros(LPBYTE lpBuffer, int nBufferSize, long long llFrom, long long nFileSize);
    int WriteHeadToDisk(LPTABLEFILEHEAD lpHead);

    // Move (TalvorFileStorageMove.cpp); m_crit held.
    int WriteOutAllBuffers();
    int CopyFileTo(int fdTo, const char* lpszTo, LPBYTE lpBuffer, int nBufferSize);

    // Start (TalvorFileStorageInit.cpp); m_crit held.
    BOOL IsPageOffset(long long llOffset) const;
    int SettleMeasuredSize();
    // Takes a cache block for the file, zeroes it and reads the page at
    // llFileOffset into it. 0; a cache result, or 1 for a failed read.
    int LoadPage(LPTALVORCRITICALSECTION lpCritSection, long long llFileOffset, long long& llCacheOffset,
                 LPBYTE& lpPage);
    int LoadHeadPage(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD& lpHead);
    // lpLastLink: where the cache offset of the next page goes (a packed
    // field, on any byte).
    int LoadExtendedHeads(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD lpHead, LPBYTE& lpLastLink);
    int LoadMapBlocks(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD lpHead, LPBYTE lpLastLink);

    // Flush requests (TalvorFileStorageFlush.cpp).
    LPBYTE CacheAddress(long long llOffset, int nSize) const;
    int FlushHeadOrMap(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPBYTE lpSource, LPBYTE lpBuffer,
                       int nSize);
    BOOL HeadCopyPasses(const stu_CacheFlush* p, LPBYTE lpCopy, long long& llTarget);
    int FlushDataBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPBYTE lpLive, LPBYTE lpBuffer,
                       int nSize);
    BOOL DataCopyPasses(const stu_CacheFlush* p, LPBASEBLOCKHEAD lpCopy, LPBASEBLOCKHEAD lpLive, int nSize);
    int AfterDataWrite(const stu_CacheFlush* p, LPBASEBLOCKHEAD lpLive, int nRet, BOOL bNewer);
    BOOL InsideFile(long long llOffset, int nSize) const;
    // The bytes straight to the file, and into every buffer holding the
    // range: 0 once they are on disk; 1 traced. Takes m_crit.
    int WriteThrough(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize);
};
