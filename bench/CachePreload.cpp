// Preload MB/s: InitCacheHead over an index file and a table file made here
// (heads, chains of map blocks, 16 KiB blocks), their heads and maps hung in
// the cache as at start, against O_DIRECT sequential reads of the same bytes
// of the same files in pieces of the preload's size, on descriptors opened
// as the backend opens its own (O_DIRECT | O_SYNC). Both files fit the
// cache, so the preload reads the whole of both and copies every block. The
// two sides take turns, the order alternating. Goal: at least 0.8 of the
// raw rate. The first preload, the one that touches the segment's pages for
// the first time as a real start does, is shown apart.
//
// Run by hand in a private namespace (the segment key is fixed):
//   tests/isolate.sh build/bench/bench_CachePreload
// It makes two 96 MiB files under $TALVOR_BENCH_DIR (default /var/tmp),
// which must take O_DIRECT, and removes them at the end.
#include "CacheBenchKit.h"

#include <benchmark/benchmark.h>

#include <cerrno>

using namespace cachebench;

namespace {

const long long FILE_SIZE = 96LL * 1048576;
const int CACHE_MB = 512;
const BYTE INDEX_NO = 11;
const BYTE TABLE_NO = 12;
const int MAP_ENTRIES = (CACHE_BLOCK_SIZE - (int)sizeof(BASEFILEBLOCKMAPHEAD_CACHE)) / (int)sizeof(BASEFILEBLOCKMAP_CACHE);
const double MIB = 1048576.0;

std::string g_strDir;
Tally g_ours, g_raw, g_first, g_firstRaw;
BenchCache g_cache;

struct MadeFile {
    BYTE bFileNo;
    BYTE bType;
    std::string strPath;
    long long llEnd = 0;                 // the free offset: where the blocks end
    std::vector<long long> vMapOffsets;  // in the file
    BenchFile file;
};
MadeFile g_index, g_table;

// A map page at lpPage: number nMapNo, empty.
void StartMap(LPBYTE lpPage, int nMapNo)
{
    memset(lpPage, 0, BLOCK);
    LPBASEFILEBLOCKMAPHEAD_CACHE m = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
    m->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
    m->m_nMapNo = nMapNo;
}

// The file's bytes: head, then map pages each followed by the blocks it maps.
void LayOut(MadeFile& f, LPBYTE lpFile)
{
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = nullptr;
    UINT nBlocks = 0;
    for (long long llPos = BLOCK; llPos < FILE_SIZE; llPos += BLOCK) {
        LPBYTE lpPage = lpFile + llPos;
        if (lpMap == nullptr || lpMap->m_nBlockMapNum == MAP_ENTRIES) {
            if (lpMap != nullptr) lpMap->m_nNextBlockMapOffset = llPos;
            StartMap(lpPage, (int)f.vMapOffsets.size() + 1);
            lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
            f.vMapOffsets.push_back(llPos);
            continue;
        }
        nBlocks++;
        // Index blocks: one upper node in four, the rest leaves.
        BYTE bNode = f.bType == FILETYPE_INDEX ? (nBlocks % 4 == 0 ? 2 : 1) : 0;
        PutBlockHead(lpPage, f.bFileNo, nBlocks, bNode);
        BASEFILEBLOCKMAP_CACHE& e = lpMap->m_pBlockMap[lpMap->m_nBlockMapNum];
        e.m_nBlockNo = nBlocks;
        e.m_nBlockSize = BLOCK;
        e.m_nID = 1;
        e.m_nBlockOffset = llPos;
        lpMap->m_nBlockMapNum = lpMap->m_nBlockMapNum + 1;
        f.llEnd = llPos + BLOCK;
    }
    LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)lpFile;
    memset(h, 0, BLOCK);
    h->m_nDataFlag = f.bType == FILETYPE_TABLE ? TABLEFILE_DATAFLAG : INDEXFILE_DATAFLAG;
    h->m_bFileNo = f.bFileNo;
    h->m_bFileType = f.bType;
    h->m_nBlockNum = nBlocks;
    h->m_nFileTotalSize = FILE_SIZE;
    h->m_nFileHeaderSize = BLOCK;
    h->m_nBlockMapStructSize = BLOCKMAP_STRUCT_SIZE_CACHE;
    h->m_nMaxBlockMapNum = MAP_ENTRIES;
    h->m_nBlockMapStartOffset = BLOCK;
    h->m_nFileFreeMemoryOffset = f.llEnd;
}

