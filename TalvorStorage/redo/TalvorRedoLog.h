// TalvorRedoLog.h — the online redo log: a small circle of preallocated group
// files that the writer fills from the engine's redo ring, the archiver
// copies once sealed, and standby readers follow.
//
// Log numbers only grow; 0 means "no such log". A group is only the file a
// numbered log lives in while it is online; once the group is reused, the
// log lives on only in its archive copies.
//
// Ring positions and lengths come from another process: every position is
// checked against the data area before a byte is read, and a field that the
// end of the area splits is joined byte-wise.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

class CTalvorFlashback;

// The live feed of one standby thread: the writer copies each drained stretch
// here so that a reader that keeps up never touches the file.
typedef struct stu_TalvorRedologStandbyCache {
    TALVOR_SECTION m_stCrit;
    LPBYTE m_lpBuffer;
    int m_nBufferSize;
    UINT m_nRedoLogNo;
    int m_nLogDataPos;
    int m_nLogDataSize;
    BOOL m_bNewDataFlag;
    EVENTTYPE m_hEvent;
    stu_TalvorRedologStandbyCache* m_pNext;
} TALVORREDOLOGSTANDBYCACHE, *LPTALVORREDOLOGSTANDBYCACHE;

// One online group.
typedef struct stu_TalvorRedoGroup {
    void* m_pOnlineFile;
    volatile BYTE m_bState;
    volatile BYTE m_bStandbyRef;
    volatile UINT m_nSequenceNO;
    volatile int m_nWriteSize;
    volatile int m_nEffectiveSize;
    volatile int m_nWriteTime;
} TALVORREDOGROUP, *LPTALVORREDOGROUP;

// Where the writer stands with its log (REDOWRITERSTATE::m_nSwitchLog).
enum {
    // A log is open in the current group and takes the records drained.
    REDOSWITCH_OPEN = 0,
    // The open log is full, or the engine asked for a seal: it is sealed at
    // the end of this pass, and the next records go to the next group.
    REDOSWITCH_SEALDUE = 1,
    // No log is open (just started, or just sealed): the next records open
    // a new log in the next free group.
    REDOSWITCH_CLOSED = 2,
};

// The writer's own state between passes (one writer thread).
typedef struct stu_RedoWriterState {
    int m_nItemSize;
    int m_nWriteSize;
    int m_nSwitchLog;       // REDOSWITCH_*
    long long m_nTimestampBegin;
    long long m_nPrevEndTimestamp;
    long long m_nTimestampEnd;
    MF_REDOLOGFILEHEAD m_stHead;
    BYTE m_bNextRedoGroup;
    BOOL m_bReadException;
    int m_nExceptionCount;
    int m_nIdleCount;
    BOOL m_bFlushFlag;
    BOOL m_bEnded;          // the thread is to end after this pass
    BOOL m_bWriteFailTold;  // a failing write was said once
    int m_nStopPasses;      // passes since the stop request
    long long m_nStopSinceMs; // monotonic ms of the first pass that saw the stop (0: none yet)
    long long m_nStopToldMs;  // when the last progress line of the stop was written
} REDOWRITERSTATE, *LPREDOWRITERSTATE;

// A log that a start found open, with a record cut at its end: the writer
// goes on with it instead of sealing it mid-record.
typedef struct stu_RedoResume {
    BOOL m_bResume;
    int m_nWriteSize;            // bytes of the log in its file, head included
    int m_nItemSize;             // bytes of the cut record still to come
    long long m_nTimestampEnd;   // largest record timestamp in the log
} REDORESUME;

// What the records of a log up to a size say.
typedef struct stu_RedoWalk {
    int m_nWholeEnd;             // end of the last whole record (50 for none)
    int m_nCutMissing;           // bytes of a record that runs past the size (0: none)
    long long m_nEndTimestamp;   // largest timestamp among them
    BOOL m_bBroken;              // a head that is no record stood before the size
} REDOWALK;

