// Where a backup lands, and how large the head area of a number of files is.
#include "TalvorBackupFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

// Only the first element counts, its "/" is added once, and a list that
// is not terminated is bounded by its size: an element that reaches the
// bound still gets its "/" — without one the name would run on into a
// sibling directory ("/data/arcBackup/"). An empty, relative or too long
// first element is refused with no directory at all, not cut to one
// nobody named.
TEST(BackupDirectory, FirstElementWithOneSlashWithinTheListsSizeOrRefused)
{
    const std::string str220 = "/" + std::string(218, 'a') + "/"; // the longest a first element may be
    const std::string str220NoSlash = "/" + std::string(219, 'b');
    const struct {
        std::string strList;
        int nPathSize; // -1: the list with its NUL
        int nResult;
        std::string strDir;
    } arCases[] = {
        {"/data/archive/;/mnt/second/", -1, BACKUPDIR_OK, "/data/archive/Backup/"},
        {"/data/archive;/mnt/second/;/third", -1, BACKUPDIR_OK, "/data/archive/Backup/"},
        {"/data/archive", -1, BACKUPDIR_OK, "/data/archive/Backup/"},
        {"/", -1, BACKUPDIR_OK, "/Backup/"},
        {"/data/archive/more", 8, BACKUPDIR_OK, "/data/ar/Backup/"},
        {str220 + ";/other/", -1, BACKUPDIR_OK, str220 + "Backup/"},
        {str220NoSlash, -1, BACKUPDIR_OK, str220NoSlash + "/Backup/"},
        {"", -1, BACKUPDIR_EMPTY, ""},
        {";/data/archive/", -1, BACKUPDIR_EMPTY, ""},
        {";", -1, BACKUPDIR_EMPTY, ""},
        {"/data", 0, BACKUPDIR_EMPTY, ""},
        {"data/archive", -1, BACKUPDIR_RELATIVE, ""},
        {"./archive/", -1, BACKUPDIR_RELATIVE, ""},
        {"archive;/data/", -1, BACKUPDIR_RELATIVE, ""},
        {str220 + "c;/other/", -1, BACKUPDIR_TOOLONG, ""},
        {"/" + std::string(400, 'd'), -1, BACKUPDIR_TOOLONG, ""},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE("'" + c.strList + "'");
        char szDir[BACKUP_PATH_MAX];
        memset(szDir, 'x', sizeof(szDir));
        int nSize = c.nPathSize < 0 ? (int)c.strList.size() + 1 : c.nPathSize;
        EXPECT_EQ(c.nResult, TalvorBackupDirectory(c.strList.data(), nSize, szDir));
        ASSERT_NE(nullptr, memchr(szDir, '\0', sizeof(szDir)));
        EXPECT_EQ(c.strDir, szDir);
    }
}

TEST(BackupFilePath, NamedByTheTimestamp)
{
    char szPath[BACKUP_PATH_MAX];
    std::string strList = "/data/archive;/mnt/x";
    ASSERT_EQ(BACKUPDIR_OK, TalvorBackupFilePath(strList.c_str(), (int)strList.size() + 1, 1234567890123LL, szPath));
    EXPECT_STREQ("/data/archive/Backup/TalvorBackup1234567890123.fbk", szPath);
    // The longest directory still leaves room for the largest timestamp.
    std::string str220 = "/" + std::string(219, 'e');
    ASSERT_EQ(BACKUPDIR_OK, TalvorBackupFilePath(str220.c_str(), (int)str220.size() + 1, 9223372036854775807LL, szPath));
    EXPECT_EQ(str220 + "/Backup/TalvorBackup9223372036854775807.fbk", std::string(szPath));
    // A refused directory gives no path at all.
    memset(szPath, 'x', sizeof(szPath));
    EXPECT_EQ(BACKUPDIR_RELATIVE, TalvorBackupFilePath("rel", 4, 5, szPath));
    EXPECT_STREQ("", szPath);
}

// 132 bytes of fixed head and 296 per record, in steps of 8192: 27 records
// (8124 bytes) fit one step, 28 (8420) take two; 256 (75908) ten.
TEST(BackupHeadArea, SizeRoundsUpTo8192)
{
    EXPECT_EQ(8192, BackupHeadSize(27));
    EXPECT_EQ(16384, BackupHeadSize(28));
    EXPECT_EQ(81920, BackupHeadSize(256));
}
