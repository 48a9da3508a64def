// TalvorFileStorageGrow.cpp — growing a cache-mode file: zeros appended on
// disk, the new size in the cached head, the file's row and the disk head,
// and the save flags that make the next save pass write the row.
#include "TalvorFileStorage.h"

#include "DbFileLayout.h"
#include "TalvorCacheFlush.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>


namespace {


} // namespace

LPSYSTEMFILEHEAD CTalvorFileStorage::SystemHead() const
{
    ITalvorCacheModule* pModule = m_pTalvorCacheStorage != nullptr ? m_pTalvorCacheStorage->m_pCacheModule : nullptr;
    return pModule != nullptr ? pModule->SystemHead() : nullptr;
}

void CTalvorFileStorage::RecordFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long llSize,
                                        BOOL bLoadSize)
{
    // The row lives in the system image, which the save pass copies under
    // the module's latch: the module writes it under that latch.
    ITalvorCacheModule* pModule = m_pTalvorCacheStorage != nullptr ? m_pTalvorCacheStorage->m_pCacheModule : nullptr;
    if (pModule != nullptr) pModule->RecordFileSize(lpCritSection, pFileInfo, llSize, bLoadSize);
}

int CTalvorFileStorage::AppendZeros(LPBYTE lpBuffer, int nBufferSize, long long llFrom, long long nFileSize)
{
    memset(lpBuffer, 0, (size_t)nBufferSize);
    BOOL bExact = nFileSize < nBufferSize;
    for (long long llPos = llFrom; llPos < nFileSize;) {
        // Whole pieces may carry the file past the size asked; only a size
        // below one piece is met exactly.
        int nPiece = bExact && nFileSize - llPos < nBufferSize ? (int)(nFileSize - llPos) : nBufferSize;
        int nErr = 0;
        long long nDone = 0;
        if (!WriteTries(Fd(), lpBuffer, nPiece, llPos, nErr, nDone)) {
            Trace("ChangeFileSize", 1, bExact ? 80007003 : 80007002,
                  TALVOR_TEXT("执行添加文件命令时,创建新文件后写入数据失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "When executing add file command, data writing after creating a new file failed, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, Path(), llPos, nPiece);
            return 1;
        }
        llPos += nPiece;
    }
    return 0;
}

int CTalvorFileStorage::WriteHeadToDisk(LPTABLEFILEHEAD lpHead)
{
    int nErr = 0;
    long long nDone = 0;
    if (!WriteTries(Fd(), (const BYTE*)lpHead, CACHE_PAGE_SIZE, 0, nErr, nDone)) {
        Trace("ChangeFileSize", 1, 80007005,
              TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:0,写入大小:%d",
                          "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: 0, write size: %d"),
              strerror(nErr), nErr, Path(), CACHE_PAGE_SIZE);
        return 1;
    }
    // A buffer holding the head's span must not keep the old head.
    CopyIntoOverlapping(0, (const BYTE*)lpHead, CACHE_PAGE_SIZE);
    return 0;
}

int CTalvorFileStorage::ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long,
                                       long long, LPBYTE lpBuffer, LPBYTE, long long nFileSize, int nBufferSize,
                                       LPTALVORPROGRESS)
{
    if (pFileInfo == nullptr) return 0;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    m_pFileInfo = pFileInfo;
    LPSYSTEMFILEHEAD lpSystemHead = SystemHead();
    LPTABLEFILEHEAD lpHead = CachedHead(pFileInfo);
    if (lpSystemHead == nullptr || lpHead == nullptr) return 0;
    long long llSize = (long long)CTalvorFileIO::Current()->LSeek(Fd(), 0, SEEK_END);
    if (llSize < 0) return 1;
    if (nFileSize <= llSize) {
        if (pFileInfo->m_liFileSize < llSize) TalvorStoreShared(&pFileInfo->m_liFileSize, llSize);
        // The head learns the size the disk has, never less.
        const BOOL bLearnt = lpHead->m_nFileTotalSize < llSize;
        if (bLearnt) lpHead->m_nFileTotalSize = llSize;
        lock.UnLock();
        if (bLearnt) RecordFileSize(lpCritSection, pFileInfo, llSize, FALSE);
        Trace("ChangeFileSize", 3, 80007001,
              TALVOR_TEXT("文件大小不需要修改,文件路径:%s,文件大小:%lld(%lld)",
                          "File size does not need to be modified, file path: %s, file size: %lld(%lld)"),
              Path(), nFileSize, llSize);
        return 0;
    }
    if (lpBuffer == nullptr || nBufferSize <= 0 || nBufferSize % DB_IO_ALIGN != 0) return 1;
    if (AppendZeros(lpBuffer, nBufferSize, llSize, nFileSize) != 0) return 1;
    llSize = (long long)CTalvorFileIO::Current()->LSeek(Fd(), 0, SEEK_END);
    // The load threads and the preload bound their reads by the size
    // without the file's latch.
    TalvorStoreShared(&pFileInfo->m_liFileSize, llSize);
    if (llSize != nFileSize)
        Trace("ChangeFileSize_Cache", 1, 80007004,
              TALVOR_TEXT("文件大小异常,文件大小需要增长到:%lld,但获取的文件实际大小:%lld,文件路径:%s",
                          "File size exception, File size needs to grow to: %lld, but the actual size of the obtained file: %lld, file path: %s"),
              nFileSize, llSize, Path());
    lpHead->m_nFileTotalSize = llSize;
    const int nHead = WriteHeadToDisk(lpHead);
    // The module's latch ranks below this one: taken once it is given back.
    lock.UnLock();
    // The load size lives in the row too: it moves once the growth is whole.
    RecordFileSize(lpCritSection, pFileInfo, llSize, TRUE);
    if (nHead != 0) return 1;
    ChechDiskFree(pFileInfo);
    Trace("ChangeFileSize", 3, 80007006,
          TALVOR_TEXT("修改文件大小成功,文件路径:%s,文件大小:%lld", "Successfully modified file size, file path: %s, file size: %lld"),
          Path(), llSize);
    return 0;
}
