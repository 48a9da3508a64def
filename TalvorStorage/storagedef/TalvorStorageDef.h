// TalvorStorageDef.h — the daemon's own definitions: the runtime descriptor
// of one database file and the storage interface both backends implement.
// The on-disk and shared records themselves live in MemDBCommonDef.h.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <cstring>

// Settings read from the ini at start, read by every subsystem afterwards.
extern int g_nWriteBlockLog;
extern int g_nForceFlushLog;
extern int g_nCluster;
extern int g_nNodeIdentity;

class IVirtualStorageFile;
class CTalvorFlashback;
struct stu_CacheFlush;

// The runtime descriptor of one file. Process-private; kept in the module's
// list m_pStorageInfo and in m_arFileInfo by file number.
typedef struct stu_FILEINFO {
    int m_nShmId;
    void* m_hFile;
    void* m_hFile2;
    LPBYTE m_pFileAddr;
    char m_lpszFilePath[256];
    char m_lpszTablespaceName[64];
    BYTE m_bFileNo;
    char m_bFileType;
    long long m_nTimestamp;
    int m_nMaxObjectNum;
    long long m_liFileSize;
    long long* m_pLoadSize;
    volatile BYTE* m_pSaveFlag;
    LPFILE_MEMDBFILEINFO m_lpFileInfo;
    IVirtualStorageFile* m_pStorageFile;
    stu_FILEINFO* m_pNext;
} FILEINFO, *LPFILEINFO;

// m_pLoadSize points into a byte-packed row of the system file, so the value
// may lie on any byte: it is stored without assuming alignment.
inline void TalvorSetLoadSize(LPFILEINFO pFileInfo, long long nValue)
{
    if (pFileInfo->m_pLoadSize != nullptr) memcpy((void*)pFileInfo->m_pLoadSize, &nValue, sizeof(nValue));
}

// What SaveChange2File returns besides 0 and a failure: the pass wrote what
// it could, but a block changed past nTimestamp while it ran, so the file is
// not on disk as of nTimestamp. The block stays marked; the caller must not
// commit and passes again later.
inline constexpr int SAVECHANGE_PENDING = 2;