// Counters for tests and the benchmark.
typedef struct stu_RedoWriterStats {
    volatile long long m_nWakeups;     // passes that found data to drain
    volatile long long m_nPasses;
    volatile long long m_nBytes;
    volatile long long m_nSeals;
} REDOWRITERSTATS;

// What the scan of one pass decided.
typedef struct stu_RedoStretch {
    int m_nBeginPos;
    int m_nEndPos;
    int m_nWritePos;
    long long m_nSliceSize;
    BOOL m_bHeadFlag;
} REDOSTRETCH;

inline constexpr int REDO_ZERO_FILL_SIZE = 0x400000;
inline constexpr int REDO_ARCHIVE_BUFFER_SIZE = 0x40000;
inline constexpr int REDO_MAX_DESTINATIONS = 6;
inline constexpr int REDO_EXCEPTION_PASSES = 31;
// A stop drains the ring into the groups; while it waits for the archiver
// to free a group it writes a progress line this often, and it gives up
// (tracing the bytes it leaves) only after this long, well inside the 300 s
// in which the service joins the redo threads.
inline constexpr long long REDO_STOP_PROGRESS_MS = 5000;
inline constexpr long long REDO_STOP_DRAIN_LIMIT_MS = 240000;
// After the writer ended, the archiver goes on with the sealed groups this
// long at most; what is left stays sealed for the next start.
inline constexpr long long REDO_ARCHIVE_STOP_LIMIT_MS = 40000;

// FILETIME ticks of now.
long long RedoNowFileTime();

// The ring's m_nItemSize as the writer leaves it: the bytes of a cut record
// still to come (0: the read position stands on a record head), or
// REDO_ITEMSIZE_UNKNOWN (the file's own records tell). While ConsumeRing
// stores the file's new size and then the read position, the field holds
// the read position to come, encoded below -1 where no other value lies, so
// that a start after a kill in between can tell what the file already has.
inline constexpr int REDO_ITEMSIZE_UNKNOWN = -1;
inline int RedoConsumePending(int nReadPos) { return -2 - nReadPos; }
inline int RedoPendingReadPos(int nItemSize) { return -2 - nItemSize; }

// Points inside ConsumeRing at which the kill tests stop a writer; never set
// in the service.
enum { REDOPOINT_PENDING = 1, REDOPOINT_LOGPOS = 2, REDOPOINT_READPOS = 3 };
typedef void (*LPREDOTESTPOINT)(int nPoint);
extern LPREDOTESTPOINT volatile g_pRedoTestPoint;

class CTalvorRedoLog {
public:
    CTalvorRedoLog();
    virtual ~CTalvorRedoLog();

    BOOL Init(LPSYSTEMFILEHEAD pMemoryFileHead, int nClusterNodeType, BOOL* pExit, char* lpRedoDir, char* pLogFileAddr,
              HEVENTTYPE hLogEvent, HEVENTTYPE hLogEmptyEvent, BOOL bRecover, CTalvorFlashback* pFlashback);
    BOOL SeekCurrentLog();

    // --- Readers (standby threads).
    int GetWritePos(UINT nRedoLogNo, int& nRedoGroup, BYTE& bCurLog, char* lpFilePath,
                    LPTALVORCRITICALSECTION lpCritSection);
    void ReleaseRedoLog(int& nRedoGroup, LPTALVORCRITICALSECTION lpCritSection);
    int GetWriteSize(int nRedoGroup, BOOL bForce, EVENTTYPE& hEvent);
    void FlushLogFile(int nRedoGroup);
    // Sets m_bFlushFlag from 0 to 1 (compare-and-swap): TRUE if it did,
    // FALSE if a request stood already. Any thread, no latch.
    static BOOL AskToPublish(LPFILE_TRACEMEMFILEHEAD pRing);
    int SwitchNewLog(BYTE bRedoGroup, UINT nSequenceNO, LPTALVORCRITICALSECTION lpCritSection);
    BOOL GetLogWaitFlag(int nRedoGroup);
    // Link and unlink a standby thread's live feed; take m_crit, under which
    // the writer walks the feeds, so an unlinked feed may be freed at once.
    // The standby's own thread; no latch held.
    void AddStandby(LPTALVORREDOLOGSTANDBYCACHE pCache);
    void SubStandby(LPTALVORREDOLOGSTANDBYCACHE pCache);

