// End-to-end: a standby node follows the primary. The real daemon ships its
// redo log to the stand-in's standby listener: a standby that starts behind
// catches up from the archive, the sealed groups and the current log, then
// follows the writer's live feed; across a primary killed while shipping,
// and across a standby thread that faulted, its copy of every log equals
// the primary's byte for byte. (Malformed replies and a leaving node are
// StandbyReplies' at unit level.)
#include "ClusterKit.h"

using namespace talvortest;

namespace {

class StandbyShipping : public RunningDaemon {
protected:
    void TearDown() override
    {
        if (m_nNode > 0) StopListener(m_box, &m_nNode, "node");
        RunningDaemon::TearDown();
    }
    void StartPrimaryAndNode(const std::string& strTestCrash = "")
    {
        Start({"--name", "SHIP", "--redo-groups", "3"}, "archivetype=1\r\narchivedespath=" + m_strArchive + "\r\n", 0,
              strTestCrash);
        SpawnListener(m_box, {"standby-node", "--dir", m_strCopies}, "node", &m_nNode, &m_nPort);
    }
    // The stand-in commits records; its report line.
    std::string Redo(const std::string& strRecords, const std::string& strSeed, const std::string& strSeals)
    {
        std::vector<std::string> vCmd = {"redo", "--records", strRecords, "--seed", strSeed, "--max-size", "200000"};
        if (!strSeals.empty()) vCmd.insert(vCmd.end(), {"--seal-at", strSeals});
        std::string strOut;
        EXPECT_EQ(0, Peer(m_box, vCmd, &strOut)) << strOut;
        return strOut;
    }
    void AddStandby() { ASSERT_EQ(0, Cluster(m_box, "18", NodeAt(m_nPort)).m_nResult); }
    // The stand-in commits; the copy of its last log reaches the writer's
    // place it reported, and every copy, from log 1 on without a gap,
    // equals the primary's.
    void RedoAndExpectShipped(const std::string& strRecords, const std::string& strSeed)
    {
        std::string strAfter = Redo(strRecords, strSeed, "");
        long long nLastLog = NumberAfter(strAfter, "logno="), nPos = NumberAfter(strAfter, "logpos=");
        std::string strPath = m_strCopies + "Log" + std::to_string(nLastLog) + ".log";
        ASSERT_TRUE(WaitUntil([&] { return FileSizeOf(strPath) >= nPos; }, 60000, 50))
            << "log " << nLastLog << " not copied up to " << nPos << "\n" << m_box.ReadDaemonTrace();
        ExpectShippedLogs(m_strCopies, m_strArchive, m_box.DataDir(), nLastLog);
    }
    pid_t m_nNode = -1;
    int m_nPort = 0;
    std::string m_strArchive = m_box.Root() + "/Archive/", m_strCopies = m_box.Root() + "/Standby/";
};

} // namespace

TEST_F(StandbyShipping, AStandbyThreadThatFaultsLeavesTheWriterAndItsSlot)
{
    StartPrimaryAndNode("standby");
    AddStandby();
    // The thread faults with its feed on the writer's list: the feed leaves
    // the list, the slot is freed, and the writer goes on draining.
    EXPECT_TRUE(m_box.WaitForTrace("is not started again", 60000)) << m_box.ReadDaemonTrace();
    EXPECT_TRUE(WaitUntil([&] { return Cluster(m_box, "look").m_nStandby == 0; }, 10000, 50));
    Redo("300", "14", "100,200");
    // Added again, the node is behind by every log (archived, sealed,
    // current): it catches up and follows the live feed.
    AddStandby();
    RedoAndExpectShipped("100", "15");
    EXPECT_TRUE(m_box.IsRunning(m_pid));
}

TEST_F(StandbyShipping, APrimaryKilledWhileShippingIsFollowedAgainFromTheStandbysPosition)
{
    StartPrimaryAndNode();
    Redo("200", "16", "100");
    AddStandby();
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
    AddStandby();
    RedoAndExpectShipped("200", "18");
}
