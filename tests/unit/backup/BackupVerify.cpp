// The offline backup verifier on full backups made here (not by the daemon,
// so that it is checked against the format and not the writer it checks).
#include "BackupFixture.h"
#include "FaultFileIO.h"
#include "PackedValue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>

using namespace backuptest;
using namespace talvortest;

namespace {

class BackupVerifyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_vFiles = SampleFiles(m_tree);
        m_strWhole = WholeBackup(m_vFiles);
        m_strPath = m_tree.Path("TalvorBackup880044.fbk");
    }

    int StatusAfter(const std::function<void(std::string&)>& fnChange)
    {
        return StatusAfterChange(m_strPath, m_strWhole, fnChange);
    }

    // Where file nIndex's copy starts in the whole backup.
    long long DataStart(int nIndex) { return Val(Record(m_strWhole, nIndex)->m_nDataStartOffset); }

    TempTree m_tree{"bverify"};
    std::vector<DbFile> m_vFiles;
    std::string m_strWhole;
    std::string m_strPath;
};

} // namespace

TEST_F(BackupVerifyTest, WholeBackupPassesAndListsWhatARestoreWrites)
{
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));
    Verified v(m_strPath);
    ASSERT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    const BACKUPVERIFYREPORT& r = v.Report();
    EXPECT_EQ((long long)m_strWhole.size(), r.m_nBackupFileSize);
    EXPECT_TRUE(r.m_bHeadKnown);
    EXPECT_EQ(BACKUP_TIMESTAMP, r.m_nTimestamp);
    EXPECT_EQ(0, r.m_nLevel);
    EXPECT_EQ(BACKUP_LOGNO, r.m_nLogNo);
    EXPECT_EQ(BACKUP_LOGPOS, r.m_nLogPos);
    EXPECT_EQ(8192, r.m_nHeadSize);
    ASSERT_EQ((int)m_vFiles.size(), r.m_nItemNum);
    for (size_t i = 0; i < m_vFiles.size(); i++) {
        const BACKUPRESTOREITEM& it = r.m_arItem[i];
        EXPECT_STREQ(m_vFiles[i].m_strPath.c_str(), it.m_lpszFilePath);
        EXPECT_EQ(m_vFiles[i].m_bFileNo, it.m_bFileNo);
        EXPECT_EQ(m_vFiles[i].m_bFileType, it.m_bFileType);
        EXPECT_EQ(m_vFiles[i].m_nFileSize, it.m_nFileSize);
        EXPECT_EQ(m_vFiles[i].m_nFree, it.m_nCopiedSize);
        // An empty copy holds no head to take a timestamp from.
        EXPECT_EQ(m_vFiles[i].m_nFree == 0 ? 0 : m_vFiles[i].m_nTimestamp, it.m_nHeadTimestamp);
    }
}

TEST_F(BackupVerifyTest, MoreThan27FilesTakeALargerHeadArea)
{
    std::vector<DbFile> vMany = ManyFiles(m_tree, 30);
    std::string strBackup = WholeBackup(vMany);
    ASSERT_EQ(16384, Val(((LPBACKUPFILEHEAD)&strBackup[0])->m_nHeadSize));
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    {
        Verified v(m_strPath);
        EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
        EXPECT_EQ(30, v.Report().m_nItemNum);
    }
    // A head area of one 8192-byte step cannot hold 30 records.
    ((LPBACKUPFILEHEAD)&strBackup[0])->m_nHeadSize = 8192;
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    Verified v(m_strPath);
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, v.Status());
}

// Cuts at every boundary of the layout, and a sweep of lengths in between.
TEST_F(BackupVerifyTest, EveryCutIsRefused)
{
    const long long nWhole = (long long)m_strWhole.size();
    std::set<long long> setCuts = {0, 1, 4, 20, 131, 132, 132 + 100, 132 + 296, 132 + 296 + 24, 132 + 6 * 296,
                                   8191, 8192, 8193, nWhole - 1};
    for (int i = 0; i < (int)m_vFiles.size(); i++) {
        long long nStart = DataStart(i);
        for (long long d : {0LL, 1LL, 30LL, 105LL, 106LL, 4096LL, m_vFiles[i].m_nFree / 2, m_vFiles[i].m_nFree - 1})
            if (d >= 0 && d < m_vFiles[i].m_nFree) setCuts.insert(nStart + d);
    }
    for (long long n = 0; n < nWhole; n += 997) setCuts.insert(n);
    for (long long nCut : setCuts) {
        ASSERT_LT(nCut, nWhole);
        ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole.substr(0, (size_t)nCut)));
        Verified v(m_strPath);
        EXPECT_EQ(BACKUPVERIFY_TRUNCATED, v.Status()) << "cut at " << nCut << ": " << v.Finding();
    }
}

