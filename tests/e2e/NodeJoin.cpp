// End-to-end: the real daemon copies its database to a joining node, the
// stand-in's join listener, by cluster commands 11 (a slave) and 10 (a
// standby). The copy equals the primary's files byte for byte; a second
// daemon in its own namespace comes up on it and passes the offline check;
// made while the stand-in keeps committing, it holds a whole commit; a
// joined standby is shipped the log from the position it was given. A
// connection that breaks in the middle of a file repeats that file, a
// bounded number of times; a receiver that misbehaves ends the join with a
// trace and the daemon keeps serving; a sender that names a path out of the
// node's directory or a size past its bounds is refused.
#include "ClusterKit.h"
#include "TalvorClusterFiletransfer.h"

#include <fcntl.h>
#include <map>

using namespace talvortest;

namespace {

// Files large enough that the data and key-value files come in more than
// one piece of the join's buffer once the stand-in has grown them.
const std::vector<std::string> JOIN_DB = {"--data-file", "16", "--btree-file", "4", "--kv-file", "16"};
const int GROWN_BLOCKS = 80;
const int NODE_WAIT_MS = 90000;
// A trace line is written by the trace thread, a moment after its event.
const int TRACE_LINE_WAIT_MS = 10000;

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
        if (m_nSecond > 0 && m_node.IsRunning(m_nSecond)) {
            m_node.Signal(m_nSecond, SIGTERM);
            EXPECT_EQ(0, m_node.WaitExit(m_nSecond, DAEMON_STOP_TIMEOUT_MS)) << m_node.ReadDaemonTrace();
        }
    }
    void StartPrimary(const std::string& strIni = "persistenceintervals=1\r\n", std::vector<std::string> vMkdb = JOIN_DB)
    {
        Start(vMkdb, strIni);
    }
    // The join listener in the second sandbox, taking files into its
    // database directory.
    void StartNode(const std::vector<std::string>& vExtra, const std::string& strName = "join")
    {
        StopNode();
        std::vector<std::string> vCmd = {PeerPath(), "join-node", "--port", "0", "--dir", Copy(""), "--seconds", "600"};
        vCmd.insert(vCmd.end(), vExtra.begin(), vExtra.end());
        m_nNode = m_node.Spawn(vCmd, strName);
        ASSERT_GT(m_nNode, 0);
        m_strNodeName = strName;
        m_nPort = ListenerPort(m_node, strName);
        ASSERT_GT(m_nPort, 0);
    }
    // Stops the listener; its output.
    std::string StopNode()
    {
        if (m_nNode <= 0) return std::string();
        m_node.Signal(m_nNode, SIGTERM);
        EXPECT_EQ(0, m_node.WaitExit(m_nNode, 10000));
        m_nNode = -1;
        return ReadWholeFile(m_node.Root() + "/" + m_strNodeName + ".out");
    }
    ClusterLine Join(const std::string& strCode, const std::vector<std::string>& vExtra = {})
    {
        std::vector<std::string> vArgs = {"--ip", "127.0.0.1", "--port", std::to_string(m_nPort), "--local-ip",
                                          "127.0.0.1", "--wait-ms", std::to_string(NODE_WAIT_MS)};
        vArgs.insert(vArgs.end(), vExtra.begin(), vExtra.end());
        return Cluster(m_box, strCode, vArgs, NODE_WAIT_MS + 30000);
    }
    std::string Copy(const std::string& strName) const { return m_node.DataDir() + strName; }
    // Commits nCount changes through the stand-in and waits until they are
    // on disk; the last timestamp.
    long long Commit(const std::string& strJournal, int nCount, int nSeed, int nBlocks = 24)
    {
        std::string strOut;
        EXPECT_EQ(0, m_box.Run({PeerPath(), "data", "--journal", strJournal, "--live", "--count", std::to_string(nCount),
                                "--pause-us", "0", "--blocks", std::to_string(nBlocks), "--seed", std::to_string(nSeed)},
                               120000, &strOut))
            << strOut;
        long long nLast = NumberAfter(strOut, "last timestamp ");
        EXPECT_TRUE(WaitUntil([&] { return CommittedOnDisk(Path("System.dbf")) >= nLast; }, 30000, 50));
        return nLast;
    }
    void ExpectCopiesEqualPrimary(const std::vector<std::string>& vNames = CLUSTER_DB_FILES)
    {
        for (const std::string& strName : vNames) {
            SCOPED_TRACE(strName);
            std::string strPrimary = ReadWholeFile(Path(strName));
            std::string strCopy = ReadWholeFile(Copy(strName));
            if (strName == "System.dbf") {
                strPrimary = WithoutPaths(strPrimary);
                strCopy = WithoutPaths(strCopy);
            }
            ASSERT_FALSE(strPrimary.empty());
            ASSERT_EQ(strPrimary.size(), strCopy.size());
            size_t nDiff = 0;
            while (nDiff < strPrimary.size() && strPrimary[nDiff] == strCopy[nDiff]) nDiff++;
            EXPECT_EQ(strPrimary.size(), nDiff) << "first difference at " << nDiff;
        }
    }
    // A second daemon on the copy, in the second sandbox: it comes up, the
    // offline check finds every image equal to its file, under the copy's
    // directory.
    void StartSecondDaemonOnCopy()
    {
        WriteDbIni(m_node, Copy(""), "persistenceintervals=1\r\n");
        m_nSecond = m_node.StartServing();
        ASSERT_GT(m_nSecond, 0) << m_node.ReadDaemonTrace() << ReadWholeFile(m_node.Root() + "/daemon.out");
        Inspection st = Inspect(m_node, Copy(""));
        ASSERT_TRUE(st.m_bRan) << st.m_strText;
        EXPECT_TRUE(st.m_bSystemImage) << st.m_strText;
        EXPECT_EQ(std::string::npos, st.m_strText.find("filelist=damaged")) << st.m_strText;
        ASSERT_EQ(CLUSTER_DB_FILES.size(), st.m_mapFiles.size()) << st.m_strText;
        for (const auto& kv : st.m_mapFiles) {
            SCOPED_TRACE(kv.second.m_strPath);
            EXPECT_TRUE(kv.second.m_bImage);
            // The system head's image moves with the running daemon; every
            // other image is its file as loaded.
            if (kv.first != 1) {
                EXPECT_EQ(-1, kv.second.m_nFirstDiff);
            }
            EXPECT_EQ(-1, kv.second.m_nFirstNonZero);
            EXPECT_EQ(0u, kv.second.m_strPath.rfind(Copy(""), 0)) << "a file of the copy names another directory";
        }
    }
    void ExpectVerified(const std::string& strJournal, long long nAtLeast)
    {
        std::string strVerify;
        EXPECT_EQ(0, m_node.Run({PeerPath(), "verify", "--journal", strJournal, "--system", Copy("System.dbf"),
                                 "--at-least", std::to_string(nAtLeast)},
                                60000, &strVerify))
            << strVerify;
        EXPECT_NE(std::string::npos, strVerify.find("violations: 0")) << strVerify;
    }

    DaemonSandbox m_node;
    pid_t m_nNode = -1, m_nSecond = -1;
    int m_nPort = 0;
    std::string m_strNodeName;
};

} // namespace

