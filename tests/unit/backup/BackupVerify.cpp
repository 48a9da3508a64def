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

using Change = std::function<void(std::string&)>;
// A status for the cases where any verdict but whole will do.
const int NOT_WHOLE = -1;

LPBACKUPFILEHEAD Head(std::string& s) { return (LPBACKUPFILEHEAD)&s[0]; }

// A backup image in memory, spoilt a case at a time and written at m_strPath.
class ImageTest : public ::testing::Test {
protected:
    int StatusAfter(const Change& fnChange) { return StatusAfterChange(m_strPath, m_strWhole, fnChange); }
    // Each change alone, on the whole image, gives the status paired with it.
    void ExpectEach(std::initializer_list<std::pair<int, Change>> lCases)
    {
        int i = 0;
        for (const auto& c : lCases) {
            int nStatus = StatusAfter(c.second);
            if (c.first == NOT_WHOLE)
                EXPECT_NE(BACKUPVERIFY_WHOLE, nStatus) << "case " << i++;
            else
                EXPECT_EQ(c.first, nStatus) << "case " << i++;
        }
    }
    // Every cut of the image is refused as cut short.
    void ExpectCutsRefused(const std::set<long long>& setCuts)
    {
        for (long long nCut : setCuts) {
            ASSERT_LT(nCut, (long long)m_strWhole.size());
            ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole.substr(0, (size_t)nCut)));
            Verified v(m_strPath);
            EXPECT_EQ(BACKUPVERIFY_TRUNCATED, v.Status()) << "cut at " << nCut << ": " << v.Finding();
        }
    }

    TempTree m_tree{"bverify"};
    std::string m_strWhole;
    std::string m_strPath;
};

class BackupVerifyTest : public ImageTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_vFiles = SampleFiles(m_tree);
        m_strWhole = WholeBackup(m_vFiles);
        m_strPath = m_tree.Path("TalvorBackup880044.fbk");
    }
    // Where file nIndex's copy starts in the whole backup.
    long long DataStart(int nIndex) { return Val(Record(m_strWhole, nIndex)->m_nDataStartOffset); }

    std::vector<DbFile> m_vFiles;
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
    std::string strBackup = WholeBackup(ManyFiles(m_tree, 30));
    ASSERT_EQ(16384, Val(Head(strBackup)->m_nHeadSize));
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    {
        Verified v(m_strPath);
        EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
        EXPECT_EQ(30, v.Report().m_nItemNum);
    }
    // A head area of one 8192-byte step cannot hold 30 records.
    Head(strBackup)->m_nHeadSize = 8192;
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, Verified(m_strPath).Status());
}

// Cuts at every boundary of the layout, and a sweep of lengths in between.
TEST_F(BackupVerifyTest, EveryCutIsRefused)
{
    const long long nWhole = (long long)m_strWhole.size();
    std::set<long long> setCuts = {0, 1, 4, 20, 131, 132, 132 + 100, 132 + 296, 132 + 296 + 24, 132 + 6 * 296,
                                   8191, 8192, 8193, nWhole - 1};
    for (int i = 0; i < (int)m_vFiles.size(); i++)
        for (long long d : {0LL, 1LL, 30LL, 105LL, 106LL, 4096LL, m_vFiles[i].m_nFree / 2, m_vFiles[i].m_nFree - 1})
            if (d >= 0 && d < m_vFiles[i].m_nFree) setCuts.insert(DataStart(i) + d);
    for (long long n = 0; n < nWhole; n += 997) setCuts.insert(n);
    ExpectCutsRefused(setCuts);
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
        ASSERT_TRUE(WriteFileAt(m_strPath, 0, m_strWhole.substr(0, nTorn) + strPlaceholder.substr(nTorn)));
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
    ExpectEach({
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nVersion = 0x4000000; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nFileFlag = 0x41444B43; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_pDataFlag[5] = 'R'; }},
        // The data flag is NUL padded: a byte behind the text is no backup's.
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_pDataFlag[7] = 'x'; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nFileNum = 0; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nFileNum = 257; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nHeadSize = 16384; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nReferTimestamp = 5; }},
        // One more: record 7 is zero.
        {BACKUPVERIFY_UNFINISHED, [](std::string& s) { Head(s)->m_nFileNum += 1; }},
        // A level above 0 must name the older backup it goes on top of; and
        // then the copies of a full backup do not read as its pages.
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_bLevel = 1; }},
        {BACKUPVERIFY_BADRECORD,
         [](std::string& s) { Head(s)->m_bLevel = 1, Head(s)->m_nReferTimestamp = BACKUP_TIMESTAMP - 1; }},
    });
}

