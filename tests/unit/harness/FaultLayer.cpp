// The fault layer itself, against real files: a failed call changes
// nothing, a cut write lands only its head, a dead device refuses every
// change, and a power loss keeps exactly what was synced (plus any chosen
// subset of what was not), names included.
#include "FaultFileIO.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

const int RW_CREATE = O_RDWR | O_CREAT | O_CLOEXEC;

class FaultLayer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_tree.Ok()); }
    // Writes through the layer; the count moved or -1.
    ssize_t Put(int fd, const std::string& s, off_t nOffset) { return m_io.PWrite(fd, s.data(), s.size(), nOffset); }
    int OpenRW(const std::string& strPath, int nFlags = O_RDWR) { return m_io.Open(strPath.c_str(), nFlags, 0644); }
    // Creates strPath through the layer with strText, synced (its name not).
    void CreateSynced(const std::string& strPath, int nExtraFlags, const std::string& strText)
    {
        int fd = OpenRW(strPath, RW_CREATE | nExtraFlags);
        ASSERT_EQ((ssize_t)strText.size(), Put(fd, strText, 0));
        ASSERT_EQ(0, m_io.FSync(fd));
        m_io.Close(fd);
    }

    TempTree m_tree{"fault"};
    FaultFileIO m_io;
};

} // namespace

TEST_F(FaultLayer, NthCallOfAKindFailsWithItsErrnoAndNothingElseDoes)
{
    std::string strPath = m_tree.File("f", "0123456789");
    m_io.FailCall(FileOp::PWrite, 2, ENOSPC);
    m_io.FailCall(FileOp::Rename, 1, EXDEV, FAULT_ALWAYS);
    int fd = OpenRW(strPath);
    EXPECT_EQ(1, Put(fd, "A", 0));
    EXPECT_TRUE(Put(fd, "B", 1) == -1 && errno == ENOSPC);
    EXPECT_EQ(1, Put(fd, "C", 2));
    EXPECT_EQ("A1C3456789", ReadWholeFile(strPath)) << "the failed write left its bytes";
    // Relative to now: the next two syncs fail, the third does not.
    m_io.FailNext(FileOp::FSync, EIO, 2);
    for (int nWant : {-1, -1, 0}) EXPECT_EQ(nWant, m_io.FSync(fd));
    for (int i = 0; i < 3; i++) EXPECT_TRUE(m_io.Rename(strPath.c_str(), m_tree.Path("g").c_str()) == -1 && errno == EXDEV);
    EXPECT_TRUE(PathExists(strPath));
    EXPECT_EQ(0, m_io.Close(fd));
    EXPECT_EQ(3, m_io.Calls(FileOp::PWrite));
}

TEST_F(FaultLayer, CutTransfersMoveOnlyTheirHeadAndReadsMeetAnEarlyEnd)
{
    std::string strPath = m_tree.File("f", std::string(16, '.'));
    m_io.CutTransfer(FileOp::PWrite, 1, 3);
    m_io.CutTransfer(FileOp::PRead, 2, 2);
    int fd = OpenRW(strPath);
    EXPECT_EQ(3, Put(fd, "abcdefgh", 4));
    EXPECT_EQ("....abc.........", ReadWholeFile(strPath));
    EXPECT_EQ(8, Put(fd, "ABCDEFGH", 4)) << "only the first write is cut";
    char sz[16] = {0};
    EXPECT_EQ(6, m_io.PRead(fd, sz, 6, 4));
    EXPECT_EQ(2, m_io.PRead(fd, sz, 6, 4)) << "the second read is cut";
    EXPECT_EQ("AB", std::string(sz, 2));
    m_io.ReadsEndAt(10);
    EXPECT_EQ(4, m_io.PRead(fd, sz, 16, 6));
    EXPECT_EQ("CDEF", std::string(sz, 4));
    m_io.Close(fd);
}

