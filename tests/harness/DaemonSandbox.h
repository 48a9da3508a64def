// DaemonSandbox.h — a private installation of the daemon for one test.
//
// A sandbox lays out a tree of its own under a fresh temporary directory:
//   <root>/bin/TalvorStorage       copy of the built daemon
//   <root>/bin/TalvorConfig.ini    written by the test
//   <root>/Data/Talvor/            the database directory
// and a private IPC and mount namespace (tmpfs on /dev/shm and /var/run),
// held open by a sleeping process. Every program the test starts in the
// sandbox joins that namespace, so fixed SysV keys, semaphore names and the
// lock file never meet another test's or the host's. Every wait is bounded.
#pragma once

#include "TempTree.h"
#include "TestFiles.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace talvortest {

// All TalvorStorage trace files of a log directory, joined in name order.
std::string DaemonTraceIn(const std::string& strLogDir);

// Bounds of a daemon's start and stop in a test; the line it writes once
// it serves.
const int DAEMON_START_TIMEOUT_MS = 30000;
const int DAEMON_STOP_TIMEOUT_MS = 30000;
inline const char* const DAEMON_SERVING_LINE = "Talvor storage service started!";

class DaemonSandbox {
public:
    DaemonSandbox();
    ~DaemonSandbox();
    DaemonSandbox(const DaemonSandbox&) = delete;
    DaemonSandbox& operator=(const DaemonSandbox&) = delete;

    // False when the namespace could not be made (the test should fail).
    bool Ok() const { return m_nHolderPid > 0; }

    const std::string& Root() const { return m_tree.Root(); }
    std::string BinDir() const { return m_tree.Root() + "/bin/"; }
    std::string DataDir() const { return m_tree.Root() + "/Data/Talvor/"; }
    std::string LogDir() const { return DataDir() + "Log/"; }
    std::string IniPath() const { return BinDir() + "TalvorConfig.ini"; }

    // Writes the ini beside the daemon. The default names the database
    // directory and English messages.
    void WriteIni(const std::string& strText);
    void WriteDefaultIni();

    // Starts a program inside the namespace; returns its pid (or -1).
    // stdout and stderr go to <root>/<name>.out.
    pid_t Spawn(const std::vector<std::string>& args, const std::string& strOutName);
    // Runs a program inside the namespace to its end; returns its exit
    // status, or -1 on a time-out (the program is then killed).
    int Run(const std::vector<std::string>& args, int nTimeoutMs, std::string* pOutput = nullptr);

    // strTestCrash, when given, goes to the daemon as TALVOR_TEST_CRASH.
    pid_t StartDaemon(const std::string& strTestCrash = "");
    // Starts the daemon and waits for a serving line written after this
    // call (so a restart does not take the last run's). Its pid, or -1 when
    // it did not serve in time (it is then ended with the sandbox).
    pid_t StartServing(const std::string& strTestCrash = "", int nTimeoutMs = DAEMON_START_TIMEOUT_MS);
    // Runs the daemon to its end, as for a start it must refuse: its exit
    // status, or -1 when it was still running at nTimeoutMs (it is killed).
    int RunDaemon(int nTimeoutMs = DAEMON_START_TIMEOUT_MS) { return Run({BinDir() + "TalvorStorage"}, nTimeoutMs); }
    // Waits until the trace holds strText or the daemon ended. True if found.
    bool WaitForTrace(const std::string& strText, int nTimeoutMs);
    // Waits for a spawned process to end; its exit status, or -1 on time-out.
    int WaitExit(pid_t pid, int nTimeoutMs);
    // True while the process runs; an ended one is reaped here.
    bool IsRunning(pid_t pid);
    // Sends nSignal to a process this sandbox spawned and has not reaped.
    // A reaped pid may already name someone else's process (pids wrap on a
    // busy machine): it is never signalled.
    void Signal(pid_t pid, int nSignal);

    std::string ReadDaemonTrace() const { return DaemonTraceIn(LogDir()); }

private:
    TempTree m_tree;
    pid_t m_nHolderPid = -1;
    // Spawned and not yet reaped: only these may be signalled.
    std::vector<pid_t> m_vSpawned;
    void Reaped(pid_t pid);
};

} // namespace talvortest
