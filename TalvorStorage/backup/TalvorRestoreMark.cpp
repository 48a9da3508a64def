// TalvorRestoreMark.cpp — the durable mark of a restore under way.
#include "TalvorRestoreMark.h"

#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"
#include "TalvorHash.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

const char RESTORE_MARK_SUFFIX[] = ".restoring";
// A new mark is written beside the old one and put in its place whole.
const char RESTORE_MARK_NEW_SUFFIX[] = ".new";
const UINT RESTOREMARK_FLAG = 0x4B4D5254;  // "TRMK"
const UINT RESTOREMARK_VERSION = 1;

// The mark on disk, little-endian. The note makes the file tell an operator
// who looks at it what it is; the sum covers every byte before it.
#pragma pack(push, 1)
typedef struct _RESTOREMARKFILE {
    char m_szNote[48];
    UINT m_nMarkFlag;
    UINT m_nVersion;
    long long m_nTimestamp;
    UINT m_nRedoLogMaxID;
    USHORT m_usDatabaseGuid;
    USHORT m_usReserved;
    char m_lpArchiveDesPath[RESTOREMARK_PATH_SIZE];
    UINT m_nCheckSum;
} RESTOREMARKFILE;
#pragma pack(pop)
static_assert(sizeof(RESTOREMARKFILE) == 588, "restore mark layout");

const char RESTOREMARK_NOTE[] = "a restore into this database has not finished\n";
static_assert(sizeof(RESTOREMARK_NOTE) <= sizeof(((RESTOREMARKFILE*)nullptr)->m_szNote), "note size");

UINT SumOf(const RESTOREMARKFILE& stFile)
{
    return TalvorCRC32(&stFile, (int)offsetof(RESTOREMARKFILE, m_nCheckSum));
}

// Up to nSize bytes from the start of fd; -1 on a failed read.
ssize_t ReadUpTo(int fd, char* lpBuf, size_t nSize)
{
    size_t nDone = 0;
    while (nDone < nSize) {
        ssize_t n = CTalvorFileIO::Current()->PRead(fd, lpBuf + nDone, nSize - nDone, (off_t)nDone);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        nDone += (size_t)n;
    }
    return (ssize_t)nDone;
}

} // namespace

BOOL TalvorRestoreMarkPath(const char* lpSystemFile, char* lpOut, size_t nSize)
{
    int n = snprintf(lpOut, nSize, "%s%s", lpSystemFile, RESTORE_MARK_SUFFIX);
    return n > 0 && (size_t)n < nSize ? TRUE : FALSE;
}

BOOL TalvorSetRestoreMark(const char* lpSystemFile, const TALVORRESTOREMARK& stMark)
{
    char szMark[MAX_PATH + sizeof(RESTORE_MARK_SUFFIX)];
    if (!TalvorRestoreMarkPath(lpSystemFile, szMark, sizeof(szMark))) return FALSE;
    RESTOREMARKFILE stFile;
    memset(&stFile, 0, sizeof(stFile));
    memcpy(stFile.m_szNote, RESTOREMARK_NOTE, sizeof(RESTOREMARK_NOTE) - 1);
    stFile.m_nMarkFlag = RESTOREMARK_FLAG;
    stFile.m_nVersion = RESTOREMARK_VERSION;
    stFile.m_nTimestamp = stMark.m_nTimestamp;
    stFile.m_nRedoLogMaxID = stMark.m_nRedoLogMaxID;
    stFile.m_usDatabaseGuid = stMark.m_usDatabaseGuid;
    memcpy(stFile.m_lpArchiveDesPath, stMark.m_lpArchiveDesPath, sizeof(stFile.m_lpArchiveDesPath));
    stFile.m_nCheckSum = SumOf(stFile);
    char szNew[sizeof(szMark) + sizeof(RESTORE_MARK_NEW_SUFFIX)];
    snprintf(szNew, sizeof(szNew), "%s%s", szMark, RESTORE_MARK_NEW_SUFFIX);
    int nDirErr = 0;
    MakeDir(szMark, &nDirErr);
    if (nDirErr != 0) {
        errno = nDirErr;
        return FALSE;
    }
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    // The mark of a run before stands until the new one is whole on the
    // medium: a write that fails (a full disk) never leaves a torn mark,
    // which no restore could be run again from.
    int fd = pIO->Open(szNew, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return FALSE;
    BOOL bDone = TalvorWriteFull(fd, &stFile, sizeof(stFile), 0) && pIO->FSync(fd) == 0;
    pIO->Close(fd);
    if (bDone) bDone = pIO->Rename(szNew, szMark) == 0;
    if (!bDone) {
        int nErr = errno;
        pIO->Unlink(szNew);
        errno = nErr;
        return FALSE;
    }
    return TalvorSyncParentDirectory(szMark) == 0 ? TRUE : FALSE;
}

int TalvorReadRestoreMark(const char* lpSystemFile, TALVORRESTOREMARK& stMark)
{
    char szMark[MAX_PATH + sizeof(RESTORE_MARK_SUFFIX)];
    if (!TalvorRestoreMarkPath(lpSystemFile, szMark, sizeof(szMark))) return RESTOREMARK_UNREADABLE;
    if (!TalvorPathExists(szMark)) return RESTOREMARK_ABSENT;
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    int fd = pIO->Open(szMark, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return errno == ENOENT ? RESTOREMARK_ABSENT : RESTOREMARK_UNREADABLE;
    // One byte more than a mark has tells a longer file from a mark.
    char arBuf[sizeof(RESTOREMARKFILE) + 1];
    ssize_t nRead = ReadUpTo(fd, arBuf, sizeof(arBuf));
    pIO->Close(fd);
    if (nRead < 0) return RESTOREMARK_UNREADABLE;
    if ((size_t)nRead != sizeof(RESTOREMARKFILE)) return RESTOREMARK_WRONGSIZE;
    RESTOREMARKFILE stFile;
    memcpy(&stFile, arBuf, sizeof(stFile));
    if (stFile.m_nMarkFlag != RESTOREMARK_FLAG || stFile.m_nVersion != RESTOREMARK_VERSION ||
        stFile.m_nCheckSum != SumOf(stFile))
        return RESTOREMARK_DAMAGED;
    memcpy(stMark.m_lpArchiveDesPath, stFile.m_lpArchiveDesPath, sizeof(stMark.m_lpArchiveDesPath));
    stMark.m_nTimestamp = stFile.m_nTimestamp;
    stMark.m_nRedoLogMaxID = stFile.m_nRedoLogMaxID;
    stMark.m_usDatabaseGuid = stFile.m_usDatabaseGuid;
    return RESTOREMARK_READ;
}

BOOL TalvorClearRestoreMark(const char* lpSystemFile)
{
    char szMark[MAX_PATH + sizeof(RESTORE_MARK_SUFFIX)];
    if (!TalvorRestoreMarkPath(lpSystemFile, szMark, sizeof(szMark))) return FALSE;
    if (!TalvorPathExists(szMark)) return TRUE;
    if (CTalvorFileIO::Current()->Unlink(szMark) != 0) return FALSE;
    return TalvorSyncParentDirectory(szMark) == 0 ? TRUE : FALSE;
}

BOOL TalvorRestoreMarkPresent(const char* lpSystemFile)
{
    char szMark[MAX_PATH + sizeof(RESTORE_MARK_SUFFIX)];
    if (!TalvorRestoreMarkPath(lpSystemFile, szMark, sizeof(szMark))) return FALSE;
    return TalvorPathExists(szMark);
}
