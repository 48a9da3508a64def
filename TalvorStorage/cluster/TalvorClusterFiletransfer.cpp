// TalvorClusterFiletransfer.cpp — the wire of a join: connect and hello,
// sends that reconnect once, replies waited for in bounded time, payloads
// read off within their bound, and one complete exchange.
#include "TalvorClusterFiletransfer.h"

#include "TalvorNodeLink.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const int SEND_BUFFER = 0x100000;
const int RECV_BUFFER = 32768;
// A receive waits in slices of this, so that a stop and the deadline are
// seen.
const int RECV_SLICE_MS = 200;
const int OTHER_ERRORS_BEFORE_GIVING_UP = 10;
const int FOREIGN_REPLIES_BEFORE_GIVING_UP = 1024;
const long long CLEAR_MAX_BYTES = 64LL << 20;
const int DROP_PIECE = 65536;

long long NowMicros()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (long long)tv.tv_sec * 1000000LL + tv.tv_usec;
}

BOOL JoinStop(void* lpContext) { return ((CTalvorClusterFiletransfer*)lpContext)->StopAsked(); }

void SetReceiveTimeout(int sk, long long nMicros)
{
    struct timeval tv = {(time_t)(nMicros / 1000000LL), (suseconds_t)(nMicros % 1000000LL)};
    setsockopt(sk, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

// Bytes of ours the peer has not taken yet, or -1.
int QueuedOut(int sk)
{
    int nOutQ = 0;
    return ioctl(sk, SIOCOUTQ, &nOutQ) == 0 ? nOutQ : -1;
}

} // namespace

void JoinSetTitle(LPTALVORPROGRESS lpProgress, const char* lpText)
{
    if (lpProgress == nullptr) return;
    const size_t LONGEST = 124, TAIL = 120;
    size_t nLen = strnlen(lpText, 4096);
    const char* lpFrom = nLen > LONGEST ? lpText + nLen - TAIL : lpText;
    size_t nCopy = strnlen(lpFrom, sizeof(lpProgress->m_lpTitle) - 1);
    memset(lpProgress->m_lpTitle, 0, sizeof(lpProgress->m_lpTitle));
    memcpy(lpProgress->m_lpTitle, lpFrom, nCopy);
}

BYTE CTalvorClusterFiletransfer::CreateRandomFactor()
{
    m_bRandomFactor = NodeNewToken(m_bRandomFactor);
    return m_bRandomFactor;
}

void CTalvorClusterFiletransfer::BuildHead(MF_SERVICE_TCP_COMMAND& stHead, BYTE bType, BYTE bToken, UINT nLength)
{
    memset(&stHead, 0, sizeof(stHead));
    stHead.m_bVersion = NODEMSG_VERSION;
    stHead.m_bType = bType;
    stHead.m_bToken = bToken;
    stHead.m_lDigitalData = m_pStorage != nullptr ? (int)m_pStorage->JoinDatabaseGuid() : 0;
    stHead.m_lDataLength = nLength;
}

int CTalvorClusterFiletransfer::ConnectSlaveService(UINT ulIP, USHORT usPort)
{
    if (StopAsked()) return -1;
    int sk = NodeConnect(ulIP, usPort, JOIN_CONNECT_TIMEOUT_MS, JoinStop, this);
    if (sk == NODECONNECT_NOSOCKET)
        Trace("ConnectSlaveService", 4, 10504002,
              TALVOR_TEXT("创建Socket连接[%d.%d.%d.%d:%u]失败,错误码:%d", "Failed to create socket connection [%d.%d.%d.%d:%u], error code: %d"),
              JOIN_ADDR(ulIP, usPort), errno);
    if (sk < 0) return -1;
    int nSend = SEND_BUFFER, nRecv = RECV_BUFFER;
    setsockopt(sk, SOL_SOCKET, SO_SNDBUF, &nSend, sizeof(nSend));
    setsockopt(sk, SOL_SOCKET, SO_RCVBUF, &nRecv, sizeof(nRecv));
    struct timeval tvSend = {JOIN_SEND_TIMEOUT_S, 0};
    setsockopt(sk, SOL_SOCKET, SO_SNDTIMEO, &tvSend, sizeof(tvSend));
    SetReceiveTimeout(sk, RECV_SLICE_MS * 1000LL);
    MF_SERVICE_TCP_COMMAND stHello;
    NodeBuildHello(stHello, CLIENTINFO_NODEJOIN, m_pStorage != nullptr ? m_pStorage->JoinDatabaseGuid() : 0, 0, 0);
    if (send(sk, &stHello, sizeof(stHello), MSG_NOSIGNAL) != (ssize_t)sizeof(stHello)) {
        Trace("ConnectSlaveService", 3, 90004011,
              TALVOR_TEXT("连接对端服务器[%d.%d.%d.%d:%u]失败", "Failed connected to the opposite server [%d.%d.%d.%d:%u]"),
              JOIN_ADDR(ulIP, usPort));
        close(sk);
        return -1;
    }
    Trace("ConnectSlaveService", 3, 90004010,
          TALVOR_TEXT("成功连接到对端服务器[%d.%d.%d.%d:%u]", "Successfully connected to the opposite server [%d.%d.%d.%d:%u]"),
          JOIN_ADDR(ulIP, usPort));
    return sk;
}

namespace {

// All of nLen out, or the result of the send that failed (0 when it moved
// nothing within the send time-out).
int SendWhole(int sk, const char* p, int nLen)
{
    int nSent = 0;
    while (nSent < nLen) {
        ssize_t n = send(sk, p + nSent, (size_t)(nLen - nSent), MSG_NOSIGNAL);
        if (n > 0) {
            nSent += (int)n;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 ? -1 : 0;
    }
    return nLen;
}

} // namespace

int CTalvorClusterFiletransfer::SendData(int& sk, char* pSendBuffer, int nTotalLen, UINT ulIP, USHORT usPort,
                                         BOOL bStart)
{
    if (sk >= 0 && SendWhole(sk, pSendBuffer, nTotalLen) == nTotalLen) return nTotalLen;
    if (sk >= 0) close(sk);
    sk = ConnectSlaveService(ulIP, usPort);
    if (sk < 0) return JOINSEND_NOCONNECTION;
    if (!bStart) return JOINSEND_RECONNECTED;
    int nResult = SendWhole(sk, pSendBuffer, nTotalLen);
    if (nResult != nTotalLen) {
        int nErr = errno;
        Trace("SendData", 4, 90005001,
              TALVOR_TEXT("发送数据失败[%d.%d.%d.%d:%u],数据长度:%d,返回值:%d,错误:(%d)%s",
                          "Failed to send data [%d.%d.%d.%d:%u], data length: %d, return value: %d, error: (%d)%s"),
              JOIN_ADDR(ulIP, usPort), nTotalLen, nResult, nErr, strerror(nErr));
    }
    return nResult;
}

BOOL CTalvorClusterFiletransfer::ReceiveBuffer(int sk, char* pBuffer, int nSize, UINT ulIP, USHORT usPort,
                                               long long& nDeadlineUs)
{
    m_bConnectionBroke = FALSE;
    memset(pBuffer, 0, (size_t)nSize);
    int nGot = 0, nOtherErrors = 0, nErr = 0;
    int nQueued = QueuedOut(sk);
    while (nGot < nSize) {
        ssize_t n = recv(sk, pBuffer + nGot, (size_t)(nSize - nGot), 0);
        if (n > 0) {
            nGot += (int)n;
            nOtherErrors = 0;
            continue;
        }
        nErr = n == 0 ? ECONNRESET : errno;
        if (n == 0 || NodeConnectionLost(nErr)) break;
        if (nErr == EAGAIN || nErr == EWOULDBLOCK || nErr == EINTR || nErr == EALREADY || nErr == EINPROGRESS) {
            if (StopAsked()) break;
            // Our own bytes still draining to the peer are progress: a slow
            // receiver is waited for, a silent one is not.
            int nNow = QueuedOut(sk);
            if (nNow >= 0 && nNow < nQueued) nDeadlineUs = NowMicros() + JOIN_REPLY_WAIT_S * 1000000LL;
            nQueued = nNow;
            if (NowMicros() < nDeadlineUs) continue;
            nErr = ETIMEDOUT;
            break;
        }
        if (++nOtherErrors >= OTHER_ERRORS_BEFORE_GIVING_UP) break;
        usleep(1000);
    }
    if (nGot == nSize) return TRUE;
    m_bConnectionBroke = NodeConnectionLost(nErr) || nErr == EBADF;
    Trace("ReceiveBuffer", 1, 90008001,
          TALVOR_TEXT("接收客户端[%d.%d.%d.%d:%u]发送的消息体数据长度不正确!头部描述长度:%d,剩余:%d未接收!错误:%d",
                      "The receiving client [%d.%d.%d.%d:%u] is sending an incorrect length of message body data! Header description length: %d, remained: %d not received! Error: %d"),
          JOIN_ADDR(ulIP, usPort), nSize, nSize - nGot, nErr);
    return FALSE;
}

void CTalvorClusterFiletransfer::ClearSocket(int sk, UINT, USHORT)
{
    SetReceiveTimeout(sk, 1);
    char szDrop[1024];
    for (long long nRead = 0; nRead < CLEAR_MAX_BYTES;) {
        ssize_t n = recv(sk, szDrop, sizeof(szDrop), 0);
        if (n <= 0) break;
        nRead += n;
    }
    SetReceiveTimeout(sk, RECV_SLICE_MS * 1000LL);
}

int CTalvorClusterFiletransfer::RecvTcpCmd(int sk, UINT ulIP, USHORT usPort, BYTE bToken,
                                           MF_SERVICE_TCP_COMMAND& stTcpCmd)
{
    long long nDeadline = NowMicros() + JOIN_REPLY_WAIT_S * 1000000LL;
    for (int nForeign = 0; nForeign <= FOREIGN_REPLIES_BEFORE_GIVING_UP; nForeign++) {
        if (!ReceiveBuffer(sk, (char*)&stTcpCmd, (int)sizeof(stTcpCmd), ulIP, usPort, nDeadline)) break;
        UINT nPayload = stTcpCmd.m_lDataLength;
        // Whatever stands behind a reply is read off, ours or not, so that
        // the next head is read from where it begins; a length past the
        // bound cannot be trusted to end anywhere.
        if (nPayload > JOIN_MAX_REPLY_PAYLOAD) {
            ClearSocket(sk, ulIP, usPort);
            Trace("RecvTcpCmd", 4, 90006001,
                  TALVOR_TEXT("连接节点[%d.%d.%d.%d:%u]失败!", "Failed to connect to node [%d.%d.%d.%d:%u]!"),
                  JOIN_ADDR(ulIP, usPort));
            return 1;
        }
        char szDrop[DROP_PIECE];
        BOOL bRead = TRUE;
        for (UINT nLeft = nPayload; nLeft > 0 && bRead;) {
            int nPiece = nLeft < (UINT)sizeof(szDrop) ? (int)nLeft : (int)sizeof(szDrop);
            bRead = ReceiveBuffer(sk, szDrop, nPiece, ulIP, usPort, nDeadline);
            nLeft -= (UINT)nPiece;
        }
        if (!bRead) break;
        if (stTcpCmd.m_bToken == bToken) return 0;
    }
    Trace("RecvTcpCmd", 4, 90006002,
          TALVOR_TEXT("连接节点[%d.%d.%d.%d:%u]失败!", "Failed to connect to node [%d.%d.%d.%d:%u]!"), JOIN_ADDR(ulIP, usPort));
    return 1;
}

int CTalvorClusterFiletransfer::ClusterTcpCommunication(char* lpBuffer, int nLength, BYTE bCmdType, int& sk,
                                                        UINT ulIP, USHORT usPort, long long llTimestamp,
                                                        UINT ulLocalIP)
{
    MF_SERVICE_TCP_COMMAND stHead;
    BYTE bToken = CreateRandomFactor();
    BuildHead(stHead, bCmdType, bToken, (UINT)nLength);
    MF_CLUSTER_COMMAND stParam;
    memset(&stParam, 0, sizeof(stParam));
    stParam.m_ulIP = ulLocalIP;
    stParam.m_nTimestamp = llTimestamp;
    memcpy(stHead.m_lpszParam, &stParam, sizeof(stParam));
    int nHead = (int)sizeof(stHead);
    if (SendData(sk, (char*)&stHead, nHead, ulIP, usPort, TRUE) != nHead) {
        Trace("ClusterTcpCommunication", 4, 90005001,
              TALVOR_TEXT("发送数据失败[%d.%d.%d.%d:%u],数据长度:%d,返回值:%d,错误:(%d)%s",
                          "Failed to send data [%d.%d.%d.%d:%u], data length: %d, return value: %d, error: (%d)%s"),
              JOIN_ADDR(ulIP, usPort), nHead, -1, errno, strerror(errno));
        return 1;
    }
    // A body that fails goes again, head first, on one new connection.
    if (nLength != 0 && SendData(sk, lpBuffer, nLength, ulIP, usPort, FALSE) != nLength) {
        if (sk < 0 || SendWhole(sk, (char*)&stHead, nHead) != nHead || SendWhole(sk, lpBuffer, nLength) != nLength)
            return 1;
    }
    MF_SERVICE_TCP_COMMAND stReply;
    if (sk < 0 || RecvTcpCmd(sk, ulIP, usPort, bToken, stReply) != 0) return 1;
    if (stReply.m_bType == NODEMSG_SUCCESS && stReply.m_lDataLength == 0) return 0;
    ClearSocket(sk, ulIP, usPort);
    Trace("ClusterTcpCommunication", 4, 90003001,
          TALVOR_TEXT("连接节点[%d.%d.%d.%d:%u]失败!", "Failed to connect to node [%d.%d.%d.%d:%u]!"), JOIN_ADDR(ulIP, usPort));
    return 1;
}

int CTalvorClusterFiletransfer::RepeatOnNewConnection(int& sk, UINT ulIP, USHORT usPort)
{
    if (!m_bConnectionBroke) return JOINFILE_FAILED;
    if (sk >= 0) close(sk);
    sk = ConnectSlaveService(ulIP, usPort);
    return sk >= 0 ? JOINFILE_REPEAT : JOINFILE_FAILED;
}
