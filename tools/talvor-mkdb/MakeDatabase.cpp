// MakeDatabase.cpp — writes the system file and every memory-mode and
// cache-mode file of a new database. The layout comes from DbFileLayout, the
// same one the daemon reads by.
//
// Nothing is overwritten: every path is tested before the first byte is
// written, files are created exclusively, and a failure removes what this
// run created. The system file is written last, so a database that is not
// complete has none.
#include "CacheFileHeadArea.h"
#include "DbFileLayout.h"
#include "LinuxCommonAPI.h"
#include "MkdbTool.h"
#include "TalvorFileIO.h"
#include "TerminalProgress.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

namespace talvormkdb {

namespace {

const int ZERO_PIECE_SIZE = 1048576;
// Files at least this large show their writing on a terminal.
const long long PROGRESS_MIN_SIZE = 64 * DB_MIB;

struct PlannedFile {
    BYTE m_bFileNo;
    BYTE m_bFileType;
    std::string m_strPath;
    std::string m_strName;
    long long m_nSize;
};

const char* KindName(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM: return "system";
    case FILETYPE_DATA: return "data";
    case FILETYPE_BTREEINDEX: return "b-tree index";
    case FILETYPE_KVINDEX: return "KV index";
    case FILETYPE_TABLE: return "table";
    case FILETYPE_INDEX: return "index";
    default: return "?";
    }
}

const char* FileStem(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_DATA: return "Data";
    case FILETYPE_BTREEINDEX: return "BTree";
    case FILETYPE_TABLE: return "Table";
    case FILETYPE_INDEX: return "Index";
    default: return "KV";
    }
}

// mkdir -p, then the absolute form with a trailing "/".
bool PrepareDirectory(const std::string& strDir, std::string* pstrAbsolute)
{
    std::string strPath = strDir + "/";
    for (size_t i = 1; i < strPath.size(); i++) {
        if (strPath[i] != '/') continue;
        std::string strPart = strPath.substr(0, i);
        if (mkdir(strPart.c_str(), 0777) != 0 && errno != EEXIST) {
            fprintf(stderr, "talvor-mkdb: cannot make directory %s: %s\n", strPart.c_str(), strerror(errno));
            return false;
        }
    }
    char szReal[PATH_MAX];
    if (realpath(strDir.c_str(), szReal) == nullptr) {
        fprintf(stderr, "talvor-mkdb: cannot resolve %s: %s\n", strDir.c_str(), strerror(errno));
        return false;
    }
    *pstrAbsolute = szReal;
    if (pstrAbsolute->empty() || pstrAbsolute->back() != '/') *pstrAbsolute += "/";
    return true;
}

USHORT NewDatabaseGuid()
{
    uuid_t uuid;
    for (;;) {
        uuid_generate(uuid);
        USHORT usGuid = (USHORT)(uuid[0] | (uuid[1] << 8));
        if (usGuid != 0) return usGuid;
    }
}

FILE_MEMDBFILEINFO MakeRow(const PlannedFile& stFile, int nMaxObjectNum)
{
    FILE_MEMDBFILEINFO stRow;
    memset(&stRow, 0, sizeof(stRow));
    stRow.m_bFileNo = stFile.m_bFileNo;
    stRow.m_bFileType = stFile.m_bFileType;
    strncpy(stRow.m_lpszFilePath, stFile.m_strPath.c_str(), sizeof(stRow.m_lpszFilePath) - 1);
    strncpy(stRow.m_lpszTablespaceName, stFile.m_strName.c_str(), sizeof(stRow.m_lpszTablespaceName) - 1);
    stRow.m_nFileSize = stFile.m_nSize;
    stRow.m_nMaxObjectNum = nMaxObjectNum;
    return stRow;
}

