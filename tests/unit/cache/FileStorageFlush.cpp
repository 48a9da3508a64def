// Flush requests carried out by a cache-mode file's backend, checked
// against a model of the file.
#include "FlushRingFixture.h"

using namespace cachetest;
using talvortest::FileOp;

namespace {

const UINT BLOCK_NO = 77;
const long long BLOCK_FILE_OFFSET = 40LL * FS_PART;

// An entry posted in the ring's file (no write buffers: writes reach the
// file at once) and carried out by the backend alone.
class FileFlush : public FlushRing {
protected:
    void MakeFlush(BYTE bFileType = FILETYPE_TABLE)
    {
        MakeRing(FALSE, bFileType);
        m_pCopy.reset(new AlignedBytes(FS_PART));
    }
    void PostDataBlock() { m_pReq = PostData(BLOCK_NO, BLOCK_FILE_OFFSET); }
    LPBLOCKHEAD Live() { return (LPBLOCKHEAD)m_vLive.back(); }
    int Flush() { return m_pStorage->FlushBlock(nullptr, m_pReq, m_pCopy->m_p); }

    stu_CacheFlush* m_pReq = nullptr;
    std::unique_ptr<AlignedBytes> m_pCopy;
};

// What the live block is when its request is carried out decides what is
// written and which marks clear: a block reused, moved on or cleaned is not
// written; one changed since the request (a table's, as its transaction
// tells too) or during the write keeps its flush mark; a failed write of a
// block cancelled or given away meanwhile leaves the marks alone.
TEST_F(FileFlush, TheLiveBlockDecidesTheWriteAndItsMarks)
{
    auto fnTrans = [this] {
        m_pReq->m_llTransTimestamp = FR_BLOCK_TS + 1;
        Live()->m_nTimestamp = FR_BLOCK_TS + 1;
    };
    auto fnClear = [this] {
        Live()->m_bSaveFlag = 0;
        Live()->m_bFlushFlag = 0;
    };
    auto fnGiveAway = [this, fnClear] {
        Live()->m_nBlockNo = BLOCK_NO + 9;
        fnClear();
    };
    // fnBefore acts on the posted block and request, fnDuring at each try of
    // the write; nSave and nFlush are the live block's marks afterwards.
    struct Case {
        const char* lpName;
        std::function<void()> fnBefore, fnDuring;
        int nRet;
        size_t nWrites;
        int nSave, nFlush;
        BYTE bFileType = FILETYPE_TABLE;
        int nFails = 0;  // tries of the write that fail
    } cases[] = {
        {"cache block reused", [this] { Live()->m_nBlockNo = BLOCK_NO + 1; }, nullptr, 0, 0, 1, 1},
        {"other file", [this] { Live()->m_bFileNo = FS_FILE_NO + 1; }, nullptr, 0, 0, 1, 1},
        {"mark gone", [this] { Live()->m_nDataFlag = 0; }, nullptr, 0, 0, 1, 1},
        {"flags clear", fnClear, nullptr, 0, 0, 0, 0},
        {"changed since", [this] { Live()->m_nTimestamp = FR_BLOCK_TS + 1; }, nullptr, 0, 1, 1, 1},
        {"changed as its transaction tells", fnTrans, nullptr, 0, 1, 1, 1},
        // An index block is never held newer.
        {"index changed as its transaction tells", fnTrans, nullptr, 0, 1, 1, 0, FILETYPE_INDEX},
        {"flush code changed meanwhile", nullptr, [this] { Live()->m_bFlushCode = FR_FLUSH_CODE + 1; }, 0, 1, 1, 1},
        // A failed write of a block flushed for its flush mark alone sets
        // its save mark: the block is written again later.
        {"write fails", [this] { Live()->m_bSaveFlag = 0; }, nullptr, 1, 3, 1, 0, FILETYPE_TABLE, 3},
        {"cancelled meanwhile", nullptr, [this] { m_pReq->m_llTimestamp = 0; }, 1, 3, 1, 1, FILETYPE_TABLE, 3},
        {"given away meanwhile", nullptr, fnGiveAway, 1, 3, 0, 0, FILETYPE_TABLE, 3},
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
    }
}

// Pages of a wrong mark, number or place, and data entries of another
// file, of block 0, or of a place outside the cache or the file (or over
// its head page), are refused with nothing written.
TEST_F(FileFlush, BadEntriesAreRefusedWithNothingWritten)
{
    const BYTE D = CACHEFLUSH_DATA;
    const int MAP = BLOCKMAP_CACHE_DATAFLAG;
    struct Case {  // nMark and llOffset: a page's
        BYTE bType;
        int nMark;
        long long llOffset;
        UINT nNo;
        std::function<void()> fnSpoil = nullptr;
    } cases[] = {
        {CACHEFLUSH_HEAD, INDEXFILE_DATAFLAG, 0, 1},
        {CACHEFLUSH_EXHEAD, TABLEFILE_DATAFLAG, FS_PART, 1},
        {CACHEFLUSH_MAP, BLOCK_DATAFLAG, FS_PART, 1},
        {CACHEFLUSH_MAP, MAP, FS_PART, 2},
        {CACHEFLUSH_MAP, MAP, FS_FILE_SIZE - FS_PART / 2, 1},
        {D, 0, 0, BLOCK_NO, [this] { m_pReq->m_bFileNo = FS_FILE_NO + 1; }},
        {D, 0, 0, 0},
        {D, 0, 0, BLOCK_NO,
         [this] { m_pReq->m_llCacheBlockOffset = m_pCache->m_llCacheBufferSize - FS_PART / 2; }},
        {D, 0, 0, BLOCK_NO, [this] { m_pReq->m_llFileBlockOffset = FS_FILE_SIZE; }},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++) {
        const Case& c = cases[i];
        SCOPED_TRACE(i);
        TearDown();
        SetUp();
        MakeFlush();
        if (c.bType == D)
            PostDataBlock();
        else
            m_pReq = PostPage(c.bType, 3, c.llOffset, 1, c.nMark);
        m_pReq->m_nBlockNo = c.nNo;
        if (c.fnSpoil) c.fnSpoil();
        EXPECT_EQ(1, Flush());
        ExpectNothingWritten();
    }
    // A timestamp entry is none of the backend's: passed over.
    PostDataBlock();
    m_pReq->m_bBlockType = CACHEFLUSH_TIMESTAMPS;
    EXPECT_EQ(0, Flush());
    ExpectNothingWritten();
}

}  // namespace
