// talvor-backup's command line. Its verdicts on backups and chains run end
// to end (ClusterRestore) and against the verifier (BackupVerify).
#include "BackupTool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

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
