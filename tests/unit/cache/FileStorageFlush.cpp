// Flush requests carried out by a cache-mode file's backend, checked
// against a model of the file.
#include "FileStorageFixture.h"

using namespace cachetest;
using talvortest::FileOp;

namespace {

const UINT BLOCK_NO = 77;
const long long BLOCK_TS = 5000;
const BYTE FLUSH_CODE = 5;
const long long BLOCK_FILE_OFFSET = 40LL * FS_PART;

class FileFlush : public FileStorageFixture {
protected:
    // A cache (no write buffers: writes reach the file at once), the file,
    // and one cache block of the file's chain for the live block.
    void MakeFlush(BYTE bFileType = FILETYPE_TABLE, BOOL bFileCache = FALSE)
    {
        Make(bFileCache, bFileType);
        long long llHead = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llHead));
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, m_llCacheOffset));
        m_lpLive = Base() + m_llCacheOffset;
        m_pCopy.reset(new AlignedBytes(FS_PART));
        ClearCalls();
    }
    LPBLOCKHEAD Live() { return (LPBLOCKHEAD)m_lpLive; }
    // A dirty data block in the cache and the request that names it.
    void PostDataBlock()
    {
        MakeDirtyBlock(m_lpLive, BLOCK_NO, BLOCK_TS, FLUSH_CODE);
        memset(&m_req, 0, sizeof(m_req));
        m_req.m_bStatus = 1;
        m_req.m_bBlockType = CACHEFLUSH_DATA;
        m_req.m_bFileNo = FS_FILE_NO;
        m_req.m_bFlushCode = FLUSH_CODE;
        m_req.m_nBlockNo = BLOCK_NO;
        m_req.m_nBlockSize = FS_PART;
        m_req.m_llTimestamp = BLOCK_TS;
        m_req.m_llTransTimestamp = BLOCK_TS;
        m_req.m_llCacheBlockOffset = m_llCacheOffset;
        m_req.m_llFileBlockOffset = BLOCK_FILE_OFFSET;
    }
    // A page (head, extended head or map) in the cache and its request.
    void PostPage(BYTE bType, int nMark, long long llFileOffset, UINT nNo = 1)
    {
        for (int i = 0; i < FS_PART; i++) m_lpLive[i] = (BYTE)m_rng();
        memcpy(m_lpLive, &nMark, sizeof(nMark));
        if (bType == CACHEFLUSH_HEAD) {
            LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)m_lpLive;
            h->m_bFileType = (BYTE)m_info.m_bFileType;
            h->m_bFileNo = FS_FILE_NO;
        }
        if (bType == CACHEFLUSH_MAP) ((LPBASEFILEBLOCKMAPHEAD_CACHE)m_lpLive)->m_nMapNo = (int)nNo;
        memset(&m_req, 0, sizeof(m_req));
        m_req.m_bBlockType = bType;
        m_req.m_bFileNo = FS_FILE_NO;
        m_req.m_nBlockNo = nNo;
        m_req.m_nBlockSize = FS_PART;
        m_req.m_llCacheBlockOffset = m_llCacheOffset;
        m_req.m_llFileBlockOffset = llFileOffset;
    }
    int Flush() { return m_pStorage->FlushBlock(nullptr, &m_req, m_pCopy->m_p); }
    // The model takes the live block as it must reach the disk.
    void ExpectBlockOnDisk(long long llOffset, bool bData)
    {
        std::vector<BYTE> v = bData ? OnDiskCopy(m_lpLive) : std::vector<BYTE>(m_lpLive, m_lpLive + FS_PART);
        memcpy(m_vLogical.data() + llOffset, v.data(), v.size());
        EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vLogical));
    }
    void ExpectNothingWritten()
    {
        EXPECT_TRUE(Writes().empty());
        EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vDisk));
    }

    long long m_llCacheOffset = 0;
    LPBYTE m_lpLive = nullptr;
    std::unique_ptr<AlignedBytes> m_pCopy;
    stu_CacheFlush m_req;
};


