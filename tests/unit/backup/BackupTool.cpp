// talvor-backup verify: exit status 0 only for a whole backup, the findings
// and the files a restore would write in its output, and the backup file
// untouched whatever it holds.
#include "BackupIncrementFixture.h"
#include "BackupTool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace backuptest;
using namespace talvortest;

namespace {

struct ToolRun {
    int m_nExit;
    std::string m_strOut;
    std::string m_strErr;
};

std::string ReadBack(FILE* f)
{
    std::string str;
    rewind(f);
    char szBuf[4096];
    size_t n;
    while ((n = fread(szBuf, 1, sizeof(szBuf), f)) > 0) str.append(szBuf, n);
    fclose(f);
    return str;
}

ToolRun RunTool(std::vector<std::string> vArgs)
{
    vArgs.insert(vArgs.begin(), "talvor-backup");
    std::vector<char*> vArgv;
    for (std::string& s : vArgs) vArgv.push_back(&s[0]);
    FILE* pOut = tmpfile();
    FILE* pErr = tmpfile();
    EXPECT_TRUE(pOut != nullptr && pErr != nullptr);
    ToolRun r;
    r.m_nExit = talvorbackup::RunBackupTool((int)vArgv.size(), vArgv.data(), pOut, pErr);
    r.m_strOut = ReadBack(pOut);
    r.m_strErr = ReadBack(pErr);
    return r;
}

} // namespace

TEST(BackupTool, WholeBackupExitsZeroAndListsTheFiles)
{
    TempTree tree("bverify");
    std::vector<DbFile> vFiles = SampleFiles(tree);
    std::string strPath = tree.Path("TalvorBackup880044.fbk");
    std::string strWhole = WholeBackup(vFiles);
    ASSERT_TRUE(WriteWholeFile(strPath, strWhole));
    ToolRun r = RunTool({"verify", strPath});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_WHOLE, r.m_nExit) << r.m_strOut;
    EXPECT_NE(std::string::npos, r.m_strOut.find("result: whole")) << r.m_strOut;
    EXPECT_NE(std::string::npos, r.m_strOut.find("a restore would write 6 files")) << r.m_strOut;
    for (const DbFile& f : vFiles) {
        std::string strLine = f.m_strPath + ": size " + std::to_string(f.m_nFileSize) + ", " +
                              std::to_string(f.m_nFree) + " bytes from the backup";
        EXPECT_NE(std::string::npos, r.m_strOut.find(strLine)) << strLine << "\n" << r.m_strOut;
    }
    EXPECT_NE(std::string::npos, r.m_strOut.find("timestamp: 880044")) << r.m_strOut;
    EXPECT_EQ(strWhole, ReadWholeFile(strPath));
}

TEST(BackupTool, WholeIncrementExitsZeroAndTellsWhatIsApplied)
{
    TempTree tree("bverify");
    std::vector<IncFile> vFiles = SampleIncrement(tree);
    std::string strPath = tree.Path("TalvorBackup990077.fbk");
    ASSERT_TRUE(WriteWholeFile(strPath, IncrementImage(vFiles)));
    ToolRun r = RunTool({"verify", strPath});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_WHOLE, r.m_nExit) << r.m_strOut;
    EXPECT_NE(std::string::npos, r.m_strOut.find("level: 1  refers to: 880044")) << r.m_strOut;
    EXPECT_NE(std::string::npos, r.m_strOut.find("over the backup of timestamp 880044")) << r.m_strOut;
    // The system file: its head, one map and three blocks.
    EXPECT_NE(std::string::npos, r.m_strOut.find(vFiles[0].m_stFile.m_strPath + ": size 1048576, " +
                                                 std::to_string(15718 + 4096 + 3 * 2048) +
                                                 " bytes from the backup in 5 pieces"))
        << r.m_strOut;
    EXPECT_NE(std::string::npos, r.m_strOut.find(vFiles[2].m_stFile.m_strPath + ": size 131072, unchanged"))
        << r.m_strOut;
}

TEST(BackupTool, RefusedBackupExitsOneWithTheFinding)
{
    TempTree tree("bverify");
    std::vector<DbFile> vFiles = SampleFiles(tree);
    std::string strPath = tree.Path("TalvorBackup880044.fbk");
    std::string strCut = WholeBackup(vFiles);
    strCut.resize(strCut.size() - 1);
    ASSERT_TRUE(WriteWholeFile(strPath, strCut));
    ToolRun r = RunTool({"verify", strPath});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_REFUSED, r.m_nExit);
    EXPECT_NE(std::string::npos, r.m_strOut.find("result: refused (truncated)")) << r.m_strOut;
    EXPECT_EQ(std::string::npos, r.m_strOut.find("a restore would write")) << r.m_strOut;
    EXPECT_EQ(strCut, ReadWholeFile(strPath));

    std::string strPlaceholder = PlaceholderHead((int)vFiles.size());
    std::string strUnfinished = WholeBackup(vFiles);
    strUnfinished.replace(0, strPlaceholder.size(), strPlaceholder);
    ASSERT_TRUE(WriteWholeFile(strPath, strUnfinished));
    r = RunTool({"verify", strPath});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_REFUSED, r.m_nExit);
    EXPECT_NE(std::string::npos, r.m_strOut.find("refused (unfinished)")) << r.m_strOut;

    r = RunTool({"verify", tree.Path("missing.fbk")});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_REFUSED, r.m_nExit);
    EXPECT_FALSE(PathExists(tree.Path("missing.fbk")));
}

TEST(BackupTool, BadCommandLineExitsTwo)
{
    for (const std::vector<std::string>& v : std::vector<std::vector<std::string>>{
             {}, {"verify"}, {"check", "/x"}, {"verify", "/x", "/y"}}) {
        ToolRun r = RunTool(v);
        EXPECT_EQ(talvorbackup::BACKUPTOOL_USAGE, r.m_nExit);
        EXPECT_NE(std::string::npos, r.m_strErr.find("usage:"));
        EXPECT_EQ("", r.m_strOut);
    }
}
