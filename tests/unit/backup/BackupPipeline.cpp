// The full backup's pipeline: pieces read ahead of the packer, and the
// packed stream written with several buffers in flight. Order, whole bytes
// and the first failure must survive the overlap.
#include "FaultFileIO.h"
#include "TalvorBackupStream.h"
#include "TalvorFileIO.h"
#include "TalvorReadAhead.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

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
    std::mutex m_mutex;
    std::vector<long long> m_vReads;
};

int ReadSource(void* lpContext, long long nPos, LPBYTE lpBuf, int nSize)
{
    Source* p = (Source*)lpContext;
    {
        std::lock_guard<std::mutex> lock(p->m_mutex);
        p->m_vReads.push_back(nPos);
    }
    if (nPos == p->m_nFailAt) return 7;
    // Reads behind a failed one take their time: they must be over before
    // the failure is told, since the caller may then let the source go.
    p->m_nActive++;
    if (p->m_nFailAt >= 0 && nPos > p->m_nFailAt) usleep(20000);
    memcpy(lpBuf, p->m_strBytes.data() + nPos, (size_t)nSize);
    p->m_nActive--;
    return 0;
}

// Takes every piece the reader hands out; the bytes in order.
std::string Drain(CTalvorReadAhead& reader, int& nLastResult, long long& nLastPos)
{
    std::string strGot;
    long long nPos = 0;
    int nSize = 0;
    LPBYTE lpBuf = nullptr;
    while (reader.Next(nPos, nSize, lpBuf, nLastResult)) {
        EXPECT_EQ(nPos, (long long)strGot.size());
        EXPECT_GT(nSize, 0);
        EXPECT_LE(nSize, PIECE);
        strGot.append((const char*)lpBuf, (size_t)nSize);
    }
    nLastPos = nPos;
    return strGot;
}

} // namespace

TEST(BackupReadAhead, EveryLengthComesWholeInOrderAndEachPieceOnce)
{
    const long long arLength[] = {0, 1, PIECE - 1, PIECE, PIECE + 1, 7 * PIECE + 333};
    CTalvorReadAhead reader;
    ASSERT_TRUE(reader.Init(nullptr, PIECE));
    for (long long nLength : arLength) {
        SCOPED_TRACE(nLength);
        Source src;
        src.m_strBytes = RandomBytes((size_t)nLength);
        reader.Start(ReadSource, &src, nLength, PIECE);
        int nResult = -1;
        long long nPos = -1;
        EXPECT_EQ(Drain(reader, nResult, nPos), src.m_strBytes);
        EXPECT_EQ(nResult, 0);
        EXPECT_EQ((long long)src.m_vReads.size(), (nLength + PIECE - 1) / PIECE);
    }
}

TEST(BackupReadAhead, AFailedReadIsToldAtItsPieceAndNothingAfterItIsHandedOut)
{
    // The caller's own buffer serves as the first slot.
    std::unique_ptr<BYTE, decltype(&free)> pMine((LPBYTE)get_aligned_buffer(PIECE), &free);
    ASSERT_NE(pMine, nullptr);
    for (long long nFailAt : {0LL, 3LL * PIECE, 6LL * PIECE}) {
        SCOPED_TRACE(nFailAt);
        Source src;
        CTalvorReadAhead reader;
        ASSERT_TRUE(reader.Init(pMine.get(), PIECE));
        src.m_strBytes = RandomBytes(6 * PIECE + 100);
        src.m_nFailAt = nFailAt;
        reader.Start(ReadSource, &src, (long long)src.m_strBytes.size(), PIECE);
        int nResult = 0;
        long long nPos = -1;
        EXPECT_EQ(Drain(reader, nResult, nPos), src.m_strBytes.substr(0, (size_t)nFailAt));
        EXPECT_EQ(nResult, 7);
        EXPECT_EQ(nPos, nFailAt);
        EXPECT_EQ(src.m_nActive.load(), 0) << "a read went on after the failure was told";
        LPBYTE lpBuf = nullptr;
        int nSize = 0;
        EXPECT_FALSE(reader.Next(nPos, nSize, lpBuf, nResult));
    }
}

class BackupStreamTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_strPath = m_tree.Path("backup");
    }
    int Open() { return CTalvorFileIO::Current()->Open(m_strPath.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644); }

    TempTree m_tree{"stream"};
    std::string m_strPath;
};

TEST_F(BackupStreamTest, PiecesOfAnySizeLandBackToBackAndTheFileEndsAtTheirEnd)
{
    // Ten buffers' worth in odd pieces: the ring of buffers turns several
    // times, and the last sector is a padded one that the cut removes.
    std::string strData = RandomBytes(10 * PIECE + 77);
    int fd = Open();
    ASSERT_GE(fd, 0);
    {
        CTalvorBackupStream stream;
        ASSERT_TRUE(stream.Begin(fd, HEAD, PIECE));
        for (size_t nAt = 0, nStep = 1; nAt < strData.size(); nAt += nStep, nStep = nStep * 7 % 5003 + 1) {
            size_t nTake = std::min(nStep, strData.size() - nAt);
            ASSERT_TRUE(stream.Append((const BYTE*)strData.data() + nAt, (long long)nTake));
        }
        EXPECT_EQ(stream.Appended(), (long long)strData.size());
        ASSERT_TRUE(stream.Finish(HEAD + (long long)strData.size()));
    }
    CTalvorFileIO::Current()->Close(fd);
    std::string strFile = ReadWholeFile(m_strPath);
    ASSERT_EQ(strFile.size(), HEAD + strData.size());
    EXPECT_EQ(strFile.substr(HEAD), strData);
}

TEST_F(BackupStreamTest, AFailedWriteIsToldAtItsPlaceAndStopsTheStream)
{
    FaultFileIO io;
    ScopedFileIO scoped(&io);
    // Which buffer the second write carries depends on which thread comes
    // first: the failure is looked up where it happened.
    io.FailCall(FileOp::PWrite, 2, ENOSPC);
    int fd = Open();
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
