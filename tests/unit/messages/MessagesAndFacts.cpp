// Tests of the CPU rate and the stack helper's use of a process name.
#include "TalvorError.h"
#include "TempTree.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

using namespace talvortest;

// ---------------------------------------------------------------------------
// The CPU rate between two samples of /proc/stat.
// ---------------------------------------------------------------------------

TEST(CpuInfo, RateIsBoundedAndRounded)
{
    EXPECT_EQ(cpu_rate_between({1000, 500}, {1200, 550}), 75);
    EXPECT_EQ(cpu_rate_between({0, 0}, {8, 1}), 88);   // 87.5 rounds up
    EXPECT_EQ(cpu_rate_between({100, 50}, {100, 50}), 0); // no time passed
    EXPECT_EQ(cpu_rate_between({200, 50}, {100, 60}), 0); // counters went back
    EXPECT_EQ(cpu_rate_between({0, 0}, {10, 20}), 0);  // idle beyond total stays in range
}

// ---------------------------------------------------------------------------
// Stacks by the debugger.
// ---------------------------------------------------------------------------

TEST(StackHelpers, ProcessNameIsNeverRunAsShell)
{
    TempTree dir;
    std::string strName = "x;touch " + dir.Root() + "/ran";
    char szBuf[256];
    EXPECT_EQ(get_all_thread_stacktrace_of_specified_process(&strName[0], szBuf, (int)sizeof szBuf), 0);
    EXPECT_NE(access((dir.Root() + "/ran").c_str(), F_OK), 0);
    EXPECT_EQ(get_all_thread_stacktrace_of_specified_process(nullptr, szBuf, (int)sizeof szBuf), 0);
}
