// BackupChainCheck.cpp — the bounds a restore holds a backup file to.
//
// The writers lay a backup out in one way only: the head area, then the
// data of the records in order with nothing between them (a full backup),
// or for each changed file a chain of 8192-byte pages that only ever runs
// forward, each page followed by the pieces it lists (an incremental one).
// Anything else is a damaged or foreign file and is refused whole.
#include "BackupChainCheck.h"

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TalvorBackupChain.h"
#include "TalvorDirectFile.h"
#include "TalvorTrace.h"

#include <cstdlib>
#include <cstring>

namespace {

void TraceHead(long long nTimestamp, const char* lpZh, const char* lpEn)
{
    Trace("CheckBackupChain", 1, 10023002,
          TALVOR_TEXT("备份文件[%lld]不完整或不是备份文件:%s", "The backup file [%lld] is not whole or not a backup: %s"),
          nTimestamp, TALVOR_TEXT(lpZh, lpEn));
}

void TraceRecord(long long nTimestamp, int nRecord, const char* lpZh, const char* lpEn)
{
    Trace("CheckBackupChain", 1, 10023003,
          TALVOR_TEXT("备份文件[%lld]的第%d条文件记录错误:%s", "The backup file [%lld], record %d, is wrong: %s"),
          nTimestamp, nRecord, TALVOR_TEXT(lpZh, lpEn));
}

void TracePage(long long nTimestamp, int nRecord, long long nPagePos, const char* lpZh, const char* lpEn)
{
    Trace("CheckBackupChain", 1, 10023004,
          TALVOR_TEXT("位于[%lld]的增量页(第%d条记录,备份文件[%lld])错误:%s",
                      "The page at [%lld] of record %d of the backup file [%lld] is wrong: %s"),
          nPagePos, nRecord, nTimestamp, TALVOR_TEXT(lpZh, lpEn));
}

void TraceItem(long long nTimestamp, long long nPagePos, int nItem, const char* lpZh, const char* lpEn)
{
    Trace("CheckBackupChain", 1, 10023005,
          TALVOR_TEXT("第%d项(增量页位于[%lld],备份文件[%lld])错误:%s",
                      "Item %d of the page at [%lld] of the backup file [%lld] is wrong: %s"),
          nItem, nPagePos, nTimestamp, TALVOR_TEXT(lpZh, lpEn));
}

// The fixed part of a head in hand, before any record is looked at.
BOOL CheckFixedHead(const BACKUPFILEHEAD* lpHead, long long nBackupSize, long long nTimestamp)
{
    if (lpHead->m_nVersion != BACKUP_VERSION || lpHead->m_nFileFlag != BACKUP_FILEFLAG ||
        memcmp(lpHead->m_pDataFlag, BACKUP_DATAFLAG, sizeof(lpHead->m_pDataFlag)) != 0) {
        TraceHead(nTimestamp, "版本或标志错误", "wrong version or mark");
        return FALSE;
    }
    int nFileNum = lpHead->m_nFileNum;
    // A chain restores a database, which has at least its system file.
    if (nFileNum < 1 || nFileNum > BACKUP_RECORDS_MAX) {
        TraceHead(nTimestamp, "文件数超出范围", "count of files out of range");
        return FALSE;
    }
    if (lpHead->m_nHeadSize != BackupHeadSize(nFileNum) || lpHead->m_nHeadSize > nBackupSize) {
        TraceHead(nTimestamp, "头区大小与文件数不符或超出文件", "head area size does not fit the count of files or the file");
        return FALSE;
    }
    if (lpHead->m_nTimestamp != nTimestamp) {
        TraceHead(nTimestamp, "时间戳与文件名不符", "its timestamp is not the one of its name");
        return FALSE;
    }
    BOOL bFull = lpHead->m_bLevel == BACKUPLEVEL_FULL;
    long long nRefer = lpHead->m_nReferTimestamp;
    if (bFull ? nRefer != 0 : (nRefer <= 0 || nRefer >= lpHead->m_nTimestamp)) {
        TraceHead(nTimestamp, "参考时间戳与级别不符", "its reference timestamp does not fit its level");
        return FALSE;
    }
    return TRUE;
}

// The target path: a whole absolute path, with no step upwards, named by no
// earlier record.
BOOL CheckRecordPath(const BACKUPFILEHEAD* lpHead, int nRecord)
{
    long long nTimestamp = lpHead->m_nTimestamp;
    const char* lpPath = lpHead->m_stBackupFileInfo[nRecord].m_lpszFilePath;
    size_t nLen = strnlen(lpPath, sizeof(lpHead->m_stBackupFileInfo[nRecord].m_lpszFilePath));
    if (nLen == 0 || nLen == sizeof(lpHead->m_stBackupFileInfo[nRecord].m_lpszFilePath) || lpPath[0] != '/' ||
        lpPath[nLen - 1] == '/') {
        TraceRecord(nTimestamp, nRecord, "路径不是完整的绝对文件路径", "its path is not a whole absolute file path");
        return FALSE;
    }
    for (const char* p = strstr(lpPath, "/.."); p != nullptr; p = strstr(p + 1, "/..")) {
        if (p[3] == '/' || p[3] == '\0') {
            TraceRecord(nTimestamp, nRecord, "路径含有上级目录", "its path steps up a directory");
            return FALSE;
        }
    }
    for (int i = 0; i < nRecord; i++) {
        if (strncmp(lpPath, lpHead->m_stBackupFileInfo[i].m_lpszFilePath, nLen + 1) == 0) {
            TraceRecord(nTimestamp, nRecord, "路径与前面的记录重复", "its path is named by an earlier record");
            return FALSE;
        }
    }
    return TRUE;
}

// A full backup's record: its data follows the previous record's with no
// gap, holds exactly the used part the writer copies, and ends inside the
// backup.
BOOL CheckFullRecord(const BACKUPFILEHEAD* lpHead, int nRecord, long long nBackupSize, long long& nExpectedStart)
{
    const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[nRecord];
    long long nTimestamp = lpHead->m_nTimestamp;
    if (nRecord == 0 && r.m_bFileType != FILETYPE_SYSTEM) {
        TraceRecord(nTimestamp, nRecord, "第一条记录不是系统文件", "the first record is not the system file");
        return FALSE;
    }
    long long nUsed = r.m_nFileFreeMemoryOffset;
    if (nUsed < 0) nUsed = 0;
    if (nUsed > r.m_nFileSize) nUsed = r.m_nFileSize;
    // Bounds first, so that the length is taken only of a range inside the
    // backup.
    if (r.m_nDataStartOffset != nExpectedStart || r.m_nDataEndOffset < r.m_nDataStartOffset ||
        r.m_nDataEndOffset > nBackupSize || r.m_nDataEndOffset - r.m_nDataStartOffset != nUsed) {
        TraceRecord(nTimestamp, nRecord, "数据范围与已用大小不符或超出备份文件",
                    "its data range does not fit its used size or lies past the backup's end");
        return FALSE;
    }
    nExpectedStart = r.m_nDataEndOffset;
    return TRUE;
}

// An incremental record's data range: none for an unchanged file, else at
// least one page, after the previous record's data, inside the backup.
BOOL CheckIncrementRange(const BACKUPFILEHEAD* lpHead, int nRecord, long long nBackupSize, long long& nExpectedStart)
{
    const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[nRecord];
    long long nStart = r.m_nDataStartOffset;
    long long nEnd = r.m_nDataEndOffset;
    if (nStart == 0 && nEnd == 0) return TRUE;
    if (nStart < nExpectedStart || nStart > nBackupSize || nEnd < nStart || nEnd > nBackupSize ||
        nEnd - nStart < BACKUP_INCREMENT_PAGE_SIZE) {
        TraceRecord(lpHead->m_nTimestamp, nRecord, "增量数据范围错误或超出备份文件",
                    "its increment range is wrong or lies past the backup's end");
        return FALSE;
    }
    nExpectedStart = nEnd;
    return TRUE;
}

BOOL CheckIncrementItem(const BACKUPFILEHEAD* lpHead, int nRecord, long long nPagePos, int nItem,
                        const BACKUPINCREMENTITEM& item)
{
    const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[nRecord];
    long long nSize = item.m_nBlockSize;
    long long nData = item.m_nBlockDataPos;
    long long nTarget = item.m_nBlockFilePos;
    if (item.m_nBlockType < BACKUPITEM_FILEHEAD || item.m_nBlockType > BACKUPITEM_DATABLOCK || nSize <= 0) {
        TraceItem(lpHead->m_nTimestamp, nPagePos, nItem, "类型或长度错误", "wrong type or length");
        return FALSE;
    }
    // The piece lies behind the first page and inside the record's data.
    if (nData < r.m_nDataStartOffset + BACKUP_INCREMENT_PAGE_SIZE || nData > r.m_nDataEndOffset - nSize) {
        TraceItem(lpHead->m_nTimestamp, nPagePos, nItem, "数据位置超出本文件的备份数据",
                  "its piece lies outside the file's data in the backup");
        return FALSE;
    }
    if (nTarget < 0 || nTarget > r.m_nFileSize - nSize ||
        (item.m_nBlockType == BACKUPITEM_FILEHEAD && nTarget != 0)) {
        TraceItem(lpHead->m_nTimestamp, nPagePos, nItem, "目标位置超出数据库文件大小",
                  "its place lies outside the database file's size");
        return FALSE;
    }
    return TRUE;
}

// Walks the page chain of one changed record.
BOOL CheckIncrementChain(CTalvorDirectFile* pFile, const BACKUPFILEHEAD* lpHead, int nRecord, LPBYTE lpPage)
{
    const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[nRecord];
    const BACKUPINCREMENTHEAD* lpPageHead = (const BACKUPINCREMENTHEAD*)lpPage;
    for (long long nPagePos = r.m_nDataStartOffset; nPagePos != 0; nPagePos = lpPageHead->m_nNextPos) {
        // The next page was checked to lie inside the record's data.
        if (!pFile->ReadAt(nPagePos, lpPage, BACKUP_INCREMENT_PAGE_SIZE)) {
            TracePage(lpHead->m_nTimestamp, nRecord, nPagePos, "无法读取", "cannot be read");
            return FALSE;
        }
        if (!TalvorCheckIncrementPage(lpHead, nRecord, nPagePos, lpPageHead)) return FALSE;
    }
    return TRUE;
}

} // namespace

