// TalvorStandbyWork.cpp — the state machine of a standby connection: the
// position exchange, the log sent from files, the live feed, keep-alives.
//
// Every size and position read from a log file or a reply is held to the
// file and the buffer before it is used.
#include "TalvorStandby.h"

#include "CrashContainment.h"
#include "LogManager.h"
#include "RedoLogFormat.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <pthread.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const int HEAD = (int)sizeof(MF_SERVICE_TCP_COMMAND);
const int RECORD_HEAD = EXECUTEPLANHEAD_SIZE;
const int POSITION_TIMEOUT_S = 30;
const int SHIP_TIMEOUT_S = 3;
const UINT FEED_WAIT_MS = 100;
const long long KEEPALIVE_AFTER_US = 60LL * 1000000LL;
// A standby that stays down is told about once in 30 minutes.
const long long DOWN_REPORT_US = 30LL * 60LL * 1000000LL;
const int OPEN_TRIES = 5;
const int TORN_TAIL_RETRIES = 2;
// Time-outs of SHIP_TIMEOUT_S in a row before a reply is given up: a minute.
const int REPLY_WAITS = 20;

// What a shipment from a file came to.
enum { SHIP_DONE = 0, SHIP_PASS_ENDED = 1, SHIP_CONNECTION_LOST = 2, SHIP_STOP = 3 };

long long NowMicros()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (long long)tv.tv_sec * 1000000LL + tv.tv_usec;
}

CTalvorRedoLog* RedoService()
{
    CLogManager* pLog = CLogManager::PeekInstancePtr();
    return pLog != nullptr ? pLog->GetTalvorRedoLog() : nullptr;
}

LPBYTE MapBuffer(size_t nSize)
{
    void* p = mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? nullptr : (LPBYTE)p;
}

BOOL ReadFull(int fd, LPBYTE lpBuf, int nSize, long long nPos)
{
    return TalvorReadFull(fd, lpBuf, (size_t)nSize, (off_t)nPos);
}

// The record at lpAt with nLeft bytes behind it: its size when it is whole
// and sound, 0 when it is not whole yet, -1 when it is no record.
long long RecordAt(const BYTE* lpAt, long long nLeft) { return RedoRecordAt(lpAt, nLeft); }

// A read of the next piece on a thread of its own. Its buffer belongs to
// that thread from StartAhead until JoinAhead.
struct AHEADREAD {
    int m_fd;
    LPBYTE m_lpData;
    long long m_nPos;
    int m_nSize;
    BOOL m_bGood;
    BOOL m_bRunning;
    HTHREADTYPE m_hThread;
};

void* AheadThread(void* lpParam)
{
    AHEADREAD* pAhead = (AHEADREAD*)lpParam;
    pAhead->m_bGood = ReadFull(pAhead->m_fd, pAhead->m_lpData, pAhead->m_nSize, pAhead->m_nPos);
    return nullptr;
}

void StartAhead(AHEADREAD& stAhead, int fd, LPBYTE lpData, long long nPos, int nSize)
{
    stAhead = AHEADREAD{fd, lpData, nPos, nSize, FALSE, FALSE, 0};
    stAhead.m_bRunning = CreateJoinableThread(&stAhead.m_hThread, AheadThread, &stAhead) == 0;
}

// Waits for the read (if one runs). TRUE when it read nSize bytes at nPos.
BOOL JoinAhead(AHEADREAD& stAhead)
{
    if (!stAhead.m_bRunning) return FALSE;
    pthread_join(stAhead.m_hThread, nullptr);
    stAhead.m_bRunning = FALSE;
    return stAhead.m_bGood;
}

// Everything of one standby thread's run that outlives a single pass.
struct StandbyRun {
    CTalvorStandby* p;
    LPTALVORCRITICALSECTION lpCrit;
    int fd;
    BYTE bCurLog;
    int nRedoGroup;
    long long nTimestamp;
    long long nErrorTime;
    long long nSendTime;
    long long nReadPos;
    long long nWriteSize;
    LPBYTE lpBuf;
    // The next piece of the file, read while a shipment awaits its reply
    // (null when it could not be mapped: then every piece is read in turn).
    LPBYTE lpAhead;
    AHEADREAD stAhead;
    TALVORREDOLOGSTANDBYCACHE stFeed;
    BOOL bFeedLinked;
    char szPath[MAX_PATH];

    void CloseFile()
    {
        if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
        fd = -1;
        p->m_pTalvorRedoLog->ReleaseRedoLog(nRedoGroup, lpCrit);
    }

    void ResetPosition()
    {
        p->m_nRedoLogNo = 0;
        nReadPos = 0;
        nTimestamp = 0;
    }