TEST_F(NodeJoin, ASlaveJoinCopiesEveryFileByteForByteAndASecondDaemonComesUpOnIt)
{
    StartPrimary();
    std::string strJournal = m_box.Root() + "/journal";
    long long nLast = Commit(strJournal, 300, 21, GROWN_BLOCKS);
    StartNode({"--exit-after-join"});
    ClusterLine st = Join("11");
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ("finished", st.m_strOutcome);
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    // The trace is written by its own thread: the line may follow the
    // command's end.
    EXPECT_TRUE(m_box.WaitForTrace("90001030", TRACE_LINE_WAIT_MS)) << m_box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, m_box.ReadDaemonTrace().find("10012002")) << m_box.ReadDaemonTrace();
    // The engine saw the copy move and end at its total.
    long long nTotal = FieldOf(st.m_strText, "progress_total");
    EXPECT_GE(nTotal, 100);
    EXPECT_EQ(nTotal, FieldOf(st.m_strText, "progress_max")) << st.m_strText;
    EXPECT_GE(FieldOf(st.m_strText, "titles_seen"), 2) << st.m_strText;
    ASSERT_EQ(0, m_node.WaitExit(m_nNode, 10000));
    m_nNode = -1;
    std::string strNode = ReadWholeFile(m_node.Root() + "/join.out");
    EXPECT_EQ(4, NumberAfter(strNode, "joined slave: files ")) << strNode;
    EXPECT_EQ(0, NumberAfter(strNode, "refused ")) << strNode;
    ExpectCopiesEqualPrimary();
    // The data file was sent in more than one piece.
    EXPECT_GT(NumberAfter(Inspect(m_box, m_box.DataDir()).m_strText, "file=2 type=2 image=yes size=16777216 imagesize=16777216 free="),
              (long long)JOIN_BUFFER_SIZE);
    StartSecondDaemonOnCopy();
    ExpectVerified(strJournal, nLast);
    ExpectServing(true);
}

