// End-to-end: backups by the cluster commands of the channel's command
// record, sent by the engine stand-in as the engine does. The operator's
// offline check and restore over a chain of three backups the daemon took
// bring back each point, and the daemon serves and commits again.
#include "ClusterKit.h"

using namespace talvortest;

namespace {

// A daemon with a backup destination, for backups and restores.
class ClusterRestore : public RunningDaemon {
protected:
    void SetUp() override
    {
        Start({"--data-file", "8", "--btree-file", "4", "--kv-file", "4"},
              "persistenceintervals=1\r\narchivetype=1\r\narchivedespath=" + m_box.Root() + "/Arch/\r\n");
    }
    // 60 changes committed on disk, and the journal verifies against it.
    void ExpectCommitsReachDisk(bool bHeadReady, const std::string& strJournal)
    {
        VerifyJournal(m_box, strJournal, Path("System.dbf"), CommitToDisk(strJournal, 60, 11, 4, 2000, bHeadReady));
    }
};

} // namespace

// The operator's round trip over a chain the daemon took while the
// stand-in committed between the backups: the offline check calls the chain
// whole; the operator's restore brings back each of the three points, every
// file as it stood at that backup. (A foreign or missing link is refused
// offline and by the restore at unit level.)
TEST_F(ClusterRestore, AChainOfThreeBackupsIsWholeOfflineAndTheOperatorsRestoreBringsBackEachPoint)
{
    std::vector<ClusterLine> vBackups;
    std::vector<std::map<std::string, std::string>> vFiles;
    for (int nLevel = 0; nLevel <= 2; nLevel++) {
        ExpectCommitsReachDisk(nLevel > 0, m_box.Root() + "/journal" + std::to_string(nLevel));
        ClusterLine st = nLevel == 0 ? BackupJob(m_box, {"--full", "--wait"})
                                     : BackupJob(m_box, {"--incremental", "--level", std::to_string(nLevel), "--ref",
                                                         std::to_string(vBackups.back().m_nTs), "--wait"});
        ASSERT_EQ(0, st.m_nResult) << st.m_strText << m_box.ReadDaemonTrace();
        vFiles.push_back(Snapshot(m_box.DataDir(), CLUSTER_DB_FILES));
        if (nLevel > 0) {
            ASSERT_LT(vBackups.back().m_nTs, st.m_nTs);
            ASSERT_FALSE(vFiles[nLevel - 1]["Data2.dbf"] == vFiles[nLevel]["Data2.dbf"]) << "nothing changed";
        }
        vBackups.push_back(st);
    }
    std::string strOut;
    EXPECT_EQ(0, m_box.Run({ToolPath("talvor-backup"), "verify", "--chain", vBackups[2].m_strPath}, 60000, &strOut)) << strOut;
    EXPECT_NE(std::string::npos,
              strOut.find("a restore to " + std::to_string(vBackups[2].m_nTs) + " would apply 3 backups"))
        << strOut;

    for (int nLevel : {1, 2, 0}) {
        long long nTs = vBackups[(size_t)nLevel].m_nTs;
        SCOPED_TRACE(nTs);
        EXPECT_EQ(0, m_box.Run({PeerPath(), "restore", "--to", std::to_string(nTs), "--wait-ms", "120000"}, 180000,
                               &strOut))
            << strOut << m_box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strOut.find("outcome=finished database=open restored=yes")) << strOut;
        std::map<std::string, std::string> mapRestored = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
        // The rebuilt daemon writes its own head into the system file at
        // once; its committed point is what must have come back.
        for (const std::string& strName : CLUSTER_DB_FILES) {
            if (strName == "System.dbf") continue;
            EXPECT_TRUE(vFiles[(size_t)nLevel][strName] == mapRestored[strName]) << strName << " is not as it stood";
        }
        EXPECT_EQ(nTs, CommittedOnDisk(Path("System.dbf")));
    }
    // Back at the full backup, every row holds exactly the change of its
    // point in time: nothing committed after it came back with it.
    VerifyJournal(m_box, m_box.Root() + "/journal0", Path("System.dbf"), vBackups[0].m_nTs, true);
    // The daemon the restores rebuilt commits again.
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal3");
}
