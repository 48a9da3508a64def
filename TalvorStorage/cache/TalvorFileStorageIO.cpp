// TalvorFileStorageIO.cpp — reading and writing bytes of a cache-mode file
// through its write buffers or straight on the file, and loading one block.
#include "TalvorFileStorage.h"

#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstring>

namespace {

int PartOf(int nBufPos) { return nBufPos / FILESTORE_PART_SIZE; }
int PartEnd(int nBufEnd) { return (nBufEnd + FILESTORE_PART_SIZE - 1) / FILESTORE_PART_SIZE; }

} // namespace

BOOL CTalvorFileStorage::WriteTries(int fd, const BYTE* lpBuf, int nSize, long long llPos, int& nErr,
                                    long long& nDone)
{
    nErr = 0;
    nDone = -1;
    for (int nTry = 0; nTry < FILESTORE_IO_TRIES; nTry++) {
        // Each try writes the whole range again: a short write counts as a
        // failure, and the place is fixed, so a repeat is harmless.
        ssize_t n;
        do {
            n = CTalvorFileIO::Current()->PWrite(fd, lpBuf, (size_t)nSize, (off_t)llPos);
        } while (n < 0 && errno == EINTR);
        nDone = n;
        if (n == (ssize_t)nSize) return TRUE;
        nErr = n < 0 ? errno : EIO;
    }
    return FALSE;
}

BOOL CTalvorFileStorage::ReadTries(int fd, LPBYTE lpBuf, int nSize, long long llPos, int& nErr, long long& nDone)
{
    nErr = 0;
    nDone = -1;
    for (int nTry = 0; nTry < FILESTORE_IO_TRIES; nTry++) {
        long long nGot = 0;
        BOOL bEnd = FALSE;
        while (nGot < nSize) {
            ssize_t n = CTalvorFileIO::Current()->PRead(fd, lpBuf + nGot, (size_t)(nSize - nGot), (off_t)(llPos + nGot));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                bEnd = n == 0;
                nErr = n < 0 ? errno : 0;
                break;
            }
            nGot += n;
        }
        nDone = nGot;
        if (nGot == nSize) return TRUE;
        if (bEnd && nGot > 0) {
            // Past the end of the file there is nothing: no stale bytes.
            memset(lpBuf + nGot, 0, (size_t)(nSize - nGot));
            return TRUE;
        }
        if (nErr == 0) nErr = EIO;
    }
    return FALSE;
}

