// TalvorRedoLogWriter.cpp — the only consumer of the redo ring: it drains
// whole records into the current group file, cuts the stream into logs,
// opens and seals groups, publishes how far it got, and feeds the standby
// readers.
//
// The ring head is written by the engine too: every position is checked
// before it is used, every field is read through the wrap, and a request
// flag is cleared only if it still holds the value that was served (so that
// a request the engine makes meanwhile is not lost).
#include "TalvorRedoLog.h"

#include "TalvorTrace.h"
#include "TalvorFileIO.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <semaphore.h>
#include <unistd.h>

LPREDOTESTPOINT volatile g_pRedoTestPoint = nullptr;

namespace {

const int RING_HEAD_SIZE = (int)sizeof(FILE_TRACEMEMFILEHEAD);
const long long STEP_WRITE_SIZE = 0x800000;      // ring space is given back in steps of this ...
const long long STEP_WRITE_THRESHOLD = 0xC00000; // ... while at least this much of a piece remains
const int GROUP_WAIT_MS = 10;
const int WRITE_RETRY_US = 100000;
const int SEAL_STOP_TRIES = 10;                  // head writes a stop tries before it leaves the log open
const int STOP_CUT_PASSES = 30000;               // passes a stop waits for the rest of a cut record
const int IDLE_PUBLISH_PASSES = 4;               // quiet passes before unpublished bytes are published

// A position one lap at most past the end, taken back into the ring's data.
inline long long WrapPos(long long p, int nHeader, int nTotal)
{
    long long q = p >= nTotal ? p - nTotal + nHeader : p;
    assert(q >= nHeader && q < nTotal);
    return q;
}

inline void TestPoint(int nPoint)
{
    LPREDOTESTPOINT pPoint = g_pRedoTestPoint;
    if (pPoint != nullptr) pPoint(nPoint);
}

// Clears a request only if it still holds the value served.
inline void ClearFlushFlag(LPFILE_TRACEMEMFILEHEAD pHead, BYTE bServed)
{
    __sync_bool_compare_and_swap(&pHead->m_bFlushFlag, bServed, (BYTE)REDOFLUSH_NONE);
}

} // namespace

BOOL CTalvorRedoLog::CheckRingHead(LPFILE_TRACEMEMFILEHEAD pHead)
{
    int nHeader = pHead->m_nFileHeaderSize;
    int nTotal = pHead->m_nFileTotalSize;
    int nLimit = m_nRingSize > 0 ? m_nRingSize : nTotal;
    if (nHeader == RING_HEAD_SIZE && nTotal > RING_HEAD_SIZE + 2 * EXECUTEPLANHEAD_SIZE && nTotal <= nLimit) return TRUE;
    Trace("WriteLog", 1, 30003002,
          TALVOR_TEXT("Redo日志线程检测到内存数据异常，nWritePos：%d，nReadPos：%d，nFileHeaderSize：%d，nFileTotalSize：%d",
                      "The redo log thread detected a memory data exception, nWritePos: %d, nReadPos: %d, "
                      "nFileHeaderSize: %d, nFileTotalSize: %d"),
          (int)pHead->m_nWritePos, (int)pHead->m_nReadPos, nHeader, nTotal);
    if (m_nRingSize <= RING_HEAD_SIZE + 2 * EXECUTEPLANHEAD_SIZE) return FALSE;
    pHead->m_nFileHeaderSize = RING_HEAD_SIZE;
    pHead->m_nFileTotalSize = m_nRingSize;
    return TRUE;
}

void CTalvorRedoLog::StartWriter(REDOWRITERSTATE& st)
{
    memset(&st, 0, sizeof(st));
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    st.m_nItemSize = pHead->m_nItemSize > 0 ? pHead->m_nItemSize : 0;
    st.m_nSwitchLog = REDOSWITCH_CLOSED;
    st.m_nTimestampBegin = m_pMemoryFileHead->m_nEndTimestamp;
    st.m_bNextRedoGroup = (BYTE)((m_bCurrentRedoGroup + 1) % m_nWriteRedoOnlineGroups);
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[m_bCurrentRedoGroup];
    if (m_stResume.m_bResume) {
        // The start found this log open with a record cut at its end: the
        // rest of the record is still in the ring, and it joins its head
        // in the same log.
        if (ReadGroupHead(m_bCurrentRedoGroup, &st.m_stHead) &&
            st.m_stHead.m_nSequenceNO == TalvorLoadShared(&pGroup->m_nSequenceNO)) {
            st.m_nSwitchLog = REDOSWITCH_OPEN;
            st.m_nWriteSize = m_stResume.m_nWriteSize;
            st.m_nItemSize = m_stResume.m_nItemSize;
            st.m_nTimestampEnd = m_stResume.m_nTimestampEnd;
            TalvorStoreShared(&pGroup->m_nWriteSize, st.m_nWriteSize);
            TalvorStoreShared(&pGroup->m_bState, REDOGROUP_WRITING);
            pHead->m_nLogNo = (int)TalvorLoadShared(&pGroup->m_nSequenceNO);
            pHead->m_nLogPos = st.m_nWriteSize;
        }
        m_stResume.m_bResume = FALSE;
    } else if (TalvorLoadShared(&pGroup->m_bState) == REDOGROUP_WRITING &&
               TalvorLoadShared(&pGroup->m_nSequenceNO) != 0) {
        // A writer restarted after a crash: the engine resets the ring, so
        // the log it was writing is sealed behind its last whole record.
        MF_REDOLOGFILEHEAD stHead;
        if (ReadGroupHead(m_bCurrentRedoGroup, &stHead) &&
            stHead.m_nSequenceNO == TalvorLoadShared(&pGroup->m_nSequenceNO))
            SettleOpenLog(m_bCurrentRedoGroup, stHead, FALSE);
        st.m_nItemSize = 0;
        st.m_bNextRedoGroup = (BYTE)((m_bCurrentRedoGroup + 1) % m_nWriteRedoOnlineGroups);
    }
    // The crash path told the engine that the ring can't be trusted: nothing
    // is drained until the engine has reset it (stale records behind the
    // start of the area would otherwise be drained a second time).
    if (pHead->m_bReadException != REDOREAD_OK) st.m_bReadException = TRUE;
    pHead->m_bStatus = REDORING_NEXTFREE;
    pHead->m_nStartTime = RedoNowFileTime();
    Trace0("WriteLog", 3, 30003000, TALVOR_TEXT("Redo日志写入线程已启动！", "Redo log Writer thread started!"));
}

