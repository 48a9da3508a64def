// A memory-mode file: opening it (what is read, a surviving segment, the
// refusals), making, growing and writing it out.
#include "DatabaseKit.h"
#include "FaultFileIO.h"
#include "TalvorMemoryStorage.h"

#include <gtest/gtest.h>

#include <sys/shm.h>

using namespace talvortest;

namespace {

const long long MIB = 1048576;
const int WORK_BUFFER = 4 * 1048576;

class MemoryStorage : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_lpBuffer = (LPBYTE)get_aligned_buffer(WORK_BUFFER);
        m_lpHeadBuf = (LPBYTE)get_aligned_buffer(WORK_BUFFER);
    }
    void TearDown() override
    {
        for (LPFILEINFO p : m_vInfos) {
            if (p->m_pStorageFile != nullptr) p->m_pStorageFile->Release();
            free(p);
        }
        free(m_lpBuffer), free(m_lpHeadBuf);
    }
    // A descriptor as the file list would build it, with its backend.
    LPFILEINFO Describe(const std::string& strName, BYTE bFileNo, BYTE bFileType, long long nRowSize)
    {
        LPFILEINFO p = (LPFILEINFO)calloc(1, sizeof(FILEINFO));
        snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s%s", m_tree.Dir().c_str(), strName.c_str());
        snprintf(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), "%s", strName.c_str());
        p->m_bFileNo = bFileNo, p->m_bFileType = (char)bFileType;
        p->m_liFileSize = nRowSize, p->m_nMaxObjectNum = 333;
        p->m_pLoadSize = &m_nLoadSize;
        p->m_pStorageFile = new CTalvorMemoryStorage();
        m_vInfos.push_back(p);
        return p;
    }
    static std::string PathOf(LPFILEINFO p) { return p->m_lpszFilePath; }
    // Data2.dbf as the maker makes it, its bytes in m_strFile.
    LPFILEINFO DataFile(long long nSize, long long nFree, long long nRowSize, long long nJunkFrom = 0)
    {
        m_strFile = MakeFileBytes(FILETYPE_DATA, 2, nSize, nFree, nJunkFrom);
        LPFILEINFO p = Describe("Data2.dbf", 2, FILETYPE_DATA, nRowSize);
        EXPECT_TRUE(WriteWholeFile(PathOf(p), m_strFile));
        return p;
    }
    int Open(LPFILEINFO p, long long nTotalProgress = 0, long long nTimestamp = 0)
    {
        return p->m_pStorageFile->Initialize(nullptr, p, nTimestamp, nullptr, &m_stProgress, nTotalProgress, 0);
    }
    int NewFile(LPFILEINFO p)
    {
        int nSize = WORK_BUFFER;
        return p->m_pStorageFile->NewFile(nullptr, p, m_lpBuffer, nSize, 0x2468, nullptr, &m_stProgress, 0);
    }
    // Drops the backend of p without its segment (someone else's).
    static void Forget(LPFILEINFO p) { p->m_pStorageFile->Release(), p->m_pStorageFile = nullptr; }
    int Grow(LPFILEINFO p, long long nNewSize)
    {
        return p->m_pStorageFile->ChangeFileSize(nullptr, p, 5, 0, m_lpBuffer, m_lpHeadBuf, nNewSize, WORK_BUFFER, &m_stProgress);
    }

    DatabaseDir m_tree;
    LPBYTE m_lpBuffer = nullptr, m_lpHeadBuf = nullptr;
    long long m_nLoadSize = -1;
    TALVORPROGRESS m_stProgress = {};
    std::string m_strFile;
    std::vector<LPFILEINFO> m_vInfos;
};

} // namespace

TEST_F(MemoryStorage, ReadsOnlyPiecesThatBeginBeforeTheFreeOffset)
{
    // 20 MiB, free offset at 9 MiB, bytes from 16 MiB on that must not come
    // in: the piece at 8 MiB begins before the free offset and is read whole.
    LPFILEINFO p = DataFile(20 * MIB, 9 * MIB, 20 * MIB, 16 * MIB);
    ASSERT_EQ(0, Open(p, 100 * MIB, 4242));
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, m_strFile.data(), 16 * MIB));
    std::string strZero(4 * MIB, '\0');
    EXPECT_EQ(0, memcmp(p->m_pFileAddr + 16 * MIB, strZero.data(), 4 * MIB));
    EXPECT_EQ(4242, p->m_nTimestamp);  // counts as saved up to the run's start
}