BOOL TalvorReadBackupHead(CTalvorDirectFile* pFile, long long nTimestamp, LPBYTE& lpHeadArea)
{
    lpHeadArea = nullptr;
    long long nBackupSize = pFile->Size();
    if (nBackupSize < BACKUP_HEAD_ALIGN) {
        TraceHead(nTimestamp, "比头区短", "shorter than a head area");
        return FALSE;
    }
    lpHeadArea = (LPBYTE)get_aligned_buffer(BACKUP_HEAD_ALIGN);
    if (lpHeadArea == nullptr || !pFile->ReadAt(0, lpHeadArea, BACKUP_HEAD_ALIGN)) {
        TraceHead(nTimestamp, "无法读取头区", "its head area cannot be read");
        return FALSE;
    }
    if (!CheckFixedHead((const BACKUPFILEHEAD*)lpHeadArea, nBackupSize, nTimestamp)) return FALSE;
    int nHeadSize = ((const BACKUPFILEHEAD*)lpHeadArea)->m_nHeadSize;
    if (nHeadSize == BACKUP_HEAD_ALIGN) return TRUE;
    free(lpHeadArea);
    lpHeadArea = (LPBYTE)get_aligned_buffer((size_t)nHeadSize);
    if (lpHeadArea == nullptr || !pFile->ReadAt(0, lpHeadArea, nHeadSize)) {
        TraceHead(nTimestamp, "无法读取头区", "its head area cannot be read");
        return FALSE;
    }
    return TRUE;
}

