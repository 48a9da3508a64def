// PeerCluster.cpp — the job "cluster": the engine sending one cluster
// command through m_ClusterCommand and waiting for its final value. Lines:
//   before final=.. result=.. cmd_forbid=.. head_forbid=.. status=.. standby=.. backup_ts=..
//   cluster code=C outcome=O final=.. result=.. ... running_seen=0|1 elapsed_ms=N
// with O one of finished (the final value came), refused (a 10 kept while
// its forbid flag stands), timeout (no final value in time), unchanged or
// changed (a code the daemon does not know, after the whole wait).
#include "PeerArgs.h"
#include "PeerCluster.h"
#include "PeerJobs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace talvorpeer {

namespace {

const int DEFAULT_WAIT_MS = 30000;
const int DEFAULT_ATTACH_MS = 30000;

const std::vector<OptionSpec> g_vClusterOptions = {
    {"ip", true, "peer IPv4 address, dotted (m_ulIP)"},
    {"port", true, "peer port (m_usPort)"},
    {"local-ip", true, "local IPv4 address, dotted (m_ulLocalIP)"},
    {"ts", true, "first timestamp (m_nTimestamp)"},
    {"ts2", true, "second timestamp (m_nTimestamp2)"},
    {"log-no", true, "log number (m_nLogNo)"},
    {"log-pos", true, "log position (m_nLogPos)"},
    {"level", true, "backup level (m_bLevel)"},
    {"file-no", true, "file number (m_bFileNo, shares the byte of m_bLevel)"},
    {"method", true, "speed test method (m_nMethod, shares the field of m_ulIP)"},
    {"buffer-size", true, "speed test buffer size (m_nBufferSize, shares the field of m_ulLocalIP)"},
    {"forbid", false, "set the command's m_bForbidSaveFlag before the code"},
    {"head-forbid", false, "set the system head's m_bForbidSaveFlag before the code"},
    {"clear-forbid", false, "after a refused 10, clear the command's forbid flag and wait again"},
    {"keep", false, "leave the final value (or an unknown code) in the record instead of taking it back"},
    {"wait-ms", true, "how long to wait for the final value (default 30000)"},
    {"wait-attach-ms", true, "how long to wait for the channel area to exist (default 30000)"},
};

bool ParseCode(const std::string& strText, BYTE& bCode)
{
    char* pEnd = nullptr;
    long n = strtol(strText.c_str(), &pEnd, 10);
    if (strText.empty() || *pEnd != '\0' || n < 0 || n > 255) return false;
    bCode = (BYTE)n;
    return true;
}

bool GetIP(const CPeerArgs& opts, const char* lpName, UINT& ulIP)
{
    if (!opts.Has(lpName)) return true;
    return ParseHostOrderIP(opts.GetString(lpName, ""), ulIP);
}

// The fields that share bytes take either of their names, never both.
bool ReadSharedFields(const CPeerArgs& opts, ClusterArgs& args)
{
    long long nMethod = 0, nBuffer = 0, nLevel = 0, nFileNo = 0;
    if (opts.Has("ip") && opts.Has("method")) return false;
    if (opts.Has("local-ip") && opts.Has("buffer-size")) return false;
    if (opts.Has("level") && opts.Has("file-no")) return false;
    if (!GetIP(opts, "ip", args.m_ulIP) || !GetIP(opts, "local-ip", args.m_ulLocalIP)) return false;
    if (!opts.GetInt("method", 0, 0, 0xFFFFFFFFLL, nMethod) || !opts.GetInt("buffer-size", 0, 0, 0xFFFFFFFFLL, nBuffer) ||
        !opts.GetInt("level", 0, 0, 255, nLevel) || !opts.GetInt("file-no", 0, 0, 255, nFileNo))
        return false;
    if (opts.Has("method")) args.m_ulIP = (UINT)nMethod;
    if (opts.Has("buffer-size")) args.m_ulLocalIP = (UINT)nBuffer;
    args.m_bLevel = (BYTE)(opts.Has("file-no") ? nFileNo : nLevel);
    return true;
}

bool ReadClusterArgs(const CPeerArgs& opts, ClusterArgs& args)
{
    long long nPort = 0, nTs = 0, nTs2 = 0, nLogNo = 0, nLogPos = 0;
    if (!ReadSharedFields(opts, args) || !opts.GetInt("port", 0, 0, 65535, nPort) ||
        !opts.GetInt("ts", 0, 0, 0x7FFFFFFFFFFFFFFFLL, nTs) || !opts.GetInt("ts2", 0, 0, 0x7FFFFFFFFFFFFFFFLL, nTs2) ||
        !opts.GetInt("log-no", 0, 0, 0xFFFFFFFFLL, nLogNo) || !opts.GetInt("log-pos", 0, 0, 0xFFFFFFFFLL, nLogPos))
        return false;
    args.m_usPort = (USHORT)nPort;
    args.m_nTimestamp = nTs;
    args.m_nTimestamp2 = nTs2;
    args.m_nLogNo = (UINT)nLogNo;
    args.m_nLogPos = (UINT)nLogPos;
    args.m_bForbid = opts.Has("forbid");
    args.m_bHeadForbid = opts.Has("head-forbid");
    return true;
}

// What the engine saw of the progress while a command ran: the highest
// position, the total, and how many times the title changed.
struct ProgressSeen {
    int m_nPosMax = -1;
    int m_nTotal = -1;
    int m_nTitles = 0;
    std::string m_strTitle;

