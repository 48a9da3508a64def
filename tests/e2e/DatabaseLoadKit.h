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
#include <cstring>
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

inline std::string ToolPath(const std::string& strName) { return std::string(TALVOR_BIN_DIR) + "/" + strName; }
inline std::string MkdbPath() { return ToolPath("talvor-mkdb"); }
inline std::string PeerPath() { return ToolPath("talvor-peer"); }

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

// talvor-peer ARGS... run to its end in the sandbox: its exit status.
inline int Peer(DaemonSandbox& box, std::vector<std::string> vArgs, std::string* pOut = nullptr, int nTimeoutMs = 240000)
{
    vArgs.insert(vArgs.begin(), PeerPath());
    return box.Run(vArgs, nTimeoutMs, pOut);
}

// An ini that runs a database with a shared cache of nCacheMiB (none by
// default) and a small undo area; strExtra goes into [System].
inline void WriteDbIni(DaemonSandbox& box, const std::string& strDatabasePath, const std::string& strExtra = "",
                       int nCacheMiB = 0)
{
    box.WriteIni("[System]\r\ndatabasepath=" + strDatabasePath + "\r\nLanguage=0\r\nbuffercachesize=" +
                 std::to_string(nCacheMiB) + "\r\nundoareasize=16\r\npersistenceintervals=3\r\n" + strExtra);
}

// What talvor-mkdb --inspect tells of the system image and of each file
// (-3: a field it did not give).
struct InspectedFile {
    bool m_bImage = false;
    long long m_nImageSize = -3, m_nLoadSize = -3, m_nFirstDiff = -3, m_nFirstNonZero = -3;
    std::string m_strPath;
};
struct Inspection {
    bool m_bRan = false, m_bSystemImage = false;
    int m_nSystemStatus = -1;
    std::map<int, InspectedFile> m_mapFiles;
    std::string m_strText;
};

inline long long FieldOf(const std::string& strLine, const std::string& strKey)
{
    size_t n = strLine.find(" " + strKey + "=");
    return n == std::string::npos ? -3 : atoll(strLine.c_str() + n + strKey.size() + 2);
}

inline Inspection Inspect(DaemonSandbox& box, const std::string& strDir)
{
    Inspection st;
    st.m_bRan = box.Run({MkdbPath(), "--inspect", strDir}, 30000, &st.m_strText) == 0;
    std::istringstream in(st.m_strText);
    std::string l;
    while (std::getline(in, l)) {
        if (l.rfind("system image=yes", 0) == 0) {
            st.m_bSystemImage = true;
            st.m_nSystemStatus = (int)FieldOf(l, "status");
        } else if (l.rfind("file=", 0) == 0) {
            size_t nPath = l.find(" path=");
            st.m_mapFiles[atoi(l.c_str() + 5)] = {l.find(" image=yes") != std::string::npos, FieldOf(l, "imagesize"),
                                                  FieldOf(l, "loadsize"), FieldOf(l, "firstdiff"),
                                                  FieldOf(l, "firstnonzeroafterfree"),
                                                  nPath == std::string::npos ? "" : l.substr(nPath + 6)};
        }
    }
    return st;
}

// The bytes of file nFileNo's image, or empty when there is none.
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

// A record of type T at nAt of the bytes; zeros when they end before it does.
template <class T>
T RecordIn(const std::string& s, size_t nAt = 0)
{
    T st;
    memset(&st, 0, sizeof(st));
    if (s.size() >= nAt + sizeof(T)) memcpy(&st, s.data() + nAt, sizeof(T));
    return st;
}
template <class T>
T RecordOnDisk(const std::string& strPath, long long nAt = 0)
{
    return RecordIn<T>(ReadFileAt(strPath, nAt, sizeof(T)));
}

