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
    // nPathSize -1: the list with its NUL.
    const struct { std::string strList; int nPathSize; int nResult; std::string strDir; } arCases[] = {
        {"/data/archive/;/mnt/second/", -1, BACKUPDIR_OK, "/data/archive/Backup/"},
        {"/data/archive;/mnt/second/;/third", -1, BACKUPDIR_OK, "/data/archive/Backup/"},
        {"/data/archive/more", 8, BACKUPDIR_OK, "/data/ar/Backup/"},
        {str220 + ";/other/", -1, BACKUPDIR_OK, str220 + "Backup/"},
        {str220NoSlash, -1, BACKUPDIR_OK, str220NoSlash + "/Backup/"},
        {";/data/archive/", -1, BACKUPDIR_EMPTY, ""},
        {"/data", 0, BACKUPDIR_EMPTY, ""},
        {"archive;/data/", -1, BACKUPDIR_RELATIVE, ""},
        {str220 + "c;/other/", -1, BACKUPDIR_TOOLONG, ""},
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

// 132 bytes of fixed head and 296 per record, in steps of 8192: 27 records
// (8124 bytes) fit one step, 28 (8420) take two; 256 (75908) ten.
TEST(BackupHeadArea, SizeRoundsUpTo8192)
{
    EXPECT_EQ(8192, BackupHeadSize(27));
    EXPECT_EQ(16384, BackupHeadSize(28));
    EXPECT_EQ(81920, BackupHeadSize(256));
}
