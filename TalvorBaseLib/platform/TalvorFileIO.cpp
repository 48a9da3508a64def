// TalvorFileIO.cpp — the plain POSIX layer, the whole-transfer helpers and
// the append file.
#include "TalvorFileIO.h"

#include <cerrno>
#include <sys/file.h>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

namespace {

CTalvorFileIO g_PlainFileIO;
CTalvorFileIO* volatile g_pFileIO = &g_PlainFileIO;

// glibc's stdio buffer for a regular file: the trace writer, which used
// stdio, makes as many writes as before.
const size_t APPEND_BUFFER_SIZE = 8192;
const mode_t APPEND_FILE_MODE = 0666;
// A formatted piece that fits here is formatted once; a longer one is
// measured first and formatted into the heap.
const size_t FORMAT_STACK_SIZE = 1024;

} // namespace

int CTalvorFileIO::Open(const char* lpPath, int nFlags, mode_t nMode) { return open(lpPath, nFlags, nMode); }

ssize_t CTalvorFileIO::PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset) { return pread(fd, lpBuf, nSize, nOffset); }

ssize_t CTalvorFileIO::PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset)
{
    return pwrite(fd, lpBuf, nSize, nOffset);
}

int CTalvorFileIO::FSync(int fd) { return fsync(fd); }

int CTalvorFileIO::FDataSync(int fd) { return fdatasync(fd); }

int CTalvorFileIO::FTruncate(int fd, off_t nSize) { return ftruncate(fd, nSize); }
int CTalvorFileIO::Fallocate(int fd, off_t nOffset, off_t nLength) { return fallocate(fd, 0, nOffset, nLength); }

int CTalvorFileIO::Close(int fd) { return close(fd); }

int CTalvorFileIO::Flock(int fd, int nOperation) { return flock(fd, nOperation); }
int CTalvorFileIO::Rename(const char* lpFrom, const char* lpTo) { return rename(lpFrom, lpTo); }

int CTalvorFileIO::Unlink(const char* lpPath) { return unlink(lpPath); }

int CTalvorFileIO::MkDir(const char* lpPath, mode_t nMode) { return mkdir(lpPath, nMode); }

