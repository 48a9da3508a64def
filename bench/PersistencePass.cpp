// The save pass of a memory-mode file over k dirty 16 KiB blocks, scattered
// over the file (k = 100 and 10 000) and in one dense run, against raw
// O_DIRECT writes of the same offsets and sizes followed by one sync, in the
// same run. The goal is a pass rate of at least 0.8 of the raw rate.
//
// Run by hand, as root: it makes a file of $TALVOR_BENCH_FILE_MIB MiB
// (default 1024) under $TALVOR_BENCH_DIR (default /var/tmp) and removes it
// at the end; it re-runs itself in a private IPC namespace, so that the
// image key never meets a daemon on this host. The pass includes what a real
// one writes besides the blocks: the head, every map block and the sync.
#include "BenchDir.h"
#include "DbFileLayout.h"
#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"
#include "TalvorMemoryStorage.h"

#include <algorithm>
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

const int BLOCK_SIZE = 16384;
const int HEADER_SIZE = 4096;
const int MAP_SIZE = 65536;
const BYTE BENCH_FILE_NO = 3;  // a B-tree index file: blocks straight from the map

long long g_nFileSize = 1024LL * 1048576;
std::string g_strDir, g_strPath;
std::vector<long long> g_vBlocks;

double Seconds(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Head, a chain of map blocks (each followed by its slave) listing every
// block, and the blocks, all filled.
bool MakeBenchFile()
{
    if (!MakeBenchDir(&g_strDir)) return false;
    g_strPath = g_strDir + "/Index3.dbf";
    int nPerMap = DbMaxBlockMapNum(MAP_SIZE);
    long long nGuess = g_nFileSize / BLOCK_SIZE;
    int nMaps = (int)((nGuess + nPerMap - 1) / nPerMap);
    long long nBlockStart = DbAlignUp(HEADER_SIZE + 2LL * MAP_SIZE * nMaps, BLOCK_SIZE);
    long long nBlocks = (g_nFileSize - nBlockStart) / BLOCK_SIZE;
    std::vector<BYTE> vHead((size_t)nBlockStart, 0);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)vHead.data();
    lpHead->m_nDataFlag = BTREEINDEXFILE_DATAFLAG;
    lpHead->m_bFileNo = BENCH_FILE_NO;
    lpHead->m_bFileType = FILETYPE_BTREEINDEX;
    lpHead->m_nBlockNum = (UINT)nBlocks;
    lpHead->m_nMaxObjectNum = 1;
    lpHead->m_nFileTotalSize = g_nFileSize;
    lpHead->m_nFileHeaderSize = HEADER_SIZE;
    lpHead->m_nBlockMapStructSize = BLOCKMAP_STRUCT_SIZE_MEMORY;
    lpHead->m_nBlockMapSize = MAP_SIZE;
    lpHead->m_nBlockMapStartOffset = HEADER_SIZE;
    lpHead->m_nObjectInfoOffset = 512;
    lpHead->m_nBlockStartOffset = nBlockStart;
    lpHead->m_nFileFreeMemoryOffset = g_nFileSize;
    lpHead->m_nMaxBlockMapNum = nPerMap;
    for (long long b = 0; b < nBlocks; b++) {
        int nMap = (int)(b / nPerMap), nEntry = (int)(b % nPerMap);
        long long nMapOffset = HEADER_SIZE + 2LL * MAP_SIZE * nMap;
        LPBASEFILEBLOCKMAPHEAD lpMap = (LPBASEFILEBLOCKMAPHEAD)(vHead.data() + nMapOffset);
        lpMap->m_nDataFlag = BLOCKMAP_DATAFLAG;
        lpMap->m_nBlockMapNum = nEntry + 1;
        lpMap->m_nMapNo = nMap + 1;
        if (nEntry == 0 && nMap > 0)
            ((LPBASEFILEBLOCKMAPHEAD)(vHead.data() + nMapOffset - 2LL * MAP_SIZE))->m_nNextBlockMapOffset = nMapOffset;
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(vHead.data() + DbMapEntryOffset(nMapOffset, nEntry));
        lpEntry->m_nBlockNo = (UINT)(b + 1);
        lpEntry->m_nBlockOffset = nBlockStart + b * BLOCK_SIZE;
        g_vBlocks.push_back(lpEntry->m_nBlockOffset);
    }
    for (int m = 0; m < nMaps; m++) {
        long long nMapOffset = HEADER_SIZE + 2LL * MAP_SIZE * m;
        memcpy(vHead.data() + nMapOffset + MAP_SIZE, vHead.data() + nMapOffset, MAP_SIZE);
    }
    int fd = open(g_strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0) return false;
    bool bDone = TalvorWriteFull(fd, vHead.data(), vHead.size(), 0);
    std::vector<BYTE> vBlock(BLOCK_SIZE, 0x5A);
    LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)vBlock.data();
    memset(lpBlock, 0, sizeof(BLOCKHEAD));
    lpBlock->m_nDataFlag = BLOCK_DATAFLAG;
    lpBlock->m_nBlockSize = BLOCK_SIZE;
    lpBlock->m_nBlockHeadSize = sizeof(BLOCKHEAD);
    lpBlock->m_bFileNo = BENCH_FILE_NO;
    for (long long b = 0; bDone && b < nBlocks; b++) {
        lpBlock->m_nBlockNo = (UINT)(b + 1);
        bDone = TalvorWriteFull(fd, vBlock.data(), BLOCK_SIZE, nBlockStart + b * BLOCK_SIZE);
    }
    bDone = bDone && ftruncate(fd, g_nFileSize) == 0 && fsync(fd) == 0;
    close(fd);
    return bDone;
}

