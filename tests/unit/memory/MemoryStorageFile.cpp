// Making, growing and writing out a memory-mode file.
#include "DatabaseKit.h"
#include "ShareMemory.h"
#include "TalvorMemoryStorage.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>

using namespace talvortest;

namespace {

const long long MIB = 1048576;
const int WORK_BUFFER = 4 * 1048576;

class MemoryStorageFile : public ::testing::Test {
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
        free(m_lpBuffer);
        free(m_lpHeadBuf);
    }
    LPFILEINFO Describe(const std::string& strPath, BYTE bFileNo, BYTE bFileType, long long nSize)
    {
        LPFILEINFO p = (LPFILEINFO)calloc(1, sizeof(FILEINFO));
        snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", strPath.c_str());
        snprintf(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), "F%d", bFileNo);
        p->m_bFileNo = bFileNo;
        p->m_bFileType = (char)bFileType;
        p->m_liFileSize = nSize;
        p->m_nMaxObjectNum = 333;
        p->m_pLoadSize = &m_nLoadSize;
        p->m_pStorageFile = new CTalvorMemoryStorage();
        m_vInfos.push_back(p);
        return p;
    }
    int NewFile(LPFILEINFO p)
    {
        int nSize = WORK_BUFFER;
        return p->m_pStorageFile->NewFile(nullptr, p, m_lpBuffer, nSize, 0x2468, nullptr, &m_stProgress, 0);
    }
    // An opened file of nSize whose first MiB carries a pattern.
    LPFILEINFO OpenPatterned(BYTE bFileNo, long long nSize)
    {
        std::string strPath = m_tree.Dir() + "Data" + std::to_string(bFileNo) + ".dbf";
        m_strFile = MakeFileBytes(FILETYPE_DATA, bFileNo, nSize, 1 * MIB);
        EXPECT_TRUE(WriteWholeFile(strPath, m_strFile));
        LPFILEINFO p = Describe(strPath, bFileNo, FILETYPE_DATA, nSize);
        EXPECT_EQ(0, p->m_pStorageFile->Initialize(nullptr, p, 0, nullptr, nullptr, 0, 0));
        return p;
    }
    int Grow(LPFILEINFO p, long long nNewSize)
    {
        return p->m_pStorageFile->ChangeFileSize(nullptr, p, 5, 0, m_lpBuffer, m_lpHeadBuf, nNewSize, WORK_BUFFER,
                                                 &m_stProgress);
    }

    DatabaseDir m_tree;
    LPBYTE m_lpBuffer = nullptr;
    LPBYTE m_lpHeadBuf = nullptr;
    long long m_nLoadSize = -1;
    TALVORPROGRESS m_stProgress = {};
    std::string m_strFile;
    std::vector<LPFILEINFO> m_vInfos;
};

} // namespace

TEST_F(MemoryStorageFile, NewFileIsAllocatedWholeWithAMinimalHeadAndItsSegment)
{
    std::string strPath = m_tree.Dir() + "sub/dir/KV7.dbf";  // directories are made
    LPFILEINFO p = Describe(strPath, 7, FILETYPE_KVINDEX, 3 * MIB);
    ASSERT_EQ(0, NewFile(p));
    EXPECT_EQ(3 * MIB, FileSizeOf(strPath));
    std::string strDisk = ReadWholeFile(strPath);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)strDisk.data();
    EXPECT_EQ(KVINDEXFILE_DATAFLAG, Val(lpHead->m_nDataFlag));
    EXPECT_EQ(7, lpHead->m_bFileNo);
    EXPECT_EQ(0x2468, Val(lpHead->m_usDatabaseGuid));
    EXPECT_EQ(333, Val(lpHead->m_nMaxObjectNum));
    EXPECT_EQ(3 * MIB, Val(lpHead->m_nFileTotalSize));
    EXPECT_EQ(0, Val(lpHead->m_nFileHeaderSize));  // the engine completes the head
    // Everything past the head fields is zero, on disk and in the image.
    EXPECT_EQ(std::string::npos, strDisk.find_first_not_of('\0', sizeof(BASEFILEHEAD)));
    ASSERT_NE(nullptr, p->m_pFileAddr);
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, strDisk.data(), strDisk.size()));
    EXPECT_EQ(3 * MIB, (long long)CShareMemory::ShareMemorySize(p->m_nShmId));
    EXPECT_EQ(3 * MIB, m_nLoadSize);
    EXPECT_EQ(3, Val(m_stProgress.m_nPos));
    EXPECT_EQ(3, Val(m_stProgress.m_nTotal));
    EXPECT_TRUE(m_tree.Traced("40004098 NewFile New file was added successfully, file path: " + strPath +
                              ", file size: 3145728"));
}

