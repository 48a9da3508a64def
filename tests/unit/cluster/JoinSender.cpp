// How the sending side of a join reads a node's replies: a reply that is
// not for the message in flight is read off whole, payload included, so
// that the next head is read from where it begins. The join itself, file
// by file and byte by byte, runs end to end (NodeJoin).
#include "NodeReply.h"
#include "TalvorClusterFiletransfer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void Reply(int sk, BYTE bType, BYTE bToken, int nPayload)
{
    MF_SERVICE_TCP_COMMAND st = talvortest::NodeReply(bType, bToken, 0, nPayload);
    ASSERT_EQ((ssize_t)sizeof(st), send(sk, &st, sizeof(st), MSG_NOSIGNAL));
    std::string strPayload((size_t)nPayload, '\x01');
    ASSERT_EQ((ssize_t)strPayload.size(), send(sk, strPayload.data(), strPayload.size(), MSG_NOSIGNAL));
}

} // namespace

TEST(JoinSender, ForeignRepliesAreReadOffWholeWithTheirPayloads)
{
    int arSk[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, arSk));
    int nBuffer = 1 << 20;
    setsockopt(arSk[1], SOL_SOCKET, SO_SNDBUF, &nBuffer, sizeof(nBuffer));
    // A reader that loses its place fails, not hangs.
    struct timeval tv = {2, 0};
    setsockopt(arSk[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    CTalvorClusterFiletransfer xfer;
    MF_SERVICE_TCP_COMMAND st;
    // A payload longer than one piece of the reading-off, one shorter, ours,
    // then the next message's reply: it must start where ours ended.
    Reply(arSk[1], NODEMSG_FAILURE, 0x11, 70000);
    Reply(arSk[1], NODEMSG_SUCCESS, 0x12, 300);
    Reply(arSk[1], NODEMSG_SUCCESS, 0x33, 0);
    Reply(arSk[1], NODEMSG_FAILURE, 0x44, 0);
    ASSERT_EQ(0, xfer.RecvTcpCmd(arSk[0], 0x7F000001, 1, 0x33, st));
    EXPECT_EQ(NODEMSG_SUCCESS, st.m_bType);
    ASSERT_EQ(0, xfer.RecvTcpCmd(arSk[0], 0x7F000001, 1, 0x44, st));
    EXPECT_EQ(NODEMSG_FAILURE, st.m_bType);
    close(arSk[1]);
    close(arSk[0]);
}
