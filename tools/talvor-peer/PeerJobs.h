// PeerJobs.h — the jobs of the engine stand-in. Each job is one thing the
// engine does towards the daemon, on the shared records as the engine would;
// a new job is a function here and a row in the table of main.cpp.
#pragma once

#include <string>
#include <vector>

namespace talvorpeer {

// Exit statuses shared by all jobs.
enum PeerExit {
    PEER_OK = 0,
    PEER_USAGE = 1,      // bad command line
    PEER_IPC = 2,        // a segment or semaphore could not be had
    PEER_TIMEOUT = 3,    // the daemon did not take what was given in time
    PEER_INPUT = 4,      // an input file could not be read
    PEER_NOT_SERVED = 5, // the daemon refused a command, or it was not the stand-in's turn
};

struct PeerJob {
    const char* m_lpName;
    const char* m_lpSummary;
    int (*m_pRun)(const std::vector<std::string>& args);
    std::string (*m_pUsage)();
};

// trace: writes text into the trace ring as the engine does.
int RunTraceJob(const std::vector<std::string>& args);
std::string TraceJobUsage();

// command: asks the storage thread through m_bStorageCMD and times answers.
int RunCommandJob(const std::vector<std::string>& args);
std::string CommandJobUsage();

// cache-check: the blocks the cache job posted against the files on disk.
int RunCacheCheckJob(const std::vector<std::string>& args);
std::string CacheCheckJobUsage();

// cache: the engine's side of the shared block cache (PeerCacheJob.cpp).
int RunCacheJob(const std::vector<std::string>& args);
std::string CacheJobUsage();

// cluster: one cluster command through m_ClusterCommand (PeerCluster.cpp).
int RunClusterJob(const std::vector<std::string>& args);
std::string ClusterJobUsage();

// backup: a full backup by command 40, with its progress (PeerBackup.cpp).
int RunBackupJob(const std::vector<std::string>& args);
std::string BackupJobUsage();

// restore: a restore by command 46, with its progress (PeerRestore.cpp).
int RunRestoreJob(const std::vector<std::string>& args);
std::string RestoreJobUsage();

// standby-node: a standby node's listener that takes shipped log records
// (PeerStandbyNode.cpp).
int RunStandbyNodeJob(const std::vector<std::string>& args);
std::string StandbyNodeJobUsage();

// join-node: a joining node's listener that takes the copied database
// files (PeerJoinNode.cpp).
int RunJoinNodeJob(const std::vector<std::string>& args);
std::string JoinNodeJobUsage();

} // namespace talvorpeer
