// A thread that holds its lines: they reach its hold and not the sink, the
// lines of every other thread still reach the sink, and the hold ends.
#include "TalvorTrace.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Line {
    std::string strFunc;
    long lCode;
    std::string strText;
};

std::mutex g_lock;
std::vector<Line> g_vSink;

void Sink(LPCTSTR szFunc, LONG, LONG lCode, LPCTSTR szLog)
{
    std::lock_guard<std::mutex> g(g_lock);
    g_vSink.push_back({szFunc, lCode, szLog});
}

void Hold(void* pContext, LPCTSTR szFunc, LONG, LONG lCode, LPCTSTR szLog)
{
    ((std::vector<Line>*)pContext)->push_back({szFunc, lCode, szLog});
}

TEST(TraceHold, OnlyTheHoldingThreadsLinesAreHeldUntilTheHoldEnds)
{
    g_vSink.clear();
    LPTALVORTRACESINK pOld = TraceInstallSink(&Sink);
    std::vector<Line> vHeld;
    TraceHoldThisThread(&Hold, &vHeld);
    Trace("Held", 1, 80003010, "read %d of %s", 7, "the file");
    std::thread t([] { Trace0("Other", 1, 42, "not held"); });
    t.join();
    TraceHoldThisThread(nullptr, nullptr);
    Trace0("After", 1, 43, "the hold ended");
    TraceInstallSink(pOld);
    ASSERT_EQ(1u, vHeld.size());
    EXPECT_EQ("Held", vHeld[0].strFunc);
    EXPECT_EQ(80003010, vHeld[0].lCode);
    EXPECT_EQ("read 7 of the file", vHeld[0].strText);
    ASSERT_EQ(2u, g_vSink.size());
    EXPECT_EQ(42, g_vSink[0].lCode);
    EXPECT_EQ(43, g_vSink[1].lCode);
}

} // namespace