int CTalvorRedoLog::WriteLog(TALVORCRITICALSECTION& stCritSection)
{
    usleep(1000);
    REDOWRITERSTATE st;
    StartWriter(st);
    long long nDelay = (long long)m_pMemoryFileHead->m_nWriteUndoDelayTime * 1000;
    // A delay of 0 would spin; the wait is bounded either way.
    if (nDelay <= 0 || nDelay > 60000) nDelay = 1000;
    for (;;) {
        // A stop drains what is left without waiting between passes.
        UINT nWait = (m_pExit != nullptr && TalvorLoadShared(m_pExit)) ? 1 : (UINT)nDelay;
        if (m_hLogEvent != nullptr) {
            WaitForSingleObject(m_hLogEvent, nWait);
            // Posts banked while the ring was drained are covered by the
            // pass that follows: one wake-up for a burst.
            while (sem_trywait(m_hLogEvent) == 0) {
            }
        } else {
            usleep(nWait * 1000);
        }
        if (WritePass(st, &stCritSection)) break;
    }
    Trace("WriteLog", 3, 30003009,
          TALVOR_TEXT("Redo日志写入统计：唤醒%lld次，共%lld趟，%lld字节，封存%lld个日志组",
                      "Redo log writer totals: wake-ups: %lld, passes: %lld, bytes: %lld, seals: %lld"),
          (long long)m_stStats.m_nWakeups, (long long)m_stStats.m_nPasses, (long long)m_stStats.m_nBytes,
          (long long)m_stStats.m_nSeals);
    Trace0("WriteLog", 3, 30003000, TALVOR_TEXT("Redo日志写入线程已结束！", "Redo log Writer thread ended!"));
    // The archiver finishes what is sealed, then ends; woken, so that a stop
    // does not wait out its idle delay.
    TalvorStoreShared(&m_bArchiveExit, TRUE);
    SetEvent(m_hArchiveEvent);
    return 0;
}

void CTalvorRedoLog::Publish(REDOWRITERSTATE& st)
{
    if (st.m_nSwitchLog != REDOSWITCH_OPEN) return;
    TalvorStoreShared(&m_pRedoLog[m_bCurrentRedoGroup].m_nWriteSize, st.m_nWriteSize);
}

void CTalvorRedoLog::ReportStatus(REDOWRITERSTATE& st)
{
    RingHead()->m_bStatus = GroupIsFree(st.m_bNextRedoGroup) ? REDORING_NEXTFREE : REDORING_NEXTBUSY;
}

// The whole records between the read and the write position that the group
// takes in this pass.
void CTalvorRedoLog::ScanRecords(REDOWRITERSTATE& st, REDOSTRETCH& sr, LPFILE_TRACEMEMFILEHEAD pHead)
{
    const int nHeader = pHead->m_nFileHeaderSize;
    const int nTotal = pHead->m_nFileTotalSize;
    const long long L = sr.m_nBeginPos < sr.m_nEndPos ? sr.m_nEndPos : (long long)sr.m_nEndPos - nHeader + nTotal;
    const long long nMax = m_nWriteRedoMaxSize;
    long long pos = sr.m_nBeginPos;
    long long nSlice = 0;
    sr.m_bHeadFlag = TRUE;
    for (;;) {
        // A head not yet all in the ring is waited for.
        if (L - pos < EXECUTEPLANHEAD_SIZE) {
            if (nSlice != 0) sr.m_nWritePos = (int)WrapPos(pos, nHeader, nTotal);
            break;
        }
        long long nDataSize = (UINT)ReadData((int)pos, pHead);
        int nDataFlag = ReadData((int)(pos + 4), pHead);
        if (nDataFlag != EXECUTEPLAN_DATAFLAG || nDataSize < EXECUTEPLANHEAD_SIZE || nDataSize > 0x7FFFFFFFLL) {
            if (nSlice != 0) {
                sr.m_nWritePos = (int)WrapPos(pos, nHeader, nTotal);
                break;
            }
            if (++st.m_nExceptionCount >= REDO_EXCEPTION_PASSES && !st.m_bReadException) {
                Trace("WriteLog", 1, 30003003,
                      TALVOR_TEXT("Redo日志线程检测到数据异常，nWritePos：%d，nReadPos：%d，nDataFlag：%d",
                                  "The redo log thread detected data exception, nWritePos: %d, nReadPos: %d, nDataFlag: %d"),
                      sr.m_nEndPos, sr.m_nBeginPos, nDataFlag);
                st.m_bReadException = TRUE;
                pHead->m_bReadException = REDOREAD_EXCEPTION;
            }
            break;
        }
        long long nTimestamp = ReadData64((int)(pos + 16), pHead);
        if (nTimestamp != 0) {
            if (st.m_nTimestampBegin == 0 || st.m_nTimestampBegin > nTimestamp) st.m_nTimestampBegin = nTimestamp;
            if (st.m_nPrevEndTimestamp > nTimestamp) st.m_nPrevEndTimestamp = nTimestamp;
        }
        if (nMax < st.m_nWriteSize + nDataSize) {
            if (nSlice != 0) {
                if (st.m_nSwitchLog != REDOSWITCH_CLOSED) st.m_nSwitchLog = REDOSWITCH_SEALDUE;
                sr.m_nWritePos = (int)WrapPos(pos, nHeader, nTotal);
                break;
            }
            if (st.m_nWriteSize >= nMax / 2 && st.m_nSwitchLog != REDOSWITCH_CLOSED) {
                // Sealed without this record: it starts the next log.
                st.m_nSwitchLog = REDOSWITCH_SEALDUE;
                break;
            }
            long long nAvail = L - pos;
            if (nDataSize < nAvail) {
                nSlice = nDataSize;
                sr.m_nWritePos = (int)WrapPos(pos + nDataSize, nHeader, nTotal);
            } else {
                nSlice = nAvail;
                sr.m_nWritePos = sr.m_nEndPos;
                st.m_nItemSize = (int)(nDataSize - nAvail);
            }
            if (nTimestamp > st.m_nTimestampEnd) st.m_nTimestampEnd = nTimestamp;
            if (st.m_nItemSize == 0 && st.m_nSwitchLog != REDOSWITCH_CLOSED) st.m_nSwitchLog = REDOSWITCH_SEALDUE;
            break;
        }
        long long nEnd = pos + nDataSize;
        if (nEnd == L) {
            nSlice += nDataSize;
            if (nTimestamp > st.m_nTimestampEnd) st.m_nTimestampEnd = nTimestamp;
            sr.m_nWritePos = sr.m_nEndPos;
            break;
        }
        if (nEnd > L) {
            if (nSlice != 0) {
                sr.m_nWritePos = (int)WrapPos(pos, nHeader, nTotal);
                break;
            }
            long long nAvail = L - sr.m_nBeginPos;
            // A small part of a record is left until more of it comes.
            if (nAvail <= nTotal / 4) break;
            nSlice = nAvail;
            st.m_nItemSize = (int)(nDataSize - nAvail);
            sr.m_nWritePos = sr.m_nEndPos;
            if (nTimestamp > st.m_nTimestampEnd) st.m_nTimestampEnd = nTimestamp;
            break;
        }
        nSlice += nDataSize;
        if (nTimestamp > st.m_nTimestampEnd) st.m_nTimestampEnd = nTimestamp;
        pos = nEnd;
    }
    sr.m_nSliceSize = nSlice;
}

