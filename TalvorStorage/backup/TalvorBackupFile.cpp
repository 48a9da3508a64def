// TalvorBackupFile.cpp — the backup name rule and the backup time stamp.
#include "TalvorBackupFile.h"

#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/time.h>

namespace {

// Seconds from 1601-01-01 to 1970-01-01.
const long long FILETIME_UNIX_EPOCH_SECONDS = 11644473600LL;
const int PROGRESS_TOTAL_CAP = 0x40000000;
const long long PROGRESS_MIB = 1LL << 20;
const size_t TITLE_LONG = 125;
const size_t TITLE_TAIL = 120;

} // namespace

int TalvorBackupDirectory(const char* lpArchiveDesPath, int nPathSize, char* lpDir)
{
    lpDir[0] = '\0';
    if (lpArchiveDesPath == nullptr || nPathSize <= 0) return BACKUPDIR_EMPTY;
    int nLen = 0;
    while (nLen < nPathSize && lpArchiveDesPath[nLen] != '\0' && lpArchiveDesPath[nLen] != ';') nLen++;
    if (nLen == 0) return BACKUPDIR_EMPTY;
    // A cut element would name a directory the operator never gave.
    if (nLen > BACKUP_DIR_MAX) return BACKUPDIR_TOOLONG;
    // A relative one would land under whatever directory the daemon runs in.
    if (lpArchiveDesPath[0] != '/') return BACKUPDIR_RELATIVE;
    const char* lpSep = lpArchiveDesPath[nLen - 1] == '/' ? "" : "/";
    snprintf(lpDir, BACKUP_PATH_MAX, "%.*s%sBackup/", nLen, lpArchiveDesPath, lpSep);
    return BACKUPDIR_OK;
}

int TalvorBackupFilePath(const char* lpArchiveDesPath, int nPathSize, long long nTimestamp, char* lpPath)
{
    char szDir[BACKUP_PATH_MAX];
    int nDir = TalvorBackupDirectory(lpArchiveDesPath, nPathSize, szDir);
    if (nDir != BACKUPDIR_OK) {
        lpPath[0] = '\0';
        return nDir;
    }
    snprintf(lpPath, BACKUP_PATH_MAX, "%.230sTalvorBackup%lld.fbk", szDir, nTimestamp);
    return BACKUPDIR_OK;
}

namespace {

int WriteAndSync(int fd, const BYTE* lpFrom, int nSize, long long nAt)
{
    if (!TalvorWriteFull(fd, lpFrom, (size_t)nSize, (off_t)nAt)) return errno != 0 ? errno : EIO;
    if (CTalvorFileIO::Current()->FSync(fd) != 0) return errno != 0 ? errno : EIO;
    return 0;
}

} // namespace

int TalvorCommitBackupHead(int fd, const BYTE* lpHeadArea, int nHeadSize)
{
    if (nHeadSize > BACKUP_HEAD_SECTOR) {
        int nErr = WriteAndSync(fd, lpHeadArea + BACKUP_HEAD_SECTOR, nHeadSize - BACKUP_HEAD_SECTOR, BACKUP_HEAD_SECTOR);
        if (nErr != 0) return nErr;
    }
    return WriteAndSync(fd, lpHeadArea, nHeadSize < BACKUP_HEAD_SECTOR ? nHeadSize : BACKUP_HEAD_SECTOR, 0);
}

bool TalvorIsBackupName(const char* lpName, const char* lpEnd)
{
    const size_t nLen = strlen(lpName), nPrefix = strlen(BACKUP_FILE_PREFIX), nEnd = strlen(lpEnd);
    return nLen > nPrefix + nEnd && strncmp(lpName, BACKUP_FILE_PREFIX, nPrefix) == 0 &&
           strcmp(lpName + nLen - nEnd, lpEnd) == 0;
}

void TalvorBackupPartPath(const char* lpPath, char* lpPart)
{
    // Directory (228) and name (35) leave the suffix room in BACKUP_PATH_MAX.
    static_assert(BACKUP_DIR_MAX + 8 + 35 + sizeof(BACKUP_PART_SUFFIX) <= BACKUP_PATH_MAX, "room for the part name");
    snprintf(lpPart, BACKUP_PATH_MAX, "%s%s", lpPath, BACKUP_PART_SUFFIX);
}

FILETIME TalvorBackupFileTime(long long nSeconds, long long nMicros)
{
    unsigned long long nTicks =
        ((unsigned long long)(nSeconds + FILETIME_UNIX_EPOCH_SECONDS) * 1000000ULL + (unsigned long long)nMicros) * 10ULL;
    FILETIME ft;
    ft.dwLowDateTime = (DWORD)(nTicks & 0xFFFFFFFFULL);
    ft.dwHighDateTime = (DWORD)(nTicks >> 32);
    return ft;
}

FILETIME TalvorBackupTimeNow()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return TalvorBackupFileTime((long long)tv.tv_sec, (long long)tv.tv_usec);
}

void TalvorBackupShowTitle(LPTALVORPROGRESS lpProgress, const char* lpszPath)
{
    if (lpProgress == nullptr) return;
    memset(lpProgress->m_lpTitle, 0, sizeof(lpProgress->m_lpTitle));
    size_t nLen = strnlen(lpszPath, MAX_PATH);
    const char* lpShown = nLen >= TITLE_LONG ? lpszPath + nLen - TITLE_TAIL : lpszPath;
    memcpy(lpProgress->m_lpTitle, lpShown, strnlen(lpShown, sizeof(lpProgress->m_lpTitle) - 1));
}

void TalvorBackupShowPos(LPTALVORPROGRESS lpProgress, long long nBytes)
{
    if (lpProgress == nullptr) return;
    long long nMiB = nBytes / PROGRESS_MIB;
    lpProgress->m_nPos = (int)(nMiB > PROGRESS_TOTAL_CAP ? PROGRESS_TOTAL_CAP : nMiB);
}

void TalvorBackupShowTotal(LPTALVORPROGRESS lpProgress, long long nBytes)
{
    if (lpProgress == nullptr) return;
    long long nMiB = nBytes / PROGRESS_MIB;
    lpProgress->m_nPos = 0;
    lpProgress->m_nTotal = (int)(nMiB > PROGRESS_TOTAL_CAP ? PROGRESS_TOTAL_CAP : nMiB);
}

void TalvorFillBackupHead(LPBACKUPFILEHEAD lpHead, int nHeadSize, int nFileNum, long long nTimestamp, int nLogNo,
                          int nLogPos, UINT ulLocalIP, USHORT usGuid)
{
    lpHead->m_nVersion = BACKUP_VERSION;
    lpHead->m_nFileFlag = BACKUP_FILEFLAG;
    lpHead->m_nHeadSize = nHeadSize;
    memcpy(lpHead->m_pDataFlag, BACKUP_DATAFLAG, sizeof(lpHead->m_pDataFlag));
    lpHead->m_nTimestamp = nTimestamp;
    lpHead->m_nLogNo = nLogNo;
    lpHead->m_nLogPos = nLogPos;
    lpHead->m_usDataBaseGuid = usGuid;
    lpHead->m_ulHostIP = ulLocalIP;
    lpHead->m_nFileNum = nFileNum;
    FILETIME ft = TalvorBackupTimeNow();
    memcpy(&lpHead->m_ftBackupTime, &ft, sizeof(ft));
}
