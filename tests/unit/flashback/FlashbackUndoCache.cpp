// The undo cache file: the mirror of a published stretch and its load
// after a restart.
#include "DatabaseKit.h"
#include "PeerRollback.h"
#include "TalvorFlashback.h"
#include "TestClock.h"

#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

using namespace talvortest;
using talvorpeer::CPeerBlock;
using talvorpeer::CPeerRollbackArea;

namespace {

const UINT AREA_SIZE = 1 << 20;
const int BLOCK_SIZE = 16384;

const BYTE* Bytes(const std::string& s) { return (const BYTE*)s.data(); }

class FlashbackUndoCache : public ::testing::Test {
protected:
    FlashbackUndoCache() : m_vArea(AREA_SIZE), m_area(m_vArea.data(), AREA_SIZE), m_vBlock(BLOCK_SIZE), m_block(m_vBlock.data(), BLOCK_SIZE)
    {
        m_area.Format();
        m_block.Format(9, 2, 50);
        m_flashback.SetRollbackArea(m_vArea.data(), AREA_SIZE);
        m_pSystem = (LPSYSTEMFILEHEAD)calloc(1, sizeof(SYSTEMFILEHEAD));
        m_flashback.m_pMemoryFileHead = m_pSystem;
    }
    ~FlashbackUndoCache() override
    {
        m_flashback.StopUndoMirror(5000, 0);
        m_flashback.SetRollbackArea(nullptr, 0);
        m_flashback.m_pMemoryFileHead = nullptr;
        free(m_pSystem);
    }
    std::string CachePath() { return m_tree.Dir() + "TalvorUndo.cache"; }
    // A few rows changed a few times, each change published.
    void Changes(int nRows, int nChanges, long long nFirst)
    {
        for (int r = 0; r < nRows; r++) {
            std::string strValue = "row" + std::to_string(r) + "-v0";
            int nRow = m_block.AddRow((short)(r + 1), nFirst, Bytes(strValue), (int)strValue.size(), 32);
            for (int c = 1; c <= nChanges; c++) {
                std::string strNew = "row" + std::to_string(r) + "-v" + std::to_string(c);
                ASSERT_NE(0, m_block.UpdateRow(m_area, nRow, nFirst + c * 10, Bytes(strNew), (int)strNew.size()));
            }
        }
        m_area.Publish();
    }
    // A restart: a new area, formatted, loaded from the file; its bytes.
    std::vector<BYTE>& LoadIntoNewArea()
    {
        m_vNew.assign(AREA_SIZE, 0);
        CPeerRollbackArea(m_vNew.data(), AREA_SIZE).Format();
        m_flashback.SetRollbackArea(m_vNew.data(), AREA_SIZE);
        EXPECT_EQ(0, m_flashback.LoadUndoCache(nullptr, TRUE));
        return m_vNew;
    }
    LPROLLBACKBLOCKHEAD NewHead() { return (LPROLLBACKBLOCKHEAD)m_vNew.data(); }

