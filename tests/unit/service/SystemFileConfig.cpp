// The parameters of the service: texts of the ini cut to their fields, and
// the write-back.
#include "BreltMemStorage.h"
#include "DatabaseKit.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace talvortest;

namespace {

class SystemFileConfig : public ::testing::Test {
protected:
    void ReadWith(const std::string& strIni)
    {
        m_tree.WriteIni(strIni);
        m_vHead.assign(sizeof(SYSTEMFILEHEAD), 0);
        m_pModule.reset(new CBreltMemStorageModule());
        ASSERT_TRUE(m_pModule->ReadSysConfigParam(nullptr, Head()));
    }
    LPSYSTEMFILEHEAD Head() { return (LPSYSTEMFILEHEAD)m_vHead.data(); }
    std::string Ini() { return ReadWholeFile(m_tree.IniPath()); }

    DatabaseDir m_tree;
    std::vector<BYTE> m_vHead;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
};

} // namespace

TEST_F(SystemFileConfig, TextsAreCutToTheirFields)
{
    ReadWith("databasename=" + std::string(40, 'n') + "\r\narchivedespath=/" + std::string(600, 'a') + "\r\n");
    EXPECT_EQ(std::string(31, 'n'), std::string(Head()->m_cDatabaseName));
    std::string strArchive(Head()->m_lpArchiveDesPath, strnlen(Head()->m_lpArchiveDesPath, 512));
    EXPECT_EQ(510u, strArchive.size());
    EXPECT_EQ('\0', Head()->m_lpArchiveDesPath[510]);
    EXPECT_EQ('\0', Head()->m_lpArchiveDesPath[511]);
}

TEST_F(SystemFileConfig, WriteBackAtExitPutsTheHeadIntoTheIni)
{
    m_tree.WriteIni("Talvor_Develop_Mode=0\r\n");
    m_vHead.assign(sizeof(SYSTEMFILEHEAD), 0);
    LPSYSTEMFILEHEAD h = Head();
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
