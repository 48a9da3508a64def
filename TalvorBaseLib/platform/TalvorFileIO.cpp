// TalvorFileIO.cpp — the plain POSIX layer and the whole-transfer helpers.
#include "TalvorFileIO.h"

#include <cerrno>
#include <sys/file.h>
#include <unistd.h>

namespace {
CTalvorFileIO g_PlainFileIO;
CTalvorFileIO* volatile g_pFileIO = &g_PlainFileIO;
} // namespace

int CTalvorFileIO::Open(const char* lpPath, int nFlags, mode_t nMode) { return open(lpPath, nFlags, nMode); }

ssize_t CTalvorFileIO::PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset) { return pread(fd, lpBuf, nSize, nOffset); }

ssize_t CTalvorFileIO::PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset)
{
    return pwrite(fd, lpBuf, nSize, nOffset);
}

int CTalvorFileIO::FSync(int fd) { return fsync(fd); }

int CTalvorFileIO::FTruncate(int fd, off_t nSize) { return ftruncate(fd, nSize); }

int CTalvorFileIO::Close(int fd) { return close(fd); }

int CTalvorFileIO::Flock(int fd, int nOperation) { return flock(fd, nOperation); }

CTalvorFileIO* CTalvorFileIO::Current() { return __atomic_load_n(&g_pFileIO, __ATOMIC_ACQUIRE); }

CTalvorFileIO* CTalvorFileIO::Install(CTalvorFileIO* pIO)
{
    return __atomic_exchange_n(&g_pFileIO, pIO ? pIO : &g_PlainFileIO, __ATOMIC_ACQ_REL);
}

BOOL TalvorReadFull(int fd, void* lpBuf, size_t nSize, off_t nOffset)
{
    char* p = (char*)lpBuf;
    while (nSize > 0) {
        ssize_t n = CTalvorFileIO::Current()->PRead(fd, p, nSize, nOffset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return FALSE;
        p += n;
        nSize -= (size_t)n;
        nOffset += n;
    }
    return TRUE;
}

BOOL TalvorWriteFull(int fd, const void* lpBuf, size_t nSize, off_t nOffset)
{
    const char* p = (const char*)lpBuf;
    while (nSize > 0) {
        ssize_t n = CTalvorFileIO::Current()->PWrite(fd, p, nSize, nOffset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return FALSE;
        p += n;
        nSize -= (size_t)n;
        nOffset += n;
    }
    return TRUE;
}
