// PeerRestore.cpp — the job "restore": an operator's front over cluster
// command 46. It sends the command as the engine does, with the timestamp
// of the newest backup of the chain to restore, shows the daemon's progress
// while it runs, and tells at the end whether a database is open again.
// Lines:
//   restore sent ts=T
//   progress title=... pos=N total=N          (each time it moves, with
//                                             --progress-lines; a rewriting
//                                             line on a terminal)
//   restore ts=T outcome=finished|timeout database=open|none restored=yes|no committed=C final=.. ...
#include "PeerArgs.h"
#include "PeerCluster.h"
#include "PeerProgress.h"
#include "PeerJobs.h"

#include <cstdio>
#include <cstring>

namespace talvorpeer {

namespace {

const int DEFAULT_RESTORE_WAIT_MS = 600000;
const int DEFAULT_ATTACH_MS = 30000;

const std::vector<OptionSpec> g_vRestoreOptions = {
    {"to", true, "timestamp of the newest backup of the chain to restore (m_nTimestamp)"},
    {"wait-ms", true, "how long to wait for the end (default 600000)"},
    {"wait-attach-ms", true, "how long to wait for the channel area to exist (default 30000)"},
    {"progress-lines", false, "a line \"progress title= pos= total=\" at each change (default: a rewriting line on a "
                              "terminal, nothing otherwise)"},
};

struct ProgressSeen {
    char m_szTitle[sizeof(((TALVORPROGRESS*)nullptr)->m_lpTitle) + 1] = {0};
    int m_nPos = -1;
    int m_nTotal = -1;
    int m_nOut = PROGRESSOUT_QUIET;
};

void ShowProgress(CPeerClusterLink& link, ProgressSeen& seen)
{
    LPTALVORPROGRESS lpProgress = link.Progress();
    char szTitle[sizeof(seen.m_szTitle)] = {0};
    for (size_t i = 0; i < sizeof(lpProgress->m_lpTitle); i++) szTitle[i] = TalvorLoadShared(&lpProgress->m_lpTitle[i]);
    int nPos = TalvorLoadShared(&lpProgress->m_nPos);
    int nTotal = TalvorLoadShared(&lpProgress->m_nTotal);
    if (nPos == seen.m_nPos && nTotal == seen.m_nTotal && strcmp(szTitle, seen.m_szTitle) == 0) return;
    seen.m_nPos = nPos;
    seen.m_nTotal = nTotal;
    memcpy(seen.m_szTitle, szTitle, sizeof(szTitle));
    ShowProgressChange(seen.m_nOut, szTitle, nPos, nTotal);
}

} // namespace

std::string RestoreJobUsage()
{
    return "usage: talvor-peer restore --to TIMESTAMP [options]\n"
           "Sends cluster command 46 as the engine does: the daemon checks the chain of backups that\n"
           "ends in the backup of TIMESTAMP (under the first archive destination), and only then takes\n"
           "the database apart, restores it and brings it up again. Shows the progress and ends with\n"
           "whether a database is open at the point restored. Exit 0 restored and open at TIMESTAMP, 3 no\n"
           "end in time, 5 refused, failed or no database open, 1 bad arguments.\n\n" +
           DescribeOptions(g_vRestoreOptions);
}

int RunRestoreJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nTs = 0, nWaitMs = 0, nAttachMs = 0;
    if (!opts.Parse(args, g_vRestoreOptions) || !opts.Has("to") ||
        !opts.GetInt("to", 0, 1, 0x7FFFFFFFFFFFFFFFLL, nTs) ||
        !opts.GetInt("wait-ms", DEFAULT_RESTORE_WAIT_MS, 0, 24LL * 3600000, nWaitMs) ||
        !opts.GetInt("wait-attach-ms", DEFAULT_ATTACH_MS, 0, 600000, nAttachMs)) {
        fprintf(stderr, "talvor-peer restore: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                RestoreJobUsage().c_str());
        return PEER_USAGE;
    }
    CPeerClusterLink link;
    if (!link.Attach((int)nAttachMs)) {
        fprintf(stderr, "talvor-peer restore: no channel area\n");
        return PEER_IPC;
    }
    if (link.Busy()) {
        fprintf(stderr, "talvor-peer restore: command %d is still in the record\n",
                (int)TalvorLoadShared(&link.Command()->m_bCommandType));
        return PEER_NOT_SERVED;
    }
    ClusterArgs stArgs;
    stArgs.m_bCode = CLUSTERCMD_RESTORE;
    stArgs.m_nTimestamp = nTs;
    ProgressSeen seen;
    seen.m_nOut = ChooseProgressOutput(opts.Has("progress-lines"));
    link.Send(stArgs);
    printf("restore sent ts=%lld\n", nTs);
    fflush(stdout);
    bool bDone = link.WaitFor(CLUSTERCMD_FINISHED, (int)nWaitMs, [&] { ShowProgress(link, seen); });
    if (bDone) ShowProgress(link, seen);
    EndProgressOutput(seen.m_nOut);
    // Command 46 writes no result: a refused restore leaves the database
    // up at its own point, a done one brings it up at the point restored.
    long long nCommitted = -1;
    bool bOpen = link.WithHead([&](LPSYSTEMFILEHEAD lpHead) { nCommitted = TalvorLoadShared(&lpHead->m_nBeginTimestamp); });
    bool bRestored = bDone && bOpen && nCommitted == nTs;
    ClusterState st = link.Look();
    printf("restore ts=%lld outcome=%s database=%s restored=%s committed=%lld %s\n", nTs, bDone ? "finished" : "timeout",
           bOpen ? "open" : "none", bRestored ? "yes" : "no", nCommitted, DescribeClusterState(st).c_str());
    fflush(stdout);
    if (!bDone) return PEER_TIMEOUT;
    link.TakeAnswer();
    return bRestored ? PEER_OK : PEER_NOT_SERVED;
}

} // namespace talvorpeer
