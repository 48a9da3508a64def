// End-to-end: the operator's check of a backup that a running daemon took
// while the stand-in kept committing. talvor-backup verify calls it whole
// (exit 0) and names every database file a restore would write; the same
// backup cut by one byte, with its head area back to the place-holder, or
// with a copied head that is not its file's, exits 1 with the finding; the
// tool leaves every file it looked at as it was.
#include "ClusterKit.h"

#include "MemDBBackupDef.h"

using namespace talvortest;

namespace {

class BackupVerifyTool : public RunningDaemon {
protected:
    // The tool's exit status on strPath, its output in *pstrOut; the file
    // must be the same before and after.
    int Verify(const std::string& strPath, std::string* pstrOut)
    {
        std::string strBefore = ReadWholeFile(strPath);
        int nExit = m_box.Run({BackupToolPath(), "verify", strPath}, 60000, pstrOut);
        EXPECT_EQ(strBefore, ReadWholeFile(strPath)) << "the tool changed " << strPath;
        return nExit;
    }
};

} // namespace

TEST_F(BackupVerifyTool, DaemonsBackupIsWholeAndEachDamageIsRefused)
{
    ASSERT_EQ(0, access(BackupToolPath().c_str(), X_OK)) << "build talvor-backup first";
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

    const std::string strWhole = ReadWholeFile(st.m_strPath);
    ASSERT_GT(strWhole.size(), (size_t)BACKUP_HEAD_ALIGN);
    const BACKUPFILEHEAD* lpHead = (const BACKUPFILEHEAD*)strWhole.data();
    const std::string strDamaged = m_box.Root() + "/damaged.fbk";
    struct Damage {
        const char* m_lpName;
        std::string m_strBytes;
        const char* m_lpFinding;
    };
    std::string strPlaceholder = strWhole;
    memset(&strPlaceholder[BACKUP_FIXED_HEAD_SIZE], 0, sizeof(STRUCT_BACKUP_FILEINFO) * (size_t)lpHead->m_nFileNum);
    std::string strWrongMark = strWhole;
    strWrongMark[(size_t)lpHead->m_stBackupFileInfo[1].m_nDataStartOffset] ^= 0x01;
    const Damage arDamage[] = {
        {"cut by one byte", strWhole.substr(0, strWhole.size() - 1), "refused (truncated)"},
        {"place-holder head", strPlaceholder, "refused (unfinished)"},
        {"wrong mark", strWrongMark, "refused (bad mark)"},
    };
    for (const Damage& d : arDamage) {
        ASSERT_TRUE(WriteWholeFile(strDamaged, d.m_strBytes));
        EXPECT_EQ(1, Verify(strDamaged, &strOut)) << d.m_lpName << "\n" << strOut;
        EXPECT_NE(std::string::npos, strOut.find(d.m_lpFinding)) << d.m_lpName << "\n" << strOut;
    }
    EXPECT_EQ(2, m_box.Run({BackupToolPath(), "verify"}, 60000, &strOut));
}
