// End-to-end: a standby node follows the primary. The real daemon ships its
// redo log to the stand-in's standby listener: a standby that starts behind
// catches up from the archive, the sealed groups and the current log, then
// follows the writer's live feed; across a primary killed while shipping,
// its copy of every log equals the primary's byte for byte. A standby that
// asks for a log the primary no longer has ends its thread. (Malformed
// replies and a leaving node are StandbyReplies' at unit level.)
#include "ClusterKit.h"

using namespace talvortest;

namespace {

const int SHIP_WAIT_MS = 60000;

class StandbyShipping : public RunningDaemon {
protected:
    void TearDown() override
    {
        if (m_nNode > 0) StopListener(m_box, &m_nNode, "node");
        RunningDaemon::TearDown();
    }
    void StartPrimary(bool bArchive, const std::string& strTestCrash = "")
    {
        Start({"--name", "SHIP", "--redo-groups", "3"},
              bArchive ? "archivetype=1\r\narchivedespath=" + m_strArchive + "\r\n" : "archivetype=0\r\n", 0, strTestCrash);
    }
    // The stand-in commits records; its report line.
    std::string Redo(int nRecords, int nSeed, const std::string& strSeals)
    {
        std::vector<std::string> vCmd = {"redo", "--records", std::to_string(nRecords), "--seed", std::to_string(nSeed),
                                         "--max-size", "200000"};
        if (!strSeals.empty()) vCmd.insert(vCmd.end(), {"--seal-at", strSeals});
        std::string strOut;
        EXPECT_EQ(0, Peer(m_box, vCmd, &strOut)) << strOut;
        return strOut;
    }
    void StartNode(std::vector<std::string> vCmd, const std::string& strName = "node")
    {
        vCmd.insert(vCmd.begin(), {"standby-node", "--dir", m_strCopies});
        SpawnListener(m_box, vCmd, strName, &m_nNode, &m_nPort);
    }
    ClusterLine AddStandby() { return Cluster(m_box, "18", NodeAt(m_nPort)); }
    // The stand-in commits; the copy of its last log reaches the writer's
    // place it reported, and every copy equals the primary's.
    void RedoAndExpectShipped(int nRecords, int nSeed, const std::string& strSeals)
    {
        std::string strAfter = Redo(nRecords, nSeed, strSeals);
        long long nLastLog = NumberAfter(strAfter, "logno="), nPos = NumberAfter(strAfter, "logpos=");
        std::string strPath = m_strCopies + "Log" + std::to_string(nLastLog) + ".log";
        ASSERT_TRUE(WaitUntil([&] { return FileSizeOf(strPath) >= nPos; }, SHIP_WAIT_MS, 50))
            << "log " << nLastLog << " not copied up to " << nPos << "\n" << m_box.ReadDaemonTrace();
        // Every copy equals the primary's, from log 1 on without a gap.
        ExpectShippedLogs(m_strCopies, m_strArchive, m_box.DataDir(), 1, REDOLOGFILE_HEAD_SIZE, nLastLog);
    }
    // Whether the channel counts no standby within 10 s.
    bool WaitSlotFreed() { return WaitUntil([&] { return Look(m_box).m_nStandby == 0; }, 10000, 50); }
    pid_t m_nNode = -1;
    int m_nPort = 0;
    std::string m_strArchive = m_box.Root() + "/Archive/", m_strCopies = m_box.Root() + "/Standby/";
};

} // namespace

TEST_F(StandbyShipping, AStandbyAskingForALogThePrimaryNoLongerHasEndsItsThread)
{
    // Without archiving the groups are reused: log 1 is gone after a few
    // seals.
    StartPrimary(false);
    Redo(300, 7, "50,100,150,200,250");
    StartNode({"--start-log", "1"});
    ASSERT_EQ(0, AddStandby().m_nResult);
    EXPECT_TRUE(m_box.WaitForTrace("there was no archive file and redo file was lost", SHIP_WAIT_MS))
        << m_box.ReadDaemonTrace();
    // The slot is free again: the channel counts no standby.
    EXPECT_TRUE(WaitSlotFreed());
    EXPECT_TRUE(LogsIn(m_strCopies).empty());
}

TEST_F(StandbyShipping, MisbehavingStandbysAreShippedAgain)
{
    struct Case {
        const char* m_lpMode;
        int m_nTimes;
        long long m_nConnections;  // at least, by the node's count
    };
    // close: hangs up after its shipment; fail: refuses it (sent again).
    const Case arCases[] = {{"close", 4, 5}, {"fail", 3, 1}};
    StartPrimary(true);
    Redo(300, 5, "100,200");
    int nSeed = 6;
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.m_lpMode);
        const std::string strName = std::string("node-") + c.m_lpMode;
        StartNode({"--misbehave", c.m_lpMode, "--after", "1", "--times", std::to_string(c.m_nTimes)}, strName);
        ClusterLine stAdd = AddStandby();
        ASSERT_EQ(0, stAdd.m_nResult) << stAdd.m_strText;
        RedoAndExpectShipped(200, nSeed++, "100");
        ClusterLine stRemove = Cluster(m_box, "19", {"--ip", "127.0.0.1", "--port", std::to_string(m_nPort)});
        ASSERT_EQ(0, stRemove.m_nResult) << stRemove.m_strText;
        std::string strNode = StopListener(m_box, &m_nNode, strName);
        EXPECT_EQ(c.m_nTimes, NumberAfter(strNode, "misbehaved ")) << strNode;
        EXPECT_GE(NumberAfter(strNode, "connections "), c.m_nConnections) << strNode;
    }
}

TEST_F(StandbyShipping, AStandbyThreadThatFaultsLeavesTheWriterAndItsSlot)
{
    StartPrimary(true, "standby");
    StartNode({});
    ASSERT_EQ(0, AddStandby().m_nResult);
    // The thread faults with its feed on the writer's list: the feed leaves
    // the list, the slot is freed, and the writer goes on draining.
    EXPECT_TRUE(m_box.WaitForTrace("is not started again", SHIP_WAIT_MS)) << m_box.ReadDaemonTrace();
    EXPECT_TRUE(WaitSlotFreed());
    Redo(300, 14, "100,200");
    // Added again, the node is behind by every log (archived, sealed,
    // current): it catches up and follows the live feed.
    ASSERT_EQ(0, AddStandby().m_nResult);
    RedoAndExpectShipped(100, 15, "");
    EXPECT_TRUE(m_box.IsRunning(m_pid));
}

TEST_F(StandbyShipping, APrimaryKilledWhileShippingIsFollowedAgainFromTheStandbysPosition)
{
    StartPrimary(true);
    Redo(200, 16, "100");
    StartNode({});
    ASSERT_EQ(0, AddStandby().m_nResult);
    // The stand-in commits while the primary ships, and the primary dies
    // half-way.
    pid_t nRedo = m_box.Spawn({PeerPath(), "redo", "--records", "400", "--seed", "17", "--max-size", "200000"}, "redo");
    ASSERT_GT(nRedo, 0);
    usleep(300000);
    m_box.Signal(m_pid, SIGKILL);
    m_box.WaitExit(m_pid, 30000);
    m_box.Signal(nRedo, SIGKILL);
    m_box.WaitExit(nRedo, 30000);
    // The restart takes the redo ring over; the standby slots are the
    // engine's to ask for again.
    Serve();
    ASSERT_EQ(0, AddStandby().m_nResult);
    RedoAndExpectShipped(200, 18, "");
}