// The rest of a record that an earlier pass cut: its bytes are not looked at.
void CTalvorRedoLog::ContinueCutRecord(REDOWRITERSTATE& st, REDOSTRETCH& sr, LPFILE_TRACEMEMFILEHEAD pHead)
{
    const int nHeader = pHead->m_nFileHeaderSize;
    const int nTotal = pHead->m_nFileTotalSize;
    long long nAvail = sr.m_nEndPos >= sr.m_nBeginPos ? sr.m_nEndPos - sr.m_nBeginPos
                                                      : (long long)sr.m_nEndPos - nHeader + nTotal - sr.m_nBeginPos;
    sr.m_bHeadFlag = FALSE;
    if (nAvail <= st.m_nItemSize) {
        sr.m_nWritePos = sr.m_nEndPos;
        st.m_nItemSize -= (int)nAvail;
        sr.m_nSliceSize = nAvail;
    } else {
        sr.m_nWritePos = (int)WrapPos((long long)sr.m_nBeginPos + st.m_nItemSize, nHeader, nTotal);
        sr.m_nSliceSize = st.m_nItemSize;
        st.m_nItemSize = 0;
    }
}

// A stop waits for a free group as long as it must, with a line now and
// then; only past the limit does it give up, saying what it leaves.
BOOL CTalvorRedoLog::StopMayWait(REDOWRITERSTATE& st)
{
    const long long nNow = TalvorMonotonicMs();
    if (st.m_nStopSinceMs == 0) st.m_nStopSinceMs = nNow;
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    int nLeft = pHead->m_nWritePos - pHead->m_nReadPos;
    if (nLeft < 0) nLeft += pHead->m_nFileTotalSize - pHead->m_nFileHeaderSize;
    if (nNow - st.m_nStopSinceMs > m_nStopDrainLimitMs) {
        Trace("WriteLog", 1, 30003034,
              TALVOR_TEXT("停止时已等待%lld秒，日志组[%d]仍未归档，Redo环中仍有%d字节未写入日志组，这些字节将丢失！",
                          "The stop waited more than %lld s for log group [%d] to be archived: %d bytes of the redo ring "
                          "never reached a log group and are lost!"),
              m_nStopDrainLimitMs / 1000, (int)m_bCurrentRedoGroup, nLeft);
        return FALSE;
    }
    if (st.m_nStopToldMs == 0 || nNow - st.m_nStopToldMs >= REDO_STOP_PROGRESS_MS) {
        st.m_nStopToldMs = nNow;
        Trace("WriteLog", 3, 30003033,
              TALVOR_TEXT("正在停止：Redo环中还有%d字节，等待日志组[%d]归档(已等待%lld秒)",
                          "Stopping: %d bytes are still in the redo ring, waiting for log group [%d] to be archived "
                          "(%lld s so far)"),
              nLeft, (int)m_bCurrentRedoGroup, (nNow - st.m_nStopSinceMs) / 1000);
    }
    return TRUE;
}

