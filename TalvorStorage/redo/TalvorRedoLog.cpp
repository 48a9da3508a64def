// TalvorRedoLog.cpp — the group files at start (opened, made, reset,
// repaired), where the writer starts, and the reader's side of the table.
//
// The group table is shared by the writer, the archiver and the standby
// readers; m_crit guards a group changing hands, and it is never held across
// file I/O or a wait. Sizes and states are also read without the lock: the
// writer publishes a state behind a store barrier, after the sizes.
#include "TalvorRedoLog.h"

#include "TalvorTrace.h"
#include "TalvorFileIO.h"
#include "TalvorStorageDef.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int OPEN_TRIES = 5;

void CloseGroupHandle(void*& hFile)
{
    if (hFile == nullptr) return;
    int fd = Talvor_FileDescriptor(hFile);
    if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
    free(hFile);
    hFile = nullptr;
}

inline BOOL RingSizesTrue(LPFILE_TRACEMEMFILEHEAD pHead)
{
    int nHeader = pHead->m_nFileHeaderSize;
    int nTotal = pHead->m_nFileTotalSize;
    return nHeader == (int)sizeof(FILE_TRACEMEMFILEHEAD) && nTotal > nHeader + 16;
}

// Reads nWidth bytes of a field at ring position nPos, joining a field split
// by the end of the area.
void ReadRingField(int nPos, LPFILE_TRACEMEMFILEHEAD pHead, void* pOut, int nWidth)
{
    memset(pOut, 0, (size_t)nWidth);
    if (!RingSizesTrue(pHead)) return;
    const int nHeader = pHead->m_nFileHeaderSize;
    const int nTotal = pHead->m_nFileTotalSize;
    const int nData = nTotal - nHeader;
    if (nPos < nHeader) return;
    long long p = nPos;
    if (p >= nTotal) p = nHeader + (p - nHeader) % nData;
    assert(p >= nHeader && p < nTotal);
    const BYTE* lpBase = (const BYTE*)pHead;
    BYTE* lpOut = (BYTE*)pOut;
    for (int i = 0; i < nWidth; i++) {
        lpOut[i] = lpBase[p];
        if (++p == nTotal) p = nHeader;
    }
}

} // namespace

long long RedoNowFileTime()
{
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    return FileTimeToInt64(ft);
}

CTalvorRedoLog::CTalvorRedoLog()
    : m_bCurrentRedoGroup(0), m_nWriteRedoOnlineGroups(0), m_nWriteRedoMaxSize(0), m_bArchiveExit(FALSE),
      m_bLogWaitting(FALSE), m_nClusterNodeType(0), m_pExit(nullptr), m_pLogFileAddr(nullptr), m_lpRedoDir(nullptr),
      m_lpArchiveDir(nullptr), m_hLogEvent(nullptr), m_hLogEmptyEvent(nullptr), m_pMemoryFileHead(nullptr),
      m_pFlashback(nullptr), m_pStandbyCache(nullptr), m_nRingSize(0), m_nForceFlushLog(0),
      m_nStopDrainLimitMs(REDO_STOP_DRAIN_LIMIT_MS), m_nArchiveStopLimitMs(REDO_ARCHIVE_STOP_LIMIT_MS),
      m_nThreadsInside(0), m_pWriterState(nullptr)
{
    memset(&m_stResume, 0, sizeof(m_stResume));
    memset(m_pRedoLog, 0, sizeof(m_pRedoLog));
    memset((void*)&m_stStats, 0, sizeof(m_stStats));
    m_szArchiveDir[0] = '\0';
    InitEvent(m_hArchiveEvent);
    InitEvent(m_hArchivedEvent);
    InitializeCriticalTalvor(&m_crit);
    TalvorSetLatchRank(&m_crit, LATCHRANK_REDO);
}

CTalvorRedoLog::~CTalvorRedoLog()
{
    for (int i = 0; i < REDOGROUP_MAX; i++) CloseGroupHandle(m_pRedoLog[i].m_pOnlineFile);
    FreeEvent(m_hArchiveEvent);
    FreeEvent(m_hArchivedEvent);
    DeleteCriticalTalvor(&m_crit);
}

void CTalvorRedoLog::GroupPath(int nGroup, char* lpPath, size_t nSize) const
{
    snprintf(lpPath, nSize, "%s%s%d.log", m_lpRedoDir != nullptr ? m_lpRedoDir : "", "Redo", nGroup);
}

BOOL CTalvorRedoLog::OpenGroupFile(int nGroup, BOOL bCreate)
{
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    if (pGroup->m_pOnlineFile != nullptr) return TRUE;
    char szPath[MAX_PATH + 32];
    GroupPath(nGroup, szPath, sizeof(szPath));
    for (int i = 0; i < OPEN_TRIES; i++) {
        if (i > 0) usleep(1000);
        if (!bCreate && !TalvorPathExists(szPath)) continue;
        int fd = CTalvorFileIO::Current()->Open(szPath, bCreate ? (O_RDWR | O_CREAT) : O_RDWR, 0666);
        if (fd < 0) continue;
        CTalvorFileIO::Current()->Chmod(szPath, 0666);
        pGroup->m_pOnlineFile = Talvor_MakeFileHandle(fd);
        if (pGroup->m_pOnlineFile == nullptr) {
            CTalvorFileIO::Current()->Close(fd);
            return FALSE;
        }
        return TRUE;
    }
    return FALSE;
}

BOOL CTalvorRedoLog::ReadGroupHead(int nGroup, LPMF_REDOLOGFILEHEAD pHead)
{
    memset(pHead, 0, sizeof(*pHead));
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    if (fd < 0) return FALSE;
    return CTalvorFileIO::Current()->PRead(fd, pHead, sizeof(*pHead), 0) > 0;
}

