// The stack helper's use of a process name, and a thread that holds its
// trace lines.
#include "TalvorError.h"
#include "TempTree.h"
#include "TraceCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace talvortest;

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

// A thread that holds its lines: they reach its hold and not the sink, the
// lines of every other thread still reach the sink, and the hold ends.
namespace {

void Hold(void* pContext, LPCTSTR szFunc, LONG nLevel, LONG nCode, LPCTSTR szText)
{
    ((std::vector<talvortest::CapturedLine>*)pContext)->push_back({nLevel, nCode, szFunc, szText});
}

TEST(TraceHold, OnlyTheHoldingThreadsLinesAreHeldUntilTheHoldEnds)
{
    talvortest::TraceCapture capture;
    std::vector<talvortest::CapturedLine> vHeld;
    TraceHoldThisThread(&Hold, &vHeld);
    Trace("Held", 1, 80003010, "read %d of %s", 7, "the file");
    std::thread t([] { Trace0("Other", 1, 42, "not held"); });
    t.join();
    TraceHoldThisThread(nullptr, nullptr);
    Trace0("After", 1, 43, "the hold ended");
    ASSERT_EQ(1u, vHeld.size());
    EXPECT_EQ("1 80003010 Held read 7 of the file", vHeld[0].Joined());
    std::vector<talvortest::CapturedLine> vSink = capture.Lines();
    ASSERT_EQ(2u, vSink.size());
    EXPECT_EQ(42, vSink[0].m_nCode);
    EXPECT_EQ(43, vSink[1].m_nCode);
}

} // namespace
