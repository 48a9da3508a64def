// Crash consistency of the persistence pass: a call failing, or the power
// going, at every write. The committed timestamp on disk never covers a
// change that is not on disk, and the work completes afterwards.
#include "PersistenceDb.h"

#include <functional>

using namespace talvortest;

namespace {

const int CHANGES = 24;

// The same database, the same changes: each k starts from here. A fresh
// one has blocks new to the disk, in its images only.
std::unique_ptr<PersistenceDb> MakeDirtyDatabase(bool bFresh = false)
{
    std::unique_ptr<PersistenceDb> pDb(new PersistenceDb(2 * 1048576LL, 8));
    EXPECT_TRUE(pDb->MakeDatabase());
    EXPECT_EQ(S_OK, pDb->Start());
    pDb->PrepareFiles();
    if (bFresh) return pDb;
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass());
    std::mt19937 rng(11);
    pDb->RandomChanges(CHANGES, rng);
    return pDb;
}

// How many calls of eOp one pass over the dirty database makes.
long long CallsOfOnePass(FileOp eOp, bool bFresh = false)
{
    std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase(bFresh);
    FaultFileIO io;
    ScopedFileIO scope(&io);
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass());
    return io.Calls(eOp);
}

} // namespace

// Every call of each kind the pass makes fails in turn (a write, an open of
// the pass's own descriptor, a close, a data sync): the commit on disk stays
// true, and the next pass finishes the work. After a failed sync the kernel
// may have dropped every write it had not yet made durable, while the
// process and its images live on: the next pass must write all of it again.
TEST(CrashConsistency, EveryFailedCallLeavesATrueCommitAndTheNextPassFinishes)
{
    for (FileOp eOp : {FileOp::PWrite, FileOp::Open, FileOp::Close, FileOp::FDataSync}) {
        long long nCalls = CallsOfOnePass(eOp);
        ASSERT_GT(nCalls, eOp == FileOp::PWrite ? 10 : eOp == FileOp::FDataSync ? 2 : 0) << (int)eOp;
        for (long long k = 1; k <= nCalls; k++) {
            std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase();
            long long nEnd = pDb->Head()->m_nEndTimestamp;
            FaultFileIO io;
            io.FailCall(eOp, k, EIO);
            {
                ScopedFileIO scope(&io);
                int nPass = pDb->Pass();
                EXPECT_TRUE(eOp == FileOp::Open || eOp == FileOp::Close || nPass != CBreltMemStorageModule::SAVEPASS_DONE) << k;
                if (eOp == FileOp::FDataSync) io.LosePowerKeeping({});
            }
            talvorpeer::PeerCheckResult r = pDb->CheckDisk(pDb->CommittedOnDisk());
            EXPECT_EQ(0, r.m_nViolations) << "call " << k << " of kind " << (int)eOp << " failed: " << r.m_strFirst;
            // The next pass finishes the work.
            EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass()) << "k=" << k;
            EXPECT_EQ(nEnd, pDb->CommittedOnDisk()) << "k=" << k;
            r = pDb->CheckDisk(nEnd);
            EXPECT_TRUE(r.m_nViolations == 0 && r.m_nRequired > 0) << "k=" << k << ": " << r.m_strFirst;
        }
    }
}

namespace {

enum Keep { KEEP_NONE, KEEP_SOME, KEEP_ALL };

// The power goes once write k - 1 was made (write k and every sync after
// it fail; k past the last write keeps the power), and of the writes not
// yet synced none, a random subset (a disk writes back its cache in any
// order) or all reach the disk. No file may name a block whose bytes never
// arrived, the commit on disk must hold, and a start from the disk alone
// must finish the work. Whether the pass's commit survived.
bool LosePowerAt(long long k, long long nWrites, Keep eKeep, std::mt19937& rng, bool bFresh = false)
{
    std::unique_ptr<PersistenceDb> pDb = MakeDirtyDatabase(bFresh);
    long long nEnd = pDb->Head()->m_nEndTimestamp;
    FaultFileIO io;
    if (k <= nWrites) io.DieAfter(FileOp::PWrite, k - 1);
    {
        ScopedFileIO scope(&io);
        pDb->Pass();
        std::vector<size_t> vKeep;
        for (size_t i = 0; i < io.Unsynced().size(); i++)
            if (eKeep == KEEP_ALL || (eKeep == KEEP_SOME && rng() % 2 == 0)) vKeep.push_back(i);
        io.LosePowerKeeping(vKeep);
    }
    for (int n = 2; n <= 4; n++) EXPECT_EQ("", pDb->MapsNameWholeBlocksOnDisk(n)) << "file " << n << ", power lost at write " << k;
    long long nCommitted = pDb->CommittedOnDisk();
    talvorpeer::PeerCheckResult r = pDb->CheckDisk(nCommitted);
    EXPECT_EQ(0, r.m_nViolations) << "k=" << k << " committed " << nCommitted << ": " << r.m_strFirst;
    // The images went with the power: start again from the disk alone.
    pDb->Stop();
    RemoveImageSegments();
    EXPECT_EQ(S_OK, pDb->Start()) << "k=" << k;
    if (pDb->Head() == nullptr) return false;
    EXPECT_EQ(nCommitted, Val(pDb->Head()->m_nBeginTimestamp)) << "k=" << k;
    for (int n = 2; n <= 4; n++) pDb->m_mapBlocks[n] = talvorpeer::PeerFileBlocks(pDb->Image(n), pDb->File(n)->m_liFileSize);
    EXPECT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, pDb->Pass()) << "k=" << k;
    EXPECT_EQ(0, pDb->CheckDisk(pDb->CommittedOnDisk()).m_nViolations) << "k=" << k;
    return nCommitted == nEnd;
}

} // namespace

// Fresh: a pass that writes blocks new to the disk; they must reach the
// medium before the head and the map that name them, whatever it kept.
TEST(CrashConsistency, PowerLossAtEveryWriteKeepingNoneOrAnySubsetLeavesATrueCommit)
{
    std::mt19937 rng(23);
    for (bool bFresh : {false, true}) {
        long long nWrites = CallsOfOnePass(FileOp::PWrite, bFresh);
        int nCommits = 0;
        for (long long k = 1; k <= nWrites + !bFresh; k++) {
            nCommits += LosePowerAt(k, nWrites, bFresh ? KEEP_ALL : KEEP_NONE, rng, bFresh);
            LosePowerAt(k, nWrites, KEEP_SOME, rng, bFresh);
        }
        // Only a pass that kept the power to its end commits everything.
        EXPECT_TRUE(bFresh || nCommits == 1) << nCommits;
    }
}
