// TalvorFlashback.cpp — the channel area, the flashback semaphores, the
// rollback area and the stop protocol with the engine.
#include "TalvorFlashback.h"

#include "TalvorTrace.h"
#include "ShareMemory.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

// Polls between two signs of life asked of a running engine at stop.
const int SERVICE_POLLS_PER_PING = 1000;
// How long the engine has to answer a sign-of-life request, in waits of 1 ms.
const int SERVICE_ANSWER_WAITS = 30;
const UINT SERVICE_ANSWER_SLICE_MS = 1;

} // namespace

CTalvorFlashback::CTalvorFlashback()
    : m_hFlashBackEvent(nullptr), m_hFlashBackFinishedEvent(nullptr), m_pMemoryFileHead(nullptr),
      m_pStorageMemFileAddr(nullptr), m_nStorageMemFileShmId(0), m_bSucess(0), m_bExit(FALSE),
      m_pStorageMemFileHead(nullptr), m_pRollbackFileAddr(nullptr), m_hRollbackFile(0), m_nRollbackSize(0),
      m_lpFilePath(nullptr), m_hFile(nullptr), m_hFlushThread(0)
{
    InitializeCriticalTalvor(&m_crit);
    TalvorSetLatchRank(&m_crit, LATCHRANK_FLASHBACK);
}

CTalvorFlashback::~CTalvorFlashback()
{
    if (!StopUndoMirror(30000, 0)) StopUndoMirror(60000, 0);
    UnInitRollback(0);
    Uninitialize();
    DeleteCriticalTalvor(&m_crit);
}

BOOL CTalvorFlashback::OpenFlashbackEvents()
{
    m_hFlashBackEvent = CreateEventSem(nullptr, SEMNAME_FLASHBACKEVENT);
    if (m_hFlashBackEvent == nullptr) {
        Trace("Initialize", 1, 50001010,
              TALVOR_TEXT("创建事件失败,错误码:%d,事件名:%s", "Failed to create event, error code: %d, event name: %s"),
              errno, SEMNAME_FLASHBACKEVENT);
        return FALSE;
    }
    m_hFlashBackFinishedEvent = CreateEventSem(nullptr, SEMNAME_FLASHBACKEND);
    if (m_hFlashBackFinishedEvent == nullptr) {
        Trace("Initialize", 1, 50001011,
              TALVOR_TEXT("创建事件失败,错误码:%d,事件名:%s", "Failed to create event, error code: %d, event name: %s"),
              errno, SEMNAME_FLASHBACKEND);
        return FALSE;
    }
    return TRUE;
}

void CTalvorFlashback::SetUpNewChannelHead()
{
    memset(m_pStorageMemFileAddr, 0, STORAGEMEM_SEGMENT_SIZE);
    m_pStorageMemFileHead->m_nFileTotalSize = STORAGEMEM_SEGMENT_SIZE;
    m_pStorageMemFileHead->m_nFileHeaderSize = sizeof(STORAGEMEMHEAD);
    m_pStorageMemFileHead->m_nFileDataOffset = sizeof(STORAGEMEMHEAD);
    m_pStorageMemFileHead->m_nCycleTime = 100;
}

BOOL CTalvorFlashback::OpenChannelArea()
{
    BOOL bExists = FALSE;
    m_nStorageMemFileShmId =
        CShareMemory::CreateShareMemory(SHMKEY_STORAGEMEM, STORAGEMEM_SEGMENT_SIZE, SHMNAME_STORAGEMEM, bExists);
    if (m_nStorageMemFileShmId == 0) {
        Trace("Initialize", 1, 50001013,
              TALVOR_TEXT("打开内存文件失败,错误码:%d,内存文件:%s,文件大小:%d",
                          "Open memory file failed, error code: %d, memory file: %s, file size: %d"),
              errno, SHMNAME_STORAGEMEM, STORAGEMEM_SEGMENT_SIZE);
        return FALSE;
    }
    m_pStorageMemFileAddr = (LPBYTE)CShareMemory::ShMemAttach(m_nStorageMemFileShmId, nullptr, 0);
    if (m_pStorageMemFileAddr == nullptr) {
        Trace("Initialize", 1, 50001015,
              TALVOR_TEXT("内存文件映射内存失败,错误码:%d,内存文件:%s", "Memory file mapping memory failure, error code: %d, memory file: %s"),
              errno, SHMNAME_STORAGEMEM);
        return FALSE;
    }
    m_pStorageMemFileHead = (LPSTORAGEMEMHEAD)m_pStorageMemFileAddr;
    // A channel that survived keeps the engine's state; only who we are is new.
    if (!bExists) SetUpNewChannelHead();
    m_pStorageMemFileHead->m_nStorageID = getpid();
    char szExe[256] = {0};
    ssize_t n = readlink("/proc/self/exe", szExe, sizeof(szExe) - 1);
    memset((void*)m_pStorageMemFileHead->m_lpszFilePath, 0, sizeof(m_pStorageMemFileHead->m_lpszFilePath));
    if (n > 0) memcpy((void*)m_pStorageMemFileHead->m_lpszFilePath, szExe, (size_t)n);
    return TRUE;
}