// The head of a redo log file's bytes (zero when it is too short to hold one).
inline MF_REDOLOGFILEHEAD RedoHeadOf(const std::string& strFile) { return RecordIn<MF_REDOLOGFILEHEAD>(strFile); }

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
    if (a == b) return -1;
    size_t n = std::min(a.size(), b.size());
    return (long long)(std::mismatch(a.begin(), a.begin() + (long)n, b.begin()).first - a.begin());
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

// m_nBeginTimestamp of a system file on disk, or -1.
inline long long CommittedOnDisk(const std::string& strSystem)
{
    return FileSizeOf(strSystem) < (long long)sizeof(SYSTEMFILEHEAD) ? -1 : RecordOnDisk<SYSTEMFILEHEAD>(strSystem).m_nBeginTimestamp;
}

// A database made by talvor-mkdb (vMkdb) with its ini (WriteDbIni) and a
// daemon serving it: its pid, or -1 with the failure told.
inline pid_t StartDb(DaemonSandbox& box, const std::vector<std::string>& vMkdb, const std::string& strIni = "",
                     int nCacheMiB = 0, const std::string& strTestCrash = "")
{
    std::string strOut;
    if (!box.Ok() || MakeDb(box, box.DataDir(), vMkdb, &strOut) != 0) {
        ADD_FAILURE() << "no database: " << strOut;
        return -1;
    }
    WriteDbIni(box, box.DataDir(), strIni, nCacheMiB);
    pid_t pid = box.StartServing(strTestCrash);
    if (pid <= 0) ADD_FAILURE() << box.ReadDaemonTrace();
    return pid;
}

// A sandbox whose daemon, when one runs, is stopped (and must stop well)
// at the end of the test.
class RunningDaemon : public ::testing::Test {
protected:
    void Start(const std::vector<std::string>& vMkdb, const std::string& strIni = "", int nCacheMiB = 0,
               const std::string& strTestCrash = "")
    {
        m_pid = StartDb(m_box, vMkdb, strIni, nCacheMiB, strTestCrash);
        ASSERT_GT(m_pid, 0);
    }
    // The daemon again on the database as it is.
    void Serve()
    {
        m_pid = m_box.StartServing();
        ASSERT_GT(m_pid, 0) << m_box.ReadDaemonTrace();
    }
    void Stop()
    {
        EXPECT_TRUE(StopDaemon(m_box, m_pid)) << m_box.ReadDaemonTrace();
        m_pid = -1;
    }
    void TearDown() override
    {
        if (m_pid > 0 && m_box.IsRunning(m_pid)) Stop();
    }
    std::string Path(const std::string& strName) const { return m_box.DataDir() + strName; }

    // The stand-in commits nCount changes over nBlocks blocks, nPauseUs
    // apart; waits until a pass has committed the last on disk. Its stamp.
    long long CommitToDisk(const std::string& strJournal, int nCount, int nSeed, int nBlocks, int nPauseUs,
                           bool bHeadReady = false)
    {
        std::vector<std::string> vCmd = {"data", "--journal", strJournal, "--live", "--count", std::to_string(nCount),
                                         "--pause-us", std::to_string(nPauseUs), "--blocks", std::to_string(nBlocks),
                                         "--seed", std::to_string(nSeed)};
        if (bHeadReady) vCmd.push_back("--head-ready");
        std::string strOut;
        EXPECT_EQ(0, Peer(m_box, vCmd, &strOut, 120000)) << strOut << m_box.ReadDaemonTrace();
        long long nLast = NumberAfter(strOut, "last timestamp ");
        EXPECT_GT(nLast, 0) << strOut;
        EXPECT_TRUE(WaitUntil([&] { return CommittedOnDisk(Path("System.dbf")) >= nLast; }, 30000, 50))
            << "committed " << CommittedOnDisk(Path("System.dbf")) << " of " << nLast << "\n" << m_box.ReadDaemonTrace();
        return nLast;
    }

    DaemonSandbox m_box;
    pid_t m_pid = -1;
};

} // namespace talvortest