// Hangs the head and every map page in the cache, chained by cache offset.
bool HangInCache(MadeFile& f, LPBYTE lpFile)
{
    long long llOffset = 0;
    if (g_cache->LoadFile2Cache(nullptr, f.bFileNo, llOffset) != 0) return false;
    if (g_cache->LoadFile2Cache(nullptr, f.bFileNo, llOffset) != 0) return false;
    std::vector<BYTE> vPages(2 * BLOCK);
    memcpy(vPages.data(), lpFile, BLOCK);
    memcpy(vPages.data() + BLOCK, lpFile + f.vMapOffsets[0], BLOCK);
    if (g_cache->NewFile2Cache(nullptr, f.bFileNo, f.bType, vPages.data(), 0) != 0) return false;
    LPTABLEFILEHEAD h = (LPTABLEFILEHEAD)(g_cache.Base() + CacheBlockOffset(g_cache.Head()->m_nFileInfoNo[f.bFileNo]));
    long long llMap = 0;
    int nFound = f.bType == FILETYPE_TABLE ? g_cache->GetFirstTableMapCacheAddr(h, nullptr, llMap)
                                           : g_cache->GetFirstIndexMapCacheAddr((LPINDEXFILEHEAD)h, nullptr, llMap);
    if (nFound != 0) return false;
    for (size_t i = 1; i < f.vMapOffsets.size(); i++) {
        long long llNext = 0;
        if (g_cache->LoadFile2Cache(nullptr, f.bFileNo, llNext) != 0) return false;
        memcpy(g_cache.Base() + llNext, lpFile + f.vMapOffsets[i], BLOCK);
        ((LPBASEFILEBLOCKMAPHEAD_CACHE)(g_cache.Base() + llMap))->m_nNextBlockMapOffset_Cache = llNext;
        llMap = llNext;
    }
    return true;
}

bool MakeFile(MadeFile& f, BYTE bFileNo, BYTE bType)
{
    f.bFileNo = bFileNo;
    f.bType = bType;
    f.strPath = g_strDir + "/File" + std::to_string(bFileNo) + ".dbf";
    LPBYTE lpFile = (LPBYTE)get_aligned_buffer(FILE_SIZE);
    if (lpFile == nullptr) return false;
    for (long long i = 0; i < FILE_SIZE; i += 8) *(long long*)(lpFile + i) = i * 0x9E3779B97F4A7C15LL;
    LayOut(f, lpFile);
    int fd = open(f.strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DIRECT, 0666);
    bool bDone = fd >= 0;
    for (long long llPos = 0; bDone && llPos < FILE_SIZE; llPos += WRITE_PIECE)
        bDone = TalvorWriteFull(fd, lpFile + llPos, (size_t)WRITE_PIECE, llPos);
    if (fd >= 0) close(fd);
    bDone = bDone && HangInCache(f, lpFile) && f.file.Open(g_cache.Get(), f.strPath, bFileNo, bType, FILE_SIZE);
    free(lpFile);
    if (bDone) g_cache.m_module.m_arFiles[bFileNo] = &f.file.m_info;
    return bDone;
}

bool MakeSetup()
{
    if (SegmentExists()) {
        fprintf(stderr, "a cache segment exists already: run under tests/isolate.sh\n");
        return false;
    }
    if (!MakeBenchDir(&g_strDir)) return false;
    if (g_cache.Open(CACHE_MB) != S_OK) return false;
    if (!MakeFile(g_index, INDEX_NO, FILETYPE_INDEX) || !MakeFile(g_table, TABLE_NO, FILETYPE_TABLE)) return false;
    // The module's list: the index file first, as the preload takes it.
    g_index.file.m_info.m_pNext = &g_table.file.m_info;
    g_cache.m_module.m_pFileList = &g_index.file.m_info;
    return true;
}

void RemoveSetup()
{
    g_cache.Close();
    for (MadeFile* f : {&g_index, &g_table})
        if (!f->strPath.empty()) unlink(f->strPath.c_str());
    if (!g_strDir.empty()) rmdir(g_strDir.c_str());
}

double BytesSwept() { return (double)(g_index.llEnd - CACHE_PRELOAD_FROM + g_table.llEnd - CACHE_PRELOAD_FROM); }

