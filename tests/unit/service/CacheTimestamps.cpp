// The two writers of the cache's flushed-up-to timestamps into the system
// file.
#include "PersistenceDb.h"
#include "StorageCacheBridge.h"
#include "TestFiles.h"

using namespace talvortest;

namespace {

class CacheTimestamps : public ::testing::Test {
protected:
    void SetUp() override { m_db.MakeStartAndSave(); }
    std::string DiskBytes(int nOffset, int nSize) { return ReadWholeFile(m_db.SystemPath()).substr(nOffset, nSize); }
    long long DiskStamp(int nOffset)
    {
        long long n = 0;
        memcpy(&n, DiskBytes(nOffset, sizeof(n)).data(), sizeof(n));
        return n;
    }
    PersistenceDb m_db;
};

} // namespace

TEST_F(CacheTimestamps, IndexStampAlwaysWritesItsArrayAndAHoldKeepsBothInMemory)
{
    CBreltMemStorageModule& m = m_db.Module();
    ASSERT_EQ(S_OK, m.WriteCacheIndexTimestamp(nullptr, 500, nullptr, 9));
    EXPECT_EQ(500, DiskStamp(SYSTEMFILE_CACHEINDEXTS_OFFSET));
    EXPECT_EQ(std::string((const char*)m_db.Head() + SYSTEMFILE_INDEXTSARRAY_OFFSET, SYSTEMFILE_TSARRAY_WRITE_SIZE),
              DiskBytes(SYSTEMFILE_INDEXTSARRAY_OFFSET, SYSTEMFILE_TSARRAY_WRITE_SIZE));
    EXPECT_EQ(9, Val(m_db.Head()->m_usIndexTimestampNum));

    // Held off by either forbid flag: the new stamps stand in memory only.
    LPTALVORCOMMAND lpCmd = m.m_pFlashback->GetClusterCommand();
    ASSERT_NE(nullptr, lpCmd);
    for (int nFlag = 0; nFlag < 2; nFlag++) {
        (nFlag == 0 ? m_db.Head()->m_bForbidSaveFlag : lpCmd->m_bForbidSaveFlag) = 1;
        long long ts = 600 + nFlag * 100;
        ASSERT_EQ(S_OK, m.WriteCacheIndexTimestamp(nullptr, ts, nullptr, 1));
        ASSERT_EQ(S_OK, m.WriteCacheTableTimestamp(nullptr, ts, nullptr, 0));
        EXPECT_EQ(ts, Val(m_db.Head()->m_nCacheIndexTimestamp));
        EXPECT_EQ(ts, Val(m_db.Head()->m_nCacheTableTimestamp));
        EXPECT_EQ(500, DiskStamp(SYSTEMFILE_CACHEINDEXTS_OFFSET)) << "flag " << nFlag;
        EXPECT_EQ(0, DiskStamp(SYSTEMFILE_CACHETABLETS_OFFSET)) << "flag " << nFlag;
        (nFlag == 0 ? m_db.Head()->m_bForbidSaveFlag : lpCmd->m_bForbidSaveFlag) = 0;
    }
}
