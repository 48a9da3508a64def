// The parameters of the service: the keys of the ini at their defaults and
// limits, and the write-back.
#include "BreltMemStorage.h"
#include "DatabaseKit.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

using namespace talvortest;

namespace {

typedef std::function<long long(CBreltMemStorageModule&, LPSYSTEMFILEHEAD)> FieldOf;

// A key of [System]: its field, its value when the ini lacks it, and values
// written with what is read from them (the limits on either side).
struct KeyCase {
    const char* m_lpKey;
    FieldOf m_fnField;
    long long m_nDefault;
    std::vector<std::pair<const char*, long long>> m_vSet;
};

// Whole ini texts for the keys whose section or neighbours matter.
struct ConfigCase {
    const char* m_lpIni;
    const char* m_lpField;
    FieldOf m_fnField;
    long long m_nExpected;
};

#define HEAD(f) [](CBreltMemStorageModule&, LPSYSTEMFILEHEAD h) -> long long { return (long long)h->f; }
#define MODULE(f) [](CBreltMemStorageModule& m, LPSYSTEMFILEHEAD) -> long long { return (long long)m.f; }
#define GLOBAL(g) [](CBreltMemStorageModule&, LPSYSTEMFILEHEAD) -> long long { return (long long)g; }

const long long MIB = 1048576;

std::vector<KeyCase> KeyCases()
{
    return {
        {"listenip", HEAD(m_nTCPListenIP), 0, {{"10.1.2.3", 0x0A010203}, {"bogus", 0}}},
        {"event_scheduler", HEAD(m_nEventScheduler), 0, {{"oN", 1}, {"1", 1}, {"ONE", 0}, {"11", 0}}},
        {"MaxTransaction", HEAD(m_nObjectTransactionMaxNum), 1000,
         {{"31", 32}, {"32", 32}, {"1020", 1020}, {"1021", 1020}}},
        {"LRUPercent", MODULE(m_nLRUPercent), 80, {{"1", 2}, {"2", 2}, {"98", 98}, {"99", 98}}},
        {"undoareasize", HEAD(m_nMemoryUndoSize), 256, {{"7", 32}, {"8", 8}, {"4095", 4095}, {"4096", 4000}}},
        {"processprivatearea", HEAD(m_nMemoryProcessSize), 2 * MIB,
         {{"0", 2 * MIB}, {"1", 1 * MIB}, {"128", 128 * MIB}, {"129", 2 * MIB}}},
        {"buffercachesize", HEAD(m_nTalvorBufferCacheSize), 1024, {{"0", 0}, {"31", 64}, {"32", 32}}},
        {"TableNamesLower", HEAD(m_nTableNamesLower), 5, {{"77", 5}, {"1", 1}}},
        {"Talvor_Develop_Mode", HEAD(m_nTalvorDevelopMode), 1, {{"77", 1}, {"0", 0}}},
        {"forceflushlog", GLOBAL(g_nForceFlushLog), 1, {{"0", 0}}},
        {"clusternode", GLOBAL(g_nNodeIdentity), 0, {{"3", 3}}},
    };
}

std::vector<ConfigCase> Cases()
{
    return {
        {"[Config]\r\nclusternode=2\r\n", "clusternode(Config)", MODULE(m_nClusterNodeType), 2},
        {"[Config]\r\nclusternode=2\r\n", "clusternode(System) apart", GLOBAL(g_nNodeIdentity), 0},
        {"[Config]\r\nclustervip=10.0.0.5\r\n", "clustervip", HEAD(m_nTalvorVirtualIP), 0x0A000005},
        {"[Config]\r\nclustervip=127.0.0.1\r\n", "clustervip", HEAD(m_nTalvorVirtualIP), 0},
        {"listenport=9000\r\n", "clustervipport follows", HEAD(m_nTalvorVirtualPort), 9000},
        {"listenport=9000\r\n[Config]\r\nclustervipport=7000\r\n", "clustervipport",
         HEAD(m_nTalvorVirtualPort), 7000},
    };
}

class SystemFileConfig : public ::testing::Test {
protected:
    void ReadWith(const std::string& strIni)
    {
        m_tree.WriteIni(strIni);
        m_vHead.assign(sizeof(SYSTEMFILEHEAD), 0);
        // Values the head holds before the read: the keys that keep the
        // head's value when absent must show these.
        Head()->m_nTableNamesLower = 5;
        Head()->m_nTalvorDevelopMode = 1;
        m_pModule.reset(new CBreltMemStorageModule());
        g_nWriteBlockLog = g_nForceFlushLog = g_nCluster = g_nNodeIdentity = -1;
        ASSERT_TRUE(m_pModule->ReadSysConfigParam(nullptr, Head()));
    }
    LPSYSTEMFILEHEAD Head() { return (LPSYSTEMFILEHEAD)m_vHead.data(); }
    // The path GetSystemFilePath gives with the ini strIni.
    std::string SystemFileWith(const std::string& strIni)
    {
        WriteWholeFile(m_tree.IniPath(), strIni);
        TalvorConfigInit(m_tree.IniPath().c_str());
        char szPath[MAX_PATH], szName[64];
        CBreltMemStorageModule().GetSystemFilePath(nullptr, szPath, szName);
        return szPath;
    }
    std::string Ini() { return ReadWholeFile(m_tree.IniPath()); }

