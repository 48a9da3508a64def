// End-to-end: the cluster commands of the channel's command record, sent by
// the engine stand-in as the engine does (the final value and flags of each
// code are checked at unit level). Taking the database apart and building it
// again works on new files and never on two descriptors of one file; the
// operator's offline check and restore over a chain of three backups the
// daemon took bring back each point, and the daemon serves and commits again.
#include "ClusterKit.h"

#include "MemDBBackupDef.h"
#include "TalvorRestoreMark.h"

#include <cstddef>

using namespace talvortest;

namespace {

const std::vector<std::string> SMALL_DB = {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"};

class ClusterCommands : public RunningDaemon {
protected:
    void SetUp() override { Start(SMALL_DB, "persistenceintervals=1\r\n"); }

    // 60 changes committed on disk, and the journal verifies against it.
    void ExpectCommitsReachDisk(bool bHeadReady, const std::string& strJournal)
    {
        VerifyJournal(m_box, strJournal, Path("System.dbf"), CommitToDisk(strJournal, 60, 11, 4, 2000, bHeadReady));
    }
};

} // namespace

// A clear takes every file away and names each; a rebuild with no database
// on disk fails: no head comes up, the command still ends at 0, and the
// command's flag stays up with the head that is gone. New files of other
// sizes, in the same paths, then come up on a second rebuild.
TEST_F(ClusterCommands, ClearThenRebuildOnNoFilesFailsAndOnNewFilesServes)
{
    std::string strTraceBefore = m_box.ReadDaemonTrace();
    ClusterLine st = Cluster(m_box, "16");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ("finished", st.m_strOutcome);
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(1, st.m_nCmdForbid) << "the flag stays up until the rebuild";
    EXPECT_EQ(1, st.m_nStatus);
    ASSERT_TRUE(m_box.IsRunning(m_pid));
    std::string strTrace = m_box.ReadDaemonTrace().substr(strTraceBefore.size());
    for (const std::string& strName : CLUSTER_DB_FILES) {
        EXPECT_FALSE(PathExists(Path(strName))) << strName;
        EXPECT_NE(std::string::npos, strTrace.find(Path(strName))) << strName << " not named\n" << strTrace;
    }
    st = Cluster(m_box, "17");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(CLUSTER_NO_HEAD_SEEN, st.m_nHeadForbid) << "a head came up from no files";
    EXPECT_EQ(1, st.m_nCmdForbid) << "the flags are cleared only with a head\n" << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("10013001")) << m_box.ReadDaemonTrace();
    ASSERT_TRUE(m_box.IsRunning(m_pid));
    ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(), {"--data-file", "12", "--btree-file", "6", "--kv-file", "4"}));
    st = Cluster(m_box, "17");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ("finished", st.m_strOutcome);
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    EXPECT_EQ(1, st.m_nStatus) << "a rebuild leaves the status at 1";
    Inspection ins = Inspect(m_box, m_box.DataDir());
    ASSERT_TRUE(ins.m_bRan) << ins.m_strText;
    EXPECT_TRUE(ins.m_bSystemImage);
    EXPECT_EQ(0, ins.m_nSystemStatus);
    EXPECT_EQ(12 * E2E_MIB, ins.m_mapFiles[2].m_nImageSize) << ins.m_strText;
    EXPECT_EQ(6 * E2E_MIB, ins.m_mapFiles[3].m_nImageSize) << ins.m_strText;
    std::map<std::string, int> mapOpen = OpenFilesUnder(m_pid, m_box.DataDir());
    for (const std::string& strName : CLUSTER_DB_FILES) EXPECT_GE(1, mapOpen[Path(strName)]) << strName;
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal");
}

TEST_F(ClusterCommands, RebuildWithoutClearKeepsOneDescriptorPerFileAndStillCommits)
{
    std::map<std::string, int> mapBefore = OpenFilesUnder(m_pid, m_box.DataDir());
    ClusterLine st = Cluster(m_box, "17", {"--forbid", "--head-forbid"});
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    ASSERT_TRUE(m_box.IsRunning(m_pid));
    std::map<std::string, int> mapAfter = OpenFilesUnder(m_pid, m_box.DataDir());
    for (const std::string& strName : CLUSTER_DB_FILES)
        EXPECT_EQ(mapBefore[Path(strName)], mapAfter[Path(strName)]) << strName;
    for (const auto& kv : mapAfter) EXPECT_GE(1, kv.second) << kv.first << " open more than once";
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal");
}

