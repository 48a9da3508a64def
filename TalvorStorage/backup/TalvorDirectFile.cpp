// TalvorDirectFile.cpp — transfers at any offset and length over direct I/O.
#include "TalvorDirectFile.h"

#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

const int WINDOW_SIZE = 1 << 20;

long long SectorFloor(long long n) { return n / DIRECTFILE_SECTOR * DIRECTFILE_SECTOR; }
long long SectorCeil(long long n) { return (n + DIRECTFILE_SECTOR - 1) / DIRECTFILE_SECTOR * DIRECTFILE_SECTOR; }
bool Aligned(const void* p) { return ((uintptr_t)p % DIRECTFILE_SECTOR) == 0; }

} // namespace

CTalvorDirectFile::CTalvorDirectFile() : m_fd(-1), m_lpWindow(nullptr), m_nLogicalEnd(0), m_bWritten(FALSE) {}

CTalvorDirectFile::~CTalvorDirectFile()
{
    Close();
    free(m_lpWindow);
}

BOOL CTalvorDirectFile::Open(const char* lpPath, int nFlags, BOOL bSync)
{
    Close();
    if (m_lpWindow == nullptr) m_lpWindow = (LPBYTE)get_aligned_buffer(WINDOW_SIZE);
    if (m_lpWindow == nullptr) {
        errno = ENOMEM;
        return FALSE;
    }
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    m_fd = pIO->Open(lpPath, nFlags | O_DIRECT | O_CLOEXEC | (bSync ? O_SYNC : 0), 0666);
    if (m_fd < 0) return FALSE;
    struct stat st;
    if (pIO->FStat(m_fd, &st) != 0) {
        int nErr = errno;
        pIO->Close(m_fd);
        m_fd = -1;
        errno = nErr;
        return FALSE;
    }
    m_nLogicalEnd = (long long)st.st_size;
    m_bWritten = FALSE;
    return TRUE;
}

BOOL CTalvorDirectFile::Close()
{
    if (m_fd < 0) return TRUE;
    BOOL bCut = TRUE;
    if (m_bWritten) bCut = CTalvorFileIO::Current()->FTruncate(m_fd, (off_t)m_nLogicalEnd) == 0;
    CTalvorFileIO::Current()->Close(m_fd);
    m_fd = -1;
    return bCut;
}

BOOL CTalvorDirectFile::ExtendZeroed(long long nSize)
{
    if (nSize <= m_nLogicalEnd) return TRUE;
    if (CTalvorFileIO::Current()->Fallocate(m_fd, (off_t)m_nLogicalEnd, (off_t)(nSize - m_nLogicalEnd)) != 0)
        return FALSE;
    m_nLogicalEnd = nSize;
    m_bWritten = TRUE;
    return TRUE;
}

BOOL CTalvorDirectFile::Finish()
{
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    if (pIO->FTruncate(m_fd, (off_t)m_nLogicalEnd) != 0) return FALSE;
    return pIO->FSync(m_fd) == 0;
}

// One aligned window into m_lpWindow; what lies past the end reads as zero.
BOOL CTalvorDirectFile::ReadWindow(long long nStart, int nLen)
{
    assert(nStart % DIRECTFILE_SECTOR == 0 && nLen % DIRECTFILE_SECTOR == 0 && nLen <= WINDOW_SIZE);
    long long nDone = 0;
    while (nDone < nLen) {
        ssize_t n = CTalvorFileIO::Current()->PRead(m_fd, m_lpWindow + nDone, (size_t)(nLen - nDone), (off_t)(nStart + nDone));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return FALSE;
        if (n == 0) break;
        nDone += n;
        // A short read ends only at the end of the file, which direct I/O
        // reports on a sector boundary or at the file's last byte.
        if (nDone % DIRECTFILE_SECTOR != 0) break;
    }
    memset(m_lpWindow + nDone, 0, (size_t)(nLen - nDone));
    return TRUE;
}