TEST_F(NodeJoin, AJoinWhileTheStandInCommitsHoldsAWholeCommit)
{
    StartPrimary();
    std::string strJournal = m_box.Root() + "/journal";
    Commit(strJournal, 100, 22);
    pid_t nData = m_box.Spawn({PeerPath(), "data", "--journal", strJournal, "--live", "--count", "100000", "--seconds",
                               "8", "--pause-us", "500", "--blocks", "24", "--seed", "23"},
                              "data");
    ASSERT_GT(nData, 0);
    usleep(1500000);
    long long nBefore = CommittedOnDisk(Path("System.dbf"));
    StartNode({"--exit-after-join"});
    ClusterLine st = Join("11");
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("90001030"));
    // The engine went on committing through the join.
    EXPECT_EQ(0, m_box.WaitExit(nData, 60000)) << ReadWholeFile(m_box.Root() + "/data.out");
    EXPECT_GT(NumberAfter(ReadWholeFile(m_box.Root() + "/data.out"), "last timestamp "), nBefore);
    long long nCopied = CommittedOnDisk(Copy("System.dbf"));
    EXPECT_GE(nCopied, nBefore);
    StartSecondDaemonOnCopy();
    ExpectVerified(strJournal, nCopied);
    ExpectServing(true);
}

TEST_F(NodeJoin, AJoinedStandbyIsShippedTheLogFromItsPosition)
{
    std::string strArchive = m_box.Root() + "/Archive/";
    StartPrimary("archivetype=1\r\narchivedespath=" + strArchive + "\r\n", {"--data-file", "8", "--btree-file", "4",
                                                                           "--kv-file", "4", "--redo-groups", "3"});
    std::string strOut;
    ASSERT_EQ(0, m_box.Run({PeerPath(), "redo", "--records", "300", "--seed", "3", "--max-size", "200000", "--seal-at",
                            "100,200"},
                           240000, &strOut))
        << strOut;
    long long nLogNo = NumberAfter(strOut, "logno="), nLogPos = NumberAfter(strOut, "logpos=");
    ASSERT_GT(nLogNo, 0);
    StartNode({});
    // The stand-in goes on committing while the files are copied.
    pid_t nRedo = m_box.Spawn({PeerPath(), "redo", "--records", "300", "--seed", "4", "--max-size", "200000",
                               "--seal-at", "150"},
                              "redo");
    ClusterLine st = Join("10", {"--log-no", std::to_string(nLogNo), "--log-pos", std::to_string(nLogPos)});
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("90007030")) << m_box.ReadDaemonTrace();
    ASSERT_EQ(0, m_box.WaitExit(nRedo, 240000));
    std::string strAfter = ReadWholeFile(m_box.Root() + "/redo.out");
    long long nLastLog = NumberAfter(strAfter, "logno="), nLastPos = NumberAfter(strAfter, "logpos=");
    ASSERT_GT(nLastLog, nLogNo);
    // The log moved the system head on since; the other files stand still.
    ExpectCopiesEqualPrimary({"Data2.dbf", "BTree3.dbf", "KV4.dbf"});
    // Shipping goes on from the position the join gave.
    ClusterLine stAdd = Cluster(m_box, "18", {"--ip", "127.0.0.1", "--port", std::to_string(m_nPort), "--local-ip",
                                              "127.0.0.1"});
    ASSERT_EQ(0, stAdd.m_nResult) << stAdd.m_strText;
    std::string strLogs = Copy("StandbyLog/");
    std::string strLast = strLogs + "Log" + std::to_string(nLastLog) + ".log";
    ASSERT_TRUE(WaitUntil([&] { return (long long)ReadWholeFile(strLast).size() >= nLastPos; }, 60000, 50))
        << m_box.ReadDaemonTrace();
    for (long long n = nLogNo; n <= nLastLog; n++) {
        SCOPED_TRACE(n);
        std::string strPrimary = PrimaryLog(strArchive, m_box.DataDir(), 3, n);
        std::string strCopy = ReadWholeFile(strLogs + "Log" + std::to_string(n) + ".log");
        size_t nFrom = n == nLogNo ? (size_t)nLogPos : (size_t)REDOLOGFILE_HEAD_SIZE;
        // The join may seal the log it names before the stand-in's next
        // record reaches it: then that log, archived whole, ends at the
        // position and there is nothing of it to ship.
        if (n == nLogNo && strPrimary.size() == nFrom) {
            EXPECT_LE(strCopy.size(), nFrom);
            continue;
        }
        ASSERT_GT(strCopy.size(), nFrom);
        ASSERT_GE(strPrimary.size(), strCopy.size());
        EXPECT_TRUE(strCopy.compare(nFrom, std::string::npos, strPrimary, nFrom, strCopy.size() - nFrom) == 0);
        // Nothing before the position was shipped: the join's copy holds it.
        if (n == nLogNo) {
            EXPECT_EQ(std::string(nFrom, '\0'), strCopy.substr(0, nFrom));
        }
    }
}