// The finished head torn at any byte over the place-holder: refused unless
// every byte that differs from the place-holder made it.
TEST_F(BackupVerifyTest, HeadTornAtAnyByteIsRefused)
{
    std::string strPlaceholder = PlaceholderHead((int)m_vFiles.size());
    size_t nLastDiff = 0;
    for (size_t i = 0; i < strPlaceholder.size(); i++)
        if (strPlaceholder[i] != m_strWhole[i]) nLastDiff = i;
    ASSERT_GT(nLastDiff, (size_t)BACKUP_FIXED_HEAD_SIZE);
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));
    for (size_t nTorn = 0; nTorn <= nLastDiff + 1; nTorn++) {
        std::string strHead = m_strWhole.substr(0, nTorn) + strPlaceholder.substr(nTorn);
        ASSERT_TRUE(WriteFileAt(m_strPath, 0, strHead));
        Verified v(m_strPath);
        if (nTorn == nLastDiff + 1)
            EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
        else
            EXPECT_NE(BACKUPVERIFY_WHOLE, v.Status()) << "head torn after " << nTorn << " bytes";
    }
}

// Records written in another order than front to back: any record still
// zero keeps the backup refused.
TEST_F(BackupVerifyTest, AnyRecordStillZeroIsRefused)
{
    for (int i = 0; i < (int)m_vFiles.size(); i++)
        EXPECT_EQ(BACKUPVERIFY_UNFINISHED,
                  StatusAfter([&](std::string& s) { memset(Record(s, i), 0, sizeof(STRUCT_BACKUP_FILEINFO)); }))
            << "record " << i;
}

TEST_F(BackupVerifyTest, FixedHeadFaultsAreRefused)
{
    auto Head = [](std::string& s) { return (LPBACKUPFILEHEAD)&s[0]; };
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nVersion = 0x4000000; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nFileFlag = 0x41444B43; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_pDataFlag[5] = 'R'; }));
    // The data flag is NUL padded: a byte behind the text is no backup's.
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_pDataFlag[7] = 'x'; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nFileNum = 0; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nFileNum = 257; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nFileNum = -1; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nHeadSize = 16384; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nReferTimestamp = 5; }));
    // One more: record 7 is zero.
    EXPECT_EQ(BACKUPVERIFY_UNFINISHED, StatusAfter([&](std::string& s) { Head(s)->m_nFileNum += 1; }));
    // A level above 0 must name the older backup it goes on top of; and
    // then the copies of a full backup do not read as its pages.
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_bLevel = 1; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) {
                  Head(s)->m_bLevel = 1;
                  Head(s)->m_nReferTimestamp = BACKUP_TIMESTAMP - 1;
              }));
}

TEST_F(BackupVerifyTest, RecordOutOfBoundsIsRefused)
{
    const int nLast = (int)m_vFiles.size() - 1;
    // Overlapping the next: file 2's copy ends 512 bytes into file 3's.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) {
                  Record(s, 1)->m_nDataEndOffset += 512;
                  Record(s, 1)->m_nFileFreeMemoryOffset += 512;
              }));
    // The next one starting inside the one before.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) {
                  Record(s, 3)->m_nDataStartOffset -= 512;
                  Record(s, 3)->m_nFileFreeMemoryOffset += 512;
              }));
    // A gap between two copies.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 4)->m_nDataStartOffset += 512; }));
    // The first copy inside the head area.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) {
                  Record(s, 0)->m_nDataStartOffset = 4096;
                  Record(s, 0)->m_nFileFreeMemoryOffset += 4096;
              }));
    // Copy length and used part disagree.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_nFileFreeMemoryOffset -= 1; }));
    // End before start.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 2)->m_nDataEndOffset -= 1; }));
    // Used part beyond the file's size; head beyond the used part; a head
    // too small for a file head; negative sizes.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_nFileSize = 70000; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 3)->m_nFileHeaderSize = 40961; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 3)->m_nFileHeaderSize = 64; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 3)->m_nFileSize = -1; }));
    // The last copy pointing past the end of the backup: the record and the
    // copied head agree, the file is too short.
    EXPECT_EQ(BACKUPVERIFY_TRUNCATED, StatusAfter([&](std::string& s) {
                  Record(s, nLast)->m_nDataEndOffset += 16384;
                  Record(s, nLast)->m_nFileFreeMemoryOffset += 16384;
              }));
}

