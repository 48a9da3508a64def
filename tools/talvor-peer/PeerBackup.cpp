// PeerBackup.cpp — the job "backup": an operator's front over cluster
// commands 40 and 41, the full and the incremental backup. It sends the command as the engine does,
// shows the daemon's progress record while the backup runs, sets m_bAbort
// on request, and names the backup file at the end. Lines:
//   backup sent ts=T path=P
//   running
//   progress title=... pos=N total=N          (MiB, each time it moves)
//   abort pos=N                               (when m_bAbort was set)
//   backup ts=T outcome=finished|timeout result=R file=yes|no aborted=0|1 path=P final=.. ...
#include "PeerArgs.h"
#include "PeerCluster.h"
#include "PeerProgress.h"
#include "PeerJobs.h"

#include "TalvorBackupFile.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace talvorpeer {

namespace {

const int DEFAULT_BACKUP_WAIT_MS = 600000;
const int DEFAULT_ATTACH_MS = 30000;
const int NO_ABORT = -1;

const std::vector<OptionSpec> g_vBackupOptions = {
    {"full", false, "a full backup (command 40)"},
    {"incremental", false, "an incremental backup (command 41): what changed since --ref"},
    {"level", true, "level of the incremental backup, 1 or more (m_bLevel)"},
    {"ref", true, "timestamp of the backup below the incremental one (m_nTimestamp2)"},
    {"ts", true, "the backup's timestamp (default: m_nEndTimestamp of the system head)"},
    {"wait", false, "wait for the end, showing the progress"},
    {"abort-after-ms", true, "set m_bAbort this long after the daemon shows the backup running (implies --wait)"},
    {"abort-at-mib", true, "set m_bAbort once the progress reaches this many MiB (implies --wait)"},
    {"local-ip", true, "local IPv4 address for the head, dotted (m_ulLocalIP)"},
    {"log-no", true, "redo log number for the head (m_nLogNo)"},
    {"log-pos", true, "redo log position for the head (m_nLogPos)"},
    {"keep", false, "leave the final value in the record instead of taking it back"},
    {"wait-ms", true, "how long to wait for the end (default 600000)"},
    {"wait-attach-ms", true, "how long to wait for the channel area to exist (default 30000)"},
    {"progress-lines", false, "a line \"progress title= pos= total=\" at each change (default: a rewriting line on a "
                              "terminal, nothing otherwise)"},
};

struct BackupJob {
    ClusterArgs m_args;
    long long m_nAbortAfterMs = NO_ABORT, m_nAbortAtMib = NO_ABORT, m_nWaitMs = 0, m_nAttachMs = 0;
    bool m_bWait = false, m_bKeep = false;
    char m_szPath[BACKUP_PATH_MAX] = {0};
    int m_nPathResult = BACKUPDIR_EMPTY;
    // What the progress record showed last, so that a line comes only
    // when it moves.
    char m_szTitle[sizeof(((TALVORPROGRESS*)nullptr)->m_lpTitle) + 1] = {0};
    int m_nPos = -1, m_nTotal = -1;
    // The record as the command found it: what an earlier operation (the
    // load at start-up, an earlier backup) left there. The backup's own
    // progress begins once the title or a smaller position shows.
    char m_szSentTitle[sizeof(m_szTitle)] = {0};
    int m_nSentPos = -1;
    bool m_bOwnProgress = false;
    long long m_nRunningSince = 0;
    bool m_bAborted = false;
    int m_nProgressOut = PROGRESSOUT_QUIET;
};

bool ReadBackupArgs(const CPeerArgs& opts, BackupJob& job)
{
    long long nTs = 0, nLogNo = 0, nLogPos = 0, nLevel = 0, nRef = 0;
    if (opts.Has("full") == opts.Has("incremental")) return false;
    if (opts.Has("incremental") &&
        (!opts.GetInt("level", 0, 1, 255, nLevel) || !opts.GetInt("ref", 0, 1, 0x7FFFFFFFFFFFFFFFLL, nRef) ||
         !opts.Has("level") || !opts.Has("ref")))
        return false;
    if (!opts.GetInt("ts", 0, 1, 0x7FFFFFFFFFFFFFFFLL, nTs) || !opts.GetInt("log-no", 0, 0, 0xFFFFFFFFLL, nLogNo) ||
        !opts.GetInt("log-pos", 0, 0, 0xFFFFFFFFLL, nLogPos) ||
        !opts.GetInt("abort-after-ms", NO_ABORT, 0, 3600000, job.m_nAbortAfterMs) ||
        !opts.GetInt("abort-at-mib", NO_ABORT, 0, 0x40000000, job.m_nAbortAtMib) ||
        !opts.GetInt("wait-ms", DEFAULT_BACKUP_WAIT_MS, 0, 3600000, job.m_nWaitMs) ||
        !opts.GetInt("wait-attach-ms", DEFAULT_ATTACH_MS, 0, 600000, job.m_nAttachMs))
        return false;
    if (opts.Has("local-ip") && !ParseHostOrderIP(opts.GetString("local-ip", ""), job.m_args.m_ulLocalIP)) return false;
    job.m_args.m_bCode = opts.Has("incremental") ? CLUSTERCMD_INCREMENTBACKUP : CLUSTERCMD_FULLBACKUP;
    job.m_args.m_bLevel = (BYTE)nLevel;
    job.m_args.m_nTimestamp2 = nRef;
    job.m_args.m_nTimestamp = nTs;
    job.m_args.m_nLogNo = (UINT)nLogNo;
    job.m_args.m_nLogPos = (UINT)nLogPos;
    job.m_bKeep = opts.Has("keep");
    job.m_bWait = opts.Has("wait") || job.m_nAbortAfterMs != NO_ABORT || job.m_nAbortAtMib != NO_ABORT;
    return true;
}

// The timestamp (the head's newest commit unless given) and the path the
// backup file gets, from the head's destination list as the daemon reads it.
bool ReadHead(CPeerClusterLink& link, BackupJob& job)
{
    return link.WithHead([&](LPSYSTEMFILEHEAD lpHead) {
        if (job.m_args.m_nTimestamp == 0) job.m_args.m_nTimestamp = TalvorLoadShared(&lpHead->m_nEndTimestamp);
        char szList[sizeof(lpHead->m_lpArchiveDesPath)];
        memcpy(szList, lpHead->m_lpArchiveDesPath, sizeof(szList));
        job.m_nPathResult = TalvorBackupFilePath(szList, (int)sizeof(szList), job.m_args.m_nTimestamp, job.m_szPath);
    });
}

void ReadTitle(CPeerClusterLink& link, char* lpTitle)
{
    LPTALVORPROGRESS lpProgress = link.Progress();
    // The daemon writes the title while the backup runs: byte by byte, as
    // every field shared with it.
    for (size_t i = 0; i < sizeof(lpProgress->m_lpTitle); i++) lpTitle[i] = TalvorLoadShared(&lpProgress->m_lpTitle[i]);
}

// What the progress record holds before the command is sent.
void NoteSentProgress(CPeerClusterLink& link, BackupJob& job)
{
    ReadTitle(link, job.m_szSentTitle);
    job.m_nSentPos = TalvorLoadShared(&link.Progress()->m_nPos);
}

void ShowProgress(CPeerClusterLink& link, BackupJob& job)
{
    LPTALVORPROGRESS lpProgress = link.Progress();
    char szTitle[sizeof(job.m_szTitle)] = {0};
    ReadTitle(link, szTitle);
    int nPos = TalvorLoadShared(&lpProgress->m_nPos);
    int nTotal = TalvorLoadShared(&lpProgress->m_nTotal);
    if (!job.m_bOwnProgress) {
        bool bMoved = strcmp(szTitle, job.m_szSentTitle) != 0 || nPos < job.m_nSentPos;
        job.m_bOwnProgress = bMoved && TalvorLoadShared(&lpProgress->m_nStatus) == PROGRESS_RUNNING;
        if (!job.m_bOwnProgress) return;
    }
    if (nPos == job.m_nPos && nTotal == job.m_nTotal && strcmp(szTitle, job.m_szTitle) == 0) return;
    job.m_nPos = nPos;
    job.m_nTotal = nTotal;
    memcpy(job.m_szTitle, szTitle, sizeof(szTitle));
    ShowProgressChange(job.m_nProgressOut, szTitle, nPos, nTotal);
}

void AbortIfDue(CPeerClusterLink& link, BackupJob& job)
{
    if (job.m_bAborted || job.m_nRunningSince == 0) return;
    bool bDue = job.m_nAbortAfterMs != NO_ABORT && TalvorMonotonicMs() - job.m_nRunningSince >= job.m_nAbortAfterMs;
    bDue = bDue || (job.m_nAbortAtMib != NO_ABORT && job.m_bOwnProgress && job.m_nPos >= job.m_nAbortAtMib);
    if (!bDue) return;
    TalvorStoreShared(&link.Command()->m_bAbort, 1);
    job.m_bAborted = true;
    printf("abort pos=%d\n", job.m_nPos);
    fflush(stdout);
}

void Tick(CPeerClusterLink& link, BackupJob& job)
{
    if (job.m_nRunningSince == 0 && TalvorLoadShared(&link.Command()->m_bCommandType) == CLUSTERCMD_RUNNING) {
        job.m_nRunningSince = TalvorMonotonicMs();
        printf("running\n");
    }
    if (job.m_nRunningSince != 0) ShowProgress(link, job);
    AbortIfDue(link, job);
}

const char* PathText(const BackupJob& job)
{
    return job.m_nPathResult == BACKUPDIR_OK ? job.m_szPath : "none";
}

int WaitForBackup(CPeerClusterLink& link, BackupJob& job)
{
    bool bDone = link.WaitFor(CLUSTERCMD_FINISHED, (int)job.m_nWaitMs, [&] { Tick(link, job); });
    if (bDone) ShowProgress(link, job);
    EndProgressOutput(job.m_nProgressOut);
    // The engine takes its abort back once the command has ended.
    if (bDone) TalvorStoreShared(&link.Command()->m_bAbort, 0);
    ClusterState st = link.Look();
    bool bFile = job.m_nPathResult == BACKUPDIR_OK && access(job.m_szPath, F_OK) == 0;
    printf("backup ts=%lld outcome=%s result=%d file=%s aborted=%d path=%s %s\n", job.m_args.m_nTimestamp,
           bDone ? "finished" : "timeout", st.m_nResult, bFile ? "yes" : "no", job.m_bAborted ? 1 : 0, PathText(job),
           DescribeClusterState(st).c_str());
    fflush(stdout);
    if (!bDone) return PEER_TIMEOUT;
    if (!job.m_bKeep) link.TakeAnswer();
    return st.m_nResult == CLUSTERRESULT_OK ? PEER_OK : PEER_NOT_SERVED;
}

} // namespace

