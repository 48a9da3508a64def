// ClusterKit.h — what the end-to-end tests of cluster commands and backups
// share: a running daemon on a small database, the stand-in's cluster and
// backup jobs run and their lines read back, the port a node listener took,
// and the daemon's open database files.
#pragma once

#include "DatabaseLoadKit.h"

#include <dirent.h>

namespace talvortest {

const int CLUSTER_WAIT_MS = 60000;
// head_forbid of a report when there is no system image.
const int CLUSTER_NO_HEAD_SEEN = -1;
const std::vector<std::string> CLUSTER_DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};

// One line of the cluster or backup job, its fields read.
struct ClusterLine {
    int m_nExit = -2;
    std::string m_strOutcome;
    long long m_nFinal = -3, m_nResult = -3, m_nCmdForbid = -3, m_nHeadForbid = -3, m_nStandby = -3, m_nTs = -3;
    std::string m_strPath;
    std::string m_strText;  // the whole output
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

inline ClusterLine Look(DaemonSandbox& box) { return Cluster(box, "look"); }

// talvor-peer backup ARGS...; the closing line read.
inline ClusterLine BackupJob(DaemonSandbox& box, std::vector<std::string> vArgs)
{
    vArgs.insert(vArgs.begin(), {"backup", "--progress-lines"});
    std::string strOut;
    int nExit = Peer(box, vArgs, &strOut, 600000);
    return ReadClusterLine(strOut, "backup ts=", nExit);
}

// talvor-peer backup --full ARGS...
inline ClusterLine Backup(DaemonSandbox& box, std::vector<std::string> vArgs)
{
    vArgs.insert(vArgs.begin(), "--full");
    return BackupJob(box, vArgs);
}

// The port a node listener of the stand-in, started by box.Spawn under
// strName, printed ("listening on port N"); 0 when none came within 5 s.
inline int ListenerPort(DaemonSandbox& box, const std::string& strName)
{
    long long nPort = 0;
    std::string strOut = box.Root() + "/" + strName + ".out";
    WaitUntil([&] { return (nPort = NumberAfter(ReadWholeFile(strOut), "listening on port ")) > 0; }, 5000, 10);
    return nPort > 0 ? (int)nPort : 0;
}

// The targets of the process's open descriptors that lie under strDir,
// each with how often it is open.
inline std::map<std::string, int> OpenFilesUnder(pid_t pid, const std::string& strDir)
{
    std::map<std::string, int> mapOpen;
    std::string strFd = "/proc/" + std::to_string(pid) + "/fd/";
    DIR* pDir = opendir(strFd.c_str());
    if (pDir == nullptr) return mapOpen;
    while (struct dirent* pEntry = readdir(pDir)) {
        char szTarget[4096];
        ssize_t n = readlink((strFd + pEntry->d_name).c_str(), szTarget, sizeof(szTarget) - 1);
        if (n <= 0) continue;
        szTarget[n] = '\0';
        if (strncmp(szTarget, strDir.c_str(), strDir.size()) == 0) mapOpen[szTarget]++;
    }
    closedir(pDir);
    return mapOpen;
}

// The primary's bytes of redo log nLogNo: its copy in the archive
// strArchive, or else the one of the nGroups groups in strDataDir that
// holds it; empty when neither does.
inline std::string PrimaryLog(const std::string& strArchive, const std::string& strDataDir, int nGroups, long long nLogNo)
{
    std::string strArchived = ReadWholeFile(strArchive + "ArchiveLog/Log" + std::to_string(nLogNo) + ".log");
    if (!strArchived.empty()) return strArchived;
    for (int g = 0; g < nGroups; g++) {
        std::string strFile = ReadWholeFile(strDataDir + "Redo/Redo" + std::to_string(g) + ".log");
        if ((long long)RedoHeadOf(strFile).m_nSequenceNO == nLogNo) return strFile;
    }
    return std::string();
}

} // namespace talvortest
