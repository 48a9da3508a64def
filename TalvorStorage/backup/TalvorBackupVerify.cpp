// TalvorBackupVerify.cpp — the offline check of a backup file.
#include "TalvorBackupVerify.h"
#include "TalvorBackupVerifyCore.h"

#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

// The part of a copied file's head the marks lie in: common to every type.
const int COPIED_HEAD_SIZE = (int)sizeof(BASEFILEHEAD);

void ResetReport(LPBACKUPVERIFYREPORT pReport)
{
    memset(pReport, 0, sizeof(*pReport));
    pReport->m_nStatus = BACKUPVERIFY_WHOLE;
    pReport->m_nBackupFileSize = -1;
}

int OpenBackup(const char* lpszPath, int* pfd, LPBACKUPVERIFYREPORT pReport)
{
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    int fd = pIO->Open(lpszPath, O_RDONLY, 0);
    if (fd < 0) {
        pReport->m_nOpenErrno = errno;
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_UNREADABLE, "cannot open %s: %s", lpszPath,
                                  strerror(pReport->m_nOpenErrno));
    }
    struct stat st;
    if (pIO->FStat(fd, &st) != 0) {
        int nErr = errno;
        pIO->Close(fd);
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_UNREADABLE, "cannot stat %s: %s", lpszPath, strerror(nErr));
    }
    if (!S_ISREG(st.st_mode)) {
        pIO->Close(fd);
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_UNREADABLE, "%s is not a regular file", lpszPath);
    }
    pReport->m_nBackupFileSize = (long long)st.st_size;
    *pfd = fd;
    return BACKUPVERIFY_WHOLE;
}

void KeepHeadFacts(const BACKUPFILEHEAD& stHead, LPBACKUPVERIFYREPORT pReport)
{
    pReport->m_bHeadKnown = TRUE;
    pReport->m_nTimestamp = stHead.m_nTimestamp;
    pReport->m_nReferTimestamp = stHead.m_nReferTimestamp;
    pReport->m_nLevel = stHead.m_bLevel;
    pReport->m_nLogNo = stHead.m_nLogNo;
    pReport->m_nLogPos = stHead.m_nLogPos;
    pReport->m_nFileNum = stHead.m_nFileNum;
    pReport->m_nHeadSize = stHead.m_nHeadSize;
    pReport->m_usDataBaseGuid = stHead.m_usDataBaseGuid;
    pReport->m_ftBackupTime = stHead.m_ftBackupTime;
}

// The marks of the fixed part: is this a backup file at all?
int CheckHeadMarks(const BACKUPFILEHEAD& stHead, LPBACKUPVERIFYREPORT pReport)
{
    if (stHead.m_nVersion != BACKUP_VERSION)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "version is 0x%X, not 0x%X",
                                  (unsigned)stHead.m_nVersion, (unsigned)BACKUP_VERSION);
    if (stHead.m_nFileFlag != BACKUP_FILEFLAG)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "file flag is 0x%08X, not 0x%08X (\"BKDA\")",
                                  (unsigned)stHead.m_nFileFlag, (unsigned)BACKUP_FILEFLAG);
    if (memcmp(stHead.m_pDataFlag, BACKUP_DATAFLAG, sizeof(stHead.m_pDataFlag)) != 0)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "data flag is not \"%s\"", BACKUP_DATAFLAG);
    return BACKUPVERIFY_WHOLE;
}

// The sizes and level of the fixed part, which every later bound rests on.
int CheckHeadSizes(const BACKUPFILEHEAD& stHead, LPBACKUPVERIFYREPORT pReport)
{
    if (stHead.m_nFileNum < 1 || stHead.m_nFileNum > MAX_FILE_NUM)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "file count %d is outside 1..%d", stHead.m_nFileNum,
                                  MAX_FILE_NUM);
    if (stHead.m_nHeadSize != BackupHeadSize(stHead.m_nFileNum))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "head size %d, but %d files need a head area of %d",
                                  stHead.m_nHeadSize, stHead.m_nFileNum, BackupHeadSize(stHead.m_nFileNum));
    if (stHead.m_bLevel == BACKUPLEVEL_FULL && stHead.m_nReferTimestamp != 0)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD, "a full backup refers to timestamp %lld",
                                  stHead.m_nReferTimestamp);
    // A level above 0 is restored on top of the older backup it names.
    if (stHead.m_bLevel != BACKUPLEVEL_FULL &&
        (stHead.m_nReferTimestamp <= 0 || stHead.m_nReferTimestamp >= stHead.m_nTimestamp))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADHEAD,
                                  "a level %d backup of timestamp %lld refers to timestamp %lld, not an older one",
                                  (int)stHead.m_bLevel, stHead.m_nTimestamp, stHead.m_nReferTimestamp);
    return BACKUPVERIFY_WHOLE;
}