BOOL TalvorCheckBackupRecords(CTalvorDirectFile* pFile, const BACKUPFILEHEAD* lpHead, LPBYTE lpPage)
{
    long long nBackupSize = pFile->Size();
    long long nExpectedStart = lpHead->m_nHeadSize;
    BOOL bFull = lpHead->m_bLevel == BACKUPLEVEL_FULL;
    for (int i = 0; i < lpHead->m_nFileNum; i++) {
        const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[i];
        if (r.m_nFileSize < 0 || r.m_nFileSize > BACKUP_RESTORE_FILE_MAX) {
            TraceRecord(lpHead->m_nTimestamp, i, "文件大小超出范围", "its file size is out of range");
            return FALSE;
        }
        if (!CheckRecordPath(lpHead, i)) return FALSE;
        if (bFull) {
            if (!CheckFullRecord(lpHead, i, nBackupSize, nExpectedStart)) return FALSE;
            continue;
        }
        if (!CheckIncrementRange(lpHead, i, nBackupSize, nExpectedStart)) return FALSE;
        if (r.m_nDataStartOffset != 0 && !CheckIncrementChain(pFile, lpHead, i, lpPage)) return FALSE;
    }
    return TRUE;
}

BOOL TalvorCheckIncrementPage(const BACKUPFILEHEAD* lpHead, int nRecord, long long nPagePos,
                              const BACKUPINCREMENTHEAD* lpPageHead)
{
    const STRUCT_BACKUP_FILEINFO& r = lpHead->m_stBackupFileInfo[nRecord];
    long long nTimestamp = lpHead->m_nTimestamp;
    if (nPagePos < r.m_nDataStartOffset || nPagePos > r.m_nDataEndOffset - BACKUP_INCREMENT_PAGE_SIZE) {
        TracePage(nTimestamp, nRecord, nPagePos, "位于本文件的备份数据之外", "it lies outside the file's data");
        return FALSE;
    }
    if (lpPageHead->m_nDataFlag != BACKUP_INCREMENT_FLAG || lpPageHead->m_nBlockSize != BACKUP_INCREMENT_PAGE_SIZE ||
        lpPageHead->m_nIncrementBlockNum < 0 || lpPageHead->m_nIncrementBlockNum > BACKUP_INCREMENT_MAX_ITEMS) {
        TracePage(nTimestamp, nRecord, nPagePos, "标志、大小或项数错误", "wrong mark, size or count of items");
        return FALSE;
    }
    // A chain only runs forward, so it ends.
    long long nNext = lpPageHead->m_nNextPos;
    if (nNext != 0 && (nNext < nPagePos + BACKUP_INCREMENT_PAGE_SIZE ||
                       nNext > r.m_nDataEndOffset - BACKUP_INCREMENT_PAGE_SIZE)) {
        TracePage(nTimestamp, nRecord, nPagePos, "下一页位置错误", "its next page is not further on inside the file's data");
        return FALSE;
    }
    for (int i = 0; i < lpPageHead->m_nIncrementBlockNum; i++) {
        BACKUPINCREMENTITEM item;
        memcpy(&item, &lpPageHead->m_pBlockItem[i], sizeof(item));
        if (!CheckIncrementItem(lpHead, nRecord, nPagePos, i, item)) return FALSE;
    }
    return TRUE;
}