    DatabaseDir m_tree;
    std::vector<BYTE> m_vHead;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
};

} // namespace

TEST_F(SystemFileConfig, EveryKeyWithItsDefaultAndLimits)
{
    for (const KeyCase& c : KeyCases()) {
        ReadWith("");
        EXPECT_EQ(c.m_nDefault, c.m_fnField(*m_pModule, Head())) << c.m_lpKey << " absent";
        for (const auto& set : c.m_vSet) {
            ReadWith(std::string(c.m_lpKey) + "=" + set.first + "\r\n");
            EXPECT_EQ(set.second, c.m_fnField(*m_pModule, Head())) << c.m_lpKey << "=" << set.first;
        }
    }
    for (const ConfigCase& c : Cases()) {
        ReadWith(c.m_lpIni);
        EXPECT_EQ(c.m_nExpected, c.m_fnField(*m_pModule, Head())) << c.m_lpField << " from \"" << c.m_lpIni << "\"";
    }
}

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
    std::string strIni = Ini();
    for (const char* lpLine : {"systemfile=Main.dbf", "databasename=Db7", "databasepath=/srv/db7/",
                               "archivedespath=/srv/archive/"})
        EXPECT_NE(std::string::npos, strIni.find(lpLine)) << lpLine << "\n" << strIni;
}

TEST_F(SystemFileConfig, SystemFileIsFoundUnderTheDatabaseDirectory)
{
    EXPECT_EQ(m_tree.Dir() + "System.dbf",
              SystemFileWith("[System]\r\ndatabasepath=" + m_tree.Dir() + "\r\n"));
    // A "/" is added to the directory; an absolute name stands alone.
    EXPECT_EQ("/elsewhere/S.dbf",
              SystemFileWith("[System]\r\ndatabasepath=/srv/db/\r\nsystemfile=/elsewhere/S.dbf\r\n"));
    EXPECT_EQ("/srv/db/Main.dbf",
              SystemFileWith("[System]\r\ndatabasepath=/srv/db\r\nsystemfile=Main.dbf\r\n"));
    // The install form falls back to the same rule without a copy beside the
    // program, and leaves the ini as it was.
    char szPath[MAX_PATH], szName[64], szDir[256] = {0}, szDb[] = "Talvor";
    CBreltMemStorageModule().GetSystemFilePath(nullptr, szPath, szName, szDir, szDb);
    EXPECT_STREQ("/srv/db/Main.dbf", szPath);
    EXPECT_STREQ("", szDir);
    EXPECT_NE(std::string::npos, Ini().find("databasepath=/srv/db\r\n"));
    m_tree.WriteIni("");
}