TEST_F(BackupVerifyTest, RecordIdentityFaultsAreRefused)
{
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 4)->m_bFileNo = 5; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 2)->m_bFileNo = 0; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) {
                  memset(Record(s, 1)->m_lpszFilePath, 'a', sizeof(Record(s, 1)->m_lpszFilePath));
              }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_lpszFilePath[0] = '\0'; }));
    for (BYTE bType : {0, 5, 9, 12, 255})
        EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_bFileType = bType; }))
            << "type " << (int)bType;
    // The restore takes record 1 for the system file.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 0)->m_bFileNo = 4; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 0)->m_bFileType = FILETYPE_DATA; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_bFileType = FILETYPE_SYSTEM; }));
}

TEST_F(BackupVerifyTest, CopiedHeadThatIsNotTheRecordsFileIsRefused)
{
    for (int i = 0; i < (int)m_vFiles.size(); i++) {
        if (m_vFiles[i].m_nFree == 0) continue;
        long long nHead = DataStart(i);
        auto Head = [&](std::string& s) { return (LPBASEFILEHEAD)&s[(size_t)nHead]; };
        EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { Head(s)->m_nDataFlag ^= 0x100; }))
            << "file " << i;
        EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { Head(s)->m_bFileNo = 99; })) << "file " << i;
        EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) {
                      Head(s)->m_bFileType = Head(s)->m_bFileType == FILETYPE_DATA ? FILETYPE_KVINDEX : FILETYPE_DATA;
                  })) << "file " << i;
        EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { Head(s)->m_nFileTotalSize += 8192; }))
            << "file " << i;
    }
    // A file of another type's mark, record and head agreeing on the type:
    // the mark must be the one of that type.
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) {
                  Record(s, 1)->m_bFileType = FILETYPE_BTREEINDEX;
                  ((LPBASEFILEHEAD)&s[(size_t)DataStart(1)])->m_bFileType = FILETYPE_BTREEINDEX;
              }));
    // Two copies swapped in place: each record's head names the other file.
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) {
                  std::string strA = s.substr((size_t)DataStart(3), 106);
                  std::string strB = s.substr((size_t)DataStart(4), 106);
                  s.replace((size_t)DataStart(3), 106, strB);
                  s.replace((size_t)DataStart(4), 106, strA);
              }));
}

TEST_F(BackupVerifyTest, MissingOrOddFileIsUnreadable)
{
    Verified vMissing(m_tree.Path("none.fbk"));
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, vMissing.Status());
    Verified vDir(m_tree.Root());
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, vDir.Status());
}

TEST_F(BackupVerifyTest, ReadsLittleAndWritesNothing)
{
    std::vector<DbFile> vBig = SampleFiles(m_tree);
    vBig[1].m_nFileSize = 32LL << 20;
    vBig[1].m_nFree = 24LL << 20;
    std::string strBig = WholeBackup(vBig);
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBig));
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    std::vector<int> vOpenFlags;
    io.OnCall(FileOp::Open, [&](const FileCall& c) { vOpenFlags.push_back(c.m_nFlags); });
    Verified v(m_strPath);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    EXPECT_EQ(0, io.Calls(FileOp::PWrite));
    EXPECT_EQ(0, io.Calls(FileOp::FTruncate));
    EXPECT_EQ(0, io.Calls(FileOp::Unlink));
    EXPECT_EQ(0, io.Calls(FileOp::Rename));
    EXPECT_EQ(0, io.Calls(FileOp::MkDir));
    ASSERT_EQ(1u, vOpenFlags.size());
    EXPECT_EQ(O_RDONLY, vOpenFlags[0] & O_ACCMODE);
    EXPECT_EQ(0, vOpenFlags[0] & (O_CREAT | O_TRUNC));
    EXPECT_EQ(io.Calls(FileOp::Open), io.Calls(FileOp::Close));
    EXPECT_LE(io.BytesRead(), BACKUP_FIXED_HEAD_SIZE + 8192 + (long long)vBig.size() * (long long)sizeof(BASEFILEHEAD));
    EXPECT_EQ(strBig, ReadWholeFile(m_strPath));
}

TEST_F(BackupVerifyTest, ReadFailureIsUnreadableNotWhole)
{
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));
    for (long long nNth = 1; nNth <= 8; nNth++) {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.FailCall(FileOp::PRead, nNth, EIO);
        Verified v(m_strPath);
        // Reads: fixed head, head area, one per non-empty copy.
        if (nNth <= 2 + (long long)m_vFiles.size() - 1)
            EXPECT_EQ(BACKUPVERIFY_UNREADABLE, v.Status()) << "read " << nNth;
        else
            EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << "read " << nNth;
    }
}
