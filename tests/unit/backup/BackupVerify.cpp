// The offline backup verifier on full and incremental backups and chains
// made here (not by the daemon, so that it is checked against the format and
// not the writer it checks). Power lost at any write is checked against the
// daemon's own writers (BackupPowerLoss).
#include "BackupIncrementFixture.h"
#include "FaultFileIO.h"
#include "PackedValue.h"
#include "TalvorBackupChain.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
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
    EXPECT_EQ(8192, r.m_nHeadSize);
    ASSERT_EQ((int)m_vFiles.size(), r.m_nItemNum);
    for (size_t i = 0; i < m_vFiles.size(); i++) {
        const BACKUPRESTOREITEM& it = r.m_arItem[i];
        EXPECT_STREQ(m_vFiles[i].m_strPath.c_str(), it.m_lpszFilePath);
        EXPECT_EQ(m_vFiles[i].m_bFileNo, it.m_bFileNo);
        EXPECT_EQ(m_vFiles[i].m_bFileType, it.m_bFileType);
        EXPECT_EQ(m_vFiles[i].m_nFileSize, it.m_nFileSize);
        EXPECT_EQ(m_vFiles[i].m_nFree, it.m_nCopiedSize);
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

// The verifier's promise to an operator: it opens the backup read-only,
// changes nothing, and reads the heads, not the data.
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
    for (FileOp op : {FileOp::PWrite, FileOp::FTruncate, FileOp::Unlink, FileOp::Rename, FileOp::MkDir})
        EXPECT_EQ(0, io.Calls(op)) << (int)op;
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

// Incremental backups.
namespace {

class BackupIncrementTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_vFiles = SampleIncrement(m_tree);
        m_strWhole = IncrementImage(m_vFiles);
        m_strPath = m_tree.Path("TalvorBackup990077.fbk");
    }

    int StatusAfter(const std::function<void(std::string&)>& fnChange)
    {
        return StatusAfterChange(m_strPath, m_strWhole, fnChange);
    }

    static LPBACKUPINCREMENTHEAD Page(std::string& s, long long nPos) { return PageAt(s, nPos); }
    static LPBACKUPINCREMENTITEM Item(std::string& s, long long nPage, int nItem)
    {
        return &Page(s, nPage)->m_pBlockItem[nItem];
    }
    long long FirstPage(int nFile) { return Val(Record(m_strWhole, nFile)->m_nDataStartOffset); }
    long long SecondPage(int nFile) { return Val(Page(m_strWhole, FirstPage(nFile))->m_nNextPos); }

    TempTree m_tree{"bverify"};
    std::vector<IncFile> m_vFiles;
    std::string m_strWhole;
    std::string m_strPath;
};

} // namespace

TEST_F(BackupIncrementTest, WholeIncrementPassesAndListsWhatARestoreApplies)
{
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));
    Verified v(m_strPath);
    ASSERT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    const BACKUPVERIFYREPORT& r = v.Report();
    EXPECT_EQ(1, r.m_nLevel);
    EXPECT_EQ(INCREMENT_TIMESTAMP, r.m_nTimestamp);
    EXPECT_EQ(INCREMENT_REFER, r.m_nReferTimestamp);
    ASSERT_EQ((int)m_vFiles.size(), r.m_nItemNum);
    for (size_t i = 0; i < m_vFiles.size(); i++) {
        const BACKUPRESTOREITEM& it = r.m_arItem[i];
        long long nBytes = 0;
        for (const Piece& p : m_vFiles[i].m_vPieces)
            nBytes += p.m_nSize;
        EXPECT_STREQ(m_vFiles[i].m_stFile.m_strPath.c_str(), it.m_lpszFilePath);
        EXPECT_EQ((int)m_vFiles[i].m_vPieces.size(), it.m_nPieceNum) << i;
        EXPECT_EQ(nBytes, it.m_nCopiedSize) << i;
    }
    // The data file's 334 items take two pages, the first one full.
    EXPECT_EQ(BACKUP_INCREMENT_MAX_ITEMS, Val(Page(m_strWhole, FirstPage(1))->m_nIncrementBlockNum));
    EXPECT_NE(0, SecondPage(1));
    EXPECT_EQ(334 - BACKUP_INCREMENT_MAX_ITEMS, Val(Page(m_strWhole, SecondPage(1))->m_nIncrementBlockNum));
    // The unchanged file has a record and no data.
    EXPECT_EQ(0, Val(Record(m_strWhole, 2)->m_nDataStartOffset));
}

TEST_F(BackupIncrementTest, EveryCutIsRefused)
{
    const long long nWhole = (long long)m_strWhole.size();
    std::set<long long> setCuts = {0, 131, 8191, 8192, nWhole - 1};
    for (int i : {0, 1, 3}) {
        setCuts.insert(FirstPage(i));
        setCuts.insert(FirstPage(i) + 20);
        setCuts.insert(FirstPage(i) + 8191);
        setCuts.insert(FirstPage(i) + 8192 + 10);
        setCuts.insert(Val(Record(m_strWhole, i)->m_nDataEndOffset) - 1);
    }
    setCuts.insert(SecondPage(1));
    setCuts.insert(SecondPage(1) + 4000);
    for (long long n = 0; n < nWhole; n += 1999)
        setCuts.insert(n);
    for (long long nCut : setCuts) {
        ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole.substr(0, (size_t)nCut)));
        Verified v(m_strPath);
        EXPECT_EQ(BACKUPVERIFY_TRUNCATED, v.Status()) << "cut at " << nCut << ": " << v.Finding();
    }
}