BOOL CTalvorRedoLog::WriteGroupHead(int nGroup, const MF_REDOLOGFILEHEAD* pHead)
{
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    if (fd < 0) return FALSE;
    return TalvorWriteFull(fd, pHead, sizeof(*pHead), 0);
}

void CTalvorRedoLog::BuildFreshHead(LPMF_REDOLOGFILEHEAD pHead)
{
    memset(pHead, 0, sizeof(*pHead));
    memcpy(pHead->m_lpszFileFlag, REDOLOGFILE_FLAG, sizeof(REDOLOGFILE_FLAG));
    pHead->m_usDatabaseGuid = m_pMemoryFileHead->m_usDatabaseGuid;
    pHead->m_nVersion = REDOLOGFILE_VERSION;
    GetSystemTimeAsFileTime(&pHead->m_ftCreateTime);
}

// A new (or reset) group: a fresh head and the file filled with zeros up to
// its nominal size, so that the writer never grows it.
BOOL CTalvorRedoLog::MakeGroupFile(int nGroup, LPBYTE lpZero, LONG nFailCode)
{
    char szPath[MAX_PATH + 32];
    GroupPath(nGroup, szPath, sizeof(szPath));
    if (!OpenGroupFile(nGroup, TRUE)) {
        int nErr = errno;
        Trace("LogInit", 1, nFailCode,
              TALVOR_TEXT("初始化Redo日志创建日志文件失败，文件路径：%s，错误：(%d)%s",
                          "Failed to initialize Redo log and create log file, file path: %s, error : (%d)%s"),
              szPath, nErr, strerror(nErr));
        return FALSE;
    }
    MF_REDOLOGFILEHEAD stHead;
    BuildFreshHead(&stHead);
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    BOOL bOk = WriteGroupHead(nGroup, &stHead);
    long long nPos = REDOLOGFILE_HEAD_SIZE;
    while (bOk && lpZero != nullptr && nPos < m_nWriteRedoMaxSize) {
        long long nPiece = m_nWriteRedoMaxSize - nPos;
        if (nPiece > REDO_ZERO_FILL_SIZE) nPiece = REDO_ZERO_FILL_SIZE;
        bOk = TalvorWriteFull(fd, lpZero, (size_t)nPiece, (off_t)nPos);
        nPos += nPiece;
    }
    if (!bOk) {
        int nErr = errno;
        Trace("LogInit", 1, nFailCode,
              TALVOR_TEXT("初始化Redo日志创建日志文件失败，文件路径：%s，错误：(%d)%s",
                          "Failed to initialize Redo log and create log file, file path: %s, error : (%d)%s"),
              szPath, nErr, strerror(nErr));
        return FALSE;
    }
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    TalvorStoreShared(&pGroup->m_bState, REDOGROUP_EMPTY);
    TalvorStoreShared(&pGroup->m_nSequenceNO, 0);
    TalvorStoreShared(&pGroup->m_nWriteSize, 0);
    TalvorStoreShared(&pGroup->m_nEffectiveSize, 0);
    pGroup->m_bStandbyRef = 0;
    return TRUE;
}

// The highest log number that has an archive file in the first destination
// (0 when none): a restart must never give a new log a number that an
// archive already holds.
UINT CTalvorRedoLog::HighestArchivedNumber()
{
    char szPaths[sizeof(m_pMemoryFileHead->m_lpArchiveDesPath)];
    memcpy(szPaths, m_pMemoryFileHead->m_lpArchiveDesPath, sizeof(szPaths));
    szPaths[sizeof(szPaths) - 1] = '\0';
    UINT nMax = 0;
    char* lpSave = nullptr;
    for (char* lp = strtok_r(szPaths, ";", &lpSave); lp != nullptr; lp = strtok_r(nullptr, ";", &lpSave)) {
        char szDir[MAX_PATH + 32];
        size_t nLen = strlen(lp);
        snprintf(szDir, sizeof(szDir), "%s%sArchiveLog/", lp, (nLen > 0 && lp[nLen - 1] == '/') ? "" : "/");
        DIR* pDir = CTalvorFileIO::Current()->OpenDir(szDir);
        if (pDir == nullptr) continue;
        while (struct dirent* pEntry = readdir(pDir)) {
            unsigned int nNo = 0;
            char szTail[8] = {0};
            if (sscanf(pEntry->d_name, "Log%u%5s", &nNo, szTail) == 2 && strcmp(szTail, ".log") == 0 && nNo > nMax)
                nMax = nNo;
        }
        CTalvorFileIO::Current()->CloseDir(pDir);
    }
    return nMax;
}

// Log numbers start at 1 (0 is "no such log") and pass every number a group
// or an archive already holds: after a hard stop the system file may not have
// been committed with the last number the writer took.
void CTalvorRedoLog::RaiseLogNumbers()
{
    UINT nHighest = HighestArchivedNumber();
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++)
        if (TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO) > nHighest)
            nHighest = TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO);
    UINT nNext = m_pMemoryFileHead->m_nRedoLogMaxID;
    if (nNext > nHighest && nNext != 0) return;
    UINT nRaised = nHighest + 1;
    if (nNext != 0)
        Trace("LogInit", 3, 30001012,
              TALVOR_TEXT("下一个日志编号%u已被使用(最大编号%u)，改为%u",
                          "The next log number %u was already taken (highest %u): it becomes %u"),
              nNext, nHighest, nRaised);
    m_pMemoryFileHead->m_nRedoLogMaxID = nRaised;
}

