// The file list over a loaded database: a list the engine settled again
// reaches the disk, and a list block of another kind stops the walk. The
// refusals of each command are the file commands' tests.
#include "DbFileLayout.h"
#include "PersistenceDb.h"
#include "TestFiles.h"

using namespace talvortest;

namespace {

class ServiceCommands : public ::testing::Test {
protected:
    void SetUp() override { m_db.MakeStartAndSave(); }
    LPFILE_MEMDBFILEINFO Row(BYTE bFileNo) { return m_db.Row(bFileNo); }
    PersistenceDb m_db;
};

} // namespace

TEST_F(ServiceCommands, ASettledListReachesTheDiskAgain)
{
    Row(4)->m_nFileSize = 2 * DB_MIB;
    Row(4)->m_bFileCMD = FILECMD_RESIZE;
    m_db.MarkListChanged();
    ASSERT_EQ(S_OK, m_db.Module().FileCMD(&m_db.m_stCrit));
    ASSERT_EQ(FILECMD_RESIZE_FAILED, Val(Row(4)->m_bFileCMD));
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    // The engine takes the answer back and renames the memory file.
    Row(4)->m_nFileSize = 4 * DB_MIB;
    Row(4)->m_bFileCMD = FILECMD_NONE;
    snprintf(Row(4)->m_lpszTablespaceName, sizeof(Row(4)->m_lpszTablespaceName), "Renamed4");
    m_db.MarkListChanged();
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    std::string strDisk = ReadWholeFile(m_db.SystemPath());
    EXPECT_NE(std::string::npos, strDisk.find("Renamed4"));
}

TEST_F(ServiceCommands, AFileListBlockOfAnotherKindStopsTheWalk)
{
    LPSYSTEMBLOCKHEAD lpBlock = m_db.ListBlock();
    lpBlock->m_nBlockDataStructSize = 352;
    EXPECT_EQ(E_FAIL, m_db.Module().FileCMD(&m_db.m_stCrit));
    lpBlock->m_nBlockDataStructSize = (int)sizeof(FILE_MEMDBFILEINFO);
    std::string strTrace = m_db.m_tree.Trace();
    EXPECT_NE(std::string::npos, strTrace.find("10060002 MemFileCMD The structure size of data block has changed, current "
                                               "system value: 348, recorded value: 352"))
        << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Failed to load memory file data in system file")) << strTrace;
}
