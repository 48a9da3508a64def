// Opening a memory-mode file: what is read, a surviving segment, and the refusals.
#include "DatabaseKit.h"
#include "FaultFileIO.h"
#include "ShareMemory.h"
#include "TalvorMemoryStorage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

const long long MIB = 1048576;

class MemoryStorageLoad : public ::testing::Test {
protected:
    // A descriptor as the file list would build it.
    LPFILEINFO Describe(const std::string& strName, BYTE bFileNo, BYTE bFileType, long long nRowSize)
    {
        LPFILEINFO p = (LPFILEINFO)calloc(1, sizeof(FILEINFO));
        snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s%s", m_tree.Dir().c_str(), strName.c_str());
        snprintf(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), "%s", strName.c_str());
        p->m_bFileNo = bFileNo;
        p->m_bFileType = (char)bFileType;
        p->m_liFileSize = nRowSize;
        p->m_pLoadSize = &m_nLoadSize;
        m_vInfos.push_back(p);
        return p;
    }
    std::string PathOf(LPFILEINFO p) { return p->m_lpszFilePath; }
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
        CTalvorMemoryStorage* pStorage = new CTalvorMemoryStorage();
        p->m_pStorageFile = pStorage;
        return pStorage->Initialize(nullptr, p, nTimestamp, nullptr, &m_stProgress, nTotalProgress, 0);
    }
    void TearDown() override
    {
        for (LPFILEINFO p : m_vInfos) {
            if (p->m_pStorageFile != nullptr) p->m_pStorageFile->Release();
            free(p);
        }
    }

    DatabaseDir m_tree;
    long long m_nLoadSize = -1;
    TALVORPROGRESS m_stProgress = {};
    std::vector<LPFILEINFO> m_vInfos;
    std::string m_strFile;
};

} // namespace

TEST_F(MemoryStorageLoad, ReadsOnlyPiecesThatBeginBeforeTheFreeOffset)
{
    // 20 MiB, free offset at 9 MiB, bytes from 16 MiB on that must not come
    // in: the piece at 8 MiB begins before the free offset and is read whole.
    LPFILEINFO p = DataFile(20 * MIB, 9 * MIB, 20 * MIB, 16 * MIB);
    FaultFileIO io;
    {
        ScopedFileIO scope(&io);
        ASSERT_EQ(0, Open(p, 100 * MIB, 4242));
    }
    // No page of the segment past the last piece read was made: a load
    // commits no memory the file never used. (Asked before anything below
    // reads those pages, which would make them.)
    std::vector<unsigned char> vResident((size_t)(4 * MIB / getpagesize()), 1);
    ASSERT_EQ(0, mincore(p->m_pFileAddr + 16 * MIB, (size_t)(4 * MIB), vResident.data()));
    EXPECT_EQ(std::count(vResident.begin(), vResident.end(), 0), (long)vResident.size());
    // The pieces, and the map chain once more, read back from the medium
    // for the save pass to know.
    long long nMaps = 0;
    for (long long nMap = ((LPBASEFILEHEAD)p->m_pFileAddr)->m_nBlockMapStartOffset; nMap != 0 && nMaps < 1000; nMaps++)
        nMap = ((LPBASEFILEBLOCKMAPHEAD)(p->m_pFileAddr + nMap))->m_nNextBlockMapOffset;
    EXPECT_EQ(16 * MIB + nMaps * ((LPBASEFILEHEAD)p->m_pFileAddr)->m_nBlockMapSize, io.BytesRead());
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, m_strFile.data(), 16 * MIB));
    std::string strZero(4 * MIB, '\0');
    EXPECT_EQ(0, memcmp(p->m_pFileAddr + 16 * MIB, strZero.data(), 4 * MIB));
    EXPECT_EQ(20 * MIB, m_nLoadSize);
    // Progress before the last piece: the base plus the two pieces before it.
    EXPECT_EQ(116, Val(m_stProgress.m_nPos));
    EXPECT_EQ(4242, p->m_nTimestamp);  // counts as saved up to the run's start
    EXPECT_EQ(20 * MIB, (long long)CShareMemory::ShareMemorySize(p->m_nShmId));
}

TEST_F(MemoryStorageLoad, FirstPieceIsReadEvenWhenTheFreeOffsetIsZero)
{
    std::string strFile = MakeFileBytes(FILETYPE_KVINDEX, 3, 12 * MIB, 0, 8 * MIB);
    ((LPBASEFILEHEAD)&strFile[0])->m_nFileFreeMemoryOffset = 0;
    LPFILEINFO p = Describe("KV3.dbf", 3, FILETYPE_KVINDEX, 12 * MIB);
    ASSERT_TRUE(WriteWholeFile(PathOf(p), strFile));
    ASSERT_EQ(0, Open(p));
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, strFile.data(), 8 * MIB));
    std::string strZero(4 * MIB, '\0');
    EXPECT_EQ(0, memcmp(p->m_pFileAddr + 8 * MIB, strZero.data(), 4 * MIB));
}

