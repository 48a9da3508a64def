// talvor-backup verify: exit status 0 only for a whole backup, the findings
// and the files a restore would write in its output, and the backup file
// untouched whatever it holds.
#include "BackupFixture.h"
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
