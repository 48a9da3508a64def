// CacheBenchKit.h — what the shared cache's benchmarks share: a real cache
// segment with the module played by the cache tests' fake, files of
// 16384-byte blocks made on a real disk, a cache-mode file's backend opened
// as a flush thread opens it, and the rate tally each side keeps.
//
// The segment uses the fixed key and the semaphores their fixed names, so
// these benchmarks must run in a private IPC and mount namespace:
//   tests/isolate.sh build/bench/bench_CacheFlushPipeline
// They refuse to start where another segment of the key exists.
#pragma once

#include "BenchDir.h"
#include "FakeCacheModule.h"
#include "LinuxCommonAPI.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"
#include "TalvorTrace.h"

#include <benchmark/benchmark.h>
#include <cerrno>
#include <chrono>
#include <functional>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

namespace cachebench {

inline constexpr int BLOCK = CACHE_BLOCK_SIZE;
inline constexpr long long WRITE_PIECE = 8388608;
inline constexpr int LRU_PERCENT = 80;

// What one side moved and how long it took, over all its timed runs. The
// two sides of a benchmark take turns in small rounds, so that a disk or a
// machine whose speed drifts (the machine is shared) weighs on both alike.
struct Tally {
    double dUnits = 0;
    double dSeconds = 0;
    int nRounds = 0;
    void Add(double dMoved, std::chrono::steady_clock::time_point tStart)
    {
        dSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
        dUnits += dMoved;
        nRounds++;
    }
    double Rate() const { return dSeconds > 0 ? dUnits / dSeconds : 0; }
};

// Prints "what: ours / reference unit, ratio r (goal >= g)"; a goal of 0
// says that none is set. The ratio is ours over the reference: 1.0 is as fast.
inline void Report(const char* lpszWhat, const Tally& ours, const Tally& ref, const char* lpszUnit, double dGoal)
{
    if (ours.nRounds == 0 || ref.nRounds == 0) {
        printf("%s: no complete run\n", lpszWhat);
        return;
    }
    double dRatio = ours.Rate() / ref.Rate();
    printf("%s: %.1f / %.1f %s, ratio %.2f", lpszWhat, ours.Rate(), ref.Rate(), lpszUnit, dRatio);
    if (dGoal > 0)
        printf(" (goal >= %.2f%s)", dGoal, dRatio >= dGoal ? "" : ", MISSED");
    else
        printf(" (no goal set)");
    printf("\n");
    // A ratio taken while the two cores were busy elsewhere says little.
    char szLoad[64] = "";
    FILE* f = fopen("/proc/loadavg", "r");
    if (f != nullptr && fgets(szLoad, sizeof(szLoad), f) != nullptr) printf("  load average: %s", szLoad);
    if (f != nullptr) fclose(f);
}

// Errors of the cache reach stderr; the chatter of threads starting does not.
inline void ErrorsToStderr(LPCTSTR, LONG lLevel, LONG lCode, LPCTSTR szLog)
{
    if (lLevel <= 1) fprintf(stderr, "trace %ld: %s\n", (long)lCode, szLog);
}

inline bool SegmentExists() { return shmget(SHMKEY_CACHEBUFFER, 0, 0) >= 0; }

inline void RemoveSegment()
{
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
}

// Only its presence is checked by Initialize; nothing of it is reached.
inline CBreltMemStorageModule* ModuleMarker()
{
    static char s_cModule;
    return reinterpret_cast<CBreltMemStorageModule*>(&s_cModule);
}

// A 16384-byte block head as the engine writes it, at lpPage.
inline void PutBlockHead(LPBYTE lpPage, BYTE bFileNo, UINT nBlockNo, BYTE bNodeType)
{
    LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)lpPage;
    memset(h, 0, sizeof(*h));
    h->m_nDataFlag = BLOCK_DATAFLAG;
    h->m_nBlockNo = nBlockNo;
    h->m_bFileNo = bFileNo;
    h->m_nBlockSize = BLOCK;
    h->m_bNodeType = bNodeType;
    h->m_nTimestamp = 1000 + nBlockNo;
}

