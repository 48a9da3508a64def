// End-to-end: the operator's check of a backup that a running daemon took
// while the stand-in kept committing: whole (exit 0) with every file a
// restore would write named; cut, exit 1; the tool changes no file it reads.
#include "ClusterKit.h"

using namespace talvortest;

namespace {

class BackupVerifyTool : public RunningDaemon {
protected:
    int Verify(const std::string& strPath, std::string* pstrOut)
    {
        std::string strBefore = ReadWholeFile(strPath);
        int nExit = m_box.Run({BackupToolPath(), "verify", strPath}, 60000, pstrOut);
        EXPECT_EQ(strBefore, ReadWholeFile(strPath)) << "the tool changed " << strPath;
        return nExit;
    }
};

} // namespace

TEST_F(BackupVerifyTool, DaemonsBackupIsWholeAndACutOneIsRefused)
{
    Start({"--data-file", "8", "--btree-file", "4", "--kv-file", "4"},
          "persistenceintervals=300\r\narchivetype=1\r\narchivedespath=" + m_box.Root() + "/Arch/\r\n");
    pid_t peer = m_box.Spawn({PeerPath(), "data", "--journal", m_box.Root() + "/journal", "--live", "--count", "400",
                              "--pause-us", "1000", "--blocks", "8", "--seed", "9", "--seconds", "60"},
                             "peer");
    ASSERT_GT(peer, 0);
    // The backup is taken once the stand-in has committed something.
    ClusterLine st = Backup(m_box, {"--wait"});
    for (int i = 0; i < 200 && st.m_strText.find("nothing committed yet") != std::string::npos; i++) {
        usleep(50000);
        st = Backup(m_box, {"--wait"});
    }
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    ASSERT_EQ("finished", st.m_strOutcome);
    ASSERT_EQ(0, m_box.WaitExit(peer, 120000));

    std::string strOut;
    EXPECT_EQ(0, Verify(st.m_strPath, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("result: whole")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("timestamp: " + std::to_string(st.m_nTs) + "  level: 0")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("a restore would write 4 files")) << strOut;
    for (const std::string& strName : CLUSTER_DB_FILES)
        EXPECT_NE(std::string::npos, strOut.find(Path(strName) + ": size ")) << strName << "\n" << strOut;

    // Each kind of damage is the verifier's at unit level; here the exit
    // status of a refusal, on a copy of the daemon's backup.
    const std::string strDamaged = m_box.Root() + "/damaged.fbk";
    const std::string strWhole = ReadWholeFile(st.m_strPath);
    ASSERT_TRUE(WriteWholeFile(strDamaged, strWhole.substr(0, strWhole.size() - 1)));
    EXPECT_EQ(1, Verify(strDamaged, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("refused (truncated)")) << strOut;
    EXPECT_EQ(2, m_box.Run({BackupToolPath(), "verify"}, 60000, &strOut));
}