bool IsAllZero(const void* lpData, size_t nSize)
{
    const BYTE* p = (const BYTE*)lpData;
    for (size_t i = 0; i < nSize; i++)
        if (p[i] != 0) return false;
    return true;
}

// Record nIndex names a file a restore can write, of a kind it knows. The
// restore takes the first record for the system file.
int CheckRecordIdentity(const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, bool* arSeen, LPBACKUPVERIFYREPORT pReport)
{
    if (IsAllZero(&stRecord, sizeof(stRecord)))
        return BackupVerifyRefuse(
            pReport, BACKUPVERIFY_UNFINISHED,
            "record %d is empty: the head area was never finished (a place-holder or a torn head)", nIndex + 1);
    if (memchr(stRecord.m_lpszFilePath, '\0', sizeof(stRecord.m_lpszFilePath)) == nullptr)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD, "record %d: the path has no end within %d bytes",
                                  nIndex + 1, (int)sizeof(stRecord.m_lpszFilePath));
    if (stRecord.m_lpszFilePath[0] == '\0')
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD, "record %d: the path is empty", nIndex + 1);
    if (FileHeadDataFlag(stRecord.m_bFileType) == 0)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD, "record %d: unknown file type %d", nIndex + 1,
                                  (int)stRecord.m_bFileType);
    if (stRecord.m_bFileNo == 0)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD, "record %d: file number 0", nIndex + 1);
    if (arSeen[stRecord.m_bFileNo])
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD, "record %d: file number %d appears twice",
                                  nIndex + 1, (int)stRecord.m_bFileNo);
    arSeen[stRecord.m_bFileNo] = true;
    bool bSystem = stRecord.m_bFileType == FILETYPE_SYSTEM || stRecord.m_bFileNo == SYSTEMFILE_FILENO;
    bool bSystemWhole = stRecord.m_bFileType == FILETYPE_SYSTEM && stRecord.m_bFileNo == SYSTEMFILE_FILENO;
    if (nIndex == 0 && !bSystemWhole)
        return BackupVerifyRefuse(
            pReport, BACKUPVERIFY_BADRECORD, "record 1 is file %d of type %d, not the system file (number %d, type %d)",
            (int)stRecord.m_bFileNo, (int)stRecord.m_bFileType, (int)SYSTEMFILE_FILENO, (int)FILETYPE_SYSTEM);
    if (nIndex > 0 && bSystem)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: a second system file (number %d, type %d)", nIndex + 1,
                                  (int)stRecord.m_bFileNo, (int)stRecord.m_bFileType);
    return BACKUPVERIFY_WHOLE;
}

// Sizes of the database file itself.
int CheckRecordSizes(const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, LPBACKUPVERIFYREPORT pReport)
{
    long long nFree = stRecord.m_nFileFreeMemoryOffset;
    long long nSize = stRecord.m_nFileSize;
    int nHeadSize = stRecord.m_nFileHeaderSize;
    if (nFree < 0 || nSize < 0 || nHeadSize < 0)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: negative size (file %lld, head %d, used %lld)", nIndex + 1, nSize,
                                  nHeadSize, nFree);
    if (nFree > nSize)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: used part %lld is larger than the file, %lld", nIndex + 1, nFree, nSize);
    if (nFree == 0) return BACKUPVERIFY_WHOLE;
    if (nHeadSize < COPIED_HEAD_SIZE)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: a head of %d bytes cannot hold a file head of %d", nIndex + 1, nHeadSize,
                                  COPIED_HEAD_SIZE);
    if (nHeadSize > nFree)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: head size %d is beyond the used part %lld", nIndex + 1, nHeadSize, nFree);
    return BACKUPVERIFY_WHOLE;
}

