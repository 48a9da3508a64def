// PeerData.cpp — the jobs "data" and "verify" of the engine stand-in.
//
// "data" changes rows of every memory-mode database file as the engine
// does, one row per transaction, writes each change to a journal before the
// transaction's m_nEndTimestamp is raised, and may ask for passes
// (m_bStorageCMD 2, waiting for 32). As a live engine (--live) it sets
// m_bService to 1 and answers the daemon's channel commands between
// transactions; killed, it plays a lost engine.
//
// "verify" reads the database files from disk and checks them against the
// journal: every row whose last change is covered by the committed
// timestamp must hold that change (or a later journalled one) whole.
#include "PeerArgs.h"
#include "PeerData.h"
#include "PeerJobs.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sstream>
#include <unistd.h>

namespace talvorpeer {

namespace {

const int PEER_VIOLATION = 5;

const std::vector<OptionSpec> g_vDataOptions = {
    {"journal", true, "file the committed changes are appended to (required)"},
    {"count", true, "transactions to commit (default 1000)"},
    {"seconds", true, "stop after this many seconds at most (default 60)"},
    {"pause-us", true, "pause between transactions in microseconds (default 1000)"},
    {"blocks", true, "blocks each database file is grown to first (default 16)"},
    {"slots", true, "rows used in each block (default 8)"},
    {"pass-every", true, "ask for a pass (m_bStorageCMD 2) every N transactions (default 0: never)"},
    {"seed", true, "random seed (default: the pid)"},
    {"wait-ready-ms", true, "how long to wait for the daemon's readiness (default 30000)"},
    {"live", false, "run as a live engine: m_bService 1, answer channel commands"},
    {"quiet", false, "no summary line"},
};

const std::vector<OptionSpec> g_vVerifyOptions = {
    {"journal", true, "the journal of the data job (required)"},
    {"system", true, "path of System.dbf (required); the file list gives the other files"},
    {"at-least", true, "fail unless the committed timestamp is at least this"},
};

long long NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool AppendJournal(int fd, const std::string& strLine)
{
    const char* p = strLine.data();
    size_t n = strLine.size();
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= (size_t)w;
    }
    return true;
}

// Asks for a pass and waits (bounded) for 32, answering the channel
// meanwhile: the pass itself asks this engine for heads.
bool AskForPass(CPeerEngine& engine, bool bLive)
{
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    lpHead->m_bStorageCMD = 2;
    SetEvent(engine.m_hStorage);
    for (int i = 0; i < 60000; i++) {
        if (lpHead->m_bStorageCMD == 32) return true;
        if (bLive) engine.ServeChannel();
        usleep(500);
    }
    return false;
}

} // namespace

std::string DataJobUsage()
{
    return "usage: talvor-peer data --journal FILE [options]\n"
           "Changes rows of every memory-mode database file as the engine does and commits them.\n\n" +
           DescribeOptions(g_vDataOptions);
}

int RunDataJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nCount, nSeconds, nPauseUs, nBlocks, nSlots, nPassEvery, nSeed, nWaitMs;
    if (!opts.Parse(args, g_vDataOptions) || !opts.Has("journal") || !opts.GetInt("count", 1000, 0, 1LL << 40, nCount) ||
        !opts.GetInt("seconds", 60, 1, 86400, nSeconds) || !opts.GetInt("pause-us", 1000, 0, 10000000, nPauseUs) ||
        !opts.GetInt("blocks", 16, 1, 3000, nBlocks) || !opts.GetInt("slots", 8, 1, PEER_MAX_SLOTS, nSlots) ||
        !opts.GetInt("pass-every", 0, 0, 1LL << 40, nPassEvery) || !opts.GetInt("seed", getpid(), 0, 1LL << 62, nSeed) ||
        !opts.GetInt("wait-ready-ms", 30000, 0, 600000, nWaitMs)) {
        fprintf(stderr, "talvor-peer data: %s\n%s", opts.Error().c_str(), DataJobUsage().c_str());
        return PEER_USAGE;
    }
    bool bLive = opts.Has("live");
    CPeerEngine engine;
    if (!engine.Attach((int)nWaitMs)) {
        fprintf(stderr, "talvor-peer data: the daemon's segments are not there or not ready\n");
        return PEER_IPC;
    }
    std::string strJournal = opts.GetString("journal", "");
    int fdJournal = open(strJournal.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fdJournal < 0) {
        fprintf(stderr, "talvor-peer data: cannot open the journal %s: %s\n", strJournal.c_str(), strerror(errno));
        return PEER_INPUT;
    }
    if (bLive) engine.SetLive(true);
    LPSYSTEMFILEHEAD lpHead = engine.Head();

    // Blocks first, one transaction (a file already grown stays as it is).
    long long ts = lpHead->m_nEndTimestamp + 1;
    for (int n : engine.m_vFiles) {
        if (!PeerPrepareFile(engine.m_arImages[n], engine.m_arSizes[n], (int)nBlocks, ts))
            fprintf(stderr, "talvor-peer data: file %d has no room for %lld blocks; using what it has\n", n, nBlocks);
    }
    PeerFence();
    lpHead->m_nEndTimestamp = ts;
    std::vector<std::vector<long long>> vBlocks(256);
    for (int n : engine.m_vFiles) vBlocks[(size_t)n] = PeerFileBlocks(engine.m_arImages[n], engine.m_arSizes[n]);

    std::mt19937_64 rng((unsigned long long)nSeed);
    long long nDeadline = NowMs() + nSeconds * 1000;
    long long nDone = 0, nPasses = 0;
    for (; nDone < nCount && NowMs() < nDeadline && !engine.m_vFiles.empty(); nDone++) {
        int nFileNo = engine.m_vFiles[(size_t)(rng() % engine.m_vFiles.size())];
        const std::vector<long long>& v = vBlocks[(size_t)nFileNo];
        if (v.empty()) break;
        long long nBlock = v[(size_t)(rng() % v.size())];
        int nSlotMax = PeerSlotCount(((LPBLOCKHEAD)(engine.m_arImages[nFileNo] + nBlock))->m_nBlockSize);
        int nSlot = (int)(rng() % (unsigned long long)(nSlots < nSlotMax ? nSlots : nSlotMax));
        long long nValue = (long long)(rng() >> 1);
        ts = lpHead->m_nEndTimestamp + 1;
        PeerChangeRow(engine.m_arImages[nFileNo], engine.m_arSizes[nFileNo], nFileNo, nBlock, nSlot, nValue, ts);
        if (!AppendJournal(fdJournal, PeerJournalLine({ts, nFileNo, nBlock, nSlot, nValue}))) {
            fprintf(stderr, "talvor-peer data: journal write failed: %s\n", strerror(errno));
            close(fdJournal);
            return PEER_INPUT;
        }
        PeerFence();
        lpHead->m_nEndTimestamp = ts;
        if (bLive) engine.ServeChannel();
        if (nPassEvery > 0 && (nDone + 1) % nPassEvery == 0) {
            if (!AskForPass(engine, bLive)) {
                fprintf(stderr, "talvor-peer data: no answer 32 to a pass request\n");
                close(fdJournal);
                return PEER_TIMEOUT;
            }
            nPasses++;
        }
        // The pause serves the channel too, so that a pass never waits long.
        for (long long nWaited = 0; nWaited < nPauseUs; nWaited += 200) {
            if (bLive) engine.ServeChannel();
            usleep((useconds_t)(nPauseUs - nWaited < 200 ? nPauseUs - nWaited : 200));
        }
    }
    close(fdJournal);
    if (bLive) engine.SetLive(false);
    if (!opts.Has("quiet"))
        printf("committed %lld transactions, last timestamp %lld, passes asked %lld, channel answers %lld\n", nDone,
               (long long)lpHead->m_nEndTimestamp, nPasses, engine.m_nAnswers);
    return PEER_OK;
}