std::string BackupJobUsage()
{
    return "usage: talvor-peer backup --full [options]\n"
           "       talvor-peer backup --incremental --level L --ref TS [options]\n"
           "Sends cluster command 40 (41) as the engine does. With --wait (or an abort) shows the progress\n"
           "record while the backup runs and ends with the result and the backup file's path, built\n"
           "from m_lpArchiveDesPath of the system head. Exit 0 backed up (or sent, without --wait),\n"
           "3 no end in time, 5 the backup failed or was aborted, or a command was in the record.\n\n" +
           DescribeOptions(g_vBackupOptions);
}

int RunBackupJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    BackupJob job;
    if (!opts.Parse(args, g_vBackupOptions) || !ReadBackupArgs(opts, job)) {
        fprintf(stderr, "talvor-peer backup: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                BackupJobUsage().c_str());
        return PEER_USAGE;
    }
    CPeerClusterLink link;
    if (!link.Attach((int)job.m_nAttachMs) || !ReadHead(link, job)) {
        fprintf(stderr, "talvor-peer backup: no channel area or no system image\n");
        return PEER_IPC;
    }
    if (job.m_args.m_nTimestamp == 0) {
        fprintf(stderr, "talvor-peer backup: nothing committed yet; give --ts\n");
        return PEER_USAGE;
    }
    if (link.Busy()) {
        fprintf(stderr, "talvor-peer backup: command %d is still in the record\n",
                (int)TalvorLoadShared(&link.Command()->m_bCommandType));
        return PEER_NOT_SERVED;
    }
    NoteSentProgress(link, job);
    job.m_nProgressOut = ChooseProgressOutput(opts.Has("progress-lines"));
    link.Send(job.m_args);
    printf("backup sent ts=%lld path=%s\n", job.m_args.m_nTimestamp, PathText(job));
    fflush(stdout);
    return job.m_bWait ? WaitForBackup(link, job) : PEER_OK;
}

} // namespace talvorpeer
