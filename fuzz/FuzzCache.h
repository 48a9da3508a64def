// FuzzCache.h — the shared block cache for the cache targets: a small
// segment with a module of the tests' kind (FakeCacheModule), cache-mode
// files with their backends, a file layer that stops the run at the first
// transfer outside a file, and the used cache whose head area the survivor
// target and its seeds start from. Shared by the targets and the seed maker,
// so that a seed means the same thing to both. Each fuzz process runs in its
// own IPC namespace (tests/isolate.sh): the fixed key meets nobody.
#pragma once

#include "CacheLayout.h"
#include "FakeCacheModule.h"
#include "FuzzFiles.h"
#include "FuzzQuiet.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/shm.h>
#include <vector>

namespace talvorfuzz {

// The smallest cache there is: a rebuild clears all of it for every input.
inline constexpr int FUZZCACHE_MB = CACHE_MIN_SIZE_MB;
inline constexpr int FUZZCACHE_LRU = 80;
// What a survivor input covers: the two head blocks and the first map block
// (the whole map of a cache this small).
inline constexpr size_t FUZZCACHE_HEAD_AREA = (size_t)(CACHE_HEAD_BLOCKS + 1) * CACHE_BLOCK_SIZE;
// Cache-mode files of the flush and load targets: a table file with write
// buffers, a table file and an index file without.
inline constexpr BYTE FUZZCACHE_BUFFERED_NO = 7;
inline constexpr BYTE FUZZCACHE_DIRECT_NO = 8;
inline constexpr BYTE FUZZCACHE_INDEX_NO = 9;
// A file the module knows but that has no backend.
inline constexpr BYTE FUZZCACHE_NOBACKEND_NO = 5;
inline constexpr long long FUZZCACHE_FILE_SIZE = 4LL * 1048576;

// Only its presence is checked by Initialize; nothing of it is reached.
inline CBreltMemStorageModule* CacheModuleMark()
{
    static char s_cModule;
    return reinterpret_cast<CBreltMemStorageModule*>(&s_cModule);
}

// The daemon "dies": the object lets go of the segment without removing it.
inline void AbandonCache(CTalvorCacheStorage* pCache)
{
    pCache->m_hCacheBufferFile = 0;
    delete pCache;
}

// The segment of the fixed key, attached as the engine attaches it; null
// when there is none.
inline LPBYTE AttachSegment()
{
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId < 0) return nullptr;
    void* p = shmat(nId, nullptr, 0);
    return p == (void*)-1 ? nullptr : (LPBYTE)p;
}

// A cache as the engine leaves it when the daemon stops: three blocks in
// file 3's chain, two in file 7's (each file with its load group), ring
// positions moved on, status ready. Made at nLRU; the segment stays, and
// the first FUZZCACHE_HEAD_AREA bytes are returned (empty on a failure).
inline std::vector<BYTE> MakeUsedCacheHead(int nLRU)
{
    QuietTrace();
    std::vector<BYTE> v;
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    cachetest::FakeCacheModule module;
    CTalvorCacheStorage* pCache = new CTalvorCacheStorage;
    pCache->SetCacheModule(&module);
    if (pCache->Initialize(SHMNAME_CACHEBUFFER, FUZZCACHE_MB, nLRU, CacheModuleMark(), FALSE) != S_OK) {
        delete pCache;
        return v;
    }
    long long llOffset = 0;
    for (int i = 0; i < 3; i++) pCache->LoadFile2Cache(nullptr, 3, llOffset);
    for (int i = 0; i < 2; i++) pCache->LoadFile2Cache(nullptr, 7, llOffset);
    LPCacheBufferHead h = pCache->m_pCacheBufferHead;
    h->m_bCacheFlushPos = 5;
    h->m_bStorageFlushPos = 3;
    h->m_bCacheIndexFlushPos = 9;
    h->m_bStorageIndexFlushPos = 9;
    h->m_stFileCacheLoadInfo[3].m_bCacheLoadPos = 4;
    h->m_stFileCacheLoadInfo[3].m_bStorageLoadPos = 2;
    h->m_bStatus = CACHESTATUS_READY;
    LPBYTE lpBase = pCache->m_pCacheBufferAddr;
    v.assign(lpBase, lpBase + FUZZCACHE_HEAD_AREA);
    AbandonCache(pCache);
    return v;
}

// The file layer of the flush and load targets: every transfer on a watched
// file must lie inside [0, its limit); the first one that does not ends the
// run with a report, where the fault is, rather than a changed file later.
class CBoundedFileIO : public CTalvorFileIO {
public:
    // Transfers on files opened at strPath from now on must end by
    // llReadEnd (reads) and llWriteEnd (writes); 0 forbids writes.
    void Watch(const std::string& strPath, long long llReadEnd, long long llWriteEnd)
    {
        m_limits[strPath] = Limit{llReadEnd, llWriteEnd};
    }
    int Open(const char* lpPath, int nFlags, mode_t nMode) override
    {
        int fd = CTalvorFileIO::Open(lpPath, nFlags, nMode);
        if (fd >= 0 && m_limits.count(lpPath) != 0) m_fds[fd] = lpPath;
        return fd;
    }
    int Close(int fd) override
    {
        m_fds.erase(fd);
        return CTalvorFileIO::Close(fd);
    }
    ssize_t PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset) override
    {
        Check(fd, nOffset, nSize, false);
        return CTalvorFileIO::PRead(fd, lpBuf, nSize, nOffset);
    }
    ssize_t PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset) override
    {
        Check(fd, nOffset, nSize, true);
        return CTalvorFileIO::PWrite(fd, lpBuf, nSize, nOffset);
    }
    // Changes the limits of a watched path (the recorded size moved).
    void SetReadEnd(const std::string& strPath, long long llReadEnd) { m_limits[strPath].llRead = llReadEnd; }