BOOL CTalvorRedoLog::Init(LPSYSTEMFILEHEAD pMemoryFileHead, int nClusterNodeType, BOOL* pExit, char* lpRedoDir,
                          char* pLogFileAddr, HEVENTTYPE hLogEvent, HEVENTTYPE hLogEmptyEvent, BOOL bRecover,
                          CTalvorFlashback* pFlashback)
{
    m_pMemoryFileHead = pMemoryFileHead;
    m_nClusterNodeType = nClusterNodeType;
    m_pExit = pExit;
    m_lpRedoDir = lpRedoDir;
    m_pLogFileAddr = pLogFileAddr;
    m_hLogEvent = hLogEvent;
    m_hLogEmptyEvent = hLogEmptyEvent;
    m_pFlashback = pFlashback;
    TalvorStoreShared(&m_bArchiveExit, FALSE);
    m_nForceFlushLog = g_nForceFlushLog;
    memset(&m_stResume, 0, sizeof(m_stResume));
    if (m_pMemoryFileHead == nullptr) return FALSE;
    int nGroups = m_pMemoryFileHead->m_nWriteRedoOnlineGroups;
    if (nGroups < REDOGROUP_MIN) nGroups = REDOGROUP_MIN;
    if (nGroups > REDOGROUP_MAX) nGroups = REDOGROUP_MAX;
    m_pMemoryFileHead->m_nWriteRedoOnlineGroups = nGroups;
    m_nWriteRedoOnlineGroups = nGroups;
    m_nWriteRedoMaxSize = m_pMemoryFileHead->m_nWriteRedoMaxSize;
    // A group must hold its head and at least one record head.
    if (m_nWriteRedoMaxSize < REDOLOGFILE_HEAD_SIZE + EXECUTEPLANHEAD_SIZE)
        m_nWriteRedoMaxSize = REDOLOGFILE_HEAD_SIZE + EXECUTEPLANHEAD_SIZE;
    m_bCurrentRedoGroup = m_pMemoryFileHead->m_bCurrentRedoGroup;
    if (m_bCurrentRedoGroup >= nGroups) m_bCurrentRedoGroup = 0;

    LPBYTE lpZero = (LPBYTE)calloc(1, REDO_ZERO_FILL_SIZE);
    if (lpZero == nullptr) return FALSE;
    BOOL bOk = TRUE;
    for (int i = 0; i < nGroups && bOk; i++) {
        if (bRecover) {
            // Start over: an existing file keeps its bytes but gets a fresh head.
            if (OpenGroupFile(i, FALSE)) {
                MF_REDOLOGFILEHEAD stHead;
                BuildFreshHead(&stHead);
                WriteGroupHead(i, &stHead);
                memset((void*)&m_pRedoLog[i].m_bState, 0, sizeof(TALVORREDOGROUP) - sizeof(void*));
            } else {
                bOk = MakeGroupFile(i, lpZero, 30001001);
            }
            continue;
        }
        OpenGroupFile(i, FALSE);
        MF_REDOLOGFILEHEAD stHead;
        BOOL bGood = m_pRedoLog[i].m_pOnlineFile != nullptr && ReadGroupHead(i, &stHead) &&
                     stHead.m_usDatabaseGuid == m_pMemoryFileHead->m_usDatabaseGuid &&
                     stHead.m_nVersion == REDOLOGFILE_VERSION;
        if (bGood) {
            LPTALVORREDOGROUP pGroup = &m_pRedoLog[i];
            TalvorStoreShared(&pGroup->m_bState,
                              stHead.m_bState <= REDOGROUP_ARCHIVED ? stHead.m_bState : (BYTE)REDOGROUP_EMPTY);
            TalvorStoreShared(&pGroup->m_nSequenceNO, stHead.m_nSequenceNO);
            TalvorStoreShared(&pGroup->m_nEffectiveSize, (int)stHead.m_nEffectiveSize);
            TalvorStoreShared(&pGroup->m_nWriteSize, (int)stHead.m_nEffectiveSize);
            pGroup->m_bStandbyRef = 0;
            if (TalvorLoadShared(&pGroup->m_bState) == REDOGROUP_SEALED) CheckSealedLog(i);
            continue;
        }
        if (m_pRedoLog[i].m_pOnlineFile != nullptr) {
            char szPath[MAX_PATH + 32];
            GroupPath(i, szPath, sizeof(szPath));
            Trace("LogInit", 1, 30001010,
                  TALVOR_TEXT("读取Redo日志文件头信息并检查失败，程序自动重置日志文件，文件路径：%s",
                              "Read header information of redo log file and check failed, program automatically reset "
                              "log file, file path: %s"),
                  szPath);
        }
        bOk = MakeGroupFile(i, lpZero, 30001011);
    }
    free(lpZero);
    if (!bOk) return FALSE;
    RaiseLogNumbers();
    if (!bRecover) FollowNewestLog();
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (bRecover) {
        m_bCurrentRedoGroup = 0;
        if (pRing != nullptr) {
            pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
            pRing->m_nLogArchiveNo = pRing->m_nLogNo - 1;
        }
        return TRUE;
    }
    SeekCurrentLog();
    // Only what is archived is called so: a log sealed by the stop, or left
    // behind by a slow archiver, is archived by this run's archiver first.
    if (pRing != nullptr) pRing->m_nLogArchiveNo = ArchivedUpTo();
    return TRUE;
}

int CTalvorRedoLog::ArchivedUpTo()
{
    long long nUpTo =
        m_pMemoryFileHead != nullptr ? (long long)TalvorLoadShared(&m_pMemoryFileHead->m_nRedoLogMaxID) - 1 : 0;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++)
        if ((long long)TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO) > nUpTo)
            nUpTo = TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO);
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++) {
        LPTALVORREDOGROUP pGroup = &m_pRedoLog[i];
        BYTE bState = TalvorLoadShared(&pGroup->m_bState);
        long long nNo = TalvorLoadShared(&pGroup->m_nSequenceNO);
        if (nNo == 0) continue;
        if ((bState == REDOGROUP_SEALED || bState == REDOGROUP_WRITING) && nNo - 1 < nUpTo) nUpTo = nNo - 1;
    }
    return nUpTo < 0 ? 0 : (int)nUpTo;
}