// Writes the used part from lpUsed, then zeros up to the size, so the whole
// file is allocated at once; all through direct, aligned transfers.
bool WriteNewFile(const PlannedFile& stFile, const BYTE* lpUsed, long long nUsed)
{
    int fd = CTalvorFileIO::Current()->Open(stFile.m_strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_DIRECT | O_CLOEXEC,
                                            0666);
    if (fd < 0) {
        fprintf(stderr, "talvor-mkdb: cannot create %s: %s\n", stFile.m_strPath.c_str(), strerror(errno));
        return false;
    }
    chmod(stFile.m_strPath.c_str(), 0666);
    LPBYTE lpZero = (LPBYTE)get_aligned_buffer(ZERO_PIECE_SIZE);
    bool bDone = lpZero != nullptr && TalvorWriteFull(fd, lpUsed, (size_t)nUsed, 0);
    if (lpZero != nullptr) memset(lpZero, 0, ZERO_PIECE_SIZE);
    CTalvorTerminalProgress progress(stFile.m_nSize >= PROGRESS_MIN_SIZE ? stderr : nullptr);
    for (long long nPos = nUsed; bDone && nPos < stFile.m_nSize;) {
        long long nPiece = stFile.m_nSize - nPos < ZERO_PIECE_SIZE ? stFile.m_nSize - nPos : ZERO_PIECE_SIZE;
        bDone = TalvorWriteFull(fd, lpZero, (size_t)nPiece, (off_t)nPos);
        nPos += nPiece;
        progress.Show(stFile.m_strPath.c_str(), nPos / DB_MIB, stFile.m_nSize / DB_MIB, "MiB");
    }
    progress.End();
    bDone = bDone && CTalvorFileIO::Current()->FSync(fd) == 0;
    int nErr = errno;
    free(lpZero);
    CTalvorFileIO::Current()->Close(fd);
    if (!bDone) {
        fprintf(stderr, "talvor-mkdb: cannot write %s: %s\n", stFile.m_strPath.c_str(), strerror(nErr));
        unlink(stFile.m_strPath.c_str());  // created by this run, above
    }
    return bDone;
}

bool MakeMemoryFile(const PlannedFile& stFile, USHORT usGuid)
{
    DBMEMFILEPLAN stPlan;
    if (!DbPlanMemoryFile(stFile.m_bFileType, stFile.m_nSize, DB_MEMFILE_DEFAULT_OBJECTS,
                          DbDefaultBlockSize(stFile.m_bFileType), &stPlan)) {
        fprintf(stderr, "talvor-mkdb: %s is too small for its head, maps and first block\n", stFile.m_strPath.c_str());
        return false;
    }
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer((size_t)stPlan.m_nFreeOffset);
    bool bDone = lpBuf != nullptr && DbBuildMemoryFile(stPlan, stFile.m_bFileNo, usGuid, lpBuf, stPlan.m_nFreeOffset) &&
                 WriteNewFile(stFile, lpBuf, stPlan.m_nFreeOffset);
    free(lpBuf);
    return bDone;
}

// A cache-mode file: its head area (head, extended heads, first map) and
// zeros; the engine takes its blocks from the free part as it needs them.
bool MakeCacheFile(const PlannedFile& stFile, USHORT usGuid)
{
    CACHEHEADAREADEF stDef;
    stDef.m_bFileNo = stFile.m_bFileNo;
    stDef.m_bFileType = stFile.m_bFileType;
    stDef.m_usDatabaseGuid = usGuid;
    stDef.m_nMaxObjectNum = DB_MEMFILE_DEFAULT_OBJECTS;
    stDef.m_nFileSize = stFile.m_nSize;
    stDef.m_nTimestamp = 0;
    const long long nArea = CacheHeadAreaSize(stDef.m_bFileType, stDef.m_nMaxObjectNum);
    LPBYTE lpBuf = nArea > 0 ? (LPBYTE)get_aligned_buffer((size_t)nArea) : nullptr;
    bool bDone = lpBuf != nullptr && stFile.m_nSize >= DB_CACHEFILE_MIN_SIZE &&
                 CacheBuildHeadArea(stDef, lpBuf, nArea, nullptr);
    if (lpBuf != nullptr && !bDone)
        fprintf(stderr, "talvor-mkdb: %s is too small for a cache-mode file\n", stFile.m_strPath.c_str());
    bDone = bDone && WriteNewFile(stFile, lpBuf, nArea);
    free(lpBuf);
    return bDone;
}

