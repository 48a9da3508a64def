// TalvorFileStorageInit.cpp — bringing an existing cache-mode file into the
// cache at start: its head page, its extended head pages and its map
// blocks hang, in file order, in the file's chain of the cache map, and a
// second chain of cache offsets inside the pages leads the same way.
//
// Every offset followed here comes from the file: each is bounded to the
// file and to a page boundary, and each chain to the pages the file can
// hold, so that a damaged file stops the start instead of looping.
#include "TalvorFileStorage.h"

#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// Bytes read to prove that a file of another size than recorded is usable.
const int INIT_PROBE_SIZE = 8192;
const int INIT_MAX_EXHEADS = 255;  // m_bExHeadNo is one byte

// Links lie packed inside the pages, on any byte: stored without assuming
// alignment.
void StoreLink(LPBYTE lpLink, long long llCacheOffset) { memcpy(lpLink, &llCacheOffset, sizeof(llCacheOffset)); }

} // namespace

BOOL CTalvorFileStorage::IsPageOffset(long long llOffset) const
{
    return llOffset >= CACHE_PAGE_SIZE && llOffset % CACHE_PAGE_SIZE == 0 &&
                   llOffset + CACHE_PAGE_SIZE <= m_pFileInfo->m_liFileSize
               ? TRUE
               : FALSE;
}

int CTalvorFileStorage::LoadPage(LPTALVORCRITICALSECTION lpCritSection, long long llFileOffset, long long& llCacheOffset,
                                 LPBYTE& lpPage)
{
    lpPage = nullptr;
    int nResult = m_pTalvorCacheStorage->LoadFile2Cache(lpCritSection, m_pFileInfo->m_bFileNo, llCacheOffset);
    if (nResult != 0) return nResult;
    lpPage = CacheAddress(llCacheOffset, CACHE_PAGE_SIZE);
    if (lpPage == nullptr) return CACHE_RESULT_BADCHAIN;
    memset(lpPage, 0, CACHE_PAGE_SIZE);
    int nErr = 0;
    long long nDone = 0;
    return ReadTries(Fd(), lpPage, CACHE_PAGE_SIZE, llFileOffset, nErr, nDone) ? 0 : 1;
}

int CTalvorFileStorage::SettleMeasuredSize()
{
    int fd = Fd();
    long long llSize = (long long)CTalvorFileIO::Current()->LSeek(fd, 0, SEEK_END);
    if (llSize == m_pFileInfo->m_liFileSize) return 0;
    LPBYTE lpProbe = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(INIT_PROBE_SIZE);
    int nErr = 0;
    long long nDone = 0;
    BOOL bRead = lpProbe != nullptr && llSize >= INIT_PROBE_SIZE &&
                 ReadTries(fd, lpProbe, INIT_PROBE_SIZE, 0, nErr, nDone);
    free(lpProbe);
    if (!bRead) return 1;
    m_pFileInfo->m_liFileSize = llSize;
    return 0;
}

int CTalvorFileStorage::LoadHeadPage(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD& lpHead)
{
    long long llCacheOffset = 0;
    LPBYTE lpPage = nullptr;
    int nResult = LoadPage(lpCritSection, 0, llCacheOffset, lpPage);
    if (nResult != 0) {
        Trace("Initialize", 0, 80001005,
              TALVOR_TEXT("加载文件头失败(%d),路径:%s", "Failed to load file header (%d), path: %s"), nResult, Path());
        return 1;
    }
    lpHead = (LPTABLEFILEHEAD)lpPage;
    // Cache offsets on disk are of an earlier cache: only this load's count.
    lpHead->m_nCacheStartOffset = 0;
    if (lpHead->m_bFileType != (BYTE)m_pFileInfo->m_bFileType) {
        Trace("Initialize", 0, 80001006,
              TALVOR_TEXT("读取文件头失败,文件类型%d,路径:%s", "Failed to read header, file type %d, path: %s"),
              (int)lpHead->m_bFileType, Path());
        return 1;
    }
    if (lpHead->m_nHeadMaxObjectNum == 0)
        lpHead->m_nHeadMaxObjectNum =
            (USHORT)((BYTE)m_pFileInfo->m_bFileType == FILETYPE_TABLE ? TABLEFILEHEAD_OBJECT_NUM : INDEXFILEHEAD_OBJECT_NUM);
    return 0;
}

int CTalvorFileStorage::LoadExtendedHeads(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD lpHead,
                                          LPBYTE& lpLastLink)
{
    BOOL bTable = (BYTE)m_pFileInfo->m_bFileType == FILETYPE_TABLE;
    lpLastLink = (LPBYTE)lpHead + offsetof(TABLEFILEHEAD, m_nCacheStartOffset);
    long long llOffset = lpHead->m_nNextFileHeadOffset;
    for (int nPages = 0; llOffset != 0; nPages++) {
        long long llCacheOffset = 0;
        LPBYTE lpPage = nullptr;
        int nResult = nPages < INIT_MAX_EXHEADS && IsPageOffset(llOffset)
                          ? LoadPage(lpCritSection, llOffset, llCacheOffset, lpPage)
                          : CACHE_RESULT_BADCHAIN;
        if (nResult != 0) {
            Trace("Initialize", 0, bTable ? 80001107 : 80001109,
                  TALVOR_TEXT("分配扩展文件头空间失败(%d),路径:%s", "Failed to allocate extended file header space (%d), path: %s"),
                  nResult, Path());
            return 1;
        }
        LPTABLEFILEHEADEX lpEx = (LPTABLEFILEHEADEX)lpPage;
        lpEx->m_nNextFileHeadCacheOffset = 0;
        if (lpEx->m_bFileType != (BYTE)m_pFileInfo->m_bFileType) {
            Trace("Initialize", 0, bTable ? 80001108 : 80001110,
                  TALVOR_TEXT("读取文件头失败,文件类型%d,路径:%s", "Failed to read header, file type %d, path: %s"),
                  (int)lpEx->m_bFileType, Path());
            return 1;
        }
        StoreLink(lpLastLink, llCacheOffset);
        lpLastLink = lpPage + offsetof(TABLEFILEHEADEX, m_nNextFileHeadCacheOffset);
        llOffset = lpEx->m_nNextFileHeadOffset;
    }
    return 0;
}