// The group of the newest log is where the writer left off, whatever the
// system file says: its current group is only as recent as its last commit.
void CTalvorRedoLog::FollowNewestLog()
{
    int nNewest = m_bCurrentRedoGroup;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++) {
        if (TalvorLoadShared(&m_pRedoLog[i].m_bState) != REDOGROUP_EMPTY &&
            TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO) > TalvorLoadShared(&m_pRedoLog[nNewest].m_nSequenceNO))
            nNewest = i;
    }
    if (nNewest == m_bCurrentRedoGroup) return;
    Trace("LogInit", 3, 30001013,
          TALVOR_TEXT("当前日志组由%d改为%d：它保存着最新的日志%u",
                      "The current log group is %d instead of %d: it holds the newest log %u"),
          nNewest, (int)m_bCurrentRedoGroup, (UINT)TalvorLoadShared(&m_pRedoLog[nNewest].m_nSequenceNO));
    __atomic_store_n(&m_bCurrentRedoGroup, (BYTE)nNewest, __ATOMIC_RELEASE);
    TalvorStoreShared(&m_pMemoryFileHead->m_bCurrentRedoGroup, m_bCurrentRedoGroup);
}

void CTalvorRedoLog::MoveToNextGroup()
{
    __atomic_store_n(&m_bCurrentRedoGroup, (BYTE)((m_bCurrentRedoGroup + 1) % m_nWriteRedoOnlineGroups), __ATOMIC_RELEASE);
    TalvorStoreShared(&m_pMemoryFileHead->m_bCurrentRedoGroup, m_bCurrentRedoGroup);
}

// Walks the records of an unsealed log that no ring vouches for (the ring
// is new: the machine or the engine went down with it). Each record must
// carry the mark, a sane size, its trailer, and a timestamp not older than
// the log's start. A record without timestamp proves nothing (a stale one of
// the group's previous log looks the same), so the end moves past such
// records only when a record with a timestamp of this log follows them.
// Returns the end of the last record proven to be this log's (50 for none).
int CTalvorRedoLog::WalkUnsealedLog(int nGroup, const MF_REDOLOGFILEHEAD& stHead, long long& nEndTimestamp)
{
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    long long nPos = REDOLOGFILE_HEAD_SIZE;
    long long nProven = REDOLOGFILE_HEAD_SIZE;
    nEndTimestamp = 0;
    for (;;) {
        BASEEXECUTEPLANHEAD stRec;
        if (CTalvorFileIO::Current()->PRead(fd, &stRec, sizeof(stRec), (off_t)nPos) != (ssize_t)sizeof(stRec)) break;
        if (stRec.m_nDataFlag != EXECUTEPLAN_DATAFLAG || stRec.m_nTotalDataSize < EXECUTEPLANHEAD_SIZE) break;
        long long nEnd = nPos + stRec.m_nTotalDataSize;
        if (nEnd > 0x7FFFFFFFLL) break;
        if (RedoRecordHasTrailer(stRec.m_nType)) {
            UINT nTrailer = 0;
            if (CTalvorFileIO::Current()->PRead(fd, &nTrailer, 4, (off_t)(nEnd - 4)) != 4) break;
            if (nTrailer != REDORECORD_TRAILER) break;
        } else {
            // Without a trailer, the record's last byte must at least exist.
            BYTE b;
            if (CTalvorFileIO::Current()->PRead(fd, &b, 1, (off_t)(nEnd - 1)) != 1) break;
        }
        if (stRec.m_nTimestamp != 0 && stRec.m_nTimestamp < stHead.m_nBeginTimestamp) break;
        nPos = nEnd;
        if (stRec.m_nTimestamp == 0) continue;
        if (stRec.m_nTimestamp > nEndTimestamp) nEndTimestamp = stRec.m_nTimestamp;
        nProven = nPos;
    }
    return (int)nProven;
}

REDOWALK CTalvorRedoLog::WalkLogTo(int nGroup, int nSize, BOOL bRingHasRest, long long nMinTimestamp)
{
    REDOWALK w;
    memset(&w, 0, sizeof(w));
    w.m_nWholeEnd = REDOLOGFILE_HEAD_SIZE;
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    long long nPos = REDOLOGFILE_HEAD_SIZE;
    while (nPos < nSize) {
        BASEEXECUTEPLANHEAD stRec;
        memset(&stRec, 0, sizeof(stRec));
        // A head cut by the size: its first bytes are in the file, the rest
        // still in the ring.
        size_t nHead = nSize - nPos < (long long)sizeof(stRec) ? (size_t)(nSize - nPos) : sizeof(stRec);
        if (!TalvorReadFull(fd, &stRec, nHead, (off_t)nPos)) {
            w.m_bBroken = TRUE;
            break;
        }
        if (nHead < sizeof(stRec)) {
            // The head itself was cut: its first bytes are in the file, the
            // rest stands unread at the ring's read position.
            LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
            if (pRing == nullptr || !bRingHasRest) {
                w.m_bBroken = TRUE;
                break;
            }
            ReadRingField(pRing->m_nReadPos, pRing, (BYTE*)&stRec + nHead, (int)(sizeof(stRec) - nHead));
        }
        if (stRec.m_nDataFlag != EXECUTEPLAN_DATAFLAG || stRec.m_nTotalDataSize < EXECUTEPLANHEAD_SIZE ||
            (stRec.m_nTimestamp != 0 && stRec.m_nTimestamp < nMinTimestamp)) {
            w.m_bBroken = TRUE;
            break;
        }
        if (stRec.m_nTimestamp > w.m_nEndTimestamp) w.m_nEndTimestamp = stRec.m_nTimestamp;
        long long nEnd = nPos + stRec.m_nTotalDataSize;
        if (nEnd > nSize) {
            w.m_nCutMissing = (int)(nEnd - nSize);
            break;
        }
        nPos = nEnd;
        w.m_nWholeEnd = (int)nPos;
    }
    return w;
}

