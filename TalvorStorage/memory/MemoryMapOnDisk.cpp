#include "MemoryMapOnDisk.h"

#include "DbFileLayout.h"
#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"

#include <cstdlib>
#include <cstring>

BOOL CMemoryMapOnDisk::Holds(long long nIndex, long long nOffset, const BYTE* lpBytes, long long nSize) const
{
    if (nIndex < 0 || nIndex >= m_nBlocks || nSize != m_nMapSize) return FALSE;
    const Entry& e = m_pEntries[nIndex];
    return e.m_bSynced && e.m_nOffset == nOffset && memcmp(m_lpBytes + nIndex * m_nMapSize, lpBytes, (size_t)nSize) == 0;
}

void CMemoryMapOnDisk::Written(long long nIndex, long long nOffset, const BYTE* lpBytes, long long nSize)
{
    if (nIndex < 0) return;
    if (nSize != m_nMapSize) Forget();
    if (!Reserve(nIndex + 1, nSize)) {
        // Past the bound, or no memory: this block is written every pass.
        if (nIndex < m_nBlocks) m_pEntries[nIndex].m_nOffset = -1;
        return;
    }
    memcpy(m_lpBytes + nIndex * m_nMapSize, lpBytes, (size_t)nSize);
    m_pEntries[nIndex].m_nOffset = nOffset;
    m_pEntries[nIndex].m_bSynced = FALSE;
}

void CMemoryMapOnDisk::Synced()
{
    for (long long i = 0; i < m_nBlocks; i++) m_pEntries[i].m_bSynced = TRUE;
}

void CMemoryMapOnDisk::Forget()
{
    free(m_pEntries);
    free(m_lpBytes);
    m_pEntries = nullptr;
    m_lpBytes = nullptr;
    m_nBlocks = 0;
    m_nMapSize = 0;
}

BOOL CMemoryMapOnDisk::Reserve(long long nBlocks, long long nSize)
{
    if (nBlocks <= m_nBlocks) return TRUE;
    if (nSize <= 0 || nBlocks > MAPONDISK_MAX_BYTES / nSize) return FALSE;
    long long nWant = nBlocks * 2 <= MAPONDISK_MAX_BYTES / nSize ? nBlocks * 2 : nBlocks;
    Entry* pEntries = (Entry*)realloc(m_pEntries, (size_t)nWant * sizeof(Entry));
    if (pEntries == nullptr) return FALSE;
    m_pEntries = pEntries;
    LPBYTE lpBytes = (LPBYTE)realloc(m_lpBytes, (size_t)(nWant * nSize));
    if (lpBytes == nullptr) return FALSE;
    m_lpBytes = lpBytes;
    for (long long i = m_nBlocks; i < nWant; i++) m_pEntries[i] = Entry{-1, FALSE};
    m_nBlocks = nWant;
    m_nMapSize = nSize;
    return TRUE;
}

BOOL CMemoryMapOnDisk::LearnFromFile(int fd, long long nFirstMap, long long nMapSize, long long nFileSize)
{
    Forget();
    if (nMapSize < (long long)sizeof(BASEFILEBLOCKMAPHEAD) || nMapSize > MAPONDISK_MAX_BYTES) return FALSE;
    if (CTalvorFileIO::Current()->FDataSync(fd) != 0) return FALSE;
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer((int)nMapSize);
    if (lpBuf == nullptr) return FALSE;
    long long nMaxSteps = nFileSize / nMapSize + 1;
    long long nIndex = 0;
    BOOL bWhole = TRUE;
    for (long long nMap = nFirstMap; nMap != 0; nIndex++) {
        if (nIndex >= nMaxSteps || !DbSpanFits(nMap, nMapSize, nFileSize) ||
            !TalvorReadFull(fd, lpBuf, (size_t)nMapSize, (off_t)nMap)) {
            bWhole = FALSE;
            break;
        }
        Written(nIndex, nMap, lpBuf, nMapSize);
        nMap = ((LPBASEFILEBLOCKMAPHEAD)lpBuf)->m_nNextBlockMapOffset;
    }
    free(lpBuf);
    if (!bWhole) {
        Forget();
        return FALSE;
    }
    Synced();
    return TRUE;
}
