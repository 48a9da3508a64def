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

inline std::string& ProcessDirs()
{
    static std::string s_strDirs;
    return s_strDirs;
}

// At a normal end of the run (libFuzzer's time or run limit) the
// directories go; after a crash they stay for a look.
inline void RemoveProcessDirs()
{
    if (ProcessDirs().empty()) return;
    std::string strCmd = "rm -rf" + ProcessDirs();
    if (system(strCmd.c_str()) != 0) fprintf(stderr, "could not remove%s\n", ProcessDirs().c_str());
}

inline std::string MakeProcessDir(const char* lpRoot)
{
    char szDir[96];
    snprintf(szDir, sizeof(szDir), "%s/talvor-fuzz-%d/", lpRoot, (int)getpid());
    std::string strCmd = std::string("mkdir -p ") + szDir;
    if (system(strCmd.c_str()) != 0) abort();
    if (ProcessDirs().empty()) atexit(RemoveProcessDirs);
    ProcessDirs() += std::string(" ") + szDir;
    return std::string(szDir);
}

// True when a file in lpDir can be opened for direct I/O (tmpfs can since
// Linux 6.6).
inline bool DirectIoWorksIn(const char* lpDir)
{
    std::string strProbe = std::string(lpDir) + "/talvor-fuzz-direct-" + std::to_string((int)getpid());
    int fd = open(strProbe.c_str(), O_RDWR | O_CREAT | O_DIRECT, 0644);
    if (fd >= 0) close(fd);
    unlink(strProbe.c_str());
    return fd >= 0;
}

// "<root>/talvor-fuzz-<pid>/", made on first use and left at exit (a run
// is a throw-away process). The data files are opened for direct I/O: in
// /dev/shm where it allows that, every load is a copy in memory; otherwise
// on disk in /tmp, where every load is a read of the device.
inline const std::string& FuzzDir()
{
    static std::string s_strDir = MakeProcessDir(DirectIoWorksIn("/dev/shm") ? "/dev/shm" : "/tmp");
    return s_strDir;
}

// The same in /dev/shm (a private tmpfs under tests/isolate.sh), for files
// that are synced on every write and need no direct I/O.
inline const std::string& RamDir()
{
    static std::string s_strDir = MakeProcessDir("/dev/shm");
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
