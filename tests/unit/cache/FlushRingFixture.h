// FlushRingFixture.h — the table flush ring as the engine fills it, over a
// cache-mode file and a model of its bytes that each posted entry updates.
#pragma once

#include "CacheFileHeadArea.h"
#include "FileStorageFixture.h"

#include <functional>

namespace cachetest {

inline constexpr long long FR_BLOCK_TS = 7000;
inline constexpr BYTE FR_FLUSH_CODE = 3;

class FlushRing : public FileStorageFixture {
protected:
    void MakeRing(BOOL bFileCache = FALSE, BYTE bFileType = FILETYPE_TABLE)
    {
        Make(bFileCache, bFileType);
        m_module.m_arFiles[FS_FILE_NO] = &m_info;
        m_pCache->SetCacheModule(&m_module);
        long long llHead = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llHead));
        m_llImages = m_pCache->GetLayout().m_llFlashBackOffset;
        m_llTsImages = m_llImages + (long long)CACHE_FLUSHFILE_NUM * CACHE_PAGE_SIZE;
        m_nPos = Head()->m_bStorageFlushPos;
        ClearCalls();
    }
    // The next free entry at the engine's position, zeroed; posted by its status.
    stu_CacheFlush* Next()
    {
        stu_CacheFlush* p = &m_pCache->m_pCacheFlush[m_nPos];
        // The flush thread polls the status byte: it is left to Post.
        size_t nStatus = offsetof(stu_CacheFlush, m_bStatus);
        memset((void*)p, 0, nStatus);
        memset((LPBYTE)p + nStatus + 1, 0, sizeof(*p) - nStatus - 1);
        m_vPosted.push_back(m_nPos);
        m_nPos = (m_nPos + 1) % CACHE_FLUSH_RING_SIZE;
        return p;
    }
    // A dirty data block in a cache block of the file's chain (a new one, or
    // lpLive posted again); its entry. The model learns the bytes the disk
    // must get.
    stu_CacheFlush* PostData(UINT nBlockNo, long long llFileOffset, bool bModel = true, LPBYTE lpLive = nullptr)
    {
        if (lpLive == nullptr) {
            long long llCache = 0;
            EXPECT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llCache));
            lpLive = Base() + llCache;
            MakeDirtyBlock(lpLive, nBlockNo, FR_BLOCK_TS, FR_FLUSH_CODE);
        }
        if (bModel) memcpy(m_vLogical.data() + llFileOffset, OnDiskCopy(lpLive).data(), FS_PART);
        stu_CacheFlush* p = Next();
        p->m_bBlockType = CACHEFLUSH_DATA;
        p->m_bFileNo = FS_FILE_NO;
        p->m_bFlushCode = FR_FLUSH_CODE;
        p->m_nBlockNo = nBlockNo;
        p->m_nBlockSize = FS_PART;
        p->m_llTimestamp = FR_BLOCK_TS;
        p->m_llTransTimestamp = FR_BLOCK_TS;
        p->m_llCacheBlockOffset = lpLive - Base();
        p->m_llFileBlockOffset = llFileOffset;
        m_vLive.push_back(lpLive);
        TalvorStoreShared(&p->m_bStatus, 1);
        return p;
    }
    // A head, extended head or map image in pool image bIndex, with its type's
    // mark or nMark; its entry.
    stu_CacheFlush* PostPage(BYTE bType, BYTE bIndex, long long llFileOffset, UINT nMapNo = 1, int nMark = 0)
    {
        LPBYTE lpImage = Base() + m_llImages + (long long)bIndex * CACHE_PAGE_SIZE;
        for (int i = 0; i < CACHE_PAGE_SIZE; i++) lpImage[i] = (BYTE)m_rng();
        if (nMark == 0)
            nMark = bType == CACHEFLUSH_HEAD     ? TABLEFILE_DATAFLAG
                    : bType == CACHEFLUSH_EXHEAD ? TABLEFILEEX_DATAFLAG
                                                 : BLOCKMAP_CACHE_DATAFLAG;
        memcpy(lpImage, &nMark, sizeof(nMark));
        if (bType == CACHEFLUSH_HEAD) {
            ((LPTABLEFILEHEAD)lpImage)->m_bFileType = (BYTE)m_info.m_bFileType;
            ((LPTABLEFILEHEAD)lpImage)->m_bFileNo = FS_FILE_NO;
        }
        if (bType == CACHEFLUSH_EXHEAD) ((LPTABLEFILEHEADEX)lpImage)->m_bFileNo = FS_FILE_NO;
        if (bType == CACHEFLUSH_MAP) ((LPBASEFILEBLOCKMAPHEAD_CACHE)lpImage)->m_nMapNo = (int)nMapNo;
        long long llPlace = bType == CACHEFLUSH_HEAD ? 0 : llFileOffset;
        if (llPlace + CACHE_PAGE_SIZE <= (long long)m_vLogical.size())
            memcpy(m_vLogical.data() + llPlace, lpImage, CACHE_PAGE_SIZE);
        m_pCache->m_pFlushFile[bIndex].m_bStatus = 1;
        stu_CacheFlush* p = Next();
        p->m_bBlockType = bType;
        p->m_bReserved = bIndex;
        p->m_bFileNo = FS_FILE_NO;
        p->m_nBlockNo = nMapNo;
        p->m_nBlockSize = CACHE_PAGE_SIZE;
        p->m_llCacheBlockOffset = m_llImages + (long long)bIndex * CACHE_PAGE_SIZE;
        p->m_llFileBlockOffset = llFileOffset;
        TalvorStoreShared(&p->m_bStatus, 1);
        return p;
    }
    // An entry of a type the pipeline does not know, of a size no buffer
    // should be made for; it is passed over.
    void PostUnknown()
    {
        stu_CacheFlush* p = Next();
        p->m_bBlockType = 9;
        p->m_nBlockSize = 0x7FFFFE00;
        p->m_bFileNo = FS_FILE_NO;
        p->m_llCacheBlockOffset = m_llImages;
        p->m_llFileBlockOffset = FS_PART;
        TalvorStoreShared(&p->m_bStatus, 1);
    }
    // A timestamp entry, with an array in timestamp image bIndex or none.
    stu_CacheFlush* PostTimestamp(long long llTs, int bIndex, int nNum)
    {
        stu_CacheFlush* p = Next();
        p->m_bBlockType = CACHEFLUSH_TIMESTAMPS;
        p->m_llTimestamp = llTs;
        p->m_nTimestampNum = nNum;
        if (bIndex >= 0) {
            LPBYTE lpArray = Base() + m_llTsImages + (long long)bIndex * CACHEFLUSH_TSIMAGE_SIZE;
            for (int i = 0; i < CACHEFLUSH_TSIMAGE_SIZE; i++) lpArray[i] = (BYTE)m_rng();
            m_pCache->m_pFlushTimestampFile[bIndex].m_bStatus = 1;
            p->m_bReserved = (BYTE)bIndex;
            p->m_llCacheBlockOffset = m_llTsImages + (long long)bIndex * CACHEFLUSH_TSIMAGE_SIZE;
        }
        TalvorStoreShared(&p->m_bStatus, 1);
        return p;
    }
    // The pipeline told to stop: it serves what is posted and returns.
    void Run()
    {
        TalvorStoreShared(&m_pCache->m_bExit, 1);
        EXPECT_EQ(S_OK, m_pCache->StorageFlush(nullptr));
        EXPECT_TRUE(LatchFree());
    }
    void ExpectNothingWritten()
    {
        EXPECT_TRUE(Writes().empty());
        EXPECT_EQ(-1, FirstDiff(FileBytes(), m_vDisk));
    }
    // Result codes of the posted entries, in posting order; each entry
    // must be free again.
    std::vector<int> Results()
    {
        std::vector<int> v;
        for (int n : m_vPosted) {
            const stu_CacheFlush& e = m_pCache->m_pCacheFlush[n];
            EXPECT_EQ(0, Val(e.m_bStatus)) << "entry " << n;
            v.push_back(Val(e.m_bReserved));
        }
        return v;
    }

    long long m_llImages = 0;
    long long m_llTsImages = 0;
    int m_nPos = 0;
    std::vector<int> m_vPosted;
    std::vector<LPBYTE> m_vLive;
};

