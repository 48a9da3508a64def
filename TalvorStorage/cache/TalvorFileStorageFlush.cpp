// TalvorFileStorageFlush.cpp — carrying out one flush request of the peer:
// a head, an extended head, a map block or a data block, written from a
// private copy that has passed every test, never from the live block.
//
// A request is answered done, and the live block's marks cleared, only
// once the copy is on disk: held in a write buffer it would die with the
// daemon, while the engine took the block for clean and a later committed
// timestamp would stand for it. So a request's bytes go straight to the
// file, and into every buffer holding the range, which so stays right for
// the readers; a buffer is never written out whole for one block.
//
// The peer keeps changing the live block, or gives its cache block to
// another block, while the request waits. So the live block is read only
// through volatile fields, fenced around the copy, and the request counts
// as lapsed whenever the live block no longer is what it names.
#include "TalvorFileStorage.h"

#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorTrace.h"

#include <cstring>

namespace {

bool IsTableFile(LPFILEINFO p) { return (BYTE)p->m_bFileType == FILETYPE_TABLE; }

// The live block still holds the block the request names.
bool LiveFits(LPBASEBLOCKHEAD lpLive, const stu_CacheFlush* p)
{
    return lpLive->m_nBlockNo == p->m_nBlockNo && lpLive->m_bFileNo == p->m_bFileNo &&
           lpLive->m_nDataFlag == BLOCK_DATAFLAG;
}

} // namespace

LPBYTE CTalvorFileStorage::CacheAddress(long long llOffset, int nSize) const
{
    CTalvorCacheStorage* pCache = m_pTalvorCacheStorage;
    if (pCache == nullptr || pCache->m_pCacheBufferAddr == nullptr || nSize <= 0) return nullptr;
    // The block area starts behind the two head blocks; offsets come from
    // the peer and are bounded before use.
    if (llOffset < (long long)CACHE_HEAD_BLOCKS * CACHE_BLOCK_SIZE || llOffset > pCache->m_llCacheBufferSize - nSize)
        return nullptr;
    return pCache->m_pCacheBufferAddr + llOffset;
}

int CTalvorFileStorage::WriteThrough(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf,
                                     int nSize)
{
    if (nSize < 1 || lpBuf == nullptr || llPos < 0) return 1;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    return WriteDirect(llPos, lpBuf, nSize);
}

BOOL CTalvorFileStorage::InsideFile(long long llOffset, int nSize) const
{
    return llOffset >= 0 && nSize > 0 && llOffset + nSize <= m_pFileInfo->m_liFileSize ? TRUE : FALSE;
}

int CTalvorFileStorage::FlushBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* pCacheFlush,
                                   LPBYTE lpBuffer)
{
    if (m_pFileInfo == nullptr || pCacheFlush == nullptr || lpBuffer == nullptr) return 1;
    stu_CacheFlush* p = pCacheFlush;
    if (p->m_bFileNo != m_pFileInfo->m_bFileNo) {
        Trace("FlushBlock", 1, 80005001,
              TALVOR_TEXT("文件号不正确,文件处理号:%d,刷新块文件号:%d",
                          "Incorrect file number, file processing number: %d, flush block file number: %d"),
              (int)m_pFileInfo->m_bFileNo, (int)p->m_bFileNo);
        return 1;
    }
    BYTE bType = p->m_bBlockType;
    if (bType != CACHEFLUSH_HEAD && bType != CACHEFLUSH_EXHEAD && bType != CACHEFLUSH_MAP && bType != CACHEFLUSH_DATA)
        return 0;
    int nSize = p->m_nBlockSize;
    long long llCacheOffset = p->m_llCacheBlockOffset;
    LPBYTE lpSource = nSize >= (int)sizeof(BASEBLOCKHEAD) && nSize % DB_IO_ALIGN == 0
                          ? CacheAddress(llCacheOffset, nSize)
                          : nullptr;
    if (lpSource == nullptr) {
        Trace("FlushBlock", 1, 80005021,
              TALVOR_TEXT("刷新请求的缓存位置或大小超出缓存,拒绝写入磁盘,路径:%s,缓存位置:%lld,大小:%d,类型:%d",
                          "The cache location or size of a flush request lies outside the cache, write to disk refused, path: %s, cache location: %lld, size: %d, type: %d"),
              Path(), llCacheOffset, nSize, (int)bType);
        return 1;
    }
    if (bType == CACHEFLUSH_DATA) return FlushDataBlock(lpCritSection, p, lpSource, lpBuffer, nSize);
    return FlushHeadOrMap(lpCritSection, p, lpSource, lpBuffer, nSize);
}

