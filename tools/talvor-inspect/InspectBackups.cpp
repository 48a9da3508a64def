// InspectBackups.cpp — the backup files of the database's backup directory
// (the first archive destination, then "Backup/"; the destinations are the
// ini's, since the running daemon takes them from there, else what the
// system file records), each with what the
// offline verifier says of it. A backup that is not whole is told, but it is
// no damage of the database: the exit status does not count it.
#include "InspectReport.h"

#include "TalvorBackupFile.h"
#include "TalvorBackupVerify.h"
#include "TalvorFileIO.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <new>

namespace talvorinspect {

std::vector<InspectedBackup> FindBackups(const char* lpArchiveDesPath, int nSize, bool bVerify)
{
    std::vector<InspectedBackup> v;
    char szDir[BACKUP_PATH_MAX] = {0};
    if (TalvorBackupDirectory(lpArchiveDesPath, nSize, szDir) != BACKUPDIR_OK) return v;
    DIR* pDir = CTalvorFileIO::Current()->OpenDir(szDir);
    if (pDir == nullptr) return v;
    while (struct dirent* p = readdir(pDir)) {
        if (!TalvorIsBackupName(p->d_name, BACKUP_NAME_END)) continue;
        InspectedBackup b;
        b.m_strPath = std::string(szDir) + p->d_name;
        v.push_back(b);
    }
    CTalvorFileIO::Current()->CloseDir(pDir);
    std::sort(v.begin(), v.end(),
              [](const InspectedBackup& a, const InspectedBackup& b) { return a.m_strPath < b.m_strPath; });
    if (!bVerify) return v;
    LPBACKUPVERIFYREPORT pReport = new (std::nothrow) BACKUPVERIFYREPORT;
    if (pReport == nullptr) return v;
    for (InspectedBackup& b : v) {
        b.m_bVerified = true;
        b.m_nStatus = TalvorVerifyBackup(b.m_strPath.c_str(), pReport);
        b.m_strStatus = TalvorBackupVerifyStatusName(b.m_nStatus);
        b.m_strFinding = pReport->m_szFinding;
        b.m_nTimestamp = pReport->m_bHeadKnown ? pReport->m_nTimestamp : 0;
        b.m_nLevel = pReport->m_bHeadKnown ? pReport->m_nLevel : -1;
    }
    delete pReport;
    return v;
}

void PrintBackupWords(const std::vector<InspectedBackup>& v, FILE* pOut)
{
    for (const InspectedBackup& b : v) {
        if (!b.m_bVerified)
            fprintf(pOut, "backup: %s\n", b.m_strPath.c_str());
        else if (b.m_nStatus == BACKUPVERIFY_WHOLE)
            fprintf(pOut, "backup: %s: whole, level %d, timestamp %lld\n", b.m_strPath.c_str(), b.m_nLevel, b.m_nTimestamp);
        else
            fprintf(pOut, "backup: %s: refused (%s): %s\n", b.m_strPath.c_str(), b.m_strStatus.c_str(),
                    b.m_strFinding.c_str());
    }
}

} // namespace talvorinspect
