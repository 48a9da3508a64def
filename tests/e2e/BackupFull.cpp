// End-to-end: the full backup (cluster command 40) of a running daemon,
// asked by the stand-in as the engine does. The backup file's head and
// records are checked field by field and every file's copied bytes against
// the database file as it stood during the backup while the stand-in went
// on committing (the restore of a backup is the cluster restore's round
// trip, an abort is checked at unit level).
#include "ClusterKit.h"

#include "MemDBBackupDef.h"

using namespace talvortest;

namespace {

// A data file of 32 MiB used up to 20 MiB; no periodic pass during the
// test: what the stand-in commits after the backup's own pass stays off the
// disk until the stop.
class BackupFull : public RunningDaemon {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(), {"--data-file", "32", "--btree-file", "4", "--kv-file", "4"}));
        FillDataFile(Path("Data2.dbf"), 20 * E2E_MIB);
        WriteDbIni(m_box, m_box.DataDir(),
                   "persistenceintervals=300\r\narchivetype=1\r\narchivedespath=" + m_strDes + "\r\n");
        Serve();
    }
    std::string m_strDes = m_box.Root() + "/ArchA/";
};

// The head area and records of a backup file against the database files
// as they stood (mapDisk, by name, in file number order of vNames).
void CheckBackupFile(const std::string& strBackup, const std::map<std::string, std::string>& mapDisk,
                     const std::vector<std::string>& vNames, const std::string& strDir, long long nTs)
{
    ASSERT_GE(strBackup.size(), (size_t)BACKUP_HEAD_ALIGN);
    const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)strBackup.data();
    const SYSTEMFILEHEAD* lpSystem = (const SYSTEMFILEHEAD*)mapDisk.at("System.dbf").data();
    // Version, head size and copies end to end are the verifier's, which
    // passes the daemon's backup below.
    // Timestamp, reference, log number and position, guid, level, host
    // (the stand-in's 10.1.2.3, host order).
    EXPECT_EQ(std::vector<long long>({nTs, 0, 7, 50, Val(lpSystem->m_usDatabaseGuid), BACKUPLEVEL_FULL, 0x0A010203}),
              std::vector<long long>({Val(lpHead->m_nTimestamp), Val(lpHead->m_nReferTimestamp), Val(lpHead->m_nLogNo),
                                      Val(lpHead->m_nLogPos), Val(lpHead->m_usDataBaseGuid), Val(lpHead->m_bLevel),
                                      Val(lpHead->m_ulHostIP)}));
    ASSERT_EQ((int)vNames.size(), Val(lpHead->m_nFileNum));
    long long nPos = lpHead->m_nHeadSize;
    for (size_t i = 0; i < vNames.size(); i++) {
        SCOPED_TRACE(vNames[i]);
        const STRUCT_BACKUP_FILEINFO& rec = lpHead->m_stBackupFileInfo[i];
        const std::string& strDisk = mapDisk.at(vNames[i]);
        const BASEFILEHEAD* lpFile = (const BASEFILEHEAD*)strDisk.data();
        // Type, number, size, head size, used part.
        EXPECT_EQ(std::vector<long long>({Val(lpFile->m_bFileType), Val(lpFile->m_bFileNo), (long long)strDisk.size(),
                                          Val(lpFile->m_nFileHeaderSize), Val(lpFile->m_nFileFreeMemoryOffset)}),
                  std::vector<long long>({Val(rec.m_bFileType), Val(rec.m_bFileNo), Val(rec.m_nFileSize),
                                          Val(rec.m_nFileHeaderSize), Val(rec.m_nFileFreeMemoryOffset)}));
        EXPECT_EQ(strDir + vNames[i], std::string(rec.m_lpszFilePath, strnlen(rec.m_lpszFilePath, 256)));
        long long nUsed = rec.m_nFileFreeMemoryOffset;
        ASSERT_LE(nUsed, (long long)strDisk.size());
        ASSERT_LE(Val(rec.m_nDataEndOffset), (long long)strBackup.size());
        EXPECT_TRUE(strBackup.compare((size_t)rec.m_nDataStartOffset, (size_t)nUsed, strDisk, 0, (size_t)nUsed) == 0)
            << "copied bytes differ from the file";
        nPos = rec.m_nDataEndOffset;
    }
    EXPECT_EQ(nPos, (long long)strBackup.size()) << "no bytes behind the last file";
    // The backup's point in time is committed in its copy of the system file.
    const SYSTEMFILEHEAD* lpCopy = (const SYSTEMFILEHEAD*)(strBackup.data() + lpHead->m_stBackupFileInfo[0].m_nDataStartOffset);
    EXPECT_EQ(nTs, Val(lpCopy->m_nBeginTimestamp));
}

} // namespace

TEST_F(BackupFull, TakenWhileTheEngineCommitsHoldsTheFilesAsTheyStood)
{
    std::string strJournal = m_box.Root() + "/journal";
    pid_t peer = m_box.Spawn({PeerPath(), "data", "--journal", strJournal, "--live", "--count", "3000", "--pause-us",
                              "1000", "--blocks", "8", "--seed", "5", "--seconds", "120"}, "peer");
    ASSERT_GT(peer, 0);
    ASSERT_TRUE(WaitUntil([&] { return CountOf(ReadWholeFile(strJournal), "\n") >= 200; }, 60000, 20));
    // As from 10.1.2.3 at log 7, position 50.
    ClusterLine st = BackupJob(m_box, {"--full", "--wait", "--local-ip", "10.1.2.3", "--log-no", "7", "--log-pos", "50"});
    // No pass has run since the backup's own: the files as they stood.
    std::map<std::string, std::string> mapDisk = Snapshot(m_box.DataDir(), CLUSTER_DB_FILES);
    ASSERT_EQ(0, st.m_nExit) << st.m_strText << m_box.ReadDaemonTrace();
    EXPECT_TRUE(st.m_strOutcome == "finished" && st.m_nResult == 0 && st.m_nCmdForbid == 0 && st.m_nHeadForbid == 0)
        << st.m_strText;
    long long nTs = st.m_nTs;
    ASSERT_GT(nTs, 0);
    ASSERT_EQ(m_strDes + "Backup/TalvorBackup" + std::to_string(nTs) + ".fbk", st.m_strPath);
    std::string strBackup = ReadWholeFile(st.m_strPath);
    CheckBackupFile(strBackup, mapDisk, CLUSTER_DB_FILES, m_box.DataDir(), nTs);
    // The operator's check calls it whole (a cut one is BackupVerify's).
    std::string strOut;
    EXPECT_EQ(0, m_box.Run({ToolPath("talvor-backup"), "verify", st.m_strPath}, 60000, &strOut)) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("result: whole")) << strOut;
    // The stand-in went on committing past the backup.
    ASSERT_EQ(0, m_box.WaitExit(peer, 120000));
    std::string strPeer = ReadWholeFile(m_box.Root() + "/peer.out");
    EXPECT_GT(NumberAfter(strPeer, "last timestamp "), nTs) << strPeer;
    ASSERT_TRUE(StopDaemon(m_box, m_pid));
    VerifyJournal(m_box, strJournal, Path("System.dbf"));
}
