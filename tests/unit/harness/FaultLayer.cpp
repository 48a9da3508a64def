// The power-loss model every crash test rests on, against real files: a
// power loss keeps exactly what was synced, names included.
#include "FaultFileIO.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <string>
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
