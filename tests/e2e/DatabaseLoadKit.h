// DatabaseLoadKit.h — what the end-to-end tests of a running daemon share:
// a database made by talvor-mkdb in the sandbox, an ini that runs it, and a
// look at the daemon's images from inside its namespace (talvor-mkdb
// --inspect and --dump-image).
#pragma once

#include "DaemonSandbox.h"
#include "DbFileLayout.h"
#include "PackedValue.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace talvortest {

// A look at the daemon's trace files costs a read of each.
const int TRACE_POLL_MS = 20;
const long long E2E_MIB = 1048576;

inline std::string MkdbPath() { return std::string(TALVOR_BIN_DIR) + "/talvor-mkdb"; }
inline std::string PeerPath() { return std::string(TALVOR_BIN_DIR) + "/talvor-peer"; }


// The number that follows strKey in a program's output, or -1.
inline long long NumberAfter(const std::string& strOut, const std::string& strKey)
{
    size_t n = strOut.find(strKey);
    return n == std::string::npos ? -1 : atoll(strOut.c_str() + n + strKey.size());
}

// talvor-mkdb --dir strDir with the given file arguments; small redo
// groups keep the sandbox small.
inline int MakeDb(DaemonSandbox& box, const std::string& strDir, const std::vector<std::string>& vArgs,
                  std::string* pOutput = nullptr)
{
    std::vector<std::string> vCmd = {MkdbPath(), "--dir", strDir, "--redo-size", "1"};
    vCmd.insert(vCmd.end(), vArgs.begin(), vArgs.end());
    return box.Run(vCmd, 60000, pOutput);
}

// An ini that runs a database with a shared cache of nCacheMiB (none by
// default) and a small undo area; strExtra goes into [System].
inline void WriteDbIni(DaemonSandbox& box, const std::string& strDatabasePath, const std::string& strExtra = "",
                       int nCacheMiB = 0)
{
    box.WriteIni("[System]\r\ndatabasepath=" + strDatabasePath + "\r\nLanguage=0\r\nbuffercachesize=" +
                 std::to_string(nCacheMiB) + "\r\nundoareasize=16\r\npersistenceintervals=3\r\n" + strExtra);
}

struct InspectedFile {
    bool m_bImage = false;
    long long m_nImageSize = -1, m_nLoadSize = -1, m_nFirstDiff = -2, m_nFirstNonZero = -2;
    std::string m_strPath;
};

struct Inspection {
    bool m_bRan = false;
    bool m_bSystemImage = false;
    int m_nSystemStatus = -1;
    std::map<int, InspectedFile> m_mapFiles;
    std::string m_strText;
};

inline long long FieldOf(const std::string& strLine, const std::string& strKey)
{
    size_t n = strLine.find(" " + strKey + "=");
    if (n == std::string::npos) return -3;
    return atoll(strLine.c_str() + n + strKey.size() + 2);
}

inline Inspection Inspect(DaemonSandbox& box, const std::string& strDir)
{
    Inspection st;
    st.m_bRan = box.Run({MkdbPath(), "--inspect", strDir}, 30000, &st.m_strText) == 0;
    std::istringstream in(st.m_strText);
    std::string strLine;
    while (std::getline(in, strLine)) {
        if (strLine.rfind("system image=yes", 0) == 0) {
            st.m_bSystemImage = true;
            st.m_nSystemStatus = (int)FieldOf(strLine, "status");
        } else if (strLine.rfind("file=", 0) == 0) {
            InspectedFile f;
            int nFileNo = atoi(strLine.c_str() + 5);
            f.m_bImage = strLine.find(" image=yes") != std::string::npos;
            f.m_nImageSize = FieldOf(strLine, "imagesize");
            f.m_nLoadSize = FieldOf(strLine, "loadsize");
            f.m_nFirstDiff = FieldOf(strLine, "firstdiff");
            f.m_nFirstNonZero = FieldOf(strLine, "firstnonzeroafterfree");
            size_t nPath = strLine.find(" path=");
            if (nPath != std::string::npos) f.m_strPath = strLine.substr(nPath + 6);
            st.m_mapFiles[nFileNo] = f;
        }
    }
    return st;
}