    // A head and payload out in one send; FALSE closes the connection.
    BOOL Ship(BYTE bToken, UINT nLogNo, long long nEndPos, LPBYTE lpFrame, int nPayload)
    {
        MF_SERVICE_TCP_COMMAND stHead;
        memset(&stHead, 0, sizeof(stHead));
        stHead.m_bVersion = NODEMSG_VERSION;
        stHead.m_bType = NODEMSG_LOG;
        stHead.m_bToken = bToken;
        stHead.m_lDigitalData = (int)p->m_pMemoryFileHead->m_usDatabaseGuid;
        stHead.m_lDataLength = (UINT)nPayload;
        MF_STANDBY_TCP_COMMAND stParam;
        memset(&stParam, 0, sizeof(stParam));
        stParam.m_nLogNo = nLogNo;
        stParam.m_nReadPos = (UINT)nEndPos;
        memcpy(stHead.m_lpszParam, &stParam, sizeof(stParam));
        memcpy(lpFrame, &stHead, sizeof(stHead));
        nSendTime = NowMicros();
        long long nTotal = (long long)HEAD + nPayload, nSent = 0;
        while (nSent < nTotal) {
            ssize_t n = send(p->m_skSocket, lpFrame + nSent, (size_t)(nTotal - nSent), MSG_NOSIGNAL);
            if (n > 0) {
                nSent += n;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            return FALSE;
        }
        return TRUE;
    }

    // How far the writer has published the log being sent: the size of its
    // online group, or past any position when no group holds it any more.
    long long PublishedEnd()
    {
        CTalvorRedoLog* pRedo = p->m_pTalvorRedoLog;
        for (int i = 0; i < pRedo->m_nWriteRedoOnlineGroups; i++) {
            LPTALVORREDOGROUP pGroup = pRedo->GetGroup(i);
            if (pGroup != nullptr && TalvorLoadShared(&pGroup->m_nSequenceNO) == p->m_nRedoLogNo)
                return TalvorLoadShared(&pGroup->m_nWriteSize);
        }
        return 0x7FFFFFFFFFFFFFFFLL;
    }

    int PositionExchange();
    int OpenCurrentLogFile();
    int SendFromFile(BOOL bWrite);
    int SendFromFeed();
    BOOL KeepAlive();
};

// Asks the standby where it stands. 0 with m_nRedoLogNo, nReadPos and
// nTimestamp set; non-zero when it did not say.
int StandbyRun::PositionExchange()
{
    for (int nTry = 0; nTry < 2; nTry++) {
        BYTE bToken = p->CreateRandomFactor();
        MF_SERVICE_TCP_COMMAND stAsk;
        memset(&stAsk, 0, sizeof(stAsk));
        stAsk.m_bVersion = NODEMSG_VERSION;
        stAsk.m_bType = NODEMSG_POSITION;
        stAsk.m_bToken = bToken;
        stAsk.m_lDigitalData = (int)p->m_pMemoryFileHead->m_usDatabaseGuid;
        if (p->m_skSocket >= 0 && send(p->m_skSocket, &stAsk, sizeof(stAsk), MSG_NOSIGNAL) == (ssize_t)sizeof(stAsk)) {
            MF_SERVICE_TCP_COMMAND stReply;
            int nRet = p->RecvTcpCmd(stReply, bToken, 0, POSITION_TIMEOUT_S);
            // A connection that is gone, or whose stream can no longer be
            // trusted, is not asked again.
            if (nRet == TCPCMD_GONE || nRet == TCPCMD_ERROR) p->CloseSocket();
            if (nRet != TCPCMD_OK) {
                Trace("OpenCurrentLogFile", 4, 70005003,
                      TALVOR_TEXT("获取备用节点[%d.%d.%d.%d:%u]的恢复信息失败(%d)!", "Failed to get recovery information of standby node [%d.%d.%d.%d:%u] (%d)!"),
                      STANDBY_ADDR(p), nRet);
                return nRet;
            }
            if (stReply.m_bType == NODEMSG_FAILURE && stReply.m_lDigitalData == NODEMSG_LEAVING) {
                TalvorStoreShared(&p->m_bExit, TRUE);
                Trace("OpenCurrentLogFile", 4, 70005043,
                      TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]退出!", "The standby node [%d.%d.%d.%d:%u] exit!"), STANDBY_ADDR(p));
                return NODEMSG_LEAVING;
            }
            if (stReply.m_bType != NODEMSG_SUCCESS) {
                Trace("OpenCurrentLogFile", 4, 70006007,
                      TALVOR_TEXT("获取到备用节点[%d.%d.%d.%d:%u]的恢复信息,返回失败(%d)!",
                                  "Got the recovery information for the standby node [%d.%d.%d.%d:%u], and return failed (%d)!"),
                      STANDBY_ADDR(p), stReply.m_lDigitalData);
                return stReply.m_lDigitalData != 0 ? stReply.m_lDigitalData : -1;
            }
            MF_STANDBY_TCP_COMMAND stAt;
            memcpy(&stAt, stReply.m_lpszParam, sizeof(stAt));
            nTimestamp = stAt.m_nTimestamp;
            p->m_nRedoLogNo = stAt.m_nLogNo;
            nReadPos = stAt.m_nReadPos;
            return 0;
        }
        // One new connection, then give up for this pass.
        p->CloseSocket();
        if (nTry == 0) p->m_skSocket = p->ConnectNode(p->m_ulIP, p->m_usPort, STANDBY_CONNECT_TIMEOUT_S);
    }
    Trace("OpenCurrentLogFile", 4, 70005002,
          TALVOR_TEXT("已连接到备用节点[%d.%d.%d.%d:%u],发送数据失败(%d,%d)!",
                      "Connected to the standby node [%d.%d.%d.%d:%u], and then failed to send the data(%d, %d)!"),
          STANDBY_ADDR(p), errno, 0);
    return -1;
}

// Opens the log to send next, with nReadPos and nWriteSize set; -1 to try
// again later.
int StandbyRun::OpenCurrentLogFile()
{
    BOOL bExchanged = FALSE;
    if (p->m_skSocket < 0) {
        p->m_pTalvorRedoLog->ReleaseRedoLog(nRedoGroup, lpCrit);
        p->m_skSocket = p->ConnectNode(p->m_ulIP, p->m_usPort, STANDBY_CONNECT_TIMEOUT_S);
        if (p->m_skSocket < 0) {
            p->m_nRedoLogNo = 0;
            long long nNow = NowMicros();
            if (nErrorTime == 0 || nNow < nErrorTime || nNow - nErrorTime > DOWN_REPORT_US) {
                Trace("OpenCurrentLogFile", 4, nErrorTime == 0 || nNow < nErrorTime ? 70005041 : 70005042,
                      TALVOR_TEXT("连接备用节点[%d.%d.%d.%d:%u]失败(%d)!", "Failed to connect to standby node [%d.%d.%d.%d:%u] (%d)!"),
                      STANDBY_ADDR(p), errno);
                nErrorTime = nNow;
            }
            return -1;
        }
        p->m_nRedoLogNo = 0;
        nErrorTime = 0;
    } else if (p->m_nRedoLogNo != 0) {
        nErrorTime = 0;
    }
    if (p->m_nRedoLogNo == 0) {
        if (PositionExchange() != 0) return -1;
        bExchanged = TRUE;
    }
    int nSize = p->m_pTalvorRedoLog->GetWritePos(p->m_nRedoLogNo, nRedoGroup, bCurLog, szPath, lpCrit);
    if (nSize == -2) {
        Trace("OpenCurrentLogFile", 4, bExchanged ? 70005030 : 70005031,
              TALVOR_TEXT("获取备用节点[%d.%d.%d.%d:%u]的恢复信息失败(%d),没有归档文件且Redo文件已丢失!",
                          "Fail to get the recovery information for the standby node [%d.%d.%d.%d:%u](%d), there was no archive file and redo file was lost!"),
              STANDBY_ADDR(p), (int)p->m_nRedoLogNo);
        TalvorStoreShared(&p->m_bExit, TRUE);
        return -1;
    }
    if (nSize == -1 || szPath[0] == '\0') return -1;
    for (int i = 0; i < OPEN_TRIES && fd < 0; i++) {
        fd = CTalvorFileIO::Current()->Open(szPath, O_RDONLY | O_CLOEXEC, 0);
        if (fd < 0) usleep(10000);
    }
    if (fd < 0) {
        Trace("OpenCurrentLogFile", 4, bExchanged ? 70005005 : 70005020,
              TALVOR_TEXT("打开日志文件[%s]失败(%d)", "Failed to open log file [%s] (%d)"), szPath, errno);
        p->m_pTalvorRedoLog->ReleaseRedoLog(nRedoGroup, lpCrit);
        return -1;
    }
    if (nRedoGroup < 0) {
        struct stat st;
        nWriteSize = CTalvorFileIO::Current()->FStat(fd, &st) == 0 ? (long long)st.st_size : 0;
    } else {
        EVENTTYPE hIgnored;
        nWriteSize = nSize >= 1 ? nSize : p->m_pTalvorRedoLog->GetWriteSize(nRedoGroup, TRUE, hIgnored);
        // Under a steady load the writer publishes the size of the current
        // log only when asked (or at the seal): a standby whose feed has
        // lost step would find nothing new below the published size until
        // the log is full, minutes behind. It asks, as any reader may.
        if (bCurLog && nReadPos != 0 && nWriteSize - nReadPos < RECORD_HEAD + 1) {
            int nFresh = p->m_pTalvorRedoLog->GetWriteSize(nRedoGroup, TRUE, hIgnored);
            if (nFresh > nWriteSize) nWriteSize = nFresh;
        }
    }
    if (nReadPos != 0) {
        if (nWriteSize - nReadPos < RECORD_HEAD + 1) return fd;
        BASEEXECUTEPLANHEAD stRecord;
        if (ReadFull(fd, (LPBYTE)&stRecord, RECORD_HEAD, nReadPos) && stRecord.m_nDataFlag == EXECUTEPLAN_DATAFLAG)
            return fd;
        Trace("OpenCurrentLogFile", 4, bExchanged ? 70005011 : 70005026,
              TALVOR_TEXT("执行计划标识[%d]不正确", "Incorrect execution plan id[%d]"), (int)stRecord.m_nDataFlag);
        CloseFile();
        if (!bExchanged) {
            // The rest of that log is given up.
            nReadPos = REDOLOGFILE_HEAD_SIZE;
            p->m_nRedoLogNo++;
        }
        return -1;
    }
    MF_REDOLOGFILEHEAD stHead;
    if (!ReadFull(fd, (LPBYTE)&stHead, REDOLOGFILE_HEAD_SIZE, 0) ||
        memcmp(stHead.m_lpszFileFlag, REDOLOGFILE_FLAG, sizeof(REDOLOGFILE_FLAG)) != 0 || stHead.m_bState == 0 ||
        stHead.m_usDatabaseGuid != p->m_pMemoryFileHead->m_usDatabaseGuid || stHead.m_nVersion != REDOLOGFILE_VERSION) {
        Trace("OpenCurrentLogFile", 4, bExchanged ? 70005006 : 70005021,
              TALVOR_TEXT("校验(%s)日志文件[%s]头信息失败", "Failed to verify(%s) Log file [%s] header"), "head", szPath);
        CloseFile();
        return -1;
    }
    nReadPos = REDOLOGFILE_HEAD_SIZE;
    if (nWriteSize < REDOLOGFILE_HEAD_SIZE + 1) return fd;
    // A position of 0 with a timestamp: the first record past it.
    while (nReadPos + RECORD_HEAD <= nWriteSize) {
        BASEEXECUTEPLANHEAD stRecord;
        if (!ReadFull(fd, (LPBYTE)&stRecord, RECORD_HEAD, nReadPos) || stRecord.m_nDataFlag != EXECUTEPLAN_DATAFLAG ||
            stRecord.m_nTotalDataSize < (UINT)RECORD_HEAD) {
            Trace("OpenCurrentLogFile", 4, bExchanged ? 70005010 : 70005025,
                  TALVOR_TEXT("执行计划标识[%d]不正确", "Incorrect execution plan id[%d]"), (int)stRecord.m_nDataFlag);
            CloseFile();
            return -1;
        }
        if (stRecord.m_nTimestamp > nTimestamp) return fd;
        nReadPos += stRecord.m_nTotalDataSize;
    }
    if (nReadPos > nWriteSize) nReadPos = nWriteSize;
    return fd;
}

// The log from the open file, from nReadPos up to nWriteSize, shipment by
// shipment, each acknowledged before the next.
int StandbyRun::SendFromFile(BOOL bWrite)
{
    nErrorTime = 0;
    int nCount = 0;
    LPBYTE lpFrame = lpBuf;
    long long nCapacity = STANDBY_SEND_CAPACITY;
    LPBYTE lpLarge = nullptr;
    int nResult = SHIP_DONE;
    BOOL bAheadGood = FALSE;
    for (;;) {
        long long nRemain = nWriteSize - nReadPos;
        if (nRemain < RECORD_HEAD) break;
        long long nRead = nRemain < nCapacity ? nRemain : nCapacity;
        BOOL bHave = bAheadGood && stAhead.m_nPos == nReadPos && stAhead.m_nSize == (int)nRead;
        bAheadGood = FALSE;
        if (!bHave && !ReadFull(fd, lpFrame + HEAD, (int)nRead, nReadPos)) {
            nResult = SHIP_PASS_ENDED;
            break;
        }
        long long nPos = 0;
        BOOL bBad = FALSE;
        while (nPos < nRead) {
            long long nRecord = RecordAt(lpFrame + HEAD + nPos, nRead - nPos);
            if (nRecord < 0) bBad = TRUE;
            if (nRecord <= 0) break;
            nPos += nRecord;
        }
        if (nPos == 0) {
            if (bBad) {
                // The writer's bytes may not have reached the file yet.
                usleep(1000);
                if (++nCount > TORN_TAIL_RETRIES) {
                    nResult = SHIP_PASS_ENDED;
                    break;
                }
                continue;
            }
            BASEEXECUTEPLANHEAD stFirst;
            memcpy(&stFirst, lpFrame + HEAD, sizeof(stFirst));
            long long nNeed = stFirst.m_nTotalDataSize;
            if (nNeed <= nCapacity || nReadPos + nNeed > nWriteSize) {
                // Not whole below the published size yet.
                if (nNeed <= nCapacity)
                    Trace("SendStandbyLog", 4, bWrite ? 70006011 : 70006015,
                          TALVOR_TEXT("日志(%d)的执行计划标识不正确[%d,%d]", "Incorrect execution plan id for log (%d) [%d, %d]"),
                          (int)p->m_nRedoLogNo, (int)nReadPos, (int)nNeed);
                nResult = nNeed <= nCapacity ? SHIP_PASS_ENDED : SHIP_DONE;
                break;
            }
            // A record larger than the buffer: a buffer of its own, for
            // this pass only.
            size_t nLarge = (size_t)((nNeed + 1164) & ~0x3FFLL) + HEAD;
            LPBYTE lpGrown = (LPBYTE)malloc(nLarge);
            if (lpGrown == nullptr) {
                Trace("SendStandbyLog", 4, 70006012,
                      TALVOR_TEXT("为日志(%d)分配执行计划内存(%d)失败[%d]", "Failed to allocate execution plan memory (%d) for log (%d) [%d]"),
                      (int)nLarge, (int)p->m_nRedoLogNo, (int)nReadPos);
                nResult = SHIP_PASS_ENDED;
                break;
            }
            free(lpLarge);
            lpLarge = lpGrown;
            lpFrame = lpLarge;
            nCapacity = (long long)nLarge - HEAD;
            continue;
        }
        BYTE bToken = p->CreateRandomFactor();
        if (!Ship(bToken, p->m_nRedoLogNo, nReadPos + nPos, lpFrame, (int)nPos)) {
            p->CloseSocket();
            Trace("SendStandbyLog", 4, 70006014,
                  TALVOR_TEXT("发送备用节点[%d.%d.%d.%d:%u]数据失败(%d)!", "Failed(%d) to send standby node [%d.%d.%d.%d:%u] data!"),
                  errno, STANDBY_ADDR(p));
            nResult = SHIP_CONNECTION_LOST;
            break;
        }
        // The next piece is read while the standby takes this one: from a
        // log not in the page cache the read costs as much as the shipment.
        long long nNextPos = nReadPos + nPos;
        long long nNextRead = nWriteSize - nNextPos < STANDBY_SEND_CAPACITY ? nWriteSize - nNextPos
                                                                            : STANDBY_SEND_CAPACITY;
        if (lpAhead != nullptr && lpFrame == lpBuf && nNextRead >= RECORD_HEAD)
            StartAhead(stAhead, fd, lpAhead + HEAD, nNextPos, (int)nNextRead);
        MF_SERVICE_TCP_COMMAND stReply;
        int nRet = p->RecvTcpCmd(stReply, bToken, 0, SHIP_TIMEOUT_S);
        for (int nWaits = 1; nRet == TCPCMD_TIMEOUT; nWaits++) {
            // A reply that never comes (the standby lost the request, or
            // answered it with another token) would hold an idle primary's
            // thread for good: past the bound the connection is dropped, and
            // the new exchange resends from the standby's own position.
            if (nWaits >= REPLY_WAITS) {
                p->CloseSocket();
                break;
            }
            // A standby thread must not sit on a group the writer needs.
            if (nRedoGroup >= 0 &&
                (bWrite ? p->m_nRedoLogNo + 2 < p->m_pMemoryFileHead->m_nRedoLogMaxID
                        : p->m_pTalvorRedoLog->GetLogWaitFlag(nRedoGroup))) {
                if (!bWrite)
                    Trace("SendStandbyLog", 4, 70006023,
                          TALVOR_TEXT("接收备用节点[%d.%d.%d.%d:%u]执行失败(%d)!", "Receiving standby node [%d.%d.%d.%d:%u] execution failed (%d)!"),
                          STANDBY_ADDR(p), nRet);
                p->CloseSocket();
                break;
            }
            if (p->StopAsked() || TalvorLoadShared(&p->m_nResetRedoLogNo) == 0) break;
            nRet = p->RecvTcpCmd(stReply, bToken, 0, SHIP_TIMEOUT_S);
        }
        if (JoinAhead(stAhead) && nRet == TCPCMD_OK && stReply.m_bType == NODEMSG_SUCCESS) {
            // The piece read ahead becomes the frame of the next shipment.
            LPBYTE lpSwap = lpBuf;
            lpBuf = lpAhead;
            lpAhead = lpSwap;
            lpFrame = lpBuf;
            bAheadGood = TRUE;
        }
        if (nRet == TCPCMD_TIMEOUT) {
            nResult = p->m_skSocket < 0 ? SHIP_CONNECTION_LOST : SHIP_STOP;
            break;
        }
        if (nRet != TCPCMD_OK) {
            Trace("SendStandbyLog", 4, 70006021,
                  TALVOR_TEXT("接收备用节点[%d.%d.%d.%d:%u]执行失败(%d)!", "Receiving standby node [%d.%d.%d.%d:%u] execution failed (%d)!"),
                  STANDBY_ADDR(p), nRet);
            p->CloseSocket();
            nResult = SHIP_CONNECTION_LOST;
            break;
        }
        if (stReply.m_bType == NODEMSG_SUCCESS) {
            nReadPos += nPos;
            nCount = 0;
            continue;
        }
        if (stReply.m_bType == NODEMSG_FAILURE && stReply.m_lDigitalData == NODEMSG_LEAVING) {
            TalvorStoreShared(&p->m_bExit, TRUE);
            Trace("SendStandbyLog", 4, 70006043,
                  TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]退出!", "The standby node [%d.%d.%d.%d:%u] exit!"), STANDBY_ADDR(p));
            nResult = SHIP_STOP;
            break;
        }
        Trace("SendStandbyLog", 4, 70006022,
              TALVOR_TEXT("接收备用节点[%d.%d.%d.%d:%u]执行结果失败(%d)!", "Receiving standby node [%d.%d.%d.%d:%u] execution result failed (%d)!"),
              STANDBY_ADDR(p), stReply.m_lDigitalData);
        nResult = stReply.m_lDigitalData == 0 ? SHIP_DONE : SHIP_PASS_ENDED;
        break;
    }
    free(lpLarge);
    return nResult;
}

// What the writer's feed holds from nReadPos of the log being sent. 0 when
// it went out or there was nothing; any other value sends the thread to
// the file.
int StandbyRun::SendFromFeed()
{
    if (p->m_skSocket < 0) {
        p->m_nRedoLogNo = 0;
        return 1;
    }
    long long nPos = 0;
    {
        EnterCriticalTalvor(&stFeed.m_stCrit, GetCurrentThreadId());
        if (stFeed.m_nLogDataSize == 0) {
            // An empty feed means "nothing new" only to a standby that holds
            // all the writer has published; one still behind goes on from
            // the files, or an idle writer would leave it behind for ever.
            int nResult = bCurLog && PublishedEnd() <= nReadPos ? 0 : -3;
            if (stFeed.m_bNewDataFlag) {
                stFeed.m_bNewDataFlag = FALSE;
                nResult = -3;
            }
            LeaveCriticalTalvor(&stFeed.m_stCrit);
            return nResult;
        }
        if (stFeed.m_nLogDataPos != nReadPos || stFeed.m_nRedoLogNo != p->m_nRedoLogNo) {
            // A feed that does not start where the standby stands is of no
            // use, and the writer only ever appends to it: emptied, it takes
            // the writer's next stretch, which meets the standby once the
            // files have brought it up to the writer.
            stFeed.m_nLogDataPos = 0;
            stFeed.m_nLogDataSize = 0;
            stFeed.m_bNewDataFlag = FALSE;
            LeaveCriticalTalvor(&stFeed.m_stCrit);
            return -3;
        }
        const long long nHeld = stFeed.m_nLogDataSize;
        BOOL bBad = FALSE;
        while (nPos < nHeld) {
            long long nRecord = RecordAt(stFeed.m_lpBuffer + nPos, nHeld - nPos);
            if (nRecord < 0) bBad = TRUE;
            // One shipment at most: the rest stays in the feed for the next.
            if (nRecord <= 0 || nPos + nRecord > STANDBY_SEND_CAPACITY) break;
            nPos += nRecord;
        }
        if (bBad || nPos == 0) {
            // Not whole, or more than one shipment: the files take over, and
            // the feed starts afresh behind them.
            stFeed.m_nLogDataPos = 0;
            stFeed.m_nLogDataSize = 0;
            stFeed.m_bNewDataFlag = FALSE;
            LeaveCriticalTalvor(&stFeed.m_stCrit);
            if (bBad)
                Trace("SendStandbyLog2", 4, 70008001,
                      TALVOR_TEXT("日志(%d)的执行计划标识不正确[%d,%d]", "Incorrect execution plan id for log (%d) [%d, %d]"),
                      (int)p->m_nRedoLogNo, (int)nReadPos, (int)nHeld);
            return -3;
        }
        memcpy(lpBuf + HEAD, stFeed.m_lpBuffer, (size_t)nPos);
        if (nPos < nHeld) {
            memmove(stFeed.m_lpBuffer, stFeed.m_lpBuffer + nPos, (size_t)(nHeld - nPos));
            stFeed.m_nLogDataPos += (int)nPos;
            stFeed.m_nLogDataSize -= (int)nPos;
        } else {
            stFeed.m_nLogDataPos = 0;
            stFeed.m_nLogDataSize = 0;
        }
        LeaveCriticalTalvor(&stFeed.m_stCrit);
    }
    nErrorTime = 0;
    BYTE bToken = p->CreateRandomFactor();
    if (!Ship(bToken, p->m_nRedoLogNo, nReadPos + nPos, lpBuf, (int)nPos)) {
        Trace("SendStandbyLog2", 4, 70008002,
              TALVOR_TEXT("发送备用节点[%d.%d.%d.%d:%u]数据失败(%d)!", "Failed(%d) to send standby node [%d.%d.%d.%d:%u] data!"), errno,
              STANDBY_ADDR(p));
        p->CloseSocket();
        return 1;
    }
    MF_SERVICE_TCP_COMMAND stReply;
    int nRet = p->RecvTcpCmd(stReply, bToken, 0, SHIP_TIMEOUT_S);
    for (int nWaits = 1; nRet == TCPCMD_TIMEOUT; nWaits++) {
        if (p->StopAsked() || TalvorLoadShared(&p->m_nResetRedoLogNo) == 0) return 0;
        if (nWaits >= REPLY_WAITS) {
            p->CloseSocket();
            return 1;
        }
        nRet = p->RecvTcpCmd(stReply, bToken, 0, SHIP_TIMEOUT_S);
    }
    if (nRet != TCPCMD_OK) {
        Trace("SendStandbyLog2", 4, 70008003,
              TALVOR_TEXT("接收备用节点[%d.%d.%d.%d:%u]执行失败(%d)!", "Receiving standby node [%d.%d.%d.%d:%u] execution failed (%d)!"),
              STANDBY_ADDR(p), nRet);
        p->CloseSocket();
        return 1;
    }
    if (stReply.m_bType == NODEMSG_SUCCESS) {
        nReadPos += nPos;
        return 0;
    }
    if (stReply.m_bType == NODEMSG_FAILURE && stReply.m_lDigitalData == NODEMSG_LEAVING) {
        TalvorStoreShared(&p->m_bExit, TRUE);
        Trace("SendStandbyLog2", 4, 70008043,
              TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]退出!", "The standby node [%d.%d.%d.%d:%u] exit!"), STANDBY_ADDR(p));
        return 1;
    }
    Trace("SendStandbyLog2", 4, 70008004,
          TALVOR_TEXT("接收备用节点[%d.%d.%d.%d:%u]执行结果失败(%d)!", "Receiving standby node [%d.%d.%d.%d:%u] execution result failed (%d)!"),
          STANDBY_ADDR(p), stReply.m_lDigitalData);
    return 1;
}

// A minute without a shipment: a keep-alive, and a new connection if the
// old one is gone. FALSE when the standby said it is leaving.
BOOL StandbyRun::KeepAlive()
{
    if (p->m_skSocket < 0) {
        ResetPosition();
        p->m_skSocket = p->ConnectNode(p->m_ulIP, p->m_usPort, STANDBY_CONNECT_TIMEOUT_S);
        return TRUE;
    }
    MF_SERVICE_TCP_COMMAND stPing;
    memset(&stPing, 0, sizeof(stPing));
    stPing.m_bVersion = NODEMSG_VERSION;
    stPing.m_bType = NODEMSG_KEEPALIVE;
    stPing.m_bToken = p->CreateRandomFactor();
    stPing.m_lDigitalData = (int)p->m_pMemoryFileHead->m_usDatabaseGuid;
    if (send(p->m_skSocket, &stPing, sizeof(stPing), MSG_NOSIGNAL) != (ssize_t)sizeof(stPing)) {
        p->CloseSocket();
        ResetPosition();
        p->m_skSocket = p->ConnectNode(p->m_ulIP, p->m_usPort, STANDBY_CONNECT_TIMEOUT_S);
        return TRUE;
    }
    usleep(1000);
    MF_SERVICE_TCP_COMMAND stReply;
    int nErr = 0;
    int n = p->ReceiveBuffer((char*)&stReply, HEAD, nErr, 0, SHIP_TIMEOUT_S);
    if (n == HEAD && (stReply.m_bVersion != NODEMSG_VERSION || stReply.m_lDataLength != 0)) {
        // Bytes the next head would be read from: the connection goes.
        p->CloseSocket();
        ResetPosition();
        return TRUE;
    }
    if (n == HEAD) {
        if (stReply.m_bType == NODEMSG_FAILURE && stReply.m_lDigitalData == NODEMSG_LEAVING) {
            TalvorStoreShared(&p->m_bExit, TRUE);
            Trace("Work", 4, 70004010, TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]退出!", "The standby node [%d.%d.%d.%d:%u] exit!"),
                  STANDBY_ADDR(p));
            p->CloseSocket();
            return FALSE;
        }
        nSendTime = NowMicros();
        return TRUE;
    }
    if (n == 0 || nErr == ECONNRESET || nErr == EPIPE || nErr == ENOTCONN || nErr == EBADF) {
        p->CloseSocket();
        ResetPosition();
        p->m_skSocket = p->ConnectNode(p->m_ulIP, p->m_usPort, STANDBY_CONNECT_TIMEOUT_S);
    }
    return TRUE;
}

