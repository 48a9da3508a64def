// Power lost at every write of a full backup: the write never lands, lands
// torn at a number of bytes, or lands whole, the device takes nothing more
// (so the writer cannot remove its partial file either), and every change
// not on the medium goes. Whatever is left, the verifier accepts it only
// when it is byte for byte the whole backup — and the whole backup it does
// accept.
//
// The backup here comes from the test's own writer, which keeps the
// daemon's order: the head area as a place-holder, the copies piece by
// piece, the finished head area last, all through a descriptor opened for
// synchronous writes (which the fault layer counts as on the medium when
// the call returns).
#include "BackupFixture.h"
#include "FaultFileIO.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

using namespace backuptest;
using namespace talvortest;

namespace {

// How the write at the cut fares.
struct CutKind {
    const char* m_lpName;
    long long m_nDieAfterDelta; // the device dies after write k + this
    long long m_nTornBytes;     // > 0: write k moves only this many bytes
};

const CutKind CUT_KINDS[] = {
    {"lost", -1, 0},      {"torn at 1", 0, 1},      {"torn at 131", 0, 131}, {"torn at 512", 0, 512},
    {"torn at 1000", 0, 1000}, {"torn at 4096", 0, 4096}, {"whole", 0, 0},
};

// Runs fnBackup under a fault layer that cuts power at write nCut as eKind
// says, then loses every unsynced change (names kept: the file is there
// for the verifier to look at). The writer's result.
bool RunWithCut(const std::function<bool()>& fnBackup, long long nCut, const CutKind& stKind)
{
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    io.DieAfter(FileOp::PWrite, nCut + stKind.m_nDieAfterDelta);
    if (stKind.m_nTornBytes > 0) io.CutTransfer(FileOp::PWrite, nCut, (size_t)stKind.m_nTornBytes);
    bool bOk = fnBackup();
    io.LosePower(NameLoss::Keep);
    return bOk;
}

// Writes of a clean run of fnBackup.
long long CountWrites(const std::function<bool()>& fnBackup)
{
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    EXPECT_TRUE(fnBackup());
    return io.Calls(FileOp::PWrite);
}

// The cut loop: at each write of vCuts (every write when empty), every
// kind. Returns how many cuts left a file the verifier accepted.
int CutAtWrites(const std::function<bool()>& fnBackup, const std::string& strPath, const std::string& strWhole,
                std::vector<long long> vCuts = {})
{
    long long nWrites = CountWrites(fnBackup);
    EXPECT_GT(nWrites, 2);
    if (vCuts.empty())
        for (long long k = 1; k <= nWrites; k++) vCuts.push_back(k);
    int nAccepted = 0;
    for (long long k : vCuts) {
        for (const CutKind& stKind : CUT_KINDS) {
            unlink(strPath.c_str());
            bool bWriterOk = RunWithCut(fnBackup, k, stKind);
            Verified v(strPath);
            std::string strLeft = ReadWholeFile(strPath);
            bool bWhole = strLeft == strWhole;
            if (v.Status() == BACKUPVERIFY_WHOLE) {
                nAccepted++;
                EXPECT_TRUE(bWhole) << "write " << k << " of " << nWrites << ", " << stKind.m_lpName
                                    << ": accepted a file of " << strLeft.size() << " bytes that is not the backup";
            }
            // The last write landing whole is the whole backup: it must pass,
            // or the loop above proves nothing.
            if (k == nWrites && stKind.m_nDieAfterDelta == 0 && stKind.m_nTornBytes == 0) {
                EXPECT_TRUE(bWriterOk);
                EXPECT_TRUE(bWhole);
                EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
            }
        }
    }
    return nAccepted;
}

} // namespace

TEST(BackupPowerLoss, OwnWriterNoCutPassesButTheWholeBackup)
{
    TempTree tree("bverify");
    ASSERT_TRUE(tree.Ok());
    std::vector<DbFile> vFiles = SampleFiles(tree);
    ASSERT_TRUE(WriteDbFiles(vFiles));
    std::string strPath = tree.Path("TalvorBackup880044.fbk");
    std::string strWhole = WholeBackup(vFiles);
    // Pieces of 32 KiB: each copy but the empty one takes at least two.
    auto fnBackup = [&] { return WriteBackupInOrder(strPath, vFiles, 32768); };
    int nAccepted = CutAtWrites(fnBackup, strPath, strWhole);
    // At least the whole last write; a torn last write passes only where
    // every byte it changes had landed, and the loop checked those bytes.
    EXPECT_GE(nAccepted, 1);
}

// More than 27 files: the place-holder and the finished head area take two
// 8192-byte steps, so a head torn at 8192 bytes leaves records zero.
TEST(BackupPowerLoss, OwnWriterTwoStepHeadArea)
{
    TempTree tree("bverify");
    ASSERT_TRUE(tree.Ok());
    std::vector<DbFile> vFiles = ManyFiles(tree, 40);
    ASSERT_TRUE(WriteDbFiles(vFiles));
    std::string strPath = tree.Path("TalvorBackup880044.fbk");
    std::string strWhole = WholeBackup(vFiles);
    auto fnBackup = [&] { return WriteBackupInOrder(strPath, vFiles, 65536); };
    ASSERT_TRUE(fnBackup());
    long long nWrites = CountWrites(fnBackup);
    for (long long nTorn : {4096LL, 8192LL, 11000LL}) {
        unlink(strPath.c_str());
        RunWithCut(fnBackup, nWrites, {"torn head", 0, nTorn});
        Verified v(strPath);
        EXPECT_NE(BACKUPVERIFY_WHOLE, v.Status()) << "head torn at " << nTorn;
    }
    // The place-holder, the first copies, the last copy and the head.
    EXPECT_GE(CutAtWrites(fnBackup, strPath, strWhole, {1, 2, 3, nWrites - 1, nWrites}), 1);
}
