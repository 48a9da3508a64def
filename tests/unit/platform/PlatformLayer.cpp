// Platform floor: latches and their per-thread record, guards, waits, events,
// thread liveness, SysV segments and the time shims. A test that could hang
// on a fault waits against a deadline, and posts a stuck worker free.
#include "LinuxCommonAPI.h"
#include "ShareMemory.h"
#include "TestClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
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
    void TearDown() override
    {
        for (auto& l : m_arLatch) DeleteCriticalTalvor(&l);
    }
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
    void Take(LPTALVOR_SECTION lp, LPTALVORCRITICALSECTION cs)
    {
        new (m_arStore[m_nCount++]) CTalvorCriticalSectionPtr(lp, cs);
    }
};

TEST_F(LatchTest, NestedGuardsCountRecursionAndSlotsAndReleaseOnce)
{
    LPTALVOR_SECTION lp = &m_arLatch[0];
    {
        CTalvorCriticalSectionPtr g1(lp, &m_cs);
        EXPECT_EQ(lp->m_nThreadID, (UINT)m_cs.m_nThreadID);
        {
            CTalvorCriticalSectionPtr g2(lp, &m_cs);
            EXPECT_EQ(lp->m_nRecursionCount, 1);
            EXPECT_EQ(m_cs.m_nCritPos, 2);
            EXPECT_EQ(m_cs.m_pCritStack[0], lp);
            EXPECT_EQ(m_cs.m_pCritStack[1], lp);
            g2.UnLock();
            g2.UnLock();
        }
        // A second release by the inner guard would have freed the outer's hold.
        EXPECT_EQ(lp->m_nRecursionCount, 0);
        EXPECT_EQ(lp->m_nLockFlag, 1);
        EXPECT_EQ(lp->m_nThreadID, (UINT)m_cs.m_nThreadID);
        EXPECT_EQ(m_cs.m_nCritPos, 1);
        EXPECT_EQ(m_cs.m_pCritStack[1], nullptr);
    }
    EXPECT_TRUE(IsFree(*lp));
    EXPECT_EQ(m_cs.m_nCritPos, 0);
    EXPECT_EQ(m_cs.m_pCritStack[0], nullptr);
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
    ASSERT_EQ(m_arLatch[0].m_nRecursionCount, 1);
    {
        CTalvorCriticalSectionPtr g21(&m_arLatch[19], &m_cs);
        EXPECT_EQ(m_arLatch[19].m_nLockFlag, 1);
    }
    EXPECT_TRUE(IsFree(m_arLatch[19]));
    EXPECT_EQ(m_cs.m_nCritPos, 20) << "an unrecorded guard must not pop someone else's slot";
    guards.Take(&m_arLatch[19], &m_cs);
    EXPECT_EQ(m_cs.m_nCritPos, 20);
    EXPECT_EQ(m_arLatch[19].m_nLockFlag, 1);
    for (int i = 0; i < 19; i++) EXPECT_EQ(m_cs.m_pCritStack[i + 1], &m_arLatch[i]);

    TalvorCriticalRelease(&m_cs);
    for (int i = 0; i < 19; i++) EXPECT_TRUE(IsFree(m_arLatch[i])) << "latch " << i;
    EXPECT_EQ(m_arLatch[0].m_nRecursionCount, 0);
    for (auto* p : m_cs.m_pCritStack) EXPECT_EQ(p, nullptr);
    EXPECT_EQ(m_cs.m_nCritPos, 20) << "the record's position is left as it was";
    EXPECT_TRUE(OtherThreadCanTake(&m_arLatch[0]));
    EXPECT_EQ(m_arLatch[19].m_nLockFlag, 1) << "the unrecorded latch is beyond the crash release";
    EXPECT_EQ(m_arLatch[19].m_nThreadID, (UINT)m_cs.m_nThreadID);
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

// The holder lets go at a varying moment while the waiter is on its way in:
// before its test of the flag, between that test and its sleep, or while it
// sleeps. Nobody comes after, so a missed wake-up strands the waiter.
TEST_P(LatchContention, ReleaseAtAnyMomentNeverStrandsTheWaiter)
{
    const int nRounds = 10000;
    LPTALVOR_SECTION lp = &m_arLatch[0];
    std::atomic<int> nGo{-1}, nDone{-1};
    std::atomic<bool> bStop{false};
    std::thread waiter([&] {
        UINT nID = GetCurrentThreadId();
        for (int r = 0; r < nRounds && !bStop; r++) {
            while (nGo.load() < r && !bStop) {
            }
            if (bStop) break;
            Take(lp, GetParam(), nID);
            nDone = r;
            LeaveCriticalTalvor(lp);
        }
    });
    UINT nID = GetCurrentThreadId();
    bool bOk = true;
    for (int r = 0; r < nRounds && bOk; r++) {
        Take(lp, GetParam(), nID);
        nGo = r;
        for (volatile int i = 0, n = (r * 7919) % 3000; i < n; i++) {
        }
        LeaveCriticalTalvor(lp);
        bOk = WaitUntil([&] { return nDone.load() >= r; }, 5000);
    }
    if (!bOk) {
        ADD_FAILURE() << "waiter stranded at round " << nDone.load() + 1;
        bStop = true;
        sem_post(&lp->m_hEvent);
    }
    waiter.join();
    EXPECT_EQ(nDone.load(), nRounds - 1);
    EXPECT_TRUE(IsFree(*lp));
}

INSTANTIATE_TEST_SUITE_P(AllAcquires, LatchContention,
                         ::testing::Values(Acquire::Owner, Acquire::Plain, Acquire::Spin),
                         [](const ::testing::TestParamInfo<Acquire>& info) {
                             return std::string(kAcquireNames[(int)info.param]);
                         });

TEST_F(LatchTest, RecursiveOwnerUnderContentionKeepsCount)
{
    LPTALVOR_SECTION lp = &m_arLatch[0];
    volatile long nCounter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&] {
            TALVORCRITICALSECTION cs;
            InitThreadCritSection(&cs);
            for (int i = 0; i < 20000; i++) {
                CTalvorCriticalSectionPtr g1(lp, &cs);
                CTalvorCriticalSectionPtr g2(lp, &cs);
                nCounter = nCounter + 1;
                g2.UnLock();
                nCounter = nCounter + 1; // still held through g1
            }
            EXPECT_EQ(cs.m_nCritPos, 0);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(nCounter, 3L * 20000 * 2);
    EXPECT_TRUE(IsFree(*lp));
    EXPECT_EQ(lp->m_nRecursionCount, 0);
}

TEST(MutexGuard, RecursiveAndReleasedOnce)
{
    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    {
        CCriticalSectionPtr g1(&cs);
        CCriticalSectionPtr g2(&cs); // recursive: must not deadlock
        g2.UnLock();
        g2.UnLock();
        std::thread th([&] { EXPECT_EQ(pthread_mutex_trylock(&cs), EBUSY); });
        th.join();
    }
    std::thread th([&] {
        EXPECT_EQ(pthread_mutex_trylock(&cs), 0);
        pthread_mutex_unlock(&cs);
    });
    th.join();
    DeleteCriticalSection(&cs);
}


TEST(SemaphoreWait, TryWaitTimedWaitAndWake)
{
    EVENTTYPE ev = {};
    InitEvent(ev);
    EXPECT_EQ(WaitForSingleObject(&ev, 0), WAIT_TIMEOUT);
    SetEvent(&ev);
    EXPECT_EQ(WaitForSingleObject(&ev, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(&ev, 0), WAIT_TIMEOUT);
    SetEvent(ev);
    EXPECT_EQ(WaitForSingleObject(ev, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(&ev, 50), WAIT_TIMEOUT);
    std::thread poster([&] {
        usleep(50000);
        SetEvent(&ev);
    });
    EXPECT_EQ(WaitForSingleObject(&ev, 5000), WAIT_OBJECT_0);
    poster.join();
    FreeEvent(ev);
}

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

TEST(TimeArithmetic, TimeraddMSCarriesIntoSeconds)
{
    const struct {
        struct timeval m_tvFrom;
        UINT m_nMs;
        struct timeval m_tvTo;
    } arCases[] = {{{100, 999000}, 1, {101, 0}},
                   {{100, 999999}, 2500, {103, 499999}},
                   {{5, 0}, 4294967, {5 + 4294, 967000}}};
    for (const auto& c : arCases) {
        struct timeval tv = c.m_tvFrom;
        TimeraddMS(&tv, c.m_nMs);
        EXPECT_EQ(tv.tv_sec, c.m_tvTo.tv_sec) << c.m_nMs;
        EXPECT_EQ(tv.tv_usec, c.m_tvTo.tv_usec) << c.m_nMs;
    }
}


struct Gate {
    sem_t m_sem;
    std::atomic<bool> m_bEnded{false};
    Gate() { sem_init(&m_sem, 0, 0); }
    ~Gate() { sem_destroy(&m_sem); }
};

void* WaitOnGate(void* p)
{
    Gate* g = (Gate*)p;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += 30; // bounded: a failing test never leaves it forever
    sem_timedwait(&g->m_sem, &ts);
    g->m_bEnded = true;
    return nullptr;
}

void* EndAtOnce(void*) { return nullptr; }

void* EndAfter100ms(void* p)
{
    usleep(100000);
    ((std::atomic<bool>*)p)->store(true);
    return nullptr;
}

// A contained thread leaves by pthread_exit after a fault; it must still be
// seen gone, or the stop would wait on it until its time-out.
void* ExitByPthreadExit(void*)
{
    pthread_exit(nullptr);
}

// Ended but not joined: the signal probe alone would call it alive. A thread
// that returns is in ManyShortThreadsAreEachSeenGone.
TEST(ThreadWait, EndedJoinableThreadIsSeenGone)
{
    HTHREADTYPE th = 0;
    ASSERT_EQ(CreateJoinableThread(&th, ExitByPthreadExit, nullptr), 0);
    ASSERT_NE(th, (HTHREADTYPE)0);
    usleep(50000);
    EXPECT_EQ(WaitForSingleObject(th, 2000), WAIT_OBJECT_0);
    EXPECT_FALSE(IsThreadAlive(th));
    EXPECT_EQ(TalvorWaitForSingleThread(th, 1000), WAIT_OBJECT_0);
}

TEST(ThreadWait, DetachedThreadOfOursIsSeenGone)
{
    std::atomic<bool> bEnded{false};
    volatile HTHREADTYPE th = 0;
    UINT nId = 0;
    ASSERT_EQ(CreateThreadAllPlateForm(&th, EndAfter100ms, &bEnded, nId, "EndAfter100ms"), 0);
    HTHREADTYPE h = th;
    ASSERT_NE(h, (HTHREADTYPE)0);
    EXPECT_EQ(WaitForSingleObject(h, 5000), WAIT_OBJECT_0);
    EXPECT_TRUE(bEnded.load());
    CloseThreadHandle(h);
    EXPECT_EQ(h, (HTHREADTYPE)0);
}

// Threads that end at once and reuse the heap at once: each must still be
// recorded under its own handle, or its end is never seen. More threads
// than the registry has slots, so ended slots must be reused.
void* EndAndChurnHeap(void*)
{
    void* ar[8];
    for (auto& p : ar) {
        p = malloc(24);
        if (p != nullptr) memset(p, 0xFF, 24);
    }
    for (auto* p : ar) free(p);
    return nullptr;
}

TEST(ThreadWait, ManyShortThreadsAreEachSeenGone)
{
    int nTimedOut = 0;
    for (int i = 0; i < 1100; i++) {
        HTHREADTYPE th = 0;
        ASSERT_EQ(CreateJoinableThread(&th, EndAndChurnHeap, nullptr), 0) << "thread " << i;
        if (WaitForSingleObject(th, 2000) != WAIT_OBJECT_0) nTimedOut++;
        ASSERT_EQ(TalvorWaitForSingleThread(th, 2000), WAIT_OBJECT_0);
        if (nTimedOut > 0) break;
    }
    EXPECT_EQ(nTimedOut, 0);
}

// One live, one gone: the live one times the wait out and keeps its handle;
// once it ends, the wait passes over the zeroed handle and zeroes the other.
TEST(ThreadWait, MultipleObjectsZeroesGoneHandles)
{
    Gate gate;
    HTHREADTYPE arMix[2] = {0, 0};
    ASSERT_EQ(CreateJoinableThread(&arMix[0], EndAtOnce, nullptr), 0);
    ASSERT_EQ(CreateJoinableThread(&arMix[1], WaitOnGate, &gate), 0);
    HTHREADTYPE hLive = arMix[1], hGone = arMix[0];
    usleep(50000);
    EXPECT_EQ(WaitForMultipleObjects(2, arMix, FALSE, 60), WAIT_TIMEOUT);
    EXPECT_EQ(arMix[0], (HTHREADTYPE)0);
    EXPECT_EQ(arMix[1], hLive);
    sem_post(&gate.m_sem);
    EXPECT_EQ(WaitForMultipleObjects(2, arMix, TRUE, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(arMix[1], (HTHREADTYPE)0);
    EXPECT_EQ(TalvorWaitForSingleThread(hLive, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(TalvorWaitForSingleThread(hGone, 1000), WAIT_OBJECT_0);
}

// Live threads time every wait out and are seen alive; the timed join then
// waits for the end of all of them.
TEST(ThreadWait, LiveThreadsTimeOutThenEnd)
{
    const int N = 4, TIMEOUT_MS = 100;
    Gate arGate[N];
    HTHREADTYPE arTh[N] = {};
    for (int i = 0; i < N; i++) ASSERT_EQ(CreateJoinableThread(&arTh[i], WaitOnGate, &arGate[i]), 0);
    HTHREADTYPE arKeep[N];
    memcpy(arKeep, arTh, sizeof(arTh));
    EXPECT_EQ(WaitForSingleObject(arTh[0], TIMEOUT_MS), WAIT_TIMEOUT);
    EXPECT_EQ(TalvorWaitForSingleThread(arTh[0], TIMEOUT_MS), WAIT_TIMEOUT);
    EXPECT_TRUE(IsThreadAlive(arTh[0]));
    EXPECT_EQ(TalvorWaitForMultipleThread(N, arTh, TRUE, TIMEOUT_MS), WAIT_TIMEOUT);
    for (Gate& g : arGate) sem_post(&g.m_sem);
    EXPECT_EQ(TalvorWaitForMultipleThread(N, arKeep, TRUE, 5000), WAIT_OBJECT_0);
    for (Gate& g : arGate) EXPECT_TRUE(g.m_bEnded.load());
}


TEST(NamedEvent, FreshNameStartsSignalledAndKeepsItsName)
{
    const char* szName = "Global\\TalvorUnitTestEvent";
    sem_unlink(szName);
    HEVENTTYPE h = CreateEventSem(nullptr, szName);
    ASSERT_TRUE(CreateEventSemSuccess(h));
    struct stat st;
    EXPECT_EQ(stat("/dev/shm/sem.Global\\TalvorUnitTestEvent", &st), 0) << "the name is used as given, backslash and all";
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_TIMEOUT);
    SetEvent(h);
    SetEvent(h);
    CloseEvent(h);
    EXPECT_EQ(h, nullptr);

    // The named object outlives the handle, and its count with it.
    HEVENTTYPE h2 = CreateEventSem(nullptr, szName);
    ASSERT_NE(h2, nullptr);
    EXPECT_EQ(WaitForSingleObject(h2, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(h2, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(h2, 0), WAIT_TIMEOUT);
    CloseEvent(h2);
    sem_unlink(szName);
}


class SharedMemoryTest : public ::testing::Test {
protected:
    static constexpr key_t kKey = 0x54535431; // "TST1"
    void TearDown() override
    {
        int nId = shmget(kKey, 0, 0);
        if (nId != -1) shmctl(nId, IPC_RMID, nullptr);
    }
};

TEST_F(SharedMemoryTest, ASegmentIsFoundAgainByItsKeyOutlivesItsIdAndIsRemoved)
{
    BOOL bExists = 7;
    MFID nId = CShareMemory::CreateShareMemory(kKey, 8192, "Global\\Test", bExists);
    // Id 0 is the first id of a fresh namespace and means "no segment".
    ASSERT_GT(nId, 0);
    EXPECT_EQ(bExists, FALSE);
    EXPECT_EQ(CShareMemory::CreateShareMemory(kKey, 4096, nullptr, bExists), nId);
    EXPECT_EQ(bExists, TRUE);
    errno = 0;
    EXPECT_EQ(CShareMemory::CreateShareMemory(kKey, 16384, nullptr, bExists), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(CShareMemory::ShareMemorySize(nId), 8192u);
    EXPECT_EQ(CShareMemory::OpenShareMemory(kKey, nullptr), nId);

    LPBYTE p1 = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    ASSERT_NE(p1, nullptr);
    memcpy(p1 + 100, "QNSM", 4);
    EXPECT_TRUE(CShareMemory::ShMemDetach(p1));
    EXPECT_EQ(p1, nullptr);
    MFID nCopy = nId;
    EXPECT_TRUE(CShareMemory::CloseShareMemory(nCopy));
    EXPECT_EQ(nCopy, 0);
    // Closing forgets the id only: the data is still there for the peer.
    MFID nAgain = CShareMemory::OpenShareMemory(kKey, nullptr);
    ASSERT_EQ(nAgain, nId);
    LPBYTE p3 = (LPBYTE)CShareMemory::ShMemAttach(nAgain, nullptr, SHM_RDONLY);
    ASSERT_NE(p3, nullptr);
    EXPECT_EQ(memcmp(p3 + 100, "QNSM", 4), 0);
    CShareMemory::ShMemDetach(p3);

    EXPECT_TRUE(CShareMemory::DestoryShareMemory(nId));
    EXPECT_EQ(nId, 0);
    EXPECT_EQ(CShareMemory::OpenShareMemory(kKey, nullptr), -1);
}

// Pages of SysV memory resident in this test's own IPC namespace.
unsigned long ResidentSharedPages()
{
    struct shm_info info;
    memset(&info, 0, sizeof(info));
    shmctl(0, SHM_INFO, (struct shmid_ds*)&info);
    return info.shm_rss;
}

// Whole pages are given back and the ragged ends written: every byte of
// the range reads zero through a second attachment, and not one byte
// outside it changes, whichever way the range meets the page bounds.
TEST_F(SharedMemoryTest, ZeroingReachesEveryAttachmentAndStopsAtTheRangeBounds)
{
    const size_t nPage = (size_t)sysconf(_SC_PAGESIZE);
    const size_t nSize = 5 * nPage;
    BOOL bExists = 0;
    MFID nId = CShareMemory::CreateShareMemory(kKey, nSize, nullptr, bExists);
    ASSERT_GT(nId, 0);
    LPBYTE p1 = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    LPBYTE p2 = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    ASSERT_NE(p1, nullptr);
    ASSERT_NE(p2, nullptr);
    struct Range {
        size_t nFrom, nLen;
    } ranges[] = {{100, 3 * nPage}, {nPage, 2 * nPage}, {nPage - 1, 2}, {nPage + 1, nPage - 2}};
    for (const Range& r : ranges) {
        memset(p1, 0xAB, nSize);
        CShareMemory::ZeroShareMemory(p1 + r.nFrom, r.nLen);
        size_t nWrong = 0, nFirst = SIZE_MAX;
        for (size_t i = 0; i < nSize; i++) {
            BYTE bWant = i >= r.nFrom && i < r.nFrom + r.nLen ? 0 : 0xAB;
            if (p2[i] != bWant && nWrong++ == 0) nFirst = i;
        }
        EXPECT_EQ(nWrong, 0u) << "range " << r.nFrom << "+" << r.nLen << ", first wrong byte " << nFirst;
    }
    // The pages of a cleared segment are given back, not kept written.
    memset(p1, 0xAB, nSize);
    unsigned long nResidentBefore = ResidentSharedPages();
    CShareMemory::ZeroShareMemory(p1, nSize);
    EXPECT_GE(nResidentBefore, ResidentSharedPages() + 5);
    CShareMemory::ShMemDetach(p1);
    CShareMemory::ShMemDetach(p2);
}


TEST(TimeShims, FileTimeMatchesWallClock)
{
    time_t t0 = time(nullptr);
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    time_t t1 = time(nullptr);
    long long nTicks = FileTimeToInt64(ft);
    long long nLow = ((long long)t0 + 11644473600LL) * 10000000LL;
    // time() reads the coarse clock, which may lag gettimeofday by a tick.
    long long nHigh = ((long long)t1 + 2 + 11644473600LL) * 10000000LL;
    EXPECT_GE(nTicks, nLow);
    EXPECT_LT(nTicks, nHigh);
    EXPECT_NE(ft.dwHighDateTime, 0u);
}

} // namespace
