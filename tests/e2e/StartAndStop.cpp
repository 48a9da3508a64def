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
#include <functional>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

void MakeSmallDb(DaemonSandbox& box)
{
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
}

} // namespace

// Each refusal is told by its line in every start: a second start meets no
// semaphore or segment the first one left taken.
TEST(StartRefusals, EachRefusedStartExitsWithZeroAndIsToldEveryTime)
{
    const struct {
        const char* m_lpWhat;
        bool m_bDatabase;  // a database and an ini that would run it
        std::function<void(DaemonSandbox&)> m_fnSetUp;
        std::vector<std::string> m_vAnyOf;  // the line, in either language
    } arCases[] = {
        {"no ini", false, [](DaemonSandbox&) {}, {"Talvor failed to read config!", "Talvor读取配置文件失败!"}},
        {"empty ini", false, [](DaemonSandbox& box) { box.WriteIni(""); },
         {"Talvor failed to read config!", "Talvor读取配置文件失败!"}},
        {"no database", false, [](DaemonSandbox& box) { box.WriteDefaultIni(); },
         {"   40001001 Initialize Failed to open file"}},
        // A directory where a semaphore would be: it cannot be opened.
        {"service semaphore", true,
         [](DaemonSandbox& box) { ASSERT_EQ(0, box.Run({"mkdir", "/dev/shm/sem.Global\\TalvorSvc"}, 10000)); },
         {"   10000010 TalvorStorage Talvor Storage Service detects that the same service is running"}},
        {"storage event semaphore", true,
         [](DaemonSandbox& box) {
             ASSERT_EQ(0, box.Run({"mkdir", "/dev/shm/sem.Global\\TalvorSysStorageEvent"}, 10000));
         },
         {"   10000011 TalvorStorage Talvor Storage Service detects that the same service is running"}},
        // Segments of up to 12 MiB: every image and ring fits, a 16 MiB undo
        // area does not, and the daemon ends with its threads running.
        {"rollback area", true,
         [](DaemonSandbox& box) {
             ASSERT_EQ(0, box.Run({"sh", "-c", "echo 12582912 > /proc/sys/kernel/shmmax"}, 10000));
         },
         {"   50006010 InitRollback Open rollback memory file failed"}},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        if (c.m_bDatabase) {
            MakeSmallDb(box);
            WriteDbIni(box, box.DataDir());
        }
        c.m_fnSetUp(box);
        for (int i = 0; i < 2; i++) EXPECT_EQ(0, box.RunDaemon()) << "start " << i;
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
        size_t nTold = 0;
        for (const std::string& strLine : c.m_vAnyOf) nTold += CountOf(strTrace, strLine);
        EXPECT_EQ(2u, nTold) << strTrace;
    }
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
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_bSystemImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[3].m_bImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[4].m_bImage) << st.m_strText;
    EXPECT_TRUE(strKeep4 == DumpImage(box, 4)) << "the kept image is the one the killed daemon left";
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
