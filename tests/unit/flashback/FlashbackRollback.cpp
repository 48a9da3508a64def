// Taking a block copy back to a timestamp. Random bytes in exact-size
// buffers are the RollbackArea fuzz target's, under the sanitizers that
// see a read past a buffer.
#include "PackedValue.h"
#include "PeerRollback.h"
#include "TalvorFlashback.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace talvortest;
using talvorpeer::CPeerBlock;
using talvorpeer::CPeerRollbackArea;

namespace {

const int BLOCK_SIZE = 16384;
const UINT AREA_SIZE = 1 << 20;
const UINT BLOCK_NO = 42;

const BYTE* Bytes(const std::string& s) { return (const BYTE*)s.data(); }

class FlashbackRows : public ::testing::Test {
protected:
    FlashbackRows() : m_vArea(AREA_SIZE), m_vBlock(BLOCK_SIZE), m_area(m_vArea.data(), AREA_SIZE), m_block(m_vBlock.data(), BLOCK_SIZE)
    {
        m_area.Format();
        m_block.Format(BLOCK_NO, 2, 100);
        m_flashback.SetRollbackArea(m_vArea.data(), AREA_SIZE);
    }
    ~FlashbackRows() override { m_flashback.SetRollbackArea(nullptr, 0); }

    // A row with the history given: inserted at the first timestamp with the
    // first value, then changed at each later one.
    int History(short sToken, const std::vector<std::pair<long long, std::string>>& vSteps, int nPieceSize = 64)
    {
        int nRow = m_block.AddRow(sToken, vSteps[0].first, Bytes(vSteps[0].second), (int)vSteps[0].second.size(), nPieceSize);
        for (size_t i = 1; i < vSteps.size(); i++)
            EXPECT_NE(0, m_block.UpdateRow(m_area, nRow, vSteps[i].first, Bytes(vSteps[i].second), (int)vSteps[i].second.size()));
        return nRow;
    }
    int Back(long long nTimestamp) { return m_flashback.FlashBack(m_vBlock.data(), BLOCK_NO, BLOCK_SIZE, nTimestamp); }

