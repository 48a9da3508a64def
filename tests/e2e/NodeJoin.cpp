// End-to-end: the real daemon copies its database to a joining node, the
// stand-in's join listener, by cluster command 11. The copy equals the
// primary's files byte for byte. A connection that breaks in the
// middle of a file repeats that file, a bounded number of times; a receiver
// that misbehaves ends the join and the daemon keeps serving.
#include "ClusterKit.h"
#include "TalvorClusterFiletransfer.h"

using namespace talvortest;

namespace {

const int NODE_WAIT_MS = 90000;

// The system file's bytes with the paths that name its directory (the
// head's database path and every row's file path) blanked: the joining node
// makes its copy name its own directory, and nothing else may differ.
std::string WithoutPaths(std::string strFile)
{
    if (strFile.size() < sizeof(SYSTEMFILEHEAD)) return strFile;
    LPBYTE lpImage = (LPBYTE)&strFile[0];
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)lpImage;
    memset(lpHead->m_cDatabasePath, 0, sizeof(lpHead->m_cDatabasePath));
    int nResult = DbForEachFileListRow(lpImage, (long long)strFile.size(), [](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        memset(lpRow->m_lpszFilePath, 0, sizeof(lpRow->m_lpszFilePath));
        return true;
    });
    return nResult == DBCHAIN_OK ? strFile : std::string();
}

class NodeJoin : public RunningDaemon {
protected:
    void SetUp() override { ASSERT_TRUE(m_node.Ok()); }
    void TearDown() override
    {
        StopNode();
        RunningDaemon::TearDown();
    }
    // The daemon still runs its storage thread: a pass asked through
    // m_bStorageCMD, with the head ready, is answered.
    void ExpectServing()
    {
        std::string strOut;
        EXPECT_EQ(0, Peer(m_box, {"command", "--count", "3", "--code", "2", "--gap-us", "0", "--wait-ready-ms", "5000",
                                  "--head-ready"}, &strOut, 60000))
            << strOut << m_box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strOut.find("answered=3")) << strOut;
    }
    // The join listener in the second sandbox, taking files into its
    // database directory.
    void StartNode(const std::vector<std::string>& vExtra, const std::string& strName = "join")
    {
        StopNode();
        std::vector<std::string> vCmd = {"join-node", "--dir", Copy("")};
        vCmd.insert(vCmd.end(), vExtra.begin(), vExtra.end());
        m_strNodeName = strName;
        SpawnListener(m_node, vCmd, strName, &m_nNode, &m_nPort);
    }
    // Stops the listener; its output.
    std::string StopNode() { return m_nNode > 0 ? StopListener(m_node, &m_nNode, m_strNodeName) : std::string(); }
    std::string Copy(const std::string& strName) const { return m_node.DataDir() + strName; }
    // Every file of the copy equals the primary's; the system file but for
    // the paths that name its directory.
    void ExpectCopiesEqualPrimary()
    {
        for (const std::string& strName : CLUSTER_DB_FILES) {
            std::string strPrimary = ReadWholeFile(Path(strName)), strCopy = ReadWholeFile(Copy(strName));
            if (strName == "System.dbf") strPrimary = WithoutPaths(strPrimary), strCopy = WithoutPaths(strCopy);
            ASSERT_FALSE(strPrimary.empty()) << strName;
            EXPECT_EQ(-1, FirstDiffAt(strPrimary, strCopy)) << strName << ": " << strPrimary.size() << " bytes, the copy "
                                                            << strCopy.size();
        }
    }
    DaemonSandbox m_node;
    pid_t m_nNode = -1;
    int m_nPort = 0;
    std::string m_strNodeName;
};

} // namespace

// A receiver that misbehaves: each case differs only by the misbehaviour.
// Too many breaks in the middle of a file end the join; a huge payload, a
// failure and silence end it in bounded time (a foreign reply read off is
// JoinSender's at unit level); the daemon serves after each. Last, a
// connection broken twice repeats the file each time and the join ends with
// every file equal to the primary's byte for byte, the data file sent in
// more than one piece.
TEST_F(NodeJoin, MisbehavingReceiversEndOrRepeatTheJoinAndAWholeCopyArrives)
{
    // Files large enough that the data and key-value files come in more than
    // one piece of the join's buffer once the stand-in has grown them.
    Start({"--data-file", "16", "--btree-file", "4", "--kv-file", "16"}, "persistenceintervals=1\r\n");
    CommitToDisk(m_box.Root() + "/journal", 300, 21, 80, 0);
    EXPECT_GT(NumberAfter(Inspect(m_box, m_box.DataDir()).m_strText,
                          "file=2 type=2 image=yes size=16777216 imagesize=16777216 free="),
              (long long)JOIN_BUFFER_SIZE);
    // Mode, times (0: the listener's default); only the last case joins.
    const std::pair<const char*, int> arCases[] = {
        {"close", 1000}, {"huge-payload", 0}, {"fail", 0}, {"silent", 0}, {"close", 2}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(std::string(c.first) + " " + std::to_string(c.second));
        bool bJoins = &c == &arCases[4];
        std::vector<std::string> vArgs = {"--misbehave", c.first};
        if (c.second > 0) vArgs.insert(vArgs.end(), {"--times", std::to_string(c.second)});
        StartNode(vArgs, std::string("node-") + c.first + std::to_string(c.second));
        long long nStart = NowMs();
        ClusterLine st =
            Cluster(m_box, "11", NodeAt(m_nPort, {"--wait-ms", std::to_string(NODE_WAIT_MS)}), NODE_WAIT_MS + 30000);
        ASSERT_EQ(0, st.m_nExit) << st.m_strText;
        EXPECT_LT(NowMs() - nStart, 80000);
        EXPECT_TRUE(st.m_nFinal == 0 && st.m_nCmdForbid == 0 && st.m_nHeadForbid == 0) << st.m_strText;
        std::string strNode = StopNode();
        EXPECT_EQ(bJoins, strNode.find("joined slave: files 4 ") != std::string::npos) << strNode;
        if (bJoins) {
            EXPECT_EQ(c.second, NumberAfter(strNode, "misbehaved ")) << strNode;
            EXPECT_EQ(0, NumberAfter(strNode, "refused ")) << strNode;
            ExpectCopiesEqualPrimary();
        }
        ExpectServing();
    }
}
