// End-to-end: crash containment of the daemon's own threads (the storage
// thread, the trace writer and copier) and the trace of both processes
// around it; the mechanism alone is CrashContainment's at unit level.
#include "DatabaseLoadKit.h"
#include "TestClock.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <regex>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>

using namespace talvortest;

namespace {

const int START_TIMEOUT_MS = 20000;
const int STOP_TIMEOUT_MS = 60000;

std::set<int> TaskIds(pid_t pid)
{
    std::set<int> tasks;
    DIR* pDir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (pDir == nullptr) return tasks;
    while (struct dirent* pEntry = readdir(pDir)) {
        if (pEntry->d_name[0] != '.') tasks.insert(atoi(pEntry->d_name));
    }
    closedir(pDir);
    return tasks;
}

// The thread id in the title of the first line that ends in strText.
int ThreadOfLine(const std::string& strTrace, long nCode, const std::string& strFunction, const std::string& strText)
{
    std::regex reLine(R"((\d+)\t 3 +)" + std::to_string(nCode) + " " + strFunction + " " + strText);
    std::smatch m;
    return std::regex_search(strTrace, m, reLine) ? std::stoi(m[1]) : 0;
}

class CrashRecovery : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_box.Ok());
        m_box.WriteDefaultIni();
        std::string strOut;
        ASSERT_EQ(0, m_box.Run({MkdbPath(), "--dir", m_box.DataDir()}, 60000, &strOut)) << strOut;
    }

    pid_t StartServing(const std::string& strTestCrash)
    {
        pid_t pid = m_box.StartServing(strTestCrash);
        EXPECT_GT(pid, 0) << m_box.ReadDaemonTrace();
        return pid;
    }

    void StopCleanly(pid_t pid)
    {
        m_box.Signal(pid, SIGTERM);
        EXPECT_EQ(0, m_box.WaitExit(pid, STOP_TIMEOUT_MS)) << m_box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("Talvor storage service closed!"));
    }

    std::string ServiceTrace() const
    {
        std::string strAll;
        for (const std::string& strFile : ListFiles(m_box.LogDir(), "TalvorService")) strAll += ReadWholeFile(strFile);
        return strAll;
    }

    DaemonSandbox m_box;
};

TEST_F(CrashRecovery, StorageThreadFaultIsTracedRestartedAndItsLatchIsFree)
{
    pid_t pid = StartServing("storage");
    ASSERT_TRUE(m_box.WaitForTrace("has been submitted for automatic recovery", START_TIMEOUT_MS))
        << m_box.ReadDaemonTrace();
    // The restarted thread takes the latch the crashed one held at its fault.
    ASSERT_TRUE(m_box.WaitForTrace("test: the restarted storage thread took m_crit", START_TIMEOUT_MS))
        << m_box.ReadDaemonTrace();
    std::string strTrace = m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos,
              strTrace.find("SEGVINFO:[access address: 0x10; error code: 1; error info: Address not mapped to object.]"));
    EXPECT_NE(std::string::npos, strTrace.find("Received signal 11(Segmentation fault)! Stack trace:"));
    // A frame of the thread's entry, demangled, with its source line.
    EXPECT_TRUE(std::regex_search(strTrace, std::regex(R"(10002020 CrashHandler CBreltMemStorageModule::TalvorStorageThread\(void\*\) \S*BreltMemStorageThread\.cpp:\d+)")))
        << strTrace;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(strTrace, m, std::regex(R"(Thread \[(\d+)\] has been submitted)")));
    int nCrashed = std::stoi(m[1]);
    EXPECT_TRUE(WaitUntil([&] { return TaskIds(pid).count(nCrashed) == 0; }, 5000, TRACE_POLL_MS)) << "the crashed thread lingers";
    EXPECT_TRUE(m_box.IsRunning(pid));
    StopCleanly(pid);
}

// A signal sent from outside to one contained thread: traced as such, the
// thread is restarted and does its work again (the copier faulting of
// itself takes the same way back).
TEST_F(CrashRecovery, SignalSentToTheTraceCopierRestartsIt)
{
    pid_t pid = StartServing("");
    ASSERT_TRUE(m_box.WaitForTrace("Log Writer thread started!", START_TIMEOUT_MS));
    int nCopier = ThreadOfLine(m_box.ReadDaemonTrace(), 20010001, "WriteTraceThread", "Log Writer thread started!");
    ASSERT_GT(nCopier, 0);
    ASSERT_EQ(0, syscall(SYS_tgkill, pid, nCopier, SIGSEGV));
    ASSERT_TRUE(m_box.WaitForTrace("Thread [" + std::to_string(nCopier) + "] has been submitted for automatic recovery",
                                   START_TIMEOUT_MS))
        << m_box.ReadDaemonTrace();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(m_box.ReadDaemonTrace(), "Log Writer thread started!") == 2; }, 10000,
                          TRACE_POLL_MS))
        << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, m_box.ReadDaemonTrace().find("error info: the signal may send by other process.]"));

    std::string strOut;
    ASSERT_EQ(0, m_box.Run({PeerPath(), "trace", "--pid", "777", "--text", "engine line after the restart", "--title"}, 30000,
                           &strOut))
        << strOut;
    EXPECT_TRUE(WaitUntil([&] { return ServiceTrace().find("engine line after the restart") != std::string::npos; }, 10000, TRACE_POLL_MS));
    EXPECT_NE(std::string::npos, ServiceTrace().find("Service processid:777\r\n"));
    StopCleanly(pid);
}

TEST_F(CrashRecovery, FaultOfTheDaemonsOwnWriterLosesNoLaterLine)
{
    pid_t pid = StartServing("tracewriter");
    std::string strTrace = m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, strTrace.find("Received signal 11(Segmentation fault)! Stack trace:")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("has been submitted for automatic recovery"));
    StopCleanly(pid);
}

} // namespace