void CTalvorRedoLog::CheckSealedLog(int nGroup)
{
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    const int nSize = TalvorLoadShared(&pGroup->m_nEffectiveSize);
    if (nSize < REDOLOGFILE_HEAD_SIZE) return;
    MF_REDOLOGFILEHEAD stHead;
    if (!ReadGroupHead(nGroup, &stHead)) return;
    // A page the power loss took back may hold the group's previous log,
    // whose records can run on to the sealed size: older than this log's
    // begin, they end the walk.
    REDOWALK w = WalkLogTo(nGroup, nSize, FALSE, stHead.m_nBeginTimestamp);
    if (!w.m_bBroken && w.m_nCutMissing == 0 && w.m_nWholeEnd == nSize) return;
    Trace("LogInit", 1, 30001014,
          TALVOR_TEXT("已封存的Redo日志组[%d、%d]的记录在%d处中断(大小%d)：掉电丢失了未写回的字节，该日志在最后一条完整记录后重新封存",
                      "The records of sealed redo log group [%d, %d] break off at %d (size %d): a power loss took bytes "
                      "not yet written back, and the log is sealed again behind its last whole record"),
          nGroup, (int)stHead.m_nSequenceNO, w.m_nWholeEnd, nSize);
    stHead.m_nEffectiveSize = (UINT)w.m_nWholeEnd;
    stHead.m_nEndTimestamp = w.m_nEndTimestamp;
    if (!WriteGroupHead(nGroup, &stHead)) return;
    TalvorStoreShared(&pGroup->m_nEffectiveSize, w.m_nWholeEnd);
    TalvorStoreShared(&pGroup->m_nWriteSize, w.m_nWholeEnd);
}

BOOL CTalvorRedoLog::RingVouches(int nGroup, const MF_REDOLOGFILEHEAD& stHead)
{
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (pRing == nullptr || stHead.m_nSequenceNO == 0 || (UINT)pRing->m_nLogNo != stHead.m_nSequenceNO) return FALSE;
    struct stat stFile;
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    if (fd < 0 || CTalvorFileIO::Current()->FStat(fd, &stFile) != 0) return FALSE;
    return pRing->m_nLogPos >= REDOLOGFILE_HEAD_SIZE && (long long)pRing->m_nLogPos <= (long long)stFile.st_size;
}

void CTalvorRedoLog::KeepNumberOfEmptyLog(const MF_REDOLOGFILEHEAD& stHead)
{
    UINT nNo = stHead.m_nSequenceNO;
    if (nNo == 0 || m_pMemoryFileHead->m_nRedoLogMaxID != nNo + 1) return;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++)
        if (i != m_bCurrentRedoGroup && TalvorLoadShared(&m_pRedoLog[i].m_nSequenceNO) >= nNo) return;
    if (HighestArchivedNumber() >= nNo) return;
    m_pMemoryFileHead->m_nRedoLogMaxID = nNo;
}

// The piece a killed writer was consuming runs in the ring from m_nReadPos
// to the position it announced. If the kill came after the file's size was
// stored, the piece is the end of the file below m_nLogPos; if before, it
// was written behind m_nLogPos and nothing is to be done (the writer drains
// it again over the same bytes). Only the first gives the room back: should
// the piece match both places (a stretch that repeats itself), the piece is
// drained again, which may write it twice but never loses it.
void CTalvorRedoLog::SettlePendingConsume(int nGroup)
{
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    const int nPending = pRing->m_nItemSize;
    if (nPending >= REDO_ITEMSIZE_UNKNOWN || !RingSizesTrue(pRing)) return;
    const int nHeader = pRing->m_nFileHeaderSize;
    const int nTotal = pRing->m_nFileTotalSize;
    const long long nData = nTotal - nHeader;
    const int nTo = RedoPendingReadPos(nPending);
    const int nFrom = pRing->m_nReadPos;
    const int nWrite = pRing->m_nWritePos;
    if (nTo < nHeader || nTo >= nTotal || nFrom < nHeader || nFrom >= nTotal || nWrite < nHeader || nWrite >= nTotal)
        return;
    const long long nLen = ((long long)nTo - nFrom + nData) % nData;
    const long long nUnread = ((long long)nWrite - nFrom + nData) % nData;
    const long long nEnd = pRing->m_nLogPos;
    if (nLen == 0 || nLen > nUnread || nEnd - nLen < REDOLOGFILE_HEAD_SIZE) return;
    LPBYTE lpBuf = new (std::nothrow) BYTE[(size_t)nLen * 2];
    if (lpBuf == nullptr) return;
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    ReadRingField(nFrom, pRing, lpBuf, (int)nLen);
    BYTE* lpFile = lpBuf + nLen;
    const BOOL bBelow = TalvorReadFull(fd, lpFile, (size_t)nLen, (off_t)(nEnd - nLen)) && memcmp(lpBuf, lpFile, (size_t)nLen) == 0;
    const BOOL bBehind = bBelow && TalvorReadFull(fd, lpFile, (size_t)nLen, (off_t)nEnd) &&
                         memcmp(lpBuf, lpFile, (size_t)nLen) == 0;
    delete[] lpBuf;
    if (!bBelow || bBehind) return;
    Trace("SeekCurrentLog", 3, 30002004,
          TALVOR_TEXT("最后%lld字节已在Redo日志组[%d]的文件中，环形缓冲区中的同一段不再写入",
                      "The last %lld bytes of redo log group [%d] are in its file already: the same stretch in the ring is not drained again"),
          nLen, nGroup);
    pRing->m_nReadPos = nTo;
}