std::string VerifyJobUsage()
{
    return "usage: talvor-peer verify --journal FILE --system PATH\n"
           "Checks the database files on disk against the journal of the data job.\n\n" +
           DescribeOptions(g_vVerifyOptions);
}

int RunVerifyJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nAtLeast;
    if (!opts.Parse(args, g_vVerifyOptions) || !opts.Has("journal") || !opts.Has("system") ||
        !opts.GetInt("at-least", 0, 0, 1LL << 62, nAtLeast)) {
        fprintf(stderr, "talvor-peer verify: %s\n%s", opts.Error().c_str(), VerifyJobUsage().c_str());
        return PEER_USAGE;
    }
    auto ReadFile = [](const std::string& strPath, std::string& strOut) {
        std::ifstream in(strPath, std::ios::binary);
        if (!in) return false;
        std::ostringstream ss;
        ss << in.rdbuf();
        strOut = ss.str();
        return true;
    };
    std::string strJournal, strSystem;
    if (!ReadFile(opts.GetString("journal", ""), strJournal) || !ReadFile(opts.GetString("system", ""), strSystem) ||
        strSystem.size() < sizeof(SYSTEMFILEHEAD)) {
        fprintf(stderr, "talvor-peer verify: cannot read the journal or the system file\n");
        return PEER_INPUT;
    }
    LPBYTE lpSystem = (LPBYTE)&strSystem[0];
    long long nCommitted = ((LPSYSTEMFILEHEAD)lpSystem)->m_nBeginTimestamp;
    std::vector<std::string> vFiles(256);
    const BYTE* arFiles[256] = {nullptr};
    long long arSizes[256] = {0};
    DbForEachFileListRow(lpSystem, (long long)strSystem.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        int n = lpRow->m_bFileNo;
        if (lpRow->m_bDropFlag == 1 || n < 2 || !ReadFile(lpRow->m_lpszFilePath, vFiles[(size_t)n])) return true;
        arFiles[n] = (const BYTE*)vFiles[(size_t)n].data();
        arSizes[n] = (long long)vFiles[(size_t)n].size();
        return true;
    });
    std::vector<PeerChange> vJournal = PeerParseJournal(strJournal);
    PeerCheckResult r = PeerCheckFiles(vJournal, nCommitted, arFiles, arSizes);
    long long nCovered = 0;
    for (const PeerChange& c : vJournal)
        if (c.m_nTimestamp <= nCommitted) nCovered++;
    printf("committed timestamp on disk: %lld\n", nCommitted);
    printf("journal: %zu changes, %lld of them at or before the committed timestamp\n", vJournal.size(), nCovered);
    printf("rows checked: %lld, holding a later change: %lld, violations: %lld\n", r.m_nRequired, r.m_nNewer,
           r.m_nViolations);
    if (r.m_nViolations > 0) printf("first violation: %s\n", r.m_strFirst.c_str());
    if (nCommitted < nAtLeast) {
        printf("the committed timestamp is below %lld\n", nAtLeast);
        return PEER_VIOLATION;
    }
    return r.m_nViolations == 0 ? PEER_OK : PEER_VIOLATION;
}

} // namespace talvorpeer
