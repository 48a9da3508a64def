// TalvorFileStorageBuffers.cpp — the 64 write buffers of a cache-mode file:
// their memory, the hash by span and the use list, eviction, and writing
// their changes out.
#include "TalvorFileStorage.h"

#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <cstring>

void CTalvorFileStorage::AllocateBuffers()
{
    for (int i = 0; i < FILESTORE_BUFFER_NUM; i++) {
        m_arCacheBuffer[i].m_lpBuffer = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(FILESTORE_BUFFER_SIZE);
        if (m_arCacheBuffer[i].m_lpBuffer == nullptr) {
            // Without all of them the object works straight on the file.
            FreeBuffers();
            return;
        }
    }
    for (int i = 0; i < FILESTORE_BUFFER_NUM; i++) {
        m_arCacheBuffer[i].m_pLRUPrev = i > 0 ? &m_arCacheBuffer[i - 1] : nullptr;
        m_arCacheBuffer[i].m_pLRUNext = i + 1 < FILESTORE_BUFFER_NUM ? &m_arCacheBuffer[i + 1] : nullptr;
    }
    m_pCacheLRUHead = &m_arCacheBuffer[0];
    m_pCacheLRUTail = &m_arCacheBuffer[FILESTORE_BUFFER_NUM - 1];
    m_bBuffered = TRUE;
}

void CTalvorFileStorage::FreeBuffers()
{
    for (stu_Cache_Buffer& b : m_arCacheBuffer) {
        free(b.m_lpBuffer);
        b.m_lpBuffer = nullptr;
        b.m_pLRUNext = b.m_pLRUPrev = b.m_pNext = nullptr;
        b.m_nStatus = FILEBUF_EMPTY;
    }
    memset(m_arCacheHash, 0, sizeof(m_arCacheHash));
    m_pCacheLRUHead = m_pCacheLRUTail = nullptr;
    m_bBuffered = FALSE;
}

int CTalvorFileStorage::Bucket(long long llPos)
{
    return (int)((llPos / FILESTORE_BUFFER_SIZE) % FILESTORE_BUFFER_NUM);
}

void CTalvorFileStorage::Unhash(stu_Cache_Buffer* p)
{
    // A buffer never used is in no bucket; its end position is still 0.
    if (p->m_nFileEndPos == 0) return;
    stu_Cache_Buffer** pp = &m_arCacheHash[Bucket(p->m_nFileBeginPos)];
    while (*pp != nullptr && *pp != p) pp = &(*pp)->m_pNext;
    if (*pp == p) *pp = p->m_pNext;
    p->m_pNext = nullptr;
}

void CTalvorFileStorage::MoveToFront(stu_Cache_Buffer* p)
{
    if (p == m_pCacheLRUHead) return;
    if (p->m_pLRUPrev != nullptr) p->m_pLRUPrev->m_pLRUNext = p->m_pLRUNext;
    if (p->m_pLRUNext != nullptr) p->m_pLRUNext->m_pLRUPrev = p->m_pLRUPrev;
    if (p == m_pCacheLRUTail) m_pCacheLRUTail = p->m_pLRUPrev;
    p->m_pLRUPrev = nullptr;
    p->m_pLRUNext = m_pCacheLRUHead;
    if (m_pCacheLRUHead != nullptr) m_pCacheLRUHead->m_pLRUPrev = p;
    m_pCacheLRUHead = p;
    if (m_pCacheLRUTail == nullptr) m_pCacheLRUTail = p;
}

int CTalvorFileStorage::GetCacheBuffer(long long llPos, stu_Cache_Buffer*& pCacheBuffer, int& nBufPos)
{
    pCacheBuffer = nullptr;
    nBufPos = 0;
    if (m_pCacheLRUHead == nullptr || llPos < 0) return -1;
    for (stu_Cache_Buffer* p = m_arCacheHash[Bucket(llPos)]; p != nullptr; p = p->m_pNext) {
        if (p->m_nStatus == FILEBUF_EMPTY || p->m_nFileBeginPos > llPos || p->m_nFileEndPos <= llPos) continue;
        MoveToFront(p);
        pCacheBuffer = p;
        nBufPos = (int)(llPos - p->m_nFileBeginPos);
        return 0;
    }
    return -1;
}

