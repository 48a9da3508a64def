// CacheFixture.h — a shared cache segment of its own for each test (the
// binary runs in a private IPC namespace, so the fixed key meets nobody),
// the trace lines it wrote, raw views of the segment, and a way to let the
// daemon "die" so that the segment survives it.
#pragma once

#include "CacheLayout.h"
#include "FakeCacheModule.h"
#include "PackedValue.h"
#include "TalvorCacheStorage.h"
#include "TestFiles.h"
#include "TraceCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <sys/shm.h>
#include <vector>

namespace cachetest {

using talvortest::Val;

// Bytes of a file read past every layer; fewer at its end.
inline std::vector<BYTE> FileAt(const std::string& strPath, long long nOffset, long long nSize)
{
    std::string s = talvortest::ReadFileAt(strPath, nOffset, nSize);
    return std::vector<BYTE>(s.begin(), s.end());
}
inline std::string AsString(const void* p, size_t nSize) { return std::string((const char*)p, nSize); }

class CacheFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        RemoveSegment();
        m_nOldLanguage = g_nLanguage_Chinese;
        g_nLanguage_Chinese = 0;
        m_pTrace.reset(new talvortest::TraceCapture);
    }
    void TearDown() override
    {
        m_pCache.reset();
        RemoveSegment();
        m_pTrace.reset();
        g_nLanguage_Chinese = m_nOldLanguage;
    }

    // A new cache object on the segment; the result of Initialize.
    int Open(int nMB, int nLRU = 80, BOOL bFileCache = FALSE)
    {
        static char s_cModule;  // only its presence is checked
        m_pCache.reset(new CTalvorCacheStorage);
        m_pCache->SetCacheModule(&m_module);
        return m_pCache->Initialize(SHMNAME_CACHEBUFFER, nMB, nLRU, (CBreltMemStorageModule*)&s_cModule, bFileCache);
    }
    // The row the file list hands over for the file at strPath.
    static void Describe(FILEINFO& info, const std::string& strPath, BYTE bFileNo, BYTE bType, long long llSize)
    {
        memset(&info, 0, sizeof(info));
        snprintf(info.m_lpszFilePath, sizeof(info.m_lpszFilePath), "%s", strPath.c_str());
        info.m_bFileNo = bFileNo;
        info.m_bFileType = (char)bType;
        info.m_liFileSize = llSize;
    }
    // The daemon dies: it lets go of the segment without removing it.
    void Abandon()
    {
        m_pCache->m_hCacheBufferFile = 0;
        m_pCache.reset();
    }
    static int SegmentId() { return shmget(SHMKEY_CACHEBUFFER, 0, 0); }
    static long long SegmentSize()
    {
        struct shmid_ds ds;
        int nId = SegmentId();
        if (nId < 0 || shmctl(nId, IPC_STAT, &ds) != 0) return -1;
        return (long long)ds.shm_segsz;
    }
    static void RemoveSegment()
    {
        int nId = SegmentId();
        if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    }
    // Every byte of the segment, read through an attach of our own.
    static std::vector<BYTE> Snapshot()
    {
        void* p = shmat(SegmentId(), nullptr, SHM_RDONLY);
        if (p == (void*)-1) return {};
        std::vector<BYTE> v((BYTE*)p, (BYTE*)p + SegmentSize());
        shmdt(p);
        return v;
    }
    // Offset of the first differing byte, or -1 (0 for another size).
    static long long FirstDiff(const std::vector<BYTE>& a, const std::vector<BYTE>& b)
    {
        if (a.size() != b.size()) return 0;
        auto it = std::mismatch(a.begin(), a.end(), b.begin()).first;
        return it == a.end() ? -1 : it - a.begin();
    }

    LPCacheBufferHead Head() { return m_pCache->m_pCacheBufferHead; }
    LPBYTE Base() { return m_pCache->m_pCacheBufferAddr; }
    // The blocks of a chain, in order; stops after nMax.
    std::vector<UINT> Chain(UINT nFirst, size_t nMax = 1u << 20)
    {
        std::vector<UINT> v;
        for (UINT n = nFirst; n != 0 && v.size() < nMax; n = m_pCache->GetLink(n)) v.push_back(n);
        return v;
    }

    // What the cache reaches of the module; outlives the cache object.
    FakeCacheModule m_module;
    std::unique_ptr<CTalvorCacheStorage> m_pCache;
    std::unique_ptr<talvortest::TraceCapture> m_pTrace;
    int m_nOldLanguage = 1;
};

} // namespace cachetest
