// DbFileCheck.cpp — the system file, its control data and its file list;
// each listed file is handed to the walker of its mode.
#include "DbFileCheck.h"

#include "DbFileLayout.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>

namespace {

// A system file whose head claims more than this is not trusted to be read.
const long long SYSTEMFILE_READ_LIMIT = 1LL << 32;

void CopyText(char* lpDst, size_t nDst, const char* lpSrc, size_t nSrcMax)
{
    size_t n = strnlen(lpSrc, nSrcMax);
    if (n >= nDst) n = nDst - 1;
    memcpy(lpDst, lpSrc, n);
    lpDst[n] = '\0';
}

} // namespace

const char* DbCheckKindName(int nKind)
{
    switch (nKind) {
    case DBCHECK_READ: return "read";
    case DBCHECK_HEAD: return "head";
    case DBCHECK_MARK: return "mark";
    case DBCHECK_LOOP: return "loop";
    case DBCHECK_BOUND: return "bound";
    case DBCHECK_COMMIT: return "commit";
    case DBCHECK_FILELIST: return "filelist";
    default: return "?";
    }
}

const char* DbFileTypeName(BYTE bFileType)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM: return "system";
    case FILETYPE_DATA: return "data";
    case FILETYPE_BTREEINDEX: return "btree-index";
    case FILETYPE_KVINDEX: return "kv-index";
    case FILETYPE_TABLE: return "table";
    case FILETYPE_INDEX: return "index";
    default: return "unknown";
    }
}

LPBYTE DbReadWholeFile(int fd, long long* pnSize)
{
    struct stat st;
    if (CTalvorFileIO::Current()->FStat(fd, &st) != 0 || st.st_size < 0) return nullptr;
    long long nSize = (long long)st.st_size;
    LPBYTE lpBuf = (LPBYTE)malloc(nSize > 0 ? (size_t)nSize : 1);
    if (lpBuf == nullptr) return nullptr;
    if (nSize > 0 && !TalvorReadFull(fd, lpBuf, (size_t)nSize, 0)) {
        free(lpBuf);
        return nullptr;
    }
    *pnSize = nSize;
    return lpBuf;
}

CDbChecker::CDbChecker(LPDBFINDINGFN pFinding, LPDBPROGRESSFN pProgress, void* pContext)
    : m_pFinding(pFinding), m_pProgress(pProgress), m_pContext(pContext), m_lpSystem(nullptr), m_nSystemSize(0),
      m_nFiles(0), m_nFindings(0), m_arFiles(nullptr)
{
}

CDbChecker::~CDbChecker()
{
    free(m_lpSystem);
    delete[] m_arFiles;
}

void CDbChecker::Report(int nKind, LPDBFILESUMMARY pFile, long long nOffset, const char* lpFormat, ...)
{
    DBFINDING st;
    memset(&st, 0, sizeof(st));
    st.m_nKind = nKind;
    st.m_nOffset = nOffset;
    if (pFile != nullptr) {
        st.m_bFileNo = pFile->m_bFileNo;
        memcpy(st.m_szPath, pFile->m_szPath, sizeof(st.m_szPath));
        pFile->m_nFindings++;
    }
    va_list ap;
    va_start(ap, lpFormat);
    vsnprintf(st.m_szText, sizeof(st.m_szText), lpFormat, ap);
    va_end(ap);
    m_nFindings++;
    if (m_pFinding != nullptr) m_pFinding(m_pContext, &st);
}

