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
    // Each change alone, on the whole image, gives the status paired with it.
    void ExpectEach(std::initializer_list<std::pair<int, Change>> lCases)
    {
        int i = 0;
        for (const auto& c : lCases) {
            int nStatus = StatusAfterChange(m_strPath, m_strWhole, c.second);
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

TEST_F(BackupVerifyTest, MoreThan27FilesTakeALargerHeadArea)
{
    std::string strBackup = WholeBackup(ManyFiles(m_tree, 30));
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    EXPECT_EQ(BACKUPVERIFY_WHOLE, Verified(m_strPath).Status());
    // A head area of one 8192-byte step cannot hold 30 records.
    Head(strBackup)->m_nHeadSize = 8192;
    ASSERT_TRUE(WriteWholeFile(m_strPath, strBackup));
    EXPECT_EQ(BACKUPVERIFY_BADHEAD, Verified(m_strPath).Status());
}

// Cuts at every boundary of the layout, and a sweep of lengths in between.
TEST_F(BackupVerifyTest, EveryCutIsRefused)
{
    const long long nWhole = (long long)m_strWhole.size();
    std::set<long long> setCuts = {0, 131, 132, 132 + 296, 132 + 6 * 296, 8191, 8192, nWhole - 1};
    for (int i = 0; i < (int)m_vFiles.size(); i++)
        for (long long d : {0LL, 105LL, 106LL, m_vFiles[i].m_nFree - 1})
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

// A damaged head, record or copied file head: each offset, size and count
// read from the backup is checked before the restore trusts it.
TEST_F(BackupVerifyTest, DamagedHeadRecordOrCopiedHeadIsRefused)
{
    const int nLast = (int)m_vFiles.size() - 1;
    // Grows (or, negative, moves back the start of) record i's copy by n.
    auto Grow = [](std::string& s, int i, long long n) {
        (n > 0 ? Record(s, i)->m_nDataEndOffset : Record(s, i)->m_nDataStartOffset) += n;
        Record(s, i)->m_nFileFreeMemoryOffset += n > 0 ? n : -n;
    };
    auto File = [nHead = DataStart(3)](std::string& s) { return (LPBASEFILEHEAD)&s[(size_t)nHead]; };
    ExpectEach({
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nFileNum = 0; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nFileNum = 257; }},
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nHeadSize = 16384; }},
        // One more: record 7 is zero.
        {BACKUPVERIFY_UNFINISHED, [](std::string& s) { Head(s)->m_nFileNum += 1; }},
        // The copies of a full backup do not read as an increment's pages.
        {BACKUPVERIFY_BADRECORD,
         [](std::string& s) { Head(s)->m_bLevel = 1, Head(s)->m_nReferTimestamp = BACKUP_TIMESTAMP - 1; }},
        // Overlapping the next: file 2's copy ends 512 bytes into file 3's.
        {BACKUPVERIFY_BADRECORD, [&](std::string& s) { Grow(s, 1, 512); }},
        // The first copy inside the head area.
        {BACKUPVERIFY_BADRECORD, [&](std::string& s) { Grow(s, 0, 4096 - Val(Record(s, 0)->m_nDataStartOffset)); }},
        // End before start.
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
        // A path with no end inside its field; a type no file has.
        {BACKUPVERIFY_BADRECORD,
         [](std::string& s) { memset(Record(s, 1)->m_lpszFilePath, 'a', sizeof(Record(s, 1)->m_lpszFilePath)); }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 1)->m_bFileType = 255; }},
        // The copied head giving another size than its record.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { File(s)->m_nFileTotalSize += 8192; }},
    });
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

TEST_F(BackupIncrementTest, EveryCutIsRefused)
{
    const long long nWhole = (long long)m_strWhole.size();
    std::set<long long> setCuts = {0, 131, 8191, 8192, nWhole - 1, SecondPage(1), SecondPage(1) + 4000};
    for (int i : {0, 1, 3})
        for (long long nCut : {FirstPage(i), FirstPage(i) + 8191, Val(Record(m_strWhole, i)->m_nDataEndOffset) - 1})
            setCuts.insert(nCut);
    for (long long n = 0; n < nWhole; n += 1999) setCuts.insert(n);
    ExpectCutsRefused(setCuts);
}

