// End-to-end: a start the daemon must refuse, as a new user meets it, leaves
// the line that names the cause in the trace log, every time, also where the
// process ends with its threads running; and the stop waits for a running
// engine, for as long as it runs or until it is found lost.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <thread>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};

size_t Count(const std::string& strText, const std::string& strWhat)
{
    size_t n = 0;
    for (size_t at = strText.find(strWhat); at != std::string::npos; at = strText.find(strWhat, at + 1)) n++;
    return n;
}

void MakeSmallDb(DaemonSandbox& box)
{
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
}

// Starts the daemon nStarts times, each to its end; the trace of all.
std::string RefusedStarts(DaemonSandbox& box, int nStarts)
{
    for (int i = 0; i < nStarts; i++) {
        pid_t pid = box.StartDaemon();
        EXPECT_GT(pid, 0);
        EXPECT_EQ(0, box.WaitExit(pid, DAEMON_START_TIMEOUT_MS)) << "start " << i;
    }
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
    return strTrace;
}

} // namespace

TEST(StartRefusals, AFileOfATypeNoPassSavesIsRefusedByNameAndType)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    for (int nType : {5, 77}) {
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        MakeSmallDb(box);
        std::string strSystem = ReadWholeFile(box.DataDir() + "System.dbf");
        LPFILE_MEMDBFILEINFO lpRow = DbFindFileListRow((LPBYTE)&strSystem[0], (long long)strSystem.size(), 3);
        ASSERT_NE(nullptr, lpRow);
        lpRow->m_bFileType = (BYTE)nType;
        ASSERT_TRUE(WriteWholeFile(box.DataDir() + "System.dbf", strSystem));
        WriteDbIni(box, box.DataDir(), "");
        std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), DB_FILES);
        std::string strTrace = RefusedStarts(box, 1);
        EXPECT_EQ(1u, Count(strTrace, "   10040003 LoadFile The database has a file of a type this service cannot "
                                      "save, so the start was refused, file number: 3, file type: " +
                                          std::to_string(nType) + ", path: " + box.DataDir() + "BTree3.dbf"))
            << strTrace;
        std::map<std::string, std::string> mapAfter = Snapshot(box.DataDir(), DB_FILES);
        for (const std::string& strName : DB_FILES) EXPECT_TRUE(mapBefore[strName] == mapAfter[strName]) << strName;
    }
}

TEST(StartRefusals, AFailedStartKeepsEveryImageAKilledDaemonLeft)
{
    // Images that outlived a killed daemon may hold the engine's work that
    // never reached the disk: a start that fails after taking them over
    // leaves them for the next start.
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeSmallDb(box);
    WriteDbIni(box, box.DataDir(), "");
    pid_t pid = box.StartDaemon();
    ASSERT_TRUE(WaitReady(box));
    box.Signal(pid, SIGKILL);
    ASSERT_NE(-1, box.WaitExit(pid, 10000));
    std::string strKeep4 = DumpImage(box, 4);
    ASSERT_FALSE(strKeep4.empty());
    // File 2 is loaded last; without its image and with a damaged head on
    // disk, the start fails after files 4 and 3 were taken over.
    ASSERT_EQ(0, box.Run({"ipcrm", "-M", std::to_string(0x514E4602)}, 10000));
    std::string strData = ReadWholeFile(box.DataDir() + "Data2.dbf");
    ASSERT_GT(strData.size(), 64u);
    memset(&strData[0], 0, 16);
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "Data2.dbf", strData));

    pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_START_TIMEOUT_MS));
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(1u, Count(strTrace, "Talvor storage service started!")) << "the second start failed";
    for (int n : {1, 3, 4})
        EXPECT_EQ(1u, Count(strTrace, "   10010007 FreeData The start failed: the image an earlier run left is kept "
                                      "for the next start, file number: " + std::to_string(n)))
            << n << "\n" << strTrace;
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_bSystemImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[3].m_bImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[4].m_bImage) << st.m_strText;
    EXPECT_TRUE(strKeep4 == DumpImage(box, 4)) << "the kept image is the one the killed daemon left";
}

TEST(StartRefusals, ASemaphoreThatCannotBeOpenedIsToldInTheLog)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    const struct {
        const char* m_lpName;
        const char* m_lpCode;
    } arCases[] = {{"/dev/shm/sem.Global\\TalvorSvc", "10000010"},
                   {"/dev/shm/sem.Global\\TalvorSysStorageEvent", "10000011"}};
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_lpCode);
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        MakeSmallDb(box);
        WriteDbIni(box, box.DataDir());
        // A directory where the semaphore would be: it cannot be opened.
        ASSERT_EQ(0, box.Run({"mkdir", c.m_lpName}, 10000));
        std::string strTrace = RefusedStarts(box, 2);
        EXPECT_EQ(2u, Count(strTrace, std::string("   ") + c.m_lpCode +
                                          " TalvorStorage Talvor Storage Service detects that the same service is "
                                          "running and the program exits("))
            << strTrace;
    }
}

TEST(StartRefusals, ARollbackAreaThatCannotBeMadeIsToldWhileThreadsRun)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeSmallDb(box);
    // Segments of up to 12 MiB in the sandbox's namespace: every image and
    // ring fits, a 16 MiB undo area does not. The daemon then ends with its
    // redo and trace threads running.
    ASSERT_EQ(0, box.Run({"sh", "-c", "echo 12582912 > /proc/sys/kernel/shmmax"}, 10000));
    WriteDbIni(box, box.DataDir());
    std::string strTrace = RefusedStarts(box, 2);
    EXPECT_EQ(2u, Count(strTrace, "   50006010 InitRollback Open rollback memory file failed, error: Invalid argument(22), "
                                  "memory file: Global\\TalvorSysRollback, file size: 16"))
        << strTrace;
}

TEST(StopWithEngine, TheStopWaitsForARunningEngineAndForOneFoundLost)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    for (bool bKill : {false, true}) {
        SCOPED_TRACE(bKill ? "engine killed" : "engine stops");
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        MakeSmallDb(box);
        WriteDbIni(box, box.DataDir());
        pid_t pid = box.StartDaemon();
        ASSERT_GT(pid, 0);
        ASSERT_TRUE(WaitReady(box)) << box.ReadDaemonTrace();
        std::string strPeer = std::string(TALVOR_BIN_DIR) + "/talvor-peer";
        pid_t peer = box.Spawn({strPeer, "data", "--live", "--journal", box.Root() + "/journal", "--count", "4000",
                                "--pause-us", "1000", "--seconds", bKill ? "120" : "4"},
                               "peer");
        ASSERT_GT(peer, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // attached and running
        ASSERT_TRUE(box.IsRunning(peer));
        box.Signal(pid, SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_TRUE(box.IsRunning(pid)) << "the daemon stopped under a running engine";
        EXPECT_EQ(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service closed!"));
        if (bKill)
            box.Signal(peer, SIGKILL);  // dies in the middle: m_bService stays 1
        else
            EXPECT_EQ(0, box.WaitExit(peer, 30000));
        EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strTrace.find("Talvor storage service closed!")) << strTrace;
        EXPECT_EQ(std::string::npos, strTrace.find("did not end within")) << strTrace;
        // What the engine committed is on the disk.
        std::string strOut;
        EXPECT_EQ(0, box.Run({strPeer, "verify", "--journal", box.Root() + "/journal", "--system",
                              box.DataDir() + "System.dbf"},
                             60000, &strOut))
            << strOut;
    }
}
