// A cache-mode file added, or brought into the cache at start, or refused,
// and grown.
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
    // The file's row as the file list hands it over.
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
    // A new file of nObjects objects with its head area and, with
    // bSecondMap, a second map block right behind the area.
    void MakeFile(BYTE bType, int nObjects, bool bSecondMap)
    {
        m_vFile.assign((size_t)FILE_SIZE, 0);
        CACHEHEADAREADEF d = {FILE_NO, bType, 7, nObjects, FILE_SIZE, 42};
        ASSERT_TRUE(CacheBuildHeadArea(d, m_vFile.data(), FILE_SIZE, &m_nEx));
        m_llMap1 = (long long)(m_nEx + 1) * CACHE_PAGE_SIZE;
        LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = Map(m_llMap1);
        // Cache offsets of an earlier cache, to be forgotten.
        lpMap->m_nNextBlockMapOffset_Cache = 999 * CACHE_PAGE_SIZE;
        ((LPTABLEFILEHEAD)m_vFile.data())->m_nCacheStartOffset = 777 * CACHE_PAGE_SIZE;
        if (bSecondMap) {
            m_llMap2 = m_llMap1 + CACHE_PAGE_SIZE;
            lpMap->m_nNextBlockMapOffset = m_llMap2;
            LPBASEFILEBLOCKMAPHEAD_CACHE lpMap2 = Map(m_llMap2);
            lpMap2->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
            lpMap2->m_nMapNo = 2;
            lpMap2->m_nNextBlockMapOffset_Cache = 888 * CACHE_PAGE_SIZE;
        }
        Describe("Table33.dbf", bType);
        WriteFile();
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE Map(long long llOffset)
    {
        return (LPBASEFILEBLOCKMAPHEAD_CACHE)(m_vFile.data() + llOffset);
    }
    void WriteFile()
    {
        ASSERT_TRUE(talvortest::WriteWholeFile(m_strPath, AsString(m_vFile.data(), m_vFile.size())));
    }
    int Init() { return Backend()->Initialize(nullptr, &m_info, 0, nullptr, nullptr, 0, 1); }
    long long At(UINT nBlock) const { return (long long)nBlock * CACHE_PAGE_SIZE; }

    std::vector<BYTE> m_vFile;
    int m_nEx = 0;
    long long m_llMap1 = 0, m_llMap2 = 0;
};

TEST_F(FileInit, PagesHangInFileOrderAndLinkEachOther)
{
    MakeFile(FILETYPE_TABLE, 1018, true);
    ASSERT_EQ(2, m_nEx);
    // A head that counts no objects of its own is given the table's 506.
    LPTABLEFILEHEAD lpFileHead = (LPTABLEFILEHEAD)m_vFile.data();
    lpFileHead->m_nHeadMaxObjectNum = 0;
    WriteFile();
    m_info.m_liFileSize = FILE_SIZE / 2;  // another size measured: the file's is taken
    ASSERT_EQ(0, Init());
    lpFileHead->m_nHeadMaxObjectNum = 506;
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
        {"extended head of another type", [&] { fnEx(2)->m_bFileType = FILETYPE_INDEX; }},
        {"not a cache-mode file", [this] { m_info.m_bFileType = FILETYPE_DATA; }},
        {"every try of the head's read fails", [this] { m_io.FailNext(FileOp::PRead, EIO, FILESTORE_IO_TRIES); }, 80001005},
        {"no file", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lpName);
        TearDown();
        SetUp();
        MakeFile(FILETYPE_TABLE, 1018, true);
        if (c.fnSpoil) {
            c.fnSpoil();
            WriteFile();
        } else {
            unlink(m_strPath.c_str());
        }
        talvortest::ScopedFileIO scoped(&m_io);
        EXPECT_EQ(1, Init());
        if (c.nTrace != 0) {
            EXPECT_TRUE(Traced(c.nTrace, ""));
        }
    }
}

