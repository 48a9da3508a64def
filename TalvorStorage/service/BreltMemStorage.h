// BreltMemStorage.h — the module object of the daemon: it owns every other
// object and every file descriptor, and runs the order of coming up, serving
// and going down.
//
// One static instance, _AtlModule. Signal handlers and thread entries reach
// the module through it. The main thread, the signal handlers and the storage
// thread meet at g_bEixt alone.
#pragma once

#include "FileListHolder.h"
#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "MemDBBackupDef.h"
#include "TalvorClusterFiletransfer.h"
#include "TalvorStandby.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

#include <csignal>

class CTalvorFlashback;
class CTalvorCacheStorage;
class CStorageCacheBridge;

// InitSysEnvironment's refusal of a database a restore left unfinished.
inline constexpr HRESULT E_RESTORE_UNFINISHED = (HRESULT)0x80040A01;

// The stop flag. Written from the SIGTERM handler, so it is a sig_atomic_t.
extern volatile sig_atomic_t g_bEixt;

class CBreltMemStorageModule : public ITalvorStandbyOwner, public ITalvorJoinSource, public ITalvorFileListHolder {
public:
    CBreltMemStorageModule();
    // The standby threads reach their owner until they end: they are asked
    // to end and waited for (bounded) before the module goes.
    ~CBreltMemStorageModule();

    // --- Lifecycle.
    HRESULT PreMessageLoop(int nShowCmd);
    HRESULT PostMessageLoop();
    HRESULT FreeData(LPTALVORCRITICALSECTION lpCritSection);

    // --- System file and start-up environment.
    // E_RESTORE_UNFINISHED when a restore's mark stands beside the system
    // file: its files are a mixture, and none is opened.
    HRESULT InitSysEnvironment(LPTALVORCRITICALSECTION lpCritSection, BOOL bInit, BOOL bRecover);
    HRESULT LoadFile(LPTALVORCRITICALSECTION lpCritSection);
    BOOL GetSystemFilePath(LPTALVORCRITICALSECTION lpCritSection, char* lpFilePath, char* lpMemFileName);
    // The first start after installation: a system file in the default
    // directory wins, and lpDir (256 bytes) receives that directory when the
    // configured one differed.
    BOOL GetSystemFilePath(LPTALVORCRITICALSECTION lpCritSection, char* lpFilePath, char* lpMemFileName, char* lpDir,
                           char* lpszDatabaseName);
    BOOL ReadSysConfigParam(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMFILEHEAD lpMemoryFileHead);
    BOOL WriteSysConfigParam(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMFILEHEAD lpMemoryFileHead, BOOL bRecover,
                             BOOL bExit);
    // One block of the file list: a descriptor for every live row.
    BOOL LoadMemDBFileData(LPSYSTEMBLOCKHEAD lpSystemBlockHead);
    // The row at lpRow's place in the list on disk into lpSettled: TRUE when
    // it is a live row of the same file with no command (traced either
    // way). Main thread, at start.
    BOOL SettledRowOnDisk(LPFILE_MEMDBFILEINFO lpRow, LPFILE_MEMDBFILEINFO lpSettled);
    // The system file's save pass asks this about each row of a file list
    // block it is to write (lpRow, its private copy of the row at lpLiveRow).
    // A row the daemon holds a file for — the descriptor of its number in
    // m_pStorageInfo, built from this very row — takes the descriptor's path,
    // type and size: an edit the engine has begun without its command byte
    // yet never reaches the disk. A dropped row (the drop flag is the
    // engine's word) and the system file's own (every start rewrites it from
    // what it finds) go as they are. FALSE for a live row no file stands
    // behind (an add half written, or a second row for a number held): the
    // block stays off the disk. Runs on the thread of the pass, with m_crit
    // held: the storage thread, or the main thread while no storage thread
    // runs — the only threads that change the descriptor list, which
    // therefore holds still. Takes no latch; reads a cache-mode file's size,
    // which its flush thread may raise, whole.
    BOOL SettleFileListRow(const FILE_MEMDBFILEINFO* lpLiveRow, LPFILE_MEMDBFILEINFO lpRow) override;
    // One block of the file list of a moved database: rows under lpszSrcPath
    // move under lpszDirPath, and the block is written to the system file.
    BOOL CorrectDBFileData(LPSYSTEMBLOCKHEAD lpSystemBlockHead, char* lpszDirPath, char* lpszSrcPath);

