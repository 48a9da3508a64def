// Crash containment at unit level: contained threads built on the module's
// operations fault, jump back, give their latches back and are restarted by
// AutoRecoverCrashedThread; signals sent from outside wait for the end of a
// region that holds what the handler needs.
//
// Every wait is bounded: a lost jump or a latch left taken fails the test
// instead of hanging it.
#include "TraceLogFixture.h"

#include "CrashContainment.h"

#include <atomic>
#include <csignal>
#include <thread>

using namespace talvortest;

namespace {

enum WorkerKind { FAULT_WRITE, DEFER_REGION, FAULT_IN_TRACE };

struct Worker {
    WorkerKind m_kind = FAULT_WRITE;
    HTHREADTYPE m_hThread = 0;
    TALVOR_SECTION m_latch;
    std::atomic<int> m_nRuns{0}, m_nCrashPaths{0}, m_nDone{0}, m_nTid{0};
    std::atomic<bool> m_bWaiting{false}, m_bRelease{false};

    Worker() { InitializeCriticalTalvor(&m_latch); }
    ~Worker() { DeleteCriticalTalvor(&m_latch); }
};

void WorkerCleanup(void* lpContext) { ((Worker*)lpContext)->m_nCrashPaths++; }

void WorkerBody(void* lpContext, LPTALVORCRITICALSECTION lpCritSection)
{
    Worker* w = (Worker*)lpContext;
    int nRun = ++w->m_nRuns;
    w->m_nTid = (int)GetCurrentThreadId();
    const bool bFault = nRun == 1; // the restarted run goes through
    if (bFault && w->m_kind == FAULT_IN_TRACE) {
        static volatile uintptr_t s_nBad = 16;
        Trace("Worker", 3, 1, "%s", (const char*)s_nBad);
    } else if (bFault && w->m_kind == DEFER_REGION) {
        CrashDeferEnter();
        w->m_bWaiting = true;
        while (!w->m_bRelease) usleep(500);
        CrashDeferLeave();
    } else if (bFault) {
        // The fault comes with the latch taken.
        CTalvorCriticalSectionPtr guard(&w->m_latch, lpCritSection);
        CrashTestFault();
    }
    w->m_nDone++;
}

// A contained thread, entered as the daemon's threads enter.
void* WorkerEntry(void* lpParam)
{
    Worker* w = (Worker*)lpParam;
    TalvorRunContained(WorkerEntry, lpParam, &w->m_hThread, WorkerBody, WorkerCleanup, w);
    return nullptr;
}

class CrashContainment : public TraceLogFixture {
protected:
    static void SetUpTestSuite()
    {
        struct sigaction sa = {};
        sigemptyset(&sa.sa_mask);
        sa.sa_sigaction = CrashHandler;
        sa.sa_flags = SA_SIGINFO;
        for (int nSignal : {SIGSEGV, SIGFPE, SIGABRT}) sigaction(nSignal, &sa, nullptr);
    }

    void TearDown() override
    {
        for (Worker* w : m_vWorkers) {
            w->m_bRelease = true;
            struct timespec ts;
            clock_gettime(CLOCK_REALTIME, &ts);
            ts.tv_sec += 10;
            if (w->m_hThread != 0 && pthread_timedjoin_np(w->m_hThread, nullptr, &ts) != 0) {
                // A worker stuck for good (in its own handler, on a latch it
                // holds) would hang every test after it.
                fprintf(stderr, "FATAL: a contained worker never ended; stopping the test binary\n");
                fflush(nullptr);
                _exit(1);
            }
            delete w;
        }
        m_vWorkers.clear();
        TraceLogFixture::TearDown();
        // Only now that no contained thread (trace threads included) runs.
        CrashFreeThreadLists();
    }

    Worker& Start(WorkerKind kind)
    {
        m_vWorkers.push_back(new Worker);
        m_vWorkers.back()->m_kind = kind;
        EXPECT_EQ(0, pthread_create(&m_vWorkers.back()->m_hThread, nullptr, WorkerEntry, m_vWorkers.back()));
        return *m_vWorkers.back();
    }

    static bool HasCrashed() { return CrashHasCrashedThreads(); }
    static bool WaitCrashed() { return WaitUntil(HasCrashed, 10000); }
    static bool LatchFree(Worker& w) { return __atomic_load_n(&w.m_latch.m_nLockFlag, __ATOMIC_ACQUIRE) == 0; }

    std::vector<Worker*> m_vWorkers;
};

TEST_F(CrashContainment, FaultUnwindsTheThreadGivesItsLatchBackAndItIsRestarted)
{
    Worker& w = Start(FAULT_WRITE);
    ASSERT_TRUE(WaitCrashed());
    ASSERT_TRUE(WaitUntil([&] { return w.m_nCrashPaths.load() == 1; }, 5000));
    const int nCrashedTid = w.m_nTid;
    EXPECT_TRUE(WaitUntil([&] { return LatchFree(w); }, 5000)) << "the latch held at the fault stays taken";
    EXPECT_EQ(0, w.m_nDone.load());
    CrashAutoRecoverCrashedThreads();
    EXPECT_FALSE(HasCrashed());
    ASSERT_TRUE(WaitUntil([&] { return w.m_nDone.load() == 1; }, 5000));
    EXPECT_NE(nCrashedTid, w.m_nTid.load()) << "not restarted on a thread of its own";
}

TEST_F(CrashContainment, SignalFromOutsideWaitsForTheEndOfADeferralRegion)
{
    Worker& w = Start(DEFER_REGION);
    ASSERT_TRUE(WaitUntil([&] { return w.m_bWaiting.load(); }, 5000));
    ASSERT_EQ(0, pthread_kill(w.m_hThread, SIGSEGV));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(HasCrashed()) << "handled inside the region";
    w.m_bRelease = true;
    ASSERT_TRUE(WaitCrashed()) << "lost after the region";
    EXPECT_EQ(0, w.m_nDone.load());
    CrashAutoRecoverCrashedThreads();
    ASSERT_TRUE(WaitUntil([&] { return w.m_nDone.load() == 1; }, 5000));
}

TEST_F(CrashContainment, FaultInsideTheTracePathIsHandledAtOnce)
{
    Worker& w = Start(FAULT_IN_TRACE);
    ASSERT_TRUE(WaitCrashed());
    CrashAutoRecoverCrashedThreads();
    ASSERT_TRUE(WaitUntil([&] { return w.m_nDone.load() == 1; }, 5000));
}

} // namespace