BOOL CTalvorFileStorage::HeadCopyPasses(const stu_CacheFlush* p, LPBYTE lpCopy, long long& llTarget)
{
    BOOL bTable = IsTableFile(m_pFileInfo);
    BYTE bType = p->m_bBlockType;
    int nMark = *(const int*)lpCopy;
    if (bType == CACHEFLUSH_HEAD) {
        LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)lpCopy;
        llTarget = 0;
        if (bTable && (nMark != TABLEFILE_DATAFLAG || lpHead->m_bFileType != FILETYPE_TABLE)) {
            Trace("FlushBlock", 1, 80005002,
                  TALVOR_TEXT("刷新文件头时文件头标识不正确,拒绝写入磁盘,文件路径:%s,校验:%d[%d][%d],文件类型:%d[%d],文件号:%d[%d][%d]",
                              "Head id is incorrect when flushing header and was denied to be written to disk, file path: %s, checksum: %d[%d][%d], file type: %d[%d], file number: %d[%d][%d]"),
                  Path(), nMark, TABLEFILE_DATAFLAG, (int)p->m_bBlockType, (int)lpHead->m_bFileType,
                  (int)FILETYPE_TABLE, (int)lpHead->m_bFileNo, (int)p->m_bFileNo, (int)m_pFileInfo->m_bFileNo);
            return FALSE;
        }
        if (!bTable && (nMark != INDEXFILE_DATAFLAG || lpHead->m_bFileType != FILETYPE_INDEX)) {
            Trace("FlushBlock", 1, 80005003,
                  TALVOR_TEXT("刷新文件头时文件头标识不正确,拒绝写入磁盘,文件路径:%s,校验:%d[%d]",
                              "Header id is incorrect when flushing header and was denied to be written to disk, file path: %s, checksum: %d[%d]"),
                  Path(), nMark, INDEXFILE_DATAFLAG);
            return FALSE;
        }
        return TRUE;
    }
    llTarget = p->m_llFileBlockOffset;
    if (bType == CACHEFLUSH_EXHEAD) {
        LPTABLEFILEHEADEX lpEx = (LPTABLEFILEHEADEX)lpCopy;
        if (bTable && nMark != TABLEFILEEX_DATAFLAG) {
            Trace("FlushBlock", 1, 80005102,
                  TALVOR_TEXT("刷新文件头时文件头标识不正确,拒绝写入磁盘,文件路径:%s,校验:%d[%d][%d],文件类型:%d[%d],文件号:%d[%d][%d]",
                              "Header id is incorrect when flushing header and was denied to be written to disk, file path: %s, checksum: %d[%d][%d], file type: %d[%d], file number: %d[%d][%d]"),
                  Path(), nMark, TABLEFILEEX_DATAFLAG, (int)p->m_bBlockType, (int)lpEx->m_bFileType,
                  (int)FILETYPE_TABLE, (int)lpEx->m_bFileNo, (int)p->m_bFileNo, (int)m_pFileInfo->m_bFileNo);
            return FALSE;
        }
        if (!bTable && nMark != INDEXFILEEX_DATAFLAG) {
            Trace("FlushBlock", 1, 80005103,
                  TALVOR_TEXT("刷新文件头时文件头标识不正确,拒绝写入磁盘,文件路径:%s,校验:%d[%d]",
                              "Header id is incorrect when flushing header and was denied to be written to disk, file path: %s, checksum: %d[%d]"),
                  Path(), nMark, INDEXFILEEX_DATAFLAG);
            return FALSE;
        }
        // An extended head never lies over the head page.
        return llTarget >= CACHE_PAGE_SIZE ? TRUE : FALSE;
    }
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)lpCopy;
    if (nMark != BLOCKMAP_CACHE_DATAFLAG) {
        Trace("FlushBlock", 1, 80005004,
              TALVOR_TEXT("刷新文件MAP信息时缓存MAP头标识不正确,拒绝写入磁盘,文件路径:%s,校验:%d[%d],缓存偏移:%lld",
                          "Cache MAP header flag is incorrect when flushing file MAP information and was denied to be written to disk, file path: %s, checksum: %d[%d], cache offset: %lld"),
              Path(), nMark, BLOCKMAP_CACHE_DATAFLAG, (long long)p->m_llCacheBlockOffset);
        return FALSE;
    }
    int nMapNo = lpMap->m_nMapNo;
    if ((int)p->m_nBlockNo != nMapNo) {
        Trace("FlushBlock", 1, 80005007,
              TALVOR_TEXT("刷新块号失败,路径:%s,物理位置:%lld,缓存位置:%lld,缓存大小:%d,文件号:%d,块号:%d(%d)",
                          "Failed to flush block number, path: %s, physical location: %lld, cache location: %lld, cache size: %d, file number: %d, block number: %d(%d)"),
              Path(), llTarget, (long long)p->m_llCacheBlockOffset, (int)p->m_nBlockSize, (int)p->m_bFileNo,
              (int)p->m_nBlockNo, nMapNo);
        return FALSE;
    }
    if (!InsideFile(llTarget, p->m_nBlockSize)) {
        Trace("FlushBlock", 1, 80005005,
              TALVOR_TEXT("刷新块大小失败,路径:%s,物理位置:%lld,缓存位置:%lld,缓存大小:%d,文件号:%d,块号:%d",
                          "Failed to flush block size, path: %s, physical location: %lld, cache location: %lld, cache size: %d, file number: %d, block number: %d"),
              Path(), llTarget, (long long)p->m_llCacheBlockOffset, (int)p->m_nBlockSize, (int)p->m_bFileNo,
              (int)p->m_nBlockNo);
        return FALSE;
    }
    return TRUE;
}