inline constexpr long long HEAD_TS = 4000;

// The ring's file with the head area of a new table file in its cache chain.
class FlushLast : public FlushRing {
protected:
    // The file's head area in its cache chain (head page, first map block),
    // as a new file puts it there.
    void MakeFile()
    {
        MakeRing();
        long long llSecond = 0;
        ASSERT_EQ(0, m_pCache->LoadFile2Cache(nullptr, FS_FILE_NO, llSecond));
        CACHEHEADAREADEF stDef = {FS_FILE_NO, FILETYPE_TABLE, 1, 10, FS_FILE_SIZE, HEAD_TS};
        std::vector<BYTE> vArea(2 * CACHE_PAGE_SIZE);
        ASSERT_TRUE(CacheBuildHeadArea(stDef, vArea.data(), (long long)vArea.size(), nullptr));
        ASSERT_EQ(0, m_pCache->NewFile2Cache(nullptr, FS_FILE_NO, FILETYPE_TABLE, vArea.data(), 0));
        m_lpHead = (LPTABLEFILEHEAD)(Base() + (long long)Head()->m_nFileInfoNo[FS_FILE_NO] * CACHE_BLOCK_SIZE);
        m_lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)(Base() + llSecond);
        ASSERT_EQ(BLOCKMAP_CACHE_DATAFLAG, Val(m_lpMap->m_nDataFlag));
        // The head always reaches offset 0.
        memcpy(m_vLogical.data(), m_lpHead, CACHE_PAGE_SIZE);
        ClearCalls();
    }
    // A block of the file in the cache, its place in the map; dirty by the
    // flags given. The model learns it only when it must be written.
    LPBLOCKHEAD Block(UINT nBlockNo, long long llFileOffset, BYTE bSave, BYTE bFlush)
    {
        PostData(nBlockNo, llFileOffset, bSave == 1 || bFlush == 1);
        // Only the cache block is wanted; the ring stays empty.
        m_pCache->m_pCacheFlush[m_vPosted.back()].m_bStatus = 0;
        LPBLOCKHEAD h = (LPBLOCKHEAD)m_vLive.back();
        h->m_bSaveFlag = bSave;
        h->m_bFlushFlag = bFlush;
        m_lpMap->m_pBlockMap[nBlockNo - 1].m_nBlockOffset = llFileOffset;
        return h;
    }

    LPTABLEFILEHEAD m_lpHead = nullptr;
    LPBASEFILEBLOCKMAPHEAD_CACHE m_lpMap = nullptr;
};

} // namespace cachetest
