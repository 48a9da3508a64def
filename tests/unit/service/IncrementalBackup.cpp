// The incremental backup over a loaded database, run through its cluster
// command, read back against the files on disk.
#include "BackupFixture.h"
#include "MemDBBackupDef.h"
#include "PersistenceDb.h"
#include "TestFiles.h"

#include <set>

using namespace talvortest;

namespace {

template <class T>
T At(const std::string& s, long long nOffset)
{
    T v;
    memset(&v, 0, sizeof(v));
    if (nOffset >= 0 && nOffset + (long long)sizeof(T) <= (long long)s.size()) memcpy(&v, &s[(size_t)nOffset], sizeof(T));
    return v;
}

class IncrementalBackup : public ::testing::Test {
protected:
    IncrementalBackup() : m_db(24 * 1048576LL, 320) {}
    void SetUp() override
    {
        m_db.MakeStartAndSave();
        m_lpCmd = m_db.Module().m_pFlashback->GetClusterCommand();
        m_strArchive = m_db.m_tree.Dir() + "Archive/";
        snprintf(m_db.Head()->m_lpArchiveDesPath, sizeof(m_db.Head()->m_lpArchiveDesPath), "%s", m_strArchive.c_str());
    }
    std::string BackupPath(long long nTimestamp) const
    {
        return m_strArchive + "Backup/TalvorBackup" + std::to_string(nTimestamp) + ".fbk";
    }
    // Command 40 or 41 as the engine writes it; the result byte.
    BYTE Backup(BYTE bCommand, long long nTimestamp, BYTE bLevel = 0, long long nRef = 0)
    {
        m_lpCmd->m_nTimestamp = nTimestamp;
        m_lpCmd->m_nTimestamp2 = nRef;
        m_lpCmd->m_bLevel = bLevel;
        m_lpCmd->m_bAbort = 0;
        m_lpCmd->m_bResult = 0x5A;
        m_lpCmd->m_bForbidSaveFlag = 1;
        m_lpCmd->m_bCommandType = bCommand;
        m_db.Module().ClusterCommand(&m_db.m_stCrit, m_lpCmd, m_db.Module().m_pFlashback->GetProgress(),
                                     m_db.m_nRedoLogMaxID);
        EXPECT_EQ(CLUSTERCMD_FINISHED, Val(m_lpCmd->m_bCommandType));
        return m_lpCmd->m_bResult;
    }
    PersistenceDb m_db;
    LPTALVORCOMMAND m_lpCmd = nullptr;
    std::string m_strArchive;
};

} // namespace