int CTalvorFileStorage::FlushHeadOrMap(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPBYTE lpSource,
                                       LPBYTE lpBuffer, int nSize)
{
    TalvorFlushCPU4Read();
    memcpy(lpBuffer, lpSource, (size_t)nSize);
    TalvorFlushCPU4Read();
    long long llTarget = 0;
    if (!HeadCopyPasses(p, lpBuffer, llTarget)) return 1;
    if (!InsideFile(llTarget, nSize)) {
        Trace("FlushBlock", 1, 80005023,
              TALVOR_TEXT("刷新请求的文件位置超出文件,拒绝写入磁盘,路径:%s,文件位置:%lld,大小:%d,文件大小:%lld",
                          "The file location of a flush request lies outside the file, write to disk refused, path: %s, file location: %lld, size: %d, file size: %lld"),
              Path(), llTarget, nSize, m_pFileInfo->m_liFileSize);
        return 1;
    }
    return WriteThrough(lpCritSection, llTarget, lpBuffer, nSize);
}

BOOL CTalvorFileStorage::DataCopyPasses(const stu_CacheFlush* p, LPBASEBLOCKHEAD lpCopy, LPBASEBLOCKHEAD lpLive,
                                        int nSize)
{
    if (lpCopy->m_nBlockNo == p->m_nBlockNo && lpCopy->m_bFileNo == p->m_bFileNo && lpCopy->m_nBlockSize == nSize &&
        lpCopy->m_nDataFlag == BLOCK_DATAFLAG)
        return TRUE;
    if (IsTableFile(m_pFileInfo)) {
        Trace("FlushBlock", 1, 80005010,
              TALVOR_TEXT("数据不正确,拒绝写入,文件号:%d(%d),块号:%d(%d),块大小:%d(%d),保存标志:%d(%d),时间戳:%lld(%lld)",
                          "Data is incorrect data and was refused to be written, file number: %d(%d), block number: %d(%d), block size: %d(%d), save flag: %d(%d), timestamp: %lld(%lld)"),
              (int)lpCopy->m_bFileNo, (int)p->m_bFileNo, (int)lpCopy->m_nBlockNo, (int)p->m_nBlockNo,
              lpCopy->m_nBlockSize, nSize, (int)lpCopy->m_bSaveFlag, (int)lpLive->m_bSaveFlag,
              (long long)lpCopy->m_nTimestamp, (long long)p->m_llTimestamp);
    } else {
        Trace("FlushBlock", 1, 80005011,
              TALVOR_TEXT("数据不正确,拒绝写入,文件号:%d(%d),块号:%d(%d),块大小:%d(%d)",
                          "Data is incorrect and was refused to be written, file number: %d(%d), block number: %d(%d), block size: %d(%d)"),
              (int)lpCopy->m_bFileNo, (int)p->m_bFileNo, (int)lpCopy->m_nBlockNo, (int)p->m_nBlockNo,
              lpCopy->m_nBlockSize, nSize);
    }
    return FALSE;
}

