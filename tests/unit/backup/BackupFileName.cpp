// Where a backup lands, and how large the head area of a number of files is.
#include "TalvorBackupFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

struct DirResult {
    int m_nResult;
    std::string m_strDir;
};

DirResult Directory(const std::string& strList, int nPathSize = -1)
{
    char szDir[BACKUP_PATH_MAX];
    memset(szDir, 'x', sizeof(szDir));
    int n = TalvorBackupDirectory(strList.data(), nPathSize < 0 ? (int)strList.size() + 1 : nPathSize, szDir);
    return {n, szDir};
}

} // namespace

// Only the first element counts, its "/" is added once, and a list that
// is not terminated is bounded by its size: an element that reaches the
// bound still gets its "/" — without one the name would run on into a
// sibling directory ("/data/arcBackup/").
TEST(BackupDirectory, FirstElementWithOneSlashWithinTheListsSize)
{
    const struct {
        const char* lpList;
        int nPathSize;
        const char* lpDir;
    } arCases[] = {
        {"/data/archive/;/mnt/second/", -1, "/data/archive/Backup/"},
        {"/data/archive;/mnt/second/;/third", -1, "/data/archive/Backup/"},
        {"/data/archive", -1, "/data/archive/Backup/"},
        {"/", -1, "/Backup/"},
        {"/data/archive/more", 8, "/data/ar/Backup/"},
    };
    for (const auto& c : arCases) {
        DirResult r = Directory(c.lpList, c.nPathSize);
        EXPECT_EQ(BACKUPDIR_OK, r.m_nResult) << c.lpList;
        EXPECT_EQ(c.lpDir, r.m_strDir) << c.lpList;
    }
}

TEST(BackupDirectory, EmptyRelativeOrTooLongIsRefused)
{
    for (const char* lpList : {"", ";/data/archive/", ";"}) {
        DirResult r = Directory(lpList);
        EXPECT_EQ(BACKUPDIR_EMPTY, r.m_nResult) << "'" << lpList << "'";
        EXPECT_EQ("", r.m_strDir);
    }
    EXPECT_EQ(BACKUPDIR_EMPTY, Directory("/data", 0).m_nResult);
    for (const char* lpList : {"data/archive", "./archive/", "archive;/data/"}) {
        DirResult r = Directory(lpList);
        EXPECT_EQ(BACKUPDIR_RELATIVE, r.m_nResult) << lpList;
        EXPECT_EQ("", r.m_strDir);
    }
    // 220 characters are the most a first element may have.
    std::string str220 = "/" + std::string(218, 'a') + "/";
    DirResult r = Directory(str220 + ";/other/");
    EXPECT_EQ(BACKUPDIR_OK, r.m_nResult);
    EXPECT_EQ(str220 + "Backup/", r.m_strDir);
    std::string str220NoSlash = "/" + std::string(219, 'b');
    r = Directory(str220NoSlash);
    EXPECT_EQ(BACKUPDIR_OK, r.m_nResult);
    EXPECT_EQ(str220NoSlash + "/Backup/", r.m_strDir);
    // One more is refused, not cut to a directory nobody named.
    r = Directory(str220 + "c;/other/");
    EXPECT_EQ(BACKUPDIR_TOOLONG, r.m_nResult);
    EXPECT_EQ("", r.m_strDir);
    EXPECT_EQ(BACKUPDIR_TOOLONG, Directory("/" + std::string(400, 'd')).m_nResult);
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