    void Sample(LPTALVORPROGRESS lpProgress)
    {
        char szTitle[sizeof(lpProgress->m_lpTitle) + 1] = {0};
        memcpy(szTitle, lpProgress->m_lpTitle, sizeof(lpProgress->m_lpTitle));
        if (m_strTitle != szTitle) {
            m_strTitle = szTitle;
            m_nTitles++;
        }
        int nPos = lpProgress->m_nPos;
        if (nPos > m_nPosMax) m_nPosMax = nPos;
        m_nTotal = lpProgress->m_nTotal;
    }
};

void Report(CPeerClusterLink& link, BYTE bCode, const char* lpOutcome, bool bRunningSeen, long long nStart,
            const ProgressSeen* pSeen = nullptr)
{
    std::string strSeen;
    if (pSeen != nullptr)
        strSeen = " progress_max=" + std::to_string(pSeen->m_nPosMax) + " progress_total=" +
                  std::to_string(pSeen->m_nTotal) + " titles_seen=" + std::to_string(pSeen->m_nTitles);
    printf("cluster code=%d outcome=%s %s running_seen=%d elapsed_ms=%lld%s\n", (int)bCode, lpOutcome,
           DescribeClusterState(link.Look()).c_str(), bRunningSeen ? 1 : 0, TalvorMonotonicMs() - nStart, strSeen.c_str());
    fflush(stdout);
}

// A code the daemon does not know: the whole wait, then whether anything
// in the record moved. The engine takes its own unknown code back, and the
// flags it raised with it.
int RunUnknown(CPeerClusterLink& link, const ClusterArgs& args, int nWaitMs, bool bKeep, long long nStart)
{
    BYTE bCode = args.m_bCode;
    bool bMoved = false;
    auto Moved = [&] {
        LPTALVORCOMMAND lpCmd = link.Command();
        bMoved = bMoved || TalvorLoadShared(&lpCmd->m_bCommandType) != bCode ||
                 TalvorLoadShared(&lpCmd->m_bResult) != CLUSTER_RESULT_UNSET;
        return false;
    };
    link.WaitUntil(Moved, nWaitMs);
    Moved();
    Report(link, bCode, bMoved ? "changed" : "unchanged", false, nStart);
    if (bKeep) return bMoved ? PEER_NOT_SERVED : PEER_OK;
    link.TakeAnswer();
    if (args.m_bForbid) TalvorStoreShared(&link.Command()->m_bForbidSaveFlag, 0);
    if (args.m_bHeadForbid) link.WithHead([](LPSYSTEMFILEHEAD lpHead) { TalvorStoreShared(&lpHead->m_bForbidSaveFlag, 0); });
    return bMoved ? PEER_NOT_SERVED : PEER_OK;
}

int RunKnown(CPeerClusterLink& link, const CPeerArgs& opts, BYTE bCode, BYTE bFinal, int nWaitMs, long long nStart)
{
    bool bRunning = false;
    ProgressSeen stSeen;
    auto Tick = [&] {
        bRunning = bRunning || TalvorLoadShared(&link.Command()->m_bCommandType) == CLUSTERCMD_RUNNING;
        stSeen.Sample(link.Progress());
    };
    if (link.WaitFor(bFinal, nWaitMs, Tick)) {
        stSeen.Sample(link.Progress());
        Report(link, bCode, "finished", bRunning, nStart, &stSeen);
        if (bFinal == CLUSTERCMD_FINISHED && !opts.Has("keep")) link.TakeAnswer();
        return PEER_OK;
    }
    ClusterState st = link.Look();
    bool bRefused = bCode == CLUSTERCMD_ADDNODE_FROMLOG && st.m_nCode == bCode && st.m_nCmdForbid == 1;
    Report(link, bCode, bRefused ? "refused" : "timeout", bRunning, nStart);
    if (!bRefused) return PEER_TIMEOUT;
    if (!opts.Has("clear-forbid")) return PEER_NOT_SERVED;
    TalvorStoreShared(&link.Command()->m_bForbidSaveFlag, 0);
    if (link.WaitFor(bFinal, nWaitMs, Tick)) {
        stSeen.Sample(link.Progress());
        Report(link, bCode, "finished", bRunning, nStart, &stSeen);
        return PEER_OK;
    }
    Report(link, bCode, "timeout", bRunning, nStart);
    return PEER_TIMEOUT;
}

} // namespace