// A damaged head, page, item or piece: page links, item counts and every
// offset and size an item gives are checked before a restore follows them.
TEST_F(BackupIncrementTest, DamagedHeadPageItemOrPieceIsRefused)
{
    const long long nPage0 = FirstPage(0), nPage1 = FirstPage(1), nNext1 = SecondPage(1);
    auto It = [nPage0](std::string& s, int nItem) { return Item(s, nPage0, nItem); };
    auto At = [&](std::string& s, int nItem) {
        return &s[(size_t)Val(Item(m_strWhole, nPage0, nItem)->m_nBlockDataPos)];
    };
    ExpectEach({
        {BACKUPVERIFY_BADHEAD, [](std::string& s) { Head(s)->m_nReferTimestamp = INCREMENT_TIMESTAMP; }},
        {BACKUPVERIFY_UNFINISHED, [&](std::string& s) {
             std::string strPlaceholder = PlaceholderHead((int)m_vFiles.size());
             s.replace(0, strPlaceholder.size(), strPlaceholder);
         }},
        // A page never rewritten: a place-holder holds no item.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) {
             std::string strEmpty;
             AppendPage(strEmpty);
             s.replace((size_t)FirstPage(3), strEmpty.size(), strEmpty);
         }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage0)->m_nBlockSize = 4096; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nIncrementBlockNum = 291; }},
        // A chain that stops after the first page, skips or loops.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nNextPos = 0; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nPage1)->m_nNextPos = nNext1 + 512; }},
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { Page(s, nNext1)->m_nNextPos = nPage1; }},
        // A record whose data ends before or after its pages.
        {NOT_WHOLE, [](std::string& s) { Record(s, 3)->m_nDataEndOffset -= 512; }},
        {NOT_WHOLE, [](std::string& s) { Record(s, 0)->m_nDataEndOffset += 1; }},
        // A changed file's data must follow the changed one before it.
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 3)->m_nDataStartOffset += 8192; }},
        {BACKUPVERIFY_BADRECORD, [](std::string& s) { Record(s, 2)->m_nDataEndOffset = 8192; }},
        // Items.
        {BACKUPVERIFY_BADPAGE, [&](std::string& s) { It(s, 1)->m_nBlockType = 4; }},
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
        // A block whose own head gives another size than its item.
        {BACKUPVERIFY_BADMARK, [&](std::string& s) { ((LPBASEBLOCKHEAD)At(s, 3))->m_nBlockSize = 4096; }},
    });
}

TEST_F(BackupIncrementTest, AChainIsWholeOnlyWithEveryLinkThereWholeAndOfTheTimestampAndDatabaseNamed)
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

    // The full backup under the name the level 1 refers to carries another
    // timestamp, or another database's identity: each alone a whole backup.
    for (size_t nAt : {offsetof(BACKUPFILEHEAD, m_nTimestamp), offsetof(BACKUPFILEHEAD, m_usDataBaseGuid)}) {
        std::string strOther = strFull;
        strOther[nAt] ^= 0x01;
        ASSERT_TRUE(WriteWholeFile(strFullPath, strOther));
        ASSERT_EQ(BACKUPVERIFY_WHOLE, Verified(strFullPath).Status());
        EXPECT_EQ(BACKUPVERIFY_BADLINK, Chain(m_strPath)) << nAt;
    }
    // Gone: a missing link.
    ASSERT_EQ(0, unlink(strFullPath.c_str()));
    EXPECT_EQ(BACKUPVERIFY_MISSINGLINK, Chain(m_strPath));

    // A top path the report has no room for is refused, not cut.
    EXPECT_EQ(BACKUPVERIFY_UNREADABLE, Chain("/" + std::string(BACKUP_CHAIN_PATH_MAX, 'a')));
}