BOOL CTalvorRedoLog::OpenNewGroup(REDOWRITERSTATE& st, long long nPassBegin, LPTALVORCRITICALSECTION lpCritSection)
{
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    pHead->m_bStatus = REDORING_WAITGROUP;
    st.m_nExceptionCount = 0;
    UINT nLogNo = 0;
    for (;;) {
        nLogNo = m_pMemoryFileHead->m_nRedoLogMaxID;
        BYTE bState;
        int nRef;
        {
            CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
            LPTALVORREDOGROUP pGroup = &m_pRedoLog[m_bCurrentRedoGroup];
            bState = TalvorLoadShared(&pGroup->m_bState);
            nRef = pGroup->m_bStandbyRef;
            // A reader's hold on a group reopened in state 0 or 1 stays
            // counted: it is given back through the stale-hold path, and a
            // count reset here would wrap below 0 then.
            if (GroupIsFree(m_bCurrentRedoGroup)) {
                // Number, sizes and state change together under the latch:
                // a reader never sees the new number with the old log's size.
                TalvorStoreShared(&pGroup->m_nSequenceNO, nLogNo);
                TalvorStoreShared(&pGroup->m_nEffectiveSize, 0);
                TalvorStoreShared(&pGroup->m_nWriteSize, 0);
                TalvorStoreShared(&pGroup->m_bState, REDOGROUP_WRITING);
                m_bLogWaitting = FALSE;
                break;
            }
            m_bLogWaitting = TRUE;
        }
        st.m_nExceptionCount++;
        if (st.m_nExceptionCount % 10000 == 100) {
            if (bState == REDOGROUP_ARCHIVED)
                Trace("WriteLog", 3, 30003021,
                      TALVOR_TEXT("日志组[%d]引用计数不为零(%d)，写Redo日志无法继续，系统将挂起",
                                  "Log group [%d] reference count is not zero (%d), write redo log cannot continue, "
                                  "system will hang"),
                      (int)m_bCurrentRedoGroup, nRef);
            else
                Trace("WriteLog", 3, 30003020,
                      TALVOR_TEXT("日志组[%d]尚未完成归档，无法继续写Redo日志，系统将挂起",
                                  "Log group [%d] has not finished archiving, cannot continue to write redo log, system "
                                  "will hang"),
                      (int)m_bCurrentRedoGroup);
        }
        if (m_pExit != nullptr && *m_pExit && !StopMayWait(st)) return FALSE;
        WaitForSingleObject(&m_hArchivedEvent, GROUP_WAIT_MS);
    }
    st.m_nExceptionCount = 0;
    st.m_bNextRedoGroup = (BYTE)((m_bCurrentRedoGroup + 1) % m_nWriteRedoOnlineGroups);
    ReportStatus(st);
    // The ring names the log only with the size that belongs to it.
    pHead->m_nLogPos = REDOLOGFILE_HEAD_SIZE;
    TalvorFlushCPU4Write();
    pHead->m_nLogNo = (int)nLogNo;
    TalvorStoreShared(&m_pMemoryFileHead->m_bCurrentRedoGroup, m_bCurrentRedoGroup);

    MF_REDOLOGFILEHEAD& h = st.m_stHead;
    memset(&h, 0, sizeof(h));
    memcpy(h.m_lpszFileFlag, REDOLOGFILE_FLAG, sizeof(REDOLOGFILE_FLAG));
    h.m_usDatabaseGuid = m_pMemoryFileHead->m_usDatabaseGuid;
    h.m_nSequenceNO = nLogNo;
    h.m_nVersion = REDOLOGFILE_VERSION;
    h.m_bState = REDOGROUP_WRITING;
    h.m_nBeginTimestamp = nPassBegin;
    GetSystemTimeAsFileTime(&h.m_ftCreateTime);

    int fd = Talvor_FileDescriptor(m_pRedoLog[m_bCurrentRedoGroup].m_pOnlineFile);
    if (!WritePiece(fd, (const BYTE*)&h, (int)sizeof(h), 0, &st)) return FALSE;
    // The number is taken only once a file holds it: a kill before this
    // point leaves the number free for the next start, none is skipped.
    TalvorStoreShared(&m_pMemoryFileHead->m_nRedoLogMaxID, nLogNo + 1);
    st.m_nWriteSize = REDOLOGFILE_HEAD_SIZE;
    Trace("WriteLog", 3, 30003006,
          TALVOR_TEXT("写入新的日志组[%d，%d]，开始时间戳：%lld", "Write new log group [%d, %d], start timestamp: %lld"),
          (int)m_bCurrentRedoGroup, (int)nLogNo, nPassBegin);
    pHead->m_nStartTime = RedoNowFileTime();
    // The scan of this pass already took the timestamps of the stretch that
    // opens the log (the end was cleared at the last seal): a log of one
    // stretch ends at its largest record, not at its begin.
    if (st.m_nTimestampEnd < nPassBegin) st.m_nTimestampEnd = nPassBegin;
    st.m_nSwitchLog = REDOSWITCH_OPEN;
    return TRUE;
}

// Makes what was written to a group durable; traced once per failure.
void CTalvorRedoLog::SyncGroup(int nGroup, LONG nCode)
{
    int fd = Talvor_FileDescriptor(m_pRedoLog[nGroup].m_pOnlineFile);
    if (fd < 0 || CTalvorFileIO::Current()->FDataSync(fd) == 0) return;
    int nErr = errno;
    char szPath[MAX_PATH + 32];
    GroupPath(nGroup, szPath, sizeof(szPath));
    Trace("WriteLog", 1, nCode,
          TALVOR_TEXT("同步Redo日志文件失败！文件路径：%s，错误：(%d)%s",
                      "Failed to sync the redo log file! Path: %s, error: (%d)%s"),
          szPath, nErr, strerror(nErr));
}

// The head the seal writes: the one in hand if it is this log's; a
// shutdown reads it back from the file. FALSE (traced) when neither is had.
BOOL CTalvorRedoLog::TakeHeadToSeal(REDOWRITERSTATE& st, int nGroup, BOOL bShutdown)
{
    MF_REDOLOGFILEHEAD& h = st.m_stHead;
    const UINT nLogNo = TalvorLoadShared(&m_pRedoLog[nGroup].m_nSequenceNO);
    const BOOL bMine = h.m_usDatabaseGuid == m_pMemoryFileHead->m_usDatabaseGuid && h.m_nSequenceNO == nLogNo;
    if (!bShutdown && bMine) return TRUE;
    MF_REDOLOGFILEHEAD stRead;
    if (ReadGroupHead(nGroup, &stRead) && stRead.m_usDatabaseGuid == m_pMemoryFileHead->m_usDatabaseGuid &&
        stRead.m_nSequenceNO == nLogNo) {
        h = stRead;
        return TRUE;
    }
    int nErr = errno;
    Trace("WriteLog", 1, 30003037,
          TALVOR_TEXT("读取Redo日志组[%d，%d]的头信息失败，错误：(%d)%s",
                      "Failed to read the head of redo log group [%d, %d], error: (%d)%s"),
          nGroup, (int)nLogNo, nErr, strerror(nErr));
    return bMine;
}

