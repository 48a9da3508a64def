// End-to-end: a database made by talvor-mkdb comes up in the daemon. Every
// memory-mode file is in its own segment, equal to the file up to the free
// offset and zero above it; readiness shows in the channel; a second daemon
// beside it leaves at once and writes nothing; a start after a kill
// takes the segments over as they are; a SIGTERM removes every segment.
// (A database moved to another directory: SystemFileList at unit level.)
#include "DatabaseLoadKit.h"

using namespace talvortest;

namespace {
const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};
} // namespace

TEST(DatabaseLoad, MadeDatabaseLoadsAsItsFilesOutlivesASecondDaemonAndAKillAndStopsClean)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--name", "E2E", "--data-file", "20", "--btree-file", "4", "--kv-file", "8"}));
    // The maker refuses to make another database over it and writes nothing.
    std::map<std::string, std::string> mapMade = Snapshot(box.DataDir(), DB_FILES);
    std::vector<std::string> vListed = ListFiles(box.DataDir(), "");
    EXPECT_EQ(1, MakeDb(box, box.DataDir(), {"--data-file", "3", "--kv-file", "2"}));
    EXPECT_TRUE(mapMade == Snapshot(box.DataDir(), DB_FILES));
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

    // A second daemon beside it leaves at once and writes nothing.
    std::vector<std::string> vLogs = ListFiles(box.LogDir(), "");
    std::map<std::string, std::string> mapServed = Snapshot(box.DataDir(), DB_FILES);
    std::string strIni = ReadWholeFile(box.IniPath());
    pid_t pidSecond = box.StartDaemon();
    ASSERT_GT(pidSecond, 0);
    EXPECT_EQ(0, box.WaitExit(pidSecond, 5000));
    EXPECT_EQ(vLogs, ListFiles(box.LogDir(), ""));
    EXPECT_TRUE(box.IsRunning(pid));
    EXPECT_EQ(strIni, ReadWholeFile(box.IniPath()));
    EXPECT_TRUE(mapServed == Snapshot(box.DataDir(), DB_FILES));

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
    Inspection stAfter = Inspect(box, box.DataDir());
    EXPECT_FALSE(stAfter.m_bSystemImage) << stAfter.m_strText;
    for (const Expect& e : arFiles) EXPECT_FALSE(stAfter.m_mapFiles[e.nFileNo].m_bImage) << e.lpName;
}
