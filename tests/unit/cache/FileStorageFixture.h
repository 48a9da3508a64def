// FileStorageFixture.h — a cache-mode file with its backend on a small
// cache, the fault layer in force, and a model of the file's bytes.
#pragma once

#include "CacheFixture.h"
#include "FaultFileIO.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"
#include "TempTree.h"
#include "TestClock.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <random>
#include <thread>
#include <unistd.h>

namespace cachetest {

inline constexpr long long FS_FILE_SIZE = 20LL * 1048576;  // 80 spans
inline constexpr int FS_SPAN = FILESTORE_BUFFER_SIZE;
inline constexpr int FS_PART = FILESTORE_PART_SIZE;
inline constexpr BYTE FS_FILE_NO = 7;

struct AlignedBytes {
    explicit AlignedBytes(size_t n) : m_p((LPBYTE)get_aligned_buffer(n)) {}
    ~AlignedBytes() { free(m_p); }
    AlignedBytes(const AlignedBytes&) = delete;
    AlignedBytes& operator=(const AlignedBytes&) = delete;
    LPBYTE m_p;
};

class FileStorageFixture : public CacheFixture {
protected:
    void SetUp() override
    {
        CacheFixture::SetUp();
        m_rng.seed(20261126);
    }
    void TearDown() override
    {
        if (m_pStorage != nullptr) m_pStorage->Release();
        m_pStorage = nullptr;
        m_pScoped.reset();
        CacheFixture::TearDown();
    }

    // A cache (file buffers on or off), a file of random bytes and its
    // backend opened on it. The fault layer is put in force afterwards.
    void Make(BOOL bFileCache, BYTE bFileType = FILETYPE_TABLE)
    {
        ASSERT_EQ(0, Open(32, 80, bFileCache));
        m_vDisk.resize((size_t)FS_FILE_SIZE);
        for (BYTE& b : m_vDisk) b = (BYTE)m_rng();
        m_strPath = m_tree.Path("Table7.dbf");
        ASSERT_TRUE(talvortest::WriteWholeFile(m_strPath, AsString(m_vDisk.data(), m_vDisk.size())));
        Describe(m_info, m_strPath, FS_FILE_NO, bFileType, FS_FILE_SIZE);
        m_pStorage = new CTalvorFileStorage(m_pCache.get());
        ASSERT_EQ(0, m_pStorage->OpenFile(nullptr, &m_info, 1));
        m_info.m_pStorageFile = m_pStorage;
        m_vLogical = m_vDisk;
        m_pScoped.reset(new talvortest::ScopedFileIO(&m_io));
    }

