// Flush ring entries from outside, as an engine (perhaps one that died while
// it wrote them) leaves them: the input fills up to 16 entries of the table
// or the index ring from a position it chooses, and with each entry the
// first bytes of the place it names (a cache block or a pool image), the
// rest of which is cleared. The pipeline then serves the ring once (the
// loop with the stop flag set: one pass, then the buffers drained). Every
// entry must be answered with a known result, the ring position follow,
// every write land inside its file (CBoundedFileIO stops the run at the
// first one that does not), no file change size and no latch stay taken.
//
// Input: [0] bit 0 the index ring; [1] the ring position (as the head
// holds it, taken modulo the ring by the pipeline); then records of one
// entry (48 bytes) and the TARGET_BYTES of its place.
#include "FuzzCache.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

using namespace talvorfuzz;

namespace {

const BYTE CTRL_INDEX_RING = 0x01;
const size_t INPUT_HEAD = 2;
const size_t TARGET_BYTES = 256;
const size_t RECORD_BYTES = sizeof(stu_CacheFlush) + TARGET_BYTES;
const int MAX_ENTRIES = 16;
// Bytes cleared behind a place an entry names: a data block of up to four
// cache blocks; what lies further stays as an earlier input left it.
const long long CLEARED_BYTES = 4LL * CACHE_BLOCK_SIZE;

void Fail(const char* lpszWhat, long long llValue)
{
    fprintf(stderr, "flush entry: %s (%lld)\n", lpszWhat, llValue);
    abort();
}

struct Pipeline {
    Pipeline()
    {
        CTalvorFileIO::Install(&m_io);
        m_pCache = OpenFuzzCache(m_module);
        if (m_pCache == nullptr) abort();
        m_module.m_bOpenMode = 1;
        if (!OpenCacheFile(m_pCache, m_module, m_io, m_files[0], FUZZCACHE_BUFFERED_NO, FILETYPE_TABLE, true) ||
            !OpenCacheFile(m_pCache, m_module, m_io, m_files[1], FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, false) ||
            !OpenCacheFile(m_pCache, m_module, m_io, m_files[2], FUZZCACHE_INDEX_NO, FILETYPE_INDEX, false))
            abort();
        memset(&m_noBackend, 0, sizeof(m_noBackend));
        m_noBackend.m_bFileNo = FUZZCACHE_NOBACKEND_NO;
        m_noBackend.m_bFileType = FILETYPE_TABLE;
        m_noBackend.m_liFileSize = FUZZCACHE_FILE_SIZE;
        m_module.m_arFiles[FUZZCACHE_NOBACKEND_NO] = &m_noBackend;
    }
    cachetest::FakeCacheModule m_module;
    CBoundedFileIO m_io;
    CTalvorCacheStorage* m_pCache = nullptr;
    CacheFile m_files[3];
    FILEINFO m_noBackend;
};

// Both rings and both pools free, as a quiet engine leaves them.
void ClearRings(CTalvorCacheStorage* pCache)
{
    memset((void*)pCache->m_pCacheFlush, 0, sizeof(stu_CacheFlush) * CACHE_FLUSH_RING_SIZE);
    memset((void*)pCache->m_pCacheIndexFlush, 0, sizeof(stu_CacheFlush) * CACHE_FLUSH_RING_SIZE);
    for (int i = 0; i < CACHE_FLUSHFILE_NUM; i++) pCache->m_pFlushFile[i].m_bStatus = 0;
    for (int i = 0; i < CACHE_FLUSHTSFILE_NUM; i++) pCache->m_pFlushTimestampFile[i].m_bStatus = 0;
}

// The engine's bytes at the place an entry names, when that place is
// behind the map (the harness keeps the head blocks and the map its own).
void FillPlace(CTalvorCacheStorage* pCache, const stu_CacheFlush& e, const uint8_t* lpBytes)
{
    long long llOffset = e.m_llCacheBlockOffset;
    long long llFrom = CacheBlockOffset(pCache->GetLayout().m_nFirstFreeNo);
    long long llTotal = pCache->m_llCacheBufferSize;
    if (llOffset < llFrom || llOffset > llTotal - (long long)TARGET_BYTES) return;
    long long llClear = e.m_nBlockSize > 0 ? e.m_nBlockSize : 0;
    if (llClear > CLEARED_BYTES) llClear = CLEARED_BYTES;
    if (llClear > llTotal - llOffset) llClear = llTotal - llOffset;
    memset(pCache->m_pCacheBufferAddr + llOffset, 0, (size_t)llClear);
    memcpy(pCache->m_pCacheBufferAddr + llOffset, lpBytes, TARGET_BYTES);
}

// The pool image an entry names is busy, as the engine left it.
void TakeImage(CTalvorCacheStorage* pCache, const stu_CacheFlush& e)
{
    BYTE bType = e.m_bBlockType;
    if (bType == CACHEFLUSH_HEAD || bType == CACHEFLUSH_MAP || bType == CACHEFLUSH_EXHEAD)
        pCache->m_pFlushFile[e.m_bReserved % CACHE_FLUSHFILE_NUM].m_bStatus = 1;
    else if (bType == CACHEFLUSH_TIMESTAMPS && e.m_llCacheBlockOffset != 0)
        pCache->m_pFlushTimestampFile[e.m_bReserved % CACHE_FLUSHTSFILE_NUM].m_bStatus = 1;
}

bool KnownResult(BYTE b)
{
    return b == CACHEFLUSH_DONE || b == CACHEFLUSH_UNUSABLE || b == CACHEFLUSH_FAILED || b == CACHEFLUSH_NOBACKEND ||
           b == CACHEFLUSH_NOFILE;
}

void CheckAfter(Pipeline& p, LPstu_CacheFlush pRing, int nStart, int nEntries, BYTE bPosNow)
{
    for (int i = 0; i < nEntries; i++) {
        const stu_CacheFlush& e = pRing[(nStart + i) % CACHE_FLUSH_RING_SIZE];
        if (e.m_bStatus != 0) Fail("entry left posted", i);
        if (!KnownResult(e.m_bReserved)) Fail("unknown result", e.m_bReserved);
    }
    if (nEntries > 0 && bPosNow != (nStart + nEntries) % CACHE_FLUSH_RING_SIZE) Fail("ring position", bPosNow);
    for (CacheFile& f : p.m_files) {
        if (f.m_pStorage->m_crit.m_nLockFlag != 0) Fail("backend latch left taken", f.m_info.m_bFileNo);
        struct stat st;
        if (stat(f.m_strPath.c_str(), &st) != 0 || st.st_size != FUZZCACHE_FILE_SIZE)
            Fail("file changed size", (long long)st.st_size);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static Pipeline s_pipeline;
    Pipeline& p = s_pipeline;
    if (nSize < INPUT_HEAD) return 0;
    CTalvorCacheStorage* pCache = p.m_pCache;
    BOOL bIndex = (lpData[0] & CTRL_INDEX_RING) != 0;
    LPstu_CacheFlush pRing = bIndex ? pCache->m_pCacheIndexFlush : pCache->m_pCacheFlush;
    volatile BYTE* pPos =
        bIndex ? &pCache->m_pCacheBufferHead->m_bStorageIndexFlushPos : &pCache->m_pCacheBufferHead->m_bStorageFlushPos;
    ClearRings(pCache);
    p.m_module.m_vCommits.clear();
    *pPos = lpData[1];
    int nStart = lpData[1] % CACHE_FLUSH_RING_SIZE;
    int nEntries = 0;
    for (size_t at = INPUT_HEAD; at + RECORD_BYTES <= nSize && nEntries < MAX_ENTRIES; at += RECORD_BYTES) {
        stu_CacheFlush e;
        memcpy(&e, lpData + at, sizeof(e));
        FillPlace(pCache, e, lpData + at + sizeof(e));
        TakeImage(pCache, e);
        e.m_bStatus = 1;
        memcpy((void*)&pRing[(nStart + nEntries) % CACHE_FLUSH_RING_SIZE], &e, sizeof(e));
        nEntries++;
    }
    pCache->m_bExit = 1;
    HRESULT hr = bIndex ? pCache->StorageIndexFlush(nullptr) : pCache->StorageFlush(nullptr);
    if (hr != S_OK) Fail("flush loop failed", hr);
    CheckAfter(p, pRing, nStart, nEntries, *pPos);
    return 0;
}
