// What a standby thread makes of the replies on its connection: an old
// reply must never be taken for the shipment in flight nor shift the stream,
// and one that would shift the stream ends it.
#include "NodeReply.h"
#include "TalvorStandby.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using talvortest::NodeReply;

namespace {

const int TIMEOUT_S = 1;

class StandbyReplies : public ::testing::Test {
protected:
    void SetUp() override
    {
        int arSk[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, arSk));
        struct timeval tv = {0, 100000};
        setsockopt(arSk[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        m_standby.m_skSocket = arSk[0];
        m_nNode = arSk[1];
    }
    void TearDown() override { if (m_nNode >= 0) close(m_nNode); }
    void Send(const MF_SERVICE_TCP_COMMAND& st) { ASSERT_EQ((ssize_t)sizeof(st), write(m_nNode, &st, sizeof(st))); }
    int Receive(BYTE bToken, MF_SERVICE_TCP_COMMAND& st) { return m_standby.RecvTcpCmd(st, bToken, 0, TIMEOUT_S); }

    CTalvorStandby m_standby;
    int m_nNode = -1;
};

} // namespace

TEST_F(StandbyReplies, OldTokensAndKeepAlivesAreReadPastWithoutShiftingTheStream)
{
    Send(NodeReply(NODEMSG_SUCCESS, 5));
    Send(NodeReply(NODEMSG_KEEPALIVE, 7));
    Send(NodeReply(NODEMSG_FAILURE, 9, 2));
    Send(NodeReply(NODEMSG_SUCCESS, 7));
    Send(NodeReply(NODEMSG_FAILURE, 8, 7));
    MF_SERVICE_TCP_COMMAND st;
    ASSERT_EQ(TCPCMD_OK, Receive(7, st));
    EXPECT_EQ(NODEMSG_SUCCESS, st.m_bType);
    ASSERT_EQ(TCPCMD_OK, Receive(8, st));
    EXPECT_EQ(NODEMSG_FAILURE, st.m_bType);
    EXPECT_EQ(7, (int)st.m_lDigitalData);
    // Only old replies, then silence: a time-out with the connection kept.
    Send(NodeReply(NODEMSG_SUCCESS, 8));
    EXPECT_EQ(TCPCMD_TIMEOUT, Receive(9, st));
    EXPECT_FALSE(m_standby.m_bExit);
}

TEST_F(StandbyReplies, MalformedRepliesDropTheConnectionAndALeavingNodeEndsTheThread)
{
    MF_SERVICE_TCP_COMMAND st;
    for (const MF_SERVICE_TCP_COMMAND& stBad : {NodeReply(NODEMSG_SUCCESS, 3, 0, 0, NODEMSG_VERSION + 1),
                                                NodeReply(NODEMSG_SUCCESS, 3, 0, 100), NodeReply(NODEMSG_FAILURE + 1, 3)}) {
        Send(stBad);
        EXPECT_EQ(TCPCMD_GONE, Receive(3, st));
    }
    Send(NodeReply(NODEMSG_FAILURE, 200, NODEMSG_LEAVING));
    EXPECT_EQ(TCPCMD_OK, Receive(3, st));
    EXPECT_TRUE(m_standby.m_bExit);
    close(m_nNode);
    m_nNode = -1;
    m_standby.m_bExit = FALSE;
    EXPECT_EQ(TCPCMD_GONE, Receive(3, st));
}