// A receiver that misbehaves: each case differs only by the misbehaviour
// and the trace the join ends with. A connection broken in the middle of a
// file repeats the file, and too many breaks end the join; a foreign reply
// is read off; a huge payload, a failure and silence end the join in
// bounded time. The daemon serves after each.
TEST_F(NodeJoin, MisbehavingReceiversEndTheJoinWithATraceAndTheDaemonServes)
{
    StartPrimary();
    Commit(m_box.Root() + "/journal", 100, 24);
    struct Case {
        const char* m_lpMode;
        int m_nTimes;                   // 0: the listener's default
        std::vector<const char*> m_vCodes;  // in the trace after the join
        bool m_bJoined;
        int m_nMisbehaved;              // -1: not counted
    };
    const Case arCases[] = {
        {"close", 2, {"90002031"}, true, 2},
        {"close", 1000, {"90002030", "10012002"}, false, 1 + JOIN_FILE_REPEATS},
        {"foreign-payload", 0, {}, true, -1},
        {"huge-payload", 0, {"90006001"}, false, -1},
        {"fail", 0, {"90002004"}, false, -1},
        {"silent", 0, {"90002020"}, false, -1},
    };
    size_t nJoined = 0;
    for (const Case& c : arCases) {
        SCOPED_TRACE(std::string(c.m_lpMode) + " " + std::to_string(c.m_nTimes));
        std::vector<std::string> vArgs = {"--misbehave", c.m_lpMode};
        if (c.m_nTimes > 0) vArgs.insert(vArgs.end(), {"--times", std::to_string(c.m_nTimes)});
        StartNode(vArgs, std::string("node-") + c.m_lpMode + std::to_string(c.m_nTimes));
        long long nStart = NowMs();
        ClusterLine st = Join("11");
        ASSERT_EQ(0, st.m_nExit) << st.m_strText;
        EXPECT_LT(NowMs() - nStart, 80000);
        EXPECT_EQ(0, st.m_nFinal);
        EXPECT_EQ(0, st.m_nCmdForbid);
        for (const char* lpCode : c.m_vCodes)
            EXPECT_TRUE(m_box.WaitForTrace(lpCode, TRACE_LINE_WAIT_MS)) << lpCode << m_box.ReadDaemonTrace();
        std::string strNode = StopNode();
        EXPECT_EQ(c.m_bJoined, strNode.find("joined slave: files 4 ") != std::string::npos) << strNode;
        if (c.m_nMisbehaved >= 0) {
            EXPECT_EQ(c.m_nMisbehaved, NumberAfter(strNode, "misbehaved ")) << strNode;
        }
        if (c.m_bJoined) {
            nJoined++;
            ExpectCopiesEqualPrimary();
        }
        ExpectServing(true);
    }
    WaitUntil([&] { return CountOf(m_box.ReadDaemonTrace(), "90001030") >= nJoined; }, TRACE_LINE_WAIT_MS, 20);
    EXPECT_EQ(nJoined, CountOf(m_box.ReadDaemonTrace(), "90001030"));
}

