// PeerCommand.cpp — the job "command": the engine asking the storage thread
// for something through m_bStorageCMD of the system head and waiting for
// the daemon's 32, again and again, with or without a post of the storage
// event. It tells how long each answer took.
//
// Commands land at random moments (a random pause before each), so that
// they meet the storage thread at every phase of its poll.
#include "PeerArgs.h"
#include "PeerData.h"
#include "PeerJobs.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <random>
#include <unistd.h>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vCommandOptions = {
    {"count", true, "commands to send (default 1000)"},
    {"code", true, "m_bStorageCMD to write: 2 pass, 3 drain the cache buffers (default 3)"},
    {"post", false, "post the storage event after each command"},
    {"gap-us", true, "longest random pause before a command, in microseconds (default 3000)"},
    {"timeout-ms", true, "how long one answer may take (default 2000)"},
    {"wait-ready-ms", true, "how long to wait for the daemon's readiness (default 30000)"},
    {"head-ready", false, "ready once the head says m_bStatus 0, whatever m_nStatus says (a rebuild leaves it at 1, a backup at 0)"},
    {"live", false, "run as a live engine: m_bService 1 and the channel answered while the job runs"},
    {"hold-ms", true, "before the commands, stay (live or not) this long doing nothing else (default 0)"},
};

// How often the engine looks for the answer: short against the latencies
// measured, long enough to leave the CPU to the daemon.
const long POLL_NANOS = 20000;

void SleepNanos(long long nNanos)
{
    struct timespec ts = {(time_t)(nNanos / 1000000000LL), (long)(nNanos % 1000000000LL)};
    nanosleep(&ts, nullptr);
}

long long Percentile(std::vector<long long>& v, double dFraction)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = (size_t)(dFraction * (double)(v.size() - 1) + 0.5);
    return v[n < v.size() ? n : v.size() - 1];
}

} // namespace

std::string CommandJobUsage()
{
    return "usage: talvor-peer command [options]\n"
           "Writes m_bStorageCMD and waits for the daemon's 32, --count times; prints\n"
           "\"commands=N answered=N p50_us=N p99_us=N max_us=N\".\n\n" +
           DescribeOptions(g_vCommandOptions);
}

int RunCommandJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nCount = 0, nCode = 0, nGapUs = 0, nTimeoutMs = 0, nWaitReady = 0, nHoldMs = 0;
    if (!opts.Parse(args, g_vCommandOptions) || !opts.GetInt("count", 1000, 1, 10000000, nCount) ||
        !opts.GetInt("code", 3, 2, 3, nCode) || !opts.GetInt("gap-us", 3000, 0, 10000000, nGapUs) ||
        !opts.GetInt("timeout-ms", 2000, 1, 600000, nTimeoutMs) ||
        !opts.GetInt("wait-ready-ms", 30000, 0, 600000, nWaitReady) ||
        !opts.GetInt("hold-ms", 0, 0, 3600000, nHoldMs)) {
        fprintf(stderr, "talvor-peer command: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                CommandJobUsage().c_str());
        return PEER_USAGE;
    }
    CPeerEngine engine;
    engine.m_bHeadReady = opts.Has("head-ready");
    if (!engine.Attach((int)nWaitReady)) {
        fprintf(stderr, "talvor-peer command: the daemon is not ready\n");
        return PEER_IPC;
    }
    bool bPost = opts.Has("post");
    bool bLive = opts.Has("live");
    if (bLive) engine.SetLive(true);
    // A live engine answers the daemon's channel in every pause.
    auto Pause = [&](long long nNanos) {
        long long nEnd = TalvorMonotonicNs() + nNanos;
        do {
            if (bLive) engine.ServeChannel();
            long long nLeft = nEnd - TalvorMonotonicNs();
            SleepNanos(nLeft < POLL_NANOS ? (nLeft > 0 ? nLeft : 0) : POLL_NANOS);
        } while (TalvorMonotonicNs() < nEnd);
    };
    if (nHoldMs > 0) Pause(nHoldMs * 1000000LL);
    std::mt19937 rng((unsigned)getpid());
    std::vector<long long> vMicros;
    vMicros.reserve((size_t)nCount);
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    for (long long i = 0; i < nCount; i++) {
        if (nGapUs > 0) Pause((long long)(rng() % (unsigned)(nGapUs + 1)) * 1000LL);
        long long nStart = TalvorMonotonicNs();
        PeerFence();
        TalvorStoreShared(&lpHead->m_bStorageCMD, (BYTE)nCode);
        if (bPost) SetEvent(engine.m_hStorage);
        long long nDeadline = nStart + nTimeoutMs * 1000000LL;
        while (TalvorLoadShared(&lpHead->m_bStorageCMD) != STORAGECMD_FINISHED && TalvorMonotonicNs() < nDeadline) Pause(POLL_NANOS);
        long long nEnd = TalvorMonotonicNs();
        if (TalvorLoadShared(&lpHead->m_bStorageCMD) != STORAGECMD_FINISHED) {
            fprintf(stderr, "talvor-peer command: no answer within %lld ms\n", nTimeoutMs);
            break;
        }
        vMicros.push_back((nEnd - nStart) / 1000);
    }
    size_t nAnswered = vMicros.size();
    long long nP50 = Percentile(vMicros, 0.50);
    long long nP99 = Percentile(vMicros, 0.99);
    long long nMax = vMicros.empty() ? 0 : vMicros.back();
    if (bLive) engine.SetLive(false);
    printf("commands=%lld answered=%zu p50_us=%lld p99_us=%lld max_us=%lld\n", nCount, nAnswered, nP50, nP99, nMax);
    return (long long)nAnswered == nCount ? PEER_OK : PEER_TIMEOUT;
}

} // namespace talvorpeer
