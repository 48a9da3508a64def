// The latch order is checked where latches are taken: a thread that takes a
// lower-ranked latch while it holds a higher one stops a debug build at once,
// long before two such threads meet in a deadlock.
#include "LinuxCommonAPI.h"

#include <gtest/gtest.h>

namespace {

struct RankedLatches {
    TALVOR_SECTION stModule, stRedo, stTrace, stFree;
    RankedLatches()
    {
        for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stTrace, &stFree}) InitializeCriticalTalvor(lp);
        TalvorSetLatchRank(&stModule, LATCHRANK_MODULE);
        TalvorSetLatchRank(&stRedo, LATCHRANK_REDO);
        TalvorSetLatchRank(&stTrace, LATCHRANK_TRACE);
    }
    ~RankedLatches()
    {
        for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stTrace, &stFree}) DeleteCriticalTalvor(lp);
    }
};

} // namespace

TEST(LatchOrder, RisingRanksRecursionAndUnrankedLatchesPass)
{
    RankedLatches l;
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    {
        CTalvorCriticalSectionPtr a(&l.stModule, &stCrit);
        CTalvorCriticalSectionPtr b(&l.stRedo, &stCrit);
        CTalvorCriticalSectionPtr again(&l.stModule, &stCrit);  // a recursion, not a step down
        CTalvorCriticalSectionPtr c(&l.stFree, &stCrit);
        CTalvorCriticalSectionPtr d(&l.stTrace, &stCrit);
        EXPECT_EQ(5, stCrit.m_nCritPos);
    }
    EXPECT_EQ(0, stCrit.m_nCritPos);
    // Once everything is given back, any latch may come first again.
    CTalvorCriticalSectionPtr e(&l.stTrace, &stCrit);
    e.UnLock();
    CTalvorCriticalSectionPtr f(&l.stModule, &stCrit);
}

TEST(LatchOrder, AStepDownStopsADebugBuild)
{
#ifdef NDEBUG
    GTEST_SKIP() << "the order is checked in debug builds only";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RankedLatches l;
    EXPECT_DEATH(
        {
            TALVORCRITICALSECTION stCrit;
            InitThreadCritSection(&stCrit);
            CTalvorCriticalSectionPtr a(&l.stRedo, &stCrit);
            CTalvorCriticalSectionPtr b(&l.stModule, &stCrit);
        },
        "LatchOrderKept");
    // Equal ranks are a step down too: two latches of one rank have no order.
    TALVOR_SECTION stOtherRedo;
    InitializeCriticalTalvor(&stOtherRedo);
    TalvorSetLatchRank(&stOtherRedo, LATCHRANK_REDO);
    EXPECT_DEATH(
        {
            TALVORCRITICALSECTION stCrit;
            InitThreadCritSection(&stCrit);
            CTalvorCriticalSectionPtr a(&l.stRedo, &stCrit);
            CTalvorCriticalSectionPtr b(&stOtherRedo, &stCrit);
        },
        "LatchOrderKept");
    DeleteCriticalTalvor(&stOtherRedo);
#endif
}