    // The file's bytes as the disk holds them, read past every layer.
    std::vector<BYTE> FileBytes() const
    {
        std::vector<BYTE> v = FileAt(m_strPath, 0, FS_FILE_SIZE);
        return v.size() == (size_t)FS_FILE_SIZE ? v : std::vector<BYTE>();
    }
    // A write of nSize random bytes at llPos; the logical model takes them.
    int Write(long long llPos, int nSize)
    {
        AlignedBytes buf((size_t)nSize);
        for (int i = 0; i < nSize; i++) buf.m_p[i] = (BYTE)m_rng();
        memcpy(m_vLogical.data() + llPos, buf.m_p, (size_t)nSize);
        return m_pStorage->WriteBlock(nullptr, llPos, buf.m_p, nSize);
    }
    ::testing::AssertionResult ReadsBack(long long llPos, int nSize)
    {
        AlignedBytes buf((size_t)nSize);
        int nRet = m_pStorage->ReadBlock(nullptr, llPos, buf.m_p, nSize);
        if (nRet != 0) return ::testing::AssertionFailure() << "ReadBlock gave " << nRet;
        for (int i = 0; i < nSize; i++)
            if (buf.m_p[i] != m_vLogical[(size_t)(llPos + i)])
                return ::testing::AssertionFailure() << "byte " << (llPos + i) << " differs";
        return ::testing::AssertionSuccess();
    }
    // Every buffer written out; then the disk must hold the logical model.
    ::testing::AssertionResult DrainedFileMatches()
    {
        for (int i = 0; i < 2 * FILESTORE_BUFFER_NUM; i++) {
            int n = m_pStorage->FlushBuffer(nullptr);
            if (n == -1) break;
            if (n != 0) return ::testing::AssertionFailure() << "FlushBuffer gave " << n;
        }
        long long d = FirstDiff(FileBytes(), m_vLogical);
        if (d >= 0) return ::testing::AssertionFailure() << "file differs at " << d;
        return ::testing::AssertionSuccess();
    }
    // With one of the cache's threads held inside the file by m_io: a pause
    // with a short deadline is refused and taken back; one with the full
    // deadline is not granted while the hold lasts, and is once m_io lets
    // the thread go. The pause then stands.
    void ExpectPauseWaitsOutTheHold(const char* lpszHeld)
    {
        m_pCache->m_nPauseDeadlineMs = 200;
        EXPECT_FALSE(m_pCache->PauseFile(FS_FILE_NO)) << "a pause granted while " << lpszHeld;
        EXPECT_EQ(0, TalvorLoadShared(&m_pCache->m_bPauseFileNo));
        m_pCache->m_nPauseDeadlineMs = CACHE_PAUSE_DEADLINE_MS;
        std::atomic<bool> bGranted{false};
        std::thread tPause([&] { bGranted = m_pCache->PauseFile(FS_FILE_NO); });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(bGranted.load()) << "the pause was granted while " << lpszHeld;
        m_io.Release();
        tPause.join();
        EXPECT_TRUE(bGranted.load()) << "no pause once the thread was let go";
    }
    // No call leaves the buffers' latch taken, whatever failed.
    ::testing::AssertionResult LatchFree() const
    {
        if (m_pStorage->m_crit.m_nLockFlag == 0) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "the buffers' latch is still taken";
    }
    // Writes that reached the layer since the last ClearCalls, as (offset, size).
    typedef std::vector<std::pair<long long, long long>> Calls;
    void ClearCalls() { m_nWritesBefore = m_io.Writes().size(); }
    Calls Writes() const
    {
        std::vector<talvortest::FileWrite> vAll = m_io.Writes();
        Calls v;
        for (size_t i = m_nWritesBefore; i < vAll.size(); i++) v.push_back({vAll[i].m_nOffset, vAll[i].m_nSize});
        return v;
    }

    talvortest::TempTree m_tree{"fs"};
    talvortest::FaultFileIO m_io;
    std::unique_ptr<talvortest::ScopedFileIO> m_pScoped;
    std::string m_strPath;
    FILEINFO m_info;
    CTalvorFileStorage* m_pStorage = nullptr;
    std::vector<BYTE> m_vDisk;     // the file as written at the start
    std::vector<BYTE> m_vLogical;  // what every read must give
    // A dirty data block of this file at lpLive in the cache: random bytes
    // under a head with the engine's marks set (save, flush, lock stamp,
    // status, use count), which no copy on disk may carry.
    void MakeDirtyBlock(LPBYTE lpLive, UINT nBlockNo, long long llTimestamp, BYTE bFlushCode)
    {
        for (int i = 0; i < FS_PART; i++) lpLive[i] = (BYTE)m_rng();
        LPBLOCKHEAD h = (LPBLOCKHEAD)lpLive;
        h->m_nDataFlag = BLOCK_DATAFLAG;
        h->m_nBlockNo = nBlockNo;
        h->m_nTimestamp = llTimestamp;
        h->m_nLockTimestamp = 99;
        h->m_nBlockSize = FS_PART;
        h->m_bStatus = 3;
        h->m_bFileNo = FS_FILE_NO;
        h->m_bSaveFlag = 1;
        h->m_bThreadNum = 2;
        h->m_bFlushCode = bFlushCode;
        h->m_bFlushFlag = 1;
    }

    // The dirty block at lpLive as the disk must get it: the engine's marks cleared.
    static std::vector<BYTE> OnDiskCopy(LPBYTE lpLive)
    {
        std::vector<BYTE> v(lpLive, lpLive + FS_PART);
        LPBLOCKHEAD c = (LPBLOCKHEAD)v.data();
        c->m_bSaveFlag = 0;
        c->m_bFlushFlag = 0;
        c->m_nLockTimestamp = 0;
        c->m_bStatus = 0;
        c->m_bThreadNum = 0;
        return v;
    }

    std::mt19937 m_rng;
    size_t m_nWritesBefore = 0;
};

} // namespace cachetest
