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

using namespace talvortest;

namespace {

const int PIECE = 8192;

class OverlapCopy : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_strBytes.resize(10 * PIECE + 3000);
        for (char& c : m_strBytes) c = (char)(rand() & 0xff);
        m_strSource = m_tree.File("source", m_strBytes);
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
    BOOL Copy(long long nFrom, long long nLength, OVERLAPCOPYFAULT& stFault)
    {
        CTalvorDirectFile source, target;
        EXPECT_TRUE(source.Open(m_strSource.c_str(), O_RDONLY));
        EXPECT_TRUE(target.Open(m_tree.Path("target").c_str(), O_RDWR | O_CREAT | O_TRUNC, FALSE));
        BOOL bDone = TalvorOverlapCopy(&source, nFrom, &target, 0, nLength, m_arBuf, PIECE, nullptr, nullptr, &stFault);
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
    for (long long nFrom : {0, 512, 1000}) {
        for (long long nLength : {1, PIECE - 1, PIECE, PIECE + 1, 3 * PIECE + 777, 9 * PIECE}) {
            OVERLAPCOPYFAULT stFault;
            ASSERT_TRUE(Copy(nFrom, nLength, stFault)) << nFrom << "+" << nLength;
            EXPECT_EQ(Target(), m_strBytes.substr((size_t)nFrom, (size_t)nLength)) << nFrom << "+" << nLength;
        }
    }
}

// Aligned pieces are one pread and one pwrite each: the third read is the
// third piece, the second write the second. A failed read stops before its
// piece; nothing read after a failure is written.
TEST_F(OverlapCopy, AFailedReadOrWriteIsToldAtItsPlaceAndNothingAfterItIsWritten)
{
    const struct {
        FileOp m_eOp;
        long long m_nNth;
        int m_nErrno;
        OVERLAPCOPYSTAGE m_eStage;
        long long m_nPos;
    } arCases[] = {{FileOp::PRead, 3, EIO, OVERLAPCOPY_READ, 2 * PIECE},
                   {FileOp::PWrite, 2, ENOSPC, OVERLAPCOPY_WRITE, PIECE}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_nErrno);
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.FailCall(c.m_eOp, c.m_nNth, c.m_nErrno);
        OVERLAPCOPYFAULT stFault;
        EXPECT_FALSE(Copy(0, 6 * PIECE, stFault));
        EXPECT_EQ(stFault.m_eStage, c.m_eStage);
        EXPECT_EQ(stFault.m_nPos, c.m_nPos);
        EXPECT_EQ(stFault.m_nErrno, c.m_nErrno);
        EXPECT_EQ(io.Calls(FileOp::PWrite), 2);
        if (c.m_eOp == FileOp::PRead) {
            EXPECT_EQ(Target(), m_strBytes.substr(0, 2 * PIECE));
        }
    }
}