TEST_F(BackupVerifyTest, RecordOutOfBoundsIsRefused)
{
    const int nLast = (int)m_vFiles.size() - 1;
    // Grows (or, negative, moves back the start of) record i's copy by n.
    auto Grow = [](std::string& s, int i, long long n) {
        (n > 0 ? Record(s, i)->m_nDataEndOffset : Record(s, i)->m_nDataStartOffset) += n;
        Record(s, i)->m_nFileFreeMemoryOffset += n > 0 ? n : -n;
    };
    ExpectEach({
        // Overlapping the next: file 2's copy ends 512 bytes into file 3's;
        // the next one starting inside the one before.
        {BACKUPVERIFY_BADRECORD, [&](std::string& s) { Grow(s, 1, 512); }},
        {BACKUPVERIFY_BADRECORD, [&](std::string& s) { Grow(s, 3, -512); }},
        // A gap between two copies.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 4)->m_nDataStartOffset += 512; }},
        // The first copy inside the head area.
        {BACKUPVERIFY_BADRECORD, [&](std::string& s) { Grow(s, 0, 4096 - Val(Record(s, 0)->m_nDataStartOffset)); }},
        // Copy length and used part disagree; end before start.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 1)->m_nFileFreeMemoryOffset -= 1; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 2)->m_nDataEndOffset -= 1; }},
        // Used part beyond the file's size; head beyond the used part; a head
        // too small for a file head; negative sizes.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 1)->m_nFileSize = 70000; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 3)->m_nFileHeaderSize = 40961; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 3)->m_nFileHeaderSize = 64; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 3)->m_nFileSize = -1; }},
        // The last copy pointing past the end of the backup: the record and
        // the copied head agree, the file is too short.
        {BACKUPVERIFY_TRUNCATED, [&](std::string& s) { Grow(s, nLast, 16384); }},
    });
}

TEST_F(BackupVerifyTest, RecordIdentityFaultsAreRefused)
{
    ExpectEach({
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 4)->m_bFileNo = 5; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 2)->m_bFileNo = 0; }},
        {BACKUPVERIFY_BADRECORD,
         [](std::string& s) { memset(Record(s, 1)->m_lpszFilePath, 'a', sizeof(Record(s, 1)->m_lpszFilePath)); }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 1)->m_lpszFilePath[0] = '\0'; }},
        // The restore takes record 1 for the system file.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 0)->m_bFileNo = 4; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 0)->m_bFileType = FILETYPE_DATA; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 1)->m_bFileType = FILETYPE_SYSTEM; }},
    });
    for (BYTE bType : {0, 5, 9, 12, 255})
        EXPECT_EQ(BACKUPVERIFY_BADRECORD, StatusAfter([&](std::string& s) { Record(s, 1)->m_bFileType = bType; }))
            << "type " << (int)bType;
}

TEST_F(BackupVerifyTest, CopiedHeadThatIsNotTheRecordsFileIsRefused)
{
    for (int i = 0; i < (int)m_vFiles.size(); i++) {
        if (m_vFiles[i].m_nFree == 0) continue;
        SCOPED_TRACE(testing::Message() << "file " << i);
        auto File = [nHead = DataStart(i)](std::string& s) { return (LPBASEFILEHEAD)&s[(size_t)nHead]; };
        ExpectEach({
            {BACKUPVERIFY_BADMARK, [&](std::string& s) { File(s)->m_nDataFlag ^= 0x100; }},
            {BACKUPVERIFY_BADMARK, [&](std::string& s) { File(s)->m_bFileNo = 99; }},
            {BACKUPVERIFY_BADMARK, [&](std::string& s) {
                 File(s)->m_bFileType = File(s)->m_bFileType == FILETYPE_DATA ? FILETYPE_KVINDEX : FILETYPE_DATA;
             }},
            {BACKUPVERIFY_BADMARK, [&](std::string& s) { File(s)->m_nFileTotalSize += 8192; }},
        });
    }
    ExpectEach({
        // A file of another type's mark, record and head agreeing on the
        // type: the mark must be the one of that type.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) {
             Record(s, 1)->m_bFileType = ((LPBASEFILEHEAD)&s[(size_t)DataStart(1)])->m_bFileType = FILETYPE_BTREEINDEX;
         }},
        // Two copies swapped in place: each record's head names the other file.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) {
             std::string strA = s.substr((size_t)DataStart(3), 106);
             s.replace((size_t)DataStart(3), 106, s.substr((size_t)DataStart(4), 106));
             s.replace((size_t)DataStart(4), 106, strA);
         }},
    });
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
    // Reads: fixed head, head area, one per non-empty copy.
    const long long nReads = 2 + (long long)m_vFiles.size() - 1;
    for (long long nNth = 1; nNth <= nReads + 1; nNth++) {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.FailCall(FileOp::PRead, nNth, EIO);
        EXPECT_EQ(nNth <= nReads ? BACKUPVERIFY_UNREADABLE : BACKUPVERIFY_WHOLE, Verified(m_strPath).Status())
            << "read " << nNth;
    }
}