TEST_F(IncrementalBackup, ThePageAfter290ItemsChainsOn)
{
    long long nRef = m_db.BeginTransaction();
    for (int nBlock = 0; nBlock < 320; nBlock++) {
        long long ts = m_db.BeginTransaction();
        m_db.ChangeRow(2, nBlock, 0, ts, ts);
        m_db.EndTransaction(ts);
    }
    const long long nTs = m_db.Head()->m_nEndTimestamp;
    ASSERT_EQ(CLUSTERRESULT_OK, Backup(CLUSTERCMD_INCREMENTBACKUP, nTs, 1, nRef));
    // The archiver is told of the finished backup.
    EXPECT_EQ(nTs, Val(m_db.Module().m_pFlashback->GetStorageMemHead()->m_nBackupTimestamp));
    std::string strBackup = ReadWholeFile(BackupPath(nTs));
    const STRUCT_BACKUP_FILEINFO r = At<STRUCT_BACKUP_FILEINFO>(strBackup, BACKUP_FIXED_HEAD_SIZE + 296LL);
    ASSERT_EQ(2, Val(r.m_bFileNo));
    std::string strFile = ReadWholeFile(m_db.PathOf(2));
    // Each piece is the file's bytes; no two pieces or pages overlap; a full
    // page points at the next, only the last may hold fewer.
    std::vector<long long> vPages;
    std::vector<std::pair<long long, long long>> vRanges;
    size_t nItems = 0;
    for (long long nPage = r.m_nDataStartOffset; nPage != 0 && vPages.size() < 100;) {
        vPages.push_back(nPage);
        ASSERT_LE(nPage + BACKUP_INCREMENT_PAGE_SIZE, (long long)strBackup.size());
        BACKUPINCREMENTHEAD stPage = At<BACKUPINCREMENTHEAD>(strBackup, nPage);
        EXPECT_EQ(BACKUP_INCREMENT_FLAG, Val(stPage.m_nDataFlag));
        EXPECT_EQ(BACKUP_INCREMENT_PAGE_SIZE, Val(stPage.m_nBlockSize));
        const int nCount = stPage.m_nIncrementBlockNum;
        ASSERT_TRUE(nCount >= 0 && nCount <= BACKUP_INCREMENT_MAX_ITEMS) << nCount;
        for (int i = 0; i < nCount; i++, nItems++) {
            BACKUPINCREMENTITEM it = At<BACKUPINCREMENTITEM>(strBackup, nPage + 20 + 28LL * i);
            ASSERT_TRUE(strBackup.compare((size_t)it.m_nBlockDataPos, (size_t)it.m_nBlockSize, strFile,
                                          (size_t)it.m_nBlockFilePos, (size_t)it.m_nBlockSize) == 0);
            vRanges.push_back({Val(it.m_nBlockDataPos), Val(it.m_nBlockDataPos) + Val(it.m_nBlockSize)});
        }
        nPage = stPage.m_nNextPos;
        EXPECT_TRUE(nPage == 0 || nCount == BACKUP_INCREMENT_MAX_ITEMS) << nCount;
    }
    // The head, one map block, 320 blocks: two pages.
    EXPECT_EQ(322u, nItems);
    EXPECT_EQ(2u, vPages.size());
    for (long long nPage : vPages) vRanges.push_back({nPage, nPage + BACKUP_INCREMENT_PAGE_SIZE});
    std::sort(vRanges.begin(), vRanges.end());
    for (size_t i = 1; i < vRanges.size(); i++) EXPECT_LE(vRanges[i - 1].second, vRanges[i].first) << i;
}

// Damage on disk under blocks changed after the reference (the reference
// is the first change's own timestamp: a chain a restore would take) stops
// the backup before its name is taken.
TEST_F(IncrementalBackup, ABlockOrMapThatIsNotWhatItsEntrySaysStopsTheBackup)
{
    long long nRef = m_db.BeginTransaction();
    for (int nFileNo : {2, 3}) {
        long long ts = m_db.BeginTransaction();
        m_db.ChangeRow(nFileNo, 5, 0, ts, ts);
        m_db.EndTransaction(ts);
    }
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    const long long nTs = m_db.Head()->m_nEndTimestamp + 1;
    const long long nMap = At<BASEFILEHEAD>(ReadWholeFile(m_db.PathOf(3)), 0).m_nBlockMapStartOffset;
    struct Case {
        const char* m_lpWhat;
        int m_nFileNo;
        long long m_nAt;
        long long m_nValue;  // written in m_nSize bytes
        size_t m_nSize;
    };
    const Case arCases[] = {
        {"a block head naming another number", 2, m_db.BlockOffset(2, 5) + (long long)offsetof(BASEBLOCKHEAD, m_nBlockNo), 999, 4},
        {"a next map far past the end", 3, nMap + (long long)offsetof(BASEFILEBLOCKMAPHEAD, m_nNextBlockMapOffset), 1LL << 40, 8},
        {"a map count past its block", 3, nMap + (long long)offsetof(BASEFILEBLOCKMAPHEAD, m_nBlockMapNum), 1 << 30, 4},
    };
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        const std::string strGood = ReadWholeFile(m_db.PathOf(c.m_nFileNo));
        std::string strFile = strGood;
        memcpy(&strFile[(size_t)c.m_nAt], &c.m_nValue, c.m_nSize);
        ASSERT_TRUE(WriteWholeFile(m_db.PathOf(c.m_nFileNo), strFile));
        EXPECT_EQ(CLUSTERRESULT_FAILED, Backup(CLUSTERCMD_INCREMENTBACKUP, nTs, 1, nRef));
        EXPECT_FALSE(PathExists(BackupPath(nTs)));
        ASSERT_TRUE(WriteWholeFile(m_db.PathOf(c.m_nFileNo), strGood));
    }
    // The same backup over the files made whole: the damage stopped it.
    EXPECT_EQ(CLUSTERRESULT_OK, Backup(CLUSTERCMD_INCREMENTBACKUP, nTs, 1, nRef));
}

