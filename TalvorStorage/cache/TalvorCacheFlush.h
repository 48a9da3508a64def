// TalvorCacheFlush.h — what the two flush pipelines of the shared cache need
// from outside the cache library, and how the two pipelines differ.
//
// The pipelines commit how far the files are on disk through the module's
// two timestamp writers, find files by number and read the system head's
// open mode. The module lives above this library, so it is reached through
// ITalvorCacheModule; the service supplies the real one, tests a fake.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

class CTalvorFlashback;

// Results of m_bReserved of a ring entry once it is handled.
enum : BYTE {
    CACHEFLUSH_DONE = 0,
    CACHEFLUSH_UNUSABLE = 250,   // offset 0, or a place outside the segment, its pool or the file
    CACHEFLUSH_FAILED = 252,     // the write failed, or a timestamp was not committed
    CACHEFLUSH_NOBACKEND = 253,  // the file has no backend
    CACHEFLUSH_NOFILE = 254,     // no file of this pipeline's type with that number
};

// Bytes of a timestamp array image: what the writers copy from it.
inline constexpr int CACHEFLUSH_TSIMAGE_SIZE = SYSTEMFILE_TIMESTAMP_NUM * (int)sizeof(long long);
// A timestamp count that asks to clear the committed array.
inline constexpr int CACHEFLUSH_TSNUM_CLEAR = 255;
// The fit test: looks at 1 microsecond, then at 1 ms, then go ahead.
// The fuzz build (TALVOR_FUZZ, which defines TALVOR_FUZZ_SHORT_WAITS) looks
// twice of each: its inputs name targets that never fit, and the full
// schedule (0.1 s an entry) would turn a ring of them into a hang. What an
// entry does after the looks is the same either way.
#ifdef TALVOR_FUZZ_SHORT_WAITS
inline constexpr int CACHEFLUSH_FIT_FAST_LOOKS = 2;
inline constexpr int CACHEFLUSH_FIT_SLOW_LOOKS = 4;
#else
inline constexpr int CACHEFLUSH_FIT_FAST_LOOKS = 100;
inline constexpr int CACHEFLUSH_FIT_SLOW_LOOKS = 200;
#endif
// FileSpaceManage every so many entries while the ring is busy.
inline constexpr int CACHEFLUSH_SPACE_EVERY = 33;
// Growth of a file short of room, and the zeros buffer that writes it.
inline constexpr long long CACHEFLUSH_GROW_SIZE = 67108864;
inline constexpr int CACHEFLUSH_GROW_BUFFER = 4194304;
// Failed block writes remembered until written again (see the loop).
inline constexpr int CACHEFLUSH_FAILED_MAX = 256;
// How long Free waits for each flush thread, in ms.
inline constexpr UINT CACHEFLUSH_JOIN_MS = 400000;

// The module as the cache sees it: its flush pipelines, load threads,
// preload and the files' backends. The cache's library cannot reach up to
// the module; the module hands this over once (SetCacheModule) before any
// file opens. Every method: any cache thread, no latch of the cache held;
// the writers take the module's own.
class ITalvorCacheModule {
public:
    virtual ~ITalvorCacheModule() {}
    // The descriptor of file bFileNo (m_arFileInfo), or null.
    virtual LPFILEINFO FileOf(BYTE bFileNo) = 0;
    // m_bOpenFileUseBuffer of the system head; 0 without a head.
    virtual BYTE OpenFileUseBuffer() = 0;
    // The module's flashback object, or null.
    virtual CTalvorFlashback* Flashback() = 0;
    // The module's list of files (m_pStorageInfo, chained by m_pNext), or
    // null.
    virtual LPFILEINFO FileList() = 0;
    // The system head (to mark the file list for saving), or null.
    virtual LPSYSTEMFILEHEAD SystemHead() = 0;
    // The free MiB of the disk of a file of bFileType: the module's warning.
    virtual void OnFileSpaceChange(BYTE bFileType, long long nFreeMiB) = 0;
    // A file grew to llSize: its row in the system file takes the size
    // (and with bLoadSize the load size the engine sees), and the row, the
    // file list and the system head are marked for the next save pass,
    // under the module's latch (the pass copies the system image under
    // it). No latch held by the caller.
    virtual void RecordFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize,
                                BOOL bLoadSize) = 0;
    // The preload's progress: the load size of the file's row, under the
    // module's latch (a growing flush thread writes the row too). No latch
    // held by the caller.
    virtual void ShowLoadSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize) = 0;
    // The module's WriteCacheTableTimestamp / WriteCacheIndexTimestamp:
    // S_OK once the timestamp (and the array, if given) is in the system
    // file; a failure otherwise.
    virtual HRESULT WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                             LPBYTE lpTimestampBuf, int nTimestampNum) = 0;
    virtual HRESULT WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long llTimestamp,
                                             LPBYTE lpTimestampBuf, int nTimestampNum) = 0;
};

// How the table pipeline and the index pipeline differ.
struct CacheFlushKind {
    BYTE bFileType;        // FILETYPE_TABLE or FILETYPE_INDEX
    BOOL bIndex;
    int nWorkSize;         // the work buffer
    int nHeadMark;
    int nExHeadMark;
    LONG nNoFileCode;      // 60006001 / 60005001
    LONG nNoBackendCode;   // 60006002 / 60005002
    LONG nFailedCode;      // 60006004 / 60005004
    LONG nNotCommittedCode;
    LONG nUnusableCode;    // 60006011 / 60005011
    LONG nThreadCode;      // started, closed
    LONG nNoObjectCode;    // allocation failed
    LONG nInitFailCode;    // Initialize failed
    const char* lpszThread;
};

extern const CacheFlushKind g_stTableFlushKind;
extern const CacheFlushKind g_stIndexFlushKind;

// One run of a flush loop: its buffers and what it remembers between
// entries. Owned by the loop's thread.
struct CacheFlushRun {
    const CacheFlushKind* pKind;
    LPBYTE lpWork;
    int nEntries;        // handled, for FileSpaceManage every 33rd
    BOOL bExit;
    // Blocks whose write failed and that were not written since. While one
    // is left (or more failed than fit here) no timestamp is committed:
    // the timestamp would stand for a block that is not on disk.
    int nFailed;
    BOOL bFailedOverflow;
    BYTE arFailedFileNo[CACHEFLUSH_FAILED_MAX];
    long long arFailedOffset[CACHEFLUSH_FAILED_MAX];
};
