// The storage thread over a loaded database: a pass asked with
// m_bStorageCMD 2 and answered with 32, file commands answered with 32
// before the pass that follows them, the forbid flags holding everything
// off but a cluster command, and the interval with its limits.
#include "PersistenceDb.h"
#include "TestClock.h"

#include <atomic>

using namespace talvortest;

namespace {

class StorageThread : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_db.MakeStartAndSave();
        if (HasFatalFailure()) return;
        CBreltMemStorageModule& m = m_db.Module();
        m.m_hStorageEvent = CreateEventSem(nullptr, SEMNAME_STORAGEEVENT);
    }
    void StartThread(int nIntervals)
    {
        m_db.Head()->m_nPersistenceIntervals = nIntervals;
        TalvorStoreShared(&g_bEixt, 0);
        ASSERT_EQ(0, pthread_create(&m_db.Module().m_hTalvorStorageThread, nullptr,
                                    CBreltMemStorageModule::TalvorStorageThread, &m_db.Module()));
        m_bStarted = true;
    }
    void TearDown() override
    {
        TalvorStoreShared(&g_bEixt, 1);
        if (m_bStarted) pthread_join(m_db.Module().m_hTalvorStorageThread, nullptr);
        TalvorStoreShared(&g_bEixt, 0);
        CloseEvent(m_db.Module().m_hStorageEvent);
        m_db.Module().m_hStorageEvent = nullptr;
    }
    void Change(int nValue)
    {
        long long ts = m_db.BeginTransaction();
        m_db.ChangeRow(2, 1, 0, nValue, ts);
        m_db.EndTransaction(ts);
    }
    PersistenceDb m_db;
    bool m_bStarted = false;
    // The layer outlives the storage thread, which may be inside it when
    // the test's scope puts the plain one back.
    FaultFileIO m_io;
    std::atomic<int> m_nFirstWriteCommand{-1};
};

} // namespace

TEST(StorageThreadInterval, OutOfRangeGivesThreeSeconds)
{
    EXPECT_EQ(3, TalvorPersistenceIntervalSeconds(0));
    EXPECT_EQ(3, TalvorPersistenceIntervalSeconds(301));
    EXPECT_EQ(3, TalvorPersistenceIntervalSeconds(-5));
    EXPECT_EQ(300, TalvorPersistenceIntervalSeconds(300));
    EXPECT_EQ(1, TalvorPersistenceIntervalSeconds(1));
}

TEST_F(StorageThread, PassOnCommandTwoIsAnsweredWith32AfterTheCommit)
{
    StartThread(300);
    Change(5);
    long long ts = m_db.Head()->m_nEndTimestamp;
    TalvorStoreShared(&m_db.Head()->m_bStorageCMD, 2);
    ASSERT_TRUE(WaitUntil([&] { return TalvorLoadShared(&m_db.Head()->m_bStorageCMD) == 32; }, 5000));
    EXPECT_EQ(ts, TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp));
    EXPECT_EQ(ts, m_db.CommittedOnDisk());
}

TEST_F(StorageThread, FileCommandIsAnsweredWith32BeforeThePassThatFollows)
{
    StartThread(300);
    Change(6);
    // What m_bStorageCMD says at the first write of the pass.
    LPSYSTEMFILEHEAD lpHead = m_db.Head();
    std::atomic<int>* pFirst = &m_nFirstWriteCommand;
    m_io.OnCall(FileOp::PWrite, [lpHead, pFirst](const FileCall& call) {
        if (call.m_nNth == 1) *pFirst = TalvorLoadShared(&lpHead->m_bStorageCMD);
    });
    ScopedFileIO scope(&m_io);
    TalvorStoreShared(&m_db.Head()->m_bStorageCMD, 1);
    ASSERT_TRUE(WaitUntil(
        [&] { return TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp) == m_db.Head()->m_nEndTimestamp; }, 5000));
    EXPECT_EQ(32, m_nFirstWriteCommand.load());
}

TEST_F(StorageThread, ForbidFlagsHoldEverythingOffButAClusterCommand)
{
    StartThread(1);
    Change(7);
    TalvorStoreShared(&m_db.Head()->m_bForbidSaveFlag, 1);
    TalvorStoreShared(&m_db.Head()->m_bStorageCMD, 2);
    usleep(1500000);  // longer than the interval
    EXPECT_EQ(2, TalvorLoadShared(&m_db.Head()->m_bStorageCMD));
    EXPECT_NE(+m_db.Head()->m_nEndTimestamp, TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp));

    // The same through the command record; a cluster command still runs,
    // and its end clears both flags.
    LPTALVORCOMMAND lpCmd = m_db.Module().m_pFlashback->GetClusterCommand();
    TalvorStoreShared(&m_db.Head()->m_bForbidSaveFlag, 0);
    TalvorStoreShared(&lpCmd->m_bForbidSaveFlag, 1);
    usleep(100000);
    EXPECT_EQ(2, TalvorLoadShared(&m_db.Head()->m_bStorageCMD));
    TalvorStoreShared(&lpCmd->m_bCommandType, 40);
    ASSERT_TRUE(WaitUntil([&] { return TalvorLoadShared(&lpCmd->m_bCommandType) == 1; }, 2000));
    EXPECT_EQ(1, TalvorLoadShared(&lpCmd->m_bResult));
    EXPECT_EQ(0, TalvorLoadShared(&lpCmd->m_bForbidSaveFlag));
    ASSERT_TRUE(WaitUntil([&] { return TalvorLoadShared(&m_db.Head()->m_bStorageCMD) == 32; }, 5000));
    EXPECT_EQ(+m_db.Head()->m_nEndTimestamp, TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp));
}

TEST_F(StorageThread, IntervalPassCommitsWithoutACommand)
{
    StartThread(1);
    Change(8);
    long long ts = m_db.Head()->m_nEndTimestamp;
    ASSERT_TRUE(WaitUntil([&] { return TalvorLoadShared(&m_db.Head()->m_nBeginTimestamp) == ts; }, 3000));
    EXPECT_EQ(ts, m_db.CommittedOnDisk());
}