int CTalvorFileStorage::WriteDirect(long long llPos, const BYTE* lpBuf, int nSize)
{
    int nErr = 0;
    long long nDone = 0;
    if (!WriteTries(Fd(), lpBuf, nSize, llPos, nErr, nDone)) {
        Trace("WriteBlock", 1, 80004002,
              TALVOR_TEXT("从缓存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                          "Failed to write from cache to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
              strerror(nErr), nErr, Path(), llPos, nSize);
        return 1;
    }
    CopyIntoOverlapping(llPos, lpBuf, nSize);
    return 0;
}

int CTalvorFileStorage::ReadDirect(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize)
{
    if (m_bBuffered) {
        // Changes held in a buffer of the range go out first, or the read
        // would give the disk's older bytes.
        CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
        if (WriteOutOverlapping(llPos, nSize, "ReadBlock") != 0) return 1;
    }
    int nErr = 0;
    long long nDone = 0;
    if (!ReadTries(Fd2(), lpBuf, nSize, llPos, nErr, nDone)) {
        Trace("ReadBlock", 1, 80003010,
              TALVOR_TEXT("读取文件数据块大小不正确,错误:%s(%d),路径:%s,读取大小:%d,实际返回大小:%d,文件偏移:%lld",
                          "Read file data block size is incorrect, error: %s(%d), path: %s, read size: %d, actual return size: %d, file offset: %lld"),
              strerror(nErr), nErr, Path(), nSize, (int)nDone, llPos);
        return 1;
    }
    return 0;
}

BOOL CTalvorFileStorage::CanTakePartsWrite(const stu_Cache_Buffer* p, int nBufPos, int nSize) const
{
    int nEnd = nBufPos + nSize;
    int nFirst = PartOf(nBufPos), nLast = PartEnd(nEnd) - 1;
    if (nBufPos % FILESTORE_PART_SIZE != 0 && p->m_bDataFlag[nFirst] == FILEPART_UNREAD) return FALSE;
    if (nEnd % FILESTORE_PART_SIZE != 0 && p->m_bDataFlag[nLast] == FILEPART_UNREAD) return FALSE;
    return TRUE;
}

int CTalvorFileStorage::WriteIntoBuffer(stu_Cache_Buffer* p, int nBufPos, const BYTE* lpBuf, int nSize)
{
    memcpy(p->m_lpBuffer + nBufPos, lpBuf, (size_t)nSize);
    int nEnd = nBufPos + nSize;
    if (p->m_nStatus == FILEBUF_WHOLE) {
        p->m_nWriteBegin = nBufPos;
        p->m_nWriteEnd = nEnd;
        p->m_nStatus = FILEBUF_WHOLE_CHANGED;
    } else if (p->m_nStatus == FILEBUF_WHOLE_CHANGED) {
        // The range grows to cover every write, whatever its shape.
        if (nBufPos < p->m_nWriteBegin) p->m_nWriteBegin = nBufPos;
        if (nEnd > p->m_nWriteEnd) p->m_nWriteEnd = nEnd;
    } else {
        memset(p->m_bDataFlag + PartOf(nBufPos), FILEPART_CHANGED, (size_t)(PartEnd(nEnd) - PartOf(nBufPos)));
        p->m_nStatus = FILEBUF_PARTS_CHANGED;
    }
    return 0;
}

int CTalvorFileStorage::WriteBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize)
{
    if (nSize < 1 || lpBuf == nullptr || llPos < 0) return 1;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    if (m_pCacheLRUHead == nullptr) return WriteDirect(llPos, lpBuf, nSize);
    stu_Cache_Buffer* p = nullptr;
    int nBufPos = 0;
    if (GetCacheBuffer(llPos, p, nBufPos) == 0) {
        if (nBufPos + nSize > FILESTORE_BUFFER_SIZE) return WriteDirect(llPos, lpBuf, nSize);
        BOOL bParts = p->m_nStatus == FILEBUF_PARTS || p->m_nStatus == FILEBUF_PARTS_CHANGED;
        if (bParts && !CanTakePartsWrite(p, nBufPos, nSize)) return WriteDirect(llPos, lpBuf, nSize);
        return WriteIntoBuffer(p, nBufPos, lpBuf, nSize);
    }
    // A miss takes a buffer without reading: only whole parts can be held so.
    BOOL bWholeParts = llPos % FILESTORE_PART_SIZE == 0 && nSize % FILESTORE_PART_SIZE == 0;
    if (nSize >= FILESTORE_BUFFER_SIZE || !bWholeParts || AllocCacheBuffer(llPos, nSize, p, nBufPos) != 0)
        return WriteDirect(llPos, lpBuf, nSize);
    p->m_nStatus = FILEBUF_PARTS;
    return WriteIntoBuffer(p, nBufPos, lpBuf, nSize);
}

int CTalvorFileStorage::ReadFromParts(stu_Cache_Buffer* p, int nBufPos, LPBYTE lpBuf, int nSize)
{
    // Every part the range touches counts, so that a read shorter than a
    // part never hands out bytes that were never read.
    int nStart = PartOf(nBufPos), nEnd = PartEnd(nBufPos + nSize);
    int nFirstUnread = -1, nLastUnread = -1;
    for (int i = nStart; i < nEnd; i++) {
        if (p->m_bDataFlag[i] != FILEPART_UNREAD) continue;
        if (nFirstUnread < 0) nFirstUnread = i;
        nLastUnread = i;
    }
    if (nFirstUnread >= 0) {
        if (WriteChangedRuns(p, nStart, nEnd, "ReadBlock", 80003001) != 0) return 1;
        int nFrom = nFirstUnread, nTo = nLastUnread + 1;
        while (nFrom > 0 && p->m_bDataFlag[nFrom - 1] == FILEPART_UNREAD) nFrom--;
        while (nTo < FILESTORE_PART_NUM && p->m_bDataFlag[nTo] == FILEPART_UNREAD) nTo++;
        int nReadSize = (nTo - nFrom) * FILESTORE_PART_SIZE;
        long long llPos = p->m_nFileBeginPos + (long long)nFrom * FILESTORE_PART_SIZE;
        int nErr = 0;
        long long nDone = 0;
        if (!ReadTries(Fd(), p->m_lpBuffer + nFrom * FILESTORE_PART_SIZE, nReadSize, llPos, nErr, nDone)) {
            Trace("ReadBlock", 1, 80003002,
                  TALVOR_TEXT("读取文件数据块大小不正确,错误:%s(%d),路径:%s,读取大小:%d,实际返回大小:%d,文件偏移:%lld",
                              "Read file data block size is incorrect, error: %s(%d), path: %s, read size: %d, actual return size: %d, file offset: %lld"),
                  strerror(nErr), nErr, Path(), nReadSize, (int)nDone, llPos);
            return 1;
        }
        memset(p->m_bDataFlag + nFrom, FILEPART_ONDISK, (size_t)(nTo - nFrom));
        SettleStatusByFlags(p);
    }
    memcpy(lpBuf, p->m_lpBuffer + nBufPos, (size_t)nSize);
    return 0;
}