int CTalvorFlashback::Initialize()
{
    if (!OpenFlashbackEvents()) return 1;
    return OpenChannelArea() ? 0 : 1;
}

int CTalvorFlashback::Uninitialize()
{
    if (m_pStorageMemFileAddr != nullptr) CShareMemory::ShMemDetach(m_pStorageMemFileAddr);
    m_pStorageMemFileHead = nullptr;
    if (m_nStorageMemFileShmId > 0) CShareMemory::DestoryShareMemory(m_nStorageMemFileShmId);
    CloseEvent(m_hFlashBackEvent);
    CloseEvent(m_hFlashBackFinishedEvent);
    return 0;
}

BOOL CTalvorFlashback::InitRollback(LPTALVORCRITICALSECTION lpCritSection, int nSize)
{
    m_bExit = FALSE;
    size_t nBytes = (size_t)(unsigned)nSize << 20;
    BOOL bExists = FALSE;
    m_hRollbackFile = CShareMemory::CreateShareMemory(SHMKEY_ROLLBACK, nBytes, SHMNAME_ROLLBACK, bExists);
    if (m_hRollbackFile == 0) {
        Trace("InitRollback", 1, 50006010,
              TALVOR_TEXT("打开回滚内存文件失败,错误:%s(%d),内存文件:%s,文件大小:%d",
                          "Open rollback memory file failed, error: %s(%d), memory file: %s, file size: %d"),
              strerror(errno), errno, SHMNAME_ROLLBACK, nSize);
        return FALSE;
    }
    m_pRollbackFileAddr = (LPBYTE)CShareMemory::ShMemAttach(m_hRollbackFile, nullptr, 0);
    if (m_pRollbackFileAddr == nullptr) {
        Trace("InitRollback", 1, 50006011,
              TALVOR_TEXT("内存文件映射内存失败,错误:%s(%d),内存文件:%s", "Memory file mapping memory failure, error: %s(%d), memory file: %s"),
              strerror(errno), errno, SHMNAME_ROLLBACK);
        return FALSE;
    }
    SetRollbackArea(m_pRollbackFileAddr, (UINT)nBytes);
    if (!bExists) {
        LPROLLBACKBLOCKHEAD lpHead = (LPROLLBACKBLOCKHEAD)m_pRollbackFileAddr;
        memset(lpHead, 0, sizeof(ROLLBACKBLOCKHEAD));
        lpHead->m_nDataFlag = BLOCK_DATAFLAG;
        lpHead->m_nRollbackTotalSize = (UINT)nBytes;
        lpHead->m_nRollbackHeadSize = sizeof(ROLLBACKBLOCKHEAD);
        lpHead->m_nDataAllocPos = sizeof(ROLLBACKBLOCKHEAD);
    }
    // A cluster node of identity 3 mirrors its undo area to a file, so that
    // it survives a restart with its undo data.
    if (g_nCluster && g_nNodeIdentity == 3) StartWriteUndoCache(lpCritSection, !bExists);
    return TRUE;
}

void CTalvorFlashback::UnInitRollback(BYTE bDeleteUndoFile)
{
    // Never detach the area under a running mirror thread.
    if (!StopUndoMirror(60000, bDeleteUndoFile)) return;
    if (m_pRollbackFileAddr != nullptr) CShareMemory::ShMemDetach(m_pRollbackFileAddr);
    if (m_hRollbackFile > 0) CShareMemory::DestoryShareMemory(m_hRollbackFile);
    SetRollbackArea(nullptr, 0);
}

BOOL CTalvorFlashback::CheckServiceAlive(LPTALVORCRITICALSECTION lpCritSection)
{
    LPSTORAGEMEMHEAD lpHead = m_pStorageMemFileHead;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    lpHead->m_nResult = 0;
    TalvorStoreShared(&lpHead->m_bCommandType, PEERCMD_HEARTBEAT);
    SetEvent(m_hFlashBackEvent);
    // The semaphore may hold stale posts: the command byte decides, and the
    // clock, not the number of waits, ends the wait.
    if (WaitEventUntil(m_hFlashBackFinishedEvent, SERVICE_ANSWER_WAITS * SERVICE_ANSWER_SLICE_MS,
                       SERVICE_ANSWER_SLICE_MS,
                       [&] { return TalvorLoadShared(&lpHead->m_bCommandType) == PEERCMD_NONE; }))
        return TRUE;
    lpHead->m_nResult = 1610;
    TalvorStoreShared(&lpHead->m_bCommandType, PEERCMD_NONE);
    TalvorStoreShared(&lpHead->m_bService, SERVICESTATE_LOST);
    return FALSE;
}

int CTalvorFlashback::WaitServiceStop(LPTALVORCRITICALSECTION lpCritSection)
{
    LPSTORAGEMEMHEAD lpHead = m_pStorageMemFileHead;
    if (lpHead == nullptr) return 0;
    for (unsigned nPoll = 0; TalvorLoadShared(&lpHead->m_bService) == SERVICESTATE_RUNNING; nPoll++) {
        if (nPoll % SERVICE_POLLS_PER_PING == SERVICE_POLLS_PER_PING - 1 && !CheckServiceAlive(lpCritSection)) return 2;
        usleep(1000);
    }
    return TalvorLoadShared(&lpHead->m_bService);
}
