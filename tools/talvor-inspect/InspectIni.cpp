// InspectIni.cpp — one key of the daemon's ini, read without opening the
// file for writing (the ini readers of the configuration library open it
// "r+"), by the same line rules (ConfigIniSyntax.h).
#include "InspectReport.h"

#include "ConfigIniSyntax.h"
#include "DbFileCheck.h"
#include "TalvorFileIO.h"

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <strings.h>

namespace talvorinspect {

namespace {

bool SameName(const char* s, const char* e, const char* lpName)
{
    size_t n = strlen(lpName);
    return (size_t)(e - s) == n && strncasecmp(s, lpName, n) == 0;
}

} // namespace

std::string DefaultIniPath(const std::string& strDatabaseDir)
{
    // The layout of an installation: <prefix>/Data/Talvor/ and <prefix>/bin/.
    char szReal[PATH_MAX];
    if (realpath(strDatabaseDir.c_str(), szReal) == nullptr) return "";
    return std::string(szReal) + "/../../bin/TalvorConfig.ini";
}

bool ReadIniValue(const std::string& strIni, const char* lpSection, const char* lpKey, std::string* pstrValue)
{
    int fd = CTalvorFileIO::Current()->Open(strIni.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    long long nSize = 0;
    LPBYTE lpText = DbReadWholeFile(fd, &nSize);
    CTalvorFileIO::Current()->Close(fd);
    if (lpText == nullptr) return false;
    bool bInSection = false, bFound = false;
    const char* p = (const char*)lpText;
    const char* lpEnd = p + nSize;
    while (p < lpEnd && !bFound) {
        const char* lpNext = nullptr;
        const char* s = p;
        const char* e = IniLineEnd(p, lpEnd, &lpNext);
        p = lpNext;
        IniTrimBlanks(s, e);
        if (IniIsNothing(s, e)) continue;
        const char *lpName = nullptr, *lpNameEnd = nullptr;
        if (IniHeadName(s, e, lpName, lpNameEnd)) {
            bInSection = SameName(lpName, lpNameEnd, lpSection);
            continue;
        }
        const char* lpEq = nullptr;
        IniKeyName(s, e, lpName, lpNameEnd, &lpEq);
        if (!bInSection || lpEq == nullptr || !SameName(lpName, lpNameEnd, lpKey)) continue;
        const char* v = lpEq + 1;
        const char* ve = e;
        IniTrimBlanks(v, ve);
        pstrValue->assign(v, (size_t)(ve - v));
        bFound = true;
    }
    free(lpText);
    return bFound;
}

} // namespace talvorinspect