    // A field at a ring position: wrapped, 0 below the data area, a split
    // field joined. A head whose sizes cannot be true gives 0.
    static int ReadData(int nPos, LPFILE_TRACEMEMFILEHEAD pHead);
    static long long ReadData64(int nPos, LPFILE_TRACEMEMFILEHEAD pHead);

    // --- Writer (TalvorRedoLogWriter.cpp).
    int WriteLog(TALVORCRITICALSECTION& stCritSection);
    void WriteLogFile(LPTALVORCRITICALSECTION lpCritSection, LPFILE_TRACEMEMFILEHEAD pLogFileHead,
                      BYTE bCurrentRedoGroup, char* pLogFileAddr, int nWritePos, int nItemSize, BOOL bHeadFlag,
                      int& nWriteSize, BOOL& bFlushFlag);
    void StartWriter(REDOWRITERSTATE& st);
    // One pass over the ring; TRUE when the thread is to end.
    BOOL WritePass(REDOWRITERSTATE& st, LPTALVORCRITICALSECTION lpCritSection);

    // --- Archiver (TalvorRedoLogArchive.cpp).
    int ArchiveFile(void*& hFile, void*& hSrcFile);
    // The destination list, worked on in place (lpPaths has room for 1100
    // bytes): a "/" behind every path, split at ";" into at most 6 (the
    // sixth keeps the rest), empty ones dropped, each "ArchiveLog/" made.
    static int PrepareDestinations(char* lpPaths, char** arDes);
    // MakeDir of lpPath's directories, each synced into its parent; a failed
    // sync is traced (30004056): what is archived there may not outlive a
    // power loss. Archiver thread.
    static void MakeArchiveDir(const char* lpPath);
    // TRUE when a head read from a group file may go out as log nLogNo: that
    // log's, sealed, and at least its head long. Any thread, no latch.
    static BOOL HeadIsArchivable(const MF_REDOLOGFILEHEAD& stHead, UINT nLogNo);
    // Archiver thread, no latch: the sealed group with the oldest log that
    // is not set aside, or -1.
    int OldestSealedGroup();
    // Archiver thread, no latch: the log in nGroup copied to the nDesCount
    // destinations (lpBuffer: REDO_ARCHIVE_BUFFER_SIZE aligned bytes, hFile
    // the handle a crash leaves to close) and the group marked archived.
    // TRUE once it is; FALSE leaves the group sealed.
    BOOL ArchiveGroup(int nGroup, char** arDes, int nDesCount, LPBYTE lpBuffer, void*& hFile);

    // The bytes of the attachment: bounds every position the head claims.
    void SetRingSize(int nRingSize) { m_nRingSize = nRingSize; }
    LPTALVORREDOGROUP GetGroup(int nGroup) { return (nGroup >= 0 && nGroup < m_nWriteRedoOnlineGroups) ? &m_pRedoLog[nGroup] : nullptr; }
    // Group file path of group g.
    void GroupPath(int nGroup, char* lpPath, size_t nSize) const;

    // --- Fields, in the order the redo object has always kept them.
    // Moved by the writer alone; other threads read it whole.
    BYTE m_bCurrentRedoGroup;
    int m_nWriteRedoOnlineGroups;
    int m_nWriteRedoMaxSize;
    BOOL m_bArchiveExit;
    volatile BOOL m_bLogWaitting;
    int m_nClusterNodeType;
    volatile BOOL* m_pExit;
    char* m_pLogFileAddr;
    char* m_lpRedoDir;
    char* volatile m_lpArchiveDir;
    HEVENTTYPE m_hLogEvent;
    HEVENTTYPE m_hLogEmptyEvent;
    EVENTTYPE m_hArchiveEvent;
    EVENTTYPE m_hArchivedEvent;
    TALVORREDOGROUP m_pRedoLog[REDOGROUP_MAX];
    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    CTalvorFlashback* m_pFlashback;
    TALVOR_SECTION m_crit;
    LPTALVORREDOLOGSTANDBYCACHE volatile m_pStandbyCache;

