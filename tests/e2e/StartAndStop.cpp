// End-to-end: a start the daemon must refuse, as a new user meets it (no
// ini, an empty one, no database, a semaphore or rollback area it cannot
// have), exits with 0 and leaves the line that names the cause in the trace
// log, every time, also where the process ends with its threads running;
// and the stop waits for a running engine, for as long as it runs or until
// it is found lost, and its last pass commits the engine's last change.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <thread>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

void MakeSmallDb(DaemonSandbox& box)
{
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
}

// Starts the daemon nStarts times, each to its end; the trace of all.
std::string RefusedStarts(DaemonSandbox& box, int nStarts)
{
    for (int i = 0; i < nStarts; i++) EXPECT_EQ(0, box.RunDaemon()) << "start " << i;
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
    return strTrace;
}

// Without configuration the language falls back to the default (Chinese), so
// a config refusal may stand in either language.
bool HasConfigRefusal(const std::string& strTrace)
{
    return strTrace.find("Talvor failed to read config!") != std::string::npos ||
           strTrace.find("Talvor读取配置文件失败!") != std::string::npos;
}

} // namespace

TEST(StartRefusals, NoIniAndAnEmptyOneAreToldAndExitWithZero)
{
    for (bool bEmpty : {false, true}) {
        SCOPED_TRACE(bEmpty ? "empty ini" : "no ini");
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        if (bEmpty) box.WriteIni("");
        EXPECT_EQ(0, box.RunDaemon());
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_TRUE(HasConfigRefusal(strTrace)) << strTrace;
        EXPECT_EQ(std::string::npos, strTrace.find("Service Start")) << strTrace;
    }
}

TEST(StartRefusals, MissingDatabaseRefusesTheStartInOrder)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    box.WriteDefaultIni();
    EXPECT_EQ(0, box.RunDaemon());
    std::string strTrace = box.ReadDaemonTrace();
    size_t nStart = strTrace.find("Talvor Professional Storage Service Start......");
    size_t nOpen = strTrace.find("Failed to open file, error: No such file or directory(2), path: " + box.DataDir() + "System.dbf");
    size_t nRefused = strTrace.find("Talvor storage service loading configuration environment failed!");
    size_t nClosed = strTrace.find("Talvor storage service closed!");
    ASSERT_NE(std::string::npos, nStart) << strTrace;
    ASSERT_NE(std::string::npos, nOpen) << strTrace;
    ASSERT_NE(std::string::npos, nRefused) << strTrace;
    ASSERT_NE(std::string::npos, nClosed) << strTrace;
    EXPECT_LT(nStart, nOpen);
    EXPECT_LT(nOpen, nRefused);
    EXPECT_LT(nRefused, nClosed);
    // No system file head was ever open, so no "stopped" line.
    EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service stopped"));
    // Every line carries the title: time, thread, level, code, function.
    EXPECT_NE(std::string::npos, strTrace.find("   40001001 Initialize Failed to open file")) << strTrace;
}

TEST(StartRefusals, AFailedStartKeepsEveryImageAKilledDaemonLeft)
{
    // Images that outlived a killed daemon may hold the engine's work that
    // never reached the disk: a start that fails after taking them over
    // leaves them for the next start.
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeSmallDb(box);
    WriteDbIni(box, box.DataDir(), "");
    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
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

    EXPECT_EQ(0, box.RunDaemon());
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(1u, CountOf(strTrace, "Talvor storage service started!")) << "the second start failed";
    for (int n : {1, 3, 4})
        EXPECT_EQ(1u, CountOf(strTrace, "   10010007 FreeData The start failed: the image an earlier run left is kept "
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
        EXPECT_EQ(2u, CountOf(strTrace, std::string("   ") + c.m_lpCode +
                                          " TalvorStorage Talvor Storage Service detects that the same service is "
                                          "running and the program exits("))
            << strTrace;
    }
}

TEST(StartRefusals, ARollbackAreaThatCannotBeMadeIsToldWhileThreadsRun)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeSmallDb(box);
    // Segments of up to 12 MiB in the sandbox's namespace: every image and
    // ring fits, a 16 MiB undo area does not. The daemon then ends with its
    // redo and trace threads running.
    ASSERT_EQ(0, box.Run({"sh", "-c", "echo 12582912 > /proc/sys/kernel/shmmax"}, 10000));
    WriteDbIni(box, box.DataDir());
    std::string strTrace = RefusedStarts(box, 2);
    EXPECT_EQ(2u, CountOf(strTrace, "   50006010 InitRollback Open rollback memory file failed, error: Invalid argument(22), "
                                  "memory file: Global\\TalvorSysRollback, file size: 16"))
        << strTrace;
}

TEST(StopWithEngine, TheStopWaitsForARunningEngineAndForOneFoundLost)
{
    for (bool bKill : {false, true}) {
        SCOPED_TRACE(bKill ? "engine killed" : "engine stops");
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        MakeSmallDb(box);
        WriteDbIni(box, box.DataDir());
        pid_t pid = box.StartServing();
        ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
        pid_t peer = box.Spawn({PeerPath(), "data", "--live", "--journal", box.Root() + "/journal", "--count", "4000",
                                "--pause-us", "1000", "--seconds", bKill ? "120" : "4"},
                               "peer");
        ASSERT_GT(peer, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // attached and running
        ASSERT_TRUE(box.IsRunning(peer));
        box.Signal(pid, SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_TRUE(box.IsRunning(pid)) << "the daemon stopped under a running engine";
        EXPECT_EQ(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service closed!"));
        long long nLast = 0;
        if (bKill) {
            box.Signal(peer, SIGKILL);  // dies in the middle: m_bService stays 1
        } else {
            EXPECT_EQ(0, box.WaitExit(peer, 30000));
            std::string strPeerOut = ReadWholeFile(box.Root() + "/peer.out");
            nLast = NumberAfter(strPeerOut, "last timestamp ");
            EXPECT_GT(nLast, 0) << strPeerOut;
            EXPECT_EQ(std::string::npos, strPeerOut.find("channel answers 0")) << strPeerOut;
        }
        EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strTrace.find("Talvor storage service closed!")) << strTrace;
        EXPECT_EQ(std::string::npos, strTrace.find("did not end within")) << strTrace;
        // A running engine is never declared lost.
        if (!bKill) {
            EXPECT_EQ(std::string::npos, strTrace.find("50002001")) << strTrace;
        }
        // What the engine committed is on the disk, up to its last change
        // when it ended before the stop's last pass.
        VerifyJournal(box, box.Root() + "/journal", box.DataDir() + "System.dbf", nLast);
    }
}
