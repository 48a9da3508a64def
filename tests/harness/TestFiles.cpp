// TestFiles.cpp — whole-file reading and writing, listing.
#include "TestFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace talvortest {

namespace {

bool WriteWith(const std::string& strPath, int nFlags, long long nOffset, const std::string& strData)
{
    int fd = open(strPath.c_str(), nFlags | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool bOk = WriteFdAt(fd, nOffset, strData);
    if (close(fd) != 0) bOk = false;
    return bOk;
}

} // namespace

bool WriteFdAt(int fd, long long nOffset, const std::string& strData)
{
    size_t nDone = 0;
    while (nDone < strData.size()) {
        ssize_t n = pwrite(fd, strData.data() + nDone, strData.size() - nDone, (off_t)(nOffset + (long long)nDone));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        nDone += (size_t)n;
    }
    return true;
}

std::string ReadFdAt(int fd, long long nOffset, long long nSize)
{
    std::string strData((size_t)(nSize > 0 ? nSize : 0), '\0');
    size_t nDone = 0;
    while (nDone < strData.size()) {
        ssize_t n = pread(fd, &strData[nDone], strData.size() - nDone, (off_t)(nOffset + (long long)nDone));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        nDone += (size_t)n;
    }
    strData.resize(nDone);
    return strData;
}

// To its end as it is when the read gets there: a trace file may grow.
std::string ReadWholeFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool WriteWholeFile(const std::string& strPath, const std::string& strData)
{
    return WriteWith(strPath, O_WRONLY | O_CREAT | O_TRUNC, 0, strData);
}

bool WriteFileAt(const std::string& strPath, long long nOffset, const std::string& strData)
{
    return WriteWith(strPath, O_WRONLY, nOffset, strData);
}

std::string ReadFileAt(const std::string& strPath, long long nOffset, long long nSize)
{
    int fd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::string();
    std::string strData = ReadFdAt(fd, nOffset, nSize);
    close(fd);
    return strData;
}

long long FileSizeOf(const std::string& strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

bool PathExists(const std::string& strPath) { return access(strPath.c_str(), F_OK) == 0; }

size_t CountOf(const std::string& strText, const std::string& strWhat)
{
    size_t n = 0;
    for (size_t p = strText.find(strWhat); p != std::string::npos; p = strText.find(strWhat, p + 1)) n++;
    return n;
}

std::vector<std::string> ListFiles(const std::string& strDir, const std::string& strPrefix)
{
    std::vector<std::string> vFiles;
    DIR* pDir = opendir(strDir.c_str());
    if (pDir == nullptr) return vFiles;
    while (struct dirent* pEntry = readdir(pDir)) {
        std::string strName = pEntry->d_name;
        if (strName == "." || strName == "..") continue;
        if (strName.compare(0, strPrefix.size(), strPrefix) == 0) vFiles.push_back(strDir + strName);
    }
    closedir(pDir);
    std::sort(vFiles.begin(), vFiles.end());
    return vFiles;
}

} // namespace talvortest
