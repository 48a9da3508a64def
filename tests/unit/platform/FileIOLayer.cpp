// The file layer under every database, log and backup file: whole transfers that survive short transfers and interrupted calls, and
// the directory and plain-file shims.
#include "FaultFileIO.h"
#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

class FileIOTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_strPath = m_tree.Path("file");
        m_fd = open(m_strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(m_fd, 0);
        // A background the transfers must not disturb outside their range.
        std::vector<unsigned char> bg(kFileSize, 0xEE);
        ASSERT_EQ(pwrite(m_fd, bg.data(), bg.size(), 0), (ssize_t)bg.size());
    }
    void TearDown() override { close(m_fd); }
    static std::vector<unsigned char> Pattern(size_t n, unsigned nSeed)
    {
        std::vector<unsigned char> v(n);
        for (size_t i = 0; i < n; i++) v[i] = (unsigned char)((i * 31 + nSeed) ^ (i >> 8));
        return v;
    }
    std::vector<unsigned char> FileBytes()
    {
        std::vector<unsigned char> v(kFileSize + 4096);
        ssize_t n = pread(m_fd, v.data(), v.size(), 0);
        v.resize(n < 0 ? 0 : (size_t)n);
        return v;
    }
    static constexpr size_t kFileSize = 20000;
    TempTree m_tree{"fileio"};
    int m_fd = -1;
    std::string m_strPath;
};

// Whole transfers through calls cut to 7 bytes and interrupted: every byte
// lands at its offset and is read back from it, nothing around it changes.
TEST_F(FileIOTest, WholeTransfersKeepEveryByteAtItsOffsetThroughShortTransfers)
{
    const off_t nOffset = 4096 + 3;
    std::vector<unsigned char> data = Pattern(10001, 7);
    FaultFileIO io;
    io.ChopTransfers(7, true);
    ScopedFileIO scope(&io);
    ASSERT_TRUE(TalvorWriteFull(m_fd, data.data(), data.size(), nOffset));
    // Every call but the interrupted ones moved 7 bytes at most.
    EXPECT_GE(io.Calls(FileOp::PWrite), 2 * (long long)(data.size() / 7));
    std::vector<unsigned char> want(kFileSize, 0xEE);
    std::copy(data.begin(), data.end(), want.begin() + nOffset);
    EXPECT_TRUE(FileBytes() == want) << "a byte inside or around the range is wrong";

    std::vector<unsigned char> buf(7777, 0);
    ASSERT_TRUE(TalvorReadFull(m_fd, buf.data(), buf.size(), 1234));
    EXPECT_TRUE(std::equal(buf.begin(), buf.end(), want.begin() + 1234));
    // Up to the last byte is fine; one past the end is a failure, not a hang.
    std::vector<unsigned char> tail(100);
    EXPECT_TRUE(TalvorReadFull(m_fd, tail.data(), tail.size(), kFileSize - 100) && tail == std::vector<unsigned char>(100, 0xEE));
    EXPECT_FALSE(TalvorReadFull(m_fd, tail.data(), tail.size(), kFileSize - 99));
    EXPECT_TRUE(TalvorReadFull(m_fd, tail.data(), 0, 0)) << "nothing to move is success";
}

TEST_F(FileIOTest, FailingWriteIsReportedAndLeavesOnlyWhatWasWritten)
{
    std::vector<unsigned char> data = Pattern(5000, 11);
    {
        FaultFileIO io;
        io.FillAfter(1000, EIO);
        ScopedFileIO scope(&io);
        EXPECT_FALSE(TalvorWriteFull(m_fd, data.data(), data.size(), 512));
        EXPECT_LE(io.Calls(FileOp::PWrite), 3) << "a hard error is not retried";
    }
    std::vector<unsigned char> file = FileBytes();
    EXPECT_EQ(memcmp(file.data() + 512, data.data(), 1000), 0);
    EXPECT_EQ(file[512 + 1000], 0xEE);

    // A layer that moves nothing and reports no error must not spin.
    FaultFileIO io;
    io.FillAfter(0, 0);
    ScopedFileIO scope(&io);
    EXPECT_FALSE(TalvorWriteFull(m_fd, data.data(), data.size(), 0));
    EXPECT_EQ(io.Calls(FileOp::PWrite), 1);
}

