// A cache-mode file added, or brought into the cache at start, or refused,
// and grown. What goes well is run end to end by the file commands.
#include "CacheFileHeadArea.h"
#include "FileStorageFixture.h"

#include <cstddef>
#include <unistd.h>

using namespace cachetest;
using talvortest::FileOp;

namespace {

const long long FILE_SIZE = 4194304;  // also the least a new file may have
const BYTE FILE_NO = 33;

// The fault layer m_io is put in force by the tests that need it.
class CacheFile : public FileStorageFixture {
protected:
    void SetUp() override
    {
        FileStorageFixture::SetUp();
        ASSERT_EQ(0, Open(32));
    }
    void Describe(const std::string& strName, BYTE bType)
    {
        m_strPath = m_tree.Path(strName);
        CacheFixture::Describe(m_info, m_strPath, FILE_NO, bType, FILE_SIZE);
        m_info.m_pLoadSize = &m_nLoadSize;
        m_nLoadSize = -1;
    }
    // A new backend for the file; the one before is let go.
    CTalvorFileStorage* Backend()
    {
        if (m_pStorage != nullptr) m_pStorage->Release();
        m_pStorage = new CTalvorFileStorage(m_pCache.get());
        m_info.m_pStorageFile = m_pStorage;
        return m_pStorage;
    }

