// The full backup's pipeline: pieces read ahead of the packer, and the
// packed stream written with several buffers in flight. Order, whole bytes
// and the first failure must survive the overlap.
#include "FaultFileIO.h"
#include "TalvorBackupStream.h"
#include "TalvorReadAhead.h"
#include "TempTree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

using namespace talvortest;

namespace {

const int PIECE = 4096;
const long long HEAD = 512;

std::string RandomBytes(size_t nSize)
{
    std::string s(nSize, '\0');
    for (char& c : s) c = (char)(rand() & 0xff);
    return s;
}

// A source in memory; a read at m_nFailAt fails with code 7.
struct Source {
    std::string m_strBytes;
    long long m_nFailAt = -1;
    std::atomic<int> m_nActive{0};
};

int ReadSource(void* lpContext, long long nPos, LPBYTE lpBuf, int nSize)
{
    Source* p = (Source*)lpContext;
    if (nPos == p->m_nFailAt) return 7;
    // Reads behind a failed one take their time: they must be over before
    // the failure is told, since the caller may then let the source go.
    p->m_nActive++;
    if (p->m_nFailAt >= 0 && nPos > p->m_nFailAt) usleep(20000);
    memcpy(lpBuf, p->m_strBytes.data() + nPos, (size_t)nSize);
    p->m_nActive--;
    return 0;
}

} // namespace

// Every length comes whole and in order; a failed read
// is told at its piece and nothing after it is handed out.
TEST(BackupReadAhead, PiecesComeInOrderOnceAndAFailureIsToldAtItsPiece)
{
    // The caller's own buffer serves as the first slot.
    std::unique_ptr<BYTE, decltype(&free)> pMine((LPBYTE)get_aligned_buffer(PIECE), &free);
    ASSERT_NE(pMine, nullptr);
    const std::pair<long long, long long> arCases[] = {{0, -1}, {1, -1}, {PIECE, -1}, {PIECE + 1, -1}, {7 * PIECE + 333, -1},
                                                       {6 * PIECE + 100, 0}, {6 * PIECE + 100, 3 * PIECE}, {6 * PIECE + 100, 6 * PIECE}};
    // One reader for the whole lengths, as a backup runs every file through
    // one; a fresh one for each failure.
    CTalvorReadAhead shared;
    ASSERT_TRUE(shared.Init(pMine.get(), PIECE));
    for (const auto& c : arCases) {
        SCOPED_TRACE(testing::Message() << c.first << " failing at " << c.second);
        const bool bFails = c.second >= 0;
        Source src;
        CTalvorReadAhead fresh;
        CTalvorReadAhead& reader = bFails ? fresh : shared;
        if (bFails) {
            ASSERT_TRUE(fresh.Init(pMine.get(), PIECE));
        }
        src.m_strBytes = RandomBytes((size_t)c.first);
        src.m_nFailAt = c.second;
        reader.Start(ReadSource, &src, c.first, PIECE);
        // Every piece handed out, in order.
        int nResult = -1, nSize = 0;
        long long nPos = 0;
        LPBYTE lpBuf = nullptr;
        std::string strGot;
        while (reader.Next(nPos, nSize, lpBuf, nResult)) {
            EXPECT_EQ(nPos, (long long)strGot.size());
            EXPECT_TRUE(nSize > 0 && nSize <= PIECE) << nSize;
            strGot.append((const char*)lpBuf, (size_t)nSize);
        }
        EXPECT_EQ(strGot, bFails ? src.m_strBytes.substr(0, (size_t)c.second) : src.m_strBytes);
        EXPECT_EQ(nResult, bFails ? 7 : 0);
        if (!bFails) continue;
        EXPECT_EQ(nPos, c.second);
        EXPECT_EQ(src.m_nActive.load(), 0) << "a read went on after the failure was told";
        EXPECT_FALSE(reader.Next(nPos, nSize, lpBuf, nResult));
    }
}

TEST(BackupStream, AFailedWriteIsToldAtItsPlaceAndStopsTheStream)
{
    TempTree tree("stream");
    ASSERT_TRUE(tree.Ok());
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    // Which buffer the second write carries depends on which thread comes
    // first: the failure is looked up where it happened.
    io.FailCall(FileOp::PWrite, 2, ENOSPC);
    int fd = io.Open(tree.Path("backup").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    std::string strData = RandomBytes(8 * PIECE);
    CTalvorBackupStream stream;
    ASSERT_TRUE(stream.Begin(fd, HEAD, PIECE));
    BOOL bAppended = TRUE;
    for (int i = 0; i < 8 && bAppended; i++) bAppended = stream.Append((const BYTE*)strData.data() + i * PIECE, PIECE);
    EXPECT_FALSE(bAppended && stream.Finish(HEAD + (long long)strData.size()));
    EXPECT_EQ(stream.FailedErrno(), ENOSPC);
    long long nFailedAt = -1, nLastSent = -1;
    for (const FileWrite& w : io.Writes()) {
        if (w.m_nResult < 0) nFailedAt = w.m_nOffset;
        nLastSent = std::max(nLastSent, w.m_nOffset);
    }
    EXPECT_EQ(stream.FailedAt(), nFailedAt);
    // Only the buffers already on their way when the failure was seen
    // follow it.
    EXPECT_LE(nLastSent, nFailedAt + (BACKUPSTREAM_BUFFERS - 1) * PIECE);
    io.Close(fd);
}
