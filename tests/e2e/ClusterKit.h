// ClusterKit.h — what the end-to-end tests of cluster commands and backups
// share: a running daemon on a small database, the stand-in's cluster and
// backup jobs run and their lines read back, the port a node listener took.
#pragma once

#include "DatabaseLoadKit.h"

namespace talvortest {

const int CLUSTER_WAIT_MS = 60000;
const std::vector<std::string> CLUSTER_DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};

// One line of the cluster or backup job, its fields read.
// m_strText is the whole output.
struct ClusterLine {
    int m_nExit = -2;
    long long m_nFinal = -3, m_nResult = -3, m_nCmdForbid = -3, m_nHeadForbid = -3, m_nStandby = -3, m_nTs = -3;
    std::string m_strOutcome, m_strPath, m_strText;
};

inline std::string WordAfter(const std::string& strLine, const std::string& strKey)
{
    size_t n = strLine.find(" " + strKey + "=");
    if (n == std::string::npos) return std::string();
    size_t nStart = n + strKey.size() + 2;
    return strLine.substr(nStart, strLine.find(' ', nStart) - nStart);
}

// The last line of the output that begins with strPrefix, read.
inline ClusterLine ReadClusterLine(const std::string& strOut, const std::string& strPrefix, int nExit)
{
    ClusterLine st;
    st.m_nExit = nExit;
    st.m_strText = strOut;
    size_t nAt = std::string::npos;
    for (size_t p = strOut.find(strPrefix); p != std::string::npos; p = strOut.find(strPrefix, p + 1))
        if (p == 0 || strOut[p - 1] == '\n') nAt = p;
    if (nAt == std::string::npos) return st;
    std::string strLine = strOut.substr(nAt, strOut.find('\n', nAt) - nAt);
    st.m_strOutcome = WordAfter(strLine, "outcome");
    st.m_nFinal = FieldOf(strLine, "final");
    st.m_nResult = FieldOf(strLine, "result");
    st.m_nCmdForbid = FieldOf(strLine, "cmd_forbid");
    st.m_nHeadForbid = FieldOf(strLine, "head_forbid");
    st.m_nStandby = FieldOf(strLine, "standby");
    st.m_nTs = FieldOf(strLine, "ts");
    st.m_strPath = WordAfter(strLine, "path");
    return st;
}

// talvor-peer cluster CODE ARGS...; the report line read.
inline ClusterLine Cluster(DaemonSandbox& box, const std::string& strCode, const std::vector<std::string>& vArgs = {},
                           int nTimeoutMs = CLUSTER_WAIT_MS + 30000)
{
    std::vector<std::string> vCmd = {"cluster", strCode};
    vCmd.insert(vCmd.end(), vArgs.begin(), vArgs.end());
    std::string strOut;
    int nExit = Peer(box, vCmd, &strOut, nTimeoutMs);
    return ReadClusterLine(strOut, strCode == "look" ? "look " : "cluster ", nExit);
}

// talvor-peer backup ARGS...; the closing line read.
inline ClusterLine BackupJob(DaemonSandbox& box, std::vector<std::string> vArgs)
{
    vArgs.insert(vArgs.begin(), {"backup", "--progress-lines"});
    std::string strOut;
    int nExit = Peer(box, vArgs, &strOut, 600000);
    return ReadClusterLine(strOut, "backup ts=", nExit);
}

// A node listener of the stand-in (talvor-peer vCmd, on a port of its
// choosing) spawned in box under strName; its pid, and the port it printed
// ("listening on port N") within 5 s.
inline void SpawnListener(DaemonSandbox& box, std::vector<std::string> vCmd, const std::string& strName, pid_t* pPid,
                          int* pPort)
{
    vCmd.insert(vCmd.begin(), PeerPath());
    vCmd.insert(vCmd.begin() + 2, {"--port", "0", "--seconds", "600"});
    *pPid = box.Spawn(vCmd, strName);
    ASSERT_GT(*pPid, 0);
    std::string strOut = box.Root() + "/" + strName + ".out";
    WaitUntil([&] { return (*pPort = (int)NumberAfter(ReadWholeFile(strOut), "listening on port ")) > 0; }, 5000, 10);
    ASSERT_GT(*pPort, 0);
}
// Stops a listener spawned under strName; its output.
inline std::string StopListener(DaemonSandbox& box, pid_t* pPid, const std::string& strName)
{
    box.Signal(*pPid, SIGTERM);
    EXPECT_EQ(0, box.WaitExit(*pPid, 10000));
    *pPid = -1;
    return ReadWholeFile(box.Root() + "/" + strName + ".out");
}
// The arguments of a cluster command that name the node at nPort here.
inline std::vector<std::string> NodeAt(int nPort, std::vector<std::string> vMore = {})
{
    vMore.insert(vMore.begin(), {"--ip", "127.0.0.1", "--port", std::to_string(nPort), "--local-ip", "127.0.0.1"});
    return vMore;
}

// A standby's copies in strCopies of logs 1 to nLastLog, the last it holds,
// equal the primary's (its copy in the archive strArchive, or else the
// group in strDataDir that holds it) from the head's end on; a log before
// the last is copied whole.
inline void ExpectShippedLogs(const std::string& strCopies, const std::string& strArchive, const std::string& strDataDir,
                              long long nLastLog)
{
    std::map<int, std::string> mapCopies = LogsIn(strCopies);
    ASSERT_FALSE(mapCopies.empty());
    EXPECT_EQ(nLastLog, mapCopies.rbegin()->first);
    const size_t nFrom = REDOLOGFILE_HEAD_SIZE;
    for (long long n = 1; n <= nLastLog; n++) {
        SCOPED_TRACE(n);
        std::string strPrimary = ReadWholeFile(strArchive + "ArchiveLog/Log" + std::to_string(n) + ".log");
        for (int g = 0; g < 3 && strPrimary.empty(); g++) {
            std::string strFile = ReadWholeFile(strDataDir + "Redo/Redo" + std::to_string(g) + ".log");
            if ((long long)RedoHeadOf(strFile).m_nSequenceNO == n) strPrimary = strFile;
        }
        const std::string& strCopy = mapCopies[(int)n];
        ASSERT_GT(strCopy.size(), nFrom);
        ASSERT_GE(strPrimary.size(), strCopy.size());
        EXPECT_TRUE(strCopy.compare(nFrom, std::string::npos, strPrimary, nFrom, strCopy.size() - nFrom) == 0);
        if (n < nLastLog) {
            EXPECT_EQ((size_t)RedoHeadOf(strPrimary).m_nEffectiveSize, strCopy.size()) << "not whole";
        }
    }
}

} // namespace talvortest