// A stop gives a failing head write a few more tries: the seal is what lets
// the next start take the log as it is.
BOOL CTalvorRedoLog::WriteSealHead(REDOWRITERSTATE& st, int fd, const MF_REDOLOGFILEHEAD& h)
{
    for (int i = 0; i < SEAL_STOP_TRIES; i++) {
        if (WritePiece(fd, (const BYTE*)&h, (int)sizeof(h), 0, &st)) return TRUE;
        st.m_bEnded = FALSE;
        usleep(WRITE_RETRY_US);
    }
    return FALSE;
}

void CTalvorRedoLog::SealGroup(REDOWRITERSTATE& st, BOOL bShutdown, BOOL bAfterData)
{
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    const int nGroup = m_bCurrentRedoGroup;
    LPTALVORREDOGROUP pGroup = &m_pRedoLog[nGroup];
    MF_REDOLOGFILEHEAD& h = st.m_stHead;
    if (!TakeHeadToSeal(st, nGroup, bShutdown)) return;
    h.m_bState = REDOGROUP_SEALED;
    h.m_nEffectiveSize = (UINT)st.m_nWriteSize;
    h.m_nEndTimestamp = st.m_nTimestampEnd;
    int fd = Talvor_FileDescriptor(pGroup->m_pOnlineFile);
    // With "forceflushlog" 1 the log's bytes are on disk before a head says
    // they count, and the seal is on disk before the archiver may copy and
    // free the group. With 0 both stay in the page cache (a group's sync
    // costs about half the writer's throughput): after a power loss the
    // start checks every sealed log against its records.
    const BOOL bDurable = m_nForceFlushLog != 0;
    if (bDurable) SyncGroup(nGroup, 30003035);
    if (!WriteSealHead(st, fd, h)) {
        // Not sealed: the log stays open, and the next start seals it where
        // its records end. Nothing may call it sealed meanwhile.
        Trace("WriteLog", 1, 30003038,
              TALVOR_TEXT("Redo日志组[%d，%d]封存失败，保持打开，下次启动时封存",
                          "The redo log group [%d, %d] could not be sealed: it stays open and the next start seals it"),
              nGroup, (int)h.m_nSequenceNO);
        st.m_bEnded = TRUE;
        return;
    }
    if (bDurable) SyncGroup(nGroup, 30003035);
    if (st.m_bFlushFlag || TalvorLoadShared(&pHead->m_bFlushFlag) == REDOFLUSH_PUBLISH) {
        st.m_bFlushFlag = FALSE;
        ClearFlushFlag(pHead, REDOFLUSH_PUBLISH);
    }
    TalvorStoreShared(&pGroup->m_nEffectiveSize, st.m_nWriteSize);
    TalvorStoreShared(&pGroup->m_nWriteSize, st.m_nWriteSize);
    int nSec = (int)((RedoNowFileTime() - pHead->m_nStartTime) / 10000000LL);
    if (!bShutdown) {
        if (pHead->m_nWiteLogMinDuration == 0 || pHead->m_nWiteLogMinDuration > nSec) pHead->m_nWiteLogMinDuration = nSec;
        if (pHead->m_nWiteLogMaxDuration < nSec) pHead->m_nWiteLogMaxDuration = nSec;
        TalvorStoreShared(&pGroup->m_nWriteTime, nSec);
    } else {
        TalvorStoreShared(&pGroup->m_nWriteTime, 0);
    }
    TalvorFlushCPU4Write();
    TalvorStoreShared(&pGroup->m_bState, REDOGROUP_SEALED);
    if (!bShutdown)
        Trace("WriteLog", 3, 30003007,
              TALVOR_TEXT("Redo日志组[%d，%d]已满，用时：%d秒，大小：%d，开始时间戳：%lld，结束时间戳：%lld",
                          "The redo log group [%d, %d] is full, time: %d seconds, size: %d, start timestamp: %lld, end "
                          "timestamp: %lld"),
              nGroup, (int)h.m_nSequenceNO, nSec, st.m_nWriteSize, h.m_nBeginTimestamp, h.m_nEndTimestamp);
    else
        Trace("WriteLog", 3, bAfterData ? 30003008 : 30003001,
              TALVOR_TEXT("Redo日志组[%d，%d]已完成封存，大小：%d，开始时间戳：%lld，结束时间戳：%lld",
                          "Redo log group [%d, %d] has completed the sealing, size: %d, start timestamp: %lld, end "
                          "timestamp: %lld"),
              nGroup, (int)h.m_nSequenceNO, st.m_nWriteSize, h.m_nBeginTimestamp, h.m_nEndTimestamp);
    memset(&h, 0, sizeof(h));
    // A shutdown seal leaves the current group where it is: the next start
    // finds the seal and moves on from it.
    if (!bShutdown) MoveToNextGroup();
    SetEvent(m_hArchiveEvent);
    st.m_nWriteSize = REDOLOGFILE_HEAD_SIZE;
    st.m_nSwitchLog = REDOSWITCH_CLOSED;
    st.m_nTimestampEnd = 0;
    m_stStats.m_nSeals++;
}

void CTalvorRedoLog::IdlePass(REDOWRITERSTATE& st)
{
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    BYTE bFlush = TalvorLoadShared(&pHead->m_bFlushFlag);
    if (bFlush == REDOFLUSH_SEAL && st.m_nItemSize == 0) {
        ClearFlushFlag(pHead, REDOFLUSH_SEAL);
        if (st.m_nSwitchLog != REDOSWITCH_CLOSED) SealGroup(st, FALSE, FALSE);
    } else if (bFlush == REDOFLUSH_PUBLISH) {
        Publish(st);
        ClearFlushFlag(pHead, REDOFLUSH_PUBLISH);
    } else if (st.m_nItemSize == 0 && st.m_nSwitchLog == REDOSWITCH_OPEN &&
               TalvorLoadShared(&m_pRedoLog[m_bCurrentRedoGroup].m_nWriteSize) < st.m_nWriteSize) {
        if (++st.m_nIdleCount >= IDLE_PUBLISH_PASSES) Publish(st);
    }
    ReportStatus(st);
}

