// End-to-end: the cluster commands of the channel's command record, sent by
// the engine stand-in as the engine does. Each code ends with its final
// value, its result and the forbid flags it must leave; codes the daemon
// does not know change nothing; the standby slots count what they hold;
// taking the database apart and building it again works on new files and
// never on two descriptors of one file; a restore from a real backup brings
// its point back and the daemon serves it, and the operator's offline check
// and restore do the same over a chain of three backups.
#include "ClusterKit.h"

#include "MemDBBackupDef.h"

#include <cstddef>

using namespace talvortest;

namespace {

const std::vector<std::string> SMALL_DB = {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"};
const int SHORT_WAIT_MS = 1500;

class ClusterCommands : public RunningDaemon {
protected:
    void SetUp() override { Start(SMALL_DB, "persistenceintervals=1\r\n"); }

    // Commits 60 changes through the stand-in and waits until a pass has
    // committed the last on disk; the journal then verifies.
    void ExpectCommitsReachDisk(bool bHeadReady, const std::string& strJournal)
    {
        std::vector<std::string> vCmd = {PeerPath(), "data", "--journal", strJournal, "--live", "--count", "60",
                                         "--pause-us", "2000", "--blocks", "4", "--seed", "11"};
        if (bHeadReady) vCmd.push_back("--head-ready");
        std::string strOut;
        ASSERT_EQ(0, m_box.Run(vCmd, 120000, &strOut)) << strOut << m_box.ReadDaemonTrace();
        long long nLast = NumberAfter(strOut, "last timestamp ");
        ASSERT_GT(nLast, 0) << strOut;
        EXPECT_TRUE(WaitUntil([&] { return CommittedOnDisk(Path("System.dbf")) >= nLast; }, 30000, 50))
            << "committed " << CommittedOnDisk(Path("System.dbf")) << " of " << nLast << "\n" << m_box.ReadDaemonTrace();
        std::string strVerify;
        EXPECT_EQ(0, m_box.Run({PeerPath(), "verify", "--journal", strJournal, "--system", Path("System.dbf"),
                                "--at-least", std::to_string(nLast)},
                               60000, &strVerify))
            << strVerify;
        EXPECT_NE(std::string::npos, strVerify.find("violations: 0")) << strVerify;
    }
};

} // namespace

TEST_F(ClusterCommands, UnknownCodesChangeNothingAndTheDaemonGoesOn)
{
    for (const char* lpCode : {"1", "12", "99"}) {
        SCOPED_TRACE(lpCode);
        ClusterLine st = Cluster(m_box, lpCode, {"--wait-ms", std::to_string(SHORT_WAIT_MS)});
        EXPECT_EQ(0, st.m_nExit) << st.m_strText;
        EXPECT_EQ("unchanged", st.m_strOutcome) << st.m_strText;
        EXPECT_EQ(atoi(lpCode), st.m_nFinal);
        EXPECT_EQ(RESULT_UNSET, st.m_nResult);
        EXPECT_EQ(0, st.m_nCmdForbid);
        EXPECT_EQ(0, st.m_nHeadForbid);
        EXPECT_EQ(2, st.m_nStatus);
        EXPECT_EQ(0, st.m_nStandby);
    }
    // Flags raised with an unknown code are not cleared by the daemon.
    ClusterLine st = Cluster(m_box, "99", {"--forbid", "--head-forbid", "--wait-ms", std::to_string(SHORT_WAIT_MS)});
    EXPECT_EQ("unchanged", st.m_strOutcome) << st.m_strText;
    EXPECT_EQ(1, st.m_nCmdForbid);
    EXPECT_EQ(1, st.m_nHeadForbid);
    ClusterLine after = Look(m_box);
    EXPECT_EQ(0, after.m_nFinal) << "the stand-in took its code back";
    EXPECT_EQ(0, after.m_nCmdForbid);
    ExpectServing();
}

// The engine's view of a refused 10: the first report line (after the
// whole wait) says refused with the code and both flags still up; the
// stand-in then clears the command's flag and the add runs (it ends as a
// failed join): the code ends at 0 and both flags are down.
TEST_F(ClusterCommands, TenIsRefusedWhileItsFlagStandsAndRunsOnceCleared)
{
    std::string strPort = std::to_string(ClosedPort());
    ClusterLine st = Cluster(m_box, "10", {"--forbid", "--head-forbid", "--clear-forbid", "--ip", "127.0.0.1", "--port",
                                          strPort, "--local-ip", "127.0.0.1", "--wait-ms", "2000"});
    size_t nFinished = st.m_strText.rfind('\n', st.m_strText.find("outcome=finished"));
    ClusterLine refused = ReadClusterLine(st.m_strText.substr(0, nFinished + 1), "cluster ", 0);
    EXPECT_EQ("refused", refused.m_strOutcome) << st.m_strText;
    EXPECT_EQ(10, refused.m_nFinal);
    EXPECT_EQ(1, refused.m_nCmdForbid);
    EXPECT_EQ(1, refused.m_nHeadForbid);
    EXPECT_EQ(RESULT_UNSET, refused.m_nResult);
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("10012010")) << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ("finished", st.m_strOutcome) << st.m_strText;
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    ExpectServing();
}