// A segment that survived a dead process is taken over only when it is of
// the file's size and holds a head; one of another size (a file grown while
// the process died) is named and left alone for its owner.
TEST_F(MemoryStorageLoad, SurvivingSegmentWithABadHeadOrOfAnotherSizeIsRefused)
{
    const struct {
        long long nSize;
        std::string strTold;
    } arCases[] = {
        {2 * MIB, "40001013 Initialize Header information in data content read from data file is incorrect, file "
                  "check code: 0[1178881617], path: " + m_tree.Dir() + "Data4.dbf"},
        {3 * MIB, "40001009 Initialize The memory file that survived has another size than the file"},
        {1 * MIB, "40001009 Initialize The memory file that survived has another size than the file"},
    };
    std::string strFile = MakeFileBytes(FILETYPE_DATA, 4, 2 * MIB, 1 * MIB);
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.nSize);
        LPFILEINFO p = Describe("Data4.dbf", 4, FILETYPE_DATA, 2 * MIB);
        ASSERT_TRUE(WriteWholeFile(PathOf(p), strFile));
        int nId = shmget(FileImageShmKey(4), (size_t)c.nSize, IPC_CREAT | IPC_EXCL | 0666);
        ASSERT_GT(nId, 0);  // left zero: no mark
        EXPECT_EQ(1, Open(p));
        EXPECT_TRUE(m_tree.Traced(c.strTold));
        p->m_pStorageFile->Release();
        p->m_pStorageFile = nullptr;
        if (c.nSize != 2 * MIB) {
            EXPECT_EQ(nId, shmget(FileImageShmKey(4), 0, 0)) << "someone else's: kept";
        }
        shmctl(nId, IPC_RMID, nullptr);
    }
}

// Someone else's mark in the head, for each type: the code of the type.
TEST_F(MemoryStorageLoad, HeadMarkIsCheckedByFileType)
{
    const struct {
        BYTE bType;
        const char* lpCode;
    } arCases[] = {{FILETYPE_SYSTEM, "40001012 "}, {FILETYPE_DATA, "40001013 "}, {FILETYPE_BTREEINDEX, "40001014 "},
                   {FILETYPE_KVINDEX, "40001015 "}};
    BYTE bFileNo = 1;
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.lpCode);
        std::string strFile = c.bType == FILETYPE_SYSTEM ? std::string(DB_SYSTEMFILE_SIZE, '\0')
                                                         : MakeFileBytes(c.bType, bFileNo, 1 * MIB, 0);
        LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)&strFile[0];
        lpHead->m_nDataFlag = c.bType == FILETYPE_SYSTEM ? DATAFILE_DATAFLAG : SYSTEMFILE_DATAFLAG;
        lpHead->m_bFileNo = bFileNo;
        const long long nRowSize = c.bType == FILETYPE_SYSTEM ? 0 : 1 * MIB;
        LPFILEINFO p = Describe("F" + std::to_string(bFileNo) + ".dbf", bFileNo, c.bType, nRowSize);
        ASSERT_TRUE(WriteWholeFile(PathOf(p), strFile));
        EXPECT_EQ(1, Open(p));
        EXPECT_TRUE(m_tree.Traced(c.lpCode));
        bFileNo++;
    }
}

TEST_F(MemoryStorageLoad, TypeOutsideOneToFiveIsRefusedSilently)
{
    LPFILEINFO p = Describe("T.dbf", 9, 6, 1 * MIB);
    FaultFileIO io;
    {
        ScopedFileIO scope(&io);
        EXPECT_EQ(1, Open(p));
    }
    EXPECT_EQ(0, io.Calls(FileOp::PRead));
    EXPECT_EQ(nullptr, p->m_hFile);
    EXPECT_FALSE(m_tree.Traced("T.dbf"));
}

TEST_F(MemoryStorageLoad, LargerFileOnDiskOpensAtItsOwnSize)
{
    // The row still has the size from before the file grew.
    LPFILEINFO p = DataFile(3 * MIB, 1 * MIB, 2 * MIB);
    ASSERT_EQ(0, Open(p));
    EXPECT_EQ(3 * MIB, p->m_liFileSize);
    EXPECT_EQ(3 * MIB, (long long)CShareMemory::ShareMemorySize(p->m_nShmId));
    EXPECT_EQ(3 * MIB, m_nLoadSize);
}

// A file that is not there (told at level 0), or too short to read: no
// segment is left behind.
TEST_F(MemoryStorageLoad, MissingOrUnreadableShortFileIsRefused)
{
    LPFILEINFO p = Describe("Nowhere.dbf", 2, FILETYPE_DATA, 1 * MIB);
    EXPECT_EQ(1, Open(p));
    EXPECT_TRUE(m_tree.Traced(" 0     40001001 Initialize ") && m_tree.Traced("(2), path: " + PathOf(p)));
    EXPECT_FALSE(SegmentExists(2));
    p = DataFile(1 * MIB, 0, 1 * MIB);
    ASSERT_TRUE(WriteWholeFile(PathOf(p), m_strFile.substr(0, 4096)));
    EXPECT_EQ(1, Open(p));
    EXPECT_TRUE(m_tree.Traced("40001003"));
    EXPECT_FALSE(SegmentExists(2));
}