namespace {

// A database whose image and disk differ: blocks saved before the reference,
// one stamped exactly at it, some saved after it, and some changed in the
// image only after the last pass (one of them also saved after the
// reference). The data blocks that must go in are the saved ones at or
// after the reference.
class IncrementalBackupByImage : public IncrementalBackup {
protected:
    void SetUp() override
    {
        IncrementalBackup::SetUp();
        if (HasFatalFailure()) return;
        Change({3, 40});
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        m_nRef = Change({17});
        Change({18, 200});
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        Change({5, 18, 250});
        for (int nBlock : {17, 18, 200}) m_setSaved.insert(m_db.BlockOffset(2, nBlock));
        m_nTs = m_db.Head()->m_nEndTimestamp;
    }
    // One transaction per block of the data file; the first one's stamp.
    long long Change(std::initializer_list<int> blocks)
    {
        long long nFirst = 0;
        for (int nBlock : blocks) {
            long long ts = m_db.BeginTransaction();
            if (nFirst == 0) nFirst = ts;
            m_db.ChangeRow(2, nBlock, 2, ts * 7, ts);
            // Bytes at the far end of the block as well, so that a block
            // copied only in part does not pass for whole.
            LPBYTE lpBlock = m_db.Image(2) + m_db.BlockOffset(2, nBlock);
            int nBlockSize = ((LPBASEBLOCKHEAD)lpBlock)->m_nBlockSize;
            memset(lpBlock + nBlockSize - 256, (int)(0x40 + ts % 64), 256);
            m_db.EndTransaction(ts);
        }
        return nFirst;
    }
    // The backup as the module takes it after the command's pass, with or
    // without the image; its bytes.
    std::string BackupNow(BOOL bByImage)
    {
        CBreltMemStorageModule& m = m_db.Module();
        m.m_bIncrementSkipByImage = bByImage;
        BYTE bAbort = 0;
        EXPECT_TRUE(m.BackupIncremental(&m_db.m_stCrit, m.m_pFlashback->GetProgress(), m_db.Head()->m_lpArchiveDesPath,
                                        512, 1, m_nTs, m_nRef, 0, 0, 0, bAbort));
        m.m_bIncrementSkipByImage = TRUE;
        return ReadWholeFile(BackupPath(m_nTs));
    }
    std::set<long long> DataBlocksOfFile2(const std::string& strBackup)
    {
        const STRUCT_BACKUP_FILEINFO r = At<STRUCT_BACKUP_FILEINFO>(strBackup, BACKUP_FIXED_HEAD_SIZE + 296LL);
        EXPECT_EQ(2, Val(r.m_bFileNo));
        std::set<long long> setBlocks;
        int nPages = 0;
        for (long long nPage = r.m_nDataStartOffset; nPage != 0 && nPages++ < 100;) {
            BACKUPINCREMENTHEAD stPage = At<BACKUPINCREMENTHEAD>(strBackup, nPage);
            EXPECT_EQ(BACKUP_INCREMENT_FLAG, Val(stPage.m_nDataFlag));
            for (int i = 0; i < std::min(Val(stPage.m_nIncrementBlockNum), BACKUP_INCREMENT_MAX_ITEMS); i++) {
                BACKUPINCREMENTITEM it = At<BACKUPINCREMENTITEM>(strBackup, nPage + 20 + 28LL * i);
                if (it.m_nBlockType == BACKUPITEM_DATABLOCK) setBlocks.insert(Val(it.m_nBlockFilePos));
            }
            nPage = stPage.m_nNextPos;
        }
        return setBlocks;
    }
    long long m_nRef = 0;
    long long m_nTs = 0;
    std::set<long long> m_setSaved;
};

} // namespace