BOOL CTalvorRedoLog::SettleOpenLog(int nGroup, MF_REDOLOGFILEHEAD& stHead, BOOL bAtStart)
{
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (pRing != nullptr && bAtStart && pRing->m_bReadException == REDOREAD_OK && RingVouches(nGroup, stHead))
        SettlePendingConsume(nGroup);
    if (pRing != nullptr) pRing->m_nItemSize = 0;
    if (!RingVouches(nGroup, stHead)) {
        // No ring says where the log ends: only what proves to be its own.
        long long nEndTimestamp = 0;
        int nEnd = WalkUnsealedLog(nGroup, stHead, nEndTimestamp);
        if (nEnd > REDOLOGFILE_HEAD_SIZE) return SealFoundLog(nGroup, stHead, nEnd, nEndTimestamp, bAtStart);
        if (bAtStart) KeepNumberOfEmptyLog(stHead);
        if (bAtStart && pRing != nullptr) pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
        return TRUE;
    }
    const int nSize = pRing->m_nLogPos;
    REDOWALK w = WalkLogTo(nGroup, nSize, TRUE, 0);
    // A ring that the engine resets (after a writer's crash, or when the
    // writer gave up on it) brings no rest of a cut record: the log ends at
    // its last whole record.
    const BOOL bRingGoesOn = bAtStart && pRing->m_bReadException == REDOREAD_OK && !w.m_bBroken;
    if (bRingGoesOn && w.m_nCutMissing != 0) {
        // The writer stood inside a record (two pieces, or a step of a large
        // stretch): its first part is in the file, the rest in the ring, and
        // the log goes on with it. The record is carried across the restart
        // by the ring's own field for it (m_nItemSize, read by the writer
        // when it starts); the engine is not asked to offer it again, since
        // it gave the room of the first part back long ago.
        m_stResume.m_bResume = TRUE;
        m_stResume.m_nWriteSize = nSize;
        m_stResume.m_nItemSize = w.m_nCutMissing;
        m_stResume.m_nTimestampEnd = w.m_nEndTimestamp;
        pRing->m_nItemSize = m_stResume.m_nItemSize;
        TalvorStoreShared(&m_pRedoLog[nGroup].m_nWriteSize, m_stResume.m_nWriteSize);
        Trace("SeekCurrentLog", 3, 30002003,
              TALVOR_TEXT("Redo日志组[%d、%d]停在一条记录中间(位置%d，还差%d字节)，继续写入该日志",
                          "Redo log group [%d, %d] stopped inside a record (at %d, %d bytes to come): the log goes on"),
              nGroup, (int)stHead.m_nSequenceNO, m_stResume.m_nWriteSize, m_stResume.m_nItemSize);
        return TRUE;
    }
    if (w.m_nWholeEnd > REDOLOGFILE_HEAD_SIZE)
        return SealFoundLog(nGroup, stHead, w.m_nWholeEnd, w.m_nEndTimestamp, bAtStart);
    KeepNumberOfEmptyLog(stHead);
    if (bAtStart) pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
    return TRUE;
}

// Seals a log found unsealed at start, at the end of its last whole record,
// so that nothing the writer had drained before a hard stop is lost.
BOOL CTalvorRedoLog::SealFoundLog(int nGroup, MF_REDOLOGFILEHEAD& stHead, int nSize, long long nEndTimestamp,
                                  BOOL bAtStart)
{
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    stHead.m_nEffectiveSize = (UINT)nSize;
    stHead.m_nEndTimestamp = nEndTimestamp;
    stHead.m_bState = REDOGROUP_SEALED;
    if (pRing != nullptr && pRing->m_nTimestamp == 0) pRing->m_nTimestamp = nEndTimestamp;
    if (!WriteGroupHead(nGroup, &stHead)) return FALSE;
    TalvorStoreShared(&pGroup->m_nEffectiveSize, nSize);
    TalvorStoreShared(&pGroup->m_nWriteSize, nSize);
    TalvorFlushCPU4Write();
    TalvorStoreShared(&pGroup->m_bState, REDOGROUP_SEALED);
    Trace("SeekCurrentLog", 3, 30002002,
          TALVOR_TEXT("Redo日志组[%d、%d]已修复封存，大小：%d，开始时间戳：%lld，结束时间戳：%lld",
                      "Redo log group [%d, %d] has fixed the sealing, size: %d, start timestamp: %lld, end timestamp: "
                      "%lld"),
          nGroup, (int)stHead.m_nSequenceNO, nSize, stHead.m_nBeginTimestamp, stHead.m_nEndTimestamp);
    // While the archiver runs, it alone says how far archiving came.
    if (pRing != nullptr && bAtStart) pRing->m_nLogArchiveNo = (int)stHead.m_nSequenceNO - 1;
    MoveToNextGroup();
    SetEvent(m_hArchiveEvent);
    if (pRing != nullptr) pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
    return TRUE;
}