// What the live block is when its request is carried out decides what is
// written and which marks clear: a block reused, moved on or cleaned is not
// written; one changed since the request (a table's, as its transaction
// tells too) or during the write keeps its flush mark; a failed write of a
// block cancelled or given away meanwhile leaves the marks alone.
TEST_F(FileFlush, TheLiveBlockDecidesTheWriteAndItsMarks)
{
    auto fnTrans = [this] {
        m_req.m_llTransTimestamp = BLOCK_TS + 1;
        Live()->m_nTimestamp = BLOCK_TS + 1;
    };
    auto fnGiveAway = [this] {
        Live()->m_nBlockNo = BLOCK_NO + 9;
        Live()->m_bSaveFlag = 0;
        Live()->m_bFlushFlag = 0;
    };
    struct Case {
        const char* lpName;
        std::function<void()> fnBefore;  // on the posted block and request
        std::function<void()> fnDuring;  // at each try of the write
        int nRet;
        size_t nWrites;
        int nSave, nFlush;  // the live block's marks afterwards
        BYTE bFileType = FILETYPE_TABLE;
        int nFails = 0;  // tries of the write that fail
        long nCode = 0;
        const char* lpText = "";
    } cases[] = {
        {"cache block reused", [this] { Live()->m_nBlockNo = BLOCK_NO + 1; }, nullptr, 0, 0, 1, 1},
        {"other file", [this] { Live()->m_bFileNo = FS_FILE_NO + 1; }, nullptr, 0, 0, 1, 1},
        {"mark gone", [this] { Live()->m_nDataFlag = 0; }, nullptr, 0, 0, 1, 1},
        {"flags clear",
         [this] {
             Live()->m_bSaveFlag = 0;
             Live()->m_bFlushFlag = 0;
         },
         nullptr, 0, 0, 0, 0},
        {"changed since", [this] { Live()->m_nTimestamp = BLOCK_TS + 1; }, nullptr, 0, 1, 1, 1},
        {"changed as its transaction tells", fnTrans, nullptr, 0, 1, 1, 1},
        // An index block is never held newer.
        {"index changed as its transaction tells", fnTrans, nullptr, 0, 1, 1, 0, FILETYPE_INDEX},
        {"flush code changed meanwhile", nullptr, [this] { Live()->m_bFlushCode = FLUSH_CODE + 1; }, 0, 1, 1, 1},
        {"cancelled meanwhile", nullptr, [this] { m_req.m_llTimestamp = 0; }, 1, 3, 1, 1, FILETYPE_TABLE, 3},
        {"given away meanwhile", nullptr, fnGiveAway, 1, 3, 0, 0, FILETYPE_TABLE, 3, 80005008,
         "the original data block has been overwritten"},
        {"index given away meanwhile", nullptr, fnGiveAway, 1, 3, 0, 0, FILETYPE_INDEX, 3, 80005012,
         "Failed to write index block"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lpName);
        TearDown();
        SetUp();
        MakeFlush(c.bFileType);
        PostDataBlock();
        if (c.fnBefore) c.fnBefore();
        if (c.fnDuring) m_io.OnCall(FileOp::PWrite, [&c](const talvortest::FileCall&) { c.fnDuring(); });
        if (c.nFails > 0) m_io.FailNext(FileOp::PWrite, EIO, c.nFails);
        EXPECT_EQ(c.nRet, Flush());
        m_io.OnCall(FileOp::PWrite, nullptr);
        EXPECT_EQ(c.nWrites, Writes().size());
        if (c.nRet != 0 || c.nWrites == 0) {
            EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vDisk));
        }
        EXPECT_EQ(c.nSave, Val(Live()->m_bSaveFlag));
        EXPECT_EQ(c.nFlush, Val(Live()->m_bFlushFlag));
        if (c.nCode != 0) {
            EXPECT_TRUE(Traced(c.nCode, c.lpText));
        }
    }
}

TEST_F(FileFlush, FailedWriteLeavesBlockToBeWrittenAgain)
{
    MakeFlush();
    PostDataBlock();
    Live()->m_bSaveFlag = 0;  // flushed for a flush mark alone
    m_io.FailNext(FileOp::PWrite, EIO, 3);
    EXPECT_EQ(1, Flush());
    EXPECT_EQ(3u, Writes().size());
    EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vDisk));
    EXPECT_EQ(1, Val(Live()->m_bSaveFlag));
    EXPECT_EQ(0, Val(Live()->m_bFlushFlag));
    EXPECT_TRUE(Traced(80004002, "Failed to write from cache to physical file"));
    // The next try goes through.
    ClearCalls();
    ASSERT_EQ(0, Flush());
    ExpectBlockOnDisk(BLOCK_FILE_OFFSET, true);
}