    long long m_nLoadSize = -1;
};

class FileInit : public CacheFile {
protected:
    // A new table file of nObjects objects with its head area and a second
    // map block right behind the area.
    void MakeFile(int nObjects)
    {
        m_vFile.assign((size_t)FILE_SIZE, 0);
        CACHEHEADAREADEF d = {FILE_NO, FILETYPE_TABLE, 7, nObjects, FILE_SIZE, 42};
        ASSERT_TRUE(CacheBuildHeadArea(d, m_vFile.data(), FILE_SIZE, &m_nEx));
        m_llMap1 = (long long)(m_nEx + 1) * CACHE_PAGE_SIZE;
        m_llMap2 = m_llMap1 + CACHE_PAGE_SIZE;
        // Cache offsets of an earlier cache, to be forgotten.
        Map(m_llMap1)->m_nNextBlockMapOffset_Cache = 999 * CACHE_PAGE_SIZE;
        ((LPTABLEFILEHEAD)m_vFile.data())->m_nCacheStartOffset = 777 * CACHE_PAGE_SIZE;
        Map(m_llMap1)->m_nNextBlockMapOffset = m_llMap2;
        Map(m_llMap2)->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
        Map(m_llMap2)->m_nMapNo = 2;
        Map(m_llMap2)->m_nNextBlockMapOffset_Cache = 888 * CACHE_PAGE_SIZE;
        Describe("Table33.dbf", FILETYPE_TABLE);
        WriteFile();
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE Map(long long llOffset) { return (LPBASEFILEBLOCKMAPHEAD_CACHE)(m_vFile.data() + llOffset); }
    void WriteFile() { ASSERT_TRUE(talvortest::WriteWholeFile(m_strPath, AsString(m_vFile.data(), m_vFile.size()))); }
    int Init() { return Backend()->Initialize(nullptr, &m_info, 0, nullptr, nullptr, 0, 1); }
    long long At(UINT nBlock) const { return (long long)nBlock * CACHE_PAGE_SIZE; }

    std::vector<BYTE> m_vFile;
    int m_nEx = 0;
    long long m_llMap1 = 0, m_llMap2 = 0;
};

TEST_F(FileInit, PagesHangInFileOrderAndLinkEachOther)
{
    MakeFile(1018);
    ASSERT_EQ(2, m_nEx);
    m_info.m_liFileSize = FILE_SIZE / 2;  // another size measured: the file's is taken
    ASSERT_EQ(0, Init());
    EXPECT_EQ(FILE_SIZE, m_info.m_liFileSize);
    std::vector<UINT> v = Chain(Head()->m_nFileInfoNo[FILE_NO]);
    ASSERT_EQ(5u, v.size());
    // Page for page the file's bytes, but for the links of this cache.
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(Base() + At(v[0]));
    EXPECT_EQ(0, memcmp(lpHead, m_vFile.data(), offsetof(TABLEFILEHEAD, m_nCacheStartOffset)));
    EXPECT_EQ(At(v[1]), Val(lpHead->m_nCacheStartOffset));
    for (int k = 1; k <= 2; k++) {
        LPTABLEFILEHEADEX lpEx = (LPTABLEFILEHEADEX)(Base() + At(v[k]));
        EXPECT_EQ(0, memcmp(lpEx, m_vFile.data() + k * CACHE_PAGE_SIZE, offsetof(TABLEFILEHEADEX, m_nNextFileHeadCacheOffset)));
        EXPECT_EQ(At(v[k + 1]), Val(lpEx->m_nNextFileHeadCacheOffset));
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap1 = (LPBASEFILEBLOCKMAPHEAD_CACHE)(Base() + At(v[3]));
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap2 = (LPBASEFILEBLOCKMAPHEAD_CACHE)(Base() + At(v[4]));
    EXPECT_EQ((std::vector<long long>{1, 2, At(v[4]), 0}),
              (std::vector<long long>{Val(lpMap1->m_nMapNo), Val(lpMap2->m_nMapNo),
                                      Val(lpMap1->m_nNextBlockMapOffset_Cache), Val(lpMap2->m_nNextBlockMapOffset_Cache)}));
    long long llMap = 0;
    ASSERT_EQ(0, m_pCache->GetFirstTableMapCacheAddr(lpHead, Base(), llMap));
    EXPECT_EQ(At(v[3]), llMap);
}

TEST_F(FileInit, DamagedOrForeignFilesAreRefused)
{
    auto fnEx = [this](int nPage) { return (LPTABLEFILEHEADEX)(m_vFile.data() + nPage * CACHE_PAGE_SIZE); };
    struct Case {
        const char* lpName;
        std::function<void()> fnSpoil;  // on the row or the bytes, written over the file
        long nTrace = 0;                // the operator's only sign of the failure
    } cases[] = {
        {"head of another type", [this] { m_info.m_bFileType = FILETYPE_INDEX; }},
        {"map with a bad mark", [this] { Map(m_llMap2)->m_nDataFlag = BLOCK_DATAFLAG; }},
        {"map chain leaving the file", [this] { Map(m_llMap2)->m_nNextBlockMapOffset = FILE_SIZE; }},
        {"map chain looping", [this] { Map(m_llMap2)->m_nNextBlockMapOffset = m_llMap1; }},
        {"extended head off a page boundary", [&] { fnEx(1)->m_nNextFileHeadOffset = 3 * CACHE_PAGE_SIZE + 512; }},
        {"not a cache-mode file", [this] { m_info.m_bFileType = FILETYPE_DATA; }},
        {"every try of the head's read fails", [this] { m_io.FailNext(FileOp::PRead, EIO, FILESTORE_IO_TRIES); }, 80001005},
        {"no file", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lpName);
        TearDown();
        SetUp();
        MakeFile(1018);
        if (c.fnSpoil) {
            c.fnSpoil();
            WriteFile();
        } else {
            unlink(m_strPath.c_str());
        }
        talvortest::ScopedFileIO scoped(&m_io);
        EXPECT_EQ(1, Init());
        if (c.nTrace != 0) {
            EXPECT_TRUE(m_pTrace->Has(c.nTrace, ""));
        }
    }
}

TEST_F(FileInit, CacheKeptFromBeforeReadsNothingButMustHoldTheFile)
{
    MakeFile(10);
    m_pCache->m_bExists = TRUE;
    talvortest::ScopedFileIO scoped(&m_io);
    EXPECT_EQ(1, Init());
    long long llOffset = 0;
    ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FILE_NO, llOffset));
    ASSERT_EQ(0, Init());
    EXPECT_EQ(0, m_io.Calls(FileOp::PRead));
    EXPECT_EQ(1u, Chain(Head()->m_nFileInfoNo[FILE_NO]).size());
}

SYSTEMFILEHEAD g_stSystemHead;

// A growth whose append fails is reported, and no size is recorded: not in
// the cached head, not in the row (nor its save mark).
TEST_F(FileInit, AFailedGrowthIsReportedAndRecordsNoSize)
{
    m_module.m_pSystemHead = &g_stSystemHead;
    FILE_MEMDBFILEINFO stRow = {};
    volatile BYTE bRowSave = 0;
    MakeFile(10);
    m_info.m_lpFileInfo = &stRow;
    m_info.m_pSaveFlag = &bRowSave;
    ASSERT_EQ(0, Init());
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(Base() + At(Head()->m_nFileInfoNo[FILE_NO]));
    AlignedBytes buf(1048576);
    talvortest::ScopedFileIO scoped(&m_io);
    m_io.FailCall(FileOp::PWrite, 2, ENOSPC, 3);
    EXPECT_EQ(1, m_pStorage->ChangeFileSize(nullptr, &m_info, 0, 0, buf.m_p, nullptr, FILE_SIZE + 4 * 1048576, 1048576, nullptr));
    EXPECT_EQ(FILE_SIZE, Val(lpHead->m_nFileTotalSize));
    EXPECT_EQ(0, Val(stRow.m_nFileSize));
    EXPECT_EQ(0, bRowSave);
    EXPECT_EQ(0, m_pStorage->m_crit.m_nLockFlag);
}

class FileNew : public CacheFile {
protected:
    void SetUp() override
    {
        CacheFile::SetUp();
        Describe("sub/dir/Table44.dbf", FILETYPE_TABLE);
        m_info.m_nMaxObjectNum = 1018;
        m_info.m_nTimestamp = 31337;
        memset(&m_progress, 0, sizeof(m_progress));
    }
    // Blocks for the file's pages, taken as the engine takes them.
    void TakeBlocks(int nCount)
    {
        long long llOffset = 0;
        for (int i = 0; i < nCount; i++) EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FILE_NO, llOffset));
    }
    int New() { return Backend()->NewFile(nullptr, &m_info, m_pBuf->m_p, m_nBufSize, 0xCAFE, nullptr, &m_progress, 1); }

    int m_nBufSize = 1048576;
    std::unique_ptr<AlignedBytes> m_pBuf{new AlignedBytes(1048576)};
    TALVORPROGRESS m_progress;
};

