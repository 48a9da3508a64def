// The daemon's incremental backup of a loaded database against the offline
// verifier: power lost at any write of it leaves nothing the verifier takes
// for a whole one. Whole chains the daemon took are checked end to end.
#include "BackupFixture.h"
#include "PersistenceDb.h"

#include <gtest/gtest.h>

#include <vector>

using namespace backuptest;
using namespace talvortest;

namespace {

class BackupOfLoadedDatabase : public ::testing::Test {
protected:
    BackupOfLoadedDatabase() : m_db(24 * 1048576LL, 320) {}
    void SetUp() override
    {
        m_db.MakeStartAndSave();
        m_strArchive = m_db.m_tree.Dir() + "Archive/";
    }

    std::string BackupPath(long long nTimestamp) const
    {
        return m_strArchive + "Backup/TalvorBackup" + std::to_string(nTimestamp) + ".fbk";
    }
    std::vector<char> ArchiveList() const
    {
        std::vector<char> v(m_strArchive.begin(), m_strArchive.end());
        v.push_back('\0');
        return v;
    }
    BOOL Full(long long nTimestamp)
    {
        std::vector<char> vList = ArchiveList();
        volatile BYTE bAbort = 0;
        return m_db.Module().BackupFull(&m_db.m_stCrit, nullptr, vList.data(), (int)vList.size(), nTimestamp, 3, 50,
                                        0x0100007F, bAbort);
    }
    BOOL Incremental(BYTE bLevel, long long nTimestamp, long long nRef)
    {
        std::vector<char> vList = ArchiveList();
        volatile BYTE bAbort = 0;
        return m_db.Module().BackupIncremental(&m_db.m_stCrit, nullptr, vList.data(), (int)vList.size(), bLevel,
                                               nTimestamp, nRef, 3, 50, 0x0100007F, bAbort);
    }
    // One transaction per block of file 2 from nFirst on; saved to disk, as
    // the command's pass saves before a backup. The first stamp.
    long long ChangeAndSave(int nFirst, int nCount)
    {
        long long nFirstStamp = 0;
        for (int b = nFirst; b < nFirst + nCount; b++) {
            long long ts = m_db.BeginTransaction();
            if (nFirstStamp == 0) nFirstStamp = ts;
            m_db.ChangeRow(2, b, 1, ts * 5, ts);
            m_db.EndTransaction(ts);
        }
        EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        return nFirstStamp;
    }

    PersistenceDb m_db;
    std::string m_strArchive;
};

// Two backups of the same files differ in the time they were taken only.
bool SameBackup(std::string strA, const std::string& strB)
{
    const size_t nTimeAt = offsetof(BACKUPFILEHEAD, m_ftBackupTime);
    if (strA.size() != strB.size() || strA.size() < BACKUP_FIXED_HEAD_SIZE) return false;
    strA.replace(nTimeAt, sizeof(FILETIME), strB, nTimeAt, sizeof(FILETIME));
    return strA == strB;
}

} // namespace

TEST_F(BackupOfLoadedDatabase, PowerLossAtAnyWriteOfAnIncrementalBackup)
{
    const long long nFull = m_db.Head()->m_nEndTimestamp;
    ASSERT_TRUE(Full(nFull));
    long long nRef = ChangeAndSave(40, 6);
    const long long nLevel1 = m_db.Head()->m_nEndTimestamp;
    const std::string strPath = BackupPath(nLevel1);
    long long nWrites = 0;
    std::string strWhole;
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_db.m_tree.LogDir());
        ASSERT_TRUE(Incremental(1, nLevel1, nRef));
        nWrites = io.Calls(FileOp::PWrite);
        strWhole = ReadWholeFile(strPath);
    }
    ASSERT_GE(nWrites, 6);
    struct Cut {
        const char* m_lpName;
        long long m_nDieAfterDelta;
        size_t m_nTorn;
    };
    const Cut arCuts[] = {{"lost", -1, 0}, {"torn at 512", 0, 512}, {"whole", 0, 0}};
    int nAccepted = 0;
    for (long long k = 1; k <= nWrites; k++) {
        for (const Cut& c : arCuts) {
            unlink(strPath.c_str());
            BOOL bDone = FALSE;
            {
                FaultFileIO io;
                ScopedFileIO scoped(&io);
                io.PassThrough(m_db.m_tree.LogDir());
                io.DieAfter(FileOp::PWrite, k + c.m_nDieAfterDelta);
                if (c.m_nTorn > 0) io.CutTransfer(FileOp::PWrite, k, c.m_nTorn);
                bDone = Incremental(1, nLevel1, nRef);
                io.LosePower(NameLoss::Keep);
            }
            Verified v(strPath);
            bool bWhole = SameBackup(ReadWholeFile(strPath), strWhole);
            if (v.Status() == BACKUPVERIFY_WHOLE) {
                nAccepted++;
                EXPECT_TRUE(bWhole) << "write " << k << " of " << nWrites << ", " << c.m_lpName;
            }
            // Done only once the head is synced behind the data: a device
            // that dies after any write leaves it not done.
            EXPECT_FALSE(bDone) << "write " << k << ", " << c.m_lpName;
        }
    }
    (void)nAccepted;
    // A backup that ended done survives a power loss right after it whole.
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_db.m_tree.LogDir());
        ASSERT_TRUE(Incremental(1, nLevel1, nRef));
        io.LosePower(NameLoss::Undo);
    }
    Verified v(strPath);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    EXPECT_TRUE(SameBackup(ReadWholeFile(strPath), strWhole));
}