// The speed test on no file and with a buffer size no allocation could
// give ends at 0 with 0; an incremental backup with no backup below it fails.
TEST_F(ClusterCommands, SpeedTestAndIncrementalEndWithTheirValues)
{
    ClusterLine st;
    for (const std::vector<std::string>& vArgs :
         {std::vector<std::string>{"--file-no", "200", "--method", "1", "--buffer-size", "65536"},
          std::vector<std::string>{"--file-no", "2", "--method", "1", "--buffer-size", "4294967295"}}) {
        st = Cluster(m_box, "250", vArgs);
        EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
        EXPECT_EQ(0, st.m_nFinal);
        EXPECT_EQ(0, st.m_nResult);
    }
    // An incremental backup with no backup below it fails, flags down.
    st = Cluster(m_box, "41", {"--forbid", "--head-forbid", "--ts", "1", "--level", "1"});
    EXPECT_EQ(0, st.m_nExit) << st.m_strText;
    EXPECT_EQ(1, st.m_nFinal);
    EXPECT_EQ(1, st.m_nResult);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    EXPECT_TRUE(m_box.IsRunning(m_pid));
    ExpectServing();
}

namespace {

// The same daemon with a backup destination, for backups and restores.
class ClusterRestore : public ClusterCommands {
protected:
    void SetUp() override
    {
        Start(SMALL_DB, "persistenceintervals=1\r\narchivetype=1\r\narchivedespath=" + m_box.Root() + "/Arch/\r\n");
    }
    // Commits on disk, a full backup of them with the files as it took
    // them, then more commits on disk: where a restore test begins.
    void FullBackupBetweenCommits(ClusterLine& stFull, std::map<std::string, std::string>& mapFull)
    {
        ExpectCommitsReachDisk(false, m_box.Root() + "/journal1");
        stFull = Backup(m_box, {"--wait"});
        ASSERT_EQ(0, stFull.m_nResult) << stFull.m_strText << m_box.ReadDaemonTrace();
        mapFull = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
        ExpectCommitsReachDisk(true, m_box.Root() + "/journal2");
    }
};

} // namespace

namespace {

// talvor-backup verify --chain on strTop: its exit status, its output in
// *pstrOut.
int VerifyChain(DaemonSandbox& box, const std::string& strTop, std::string* pstrOut)
{
    return box.Run({BackupToolPath(), "verify", "--chain", strTop}, 60000, pstrOut);
}

// talvor-peer restore --to nTs: its exit status, its output in *pstrOut.
int RestoreTo(DaemonSandbox& box, long long nTs, std::string* pstrOut)
{
    return box.Run({PeerPath(), "restore", "--to", std::to_string(nTs), "--wait-ms", "120000"}, 180000, pstrOut);
}

} // namespace