// Where the copy lies: right behind the one before (a full backup has no
// padding), exactly the used part long.
int CheckFullRecordPlace(const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, long long nExpectStart,
                         LPBACKUPVERIFYREPORT pReport)
{
    long long nStart = stRecord.m_nDataStartOffset;
    long long nEnd = stRecord.m_nDataEndOffset;
    if (nStart != nExpectStart)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: data starts at %lld, but %s ends at %lld", nIndex + 1, nStart,
                                  nIndex == 0 ? "the head area" : "the data before it", nExpectStart);
    if (nEnd < nStart)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: data ends at %lld, before its start %lld", nIndex + 1, nEnd, nStart);
    if (nEnd - nStart != stRecord.m_nFileFreeMemoryOffset)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: %lld bytes copied (%lld to %lld), used part %lld", nIndex + 1,
                                  nEnd - nStart, nStart, nEnd, stRecord.m_nFileFreeMemoryOffset);
    return BACKUPVERIFY_WHOLE;
}

// Where the pages of a changed file lie in an incremental backup: right
// behind the data of the changed file before, at least one page long. A
// file that did not change has neither start nor end.
int CheckIncrementRecordPlace(const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, long long nExpectStart,
                              LPBACKUPVERIFYREPORT pReport)
{
    long long nStart = stRecord.m_nDataStartOffset;
    long long nEnd = stRecord.m_nDataEndOffset;
    if (nStart == 0 && nEnd == 0) return BACKUPVERIFY_WHOLE;
    if (nStart != nExpectStart)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: data starts at %lld, but %s ends at %lld", nIndex + 1, nStart,
                                  "the data before it", nExpectStart);
    if (nEnd < nStart || nEnd - nStart < BACKUP_INCREMENT_PAGE_SIZE)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADRECORD,
                                  "record %d: data from %lld to %lld cannot hold a page of %d bytes", nIndex + 1,
                                  nStart, nEnd, BACKUP_INCREMENT_PAGE_SIZE);
    return BACKUPVERIFY_WHOLE;
}

int CheckRecordPlace(const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex, long long nExpectStart, bool bIncrement,
                     LPBACKUPVERIFYREPORT pReport)
{
    if (bIncrement) return CheckIncrementRecordPlace(stRecord, nIndex, nExpectStart, pReport);
    return CheckFullRecordPlace(stRecord, nIndex, nExpectStart, pReport);
}

void AddRestoreItem(const STRUCT_BACKUP_FILEINFO& stRecord, bool bIncrement, LPBACKUPVERIFYREPORT pReport)
{
    LPBACKUPRESTOREITEM pItem = &pReport->m_arItem[pReport->m_nItemNum++];
    memcpy(pItem->m_lpszFilePath, stRecord.m_lpszFilePath, sizeof(pItem->m_lpszFilePath));
    pItem->m_bFileNo = stRecord.m_bFileNo;
    pItem->m_bFileType = stRecord.m_bFileType;
    pItem->m_nFileSize = stRecord.m_nFileSize;
    // An incremental record's pieces are counted while its pages are walked.
    pItem->m_nCopiedSize = bIncrement ? 0 : stRecord.m_nDataEndOffset - stRecord.m_nDataStartOffset;
    pItem->m_nPieceNum = bIncrement || pItem->m_nCopiedSize == 0 ? 0 : 1;
    pItem->m_nHeadTimestamp = 0;
}