BOOL CTalvorDirectFile::WriteWindow(long long nStart, int nLen)
{
    return TalvorWriteFull(m_fd, m_lpWindow, (size_t)nLen, (off_t)nStart);
}

// Whole sectors straight into an aligned buffer: no window, no copy.
BOOL CTalvorDirectFile::ReadDirect(long long nPos, LPBYTE lpDst, long long nSize)
{
    assert(nPos % DIRECTFILE_SECTOR == 0 && nSize % DIRECTFILE_SECTOR == 0 && Aligned(lpDst));
    long long nDone = 0;
    while (nDone < nSize) {
        ssize_t n = CTalvorFileIO::Current()->PRead(m_fd, lpDst + nDone, (size_t)(nSize - nDone), (off_t)(nPos + nDone));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return FALSE;
        if (n == 0) break;
        nDone += n;
        if (nDone % DIRECTFILE_SECTOR != 0) break;
    }
    memset(lpDst + nDone, 0, (size_t)(nSize - nDone));
    return TRUE;
}

BOOL CTalvorDirectFile::ReadAt(long long nPos, void* lpOut, long long nSize)
{
    LPBYTE lpDst = (LPBYTE)lpOut;
    if (nPos % DIRECTFILE_SECTOR == 0 && Aligned(lpDst) && nSize >= DIRECTFILE_SECTOR) {
        long long nWhole = SectorFloor(nSize);
        if (!ReadDirect(nPos, lpDst, nWhole)) return FALSE;
        lpDst += nWhole;
        nPos += nWhole;
        nSize -= nWhole;
    }
    while (nSize > 0) {
        long long nStart = SectorFloor(nPos);
        long long nEnd = SectorCeil(nPos + nSize);
        if (nEnd - nStart > WINDOW_SIZE) nEnd = nStart + WINDOW_SIZE;
        if (!ReadWindow(nStart, (int)(nEnd - nStart))) return FALSE;
        long long nTake = nEnd - nPos < nSize ? nEnd - nPos : nSize;
        memcpy(lpDst, m_lpWindow + (nPos - nStart), (size_t)nTake);
        lpDst += nTake;
        nPos += nTake;
        nSize -= nTake;
    }
    return TRUE;
}

BOOL CTalvorDirectFile::WriteAt(long long nPos, const void* lpData, long long nSize)
{
    const BYTE* lpSrc = (const BYTE*)lpData;
    m_bWritten = TRUE;
    while (nSize > 0) {
        // Whole sectors from an aligned buffer need no window.
        if (nPos % DIRECTFILE_SECTOR == 0 && Aligned(lpSrc) && nSize >= DIRECTFILE_SECTOR) {
            long long nWhole = SectorFloor(nSize);
            if (!TalvorWriteFull(m_fd, lpSrc, (size_t)nWhole, (off_t)nPos)) return FALSE;
            lpSrc += nWhole;
            nPos += nWhole;
            nSize -= nWhole;
            if (nPos > m_nLogicalEnd) m_nLogicalEnd = nPos;
            continue;
        }
        long long nStart = SectorFloor(nPos);
        long long nEnd = SectorCeil(nPos + nSize);
        if (nEnd - nStart > WINDOW_SIZE) nEnd = nStart + WINDOW_SIZE;
        long long nTake = nEnd - nPos < nSize ? nEnd - nPos : nSize;
        // The sectors at the edges keep the bytes around the new ones.
        BOOL bCovered = nPos == nStart && nPos + nTake == nEnd;
        if (!bCovered && !ReadWindow(nStart, (int)(nEnd - nStart))) return FALSE;
        memcpy(m_lpWindow + (nPos - nStart), lpSrc, (size_t)nTake);
        if (!WriteWindow(nStart, (int)(nEnd - nStart))) return FALSE;
        lpSrc += nTake;
        nPos += nTake;
        nSize -= nTake;
        if (nPos > m_nLogicalEnd) m_nLogicalEnd = nPos;
    }
    return TRUE;
}