    // --- Storage thread and persistence (BreltMemStorageThread.cpp,
    // BreltMemStorageCommit.cpp).
    static void* TalvorStorageThread(void* lpParam);
    // The persistence pass and its commit. nTimestamp 0 means the head's
    // m_nEndTimestamp. nRedoLogMaxID is the caller's variable: a commit
    // updates it.
    HRESULT SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, BOOL bForce, long long nTimestamp,
                            UINT& nRedoLogMaxID);
    // The file commands of the file list, full chain then free chain, each
    // block through MemFileCMD. Storage thread; no latch held. 0, or the
    // failure of the block that stopped the walk (traced).
    HRESULT FileCMD(LPTALVORCRITICALSECTION lpCritSection);
    // Every row of one file list block: the command in its m_bFileCMD is
    // carried out (add, move, resize, delete) and its result written back
    // there. 0 when the block was worked through, whatever the rows' results;
    // 0x80004005 for a block of another object or record size (traced).
    // Storage thread; no latch held (the system file's resize takes m_crit)
    // (BreltMemStorageFileCommand.cpp).
    HRESULT MemFileCMD(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpSystemBlockHead);
    // Drains the cache buffers of every table and index file; returns 0.
    HRESULT FlushCacheFile(LPTALVORCRITICALSECTION lpCritSection);
    // Executes the command of the command record. 0, or 0x80004005 for a
    // command 10 refused while its forbid flag stands (the code stays).
    // Storage thread; no latch held.
    HRESULT ClusterCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                           LPTALVORPROGRESS lpTalvorProgress, const UINT& nRedoLogMaxID);

    // --- Taking the database apart and building it again
    // (BreltMemStorageCluster.cpp). Storage thread; no latch held.
    // Stops the cache, releases every file and removes it from the disk
    // (each removal traced), stops the redo service, waits for the standby
    // slots, releases and removes the system file, and lets the rollback
    // area go. nLogMaxID and usDBGuid receive the head's values (unchanged
    // when no head existed). Afterwards no head exists.
    void ClearResource(LPTALVORCRITICALSECTION lpCritSection, UINT& nLogMaxID, USHORT& usDBGuid);
    // Brings the database up again from the system file the configuration
    // names: environment, redo service, rollback area, files, cache. TRUE
    // when serving; FALSE when a step failed (traced), after which nothing
    // is held and no head exists — the files stay on disk.
    BOOL RecoverResource(LPTALVORCRITICALSECTION lpCritSection, BOOL bRecover, UINT nLogMaxID, USHORT usDBGuid);
    // Called by a standby thread that ends, on that thread: frees its slot
    // and destroys the object, or leaves that to the thread that holds it.
    // Takes m_critStandby; no latch held.
    void ReleaseStandby(CTalvorStandby* pStandby) override;
    // Asks every standby thread to end and waits (bounded) for the slots.
    // Any thread but a standby's; no latch held but what lpCritSection (may
    // be null) records (takes m_critStandby).
    void StopStandbys(LPTALVORCRITICALSECTION lpCritSection = nullptr);
    // The slots that hold a standby. Any thread; takes m_critStandby, so no
    // latch of a higher rank held.
    int StandbySlotsTaken();
    // Joins a node (copying the database to it): 0, or negative on failure
    // (traced). Storage thread; blocks it, bounded, for the copy.
    int ClusterAddNewNode(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress, UINT ulLocalIP,
                          UINT ulIP, USHORT usPort, long long nTimestamp, BOOL bStandby, UINT nLogNo, UINT nLogPos);

    // --- Backups (BreltMemStorageBackup.cpp). Storage thread; no latch held.
    // The backup file of nTimestamp under the first archive destination:
    // opened read-only, or made anew for writing, for direct I/O. A new one
    // is made under its part name (TalvorBackupPartPath): a backup of that
    // timestamp already on disk stays whole and readable until
    // PublishBackupFile puts the new one in its place, so a backup that
    // fails or is cut never costs the one before it. A handle — a
    // CTalvorDirectFile — for CloseBackupFile, or null (traced).
    void* OpenBackupFullFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp, BOOL bReadOnly);
    void CloseBackupFile(void* hFile);
    // Removes what a backup of nTimestamp that did not finish left: its
    // part file. A failure is ignored.
    void DeleteBackupFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp);
    // Gives the finished part file of nTimestamp, synced and closed, its
    // name, and makes the name durable. FALSE (traced) when either fails.
    BOOL PublishBackupFile(char* lpArchiveDesPath, int nPathSize, long long nTimestamp);
    // The size a copy of the file must have to be loaded: m_liFileSize,
    // but for the system file after a resize its head's total size, since
    // its image (and so m_liFileSize) keeps the size of the start until
    // the next one. Storage thread.
    long long FileSizeOnDisk(const stu_FILEINFO* p) const;
    // TRUE when a backup of level bLevel on nRefTimestamp may take the name
    // of nTimestamp: no backup holds it, or the one that does is damaged or
    // sits at the same place in a chain (same level, same reference). Any
    // other would cut the chains that stand on it. Traced when refused.
    BOOL BackupMayTakeName(char* lpArchiveDesPath, int nPathSize, long long nTimestamp, BYTE bLevel,
                           long long nRefTimestamp);
    // The full backup of nTimestamp. TRUE when the whole file is on the
    // medium (the archiver is then told); FALSE on failure or abort, with
    // no file left behind.
    BOOL BackupFull(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress, char* lpArchiveDesPath,
                    int nPathSize, long long nTimestamp, int nLogNo, int nLogPos, UINT ulLocalIP,
                    const volatile BYTE& bAbort);
    // Writes the backup into hFile with lpBuffer (nBufSize bytes, aligned)
    // as work buffer. Allocates the head area into lpFileHeadBuf, which the
    // caller frees. TRUE when every byte and the final head were written.
    BOOL BackupFullCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress, void* hFile,
                        LPBYTE lpBuffer, int nBufSize, const LPBYTE& lpFileHeadBuf, long long nTimestamp, int nLogNo,
                        int nLogPos, UINT ulLocalIP, const volatile BYTE& bAbort);
    // The incremental backup of level bLevel at nTimestamp: what changed at
    // or after nRefTimestamp (BreltMemStorageBackupIncrement.cpp). TRUE when
    // the whole file is on the medium (the archiver is then told); FALSE on
    // failure or abort, with no file left behind.
    BOOL BackupIncremental(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                           char* lpArchiveDesPath, int nPathSize, BYTE bLevel, long long nTimestamp,
                           long long nRefTimestamp, int nLogNo, int nLogPos, UINT ulLocalIP,
                           const volatile BYTE& bAbort);
    // TRUE (the default): an incremental backup passes over a block of a
    // memory-mode file whose image stamp is older than the reference without
    // reading it; a block that passes is read and judged from the disk as
    // any other. FALSE reads every block's head from the disk: what files
    // with no image always do. Set before a backup, on the thread that runs
    // it.
    BOOL m_bIncrementSkipByImage = TRUE;
    // Its body on an open backup file. Allocates the five buffers, which
    // the caller frees.
    BOOL BackupIncrementalCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                               void* hBkUpFile, BYTE bLevel, long long nTimestamp, long long nRefTimestamp,
                               int nLogNo, int nLogPos, UINT ulLocalIP, const LPBYTE& lpHeadBuf,
                               const LPBYTE& lpIncrementHeadBuf, const LPBYTE& lpFileHeadBuf,
                               const LPBYTE& lpBlockMapBuf, const LPBYTE& lpBlockBuf, const volatile BYTE& bAbort);
    // Writes the page at nIncrementHeadPos with nItemIndex items; without
    // bEnd it points at nWritePos and starts the next page there.
    BOOL WriteIncrementHeadData(void* hBkUpFile, LPBYTE lpIncrementHeadBuf, int nIncrementHeadSize,
                                const int& nItemIndex, const long long& nIncrementHeadPos, const long long& nWritePos,
                                BOOL bEnd);

    // --- Restore (BreltMemStorageRestore.cpp). Storage thread, or a tool;
    // no latch held; touches no shared memory but the progress record.
    // Rebuilds the files of the chain that ends in the backup of nTimestamp:
    // its level 0 backup, then each incremental in rising level, once the
    // whole chain passed CheckBackupChain. The restore mark beside the
    // system file stands from before the first byte written until the last
    // level is on the medium. FALSE on the first failure (traced); after a
    // failure past the check, the mark stays.
    BOOL RecoverIncrement(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                          char* lpArchiveDesPath, int nPathSize, long long nTimestamp);
    // As above, with the redo number and identity of the database taken
    // apart for this restore written into the mark (0 for unknown), so that
    // a restore run again after a failure rebuilds as this one would have.
    BOOL RecoverIncrement(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                          char* lpArchiveDesPath, int nPathSize, long long nTimestamp, UINT nLogMaxID,
                          USHORT usDBGuid);
    // Reads and checks every link of the chain that ends in the backup of
    // nTimestamp before any of it is used: each link present, its head and
    // every record, page and item inside its file, levels falling by one
    // down to 0, references and database identity matching. TRUE with the
    // timestamp of each level in lpChain; FALSE traced. Writes nothing.
    BOOL CheckBackupChain(char* lpArchiveDesPath, int nPathSize, long long nTimestamp, struct _BACKUPCHAIN* lpChain);
    // Removes every database file that the chain ending in the backup of
    // nTimestamp names (each link's records), so that a restore run again
    // over what a failed one left starts from no files, as after a clear.
    // The chain is checked first; FALSE (traced) when it cannot be read or a
    // file cannot be removed. The backups are not touched.
    BOOL RemoveChainFiles(char* lpArchiveDesPath, int nPathSize, long long nTimestamp);
    // The same for a chain CheckBackupChain has checked whole.
    BOOL RemoveFilesOfChain(char* lpArchiveDesPath, int nPathSize, const struct _BACKUPCHAIN& stChain);
    // The same for the files one backup's records name; its head is read
    // and checked first. Storage thread, no latch held.
    BOOL RemoveFilesOfBackup(char* lpArchiveDesPath, int nPathSize, long long nTimestamp);
    // Restores one level 0 backup.
    BOOL Recover(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress, char* lpArchiveDesPath,
                 int nPathSize, long long nTimestamp);
    BOOL RecoverCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress, void* hFile,
                     LPBYTE lpBuffer, int nBufSize, const LPBYTE& lpFileHeadBuf, long long nTimestamp);
    // Applies one incremental backup of level nLevel. The handles and
    // buffers are filled by it; the caller closes and frees what is set.
    BOOL RecoverIncrementCore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORPROGRESS lpTalvorProgress,
                              char* lpArchiveDesPath, int nPathSize, long long nTimestamp, int nLevel,
                              const void*& hDestFile, const void*& hBkUpFile, const LPBYTE& lpFileHeadBuf,
                              const LPBYTE& lpIncrementHeadBuf, const LPBYTE& lpBlockBuf);
    HRESULT WriteCacheTableTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                     LPBYTE lpTableTimestamp, int nTimestampNum);
    HRESULT WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp,
                                     LPBYTE lpIndexTimestamp, int nTimestampNum);
    void OnFileSpaceChange(BYTE bFileType, long long nFileFreeSize);
    // A cache-mode file grew to llSize: its row takes the size (with
    // bLoadSize the load size too) and the row, the file list and the head
    // are marked for saving. Any thread, no latch held; takes m_crit, under
    // which the save pass copies the image.
    void RecordCacheFileSize(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, long long llSize, BOOL bLoadSize);
    // The cache preload's progress into the file's row, under m_crit. Main
    // thread, no latch held.
    void ShowCacheLoadSize(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, long long llSize);
    // The storage thread's loop, until g_bEixt (the thread entry runs it
    // under crash containment).
    void ServeStorageCommands(LPTALVORCRITICALSECTION lpCritSection);
    // What one pass came to.
    // PENDING: a block changed under the pass; FILEFAILED: a file refused or
    // failed (it traced why). Neither committed; FAILED: the commit failed.
    enum { SAVEPASS_DONE = 0, SAVEPASS_PENDING = 1, SAVEPASS_FILEFAILED = 2, SAVEPASS_FAILED = -1 };
    int RunSavePass(LPTALVORCRITICALSECTION lpCritSection, BOOL bForce, long long nTimestamp, UINT& nRedoLogMaxID);

    // --- Accessors for the other parts of the daemon.
    // Any thread: the storage thread publishes and withdraws a file here.
    stu_FILEINFO* GetFileInfo(BYTE bFileNo) { return TalvorLoadShared(&m_arFileInfo[bFileNo]); }
    stu_FILEINFO* GetFileInfo() { return m_pStorageInfo; }
    stu_FILEINFO** GetAllFileInfo() { return m_arFileInfo; }
    USHORT GetDatabaseGuid() { return m_pMemoryFileHead ? m_pMemoryFileHead->m_usDatabaseGuid : 0; }
    LPSYSTEMFILEHEAD GetSystemFileHead() { return m_pMemoryFileHead; }
    CTalvorFlashback* GetFlashback() { return m_pFlashback; }
    // Read by standby and join threads while the main thread sets it.
    BOOL GetExitFlag() override { return TalvorLoadShared(&m_bExit); }
    // What a join reads: the descriptor of a file number, the guid, and
    // whether the daemon stops. Storage thread (the last: any thread).
    LPFILEINFO JoinFileInfo(int nFileNo) override { return nFileNo >= 0 && nFileNo < 256 ? m_arFileInfo[nFileNo] : nullptr; }
    USHORT JoinDatabaseGuid() override { return GetDatabaseGuid(); }
    long long JoinFileSize(LPFILEINFO p) override { return FileSizeOnDisk(p); }
    BOOL JoinStopAsked() override { return TalvorLoadShared(&g_bEixt) || TalvorLoadShared(&m_bExit); }
    // The engine says it runs (m_bService of the channel is 1). Any thread.
    BOOL EngineRuns();
    const char* GetConfigPath() const { return m_cConfigPath; }

    // --- Fields, in the order the module has always kept them.
    TALVOR_SECTION m_crit;
    long long m_nSysFileLoadSize;
    LPBYTE m_lpBuffer;
    int m_nBufferSize;
    LPBYTE m_lpHeadBuf;
    HEVENTTYPE m_hEvent;
    HEVENTTYPE m_hStorageEvent;
    stu_FILEINFO* m_lpSystemFileInfo;
    stu_FILEINFO* m_pStorageInfo;
    stu_FILEINFO* m_arFileInfo[256];
    CTalvorFlashback* m_pFlashback;
    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    int m_nLRUPercent;
    int m_nFileCache;
    char m_cConfigPath[MAX_PATH];
    BOOL m_bAutoStartService;
    UINT m_ulLocalIP;
    CTalvorCacheStorage* m_pTalvorCacheStorage;
    // What the cache's threads reach of this module; lives as long as the
    // cache.
    CStorageCacheBridge* m_pCacheBridge;
    HTHREADTYPE m_hTalvorStorageThread;
    // Read and written under m_critStandby only.
    CTalvorStandby* m_arTalvorStandby[256];
    BOOL m_bExit;
    // From the "started" line on: the images are this run's to remove at the
    // stop. Before it, a failed start keeps every image it took over.
    BOOL m_bServing;
    // Started with no database (ServeUntilRestored): the trace and redo
    // rings wait for the first database a rebuild opens. Storage thread
    // after the start.
    BOOL m_bRingsUnopened;
    int m_nClusterNodeType;

    // --- Beyond the classic fields.
    // How long the stop waits for the storage thread to end (ms).
    UINT m_nStorageStopWaitMs;
    // Set by the stop when the storage thread did not end: FreeData then
    // leaves in place what the thread holds.
    BOOL m_bStorageThreadLive;
    // The head's redo number when the database was last taken apart: a
    // rebuild never numbers below it.
    UINT m_nClearedRedoLogMaxID;
    // The standby slots and the holds on their objects (LATCHRANK_STANDBYSLOT).
    // Held for a few instructions: never across a trace, a sleep or a wait
    // on the network. Lives from construction to destruction, across
    // restarts of the service.
    TALVOR_SECTION m_critStandby;
    // Standby threads that have freed their slot but may still touch this
    // module: its owner waits for 0 before it goes.
    volatile int m_nStandbysLeaving;

    // Main thread, after g_bEixt: waits for the peer process (bounded by its
    // own rules), then at most m_nStorageStopWaitMs for the storage thread;
    // runs the last pass and FreeData only when the thread has ended, else
    // traces it and releases all but what the thread holds. Always 0.
    HRESULT StopService(LPTALVORCRITICALSECTION lpCritSection, UINT nRedoLogMaxID);
    // Joins the storage thread within nWaitMs; TRUE when none runs any more
    // (it ended, or never started). Main thread; no latch held.
    BOOL WaitStorageThreadEnd(UINT nWaitMs);