// The preload once; true when it ended ready with the index's first block
// at the head of the free chain and the last table block behind it.
bool PreloadRound(Tally& tally)
{
    g_cache.Head()->m_bStatus = CACHESTATUS_BUILDING;
    auto tStart = std::chrono::steady_clock::now();
    HRESULT hr = g_cache->InitCacheHead(nullptr);
    if (hr != S_OK || g_cache.Head()->m_bStatus != CACHESTATUS_READY) return false;
    tally.Add(BytesSwept() / MIB, tStart);
    LPBASEBLOCKHEAD lpFirst = (LPBASEBLOCKHEAD)(g_cache.Base() + CacheBlockOffset((UINT)g_cache.Head()->m_nFreeNo));
    return lpFirst->m_nDataFlag == BLOCK_DATAFLAG && lpFirst->m_bFileNo == INDEX_NO && lpFirst->m_nBlockNo == 1 &&
           g_table.file.m_llLoadSize == FILE_SIZE;
}

// Every block of both files is in the cache, in file order along the free
// chain: index first, then table. Not timed.
bool AllLoaded()
{
    UINT nBlock = (UINT)g_cache.Head()->m_nFreeNo;
    for (MadeFile* f : {&g_index, &g_table}) {
        UINT nBlocks = ((LPTABLEFILEHEAD)(g_cache.Base() + CacheBlockOffset(g_cache.Head()->m_nFileInfoNo[f->bFileNo])))->m_nBlockNum;
        for (UINT n = 1; n <= nBlocks; n++, nBlock = g_cache->GetLink(nBlock)) {
            LPBASEBLOCKHEAD h = (LPBASEBLOCKHEAD)(g_cache.Base() + CacheBlockOffset(nBlock));
            if (nBlock == 0 || h->m_nDataFlag != BLOCK_DATAFLAG || h->m_bFileNo != f->bFileNo || h->m_nBlockNo != n) {
                fprintf(stderr, "file %d: block %u of %u not in the cache\n", (int)f->bFileNo, n, nBlocks);
                return false;
            }
        }
    }
    return true;
}

// The same bytes read with O_DIRECT, sequentially, in the preload's pieces.
bool RawRound(LPBYTE lpBuf, Tally& tally)
{
    auto tStart = std::chrono::steady_clock::now();
    for (MadeFile* f : {&g_index, &g_table}) {
        int fd = open(f->strPath.c_str(), O_RDONLY | O_DIRECT | O_SYNC);
        if (fd < 0) return false;
        bool bDone = true;
        for (long long llPos = CACHE_PRELOAD_FROM; bDone && llPos < f->llEnd; llPos += CACHE_PRELOAD_PIECE) {
            long long nLen = f->llEnd - llPos < CACHE_PRELOAD_PIECE ? f->llEnd - llPos : CACHE_PRELOAD_PIECE;
            bDone = pread(fd, lpBuf, (size_t)nLen, llPos) == nLen;
        }
        close(fd);
        if (!bDone) return false;
    }
    benchmark::DoNotOptimize(lpBuf[100]);
    tally.Add(BytesSwept() / MIB, tStart);
    return true;
}

void BM_PreloadAgainstDirectReads(benchmark::State& state)
{
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer(CACHE_PRELOAD_PIECE);
    if (lpBuf == nullptr) state.SkipWithError("no buffer");
    bool bFirst = g_first.nRounds == 0;
    if (bFirst && lpBuf != nullptr && !(RawRound(lpBuf, g_firstRaw) && PreloadRound(g_first)))
        state.SkipWithError("the first preload or read failed");
    if (bFirst && !AllLoaded()) state.SkipWithError("the preload left blocks out");
    int nRound = 0;
    for (auto _ : state) {
        bool bGood = AlternateRound(nRound++, [&] { return RawRound(lpBuf, g_raw); }, [&] { return PreloadRound(g_ours); });
        if (!bGood) {
            state.SkipWithError("a preload or a read failed");
            break;
        }
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * 2 * BytesSwept()));
    free(lpBuf);
}

BENCHMARK(BM_PreloadAgainstDirectReads)->Iterations(8)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return RunCacheBench(argc, argv, MakeSetup, RemoveSetup, g_strDir, [] {
        Report("Preload / O_DIRECT|O_SYNC sequential reads, first run (segment pages new)", g_first, g_firstRaw, "MiB/s",
               0);
        Report("Preload / O_DIRECT|O_SYNC sequential reads, later runs", g_ours, g_raw, "MiB/s", 0.8);
    });
}
