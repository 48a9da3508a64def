// A thread that holds its lines: they reach its hold and not the sink, the
// lines of every other thread still reach the sink, and the hold ends.
#include "TraceCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

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
