// TalvorFlashback.h — owner of the channel area between the daemon and the
// engine, of the two flashback semaphores and of the rollback area.
//
// Requests to the engine over the channel are serialised by m_crit. The
// channel head is shared with the engine with no lock: each field has one
// writing side, and a request is a command byte written last.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

// FlashbackMapData: the engine has nothing to save for the file.
inline constexpr int FLASHBACK_NOTHINGTOSAVE = -2;
// The longest wait for the engine's answer to command 3 that a cycle time
// the channel holds can ask: a hundred times the default. The area may
// survive from any process, and a cycle read from it unbounded would let a
// silent engine hold a save pass for days.
inline constexpr int FLASHBACK_CYCLE_MAX_MS = 100 * STORAGEMEM_CYCLETIME_MS;

class CTalvorFlashback {
public:
    CTalvorFlashback();
    virtual ~CTalvorFlashback();

    // Creates the two semaphores and the channel area. 0 on success.
    int Initialize();
    // Detaches and destroys the channel area, closes the semaphores.
    int Uninitialize();
    // Creates or attaches the rollback area of nSize MiB.
    BOOL InitRollback(LPTALVORCRITICALSECTION lpCritSection, int nSize);
    void UnInitRollback(BYTE bDeleteUndoFile);
    // Blocks until the engine is no longer running (or is declared lost);
    // returns the final m_bService.
    int WaitServiceStop(LPTALVORCRITICALSECTION lpCritSection);

    LPSTORAGEMEMHEAD GetStorageMemHead() { return m_pStorageMemFileHead; }
    LPTALVORPROGRESS GetProgress() { return m_pStorageMemFileHead ? &m_pStorageMemFileHead->m_TalvorProgress : nullptr; }
    LPBYTE GetRollbackArea() { return m_pRollbackFileAddr; }

    // Asks the engine for a sign of life (channel command 32). TRUE when it
    // answered; FALSE marks it lost (m_bService 2, m_nResult 1610).
    BOOL CheckServiceAlive(LPTALVORCRITICALSECTION lpCritSection);

    // The head and maps of a memory-mode file as of nTimestamp: a copy of
    // the head in lpHeadBuf (nHeadBufSize bytes at most) and the slave maps
    // matching it. A running engine is asked (channel command 3); without
    // one, or when it fails, both come from the live image. 0 when lpHeadBuf
    // holds the head; FLASHBACK_NOTHINGTOSAVE when the engine said that the
    // file has nothing to save (lpHeadBuf is then not to be used at all).
    int FlashbackMapData(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                         LPBYTE lpHeadBuf, int nHeadBufSize = 0x100000);

    // Accessors over the channel head; each is safe without a channel.
    LPTALVORCOMMAND GetClusterCommand() { return m_pStorageMemFileHead ? &m_pStorageMemFileHead->m_ClusterCommand : nullptr; }
    LPTALVORPROGRESS GetTalvorProgress() { return GetProgress(); }
    // The archiver takes the backup timestamp while a backup command sets it.
    long long GetBackupTimestamp()
    {
        return m_pStorageMemFileHead ? TalvorLoadShared(&m_pStorageMemFileHead->m_nBackupTimestamp) : 0;
    }
    void SetBackupTimestamp(long long nTimestamp)
    {
        if (m_pStorageMemFileHead) TalvorStoreShared(&m_pStorageMemFileHead->m_nBackupTimestamp, nTimestamp);
    }
    BYTE GetServiceState() { return m_pStorageMemFileHead ? TalvorLoadShared(&m_pStorageMemFileHead->m_bService) : 0; }
    // One standby thread more (TRUE) or less (FALSE); never below 0.
    void ChangeStandbyThread(BOOL bAdd);

    TALVOR_SECTION m_crit;
    HEVENTTYPE m_hFlashBackEvent;
    HEVENTTYPE m_hFlashBackFinishedEvent;
    // The system file head, set by the module while the system file is
    // loaded; null otherwise.
    LPSYSTEMFILEHEAD m_pMemoryFileHead;
    LPBYTE m_pStorageMemFileAddr;
    int m_nStorageMemFileShmId;
    BYTE m_bSucess;
    BOOL m_bExit;
    LPSTORAGEMEMHEAD m_pStorageMemFileHead;
    LPBYTE m_pRollbackFileAddr;
    MFID m_hRollbackFile;
    UINT m_nRollbackSize;
    char* m_lpFilePath;
    void* m_hFile;
    HTHREADTYPE m_hFlushThread;

    // Result: how many milliseconds the answer to channel command 3 is
    // waited for when the channel holds nCycleTime: 100 of its waits, of
    // the default length when it holds none, and of at most
    // FLASHBACK_CYCLE_MAX_MS whatever a surviving area holds. Any thread.
    static long long FileHeadAnswerMs(int nCycleTime);

private:
    // Channel command 3 for one file; the engine's m_nResult, or 1610.
    int RequestFileHead(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, long long nTimestamp);
    // Takes head and maps straight from the live image.
    void MapDataFromImage(LPFILEINFO pFileInfo, LPBYTE lpHeadBuf, int nHeadBufSize);
    BOOL OpenFlashbackEvents();
    BOOL OpenChannelArea();
    void SetUpNewChannelHead();

public:
    // --- Block rollback (TalvorFlashbackRollback.cpp) and the undo cache
    // mirror (TalvorFlashbackUndoCache.cpp).
    // Takes the private block copy lpBuf back to nTimestamp, copying it anew
    // from the live block lpSrcBuf while a row is caught in mid-write. 0 done,
    // 1 failed.
    int FlashbackData(BYTE bFileNo, int nBlockNo, int nBlockSize, long long nTimestamp, LPBYTE lpBuf,
                      LPBYTE lpSrcBuf);
    // One rollback of a block copy of exactly nBlockSize bytes: 0, 1 when the
    // block number differs, -3 when a piece of a row is torn.
    int FlashBack(LPBYTE lpBuffer, UINT nBlockNo, int nBlockSize, long long nTimestamp);
    // The version of one row valid at nTimestamp: 0 and its value image,
    // -1 none at that time, -3 no value, 1154 or 1155 overwritten.
    int GetRollBackData(long long nRollBackVarDataID, short sDataToken, long long nTimestamp, LPBYTE& lpVarDataAddr);
    BOOL GetFilePath(LPTALVORCRITICALSECTION lpCritSection, char* lpFilePath);
    int LoadUndoCache(LPTALVORCRITICALSECTION lpCritSection, BOOL bLoad);
    void StartWriteUndoCache(LPTALVORCRITICALSECTION lpCritSection, BOOL bLoad);
    static void* FlashFlushThread(LPVOID lpParam);
    int FlashFlush();
    // One round of the mirror: 0 (written or nothing to do), 1 on a failed write.
    int FlushUndoStretch();
    // Stops the flush thread (up to nWaitMs) and closes the cache file,
    // deleting it with bDeleteUndoFile. FALSE, file left open, when the
    // thread would not end.
    BOOL StopUndoMirror(UINT nWaitMs, BYTE bDeleteUndoFile);
    // Points the object at a rollback area of nAreaSize mapped bytes: the
    // bound of every offset taken from the area.
    void SetRollbackArea(LPBYTE lpArea, UINT nAreaSize);

private:
    // Mapped bytes of the rollback area, 0 until known, and the segment they
    // were measured for: a segment made anew is measured anew.
    UINT m_nRollbackAreaSize = 0;
    MFID m_hRollbackSizedFile = 0;
    UINT RollbackAreaSize();
};
