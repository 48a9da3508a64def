// End-to-end: a database made by talvor-mkdb comes up in the daemon. Every
// memory-mode file is in its own segment, equal to the file up to the free
// offset and zero above it; readiness shows in the channel; a SIGTERM
// removes every segment.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

TEST(DatabaseLoad, MadeDatabaseLoadsEveryImageAsItsFileAndStopsClean)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--name", "E2E", "--data-file", "20", "--btree-file", "4", "--kv-file", "8"}));
    WriteDbIni(box, box.DataDir());

    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();

    struct Expect {
        int nFileNo;
        const char* lpName;
        long long nSize;
    } arFiles[] = {{2, "Data2.dbf", 20 * E2E_MIB}, {3, "BTree3.dbf", 4 * E2E_MIB}, {4, "KV4.dbf", 8 * E2E_MIB}};
    Inspection st = Inspect(box, box.DataDir());
    ASSERT_TRUE(st.m_bRan) << st.m_strText;
    EXPECT_TRUE(st.m_bSystemImage);
    EXPECT_EQ(0, st.m_nSystemStatus);  // ready
    for (const Expect& e : arFiles) {
        ASSERT_EQ(1u, st.m_mapFiles.count(e.nFileNo)) << st.m_strText;
        EXPECT_TRUE(st.m_mapFiles[e.nFileNo].m_bImage) << e.lpName;
        EXPECT_EQ(e.nSize, st.m_mapFiles[e.nFileNo].m_nImageSize) << e.lpName;
        EXPECT_EQ(e.nSize, st.m_mapFiles[e.nFileNo].m_nLoadSize) << e.lpName;
        EXPECT_EQ(-1, st.m_mapFiles[e.nFileNo].m_nFirstDiff) << e.lpName;
        EXPECT_EQ(-1, st.m_mapFiles[e.nFileNo].m_nFirstNonZero) << e.lpName;
    }
    EXPECT_EQ(4 * E2E_MIB, st.m_mapFiles[1].m_nLoadSize);

    EXPECT_TRUE(StopDaemon(box, pid));
    Inspection stAfter = Inspect(box, box.DataDir());
    EXPECT_FALSE(stAfter.m_bSystemImage) << stAfter.m_strText;
    for (const Expect& e : arFiles) EXPECT_FALSE(stAfter.m_mapFiles[e.nFileNo].m_bImage) << e.lpName;
}

TEST(DatabaseLoad, MakerRefusesAnExistingDatabaseAndWritesNothing)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "2"}));
    std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), {"System.dbf", "Data2.dbf"});
    std::string strOut;
    EXPECT_EQ(1, MakeDb(box, box.DataDir(), {"--data-file", "3", "--kv-file", "2"}, &strOut));
    EXPECT_NE(std::string::npos, strOut.find("exists already")) << strOut;
    EXPECT_EQ(mapBefore, Snapshot(box.DataDir(), {"System.dbf", "Data2.dbf"}));
    EXPECT_TRUE(ListFiles(box.DataDir(), "KV").empty());
}

// With no cache asked for, the cache-mode files stay unserved: the engine is
// told the cache size is 0, the memory-mode files are served and saved as ever, and the cache-mode files
// are not touched.
TEST(DatabaseLoad, WithNoCacheTheCacheModeFilesAreNamedAndLeftAlone)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--table-file", "4", "--index-file", "4"}));
    const std::vector<std::string> vCacheFiles = {"Table3.dbf", "Index4.dbf"};
    std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), vCacheFiles);
    WriteDbIni(box, box.DataDir());

    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    EXPECT_EQ(0, Val(((LPSYSTEMFILEHEAD)DumpImage(box, 1).data())->m_nTalvorBufferCacheSize));
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_mapFiles[2].m_bImage) << st.m_strText;
    EXPECT_FALSE(st.m_mapFiles[3].m_bImage) << st.m_strText;
    EXPECT_FALSE(st.m_mapFiles[4].m_bImage) << st.m_strText;

    // Passes over a list with cache-mode rows commit what the engine wrote.
    const std::string strJournal = box.Root() + "/journal";
    std::string strOut;
    ASSERT_EQ(0, box.Run({PeerPath(), "data", "--journal", strJournal, "--live", "--count", "300", "--pause-us", "500",
                          "--pass-every", "100", "--seed", "5"},
                         120000, &strOut))
        << strOut << box.ReadDaemonTrace();
    long long nLast = NumberAfter(strOut, "last timestamp ");
    EXPECT_TRUE(StopDaemon(box, pid));
    VerifyJournal(box, strJournal, box.DataDir() + "System.dbf", nLast);
    EXPECT_EQ(mapBefore, Snapshot(box.DataDir(), vCacheFiles));
}