TEST_F(FileInit, CacheKeptFromBeforeReadsNothingButMustHoldTheFile)
{
    MakeFile(FILETYPE_TABLE, 10, false);
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

class FileGrow : public FileInit {
protected:
    void SetUp() override
    {
        FileInit::SetUp();
        memset(&g_stSystemHead, 0, sizeof(g_stSystemHead));
        m_module.m_pSystemHead = &g_stSystemHead;
        memset(&m_row, 0, sizeof(m_row));
        MakeFile(FILETYPE_TABLE, 10, false);
        m_info.m_lpFileInfo = &m_row;
        m_info.m_pSaveFlag = &m_bRowSave;
        ASSERT_EQ(0, Init());
        m_lpHead = (LPTABLEFILEHEAD)(Base() + At(Head()->m_nFileInfoNo[FILE_NO]));
    }
    long long DiskSize() const { return talvortest::FileSizeOf(m_strPath); }
    int Grow(long long nSize, int nBuf)
    {
        return m_pStorage->ChangeFileSize(nullptr, &m_info, 0, 0, m_buf.m_p, nullptr, nSize, nBuf, nullptr);
    }
    // Size everywhere it is recorded (the row and its save marks by the
    // module, given the size), and the disk head as the cached one.
    void ExpectSize(long long nSize)
    {
        EXPECT_EQ(nSize, DiskSize());
        EXPECT_EQ(nSize, m_info.m_liFileSize);
        EXPECT_EQ(nSize, Val(m_lpHead->m_nFileTotalSize));
        EXPECT_EQ(nSize, Val(m_row.m_nFileSize));
        EXPECT_TRUE(FileAt(m_strPath, 0, CACHE_PAGE_SIZE) ==
                    std::vector<BYTE>((LPBYTE)m_lpHead, (LPBYTE)m_lpHead + CACHE_PAGE_SIZE));
    }

    FILE_MEMDBFILEINFO m_row;
    volatile BYTE m_bRowSave = 0;
    LPTABLEFILEHEAD m_lpHead = nullptr;
    AlignedBytes m_buf{8 * 1048576};
};

TEST_F(FileGrow, GrowsByWholePiecesAndRecordsTheSizeReached)
{
    ASSERT_EQ(0, Grow(FILE_SIZE + 2 * 1048576, 1048576));
    ExpectSize(FILE_SIZE + 2 * 1048576);
    // Not a whole number of pieces: the file ends past the size asked.
    ASSERT_EQ(0, Grow(FILE_SIZE + 2 * 1048576 + 4096, 1048576));
    ExpectSize(FILE_SIZE + 3 * 1048576);
    // The zeros are zeros, and what was there is untouched.
    std::vector<BYTE> v = FileAt(m_strPath, 0, DiskSize());
    ASSERT_EQ((size_t)DiskSize(), v.size());
    EXPECT_EQ(0, memcmp(v.data() + CACHE_PAGE_SIZE, m_vFile.data() + CACHE_PAGE_SIZE, (size_t)FILE_SIZE - CACHE_PAGE_SIZE));
    std::vector<BYTE> vZero(v.size() - (size_t)FILE_SIZE, 0);
    EXPECT_EQ(0, memcmp(v.data() + FILE_SIZE, vZero.data(), vZero.size()));
    // Less than one piece to go is met exactly, and recorded again.
    ASSERT_EQ(0, Grow(FILE_SIZE + 3 * 1048576 + 16384, 8 * 1048576));
    ExpectSize(FILE_SIZE + 3 * 1048576 + 16384);
}

// A head that records less than the disk holds learns the disk's size.
TEST_F(FileGrow, AHeadBehindTheDiskLearnsItsSizeWithoutAWrite)
{
    talvortest::ScopedFileIO scoped(&m_io);
    m_lpHead->m_nFileTotalSize = FILE_SIZE / 2;
    ASSERT_EQ(0, Grow(FILE_SIZE / 2, 1048576));
    EXPECT_EQ(FILE_SIZE, Val(m_lpHead->m_nFileTotalSize));
    EXPECT_EQ(FILE_SIZE, Val(m_row.m_nFileSize));
    EXPECT_EQ(0, m_io.Calls(FileOp::PWrite));
}

TEST_F(FileGrow, FailedAppendIsReportedAndWithoutSystemHeadNothingHappens)
{
    {
        talvortest::ScopedFileIO scoped(&m_io);
        m_io.FailCall(FileOp::PWrite, 2, ENOSPC, 3);
        EXPECT_EQ(1, Grow(FILE_SIZE + 4 * 1048576, 1048576));
        EXPECT_EQ(FILE_SIZE, Val(m_lpHead->m_nFileTotalSize));
        EXPECT_EQ(0, m_bRowSave);
    }
    m_module.m_pSystemHead = nullptr;
    long long nBefore = DiskSize();
    EXPECT_EQ(0, Grow(nBefore + 1048576, 1048576));
    EXPECT_EQ(nBefore, DiskSize());
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
    // The blocks the file's pages go to, taken as the engine takes them.
    std::vector<long long> TakeBlocks(int nCount)
    {
        std::vector<long long> v;
        for (int i = 0; i < nCount; i++) {
            long long llOffset = 0;
            EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FILE_NO, llOffset));
            v.push_back(llOffset);
        }
        return v;
    }
    int New() { return Backend()->NewFile(nullptr, &m_info, m_pBuf->m_p, m_nBufSize, 0xCAFE, nullptr, &m_progress, 1); }

    int m_nBufSize = 1048576;
    std::unique_ptr<AlignedBytes> m_pBuf{new AlignedBytes(1048576)};
    TALVORPROGRESS m_progress;
};