    std::vector<BYTE> m_vArea;
    std::vector<BYTE> m_vBlock;
    CPeerRollbackArea m_area;
    CPeerBlock m_block;
    CTalvorFlashback m_flashback;
};

// Rows all older than the target, or newer in a state the rollback does not
// take back; a copy of another block number, or too small for a head: the
// copy comes back as it was.
TEST_F(FlashbackRows, CopiesWithNothingToTakeBackOrNotTheBlockAreLeftAsTheyAre)
{
    History(1, {{10, "alpha"}, {20, "beta"}});
    History(2, {{30, "gamma"}});
    int nRow = History(4, {{10, "old"}, {40, "new"}});
    m_block.Row(nRow)->m_bDataStatus = 1;
    std::vector<BYTE> vBefore = m_vBlock;
    EXPECT_EQ(0, Back(30));
    EXPECT_EQ(vBefore, m_vBlock);
    m_block.Row(nRow)->m_bDataStatus = 0;
    vBefore = m_vBlock;
    EXPECT_EQ(1, m_flashback.FlashBack(m_vBlock.data(), BLOCK_NO + 1, BLOCK_SIZE, 20));
    EXPECT_EQ(1, m_flashback.FlashBack(m_vBlock.data(), BLOCK_NO, (int)sizeof(BLOCKHEAD) - 1, 20));
    EXPECT_EQ(vBefore, m_vBlock);
}

TEST_F(FlashbackRows, RowBornAfterTheTargetBecomesAbsentAndItsRoomRecyclable)
{
    int nOld = History(1, {{10, "kept"}});
    int nNew = History(2, {{200, "born later, 25 bytes long"}});
    m_block.Head()->m_nRecyclableSpaceSize = 7;
    EXPECT_EQ(0, Back(100));
    EXPECT_EQ(2, Val(m_block.Row(nNew)->m_bDataStatus));
    EXPECT_EQ(0, Val(m_block.Row(nNew)->m_nTimestamp));
    EXPECT_EQ(0, Val(m_block.Row(nNew)->m_nNextDataID));
    EXPECT_EQ(7 + 25 + 17, Val(m_block.Head()->m_nRecyclableSpaceSize));
    EXPECT_EQ(0, Val(m_block.Row(nOld)->m_bDataStatus));
    EXPECT_EQ("kept", m_block.RowValue(nOld));
}

// A deleted row comes back with its value; a version id carries a tag in
// its high half that the walk ignores.
TEST_F(FlashbackRows, DeletedRowComesBackAndTheDataIdIsTheLowHalfOnly)
{
    m_area.SetIdTag(0x7A);
    int nRow = History(3, {{10, "was here"}});
    ASSERT_NE(0, m_block.DeleteRow(m_area, nRow, 50));
    int nTagged = History(4, {{10, "tagged"}, {30, "newer"}});
    EXPECT_EQ(0x7A, Val(m_block.Row(nTagged)->m_nNextDataID) >> 32);
    EXPECT_EQ(0, Back(20));
    EXPECT_EQ(0, Val(m_block.Row(nRow)->m_bDataStatus));
    EXPECT_EQ("was here", m_block.RowValue(nRow));
    EXPECT_EQ("tagged", m_block.RowValue(nTagged));
}

// A version whose place the engine reused is taken as overwritten and its
// row left as it is, newest value included: a mark or a token not the
// row's, an id out of the area or in its head, a value running past the
// area either way, an older version overwritten down the walk, and a chain
// that loops or grows newer going down (which must end, too).
TEST_F(FlashbackRows, AReusedVersionLeavesItsRowAsItIs)
{
    std::vector<int> vRows;
    for (short t = 1; t <= 10; t++) vRows.push_back(History(t, {{10, "old"}, {20, "mid"}, {30, "new"}}));
    auto Rec = [&](int i) { return m_area.Record(m_block.Row(vRows[i])->m_nNextDataID); };
    Rec(0)->m_nDataFlag = 0x12345678;
    Rec(1)->m_sDataToken = 99;
    m_block.Row(vRows[2])->m_nNextDataID = AREA_SIZE + 100;
    m_block.Row(vRows[3])->m_nNextDataID = 60;
    auto Oldest = [&](int i) { return m_area.Record(Rec(i)->m_nPreRollbackDataID); };
    Oldest(4)->m_sDataToken = 99;
    ((LPBLOCKVARDATASTRUCT)Oldest(5)->m_pDataContent)->m_nActualLength = (int)AREA_SIZE;
    ((LPBLOCKVARDATASTRUCT)Oldest(6)->m_pDataContent)->m_nActualLength = -5;
    Rec(7)->m_nPreRollbackDataID = m_block.Row(vRows[7])->m_nNextDataID;
    Rec(8)->m_nPreRollbackDataID = m_area.AddVersion(9, 28, 0, Bytes(std::string("bogus")), 5);
    auto RowRecord = [&](int i) { return std::string((const char*)m_block.Row(vRows[i]), sizeof(BLOCKDATASTRUCT)); };
    std::vector<std::string> vBefore;
    for (int i = 0; i < 9; i++) vBefore.push_back(RowRecord(i));
    EXPECT_EQ(0, Back(15));
    for (int i = 0; i < 9; i++) {
        EXPECT_EQ("new", m_block.RowValue(vRows[i])) << i;
        EXPECT_TRUE(vBefore[i] == RowRecord(i)) << i;
    }
    EXPECT_EQ("old", m_block.RowValue(vRows[9])) << "the one row whose versions are whole is taken back";
}

// The lookup's codes tell a place outside the area (below its first record
// too) from one that was reused: the row walk above cannot see the
// difference, a caller of the lookup can.
TEST_F(FlashbackRows, VersionLookupCodes)
{
    int nRow = History(3, {{10, "v10"}, {20, "v20"}, {30, "v30"}});
    long long nID = m_block.Row(nRow)->m_nNextDataID;
    LPBYTE lpValue = nullptr;
    EXPECT_EQ(-1, m_flashback.GetRollBackData(0, 3, 15, lpValue));
    EXPECT_EQ(1155, m_flashback.GetRollBackData(AREA_SIZE, 3, 15, lpValue));
    EXPECT_EQ(1155, m_flashback.GetRollBackData(10, 3, 15, lpValue));
    EXPECT_EQ(1154, m_flashback.GetRollBackData(nID, 4, 15, lpValue));
    ASSERT_EQ(0, m_flashback.GetRollBackData(nID, 3, 15, lpValue));
    LPBLOCKVARDATASTRUCT lpImage = (LPBLOCKVARDATASTRUCT)lpValue;
    EXPECT_EQ("v10", std::string((const char*)lpImage->m_lpDataContent, (size_t)lpImage->m_nActualLength));
}

TEST_F(FlashbackRows, VersionWithoutDataFallsBackToTheNewerOneRemembered)
{
    int nRow = History(6, {{5, "current"}});
    // Newest version valid from 30 with a value, under it one valid from 20
    // that holds nothing of its own.
    long long nEmpty = m_area.AddVersion(6, 20, 0, nullptr, 0, false);
    long long nFull = m_area.AddVersion(6, 30, nEmpty, Bytes(std::string("from30")), 6);
    m_block.Row(nRow)->m_nNextDataID = nFull;
    m_block.Row(nRow)->m_nTimestamp = 40;
    EXPECT_EQ(0, Back(25));
    EXPECT_EQ("from30", m_block.RowValue(nRow));

    // With no value anywhere the row only becomes live again.
    int nBare = History(7, {{5, "untouched"}});
    m_block.Row(nBare)->m_nNextDataID = m_area.AddVersion(7, 20, 0, nullptr, 0, false);
    m_block.Row(nBare)->m_nTimestamp = 40;
    m_block.Row(nBare)->m_bDataStatus = 2;
    EXPECT_EQ(0, Back(25));
    EXPECT_EQ(0, Val(m_block.Row(nBare)->m_bDataStatus));
    EXPECT_EQ("untouched", m_block.RowValue(nBare));
}

TEST_F(FlashbackRows, LongerValueIsCutAtTheLastPieceShorterLeavesPiecesEmpty)
{
    // One piece of 8 bytes; the old value had 30.
    int nLong = m_block.AddRow(1, 50, Bytes(std::string("12345678")), 8, 8);
    std::string strOld = "abcdefghijklmnopqrstuvwxyz0123";
    m_block.Row(nLong)->m_nNextDataID = m_area.AddVersion(1, 10, 0, Bytes(strOld), 30);
    // Three pieces of 6; the old value had 4 bytes.
    int nShort = m_block.AddRow(2, 50, Bytes(std::string("ABCDEFGHIJKLMNOPQR")), 18, 6);
    m_block.Row(nShort)->m_nNextDataID = m_area.AddVersion(2, 10, 0, Bytes(std::string("wxyz")), 4);
    EXPECT_EQ(0, Back(20));
    EXPECT_EQ("abcdefgh", m_block.RowValue(nLong));
    EXPECT_EQ(30, Val(m_block.Row(nLong)->m_nVarDataLength));
    EXPECT_EQ("wxyz", m_block.RowValue(nShort));
    EXPECT_EQ(4, Val(m_block.Row(nShort)->m_nVarDataLength));
    int nOffset = m_block.Row(nShort)->m_nVarDataOffset;
    std::vector<int> vUsed;
    while (nOffset != 0) {
        LPBLOCKVARDATASTRUCT p = (LPBLOCKVARDATASTRUCT)(m_vBlock.data() + nOffset);
        vUsed.push_back(Val(p->m_nActualLength));
        nOffset = p->m_nNextOffset;
    }
    EXPECT_EQ((std::vector<int>{4, 0, 0}), vUsed);
}

// Where the area ends: a version whose last byte is the area's last byte is
// read; one that runs a byte further, by its value or by its head, lies
// partly outside and is taken as overwritten, so the row keeps its newest
// value. The bytes behind the area hold the rest of the version, as memory
// past a segment may, so a walk that reads past the end finds it whole.
TEST_F(FlashbackRows, VersionEndingOnTheAreasLastByteIsReadAndOneBytePastIsNot)
{
    int nRow = History(3, {{10, "old"}, {30, "new"}});
    const BYTE* lpSource = (const BYTE*)m_area.Record(m_block.Row(nRow)->m_nNextDataID);
    const UINT nHead = (UINT)sizeof(ROLLBACKBLOCKVARDATASTRUCT);
    const UINT nLength = nHead + (UINT)sizeof(BLOCKVARDATASTRUCT) +
                         (UINT)Val(((const BLOCKVARDATASTRUCT*)(lpSource + nHead))->m_nActualLength);
    const std::vector<BYTE> vNewest = m_vBlock;
    const std::pair<UINT, const char*> arCases[] = {
        {AREA_SIZE - nLength, "old"}, {AREA_SIZE - nLength + 1, "new"}, {AREA_SIZE - nHead + 1, "new"}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(testing::Message() << "version at " << c.first << ", " << nLength << " bytes");
        std::vector<BYTE> vArea(m_vArea);
        vArea.resize((size_t)AREA_SIZE + nLength, 0);
        memcpy(vArea.data() + c.first, lpSource, nLength);
        m_flashback.SetRollbackArea(vArea.data(), AREA_SIZE);
        m_vBlock = vNewest;
        m_block.Row(nRow)->m_nNextDataID = c.first;
        EXPECT_EQ(0, Back(20));
        EXPECT_EQ(c.second, m_block.RowValue(nRow));
        m_flashback.SetRollbackArea(m_vArea.data(), AREA_SIZE);
    }
}

TEST_F(FlashbackRows, TornPieceEndsTheRollbackWithMinusThree)
{
    int nRow = History(3, {{10, "old"}, {30, "new"}});
    const std::vector<BYTE> vGood = m_vBlock;
    const int nFirst = m_block.Row(nRow)->m_nVarDataOffset;
    // A piece without its mark, one outside the block, one whose room runs
    // past it, a chain loop.
    const std::function<void(LPBLOCKVARDATASTRUCT)> arDamage[] = {
        [](LPBLOCKVARDATASTRUCT p) { p->m_nDataFlag = 0; },
        [](LPBLOCKVARDATASTRUCT p) { p->m_nNextOffset = BLOCK_SIZE - 8; },
        [](LPBLOCKVARDATASTRUCT p) { p->m_nNextOffset = -16; },
        [](LPBLOCKVARDATASTRUCT p) { p->m_nDataLength = BLOCK_SIZE; },
        [nFirst](LPBLOCKVARDATASTRUCT p) { p->m_nNextOffset = nFirst; },
    };
    for (size_t i = 0; i < 5; i++) {
        m_vBlock = vGood;
        arDamage[i]((LPBLOCKVARDATASTRUCT)(m_vBlock.data() + nFirst));
        EXPECT_EQ(-3, Back(20)) << "damage " << i;
    }
    // Without a piece at all only the row record changes.
    m_vBlock = vGood;
    m_block.Row(nRow)->m_nVarDataOffset = 0;
    EXPECT_EQ(0, Back(20));
    EXPECT_EQ(3, Val(m_block.Row(nRow)->m_nVarDataLength));
}

// A row changed at 30, its copy taken back to 20 from a live block vLive.
// The copy is stamped clean at the target and, torn, taken again from the
// live block; the live block staying torn fails after the retries; a block
// number changed under the copy fails at once, torn or not.
TEST_F(FlashbackRows, ATornCopyIsTakenAgainFromTheLiveBlockUnlessItStaysTornOrIsGivenAway)
{
    History(3, {{10, "old"}, {30, "new"}});
    auto Data = [&](std::vector<BYTE> vLive, UINT nBlockNo = BLOCK_NO) {
        return m_flashback.FlashbackData(2, nBlockNo, BLOCK_SIZE, 20, m_vBlock.data(), vLive.data());
    };
    auto Tear = [&](std::vector<BYTE>& v) {
        ((LPBLOCKVARDATASTRUCT)(v.data() + m_block.Row(0)->m_nVarDataOffset))->m_nDataFlag = 0;
    };
    m_block.Head()->m_bSaveFlag = 1;
    m_block.Head()->m_bStatus = 4;
    std::vector<BYTE> vLive = m_vBlock;
    Tear(m_vBlock);
    EXPECT_EQ(0, Data(vLive));
    EXPECT_EQ(20, Val(m_block.Head()->m_nTimestamp));
    EXPECT_EQ(0, Val(m_block.Head()->m_bSaveFlag));
    EXPECT_EQ(0, Val(m_block.Head()->m_bStatus));
    EXPECT_EQ("old", m_block.RowValue(0));

    m_vBlock = vLive;
    EXPECT_EQ(1, Data(vLive, BLOCK_NO + 1));
    EXPECT_EQ("new", m_block.RowValue(0));
    Tear(m_vBlock);
    EXPECT_EQ(1, Data(m_vBlock));
    ((LPBLOCKHEAD)vLive.data())->m_nBlockNo = BLOCK_NO + 9;
    EXPECT_EQ(1, Data(vLive));
}

const long long MAP_AT = 0x10000;
const int SYSTEM_MAP_COPY = 0x40000;

} // namespace