    // --- Beyond the classic fields.
    int m_nRingSize;
    int m_nForceFlushLog;             // "forceflushlog": 1 each burst ends with fdatasync of the group
    long long m_nStopDrainLimitMs;    // REDO_STOP_DRAIN_LIMIT_MS; tests shorten it
    long long m_nArchiveStopLimitMs;  // REDO_ARCHIVE_STOP_LIMIT_MS; tests shorten it
    REDORESUME m_stResume;            // set by Init, taken by StartWriter
    REDOWRITERSTATS m_stStats;
    volatile int m_nThreadsInside;    // writer and archiver entries running on this object
    char m_szArchiveDir[MAX_PATH];    // storage behind m_lpArchiveDir

private:
    BOOL OpenGroupFile(int nGroup, BOOL bCreate);
    BOOL MakeGroupFile(int nGroup, LPBYTE lpZero, LONG nFailCode);
    BOOL ReadGroupHead(int nGroup, LPMF_REDOLOGFILEHEAD pHead);
    BOOL WriteGroupHead(int nGroup, const MF_REDOLOGFILEHEAD* pHead);
    void BuildFreshHead(LPMF_REDOLOGFILEHEAD pHead);
    void RaiseLogNumbers();
    UINT HighestArchivedNumber();
    // Start-up helpers: the thread that runs Init (or a restarted writer),
    // before readers and the archiver look; no latch is held.
    //
    // Without a ring that vouches for the log: only records that prove to
    // be this log's count. The end of the last proven record (50: none).
    int WalkUnsealedLog(int nGroup, const MF_REDOLOGFILEHEAD& stHead, long long& nEndTimestamp);
    // The records of the log in nGroup from offset 50 up to nSize, bytes
    // the writer itself said it wrote: no guessing is needed below nSize.
    // bRingHasRest: a head cut by nSize is completed from the ring's read
    // position (an open log); otherwise it is no record. A record with a
    // timestamp below nMinTimestamp (0: any) is no record of this log.
    REDOWALK WalkLogTo(int nGroup, int nSize, BOOL bRingHasRest, long long nMinTimestamp);
    // A sealed, not archived log whose records do not reach its size (a
    // power loss took bytes the page cache had not written back) is sealed
    // again behind its last whole record.
    void CheckSealedLog(int nGroup);
    // TRUE when the ring names the log open in nGroup (m_nLogNo) and how far
    // it was written (m_nLogPos, within the file).
    BOOL RingVouches(int nGroup, const MF_REDOLOGFILEHEAD& stHead);
    // Start, no latch: a writer killed inside ConsumeRing between the file's
    // size and the read position left the piece it drained also unread in
    // the ring; its room is given back here, before the walk of the log.
    void SettlePendingConsume(int nGroup);
    // An open log found at start (bAtStart) or by a restarted writer: sealed
    // where the ring says it ends, gone on with when a record is cut there,
    // left open (number kept) when it holds nothing. FALSE only when a seal
    // could not be written.
    BOOL SettleOpenLog(int nGroup, MF_REDOLOGFILEHEAD& stHead, BOOL bAtStart);
    // An open log with no record is opened again under its own number, so
    // that a kill during an open leaves no gap in the numbers.
    void KeepNumberOfEmptyLog(const MF_REDOLOGFILEHEAD& stHead);
    BOOL SealFoundLog(int nGroup, MF_REDOLOGFILEHEAD& stHead, int nSize, long long nEndTimestamp, BOOL bAtStart);
    void MoveToNextGroup();
public:
    // The highest log number below which every log is archived: the oldest
    // sealed or open log bounds it. Any thread; reads the table unlocked.
    int ArchivedUpTo();
private:
    void FollowNewestLog();
    BOOL GroupIsFree(int nGroup);

