// Random 16 KiB blocks read and written by a cache-mode file's backend
// (ReadBlock, WriteBlock) against raw pread and pwrite of the same offsets
// on a descriptor opened as the backend opens its own (O_DIRECT | O_SYNC),
// one transfer at a time, in the same run. The goal is a ratio of at least
// 0.9 of the raw rate. The backend runs without write buffers, so that both
// sides move the same bytes to the disk.
//
// Run by hand: it makes a 256 MiB file under $TALVOR_BENCH_DIR (default
// /var/tmp), which must take O_DIRECT (tmpfs does not), and removes it at
// the end. No shared segment is made.
#include "BenchDir.h"
#include "LinuxCommonAPI.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const long long FILE_SIZE = 256LL * 1048576;
const int BLOCK = 16384;
const int OPS = 2000;
const long long PIECE = 8388608;

std::string g_strDir;
std::string g_strPath;
std::vector<long long> g_vOffsets;

// Blocks per second, summed over the runs of each side.
struct Tally {
    double dSum = 0;
    int nRuns = 0;
    void Add(std::chrono::steady_clock::time_point tStart)
    {
        double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
        dSum += OPS / dSeconds;
        nRuns++;
    }
    double Mean() const { return nRuns > 0 ? dSum / nRuns : 0; }
};
Tally g_rawRead, g_ourRead, g_rawWrite, g_ourWrite;

bool MakeBenchFile()
{
    if (!MakeBenchDir(&g_strDir)) return false;
    g_strPath = g_strDir + "/Table9.dbf";
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(PIECE);
    if (lpBuf == nullptr) return false;
    for (long long i = 0; i < PIECE; i += 8) *(long long*)(lpBuf + i) = i * 0x9E3779B97F4A7C15LL;
    int fd = open(g_strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_DIRECT, 0666);
    bool bDone = fd >= 0;
    for (long long nPos = 0; bDone && nPos < FILE_SIZE; nPos += PIECE) bDone = TalvorWriteFull(fd, lpBuf, PIECE, nPos);
    if (fd >= 0) close(fd);
    free(lpBuf);
    std::mt19937_64 rng(16384);
    for (int i = 0; i < OPS; i++) g_vOffsets.push_back((long long)(rng() % (FILE_SIZE / BLOCK)) * BLOCK);
    return bDone;
}

void RemoveBenchFile()
{
    if (!g_strPath.empty()) unlink(g_strPath.c_str());
    if (!g_strDir.empty()) rmdir(g_strDir.c_str());
}

// The backend on the bench file, opened as the flush thread would.
struct Backend {
    Backend()
    {
        memset(&m_info, 0, sizeof(m_info));
        snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", g_strPath.c_str());
        m_info.m_bFileNo = 9;
        m_info.m_bFileType = FILETYPE_TABLE;
        m_info.m_liFileSize = FILE_SIZE;
        m_pStorage = new CTalvorFileStorage(&m_cache);
        m_bOk = m_pStorage->OpenFile(nullptr, &m_info, 0) == 0;
        m_info.m_pStorageFile = m_pStorage;
    }
    ~Backend() { m_pStorage->Release(); }
    CTalvorCacheStorage m_cache;  // never initialised: no segment, no buffers
    FILEINFO m_info;
    CTalvorFileStorage* m_pStorage;
    bool m_bOk;
};

void Run(benchmark::State& state, bool bOurs, bool bWrite, Tally& tally)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(BLOCK);
    memset(lpBuf, 0x5A, BLOCK);
    Backend backend;
    int fd = open(g_strPath.c_str(), (bWrite ? O_RDWR : O_RDONLY) | O_DIRECT | O_SYNC);
    if (!backend.m_bOk || fd < 0) state.SkipWithError("open failed");
    for (auto _ : state) {
        auto tStart = std::chrono::steady_clock::now();
        bool bDone = true;
        for (long long llPos : g_vOffsets) {
            if (bOurs)
                bDone = (bWrite ? backend.m_pStorage->WriteBlock(nullptr, llPos, lpBuf, BLOCK)
                                : backend.m_pStorage->ReadBlock(nullptr, llPos, lpBuf, BLOCK)) == 0;
            else
                bDone = (bWrite ? pwrite(fd, lpBuf, BLOCK, llPos) : pread(fd, lpBuf, BLOCK, llPos)) == BLOCK;
            if (!bDone) break;
        }
        if (!bDone) state.SkipWithError("transfer failed");
        else tally.Add(tStart);
        benchmark::DoNotOptimize(lpBuf[100]);
    }
    state.SetItemsProcessed(state.iterations() * OPS);
    if (fd >= 0) close(fd);
    free(lpBuf);
}

void BM_RawRead(benchmark::State& state) { Run(state, false, false, g_rawRead); }
void BM_ReadBlock(benchmark::State& state) { Run(state, true, false, g_ourRead); }
void BM_RawWrite(benchmark::State& state) { Run(state, false, true, g_rawWrite); }
void BM_WriteBlock(benchmark::State& state) { Run(state, true, true, g_ourWrite); }

BENCHMARK(BM_RawRead)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadBlock)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawRead)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWrite)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteBlock)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawWrite)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (!MakeBenchFile()) {
        fprintf(stderr, "cannot make the bench file under %s: %s\n", g_strDir.c_str(), strerror(errno));
        RemoveBenchFile();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    RemoveBenchFile();
    if (g_rawRead.nRuns > 0 && g_ourRead.nRuns > 0)
        printf("\nReadBlock/raw pread, 16 KiB random, depth 1: %.0f / %.0f blocks/s, ratio %.2f (goal >= 0.90)\n",
               g_ourRead.Mean(), g_rawRead.Mean(), g_ourRead.Mean() / g_rawRead.Mean());
    if (g_rawWrite.nRuns > 0 && g_ourWrite.nRuns > 0)
        printf("WriteBlock/raw pwrite, 16 KiB random, depth 1: %.0f / %.0f blocks/s, ratio %.2f (goal >= 0.90)\n",
               g_ourWrite.Mean(), g_rawWrite.Mean(), g_ourWrite.Mean() / g_rawWrite.Mean());
    return 0;
}