TEST_F(MemoryStorageFile, NewFileOnAnExistingPathLeavesItAlone)
{
    std::string strPath = m_tree.Dir() + "Data2.dbf";
    ASSERT_TRUE(WriteWholeFile(strPath, std::string(8192, 'x')));
    chmod(strPath.c_str(), 0600);
    LPFILEINFO p = Describe(strPath, 2, FILETYPE_DATA, 1 * MIB);
    EXPECT_EQ(1, NewFile(p));
    EXPECT_EQ(std::string(8192, 'x'), ReadWholeFile(strPath));
    struct stat st;
    ASSERT_EQ(0, stat(strPath.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_FALSE(SegmentExists(2));
    EXPECT_TRUE(m_tree.Traced("40004001 NewFile File creation failed because the file already exists while "
                              "executing the add file command, path: " + strPath));
}

TEST_F(MemoryStorageFile, NewFileRefusesASegmentThatIsThereAlready)
{
    int nId = shmget(FileImageShmKey(2), 1 * MIB, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_GT(nId, 0);
    LPFILEINFO p = Describe(m_tree.Dir() + "Data2.dbf", 2, FILETYPE_DATA, 1 * MIB);
    EXPECT_EQ(1, NewFile(p));
    EXPECT_TRUE(m_tree.Traced("40004010"));
    p->m_pStorageFile->Release();
    EXPECT_EQ(nId, shmget(FileImageShmKey(2), 0, 0));  // someone else's: kept
}

// Growing saves the image first with a forced pass (head and maps, no clean
// block), adds no zeros, and writes the head with the new size once more.
TEST_F(MemoryStorageFile, GrowingToTheSameSizeWritesNoBlockAndStillRemakes)
{
    LPFILEINFO p = OpenPatterned(2, 2 * MIB);
    int nOldId = p->m_nShmId;
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)m_strFile.data();
    long long nMapBytes = 0;
    int nMapBlocks = 0;
    for (long long nOffset = Val(lpHead->m_nBlockMapStartOffset); nOffset != 0 && nMapBlocks < 64; nMapBlocks++) {
        nMapBytes += Val(lpHead->m_nBlockMapSize);
        nOffset = Val(((LPBASEFILEBLOCKMAPHEAD)(m_strFile.data() + nOffset))->m_nNextBlockMapOffset);
    }
    ASSERT_GT(nMapBlocks, 0);
    FaultFileIO io;
    {
        ScopedFileIO scope(&io);
        ASSERT_EQ(0, Grow(p, 2 * MIB));
    }
    EXPECT_EQ(2LL * Val(lpHead->m_nFileHeaderSize) + nMapBytes, io.BytesWritten());
    EXPECT_NE(nOldId, p->m_nShmId);
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, m_strFile.data(), m_strFile.size()));
}

// A smaller size is refused before anything is written: the head keeps the
// size of the file, so that the next start does not find a file that its
// own head calls too short or too long.
TEST_F(MemoryStorageFile, ShrinkingIsRefusedAndTheHeadKeepsItsSize)
{
    LPFILEINFO p = OpenPatterned(2, 2 * MIB);
    int nOldId = p->m_nShmId;
    EXPECT_EQ(1, Grow(p, 1 * MIB));
    EXPECT_EQ(2 * MIB, Val(((LPBASEFILEHEAD)p->m_pFileAddr)->m_nFileTotalSize));
    EXPECT_EQ(2 * MIB, FileSizeOf(p->m_lpszFilePath));
    EXPECT_EQ(nOldId, p->m_nShmId);  // the segment stays as it was
    EXPECT_TRUE(m_tree.Traced("40003008 ChangeFileSize A file cannot shrink, and its size must be a multiple of 512, "
                              "file path: " + std::string(p->m_lpszFilePath) +
                              ", present size: 2097152, size asked: 1048576"));
    // Off the sector grid, likewise.
    EXPECT_EQ(1, Grow(p, 2 * MIB + 100));
    EXPECT_EQ(2 * MIB, FileSizeOf(p->m_lpszFilePath));
    EXPECT_EQ(2 * MIB, Val(((LPBASEFILEHEAD)p->m_pFileAddr)->m_nFileTotalSize));
}

