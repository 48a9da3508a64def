// The ini file from outside: read into the settings tree, asked for values,
// and rewritten by both writers (the tree's one-line splice and the
// file-direct writer), then read again by the file-direct reader. The file
// the rewrites leave must still be readable; nothing may read past a line.
#include "ConfigHelper.h"
#include "FuzzFiles.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

// The first name in a NUL-separated list, or "".
std::string FirstName(const char* lpList, DWORD nLen)
{
    if (nLen == 0) return "";
    return std::string(lpList, strnlen(lpList, nLen));
}

void ReadBack(const char* lpPath)
{
    char szList[4096];
    DWORD nSections = GetPrivateProfileString(nullptr, nullptr, "", szList, sizeof(szList), lpPath);
    std::string strSection = FirstName(szList, nSections);
    if (strSection.empty()) return;
    DWORD nKeys = GetPrivateProfileString(strSection.c_str(), nullptr, "", szList, sizeof(szList), lpPath);
    std::string strKey = FirstName(szList, nKeys);
    if (strKey.empty()) return;
    char szValue[64];
    GetPrivateProfileString(strSection.c_str(), strKey.c_str(), "d", szValue, sizeof(szValue), lpPath);
    GetPrivateProfileInt(strSection.c_str(), strKey.c_str(), 7, lpPath);
    WritePrivateProfileString(strSection.c_str(), strKey.c_str(), "42", lpPath);
    WritePrivateProfileString(strSection.c_str(), "fuzzadded", "1", lpPath);
}

void ThroughTree(const char* lpPath)
{
    if (!TalvorConfigInit(lpPath)) return;
    char szValue[256];
    TalvorConfigGetValueString("System", "databasepath", "", szValue, sizeof(szValue));
    TalvorConfigGetValueInt("System", "Language", 0);
    TalvorConfigGetValueInt("Cluster", "NodeType", 0);
    TalvorConfigSetValueString("System", "Language", "1");
    TalvorConfigSetValueString("FuzzSection", "key", "value");
    TalvorConfigClose();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    // An empty file is read again for a while on purpose (a writer without
    // the lock may be mid-rewrite): 100 ms that teach nothing per input.
    if (nSize == 0 || nSize > 16384) return 0;
    std::string strPath = talvorfuzz::RamDir() + "TalvorConfig.ini";
    if (!talvorfuzz::WriteFileBytes(strPath, lpData, nSize)) return 0;
    ThroughTree(strPath.c_str());
    ReadBack(strPath.c_str());
    ConfigValueToInt(std::string((const char*)lpData, strnlen((const char*)lpData, nSize)).c_str());
    return 0;
}