BOOL CDbChecker::Load(const char* lpszSystemPath)
{
    m_arFiles = new (std::nothrow) DBFILESUMMARY[DBCHECK_MAX_FILES];
    if (m_arFiles == nullptr) return FALSE;
    memset(m_arFiles, 0, sizeof(DBFILESUMMARY) * DBCHECK_MAX_FILES);
    LPDBFILESUMMARY pSystem = &m_arFiles[0];
    pSystem->m_bFileNo = SYSTEMFILE_FILENO;
    pSystem->m_bFileType = FILETYPE_SYSTEM;
    pSystem->m_nDiskSize = -1;
    pSystem->m_nListSize = -1;
    CopyText(pSystem->m_szPath, sizeof(pSystem->m_szPath), lpszSystemPath, strlen(lpszSystemPath));
    CopyText(pSystem->m_szName, sizeof(pSystem->m_szName), SHMNAME_SYSTEMFILE, sizeof(SHMNAME_SYSTEMFILE));
    m_nFiles = 1;

    int fd = CTalvorFileIO::Current()->Open(lpszSystemPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        Report(DBCHECK_READ, pSystem, -1, "cannot open the system file: %s", strerror(errno));
        return FALSE;
    }
    m_lpSystem = DbReadWholeFile(fd, &m_nSystemSize);
    int nErr = errno;
    CTalvorFileIO::Current()->Close(fd);
    if (m_lpSystem == nullptr) {
        Report(DBCHECK_READ, pSystem, -1, "cannot read the system file: %s", strerror(nErr));
        return FALSE;
    }
    pSystem->m_nDiskSize = m_nSystemSize;
    if (m_nSystemSize < (long long)sizeof(SYSTEMFILEHEAD) || m_nSystemSize > SYSTEMFILE_READ_LIMIT) {
        Report(DBCHECK_HEAD, pSystem, 0, "the system file has %lld bytes, fewer than its head's %d", m_nSystemSize,
               (int)sizeof(SYSTEMFILEHEAD));
        free(m_lpSystem);
        m_lpSystem = nullptr;
        return FALSE;
    }
    const SYSTEMFILEHEAD* lpHead = SystemHead();
    pSystem->m_bHeadRead = TRUE;
    pSystem->m_nDataFlag = lpHead->m_nDataFlag;
    pSystem->m_bHeadFileNo = lpHead->m_bFileNo;
    pSystem->m_bHeadFileType = lpHead->m_bFileType;
    pSystem->m_usDatabaseGuid = lpHead->m_usDatabaseGuid;
    pSystem->m_nTimestamp = lpHead->m_nTimestamp;
    pSystem->m_nFileTotalSize = lpHead->m_nFileTotalSize;
    pSystem->m_nFreeOffset = lpHead->m_nFileFreePos;
    pSystem->m_nBlockNum = lpHead->m_nBlockNum;
    pSystem->m_nMaxObjectNum = lpHead->m_nMaxObjectNum;
    pSystem->m_nCurrentObjectNum = lpHead->m_nCurrentObjectNum;
    pSystem->m_nHeaderSize = lpHead->m_nFileHeaderSize;
    pSystem->m_nBlockMapSize = lpHead->m_nBlockMapSize;
    pSystem->m_nBlockMapStartOffset = lpHead->m_nBlockMapStartOffset;
    pSystem->m_nBlockStartOffset = lpHead->m_nBlockStartOffset;
    pSystem->m_nListSize = lpHead->m_nFileTotalSize;
    CheckFileList();
    return TRUE;
}

// The rows of the list, in the daemon's order (full chain, then free). A
// damaged chain or block is a finding; the rows read before it are kept.
void CDbChecker::CheckFileList()
{
    LPDBFILESUMMARY pSystem = &m_arFiles[0];
    int nResult = DbForEachFileListRow(m_lpSystem, m_nSystemSize, [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bFileNo == SYSTEMFILE_FILENO) return true;
        if (m_nFiles >= DBCHECK_MAX_FILES) return false;
        LPDBFILESUMMARY p = &m_arFiles[m_nFiles++];
        p->m_bFileNo = lpRow->m_bFileNo;
        p->m_bFileType = lpRow->m_bFileType;
        p->m_bDropFlag = lpRow->m_bDropFlag;
        CopyText(p->m_szPath, sizeof(p->m_szPath), lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
        CopyText(p->m_szName, sizeof(p->m_szName), lpRow->m_lpszTablespaceName, sizeof(lpRow->m_lpszTablespaceName));
        p->m_nListSize = lpRow->m_nFileSize;
        p->m_nDiskSize = -1;
        return true;
    });
    if (nResult == DBCHAIN_LOOP)
        Report(DBCHECK_LOOP, pSystem, -1, "the file list's chain of blocks comes back on itself");
    else if (nResult == DBCHAIN_OUTSIDE)
        Report(DBCHECK_BOUND, pSystem, -1, "the file list's chain of blocks leaves the file");
    else if (nResult == DBCHAIN_STOPPED && m_nFiles < DBCHECK_MAX_FILES)
        Report(DBCHECK_FILELIST, pSystem, -1,
               "a block of the file list does not fit the file or holds rows of another size than %d bytes",
               (int)sizeof(FILE_MEMDBFILEINFO));
    CheckListRows();
}

