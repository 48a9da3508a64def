// TalvorStandby.cpp — the wire of a standby connection: connect and hello,
// whole receives with their time-outs, the reply that carries a token, and
// the calls the storage thread makes from outside.
#include "TalvorStandby.h"

#include "TalvorNodeLink.h"

#include "CrashContainment.h"
#include "TalvorTrace.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <uuid/uuid.h>

namespace {

const int RESET_POLLS = 200;
const int RESET_POLL_US = 16000;
const int PUBLISH_WAITS = 10000;
const int SEND_TIMEOUT_S = 180;
const int RECV_TIMEOUT_S = 1;
const int OTHER_ERRORS_BEFORE_GIVING_UP = 4;

long long NowMicros()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (long long)tv.tv_sec * 1000000LL + tv.tv_usec;
}


} // namespace

CTalvorStandby::CTalvorStandby()
    : m_pMemoryFileHead(nullptr), m_pTalvorRedoLog(nullptr), m_skSocket(-1), m_ulIP(0), m_ulLocalIP(0),
      m_nRedoLogNo(0), m_nResetRedoLogNo(1), m_usPort(0), m_bRandomFactor(0), m_bExit(FALSE), m_hWorkThread(0),
      m_pStorageModule(nullptr), m_bPublished(FALSE), m_pRun(nullptr), m_nSlotHolds(0),
      m_bHandedBack(FALSE)
{
}

CTalvorStandby::~CTalvorStandby() { CloseSocket(); }

void CTalvorStandby::CloseSocket()
{
    int sk = __atomic_exchange_n(&m_skSocket, -1, __ATOMIC_ACQ_REL);
    if (sk >= 0) close(sk);
}

BOOL CTalvorStandby::StopAsked()
{
    return TalvorLoadShared(&m_bExit) || (m_pStorageModule != nullptr && m_pStorageModule->GetExitFlag());
}

BYTE CTalvorStandby::CreateRandomFactor()
{
    m_bRandomFactor = NodeNewToken(m_bRandomFactor);
    return m_bRandomFactor;
}

namespace {

BOOL StandbyStopAsked(void* lpContext) { return ((CTalvorStandby*)lpContext)->StopAsked(); }

} // namespace

int CTalvorStandby::ConnectNode(UINT ulIP, USHORT usPort, int nTimeOut)
{
    if (TalvorLoadShared(&m_bExit)) return -1;
    int sk = NodeConnect(ulIP, usPort, nTimeOut > 0 ? nTimeOut * 1000 : 0x7FFFFFFF, StandbyStopAsked, this);
    if (sk == NODECONNECT_NOSOCKET)
        Trace("ConnectNode", 4, 70002002,
              TALVOR_TEXT("创建Socket连接[%d.%d.%d.%d:%u]失败,错误码:%d", "Failed to create socket connection [%d.%d.%d.%d:%u], error code: %d"),
              STANDBY_ADDR(this), errno);
    if (sk < 0) return -1;
    struct timeval tvSend = {SEND_TIMEOUT_S, 0}, tvRecv = {RECV_TIMEOUT_S, 0};
    setsockopt(sk, SOL_SOCKET, SO_SNDTIMEO, &tvSend, sizeof(tvSend));
    setsockopt(sk, SOL_SOCKET, SO_RCVTIMEO, &tvRecv, sizeof(tvRecv));
    // The connecting side speaks first: who it is, and where its own
    // listener is.
    MF_SERVICE_TCP_COMMAND stHello;
    NodeBuildHello(stHello, CLIENTINFO_STANDBY,
                   m_pMemoryFileHead != nullptr ? m_pMemoryFileHead->m_usDatabaseGuid : 0, m_ulLocalIP,
                   m_pMemoryFileHead != nullptr ? (USHORT)(m_pMemoryFileHead->m_nTCPListenPort & 0xFFFF) : 0);
    if (send(sk, &stHello, sizeof(stHello), MSG_NOSIGNAL) != (ssize_t)sizeof(stHello)) {
        close(sk);
        return -1;
    }
    return sk;
}

int CTalvorStandby::ReceiveBuffer(char* pBuffer, int nSize, int& nErrorNo, long long nStartTime, int nTimeout)
{
    memset(pBuffer, 0, (size_t)nSize);
    int nGot = 0;
    int nOtherErrors = 0;
    while (nGot < nSize) {
        ssize_t n = recv(m_skSocket, pBuffer + nGot, (size_t)(nSize - nGot), 0);
        if (n > 0) {
            nGot += (int)n;
            continue;
        }
        if (n == 0) {
            nErrorNo = ECONNRESET;
            return 0;
        }
        if (StopAsked()) return 0;
        nErrorNo = errno;
        if (nErrorNo == EINTR || nErrorNo == EALREADY || nErrorNo == EINPROGRESS) continue;
        if (nGot == 0) return -1;
        if (nErrorNo == EAGAIN || nErrorNo == EWOULDBLOCK) {
            if (nStartTime == 0) return -1;
            long long nNow = NowMicros();
            // A start time that cannot be true is taken as now.
            if (nNow < nStartTime || nStartTime < nNow / 2) nStartTime = nNow;
            if (nNow - nStartTime > (long long)nTimeout * 1000000LL) return -1;
            continue;
        }
        if (NodeConnectionLost(nErrorNo) || ++nOtherErrors >= OTHER_ERRORS_BEFORE_GIVING_UP) return -1;
    }
    return nSize;
}