// A buffer smaller than the head area is replaced by one that holds it.
TEST_F(FileNew, SmallestFileIsMadeWithItsHeadAreaAndReachesTheCache)
{
    std::vector<long long> vBlocks = TakeBlocks(4);
    m_nBufSize = 16384;
    m_pBuf.reset(new AlignedBytes(16384));
    ASSERT_EQ(0, New());
    EXPECT_GE(m_nBufSize, 65536);
    // The disk: the head area as its builder makes it, then zeros.
    std::vector<BYTE> vArea(65536);
    CACHEHEADAREADEF d = {FILE_NO, FILETYPE_TABLE, 0xCAFE, 1018, FILE_SIZE, 31337};
    ASSERT_TRUE(CacheBuildHeadArea(d, vArea.data(), 65536, nullptr));
    std::vector<BYTE> vFile = FileAt(m_strPath, 0, FILE_SIZE + 1);
    ASSERT_EQ((size_t)FILE_SIZE, vFile.size());
    EXPECT_EQ(0, memcmp(vFile.data(), vArea.data(), vArea.size()));
    std::vector<BYTE> vZero((size_t)FILE_SIZE - 65536, 0);
    EXPECT_EQ(0, memcmp(vFile.data() + 65536, vZero.data(), vZero.size()));
    // The cache: the pages in the blocks, linked.
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(Base() + vBlocks[0]);
    EXPECT_EQ(TABLEFILE_DATAFLAG, lpHead->m_nDataFlag);
    EXPECT_EQ(vBlocks[1], Val(lpHead->m_nCacheStartOffset));
    long long llMap = 0;
    ASSERT_EQ(0, m_pCache->GetFirstTableMapCacheAddr(lpHead, Base(), llMap));
    EXPECT_EQ(vBlocks[3], llMap);
    EXPECT_EQ(0, memcmp(Base() + llMap, vArea.data() + 49152, CACHE_PAGE_SIZE));
}

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

// A failed write of the first piece, of one inside the file, or of the
// last one when it is shorter, fails the new file.
TEST_F(FileNew, AFailedWriteOfAnyPieceFailsTheNewFile)
{
    TakeBlocks(4);
    // The area, 3 full pieces of 1 MiB, then the last one, shorter: call 5.
    const std::pair<long long, long long> arCases[] = {{FILE_SIZE, 1}, {FILE_SIZE, 2}, {FILE_SIZE + 16384, 5}};
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
