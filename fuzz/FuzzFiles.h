// FuzzFiles.h — a private directory for one fuzz process and whole-file
// writes into it, for the targets whose reader takes a path. The process
// runs one input at a time, so one directory serves every input.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace talvorfuzz {

// "/tmp/talvor-fuzz-<pid>/", made on first use and left at exit (a run
// is a throw-away process).
inline const std::string& FuzzDir()
{
    static std::string s_strDir = [] {
        char szDir[64];
        snprintf(szDir, sizeof(szDir), "/tmp/talvor-fuzz-%d/", (int)getpid());
        std::string strCmd = std::string("mkdir -p ") + szDir;
        if (system(strCmd.c_str()) != 0) abort();
        return std::string(szDir);
    }();
    return s_strDir;
}

// Replaces the file with exactly these bytes; false when it could not.
inline bool WriteFileBytes(const std::string& strPath, const void* lpData, size_t nSize)
{
    int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    const char* p = (const char*)lpData;
    size_t nDone = 0;
    while (nDone < nSize) {
        ssize_t n = pwrite(fd, p + nDone, nSize - nDone, (off_t)nDone);
        if (n <= 0) break;
        nDone += (size_t)n;
    }
    close(fd);
    return nDone == nSize;
}

} // namespace talvorfuzz
