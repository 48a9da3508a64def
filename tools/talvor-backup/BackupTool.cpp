// BackupTool.cpp — the verify verb: the verifier's report in words.
#include "BackupTool.h"

#include "MemDBCommonDef.h"
#include "TalvorBackupChain.h"
#include "TalvorBackupVerify.h"

#include <cstring>
#include <ctime>
#include <new>

namespace talvorbackup {

namespace {

// Seconds from 1601-01-01 to 1970-01-01.
const long long FILETIME_UNIX_EPOCH_SECONDS = 11644473600LL;
const long long FILETIME_TICKS_PER_SECOND = 10000000LL;

void Usage(FILE* pErr)
{
    fprintf(pErr, "usage: talvor-backup verify FILE\n"
                  "       talvor-backup verify --chain FILE   (FILE and every backup below it, down to the full one)\n");
}

const char* FileTypeName(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM: return "system";
    case FILETYPE_DATA: return "data";
    case FILETYPE_BTREEINDEX: return "btree-index";
    case FILETYPE_KVINDEX: return "kv-index";
    case FILETYPE_TABLE: return "table";
    case FILETYPE_INDEX: return "index";
    default: return "unknown";
    }
}

// The backup time as UTC text; the raw value when it lies outside the
// calendar gmtime knows.
void FormatBackupTime(const FILETIME& ft, char* lpText, size_t nSize)
{
    unsigned long long nTicks = ((unsigned long long)ft.dwHighDateTime << 32) | ft.dwLowDateTime;
    long long nSeconds = (long long)(nTicks / FILETIME_TICKS_PER_SECOND) - FILETIME_UNIX_EPOCH_SECONDS;
    long long nMicros = (long long)(nTicks % FILETIME_TICKS_PER_SECOND) / 10;
    time_t t = (time_t)nSeconds;
    struct tm stTm;
    if (nSeconds < 0 || gmtime_r(&t, &stTm) == nullptr) {
        snprintf(lpText, nSize, "filetime %llu", nTicks);
        return;
    }
    snprintf(lpText, nSize, "%04d-%02d-%02d %02d:%02d:%02d.%06lld UTC", stTm.tm_year + 1900, stTm.tm_mon + 1,
             stTm.tm_mday, stTm.tm_hour, stTm.tm_min, stTm.tm_sec, nMicros);
}

void PrintHead(const BACKUPVERIFYREPORT& stReport, FILE* pOut)
{
    if (stReport.m_nBackupFileSize >= 0) fprintf(pOut, "size: %lld bytes\n", stReport.m_nBackupFileSize);
    if (!stReport.m_bHeadKnown) return;
    char szTime[64];
    FormatBackupTime(stReport.m_ftBackupTime, szTime, sizeof(szTime));
    fprintf(pOut, "timestamp: %lld  level: %d  refers to: %lld\n", stReport.m_nTimestamp, stReport.m_nLevel,
            stReport.m_nReferTimestamp);
    fprintf(pOut, "log: %d at %d  files: %d  head area: %d bytes  taken: %s\n", stReport.m_nLogNo,
            stReport.m_nLogPos, stReport.m_nFileNum, stReport.m_nHeadSize, szTime);
}

void PrintItems(const BACKUPVERIFYREPORT& stReport, FILE* pOut)
{
    for (int i = 0; i < stReport.m_nItemNum; i++) {
        const BACKUPRESTOREITEM& stItem = stReport.m_arItem[i];
        fprintf(pOut, "  file %d (%s) %s: size %lld, ", (int)stItem.m_bFileNo, FileTypeName(stItem.m_bFileType),
                stItem.m_lpszFilePath, stItem.m_nFileSize);
        if (stReport.m_nLevel != BACKUPLEVEL_FULL && stItem.m_nPieceNum == 0)
            fprintf(pOut, "unchanged, nothing to apply\n");
        else
            fprintf(pOut, "%lld bytes from the backup in %d piece%s, head timestamp %lld\n", stItem.m_nCopiedSize,
                    stItem.m_nPieceNum, stItem.m_nPieceNum == 1 ? "" : "s", stItem.m_nHeadTimestamp);
    }
}

void PrintReport(const char* lpszPath, const BACKUPVERIFYREPORT& stReport, FILE* pOut)
{
    fprintf(pOut, "backup: %s\n", lpszPath);
    PrintHead(stReport, pOut);
    if (stReport.m_nStatus == BACKUPVERIFY_WHOLE) {
        fprintf(pOut, "result: whole\n");
        if (stReport.m_nLevel == BACKUPLEVEL_FULL)
            fprintf(pOut, "a restore would write %d files:\n", stReport.m_nItemNum);
        else
            fprintf(pOut, "a restore would apply it over the backup of timestamp %lld (not looked at) to %d files:\n",
                    stReport.m_nReferTimestamp, stReport.m_nItemNum);
    } else {
        fprintf(pOut, "result: refused (%s): %s\n", TalvorBackupVerifyStatusName(stReport.m_nStatus),
                stReport.m_szFinding);
        if (stReport.m_nItemNum > 0) fprintf(pOut, "records that passed before the finding:\n");
    }
    PrintItems(stReport, pOut);
}

} // namespace