// A segment that survived a dead process is taken over only when it is of
// the file's size and holds a head; one of another size (a file grown while
// the process died) is named and left alone for its owner.
TEST_F(MemoryStorage, SurvivingSegmentWithABadHeadOrOfAnotherSizeIsRefused)
{
    std::string strFile = MakeFileBytes(FILETYPE_DATA, 4, 2 * MIB, 1 * MIB);
    for (long long nSize : {2 * MIB, 3 * MIB, 1 * MIB}) {
        SCOPED_TRACE(nSize);
        LPFILEINFO p = Describe("Data4.dbf", 4, FILETYPE_DATA, 2 * MIB);
        ASSERT_TRUE(WriteWholeFile(PathOf(p), strFile));
        int nId = shmget(FileImageShmKey(4), (size_t)nSize, IPC_CREAT | IPC_EXCL | 0666);
        ASSERT_GT(nId, 0);  // left zero: no mark
        EXPECT_EQ(1, Open(p));
        Forget(p);
        EXPECT_TRUE(nSize == 2 * MIB || nId == shmget(FileImageShmKey(4), 0, 0)) << "someone else's: kept";
        shmctl(nId, IPC_RMID, nullptr);
    }
}

// Someone else's mark in the head, for each type of the files the engine
// writes: the code of the type.
TEST_F(MemoryStorage, HeadMarkIsCheckedByFileType)
{
    const struct { BYTE bType; const char* lpCode; } arCases[] = {
        {FILETYPE_DATA, "40001013 "}, {FILETYPE_BTREEINDEX, "40001014 "}, {FILETYPE_KVINDEX, "40001015 "}};
    BYTE bFileNo = 2;
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.lpCode);
        std::string strFile = MakeFileBytes(c.bType, bFileNo, 1 * MIB, 0);
        ((LPBASEFILEHEAD)&strFile[0])->m_nDataFlag = SYSTEMFILE_DATAFLAG;
        LPFILEINFO p = Describe("F" + std::to_string(bFileNo) + ".dbf", bFileNo, c.bType, 1 * MIB);
        ASSERT_TRUE(WriteWholeFile(PathOf(p), strFile));
        EXPECT_EQ(1, Open(p));
        EXPECT_TRUE(m_tree.Traced(c.lpCode));
        bFileNo++;
    }
}

// A file that is not there, or too short to read: no segment is left
// behind. A released file leaves none either.
TEST_F(MemoryStorage, MissingOrShortFileIsRefusedAndNoSegmentOutlivesAFile)
{
    LPFILEINFO p = Describe("Nowhere.dbf", 2, FILETYPE_DATA, 1 * MIB);
    EXPECT_EQ(1, Open(p));
    p = DataFile(1 * MIB, 0, 1 * MIB);
    ASSERT_TRUE(WriteWholeFile(PathOf(p), m_strFile.substr(0, 4096)));
    EXPECT_EQ(1, Open(p));
    EXPECT_FALSE(SegmentExists(2)) << "a refused open left its segment";
    p = DataFile(1 * MIB, 0, 1 * MIB);
    ASSERT_EQ(0, Open(p));
    ASSERT_TRUE(SegmentExists(2));
    EXPECT_EQ(0, p->m_pStorageFile->Release());
    EXPECT_EQ(nullptr, p->m_pStorageFile);
    EXPECT_FALSE(SegmentExists(2));
}

TEST_F(MemoryStorage, ReadBlockCopiesFromTheImageOrRetriesTheFile)
{
    LPFILEINFO p = DataFile(1 * MIB, 512 * 1024, 1 * MIB);
    ASSERT_EQ(0, Open(p));
    IVirtualStorageFile* pStorage = p->m_pStorageFile;
    p->m_pFileAddr[300000] = 0x5A;  // only in the image
    LPBYTE lpBuf = m_lpBuffer;
    FaultFileIO io;
    ScopedFileIO scope(&io);
    EXPECT_EQ(0, pStorage->ReadBlock(nullptr, 299950, lpBuf, -100));
    EXPECT_EQ(0x5A, lpBuf[50]);
    // A copy reaching past the image is refused.
    EXPECT_EQ(1, pStorage->ReadBlock(nullptr, 1 * MIB - 50, lpBuf, -100));
    EXPECT_EQ(1, pStorage->ReadBlock(nullptr, -1, lpBuf, -100));
    io.FailNext(FileOp::PRead, EIO, 2);
    EXPECT_EQ(0, pStorage->ReadBlock(nullptr, 262144, lpBuf, 65536));
    io.FailNext(FileOp::PRead, EIO, 3);
    EXPECT_EQ(1, pStorage->ReadBlock(nullptr, 262144, lpBuf, 65536));
    // A read that comes back short is read on, never taken for the whole.
    memset(lpBuf, 0, 65536);
    io.ChopTransfers(4096, false);
    EXPECT_EQ(0, pStorage->ReadBlock(nullptr, 262144, lpBuf, 65536));
    EXPECT_EQ(0, memcmp(lpBuf, m_strFile.data() + 262144, 65536));
}