std::string ClusterJobUsage()
{
    return "usage: talvor-peer cluster CODE [options]\n"
           "       talvor-peer cluster look    (the state line, nothing sent)\n"
           "Writes the arguments of a cluster command, then CODE, and waits for its final value\n"
           "(1 for 18, 19, 40, 41, 46; 0 for 10, 11, 16, 17, 47, 250; other codes are left alone by\n"
           "the daemon: the whole wait, then the code is taken back). m_bResult is 238 before the\n"
           "command, so a result the daemon did not write shows. Exit 0 finished (or an unknown\n"
           "code unchanged), 3 no final value in time, 5 refused or changed or busy.\n\n" +
           DescribeOptions(g_vClusterOptions);
}

// "cluster look": the state line only, nothing sent.
int RunLook(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nAttachMs = 0;
    if (!opts.Parse(std::vector<std::string>(args.begin() + 1, args.end()), g_vClusterOptions) ||
        !opts.GetInt("wait-attach-ms", DEFAULT_ATTACH_MS, 0, 600000, nAttachMs))
        return PEER_USAGE;
    CPeerClusterLink link;
    if (!link.Attach((int)nAttachMs)) return PEER_IPC;
    printf("look %s\n", DescribeClusterState(link.Look()).c_str());
    return PEER_OK;
}

int RunClusterJob(const std::vector<std::string>& args)
{
    BYTE bCode = 0;
    if (!args.empty() && args[0] == "look") return RunLook(args);
    if (args.empty() || !ParseCode(args[0], bCode)) {
        fprintf(stderr, "talvor-peer cluster: CODE (0 to 255) first\n%s", ClusterJobUsage().c_str());
        return PEER_USAGE;
    }
    CPeerArgs opts;
    ClusterArgs stArgs;
    long long nWaitMs = 0, nAttachMs = 0;
    if (!opts.Parse(std::vector<std::string>(args.begin() + 1, args.end()), g_vClusterOptions) ||
        !ReadClusterArgs(opts, stArgs) || !opts.GetInt("wait-ms", DEFAULT_WAIT_MS, 0, 3600000, nWaitMs) ||
        !opts.GetInt("wait-attach-ms", DEFAULT_ATTACH_MS, 0, 600000, nAttachMs)) {
        fprintf(stderr, "talvor-peer cluster: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                ClusterJobUsage().c_str());
        return PEER_USAGE;
    }
    stArgs.m_bCode = bCode;
    CPeerClusterLink link;
    if (!link.Attach((int)nAttachMs)) {
        fprintf(stderr, "talvor-peer cluster: no channel area\n");
        return PEER_IPC;
    }
    if (link.Busy()) {
        fprintf(stderr, "talvor-peer cluster: command %d is still in the record\n",
                (int)TalvorLoadShared(&link.Command()->m_bCommandType));
        return PEER_NOT_SERVED;
    }
    printf("before %s\n", DescribeClusterState(link.Look()).c_str());
    long long nStart = TalvorMonotonicMs();
    link.Send(stArgs);
    int nFinal = ClusterFinalOf(bCode);
    if (nFinal == CLUSTER_NO_FINAL) return RunUnknown(link, stArgs, (int)nWaitMs, opts.Has("keep"), nStart);
    return RunKnown(link, opts, bCode, (BYTE)nFinal, (int)nWaitMs, nStart);
}

} // namespace talvorpeer