void FreeRun(StandbyRun* pRun)
{
    // A fault can leave a read ahead running into the buffer: it ends first.
    JoinAhead(pRun->stAhead);
    if (pRun->lpBuf != nullptr) munmap(pRun->lpBuf, (size_t)STANDBY_SEND_CAPACITY + HEAD);
    if (pRun->lpAhead != nullptr) munmap(pRun->lpAhead, (size_t)STANDBY_SEND_CAPACITY + HEAD);
    if (pRun->stFeed.m_lpBuffer != nullptr) {
        munmap(pRun->stFeed.m_lpBuffer, (size_t)STANDBY_FEED_SIZE + 32);
        sem_destroy(&pRun->stFeed.m_hEvent);
        DeleteCriticalTalvor(&pRun->stFeed.m_stCrit);
    }
    delete pRun;
}

} // namespace

void CTalvorStandby::Work(BOOL& bRelease, LPTALVORCRITICALSECTION lpCritSection)
{
    bRelease = TRUE;
    // Without a redo service (not started yet, or between the two halves of
    // a rebuild) there is nothing to ship: the thread waits for one, and a
    // reset still finds it alive.
    while (!StopAsked() && (m_pTalvorRedoLog = RedoService()) == nullptr) {
        if (TalvorLoadShared(&m_nResetRedoLogNo) == 0) TalvorStoreShared(&m_nResetRedoLogNo, 1U);
        usleep(FEED_WAIT_MS * 1000);
    }
    if (m_pTalvorRedoLog == nullptr || m_pMemoryFileHead == nullptr) return;
    StandbyRun* pRun = new (std::nothrow) StandbyRun;
    if (pRun == nullptr) return;
    memset((void*)pRun, 0, sizeof(*pRun));
    StandbyRun& run = *pRun;
    run.p = this;
    run.lpCrit = lpCritSection;
    run.fd = -1;
    run.nRedoGroup = -1;
    // Mapped, not allocated: pages a standby never fills cost nothing.
    run.lpBuf = MapBuffer((size_t)STANDBY_SEND_CAPACITY + HEAD);
    run.lpAhead = MapBuffer((size_t)STANDBY_SEND_CAPACITY + HEAD);
    run.stFeed.m_lpBuffer = MapBuffer((size_t)STANDBY_FEED_SIZE + 32);
    if (run.lpBuf == nullptr || run.stFeed.m_lpBuffer == nullptr) {
        FreeRun(pRun);
        return;
    }
    run.stFeed.m_nBufferSize = STANDBY_FEED_SIZE;
    InitializeCriticalTalvor(&run.stFeed.m_stCrit);
    sem_init(&run.stFeed.m_hEvent, 0, 0);
    TalvorStoreShared(&m_nResetRedoLogNo, 0U);
    m_pTalvorRedoLog->AddStandby(&run.stFeed);
    run.bFeedLinked = TRUE;
    m_pRun = pRun;
    // Tests only: a fault with the feed on the writer's list.
    if (CrashTestFaultDue("standby")) CrashTestFault();
    Trace("Work", 4, 70004001,
          TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]同步线程启动...", "Standby node [%d.%d.%d.%d:%u] synchronization thread started..."),
          STANDBY_ADDR(this));
    run.nSendTime = NowMicros();
    BOOL bBehind = FALSE;
    while (!StopAsked()) {
        // A standby that just took a whole finished log from the files is
        // behind: its next log is there already, and a wait for the writer
        // here would idle it once per log all the way up.
        if (!bBehind) WaitForSingleObject(&run.stFeed.m_hEvent, FEED_WAIT_MS);
        bBehind = FALSE;
        long long nNow = NowMicros();
        if (nNow < run.nSendTime) {
            run.nSendTime = nNow;
        } else if (nNow - run.nSendTime > KEEPALIVE_AFTER_US) {
            if (!run.KeepAlive()) break;
        }
        BOOL bFresh = FALSE;
        if (TalvorLoadShared(&m_nResetRedoLogNo) == 0) {
            run.ResetPosition();
            TalvorStoreShared(&m_nResetRedoLogNo, 1U);
            bFresh = TRUE;
        }
        if (!bFresh && m_nRedoLogNo != 0 && run.SendFromFeed() == 0) continue;
        run.bCurLog = 0;
        run.fd = run.OpenCurrentLogFile();
        if (run.fd < 0) continue;
        if (m_skSocket < 0) {
            m_nRedoLogNo = 0;
        } else if (run.bCurLog == 0) {
            if (run.SendFromFile(FALSE) == SHIP_DONE && run.nReadPos >= run.nWriteSize) {
                run.nReadPos = REDOLOGFILE_HEAD_SIZE;
                m_nRedoLogNo++;
                bBehind = TRUE;
            }
        } else {
            run.SendFromFile(TRUE);
        }
        run.CloseFile();
    }
    Trace("Work", 4, 70004002,
          TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]同步线程结束", "The standby node [%d.%d.%d.%d:%u] synchronization thread ended"),
          STANDBY_ADDR(this));
    AbandonRun();
}

void CTalvorStandby::AbandonRun()
{
    StandbyRun* pRun = (StandbyRun*)__atomic_exchange_n(&m_pRun, (void*)nullptr, __ATOMIC_ACQ_REL);
    if (pRun == nullptr) return;
    if (pRun->bFeedLinked) {
        // The writer walks the feeds under the same latch: once unlinked,
        // the feed is nobody's but this thread's.
        m_pTalvorRedoLog->SubStandby(&pRun->stFeed);
    }
    pRun->CloseFile();
    FreeRun(pRun);
}
