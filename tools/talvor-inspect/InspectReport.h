// InspectReport.h — the inspector's report, in words or as JSON.
#pragma once

#include "DbFileCheck.h"
#include "TerminalProgress.h"

#include <cstdio>
#include <string>
#include <vector>

namespace talvorinspect {

// A backup file of the database's backup directory.
struct InspectedBackup {
    std::string m_strPath;
    bool m_bVerified = false;
    int m_nStatus = -1;          // the verifier's BACKUPVERIFY_*
    std::string m_strStatus;
    std::string m_strFinding;
    long long m_nTimestamp = 0;
    int m_nLevel = -1;
};

// The head of one online redo group.
struct InspectedGroup {
    int m_nGroup = 0;
    std::string m_strPath;
    std::string m_strProblem;    // "" when the head is a redo head of this database
    UINT m_nLogNo = 0;
    BYTE m_bState = 0;
    UINT m_nEffectiveSize = 0;
};

struct InspectResult {
    std::string m_strSystemPath;
    std::string m_strIniPath;      // the ini read for the archive destinations, or ""
    std::string m_strArchivePath;  // the destinations the backups were looked for in
    bool m_bCheck = false;
    bool m_bLoaded = false;
    CDbChecker* m_pChecker = nullptr;
    std::vector<DBFINDING> m_vFindings;
    std::vector<InspectedBackup> m_vBackups;
    std::vector<InspectedGroup> m_vGroups;
    CTalvorTerminalProgress* m_pProgress = nullptr;  // drawn only on a terminal
};

// Any thread; holds no latch.
void PrintWords(const InspectResult& st, FILE* pOut);
void PrintJson(const InspectResult& st, FILE* pOut);

// The backups of the head's backup directory, verified when bVerify (the
// offline verifier reads each head area; nothing is written).
// lpArchiveDesPath: the destination list (the ini's, else the head's).
std::vector<InspectedBackup> FindBackups(const char* lpArchiveDesPath, int nSize, bool bVerify);
void PrintBackupWords(const std::vector<InspectedBackup>& v, FILE* pOut);

// The heads of the redo groups of the database directory (with "/").
std::vector<InspectedGroup> ReadRedoGroups(const std::string& strDatabaseDir, const SYSTEMFILEHEAD* h);
void PrintRedoGroupWords(const std::vector<InspectedGroup>& v, FILE* pOut);

// The ini an installation keeps for the database directory, or "".
std::string DefaultIniPath(const std::string& strDatabaseDir);
// The value of lpKey in [lpSection] of strIni, read-only; false when the
// file or the key is not there.
bool ReadIniValue(const std::string& strIni, const char* lpSection, const char* lpKey, std::string* pstrValue);

// One finding as the one line the report gives it.
std::string FindingLine(const DBFINDING& st);

} // namespace talvorinspect
