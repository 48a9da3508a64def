// The parameters of the service written back to the ini.
#include "BreltMemStorage.h"
#include "DatabaseKit.h"

#include <gtest/gtest.h>

#include <vector>

using namespace talvortest;

namespace {

class SystemFileConfig : public ::testing::Test {
protected:
    std::string Ini() { return ReadWholeFile(m_tree.IniPath()); }

    DatabaseDir m_tree;
    std::vector<BYTE> m_vHead;
};

} // namespace

TEST_F(SystemFileConfig, WriteBackAtExitPutsTheHeadIntoTheIni)
{
    m_tree.WriteIni("Talvor_Develop_Mode=0\r\n");
    m_vHead.assign(sizeof(SYSTEMFILEHEAD), 0);
    LPSYSTEMFILEHEAD h = (LPSYSTEMFILEHEAD)m_vHead.data();
    h->m_bStatus = 1;
    strcpy(h->m_cDatabaseName, "Db7");
    strcpy(h->m_cDatabasePath, "/srv/db7/");
    strcpy(h->m_lpArchiveDesPath, "/srv/archive/");
    CBreltMemStorageModule stModule;
    // A head without its mark writes nothing and leaves the status.
    const std::string strBefore = Ini();
    h->m_nDataFlag = DATAFILE_DATAFLAG;
    EXPECT_FALSE(stModule.WriteSysConfigParam(nullptr, h, FALSE, TRUE));
    EXPECT_EQ(1, h->m_bStatus);
    EXPECT_EQ(strBefore, Ini());
    h->m_nDataFlag = SYSTEMFILE_DATAFLAG;
    FILEINFO stSystem = {};
    strcpy(stSystem.m_lpszFilePath, "/srv/db7/Main.dbf");
    stModule.m_lpSystemFileInfo = &stSystem;
    ASSERT_TRUE(stModule.WriteSysConfigParam(nullptr, h, FALSE, TRUE));
    stModule.m_lpSystemFileInfo = nullptr;
    EXPECT_EQ(0, h->m_bStatus);
    // The next start finds the system file by the name written here.
    EXPECT_NE(std::string::npos, Ini().find("systemfile=Main.dbf")) << Ini();
}
