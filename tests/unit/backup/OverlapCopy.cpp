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
#include <memory>
#include <string>

using namespace talvortest;

const int PIECE = 8192;

// Aligned pieces are one pread and one pwrite each: the third read is the
// third piece, the second write the second. A failed read stops before its
// piece; nothing read after a failure is written.
TEST(OverlapCopy, AFailedReadOrWriteIsToldAtItsPlaceAndNothingAfterItIsWritten)
{
    TempTree tree("overlap");
    ASSERT_TRUE(tree.Ok());
    std::string strBytes(10 * PIECE + 3000, '\0');
    for (char& c : strBytes) c = (char)(rand() & 0xff);
    const std::string strSource = tree.File("source", strBytes), strTarget = tree.Path("target");
    std::unique_ptr<BYTE, decltype(&free)> pBuf0((LPBYTE)get_aligned_buffer(PIECE), &free), pBuf1((LPBYTE)get_aligned_buffer(PIECE), &free);
    LPBYTE arBuf[2] = {pBuf0.get(), pBuf1.get()};
    ASSERT_TRUE(arBuf[0] != nullptr && arBuf[1] != nullptr);
    const struct { FileOp m_eOp; long long m_nNth; int m_nErrno; OVERLAPCOPYSTAGE m_eStage; long long m_nPos; } arCases[] = {
        {FileOp::PRead, 3, EIO, OVERLAPCOPY_READ, 2 * PIECE}, {FileOp::PWrite, 2, ENOSPC, OVERLAPCOPY_WRITE, PIECE}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_nErrno);
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.FailCall(c.m_eOp, c.m_nNth, c.m_nErrno);
        OVERLAPCOPYFAULT stFault;
        CTalvorDirectFile source, target;
        ASSERT_TRUE(source.Open(strSource.c_str(), O_RDONLY));
        ASSERT_TRUE(target.Open(strTarget.c_str(), O_RDWR | O_CREAT | O_TRUNC, FALSE));
        EXPECT_FALSE(TalvorOverlapCopy(&source, 0, &target, 0, 6 * PIECE, arBuf, PIECE, nullptr, nullptr, &stFault));
        target.Close();
        EXPECT_EQ(stFault.m_eStage, c.m_eStage);
        EXPECT_EQ(stFault.m_nPos, c.m_nPos);
        EXPECT_EQ(stFault.m_nErrno, c.m_nErrno);
        EXPECT_EQ(io.Calls(FileOp::PWrite), 2);
        if (c.m_eOp == FileOp::PRead) {
            EXPECT_EQ(ReadWholeFile(strTarget), strBytes.substr(0, 2 * PIECE));
        }
    }
}
