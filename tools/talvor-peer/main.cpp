// main.cpp — talvor-peer, the stand-in for the engine (TalvorService) in
// tests and demonstrations: "talvor-peer JOB [options]".
#include "PeerData.h"
#include "PeerFileCommand.h"
#include "PeerJobs.h"
#include "PeerRedo.h"

#include <cstdio>
#include <cstring>

using namespace talvorpeer;

namespace {

const PeerJob g_arJobs[] = {
    {"trace", "write text into the trace ring as the engine does", RunTraceJob, TraceJobUsage},
    {"redo", "commit redo records into the redo ring as the engine does", RunRedoJob, RedoJobUsage},
    {"data", "change rows of the memory-mode files and commit them, with a journal", RunDataJob, DataJobUsage},
    {"verify", "check the files on disk against the journal of the data job", RunVerifyJob, VerifyJobUsage},
    {"cache-check", "compare the blocks the cache job posted with the files on disk", RunCacheCheckJob,
     CacheCheckJobUsage},
    {"cache", "work on the cache-mode files in the shared cache: blocks, loads, flush entries", RunCacheJob,
     CacheJobUsage},
    {"cluster", "send one cluster command through m_ClusterCommand and wait for its final value", RunClusterJob,
     ClusterJobUsage},
    {"backup", "take a full backup by cluster command 40, with a progress line", RunBackupJob, BackupJobUsage},
    {"file", "add, move, resize or drop a database file through the file list, as the engine does", RunFileJob,
     FileJobUsage},
    {"command", "ask the storage thread through m_bStorageCMD and time its answers", RunCommandJob, CommandJobUsage},
    {"restore", "restore the database from a backup chain by cluster command 46, with a progress line",
     RunRestoreJob, RestoreJobUsage},
    {"standby-node", "a standby node's listener: take shipped log records into copies of the logs", RunStandbyNodeJob,
     StandbyNodeJobUsage},
    {"join-node", "a joining node's listener: take the copied database files into its own directory",
     RunJoinNodeJob, JoinNodeJobUsage},
};

void PrintUsage(FILE* pOut)
{
    fprintf(pOut, "usage: talvor-peer JOB [options]\n       talvor-peer help JOB\n\njobs:\n");
    for (const PeerJob& job : g_arJobs) fprintf(pOut, "  %-10s %s\n", job.m_lpName, job.m_lpSummary);
}

const PeerJob* FindJob(const char* lpName)
{
    for (const PeerJob& job : g_arJobs) {
        if (strcmp(job.m_lpName, lpName) == 0) return &job;
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        PrintUsage(stderr);
        return PEER_USAGE;
    }
    if (strcmp(argv[1], "help") == 0 || strcmp(argv[1], "--help") == 0) {
        const PeerJob* pJob = argc > 2 ? FindJob(argv[2]) : nullptr;
        if (pJob != nullptr)
            fputs(pJob->m_pUsage().c_str(), stdout);
        else
            PrintUsage(stdout);
        return PEER_OK;
    }
    const PeerJob* pJob = FindJob(argv[1]);
    if (pJob == nullptr) {
        fprintf(stderr, "talvor-peer: unknown job \"%s\"\n", argv[1]);
        PrintUsage(stderr);
        return PEER_USAGE;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    return pJob->m_pRun(args);
}
