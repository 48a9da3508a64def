// End-to-end: the redo log of a running daemon, fed by the engine stand-in.
// What the stand-in committed must come out of the archive (and the online
// groups) byte for byte, across seals, wraps and a writer's crash. (A clean
// stop and the next start are RedoLogStop's at unit level, a writer killed
// at any of its writes RedoLogKill's.)
#include "DatabaseLoadKit.h"

#include <sys/syscall.h>

using namespace talvortest;

namespace {

// The bodies of the archived logs in number order, then the online groups
// of higher numbers; every archive must be whole, numbered from 1 on with
// no gap, and marked archived.
std::string JoinedLogs(DaemonSandbox& box, const std::string& strDes, int nGroups, std::string* pError)
{
    std::map<int, std::string> mapLogs = LogsIn(strDes + "ArchiveLog/");
    std::string strAll;
    int nExpect = 1;
    for (const auto& kv : mapLogs) {
        MF_REDOLOGFILEHEAD stHead = RedoHeadOf(kv.second);
        if (kv.first != nExpect) *pError += "log number " + std::to_string(kv.first) + " where " +
                                            std::to_string(nExpect) + " was due; ";
        if ((int)stHead.m_nSequenceNO != kv.first || stHead.m_bState != REDOGROUP_ARCHIVED ||
            stHead.m_nEffectiveSize != kv.second.size() || strcmp(stHead.m_lpszFileFlag, "TalvorLog") != 0)
            *pError += "bad archive head of log " + std::to_string(kv.first) + "; ";
        strAll += kv.second.substr(REDOLOGFILE_HEAD_SIZE);
        nExpect = kv.first + 1;
    }
    // Logs not archived (yet) are still in their groups.
    std::map<int, std::string> mapOnline;
    for (int g = 0; g < nGroups; g++) {
        std::string strFile = ReadWholeFile(box.DataDir() + "Redo/Redo" + std::to_string(g) + ".log");
        MF_REDOLOGFILEHEAD stHead = RedoHeadOf(strFile);
        if ((int)stHead.m_nSequenceNO < nExpect || stHead.m_nEffectiveSize < REDOLOGFILE_HEAD_SIZE) continue;
        mapOnline[(int)stHead.m_nSequenceNO] = strFile.substr(REDOLOGFILE_HEAD_SIZE, stHead.m_nEffectiveSize - REDOLOGFILE_HEAD_SIZE);
    }
    for (const auto& kv : mapOnline) strAll += kv.second;
    return strAll;
}

class RedoStream : public RunningDaemon {
protected:
    // Commits through the stand-in, which must reset the ring nResets
    // times; the stream goes to strOut.
    void Commit(const std::vector<std::string>& vArgs, const std::string& strOut, int nResets = 0)
    {
        std::vector<std::string> vCmd = {"redo", "--out", strOut, "--timeout", "120000"};
        vCmd.insert(vCmd.end(), vArgs.begin(), vArgs.end());
        std::string strOutput;
        ASSERT_EQ(0, Peer(m_box, vCmd, &strOutput)) << strOutput << m_box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strOutput.find(" resets=" + std::to_string(nResets) + " ")) << strOutput;
    }
    std::string m_strArch = m_box.Root() + "/Arch/";
};

} // namespace

// The second destination cannot be made (a regular file stands where its
// directory would have to be): it must not keep the first from every log.
TEST_F(RedoStream, MixedStreamAndAWriterFaultComeOutOfTheArchiveByteForByte)
{
    ASSERT_TRUE(WriteWholeFile(m_box.Root() + "/blocker", "x"));
    Start({"--name", "REDO", "--redo-groups", "3"},
          "archivetype=1\r\narchivedespath=" + m_strArch + ";" + m_box.Root() + "/blocker/ArchB\r\n");
    std::string strStream = m_box.Root() + "/stream.bin";
    // Small, medium and ring-sized records; many wraps of the 4 MiB ring,
    // many seals of the 1 MiB groups, and one forced seal on the way.
    Commit({"--records", "700", "--seed", "11", "--seal-at", "350", "--burst", "7"}, strStream);
    std::string strExpected = ReadWholeFile(strStream);
    ASSERT_GT(strExpected.size(), (size_t)(8 * REDORING_SEGMENT_SIZE_SMALL)) << "the stream must wrap the ring";

    // The writer faults: it is restarted and loses no record it drained.
    const std::string strStarted = "30003000 WriteLog Redo log Writer thread started!";
    ASSERT_TRUE(m_box.WaitForTrace(strStarted, 10000)) << m_box.ReadDaemonTrace();
    std::string strTrace = m_box.ReadDaemonTrace();
    size_t nAt = strTrace.find(strStarted);
    // "YYYY-MM-DD hh:mm:ss.mmm TID\t..." at the start of the line.
    size_t nLine = strTrace.rfind('\n', nAt) + 1;
    pid_t nTid = atoi(strTrace.c_str() + nLine + 24);
    ASSERT_GT(nTid, 0);
    ASSERT_EQ(0, syscall(SYS_tgkill, m_pid, nTid, SIGSEGV));
    WaitUntil([&] { return CountOf(m_box.ReadDaemonTrace(), strStarted) >= 2; }, 10000, TRACE_POLL_MS);
    ASSERT_EQ(2u, CountOf(m_box.ReadDaemonTrace(), strStarted)) << m_box.ReadDaemonTrace();
    // The engine is told to reset the ring, and the ring is read from its start.
    std::string strOut;
    ASSERT_EQ(0, Peer(m_box, {"redo", "--records", "0", "--no-drain"}, &strOut, 30000));
    EXPECT_NE(std::string::npos, strOut.find(" exception=1")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find(" read=68 ")) << strOut;
    // The engine resets the ring and goes on; the writer follows.
    Commit({"--records", "200", "--seed", "22", "--max-size", "60000"}, m_box.Root() + "/s2.bin", 1);
    Stop();
    // The archive and the groups after it hold both streams.
    strExpected += ReadWholeFile(m_box.Root() + "/s2.bin");
    std::string strError, strLogs = JoinedLogs(m_box, m_strArch, 3, &strError);
    EXPECT_EQ("", strError);
    EXPECT_EQ(-1, FirstDiffAt(strLogs, strExpected)) << "logs " << strLogs.size() << " bytes, stream "
                                                     << strExpected.size() << "\n" << m_box.ReadDaemonTrace();
    EXPECT_GT(LogsIn(m_strArch + "ArchiveLog/").size(), (size_t)10);
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("Failed to create new archive log file! Path: " +
                                                              m_box.Root() + "/blocker/ArchB/ArchiveLog/Log1.log"))
        << m_box.ReadDaemonTrace();
}