// Incremental backups.
namespace {

class BackupIncrementTest : public ImageTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_vFiles = SampleIncrement(m_tree);
        m_strWhole = IncrementImage(m_vFiles);
        m_strPath = m_tree.Path("TalvorBackup990077.fbk");
    }
    static LPBACKUPINCREMENTHEAD Page(std::string& s, long long nPos) { return PageAt(s, nPos); }
    static LPBACKUPINCREMENTITEM Item(std::string& s, long long nPage, int nItem)
    {
        return &Page(s, nPage)->m_pBlockItem[nItem];
    }
    long long FirstPage(int nFile) { return Val(Record(m_strWhole, nFile)->m_nDataStartOffset); }
    long long SecondPage(int nFile) { return Val(Page(m_strWhole, FirstPage(nFile))->m_nNextPos); }

    std::vector<IncFile> m_vFiles;
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
        long long nBytes = 0;
        for (const Piece& p : m_vFiles[i].m_vPieces) nBytes += p.m_nSize;
        EXPECT_STREQ(m_vFiles[i].m_stFile.m_strPath.c_str(), r.m_arItem[i].m_lpszFilePath);
        EXPECT_EQ((int)m_vFiles[i].m_vPieces.size(), r.m_arItem[i].m_nPieceNum) << i;
        EXPECT_EQ(nBytes, r.m_arItem[i].m_nCopiedSize) << i;
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
    std::set<long long> setCuts = {0, 131, 8191, 8192, nWhole - 1, SecondPage(1), SecondPage(1) + 4000};
    for (int i : {0, 1, 3})
        for (long long nCut : {FirstPage(i), FirstPage(i) + 20, FirstPage(i) + 8191, FirstPage(i) + 8192 + 10,
                               Val(Record(m_strWhole, i)->m_nDataEndOffset) - 1})
            setCuts.insert(nCut);
    for (long long n = 0; n < nWhole; n += 1999) setCuts.insert(n);
    ExpectCutsRefused(setCuts);
}

TEST_F(BackupIncrementTest, HeadFaultsAreRefused)
{
    ExpectEach({
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nReferTimestamp = 0; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nReferTimestamp = INCREMENT_TIMESTAMP; }},
        {BACKUPVERIFY_UNFINISHED, [&](std::string& s) {
             std::string strPlaceholder = PlaceholderHead((int)m_vFiles.size());
             s.replace(0, strPlaceholder.size(), strPlaceholder);
         }},
    });
}

TEST_F(BackupIncrementTest, PageFaultsAreRefused)
{
    const long long nPage0 = FirstPage(0), nPage1 = FirstPage(1), nNext1 = SecondPage(1);
    ExpectEach({
        // A page never rewritten: a place-holder holds no item.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) {
             std::string strEmpty;
             AppendPage(strEmpty);
             s.replace((size_t)FirstPage(3), strEmpty.size(), strEmpty);
         }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage0)->m_nDataFlag = BLOCK_DATAFLAG; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage0)->m_nBlockSize = 4096; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nIncrementBlockNum = 291; }},
        // The full first page cut back: its last items seem to be missing,
        // the next page is where the run does not expect it.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nIncrementBlockNum = 289; }},
        // A chain that stops after the first page, skips or loops.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nNextPos = 0; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nNextPos = nNext1 + 512; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nNext1)->m_nNextPos = nPage1; }},
        // A record whose data ends before or after its pages.
        {NOT_WHOLE, [](std::string& s) { Record(s, 3)->m_nDataEndOffset -= 512; }},
        {NOT_WHOLE, [](std::string& s) { Record(s, 0)->m_nDataEndOffset -= 1; }},
        {NOT_WHOLE, [](std::string& s) { Record(s, 0)->m_nDataEndOffset += 1; }},
        // A changed file's data must follow the changed one before it.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 3)->m_nDataStartOffset += 8192; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 2)->m_nDataEndOffset = 8192; }},
    });
}

TEST_F(BackupIncrementTest, ItemFaultsAreRefused)
{
    const long long nPage = FirstPage(0);
    auto It = [nPage](std::string& s, int nItem) { return Item(s, nPage, nItem); };
    ExpectEach({
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 1)->m_nBlockType = 4; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 0)->m_nBlockType = 3; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockType = 1; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 0)->m_nBlockFilePos = 512; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockDataPos += 1; }},
        // Longer than the block it names: the next item's data is not where
        // it says, or the block's own size differs.
        {NOT_WHOLE, [&](std::string& s) { It(s, 2)->m_nBlockSize += 512; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockSize = 0; }},
        // Pieces too short to hold a map block's or a block's head.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 1)->m_nBlockSize = 24; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockSize = 40; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockFilePos = 1048576 - 1024; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 2)->m_nBlockFilePos = -2048; }},
    });
}