int CTalvorFileStorage::FlushDataBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* p, LPBYTE lpLiveBytes,
                                       LPBYTE lpBuffer, int nSize)
{
    if (p->m_nBlockNo == 0) {
        Trace("FlushBlock", 1, 80005006,
              TALVOR_TEXT("刷新文件块信息失败,块号为0,拒绝写入磁盘,文件路径:%s",
                          "Failed to flush file block information, block number 0, write to disk rejected, file path: %s"),
              Path());
        return 1;
    }
    BYTE bFileType = (BYTE)m_pFileInfo->m_bFileType;
    if (bFileType != FILETYPE_TABLE && bFileType != FILETYPE_INDEX) {
        Trace("FlushBlock", 1, 80005020,
              TALVOR_TEXT("保存的文件头类型(%d)不正确", "File header type (%d) saved is incorrect"), (int)bFileType);
        return 1;
    }
    long long llTarget = p->m_llFileBlockOffset;
    if (!InsideFile(llTarget, nSize) || llTarget < CACHE_PAGE_SIZE) {
        Trace("FlushBlock", 1, 80005022,
              TALVOR_TEXT("刷新请求的文件位置超出文件,拒绝写入磁盘,路径:%s,文件位置:%lld,大小:%d,文件大小:%lld",
                          "The file location of a flush request lies outside the file, write to disk refused, path: %s, file location: %lld, size: %d, file size: %lld"),
              Path(), llTarget, nSize, m_pFileInfo->m_liFileSize);
        return 1;
    }
    LPBASEBLOCKHEAD lpLive = (LPBASEBLOCKHEAD)lpLiveBytes;
    LPBASEBLOCKHEAD lpCopy = (LPBASEBLOCKHEAD)lpBuffer;
    TalvorFlushCPU4Read();
    memcpy(lpBuffer, lpLiveBytes, (size_t)nSize);
    TalvorFlushCPU4Read();
    if (p->m_llTimestamp == 0 || !LiveFits(lpLive, p) || (lpLive->m_bSaveFlag == 0 && lpLive->m_bFlushFlag == 0))
        return 0;
    BOOL bTable = bFileType == FILETYPE_TABLE;
    long long llRequest = p->m_llTimestamp;
    BOOL bNewer = bTable && (llRequest < lpLive->m_nTimestamp || llRequest < p->m_llTransTimestamp);
    if (!DataCopyPasses(p, lpCopy, lpLive, nSize)) return 1;
    lpCopy->m_bSaveFlag = 0;
    lpCopy->m_bFlushFlag = 0;
    lpCopy->m_nLockTimestamp = 0;
    lpCopy->m_bStatus = 0;
    lpCopy->m_bThreadNum = 0;
    int nRet = WriteThrough(lpCritSection, llTarget, lpBuffer, nSize);
    if (g_nWriteBlockLog)
        Trace("FlushBlock", 1, 0, "Write table block(Ret:%d), FileNo:%d(%d), BlockNo:%d(%d), DataFlag:%d, File offset:%lld",
              nRet, (int)p->m_bFileNo, (int)lpCopy->m_bFileNo, (int)p->m_nBlockNo, (int)lpCopy->m_nBlockNo,
              (int)lpCopy->m_nDataFlag, llTarget);
    if (p->m_llTimestamp == 0) return nRet;
    return AfterDataWrite(p, lpLive, nRet, bNewer);
}

int CTalvorFileStorage::AfterDataWrite(const stu_CacheFlush* p, LPBASEBLOCKHEAD lpLive, int nRet, BOOL bNewer)
{
    BOOL bTable = IsTableFile(m_pFileInfo);
    if (nRet != 0) {
        TalvorFlushCPU4Read();
        if (LiveFits(lpLive, p)) {
            // The change is not on disk: the block must stay to be written.
            TalvorFlushCPU4Write();
            lpLive->m_bSaveFlag = 1;
            lpLive->m_bFlushFlag = 0;
            TalvorFlushCPU4Write();
            return 1;
        }
        if (bTable)
            Trace("FlushBlock", 1, 80005008,
                  TALVOR_TEXT("写数据块失败,且原数据块已被覆盖,文件号:%d(%d),块号:%d(%d),块大小:%d(%d)",
                              "Failed to write data block, and the original data block has been overwritten, file number: %d(%d), block number: %d(%d), block size: %d(%d)"),
                  (int)lpLive->m_bFileNo, (int)p->m_bFileNo, (int)lpLive->m_nBlockNo, (int)p->m_nBlockNo,
                  lpLive->m_nBlockSize, (int)p->m_nBlockSize);
        else
            Trace("FlushBlock", 1, 80005012,
                  TALVOR_TEXT("写索引块失败,且原数据块已被覆盖,文件号:%d(%d),块号:%d(%d),块大小:%d(%d)",
                              "Failed to write index block, and the original data block has been overwritten, file number: %d(%d), block number: %d(%d), block size: %d(%d)"),
                  (int)lpLive->m_bFileNo, (int)p->m_bFileNo, (int)lpLive->m_nBlockNo, (int)p->m_nBlockNo,
                  lpLive->m_nBlockSize, (int)p->m_nBlockSize);
        return 1;
    }
    if (bTable && bNewer) return 0;
    TalvorFlushCPU4Read();
    BYTE bFlushCode = p->m_bFlushCode;
    if (lpLive->m_nTimestamp == p->m_llTransTimestamp && lpLive->m_bFlushCode == bFlushCode && LiveFits(lpLive, p)) {
        TalvorFlushCPU4Write();
        lpLive->m_bFlushFlag = 0;
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        // The peer marked the block again while the flag was being cleared.
        if (lpLive->m_bFlushCode != bFlushCode) lpLive->m_bFlushFlag = 1;
        TalvorFlushCPU4Write();
    }
    return 0;
}
