// End-to-end: the daemon binary in a private tree and namespace, from its
// refusals to its stop (a second daemon beside a running one: the signals).
#include "DaemonSandbox.h"

#include <csignal>
#include <gtest/gtest.h>

using talvortest::DaemonSandbox;
using talvortest::PathExists;

namespace {

const int START_TIMEOUT_MS = 20000;

// Without configuration the language falls back to the default (Chinese), so
// a config refusal may stand in either language.
bool HasConfigRefusal(const std::string& strTrace)
{
    return strTrace.find("Talvor failed to read config!") != std::string::npos ||
           strTrace.find("Talvor读取配置文件失败!") != std::string::npos;
}

} // namespace

TEST(ServiceLifecycle, NoReadableIniIsToldAndExitsWithZero)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    pid_t pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, box.WaitExit(pid, START_TIMEOUT_MS));
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_TRUE(HasConfigRefusal(strTrace)) << strTrace;
    EXPECT_EQ(std::string::npos, strTrace.find("Service Start")) << strTrace;
}

TEST(ServiceLifecycle, EmptyIniCountsAsUnreadable)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    box.WriteIni("");
    pid_t pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, box.WaitExit(pid, START_TIMEOUT_MS));
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_TRUE(HasConfigRefusal(strTrace)) << strTrace;
}

TEST(ServiceLifecycle, MissingDatabaseRefusesTheStartInOrder)
{
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    box.WriteDefaultIni();
    pid_t pid = box.StartDaemon();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, box.WaitExit(pid, START_TIMEOUT_MS));
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
