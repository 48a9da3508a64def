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

class StandbyShipping : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_box.Ok());
        m_strArchive = m_box.Root() + "/Archive/";
        m_strCopies = m_box.Root() + "/Standby/";
    }
    void TearDown() override
    {
        if (m_nNode > 0) {
            m_box.Signal(m_nNode, SIGTERM);
            m_box.WaitExit(m_nNode, 10000);
        }
        if (m_pid > 0) {
            m_box.Signal(m_pid, SIGTERM);
            m_box.WaitExit(m_pid, 120000);
        }
    }
    void StartPrimary(bool bArchive, const std::string& strTestCrash = "")
    {
        ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(), {"--name", "SHIP", "--redo-groups", "3"}));
        WriteDbIni(m_box, m_box.DataDir(),
                   bArchive ? "archivetype=1\r\narchivedespath=" + m_strArchive + "\r\n" : "archivetype=0\r\n");
        m_pid = m_box.StartServing(strTestCrash);
        ASSERT_GT(m_pid, 0) << m_box.ReadDaemonTrace();
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
        vCmd.insert(vCmd.begin(), {PeerPath(), "standby-node", "--port", "0", "--dir", m_strCopies, "--seconds", "600"});
        m_nNode = m_box.Spawn(vCmd, strName);
        ASSERT_GT(m_nNode, 0);
        m_nPort = ListenerPort(m_box, strName);
        ASSERT_GT(m_nPort, 0);
    }
    ClusterLine AddStandby()
    {
        return Cluster(m_box, "18", {"--ip", "127.0.0.1", "--port", std::to_string(m_nPort), "--local-ip", "127.0.0.1"});
    }
    // The stand-in commits; the copy of its last log reaches the writer's
    // place it reported, and every copy equals the primary's.
    void RedoAndExpectShipped(int nRecords, int nSeed, const std::string& strSeals)
    {
        std::string strAfter = Redo(nRecords, nSeed, strSeals);
        long long nLastLog = NumberAfter(strAfter, "logno="), nPos = NumberAfter(strAfter, "logpos=");
        std::string strPath = m_strCopies + "Log" + std::to_string(nLastLog) + ".log";
        ASSERT_TRUE(WaitUntil([&] { return FileSizeOf(strPath) >= nPos; }, SHIP_WAIT_MS, 50))
            << "log " << nLastLog << " not copied up to " << nPos << "\n" << m_box.ReadDaemonTrace();
        ExpectCopiesEqual(nLastLog);
    }
    // Every copied log equals the primary's from its head on, and the
    // copies run from log 1 without a gap.
    void ExpectCopiesEqual(long long nLastLog)
    {
        std::map<int, std::string> mapCopies = LogsIn(m_strCopies);
        ASSERT_FALSE(mapCopies.empty());
        EXPECT_EQ(1, mapCopies.begin()->first);
        EXPECT_EQ(nLastLog, mapCopies.rbegin()->first);
        int nExpect = 1;
        for (const auto& kv : mapCopies) {
            SCOPED_TRACE(kv.first);
            EXPECT_EQ(nExpect++, kv.first);
            std::string strPrimary = PrimaryLog(m_strArchive, m_box.DataDir(), 3, kv.first);
            ASSERT_GE(strPrimary.size(), kv.second.size());
            ASSERT_GT(kv.second.size(), (size_t)REDOLOGFILE_HEAD_SIZE);
            EXPECT_TRUE(kv.second.compare(REDOLOGFILE_HEAD_SIZE, std::string::npos, strPrimary, REDOLOGFILE_HEAD_SIZE,
                                          kv.second.size() - REDOLOGFILE_HEAD_SIZE) == 0);
            // A log before the last is copied whole.
            if (kv.first < nLastLog) {
                EXPECT_EQ((size_t)RedoHeadOf(strPrimary).m_nEffectiveSize, kv.second.size());
            }
        }
    }
    // Whether the channel counts no standby within 10 s.
    bool WaitSlotFreed() { return WaitUntil([&] { return Look(m_box).m_nStandby == 0; }, 10000, 50); }
    // Stops the listener; its output.
    std::string StopNode(const std::string& strName)
    {
        m_box.Signal(m_nNode, SIGTERM);
        EXPECT_EQ(0, m_box.WaitExit(m_nNode, 10000));
        m_nNode = -1;
        return ReadWholeFile(m_box.Root() + "/" + strName + ".out");
    }
    DaemonSandbox m_box;
    pid_t m_pid = -1;
    pid_t m_nNode = -1;
    int m_nPort = 0;
    std::string m_strArchive, m_strCopies;
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
        std::string strNode = StopNode(strName);
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
    m_pid = m_box.StartServing();
    ASSERT_GT(m_pid, 0) << m_box.ReadDaemonTrace();
    ASSERT_EQ(0, AddStandby().m_nResult);
    RedoAndExpectShipped(200, 18, "");
}