int CTalvorStandby::RecvTcpCmd(MF_SERVICE_TCP_COMMAND& stTcpCmd, BYTE bToken, long long nStartTime, int nTimeout)
{
    memset(&stTcpCmd, 0, sizeof(stTcpCmd));
    long long nStart = nStartTime != 0 ? nStartTime : NowMicros();
    int nQueued = -1;
    for (;;) {
        int nErr = 0;
        int n = ReceiveBuffer((char*)&stTcpCmd, (int)sizeof(stTcpCmd), nErr, nStart, nTimeout);
        if (n == (int)sizeof(stTcpCmd)) {
            // A reply carries no payload and speaks this version: anything
            // else would leave bytes that the next head is read from. The
            // connection goes, and a new exchange starts clean.
            if (stTcpCmd.m_bVersion != NODEMSG_VERSION || stTcpCmd.m_lDataLength != 0 ||
                stTcpCmd.m_bType > NODEMSG_FAILURE) {
                Trace("RecvTcpCmd", 4, 70003005,
                      TALVOR_TEXT("节点[%d.%d.%d.%d:%u]的应答格式不正确(版本:%d,类型:%d,长度:%u),断开连接",
                                  "The reply of node [%d.%d.%d.%d:%u] is malformed (version: %d, type: %d, length: %u): the connection is dropped"),
                      STANDBY_ADDR(this), (int)stTcpCmd.m_bVersion, (int)stTcpCmd.m_bType, stTcpCmd.m_lDataLength);
                return TCPCMD_GONE;
            }
            if (stTcpCmd.m_bType == NODEMSG_FAILURE && stTcpCmd.m_lDigitalData == NODEMSG_LEAVING) {
                TalvorStoreShared(&m_bExit, TRUE);
                return TCPCMD_OK;
            }
            if (stTcpCmd.m_bToken != bToken) continue;  // an old reply
            if (stTcpCmd.m_bType != NODEMSG_KEEPALIVE) return TCPCMD_OK;
            nStart = NowMicros();
            continue;
        }
        if (n == 0) {
            Trace("RecvTcpCmd", 4, 70003001,
                  TALVOR_TEXT("接收节点[%d.%d.%d.%d:%u]数据发现Socket已断开(%d,%d)!",
                              "The data of the receiving node [%d.%d.%d.%d:%u] found that the Socket was disconnected (%d, %d)!"),
                  STANDBY_ADDR(this), n, nErr);
            return TCPCMD_GONE;
        }
        if (nErr != EAGAIN && nErr != EWOULDBLOCK) {
            if (nErr == ECONNRESET || nErr == EPIPE || nErr == ENOTCONN || nErr == EBADF || nErr == ENOTSOCK) {
                Trace("RecvTcpCmd", 4, 70003003,
                      TALVOR_TEXT("接收节点[%d.%d.%d.%d:%u]数据发现Socket已断开(%d,%d)!",
                                  "The data of the receiving node [%d.%d.%d.%d:%u] found that the Socket was disconnected (%d, %d)!"),
                      STANDBY_ADDR(this), n, nErr);
                return TCPCMD_GONE;
            }
            Trace("RecvTcpCmd", 4, 70003004,
                  TALVOR_TEXT("接收节点[%d.%d.%d.%d:%u]数据失败(%d,%d)!", "Failed to receive Data from node [%d.%d.%d.%d:%u] (%d, %d)!"),
                  STANDBY_ADDR(this), n, nErr);
            return TCPCMD_ERROR;
        }
        if (StopAsked()) return TCPCMD_TIMEOUT;
        if (NowMicros() - nStart < (long long)nTimeout * 1000000LL) continue;
        // Silence past the time-out: bytes of ours that do not leave the
        // send queue mean a stuck connection, not a slow node.
        int nOutQ = 0;
        if (ioctl(m_skSocket, SIOCOUTQ, &nOutQ) != 0) nOutQ = 0;
        if (nQueued < 0) {
            if (nOutQ == 0) return TCPCMD_TIMEOUT;
            nQueued = nOutQ;
            nStart = NowMicros();
            continue;
        }
        if (nOutQ != nQueued) return TCPCMD_TIMEOUT;
        Trace("RecvTcpCmd", 4, 70003002,
              TALVOR_TEXT("接收节点[%d.%d.%d.%d:%u]数据发现Socket阻塞(%d,%d,%d)!", "Receive node [%d.%d.%d.%d:%u] data found Socket block (%d, %d, %d)!"),
              STANDBY_ADDR(this), n, nErr, nOutQ);
        return TCPCMD_GONE;
    }
}