BOOL CTalvorRedoLog::SeekCurrentLog()
{
    const int nGroup = m_bCurrentRedoGroup;
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    MF_REDOLOGFILEHEAD stHead;
    if (!ReadGroupHead(nGroup, &stHead)) return FALSE;
    if (stHead.m_nEffectiveSize != 0) {
        // Sealed: the normal restart after a clean stop.
        TalvorStoreShared(&pGroup->m_nEffectiveSize, (int)stHead.m_nEffectiveSize);
        TalvorStoreShared(&pGroup->m_bState, stHead.m_bState);
        if (pRing != nullptr && pRing->m_nTimestamp == 0) pRing->m_nTimestamp = stHead.m_nEndTimestamp;
        if (pRing != nullptr) pRing->m_nLogArchiveNo = (int)TalvorLoadShared(&pGroup->m_nSequenceNO);
        MoveToNextGroup();
        if (pRing != nullptr) pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
        return TRUE;
    }
    if (stHead.m_bState == REDOGROUP_EMPTY) {
        if (pRing != nullptr) {
            pRing->m_nLogArchiveNo = 0;
            pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
        }
        return TRUE;
    }
    if (pRing != nullptr && pRing->m_nTimestamp == 0) {
        int nPrev = nGroup == 0 ? m_nWriteRedoOnlineGroups - 1 : nGroup - 1;
        MF_REDOLOGFILEHEAD stPrev;
        if (ReadGroupHead(nPrev, &stPrev) && stPrev.m_nEffectiveSize != 0) pRing->m_nTimestamp = stPrev.m_nEndTimestamp;
    }
    if (stHead.m_bState != REDOGROUP_WRITING) {
        if (pRing != nullptr) pRing->m_nLogNo = (int)m_pMemoryFileHead->m_nRedoLogMaxID;
        return TRUE;
    }
    // An unsealed log: the writer stopped hard. It is sealed where the ring
    // says the writer got to, never where bytes merely look like a record:
    // those may be the group's previous log.
    return SettleOpenLog(nGroup, stHead, TRUE);
}

// ---------------------------------------------------------------- readers

int CTalvorRedoLog::GetWritePos(UINT nRedoLogNo, int& nRedoGroup, BYTE& bCurLog, char* lpFilePath,
                                LPTALVORCRITICALSECTION lpCritSection)
{
    if (nRedoLogNo == 0 || m_pMemoryFileHead == nullptr) return -1;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    const UINT nLast = TalvorLoadShared(&m_pMemoryFileHead->m_nRedoLogMaxID) - 1;
    if (nRedoGroup >= 0 && nRedoGroup < m_nWriteRedoOnlineGroups) {
        LPTALVORREDOGROUP pGroup = &m_pRedoLog[nRedoGroup];
        if (TalvorLoadShared(&pGroup->m_nSequenceNO) == nRedoLogNo) {
            GroupPath(nRedoGroup, lpFilePath, MAX_PATH);
            // A held group of the current log is still the current log: the
            // reader must not take its size for the end of the log.
            bCurLog = nRedoLogNo >= nLast ? 1 : 0;
            return nRedoLogNo >= nLast ? TalvorLoadShared(&pGroup->m_nWriteSize)
                                       : TalvorLoadShared(&pGroup->m_nEffectiveSize);
        }
        // The group was reused meanwhile: the hold is stale. A count that is
        // already 0 stays there (a wrapped count would stall the writer).
        if (pGroup->m_bStandbyRef > 0) pGroup->m_bStandbyRef--;
        nRedoGroup = -1;
    } else {
        nRedoGroup = -1;
    }
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (nRedoLogNo < nLast) {
        bCurLog = 0;
        if (pRing != nullptr && (int)nRedoLogNo <= TalvorLoadShared(&pRing->m_nLogArchiveNo) && m_lpArchiveDir != nullptr) {
            snprintf(lpFilePath, MAX_PATH, "%sArchiveLog/Log%d.log", m_lpArchiveDir, (int)nRedoLogNo);
            return 0;
        }
        for (int i = 0; i < m_nWriteRedoOnlineGroups; i++) {
            LPTALVORREDOGROUP pGroup = &m_pRedoLog[i];
            if (TalvorLoadShared(&pGroup->m_nSequenceNO) != nRedoLogNo ||
                TalvorLoadShared(&pGroup->m_bState) == REDOGROUP_EMPTY)
                continue;
            if (pGroup->m_bStandbyRef == 0xFF) return -1; // every hold taken: ask again later
            pGroup->m_bStandbyRef++;
            nRedoGroup = i;
            GroupPath(i, lpFilePath, MAX_PATH);
            return TalvorLoadShared(&pGroup->m_nEffectiveSize);
        }
        return -2;
    }
    if (nRedoLogNo > nLast) return -1;
    bCurLog = 1;
    int arOrder[REDOGROUP_MAX + 2];
    int nOrder = 0;
    const int nCurrent = TalvorLoadShared(&m_bCurrentRedoGroup);
    arOrder[nOrder++] = nCurrent;
    arOrder[nOrder++] = nCurrent == 0 ? m_nWriteRedoOnlineGroups - 1 : nCurrent - 1;
    for (int i = 0; i < m_nWriteRedoOnlineGroups; i++) arOrder[nOrder++] = i;
    for (int k = 0; k < nOrder; k++) {
        LPTALVORREDOGROUP pGroup = &m_pRedoLog[arOrder[k]];
        if (TalvorLoadShared(&pGroup->m_nSequenceNO) != nRedoLogNo ||
            TalvorLoadShared(&pGroup->m_bState) == REDOGROUP_EMPTY)
            continue;
        if (pGroup->m_bStandbyRef == 0xFF) return -1;
        pGroup->m_bStandbyRef++;
        nRedoGroup = arOrder[k];
        GroupPath(nRedoGroup, lpFilePath, MAX_PATH);
        return TalvorLoadShared(&pGroup->m_nWriteSize);
    }
    return -1;
}

