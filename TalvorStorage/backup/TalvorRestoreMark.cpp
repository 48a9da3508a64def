// TalvorRestoreMark.cpp — the durable mark of a restore under way.
#include "TalvorRestoreMark.h"

#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

const char RESTORE_MARK_SUFFIX[] = ".restoring";

} // namespace

BOOL TalvorRestoreMarkPath(const char* lpSystemFile, char* lpOut, size_t nSize)
{
    int n = snprintf(lpOut, nSize, "%s%s", lpSystemFile, RESTORE_MARK_SUFFIX);
    return n > 0 && (size_t)n < nSize ? TRUE : FALSE;
}

BOOL TalvorSetRestoreMark(const char* lpSystemFile)
{
    char szMark[MAX_PATH + sizeof(RESTORE_MARK_SUFFIX)];
    if (!TalvorRestoreMarkPath(lpSystemFile, szMark, sizeof(szMark))) return FALSE;
    MakeDir(szMark);
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    int fd = pIO->Open(szMark, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return FALSE;
    static const char szText[] = "a restore into this database has not finished\n";
    BOOL bDone = TalvorWriteFull(fd, szText, sizeof(szText) - 1, 0) && pIO->FSync(fd) == 0;
    pIO->Close(fd);
    return bDone && TalvorSyncParentDirectory(szMark) == 0 ? TRUE : FALSE;
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