int CTalvorFileStorage::AllocCacheBuffer(long long llPos, int nSize, stu_Cache_Buffer*& pCacheBuffer, int& nBufPos)
{
    pCacheBuffer = nullptr;
    nBufPos = 0;
    if (m_pCacheLRUTail == nullptr || llPos < 0 || nSize < 0) return -1;
    long long llBegin = llPos - llPos % FILESTORE_BUFFER_SIZE;
    if (llPos + nSize > llBegin + FILESTORE_BUFFER_SIZE) return -1;
    stu_Cache_Buffer* p = m_pCacheLRUTail;
    static const WriteOutCodes codes = {"AllocCacheBuffer", 80011002, 80011003};
    if (WriteOutBuffer(p, codes) != 0) return 1;
    p->m_nStatus = FILEBUF_EMPTY;
    memset(p->m_bDataFlag, 0, sizeof(p->m_bDataFlag));
    p->m_nWriteBegin = p->m_nWriteEnd = 0;
    Unhash(p);
    p->m_nFileBeginPos = llBegin;
    p->m_nFileEndPos = llBegin + FILESTORE_BUFFER_SIZE;
    int nBucket = Bucket(llBegin);
    p->m_pNext = m_arCacheHash[nBucket];
    m_arCacheHash[nBucket] = p;
    MoveToFront(p);
    pCacheBuffer = p;
    nBufPos = (int)(llPos - llBegin);
    return 0;
}

int CTalvorFileStorage::WriteChangedRuns(stu_Cache_Buffer* p, int nFrom, int nTo, const char* lpszFunc,
                                         LONG nRunCode)
{
    int nPart = nFrom;
    while (nPart < nTo) {
        if (p->m_bDataFlag[nPart] != FILEPART_CHANGED) {
            nPart++;
            continue;
        }
        int nEnd = nPart;
        while (nEnd < nTo && p->m_bDataFlag[nEnd] == FILEPART_CHANGED) nEnd++;
        int nSize = (nEnd - nPart) * FILESTORE_PART_SIZE;
        long long llPos = p->m_nFileBeginPos + (long long)nPart * FILESTORE_PART_SIZE;
        int nErr = 0;
        long long nDone = 0;
        if (!WriteTries(Fd(), p->m_lpBuffer + nPart * FILESTORE_PART_SIZE, nSize, llPos, nErr, nDone)) {
            Trace(lpszFunc, 1, nRunCode,
                  TALVOR_TEXT("新数据写入磁盘失败,错误:%s(%d),路径:%s,写入大小:%d,实际返回大小:%d,文件偏移:%lld",
                              "Failed to write new data into disk, error: %s(%d), path: %s, write size: %d, actual return size: %d, file offset: %lld"),
                  strerror(nErr), nErr, Path(), nSize, (int)nDone, llPos);
            return 1;
        }
        memset(p->m_bDataFlag + nPart, FILEPART_ONDISK, (size_t)(nEnd - nPart));
        nPart = nEnd;
    }
    return 0;
}