void CTalvorRedoLog::ReleaseRedoLog(int& nRedoGroup, LPTALVORCRITICALSECTION lpCritSection)
{
    if (nRedoGroup < 0 || nRedoGroup >= m_nWriteRedoOnlineGroups) return;
    BOOL bFree = FALSE;
    {
        CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
        LPTALVORREDOGROUP pGroup = &m_pRedoLog[nRedoGroup];
        if (pGroup->m_bStandbyRef > 0) pGroup->m_bStandbyRef--;
        bFree = pGroup->m_bStandbyRef == 0;
        nRedoGroup = -1;
    }
    if (bFree) SetEvent(m_hArchivedEvent);
}

// A reader asks only where nothing is asked yet: a seal request of the
// engine standing in the flag is never written over (the writer publishes
// the size at the seal all the same, and clears the flag then).
BOOL CTalvorRedoLog::AskToPublish(LPFILE_TRACEMEMFILEHEAD pRing)
{
    return __sync_bool_compare_and_swap(&pRing->m_bFlushFlag, (BYTE)REDOFLUSH_NONE, (BYTE)REDOFLUSH_PUBLISH);
}

int CTalvorRedoLog::GetWriteSize(int nRedoGroup, BOOL bForce, EVENTTYPE&)
{
    if (nRedoGroup < 0 || nRedoGroup >= m_nWriteRedoOnlineGroups) return 0;
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nRedoGroup];
    if (TalvorLoadShared(&pGroup->m_bState) != REDOGROUP_WRITING) return TalvorLoadShared(&pGroup->m_nWriteSize);
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (pRing == nullptr) return TalvorLoadShared(&pGroup->m_nWriteSize);
    if (!bForce && TalvorLoadShared(&pRing->m_nReadPos) != TalvorLoadShared(&pRing->m_nWritePos)) return 0;
    // With the engine's seal request standing, the size comes with the seal:
    // the writer clears that flag before it seals, so the state is waited for.
    const BOOL bSealAsked = !AskToPublish(pRing) && TalvorLoadShared(&pRing->m_bFlushFlag) == REDOFLUSH_SEAL;
    // Bounded: a writer that is gone must not hold the reader forever.
    for (int i = 0; i < 5000 && (TalvorLoadShared(&pRing->m_bFlushFlag) != 0 || bSealAsked) &&
                    TalvorLoadShared(&pGroup->m_bState) != REDOGROUP_SEALED;
         i++)
        usleep(1000);
    int nSize = TalvorLoadShared(&pGroup->m_nWriteSize);
    if ((nSize >= 0 && nSize < m_nWriteRedoMaxSize) || nSize == TalvorLoadShared(&pGroup->m_nEffectiveSize))
        return nSize;
    if (!bForce) return 0;
    usleep(1000);
    return TalvorLoadShared(&pGroup->m_nWriteSize);
}

void CTalvorRedoLog::FlushLogFile(int nRedoGroup)
{
    LPFILE_TRACEMEMFILEHEAD pRing = RingHead();
    if (nRedoGroup < 0 || nRedoGroup >= m_nWriteRedoOnlineGroups || pRing == nullptr) return;
    AskToPublish(pRing);
    for (int i = 0; i < 5000 && TalvorLoadShared(&pRing->m_bFlushFlag) != 0; i++) usleep(1000);
}

BOOL CTalvorRedoLog::GroupIsFree(int nGroup)
{
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    BYTE bState = TalvorLoadShared(&pGroup->m_bState);
    return bState == REDOGROUP_EMPTY || bState == REDOGROUP_WRITING ||
           (bState == REDOGROUP_ARCHIVED && pGroup->m_bStandbyRef == 0);
}

int CTalvorRedoLog::SwitchNewLog(BYTE bRedoGroup, UINT nSequenceNO, LPTALVORCRITICALSECTION lpCritSection)
{
    if (bRedoGroup >= m_nWriteRedoOnlineGroups) return -3;
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    if (GroupIsFree(bRedoGroup)) {
        TalvorStoreShared(&m_pRedoLog[bRedoGroup].m_nSequenceNO, nSequenceNO);
        m_bLogWaitting = FALSE;
        return 0;
    }
    m_bLogWaitting = TRUE;
    return -3;
}

BOOL CTalvorRedoLog::GetLogWaitFlag(int nRedoGroup)
{
    if (m_bLogWaitting) return TRUE;
    return m_nWriteRedoOnlineGroups > 0 && nRedoGroup == (m_bCurrentRedoGroup + 1) % m_nWriteRedoOnlineGroups;
}

void CTalvorRedoLog::AddStandby(LPTALVORREDOLOGSTANDBYCACHE pCache)
{
    if (pCache == nullptr) return;
    CTalvorCriticalSectionPtr guard(&m_crit, nullptr);
    pCache->m_pNext = m_pStandbyCache;
    m_pStandbyCache = pCache;
}

void CTalvorRedoLog::SubStandby(LPTALVORREDOLOGSTANDBYCACHE pCache)
{
    if (pCache == nullptr) return;
    CTalvorCriticalSectionPtr guard(&m_crit, nullptr);
    LPTALVORREDOLOGSTANDBYCACHE volatile* pp = &m_pStandbyCache;
    while (*pp != nullptr && *pp != pCache) pp = &(*pp)->m_pNext;
    if (*pp == pCache) *pp = pCache->m_pNext;
}

int CTalvorRedoLog::ReadData(int nPos, LPFILE_TRACEMEMFILEHEAD pHead)
{
    int n = 0;
    ReadRingField(nPos, pHead, &n, 4);
    return n;
}

long long CTalvorRedoLog::ReadData64(int nPos, LPFILE_TRACEMEMFILEHEAD pHead)
{
    long long n = 0;
    ReadRingField(nPos, pHead, &n, 8);
    return n;
}
