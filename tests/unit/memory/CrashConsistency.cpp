// Crash consistency of the persistence pass: for every write k of a pass,
// (a) the k-th write fails and the process goes on, and (b) the power goes
// at the k-th write, taking every write not yet synced with it. In both the
// committed timestamp on disk must never cover a change that is not on disk,
// and the work must complete: by the next pass in (a), and after a fresh
// start from the disk in (b).
#include "PersistenceDb.h"

using namespace talvortest;

namespace {

const int CHANGES = 24;

// The same database, the same changes: each k starts from here.
std::unique_ptr<PersistenceDb> MakeDirtyDatabase()
{
    std::unique_ptr<PersistenceDb> pDb(new PersistenceDb(2 * 1048576LL, 8));
    pDb->MakeStartAndSave();
    std::mt19937 rng(11);
    pDb->RandomChanges(CHANGES, rng);
    return pDb;
}

long long WritesOfOnePass()
{
    std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase();
    FaultFileIO io;
    ScopedFileIO scope(&io);
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass());
    return io.Calls(FileOp::PWrite);
}

} // namespace

TEST(CrashConsistency, EveryFailedWriteLeavesATrueCommitAndTheNextPassFinishes)
{
    long long nWrites = WritesOfOnePass();
    ASSERT_GT(nWrites, 10);
    for (long long k = 1; k <= nWrites; k++) {
        std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase();
        long long nEnd = pDb->Head()->m_nEndTimestamp;
        FaultFileIO io;
        io.FailCall(FileOp::PWrite, k, EIO);
        {
            ScopedFileIO scope(&io);
            EXPECT_NE(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass()) << "k=" << k;
        }
        long long nCommitted = pDb->CommittedOnDisk();
        talvorpeer::PeerCheckResult r = pDb->CheckDisk(nCommitted);
        EXPECT_EQ(0, r.m_nViolations) << "k=" << k << " committed " << nCommitted << ": " << r.m_strFirst;
        EXPECT_LT(nCommitted, nEnd) << "k=" << k;
        // The next pass finishes the work.
        EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass()) << "k=" << k;
        EXPECT_EQ(nEnd, pDb->CommittedOnDisk()) << "k=" << k;
        r = pDb->CheckDisk(nEnd);
        EXPECT_EQ(0, r.m_nViolations) << "k=" << k << ": " << r.m_strFirst;
        EXPECT_GT(r.m_nRequired, 0) << "k=" << k;
    }
}

TEST(CrashConsistency, PowerLossAtEveryWriteLeavesATrueCommitAndAStartableDisk)
{
    long long nWrites = WritesOfOnePass();
    long long nViolations = 0, nCommits = 0;
    for (long long k = 1; k <= nWrites + 1; k++) {
        std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase();
        long long nEnd = pDb->Head()->m_nEndTimestamp;
        FaultFileIO io;
        // The power goes once write k - 1 was made: write k and every sync
        // after it fail. The last round keeps the power.
        if (k <= nWrites) io.DieAfter(FileOp::PWrite, k - 1);
        {
            ScopedFileIO scope(&io);
            pDb->Pass();
            io.LosePower();
        }
        long long nCommitted = pDb->CommittedOnDisk();
        if (nCommitted == nEnd) nCommits++;
        talvorpeer::PeerCheckResult r = pDb->CheckDisk(nCommitted);
        nViolations += r.m_nViolations;
        EXPECT_EQ(0, r.m_nViolations) << "k=" << k << " committed " << nCommitted << ": " << r.m_strFirst;
        // The images went with the power: start again from the disk alone.
        pDb->Stop();
        RemoveImageSegments();
        ASSERT_EQ(S_OK, pDb->Start()) << "k=" << k;
        EXPECT_EQ(nCommitted, Val(pDb->Head()->m_nBeginTimestamp)) << "k=" << k;
        pDb->m_mapBlocks.clear();
        for (int n = 2; n <= 4; n++)
            pDb->m_mapBlocks[n] = talvorpeer::PeerFileBlocks(pDb->Image(n), pDb->File(n)->m_liFileSize);
        EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass()) << "k=" << k;
        EXPECT_EQ(0, pDb->CheckDisk(pDb->CommittedOnDisk()).m_nViolations) << "k=" << k;
    }
    // Only a pass that kept the power to its end commits everything.
    EXPECT_EQ(1, nCommits);
    printf("power losses: %lld, violations: %lld\n", nWrites + 1, nViolations);
}
