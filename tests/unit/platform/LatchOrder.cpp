// The latch order is checked where latches are taken: a thread that takes a
// lower-ranked latch while it holds a higher one stops a debug build at once,
// long before two such threads meet in a deadlock. Rising ranks, recursion
// and unranked latches are taken by every debug run of the daemon.
#include "LinuxCommonAPI.h"

#include <gtest/gtest.h>

TEST(LatchOrder, AStepDownStopsADebugBuild)
{
#ifdef NDEBUG
    GTEST_SKIP() << "the order is checked in debug builds only";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TALVOR_SECTION stModule, stRedo, stOtherRedo;
    for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stOtherRedo}) InitializeCriticalTalvor(lp);
    TalvorSetLatchRank(&stModule, LATCHRANK_MODULE);
    TalvorSetLatchRank(&stRedo, LATCHRANK_REDO);
    TalvorSetLatchRank(&stOtherRedo, LATCHRANK_REDO);
    // Equal ranks are a step down too: two latches of one rank have no order.
    for (LPTALVOR_SECTION lpSecond : {&stModule, &stOtherRedo}) {
        EXPECT_DEATH(
            {
                TALVORCRITICALSECTION stCrit;
                InitThreadCritSection(&stCrit);
                CTalvorCriticalSectionPtr a(&stRedo, &stCrit);
                CTalvorCriticalSectionPtr b(lpSecond, &stCrit);
            },
            "LatchOrderKept");
    }
    for (LPTALVOR_SECTION lp : {&stModule, &stRedo, &stOtherRedo}) DeleteCriticalTalvor(lp);
#endif
}