// A stop asked while a join waits on a node that said nothing is seen at
// the join's next slice: the daemon ends well inside the reply's time-out.
TEST_F(NodeJoin, AStopDuringAJoinEndsItAndTheDaemonExitsInTime)
{
    StartPrimary();
    Commit(m_box.Root() + "/journal", 50, 27);
    StartNode({"--misbehave", "silent"});
    pid_t nCluster = m_box.Spawn({PeerPath(), "cluster", "11", "--ip", "127.0.0.1", "--port", std::to_string(m_nPort),
                                  "--local-ip", "127.0.0.1", "--wait-ms", "60000"},
                                 "cluster");
    ASSERT_GT(nCluster, 0);
    ASSERT_TRUE(m_box.WaitForTrace("90001001", 20000)) << m_box.ReadDaemonTrace();
    usleep(1000000);
    long long nStart = NowMs();
    m_box.Signal(m_pid, SIGTERM);
    EXPECT_EQ(0, m_box.WaitExit(m_pid, 20000)) << m_box.ReadDaemonTrace();
    EXPECT_LT(NowMs() - nStart, (long long)JOIN_REPLY_WAIT_S * 1000);
    m_pid = -1;
    m_box.WaitExit(nCluster, 70000);
}

namespace {

// The sending side of a join, as a hostile or an honest node would speak
// it: one connection, whole messages, replies read with a deadline.
class JoinSender {
public:
    explicit JoinSender(int nPort)
    {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_port = htons((USHORT)nPort);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd >= 0 && connect(m_fd, (struct sockaddr*)&sa, sizeof(sa)) != 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    ~JoinSender()
    {
        if (m_fd >= 0) close(m_fd);
    }
    bool Ok() const { return m_fd >= 0; }
    bool SendInfo(BYTE bToken, const std::string& strPath, long long nSize, long long nFree, BYTE bFileNo = 2)
    {
        MF_MASTERSLAVE_FILEINFO stInfo;
        memset(&stInfo, 0, sizeof(stInfo));
        stInfo.m_bFileType = FILETYPE_DATA;
        stInfo.m_bFileNo = bFileNo;
        stInfo.m_nFileSize = nSize;
        stInfo.m_nFileFreeMemoryOffset = nFree;
        memcpy(stInfo.m_lpszFilePath, strPath.data(), std::min(strPath.size(), sizeof(stInfo.m_lpszFilePath)));
        return Send(bToken, FILETRANSFER_INFO, bFileNo, 0, std::string((const char*)&stInfo, sizeof(stInfo)));
    }
    bool SendPiece(BYTE bToken, BYTE bDataType, long long nOffset, const std::string& strData, BYTE bFileNo = 2)
    {
        return Send(bToken, bDataType, bFileNo, nOffset, strData);
    }
    // The next reply's type, or -1 when the node closed or said nothing.
    int Reply(BYTE bToken)
    {
        MF_SERVICE_TCP_COMMAND stReply;
        size_t nGot = 0;
        while (nGot < sizeof(stReply)) {
            struct pollfd stPoll = {m_fd, POLLIN, 0};
            if (poll(&stPoll, 1, 5000) != 1) return -1;
            ssize_t n = recv(m_fd, (char*)&stReply + nGot, sizeof(stReply) - nGot, 0);
            if (n <= 0) return -1;
            nGot += (size_t)n;
        }
        return stReply.m_bToken == bToken ? stReply.m_bType : -1;
    }
    // Whether the node has closed the connection (within 5 s).
    bool Closed()
    {
        char c;
        struct pollfd stPoll = {m_fd, POLLIN, 0};
        return poll(&stPoll, 1, 5000) == 1 && recv(m_fd, &c, 1, 0) <= 0;
    }

private:
    bool Send(BYTE bToken, BYTE bDataType, BYTE bFileNo, long long nOffset, const std::string& strPayload)
    {
        MF_SERVICE_TCP_COMMAND stHead;
        memset(&stHead, 0, sizeof(stHead));
        stHead.m_bVersion = NODEMSG_VERSION;
        stHead.m_bType = NODEMSG_FILETRANSFER;
        stHead.m_bToken = bToken;
        stHead.m_lDataLength = (UINT)strPayload.size();
        MF_CLUSTER_FILETRANSFER stParam;
        memset(&stParam, 0, sizeof(stParam));
        stParam.m_bFileNo = bFileNo;
        stParam.m_bDataType = bDataType;
        stParam.m_llFileOffset = nOffset;
        memcpy(stHead.m_lpszParam, &stParam, sizeof(stParam));
        std::string strAll = std::string((const char*)&stHead, sizeof(stHead)) + strPayload;
        return send(m_fd, strAll.data(), strAll.size(), MSG_NOSIGNAL) == (ssize_t)strAll.size();
    }
    int m_fd = -1;
};

const long long HOSTILE_FILE = 1048576;

} // namespace

// Nothing a sender says makes the node write outside its directory or past
// its bounds: each refusal is a failure reply and a closed connection, and
// the node goes on serving the next connection.
TEST_F(NodeJoin, HostileSendersAreRefusedAndNothingLandsOutsideTheNodesDirectory)
{
    StartNode({"--max-file-size", "8388608", "--max-piece", "65536"});
    struct Refusal {
        const char* m_lpWhat;
        std::string m_strPath;
        long long m_nSize, m_nFree;
    };
    const std::vector<Refusal> vInfos = {
        {"climbing path", "../../escape.dbf", HOSTILE_FILE, 0},
        {"climbing in the middle", "/tmp/x/../../escape.dbf", HOSTILE_FILE, 0},
        {"name with a newline", "/tmp/esc\nape.dbf", HOSTILE_FILE, 0},
        {"path without an end", std::string(300, 'a'), HOSTILE_FILE, 0},
        {"no name", "/tmp/dir/", HOSTILE_FILE, 0},
        {"size past the bound", "/tmp/escape.dbf", 1LL << 40, 0},
        {"used bytes past the size", "/tmp/escape.dbf", HOSTILE_FILE, HOSTILE_FILE + 512},
        {"negative size", "/tmp/escape.dbf", -4096, 0},
    };
    for (const Refusal& r : vInfos) {
        SCOPED_TRACE(r.m_lpWhat);
        JoinSender sender(m_nPort);
        ASSERT_TRUE(sender.Ok());
        ASSERT_TRUE(sender.SendInfo(7, r.m_strPath, r.m_nSize, r.m_nFree));
        EXPECT_EQ(NODEMSG_FAILURE, sender.Reply(7));
        EXPECT_TRUE(sender.Closed());
    }
    struct BadPiece {
        const char* m_lpWhat;
        BYTE m_bType;
        long long m_nOffset;
        size_t m_nLength;
        BYTE m_bFileNo;
    };
    const std::vector<BadPiece> vPieces = {
        {"piece at the wrong offset", FILETRANSFER_LAST, 512, 488, 2},
        {"piece past the used bytes", FILETRANSFER_LAST, 0, 2000, 2},
        {"piece past the largest piece", FILETRANSFER_DATA, 0, 65537, 2},
        {"last piece short of the used bytes", FILETRANSFER_LAST, 0, 500, 2},
        {"piece of another file", FILETRANSFER_LAST, 0, 1000, 3},
    };
    for (const BadPiece& b : vPieces) {
        SCOPED_TRACE(b.m_lpWhat);
        JoinSender sender(m_nPort);
        ASSERT_TRUE(sender.Ok());
        ASSERT_TRUE(sender.SendInfo(8, "/primary/Data/Good.dbf", HOSTILE_FILE, 1000));
        ASSERT_EQ(NODEMSG_SUCCESS, sender.Reply(8));
        sender.SendPiece(8, b.m_bType, b.m_nOffset, std::string(b.m_nLength, 'x'), b.m_bFileNo);
        EXPECT_EQ(NODEMSG_FAILURE, sender.Reply(8));
        EXPECT_TRUE(sender.Closed());
    }
    // Honest files still go in: one with no used bytes gets both its
    // replies at once; one with used bytes gets the second after its last
    // piece, and lies in the node's directory at its full size.
    {
        JoinSender sender(m_nPort);
        ASSERT_TRUE(sender.Ok());
        ASSERT_TRUE(sender.SendInfo(9, "/primary/Data/Empty.dbf", HOSTILE_FILE, 0, 5));
        EXPECT_EQ(NODEMSG_SUCCESS, sender.Reply(9));
        EXPECT_EQ(NODEMSG_SUCCESS, sender.Reply(9));
        std::string strPattern(1000, '\0');
        for (size_t i = 0; i < strPattern.size(); i++) strPattern[i] = (char)(i * 131 + 7);
        ASSERT_TRUE(sender.SendInfo(10, "/primary/Data/Good.dbf", HOSTILE_FILE, 1000));
        EXPECT_EQ(NODEMSG_SUCCESS, sender.Reply(10));
        ASSERT_TRUE(sender.SendPiece(10, FILETRANSFER_LAST, 0, strPattern));
        EXPECT_EQ(NODEMSG_SUCCESS, sender.Reply(10));
        std::string strGood = ReadWholeFile(Copy("Good.dbf"));
        ASSERT_EQ((size_t)HOSTILE_FILE, strGood.size());
        EXPECT_EQ(strPattern, strGood.substr(0, 1000));
        EXPECT_EQ(std::string(HOSTILE_FILE - 1000, '\0'), strGood.substr(1000));
        EXPECT_EQ(std::string(HOSTILE_FILE, '\0'), ReadWholeFile(Copy("Empty.dbf")));
    }
    std::string strNode = StopNode();
    EXPECT_EQ((long long)(vInfos.size() + vPieces.size()), NumberAfter(strNode, "refused ")) << strNode;
    // Nothing named by a refused information exists anywhere near.
    for (const std::string& strWhere : {m_node.Root() + "/escape.dbf", m_node.Root() + "/Data/escape.dbf",
                                        Copy("escape.dbf"), std::string("/tmp/escape.dbf"), std::string("/escape.dbf")}) {
        struct stat st;
        EXPECT_NE(0, stat(strWhere.c_str(), &st)) << strWhere;
    }
    EXPECT_EQ(std::set<std::string>({"Empty.dbf", "Good.dbf", "StandbyLog"}), [&] {
        std::set<std::string> setNames;
        for (const std::string& strPath : ListFiles(Copy(""))) setNames.insert(strPath.substr(strPath.rfind('/') + 1));
        return setNames;
    }());
}