// With no engine to ask, the slave maps are refreshed from the image. The
// system file's copy length is fixed; a head whose map size is below it
// would put the slave inside its own master, and the copy would write over
// the live map the engine works on. The next map offset is read from the
// image too: one near the top of the range must end the walk, not wrap the
// bound and send the copy outside the image.
TEST(FlashbackMapFromImage, AShortSystemMapSizeOrAChainPointingPastTheImageLeavesTheRestAlone)
{
    CTalvorFlashback fb;
    std::vector<BYTE> vHeadBuf(1 << 20);
    const BYTE bSystem = SYSTEMFILE_FILENO, bOther = SYSTEMFILE_FILENO + 1;
    const long long nPastEnd = (long long)(1 << 20) - SYSTEM_MAP_COPY + 1;
    const struct { BYTE bFileNo; int nMapSize; long long nNext; } arCases[] = {{bSystem, SYSTEM_MAP_COPY, 0}, {bSystem, 0xFFFF, 0}, {bSystem, SYSTEM_MAP_COPY, LLONG_MAX},
                   {bOther, SYSTEM_MAP_COPY, LLONG_MAX - SYSTEM_MAP_COPY}, {bOther, SYSTEM_MAP_COPY, nPastEnd}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(testing::Message() << "file " << (int)c.bFileNo << " map size " << c.nMapSize << " next " << c.nNext);
        // The file's head at 0 and one master map at MAP_AT, over a pattern.
        std::vector<BYTE> vImage((size_t)(1 << 20), 0);
        for (size_t i = MAP_AT; i < vImage.size(); i++) vImage[i] = (BYTE)(i * 7 + 3);
        ((LPBASEFILEBLOCKMAPHEAD)&vImage[MAP_AT])->m_nNextBlockMapOffset = c.nNext;
        LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)vImage.data();
        lpHead->m_nFileHeaderSize = 4096;
        lpHead->m_nBlockMapSize = c.nMapSize;
        lpHead->m_nBlockMapStartOffset = MAP_AT;
        const std::vector<BYTE> vBefore = vImage;
        stu_FILEINFO info;
        memset(&info, 0, sizeof(info));
        info.m_bFileNo = c.bFileNo;
        info.m_pFileAddr = vImage.data();
        info.m_liFileSize = (long long)vImage.size();
        ASSERT_EQ(0, fb.FlashbackMapData(nullptr, &info, 100, vHeadBuf.data(), (int)vHeadBuf.size()));
        auto Same = [&](long long nAt, long long nLength, long long nFrom) {
            return std::equal(vImage.begin() + nAt, vImage.begin() + nAt + nLength, vBefore.begin() + nFrom);
        };
        EXPECT_TRUE(Same(MAP_AT, SYSTEM_MAP_COPY, MAP_AT)) << "the master map was written over";
        EXPECT_TRUE(Same(MAP_AT + 2 * SYSTEM_MAP_COPY, (long long)vImage.size() - MAP_AT - 2 * SYSTEM_MAP_COPY,
                         MAP_AT + 2 * SYSTEM_MAP_COPY))
            << "a map was copied past the first slave";
        if (c.nMapSize == SYSTEM_MAP_COPY)
            EXPECT_TRUE(Same(MAP_AT + SYSTEM_MAP_COPY, SYSTEM_MAP_COPY, MAP_AT)) << "the slave map was not refreshed";
    }
}
