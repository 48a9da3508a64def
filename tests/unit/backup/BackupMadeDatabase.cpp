// A full backup of files laid out as the database maker and the daemon
// lay them out — a system file with its file list, memory-mode files of
// each type, cache-mode table and index files — passes the verifier, and
// the same backup with any one file's copy taken from another file does
// not.
#include "BackupFixture.h"
#include "CacheFileHeadArea.h"
#include "DatabaseKit.h"
#include "DbFileLayout.h"

#include <gtest/gtest.h>

using namespace backuptest;
using namespace talvortest;

namespace {

const long long MIB = 1048576;

std::string SystemFileBytes(const std::string& strDir, const std::vector<FILE_MEMDBFILEINFO>& vRows)
{
    DBSYSFILEPLAN stPlan;
    EXPECT_TRUE(DbPlanSystemFile((int)vRows.size(), DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stPlan));
    std::string strSystem((size_t)DB_SYSTEMFILE_SIZE, '\0');
    EXPECT_TRUE(
        DbBuildSystemFile(stPlan, vRows.data(), 0x77, "Db", strDir.c_str(), (LPBYTE)&strSystem[0], DB_SYSTEMFILE_SIZE));
    return strSystem;
}

std::string CacheFileBytes(BYTE bFileType, BYTE bFileNo, long long nSize, int nMaxObjectNum)
{
    CACHEHEADAREADEF stDef = {bFileNo, bFileType, 0x77, nMaxObjectNum, nSize, 41};
    std::string str((size_t)nSize, '\0');
    EXPECT_TRUE(CacheBuildHeadArea(stDef, (LPBYTE)&str[0], nSize, nullptr));
    return str;
}

FILE_MEMDBFILEINFO Row(BYTE bFileNo, BYTE bFileType, const std::string& strPath, long long nSize)
{
    FILE_MEMDBFILEINFO stRow;
    memset(&stRow, 0, sizeof(stRow));
    stRow.m_bFileNo = bFileNo;
    stRow.m_bFileType = bFileType;
    snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", strPath.c_str());
    stRow.m_nFileSize = nSize;
    return stRow;
}

} // namespace

TEST(BackupMadeDatabase, WholeBackupPassesAndSwappedCopiesDoNot)
{
    TempTree tree("bverify");
    ASSERT_TRUE(tree.Ok());
    struct Made {
        BYTE m_bFileNo;
        BYTE m_bFileType;
        long long m_nSize;
    };
    std::vector<Made> vMade = {{2, FILETYPE_DATA, 2 * MIB},    {3, FILETYPE_BTREEINDEX, 1 * MIB},
                               {4, FILETYPE_KVINDEX, 1 * MIB}, {10, FILETYPE_TABLE, 4 * MIB},
                               {11, FILETYPE_INDEX, 4 * MIB},  {12, FILETYPE_TABLE, 4 * MIB}};
    std::vector<FILE_MEMDBFILEINFO> vRows = {Row(1, FILETYPE_SYSTEM, tree.Path("System.dbf"), DB_SYSTEMFILE_SIZE)};
    std::vector<std::string> vPaths = {tree.Path("System.dbf")};
    for (const Made& m : vMade) {
        std::string strPath = tree.Path("F" + std::to_string(m.m_bFileNo) + ".dbf");
        vRows.push_back(Row(m.m_bFileNo, m.m_bFileType, strPath, m.m_nSize));
        vPaths.push_back(strPath);
        std::string strBytes =
            IsCacheFileType(m.m_bFileType)
                ? CacheFileBytes(m.m_bFileType, m.m_bFileNo, m.m_nSize, m.m_bFileNo == 12 ? 600 : 10)
                : MakeFileBytes(m.m_bFileType, m.m_bFileNo, m.m_nSize, 256 * 1024 + 512 * m.m_bFileNo);
        ASSERT_TRUE(WriteWholeFile(strPath, strBytes));
    }
    ASSERT_TRUE(WriteWholeFile(vPaths[0], SystemFileBytes(tree.Dir(), vRows)));

    std::string strPath = tree.Path("TalvorBackup880044.fbk");
    std::string strWhole = WholeBackupOfFiles(vPaths);
    ASSERT_TRUE(WriteWholeFile(strPath, strWhole));
    {
        Verified v(strPath);
        ASSERT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
        ASSERT_EQ((int)vPaths.size(), v.Report().m_nItemNum);
        for (size_t i = 0; i < vPaths.size(); i++)
            EXPECT_STREQ(vPaths[i].c_str(), v.Report().m_arItem[i].m_lpszFilePath);
    }
    // Each copy with the path of the next file of the same mode swapped in:
    // record and copy then name different files.
    for (size_t i = 1; i + 1 < vPaths.size(); i++) {
        std::vector<std::string> vSwapped = vPaths;
        std::swap(vSwapped[i], vSwapped[i + 1]);
        std::string strSwapped = WholeBackupOfFiles(vSwapped);
        for (size_t r = 0; r < vPaths.size(); r++)
            snprintf(Record(strSwapped, (int)r)->m_lpszFilePath, 256, "%s", vPaths[r].c_str());
        // Records keep their order of file numbers; the copies are swapped.
        std::string strHeadArea = WholeBackupOfFiles(vPaths).substr(0, 8192);
        std::string strMixed = strHeadArea + strSwapped.substr(8192);
        ASSERT_TRUE(WriteWholeFile(strPath, strMixed));
        Verified v(strPath);
        EXPECT_NE(BACKUPVERIFY_WHOLE, v.Status()) << "copies " << i << " and " << i + 1 << " swapped";
    }
}