    DatabaseDir m_tree;
    std::vector<BYTE> m_vArea;
    CPeerRollbackArea m_area;
    CTalvorFlashback m_flashback;
    std::vector<BYTE> m_vBlock;
    CPeerBlock m_block;
    LPSYSTEMFILEHEAD m_pSystem = nullptr;
    std::vector<BYTE> m_vNew;
};

// A file missing, of the wrong size, and the zeros of the right size those
// leave (a zero head carries generation 0, as does a system head never
// saved): each ends as a zero file of the area's size, and nothing is loaded.
TEST_F(FlashbackUndoCache, NoFileWithContentBecomesAZeroFileAndLoadsNothing)
{
    std::vector<BYTE> vBefore = m_vArea;
    for (int nRound = 0; nRound < 3; nRound++) {
        if (nRound == 1) {
            ASSERT_TRUE(WriteWholeFile(CachePath(), std::string(AREA_SIZE / 2, 'x')));
        }
        EXPECT_EQ(0, m_flashback.LoadUndoCache(nullptr, TRUE)) << nRound;
        m_flashback.StopUndoMirror(1000, 0);
        EXPECT_EQ(std::string(AREA_SIZE, '\0'), ReadWholeFile(CachePath())) << nRound;
        EXPECT_EQ(vBefore, m_vArea) << nRound;
    }
}

// A power loss after a mirror round, with any subset of its unsynced writes
// kept: a head on disk never names undo bytes that did not reach it, so a
// restart loads either the whole stretch or none of it.
TEST_F(FlashbackUndoCache, PowerLossNeverLeavesAHeadNamingBytesThatAreNotOnDisk)
{
    m_area.NewGeneration(601);
    m_pSystem->m_nUndoTimestamp = 601;
    ASSERT_EQ(0, m_flashback.LoadUndoCache(nullptr, FALSE));
    std::string strBefore = ReadWholeFile(CachePath());
    Changes(20, 4, 100);
    UINT nAlloc = m_area.Head()->m_nDataAllocPos;
    int nLoaded = 0;
    for (unsigned nMask = 0;; nMask++) {
        ASSERT_TRUE(WriteWholeFile(CachePath(), strBefore));
        m_flashback.SetRollbackArea(m_vArea.data(), AREA_SIZE);
        ASSERT_EQ(0, m_flashback.LoadUndoCache(nullptr, FALSE));
        m_area.Head()->m_bSaveStatus = 1;
        size_t nUnsynced = 0;
        {
            FaultFileIO io;
            ScopedFileIO scope(&io);
            ASSERT_EQ(0, m_flashback.FlushUndoStretch());
            nUnsynced = io.Unsynced().size();
            std::vector<size_t> vKeep;
            for (size_t i = 0; i < nUnsynced; i++)
                if (nMask & (1u << i)) vKeep.push_back(i);
            io.LosePowerKeeping(vKeep);
        }
        std::vector<BYTE>& vNew = LoadIntoNewArea();
        if (Val(NewHead()->m_nDataAllocPos) == nAlloc) {
            nLoaded++;
            EXPECT_EQ(0, memcmp(vNew.data() + 124, m_vArea.data() + 124, nAlloc - 124))
                << "kept writes " << nMask << " of " << nUnsynced << ": the head names undo bytes that are not there";
        }
        m_flashback.SetRollbackArea(m_vArea.data(), AREA_SIZE);
        if (nMask + 1 >= (1u << nUnsynced)) break;
    }
    EXPECT_GT(nLoaded, 0) << "no round kept the head: the check above saw nothing";
}

// The mirror thread takes a published stretch that wraps: it goes out in
// two pieces before the head and comes back from the file as it was.
TEST_F(FlashbackUndoCache, TheMirrorWritesAWrappedStretchInTwoPiecesBeforeItsHead)
{
    m_flashback.StartWriteUndoCache(nullptr, FALSE);
    m_area.NewGeneration(77);
    // Fill close to the end, let the mirror have it, then wrap.
    std::string strBig(60000, 'q');
    while (m_area.Head()->m_nDataAllocPos + 2 * CPeerRollbackArea::VersionSize(60000) < AREA_SIZE)
        m_area.AddVersion(1, 10, 0, Bytes(strBig), (int)strBig.size());
    m_area.MarkMirrored();
    UINT nUnsafe = m_area.Head()->m_nUnsafePos;
    std::string strTail(50000, 't');
    m_area.AddVersion(2, 20, 0, Bytes(strTail), (int)strTail.size());
    std::string strWrap(70000, 'w');
    m_area.AddVersion(3, 30, 0, Bytes(strWrap), (int)strWrap.size());
    UINT nAlloc = m_area.Head()->m_nDataAllocPos;
    ASSERT_GT(nUnsafe, nAlloc);
    FaultFileIO io;
    {
        ScopedFileIO scoped(&io);
        m_area.Publish();
        // The thread clears the flag as the engine's side would see it.
        EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&m_area.Head()->m_bSaveStatus, __ATOMIC_ACQUIRE) == 0; }, 5000));
        ASSERT_TRUE(m_flashback.StopUndoMirror(5000, 0));
    }
    // Only the new stretch: to the end, from the data start, then the head.
    std::vector<std::pair<long long, long long>> vExpect = {
        {nUnsafe, AREA_SIZE - nUnsafe}, {124, nAlloc - 124}, {0, (long long)sizeof(ROLLBACKBLOCKHEAD)}};
    std::vector<std::pair<long long, long long>> vWritten;
    for (const FileWrite& w : io.Writes()) vWritten.push_back({w.m_nOffset, w.m_nSize});
    EXPECT_EQ(vExpect, vWritten);
    // What the file holds is what a restart loads.
    m_pSystem->m_nUndoTimestamp = 77;
    std::vector<BYTE>& vNew = LoadIntoNewArea();
    EXPECT_EQ(0, memcmp(vNew.data() + nUnsafe, m_vArea.data() + nUnsafe, AREA_SIZE - nUnsafe));
    EXPECT_EQ(0, memcmp(vNew.data() + 124, m_vArea.data() + 124, nAlloc - 124));
    EXPECT_EQ(std::vector<BYTE>(nUnsafe - nAlloc, 0), std::vector<BYTE>(vNew.begin() + nAlloc, vNew.begin() + nUnsafe));
    EXPECT_EQ(nAlloc, Val(NewHead()->m_nDataAllocPos));
    EXPECT_EQ(Val(m_area.Head()->m_nLastAllocPos), Val(NewHead()->m_nLastAllocPos));
    EXPECT_EQ(77u, Val(NewHead()->m_nTimestamp));
}

TEST_F(FlashbackUndoCache, OnlyAMatchingGenerationIsLoaded)
{
    ASSERT_EQ(0, m_flashback.LoadUndoCache(nullptr, FALSE));
    m_area.NewGeneration(10);
    m_area.NewGeneration(11); // current 11, previous 10
    Changes(5, 2, 100);
    ASSERT_EQ(0, m_flashback.FlushUndoStretch());
    m_flashback.StopUndoMirror(1000, 0);
    // The head's generation against the system head's current and previous.
    const std::tuple<UINT, UINT, bool> arCases[] = {
        {11, 0, true}, {0, 11, true}, {10, 0, true}, {0, 10, true}, {9, 12, false}};
    std::vector<BYTE> vFormatted(AREA_SIZE);
    CPeerRollbackArea(vFormatted.data(), AREA_SIZE).Format();
    for (const auto& [nUndo, nUndoPre, bLoads] : arCases) {
        m_pSystem->m_nUndoTimestamp = nUndo;
        m_pSystem->m_nUndoPreTimestamp = nUndoPre;
        EXPECT_EQ(bLoads, vFormatted != LoadIntoNewArea()) << nUndo << "/" << nUndoPre;
        m_flashback.StopUndoMirror(1000, 0);
    }
    // No system head: nothing is loaded either.
    m_flashback.m_pMemoryFileHead = nullptr;
    EXPECT_EQ(vFormatted, LoadIntoNewArea());
}

TEST_F(FlashbackUndoCache, FailedWriteEndsTheMirror)
{
    ASSERT_EQ(0, m_flashback.LoadUndoCache(nullptr, FALSE));
    FaultFileIO io;
    io.FailCall(FileOp::PWrite, 1, ENOSPC, FAULT_ALWAYS);
    ScopedFileIO scoped(&io);
    Changes(2, 1, 100);
    EXPECT_EQ(1, m_flashback.FlashFlush());
}

} // namespace
