// End-to-end: the signals of a running daemon. SIGINT changes nothing;
// SIGTERM stops the service and the trace tells who sent it; a second
// daemon started beside a running one leaves at once and writes nothing.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <utmp.h>

using namespace talvortest;

namespace {

const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf"};

// One login record, as getutent reads them from /var/run/utmp.
std::string LoginRecord(const char* lpUser, const char* lpLine, const char* lpHost)
{
    struct utmp ut;
    memset(&ut, 0, sizeof(ut));
    ut.ut_type = USER_PROCESS;
    ut.ut_pid = 4242;
    strncpy(ut.ut_user, lpUser, sizeof(ut.ut_user));
    strncpy(ut.ut_line, lpLine, sizeof(ut.ut_line));
    strncpy(ut.ut_host, lpHost, sizeof(ut.ut_host));
    return std::string((const char*)&ut, sizeof(ut));
}

pid_t StartReady(DaemonSandbox& box)
{
    EXPECT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "2"}));
    WriteDbIni(box, box.DataDir());
    pid_t pid = box.StartServing();
    EXPECT_GT(pid, 0) << box.ReadDaemonTrace();
    return pid;
}

} // namespace

TEST(ServiceSignals, SecondDaemonAndSigintChangeNothingAndSigtermStopsAndTellsWhoSentIt)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    pid_t pid = StartReady(box);
    std::map<std::string, std::string> mapFiles = Snapshot(box.DataDir(), DB_FILES);
    std::string strIni = ReadWholeFile(box.IniPath());

    // A second daemon beside the running one leaves at once, writes no log
    // and no ini, and leaves the first serving.
    std::vector<std::string> vLogs = ListFiles(box.LogDir(), "");
    pid_t pidSecond = box.StartDaemon();
    ASSERT_GT(pidSecond, 0);
    EXPECT_EQ(0, box.WaitExit(pidSecond, 5000));
    EXPECT_EQ(vLogs, ListFiles(box.LogDir(), ""));
    std::string strTrace = box.ReadDaemonTrace();
    size_t nFirst = strTrace.find("Service Start");
    EXPECT_NE(std::string::npos, nFirst);
    EXPECT_EQ(std::string::npos, strTrace.find("Service Start", nFirst + 1)) << strTrace;
    EXPECT_TRUE(box.IsRunning(pid));

    box.Signal(pid, SIGINT);
    usleep(700000);
    EXPECT_TRUE(box.IsRunning(pid));
    strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, strTrace.find("Received signal")) << strTrace;
    EXPECT_EQ(std::string::npos, strTrace.find("ProcessKiller")) << strTrace;
    EXPECT_EQ(std::string::npos, strTrace.find("stopped")) << strTrace;
    EXPECT_EQ(strIni, ReadWholeFile(box.IniPath()));
    EXPECT_TRUE(mapFiles == Snapshot(box.DataDir(), DB_FILES));
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_mapFiles[2].m_bImage) << st.m_strText;
    EXPECT_EQ(2, st.m_nStatus);

    // One user logged in; the sender has no terminal (its stdin is
    // /dev/null), so every logged-in user is listed. The sender stays alive
    // a while: a sender that is gone before the handler runs cannot be named.
    ASSERT_TRUE(WriteWholeFile(box.Root() + "/utmp", LoginRecord("alice", "pts/9", "203.0.113.7")));
    ASSERT_EQ(0, box.Run({"cp", box.Root() + "/utmp", "/var/run/utmp"}, 10000));
    pid_t pidSender = box.Spawn({"sh", "-c", "kill -TERM " + std::to_string(pid) + "; sleep 3"}, "sender");
    ASSERT_GT(pidSender, 0);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    strTrace = box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, strTrace.find("KillerInfo ProcessKiller : ( id=" + std::to_string(pidSender) +
                                               " command=sh )"))
        << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("TermHandler Received signal 15(Terminated)! CurrentOnline : ( "
                                               "user:alice tty=pts/9 IP:203.0.113.7 )"))
        << strTrace;
    size_t nStopped = strTrace.find("Talvor storage service stopped");
    EXPECT_NE(std::string::npos, nStopped) << strTrace;
    EXPECT_LT(strTrace.find("ProcessKiller"), nStopped);
    EXPECT_FALSE(Inspect(box, box.DataDir()).m_mapFiles[2].m_bImage);
}