int CTalvorFileStorage::ReadMissIntoBuffer(long long llPos, LPBYTE lpBuf, int nSize, BOOL& bServed)
{
    bServed = FALSE;
    stu_Cache_Buffer* p = nullptr;
    int nBufPos = 0;
    if (nSize >= FILESTORE_BUFFER_SIZE || AllocCacheBuffer(llPos, nSize, p, nBufPos) != 0) return 0;
    int nErr = 0;
    long long nDone = 0;
    if (!ReadTries(Fd(), p->m_lpBuffer, FILESTORE_BUFFER_SIZE, p->m_nFileBeginPos, nErr, nDone)) return 0;
    p->m_nStatus = FILEBUF_WHOLE;
    p->m_nWriteBegin = p->m_nWriteEnd = 0;
    memcpy(lpBuf, p->m_lpBuffer + nBufPos, (size_t)nSize);
    bServed = TRUE;
    return 0;
}

int CTalvorFileStorage::ReadBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize)
{
    if (nSize < 1 || lpBuf == nullptr || llPos < 0) return 1;
    if (!m_bBuffered) return ReadDirect(lpCritSection, llPos, lpBuf, nSize);
    {
        CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
        stu_Cache_Buffer* p = nullptr;
        int nBufPos = 0;
        if (GetCacheBuffer(llPos, p, nBufPos) != 0) {
            BOOL bServed = FALSE;
            ReadMissIntoBuffer(llPos, lpBuf, nSize, bServed);
            if (bServed) return 0;
        } else if (nBufPos + nSize <= FILESTORE_BUFFER_SIZE) {
            if (p->m_nStatus == FILEBUF_WHOLE || p->m_nStatus == FILEBUF_WHOLE_CHANGED) {
                memcpy(lpBuf, p->m_lpBuffer + nBufPos, (size_t)nSize);
                return 0;
            }
            return ReadFromParts(p, nBufPos, lpBuf, nSize);
        }
    }
    return ReadDirect(lpCritSection, llPos, lpBuf, nSize);
}

int CTalvorFileStorage::LoadBlock(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, UINT nBlockNo,
                                  long long& llFileBlockOffset, int nBlockSize, LPBYTE lpBuf)
{
    if (m_pFileInfo == nullptr || lpBuf == nullptr) return 1;
    if (bFileNo != m_pFileInfo->m_bFileNo) {
        Trace("LoadBlock", 1, 80002001,
              TALVOR_TEXT("文件号不正确,文件处理号为:%d,加载数据块的文件号为:%d",
                          "File number is incorrect, file processing number is: %d, file number of load data block is: %d"),
              (int)m_pFileInfo->m_bFileNo, (int)bFileNo);
        return 1;
    }
    // The place and size come from a load slot the engine filled: a block
    // that does not lie whole inside the file is refused, never read.
    const BOOL bInside = llFileBlockOffset >= 0 && nBlockSize >= (int)sizeof(BASEBLOCKHEAD) &&
                         nBlockSize <= m_pFileInfo->m_liFileSize - llFileBlockOffset;
    int nRet = bInside ? ReadBlock(lpCritSection, llFileBlockOffset, lpBuf, nBlockSize) : 1;
    LPBASEBLOCKHEAD lpBlock = (LPBASEBLOCKHEAD)lpBuf;
    int nDataFlag = nRet == 0 ? (int)lpBlock->m_nDataFlag : 0;
    UINT nReadNo = nRet == 0 ? (UINT)lpBlock->m_nBlockNo : 0;
    if (nRet != 0 || nDataFlag != BLOCK_DATAFLAG || nReadNo != nBlockNo) {
        Trace("LoadBlock", 1, 80002002,
              TALVOR_TEXT("读取数据块失败(Ret:%d, DataFlag:%d),文件[%s],数据块位置[%d(%d)]:%lld",
                          "Failed to read Block(Ret:%d, DataFlag:%d), file [%s], location of block [%d(%d)] : %lld"),
              nRet, nDataFlag, Path(), (int)nBlockNo, (int)nReadNo, llFileBlockOffset);
        return 1;
    }
    if (lpBlock->m_bThreadNum != 0) lpBlock->m_bThreadNum = 0;
    return 0;
}
