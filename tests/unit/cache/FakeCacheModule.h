// FakeCacheModule.h — the storage module as the shared cache reaches it
// (ITalvorCacheModule), played by the cache's tests.
#pragma once

#include "TalvorCacheFlush.h"

#include <tuple>
#include <vector>

namespace cachetest {

// The module as the cache sees it: files by number and as a list, the
// system head, and a record of the timestamps committed, with the array
// given.
class FakeCacheModule : public ITalvorCacheModule {
public:
    struct Commit {
        bool bIndex;
        long long llTimestamp;
        bool bArray;
        std::vector<BYTE> vArray;
        int nNum;
        auto Key() const { return std::tie(bIndex, llTimestamp, bArray, vArray, nNum); }
        bool operator==(const Commit& o) const { return Key() == o.Key(); }
    };
    LPFILEINFO FileOf(BYTE bFileNo) override { return m_arFiles[bFileNo]; }
    BYTE OpenFileUseBuffer() override { return m_bOpenMode; }
    CTalvorFlashback* Flashback() override { return m_pFlashback; }
    LPFILEINFO FileList() override { return m_pFileList; }
    LPSYSTEMFILEHEAD SystemHead() override { return m_pSystemHead; }
    void OnFileSpaceChange(BYTE, long long) override {}
    // As the module: the row's size (and load size) and the three save marks.
    void RecordFileSize(LPTALVORCRITICALSECTION, LPFILEINFO p, long long llSize, BOOL bLoadSize) override
    {
        if (p == nullptr || m_pSystemHead == nullptr) return;
        if (bLoadSize) TalvorSetLoadSize(p, llSize);
        if (p->m_lpFileInfo != nullptr) p->m_lpFileInfo->m_nFileSize = llSize;
        if (p->m_pSaveFlag != nullptr) TalvorStoreShared(p->m_pSaveFlag, 1);
        TalvorStoreShared(&m_pSystemHead->m_stFileObject[SYSTEMFILE_FILELIST_OBJECTID].m_bSaveFlag, 1);
        TalvorStoreShared(&m_pSystemHead->m_bSaveFlag, 1);
    }
    void ShowLoadSize(LPTALVORCRITICALSECTION, LPFILEINFO p, long long llSize) override { TalvorSetLoadSize(p, llSize); }
    HRESULT WriteCacheTableTimestamp(LPTALVORCRITICALSECTION, long long llTs, LPBYTE lpBuf, int nNum) override
    {
        return Record(false, llTs, lpBuf, nNum);
    }
    HRESULT WriteCacheIndexTimestamp(LPTALVORCRITICALSECTION, long long llTs, LPBYTE lpBuf, int nNum) override
    {
        return Record(true, llTs, lpBuf, nNum);
    }
    HRESULT Record(bool bIndex, long long llTs, LPBYTE lpBuf, int nNum)
    {
        Commit c{bIndex, llTs, lpBuf != nullptr, {}, nNum};
        if (lpBuf != nullptr) c.vArray.assign(lpBuf, lpBuf + CACHEFLUSH_TSIMAGE_SIZE);
        m_vCommits.push_back(c);
        return S_OK;
    }
    LPFILEINFO m_arFiles[MAX_FILE_NUM] = {};
    BYTE m_bOpenMode = 1;
    CTalvorFlashback* m_pFlashback = nullptr;
    LPFILEINFO m_pFileList = nullptr;
    LPSYSTEMFILEHEAD m_pSystemHead = nullptr;
    std::vector<Commit> m_vCommits;
};

} // namespace cachetest
