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

    pid_t StartDaemon();
    // Waits until the trace holds strText or the daemon ended. True if found.
    bool WaitForTrace(const std::string& strText, int nTimeoutMs);
    // Waits for a spawned process to end; its exit status, or -1 on time-out.
    int WaitExit(pid_t pid, int nTimeoutMs);
    bool IsRunning(pid_t pid);
    void Signal(pid_t pid, int nSignal);

    // All TalvorStorage trace files of the database, joined in name order.
    std::string ReadDaemonTrace() const;

private:
    TempTree m_tree;
    pid_t m_nHolderPid = -1;
    std::vector<pid_t> m_vSpawned;
};

} // namespace talvortest