BOOL TalvorCheckBackupLinkOrder(const BACKUPFILEHEAD* lpUpper, const BACKUPFILEHEAD* lpLower)
{
    int nFault = TalvorBackupLinkFault(TalvorBackupLinkFactsOf(lpUpper), TalvorBackupLinkFactsOf(lpLower));
    if (nFault == BACKUPLINK_LEVEL) {
        TalvorTraceBackupLevel("RecoverIncrement", (int)lpUpper->m_bLevel - 1, lpLower->m_nTimestamp, lpLower->m_bLevel);
        return FALSE;
    }
    if (nFault != BACKUPLINK_FITS) {
        Trace("RecoverIncrement", 1, 10023006,
              TALVOR_TEXT("备份文件[%lld]不是备份文件[%lld]的下一级:时间戳或数据库标识不符",
                          "The backup file [%lld] does not lie below the backup file [%lld]: timestamp or database identity differ"),
              (long long)lpLower->m_nTimestamp, (long long)lpUpper->m_nTimestamp);
        return FALSE;
    }
    return TRUE;
}

void TalvorTraceBackupLevel(const char* lpFunction, int nExpected, long long nTimestamp, int nActual)
{
    Trace(lpFunction, 1, 10023001,
          TALVOR_TEXT("错误!备份文件[%d, %lld]的实际级别为[%d]!", "Incorrect! The actual level of backup files [%d, %lld] is [%d]!"),
          nExpected, nTimestamp, nActual);
}
