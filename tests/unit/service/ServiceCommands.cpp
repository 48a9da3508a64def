// File commands refused over a loaded database: the refusal stands in the
// row, and the file list on disk stays the one the next start opens.
#include "DbFileLayout.h"
#include "PersistenceDb.h"
#include "TestClock.h"
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

TEST_F(ServiceCommands, RefusedFileCommandsLeaveTheListOnDiskAsItWas)
{
    const std::string strListBefore = ReadWholeFile(m_db.SystemPath());
    LPSYSTEMBLOCKHEAD lpBlock = m_db.ListBlock();
    const int nRowsBefore = lpBlock->m_nDataNum;

    // An add of a number that is taken, a move onto another file's path, a
    // resize to a smaller size, a delete of a number nobody holds.
    LPFILE_MEMDBFILEINFO lpNew =
        (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize + nRowsBefore * sizeof(FILE_MEMDBFILEINFO));
    memset(lpNew, 0, sizeof(*lpNew));
    lpNew->m_bFileNo = 2;
    lpNew->m_bFileType = FILETYPE_DATA;
    snprintf(lpNew->m_lpszFilePath, sizeof(lpNew->m_lpszFilePath), "%sNew9.dbf", m_db.m_tree.Dir().c_str());
    snprintf(lpNew->m_lpszTablespaceName, sizeof(lpNew->m_lpszTablespaceName), "New9");
    lpNew->m_nFileSize = 4 * DB_MIB;
    LPFILE_MEMDBFILEINFO lpGhost = lpNew + 1;
    memcpy(lpGhost, lpNew, sizeof(*lpGhost));
    lpGhost->m_bFileNo = 9;
    lpBlock->m_nDataNum = nRowsBefore + 2;
    snprintf(Row(3)->m_lpszFilePath, sizeof(Row(3)->m_lpszFilePath), "%s", m_db.PathOf(4).c_str());
    Row(4)->m_nFileSize = 2 * DB_MIB;
    talvorpeer::PeerFence();
    lpNew->m_bFileCMD = FILECMD_ADD;
    Row(3)->m_bFileCMD = FILECMD_MOVE;
    Row(4)->m_bFileCMD = FILECMD_RESIZE;
    lpGhost->m_bFileCMD = FILECMD_DELETE;
    m_db.MarkListChanged();

    ASSERT_EQ(S_OK, m_db.Module().FileCMD(&m_db.m_stCrit));
    EXPECT_EQ(FILECMD_ADD_NUMBERTAKEN, Val(lpNew->m_bFileCMD));
    EXPECT_EQ(FILECMD_PATHTAKEN, Val(Row(3)->m_bFileCMD));
    EXPECT_EQ(FILECMD_RESIZE_FAILED, Val(Row(4)->m_bFileCMD));
    EXPECT_EQ(FILECMD_NO_SUCH_FILE, Val(lpGhost->m_bFileCMD));
    // Nothing was done: no file made, moved or deleted, no descriptor changed.
    EXPECT_FALSE(PathExists(m_db.m_tree.Dir() + "New9.dbf"));
    EXPECT_TRUE(PathExists(m_db.PathOf(2)));
    EXPECT_TRUE(PathExists(m_db.PathOf(3)));
    EXPECT_EQ(nullptr, m_db.File(9));
    EXPECT_STREQ(m_db.PathOf(3).c_str(), m_db.File(3)->m_lpszFilePath);
    EXPECT_EQ(4 * DB_MIB, Val(m_db.File(4)->m_liFileSize));
    std::string strTrace = m_db.m_tree.Trace();
    EXPECT_NE(std::string::npos, strTrace.find("10060011 MemFileCMD The system received command to create new memory "
                                               "files, but the file number duplicated, so the system refused to "
                                               "execute, file number: 2, original file path: " +
                                               m_db.PathOf(2) + ", new file path: " + m_db.m_tree.Dir() + "New9.dbf"))
        << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("10060021 MemFileCMD")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("10060033 MemFileCMD")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("10060041 MemFileCMD")) << strTrace;

    // The pass commits the engine's timestamp, but not the refused list.
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    EXPECT_EQ(+m_db.Head()->m_nEndTimestamp, m_db.CommittedOnDisk());
    std::string strListAfter = ReadWholeFile(m_db.SystemPath());
    long long nBlockAt = (LPBYTE)lpBlock - m_db.Image(1);
    ASSERT_EQ(strListBefore.size(), strListAfter.size());
    EXPECT_TRUE(0 == memcmp(&strListBefore[(size_t)nBlockAt], &strListAfter[(size_t)nBlockAt], (size_t)lpBlock->m_nBlockSize))
        << "the file list block on disk changed";

    // A second walk leaves the answers: only 1 to 4 are commands.
    size_t nLines = strTrace.size();
    ASSERT_EQ(S_OK, m_db.Module().FileCMD(&m_db.m_stCrit));
    EXPECT_EQ(FILECMD_ADD_NUMBERTAKEN, Val(lpNew->m_bFileCMD));
    EXPECT_EQ(nLines, m_db.m_tree.Trace().size());

    // The next start reads the list it had and opens every file.
    m_db.Stop();
    ASSERT_EQ(S_OK, m_db.Start());
    EXPECT_EQ(nullptr, m_db.File(9));
    ASSERT_NE(nullptr, m_db.File(3));
    EXPECT_STREQ(m_db.PathOf(3).c_str(), m_db.File(3)->m_lpszFilePath);
    EXPECT_EQ(4 * DB_MIB, Val(m_db.File(4)->m_liFileSize));
}

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