private:
    // --- System file (BreltMemStorageSysFile.cpp, BreltMemStorageConfig.cpp).
    void ReadInstallConfigParam(LPSYSTEMFILEHEAD lpMemoryFileHead);
    HRESULT CorrectMovedDatabase(LPSYSTEMFILEHEAD lpMemoryFileHead, char* lpszDirPath);
    // Walks the file list's full chain, then its free chain, giving each
    // block to LoadMemDBFileData (bCorrect FALSE) or CorrectDBFileData.
    HRESULT WalkFileList(LPSYSTEMFILEHEAD lpMemoryFileHead, BOOL bCorrect, char* lpszDirPath, char* lpszSrcPath);
    BOOL CheckFileListBlock(LPSYSTEMBLOCKHEAD lpSystemBlockHead, LONG nCodeBase);
    void RefreshSystemFileRow(LPSYSTEMBLOCKHEAD lpSystemBlockHead, LPFILE_MEMDBFILEINFO lpRow);
    void SetLoadProgressTotal(LPTALVORPROGRESS lpTalvorProgress);
    // The shared block cache of cache-mode files, when "buffercachesize"
    // asks for one and none exists yet: made or taken over, with the
    // module's bridge and the load progress. S_OK also when none is asked;
    // E_FAIL when it cannot be had (the cache traced why). Main thread, at
    // start; no latch held.
    HRESULT CreateCache(LPSYSTEMFILEHEAD lpHead, LPTALVORPROGRESS lpTalvorProgress);
    // Stops the cache's threads and destroys it; a cache this failed start
    // took over whole is left for the next start. Main thread, at the end.
    void ReleaseCache();

    // The commit: m_nBeginTimestamp and the 80 dynamic bytes, synced.
    HRESULT CommitTimestamp(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp, UINT& nRedoLogMaxID);
    HRESULT WriteSystemFileAt(const void* lpSrc, int nSize, long long nOffset, LONG nSeekCode, LONG nWriteCode,
                              BOOL bIndexText);

    void ResetFields();
    void BuildConfigPath();
    HRESULT StartStorageThread();
    void IdleUntilStop();
    // A start on the files of a restore that did not finish: no database is
    // opened, but the channel's commands are served until the stop, so that
    // the restore can be run again (command 46 reads the mark), which opens
    // the database once whole. Main thread; the result of the stop.
    HRESULT ServeUntilRestored(LPTALVORCRITICALSECTION lpCritSection);
    void ReleaseFileList();
    void KeepTakenOverImages();
    void ReleaseSystemFile();
    void WaitForStandbySlots();

    // --- File commands (BreltMemStorageFileCommand.cpp). Storage thread; no
    // latch held unless said. Each returns the row's result (FILECMD_*).
    // Add: the file is made complete and synced before the row says 0; a
    // failure leaves no descriptor, no table entry and no file it made.
    // bStop is set when the rest of the block must wait (248, 247).
    BYTE FileCmdAdd(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow,
                    BOOL& bStop);
    // The new descriptor of an add, filled from the row; null when out of
    // memory.
    stu_FILEINFO* NewDescriptorFromRow(LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow);
    // A new cache-mode file's head pages need blocks of the cache hung on
    // its number: when the engine has hung none, they are taken as a start
    // takes them for a file it loads. 0, or non-zero when the cache has
    // none to give.
    int TakeCachePages(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p);
    // Undoes a failed add: the object released, the file removed when this
    // add made it, the descriptor freed and its table entry cleared.
    void AbandonAdd(stu_FILEINFO* p, BOOL bRemoveFile);
    // Move: the new file complete, synced and reopened, the list on disk
    // naming it, and only then the old file removed.
    BYTE FileCmdMove(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow);
    // Copies a file to lpszNewPath through its backend; the descriptor names
    // and holds the new file on success, the old one on failure. 0 or the
    // backend's failure.
    int MoveFileData(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, const char* lpszNewPath);
    // A move whose copy is whole but which could not be finished (the list
    // on disk could not be made to name the copy): the file is opened again
    // at lpszOldPath. 0, or 1 when the old file cannot be had and the copy
    // stays in use (traced).
    int TakeMoveBack(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, const char* lpszOldPath);
    BYTE FileCmdResize(LPTALVORCRITICALSECTION lpCritSection, LPFILE_MEMDBFILEINFO lpRow);
    // The system file's resize; takes m_crit.
    BYTE FileCmdResizeSystem(LPTALVORCRITICALSECTION lpCritSection, LPFILE_MEMDBFILEINFO lpRow);
    // Delete: the list on disk stops naming the file before it is removed.
    BYTE FileCmdDelete(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow);
    // Writes lpRow, as the list on disk is to hold it once its command is
    // done (bResult in its command byte), into the block on disk, and syncs
    // the system file. The other rows of that block on disk stay as they
    // are. Takes m_crit. TRUE when on the medium; else traced, and with
    // pbUndone the row the disk had is written back: *pbUndone is TRUE only
    // when that reached the medium (else the disk may name either). With
    // lpszFilePath the row on disk names that path, not the one lpRow holds
    // now: the engine may have written another request into the row while
    // the command ran, and the disk must name where the data is.
    BOOL CommitFileListRow(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock,
                           LPFILE_MEMDBFILEINFO lpRow, BYTE bResult, const char* lpszFilePath = nullptr,
                           BOOL* pbUndone = nullptr);
    // TRUE when lpszPath (bounded, NUL-terminated) is a plain absolute path
    // inside the database's directories: the system file's and those of the
    // files in the list. Else traced with nCode.
    BOOL FilePathAllowed(const char* lpszPath, LONG nCode);
    // The descriptor of file number bFileNo in m_pStorageInfo, or null.
    stu_FILEINFO* FindStorageInfo(BYTE bFileNo);
    void UnlinkStorageInfo(stu_FILEINFO* p);

    // --- Cluster commands (BreltMemStorageCluster.cpp).
    // A pass before a command; a failure is traced with nCode.
    void SaveForCommand(LPTALVORCRITICALSECTION lpCritSection, long long nTimestamp, UINT& nRedoLogMaxID, LONG nCode);
    void ClearForbidFlags(LPTALVORCOMMAND lpClusterCmd);
    void AddNode(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd, LPTALVORPROGRESS lpTalvorProgress,
                 UINT& nMaxID, BOOL bStandby);
    void RunBackupCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd,
                          LPTALVORPROGRESS lpTalvorProgress, UINT& nMaxID, BYTE bCommand);
    void RebuildCommand(LPTALVORCRITICALSECTION lpCritSection, UINT nMaxID);
    // Command 46. Refused, with nothing removed, when the chain is unusable.
    // With no database open it runs again a restore that failed part-way
    // (RestoreAgain); ends with the command finished in every case.
    void RestoreCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd);
    // Command 46 with no head: the archive, redo number and identity come
    // from the restore mark beside the configured system file, the point
    // from the command (the mark's when the command names none). Refused,
    // traced and with nothing written, without a readable mark or a usable
    // chain. Storage thread; no latch held.
    void RestoreAgain(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd);
    // Takes the database apart and restores the chain of nTimestamp, then
    // brings the service back; the times of each stage are traced.
    void RunRestore(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd, char* lpPath,
                    long long nTimestamp);
    // TRUE when the chain of nTimestamp under lpArchiveDesPath (512 bytes)
    // passes CheckBackupChain and restores lpOwnSystemFile, the system file
    // this node opens; else traced.
    BOOL RestoreChainUsable(char* lpArchiveDesPath, long long nTimestamp, const char* lpOwnSystemFile);
    void TestSpeedCommand(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd);
    // The result of command 18 (CLUSTERRESULT_*). Storage thread; no latch
    // held (takes m_critStandby, and lets go of it for each Reset).
    BYTE AddStandby(LPTALVORCRITICALSECTION lpCritSection, LPTALVORCOMMAND lpClusterCmd);
    // Asks the threads of ulIP:usPort to end. Storage thread; no latch held
    // (takes m_critStandby).
    void RemoveStandby(LPTALVORCRITICALSECTION lpCritSection, UINT ulIP, USHORT usPort);
    // The object in slot nSlot with a hold taken on it, so that it outlives
    // its thread until LetGoStandby; null for an empty slot. The caller
    // holds m_critStandby.
    CTalvorStandby* HoldStandby(int nSlot);
    // Gives back a hold of HoldStandby: TRUE when it was the last one on an
    // object whose thread has ended, which the caller then destroys once it
    // has left m_critStandby. The caller holds m_critStandby.
    BOOL LetGoStandby(CTalvorStandby* pStandby);
    // A standby for ulIP:usPort whose thread took a fresh position exchange:
    // TRUE when one did. Storage thread; no latch held.
    BOOL ResetStandbyOf(LPTALVORCRITICALSECTION lpCritSection, UINT ulIP, USHORT usPort);
    // The new object into the first free slot: its index, or -1 when every
    // slot is taken. Storage thread; no latch held.
    int PutStandbyInSlot(LPTALVORCRITICALSECTION lpCritSection, CTalvorStandby* pStandby);
    void RemoveDatabaseFile(const char* lpszPath);
    BOOL AbandonRebuild();
    // The database files of a backup, in file number order; their count.
    int CollectBackupFiles(stu_FILEINFO** arFiles, long long& nTotal);
};

extern CBreltMemStorageModule _AtlModule;

// --- Persistence helpers (BreltMemStorageThread.cpp, BreltMemStorageCommit.cpp).
// The pass interval: persistenceintervals when it lies in 1 to 300, else 3.
int TalvorPersistenceIntervalSeconds(int nConfigured);
// The storage thread's clock: microseconds of the wall clock, which may jump
// back. Tests put another in place; null puts the wall clock back.
typedef long long (*LPSTORAGECLOCK)();
void TalvorSetStorageClock(LPSTORAGECLOCK pClock);
// One pass at a time: the storage thread's and the main thread's last pass
// at stop never run over the same work buffers together. A thread that
// crashed inside a pass gives the gate back with this.
void TalvorReleaseSavePass();

// --- Process entry (ServiceEntry.cpp).
void SetupSignalHandler();
void TermHandler(int sig, siginfo_t* senderinfo, void* context);
void KillerInfo(int pid);
// Logs what the SIGTERM handler recorded about its sender. The handler only
// records (async-signal-safe calls); the main thread does the logging.
void LogTermSignalSender();
// The whole life of the process: lock, signals, start, serve, stop. Always 0.
int RunTalvorStorage();