TEST_F(FileFlush, BadPagesAreRefusedWithNothingWritten)
{
    struct Case {
        BYTE bFileType;
        BYTE bType;
        int nMark;
        long long llOffset;
        UINT nNo;
        long nCode;
    } cases[] = {
        {FILETYPE_TABLE, CACHEFLUSH_HEAD, INDEXFILE_DATAFLAG, 0, 1, 80005002},
        {FILETYPE_INDEX, CACHEFLUSH_HEAD, TABLEFILE_DATAFLAG, 0, 1, 80005003},
        {FILETYPE_TABLE, CACHEFLUSH_EXHEAD, TABLEFILE_DATAFLAG, FS_PART, 1, 80005102},
        {FILETYPE_INDEX, CACHEFLUSH_EXHEAD, TABLEFILEEX_DATAFLAG, FS_PART, 1, 80005103},
        {FILETYPE_TABLE, CACHEFLUSH_MAP, BLOCK_DATAFLAG, FS_PART, 1, 80005004},
        {FILETYPE_TABLE, CACHEFLUSH_MAP, BLOCKMAP_CACHE_DATAFLAG, FS_PART, 2, 80005007},
        {FILETYPE_TABLE, CACHEFLUSH_MAP, BLOCKMAP_CACHE_DATAFLAG, FS_FILE_SIZE - FS_PART / 2, 1, 80005005},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.nCode);
        TearDown();
        SetUp();
        MakeFlush(c.bFileType);
        PostPage(c.bType, c.nMark, c.llOffset, 1);
        if (c.nCode == 80005007) m_req.m_nBlockNo = c.nNo;
        EXPECT_EQ(1, Flush());
        EXPECT_TRUE(Traced(c.nCode, "denied") || Traced(c.nCode, "Failed to flush block"));
        ExpectNothingWritten();
    }
}

TEST_F(FileFlush, RequestsOutsideTheCacheOrFileAreRefused)
{
    MakeFlush();
    const struct {
        std::function<void()> fnSpoil;
        long nCode;
    } arCases[] = {
        {[this] { m_req.m_bFileNo = FS_FILE_NO + 1; }, 80005001},
        {[this] { m_req.m_nBlockNo = 0; }, 80005006},
        {[this] { m_req.m_llCacheBlockOffset = m_pCache->m_llCacheBufferSize - FS_PART / 2; }, 80005021},
        {[this] { m_req.m_llFileBlockOffset = FS_FILE_SIZE; }, 80005022},
        {[this] { m_req.m_llFileBlockOffset = 0; }, 0},  // a data block never lies over the head
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.nCode);
        PostDataBlock();
        c.fnSpoil();
        EXPECT_EQ(1, Flush());
        if (c.nCode != 0) {
            EXPECT_TRUE(Traced(c.nCode, ""));
        }
    }
    ExpectNothingWritten();
    PostDataBlock();
    m_req.m_bBlockType = CACHEFLUSH_TIMESTAMPS;
    EXPECT_EQ(0, Flush());
    ExpectNothingWritten();
}


// A block loaded whole, of a wrong number or mark, is the load thread's
// test; the checks it never reaches are here.
TEST_F(FileFlush, LoadBlockRefusesAnotherFileTheHeadPageAndPlacesOutsideTheFile)
{
    MakeFlush();
    AlignedBytes buf(FS_PART);
    long long llOffset = BLOCK_FILE_OFFSET;
    EXPECT_EQ(1, m_pStorage->LoadBlock(nullptr, FS_FILE_NO + 1, BLOCK_NO, llOffset, FS_PART, buf.m_p));
    EXPECT_TRUE(Traced(80002001, "File number is incorrect"));
    llOffset = 0;
    EXPECT_EQ(1, m_pStorage->LoadBlock(nullptr, FS_FILE_NO, BLOCK_NO, llOffset, FS_PART, buf.m_p));
    // Place and size come from a slot the engine filled: a block that does
    // not lie whole inside the file is refused before any read is issued.
    struct Outside { long long llOffset; int nSize; } arOutside[] = {
        {FS_FILE_SIZE - FS_PART + 512, FS_PART}, {FS_FILE_SIZE, FS_PART}, {-512, FS_PART},
        {0, (int)sizeof(BASEBLOCKHEAD) - 1}, {BLOCK_FILE_OFFSET, 0x7FFFFE00}};
    AlignedBytes whole((size_t)FS_FILE_SIZE);  // room for what a read past the bound would bring
    const long long nReads = m_io.Calls(talvortest::FileOp::PRead);
    for (const Outside& o : arOutside) {
        SCOPED_TRACE(o.llOffset);
        llOffset = o.llOffset;
        EXPECT_EQ(1, m_pStorage->LoadBlock(nullptr, FS_FILE_NO, BLOCK_NO, llOffset, o.nSize, whole.m_p));
    }
    EXPECT_EQ(nReads, m_io.Calls(talvortest::FileOp::PRead));
}

}  // namespace