// Writes llSize bytes to strPath with O_DIRECT: page 0 zero (the file's
// head goes there), every later page a block of bFileNo whose number is
// its page number, behind it a pattern. False when the disk refuses.
inline bool MakeBlockFile(const std::string& strPath, long long llSize, BYTE bFileNo)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(WRITE_PIECE);
    if (lpBuf == nullptr) return false;
    int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DIRECT, 0666);
    bool bDone = fd >= 0;
    for (long long llPos = 0; bDone && llPos < llSize; llPos += WRITE_PIECE) {
        for (long long i = 0; i < WRITE_PIECE; i += 8) *(long long*)(lpBuf + i) = (llPos + i) * 0x9E3779B97F4A7C15LL;
        for (long long i = 0; i < WRITE_PIECE; i += BLOCK) {
            UINT nPage = (UINT)((llPos + i) / BLOCK);
            if (nPage == 0)
                memset(lpBuf, 0, BLOCK);
            else
                PutBlockHead(lpBuf + i, bFileNo, nPage, 0);
        }
        long long nLen = llSize - llPos < WRITE_PIECE ? llSize - llPos : WRITE_PIECE;
        bDone = TalvorWriteFull(fd, lpBuf, (size_t)nLen, llPos);
    }
    if (fd >= 0) close(fd);
    free(lpBuf);
    return bDone;
}

// A cache segment of its own, with the fake module set.
class BenchCache {
public:
    ~BenchCache() { Close(); }
    // S_OK with the segment made new; else the result of Initialize.
    int Open(int nMB)
    {
        m_pCache.reset(new CTalvorCacheStorage);
        m_pCache->SetCacheModule(&m_module);
        return m_pCache->Initialize(SHMNAME_CACHEBUFFER, nMB, LRU_PERCENT, ModuleMarker(), FALSE);
    }
    // The threads stopped, the segment removed.
    void Close()
    {
        if (!m_pCache) return;
        m_pCache->Free();
        m_pCache.reset();
        RemoveSegment();
    }
    CTalvorCacheStorage* operator->() { return m_pCache.get(); }
    CTalvorCacheStorage* Get() { return m_pCache.get(); }
    LPCacheBufferHead Head() { return m_pCache->m_pCacheBufferHead; }
    LPBYTE Base() { return m_pCache->m_pCacheBufferAddr; }

    cachetest::FakeCacheModule m_module;
    std::unique_ptr<CTalvorCacheStorage> m_pCache;
};

// A cache-mode file and its backend, opened direct and synchronous as the
// flush thread opens it when the system head asks for no buffered writes.
class BenchFile {
public:
    ~BenchFile()
    {
        if (m_pStorage != nullptr) m_pStorage->Release();
    }
    bool Open(CTalvorCacheStorage* pCache, const std::string& strPath, BYTE bFileNo, BYTE bFileType,
              long long llSize)
    {
        memset(&m_info, 0, sizeof(m_info));
        snprintf(m_info.m_lpszFilePath, sizeof(m_info.m_lpszFilePath), "%s", strPath.c_str());
        m_info.m_bFileNo = bFileNo;
        m_info.m_bFileType = (char)bFileType;
        m_info.m_liFileSize = llSize;
        m_info.m_pLoadSize = &m_llLoadSize;
        m_pStorage = new CTalvorFileStorage(pCache);
        if (m_pStorage->OpenFile(nullptr, &m_info, 0) != 0) return false;
        m_info.m_pStorageFile = m_pStorage;
        return true;
    }
    FILEINFO m_info;
    long long m_llLoadSize = 0;
    CTalvorFileStorage* m_pStorage = nullptr;
};

// The semaphore the engine opens by its name (as the daemon made it).
inline HEVENTTYPE EngineSemaphore(const char* lpszName) { return CreateEventSem(nullptr, lpszName); }

// Waits on h for up to nMs.
inline void WaitMs(HEVENTTYPE h, UINT nMs) { WaitForSingleObject(h, nMs); }


// One round of the measured code and one of its reference, in turn first,
// so that neither always meets the disk's or the machine's warm state. False
// when either failed.
inline bool AlternateRound(int nRound, const std::function<bool()>& fnRaw, const std::function<bool()>& fnOurs)
{
    return nRound % 2 == 0 ? fnRaw() && fnOurs() : fnOurs() && fnRaw();
}

// The whole life of a cache bench: set up (a file and a segment of its
// own), run the registered benchmarks, clean up, then print the reports.
inline int RunCacheBench(int argc, char** argv, bool (*pSetup)(), void (*pRemove)(), const std::string& strDir,
                         const std::function<void()>& fnReport)
{
    benchmark::Initialize(&argc, argv);
    TraceInstallSink(&ErrorsToStderr);
    if (!pSetup()) {
        fprintf(stderr, "cannot set up under %s: %s\n", strDir.c_str(), strerror(errno));
        pRemove();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    pRemove();
    printf("\n");
    fnReport();
    return 0;
}

} // namespace cachebench
