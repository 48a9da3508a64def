// Platform floor: latches and their per-thread record, guards, the wait for
// an answer, and SysV segments. A test that could hang on a fault waits
// against a deadline, and posts a stuck worker free.
#include "LinuxCommonAPI.h"
#include "ShareMemory.h"
#include "TestClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

int SemValue(LPTALVOR_SECTION lp)
{
    int n = -1;
    sem_getvalue(&lp->m_hEvent, &n);
    return n;
}

class LatchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (auto& l : m_arLatch) InitializeCriticalTalvor(&l);
        InitThreadCritSection(&m_cs);
    }
    void TearDown() override { for (auto& l : m_arLatch) DeleteCriticalTalvor(&l); }
    bool IsFree(const TALVOR_SECTION& l) { return l.m_nLockFlag == 0 && l.m_nThreadID == TALVOR_NO_OWNER; }

    // True when another thread can take and give back the latch within 2 s.
    bool OtherThreadCanTake(LPTALVOR_SECTION lp)
    {
        std::atomic<bool> bTaken{false};
        std::thread th([&] {
            TALVORCRITICALSECTION cs;
            InitThreadCritSection(&cs);
            CTalvorCriticalSectionPtr guard(lp, &cs);
            bTaken = true;
        });
        bool bOk = WaitUntil([&] { return bTaken.load(); }, 2000);
        if (!bOk) {
            // Free the stuck thread so the test can end: hand it the latch.
            lp->m_nRecursionCount = 0;
            LeaveCriticalTalvor(lp);
            sem_post(&lp->m_hEvent);
        }
        th.join();
        return bOk;
    }

    TALVOR_SECTION m_arLatch[20];
    TALVORCRITICALSECTION m_cs;
};

// Guards made without destruction, as after a longjmp out of their frames.
struct AbandonedGuards {
    alignas(CTalvorCriticalSectionPtr) unsigned char m_arStore[21][sizeof(CTalvorCriticalSectionPtr)];
    int m_nCount = 0;
    void Take(LPTALVOR_SECTION lp, LPTALVORCRITICALSECTION cs) { new (m_arStore[m_nCount++]) CTalvorCriticalSectionPtr(lp, cs); }
};

TEST_F(LatchTest, NestedGuardsCountRecursionAndSlotsAndReleaseOnce)
{
    LPTALVOR_SECTION lp = &m_arLatch[0];
    {
        CTalvorCriticalSectionPtr g1(lp, &m_cs);
        {
            CTalvorCriticalSectionPtr g2(lp, &m_cs);
            g2.UnLock();
            g2.UnLock();
        }
        // A second release by the inner guard would have freed the outer's hold.
        EXPECT_TRUE(lp->m_nRecursionCount == 0 && lp->m_nLockFlag == 1 && lp->m_nThreadID == (UINT)m_cs.m_nThreadID);
    }
    EXPECT_TRUE(IsFree(*lp));
    EXPECT_EQ(m_cs.m_nCritPos, 0);
    EXPECT_TRUE(OtherThreadCanTake(lp));
}

// Twenty recorded guards, latch 0 among them twice, and a 21st past the
// record: the crash release gives back the twenty (the recursion twice) and
// leaves the position as it was; the 21st holds its latch unrecorded.
TEST_F(LatchTest, CrashReleaseGivesBackEveryRecordedLatchButNotThe21st)
{
    AbandonedGuards guards;
    guards.Take(&m_arLatch[0], &m_cs);
    for (int i = 0; i < 19; i++) guards.Take(&m_arLatch[i], &m_cs);
    {
        CTalvorCriticalSectionPtr g21(&m_arLatch[19], &m_cs);
        EXPECT_EQ(m_arLatch[19].m_nLockFlag, 1);
    }
    EXPECT_TRUE(IsFree(m_arLatch[19]));
    EXPECT_EQ(m_cs.m_nCritPos, 20) << "an unrecorded guard must not pop someone else's slot";
    guards.Take(&m_arLatch[19], &m_cs);

    TalvorCriticalRelease(&m_cs);
    for (int i = 0; i < 19; i++) EXPECT_TRUE(IsFree(m_arLatch[i])) << "latch " << i;
    EXPECT_EQ(m_arLatch[0].m_nRecursionCount, 0);
    for (auto* p : m_cs.m_pCritStack) EXPECT_EQ(p, nullptr);
    EXPECT_EQ(m_cs.m_nCritPos, 20) << "the record's position is left as it was";
    EXPECT_TRUE(OtherThreadCanTake(&m_arLatch[0]));
    EXPECT_EQ(m_arLatch[19].m_nLockFlag, 1) << "the unrecorded latch is beyond the crash release";
    LeaveCriticalTalvor(&m_arLatch[19]);
    EXPECT_TRUE(IsFree(m_arLatch[19]));
    TalvorCriticalRelease(nullptr);
}

