// talvor-backup verify on an incremental backup. The full backup, its
// refusals and the command line run end to end.
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

TEST(BackupTool, WholeIncrementExitsZeroAndTellsWhatIsApplied)
{
    TempTree tree("bverify");
    std::vector<IncFile> vFiles = SampleIncrement(tree);
    std::string strPath = tree.Path("TalvorBackup990077.fbk");
    ASSERT_TRUE(WriteWholeFile(strPath, IncrementImage(vFiles)));
    ToolRun r = RunTool({"verify", strPath});
    EXPECT_EQ(talvorbackup::BACKUPTOOL_WHOLE, r.m_nExit) << r.m_strOut;
    // The system file: its head, one map and three blocks.
    EXPECT_NE(std::string::npos, r.m_strOut.find(vFiles[0].m_stFile.m_strPath + ": size 1048576, " +
                                                 std::to_string(15718 + 4096 + 3 * 2048) +
                                                 " bytes from the backup in 5 pieces"))
        << r.m_strOut;
}

// A verb without its file is a bad command line, not a verdict on a
// backup: a script must not read it as "refused".
TEST(BackupTool, AVerbWithoutItsFileIsABadCommandLine)
{
    for (const char* lpVerb : {"verify", "nosuchverb"}) {
        ToolRun r = RunTool({lpVerb});
        EXPECT_EQ(talvorbackup::BACKUPTOOL_USAGE, r.m_nExit) << lpVerb << ": " << r.m_strErr;
        EXPECT_EQ("", r.m_strOut) << lpVerb;
    }
}