// A stop with a cut record whose rest never comes: the group is left
// unsealed (the next start seals it behind its last whole record).
BOOL CTalvorRedoLog::StopWithCutRecord(REDOWRITERSTATE& st)
{
    if (++st.m_nStopPasses <= STOP_CUT_PASSES) return FALSE;
    Trace("WriteLog", 1, 30003031,
          TALVOR_TEXT("停止时仍有%d字节的记录未写入，Redo日志写入线程不再等待",
                      "%d bytes of a cut record never came before the stop: the redo log writer stops waiting"),
          st.m_nItemSize);
    st.m_bEnded = TRUE;
    return TRUE;
}

BOOL CTalvorRedoLog::WritePass(REDOWRITERSTATE& st, LPTALVORCRITICALSECTION lpCritSection)
{
    LPFILE_TRACEMEMFILEHEAD pHead = RingHead();
    const BOOL bStop = m_pExit != nullptr && TalvorLoadShared(m_pExit);
    m_stStats.m_nPasses++;
    if (st.m_bEnded) return TRUE;
    if (st.m_bReadException) {
        if (pHead->m_bReadException == REDOREAD_OK) {
            pHead->m_nReadPos = pHead->m_nFileHeaderSize;
            st.m_bReadException = FALSE;
            st.m_nExceptionCount = 0;
        }
        if (TalvorLoadShared(&pHead->m_bFlushFlag) == REDOFLUSH_PUBLISH) {
            Publish(st);
            ClearFlushFlag(pHead, REDOFLUSH_PUBLISH);
        }
        // A stop is honoured even here: waiting for the engine to reset the
        // ring could last forever.
        if (!bStop) return FALSE;
        if (st.m_nSwitchLog == REDOSWITCH_OPEN) SealGroup(st, TRUE, FALSE);
        st.m_bEnded = TRUE;
        return TRUE;
    }
    if (!CheckRingHead(pHead)) return bStop;
    const int nHeader = pHead->m_nFileHeaderSize;
    const int nTotal = pHead->m_nFileTotalSize;
    int nRead = pHead->m_nReadPos;
    int nWrite = pHead->m_nWritePos;
    if (nRead == nWrite) {
        IdlePass(st);
        if (bStop && st.m_nItemSize == 0) {
            if (st.m_nSwitchLog == REDOSWITCH_OPEN) SealGroup(st, TRUE, FALSE);
            st.m_bEnded = TRUE;
        } else if (bStop) {
            return StopWithCutRecord(st);
        }
        return st.m_bEnded;
    }
    if (nWrite < nHeader || nWrite > nTotal || nRead < nHeader || nRead > nTotal) {
        Trace("WriteLog", 1, 30003002,
              TALVOR_TEXT("Redo日志线程检测到内存数据异常，nWritePos：%d，nReadPos：%d，nFileHeaderSize：%d，nFileTotalSize：%d",
                          "The redo log thread detected a memory data exception, nWritePos: %d, nReadPos: %d, "
                          "nFileHeaderSize: %d, nFileTotalSize: %d"),
              nWrite, nRead, nHeader, nTotal);
        if (nWrite < nHeader || nWrite > nTotal) pHead->m_nWritePos = nHeader;
        if (nRead < nHeader || nRead > nTotal) pHead->m_nReadPos = nHeader;
    }
    REDOSTRETCH sr;
    sr.m_nBeginPos = pHead->m_nReadPos;
    sr.m_nEndPos = pHead->m_nWritePos;
    TalvorFlushCPU4Read();
    // The end of the area stands for its start.
    if (sr.m_nBeginPos < nHeader || sr.m_nBeginPos >= nTotal) sr.m_nBeginPos = nHeader;
    if (sr.m_nEndPos < nHeader || sr.m_nEndPos >= nTotal) sr.m_nEndPos = nHeader;
    sr.m_nWritePos = sr.m_nBeginPos;
    sr.m_nSliceSize = 0;
    sr.m_bHeadFlag = TRUE;
    st.m_nPrevEndTimestamp = m_pMemoryFileHead->m_nEndTimestamp;
    if (sr.m_nBeginPos != sr.m_nEndPos) {
        if (st.m_nItemSize != 0)
            ContinueCutRecord(st, sr, pHead);
        else
            ScanRecords(st, sr, pHead);
    }
    long long nPassBegin = st.m_nTimestampBegin;
    if (st.m_stHead.m_nBeginTimestamp > nPassBegin) st.m_stHead.m_nBeginTimestamp = nPassBegin;
    st.m_nTimestampBegin = st.m_nPrevEndTimestamp;
    st.m_bFlushFlag = FALSE;
    if (sr.m_nSliceSize != 0) {
        if (st.m_nSwitchLog == REDOSWITCH_CLOSED) {
            if (!OpenNewGroup(st, nPassBegin, lpCritSection)) {
                st.m_bEnded = TRUE;
                return TRUE;
            }
        } else if (TalvorLoadShared(&pHead->m_bFlushFlag) == REDOFLUSH_SEAL && st.m_nItemSize == 0) {
            ClearFlushFlag(pHead, REDOFLUSH_SEAL);
            st.m_nSwitchLog = REDOSWITCH_SEALDUE;
        }
        // The drain starts where the snapshot did.
        if (pHead->m_nReadPos != sr.m_nBeginPos) pHead->m_nReadPos = sr.m_nBeginPos;
        m_pWriterState = &st;
        WriteLogFile(lpCritSection, pHead, m_bCurrentRedoGroup, m_pLogFileAddr, sr.m_nWritePos, st.m_nItemSize,
                     sr.m_bHeadFlag, st.m_nWriteSize, st.m_bFlushFlag);
        m_pWriterState = nullptr;
        if (st.m_bEnded) return TRUE;
        st.m_nExceptionCount = 0;
        m_stStats.m_nWakeups++;
    } else if (TalvorLoadShared(&pHead->m_bFlushFlag) == REDOFLUSH_SEAL && st.m_nItemSize == 0) {
        ClearFlushFlag(pHead, REDOFLUSH_SEAL);
        if (st.m_nSwitchLog == REDOSWITCH_OPEN) {
            st.m_bFlushFlag = TRUE;
            st.m_nSwitchLog = REDOSWITCH_SEALDUE;
        }
    }
    if (st.m_nSwitchLog == REDOSWITCH_SEALDUE) {
        SealGroup(st, FALSE, TRUE);
    } else if (TalvorLoadShared(&pHead->m_bFlushFlag) == REDOFLUSH_PUBLISH) {
        Publish(st);
        ClearFlushFlag(pHead, REDOFLUSH_PUBLISH);
    } else if (pHead->m_bWriting == 0 && st.m_bFlushFlag) {
        Publish(st);
    }
    if (bStop && st.m_nItemSize == 0) {
        // Whatever the engine wrote before it stopped is drained first,
        // within a bound of passes.
        TalvorFlushCPU4Read();
        if (pHead->m_nReadPos != pHead->m_nWritePos) {
            if (st.m_nStopSinceMs == 0) st.m_nStopSinceMs = TalvorMonotonicMs();
            if (TalvorMonotonicMs() - st.m_nStopSinceMs <= m_nStopDrainLimitMs) return FALSE;
            Trace("WriteLog", 1, 30003036,
                  TALVOR_TEXT("停止时Redo环在%lld秒内未能写空，剩余字节将丢失！",
                              "The redo ring was not drained within %lld s of the stop: what is left is lost!"),
                  m_nStopDrainLimitMs / 1000);
        }
        if (st.m_nSwitchLog == REDOSWITCH_OPEN) SealGroup(st, TRUE, TRUE);
        st.m_bEnded = TRUE;
        return TRUE;
    }
    if (bStop) return StopWithCutRecord(st);
    st.m_nIdleCount = 0;
    return FALSE;
}