int CTalvorFileStorage::WriteOutBuffer(stu_Cache_Buffer* p, const WriteOutCodes& codes)
{
    if (p->m_nStatus == FILEBUF_PARTS_CHANGED) {
        if (WriteChangedRuns(p, 0, FILESTORE_PART_NUM, codes.lpszFunc, codes.nRunCode) != 0) return 1;
        p->m_nStatus = FILEBUF_PARTS;
        return 0;
    }
    if (p->m_nStatus != FILEBUF_WHOLE_CHANGED) return 0;
    // The whole span is valid, so the range may widen to what direct I/O takes.
    int nBegin = (int)(p->m_nWriteBegin / DB_IO_ALIGN * DB_IO_ALIGN);
    int nEnd = (int)DbAlignUp(p->m_nWriteEnd);
    if (nEnd > FILESTORE_BUFFER_SIZE) nEnd = FILESTORE_BUFFER_SIZE;
    if (nBegin < 0) nBegin = 0;
    long long llPos = p->m_nFileBeginPos + nBegin;
    int nErr = 0;
    long long nDone = 0;
    if (nEnd > nBegin && !WriteTries(Fd(), p->m_lpBuffer + nBegin, nEnd - nBegin, llPos, nErr, nDone)) {
        Trace(codes.lpszFunc, 1, codes.nRangeCode,
              TALVOR_TEXT("从缓存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                          "Failed to write from cache to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
              strerror(nErr), nErr, Path(), llPos, nEnd - nBegin);
        return 1;
    }
    p->m_nStatus = FILEBUF_WHOLE;
    p->m_nWriteBegin = p->m_nWriteEnd = 0;
    return 0;
}

int CTalvorFileStorage::FlushBuffer(LPTALVORCRITICALSECTION lpCritSection)
{
    if (!m_bBuffered) return -1;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    for (stu_Cache_Buffer* p = m_pCacheLRUTail; p != nullptr; p = p->m_pLRUPrev) {
        if (p->m_nStatus != FILEBUF_WHOLE_CHANGED && p->m_nStatus != FILEBUF_PARTS_CHANGED) continue;
        static const WriteOutCodes codes = {"FlushBuffer", 80012002, 80012003};
        return WriteOutBuffer(p, codes);
    }
    return -1;
}

int CTalvorFileStorage::WriteOutOverlapping(long long llPos, int nSize, const char* lpszFunc)
{
    const WriteOutCodes codes = {lpszFunc, 80003003, 80003004};
    for (stu_Cache_Buffer& b : m_arCacheBuffer) {
        if (b.m_nStatus == FILEBUF_EMPTY || b.m_nFileEndPos <= llPos || b.m_nFileBeginPos >= llPos + nSize) continue;
        if (WriteOutBuffer(&b, codes) != 0) return 1;
    }
    return 0;
}

void CTalvorFileStorage::CopyIntoOverlapping(long long llPos, const BYTE* lpBuf, int nSize)
{
    long long llEnd = llPos + nSize;
    for (stu_Cache_Buffer& b : m_arCacheBuffer) {
        if (b.m_nStatus == FILEBUF_EMPTY || b.m_nFileEndPos <= llPos || b.m_nFileBeginPos >= llEnd) continue;
        long long llFrom = llPos > b.m_nFileBeginPos ? llPos : b.m_nFileBeginPos;
        long long llTo = llEnd < b.m_nFileEndPos ? llEnd : b.m_nFileEndPos;
        // Parts never read keep flag 0 and are not served; the others now
        // equal the disk where they were on disk, and stay newer where changed.
        memcpy(b.m_lpBuffer + (llFrom - b.m_nFileBeginPos), lpBuf + (llFrom - llPos), (size_t)(llTo - llFrom));
    }
}

void CTalvorFileStorage::SettleStatusByFlags(stu_Cache_Buffer* p)
{
    int nFirstChanged = -1, nLastChanged = -1;
    BOOL bUnread = FALSE;
    for (int i = 0; i < FILESTORE_PART_NUM; i++) {
        if (p->m_bDataFlag[i] == FILEPART_UNREAD) bUnread = TRUE;
        if (p->m_bDataFlag[i] == FILEPART_CHANGED) {
            if (nFirstChanged < 0) nFirstChanged = i;
            nLastChanged = i;
        }
    }
    if (bUnread) {
        p->m_nStatus = nFirstChanged < 0 ? FILEBUF_PARTS : FILEBUF_PARTS_CHANGED;
        return;
    }
    memset(p->m_bDataFlag, 0, sizeof(p->m_bDataFlag));
    if (nFirstChanged < 0) {
        p->m_nWriteBegin = p->m_nWriteEnd = 0;
        p->m_nStatus = FILEBUF_WHOLE;
        return;
    }
    p->m_nWriteBegin = nFirstChanged * FILESTORE_PART_SIZE;
    p->m_nWriteEnd = (nLastChanged + 1) * FILESTORE_PART_SIZE;
    p->m_nStatus = FILEBUF_WHOLE_CHANGED;
}
