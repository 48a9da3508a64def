// End-to-end: the signals of a running daemon. SIGINT changes nothing;
// SIGTERM stops the service and takes its images away; a second daemon
// started beside a running one leaves at once and writes nothing.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <gtest/gtest.h>

using namespace talvortest;

TEST(ServiceSignals, SecondDaemonAndSigintChangeNothingAndSigtermStops)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "2"}));
    WriteDbIni(box, box.DataDir());
    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    const std::vector<std::string> vDbFiles = {"System.dbf", "Data2.dbf"};
    std::map<std::string, std::string> mapFiles = Snapshot(box.DataDir(), vDbFiles);
    std::string strIni = ReadWholeFile(box.IniPath());

    // A second daemon beside the running one leaves at once, writes no log
    // and no ini, and leaves the first serving.
    std::vector<std::string> vLogs = ListFiles(box.LogDir(), "");
    pid_t pidSecond = box.StartDaemon();
    ASSERT_GT(pidSecond, 0);
    EXPECT_EQ(0, box.WaitExit(pidSecond, 5000));
    EXPECT_EQ(vLogs, ListFiles(box.LogDir(), ""));
    EXPECT_EQ(1u, CountOf(box.ReadDaemonTrace(), "Service Start")) << box.ReadDaemonTrace();
    EXPECT_TRUE(box.IsRunning(pid));

    box.Signal(pid, SIGINT);
    usleep(700000);
    EXPECT_TRUE(box.IsRunning(pid));
    EXPECT_EQ(std::string::npos, box.ReadDaemonTrace().find("stopped")) << box.ReadDaemonTrace();
    EXPECT_EQ(strIni, ReadWholeFile(box.IniPath()));
    EXPECT_TRUE(mapFiles == Snapshot(box.DataDir(), vDbFiles));
    EXPECT_TRUE(Inspect(box, box.DataDir()).m_mapFiles[2].m_bImage);

    EXPECT_TRUE(StopDaemon(box, pid));
    EXPECT_NE(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service stopped"));
    EXPECT_FALSE(Inspect(box, box.DataDir()).m_mapFiles[2].m_bImage);
}