TEST_F(BackupIncrementTest, HeadFaultsAreRefused)
{
    auto Head = [](std::string& s) { return (LPBACKUPFILEHEAD)&s[0]; };
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, StatusAfter([&](std::string& s) { Head(s)->m_nReferTimestamp = 0; }));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD,
              StatusAfter([&](std::string& s) { Head(s)->m_nReferTimestamp = INCREMENT_TIMESTAMP; }));
    EXPECT_EQ(BACKUPVERIFY_UNFINISHED, StatusAfter([&](std::string& s) {
                  std::string strPlaceholder = PlaceholderHead((int)m_vFiles.size());
                  s.replace(0, strPlaceholder.size(), strPlaceholder);
              }));
}

TEST_F(BackupIncrementTest, PageFaultsAreRefused)
{
    // A page never rewritten: a place-holder holds no item.
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) {
                  std::string strEmpty;
                  AppendPage(strEmpty);
                  s.replace((size_t)FirstPage(3), strEmpty.size(), strEmpty);
              }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Page(s, FirstPage(0))->m_nDataFlag = BLOCK_DATAFLAG; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Page(s, FirstPage(0))->m_nBlockSize = 4096; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Page(s, FirstPage(1))->m_nIncrementBlockNum = 291; }));
    // The full first page cut back: its last items seem to be missing, the
    // next page is where the run does not expect it.
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Page(s, FirstPage(1))->m_nIncrementBlockNum = 289; }));
    // A chain that stops after the first page, skips or loops.
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Page(s, FirstPage(1))->m_nNextPos = 0; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Page(s, FirstPage(1))->m_nNextPos = SecondPage(1) + 512; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Page(s, SecondPage(1))->m_nNextPos = FirstPage(1); }));
    // A record whose data ends before or after its pages.
    EXPECT_NE(BACKUPVERIFY_WHOLE, StatusAfter([&](std::string& s) { Record(s, 3)->m_nDataEndOffset -= 512; }));
    EXPECT_NE(BACKUPVERIFY_WHOLE, StatusAfter([&](std::string& s) { Record(s, 0)->m_nDataEndOffset -= 1; }));
    EXPECT_NE(BACKUPVERIFY_WHOLE, StatusAfter([&](std::string& s) { Record(s, 0)->m_nDataEndOffset += 1; }));
    // A changed file's data must follow the changed one before it.
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 3)->m_nDataStartOffset += 8192; }));
    EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 2)->m_nDataEndOffset = 8192; }));
}

TEST_F(BackupIncrementTest, ItemFaultsAreRefused)
{
    long long nPage = FirstPage(0);
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 1)->m_nBlockType = 4; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 0)->m_nBlockType = 3; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockType = 1; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 0)->m_nBlockFilePos = 512; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockDataPos += 1; }));
    // Longer than the block it names: the next item's data is not where it
    // says, or the block's own size differs.
    EXPECT_NE(BACKUPVERIFY_WHOLE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockSize += 512; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockSize = 0; }));
    // Pieces too short to hold a map block's or a block's head.
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 1)->m_nBlockSize = 24; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockSize = 40; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE,
              StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockFilePos = 1048576 - 1024; }));
    EXPECT_EQ(BACKUPVERIFY_BADPAGE, StatusAfter([&](std::string& s) { Item(s, nPage, 2)->m_nBlockFilePos = -2048; }));
}

TEST_F(BackupIncrementTest, PieceThatIsNotWhatItsItemNamesIsRefused)
{
    long long nPage = FirstPage(0);
    auto At = [&](std::string& s, int nItem) {
        return &s[(size_t)Val(Item(m_strWhole, nPage, nItem)->m_nBlockDataPos)];
    };
    // The copied head.
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { ((LPBASEFILEHEAD)At(s, 0))->m_bFileNo = 3; }));
    // A map block: mark, number; a memory-mode file with the cache mode's mark.
    EXPECT_EQ(BACKUPVERIFY_BADMARK,
              StatusAfter([&](std::string& s) { ((LPBASEFILEBLOCKMAPHEAD)At(s, 1))->m_nMapNo = 2; }));
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) {
                  ((LPBASEFILEBLOCKMAPHEAD)At(s, 1))->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
              }));
    // A block: mark, number, size.
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { ((LPBASEBLOCKHEAD)At(s, 2))->m_nDataFlag = 0; }));
    EXPECT_EQ(BACKUPVERIFY_BADMARK, StatusAfter([&](std::string& s) { ((LPBASEBLOCKHEAD)At(s, 3))->m_nBlockNo = 1; }));
    EXPECT_EQ(BACKUPVERIFY_BADMARK,
              StatusAfter([&](std::string& s) { ((LPBASEBLOCKHEAD)At(s, 3))->m_nBlockSize = 4096; }));
    // Item and piece agree on another number: the piece is that block.
    EXPECT_EQ(BACKUPVERIFY_WHOLE, StatusAfter([&](std::string& s) {
                  Item(s, nPage, 3)->m_nBlockNo = 77;
                  ((LPBASEBLOCKHEAD)At(s, 3))->m_nBlockNo = 77;
              }));
}

