// The storage thread at the stop and in time. Passes on command and at the
// interval run end to end (the persistence test).
#include "PersistenceDb.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <atomic>
#include <thread>

using namespace talvortest;

namespace {

std::atomic<long long> g_nFakeNow{0};
std::atomic<long long> g_nClockReads{0};
long long FakeClock()
{
    long long nNow = g_nFakeNow.load();
    g_nClockReads++;  // after the load: a count seen to rise twice holds a read of the latest value
    return nNow;
}

class ServiceStop : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The trace files go through the same layer and must never hang.
        m_io.PassThrough(m_db.m_tree.LogDir());
        m_db.MakeStartAndSave();
        if (HasFatalFailure()) return;
        m_db.Module().m_hStorageEvent = CreateEventSem(nullptr, SEMNAME_STORAGEEVENT);
    }
    void TearDown() override
    {
        TalvorStoreShared(&g_bEixt, 1);
        m_io.Release();
        if (m_bStarted) pthread_join(m_hThread, nullptr);
        TalvorStoreShared(&g_bEixt, 0);
        TalvorSetStorageClock(nullptr);
        CloseEvent(m_db.Module().m_hStorageEvent);
        m_db.Module().m_hStorageEvent = nullptr;
    }
    void StartThread(int nIntervals)
    {
        m_db.Head()->m_nPersistenceIntervals = nIntervals;
        TalvorStoreShared(&g_bEixt, 0);
        ASSERT_EQ(0, pthread_create(&m_db.Module().m_hTalvorStorageThread, nullptr,
                                    CBreltMemStorageModule::TalvorStorageThread, &m_db.Module()));
        m_hThread = m_db.Module().m_hTalvorStorageThread;
        m_bStarted = true;
    }
    void Change(int nFileNo, int nValue)
    {
        long long ts = m_db.BeginTransaction();
        m_db.ChangeRow(nFileNo, 1, 0, nValue, ts);
        m_db.EndTransaction(ts);
    }
    // The storage thread inside a pass, stopped at its first write.
    void HangThreadInAPass()
    {
        StartThread(300);
        Change(2, 11);
        m_io.Hold(FileOp::PWrite);
        TalvorStoreShared(&m_db.Head()->m_bStorageCMD, STORAGECMD_SAVE);
        ASSERT_TRUE(m_io.WaitHeld(5000));
    }
    PersistenceDb m_db;
    // Writes to the database hang once held, until released: a pass that
    // hangs on the disk.
    FaultFileIO m_io;
    ScopedFileIO m_scope{&m_io};
    pthread_t m_hThread{};
    bool m_bStarted = false;
};

} // namespace

TEST_F(ServiceStop, AThreadThatDoesNotEndKeepsWhatItHolds)
{
    HangThreadInAPass();
    CBreltMemStorageModule& m = m_db.Module();
    m.m_nStorageStopWaitMs = 300;
    TalvorStoreShared(&g_bEixt, 1);
    long long nStart = NowMs();
    EXPECT_EQ(S_OK, m.StopService(&m_db.m_stCrit, m_db.m_nRedoLogMaxID));
    EXPECT_LT(NowMs() - nStart, 5000) << "the stop waited past its bound";
    // Nothing the thread works on was freed under it.
    for (const void* p : {(const void*)m.m_pStorageInfo, (const void*)m.m_lpSystemFileInfo, (const void*)m.m_lpBuffer,
                          (const void*)m.m_lpHeadBuf, (const void*)m.m_pFlashback, (const void*)m.m_hStorageEvent})
        EXPECT_NE(nullptr, p);
    for (BYTE n = 1; n <= 4; n++) EXPECT_TRUE(SegmentExists(n)) << (int)n;
    // The thread goes on and finishes its pass over the images it kept.
    m_io.Release();
    ASSERT_EQ(0, pthread_join(m_hThread, nullptr));
    m_bStarted = false;
    EXPECT_EQ(32, TalvorLoadShared(&m_db.Head()->m_bStorageCMD));
    EXPECT_EQ(+m_db.Head()->m_nEndTimestamp, m_db.CommittedOnDisk());
}

TEST_F(ServiceStop, TwoPassesNeverRunTogether)
{
    Change(2, 21);
    m_io.Hold(FileOp::PWrite);
    std::atomic<int> nFirst{-9}, nSecond{-9};
    UINT nIdA = m_db.m_nRedoLogMaxID, nIdB = m_db.m_nRedoLogMaxID;
    auto Pass = [&](std::atomic<int>& nResult, UINT& nId) {
        TALVORCRITICALSECTION stCrit;
        InitThreadCritSection(&stCrit);
        nResult = m_db.Module().RunSavePass(&stCrit, FALSE, 0, nId);
    };
    std::thread first(Pass, std::ref(nFirst), std::ref(nIdA));
    ASSERT_TRUE(m_io.WaitHeld(5000));
    std::thread second(Pass, std::ref(nSecond), std::ref(nIdB));
    usleep(200000);
    // The second waits at the gate: it has not reached the disk.
    EXPECT_EQ(-9, nSecond.load());
    EXPECT_EQ(1, m_io.Held());
    m_io.Release();
    first.join();
    second.join();
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, nFirst.load());
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, nSecond.load());
    EXPECT_EQ(+m_db.Head()->m_nEndTimestamp, m_db.CommittedOnDisk());
}

TEST_F(ServiceStop, AClockThatJumpsBackDoesNotHoldThePassUp)
{
    const long long nStart = 1700000000LL * 1000000LL, nBack = nStart - 3600LL * 1000000LL;
    g_nFakeNow = nStart;
    TalvorSetStorageClock(FakeClock);
    StartThread(1);
    usleep(50000);
    Change(2, 31);
    long long ts = m_db.Head()->m_nEndTimestamp;
    // An hour back; the thread must see it before the clock moves on.
    g_nFakeNow = nBack;
    const long long nReads = g_nClockReads.load();
    ASSERT_TRUE(WaitUntil([&] { return g_nClockReads.load() >= nReads + 2; }, 10000));
    EXPECT_NE(ts, m_db.CommittedOnDisk());
    g_nFakeNow = nBack + 1100000LL;  // one interval after the jump
    EXPECT_TRUE(WaitUntil([&] { return m_db.CommittedOnDisk() == ts; }, 3000))
        << "the pass waited for the clock to come back";
}

TEST_F(ServiceStop, ForbidFlagsHoldThePassesOff)
{
    StartThread(1);
    Change(2, 7);
    TalvorStoreShared(&m_db.Head()->m_bStorageCMD, 2);
    // The head's flag, then the command record's.
    LPTALVORCOMMAND lpCmd = m_db.Module().m_pFlashback->GetClusterCommand();
    for (volatile BYTE* pFlag : {&m_db.Head()->m_bForbidSaveFlag, &lpCmd->m_bForbidSaveFlag}) {
        TalvorStoreShared(pFlag, 1);
        usleep(1500000);  // longer than the interval
        EXPECT_EQ(2, TalvorLoadShared(&m_db.Head()->m_bStorageCMD));
        EXPECT_NE(+m_db.Head()->m_nEndTimestamp, TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp));
        TalvorStoreShared(pFlag, 0);
    }
}