// Writes all of a piece at a file offset. A failing disk is retried (the
// ring keeps the bytes meanwhile) until it works or a stop gives up.
BOOL CTalvorRedoLog::WritePiece(int fd, const BYTE* p, int nLen, int nOffset, REDOWRITERSTATE* pState)
{
    for (;;) {
        if (TalvorWriteFull(fd, p, (size_t)nLen, (off_t)nOffset)) {
            if (pState != nullptr) pState->m_bWriteFailTold = FALSE;
            return TRUE;
        }
        int nErr = errno;
        if (pState == nullptr || !pState->m_bWriteFailTold) {
            char szPath[MAX_PATH + 32];
            GroupPath(m_bCurrentRedoGroup, szPath, sizeof(szPath));
            Trace("WriteLog", 1, 30003030,
                  TALVOR_TEXT("写入Redo日志文件失败，将重试！文件路径：%s，位置：%d，大小：%d，错误：(%d)%s",
                              "Failed to write the redo log file, it is retried! Path: %s, position: %d, size: %d, "
                              "error: (%d)%s"),
                  szPath, nOffset, nLen, nErr, strerror(nErr));
            if (pState != nullptr) pState->m_bWriteFailTold = TRUE;
        }
        if (m_pExit != nullptr && *m_pExit) {
            if (pState != nullptr) pState->m_bEnded = TRUE;
            return FALSE;
        }
        usleep(WRITE_RETRY_US);
    }
}

void CTalvorRedoLog::FeedStandbys(LPTALVORCRITICALSECTION lpCritSection, LPFILE_TRACEMEMFILEHEAD pHead, int nBegin,
                                  int nFirst, int nSecond, BOOL bWhole, int nWriteSize)
{
    const int nSize = nFirst + nSecond;
    const UINT nLogNo = TalvorLoadShared(&m_pRedoLog[m_bCurrentRedoGroup].m_nSequenceNO);
    const BYTE* lpRing = (const BYTE*)pHead;
    // A standby thread frees its feed once it has unlinked it under m_crit:
    // the walk holds m_crit, so it never meets a feed that is gone. Only
    // copies into memory are done under it.
    CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
    for (LPTALVORREDOLOGSTANDBYCACHE pFeed = m_pStandbyCache; pFeed != nullptr; pFeed = pFeed->m_pNext) {
        EnterCriticalTalvor(&pFeed->m_stCrit, GetCurrentThreadId());
        if (!bWhole) {
            pFeed->m_bNewDataFlag = TRUE;
        } else if (pFeed->m_nLogDataSize == 0) {
            if (nSize <= pFeed->m_nBufferSize) {
                memcpy(pFeed->m_lpBuffer, lpRing + nBegin, (size_t)nFirst);
                if (nSecond > 0) memcpy(pFeed->m_lpBuffer + nFirst, lpRing + pHead->m_nFileHeaderSize, (size_t)nSecond);
                pFeed->m_nRedoLogNo = nLogNo;
                pFeed->m_nLogDataPos = nWriteSize;
                TalvorFlushCPU4Write();
                pFeed->m_nLogDataSize = nSize;
            } else {
                pFeed->m_bNewDataFlag = TRUE;
            }
        } else if (nSize <= pFeed->m_nBufferSize - pFeed->m_nLogDataSize && pFeed->m_nRedoLogNo == nLogNo &&
                   nWriteSize == pFeed->m_nLogDataPos + pFeed->m_nLogDataSize) {
            LPBYTE lpDst = pFeed->m_lpBuffer + pFeed->m_nLogDataSize;
            memcpy(lpDst, lpRing + nBegin, (size_t)nFirst);
            if (nSecond > 0) memcpy(lpDst + nFirst, lpRing + pHead->m_nFileHeaderSize, (size_t)nSecond);
            TalvorFlushCPU4Write();
            pFeed->m_nLogDataSize += nSize;
        } else {
            pFeed->m_bNewDataFlag = TRUE;
        }
        LeaveCriticalTalvor(&pFeed->m_stCrit);
        SetEvent(pFeed->m_hEvent);
    }
}

