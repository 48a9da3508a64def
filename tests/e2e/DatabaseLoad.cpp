// End-to-end: a database made by talvor-mkdb comes up in the daemon. Every
// memory-mode file is in its own segment, equal to the file up to the free
// offset and zero above it; readiness shows in the channel; a second daemon
// beside it leaves at once and writes nothing; a start after a kill
// takes the segments over as they are, and one that fails after taking
// some over leaves them for the next; a SIGTERM removes every segment.
// (A database moved to another directory: SystemFileList at unit level.)
#include "DatabaseLoadKit.h"

using namespace talvortest;

TEST(DatabaseLoad, MadeDatabaseLoadsAsItsFilesOutlivesASecondDaemonAndAKillAndStopsClean)
{
    const std::vector<std::string> vDbFiles = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--name", "E2E", "--data-file", "20", "--btree-file", "4", "--kv-file", "8"}));
    // The maker refuses to make another database over it and writes nothing.
    std::map<std::string, std::string> mapMade = Snapshot(box.DataDir(), vDbFiles);
    std::vector<std::string> vListed = ListFiles(box.DataDir(), "");
    EXPECT_EQ(1, MakeDb(box, box.DataDir(), {"--data-file", "3", "--kv-file", "2"}));
    EXPECT_TRUE(mapMade == Snapshot(box.DataDir(), vDbFiles));
    EXPECT_EQ(vListed, ListFiles(box.DataDir(), ""));
    WriteDbIni(box, box.DataDir());
    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();

    const std::pair<int, long long> arFiles[] = {{2, 20 * E2E_MIB}, {3, 4 * E2E_MIB}, {4, 8 * E2E_MIB}};
    Inspection st = Inspect(box, box.DataDir());
    ASSERT_TRUE(st.m_bRan) << st.m_strText;
    EXPECT_TRUE(st.m_bSystemImage);
    EXPECT_EQ(0, st.m_nSystemStatus);  // ready
    for (const auto& e : arFiles) {
        ASSERT_EQ(1u, st.m_mapFiles.count(e.first)) << st.m_strText;
        const InspectedFile& f = st.m_mapFiles[e.first];
        EXPECT_TRUE(f.m_bImage && f.m_nImageSize == e.second && f.m_nLoadSize == e.second && f.m_nFirstDiff == -1 &&
                    f.m_nFirstNonZero == -1)
            << st.m_strText;
    }
    EXPECT_EQ(4 * E2E_MIB, st.m_mapFiles[1].m_nLoadSize);

    // A second daemon beside it leaves at once and writes nothing.
    std::vector<std::string> vLogs = ListFiles(box.LogDir(), "");
    std::map<std::string, std::string> mapServed = Snapshot(box.DataDir(), vDbFiles);
    std::string strIni = ReadWholeFile(box.IniPath());
    pid_t pidSecond = box.StartDaemon();
    ASSERT_GT(pidSecond, 0);
    EXPECT_EQ(0, box.WaitExit(pidSecond, 5000));
    EXPECT_EQ(vLogs, ListFiles(box.LogDir(), ""));
    EXPECT_TRUE(box.IsRunning(pid));
    EXPECT_EQ(strIni, ReadWholeFile(box.IniPath()));
    EXPECT_TRUE(mapServed == Snapshot(box.DataDir(), vDbFiles));

    // The segments of a killed daemon are taken over as they are, without
    // reading the files: a change behind an image's back, below the free
    // offset, stays out of it.
    std::string strImageBefore = DumpImage(box, 2);
    ASSERT_EQ((size_t)(20 * E2E_MIB), strImageBefore.size());
    box.Signal(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    const std::string strPath = box.DataDir() + "Data2.dbf", strWhole = ReadWholeFile(strPath);
    std::string strFile = strWhole;
    size_t nAt = (size_t)(((LPBASEFILEHEAD)strFile.data())->m_nFileFreeMemoryOffset - 1000);
    strFile[nAt] = (char)0x5C;
    ASSERT_TRUE(WriteWholeFile(strPath, strFile));
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    EXPECT_TRUE(DumpImage(box, 2) == strImageBefore);
    EXPECT_EQ(20 * E2E_MIB, Inspect(box, box.DataDir()).m_mapFiles[2].m_nLoadSize);

    // Killed again: file 2, loaded last, without its image and with a
    // damaged head on disk fails the start after files 4 and 3 were taken
    // over. Those images may hold the engine's work that never reached the
    // disk: they stay, as they were, for the next start.
    box.Signal(pid, SIGKILL);
    ASSERT_NE(-1, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    std::string strKeep4 = DumpImage(box, 4);
    ASSERT_FALSE(strKeep4.empty());
    ASSERT_EQ(0, box.Run({"ipcrm", "-M", std::to_string(0x514E4602)}, 10000));
    ASSERT_TRUE(WriteWholeFile(strPath, std::string(16, '\0') + strWhole.substr(16)));
    EXPECT_EQ(0, box.RunDaemon());
    EXPECT_EQ(2u, CountOf(box.ReadDaemonTrace(), DAEMON_SERVING_LINE)) << "the third start served";
    st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_bSystemImage && st.m_mapFiles[3].m_bImage) << st.m_strText;
    EXPECT_TRUE(strKeep4 == DumpImage(box, 4)) << "the kept image is the one the killed daemon left";
    ASSERT_TRUE(WriteWholeFile(strPath, strWhole));
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();

    EXPECT_TRUE(StopDaemon(box, pid));
    st = Inspect(box, box.DataDir());
    EXPECT_FALSE(st.m_bSystemImage) << st.m_strText;
    for (const auto& e : arFiles) EXPECT_FALSE(st.m_mapFiles[e.first].m_bImage) << e.first;
}
