// InspectTool.cpp — the command line and the report in words.
#include "InspectTool.h"

#include "DbFileCheck.h"
#include "DbFileLayout.h"
#include "InspectReport.h"

#include <cstring>
#include <string>
#include <sys/stat.h>

namespace talvorinspect {

namespace {

void Usage(FILE* pErr)
{
    fprintf(pErr,
            "usage: talvor-inspect [--check] [--json] [--ini FILE] DIR\n"
            "  DIR is the database directory (the one holding System.dbf) or the system file itself.\n"
            "  --check  walk every mark, chain and bound of every file; exit 1 on any damage\n"
            "  --json   one JSON object for scripts instead of words\n"
            "  --ini    the daemon's TalvorConfig.ini, for the backup directory (default: ../../bin/ of DIR)\n");
}

std::string SystemPathOf(const char* lpszDir)
{
    struct stat st;
    if (stat(lpszDir, &st) == 0 && S_ISREG(st.st_mode)) return lpszDir;
    std::string s = lpszDir;
    if (s.empty() || s.back() != '/') s += "/";
    return s + DB_SYSTEMFILE_NAME;
}

void CollectFinding(void* pContext, const DBFINDING* pFinding)
{
    ((InspectResult*)pContext)->m_vFindings.push_back(*pFinding);
}

// The walk's progress, file by file; nothing unless stderr is a terminal.
void ShowProgress(void* pContext, int nIndex, int nCount, const char* lpszPath)
{
    InspectResult* p = (InspectResult*)pContext;
    if (p->m_pProgress == nullptr) return;
    p->m_pProgress->Show(lpszPath, nIndex, nCount, "files");
    if (nIndex >= nCount) p->m_pProgress->End();
}

// The running daemon takes the archive destinations from the ini; the
// system file keeps what an older write-back left.
void FindArchivePath(const InspectOptions& stOptions, const SYSTEMFILEHEAD* h, InspectResult* pResult)
{
    const std::string& strSystem = pResult->m_strSystemPath;
    std::string strDir = strSystem.substr(0, strSystem.rfind('/') + 1);
    std::string strIni = stOptions.m_lpszIni != nullptr ? stOptions.m_lpszIni : DefaultIniPath(strDir.empty() ? "." : strDir);
    std::string strValue;
    if (!strIni.empty() && ReadIniValue(strIni, "System", "archivedespath", &strValue) && !strValue.empty()) {
        pResult->m_strIniPath = strIni;
        pResult->m_strArchivePath = strValue;
        return;
    }
    pResult->m_strArchivePath.assign(h->m_lpArchiveDesPath, strnlen(h->m_lpArchiveDesPath, sizeof(h->m_lpArchiveDesPath)));
}

} // namespace

int InspectDatabaseDir(const InspectOptions& stOptions, FILE* pOut, FILE* pErr)
{
    InspectResult stResult;
    stResult.m_bCheck = stOptions.m_bCheck;
    CTalvorTerminalProgress progress(stOptions.m_bProgress ? pErr : nullptr);
    stResult.m_pProgress = &progress;
    stResult.m_strSystemPath = SystemPathOf(stOptions.m_lpszDir);
    CDbChecker checker(CollectFinding, stOptions.m_bCheck ? ShowProgress : nullptr, &stResult);
    stResult.m_pChecker = &checker;
    stResult.m_bLoaded = checker.Load(stResult.m_strSystemPath.c_str());
    if (stResult.m_bLoaded) {
        checker.Run(stOptions.m_bCheck ? TRUE : FALSE);
        FindArchivePath(stOptions, checker.SystemHead(), &stResult);
        const std::string& strSystem = stResult.m_strSystemPath;
        stResult.m_vGroups = ReadRedoGroups(strSystem.substr(0, strSystem.rfind('/') + 1), checker.SystemHead());
        stResult.m_vBackups = FindBackups(stResult.m_strArchivePath.c_str(), (int)stResult.m_strArchivePath.size(),
                                          stOptions.m_bCheck);
    }
    if (stOptions.m_bJson)
        PrintJson(stResult, pOut);
    else
        PrintWords(stResult, pOut);
    if (!stResult.m_bLoaded) return INSPECT_DAMAGE;
    return stOptions.m_bCheck && !stResult.m_vFindings.empty() ? INSPECT_DAMAGE : INSPECT_CLEAN;
}

int RunInspectTool(int argc, char** argv, FILE* pOut, FILE* pErr)
{
    InspectOptions st;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--check") == 0) {
            st.m_bCheck = true;
        } else if (strcmp(argv[i], "--ini") == 0 && i + 1 < argc) {
            st.m_lpszIni = argv[++i];
        } else if (strcmp(argv[i], "--json") == 0) {
            st.m_bJson = true;
        } else if (strcmp(argv[i], "--help") == 0) {
            Usage(pOut);
            return INSPECT_CLEAN;
        } else if (argv[i][0] == '-' || st.m_lpszDir != nullptr) {
            Usage(pErr);
            return INSPECT_USAGE;
        } else {
            st.m_lpszDir = argv[i];
        }
    }
    if (st.m_lpszDir == nullptr) {
        Usage(pErr);
        return INSPECT_USAGE;
    }
    st.m_bProgress = true;
    return InspectDatabaseDir(st, pOut, pErr);
}

} // namespace talvorinspect