int CTalvorFileIO::SyncDirectory(const char* lpDir)
{
    int fd = open(lpDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = fsync(fd);
    int nErr = errno;
    close(fd);
    errno = nErr;
    return rc;
}

int CTalvorFileIO::Stat(const char* lpPath, struct stat* pStat) { return stat(lpPath, pStat); }

int CTalvorFileIO::FStat(int fd, struct stat* pStat) { return fstat(fd, pStat); }

off_t CTalvorFileIO::LSeek(int fd, off_t nOffset, int nWhence) { return lseek(fd, nOffset, nWhence); }

int CTalvorFileIO::Chmod(const char* lpPath, mode_t nMode) { return chmod(lpPath, nMode); }

int CTalvorFileIO::FChmod(int fd, mode_t nMode) { return fchmod(fd, nMode); }

DIR* CTalvorFileIO::OpenDir(const char* lpPath) { return opendir(lpPath); }

int CTalvorFileIO::CloseDir(DIR* pDir) { return closedir(pDir); }

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

BOOL TalvorPathExists(const char* lpPath)
{
    struct stat st;
    return lpPath != nullptr && CTalvorFileIO::Current()->Stat(lpPath, &st) == 0;
}

int TalvorSyncParentDirectory(const char* lpPath)
{
    char szDir[PATH_MAX];
    const char* lpSlash = strrchr(lpPath, '/');
    if (lpSlash == nullptr) {
        strcpy(szDir, ".");
    } else {
        // "/name" lives in "/", not in "".
        size_t n = lpSlash == lpPath ? 1 : (size_t)(lpSlash - lpPath);
        if (n >= sizeof(szDir)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(szDir, lpPath, n);
        szDir[n] = 0;
    }
    return CTalvorFileIO::Current()->SyncDirectory(szDir);
}

// ============================================================ append file

CTalvorAppendFile::CTalvorAppendFile(int fd, char* lpBuffer)
    : m_fd(fd), m_lpBuffer(lpBuffer), m_nBuffered(0), m_nFilePos(0)
{
}

CTalvorAppendFile::~CTalvorAppendFile() { free(m_lpBuffer); }

CTalvorAppendFile* CTalvorAppendFile::Create(const char* lpPath)
{
    int fd = CTalvorFileIO::Current()->Open(lpPath, O_RDWR | O_CREAT | O_TRUNC, APPEND_FILE_MODE);
    if (fd < 0) return nullptr;
    char* lpBuffer = (char*)malloc(APPEND_BUFFER_SIZE);
    CTalvorAppendFile* pFile = new (std::nothrow) CTalvorAppendFile(fd, lpBuffer);
    if (pFile == nullptr) {
        free(lpBuffer);
        CTalvorFileIO::Current()->Close(fd);
        errno = ENOMEM;
    }
    return pFile;
}

BOOL CTalvorAppendFile::Close(CTalvorAppendFile* pFile)
{
    if (pFile == nullptr) return TRUE;
    BOOL bOk = pFile->Flush();
    if (CTalvorFileIO::Current()->Close(pFile->m_fd) != 0) bOk = FALSE;
    delete pFile;
    return bOk;
}

void CTalvorAppendFile::Abandon(CTalvorAppendFile* pFile)
{
    if (pFile == nullptr) return;
    CTalvorFileIO::Current()->Close(pFile->m_fd);
    delete pFile;
}

BOOL CTalvorAppendFile::Flush()
{
    if (m_nBuffered == 0) return TRUE;
    size_t nBuffered = m_nBuffered;
    // What could not be written is dropped, as stdio drops it: a later
    // piece must not land at the place of the lost one.
    m_nBuffered = 0;
    BOOL bOk = TalvorWriteFull(m_fd, m_lpBuffer, nBuffered, (off_t)m_nFilePos);
    m_nFilePos += (long long)nBuffered;
    return bOk;
}

BOOL CTalvorAppendFile::Append(const void* lpData, size_t nLen)
{
    if (nLen == 0) return TRUE;
    if (m_lpBuffer != nullptr && m_nBuffered + nLen <= APPEND_BUFFER_SIZE) {
        memcpy(m_lpBuffer + m_nBuffered, lpData, nLen);
        m_nBuffered += nLen;
        if (m_nBuffered == APPEND_BUFFER_SIZE) return Flush();
        return TRUE;
    }
    // A piece that does not fit goes straight to the file after what is
    // buffered, so the order of the bytes holds.
    BOOL bOk = Flush();
    if (m_lpBuffer != nullptr && nLen < APPEND_BUFFER_SIZE) {
        memcpy(m_lpBuffer, lpData, nLen);
        m_nBuffered = nLen;
        return bOk;
    }
    if (!TalvorWriteFull(m_fd, lpData, nLen, (off_t)m_nFilePos)) bOk = FALSE;
    m_nFilePos += (long long)nLen;
    return bOk;
}

BOOL CTalvorAppendFile::AppendText(const char* lpText) { return Append(lpText, strlen(lpText)); }

BOOL CTalvorAppendFile::AppendFormat(const char* lpFormat, ...)
{
    char szStack[FORMAT_STACK_SIZE];
    va_list args;
    va_start(args, lpFormat);
    int nLen = vsnprintf(szStack, sizeof(szStack), lpFormat, args);
    va_end(args);
    if (nLen < 0) return FALSE;
    if ((size_t)nLen < sizeof(szStack)) return Append(szStack, (size_t)nLen);
    char* lpHeap = (char*)malloc((size_t)nLen + 1);
    if (lpHeap == nullptr) return FALSE;
    va_start(args, lpFormat);
    vsnprintf(lpHeap, (size_t)nLen + 1, lpFormat, args);
    va_end(args);
    BOOL bOk = Append(lpHeap, (size_t)nLen);
    free(lpHeap);
    return bOk;
}