void CTalvorRedoLog::WriteLogFile(LPTALVORCRITICALSECTION lpCritSection, LPFILE_TRACEMEMFILEHEAD pLogFileHead, BYTE bCurrentRedoGroup,
                                  char* pLogFileAddr, int nWritePos, int nItemSize, BOOL bHeadFlag, int& nWriteSize,
                                  BOOL& bFlushFlag)
{
    LPFILE_TRACEMEMFILEHEAD pHead = pLogFileHead;
    const int nHeader = pHead->m_nFileHeaderSize;
    const int nTotal = pHead->m_nFileTotalSize;
    int nBegin = pHead->m_nReadPos;
    if (nBegin < nHeader || nBegin >= nTotal) nBegin = nHeader;
    if (nWritePos < nHeader || nWritePos > nTotal || nWritePos == nBegin) return;
    int nFirst, nSecond;
    if (nWritePos > nBegin) {
        nFirst = nWritePos - nBegin;
        nSecond = 0;
    } else {
        nFirst = nTotal - nBegin;
        nSecond = nWritePos - nHeader;
    }
    FeedStandbys(lpCritSection, pHead, nBegin, nFirst, nSecond, bHeadFlag && nItemSize == 0, nWriteSize);

    const int fd = Talvor_FileDescriptor(m_pRedoLog[bCurrentRedoGroup].m_pOnlineFile);
    const BYTE* lpRing = (const BYTE*)pLogFileAddr;
    struct Piece {
        int m_nStart, m_nLen, m_nAfter;
    } arPieces[2] = {{nBegin, nFirst, nSecond > 0 ? nHeader : nWritePos}, {nHeader, nSecond, nWritePos}};
    for (const Piece& piece : arPieces) {
        if (piece.m_nLen <= 0) continue;
        long long nLeft = piece.m_nLen;
        int nPos = piece.m_nStart;
        while (nLeft >= STEP_WRITE_THRESHOLD) {
            if (!WritePiece(fd, lpRing + nPos, (int)STEP_WRITE_SIZE, nWriteSize, m_pWriterState)) return;
            nWriteSize += (int)STEP_WRITE_SIZE;
            nPos += (int)STEP_WRITE_SIZE;
            nLeft -= STEP_WRITE_SIZE;
            // A step may stop inside a record: a start after a kill here
            // takes the rest of that record from the file's own records.
            ConsumeRing(pHead, nWriteSize, -1, nPos);
        }
        if (!WritePiece(fd, lpRing + nPos, (int)nLeft, nWriteSize, m_pWriterState)) return;
        nWriteSize += (int)nLeft;
        const BOOL bLast = piece.m_nAfter == nWritePos;
        ConsumeRing(pHead, nWriteSize, bLast ? nItemSize : -1, piece.m_nAfter);
    }
    m_stStats.m_nBytes += (long long)nFirst + nSecond;
    SyncBurst(fd);
    if (nItemSize == 0) {
        TalvorFlushCPU4Read();
        int nNow = pHead->m_nWritePos;
        BOOL bGoOn;
        if (nSecond > 0)
            bGoOn = nNow >= nWritePos && nNow - nWritePos < nTotal / 4;
        else if (nNow < nWritePos)
            bGoOn = (long long)nNow - nHeader + nTotal - nWritePos < nTotal / 4;
        else
            bGoOn = nNow - nWritePos < nTotal / 16;
        if (bGoOn) {
            long long nSec = (RedoNowFileTime() - pHead->m_nStartTime) / 10000000LL;
            if (nSec > 3 && nWriteSize / nSec <= 9) bFlushFlag = TRUE;
        }
    }
}

// The fields a start after a kill reads are stored in this order: the read
// position to come (in m_nItemSize, see RedoConsumePending), the file's size
// (its bytes are written), the read position that gives the room back to
// the engine, then what is missing of a cut record (-1: not known here, the
// file's records tell). A kill between the size and the read position
// leaves the piece both in the file and in the ring; the start finds it by
// the position announced first (SettlePendingConsume) and drains it once.
void CTalvorRedoLog::ConsumeRing(LPFILE_TRACEMEMFILEHEAD pHead, int nWriteSize, int nItemSize, int nReadPos)
{
    // Release stores: each is seen only after everything before it.
    TalvorStoreShared(&pHead->m_nItemSize, RedoConsumePending(nReadPos));
    TestPoint(REDOPOINT_PENDING);
    TalvorStoreShared(&pHead->m_nLogPos, nWriteSize);
    TestPoint(REDOPOINT_LOGPOS);
    TalvorStoreShared(&pHead->m_nReadPos, nReadPos);
    TestPoint(REDOPOINT_READPOS);
    TalvorStoreShared(&pHead->m_nItemSize, nItemSize);
    if (m_hLogEmptyEvent != nullptr) SetEvent(m_hLogEmptyEvent);
}

// "forceflushlog" 1: every burst drained into the group ends with an
// fdatasync, so that what the writer published survives a power loss;
// 0: the page cache only (a kill of the daemon or a crash of the engine
// loses nothing, a power loss may lose the bursts not yet written back).
void CTalvorRedoLog::SyncBurst(int fd)
{
    if (m_nForceFlushLog == 0 || fd < 0) return;
    if (CTalvorFileIO::Current()->FDataSync(fd) == 0) return;
    int nErr = errno;
    char szPath[MAX_PATH + 32];
    GroupPath(m_bCurrentRedoGroup, szPath, sizeof(szPath));
    Trace("WriteLog", 1, 30003032,
          TALVOR_TEXT("同步Redo日志文件失败！文件路径：%s，错误：(%d)%s",
                      "Failed to sync the redo log file! Path: %s, error: (%d)%s"),
          szPath, nErr, strerror(nErr));
}
