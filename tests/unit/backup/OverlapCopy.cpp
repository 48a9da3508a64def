// The overlapped copy of the restore: nothing read after a failed piece may
// ever be written.
#include "FaultFileIO.h"
#include "TalvorDirectFile.h"
#include "TalvorOverlapCopy.h"
#include "TempTree.h"
#include "TestFiles.h"

#include "LinuxCommonAPI.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <vector>

using namespace talvortest;

namespace {

const int PIECE = 8192;

struct Progress {
    std::vector<long long> m_vSeen;
};

void Note(void* lpContext, long long nCopied) { ((Progress*)lpContext)->m_vSeen.push_back(nCopied); }

class OverlapCopy : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        std::string strBytes(10 * PIECE + 3000, '\0');
        for (size_t i = 0; i < strBytes.size(); i++) strBytes[i] = (char)(rand() & 0xff);
        m_strSource = m_tree.File("source", strBytes);
        m_strBytes = strBytes;
        m_arBuf[0] = (LPBYTE)get_aligned_buffer(PIECE);
        m_arBuf[1] = (LPBYTE)get_aligned_buffer(PIECE);
        ASSERT_TRUE(m_arBuf[0] != nullptr && m_arBuf[1] != nullptr);
    }
    void TearDown() override
    {
        free(m_arBuf[0]);
        free(m_arBuf[1]);
    }
    // Copies nLength bytes at nFrom of the source to the start of a new target.
    BOOL Copy(long long nFrom, long long nLength, OVERLAPCOPYFAULT& stFault, Progress& stProgress)
    {
        CTalvorDirectFile source, target;
        EXPECT_TRUE(source.Open(m_strSource.c_str(), O_RDONLY));
        EXPECT_TRUE(target.Open(m_tree.Path("target").c_str(), O_RDWR | O_CREAT | O_TRUNC, FALSE));
        BOOL bDone = TalvorOverlapCopy(&source, nFrom, &target, 0, nLength, m_arBuf, PIECE, Note, &stProgress, &stFault);
        target.Close();
        return bDone;
    }
    std::string Target() { return ReadWholeFile(m_tree.Path("target")); }

    TempTree m_tree{"overlap"};
    std::string m_strSource, m_strBytes;
    LPBYTE m_arBuf[2] = {nullptr, nullptr};
};

} // namespace

TEST_F(OverlapCopy, EveryLengthAndOffsetLandsWhole)
{
    const long long arFrom[] = {0, 512, 1000};
    const long long arLength[] = {1, PIECE - 1, PIECE, PIECE + 1, 3 * PIECE + 777, 9 * PIECE};
    for (long long nFrom : arFrom) {
        for (long long nLength : arLength) {
            OVERLAPCOPYFAULT stFault;
            Progress stProgress;
            ASSERT_TRUE(Copy(nFrom, nLength, stFault, stProgress)) << nFrom << "+" << nLength;
            EXPECT_EQ(Target(), m_strBytes.substr((size_t)nFrom, (size_t)nLength)) << nFrom << "+" << nLength;
        }
    }
}

TEST_F(OverlapCopy, AFailedReadStopsBeforeItsPieceAndNothingAfterIsWritten)
{
    // Aligned pieces are one pread each: the third read is the third piece.
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    io.FailCall(FileOp::PRead, 3, EIO);
    OVERLAPCOPYFAULT stFault;
    Progress stProgress;
    EXPECT_FALSE(Copy(0, 6 * PIECE, stFault, stProgress));
    EXPECT_EQ(stFault.m_eStage, OVERLAPCOPY_READ);
    EXPECT_EQ(stFault.m_nPos, 2 * PIECE);
    EXPECT_EQ(stFault.m_nErrno, EIO);
    EXPECT_EQ(io.Calls(FileOp::PWrite), 2);
    EXPECT_EQ(Target(), m_strBytes.substr(0, 2 * PIECE));
}

TEST_F(OverlapCopy, AFailedWriteIsReportedAtItsTargetPositionAndEndsTheCopy)
{
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    io.FailCall(FileOp::PWrite, 2, ENOSPC);
    OVERLAPCOPYFAULT stFault;
    Progress stProgress;
    EXPECT_FALSE(Copy(0, 6 * PIECE, stFault, stProgress));
    EXPECT_EQ(stFault.m_eStage, OVERLAPCOPY_WRITE);
    EXPECT_EQ(stFault.m_nPos, PIECE);
    EXPECT_EQ(stFault.m_nErrno, ENOSPC);
    EXPECT_EQ(io.Calls(FileOp::PWrite), 2);
}