bool MakeSystemFile(const PlannedFile& stSystem, const std::vector<FILE_MEMDBFILEINFO>& vRows, USHORT usGuid,
                    const MakeRequest& stRequest, const std::string& strDir)
{
    DBSYSFILEPLAN stPlan;
    if (!DbPlanSystemFile((int)vRows.size(), DB_SYSTEMFILE_LISTBLOCK_SIZE, stSystem.m_nSize, &stPlan)) return false;
    LPBYTE lpBuf = (LPBYTE)get_aligned_buffer((size_t)stPlan.m_nFreeOffset);
    bool bDone = lpBuf != nullptr && DbBuildSystemFile(stPlan, vRows.data(), usGuid, stRequest.m_strName.c_str(),
                                                        strDir.c_str(), lpBuf, stPlan.m_nFreeOffset);
    if (bDone) {
        LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)lpBuf;
        lpHead->m_nWriteRedoOnlineGroups = stRequest.m_nRedoGroups;
        lpHead->m_nWriteRedoMaxSize = stRequest.m_nRedoSizeMiB * (int)DB_MIB;
        bDone = WriteNewFile(stSystem, lpBuf, stPlan.m_nFreeOffset);
    }
    free(lpBuf);
    return bDone;
}

} // namespace

int MakeDatabase(const MakeRequest& stRequest)
{
    std::string strDir;
    if (!PrepareDirectory(stRequest.m_strDir, &strDir)) return 1;
    if (strDir.size() + 16 > sizeof(((FILE_MEMDBFILEINFO*)nullptr)->m_lpszFilePath)) {
        fprintf(stderr, "talvor-mkdb: the directory path is too long: %s\n", strDir.c_str());
        return 1;
    }

    PlannedFile stSystem = {SYSTEMFILE_FILENO, FILETYPE_SYSTEM, strDir + DB_SYSTEMFILE_NAME, SHMNAME_SYSTEMFILE,
                            DB_SYSTEMFILE_SIZE};
    std::vector<PlannedFile> vFiles;
    for (size_t i = 0; i < stRequest.m_vFiles.size(); i++) {
        const FileRequest& stReq = stRequest.m_vFiles[i];
        BYTE bFileNo = (BYTE)(i + 2);
        std::string strName = std::string(FileStem(stReq.m_bFileType)) + std::to_string(bFileNo);
        vFiles.push_back({bFileNo, stReq.m_bFileType, strDir + strName + ".dbf", strName, stReq.m_nSizeMiB * DB_MIB});
    }

    // Refuse before anything is written.
    if (access(stSystem.m_strPath.c_str(), F_OK) == 0) {
        fprintf(stderr, "talvor-mkdb: a database exists already: %s\n", stSystem.m_strPath.c_str());
        return 1;
    }
    for (const PlannedFile& stFile : vFiles) {
        if (access(stFile.m_strPath.c_str(), F_OK) == 0) {
            fprintf(stderr, "talvor-mkdb: a file exists already: %s\n", stFile.m_strPath.c_str());
            return 1;
        }
    }

    USHORT usGuid = NewDatabaseGuid();
    std::vector<FILE_MEMDBFILEINFO> vRows;
    vRows.push_back(MakeRow(stSystem, SYSTEMFILE_OBJECT_NUM));
    for (const PlannedFile& stFile : vFiles) vRows.push_back(MakeRow(stFile, DB_MEMFILE_DEFAULT_OBJECTS));

    std::vector<std::string> vMade;
    bool bDone = true;
    for (const PlannedFile& stFile : vFiles) {
        bDone = IsCacheFileType(stFile.m_bFileType) ? MakeCacheFile(stFile, usGuid) : MakeMemoryFile(stFile, usGuid);
        if (!bDone) break;
        vMade.push_back(stFile.m_strPath);
    }
    bDone = bDone && MakeSystemFile(stSystem, vRows, usGuid, stRequest, strDir);
    if (!bDone) {
        for (const std::string& strPath : vMade) unlink(strPath.c_str());
        fprintf(stderr, "talvor-mkdb: no database was made in %s\n", strDir.c_str());
        return 1;
    }

    printf("Made database \"%s\" (guid %u) in %s\n", stRequest.m_strName.c_str(), (unsigned)usGuid, strDir.c_str());
    printf("  file  1  %-12s %8lld MiB  %s\n", KindName(FILETYPE_SYSTEM), stSystem.m_nSize / DB_MIB,
           stSystem.m_strPath.c_str());
    for (const PlannedFile& stFile : vFiles)
        printf("  file %2d  %-12s %8lld MiB  %s\n", stFile.m_bFileNo, KindName(stFile.m_bFileType),
               stFile.m_nSize / DB_MIB, stFile.m_strPath.c_str());
    printf("  redo: %d groups of %d MiB\n", stRequest.m_nRedoGroups, stRequest.m_nRedoSizeMiB);
    return 0;
}

} // namespace talvormkdb