TEST_F(MemoryStorageLoad, FailedReadIsToldWithItsPlace)
{
    LPFILEINFO p = DataFile(1 * MIB, 0, 1 * MIB);
    FaultFileIO io;
    io.FailNext(FileOp::PRead, EIO, 1);
    {
        ScopedFileIO scope(&io);
        EXPECT_EQ(1, Open(p));
    }
    EXPECT_TRUE(m_tree.Traced("40001010 Initialize Failed to read data from physical file, error: Input/output "
                              "error(5), path: " + PathOf(p) + ", read location: 0, read size: 1048576"));
}

TEST_F(MemoryStorageLoad, ReleaseClosesDetachesAndRemoves)
{
    LPFILEINFO p = DataFile(1 * MIB, 0, 1 * MIB);
    ASSERT_EQ(0, Open(p));
    ASSERT_TRUE(SegmentExists(2));
    EXPECT_EQ(0, p->m_pStorageFile->Release());
    EXPECT_EQ(nullptr, p->m_pStorageFile);
    EXPECT_EQ(nullptr, p->m_hFile);
    EXPECT_EQ(nullptr, p->m_pFileAddr);
    EXPECT_EQ(0, p->m_nShmId);
    EXPECT_FALSE(SegmentExists(2));
}

TEST_F(MemoryStorageLoad, ReadBlockCopiesFromTheImageOrRetriesTheFile)
{
    LPFILEINFO p = DataFile(1 * MIB, 512 * 1024, 1 * MIB);
    ASSERT_EQ(0, Open(p));
    IVirtualStorageFile* pStorage = p->m_pStorageFile;
    p->m_pFileAddr[300000] = 0x5A;  // only in the image
    BYTE* lpBuf = (BYTE*)get_aligned_buffer(65536);
    FaultFileIO io;
    {
        ScopedFileIO scope(&io);
        EXPECT_EQ(0, pStorage->ReadBlock(nullptr, 299950, lpBuf, -100));
        EXPECT_EQ(0, io.Calls(FileOp::PRead));
        EXPECT_EQ(0, memcmp(lpBuf, p->m_pFileAddr + 299950, 100));
        EXPECT_EQ(0x5A, lpBuf[50]);
        // A copy reaching past the image is refused.
        EXPECT_EQ(1, pStorage->ReadBlock(nullptr, 1 * MIB - 50, lpBuf, -100));
        EXPECT_EQ(1, pStorage->ReadBlock(nullptr, -1, lpBuf, -100));

        io.FailNext(FileOp::PRead, EIO, 2);
        EXPECT_EQ(0, pStorage->ReadBlock(nullptr, 262144, lpBuf, 65536));
        EXPECT_EQ(3, io.Calls(FileOp::PRead));
        EXPECT_EQ(0, memcmp(lpBuf, m_strFile.data() + 262144, 65536));

        io.FailNext(FileOp::PRead, EIO, 3);
        EXPECT_EQ(1, pStorage->ReadBlock(nullptr, 262144, lpBuf, 65536));
    }
    free(lpBuf);
    EXPECT_TRUE(m_tree.Traced("40006001 ReadBlock The file data block size read is incorrect, error: Input/output "
                              "error(5), path: " + PathOf(p) + ", read size: 65536, actual return size: -1, "
                              "file offset: 262144"));
}

TEST_F(MemoryStorageLoad, EveryPieceOfAFullFileLandsInPlace)
{
    LPFILEINFO p = DataFile(24 * MIB, 24 * MIB, 24 * MIB);
    ASSERT_EQ(0, Open(p));
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, m_strFile.data(), m_strFile.size()));
    EXPECT_EQ(24 * MIB, m_nLoadSize);
}

TEST_F(MemoryStorageLoad, AFailedReadInFlightIsToldAtTheFirstPieceItSpoilt)
{
    // Every read meets the end of the file at 12 MiB: the pieces at 8 and 16
    // MiB, read together, both fail; the earlier one is told.
    LPFILEINFO p = DataFile(24 * MIB, 24 * MIB, 24 * MIB);
    FaultFileIO io;
    io.ReadsEndAt(12 * MIB);
    {
        ScopedFileIO scope(&io);
        EXPECT_EQ(1, Open(p));
    }
    EXPECT_TRUE(m_tree.Traced("path: " + PathOf(p) + ", read location: 8388608, read size: 8388608"));
    EXPECT_FALSE(m_tree.Traced("read location: 16777216"));
    // Nothing past the piece before the failure is told as loaded.
    EXPECT_LE(m_nLoadSize, 8 * MIB);
}