namespace {

struct ChainVerdict {
    int m_nStatus;
    int m_nLinkNum;
    std::string m_strFinding;
    std::vector<int> m_vLinkStatus;
};

ChainVerdict VerifyChainAt(const std::string& strTop)
{
    std::unique_ptr<BACKUPCHAINREPORT> pReport(new BACKUPCHAINREPORT);
    ChainVerdict v;
    v.m_nStatus = TalvorVerifyBackupChain(strTop.c_str(), pReport.get());
    v.m_nLinkNum = pReport->m_nLinkNum;
    v.m_strFinding = pReport->m_szFinding;
    for (int i = 0; i < pReport->m_nLinkNum; i++) v.m_vLinkStatus.push_back(pReport->m_arLink[i].m_nStatus);
    return v;
}

} // namespace

TEST_F(BackupIncrementTest, AChainIsWholeOnlyWithEveryLinkThereWholeAndOfTheLevelTimestampAndDatabaseNamed)
{
    std::vector<DbFile> vFull;
    for (const IncFile& f : m_vFiles) vFull.push_back(f.m_stFile);
    const std::string strFull = WholeBackup(vFull);
    const std::string strFullPath = m_tree.Path("TalvorBackup" + std::to_string(INCREMENT_REFER) + ".fbk");
    ASSERT_TRUE(WriteWholeFile(strFullPath, strFull));
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));

    ChainVerdict v = VerifyChainAt(m_strPath);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.m_nStatus) << v.m_strFinding;
    EXPECT_EQ(2, v.m_nLinkNum);
    v = VerifyChainAt(strFullPath);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.m_nStatus) << v.m_strFinding;
    EXPECT_EQ(1, v.m_nLinkNum);

    // A level 2 that names the full backup as the one below it.
    std::string strLevel2 = m_strWhole;
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)&strLevel2[0];
    lpHead->m_bLevel = 2;
    lpHead->m_nTimestamp = INCREMENT_TIMESTAMP + 5;
    const std::string strLevel2Path = m_tree.Path("TalvorBackup" + std::to_string(INCREMENT_TIMESTAMP + 5) + ".fbk");
    ASSERT_TRUE(WriteWholeFile(strLevel2Path, strLevel2));
    v = VerifyChainAt(strLevel2Path);
    EXPECT_EQ(BACKUPVERIFY_BADLINK, v.m_nStatus);
    EXPECT_NE(std::string::npos, v.m_strFinding.find("not of the level just below")) << v.m_strFinding;
    EXPECT_EQ((std::vector<int>{BACKUPVERIFY_WHOLE, BACKUPVERIFY_BADLINK}), v.m_vLinkStatus);

    // The full backup under the name the level 1 refers to carries another
    // timestamp, or another database's identity: each alone a whole backup.
    const std::pair<size_t, const char*> arFaults[] = {
        {offsetof(BACKUPFILEHEAD, m_nTimestamp), "timestamp the backup above refers to"},
        {offsetof(BACKUPFILEHEAD, m_usDataBaseGuid), "another database"}};
    for (const auto& fault : arFaults) {
        SCOPED_TRACE(fault.second);
        std::string strOther = strFull;
        strOther[fault.first] ^= 0x01;
        ASSERT_TRUE(WriteWholeFile(strFullPath, strOther));
        ASSERT_EQ(BACKUPVERIFY_WHOLE, Verified(strFullPath).Status());
        v = VerifyChainAt(m_strPath);
        EXPECT_EQ(BACKUPVERIFY_BADLINK, v.m_nStatus);
        EXPECT_NE(std::string::npos, v.m_strFinding.find(fault.second)) << v.m_strFinding;
    }

    // The full backup cut: the link's own finding, named as link 1.
    ASSERT_TRUE(WriteWholeFile(strFullPath, strFull.substr(0, strFull.size() - 1)));
    v = VerifyChainAt(m_strPath);
    EXPECT_EQ(BACKUPVERIFY_TRUNCATED, v.m_nStatus);
    EXPECT_EQ(0u, v.m_strFinding.find("link 1: " + strFullPath)) << v.m_strFinding;

    // Gone: a missing link; a top that is not there is only unreadable.
    ASSERT_EQ(0, unlink(strFullPath.c_str()));
    v = VerifyChainAt(m_strPath);
    EXPECT_EQ(BACKUPVERIFY_MISSINGLINK, v.m_nStatus) << v.m_strFinding;
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, VerifyChainAt(strFullPath).m_nStatus);

    // A top path the report has no room for is refused, not cut.
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, VerifyChainAt("/" + std::string(BACKUP_CHAIN_PATH_MAX, 'a')).m_nStatus);
}