private:
    struct Limit {
        long long llRead;
        long long llWrite;
    };
    void Check(int fd, off_t nOffset, size_t nSize, bool bWrite)
    {
        auto it = m_fds.find(fd);
        if (it == m_fds.end()) return;
        const Limit& l = m_limits[it->second];
        long long llEnd = bWrite ? l.llWrite : l.llRead;
        if (nOffset >= 0 && (long long)nOffset + (long long)nSize <= llEnd) return;
        fprintf(stderr, "%s of %zu bytes at %lld outside %s (limit %lld)\n", bWrite ? "write" : "read", nSize,
                (long long)nOffset, it->second.c_str(), llEnd);
        abort();
    }
    std::map<std::string, Limit> m_limits;
    std::map<int, std::string> m_fds;
};

// A cache-mode file of FUZZCACHE_FILE_SIZE bytes: every 16384-byte block
// from the second on carries a data block head of its own number (its
// offset / 16384), the file's number and a size of 16384; the rest of the
// bytes a pattern whose blocks end alternately in a zero and a non-zero
// byte. The bytes are returned (empty on a failure).
inline std::vector<BYTE> MakeCacheFile(const std::string& strPath, BYTE bFileNo)
{
    std::vector<BYTE> v((size_t)FUZZCACHE_FILE_SIZE);
    for (size_t i = 0; i < v.size(); i++) v[i] = (BYTE)(i * 131 + bFileNo);
    for (long long llAt = CACHE_BLOCK_SIZE; llAt < FUZZCACHE_FILE_SIZE; llAt += CACHE_BLOCK_SIZE) {
        BASEBLOCKHEAD h;
        memset(&h, 0, sizeof(h));
        h.m_nDataFlag = BLOCK_DATAFLAG;
        h.m_nBlockNo = (UINT)(llAt / CACHE_BLOCK_SIZE);
        h.m_bFileNo = bFileNo;
        h.m_nBlockSize = CACHE_BLOCK_SIZE;
        h.m_nTimestamp = 77;
        memcpy(v.data() + llAt, &h, sizeof(h));
        v[(size_t)(llAt + CACHE_BLOCK_SIZE - 1)] = (llAt / CACHE_BLOCK_SIZE) % 2 == 0 ? 0 : 0x5A;
    }
    if (!WriteFileBytes(strPath, v.data(), v.size())) v.clear();
    return v;
}

// A file known to the module with its backend opened on the cache, and its
// head block taken from the free chain (which gives it a load group).
struct CacheFile {
    FILEINFO m_info;
    std::string m_strPath;
    std::vector<BYTE> m_vBytes;
    CTalvorFileStorage* m_pStorage = nullptr;
};

// Opens file bFileNo of bFileType in FuzzDir() on pCache (with write
// buffers when bBuffered); false on any failure.
inline bool OpenCacheFile(CTalvorCacheStorage* pCache, cachetest::FakeCacheModule& module, CBoundedFileIO& io,
                          CacheFile& f, BYTE bFileNo, BYTE bFileType, bool bBuffered)
{
    f.m_strPath = FuzzDir() + "Cache" + std::to_string(bFileNo) + ".dbf";
    f.m_vBytes = MakeCacheFile(f.m_strPath, bFileNo);
    if (f.m_vBytes.empty()) return false;
    io.Watch(f.m_strPath, FUZZCACHE_FILE_SIZE, FUZZCACHE_FILE_SIZE);
    memset(&f.m_info, 0, sizeof(f.m_info));
    snprintf(f.m_info.m_lpszFilePath, sizeof(f.m_info.m_lpszFilePath), "%s", f.m_strPath.c_str());
    f.m_info.m_bFileNo = bFileNo;
    f.m_info.m_bFileType = (char)bFileType;
    f.m_info.m_liFileSize = FUZZCACHE_FILE_SIZE;
    BOOL bOld = pCache->m_bFileCache;
    pCache->m_bFileCache = bBuffered ? TRUE : FALSE;
    f.m_pStorage = new CTalvorFileStorage(pCache);
    pCache->m_bFileCache = bOld;
    if (f.m_pStorage->OpenFile(nullptr, &f.m_info, 1) != 0) return false;
    f.m_info.m_pStorageFile = f.m_pStorage;
    module.m_arFiles[bFileNo] = &f.m_info;
    long long llHead = 0;
    return pCache->LoadFile2Cache(nullptr, bFileNo, llHead) == 0;
}

// A new cache of the fuzz size with the module set; null on a failure.
inline CTalvorCacheStorage* OpenFuzzCache(cachetest::FakeCacheModule& module)
{
    QuietTrace();
    int nId = shmget(SHMKEY_CACHEBUFFER, 0, 0);
    if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    CTalvorCacheStorage* pCache = new CTalvorCacheStorage;
    pCache->SetCacheModule(&module);
    if (pCache->Initialize(SHMNAME_CACHEBUFFER, FUZZCACHE_MB, FUZZCACHE_LRU, CacheModuleMark(), FALSE) != S_OK) {
        delete pCache;
        return nullptr;
    }
    return pCache;
}

} // namespace talvorfuzz
