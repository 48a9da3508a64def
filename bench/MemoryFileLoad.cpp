// Loading a memory-mode file into its segment, against plain sequential
// direct reads of the same file in the same run. The goal is a load rate of
// at least 0.9 of the raw read rate.
//
// Run by hand, as root: it makes a 1 GiB file under $TALVOR_BENCH_DIR
// (default /var/tmp) and removes it at the end. It re-runs itself in a
// private IPC namespace, so that the fixed image keys never meet a daemon
// on this host.
#include "BenchDir.h"
#include "DbFileLayout.h"
#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"
#include "TalvorMemoryStorage.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const long long FILE_SIZE = 1024LL * 1048576;
const long long PIECE = 8388608;
const BYTE BENCH_FILE_NO = 2;

std::string g_strDir;
std::string g_strPath;
// Bytes per second: the best run, and the sum and count of all runs.
double g_dBestRaw = 0, g_dSumRaw = 0;
double g_dBestLoad = 0, g_dSumLoad = 0;
int g_nRaw = 0, g_nLoad = 0;

double Rate(std::chrono::steady_clock::time_point tStart)
{
    double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    return (double)FILE_SIZE / dSeconds;
}

// A data file whose every byte is in use, so that the load reads it all.
bool MakeBenchFile()
{
    if (!MakeBenchDir(&g_strDir)) return false;
    g_strPath = g_strDir + "/Data2.dbf";
    DBMEMFILEPLAN stPlan;
    if (!DbPlanMemoryFile(FILETYPE_DATA, FILE_SIZE, DB_MEMFILE_DEFAULT_OBJECTS, 65536, &stPlan)) return false;
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(PIECE);
    if (lpBuf == nullptr) return false;
    int fd = open(g_strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_DIRECT, 0666);
    bool bDone = fd >= 0;
    for (long long nPos = 0; bDone && nPos < FILE_SIZE; nPos += PIECE) {
        for (long long i = 0; i < PIECE; i += 8) *(long long*)(lpBuf + i) = (nPos + i) * 0x9E3779B97F4A7C15LL;
        if (nPos == 0) {
            DbBuildMemoryFile(stPlan, BENCH_FILE_NO, 1, lpBuf, PIECE);
            ((LPBASEFILEHEAD)lpBuf)->m_nFileFreeMemoryOffset = FILE_SIZE;
        }
        bDone = TalvorWriteFull(fd, lpBuf, PIECE, nPos);
    }
    if (fd >= 0) close(fd);
    free(lpBuf);
    return bDone;
}

void RemoveBenchFile()
{
    if (!g_strPath.empty()) unlink(g_strPath.c_str());
    if (!g_strDir.empty()) rmdir(g_strDir.c_str());
}

void BM_RawDirectRead(benchmark::State& state)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(PIECE);
    for (auto _ : state) {
        auto tStart = std::chrono::steady_clock::now();
        int fd = open(g_strPath.c_str(), O_RDONLY | O_DIRECT);
        bool bDone = fd >= 0;
        for (long long nPos = 0; bDone && nPos < FILE_SIZE; nPos += PIECE) bDone = TalvorReadFull(fd, lpBuf, PIECE, nPos);
        if (fd >= 0) close(fd);
        if (!bDone) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(lpBuf[12345]);
        double dRate = Rate(tStart);
        if (dRate > g_dBestRaw) g_dBestRaw = dRate;
        g_dSumRaw += dRate;
        g_nRaw++;
    }
    state.SetBytesProcessed(state.iterations() * FILE_SIZE);
    free(lpBuf);
}

void BM_MemoryStorageLoad(benchmark::State& state)
{
    for (auto _ : state) {
        FILEINFO stInfo;
        memset(&stInfo, 0, sizeof(stInfo));
        snprintf(stInfo.m_lpszFilePath, sizeof(stInfo.m_lpszFilePath), "%s", g_strPath.c_str());
        strcpy(stInfo.m_lpszTablespaceName, "Data2");
        stInfo.m_bFileNo = BENCH_FILE_NO;
        stInfo.m_bFileType = FILETYPE_DATA;
        stInfo.m_liFileSize = FILE_SIZE;
        long long nLoadSize = 0;
        stInfo.m_pLoadSize = &nLoadSize;
        CTalvorMemoryStorage* pStorage = new CTalvorMemoryStorage();
        stInfo.m_pStorageFile = pStorage;
        TALVORPROGRESS stProgress = {};
        auto tStart = std::chrono::steady_clock::now();
        int nResult = pStorage->Initialize(nullptr, &stInfo, 0, nullptr, &stProgress, 0, 0);
        double dRate = Rate(tStart);
        if (nResult != 0 || nLoadSize != FILE_SIZE) state.SkipWithError("load failed");
        else {
            if (dRate > g_dBestLoad) g_dBestLoad = dRate;
            g_dSumLoad += dRate;
            g_nLoad++;
        }
        state.PauseTiming();
        pStorage->Release();  // removes the segment
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * FILE_SIZE);
}

BENCHMARK(BM_RawDirectRead)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MemoryStorageLoad)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawDirectRead)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    if (getenv("TALVOR_BENCH_ISOLATED") == nullptr) {
        setenv("TALVOR_BENCH_ISOLATED", "1", 1);
        std::vector<char*> vArgs = {(char*)"unshare", (char*)"--ipc", (char*)"--"};
        for (int i = 0; i < argc; i++) vArgs.push_back(argv[i]);
        vArgs.push_back(nullptr);
        execvp("unshare", vArgs.data());
        fprintf(stderr, "cannot enter a private IPC namespace (unshare --ipc needs root): %s\n", strerror(errno));
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (!MakeBenchFile()) {
        fprintf(stderr, "cannot make the 1 GiB bench file under %s: %s\n", g_strDir.c_str(), strerror(errno));
        RemoveBenchFile();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    RemoveBenchFile();
    if (g_nRaw > 0 && g_nLoad > 0) {
        double dMeanRaw = g_dSumRaw / g_nRaw, dMeanLoad = g_dSumLoad / g_nLoad;
        printf("\nraw direct read: mean %.0f MiB/s, best %.0f MiB/s\n", dMeanRaw / 1048576, g_dBestRaw / 1048576);
        printf("load into the segment: mean %.0f MiB/s, best %.0f MiB/s\n", dMeanLoad / 1048576, g_dBestLoad / 1048576);
        printf("ratio load/raw: mean %.2f, best %.2f (goal >= 0.90)\n", dMeanLoad / dMeanRaw, g_dBestLoad / g_dBestRaw);
    }
    return 0;
}
