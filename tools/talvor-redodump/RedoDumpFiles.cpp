// RedoDumpFiles.cpp — the command line, and the files of a directory in log
// order: group files (Redo<g>.log) and archive files (Log<n>.log) in the
// directory, in its Redo/ and in its ArchiveLog/. A log found both archived
// and still in its group is dumped once, from the archive.
#include "RedoDump.h"

#include "MemDBCommonDef.h"
#include "RedoLogFormat.h"
#include "TalvorFileIO.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace talvorredodump {

namespace {

struct FoundFile {
    std::string m_strPath;
    UINT m_nLogNo;      // 0 when the head names none or cannot be read
    bool m_bArchive;
};

void Usage(FILE* pErr)
{
    fprintf(pErr,
            "usage: talvor-redodump [--stats] FILE|DIR...\n"
            "  FILE is a redo group file (Redo<g>.log) or an archive file (Log<n>.log).\n"
            "  DIR is searched, with its Redo/ and ArchiveLog/, for both; logs come out in number order.\n"
            "  --stats  a summary of each file instead of its records\n");
}

// N of "<stem>N.log", or -1.
long long NumberOf(const char* lpName, const char* lpStem)
{
    size_t nStem = strlen(lpStem);
    if (strncmp(lpName, lpStem, nStem) != 0) return -1;
    char* lpEnd = nullptr;
    long long n = strtoll(lpName + nStem, &lpEnd, 10);
    if (lpEnd == lpName + nStem || strcmp(lpEnd, ".log") != 0) return -1;
    return n;
}

UINT LogNumberIn(const std::string& strPath)
{
    int fd = CTalvorFileIO::Current()->Open(strPath.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return 0;
    MF_REDOLOGFILEHEAD h;
    bool bRead = TalvorReadFull(fd, &h, sizeof(h), 0) != FALSE;
    CTalvorFileIO::Current()->Close(fd);
    return bRead ? h.m_nSequenceNO : 0;
}

void Collect(const std::string& strDir, std::vector<FoundFile>* pFiles)
{
    DIR* pDir = CTalvorFileIO::Current()->OpenDir(strDir.c_str());
    if (pDir == nullptr) return;
    while (struct dirent* p = readdir(pDir)) {
        bool bGroup = NumberOf(p->d_name, "Redo") >= 0;
        bool bArchive = NumberOf(p->d_name, "Log") >= 0;
        if (!bGroup && !bArchive) continue;
        std::string strPath = strDir + p->d_name;
        pFiles->push_back({strPath, LogNumberIn(strPath), bArchive});
    }
    CTalvorFileIO::Current()->CloseDir(pDir);
}

void CollectDirectory(std::string strDir, std::vector<FoundFile>* pFiles)
{
    if (strDir.empty() || strDir.back() != '/') strDir += "/";
    Collect(strDir, pFiles);
    Collect(strDir + "Redo/", pFiles);
    Collect(strDir + "ArchiveLog/", pFiles);
}

int DumpInLogOrder(std::vector<FoundFile>& vFiles, bool bStats, FILE* pOut)
{
    std::sort(vFiles.begin(), vFiles.end(), [](const FoundFile& a, const FoundFile& b) {
        if (a.m_nLogNo != b.m_nLogNo) return a.m_nLogNo < b.m_nLogNo;
        if (a.m_bArchive != b.m_bArchive) return a.m_bArchive;
        return a.m_strPath < b.m_strPath;
    });
    int nResult = REDODUMP_WHOLE;
    for (size_t i = 0; i < vFiles.size(); i++) {
        const FoundFile& f = vFiles[i];
        if (i > 0 && f.m_nLogNo != 0 && f.m_nLogNo == vFiles[i - 1].m_nLogNo) {
            fprintf(pOut, "file: %s\n  log %u, dumped above from %s\n", f.m_strPath.c_str(), f.m_nLogNo,
                    vFiles[i - 1].m_strPath.c_str());
            continue;
        }
        if (DumpRedoFile(f.m_strPath.c_str(), bStats, pOut) != REDODUMP_WHOLE) nResult = REDODUMP_REFUSED;
    }
    return nResult;
}

} // namespace

int RunRedoDump(int argc, char** argv, FILE* pOut, FILE* pErr)
{
    bool bStats = false;
    std::vector<const char*> vPaths;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--stats") == 0) {
            bStats = true;
        } else if (strcmp(argv[i], "--help") == 0) {
            Usage(pOut);
            return REDODUMP_WHOLE;
        } else if (argv[i][0] == '-') {
            Usage(pErr);
            return REDODUMP_USAGE;
        } else {
            vPaths.push_back(argv[i]);
        }
    }
    if (vPaths.empty()) {
        Usage(pErr);
        return REDODUMP_USAGE;
    }
    // Files named one by one are dumped in the order given; what
    // directories hold, in log order, with every directory's files together.
    std::vector<FoundFile> vFound;
    int nResult = REDODUMP_WHOLE;
    for (const char* lpPath : vPaths) {
        struct stat st;
        if (CTalvorFileIO::Current()->Stat(lpPath, &st) == 0 && S_ISDIR(st.st_mode)) {
            size_t nBefore = vFound.size();
            CollectDirectory(lpPath, &vFound);
            if (vFound.size() == nBefore) {
                fprintf(pOut, "refused: %s at offset 0: no redo group or archive file here\n", lpPath);
                nResult = REDODUMP_REFUSED;
            }
        } else if (DumpRedoFile(lpPath, bStats, pOut) != REDODUMP_WHOLE) {
            nResult = REDODUMP_REFUSED;
        }
    }
    if (DumpInLogOrder(vFound, bStats, pOut) != REDODUMP_WHOLE) nResult = REDODUMP_REFUSED;
    return nResult;
}

} // namespace talvorredodump
