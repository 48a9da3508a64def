// What another node sends back, from outside: the byte stream a standby or
// a joining node writes on the connection, read by the daemon's own reply
// waits, the standby thread's and the join's, until one of them gives the
// connection up. The stream comes through a local socket pair whose writing
// end is closed behind it, so that every wait ends at the stream's end and
// never on the clock.
//
// Besides not crashing, each wait must end where a plain walk of the heads
// says it does: the reply it returns is the head that stands there, a
// malformed head or a payload past its bound ends the connection, and no
// payload is ever taken for a head.
//
// Input: byte 0 chooses the receiver (bit 0: the join's, else the standby
// thread's), byte 1 is the awaited token, the rest is the stream.
#include "FuzzQuiet.h"
#include "TalvorClusterFiletransfer.h"
#include "TalvorStandby.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const size_t HEAD = sizeof(MF_SERVICE_TCP_COMMAND);
const uint8_t RECEIVER_JOIN = 1;
// The join reads off this many foreign replies besides the first head.
const int JOIN_FOREIGN_HEADS = 1024;

struct Stream {
    const uint8_t* p;
    size_t n;
    size_t nAt = 0;

    bool HeadAt(MF_SERVICE_TCP_COMMAND& stHead)
    {
        if (n - nAt < HEAD) return false;
        memcpy(&stHead, p + nAt, HEAD);
        nAt += HEAD;
        return true;
    }
};

// What the wait for bToken must end in, walked from where the last one
// stopped.
enum Outcome { ENDS_CONNECTION, GIVES_REPLY, NODE_LEAVES };

Outcome StandbyExpects(Stream& s, BYTE bToken, MF_SERVICE_TCP_COMMAND& stExpected)
{
    for (;;) {
        if (!s.HeadAt(stExpected)) return ENDS_CONNECTION;
        if (stExpected.m_bVersion != NODEMSG_VERSION || stExpected.m_lDataLength != 0 ||
            stExpected.m_bType > NODEMSG_FAILURE)
            return ENDS_CONNECTION;
        if (stExpected.m_bType == NODEMSG_FAILURE && stExpected.m_lDigitalData == NODEMSG_LEAVING) return NODE_LEAVES;
        if (stExpected.m_bToken == bToken && stExpected.m_bType != NODEMSG_KEEPALIVE) return GIVES_REPLY;
    }
}

Outcome JoinExpects(Stream& s, BYTE bToken, MF_SERVICE_TCP_COMMAND& stExpected)
{
    for (int nForeign = 0; nForeign <= JOIN_FOREIGN_HEADS; nForeign++) {
        if (!s.HeadAt(stExpected)) return ENDS_CONNECTION;
        UINT nPayload = stExpected.m_lDataLength;
        if (nPayload > JOIN_MAX_REPLY_PAYLOAD || nPayload > s.n - s.nAt) return ENDS_CONNECTION;
        s.nAt += nPayload;
        if (stExpected.m_bToken == bToken) return GIVES_REPLY;
    }
    return ENDS_CONNECTION;
}

bool SameHead(const MF_SERVICE_TCP_COMMAND& a, const MF_SERVICE_TCP_COMMAND& b) { return memcmp(&a, &b, HEAD) == 0; }

// The standby thread waits reply after reply on one connection until it
// ends or the node leaves.
// (the object closes the socket).
void StandbyWaits(int sk, Stream& s, BYTE bToken)
{
    CTalvorStandby standby;
    standby.m_skSocket = sk;
    for (;;) {
        MF_SERVICE_TCP_COMMAND stGot, stExpected;
        Outcome eExpected = StandbyExpects(s, bToken, stExpected);
        int nRet = standby.RecvTcpCmd(stGot, bToken, 0, 1);
        if (eExpected == ENDS_CONNECTION) {
            if (nRet != TCPCMD_GONE) abort();
            return;
        }
        if (nRet != TCPCMD_OK || !SameHead(stGot, stExpected)) abort();
        if ((eExpected == NODE_LEAVES) != (standby.m_bExit != FALSE)) abort();
        if (eExpected == NODE_LEAVES) return;
    }
}

void JoinWaits(int sk, Stream& s, BYTE bToken)
{
    CTalvorClusterFiletransfer join;
    for (;;) {
        MF_SERVICE_TCP_COMMAND stGot, stExpected;
        Outcome eExpected = JoinExpects(s, bToken, stExpected);
        int nRet = join.RecvTcpCmd(sk, 0x7F000001, 1, bToken, stGot);
        if (eExpected == ENDS_CONNECTION) {
            if (nRet != 1) abort();
            break;
        }
        if (nRet != 0 || !SameHead(stGot, stExpected)) abort();
    }
    close(sk);
}

// As much of the stream as the pair takes without blocking; its length.
size_t WriteStream(int sk, const uint8_t* p, size_t n)
{
    size_t nDone = 0;
    while (nDone < n) {
        ssize_t nWrote = send(sk, p + nDone, n - nDone, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (nWrote > 0) {
            nDone += (size_t)nWrote;
            continue;
        }
        if (nWrote < 0 && errno == EINTR) continue;
        break;
    }
    return nDone;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::QuietTrace();
    if (nSize < 2) return 0;
    // A token is never 0 (NodeNewToken).
    BYTE bToken = lpData[1] != 0 ? lpData[1] : 1;
    int arPair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, arPair) != 0) abort();
    Stream s{lpData + 2, 0};
    s.n = WriteStream(arPair[1], lpData + 2, nSize - 2);
    close(arPair[1]);
    if (lpData[0] & RECEIVER_JOIN)
        JoinWaits(arPair[0], s, bToken);
    else
        StandbyWaits(arPair[0], s, bToken);
    return 0;
}