int CTalvorStandby::Initialize(ITalvorStandbyOwner* pOwner, LPSYSTEMFILEHEAD pMemoryFileHead, UINT ulIP,
                               USHORT usPort, UINT ulLocalIP, UINT)
{
    m_pStorageModule = pOwner;
    m_pMemoryFileHead = pMemoryFileHead;
    m_ulIP = ulIP;
    m_usPort = usPort;
    m_ulLocalIP = ulLocalIP;
    // Detached: the thread destroys the object itself, through its owner.
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc == 0) {
        pthread_attr_setstacksize(&attr, (size_t)g_nThreadStackSize);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        rc = pthread_create(&m_hWorkThread, &attr, WorkThread, this);
        pthread_attr_destroy(&attr);
    }
    if (rc != 0) {
        m_hWorkThread = 0;
        printf("Initialize, the standby thread of %u.%u.%u.%u:%u could not be started (%d)\n", ulIP >> 24,
               (ulIP >> 16) & 0xFF, (ulIP >> 8) & 0xFF, ulIP & 0xFF, (unsigned)usPort, rc);
        return STANDBYINIT_THREADFAILED;
    }
    return STANDBYINIT_OK;
}

void CTalvorStandby::Publish() { TalvorStoreShared(&m_bPublished, TRUE); }

int CTalvorStandby::Uninitialize()
{
    TalvorStoreShared(&m_bExit, TRUE);
    return 0;
}

int CTalvorStandby::Reset()
{
    Trace("Reset", 4, 70007001,
          TALVOR_TEXT("收到备用节点[%d.%d.%d.%d:%u]同步请求,重置日志同步数据!",
                      "Standby node [%d.%d.%d.%d:%u] synchronization request was received,and log synchronization data was reset!"),
          STANDBY_ADDR(this));
    TalvorStoreShared(&m_bExit, FALSE);
    TalvorStoreShared(&m_nResetRedoLogNo, 0U);
    for (int i = 0; i < RESET_POLLS; i++) {
        usleep(RESET_POLL_US);
        if (TalvorLoadShared(&m_nResetRedoLogNo) != 0) {
            Trace("Reset", 4, 70007002,
                  TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]的同步线程工作正常!", "The synchronization thread of the standby node [%d.%d.%d.%d:%u] worked properly!"),
                  STANDBY_ADDR(this));
            return 0;
        }
    }
    Trace("Reset", 4, 70007003,
          TALVOR_TEXT("备用节点[%d.%d.%d.%d:%u]的同步线程没有工作!", "The synchronization thread of the standby node [%d.%d.%d.%d:%u] is not working!"),
          STANDBY_ADDR(this));
    TalvorStoreShared(&m_bExit, TRUE);
    // The thread's own socket is closed by the thread as it ends.
    return 1;
}

int CTalvorStandby::GetServerInfo(UINT& ulIP, USHORT& usPort)
{
    ulIP = m_ulIP;
    usPort = m_usPort;
    return 0;
}

namespace {

void StandbyBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    CTalvorStandby* pStandby = (CTalvorStandby*)lpContext;
    // The owner publishes right after a successful Initialize; the bound
    // only keeps a lost publication from holding the thread for ever.
    for (int i = 0; i < PUBLISH_WAITS && !TalvorLoadShared(&pStandby->m_bPublished); i++) usleep(1000);
    BOOL bRelease = FALSE;
    pStandby->Work(bRelease, lpCritSection);
}

// The end of a thread, after its work or after a fault in it: the object
// goes back to its owner.
void HandBack(CTalvorStandby* pStandby)
{
    pStandby->CloseSocket();
    ITalvorStandbyOwner* pOwner = pStandby->m_pStorageModule;
    if (pOwner != nullptr)
        pOwner->ReleaseStandby(pStandby);
    else
        delete pStandby;
}

// A fault in a standby thread ends that thread alone: its feed leaves the
// writer's list and its slot is freed; the engine may add the node again.
void StandbyAfterFault(void* lpContext)
{
    CTalvorStandby* pStandby = (CTalvorStandby*)lpContext;
    pStandby->AbandonRun();
    HandBack(pStandby);
}

} // namespace

void* CTalvorStandby::WorkThread(void* lpParam)
{
    CTalvorStandby* pStandby = (CTalvorStandby*)lpParam;
    TalvorRunContained(nullptr, lpParam, &pStandby->m_hWorkThread, StandbyBody, StandbyAfterFault, pStandby);
    HandBack(pStandby);
    return nullptr;
}