void CDbChecker::CheckListRows()
{
    LPDBFILESUMMARY pSystem = &m_arFiles[0];
    BOOL arSeen[MAX_FILE_NUM] = {FALSE};
    for (int i = 1; i < m_nFiles; i++) {
        LPDBFILESUMMARY p = &m_arFiles[i];
        if (p->m_bDropFlag == 1) continue;
        if (arSeen[p->m_bFileNo])
            Report(DBCHECK_FILELIST, pSystem, -1, "file number %d is listed twice (again for %s)", p->m_bFileNo,
                   p->m_szPath);
        arSeen[p->m_bFileNo] = TRUE;
        if (p->m_bFileNo == 0 || FileHeadDataFlag(p->m_bFileType) == 0)
            Report(DBCHECK_FILELIST, pSystem, -1, "the row of %s gives file number %d and type %d", p->m_szPath,
                   p->m_bFileNo, p->m_bFileType);
        if (p->m_szPath[0] == '\0')
            Report(DBCHECK_FILELIST, pSystem, -1, "the row of file %d has no path", p->m_bFileNo);
    }
}

void CDbChecker::CheckSystemHead()
{
    LPDBFILESUMMARY p = &m_arFiles[0];
    const SYSTEMFILEHEAD* h = SystemHead();
    if (h->m_nDataFlag != SYSTEMFILE_DATAFLAG)
        Report(DBCHECK_MARK, p, 0, "the system head's mark is 0x%08X, not 0x%08X (QNSF)", (UINT)h->m_nDataFlag,
               (UINT)SYSTEMFILE_DATAFLAG);
    if (h->m_bFileNo != SYSTEMFILE_FILENO || h->m_bFileType != FILETYPE_SYSTEM)
        Report(DBCHECK_HEAD, p, 12, "the system head names file %d of type %d, not file 1 of type 1", h->m_bFileNo,
               h->m_bFileType);
    if (h->m_nFileTotalSize != m_nSystemSize)
        Report(DBCHECK_BOUND, p, 30, "the system head gives a size of %lld bytes, the file has %lld",
               (long long)h->m_nFileTotalSize, m_nSystemSize);
    if (h->m_nFileHeaderSize < (int)sizeof(SYSTEMFILEHEAD) || h->m_nFileHeaderSize > m_nSystemSize)
        Report(DBCHECK_BOUND, p, 38, "the system head's size %d is below %d or past the file", h->m_nFileHeaderSize,
               (int)sizeof(SYSTEMFILEHEAD));
    long long nMapEnd = (long long)h->m_nBlockMapStartOffset + 2LL * h->m_nBlockMapSize;
    if (h->m_nBlockMapStartOffset < h->m_nFileHeaderSize || h->m_nBlockMapSize < (int)sizeof(BASEFILEBLOCKMAPHEAD) ||
        nMapEnd > m_nSystemSize)
        Report(DBCHECK_BOUND, p, 50, "the first map (%d bytes at %d, and its copy) does not lie behind the head inside the file",
               h->m_nBlockMapSize, h->m_nBlockMapStartOffset);
    CheckCommit();
}

