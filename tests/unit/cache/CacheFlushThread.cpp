// The flush loop with the device dying under it and the power going: a
// committed timestamp never runs ahead of the blocks it stands for.
#include "FlushRingFixture.h"

#include <map>

using namespace cachetest;
using talvortest::FileOp;

namespace {

// Blocks go through the write buffers into a file opened for buffered
// writes: nothing is durable until synced. The device dies after the Nth
// write or sync, for every N the batch reaches, and the power goes. Each
// timestamp the pipeline committed must then find every block posted
// before it on disk with its bytes.
class FlushRingPowerCut : public FlushRing, public ::testing::WithParamInterface<int> {
protected:
    std::vector<long long> m_vOffsets;  // blocks in posting order
    std::map<long long, size_t> m_mapBefore;  // timestamp -> blocks posted before it
    void PostBatch()
    {
        UINT nBlockNo = 100;
        long long llTs = 20000;
        for (int nGroup : {3, 2, 4}) {
            for (int i = 0; i < nGroup; i++) {
                // Spread over several spans, some sharing one.
                m_vOffsets.push_back((long long)(8 + nBlockNo % 7 * 21 + nBlockNo % 3) * FS_PART);
                PostData(nBlockNo++, m_vOffsets.back());
            }
            m_mapBefore[llTs] = m_vOffsets.size();
            PostTimestamp(llTs, -1, 0);
            llTs += 1000;
        }
    }
};

// Cuts 1 to 40 cover every write and sync of the batch (about 20); the
// last ones find the batch whole.
TEST_P(FlushRingPowerCut, ACommittedTimestampFindsEveryEarlierBlockOnDisk)
{
    const long long nCut = GetParam();
    MakeRing(TRUE);
    PostBatch();
    long long nCalls = 0;
    auto fnCount = [&](const talvortest::FileCall&) {
        if (++nCalls == nCut) m_io.DieAfter(FileOp::PWrite, 0);
    };
    m_io.AfterCall(FileOp::PWrite, fnCount);
    m_io.AfterCall(FileOp::FSync, fnCount);
    Run();
    m_io.AfterCall(FileOp::PWrite, nullptr);
    m_io.AfterCall(FileOp::FSync, nullptr);
    m_io.LosePower();
    std::vector<BYTE> vFile = FileBytes();
    ASSERT_EQ((size_t)FS_FILE_SIZE, vFile.size());
    for (const FakeCacheModule::Commit& c : m_module.m_vCommits) {
        ASSERT_EQ(1u, m_mapBefore.count(c.llTimestamp));
        for (size_t i = 0; i < m_mapBefore[c.llTimestamp]; i++) {
            long long llOff = m_vOffsets[i];
            EXPECT_EQ(0, memcmp(vFile.data() + llOff, m_vLogical.data() + llOff, FS_PART))
                << "timestamp " << c.llTimestamp << " committed but block at " << llOff << " is not on disk";
        }
    }
    // Without a cut the whole batch goes through and every timestamp is
    // committed. Every write and sync belongs to the drain before some
    // timestamp, so once one failed after the cut that one is withheld.
    if (nCalls < nCut) {
        EXPECT_EQ(m_mapBefore.size(), m_module.m_vCommits.size());
    }
    if (nCalls > nCut) {
        EXPECT_LT(m_module.m_vCommits.size(), m_mapBefore.size());
    }
}

INSTANTIATE_TEST_SUITE_P(EveryCut, FlushRingPowerCut, ::testing::Range(1, 41));

} // namespace
