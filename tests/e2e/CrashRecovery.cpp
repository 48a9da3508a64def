// End-to-end: crash containment of the daemon's storage thread and its
// trace writer; the
// mechanism alone (other threads, signals from outside, a fault inside the
// trace path, the frames of a stack trace) is CrashContainment's at unit
// level.
#include "DatabaseLoadKit.h"

#include <dirent.h>
#include <regex>
#include <set>

using namespace talvortest;

namespace {

const int START_TIMEOUT_MS = 20000;

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

// A daemon on a made database, told to fault at lpWhere.
pid_t StartFaulting(DaemonSandbox& box, const char* lpWhere)
{
    box.WriteDefaultIni();
    std::string strOut;
    EXPECT_EQ(0, box.Run({MkdbPath(), "--dir", box.DataDir()}, 60000, &strOut)) << strOut;
    pid_t pid = box.StartServing(lpWhere);
    EXPECT_GT(pid, 0) << box.ReadDaemonTrace();
    return pid;
}

} // namespace

// The storage thread is restarted and its latch is free; the trace writer
// that would trace its own fault is the one that faulted: the lines after
// it still reach the file. The daemon stops well after either.
TEST(CrashRecovery, AFaultOfTheStorageThreadOrTheTraceWriterIsRecoveredAndTheDaemonStopsWell)
{
    for (const std::string strWhere : {"storage", "tracewriter"}) {
        SCOPED_TRACE(strWhere);
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        pid_t pid = StartFaulting(box, strWhere.c_str());
        ASSERT_GT(pid, 0);
        ASSERT_TRUE(box.WaitForTrace("has been submitted for automatic recovery", START_TIMEOUT_MS))
            << box.ReadDaemonTrace();
        if (strWhere == "storage") {
            // The restarted thread takes the latch the crashed one held at its fault.
            ASSERT_TRUE(box.WaitForTrace("test: the restarted storage thread took m_crit", START_TIMEOUT_MS))
                << box.ReadDaemonTrace();
            std::string strTrace = box.ReadDaemonTrace();
            std::smatch m;
            ASSERT_TRUE(std::regex_search(strTrace, m, std::regex(R"(Thread \[(\d+)\] has been submitted)")));
            int nCrashed = std::stoi(m[1]);
            EXPECT_TRUE(WaitUntil([&] { return TaskIds(pid).count(nCrashed) == 0; }, 5000, TRACE_POLL_MS))
                << "the crashed thread lingers";
        }
        EXPECT_TRUE(box.IsRunning(pid));
        EXPECT_TRUE(StopDaemon(box, pid)) << box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service closed!"));
    }
}