int CTalvorFileStorage::LoadMapBlocks(LPTALVORCRITICALSECTION lpCritSection, LPTABLEFILEHEAD lpHead,
                                      LPBYTE lpLastLink)
{
    BOOL bTable = (BYTE)m_pFileInfo->m_bFileType == FILETYPE_TABLE;
    long long llOffset = lpHead->m_nBlockMapStartOffset;
    long long nMaxMaps = m_pFileInfo->m_liFileSize / CACHE_PAGE_SIZE;
    for (long long nMaps = 0; llOffset != 0; nMaps++) {
        if (bTable) TalvorSetLoadSize(m_pFileInfo, llOffset);
        long long llCacheOffset = 0;
        LPBYTE lpPage = nullptr;
        int nResult = nMaps < nMaxMaps && IsPageOffset(llOffset) ? LoadPage(lpCritSection, llOffset, llCacheOffset, lpPage)
                                                                 : CACHE_RESULT_BADCHAIN;
        if (nResult != 0) {
            Trace("Initialize", 0, 80001011,
                  TALVOR_TEXT("MAP块空间分配失败(%d),路径:%s[%lld]", "Map block space allocation failed (%d), path: %s[%lld]"),
                  nResult, Path(), llOffset);
            return 1;
        }
        LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpPage;
        lpMap->m_nNextBlockMapOffset_Cache = 0;
        if (lpMap->m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG) {
            Trace("Initialize", 0, 80001013,
                  TALVOR_TEXT("文件MAP信息不正确,路径:%s", "Incorrect file MAP information, path: %s"), Path());
            return 1;
        }
        StoreLink(lpLastLink, llCacheOffset);
        lpLastLink = lpPage + offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nNextBlockMapOffset_Cache);
        llOffset = lpMap->m_nNextBlockMapOffset;
    }
    return 0;
}

int CTalvorFileStorage::Initialize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long,
                                   CTalvorFlashback* pFlashback, LPTALVORPROGRESS, long long, BYTE bOpenFileUseBuffer)
{
    if (pFileInfo == nullptr) return 1;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    m_pFileInfo = pFileInfo;
    m_pFlashback = pFlashback;
    BYTE bFileType = (BYTE)pFileInfo->m_bFileType;
    if (bFileType != FILETYPE_TABLE && bFileType != FILETYPE_INDEX) {
        Trace("Initialize", 0, 80001001,
              TALVOR_TEXT("缓存文件类型错误,文件类型:%d", "Cache file type error, file type: %d"), (int)bFileType);
        return 1;
    }
    int nErr = OpenHandles(bOpenFileUseBuffer);
    if (nErr != 0) {
        Trace("Initialize", 0, 80001002,
              TALVOR_TEXT("打开文件失败,错误:%s(%d),路径:%s", "Failed to open file, error: %s(%d), path: %s"),
              strerror(nErr), nErr, Path());
        return 1;
    }
    if (SettleMeasuredSize() != 0) return 1;
    CTalvorCacheStorage* pCache = m_pTalvorCacheStorage;
    if (pCache == nullptr || pCache->m_pCacheBufferHead == nullptr) {
        Trace0("Initialize", 1, 80001004, TALVOR_TEXT("缓存指针为空", "The cache pointer is empty"));
        return 1;
    }
    TalvorSetLoadSize(pFileInfo, 0);
    if (pCache->m_bExists) {
        UINT nHeadNo = pCache->m_pCacheBufferHead->m_nFileInfoNo[pFileInfo->m_bFileNo];
        if (nHeadNo == 0 || nHeadNo > pCache->m_pCacheBufferHead->m_nBlockBufNum) {
            Trace("Initialize", 0, 80001012,
                  TALVOR_TEXT("发现已加载的文件(%d),但文件头缓存位置(%d)不正确,请关闭talvorservice和talvorstorage服务后重试!",
                              "Found loaded file (%d), but the file header cache location (%d), please close talvorservice and talvorstorage service and try again!"),
                  (int)pFileInfo->m_bFileNo, (int)nHeadNo);
            return 1;
        }
    } else {
        LPTABLEFILEHEAD lpHead = nullptr;
        LPBYTE lpLastLink = nullptr;
        if (LoadHeadPage(lpCritSection, lpHead) != 0) return 1;
        if (LoadExtendedHeads(lpCritSection, lpHead, lpLastLink) != 0) return 1;
        if (LoadMapBlocks(lpCritSection, lpHead, lpLastLink) != 0) return 1;
    }
    int nResult = pCache->InitFileLoadThreadAndEvent(pFileInfo->m_bFileNo);
    if (nResult != 0) return nResult;
    if (bFileType == FILETYPE_TABLE) TalvorSetLoadSize(pFileInfo, pFileInfo->m_liFileSize);
    lock.UnLock();
    ChechDiskFree(pFileInfo);
    return 0;
}
