// End-to-end: a database made by talvor-mkdb comes up in the daemon. Every
// memory-mode file is in its own segment, equal to the file up to the free
// offset and zero above it; readiness shows in the channel; a second daemon
// beside it leaves at once and SIGINT changes nothing; a start after a kill
// takes the segments over as they are; a SIGTERM removes every segment. A
// database moved to another directory is corrected.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

TEST(DatabaseLoad, MadeDatabaseLoadsAsItsFilesOutlivesASecondDaemonSigintAndAKillAndStopsClean)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--name", "E2E", "--data-file", "20", "--btree-file", "4", "--kv-file", "8"}));
    // The maker refuses to make another database over it and writes nothing.
    const std::vector<std::string> vFiles = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};
    std::map<std::string, std::string> mapMade = Snapshot(box.DataDir(), vFiles);
    std::vector<std::string> vListed = ListFiles(box.DataDir(), "");
    EXPECT_EQ(1, MakeDb(box, box.DataDir(), {"--data-file", "3", "--kv-file", "2"}));
    EXPECT_TRUE(mapMade == Snapshot(box.DataDir(), vFiles));
    EXPECT_EQ(vListed, ListFiles(box.DataDir(), ""));
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

    // A second daemon beside it leaves at once and writes no log; SIGINT
    // changes nothing.
    std::vector<std::string> vLogs = ListFiles(box.LogDir(), "");
    std::map<std::string, std::string> mapServed = Snapshot(box.DataDir(), vFiles);
    std::string strIni = ReadWholeFile(box.IniPath());
    pid_t pidSecond = box.StartDaemon();
    ASSERT_GT(pidSecond, 0);
    EXPECT_EQ(0, box.WaitExit(pidSecond, 5000));
    EXPECT_EQ(vLogs, ListFiles(box.LogDir(), ""));
    EXPECT_EQ(1u, CountOf(box.ReadDaemonTrace(), "Service Start")) << box.ReadDaemonTrace();
    box.Signal(pid, SIGINT);
    usleep(700000);
    EXPECT_TRUE(box.IsRunning(pid));
    EXPECT_EQ(std::string::npos, box.ReadDaemonTrace().find("stopped")) << box.ReadDaemonTrace();
    EXPECT_EQ(strIni, ReadWholeFile(box.IniPath()));
    EXPECT_TRUE(mapServed == Snapshot(box.DataDir(), vFiles));

    // The segments of a killed daemon are taken over as they are, without
    // reading the files: a change behind an image's back, below the free
    // offset, stays out of it.
    std::string strImageBefore = DumpImage(box, 2);
    ASSERT_EQ((size_t)(20 * E2E_MIB), strImageBefore.size());
    box.Signal(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    std::string strPath = box.DataDir() + "Data2.dbf";
    std::string strFile = ReadWholeFile(strPath);
    size_t nAt = (size_t)(((LPBASEFILEHEAD)strFile.data())->m_nFileFreeMemoryOffset - 1000);
    strFile[nAt] = (char)0x5C;
    ASSERT_TRUE(WriteWholeFile(strPath, strFile));
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    std::string strImageAfter = DumpImage(box, 2);
    EXPECT_TRUE(strImageAfter == strImageBefore);
    EXPECT_NE((char)0x5C, strImageAfter[nAt]);
    EXPECT_EQ(20 * E2E_MIB, Inspect(box, box.DataDir()).m_mapFiles[2].m_nLoadSize);

    EXPECT_TRUE(StopDaemon(box, pid));
    EXPECT_NE(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service stopped"));
    Inspection stAfter = Inspect(box, box.DataDir());
    EXPECT_FALSE(stAfter.m_bSystemImage) << stAfter.m_strText;
    for (const Expect& e : arFiles) EXPECT_FALSE(stAfter.m_mapFiles[e.nFileNo].m_bImage) << e.lpName;
}

// With no cache asked for, the cache-mode files stay unserved: the engine is
// told the cache size is 0, the memory-mode files are served and saved as ever, and the cache-mode files
// are not touched.
TEST(DatabaseLoad, WithNoCacheTheCacheModeFilesAreLeftAlone)
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

// A database copied to the program's default directory is corrected on its
// first start ("install" = 1), and the usual start after it finds the same
// database.
TEST(DatabaseLoadTakeover, MovedDatabaseIsCorrectedOnItsFirstStart)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    std::string strOld = box.Root() + "/Old/";
    std::string strOther = box.Root() + "/Other/";
    ASSERT_EQ(0, MakeDb(box, strOld, {"--data-file", "2", "--btree-file", "2", "--kv-file", "2"}));
    // KV4.dbf lives outside the database directory, as an administrator may
    // have put it; its row must keep its path.
    ASSERT_EQ(0, mkdir(strOther.c_str(), 0755));
    ASSERT_EQ(0, rename((strOld + "KV4.dbf").c_str(), (strOther + "KV4.dbf").c_str()));
    std::string strSystem = ReadWholeFile(strOld + "System.dbf");
    LPFILE_MEMDBFILEINFO lpRow = DbFindFileListRow((LPBYTE)&strSystem[0], (long long)strSystem.size(), 4);
    ASSERT_NE(nullptr, lpRow);
    snprintf(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), "%sKV4.dbf", strOther.c_str());
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "System.dbf", strSystem));
    for (const char* lpName : {"Data2.dbf", "BTree3.dbf"})
        ASSERT_EQ(0, rename((strOld + lpName).c_str(), (box.DataDir() + lpName).c_str()));
    unlink((strOld + "System.dbf").c_str());
    // The copied ini still names the old directory.
    WriteDbIni(box, strOld, "install=1\r\n");

    pid_t pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    // The log lies under whichever directory the ini named when it opened.
    std::string strTrace;
    WaitUntil(
        [&] {
            strTrace = DaemonTraceIn(strOld + "Log/") + DaemonTraceIn(box.LogDir());
            return strTrace.find("Talvor storage service started!") != std::string::npos;
        },
        DAEMON_START_TIMEOUT_MS, TRACE_POLL_MS);
    ASSERT_NE(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;

    std::string strFixed = ReadWholeFile(box.DataDir() + "System.dbf");
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)&strFixed[0];
    EXPECT_EQ(box.DataDir(), std::string(lpHead->m_cDatabasePath));
    LPBYTE lpBytes = (LPBYTE)&strFixed[0];
    long long nSize = (long long)strFixed.size();
    ASSERT_NE(nullptr, DbFindFileListRow(lpBytes, nSize, 2));
    EXPECT_EQ(box.DataDir() + "Data2.dbf", std::string(DbFindFileListRow(lpBytes, nSize, 2)->m_lpszFilePath));
    EXPECT_EQ(box.DataDir() + "BTree3.dbf", std::string(DbFindFileListRow(lpBytes, nSize, 3)->m_lpszFilePath));
    EXPECT_EQ(strOther + "KV4.dbf", std::string(DbFindFileListRow(lpBytes, nSize, 4)->m_lpszFilePath));

    std::string strIni = ReadWholeFile(box.IniPath());
    EXPECT_NE(std::string::npos, strIni.find("install=0")) << strIni;
    EXPECT_NE(std::string::npos, strIni.find("databasepath=" + box.DataDir() + "\r\n")) << strIni;

    Inspection st = Inspect(box, box.DataDir());
    for (int n = 2; n <= 4; n++) EXPECT_TRUE(st.m_mapFiles[n].m_bImage) << st.m_strText;
    EXPECT_EQ(strOther + "KV4.dbf", st.m_mapFiles[4].m_strPath);
    EXPECT_TRUE(StopDaemon(box, pid));

    // The usual start finds the same database where the ini now points.
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    EXPECT_TRUE(StopDaemon(box, pid));
}