TEST_F(MemoryStorage, AShortReadOfAPieceInFlightRefusesTheLoad)
{
    // Every read meets the end of the file at 12 MiB: the pieces at 8 and 16
    // MiB, read together, both come back short.
    LPFILEINFO p = DataFile(24 * MIB, 24 * MIB, 24 * MIB);
    FaultFileIO io;
    io.ReadsEndAt(12 * MIB);
    ScopedFileIO scope(&io);
    EXPECT_EQ(1, Open(p));
}

// A new file is refused over an existing file, which is left alone, and
// over a segment that is there already, which is someone else's and kept.
TEST_F(MemoryStorage, NewFileIsRefusedOverAFileOrASegment)
{
    LPFILEINFO p = Describe("Data2.dbf", 2, FILETYPE_DATA, 1 * MIB);
    std::string strPath = PathOf(p);
    ASSERT_TRUE(WriteWholeFile(strPath, std::string(8192, 'x')));
    EXPECT_EQ(1, NewFile(p));
    EXPECT_EQ(std::string(8192, 'x'), ReadWholeFile(strPath));
    EXPECT_FALSE(SegmentExists(2));
    int nId = shmget(FileImageShmKey(2), 1 * MIB, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_GT(nId, 0);
    p = Describe("Other2.dbf", 2, FILETYPE_DATA, 1 * MIB);
    EXPECT_EQ(1, NewFile(p));
    Forget(p);
    EXPECT_EQ(nId, shmget(FileImageShmKey(2), 0, 0));
}

// A smaller size is refused before anything is written: the head keeps the
// size of the file, so that the next start does not find a file that its
// own head calls too short or too long. Growing to the same size remakes the
// image from what it saved: neither the image nor the file changes.
TEST_F(MemoryStorage, ShrinkingIsRefusedAndGrowingToTheSameSizeChangesNoByte)
{
    LPFILEINFO p = DataFile(2 * MIB, 1 * MIB, 2 * MIB);
    ASSERT_EQ(0, Open(p));
    int nOldId = p->m_nShmId;
    FaultFileIO io;
    ScopedFileIO scope(&io);
    // A smaller size, and one off the sector grid.
    for (long long nSize : {1 * MIB, 2 * MIB + 100}) {
        EXPECT_EQ(1, Grow(p, nSize)) << nSize;
        EXPECT_EQ(0, io.Calls(FileOp::PWrite)) << nSize << ": written before the refusal";
        EXPECT_EQ(2 * MIB, Val(((LPBASEFILEHEAD)p->m_pFileAddr)->m_nFileTotalSize)) << nSize;
        EXPECT_EQ(nOldId, p->m_nShmId) << "the segment stays as it was";
    }
    ASSERT_EQ(0, Grow(p, 2 * MIB));
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, m_strFile.data(), m_strFile.size()));
    EXPECT_EQ(m_strFile, ReadWholeFile(p->m_lpszFilePath));
}

// A save writes the whole image (two pieces, the last one short); a move
// refuses a target that exists.
TEST_F(MemoryStorage, Save2FileWritesTheWholeImageAndMovesOntoNoFile)
{
    LPFILEINFO p = DataFile(9 * MIB, 1 * MIB, 9 * MIB);
    ASSERT_EQ(0, Open(p));
    for (long long i = 0; i < 9 * MIB; i += 4096) p->m_pFileAddr[i + 100] = (BYTE)(i >> 12);
    ASSERT_EQ(0, p->m_pStorageFile->Save2File(p, FALSE, nullptr));
    EXPECT_TRUE(ReadWholeFile(p->m_lpszFilePath) == std::string((const char*)p->m_pFileAddr, (size_t)(9 * MIB)));
    std::string strTaken = m_tree.Dir() + "taken.dbf";
    ASSERT_TRUE(WriteWholeFile(strTaken, "keep"));
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", strTaken.c_str());
    EXPECT_EQ(1, p->m_pStorageFile->Save2File(p, TRUE, nullptr));
    EXPECT_EQ("keep", ReadWholeFile(strTaken));
}