TEST_F(IncrementalBackupByImage, PassingOverByTheImageWritesTheSameBytesAsReadingEveryHead)
{
    const std::string strByDisk = BackupNow(FALSE);
    const std::string strBackup = BackupNow(TRUE);
    // Not a vacuous match: the blocks saved at or after the reference, and
    // none that changed in the image only.
    EXPECT_EQ(m_setSaved, DataBlocksOfFile2(strBackup));
    EXPECT_EQ(m_setSaved, DataBlocksOfFile2(strByDisk));
    EXPECT_TRUE(backuptest::SameBackup(strByDisk, strBackup));
}

// A backup is written under a name of its own until it is whole, and takes
// the name of an older one only from the same place in a chain: a backup
// that fails, or one that names itself as its reference, or one of another
// level, never costs the backup already there.
TEST_F(IncrementalBackup, ABackupNeverCostsTheBackupWhoseNameItWouldTake)
{
    const long long nTs = m_db.Head()->m_nEndTimestamp;
    ASSERT_EQ(CLUSTERRESULT_OK, Backup(CLUSTERCMD_FULLBACKUP, nTs));
    const std::string strFull = ReadWholeFile(BackupPath(nTs));
    ASSERT_FALSE(strFull.empty());
    auto ExpectFullKept = [&](const char* lpszWhat) {
        EXPECT_TRUE(ReadWholeFile(BackupPath(nTs)) == strFull) << lpszWhat;
        EXPECT_FALSE(PathExists(BackupPath(nTs) + ".part")) << lpszWhat;
    };
    // An idle database: the next incremental comes at the same timestamp,
    // on it.
    EXPECT_EQ(CLUSTERRESULT_FAILED, Backup(CLUSTERCMD_INCREMENTBACKUP, nTs, 1, nTs));
    ExpectFullKept("an incremental on itself");
    EXPECT_EQ(CLUSTERRESULT_FAILED, Backup(CLUSTERCMD_INCREMENTBACKUP, nTs, 1, nTs - 1));
    ExpectFullKept("an incremental in the full backup's place");
    // A full backup of the same timestamp that fails at any write.
    for (long long nFail : {1, 2, 3}) {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        // Only the backup's own writes are counted and failed.
        io.PassThrough(m_db.m_tree.LogDir());
        for (int nFileNo = 1; nFileNo <= 4; nFileNo++) io.PassThrough(m_db.PathOf(nFileNo));
        io.FailCall(FileOp::PWrite, nFail, EIO);
        EXPECT_EQ(CLUSTERRESULT_FAILED, Backup(CLUSTERCMD_FULLBACKUP, nTs));
        ExpectFullKept("a full backup that failed");
    }
    // Renamed, but its directory cannot be synced: the backup under the name
    // is the new one, whole, and is answered so (the archiver copies it).
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_db.m_tree.LogDir());
        io.OnCall(FileOp::Rename, [&](const FileCall&) { io.FailNext(FileOp::SyncDirectory, EIO, FAULT_ALWAYS); });
        EXPECT_EQ(CLUSTERRESULT_OK, Backup(CLUSTERCMD_FULLBACKUP, nTs));
    }
    backuptest::Verified v(BackupPath(nTs));
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
}