// Pieces below, at and above the buffer's size, in an order that crosses its
// edge at every place: each byte must land once, in order, also when every
// transfer is cut short and interrupted.
TEST_F(FileIOTest, AppendFileKeepsEveryPieceInOrderAcrossItsBuffer)
{
    std::string strPath = m_tree.Path("append");
    std::string strExpect;
    {
        FaultFileIO io;
        io.ChopTransfers(999, true);
        ScopedFileIO scope(&io);
        CTalvorAppendFile* pFile = CTalvorAppendFile::Create(strPath.c_str());
        ASSERT_NE(pFile, nullptr);
        unsigned nSeed = 1;
        for (size_t nLen : {1u, 8190u, 1u, 1u, 8192u, 8193u, 3u, 20000u, 0u, 4096u, 4096u, 4095u}) {
            std::vector<unsigned char> piece = Pattern(nLen, nSeed++);
            ASSERT_TRUE(pFile->Append(piece.data(), piece.size()));
            strExpect.append(piece.begin(), piece.end());
            EXPECT_EQ((long long)strExpect.size(), pFile->Size());
        }
        ASSERT_TRUE(pFile->AppendFormat("%s:%d\r\n", "pid", 4321));
        ASSERT_TRUE(pFile->AppendText("tail"));
        strExpect += "pid:4321\r\ntail";
        std::string strLong(3000, 'L');
        ASSERT_TRUE(pFile->AppendFormat("<%s>", strLong.c_str())) << "longer than a formatted piece on the stack";
        strExpect += "<" + strLong + ">";
        ASSERT_TRUE(CTalvorAppendFile::Close(pFile));
    }
    EXPECT_TRUE(ReadWholeFile(strPath) == strExpect);
}

// A lost piece is told, and the next lands after its place, not in it: a
// reader of the file finds every later line where its length says.
TEST_F(FileIOTest, AppendFileTellsALostPieceAndKeepsTheNextInItsPlace)
{
    std::string strPath = m_tree.Path("lossy");
    FaultFileIO io;
    io.FailCall(FileOp::PWrite, 1, EIO);
    ScopedFileIO scope(&io);
    CTalvorAppendFile* pFile = CTalvorAppendFile::Create(strPath.c_str());
    ASSERT_NE(pFile, nullptr);
    std::string strLost(10000, 'x');
    EXPECT_FALSE(pFile->Append(strLost.data(), strLost.size()));
    ASSERT_TRUE(pFile->AppendText("tail"));
    EXPECT_EQ(10004, pFile->Size());
    ASSERT_TRUE(CTalvorAppendFile::Close(pFile));
    EXPECT_EQ(std::string(10000, '\0') + "tail", ReadWholeFile(strPath));
}


bool IsDir(const std::string& s)
{
    struct stat st;
    return stat(s.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Every directory followed by a slash is made, not the last part of a file's
// path. A file synced into a directory MakeDir made must outlive a power
// loss: the directory's own name is synced into its parent, and a failure of
// that sync is told to the caller who asks.
TEST_F(FileIOTest, MadeDirectoriesOutliveAPowerLossAndAFailedSyncIsTold)
{
    const std::string strRoot = m_tree.Root(), strFile = strRoot + "/p/q/f";
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    int nErr = -1;
    EXPECT_EQ(MakeDir(strFile.c_str(), &nErr), 1);
    EXPECT_EQ(0, nErr);
    int fd = io.Open(strFile.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, io.FSync(fd));
    io.Close(fd);
    ASSERT_EQ(0, TalvorSyncParentDirectory(strFile.c_str()));
    io.LosePower();
    EXPECT_TRUE(PathExists(strFile)) << "the file went with a directory whose name was never synced";

    io.FailNext(FileOp::SyncDirectory, EIO);
    EXPECT_EQ(MakeDir((strRoot + "/r/s/").c_str(), &nErr), 1);
    EXPECT_EQ(EIO, nErr);
    EXPECT_TRUE(IsDir(strRoot + "/r/s"));
}

} // namespace
