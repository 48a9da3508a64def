// LogManager.h — the trace log of both processes, and the entry points of the
// log service.
//
// The daemon's own lines travel from Trace/Trace0 through an in-process queue
// to a writer thread (series "TalvorStorage"). The engine's lines arrive as
// raw text through a ring in shared memory and a second thread copies them,
// unread, to their own series ("TalvorService"). Tracing works from the first
// instruction on: the singleton comes into being at the first call and lines
// queue until the writer runs (or the log system is torn down, which drains
// them).
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"
#include "TypeDef.h"

#include <semaphore.h>

class CTalvorFlashback;
class CTalvorRedoLog;

BOOL InitLogSystem();
void ExitLogSystem();
// Writes every queued line of the daemon to its file now, on the calling
// thread, whether or not the writer thread runs (the writer's own latch
// keeps the two apart). For the end of a process that leaves its threads
// running: a refused start must never lose the line that says why.
// Any thread; takes the queue latch and the writer latch in turn.
void FlushLogSystem();

// With a head: opens the rings and starts the trace threads. With null: stops
// them. FALSE when the service could not come up.
BOOL SetLogSystemFileHead(LPSYSTEMFILEHEAD lpMemoryFileHead, int nNodeType, CTalvorFlashback* pFlashback);
// With no database to open: starts the writer of the daemon's own lines
// alone (the engine's ring needs a head). FALSE when it could not start.
BOOL StartLogSystemOwnLines();
// A daemon that started with no database opens the rings and starts both
// trace threads here, from the first head it opens, before the redo
// service (SysStartTalvorLog). FALSE when they could not be had.
BOOL SysOpenTalvorLogRings(LPSYSTEMFILEHEAD lpMemoryFileHead, CTalvorFlashback* pFlashback);
// The cluster road: the redo service alone goes and comes back around a
// change of the database, while the trace log keeps running.
BOOL SysStartTalvorLog(LPSYSTEMFILEHEAD lpMemoryFileHead, int nClusterNodeType, BOOL bRecover,
                       CTalvorFlashback* pFlashback);
void SysClearTalvorLog();

// The crash handler's side of the trace path: a fault raised by the trace
// code itself (it cannot come from elsewhere while a trace latch is held)
// gives the latch back, so that the handler's own lines do not wait on it.
void TraceAbandonLatchAfterFault();

// --- The producing side of a ring, as the engine writes it. The daemon only
// reads the trace ring; the engine stand-in and the tests write through this.
// Writes the head of a new ring of nTotalSize bytes.
void TraceRingInitHead(LPBYTE lpRing, int nTotalSize, BYTE bFileType);
// Bytes that can be written now without reaching the reader (one byte always
// stays free, since equal positions mean "empty").
int TraceRingFreeSpace(LPBYTE lpRing, int nRingSize);
// Appends up to nLen bytes, split at the end of the area (filled to its last
// byte before the wrap); returns how many were taken. nRingSize is the size
// of the attachment, which bounds every position the head claims.
int TraceRingWrite(LPBYTE lpRing, int nRingSize, const void* pData, int nLen);

// Size of the daemon's bounded queue, in bytes of queued text and records.
inline constexpr long long TRACE_QUEUE_DEFAULT_LIMIT = 32LL << 20;
// Default size of one file of either series when the system head gives none.
inline constexpr int TRACE_FILE_DEFAULT_MAX_SIZE = 0x1400000;
// Retention of each series.
inline constexpr unsigned long long TRACE_SERIES_MAX_BYTES = 0x3E800000ULL;
inline constexpr int TRACE_SERIES_MAX_FILES = 50;
inline constexpr int TRACE_SERIES_MAX_REMOVALS = 10;

class CLogManager {
public:
    typedef struct stu_TalvorTrace {
        int m_nLen;
        char m_lpTitle[128];
        char* m_lpContent;
        stu_TalvorTrace* m_pNext;
    } TALVORTRACE, *LPTALVORTRACE;

    static CLogManager& instance();
    // The singleton, created at need; null only when memory ran out.
    static CLogManager* GetInstancePtr();
    // The singleton if it exists; never creates one.
    static CLogManager* PeekInstancePtr() { return __atomic_load_n(&m_pSinstance, __ATOMIC_ACQUIRE); }
    static void DestoryInstance();
    virtual ~CLogManager();

    BOOL Init();
    BOOL InitLogEnvironment(CTalvorFlashback* pFlashback, int nTalvorBufferCacheSize);
    BOOL SetSystemFileHead(LPSYSTEMFILEHEAD lpMemoryFileHead, int nNodeType, CTalvorFlashback* pFlashback);

    BOOL WriteLog(LPCTSTR szFuncationName, LONG dwThreadID, UINT dwLevel, UINT dwErrorCode, LPCSTR szText);
    BOOL WriteTrace();
    BOOL WriteAllTrace();
    BOOL CheckLogFile();
    BOOL LogFileManage(LPCTSTR pFileName);

    static void* WriteTraceThread(LPVOID lpParam);
    static void* WriteTraceThreadEx(LPVOID lpParam);

    // --- The redo service (LogManagerRedo.cpp): the writer and the archiver
    // of CTalvorRedoLog, started after the trace threads and stopped with them.
    static void* WriteLogThread(LPVOID lpParam);
    static void* ArchiveLogThread(LPVOID lpParam);
    BOOL StartRedoService(int nClusterNodeType, CTalvorFlashback* pFlashback);
    BOOL StartTalvorLog(LPSYSTEMFILEHEAD lpMemoryFileHead, int nClusterNodeType, BOOL bRecover,
                        CTalvorFlashback* pFlashback);
    // The rings and both trace threads, as SetSystemFileHead opens them.
    BOOL OpenRings(LPSYSTEMFILEHEAD lpMemoryFileHead, CTalvorFlashback* pFlashback);
    void ClearTalvorLog();
    // Frees the redo object once no thread runs in it (the destructor's part).
    void ReleaseRedoService();