    // Writer helpers.
    LPFILE_TRACEMEMFILEHEAD RingHead() { return (LPFILE_TRACEMEMFILEHEAD)m_pLogFileAddr; }
    BOOL CheckRingHead(LPFILE_TRACEMEMFILEHEAD pHead);
    void ScanRecords(REDOWRITERSTATE& st, REDOSTRETCH& sr, LPFILE_TRACEMEMFILEHEAD pHead);
    void ContinueCutRecord(REDOWRITERSTATE& st, REDOSTRETCH& sr, LPFILE_TRACEMEMFILEHEAD pHead);
    BOOL OpenNewGroup(REDOWRITERSTATE& st, long long nPassBegin, LPTALVORCRITICALSECTION lpCritSection);
    void SealGroup(REDOWRITERSTATE& st, BOOL bShutdown, BOOL bAfterData);
    // Writer thread, no latch: st.m_stHead is this log's head (read back at
    // a shutdown); FALSE (traced) when no head of this log can be had.
    BOOL TakeHeadToSeal(REDOWRITERSTATE& st, int nGroup, BOOL bShutdown);
    // Writer thread, no latch: TRUE once the sealed head is written.
    BOOL WriteSealHead(REDOWRITERSTATE& st, int fd, const MF_REDOLOGFILEHEAD& h);
    void Publish(REDOWRITERSTATE& st);
    void IdlePass(REDOWRITERSTATE& st);
    // Writer thread; takes m_crit for the walk over the feeds, so that a
    // feed unlinked under it (SubStandby) is never read afterwards.
    void FeedStandbys(LPTALVORCRITICALSECTION lpCritSection, LPFILE_TRACEMEMFILEHEAD pHead, int nBegin, int nFirst,
                      int nSecond, BOOL bWhole, int nWriteSize);
    BOOL WritePiece(int fd, const BYTE* p, int nLen, int nOffset, REDOWRITERSTATE* pState);
    // Writer thread, no latch: after a piece is in the file, the ring's
    // m_nItemSize (the read position to come), m_nLogPos, m_nReadPos and
    // m_nItemSize again, in that order.
    void ConsumeRing(LPFILE_TRACEMEMFILEHEAD pHead, int nWriteSize, int nItemSize, int nReadPos);
    // Writer thread, no latch: fdatasync of the burst with forceflushlog 1;
    // a failure is traced (the bytes stay in the page cache).
    void SyncBurst(int fd);
    // Writer thread, no latch: fdatasync of a group, a failure traced with nCode.
    void SyncGroup(int nGroup, LONG nCode);
    // A stop that waits for a free group: FALSE once it must give up.
    BOOL StopMayWait(REDOWRITERSTATE& st);
    void ReportStatus(REDOWRITERSTATE& st);
    BOOL StopWithCutRecord(REDOWRITERSTATE& st);

    // Archiver helpers.
    void CopyBackup(char** arDes, int nDesCount, LPBYTE lpBuffer, void*& hFile, void*& hSrcFile);
    BOOL CopyLogTo(const char* lpPath, int nGroup, const MF_REDOLOGFILEHEAD& stHead, LPBYTE lpBuffer, BOOL bFirstPass,
                   void*& hFile);
    // The copy under its temporary name made durable and moved to its
    // final name, the directory synced: FALSE (traced) on any failure.
    BOOL PublishCopy(const char* lpTemp, const char* lpPath, int fd);
    // A sealed group whose head cannot be read is tried REDO_HEAD_READ_TRIES
    // times, then set aside for the rest of this run (the next start tries
    // it again): the logs behind it are archived, and a stop is not held.
    BOOL HeadReadFailed(int nGroup);
    BOOL SetAside(int nGroup) const;
    // Archiver thread: the group is not tried again in this run.
    void SetAsideForThisRun(int nGroup);
    // Archiver thread: TRUE once the time a stop gives it is up.
    BOOL StopLimitPassed();
    UINT m_arHeadFailures[REDOGROUP_MAX] = {0};
    UINT m_arFailedLogNo[REDOGROUP_MAX] = {0};
    long long m_nArchiveExitSinceMs = 0;

    REDOWRITERSTATE* m_pWriterState;  // the writer's state while WriteLogFile runs (a stop ends its retries)
};
