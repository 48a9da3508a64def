// talvor-backup's command line. Its verdicts on backups and chains run end
// to end (ClusterRestore) and against the verifier (BackupVerify).
#include "BackupTool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

// A verb without its file is a bad command line, not a verdict on a
// backup: a script must not read it as "refused", nor find one on its output.
TEST(BackupTool, AVerbWithoutItsFileIsABadCommandLine)
{
    std::string strName = "talvor-backup", strVerb = "verify";
    char* arArgv[] = {&strName[0], &strVerb[0]};
    FILE* pOut = tmpfile();
    FILE* pErr = tmpfile();
    ASSERT_TRUE(pOut != nullptr && pErr != nullptr);
    EXPECT_EQ(talvorbackup::BACKUPTOOL_USAGE, talvorbackup::RunBackupTool(2, arArgv, pOut, pErr));
    EXPECT_EQ(0L, ftell(pOut));
    EXPECT_NE(0L, ftell(pErr));
    fclose(pOut);
    fclose(pErr);
}
