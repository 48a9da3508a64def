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

    TALVOR_SECTION m_crit;
    HEVENTTYPE m_hFlashBackEvent;
    HEVENTTYPE m_hFlashBackFinishedEvent;
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

private:
    BOOL OpenFlashbackEvents();
    BOOL OpenChannelArea();
    void SetUpNewChannelHead();
};