TEST_F(FileNew, TooSmallOrExistingFileOrTooFewBlocksAreRefused)
{
    m_info.m_liFileSize = FILE_SIZE - 1;
    EXPECT_EQ(1, New());
    EXPECT_FALSE(talvortest::PathExists(m_strPath));
    m_info.m_liFileSize = FILE_SIZE;
    std::string strOther = m_tree.File("Exists.dbf", "x");
    snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", strOther.c_str());
    EXPECT_EQ(1, New());
    // Its pages need their blocks in the cache.
    snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", m_strPath.c_str());
    TakeBlocks(2);
    EXPECT_EQ(CACHE_RESULT_NOFREEBLOCK, New());
}

// A failed write of the first piece, or of the last one when it is
// shorter, fails the new file.
TEST_F(FileNew, AFailedWriteOfAnyPieceFailsTheNewFile)
{
    TakeBlocks(4);
    // The area, 3 full pieces of 1 MiB, then the last one, shorter: call 5.
    const std::pair<long long, long long> arCases[] = {{FILE_SIZE, 1}, {FILE_SIZE + 16384, 5}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.second);
        m_info.m_liFileSize = c.first;
        {
            talvortest::FaultFileIO io;
            talvortest::ScopedFileIO scoped(&io);
            io.FailCall(FileOp::PWrite, c.second, EIO, 3);
            EXPECT_EQ(1, New());
        }
        m_pStorage->Release();
        m_pStorage = nullptr;
        unlink(m_strPath.c_str());
    }
}

}  // namespace