int VerifyBackupFile(const char* lpszPath, FILE* pOut)
{
    LPBACKUPVERIFYREPORT pReport = new (std::nothrow) BACKUPVERIFYREPORT;
    if (pReport == nullptr) {
        fprintf(pOut, "backup: %s\nresult: refused: no memory for the report\n", lpszPath);
        return BACKUPTOOL_REFUSED;
    }
    int nStatus = TalvorVerifyBackup(lpszPath, pReport);
    PrintReport(lpszPath, *pReport, pOut);
    delete pReport;
    return nStatus == BACKUPVERIFY_WHOLE ? BACKUPTOOL_WHOLE : BACKUPTOOL_REFUSED;
}

int VerifyBackupChain(const char* lpszTopPath, FILE* pOut)
{
    LPBACKUPCHAINREPORT pReport = new (std::nothrow) BACKUPCHAINREPORT;
    if (pReport == nullptr) {
        fprintf(pOut, "chain: %s\nresult: refused: no memory for the report\n", lpszTopPath);
        return BACKUPTOOL_REFUSED;
    }
    int nStatus = TalvorVerifyBackupChain(lpszTopPath, pReport);
    fprintf(pOut, "chain: %s\n", lpszTopPath);
    for (int i = 0; i < pReport->m_nLinkNum; i++) {
        const BACKUPCHAINLINK& stLink = pReport->m_arLink[i];
        fprintf(pOut, "  link %d: %s", i, stLink.m_szPath);
        if (stLink.m_nStatus == BACKUPVERIFY_WHOLE || stLink.m_nStatus == BACKUPVERIFY_BADLINK)
            fprintf(pOut, " timestamp %lld level %d refers to %lld", stLink.m_nTimestamp, stLink.m_nLevel,
                    stLink.m_nReferTimestamp);
        fprintf(pOut, ": %s\n", TalvorBackupVerifyStatusName(stLink.m_nStatus));
    }
    if (nStatus == BACKUPVERIFY_WHOLE)
        fprintf(pOut, "result: whole; a restore to %lld would apply %d backup%s\n", pReport->m_arLink[0].m_nTimestamp,
                pReport->m_nLinkNum, pReport->m_nLinkNum == 1 ? "" : "s");
    else
        fprintf(pOut, "result: refused (%s): %s\n", TalvorBackupVerifyStatusName(nStatus), pReport->m_szFinding);
    delete pReport;
    return nStatus == BACKUPVERIFY_WHOLE ? BACKUPTOOL_WHOLE : BACKUPTOOL_REFUSED;
}

int RunBackupTool(int argc, char** argv, FILE* pOut, FILE* pErr)
{
    if (argc == 3 && strcmp(argv[1], "verify") == 0) return VerifyBackupFile(argv[2], pOut);
    if (argc == 4 && strcmp(argv[1], "verify") == 0 && strcmp(argv[2], "--chain") == 0)
        return VerifyBackupChain(argv[3], pOut);
    Usage(pErr);
    return BACKUPTOOL_USAGE;
}

} // namespace talvorbackup