// Left refused, the command stays in the record: the next command of the
// engine must wait for it, and the daemon keeps refusing.
TEST_F(ClusterCommands, ARefusedTenStaysInTheRecord)
{
    std::string strPort = std::to_string(ClosedPort());
    ClusterLine st = Cluster(m_box, "10", {"--forbid", "--ip", "127.0.0.1", "--port", strPort, "--wait-ms", "1000"});
    EXPECT_EQ(5, st.m_nExit) << st.m_strText;
    EXPECT_EQ("refused", st.m_strOutcome) << st.m_strText;
    usleep(500000);
    ClusterLine still = Look(m_box);
    EXPECT_EQ(10, still.m_nFinal);
    EXPECT_EQ(1, still.m_nCmdForbid);
    EXPECT_EQ(RESULT_UNSET, still.m_nResult);
    ClusterLine next = Cluster(m_box, "47", {"--wait-ms", "1000"});
    EXPECT_EQ(5, next.m_nExit) << "the stand-in wrote over a waiting command\n" << next.m_strText;
    EXPECT_EQ(10, Look(m_box).m_nFinal);
}

TEST_F(ClusterCommands, ClearThenRebuildServesTheNewFilesAndTracesEachRemoval)
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
    // New files, of other sizes, in the same paths.
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

// A rebuild with no database on disk fails: no head comes up, the command
// still ends at 0, and the flag of the head that is gone is not touched
// (the command's stays up with it). New files and a second 17 then work.
TEST_F(ClusterCommands, AFailedRebuildLeavesNoHeadAndASecondOneOnNewFilesWorks)
{
    ClusterLine st = Cluster(m_box, "16");
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    st = Cluster(m_box, "17");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(CLUSTER_NO_HEAD_SEEN, st.m_nHeadForbid) << "a head came up from no files";
    EXPECT_EQ(1, st.m_nCmdForbid) << "the flags are cleared only with a head\n" << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("10013001")) << m_box.ReadDaemonTrace();
    ASSERT_TRUE(m_box.IsRunning(m_pid));
    ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(), SMALL_DB));
    st = Cluster(m_box, "17");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    Inspection ins = Inspect(m_box, m_box.DataDir());
    EXPECT_TRUE(ins.m_bSystemImage) << ins.m_strText;
    EXPECT_EQ(0, ins.m_nSystemStatus);
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

// A restore with no backup of its timestamp is refused before anything is
// removed: it ends finished with no result written, clears both flags of
// the head that stays, and touches no file.
TEST_F(ClusterCommands, RestoreEndsFinishedWithoutAResultAndTouchesNoFile)
{
    std::map<std::string, std::string> mapBefore = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    ClusterLine st = Cluster(m_box, "46", {"--forbid", "--head-forbid", "--ts", "5"});
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(1, st.m_nFinal);
    EXPECT_EQ(RESULT_UNSET, st.m_nResult) << "46 writes no result";
    EXPECT_EQ(0, st.m_nCmdForbid);
    EXPECT_EQ(0, st.m_nHeadForbid);
    EXPECT_TRUE(mapBefore == Snapshot(m_box.DataDir(), CLUSTER_DB_FILES)) << "a file changed";
    ExpectServing();
}