TEST_F(MemoryStorageFile, GrowingWithoutAnImageOrABufferIsRefused)
{
    LPFILEINFO p = OpenPatterned(2, 1 * MIB);
    EXPECT_EQ(1, p->m_pStorageFile->ChangeFileSize(nullptr, p, 5, 0, m_lpBuffer, m_lpHeadBuf, 2 * MIB, 0, nullptr));
    EXPECT_EQ(1 * MIB, FileSizeOf(p->m_lpszFilePath));
    LPBYTE lpAddr = p->m_pFileAddr;
    p->m_pFileAddr = nullptr;
    EXPECT_EQ(1, Grow(p, 2 * MIB));
    p->m_pFileAddr = lpAddr;
    EXPECT_TRUE(m_tree.Traced("40003001 ChangeFileSize Memory pointer was empty when modifying file size"));
}

TEST_F(MemoryStorageFile, Save2FileWritesTheWholeImage)
{
    LPFILEINFO p = OpenPatterned(2, 9 * MIB);  // two pieces, the last one short
    for (long long i = 0; i < 9 * MIB; i += 4096) p->m_pFileAddr[i + 100] = (BYTE)(i >> 12);
    ASSERT_EQ(0, p->m_pStorageFile->Save2File(p, FALSE, nullptr));
    std::string strDisk = ReadWholeFile(p->m_lpszFilePath);
    ASSERT_EQ((size_t)(9 * MIB), strDisk.size());
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, strDisk.data(), strDisk.size()));
}

TEST_F(MemoryStorageFile, Save2FileToANewPathSwitchesTheHandleAndKeepsTheOldFile)
{
    LPFILEINFO p = OpenPatterned(2, 2 * MIB);
    std::string strOld = p->m_lpszFilePath;
    p->m_pFileAddr[1500000] = 0x42;
    std::string strNew = m_tree.Dir() + "moved/Data2.dbf";
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", strNew.c_str());
    ASSERT_EQ(0, p->m_pStorageFile->Save2File(p, TRUE, nullptr));
    EXPECT_EQ(0, memcmp(p->m_pFileAddr, ReadWholeFile(strNew).data(), 2 * MIB));
    EXPECT_EQ(m_strFile, ReadWholeFile(strOld));
    EXPECT_EQ(2 * MIB, m_nLoadSize);
    // Further writes go to the new file.
    p->m_pFileAddr[4096] = 0x43;
    ASSERT_EQ(0, p->m_pStorageFile->Save2File(p, FALSE, nullptr));
    EXPECT_EQ(0x43, (BYTE)ReadWholeFile(strNew)[4096]);
    EXPECT_EQ(m_strFile, ReadWholeFile(strOld));
    EXPECT_TRUE(m_tree.Traced(" 1     40005098 Save2File Successfully modified file path, file path: " + strNew));
}

TEST_F(MemoryStorageFile, Save2FileRefusesAnExistingTargetAndAMissingHandle)
{
    LPFILEINFO p = OpenPatterned(2, 1 * MIB);
    std::string strTarget = m_tree.Dir() + "taken.dbf";
    ASSERT_TRUE(WriteWholeFile(strTarget, "keep"));
    char szOld[256];
    memcpy(szOld, p->m_lpszFilePath, sizeof(szOld));
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", strTarget.c_str());
    EXPECT_EQ(1, p->m_pStorageFile->Save2File(p, TRUE, nullptr));
    EXPECT_EQ("keep", ReadWholeFile(strTarget));
    memcpy(p->m_lpszFilePath, szOld, sizeof(szOld));
    void* hFile = p->m_hFile;
    p->m_hFile = nullptr;
    EXPECT_EQ(1, p->m_pStorageFile->Save2File(p, FALSE, nullptr));
    p->m_hFile = hFile;
    std::string strTrace = m_tree.Trace();
    EXPECT_NE(std::string::npos, strTrace.find("40005001 Save2File The command to modify the physical file path "
                                               "failed because the file already exists, path: " + strTarget));
    EXPECT_NE(std::string::npos, strTrace.find("40005003 Save2File When writing memory data to a physical file, "
                                               "the file handle was an invalid value"));
}