    LPTSTR GetTraceDir() { return m_lpTraceDir; }
    CTalvorRedoLog* GetTalvorRedoLog() { return m_pTalvorRedoLog; }

    // Starts the two trace threads (0 or the pthread error); stops them with
    // a common deadline. Used by SetSystemFileHead, and alone where no rings
    // exist (the writer of the daemon's own lines needs none).
    int StartTraceThreads(BOOL bWithRing);
    void StopTraceThreads(UINT nDeadlineSeconds);

    // One pass of the ring copier over what the engine wrote; FALSE when no
    // file could be opened (nothing consumed).
    BOOL CopyTraceRing();
    // After a fault inside a write: the file the writer (or, bService, the
    // copier) held is left to the crash, and the next line opens a new one.
    void AbandonFilesAfterCrash(BOOL bService);

    void SetQueueLimit(long long nBytes) { m_nQueueLimit = nBytes; }
    long long GetQueuedBytes() const { return __atomic_load_n(&m_nQueuedBytes, __ATOMIC_RELAXED); }
    UINT GetDroppedLines() const { return __atomic_load_n(&m_nDroppedLines, __ATOMIC_RELAXED); }

    // --- Fields, in the order the log manager has always kept them.
    int m_nNum;
    CTalvorAppendFile* m_pFile;     // open "TalvorStorage" file of the writer
    char* m_lpTraceDir;
    char* m_lpRedoDir;
    LPBYTE m_pTraceFileAddr;
    MFID m_hTraceFile;
    HEVENTTYPE m_hTraceEvent;
    LPBYTE m_pLogFileAddr;
    MFID m_hLogFile;
    HEVENTTYPE m_hLogEvent;
    HEVENTTYPE m_hLogEmptyEvent;
    TALVOR_SECTION m_critTrace;
    LPTALVORTRACE m_pTraceHead;
    LPTALVORTRACE m_pTraceTail;
    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    CTalvorRedoLog* m_pTalvorRedoLog;
    volatile BOOL m_bExit;
    volatile BOOL m_bLogExit;
    HTHREADTYPE m_hWriteTraceThread;
    HTHREADTYPE m_hWriteTraceThreadEx;
    HTHREADTYPE m_hWriteLogThread;
    HTHREADTYPE m_hArchiveLogThread;

    // --- Beyond the classic fields.
    int m_nTraceFileSize;           // bytes of the attached trace ring
    int m_nLogFileSize;             // bytes of the attached redo ring
    BOOL m_bEnvironmentReady;       // rings and events made once
    TALVOR_SECTION m_critWrite;     // the consumer side: one writer of m_pFile at a time
    volatile BOOL m_bInFileWrite;   // inside a write to m_pFile (a crash there abandons it)
    CTalvorAppendFile* m_pServiceFile; // open "TalvorService" file of the copier
    volatile BOOL m_bInServiceWrite;
    char m_szServicePath[MAX_PATH + 64];
    int m_nServiceProcessID;        // engine process whose lines the open file holds
    long long m_nServiceWriteSize;
    long long m_nWriteSize;         // ring data / lines written to the open file
    long long m_nQueuedBytes;       // queued, not yet written (atomic)
    long long m_nQueueLimit;
    UINT m_nDroppedLines;           // refused by the full queue (atomic)
    UINT m_nLostLines;              // dropped for want of a file
    BOOL m_bOpenFailureTold;
    long long m_nNextOpenTryMs;     // after a failed open, the next attempt
    BOOL m_bRingOpenFailureTold;
    LPTALVORTRACE m_pWritingChain;  // lines the writer has taken and not yet written

private:
    CLogManager();
    static CLogManager* m_pSinstance;

    // Posted when a line lands in an empty queue and at a stop, so that a
    // quiet writer can wait for work instead of napping: any thread, and
    // async-signal-safe (the crash handler queues lines too).
    sem_t m_semQueued;
    bool m_bQueuedSemMade = false;
    void WakeTraceWriter();
    // Writer thread: waits up to nMs for a post.
    void WaitForTraceWork(UINT nMs);

    LPTALVORTRACE TakeTraceChain();
    void WriteTraceChain(LPTALVORTRACE pChain, int nWriteTraceMaxSize);
    void WriteTraceRecord(LPTALVORTRACE pRecord, int nWriteTraceMaxSize);
    void WriteQueueNotes();
    int TraceFileMaxSize();
    void ReleaseRecord(LPTALVORTRACE pRecord);
    BOOL OpenServiceFile(int nProcessID);
    void RepairRingHead(LPFILE_TRACEMEMFILEHEAD lpHead);
};

// --- Shared by the files of the log manager (not for other callers).
// Directory of the executable, with a trailing "/".
void TraceExecutableDir(char* lpDir, size_t nSize);
// Name of a new file of a series; a name already taken within the same
// second gets "_NN" before ".log" instead of emptying the earlier file.
BOOL TraceBuildFileName(const char* lpDir, const char* lpSeries, char* lpPath, size_t nSize);
// Creates or empties a file through the file layer (5 tries 1 ms apart)
// and gives it mode 0666; null on failure.
CTalvorAppendFile* TraceOpenNewFile(const char* lpPath);
// The machine block "Nodename: ..." of both heads.
void TraceMachineBlock(char* lpBuf, size_t nSize);
// The head of a new file of each series (mark included).
void TraceWriteStorageHead(CTalvorAppendFile* pFile);
void TraceWriteServiceHead(CTalvorAppendFile* pFile, int nProcessID);