// A call of a held kind waits until the test lets it go; hooks see each
// call before and after it.
TEST_F(FaultLayer, HeldCallsWaitForTheReleaseAndHooksSeeEveryCall)
{
    std::string strPath = m_tree.File("f", "....");
    int fd = OpenRW(strPath);
    std::vector<std::string> vSeen;
    m_io.OnCall(FileOp::PWrite, [&](const FileCall& c) { vSeen.push_back("before " + std::to_string(c.m_nOffset)); });
    m_io.AfterCall(FileOp::PWrite, [&](const FileCall& c) {
        vSeen.push_back("after " + std::to_string(c.m_nResult) + " " + ReadWholeFile(strPath));
    });
    m_io.Hold(FileOp::PWrite);
    std::atomic<bool> bWritten{false};
    std::thread writer([&] {
        Put(fd, "ab", 1);
        bWritten = true;
    });
    ASSERT_TRUE(m_io.WaitHeld(5000));
    usleep(20000);
    EXPECT_FALSE(bWritten.load()) << "the held write went through";
    EXPECT_EQ("....", ReadWholeFile(strPath));
    m_io.Release();
    writer.join();
    EXPECT_EQ(1, m_io.Held());
    EXPECT_EQ((std::vector<std::string>{"before 1", "after 2 .ab."}), vSeen);
    m_io.Close(fd);
}

TEST_F(FaultLayer, DeadDeviceRefusesEveryChangeButReadsGoOn)
{
    std::string strPath = m_tree.File("f", "xxxx");
    m_io.DieAfter(FileOp::PWrite, 2);
    int fd = OpenRW(strPath);
    EXPECT_EQ(0, m_io.FSync(fd)) << "alive before its second write";
    EXPECT_EQ(1, Put(fd, "a", 0));
    EXPECT_EQ(1, Put(fd, "b", 1));
    EXPECT_TRUE(m_io.FSync(fd) == -1 && errno == EIO) << "dead once the second write was made";
    EXPECT_EQ(-1, Put(fd, "c", 2));
    EXPECT_EQ(-1, m_io.Unlink(strPath.c_str()));
    char sz[4] = {0};
    EXPECT_EQ(4, m_io.PRead(fd, sz, 4, 0));
    EXPECT_EQ("abxx", std::string(sz, 4));
    m_io.Close(fd);
}

TEST_F(FaultLayer, PowerLossKeepsWhatWasSyncedAndDropsTheRest)
{
    std::string strOne = m_tree.File("one", std::string(100, '0'));
    std::string strTwo = m_tree.File("two", "two before");
    std::string strSync = m_tree.File("sync", "sync before");
    int fdOne = OpenRW(strOne), fdTwo = OpenRW(strTwo), fdSync = OpenRW(strSync, O_RDWR | O_SYNC);
    ASSERT_EQ(100, Put(fdOne, std::string(100, 'a'), 0));
    ASSERT_EQ(0, m_io.FSync(fdOne));
    // Past the synced bytes and past the end of the file: both undone.
    ASSERT_EQ(100, Put(fdOne, std::string(100, 'b'), 50));
    ASSERT_EQ(3, Put(fdTwo, "TWO", 0));
    ASSERT_EQ(0, m_io.FTruncate(fdTwo, 2));
    ASSERT_EQ(4, Put(fdSync, "SYNC", 0));
    ASSERT_EQ(3u, m_io.Unsynced().size());
    // A second descriptor's sync covers the file too.
    int fdTwoAgain = OpenRW(strTwo, O_RDONLY);
    m_io.Close(fdOne);
    m_io.LosePower();
    EXPECT_EQ(std::string(100, 'a'), ReadWholeFile(strOne));
    EXPECT_EQ("two before", ReadWholeFile(strTwo));
    EXPECT_EQ("SYNC before", ReadWholeFile(strSync)) << "an O_SYNC write is on the medium when it returns";
    EXPECT_TRUE(m_io.Unsynced().empty());

    ASSERT_EQ(3, Put(fdTwo, "TWO", 0));
    ASSERT_EQ(0, m_io.FSync(fdTwoAgain));
    m_io.LosePower();
    EXPECT_EQ("TWO before", ReadWholeFile(strTwo));
    for (int fd : {fdTwo, fdTwoAgain, fdSync}) m_io.Close(fd);
}