TEST_F(ClusterCommands, UndoCacheSpeedTestAndIncrementalEndWithTheirValues)
{
    ClusterLine st = Cluster(m_box, "47");
    EXPECT_EQ(0, st.m_nExit) << st.m_strText;
    EXPECT_EQ(0, st.m_nFinal);
    EXPECT_EQ(0, st.m_nResult);
    // The speed test on a file, on no file, and with a buffer size no
    // allocation could give: each ends at 0 with 0.
    for (const std::vector<std::string>& vArgs :
         {std::vector<std::string>{"--file-no", "2", "--method", "1", "--buffer-size", "65536"},
          std::vector<std::string>{"--file-no", "200", "--method", "1", "--buffer-size", "65536"},
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

// The same daemon with a backup destination, for command 46 over a real
// backup.
class ClusterRestore : public ClusterCommands {
protected:
    void SetUp() override
    {
        Start(SMALL_DB, "persistenceintervals=1\r\narchivetype=1\r\narchivedespath=" + m_box.Root() + "/Arch/\r\n");
    }
};

} // namespace

// A restore over the running database: the files come back as they stood
// at the backup, the daemon is brought back on them, and it serves and
// commits again.
TEST_F(ClusterRestore, ARestoreBringsTheBackupsPointBackAndTheDaemonServesItAgain)
{
    ExpectCommitsReachDisk(false, m_box.Root() + "/journal1");
    ClusterLine st = Backup(m_box, {"--wait"});
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    ASSERT_EQ(0, st.m_nResult) << st.m_strText << m_box.ReadDaemonTrace();
    const long long nTs = st.m_nTs;
    ASSERT_GT(nTs, 0);
    std::map<std::string, std::string> mapAtBackup = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    // A finished backup leaves the progress status at 0: the stand-in then
    // goes by the head.
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal2");
    ASSERT_FALSE(mapAtBackup == Snapshot(m_box.DataDir(), CLUSTER_DB_FILES));

    st = Cluster(m_box, "46", {"--forbid", "--head-forbid", "--ts", std::to_string(nTs)});
    EXPECT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_EQ(1, st.m_nFinal);
    EXPECT_EQ(RESULT_UNSET, st.m_nResult) << "46 writes no result";
    EXPECT_EQ(0, st.m_nCmdForbid) << m_box.ReadDaemonTrace();
    EXPECT_EQ(0, st.m_nHeadForbid);
    ASSERT_TRUE(m_box.IsRunning(m_pid));
    std::map<std::string, std::string> mapRestored = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    for (const std::string& strName : CLUSTER_DB_FILES) {
        if (strName == "System.dbf") continue;
        EXPECT_TRUE(mapAtBackup[strName] == mapRestored[strName]) << strName << " is not as it stood at the backup";
    }
    EXPECT_EQ(nTs, CommittedOnDisk(Path("System.dbf")));
    EXPECT_FALSE(PathExists(Path("System.dbf") + ".restoring"));
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("Talvor storage service rebuilt!"));
    ExpectServing(true);
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal3");
}

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
    ExpectCommitsReachDisk(false, m_box.Root() + "/journal1");
    ClusterLine stFull = Backup(m_box, {"--wait"});
    ASSERT_EQ(0, stFull.m_nResult) << stFull.m_strText << m_box.ReadDaemonTrace();
    std::map<std::string, std::string> mapFull = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    ExpectCommitsReachDisk(true, m_box.Root() + "/journal2");
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
    EXPECT_EQ(0, m_box.Run({PeerPath(), "verify", "--journal", m_box.Root() + "/journal1", "--system",
                            Path("System.dbf"), "--at-least", std::to_string(stFull.m_nTs), "--exact"},
                           60000, &strOut))
        << strOut;
    EXPECT_NE(std::string::npos, strOut.find("violations: 0")) << strOut;

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
    ExpectServing(true);
}
