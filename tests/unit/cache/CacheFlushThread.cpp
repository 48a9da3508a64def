// The flush threads as the daemon runs them, and what their loop does
// besides carrying out entries.
#include "FlushRingFixture.h"
#include "TestClock.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace cachetest;
using talvortest::FileOp;

namespace {

using talvortest::WaitUntil;

class FlushThread : public FlushRing {
protected:
    void TearDown() override
    {
        if (m_pCache) m_pCache->Free();
        FlushRing::TearDown();
    }
};

TEST_F(FlushThread, EntriesPostedBeforeTheStopAreServedAndTheThreadsEndPromptly)
{
    MakeRing();
    // The thread is held on its first write while the stop comes.
    m_io.Hold(FileOp::PWrite);
    ASSERT_EQ(S_OK, m_pCache->CreateEventAndThread());
    std::vector<stu_CacheFlush*> v;
    for (UINT n = 0; n < 5; n++) v.push_back(PostData(70 + n, (long long)(40 + n) * FS_PART));
    SetEvent(m_pCache->m_hCacheFlush);
    ASSERT_TRUE(m_io.WaitHeld(20000)) << "the posted entries were never taken";
    // The stop is seen within a wait of the loop, not the 400 s of Free.
    auto tStart = std::chrono::steady_clock::now();
    m_pCache->Exit();
    m_io.Release();
    EXPECT_EQ(0, m_pCache->Free());
    auto nMs = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - tStart).count();
    EXPECT_LT(nMs, 30000) << "the flush threads did not see the stop";
    for (stu_CacheFlush* p : v) {
        EXPECT_EQ(0, Val(p->m_bStatus));
        EXPECT_EQ(CACHEFLUSH_DONE, Val(p->m_bReserved));
    }
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    EXPECT_EQ(0, m_pCache->m_crit.m_nLockFlag) << "open latch taken";
    EXPECT_EQ(0, m_pCache->m_csCache.m_nLockFlag) << "chain latch taken";
    EXPECT_TRUE(LatchFree());
}


TEST_F(FlushRing, APauseIsGrantedOnlyOnceTheLoopIsOffTheFileAndKeepsItOff)
{
    MakeRing();
    // A file short of room, so that the loop's first round grows it.
    LPTABLEFILEHEAD lpHead = FileShortOfRoom();
    // Short rounds, so that the paused file is passed over many times.
    m_pCache->m_nWaitTime = 20;
    // The growth hangs on its first write: the loop is inside the file.
    m_io.Hold(FileOp::PWrite);
    std::thread tLoop([&] { EXPECT_EQ(S_OK, m_pCache->StorageFlush(nullptr)); });
    ASSERT_TRUE(m_io.WaitHeld(20000)) << "the loop never grew the file";
    ExpectPauseWaitsOutTheHold("the loop still grew the file");
    const long long llGrown = Val(lpHead->m_nFileTotalSize);
    EXPECT_EQ(FS_FILE_SIZE + CACHEFLUSH_GROW_SIZE, llGrown);
    // Short of room again while paused: the loop's rounds leave it alone.
    lpHead->m_nFileFreeMemoryOffset = llGrown - FS_PART;
    // Long enough for a growth of the file to end (it shows at its end).
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    EXPECT_EQ(llGrown, Val(lpHead->m_nFileTotalSize)) << "the loop grew a paused file";
    m_pCache->ResumeFile();
    TalvorStoreShared(&m_pCache->m_bExit, 1);
    tLoop.join();
}

// A paused file's entry waits, also across a stop (it is left posted for
// the next daemon); once served, a timestamp waits while the pause lasts,
// as the block may still sit in a write buffer (file buffers on).
TEST_F(FlushRing, APausedFileHoldsItsEntriesAndTheTimestampsUntilThePauseEnds)
{
    MakeRing(TRUE);
    std::atomic<int> nCommits{0};
    m_module.m_fnOnCommit = [&](const FakeCacheModule::Commit&) { nCommits++; };
    m_pCache->m_nWaitTime = 20;
    stu_CacheFlush* pData = PostData(80, 40LL * FS_PART);
    TalvorStoreShared(&m_pCache->m_bPauseFileNo, FS_FILE_NO);
    const int nPos = Head()->m_bStorageFlushPos;
    Run();
    EXPECT_EQ(1, Val(pData->m_bStatus));
    EXPECT_EQ(nPos, (int)Head()->m_bStorageFlushPos);
    EXPECT_TRUE(Writes().empty());
    TalvorStoreShared(&m_pCache->m_bPauseFileNo, 0);
    TalvorStoreShared(&m_pCache->m_bExit, 0);
    std::thread tLoop([&] { EXPECT_EQ(S_OK, m_pCache->StorageFlush(nullptr)); });
    ASSERT_TRUE(WaitUntil([&] { return TalvorLoadShared(&pData->m_bStatus) == 0; }, 20000));
    ASSERT_TRUE(m_pCache->PauseFile(FS_FILE_NO));
    stu_CacheFlush* pStamp = PostTimestamp(9100, -1, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0, nCommits.load()) << "a timestamp committed over a paused file's writes";
    EXPECT_EQ(1, Val(pStamp->m_bStatus));
    m_pCache->ResumeFile();
    EXPECT_TRUE(WaitUntil([&] { return nCommits.load() == 1; }, 20000));
    // The commit came once the file's writes were on disk.
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    TalvorStoreShared(&m_pCache->m_bExit, 1);
    tLoop.join();
}

TEST_F(FlushRing, AFileShortOfRoomGrowsAndTheEntryPastItsOldEndGoesThrough)
{
    MakeRing();
    LPTABLEFILEHEAD lpHead = FileShortOfRoom();
    // 32 entries to nothing, so that the 33rd runs the space check first.
    for (int i = 0; i < CACHEFLUSH_SPACE_EVERY - 1; i++) PostUnknown();
    long long llPast = FS_FILE_SIZE + 10LL * FS_PART;
    m_vLogical.resize((size_t)(FS_FILE_SIZE + CACHEFLUSH_GROW_SIZE), 0);
    stu_CacheFlush* pPast = PostData(90, llPast);
    Run();

    EXPECT_EQ(CACHEFLUSH_DONE, Val(pPast->m_bReserved));
    EXPECT_GE(talvortest::FileSizeOf(m_strPath), FS_FILE_SIZE + CACHEFLUSH_GROW_SIZE);
    EXPECT_EQ(FS_FILE_SIZE + CACHEFLUSH_GROW_SIZE, Val(lpHead->m_nFileTotalSize));
    EXPECT_TRUE(FileAt(m_strPath, llPast, FS_PART) ==
                std::vector<BYTE>(m_vLogical.begin() + llPast, m_vLogical.begin() + llPast + FS_PART));
}

} // namespace