// Every record, in order; *pnDataEnd := where the last copy ends.
int CheckRecords(LPBYTE lpHeadArea, int nFileNum, int nHeadSize, bool bIncrement, long long* pnDataEnd,
                 LPBACKUPVERIFYREPORT pReport)
{
    bool arSeen[MAX_FILE_NUM] = {};
    long long nPos = nHeadSize;
    for (int i = 0; i < nFileNum; i++) {
        STRUCT_BACKUP_FILEINFO stRecord;
        memcpy(&stRecord, lpHeadArea + BACKUP_FIXED_HEAD_SIZE + (size_t)i * sizeof(stRecord), sizeof(stRecord));
        if (CheckRecordIdentity(stRecord, i, arSeen, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
        if (CheckRecordSizes(stRecord, i, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
        if (CheckRecordPlace(stRecord, i, nPos, bIncrement, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
        AddRestoreItem(stRecord, bIncrement, pReport);
        if (stRecord.m_nDataEndOffset != 0) nPos = stRecord.m_nDataEndOffset;
    }
    *pnDataEnd = nPos;
    return BACKUPVERIFY_WHOLE;
}

// The copied data of every record: the head a full copy starts with, or
// the pages of a changed file and what they point at.
int CheckCopies(int fd, LPBYTE lpHeadArea, int nFileNum, bool bIncrement, LPBACKUPVERIFYREPORT pReport)
{
    for (int i = 0; i < nFileNum; i++) {
        STRUCT_BACKUP_FILEINFO stRecord;
        memcpy(&stRecord, lpHeadArea + BACKUP_FIXED_HEAD_SIZE + (size_t)i * sizeof(stRecord), sizeof(stRecord));
        LPBACKUPRESTOREITEM pItem = &pReport->m_arItem[i];
        int nResult = BACKUPVERIFY_WHOLE;
        if (bIncrement && stRecord.m_nDataStartOffset != 0)
            nResult = BackupVerifyIncrementFile(fd, stRecord, i, pItem, pReport);
        else if (!bIncrement && stRecord.m_nFileFreeMemoryOffset != 0)
            nResult = BackupVerifyCopiedHead(fd, stRecord, stRecord.m_nDataStartOffset, pItem, pReport);
        if (nResult != BACKUPVERIFY_WHOLE) return nResult;
    }
    return BACKUPVERIFY_WHOLE;
}

// Everything behind the fixed part, on an open file whose fixed head passed.
int VerifyHeadArea(int fd, int nFileNum, int nHeadSize, bool bIncrement, LPBACKUPVERIFYREPORT pReport)
{
    LPBYTE lpHeadArea = new (std::nothrow) BYTE[(size_t)nHeadSize];
    if (lpHeadArea == nullptr)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_NOMEMORY, "no memory for a head area of %d bytes", nHeadSize);
    long long nDataEnd = 0;
    if (BackupVerifyRead(fd, lpHeadArea, nHeadSize, 0, "the head area", pReport) == BACKUPVERIFY_WHOLE &&
        CheckRecords(lpHeadArea, nFileNum, nHeadSize, bIncrement, &nDataEnd, pReport) == BACKUPVERIFY_WHOLE) {
        if (pReport->m_nBackupFileSize < nDataEnd)
            BackupVerifyRefuse(pReport, BACKUPVERIFY_TRUNCATED, "the file ends at %lld, the copied files at %lld",
                               pReport->m_nBackupFileSize, nDataEnd);
        else
            CheckCopies(fd, lpHeadArea, nFileNum, bIncrement, pReport);
    }
    delete[] lpHeadArea;
    return pReport->m_nStatus;
}

int VerifyOpenBackup(int fd, LPBACKUPVERIFYREPORT pReport)
{
    BACKUPFILEHEAD stHead;
    memset(&stHead, 0, sizeof(stHead));
    if (BackupVerifyRead(fd, &stHead, BACKUP_FIXED_HEAD_SIZE, 0, "the fixed head", pReport) != BACKUPVERIFY_WHOLE)
        return pReport->m_nStatus;
    if (CheckHeadMarks(stHead, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    KeepHeadFacts(stHead, pReport);
    if (CheckHeadSizes(stHead, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    return VerifyHeadArea(fd, stHead.m_nFileNum, stHead.m_nHeadSize, stHead.m_bLevel != BACKUPLEVEL_FULL, pReport);
}

} // namespace

// The first finding stands; later ones only confirm that something is wrong.
int BackupVerifyRefuse(LPBACKUPVERIFYREPORT pReport, int nStatus, const char* lpFormat, ...)
{
    if (pReport->m_nStatus != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    pReport->m_nStatus = nStatus;
    va_list args;
    va_start(args, lpFormat);
    vsnprintf(pReport->m_szFinding, sizeof(pReport->m_szFinding), lpFormat, args);
    va_end(args);
    return nStatus;
}

int BackupVerifyRead(int fd, void* lpBuf, long long nSize, long long nOffset, const char* lpWhat,
                     LPBACKUPVERIFYREPORT pReport)
{
    if (nOffset < 0 || nSize < 0 || nOffset > pReport->m_nBackupFileSize - nSize)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_TRUNCATED,
                                  "the file ends at %lld, inside %s (%lld bytes at %lld)", pReport->m_nBackupFileSize,
                                  lpWhat, nSize, nOffset);
    if (!TalvorReadFull(fd, lpBuf, (size_t)nSize, (off_t)nOffset))
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_UNREADABLE, "cannot read %s (%lld bytes at %lld): %s", lpWhat,
                                  nSize, nOffset, strerror(errno));
    return BACKUPVERIFY_WHOLE;
}

// The head a copy starts with must be the head of the file the record names.
int BackupVerifyCopiedHead(int fd, const STRUCT_BACKUP_FILEINFO& stRecord, long long nOffset, LPBACKUPRESTOREITEM pItem,
                           LPBACKUPVERIFYREPORT pReport)
{
    BASEFILEHEAD stHead;
    char szWhat[64];
    snprintf(szWhat, sizeof(szWhat), "the head of file %d", (int)stRecord.m_bFileNo);
    if (BackupVerifyRead(fd, &stHead, COPIED_HEAD_SIZE, nOffset, szWhat, pReport) != BACKUPVERIFY_WHOLE)
        return pReport->m_nStatus;
    int nMark = FileHeadDataFlag(stRecord.m_bFileType);
    if (stHead.m_nDataFlag != nMark)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADMARK,
                                  "file %d (%s): head mark 0x%08X, a file of type %d has 0x%08X",
                                  (int)stRecord.m_bFileNo, stRecord.m_lpszFilePath, (unsigned)stHead.m_nDataFlag,
                                  (int)stRecord.m_bFileType, (unsigned)nMark);
    if (stHead.m_bFileNo != stRecord.m_bFileNo || stHead.m_bFileType != stRecord.m_bFileType)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADMARK,
                                  "file %d (%s): its head says file %d of type %d, the record %d of type %d",
                                  (int)stRecord.m_bFileNo, stRecord.m_lpszFilePath, (int)stHead.m_bFileNo,
                                  (int)stHead.m_bFileType, (int)stRecord.m_bFileNo, (int)stRecord.m_bFileType);
    long long nTotal = stHead.m_nFileTotalSize;
    if (nTotal != stRecord.m_nFileSize)
        return BackupVerifyRefuse(pReport, BACKUPVERIFY_BADMARK,
                                  "file %d (%s): its head gives a size of %lld, the record %lld",
                                  (int)stRecord.m_bFileNo, stRecord.m_lpszFilePath, nTotal, stRecord.m_nFileSize);
    if (pItem != nullptr) pItem->m_nHeadTimestamp = stHead.m_nTimestamp;
    return BACKUPVERIFY_WHOLE;
}

int TalvorVerifyBackup(const char* lpszPath, LPBACKUPVERIFYREPORT pReport)
{
    ResetReport(pReport);
    int fd = -1;
    if (OpenBackup(lpszPath, &fd, pReport) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
    VerifyOpenBackup(fd, pReport);
    CTalvorFileIO::Current()->Close(fd);
    return pReport->m_nStatus;
}

const char* TalvorBackupVerifyStatusName(int nStatus)
{
    switch (nStatus) {
    case BACKUPVERIFY_WHOLE: return "whole";
    case BACKUPVERIFY_UNREADABLE: return "unreadable";
    case BACKUPVERIFY_TRUNCATED: return "truncated";
    case BACKUPVERIFY_BADHEAD: return "bad head";
    case BACKUPVERIFY_UNFINISHED: return "unfinished";
    case BACKUPVERIFY_BADRECORD: return "bad record";
    case BACKUPVERIFY_BADMARK: return "bad mark";
    case BACKUPVERIFY_BADPAGE: return "bad page";
    case BACKUPVERIFY_NOMEMORY: return "no memory";
    case BACKUPVERIFY_MISSINGLINK: return "missing link";
    case BACKUPVERIFY_BADLINK: return "bad link";
    default: return "unknown";
    }
}