// The bytes of file bFileNo's image, or empty when there is none.
inline std::string DumpImage(DaemonSandbox& box, int nFileNo)
{
    std::string strOut = box.Root() + "/image" + std::to_string(nFileNo) + ".bin";
    unlink(strOut.c_str());
    if (box.Run({MkdbPath(), "--dump-image", std::to_string(nFileNo), strOut}, 30000) != 0) return std::string();
    std::string strData = ReadWholeFile(strOut);
    unlink(strOut.c_str());
    return strData;
}

// Data in a memory-mode file from its used end to nUsedTo, the free offset
// moved there. The bytes depend on the offset and are never 0, so a shifted
// or missing piece shows.
inline void FillDataFile(const std::string& strPath, long long nUsedTo)
{
    std::string strFile = ReadWholeFile(strPath);
    ASSERT_GT((long long)strFile.size(), nUsedTo);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)&strFile[0];
    for (long long i = lpHead->m_nFileFreeMemoryOffset; i < nUsedTo; i++)
        strFile[(size_t)i] = (char)((((i * 131) >> 9) + (i >> 17) + 3) | 1);
    lpHead->m_nFileFreeMemoryOffset = nUsedTo;
    ASSERT_TRUE(WriteWholeFile(strPath, strFile));
}

// The head of a redo log file's bytes (zero when it is too short to hold one).
inline MF_REDOLOGFILEHEAD RedoHeadOf(const std::string& strFile)
{
    MF_REDOLOGFILEHEAD stHead;
    memset(&stHead, 0, sizeof(stHead));
    if (strFile.size() >= sizeof(stHead)) memcpy(&stHead, strFile.data(), sizeof(stHead));
    return stHead;
}

// Log number to bytes of every file "LogN.log" in strDir (an archive's
// ArchiveLog/, a standby's copies).
inline std::map<int, std::string> LogsIn(const std::string& strDir)
{
    std::map<int, std::string> mapLogs;
    for (const std::string& strPath : ListFiles(strDir, "Log")) {
        size_t n = strPath.rfind("/Log");
        if (n != std::string::npos) mapLogs[atoi(strPath.c_str() + n + 4)] = ReadWholeFile(strPath);
    }
    return mapLogs;
}

// Every file of a directory by name, with its bytes.
inline std::map<std::string, std::string> Snapshot(const std::string& strDir, const std::vector<std::string>& vNames)
{
    std::map<std::string, std::string> mapFiles;
    for (const std::string& strName : vNames) mapFiles[strName] = ReadWholeFile(strDir + strName);
    return mapFiles;
}

// Offset of the first byte where two files differ, or -1.
inline long long FirstDiffAt(const std::string& a, const std::string& b)
{
    size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; i++)
        if (a[i] != b[i]) return (long long)i;
    return a.size() == b.size() ? -1 : (long long)n;
}

// SIGTERM, and true once the process ended with status 0.
inline bool StopDaemon(DaemonSandbox& box, pid_t pid)
{
    box.Signal(pid, SIGTERM);
    return box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS) == 0;
}

// talvor-peer verify (exit 0: no violation): the files of the system file
// strSystem hold what the data job's journal committed, up to at least
// nAtLeast, exactly with bExact. Its output.
inline std::string VerifyJournal(DaemonSandbox& box, const std::string& strJournal, const std::string& strSystem,
                                 long long nAtLeast = 0, bool bExact = false)
{
    std::vector<std::string> vCmd = {PeerPath(), "verify", "--journal", strJournal, "--system", strSystem,
                                     "--at-least", std::to_string(nAtLeast)};
    if (bExact) vCmd.push_back("--exact");
    std::string strOut;
    EXPECT_EQ(0, box.Run(vCmd, 60000, &strOut)) << strOut;
    return strOut;
}

// The joined text of the daemon's trace files in strDir, in name order.
inline std::string DaemonTraceIn(const std::string& strDir)
{
    std::string strAll;
    for (const std::string& strFile : ListFiles(strDir, "TalvorStorage")) strAll += ReadWholeFile(strFile);
    return strAll;
}

} // namespace talvortest