void RemoveBenchFile()
{
    if (!g_strPath.empty()) unlink(g_strPath.c_str());
    if (!g_strDir.empty()) rmdir(g_strDir.c_str());
}

double RawWrites(const std::vector<long long>& vOffsets, LPBYTE lpBuf)
{
    int fd = open(g_strPath.c_str(), O_WRONLY | O_DIRECT);
    if (fd < 0) return -1;
    auto t = std::chrono::steady_clock::now();
    bool bDone = true;
    for (long long nOffset : vOffsets) bDone = bDone && TalvorWriteFull(fd, lpBuf, BLOCK_SIZE, nOffset);
    bDone = bDone && fdatasync(fd) == 0;
    double d = Seconds(t);
    close(fd);
    return bDone ? d : -1;
}

double Pass(CTalvorMemoryStorage* pStorage, LPFILEINFO p, const std::vector<long long>& vOffsets, LPBYTE lpBuf,
            LPBYTE lpHeadBuf, long long& nTimestamp)
{
    nTimestamp++;
    for (long long nOffset : vOffsets) {
        LPBLOCKHEAD lpBlock = (LPBLOCKHEAD)(p->m_pFileAddr + nOffset);
        lpBlock->m_nTimestamp = nTimestamp;
        lpBlock->m_bSaveFlag = 1;
    }
    ((LPBASEFILEHEAD)p->m_pFileAddr)->m_nTimestamp = nTimestamp;
    BOOL bFlag = FALSE;
    auto t = std::chrono::steady_clock::now();
    int nResult = pStorage->SaveChange2File(nullptr, p, nTimestamp, 0, lpBuf, lpHeadBuf, FALSE, bFlag);
    double d = Seconds(t);
    return nResult == 0 ? d : -1;
}

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
    const char* lpMib = getenv("TALVOR_BENCH_FILE_MIB");
    if (lpMib != nullptr && atoll(lpMib) >= 16) g_nFileSize = atoll(lpMib) * 1048576;
    if (!MakeBenchFile()) {
        fprintf(stderr, "cannot make the bench file under %s: %s\n", g_strDir.c_str(), strerror(errno));
        RemoveBenchFile();
        return 1;
    }
    FILEINFO stInfo;
    memset(&stInfo, 0, sizeof(stInfo));
    snprintf(stInfo.m_lpszFilePath, sizeof(stInfo.m_lpszFilePath), "%s", g_strPath.c_str());
    strcpy(stInfo.m_lpszTablespaceName, "Index3");
    stInfo.m_bFileNo = BENCH_FILE_NO;
    stInfo.m_bFileType = FILETYPE_BTREEINDEX;
    stInfo.m_liFileSize = g_nFileSize;
    long long nLoadSize = 0;
    stInfo.m_pLoadSize = &nLoadSize;
    CTalvorMemoryStorage* pStorage = new CTalvorMemoryStorage();
    stInfo.m_pStorageFile = pStorage;
    if (pStorage->Initialize(nullptr, &stInfo, 0, nullptr, nullptr, 0, 0) != 0) {
        fprintf(stderr, "cannot load the bench file\n");
        RemoveBenchFile();
        return 1;
    }
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(0x100000);
    LPBYTE lpHeadBuf = (LPBYTE)get_aligned_buffer(0x100000);
    LPBYTE lpRaw = (LPBYTE)get_aligned_buffer(BLOCK_SIZE);
    memcpy(lpRaw, stInfo.m_pFileAddr + g_vBlocks[0], BLOCK_SIZE);
    std::mt19937_64 rng(42);
    long long nTimestamp = 1;
    printf("file %lld MiB, %zu blocks of %d bytes\n", g_nFileSize / 1048576, g_vBlocks.size(), BLOCK_SIZE);
    printf("%-22s %12s %12s %8s %8s\n", "case", "raw MiB/s", "pass MiB/s", "mean", "best");
    struct Case {
        const char* m_lpName;
        size_t m_nCount;
        bool m_bDense;
    } arCases[] = {{"scattered k=100", 100, false}, {"scattered k=10000", 10000, false}, {"dense run k=10000", 10000, true}};
    for (const Case& c : arCases) {
        size_t nCount = std::min(c.m_nCount, g_vBlocks.size());
        double dRawBest = 1e9, dPassBest = 1e9, dRawSum = 0, dPassSum = 0;
        int nRounds = 0;
        for (int nRound = 0; nRound < 5; nRound++) {
            std::vector<long long> vOffsets;
            if (c.m_bDense) {
                size_t nFirst = (size_t)(rng() % (g_vBlocks.size() - nCount + 1));
                vOffsets.assign(g_vBlocks.begin() + (long)nFirst, g_vBlocks.begin() + (long)(nFirst + nCount));
            } else {
                std::vector<long long> vAll = g_vBlocks;
                std::shuffle(vAll.begin(), vAll.end(), rng);
                vOffsets.assign(vAll.begin(), vAll.begin() + (long)nCount);
                std::sort(vOffsets.begin(), vOffsets.end());  // the pass visits in map order
            }
            double dRaw = RawWrites(vOffsets, lpRaw);
            double dPass = Pass(pStorage, &stInfo, vOffsets, lpBuf, lpHeadBuf, nTimestamp);
            if (dRaw < 0 || dPass < 0) {
                fprintf(stderr, "a write failed in %s\n", c.m_lpName);
                break;
            }
            dRawBest = std::min(dRawBest, dRaw);
            dPassBest = std::min(dPassBest, dPass);
            dRawSum += dRaw;
            dPassSum += dPass;
            nRounds++;
        }
        if (nRounds == 0) continue;
        double dMib = (double)nCount * BLOCK_SIZE / 1048576;
        printf("%-22s %12.1f %12.1f %8.2f %8.2f\n", c.m_lpName, dMib * nRounds / dRawSum, dMib * nRounds / dPassSum,
               dRawSum / dPassSum, dRawBest / dPassBest);
    }
    printf("(goal: mean ratio >= 0.80; 5 rounds each, the ratio of the mean times and of the best)\n");
    pStorage->Release();
    free(lpBuf);
    free(lpHeadBuf);
    free(lpRaw);
    RemoveBenchFile();
    return 0;
}