// Every subset of four overlapping unsynced changes (one a truncation)
// against a model that applies the kept ones to the synced bytes.
TEST_F(FaultLayer, PowerLossKeepsAnyChosenSubsetInOrder)
{
    struct Step {
        bool m_bTruncate;
        off_t m_nOffset;
        std::string m_strData;
    };
    const std::vector<Step> vSteps = {{false, 2, "AAAA"}, {false, 4, "BBBBBBBBBB"}, {true, 9, ""}, {false, 7, "CC"}};
    const std::string strBase = "0123456789ab";
    for (unsigned nMask = 0; nMask < (1u << vSteps.size()); nMask++) {
        std::string strPath = m_tree.File("subset", strBase);
        FaultFileIO io;
        int fd = io.Open(strPath.c_str(), O_RDWR, 0);
        ASSERT_GE(fd, 0);
        std::string strModel = strBase;
        std::vector<size_t> vKeep;
        for (size_t i = 0; i < vSteps.size(); i++) {
            const Step& s = vSteps[i];
            const size_t nEnd = s.m_nOffset + s.m_strData.size();
            if (s.m_bTruncate)
                ASSERT_EQ(0, io.FTruncate(fd, s.m_nOffset));
            else
                ASSERT_EQ((ssize_t)s.m_strData.size(), io.PWrite(fd, s.m_strData.data(), s.m_strData.size(), s.m_nOffset));
            if ((nMask & (1u << i)) == 0) continue;
            vKeep.push_back(i);
            // A truncation's data is empty: it cuts the model at its offset.
            strModel.resize(s.m_bTruncate ? nEnd : std::max(strModel.size(), nEnd), '\0');
            strModel.replace((size_t)s.m_nOffset, s.m_strData.size(), s.m_strData);
        }
        io.Close(fd);
        io.LosePowerKeeping(vKeep);
        EXPECT_EQ(strModel, ReadWholeFile(strPath)) << "mask " << nMask;
    }
}

TEST_F(FaultLayer, NamesWithoutADirectorySyncMayBeUndone)
{
    const std::string strDir = m_tree.Root();
    // A new file, its data synced, its name not.
    std::string strFresh = m_tree.Path("fresh");
    CreateSynced(strFresh, 0, "data");
    // A file replaced by rename, as the ini is.
    std::string strTarget = m_tree.File("target", "old text");
    std::string strTemp = m_tree.Path("target.tmp");
    CreateSynced(strTemp, O_EXCL, "new text");
    ASSERT_EQ(0, m_io.Rename(strTemp.c_str(), strTarget.c_str()));
    // A removed file and a new directory.
    std::string strVictim = m_tree.File("victim", "still here");
    ASSERT_EQ(0, m_io.Unlink(strVictim.c_str()));
    std::string strNewDir = m_tree.Path("newdir");
    ASSERT_EQ(0, m_io.MkDir(strNewDir.c_str(), 0755));
    m_io.LosePower();
    EXPECT_FALSE(PathExists(strFresh));
    EXPECT_EQ("old text", ReadWholeFile(strTarget));
    EXPECT_FALSE(PathExists(strTemp));
    EXPECT_EQ("still here", ReadWholeFile(strVictim));
    EXPECT_FALSE(PathExists(strNewDir));

    // The same with the directory synced: every name stands.
    CreateSynced(strTemp, O_EXCL, "new text");
    ASSERT_EQ(0, m_io.Rename(strTemp.c_str(), strTarget.c_str()));
    ASSERT_EQ(0, m_io.Unlink(strVictim.c_str()));
    ASSERT_EQ(0, m_io.SyncDirectory(strDir.c_str()));
    m_io.LosePower();
    EXPECT_EQ("new text", ReadWholeFile(strTarget));
    EXPECT_FALSE(PathExists(strTemp));
    EXPECT_FALSE(PathExists(strVictim));

    // Kept names, lost data: the file is there, empty.
    int fd = OpenRW(strFresh, RW_CREATE);
    ASSERT_EQ(4, Put(fd, "data", 0));
    m_io.Close(fd);
    m_io.LosePower(NameLoss::Keep);
    EXPECT_TRUE(PathExists(strFresh));
    EXPECT_EQ("", ReadWholeFile(strFresh));
}