enum class Acquire { Owner, Plain, Spin };
const char* const kAcquireNames[] = {"Owner", "Plain", "Spin"};

void Take(LPTALVOR_SECTION lp, Acquire how, UINT nID)
{
    switch (how) {
    case Acquire::Owner: EnterCriticalTalvor(lp, nID); break;
    case Acquire::Plain: EnterCriticalTalvor(lp); break;
    case Acquire::Spin: EnterCriticalTalvorEx(lp); break;
    }
}

class LatchContention : public LatchTest, public ::testing::WithParamInterface<Acquire> {};

// A plain (non-atomic) read-modify-write under the latch: any overlap of two
// holders loses increments. The counter is volatile so the compiler keeps
// the read and the write apart.
TEST_P(LatchContention, FourThreadsNeverOverlap)
{
    const int nThreads = 4, nLoops = 100000;
    LPTALVOR_SECTION lp = &m_arLatch[0];
    volatile long nCounter = 0;
    std::atomic<int> nInside{0}, nOverlap{0};
    std::atomic<int> nDone{0};
    int nMaxSem = 0; // written under the latch
    std::vector<std::thread> threads;
    for (int t = 0; t < nThreads; t++) {
        threads.emplace_back([&] {
            UINT nID = GetCurrentThreadId();
            for (int i = 0; i < nLoops; i++) {
                Take(lp, GetParam(), nID);
                if (nInside.fetch_add(1, std::memory_order_relaxed) != 0) nOverlap++;
                nCounter = nCounter + 1;
                if ((i & 255) == 0 && SemValue(lp) > nMaxSem) nMaxSem = SemValue(lp);
                nInside.fetch_sub(1, std::memory_order_relaxed);
                LeaveCriticalTalvor(lp);
            }
            nDone++;
        });
    }
    bool bFinished = WaitUntil([&] { return nDone.load() == nThreads; }, 60000);
    if (!bFinished) {
        ADD_FAILURE() << "contention run did not finish: a waiter was never woken";
        for (int i = 0; i < 1000; i++) sem_post(&lp->m_hEvent);
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(nCounter, (long)nThreads * nLoops);
    EXPECT_EQ(nOverlap.load(), 0);
    EXPECT_TRUE(IsFree(*lp));
    EXPECT_EQ(lp->m_nWaitedCount, 0);
    EXPECT_EQ(lp->m_nSpinCount, 0);
    // Posts beyond the sleepers would let later waiters run through
    // sem_wait without sleeping: the banked count must stay small, during
    // the run as well as after it.
    EXPECT_LE(nMaxSem, nThreads + 1);
    EXPECT_LE(SemValue(lp), nThreads + 1);
}

INSTANTIATE_TEST_SUITE_P(AllAcquires, LatchContention,
                         ::testing::Values(Acquire::Owner, Acquire::Plain, Acquire::Spin),
                         [](const ::testing::TestParamInfo<Acquire>& info) {
                             return std::string(kAcquireNames[(int)info.param]);
                         });

// A semaphore keeps the posts of answers no one waited for; a wait for the
// next answer on it must still last its time, not its number of slices.
TEST(SemaphoreWait, AWaitUntilAnAnswerLastsItsTimeOverStalePosts)
{
    EVENTTYPE ev = {};
    InitEvent(ev);
    for (int i = 0; i < 5000; i++) SetEvent(&ev);
    int nLooks = 0;
    long long nStart = NowMs();
    EXPECT_FALSE(WaitEventUntil(&ev, 200, 10, [&] { return ++nLooks < 0; }));
    EXPECT_GE(NowMs() - nStart, 200) << "ended after " << nLooks << " looks";

    std::atomic<bool> bAnswered{false};
    std::thread engine([&] {
        usleep(100000);
        bAnswered = true;
    });
    nStart = NowMs();
    EXPECT_TRUE(WaitEventUntil(&ev, 5000, 10, [&] { return bAnswered.load(); }));
    EXPECT_GE(NowMs() - nStart, 90);
    engine.join();
    // Without a semaphore it sleeps, and an answer there at once is taken at once.
    nStart = NowMs();
    EXPECT_FALSE(WaitEventUntil(nullptr, 50, 10, [] { return false; }));
    EXPECT_GE(NowMs() - nStart, 50);
    EXPECT_TRUE(WaitEventUntil(nullptr, 0, 10, [] { return true; }));
    FreeEvent(ev);
}

// Whole pages are given back and the ragged ends written:
// every byte of the range reads zero through a second attachment, and not
// one byte outside it changes, whichever way the range meets the page bounds.
TEST(SharedMemory, ZeroingReachesEveryAttachmentAndStopsAtTheRangeBounds)
{
    const size_t nPage = (size_t)sysconf(_SC_PAGESIZE), nSize = 5 * nPage;
    BOOL bExists = 0;
    MFID nId = CShareMemory::CreateShareMemory(0x54535431, nSize, nullptr, bExists);
    ASSERT_GT(nId, 0);
    LPBYTE p1 = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    LPBYTE p2 = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    ASSERT_TRUE(p1 != nullptr && p2 != nullptr);
    const std::pair<size_t, size_t> arRanges[] = {{100, 3 * nPage}, {nPage, 2 * nPage}, {nPage - 1, 2}, {nPage + 1, nPage - 2}};
    for (const auto& r : arRanges) {
        memset(p1, 0xAB, nSize);
        CShareMemory::ZeroShareMemory(p1 + r.first, r.second);
        size_t nWrong = 0, nFirst = SIZE_MAX;
        for (size_t i = 0; i < nSize; i++)
            if (p2[i] != (i >= r.first && i < r.first + r.second ? 0 : 0xAB) && nWrong++ == 0) nFirst = i;
        EXPECT_EQ(nWrong, 0u) << "range " << r.first << "+" << r.second << ", first wrong byte " << nFirst;
    }
    CShareMemory::ShMemDetach(p1);
    CShareMemory::ShMemDetach(p2);
    CShareMemory::DestoryShareMemory(nId);
}

// The latch order is checked where latches are taken: a thread that takes a
// lower-ranked latch while it holds a higher one stops a debug build at once,
// long before two such threads meet in a deadlock. Rising ranks, recursion
// and unranked latches are taken by every debug run of the daemon.
TEST(LatchOrder, AStepDownStopsADebugBuild)
{
#ifdef NDEBUG
    GTEST_SKIP() << "the order is checked in debug builds only";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TALVOR_SECTION stModule, stRedo, stOtherRedo;
    for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stOtherRedo}) InitializeCriticalTalvor(lp);
    TalvorSetLatchRank(&stModule, LATCHRANK_MODULE);
    TalvorSetLatchRank(&stRedo, LATCHRANK_REDO);
    TalvorSetLatchRank(&stOtherRedo, LATCHRANK_REDO);
    // Equal ranks are a step down too: two latches of one rank have no order.
    for (LPTALVOR_SECTION lpSecond : {&stModule, &stOtherRedo}) {
        EXPECT_DEATH(
            {
                TALVORCRITICALSECTION stCrit;
                InitThreadCritSection(&stCrit);
                CTalvorCriticalSectionPtr a(&stRedo, &stCrit);
                CTalvorCriticalSectionPtr b(lpSecond, &stCrit);
            },
            "LatchOrderKept");
    }
    for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stOtherRedo}) DeleteCriticalTalvor(lp);
#endif
}

} // namespace
