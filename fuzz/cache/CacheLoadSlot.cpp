// Load slots from outside, as an engine (perhaps one that died while it
// wrote them) leaves them: the input fills up to 8 slots of a file's load
// group from the reading position it chooses, check byte included, and
// posts them; the file's load thread body (StorageLoad) answers each and
// is told to stop once the last one is in hand. Every slot must be answered
// with a known result and the reading position follow; a slot answered as
// loaded must hold in its cache block exactly the file's bytes it named;
// every other cache block near a named one, and the head blocks and map
// outside the group's slots, must be as they were. The file layer stops the
// run at a read past the recorded size (rounded up to a write buffer) or
// any write to the file.
//
// Input: [0] bit 0 the file with write buffers; [1] the reading position
// (as the head holds it); [2] the recorded size of the file against its
// real one, in 8192-byte steps (signed); then slots of 32 bytes.
#include "FuzzCache.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>

using namespace talvorfuzz;

namespace {

const BYTE CTRL_BUFFERED = 0x01;
const size_t INPUT_HEAD = 3;
const size_t SLOT_BYTES = sizeof(CacheBufferBlockOperate);
const int MAX_SLOTS = 8;
const long long SIZE_STEP = 8192;

void Fail(const char* lpszWhat, long long llValue)
{
    fprintf(stderr, "load slot: %s (%lld)\n", lpszWhat, llValue);
    abort();
}

// The module that ends the load thread's loop: once it has been asked for
// the file of the last slot, the thread is told to stop, and it leaves its
// loop after answering that slot.
class CountingModule : public cachetest::FakeCacheModule {
public:
    LPFILEINFO FileOf(BYTE bFileNo) override
    {
        if (++m_nAsked >= m_nStopAfter && m_pCache != nullptr) m_pCache->m_bExit = 1;
        return FakeCacheModule::FileOf(bFileNo);
    }
    CTalvorCacheStorage* m_pCache = nullptr;
    int m_nAsked = 0;
    int m_nStopAfter = 0;
};

struct Loader {
    Loader()
    {
        CTalvorFileIO::Install(&m_io);
        m_pCache = OpenFuzzCache(m_module);
        if (m_pCache == nullptr) abort();
        m_module.m_pCache = m_pCache;
        if (!OpenCacheFile(m_pCache, m_module, m_io, m_files[0], FUZZCACHE_DIRECT_NO, FILETYPE_TABLE, false) ||
            !OpenCacheFile(m_pCache, m_module, m_io, m_files[1], FUZZCACHE_BUFFERED_NO, FILETYPE_TABLE, true))
            abort();
        memset(&m_noBackend, 0, sizeof(m_noBackend));
        m_noBackend.m_bFileNo = FUZZCACHE_NOBACKEND_NO;
        m_noBackend.m_bFileType = FILETYPE_TABLE;
        m_noBackend.m_liFileSize = FUZZCACHE_FILE_SIZE;
        m_module.m_arFiles[FUZZCACHE_NOBACKEND_NO] = &m_noBackend;
    }
    CountingModule m_module;
    CBoundedFileIO m_io;
    CTalvorCacheStorage* m_pCache = nullptr;
    CacheFile m_files[2];
    FILEINFO m_noBackend;
    std::vector<BYTE> m_vHead;  // head blocks and map as an input posted its slots
};

BYTE Filler(long long llBlock) { return (BYTE)(0xC5 ^ llBlock); }

// The first byte of [llFrom, llTo) in the segment that no longer holds its
// block's filler, or -1. A whole compare, not a loop the fuzzer's
// coverage hooks would count byte by byte.
long long FirstChanged(const CTalvorCacheStorage* pCache, long long llFrom, long long llTo)
{
    static std::vector<BYTE> s_vFill((size_t)CACHE_BLOCK_SIZE);
    for (long long o = llFrom; o < llTo;) {
        long long llBlock = o / CACHE_BLOCK_SIZE;
        long long llEnd = (llBlock + 1) * CACHE_BLOCK_SIZE < llTo ? (llBlock + 1) * CACHE_BLOCK_SIZE : llTo;
        memset(s_vFill.data(), Filler(llBlock), (size_t)(llEnd - o));
        if (memcmp(pCache->m_pCacheBufferAddr + o, s_vFill.data(), (size_t)(llEnd - o)) != 0) return o;
        o = llEnd;
    }
    return -1;
}

// The cache blocks around each place a slot names, filled with a pattern
// of their own to show any write that lands there.
std::set<long long> WatchBlocks(CTalvorCacheStorage* pCache, LPCacheBufferBlockOperate* arSlot, int nSlots)
{
    std::set<long long> watched;
    long long llFirst = pCache->GetLayout().m_nFirstFreeNo;
    long long llLast = pCache->m_llCacheBufferSize / CACHE_BLOCK_SIZE - 1;
    for (int i = 0; i < nSlots; i++) {
        long long llBlock = arSlot[i]->m_llCacheBlockOffset / CACHE_BLOCK_SIZE;
        for (long long b = llBlock - 1; b <= llBlock + 1; b++)
            if (b >= llFirst && b <= llLast) watched.insert(b);
    }
    for (long long b : watched) memset(pCache->m_pCacheBufferAddr + b * CACHE_BLOCK_SIZE, Filler(b), CACHE_BLOCK_SIZE);
    return watched;
}

// The bytes of a block answered as loaded: the file's, with the thread
// number of its head cleared, and the rest of the cache block untouched.
void CheckLoaded(Loader& l, const CacheBufferBlockOperate& s, long long llBlock)
{
    const CacheFile* pFile = nullptr;
    for (const CacheFile& f : l.m_files)
        if (f.m_info.m_bFileNo == s.m_bFileNo) pFile = &f;
    if (pFile == nullptr) Fail("loaded from a file without a backend", s.m_bFileNo);
    long long llAt = s.m_llFileBlockOffset;
    int nSize = s.m_nBlockSize;
    if (llAt < 0 || nSize <= 0 || llAt + nSize > (long long)pFile->m_vBytes.size()) Fail("loaded past the file", llAt);
    std::vector<BYTE> vWant(pFile->m_vBytes.begin() + llAt, pFile->m_vBytes.begin() + llAt + nSize);
    ((LPBASEBLOCKHEAD)vWant.data())->m_bThreadNum = 0;
    LPBYTE lpGot = l.m_pCache->m_pCacheBufferAddr + s.m_llCacheBlockOffset;
    if (memcmp(lpGot, vWant.data(), (size_t)nSize) != 0) Fail("loaded bytes differ from the file", llAt);
    long long llEnd = (llBlock + (nSize + CACHE_BLOCK_SIZE - 1) / CACHE_BLOCK_SIZE) * CACHE_BLOCK_SIZE;
    long long llChanged = FirstChanged(l.m_pCache, s.m_llCacheBlockOffset + nSize, llEnd);
    if (llChanged >= 0) Fail("written past the block", llChanged);
}

void CheckBlocks(Loader& l, const std::set<long long>& watched, LPCacheBufferBlockOperate* arSlot, int nSlots)
{
    // The last slot answered as loaded into a block decides its bytes.
    std::map<long long, int> loaded;
    for (int i = 0; i < nSlots; i++) {
        const CacheBufferBlockOperate& s = *arSlot[i];
        if (s.m_bSuccess != CACHELOAD_OK) continue;
        if (s.m_llCacheBlockOffset % CACHE_BLOCK_SIZE != 0) Fail("loaded off a block start", s.m_llCacheBlockOffset);
        loaded[s.m_llCacheBlockOffset / CACHE_BLOCK_SIZE] = i;
    }
    for (auto& it : loaded) CheckLoaded(l, *arSlot[it.second], it.first);
    for (long long b : watched) {
        if (loaded.count(b) != 0) continue;
        // A longer block loaded into the blocks before it covers it; its
        // bytes were checked there.
        bool bCovered = false;
        for (auto& it : loaded)
            if (it.first < b && it.first * CACHE_BLOCK_SIZE + arSlot[it.second]->m_nBlockSize > b * CACHE_BLOCK_SIZE)
                bCovered = true;
        if (bCovered) continue;
        long long llChanged = FirstChanged(l.m_pCache, b * CACHE_BLOCK_SIZE, (b + 1) * CACHE_BLOCK_SIZE);
        if (llChanged >= 0) Fail("a block no slot loaded was written", llChanged);
    }
}

// The head blocks and map are as set up, but for the group's slots and
// the group's reading position.
void CheckHeadArea(Loader& l, LPCacheBufferBlockOperate lpGroup, int nNum, BYTE bFileNo)
{
    LPBYTE lpBase = l.m_pCache->m_pCacheBufferAddr;
    long long llSlotsFrom = (LPBYTE)lpGroup - lpBase;
    long long llSlotsTo = llSlotsFrom + (long long)nNum * (long long)SLOT_BYTES;
    long long llPos = (LPBYTE)&l.m_pCache->m_pCacheBufferHead->m_stFileCacheLoadInfo[bFileNo].m_bStorageLoadPos - lpBase;
    // The reading position lies in the head, before every slot.
    const long long llArea = (long long)FUZZCACHE_HEAD_AREA;
    const long long arFrom[] = {0, llPos + 1, std::min(llSlotsTo, llArea)};
    const long long arTo[] = {llPos, std::min(llSlotsFrom, llArea), llArea};
    for (int i = 0; i < 3; i++)
        if (arTo[i] > arFrom[i] && memcmp(lpBase + arFrom[i], l.m_vHead.data() + arFrom[i], (size_t)(arTo[i] - arFrom[i])) != 0)
            Fail("head area written outside the group", arFrom[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static Loader s_loader;
    Loader& l = s_loader;
    if (nSize < INPUT_HEAD) return 0;
    CTalvorCacheStorage* pCache = l.m_pCache;
    // Every input starts from files of their real size: a slot may name
    // the other file, whose size an earlier input may have changed.
    for (CacheFile& c : l.m_files) {
        c.m_info.m_liFileSize = FUZZCACHE_FILE_SIZE;
        l.m_io.SetReadEnd(c.m_strPath, FUZZCACHE_FILE_SIZE);
    }
    CacheFile& f = l.m_files[(lpData[0] & CTRL_BUFFERED) != 0 ? 1 : 0];
    BYTE bFileNo = f.m_info.m_bFileNo;
    LPCacheBufferBlockOperate lpGroup = nullptr;
    int nNum = 0;
    if (pCache->GetCacheLoadSlot(bFileNo, lpGroup, nNum) != 0 || nNum <= 0) abort();
    memset((void*)lpGroup, 0, (size_t)nNum * SLOT_BYTES);
    LPstu_FileCacheLoadInfo lpInfo = &pCache->m_pCacheBufferHead->m_stFileCacheLoadInfo[bFileNo];
    lpInfo->m_bStorageLoadPos = lpData[1];
    int nStart = lpData[1] < nNum ? lpData[1] : 0;
    long long llRecorded = FUZZCACHE_FILE_SIZE + (long long)(int8_t)lpData[2] * SIZE_STEP;
    f.m_info.m_liFileSize = llRecorded;
    l.m_io.SetReadEnd(f.m_strPath, (llRecorded + FILESTORE_BUFFER_SIZE - 1) / FILESTORE_BUFFER_SIZE * FILESTORE_BUFFER_SIZE);
    LPCacheBufferBlockOperate arSlot[MAX_SLOTS];
    int nSlots = 0;
    for (size_t at = INPUT_HEAD; at + SLOT_BYTES <= nSize && nSlots < MAX_SLOTS && nSlots < nNum; at += SLOT_BYTES) {
        arSlot[nSlots] = &lpGroup[(nStart + nSlots) % nNum];
        memcpy((void*)arSlot[nSlots], lpData + at, SLOT_BYTES);
        nSlots++;
    }
    std::set<long long> watched = WatchBlocks(pCache, arSlot, nSlots);
    // Posted last, as the engine does; a slot's own status byte is its posting.
    for (int i = 0; i < nSlots; i++) arSlot[i]->m_bStatus = CACHELOAD_POSTED;
    l.m_vHead.assign(pCache->m_pCacheBufferAddr, pCache->m_pCacheBufferAddr + FUZZCACHE_HEAD_AREA);
    if (nSlots > 0) {
        l.m_module.m_nAsked = 0;
        l.m_module.m_nStopAfter = nSlots;
        pCache->m_bExit = 0;
        if (pCache->StorageLoad(nullptr, bFileNo) != 0) Fail("no load group", bFileNo);
        pCache->m_bExit = 1;
        if (l.m_module.m_nAsked != nSlots) Fail("slots served", l.m_module.m_nAsked);
    }
    for (int i = 0; i < nSlots; i++) {
        BYTE b = arSlot[i]->m_bSuccess;
        if (arSlot[i]->m_bStatus != CACHELOAD_DONE) Fail("slot not answered", i);
        if (b != CACHELOAD_OK && b != CACHELOAD_FAILED && b != CACHELOAD_NOBACKEND && b != CACHELOAD_NOFILE)
            Fail("unknown answer", b);
    }
    if (nSlots > 0 && lpInfo->m_bStorageLoadPos != (nStart + nSlots) % nNum) Fail("reading position", lpInfo->m_bStorageLoadPos);
    CheckBlocks(l, watched, arSlot, nSlots);
    CheckHeadArea(l, lpGroup, nNum, bFileNo);
    return 0;
}