// The operator's round trip over a chain the daemon took while the
// stand-in committed between the backups: the offline check calls the chain
// whole; the operator's restore brings back each of the three points, every
// file as it stood at that backup; a link of another database and a missing
// link are found offline and refused by the restore with no file touched.
TEST_F(ClusterRestore, AChainOfThreeBackupsIsWholeOfflineAndTheOperatorsRestoreBringsBackEachPoint)
{
    ClusterLine stFull;
    std::map<std::string, std::string> mapFull;
    ASSERT_NO_FATAL_FAILURE(FullBackupBetweenCommits(stFull, mapFull));
    ClusterLine stLevel1 = IncrementalBackup(m_box, 1, stFull.m_nTs);
    ASSERT_EQ(0, stLevel1.m_nResult) << stLevel1.m_strText << m_box.ReadDaemonTrace();
    std::map<std::string, std::string> mapLevel1 = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal3");
    ClusterLine stLevel2 = IncrementalBackup(m_box, 2, stLevel1.m_nTs);
    ASSERT_EQ(0, stLevel2.m_nResult) << stLevel2.m_strText << m_box.ReadDaemonTrace();
    std::map<std::string, std::string> mapLevel2 = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    ASSERT_LT(stFull.m_nTs, stLevel1.m_nTs);
    ASSERT_LT(stLevel1.m_nTs, stLevel2.m_nTs);
    ASSERT_FALSE(mapFull["Data2.dbf"] == mapLevel1["Data2.dbf"]) << "nothing changed between the backups";
    ASSERT_FALSE(mapLevel1["Data2.dbf"] == mapLevel2["Data2.dbf"]) << "nothing changed between the backups";

    std::string strOut;
    EXPECT_EQ(0, VerifyChain(m_box, stLevel2.m_strPath, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("a restore to " + std::to_string(stLevel2.m_nTs) + " would apply 3 backups"))
        << strOut;

    const std::pair<long long, std::map<std::string, std::string>*> arPoints[] = {
        {stLevel1.m_nTs, &mapLevel1}, {stLevel2.m_nTs, &mapLevel2}, {stFull.m_nTs, &mapFull}};
    for (const auto& point : arPoints) {
        SCOPED_TRACE(point.first);
        EXPECT_EQ(0, RestoreTo(m_box, point.first, &strOut)) << strOut << m_box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strOut.find("outcome=finished database=open restored=yes")) << strOut;
        std::map<std::string, std::string> mapRestored = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
        // The rebuilt daemon writes its own head into the system file at
        // once; its committed point is what must have come back.
        for (const std::string& strName : CLUSTER_DB_FILES) {
            if (strName == "System.dbf") continue;
            EXPECT_TRUE((*point.second)[strName] == mapRestored[strName]) << strName << " is not as it stood";
        }
        EXPECT_EQ(point.first, CommittedOnDisk(Path("System.dbf")));
    }
    // Back at the full backup, every row holds exactly the change of its
    // point in time: nothing committed after it came back with it.
    VerifyJournal(m_box, m_box.Root() + "/journal1", Path("System.dbf"), stFull.m_nTs, true);

    // Level 1 of another database: whole on its own, refused as a link; the
    // database stays at the full backup's point.
    const std::string strLevel1 = ReadWholeFile(stLevel1.m_strPath);
    std::string strForeign = strLevel1;
    strForeign[offsetof(BACKUPFILEHEAD, m_usDataBaseGuid)] ^= 0x5A;
    ASSERT_TRUE(WriteWholeFile(stLevel1.m_strPath, strForeign));
    EXPECT_EQ(1, VerifyChain(m_box, stLevel2.m_strPath, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("refused (bad link)")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("another database")) << strOut;
    std::map<std::string, std::string> mapBefore = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    EXPECT_EQ(PEER_EXIT_NOT_SERVED, RestoreTo(m_box, stLevel2.m_nTs, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("database=open restored=no")) << strOut;
    EXPECT_TRUE(mapBefore == Snapshot(m_box.DataDir(), CLUSTER_DB_FILES)) << "a refused restore touched a file";

    // Level 1 gone.
    ASSERT_EQ(0, unlink(stLevel1.m_strPath.c_str()));
    EXPECT_EQ(1, VerifyChain(m_box, stLevel2.m_strPath, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("refused (missing link)")) << strOut;
    EXPECT_EQ(PEER_EXIT_NOT_SERVED, RestoreTo(m_box, stLevel2.m_nTs, &strOut)) << strOut;
    EXPECT_TRUE(mapBefore == Snapshot(m_box.DataDir(), CLUSTER_DB_FILES)) << "a refused restore touched a file";
    EXPECT_FALSE(PathExists(Path("System.dbf") + ".restoring"));
    // The daemon the restores rebuilt commits again.
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal4");
}

// A daemon stopped while a restore's mark stands (a restore cut short by a
// kill or a power loss, its files a mixture) opens no database but serves
// the channel, so that the operator's restore can be run again from the
// mark: it brings back the backup's point and opens the database.
TEST_F(ClusterRestore, AStartOnAnUnfinishedRestoreServesTheRestoreRunAgain)
{
    ClusterLine stFull;
    std::map<std::string, std::string> mapFull;
    ASSERT_NO_FATAL_FAILURE(FullBackupBetweenCommits(stFull, mapFull));
    ASSERT_TRUE(StopDaemon(m_box, m_pid)) << m_box.ReadDaemonTrace();

    // What the cut restore left: its mark, and a file half written.
    TALVORRESTOREMARK stMark;
    memset(&stMark, 0, sizeof(stMark));
    snprintf(stMark.m_lpArchiveDesPath, sizeof(stMark.m_lpArchiveDesPath), "%s/Arch/", m_box.Root().c_str());
    stMark.m_nTimestamp = stFull.m_nTs;
    ASSERT_TRUE(TalvorSetRestoreMark(Path("System.dbf").c_str(), stMark));
    ASSERT_EQ(0, truncate(Path("Data2.dbf").c_str(), (off_t)mapFull["Data2.dbf"].size() / 2));

    const size_t nTraceBefore = m_box.ReadDaemonTrace().size();
    m_pid = m_box.StartDaemon();
    ASSERT_GT(m_pid, 0);
    ASSERT_TRUE(m_box.WaitForTrace("only cluster commands are served", 30000)) << m_box.ReadDaemonTrace();
    ASSERT_TRUE(m_box.IsRunning(m_pid)) << m_box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, m_box.ReadDaemonTrace().find("Talvor storage service started", nTraceBefore))
        << "a database of mixed files was opened";

    std::string strOut;
    EXPECT_EQ(0, RestoreTo(m_box, stFull.m_nTs, &strOut)) << strOut << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, strOut.find("outcome=finished database=open restored=yes")) << strOut;
    std::map<std::string, std::string> mapRestored = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    for (const std::string& strName : CLUSTER_DB_FILES) {
        if (strName == "System.dbf") continue;
        EXPECT_TRUE(mapFull[strName] == mapRestored[strName]) << strName << " is not as it stood";
    }
    EXPECT_EQ(stFull.m_nTs, CommittedOnDisk(Path("System.dbf")));
    EXPECT_FALSE(PathExists(Path("System.dbf") + ".restoring"));
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal3");
}
