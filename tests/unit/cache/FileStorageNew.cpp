// Adding a cache-mode file; what may not be made is refused unwritten.
#include "CacheFileHeadArea.h"
#include "CacheFixture.h"
#include "FaultFileIO.h"
#include "TalvorFileStorage.h"
#include "TempTree.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace cachetest;
using talvortest::FileOp;

namespace {

const BYTE FILE_NO = 44;
const long long MIN_SIZE = 4194304;

class FileNew : public CacheFixture {
protected:
    void SetUp() override
    {
        CacheFixture::SetUp();
        ASSERT_EQ(0, Open(32));
        memset(&m_info, 0, sizeof(m_info));
        m_strPath = m_tree.Path("sub/dir/Table44.dbf");
        snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", m_strPath.c_str());
        m_info.m_bFileNo = FILE_NO;
        m_info.m_bFileType = FILETYPE_TABLE;
        m_info.m_liFileSize = MIN_SIZE;
        m_info.m_nMaxObjectNum = 1018;
        m_info.m_nTimestamp = 31337;
        m_info.m_pLoadSize = &m_nLoadSize;
        m_nBufSize = 1048576;
        m_lpBuffer = (LPBYTE)get_aligned_buffer((size_t)m_nBufSize);
        memset(&m_progress, 0, sizeof(m_progress));
    }
    void TearDown() override
    {
        if (m_pStorage != nullptr) m_pStorage->Release();
        m_pStorage = nullptr;
        free(m_lpBuffer);
        CacheFixture::TearDown();
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
    int New()
    {
        m_pStorage = new CTalvorFileStorage(m_pCache.get());
        m_info.m_pStorageFile = m_pStorage;
        return m_pStorage->NewFile(nullptr, &m_info, m_lpBuffer, m_nBufSize, 0xCAFE, nullptr, &m_progress, 1);
    }
    std::vector<BYTE> FileBytes() const
    {
        std::string s = talvortest::ReadWholeFile(m_strPath);
        return std::vector<BYTE>(s.begin(), s.end());
    }

    talvortest::TempTree m_tree{"fsnew"};
    std::string m_strPath;
    FILEINFO m_info;
    long long m_nLoadSize = -1;
    LPBYTE m_lpBuffer = nullptr;
    int m_nBufSize = 0;
    TALVORPROGRESS m_progress;
    CTalvorFileStorage* m_pStorage = nullptr;
};

TEST_F(FileNew, SmallestFileIsMadeWithItsHeadAreaAndReachesTheCache)
{
    std::vector<long long> vBlocks = TakeBlocks(4);
    ASSERT_EQ(0, New());
    // The disk: the head area as its builder makes it, then zeros.
    std::vector<BYTE> vArea(65536);
    CACHEHEADAREADEF d = {FILE_NO, FILETYPE_TABLE, 0xCAFE, 1018, MIN_SIZE, 31337};
    ASSERT_TRUE(CacheBuildHeadArea(d, vArea.data(), 65536, nullptr));
    std::vector<BYTE> vFile = FileBytes();
    ASSERT_EQ((size_t)MIN_SIZE, vFile.size());
    EXPECT_EQ(0, memcmp(vFile.data(), vArea.data(), vArea.size()));
    std::vector<BYTE> vZero((size_t)MIN_SIZE - 65536, 0);
    EXPECT_EQ(0, memcmp(vFile.data() + 65536, vZero.data(), vZero.size()));
    struct stat st;
    ASSERT_EQ(0, stat(m_strPath.c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 0777);
    // The cache: the pages in the blocks, linked.
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)(Base() + vBlocks[0]);
    EXPECT_EQ(TABLEFILE_DATAFLAG, lpHead->m_nDataFlag);
    EXPECT_EQ(vBlocks[1], Val(lpHead->m_nCacheStartOffset));
    long long llMap = 0;
    ASSERT_EQ(0, m_pCache->GetFirstTableMapCacheAddr(lpHead, Base(), llMap));
    EXPECT_EQ(vBlocks[3], llMap);
    EXPECT_EQ(0, memcmp(Base() + llMap, vArea.data() + 49152, CACHE_PAGE_SIZE));
    // Progress, handles and the message.
    EXPECT_EQ(MIN_SIZE, m_nLoadSize);
    EXPECT_EQ(4, m_progress.m_nPos);
    EXPECT_EQ(4, m_progress.m_nTotal);
    EXPECT_NE(nullptr, m_info.m_hFile);
    EXPECT_NE(nullptr, m_info.m_hFile2);
    EXPECT_TRUE(Traced(80006020, "New file was added successfully"));
}

TEST_F(FileNew, TooSmallOrExistingFileIsRefusedUnmade)
{
    m_info.m_liFileSize = MIN_SIZE - 1;
    EXPECT_EQ(1, New());
    EXPECT_TRUE(Traced(80006001, "is less than 4M"));
    EXPECT_TRUE(FileBytes().empty());
    m_pStorage->Release();
    m_pStorage = nullptr;
    m_info.m_liFileSize = MIN_SIZE;
    std::string strOther = m_tree.File("Exists.dbf", "x");
    snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", strOther.c_str());
    EXPECT_EQ(1, New());
    EXPECT_TRUE(Traced(80006002, "already exists"));
}

TEST_F(FileNew, SmallBufferIsReplacedAndPiecesFollowIt)
{
    TakeBlocks(4);
    free(m_lpBuffer);
    m_nBufSize = 16384;
    m_lpBuffer = (LPBYTE)get_aligned_buffer((size_t)m_nBufSize);
    talvortest::FaultFileIO io;
    talvortest::ScopedFileIO scoped(&io);
    ASSERT_EQ(0, New());
    EXPECT_EQ(65536, m_nBufSize);
    // The area in one write, then the rest in pieces of the new buffer.
    std::vector<talvortest::FileWrite> w = io.Writes();
    ASSERT_EQ((size_t)(1 + (MIN_SIZE - 65536) / 65536), w.size());
    EXPECT_EQ(0, w[0].m_nOffset);
    for (size_t i = 1; i < w.size(); i++) EXPECT_EQ(65536, w[i].m_nSize);
}

// A failed write is told with the piece it was for: a piece inside the
// file, the first one, and the last one when it is shorter.
TEST_F(FileNew, FailedWritesAreReportedByPiece)
{
    TakeBlocks(4);
    const struct {
        long long nSize;
        long long nCall;
        int nErrno;
        long nCode;
        const char* lpText;
    } arCases[] = {
        {MIN_SIZE, 2, EIO, 80006004, "write location: 65536, write size: 1048576"},
        {MIN_SIZE, 1, ENOSPC, 10111052, "Failed to write the first piece of data"},
        // The area, 3 full pieces of 1 MiB, then the last one, shorter.
        {MIN_SIZE + 16384, 5, EIO, 80006005, "write location: 3211264, write size: 999424"},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.nCode);
        m_info.m_liFileSize = c.nSize;
        {
            talvortest::FaultFileIO io;
            talvortest::ScopedFileIO scoped(&io);
            io.FailCall(FileOp::PWrite, c.nCall, c.nErrno, 3);
            EXPECT_EQ(1, New());
            EXPECT_TRUE(Traced(c.nCode, c.lpText));
        }
        m_pStorage->Release();
        m_pStorage = nullptr;
        unlink(m_strPath.c_str());
    }
}

TEST_F(FileNew, PagesNeedTheirBlocksInTheCache)
{
    TakeBlocks(2);
    EXPECT_EQ(CACHE_RESULT_NOFREEBLOCK, New());
}

}  // namespace