// A file as the rest of the daemon sees it, whatever its mode: memory mode
// (the whole file in one shared segment) or cache mode (blocks in the shared
// cache). Unless a method says otherwise its int result is 0 for success and
// non-zero for failure, and a failure has been traced before it returns, so
// callers need only the result.
//
// Threads: the object keeps no lock of its own. Calls that change a file come
// from one thread at a time — the main thread while the daemon starts or
// stops, the storage thread while it serves (memory mode), the cache's flush
// and load threads (cache mode). lpCritSection is the calling thread's latch
// record: every latch a method takes is entered on it, and the caller holds
// no latch of the storage (see TalvorLatchOrder.h) unless a method says so.
// lpTalvorProgress may be null; a method then reports no progress.
class IVirtualStorageFile {
public:
    virtual ~IVirtualStorageFile() {}
    // Closes the file, gives back its memory (memory mode: detaches and
    // removes the segment) and deletes the object; pFileInfo->m_pStorageFile
    // is cleared. Main thread, at the end, or a file command undoing a
    // failed create.
    virtual int Release() = 0;
    // Opens the existing file of pFileInfo and brings it into memory,
    // checking every mark of its head (memory mode: the whole image into a
    // segment; a segment that outlived the daemon is kept instead). Main
    // thread at start (memory mode) or the cache's flush thread (cache mode).
    virtual int Initialize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                           CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress,
                           BYTE bOpenFileUseBuffer) = 0;
    // One save pass of the file as of nTimestamp: every block changed since
    // nLastSaveTimestamp, then the head, then the maps. 0 done; SAVECHANGE_PENDING
    // (above); else failed. Sets bFlashbackFlag when the file must be passed
    // again. lpBuffer and lpHeadBuf are the pass's work buffers. Storage
    // thread, or the main thread's last pass at stop; never both (the save
    // gate). Cache mode: nothing to do, 0.
    virtual int SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                                long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, BOOL bForce,
                                BOOL& bFlashbackFlag) = 0;
    // Grows the file to nFileSize bytes and its memory with it. Storage
    // thread (a file command) or a cache thread.
    virtual int ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                               long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, long long nFileSize,
                               int nBufferSize, LPTALVORPROGRESS lpTalvorProgress) = 0;
    // Creates the file of pFileInfo, which must not exist, and its memory.
    // May replace lpBuffer by a larger one and update nInPutBufSize. Storage
    // thread (a file command).
    virtual int NewFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, LPBYTE& lpBuffer,
                        int& nInPutBufSize, USHORT usDatabaseGuid, CTalvorFlashback* pFlashback,
                        LPTALVORPROGRESS lpTalvorProgress, BYTE bOpenFileUseBuffer) = 0;
    // Memory mode: writes the whole image to the open file, or (bNewFile) to
    // a new file at m_lpszFilePath. Cache mode: nothing to do, 0. Storage
    // thread (a file command).
    virtual int Save2File(LPFILEINFO pFileInfo, BOOL bNewFile, LPTALVORPROGRESS lpTalvorProgress) = 0;
    // Cache mode: reads block nBlockNo into lpBuf (nBlockSize bytes) and
    // checks its marks; llFileBlockOffset receives its offset in the file.
    // Memory mode: nothing to do, 0. The cache's load threads.
    virtual int LoadBlock(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, UINT nBlockNo,
                          long long& llFileBlockOffset, int nBlockSize, LPBYTE lpBuf) = 0;
    // Cache mode: carries out one flush request. Memory mode: 0. The cache's
    // flush threads.
    virtual int FlushBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* pCacheFlush, LPBYTE lpBuffer) = 0;
    // Cache mode: copies the file to lpszFilePath, syncs the copy and
    // reopens there; the old file stays on disk for the caller to remove
    // (on failure the file stays open at its old path). Memory mode: nothing to do, 0 (a move goes through Save2File).
    // Storage thread (a file command).
    virtual int ChangeFilePath(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, char* lpszFilePath,
                               LPBYTE lpBuffer, int nBufferSize, LPTALVORPROGRESS lpTalvorProgress,
                               BYTE bOpenFileUseBuffer) = 0;
    // The head's m_nFileFreeMemoryOffset; 0 when the head is not in memory.
    // Any thread; reads shared memory without a latch.
    virtual long long GetFreeMemoryOffset(LPFILEINFO pFileInfo) = 0;
    // Cache mode: opens both handles and checks the size. Memory mode: 0.
    virtual int OpenFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bOpenFileUseBuffer) = 0;
    // The head's m_nFileHeaderSize; 0 when the head is not in memory. Any
    // thread.
    virtual int GetHeadSize(LPFILEINFO pFileInfo) = 0;
    // nSize > 0: reads nSize bytes at llPos from the disk file. Memory mode,
    // nSize < 1: copies -nSize bytes at llPos from the image. Any thread that
    // owns lpBuf.
    virtual int ReadBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize) = 0;
    // The head's m_nTimestamp; 0 when the head is not in memory. Any thread.
    virtual long long GetFileTimestamp(LPFILEINFO pFileInfo) = 0;
    // TRUE when the file has room left (memory mode: always). Cache threads.
    virtual BOOL CheckSpace(LPFILEINFO pFileInfo) = 0;
    // Cache mode: a read speed test. Memory mode: nothing. Storage thread.
    virtual void TestSpeed(LPTALVORCRITICALSECTION lpCritSection, LPBYTE lpBuffer, int nType, int nBufferSize) = 0;
    // TRUE when a write buffer holds changes (memory mode: never). Cache
    // flush threads.
    virtual BOOL CheckFlush() = 0;
    // Writes out one write buffer: 0 done, -1 nothing left to write (memory
    // mode: always), 1 failed. Cache flush threads.
    virtual int FlushBuffer(LPTALVORCRITICALSECTION lpCritSection) = 0;
};