// The 80 bytes that each commit writes, read as one: a commit cut part way
// leaves values that no whole commit writes.
void CDbChecker::CheckCommit()
{
    LPDBFILESUMMARY p = &m_arFiles[0];
    const SYSTEMFILEHEAD* h = SystemHead();
    if (h->m_nBeginTimestamp < 0 || h->m_nBeginTimestamp > h->m_nEndTimestamp)
        Report(DBCHECK_COMMIT, p, 122,
               "the persisted-up-to timestamp %lld runs ahead of the newest committed %lld: a commit was torn",
               (long long)h->m_nBeginTimestamp, (long long)h->m_nEndTimestamp);
    if (h->m_nFileFreePos < h->m_nBlockStartOffset || h->m_nFileFreePos > h->m_nFileTotalSize)
        Report(DBCHECK_COMMIT, p, 78, "the free position %lld lies outside the block area [%lld, %lld]",
               (long long)h->m_nFileFreePos, (long long)h->m_nBlockStartOffset, (long long)h->m_nFileTotalSize);
    if (h->m_nVersion != DB_FORMAT_VERSION)
        Report(DBCHECK_COMMIT, p, 106, "the format version is %d, not %d", h->m_nVersion, DB_FORMAT_VERSION);
    if (h->m_nRedoLogMaxID == 0)
        Report(DBCHECK_COMMIT, p, 118, "the next redo log number is 0; numbers start at 1");
    int nGroups = h->m_nWriteRedoOnlineGroups;
    if (nGroups >= REDOGROUP_MIN && nGroups <= REDOGROUP_MAX && h->m_bCurrentRedoGroup >= nGroups)
        Report(DBCHECK_COMMIT, p, 117, "the current redo group %d is not one of the %d groups", h->m_bCurrentRedoGroup,
               nGroups);
    if (h->m_usTableTimestampNum > SYSTEMFILE_TIMESTAMP_NUM || h->m_usIndexTimestampNum > SYSTEMFILE_TIMESTAMP_NUM)
        Report(DBCHECK_BOUND, p, SYSTEMFILE_TABLETSARRAY_OFFSET, "the cache timestamp counts %d and %d pass %d",
               h->m_usTableTimestampNum, h->m_usIndexTimestampNum, SYSTEMFILE_TIMESTAMP_NUM);
}

void CDbChecker::LookAtFile(LPDBFILESUMMARY pFile, BOOL bWalk)
{
    int fd = CTalvorFileIO::Current()->Open(pFile->m_szPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        Report(DBCHECK_READ, pFile, -1, "cannot open the file: %s", strerror(errno));
        return;
    }
    struct stat st;
    if (CTalvorFileIO::Current()->FStat(fd, &st) == 0) pFile->m_nDiskSize = (long long)st.st_size;
    if (pFile->m_nDiskSize != pFile->m_nListSize)
        Report(DBCHECK_BOUND, pFile, -1, "the file list gives %lld bytes, the file has %lld", pFile->m_nListSize,
               pFile->m_nDiskSize);
    USHORT usGuid = SystemHead()->m_usDatabaseGuid;
    if (IsCacheFileType(pFile->m_bFileType))
        DbCheckCacheFile(this, pFile, fd, usGuid, bWalk);
    else
        DbCheckMemoryFile(this, pFile, fd, usGuid, bWalk);
    CTalvorFileIO::Current()->Close(fd);
}

int CDbChecker::Run(BOOL bWalk)
{
    if (m_lpSystem == nullptr) return m_nFindings;
    int nCount = 0;
    for (int i = 0; i < m_nFiles; i++)
        if (m_arFiles[i].m_bDropFlag != 1) nCount++;
    int nIndex = 0;
    if (m_pProgress != nullptr) m_pProgress(m_pContext, nIndex, nCount, m_arFiles[0].m_szPath);
    CheckSystemHead();
    if (bWalk) DbWalkMemoryImage(this, &m_arFiles[0], m_lpSystem, m_nSystemSize);
    for (int i = 1; i < m_nFiles; i++) {
        LPDBFILESUMMARY p = &m_arFiles[i];
        if (p->m_bDropFlag == 1 || FileHeadDataFlag(p->m_bFileType) == 0) continue;
        if (m_pProgress != nullptr) m_pProgress(m_pContext, ++nIndex, nCount, p->m_szPath);
        LookAtFile(p, bWalk);
    }
    if (m_pProgress != nullptr) m_pProgress(m_pContext, nCount, nCount, "");
    return m_nFindings;
}
