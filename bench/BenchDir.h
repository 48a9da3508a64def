// BenchDir.h — where a benchmark makes its file: a new directory under
// $TALVOR_BENCH_DIR (default /var/tmp, a real disk rather than a tmpfs).
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

// Makes the directory; its path in *pstrDir. False when it cannot.
inline bool MakeBenchDir(std::string* pstrDir)
{
    const char* lpBase = getenv("TALVOR_BENCH_DIR");
    std::string strTemplate = std::string(lpBase != nullptr ? lpBase : "/var/tmp") + "/talvor-bench-XXXXXX";
    std::vector<char> v(strTemplate.begin(), strTemplate.end());
    v.push_back('\0');
    if (mkdtemp(v.data()) == nullptr) return false;
    *pstrDir = v.data();
    return true;
}