TEST_F(BackupIncrementTest, PieceThatIsNotWhatItsItemNamesIsRefused)
{
    const long long nPage = FirstPage(0);
    auto At = [&](std::string& s, int nItem) {
        return &s[(size_t)Val(Item(m_strWhole, nPage, nItem)->m_nBlockDataPos)];
    };
    auto Map = [&](std::string& s) { return (LPBASEFILEBLOCKMAPHEAD)At(s, 1); };
    auto Block = [&](std::string& s, int nItem) { return (LPBASEBLOCKHEAD)At(s, nItem); };
    ExpectEach({
        // The copied head.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { ((LPBASEFILEHEAD)At(s, 0))->m_bFileNo = 3; }},
        // A map block: mark, number; a memory-mode file with the cache mode's mark.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { Map(s)->m_nMapNo = 2; }},
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { Map(s)->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG; }},
        // A block: mark, number, size.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { Block(s, 2)->m_nDataFlag = 0; }},
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { Block(s, 3)->m_nBlockNo = 1; }},
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { Block(s, 3)->m_nBlockSize = 4096; }},
        // Item and piece agree on another number: the piece is that block.
        {BACKUPVERIFY_WHOLE, [&](std::string& s) { Item(s, nPage, 3)->m_nBlockNo = Block(s, 3)->m_nBlockNo = 77; }},
    });
}

TEST_F(BackupIncrementTest, AChainIsWholeOnlyWithEveryLinkThereWholeAndOfTheLevelTimestampAndDatabaseNamed)
{
    std::vector<DbFile> vFull;
    for (const IncFile& f : m_vFiles) vFull.push_back(f.m_stFile);
    const std::string strFull = WholeBackup(vFull);
    const std::string strFullPath = m_tree.Path("TalvorBackup" + std::to_string(INCREMENT_REFER) + ".fbk");
    ASSERT_TRUE(WriteWholeFile(strFullPath, strFull));
    ASSERT_TRUE(WriteWholeFile(m_strPath, m_strWhole));
    std::unique_ptr<BACKUPCHAINREPORT> pChain(new BACKUPCHAINREPORT);
    const BACKUPCHAINREPORT& r = *pChain;
    auto Chain = [&](const std::string& strTop) { return TalvorVerifyBackupChain(strTop.c_str(), pChain.get()); };

    EXPECT_EQ(BACKUPVERIFY_WHOLE, Chain(m_strPath)) << r.m_szFinding;
    EXPECT_EQ(2, r.m_nLinkNum);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, Chain(strFullPath)) << r.m_szFinding;
    EXPECT_EQ(1, r.m_nLinkNum);

    // A level 2 that names the full backup as the one below it.
    std::string strLevel2 = m_strWhole;
    Head(strLevel2)->m_bLevel = 2;
    Head(strLevel2)->m_nTimestamp = INCREMENT_TIMESTAMP + 5;
    const std::string strLevel2Path = m_tree.Path("TalvorBackup" + std::to_string(INCREMENT_TIMESTAMP + 5) + ".fbk");
    ASSERT_TRUE(WriteWholeFile(strLevel2Path, strLevel2));
    EXPECT_EQ(BACKUPVERIFY_BADLINK, Chain(strLevel2Path));
    EXPECT_NE(nullptr, strstr(r.m_szFinding, "not of the level just below")) << r.m_szFinding;
    ASSERT_EQ(2, r.m_nLinkNum);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, r.m_arLink[0].m_nStatus);
    EXPECT_EQ(BACKUPVERIFY_BADLINK, r.m_arLink[1].m_nStatus);

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
        EXPECT_EQ(BACKUPVERIFY_BADLINK, Chain(m_strPath));
        EXPECT_NE(nullptr, strstr(r.m_szFinding, fault.second)) << r.m_szFinding;
    }

    // The full backup cut: the link's own finding, named as link 1.
    ASSERT_TRUE(WriteWholeFile(strFullPath, strFull.substr(0, strFull.size() - 1)));
    EXPECT_EQ(BACKUPVERIFY_TRUNCATED, Chain(m_strPath));
    EXPECT_EQ(0u, std::string(r.m_szFinding).find("link 1: " + strFullPath)) << r.m_szFinding;

    // Gone: a missing link; a top that is not there is only unreadable.
    ASSERT_EQ(0, unlink(strFullPath.c_str()));
    EXPECT_EQ(BACKUPVERIFY_MISSINGLINK, Chain(m_strPath));
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, Chain(strFullPath));

    // A top path the report has no room for is refused, not cut.
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, Chain("/" + std::string(BACKUP_CHAIN_PATH_MAX, 'a')));
}
