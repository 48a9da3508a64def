// TraceThroughput.cpp — what a Trace call costs its caller, from one and two
// threads with the writer draining behind them, and how fast the writer puts
// queued lines into the file next to a plain buffered write of the same bytes
// in the same run (counter "ratio": writer / plain, 1.0 is as fast).
//
// The log directory is a private temporary one set directly on the log
// manager: no configuration, no shared memory, nothing of the host touched.
#include "LogManager.h"

#include <benchmark/benchmark.h>

#include <algorithm>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <atomic>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string g_strDir;
std::atomic<bool> g_bReady{false};

// The lines of the daemon's files, as written (head left out).
std::string WrittenBody()
{
    std::string strAll;
    DIR* pDir = opendir(g_strDir.c_str());
    if (pDir == nullptr) return strAll;
    std::vector<std::string> files;
    while (struct dirent* pEntry = readdir(pDir)) {
        if (strncmp(pEntry->d_name, "TalvorStorage", 13) == 0) files.push_back(g_strDir + pEntry->d_name);
    }
    closedir(pDir);
    std::sort(files.begin(), files.end());
    const std::string strColumns = "FuncationName Description";
    for (const std::string& strFile : files) {
        std::ifstream in(strFile, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        std::string strData = ss.str();
        size_t nPos = strData.find(strColumns);
        if (nPos != std::string::npos) strAll += strData.substr(nPos + strColumns.size());
    }
    return strAll;
}

void RemoveDir()
{
    if (g_strDir.size() > 10) {
        int rc = system(("rm -rf '" + g_strDir + "'").c_str());
        (void)rc;
    }
}

// A log manager writing into a private directory, its writer thread running
// when bWriter.
void SetUpLog(bool bWriter)
{
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        char szTemplate[] = "/tmp/talvor-bench-trace-XXXXXX";
        if (mkdtemp(szTemplate) == nullptr) abort();
        g_strDir = std::string(szTemplate) + "/";
        atexit(RemoveDir);
    });
    ExitLogSystem();
    CLogManager& log = CLogManager::instance();
    log.m_lpTraceDir = strdup(g_strDir.c_str());
    log.SetQueueLimit(256LL << 20);
    if (bWriter) log.StartTraceThreads(FALSE);
}

void TearDownLog()
{
    ExitLogSystem();
    RemoveDir();
    mkdir(g_strDir.c_str(), 0755);
}

std::string Payload(int i) { return "query " + std::to_string(i) + " ran in 12 ms over table orders, rows 4711"; }

void BM_Trace(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        SetUpLog(true);
        g_bReady = true;
    }
    while (!g_bReady.load()) std::this_thread::yield();
    long long i = 0;
    for (auto _ : state) {
        Trace("BM_Trace", 3, 20000000, "query %lld ran in %d ms over table %s, rows %d", i++, 12, "orders", 4711);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        state.counters["dropped"] = CLogManager::instance().GetDroppedLines();
        g_bReady = false;
        TearDownLog();
    }
}
BENCHMARK(BM_Trace)->Threads(1)->Threads(2)->UseRealTime();

double MBps(long long nBytes, std::chrono::steady_clock::duration d)
{
    double s = std::chrono::duration<double>(d).count();
    return s > 0 ? (double)nBytes / s / (1 << 20) : 0;
}

void BM_WriterVsPlainWrite(benchmark::State& state)
{
    const int nLines = (int)state.range(0);
    double dWriter = 0, dPlain = 0;
    for (auto _ : state) {
        state.PauseTiming();
        SetUpLog(false);
        for (int i = 0; i < nLines; i++) Trace0("BM_Writer", 3, 20000000, Payload(i).c_str());
        state.ResumeTiming();

        auto t0 = std::chrono::steady_clock::now();
        CLogManager::instance().WriteAllTrace();
        auto t1 = std::chrono::steady_clock::now();

        state.PauseTiming();
        // The same bytes, each title and each text one fwrite, as the writer.
        std::string strBody = WrittenBody();
        std::vector<std::pair<size_t, size_t>> vParts;
        for (size_t nPos = 0; nPos < strBody.size();) {
            size_t nText = strBody.find("BM_Writer ", nPos) + 10;
            size_t nNext = strBody.find("\r\n", nText);
            if (nNext == std::string::npos) nNext = strBody.size();
            vParts.push_back({nPos, nText - nPos});
            vParts.push_back({nText, nNext - nText});
            nPos = nNext;
        }
        FILE* pFile = fopen((g_strDir + "plain.log").c_str(), "wb");
        state.ResumeTiming();
        auto t2 = std::chrono::steady_clock::now();
        for (const auto& part : vParts) fwrite(strBody.data() + part.first, 1, part.second, pFile);
        fflush(pFile);
        auto t3 = std::chrono::steady_clock::now();
        fclose(pFile);
        long long nPlainBytes = (long long)strBody.size();

        state.PauseTiming();
        dWriter += MBps(nPlainBytes, t1 - t0);
        dPlain += MBps(nPlainBytes, t3 - t2);
        TearDownLog();
        state.ResumeTiming();
    }
    double n = (double)state.iterations();
    state.counters["writer_MBps"] = dWriter / n;
    state.counters["plain_MBps"] = dPlain / n;
    state.counters["ratio"] = dPlain > 0 ? dWriter / dPlain : 0;
    state.SetItemsProcessed(state.iterations() * nLines);
}
BENCHMARK(BM_WriterVsPlainWrite)->Arg(200000)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

BENCHMARK_MAIN();
