// LogManagerRing.cpp — the rings in shared memory: their creation, the copier
// of the engine's trace ring into the "TalvorService" series, and the
// producing side of a ring as the engine writes it.
//
// The ring is shared without a lock: the engine alone moves m_nWritePos, the
// daemon alone m_nReadPos, each behind a barrier. Positions come from another
// process and are checked against the attachment before any byte is read.
#include "LogManager.h"

#include "CrashContainment.h"
#include "ShareMemory.h"

#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <sys/shm.h>
#include <unistd.h>

namespace {

const int RING_HEAD_SIZE = (int)sizeof(FILE_TRACEMEMFILEHEAD);
const UINT TRACE_EVENT_WAIT_MS = 3000;

struct RingParams {
    key_t m_nKey;
    int m_nSize;
    const char* m_lpName;
    BYTE m_bFileType;
    LONG m_nOpenCode;
    LONG m_nAttachCode;
    const char* m_lpAttachTextZh;
    const char* m_lpAttachTextEn;
};

// A segment found with another size than asked. Nobody attached: it is
// stale, and is made anew. Attached: somebody works in it, so it is taken as
// it is and every position is bounded by its real size. Either way it is
// said in the log.
MFID ResolveForeignSize(const RingParams& ring, MFID nId, BOOL& bExists, int& nRealSize)
{
    struct shmid_ds ds;
    if (shmctl(nId, IPC_STAT, &ds) != 0) return nId;
    nRealSize = (int)ds.shm_segsz;
    if ((int)ds.shm_segsz == ring.m_nSize) return nId;
    if (ds.shm_nattch == 0) {
        Trace("InitLogEnvironment", 3, 20000031,
              TALVOR_TEXT("内存文件%s的大小为%d字节而不是%d字节，且无人使用，已重新创建",
                          "The memory file %s had %d bytes instead of %d and nobody used it: it was made anew"),
              ring.m_lpName, (int)ds.shm_segsz, ring.m_nSize);
        CShareMemory::DestoryShareMemory(nId);
        bExists = FALSE;
        nRealSize = ring.m_nSize;
        return CShareMemory::CreateShareMemory(ring.m_nKey, (size_t)ring.m_nSize, ring.m_lpName, bExists);
    }
    Trace("InitLogEnvironment", 1, 20000030,
          TALVOR_TEXT("内存文件%s的大小为%d字节而不是%d字节，且正在被使用，按原样使用",
                      "The memory file %s has %d bytes instead of %d and is in use: it is taken as it is"),
          ring.m_lpName, (int)ds.shm_segsz, ring.m_nSize);
    return nId;
}

// Creates or finds a ring, attaches it, and writes the head of a new one.
BOOL OpenRing(const RingParams& ring, MFID& hFile, LPBYTE& pAddr, int& nRealSize)
{
    BOOL bExists = FALSE;
    MFID nId = CShareMemory::CreateShareMemory(ring.m_nKey, (size_t)ring.m_nSize, ring.m_lpName, bExists);
    // An existing segment smaller than asked refuses the size; find it as it is.
    if (nId <= 0 && bExists) nId = CShareMemory::OpenShareMemory(ring.m_nKey, ring.m_lpName);
    nRealSize = ring.m_nSize;
    if (nId > 0 && bExists) nId = ResolveForeignSize(ring, nId, bExists, nRealSize);
    if (nId <= 0 || nRealSize <= RING_HEAD_SIZE) {
        int nErr = errno;
        Trace("InitLogEnvironment", 1, ring.m_nOpenCode,
              TALVOR_TEXT("打开内存文件失败，错误：%s(%d)，内存文件：%s，文件大小：%d",
                          "Failed to open memory file, error: %s(%d), memory file: %s, file size: %d"),
              strerror(nErr), nErr, ring.m_lpName, ring.m_nSize);
        return FALSE;
    }
    hFile = nId;
    pAddr = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    if (pAddr == nullptr) {
        int nErr = errno;
        Trace("InitLogEnvironment", 1, ring.m_nAttachCode, TALVOR_TEXT(ring.m_lpAttachTextZh, ring.m_lpAttachTextEn),
              strerror(nErr), nErr, ring.m_lpName);
        return FALSE;
    }
    // A ring found in place keeps its positions: what the engine wrote while
    // the daemon was down is still read.
    if (!bExists) TraceRingInitHead(pAddr, nRealSize, ring.m_bFileType);
    return TRUE;
}

HEVENTTYPE OpenEvent(LPCTSTR lpName, LONG nCode, const char* lpTextZh, const char* lpTextEn)
{
    HEVENTTYPE hEvent = CreateEventSem(nullptr, lpName);
    if (hEvent == nullptr) {
        int nErr = errno;
        Trace("InitLogEnvironment", 1, nCode, TALVOR_TEXT(lpTextZh, lpTextEn), strerror(nErr), nErr, lpName);
    }
    return hEvent;
}

inline void StoreFlag(volatile BOOL* p, BOOL b) { __atomic_store_n(p, b, __ATOMIC_RELEASE); }
inline BOOL LoadExitFlag(const volatile BOOL* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

// The end of the data area as far as it can be trusted: the head's claim,
// but never past the attachment.
inline int RingEnd(LPFILE_TRACEMEMFILEHEAD lpHead, int nRingSize)
{
    int nTotal = lpHead->m_nFileTotalSize;
    return (nTotal > RING_HEAD_SIZE && nTotal <= nRingSize) ? nTotal : nRingSize;
}

} // namespace

// ---------------------------------------------------------------- producer

void TraceRingInitHead(LPBYTE lpRing, int nTotalSize, BYTE bFileType)
{
    LPFILE_TRACEMEMFILEHEAD lpHead = (LPFILE_TRACEMEMFILEHEAD)lpRing;
    memset(lpRing, 0, sizeof(FILE_TRACEMEMFILEHEAD));
    lpHead->m_nDataFlag = TRACEMEMFILE_DATAFLAG;
    lpHead->m_nFileTotalSize = nTotalSize;
    lpHead->m_nFileHeaderSize = RING_HEAD_SIZE;
    lpHead->m_bFileType = bFileType;
    TalvorStoreShared(&lpHead->m_nWritePos, RING_HEAD_SIZE);
    TalvorStoreShared(&lpHead->m_nReadPos, RING_HEAD_SIZE);
    TalvorFlushCPU4Write();
}

int TraceRingFreeSpace(LPBYTE lpRing, int nRingSize)
{
    LPFILE_TRACEMEMFILEHEAD lpHead = (LPFILE_TRACEMEMFILEHEAD)lpRing;
    const int nEnd = RingEnd(lpHead, nRingSize);
    const int nData = nEnd - RING_HEAD_SIZE;
    int w = TalvorLoadShared(&lpHead->m_nWritePos);
    int r = TalvorLoadShared(&lpHead->m_nReadPos);
    TalvorFlushCPU4Read();
    if (w < RING_HEAD_SIZE || w > nEnd || r < RING_HEAD_SIZE || r > nEnd) return 0;
    // The end itself stands for the start of the area.
    if (w == nEnd) w = RING_HEAD_SIZE;
    if (r == nEnd) r = RING_HEAD_SIZE;
    int nUsed = (w - r + nData) % nData;
    return nData - 1 - nUsed;
}

int TraceRingWrite(LPBYTE lpRing, int nRingSize, const void* pData, int nLen)
{
    LPFILE_TRACEMEMFILEHEAD lpHead = (LPFILE_TRACEMEMFILEHEAD)lpRing;
    int nFree = TraceRingFreeSpace(lpRing, nRingSize);
    int n = nLen < nFree ? nLen : nFree;
    if (n <= 0) return 0;
    const int nEnd = RingEnd(lpHead, nRingSize);
    int w = TalvorLoadShared(&lpHead->m_nWritePos);
    if (w == nEnd) w = RING_HEAD_SIZE;
    const BYTE* p = (const BYTE*)pData;
    // Up to the last byte of the area, then on from its start.
    int nFirst = n < nEnd - w ? n : nEnd - w;
    memcpy(lpRing + w, p, (size_t)nFirst);
    w += nFirst;
    if (w == nEnd) w = RING_HEAD_SIZE;
    if (n > nFirst) {
        memcpy(lpRing + RING_HEAD_SIZE, p + nFirst, (size_t)(n - nFirst));
        w = RING_HEAD_SIZE + (n - nFirst);
    }
    TalvorFlushCPU4Write();
    TalvorStoreShared(&lpHead->m_nWritePos, w);
    return n;
}

// ---------------------------------------------------------------- environment

BOOL CLogManager::InitLogEnvironment(CTalvorFlashback*, int nTalvorBufferCacheSize)
{
    if (m_bEnvironmentReady) return TRUE;
    if (m_hTraceEvent == nullptr) {
        m_hTraceEvent = OpenEvent(SEMNAME_TRACEEVENT, 20000014, "创建事件失败，错误：%s(%d)，事件名：%s",
                                  "Failure to create event, error: %s(%d), event name: %s");
        if (m_hTraceEvent == nullptr) return FALSE;
    }
    if (m_pTraceFileAddr == nullptr) {
        const RingParams trace = {SHMKEY_TRACERING,
                                TRACERING_SEGMENT_SIZE,
                                SHMNAME_TRACERING,
                                TRACEMEM_FILETYPE_TRACE,
                                20000015,
                                20000016,
                                "内存文件映射内存失败，错误：%s(%d)，内存文件：%s",
                                "Memory file mapping memory failure, error: %s(%d), memory file: %s"};
        if (!OpenRing(trace, m_hTraceFile, m_pTraceFileAddr, m_nTraceFileSize)) return FALSE;
    }
    if (m_hLogEvent == nullptr) {
        m_hLogEvent = OpenEvent(SEMNAME_LOGEVENT, 20000024, "创建事件失败，错误：%s(%d)，事件名：%s",
                                "Failed to create event, error: %s(%d), event name: %s");
        if (m_hLogEvent == nullptr) return FALSE;
    }
    if (m_hLogEmptyEvent == nullptr) {
        m_hLogEmptyEvent = OpenEvent(SEMNAME_LOGEMPTYEVENT, 20000024, "创建事件失败，错误：%s(%d)，事件名：%s",
                                     "Failed to create event, error: %s(%d), event name: %s");
        if (m_hLogEmptyEvent == nullptr) return FALSE;
    }
    if (m_pLogFileAddr == nullptr) {
        int nSize = nTalvorBufferCacheSize <= REDORING_SMALL_CACHE_MAX_MB ? REDORING_SEGMENT_SIZE_SMALL
                                                                          : REDORING_SEGMENT_SIZE_LARGE;
        const RingParams redo = {SHMKEY_REDORING,
                               nSize,
                               SHMNAME_REDORING,
                               TRACEMEM_FILETYPE_REDO,
                               20000025,
                               20000026,
                               "内存文件映射内存失败，错误 :%s(%d)，内存文件：%s",
                               "Memory file mapping memory failure, error :%s(%d), memory file: %s"};
        if (!OpenRing(redo, m_hLogFile, m_pLogFileAddr, m_nLogFileSize)) return FALSE;
    }
    m_bEnvironmentReady = TRUE;
    return TRUE;
}

// ---------------------------------------------------------------- copier

// The head's own sizes decide where the data area lies; a head that claims
// more than the attachment holds, or an area that cannot exist, is set back
// to what is known to be true.
void CLogManager::RepairRingHead(LPFILE_TRACEMEMFILEHEAD lpHead)
{
    int nHeader = lpHead->m_nFileHeaderSize;
    int nTotal = lpHead->m_nFileTotalSize;
    if (nHeader == RING_HEAD_SIZE && nTotal > RING_HEAD_SIZE && nTotal <= m_nTraceFileSize) return;
    Trace("WriteTraceThread", 1, 20010004,
          TALVOR_TEXT("日志线程修复了跟踪内存文件头：nFileHeaderSize：%d、nFileTotalSize：%d，改为%d、%d",
                      "Log thread repaired the head of the trace ring: nFileHeaderSize: %d, nFileTotalSize: %d, now %d, %d"),
          nHeader, nTotal, RING_HEAD_SIZE, m_nTraceFileSize);
    lpHead->m_nFileHeaderSize = RING_HEAD_SIZE;
    lpHead->m_nFileTotalSize = m_nTraceFileSize;
}

BOOL CLogManager::OpenServiceFile(int nProcessID)
{
    char szDir[MAX_PATH + 8];
    if (m_lpTraceDir != nullptr)
        snprintf(szDir, sizeof(szDir), "%s", m_lpTraceDir);
    else
        TraceExecutableDir(szDir, sizeof(szDir));
    LogFileManage("TalvorService*");
    char szPath[MAX_PATH + 64];
    TraceBuildFileName(szDir, "TalvorService", szPath, sizeof(szPath));
    CTalvorAppendFile* pFile = TraceOpenNewFile(szPath);
    snprintf(m_szServicePath, sizeof(m_szServicePath), "%s", szPath);
    if (pFile == nullptr) {
        // Said once for each stretch of failures: the engine posts often.
        if (!m_bRingOpenFailureTold)
            Trace("WriteTraceThread", 1, 20010003,
                  TALVOR_TEXT("日志线程打开日志文件失败，文件路径：%s", "Log thread failed to open log file, file path: %s"),
                  szPath);
        m_bRingOpenFailureTold = TRUE;
        return FALSE;
    }
    m_bRingOpenFailureTold = FALSE;
    TraceWriteServiceHead(pFile, nProcessID);
    m_nServiceProcessID = nProcessID;
    m_nServiceWriteSize = 0;
    m_pServiceFile = pFile;
    return TRUE;
}

BOOL CLogManager::CopyTraceRing()
{
    LPFILE_TRACEMEMFILEHEAD lpHead = (LPFILE_TRACEMEMFILEHEAD)m_pTraceFileAddr;
    if (lpHead == nullptr) return TRUE;
    TalvorFlushCPU4Read();
    int nProcessID = lpHead->m_nProcessID;
    if (m_nServiceProcessID != 0 && nProcessID != m_nServiceProcessID) {
        // The engine restarted: its new lines go on in the same file.
        if (m_pServiceFile != nullptr) m_pServiceFile->AppendFormat("\r\n\r\nService processid:%d\r\n", nProcessID);
        m_nServiceProcessID = nProcessID;
    }
    if (TalvorLoadShared(&lpHead->m_nReadPos) == TalvorLoadShared(&lpHead->m_nWritePos)) return TRUE;
    RepairRingHead(lpHead);
    const int nHeader = lpHead->m_nFileHeaderSize;
    const int nTotal = lpHead->m_nFileTotalSize;
    int w = TalvorLoadShared(&lpHead->m_nWritePos);
    int r = TalvorLoadShared(&lpHead->m_nReadPos);
    if (w < nHeader || w > nTotal || r < nHeader || r > nTotal) {
        Trace("WriteTraceThread", 1, 20010002,
              TALVOR_TEXT("日志线程检测到内存数据异常，nWritePos：%d、nReadPos：%d、nFileHeaderSize：%d、nFileTotalSize：%d",
                          "Log thread detected memory data exceptions, nWritePos：%d、nReadPos：%d、nFileHeaderSize：%d、nFileTotalSize：%d"),
              w, r, nHeader, nTotal);
        if (w < nHeader || w > nTotal) TalvorStoreShared(&lpHead->m_nWritePos, nHeader);
        if (r < nHeader || r > nTotal) TalvorStoreShared(&lpHead->m_nReadPos, nHeader);
        TalvorFlushCPU4Write();
    }
    if (m_pServiceFile == nullptr && !OpenServiceFile(lpHead->m_nProcessID)) return FALSE;

    w = TalvorLoadShared(&lpHead->m_nWritePos);
    TalvorFlushCPU4Read();
    r = TalvorLoadShared(&lpHead->m_nReadPos);
    // The engine may have moved since the check: bound the copy once more.
    if (w < nHeader || w > nTotal) return TRUE;
    long long nWritten = 0;
    StoreFlag(&m_bInServiceWrite, TRUE);
    if (w > r) {
        m_pServiceFile->Append(m_pTraceFileAddr + r, (size_t)(w - r));
        nWritten = w - r;
    } else if (w < r) {
        m_pServiceFile->Append(m_pTraceFileAddr + r, (size_t)(nTotal - r));
        nWritten = nTotal - r;
        if (w > nHeader) {
            m_pServiceFile->Append(m_pTraceFileAddr + nHeader, (size_t)(w - nHeader));
            nWritten += w - nHeader;
        }
    }
    m_pServiceFile->Flush();
    StoreFlag(&m_bInServiceWrite, FALSE);
    // The bytes are in the file before the engine may reuse their room.
    TalvorFlushCPU4Write();
    TalvorStoreShared(&lpHead->m_nReadPos, w);
    m_nServiceWriteSize += nWritten;
    // Only a pass over the wrap switches the file.
    if (w < r && m_nServiceWriteSize > TraceFileMaxSize()) {
        Trace("WriteTraceThread", 3, 20010007,
              TALVOR_TEXT("日志线程发现日志写入已达到设定值，切换日志文件！文件路径：%s，大小：%d",
                          "The log thread found that the log writing has reached the set value, and switched the log "
                          "file! File path: %s, size: %d"),
              m_szServicePath, (int)m_nServiceWriteSize);
        CTalvorAppendFile::Close(m_pServiceFile);
        m_pServiceFile = nullptr;
        m_nServiceWriteSize = 0;
    }
    return TRUE;
}

namespace {

void CopierBody(void* lpContext, LPTALVORCRITICALSECTION)
{
    CLogManager* pLog = (CLogManager*)lpContext;
    Trace0("WriteTraceThread", 3, 20010001, TALVOR_TEXT("日志写入线程已启动！", "Log Writer thread started!"));
    if (CrashTestFaultDue("tracecopier")) CrashTestFault();
    for (;;) {
        if (pLog->m_hTraceEvent != nullptr)
            WaitForSingleObject(pLog->m_hTraceEvent, TRACE_EVENT_WAIT_MS);
        else
            usleep(100000);
        pLog->CopyTraceRing();
        if (LoadExitFlag(&pLog->m_bExit)) break;
    }
    CTalvorAppendFile::Close(pLog->m_pServiceFile);
    pLog->m_pServiceFile = nullptr;
    pLog->m_nServiceProcessID = 0;
}

void CopierCleanup(void* lpContext) { ((CLogManager*)lpContext)->AbandonFilesAfterCrash(TRUE); }

} // namespace

// The copier of the engine's lines, under crash containment.
void* CLogManager::WriteTraceThread(LPVOID lpParam)
{
    CLogManager* pLog = (CLogManager*)lpParam;
    usleep(100000);
    TalvorRunContained(WriteTraceThread, lpParam, &pLog->m_hWriteTraceThread, CopierBody, CopierCleanup, pLog);
    Trace0("WriteTraceThread", 3, 20010100, TALVOR_TEXT("日志写入线程已结束！", "Log Writer thread ended!"));
    return nullptr;
}
