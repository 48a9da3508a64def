// BreltMemStorageFileCommand.cpp — the file commands of the file list: the
// engine writes a command into a file's row (add, move, resize, delete), the
// storage thread carries it out and writes the result into the same byte.
//
// Every command leaves a database that the next start loads, also when the
// process dies or the power goes in the middle of it:
//  * a new file is complete and synced, with its directory, before its row
//    may reach the disk (the save pass keeps a row with a command or an
//    unread answer off the disk, and the row says 0 only once the file is
//    whole);
//  * a moved file's new copy is complete, synced and reopened, and the list
//    on disk names it, before the old file is removed;
//  * a deleted file's row is marked dropped on disk before the file goes.
// Paths come from the engine's image: they are held to the row's field and
// to the database's directories before anything is made or removed there.
#include "BreltMemStorage.h"

#include "CacheFileHeadArea.h"
#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorFileStorage.h"
#include "TalvorFlashback.h"
#include "TalvorMemoryStorage.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>
#include <unistd.h>

namespace {

// The work buffer of add, move and resize.
const int FILECMD_BUFFER_SIZE = 0x400000;
// A released image may still be touched by the engine for a moment.
const useconds_t DELETE_RELEASE_PAUSE_US = 100000;
const size_t ROW_PATH_SIZE = sizeof(((FILE_MEMDBFILEINFO*)nullptr)->m_lpszFilePath);
const size_t ROW_NAME_SIZE = sizeof(((FILE_MEMDBFILEINFO*)nullptr)->m_lpszTablespaceName);

// A text field of a shared row may lack its terminator.
void CopyRowText(char* lpDst, size_t nDstSize, const char* lpSrc, size_t nSrcSize)
{
    size_t nLen = strnlen(lpSrc, nSrcSize);
    if (nLen > nDstSize - 1) nLen = nDstSize - 1;
    memset(lpDst, 0, nDstSize);
    memcpy(lpDst, lpSrc, nLen);
}

struct RowText {
    char m_szPath[ROW_PATH_SIZE + 1];
    char m_szName[ROW_NAME_SIZE + 1];
    // TRUE when the path filled its field with no terminator: cut.
    BOOL m_bPathCut;
    explicit RowText(const FILE_MEMDBFILEINFO* lpRow)
    {
        CopyRowText(m_szPath, sizeof(m_szPath), lpRow->m_lpszFilePath, ROW_PATH_SIZE);
        CopyRowText(m_szName, sizeof(m_szName), lpRow->m_lpszTablespaceName, ROW_NAME_SIZE);
        // The descriptor keeps 255 characters and a terminator.
        m_bPathCut = strnlen(lpRow->m_lpszFilePath, ROW_PATH_SIZE) >= ROW_PATH_SIZE;
    }
};

BOOL SamePath(const char* a, const char* b) { return strncasecmp(a, b, ROW_PATH_SIZE) == 0; }
BOOL SameName(const char* a, const char* b) { return strncasecmp(a, b, ROW_NAME_SIZE) == 0; }

long long RowFileSize(const FILE_MEMDBFILEINFO* lpRow)
{
    long long n = 0;
    memcpy(&n, (const void*)&lpRow->m_nFileSize, sizeof(n));
    return n;
}

void SetRowResult(LPFILE_MEMDBFILEINFO lpRow, BYTE bResult)
{
    TalvorFlushCPU4Write();
    lpRow->m_bFileCMD = bResult;
}

// The 4 MiB work buffer, or the module's when it cannot be had. A backend
// may replace the buffer by a larger one; the module's pointer follows.
class WorkBuffer {
public:
    WorkBuffer(LPBYTE& lpModuleBuffer, int& nModuleSize)
        : m_lpModule(lpModuleBuffer), m_nModule(nModuleSize),
          m_lpBuffer((LPBYTE)CTalvorCacheStorage::get_aligned_buffer(FILECMD_BUFFER_SIZE)),
          m_nSize(FILECMD_BUFFER_SIZE), m_bOwn(m_lpBuffer != nullptr)
    {
        if (!m_bOwn) {
            m_lpBuffer = lpModuleBuffer;
            m_nSize = nModuleSize;
        }
    }
    ~WorkBuffer()
    {
        if (m_bOwn) {
            free(m_lpBuffer);
        } else {
            m_lpModule = m_lpBuffer;
            m_nModule = m_nSize;
        }
    }
    WorkBuffer(const WorkBuffer&) = delete;
    WorkBuffer& operator=(const WorkBuffer&) = delete;
    LPBYTE& Buffer() { return m_lpBuffer; }
    int& Size() { return m_nSize; }

private:
    LPBYTE& m_lpModule;
    int& m_nModule;
    LPBYTE m_lpBuffer;
    int m_nSize;
    BOOL m_bOwn;
};

// The directory of a path, without its last "/"; "" for none.
void DirectoryOf(const char* lpszPath, char* lpDir, size_t nDirSize)
{
    const char* lpSlash = strrchr(lpszPath, '/');
    size_t n = lpSlash == nullptr ? 0 : (size_t)(lpSlash - lpszPath);
    if (n >= nDirSize) n = nDirSize - 1;
    memcpy(lpDir, lpszPath, n);
    lpDir[n] = 0;
}

// A plain absolute path: no "." or ".." part, no empty part, no trailing "/".
BOOL PlainAbsolutePath(const char* lpszPath)
{
    if (lpszPath[0] != '/') return FALSE;
    const char* p = lpszPath + 1;
    while (TRUE) {
        const char* lpEnd = strchr(p, '/');
        size_t n = lpEnd == nullptr ? strlen(p) : (size_t)(lpEnd - p);
        if (n == 0) return FALSE;
        if ((n == 1 && p[0] == '.') || (n == 2 && p[0] == '.' && p[1] == '.')) return FALSE;
        if (lpEnd == nullptr) return TRUE;
        p = lpEnd + 1;
    }
}

// TRUE when lpszPath lies under the directory lpszRoot (a plain absolute
// path) — below it, not the directory itself.
BOOL UnderDirectory(const char* lpszPath, const char* lpszRoot)
{
    size_t n = strlen(lpszRoot);
    if (n == 0) return FALSE;
    if (strncmp(lpszPath, lpszRoot, n) != 0) return FALSE;
    return lpszRoot[n - 1] == '/' ? lpszPath[n] != 0 : lpszPath[n] == '/' && lpszPath[n + 1] != 0;
}

// The deepest existing directory on the way to lpszPath, resolved; FALSE
// when none can be resolved.
BOOL ResolveExistingParent(const char* lpszPath, char* lpResolved)
{
    char szDir[PATH_MAX];
    DirectoryOf(lpszPath, szDir, sizeof(szDir));
    while (szDir[0] != 0) {
        if (realpath(szDir, lpResolved) != nullptr) return TRUE;
        char szUp[PATH_MAX];
        DirectoryOf(szDir, szUp, sizeof(szUp));
        memcpy(szDir, szUp, sizeof(szDir));
    }
    return realpath("/", lpResolved) != nullptr;
}

// The directories made for a new file and the file's own name are on the
// medium: each directory from the file's up to lpszRoot is synced.
int SyncDirectoriesUpTo(const char* lpszPath, const char* lpszRoot)
{
    char szPath[PATH_MAX];
    snprintf(szPath, sizeof(szPath), "%s", lpszPath);
    int nResult = 0;
    for (int nDepth = 0; nDepth < 64; nDepth++) {
        if (TalvorSyncParentDirectory(szPath) != 0) nResult = -1;
        char szDir[PATH_MAX];
        DirectoryOf(szPath, szDir, sizeof(szDir));
        if (szDir[0] == 0 || !UnderDirectory(szDir, lpszRoot)) break;
        memcpy(szPath, szDir, sizeof(szPath));
    }
    return nResult;
}

} // namespace

stu_FILEINFO* CBreltMemStorageModule::FindStorageInfo(BYTE bFileNo)
{
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext)
        if (p->m_bFileNo == bFileNo) return p;
    return nullptr;
}

void CBreltMemStorageModule::UnlinkStorageInfo(stu_FILEINFO* pGone)
{
    for (stu_FILEINFO** pp = &m_pStorageInfo; *pp != nullptr; pp = &(*pp)->m_pNext) {
        if (*pp != pGone) continue;
        *pp = pGone->m_pNext;
        pGone->m_pNext = nullptr;
        return;
    }
}

BOOL CBreltMemStorageModule::FilePathAllowed(const char* lpszPath, LONG nCode)
{
    BOOL bAllowed = lpszPath[0] != 0 && PlainAbsolutePath(lpszPath);
    char szRoot[PATH_MAX];
    char szResolvedRoot[PATH_MAX];
    char szResolved[PATH_MAX];
    // The parent that exists must stay under a root once links are followed:
    // a link inside the database pointing elsewhere is no way out.
    BOOL bResolved = bAllowed && ResolveExistingParent(lpszPath, szResolved);
    BOOL bInside = FALSE;
    for (stu_FILEINFO* p = m_lpSystemFileInfo; bResolved && !bInside && p != nullptr;
         p = p == m_lpSystemFileInfo ? m_pStorageInfo : p->m_pNext) {
        DirectoryOf(p->m_lpszFilePath, szRoot, sizeof(szRoot));
        if (!PlainAbsolutePath(szRoot) && strcmp(szRoot, "") != 0) continue;
        if (!UnderDirectory(lpszPath, szRoot[0] != 0 ? szRoot : "/")) continue;
        if (realpath(szRoot[0] != 0 ? szRoot : "/", szResolvedRoot) == nullptr) continue;
        bInside = strcmp(szResolved, szResolvedRoot) == 0 || UnderDirectory(szResolved, szResolvedRoot);
    }
    if (bInside) return TRUE;
    Trace("MemFileCMD", 1, nCode,
          TALVOR_TEXT("文件命令的路径不在数据库的目录之内,拒绝执行,路径:%s",
                      "The path of a file command lies outside the database's directories, so the system refused to execute, path: %s"),
          lpszPath);
    return FALSE;
}

HRESULT CBreltMemStorageModule::MemFileCMD(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpSystemBlockHead)
{
    if (lpSystemBlockHead->m_nObjectID != SYSTEMFILE_FILELIST_OBJECTID) {
        Trace("MemFileCMD", 1, 10060001,
              TALVOR_TEXT("数据块的对象标识不正确,要求值:%d,实际值:%d",
                          "The object representation of the data block is incorrect, required value: %d, actual value: %d"),
              SYSTEMFILE_FILELIST_OBJECTID, (int)lpSystemBlockHead->m_nObjectID);
        return E_FAIL;
    }
    if (lpSystemBlockHead->m_nBlockDataStructSize != (int)sizeof(FILE_MEMDBFILEINFO)) {
        Trace("MemFileCMD", 1, 10060002,
              TALVOR_TEXT("数据块的结构大小已改变,当前系统值:%d,记录值:%d",
                          "The structure size of data block has changed, current system value: %d, recorded value: %d"),
              (int)sizeof(FILE_MEMDBFILEINFO), (int)lpSystemBlockHead->m_nBlockDataStructSize);
        return E_FAIL;
    }
    LPBYTE lpBlock = (LPBYTE)lpSystemBlockHead;
    long long nBlockSize = lpSystemBlockHead->m_nBlockSize;
    long long nAt = lpSystemBlockHead->m_nBlockHeadSize;
    // m_nDataNum is read again after each row (the engine may append), and
    // held to the block, whose size the caller checked.
    for (int i = 0; i < lpSystemBlockHead->m_nDataNum; i++, nAt += (long long)sizeof(FILE_MEMDBFILEINFO)) {
        if (nAt < (long long)sizeof(SYSTEMBLOCKHEAD) || nAt + (long long)sizeof(FILE_MEMDBFILEINFO) > nBlockSize) break;
        LPFILE_MEMDBFILEINFO lpRow = (LPFILE_MEMDBFILEINFO)(lpBlock + nAt);
        BOOL bStop = FALSE;
        switch (lpRow->m_bFileCMD) {
        case FILECMD_ADD: SetRowResult(lpRow, FileCmdAdd(lpCritSection, lpSystemBlockHead, lpRow, bStop)); break;
        case FILECMD_MOVE: SetRowResult(lpRow, FileCmdMove(lpCritSection, lpSystemBlockHead, lpRow)); break;
        case FILECMD_RESIZE:
            SetRowResult(lpRow, lpRow->m_bFileType == FILETYPE_SYSTEM ? FileCmdResizeSystem(lpCritSection, lpRow)
                                                                      : FileCmdResize(lpCritSection, lpRow));
            break;
        case FILECMD_DELETE: SetRowResult(lpRow, FileCmdDelete(lpCritSection, lpSystemBlockHead, lpRow)); break;
        default: break;  // no command, or a result the engine has not read
        }
        if (bStop) return S_OK;
    }
    return S_OK;
}

// ------------------------------------------------------------------- add

stu_FILEINFO* CBreltMemStorageModule::NewDescriptorFromRow(LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow)
{
    stu_FILEINFO* p = (stu_FILEINFO*)calloc(1, sizeof(stu_FILEINFO));
    if (p == nullptr) return nullptr;
    CopyRowText(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), lpRow->m_lpszFilePath, ROW_PATH_SIZE);
    CopyRowText(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), lpRow->m_lpszTablespaceName, ROW_NAME_SIZE);
    p->m_bFileNo = lpRow->m_bFileNo;
    p->m_bFileType = (char)lpRow->m_bFileType;
    p->m_liFileSize = RowFileSize(lpRow);
    p->m_nMaxObjectNum = lpRow->m_nMaxObjectNum;
    p->m_pLoadSize = &lpRow->m_nLoadSize;
    TalvorSetLoadSize(p, 0);
    p->m_pSaveFlag = &lpBlock->m_bSaveFlag;
    p->m_lpFileInfo = lpRow;
    return p;
}

void CBreltMemStorageModule::AbandonAdd(stu_FILEINFO* p, BOOL bRemoveFile)
{
    if (p->m_pStorageFile != nullptr) p->m_pStorageFile->Release();
    // Release closes what the backend opened; a handle it did not reach is
    // closed here, so that no descriptor is left behind.
    Talvor_CloseFile(p->m_hFile);
    Talvor_CloseFile(p->m_hFile2);
    if (bRemoveFile && CTalvorFileIO::Current()->Unlink(p->m_lpszFilePath) == 0)
        TalvorSyncParentDirectory(p->m_lpszFilePath);
    if (m_arFileInfo[p->m_bFileNo] == p) m_arFileInfo[p->m_bFileNo] = nullptr;
    free(p);
}

BYTE CBreltMemStorageModule::FileCmdAdd(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock,
                                        LPFILE_MEMDBFILEINFO lpRow, BOOL& bStop)
{
    RowText row(lpRow);
    const BYTE bFileNo = lpRow->m_bFileNo;
    const BYTE bFileType = lpRow->m_bFileType;
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
        if (p->m_bFileNo == bFileNo) {
            Trace("MemFileCMD", 1, 10060011,
                  TALVOR_TEXT("系统收到创建新内存文件的命令,但文件号重复,拒绝执行,文件号:%d,原文件路径:%s,新文件路径:%s",
                              "The system received command to create new memory files, but the file number duplicated, so the system refused to execute, file number: %d, original file path: %s, new file path: %s"),
                  (int)bFileNo, p->m_lpszFilePath, row.m_szPath);
            return FILECMD_ADD_NUMBERTAKEN;
        }
        if (SamePath(p->m_lpszFilePath, row.m_szPath)) {
            Trace("MemFileCMD", 1, 10060012,
                  TALVOR_TEXT("系统收到创建新内存文件的命令,但文件路径重复,拒绝执行,文件路径:%s,原文件号:%d,新文件号:%d",
                              "The system received command to create new memory files, but the file path duplicated, so the system refused to execute, file path: %s, original file number: %d, new file number: %d"),
                  row.m_szPath, (int)p->m_bFileNo, (int)bFileNo);
            return FILECMD_PATHTAKEN;
        }
        if (SameName(p->m_lpszTablespaceName, row.m_szName)) {
            Trace("MemFileCMD", 1, 10060013,
                  TALVOR_TEXT("系统收到创建新内存文件的命令,但内存文件名重复,拒绝执行,内存文件名:%s,原文件号:%d,新文件号:%d",
                              "The system received command to create new memory file, but the memory file name duplicated, so the system refused to execute, memory file name: %s, original file number: %d, new file number: %d"),
                  row.m_szName, (int)p->m_bFileNo, (int)bFileNo);
            return FILECMD_ADD_NAMETAKEN;
        }
    }
    if (bFileType == FILETYPE_SYSTEM) {
        Trace("MemFileCMD", 1, 10060014,
              TALVOR_TEXT("系统收到创建新系统文件的命令,拒绝执行,文件路径:%s,内存文件名:%s,文件号:%d",
                          "The system received command to create new system files, but the system refused to execute, file path: %s, memory file name: %s, file number: %d"),
              row.m_szPath, row.m_szName, (int)bFileNo);
        bStop = TRUE;
        return FILECMD_ADD_SYSTEMFILE;
    }
    // The system file holds number 1 outside the list, and number 0 is no
    // file: either would make a list the next start refuses.
    if (bFileNo == SYSTEMFILE_FILENO || SamePath(m_lpSystemFileInfo->m_lpszFilePath, row.m_szPath)) {
        Trace("MemFileCMD", 1, 10060017,
              TALVOR_TEXT("系统收到创建新内存文件的命令,但文件号或路径属于系统文件,拒绝执行,文件号:%d,文件路径:%s",
                          "The system received command to create new memory files, but the file number or path is the system file's, so the system refused to execute, file number: %d, file path: %s"),
              (int)bFileNo, row.m_szPath);
        return bFileNo == SYSTEMFILE_FILENO ? FILECMD_ADD_NUMBERTAKEN : FILECMD_PATHTAKEN;
    }
    if (bFileNo == 0 || row.m_bPathCut || row.m_szName[0] == 0 ||
        (!IsMemoryFileType(bFileType) && !IsCacheFileType(bFileType))) {
        Trace("MemFileCMD", 1, 10060018,
              TALVOR_TEXT("系统收到创建新内存文件的命令,但文件号、文件类型、路径或内存文件名无效,拒绝执行,文件号:%d,文件类型:%d,文件路径:%s,内存文件名:%s",
                          "The system received command to create new memory files, but its file number, file type, path or memory file name is not valid, so the system refused to execute, file number: %d, file type: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, (int)bFileType, row.m_szPath, row.m_szName);
        return FILECMD_ADD_FAILED;
    }
    if (!FilePathAllowed(row.m_szPath, 10060019)) return FILECMD_ADD_FAILED;

    stu_FILEINFO* p = NewDescriptorFromRow(lpBlock, lpRow);
    if (p == nullptr) {
        Trace("MemFileCMD", 1, 10060020,
              TALVOR_TEXT("执行添加文件命令时内存不足,文件号:%d", "Out of memory when executing add file command, file number: %d"),
              (int)bFileNo);
        bStop = TRUE;
        return FILECMD_ADD_OUTOFMEMORY;
    }
    IVirtualStorageFile* pStorage = nullptr;
    if (IsCacheFileType(bFileType)) {
        if (m_pTalvorCacheStorage == nullptr) {
            Trace("MemFileCMD", 1, 10060015,
                  TALVOR_TEXT("系统收到创建新内存文件的命令,但缓存指针为空,不允许创建磁盘文件,文件号:%d,文件路径:%s,内存文件名:%s",
                              "The system received command to create new memory files, but disk files are not allowed to be created since cache pointer is empty, file number: %d, file path: %s, memory file name: %s"),
                  (int)bFileNo, row.m_szPath, row.m_szName);
            AbandonAdd(p, FALSE);
            return FILECMD_ADD_FAILED;
        }
        pStorage = new (std::nothrow) CTalvorFileStorage(m_pTalvorCacheStorage);
    } else {
        pStorage = new (std::nothrow) CTalvorMemoryStorage();
    }
    if (pStorage == nullptr) {
        // Tried again at the next walk; nothing is held meanwhile.
        AbandonAdd(p, FALSE);
        return FILECMD_ADD;
    }
    // Set before the file is made, so that a cache thread that looks for
    // files without a backend does not make a second one.
    p->m_pStorageFile = pStorage;
    if (IsCacheFileType(bFileType) && TakeCachePages(lpCritSection, p) != 0) {
        Trace("MemFileCMD", 1, 10060016,
              TALVOR_TEXT("系统收到创建新内存文件的命令,但执行创建新内存文件失败,文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received command to create new memory files but failed to execute new memory files, file number: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, row.m_szPath, row.m_szName);
        AbandonAdd(p, FALSE);
        return FILECMD_ADD_FAILED;
    }
    const BOOL bExisted = TalvorPathExists(p->m_lpszFilePath);
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetTalvorProgress() : nullptr;
    int nResult = 0;
    {
        WorkBuffer work(m_lpBuffer, m_nBufferSize);
        nResult = pStorage->NewFile(lpCritSection, p, work.Buffer(), work.Size(), m_pMemoryFileHead->m_usDatabaseGuid,
                                    m_pFlashback, lpProgress, m_pMemoryFileHead->m_bOpenFileUseBuffer);
    }
    // The new file's name and the directories made for it reach the medium
    // before the row can say the file is there.
    char szRoot[PATH_MAX];
    DirectoryOf(m_lpSystemFileInfo->m_lpszFilePath, szRoot, sizeof(szRoot));
    if (nResult == 0 && SyncDirectoriesUpTo(p->m_lpszFilePath, szRoot) != 0) {
        Trace("MemFileCMD", 1, 10060027,
              TALVOR_TEXT("新文件的目录同步失败,错误码:%d,文件路径:%s",
                          "Failed to sync the directory of the new file, error code: %d, file path: %s"),
              errno, p->m_lpszFilePath);
        nResult = 1;
    }
    if (nResult != 0) {
        Trace("MemFileCMD", 1, 10060016,
              TALVOR_TEXT("系统收到创建新内存文件的命令,但执行创建新内存文件失败,文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received command to create new memory files but failed to execute new memory files, file number: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, row.m_szPath, row.m_szName);
        // A file that was there before belongs to someone else.
        AbandonAdd(p, !bExisted);
        return FILECMD_ADD_FAILED;
    }
    p->m_pNext = m_pStorageInfo;
    m_pStorageInfo = p;
    // Published whole: the cache's threads find files by number, and one
    // that found a half-made file would flush into it or free under it.
    TalvorStoreShared(&m_arFileInfo[bFileNo], p);
    return FILECMD_NONE;
}

int CBreltMemStorageModule::TakeCachePages(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p)
{
    CTalvorCacheStorage* pCache = m_pTalvorCacheStorage;
    if (pCache == nullptr || pCache->m_pCacheBufferHead == nullptr) return 1;
    // Pages the engine already hung for the file are used as they are.
    if (pCache->m_pCacheBufferHead->m_nFileInfoNo[p->m_bFileNo] != 0) return 0;
    long long nArea = CacheHeadAreaSize((BYTE)p->m_bFileType, p->m_nMaxObjectNum);
    if (nArea <= 0) return 1;
    for (long long n = 0; n < nArea / CACHE_PAGE_SIZE; n++) {
        long long llCacheOffset = 0;
        if (pCache->LoadFile2Cache(lpCritSection, p->m_bFileNo, llCacheOffset) != 0) return 1;
    }
    return 0;
}

// ------------------------------------------------------- the list on disk

BOOL CBreltMemStorageModule::SettleFileListRow(const FILE_MEMDBFILEINFO* lpLiveRow, LPFILE_MEMDBFILEINFO lpRow)
{
    if (lpRow->m_bDropFlag == 1) return TRUE;
    const BYTE bFileNo = lpRow->m_bFileNo;
    // The system file's own row, not any row that claims its number.
    if (m_lpSystemFileInfo != nullptr && lpLiveRow == m_lpSystemFileInfo->m_lpFileInfo) return TRUE;
    // Only the row the descriptor was built from, or that its add filled:
    // another row naming the same number is a request, not the file.
    const stu_FILEINFO* p = FindStorageInfo(bFileNo);
    if (p == nullptr || p->m_lpFileInfo != lpLiveRow) return FALSE;
    CopyRowText(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), p->m_lpszFilePath, sizeof(p->m_lpszFilePath));
    lpRow->m_bFileType = (BYTE)p->m_bFileType;
    lpRow->m_nFileSize = TalvorLoadShared(&p->m_liFileSize);
    return TRUE;
}

BOOL CBreltMemStorageModule::CommitFileListRow(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock,
                                               LPFILE_MEMDBFILEINFO lpRow, BYTE bResult, const char* lpszFilePath,
                                               BOOL* pbUndone)
{
    if (pbUndone != nullptr) *pbUndone = FALSE;
    LPBYTE lpImage = m_lpSystemFileInfo->m_pFileAddr;
    long long nBlockOffset = (LPBYTE)lpBlock - lpImage;
    long long nRowOffset = (LPBYTE)lpRow - lpImage;
    int nBlockSize = lpBlock->m_nBlockSize;
    int fd = Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile);
    // Only this row changes on disk: the block's other rows may carry
    // commands not carried out yet, and stay as the disk has them.
    FILE_MEMDBFILEINFO stRow;
    memcpy(&stRow, (const void*)lpRow, sizeof(stRow));
    stRow.m_bFileCMD = bResult;
    if (lpszFilePath != nullptr) snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", lpszFilePath);
    FILE_MEMDBFILEINFO stBefore;
    BOOL bDone = FALSE;
    int nErr = 0;
    {
        CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
        BOOL bRead = fd >= 0 && nBlockSize >= (int)sizeof(SYSTEMBLOCKHEAD) &&
                     nRowOffset + (long long)sizeof(stRow) <= nBlockOffset + nBlockSize &&
                     TalvorReadFull(fd, &stBefore, sizeof(stBefore), (off_t)nRowOffset);
        bDone = bRead && TalvorWriteFull(fd, &stRow, sizeof(stRow), (off_t)nRowOffset) &&
                CTalvorFileIO::Current()->FSync(fd) == 0;
        nErr = bDone ? 0 : (errno != 0 ? errno : EINVAL);
        // Whether the row reached the medium is not known after a failed
        // sync: the row the disk had goes back, and only a sync of that
        // tells the caller the disk names what it named before.
        if (!bDone && bRead && pbUndone != nullptr)
            *pbUndone = TalvorWriteFull(fd, &stBefore, sizeof(stBefore), (off_t)nRowOffset) &&
                        CTalvorFileIO::Current()->FSync(fd) == 0;
    }
    if (bDone) return TRUE;
    Trace("MemFileCMD", 1, 10060044,
          TALVOR_TEXT("将文件列表的记录写入系统文件失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                      "Failed to write the row of the file list to the system file, error code: %d, path: %s, write location: %lld, write size: %d"),
          nErr, m_lpSystemFileInfo->m_lpszFilePath, nRowOffset, (int)sizeof(stRow));
    return FALSE;
}

// ------------------------------------------------------------------ move

int CBreltMemStorageModule::MoveFileData(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p,
                                         const char* lpszNewPath)
{
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetTalvorProgress() : nullptr;
    if (IsCacheFileType((BYTE)p->m_bFileType)) {
        if (m_pTalvorCacheStorage == nullptr) return 1;
        char szNewPath[ROW_PATH_SIZE];
        snprintf(szNewPath, sizeof(szNewPath), "%s", lpszNewPath);
        WorkBuffer work(m_lpBuffer, m_nBufferSize);
        return p->m_pStorageFile->ChangeFilePath(lpCritSection, p, szNewPath, work.Buffer(), work.Size(), lpProgress,
                                                 m_pMemoryFileHead->m_bOpenFileUseBuffer);
    }
    char szOldPath[sizeof(p->m_lpszFilePath)];
    memcpy(szOldPath, p->m_lpszFilePath, sizeof(szOldPath));
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", lpszNewPath);
    int nResult = p->m_pStorageFile->Save2File(p, TRUE, lpProgress);
    // A failed copy leaves the descriptor on the file it still holds open.
    if (nResult != 0) memcpy(p->m_lpszFilePath, szOldPath, sizeof(szOldPath));
    return nResult;
}

namespace {

// A move's answer leaves the row naming the file that holds the data. The
// row lives in the system file's image, which every pass writes once no row
// of its block carries a command: left naming the requested path after a
// failure, a half copy there (one that was in the way, or one a kill left)
// would be the file the next start loads, whether or not an engine ever
// reads the result; left naming what an engine wrote into it while the
// copy ran (a second request over one a dead daemon left unanswered), it
// would name a file that is not there, or not whole.
BYTE MoveAnswer(LPFILE_MEMDBFILEINFO lpRow, const stu_FILEINFO* p, BYTE bResult)
{
    snprintf(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), "%s", p->m_lpszFilePath);
    return bResult;
}

} // namespace

BYTE CBreltMemStorageModule::FileCmdMove(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock,
                                         LPFILE_MEMDBFILEINFO lpRow)
{
    RowText row(lpRow);
    const BYTE bFileNo = lpRow->m_bFileNo;
    BOOL bTaken = FALSE;
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) {
        if (p->m_bFileNo == bFileNo || !SamePath(p->m_lpszFilePath, row.m_szPath)) continue;
        Trace("MemFileCMD", 1, 10060021,
              TALVOR_TEXT("系统收到修改物理文件路径的命令,但文件路径重复,拒绝执行,文件路径:%s,原文件号:%d,新文件号:%d",
                          "The system received command to modify the physical file path, but the file path duplicated, so the system refused to execute, file path: %s, original file number: %d, new file number: %d"),
              row.m_szPath, (int)p->m_bFileNo, (int)bFileNo);
        bTaken = TRUE;
        break;
    }
    stu_FILEINFO* p = FindStorageInfo(bFileNo);
    if (p == nullptr) {
        Trace("MemFileCMD", 1, 10060022,
              TALVOR_TEXT("系统收到修改物理文件路径的命令,但未找到指定的文件信息,拒绝执行,原文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received command to modify physical file path but did not find the specified file information, so the system refused to execute, original file number: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, row.m_szPath, row.m_szName);
        return FILECMD_NO_SUCH_FILE;
    }
    // Left naming another file's path, the row would give two files one path.
    if (bTaken) return MoveAnswer(lpRow, p, FILECMD_PATHTAKEN);
    // The file's own path is no move: nothing to copy, nothing to remove.
    if (strcmp(p->m_lpszFilePath, row.m_szPath) == 0) return FILECMD_NONE;
    if (SamePath(m_lpSystemFileInfo->m_lpszFilePath, row.m_szPath)) return MoveAnswer(lpRow, p, FILECMD_PATHTAKEN);
    if (row.m_bPathCut || p->m_pStorageFile == nullptr || !FilePathAllowed(row.m_szPath, 10060028) ||
        !FilePathAllowed(p->m_lpszFilePath, 10060028)) {
        Trace("MemFileCMD", 1, 10060023,
              TALVOR_TEXT("系统收到修改物理文件路径的命令,但写入新文件失败,文件路径:%s,内存文件名:%s",
                          "The system received command to modify the physical file path but failed to write to the new file, file path: %s, memory file name: %s"),
              row.m_szPath, row.m_szName);
        return MoveAnswer(lpRow, p, FILECMD_MOVE_FAILED);
    }
    char szOldPath[sizeof(p->m_lpszFilePath)];
    memcpy(szOldPath, p->m_lpszFilePath, sizeof(szOldPath));
    const BOOL bExisted = TalvorPathExists(row.m_szPath);
    char szRoot[PATH_MAX];
    DirectoryOf(m_lpSystemFileInfo->m_lpszFilePath, szRoot, sizeof(szRoot));
    // A cache-mode file is held off the cache's threads from the copy until
    // the list names the copy: nothing is written to either file meanwhile,
    // so that the move can still be taken back whole.
    const BOOL bCache = IsCacheFileType((BYTE)p->m_bFileType) && m_pTalvorCacheStorage != nullptr;
    if (bCache && !m_pTalvorCacheStorage->PauseFile(p->m_bFileNo)) return MoveAnswer(lpRow, p, FILECMD_MOVE_FAILED);
    int nResult = MoveFileData(lpCritSection, p, row.m_szPath);
    BOOL bCopied = nResult == 0;
    // The new file's name on the medium, then the list naming it, and only
    // then the old file may go. The list names the copy just made, not the
    // path the row holds by now.
    BOOL bListUnknown = FALSE;
    if (nResult == 0 && SyncDirectoriesUpTo(p->m_lpszFilePath, szRoot) != 0) nResult = 1;
    if (nResult == 0) {
        BOOL bUndone = FALSE;
        if (!CommitFileListRow(lpCritSection, lpBlock, lpRow, FILECMD_NONE, p->m_lpszFilePath, &bUndone)) {
            nResult = 1;
            bListUnknown = !bUndone;
        }
    }
    // The list on disk still names the old file, which is whole: the file
    // goes back there, or later passes would leave it behind.
    if (nResult != 0 && bCopied && TakeMoveBack(lpCritSection, p, szOldPath) != 0) {
        if (bCache) m_pTalvorCacheStorage->ResumeFile();
        return MoveAnswer(lpRow, p, FILECMD_MOVE_FAILED);
    }
    if (bCache) m_pTalvorCacheStorage->ResumeFile();
    if (nResult != 0) {
        Trace("MemFileCMD", 1, 10060023,
              TALVOR_TEXT("系统收到修改物理文件路径的命令,但写入新文件失败,文件路径:%s,内存文件名:%s",
                          "The system received command to modify the physical file path but failed to write to the new file, file path: %s, memory file name: %s"),
              row.m_szPath, row.m_szName);
        // A copy the list on disk may name stays where it is.
        if (!bExisted && !bListUnknown && CTalvorFileIO::Current()->Unlink(row.m_szPath) == 0)
            TalvorSyncParentDirectory(row.m_szPath);
        return MoveAnswer(lpRow, p, FILECMD_MOVE_FAILED);
    }
    if (CTalvorFileIO::Current()->Unlink(szOldPath) != 0 || TalvorSyncParentDirectory(szOldPath) != 0) {
        Trace("MemFileCMD", 1, 10060029,
              TALVOR_TEXT("文件已移动,但删除原磁盘文件失败,错误码:%d,原文件路径:%s,新文件路径:%s",
                          "The file was moved, but the old disk file could not be removed, error code: %d, old file path: %s, new file path: %s"),
              errno, szOldPath, p->m_lpszFilePath);
    }
    return MoveAnswer(lpRow, p, FILECMD_NONE);
}

int CBreltMemStorageModule::TakeMoveBack(LPTALVORCRITICALSECTION lpCritSection, stu_FILEINFO* p, const char* lpszOldPath)
{
    int nResult = 1;
    if (IsCacheFileType((BYTE)p->m_bFileType)) {
        char szNewPath[sizeof(p->m_lpszFilePath)];
        memcpy(szNewPath, p->m_lpszFilePath, sizeof(szNewPath));
        Talvor_CloseFile(p->m_hFile);
        Talvor_CloseFile(p->m_hFile2);
        snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", lpszOldPath);
        nResult = p->m_pStorageFile->OpenFile(lpCritSection, p, m_pMemoryFileHead->m_bOpenFileUseBuffer);
        if (nResult != 0 || p->m_hFile == nullptr) {
            // The old file cannot be had: the copy, whole, stays in use.
            Talvor_CloseFile(p->m_hFile);
            Talvor_CloseFile(p->m_hFile2);
            memcpy(p->m_lpszFilePath, szNewPath, sizeof(szNewPath));
            p->m_pStorageFile->OpenFile(lpCritSection, p, m_pMemoryFileHead->m_bOpenFileUseBuffer);
            nResult = 1;
        }
    } else {
        nResult = static_cast<CTalvorMemoryStorage*>(p->m_pStorageFile)->SwitchBackTo(lpszOldPath);
    }
    if (nResult == 0) return 0;
    Trace("MemFileCMD", 1, 10060030,
          TALVOR_TEXT("文件移动未完成且无法回到原文件,新文件继续使用,原文件路径:%s,新文件路径:%s",
                      "The move did not finish and the file could not go back to its old place, so the copy stays in use, old file path: %s, new file path: %s"),
          lpszOldPath, p->m_lpszFilePath);
    return 1;
}

// ---------------------------------------------------------------- resize

BYTE CBreltMemStorageModule::FileCmdResizeSystem(LPTALVORCRITICALSECTION lpCritSection, LPFILE_MEMDBFILEINFO lpRow)
{
    const long long nTarget = RowFileSize(lpRow);
    const char* lpszPath = m_lpSystemFileInfo->m_lpszFilePath;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    int fd = Talvor_FileDescriptor(m_lpSystemFileInfo->m_hFile);
    // The file's own size, not the descriptor's: the image keeps its size
    // until the next start, so after one resize the descriptor no longer
    // tells where the file ends, and a second resize counted from it would
    // overshoot.
    off_t nEnd = fd >= 0 ? CTalvorFileIO::Current()->LSeek(fd, 0, SEEK_END) : (off_t)-1;
    if (nEnd < 0) {
        Trace("MemFileCMD", 1, 10060024,
              TALVOR_TEXT("执行添加文件命令时移动文件指针失败,错误码:%d,路径:%s",
                          "Failed to move file pointer when executing add file command, error code: %d, path: %s"),
              fd >= 0 ? errno : EBADF, lpszPath);
        return FILECMD_RESIZE_FAILED;
    }
    // A system file never shrinks under its blocks.
    if (nTarget < (long long)nEnd || nTarget % DB_IO_ALIGN != 0) {
        Trace("MemFileCMD", 1, 10060033,
              TALVOR_TEXT("修改文件大小的命令被拒绝,文件不能缩小,且大小须为512的倍数,文件号:%d,路径:%s,现有大小:%lld,要求大小:%lld",
                          "The command to change the file size was refused: a file cannot shrink, and its size must be a multiple of 512, file number: %d, path: %s, present size: %lld, size asked: %lld"),
              (int)lpRow->m_bFileNo, lpszPath, (long long)nEnd, nTarget);
        return FILECMD_RESIZE_FAILED;
    }
    memset(m_lpBuffer, 0, (size_t)m_nBufferSize);
    for (long long nPos = nEnd; nPos < nTarget;) {
        int nPiece = nTarget - nPos < m_nBufferSize ? (int)(nTarget - nPos) : m_nBufferSize;
        if (!TalvorWriteFull(fd, m_lpBuffer, (size_t)nPiece, (off_t)nPos)) {
            int nErr = errno;
            Trace("MemFileCMD", 1, nPiece == m_nBufferSize ? 10060025 : 10060026,
                  TALVOR_TEXT("执行添加文件命令时,创建新文件后写入失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                              "When executing add file command, failed to write after creating a new file, error code: %d, path: %s, write location: %lld, write size: %d"),
                  nErr, lpszPath, nPos, nPiece);
            // The file goes back to where it ended: a half-grown tail is no
            // size anyone asked for.
            if (CTalvorFileIO::Current()->FTruncate(fd, nEnd) == 0) CTalvorFileIO::Current()->FSync(fd);
            return FILECMD_RESIZE_FAILED;
        }
        nPos += nPiece;
    }
    if (CTalvorFileIO::Current()->FSync(fd) != 0) {
        Trace("MemFileCMD", 1, 10060026,
              TALVOR_TEXT("执行添加文件命令时,创建新文件后写入失败,错误码:%d,路径:%s,写入位置:%lld,写入大小:%d",
                          "When executing add file command, failed to write after creating a new file fails, error code: %d, path: %s, write location: %lld, write size: %d"),
              errno, lpszPath, nTarget, 0);
        return FILECMD_RESIZE_FAILED;
    }
    m_pMemoryFileHead->m_nFileTotalSize = nTarget;
    return FILECMD_NONE;
}

BYTE CBreltMemStorageModule::FileCmdResize(LPTALVORCRITICALSECTION lpCritSection, LPFILE_MEMDBFILEINFO lpRow)
{
    RowText row(lpRow);
    long long nTarget = 0;
    {
        // A flush thread that grows the file writes the row's size under
        // the latch.
        CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
        nTarget = RowFileSize(lpRow);
    }
    stu_FILEINFO* p = FindStorageInfo(lpRow->m_bFileNo);
    if (p == nullptr) {
        Trace("MemFileCMD", 1, 10060031,
              TALVOR_TEXT("系统收到修改物理文件路径的命令,但未找到指定的文件信息,拒绝执行,原文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received the command to modify the physical file path but did not find the specified file information, so the system refused to execute, original file number: %d, file path: %s, memory file name: %s"),
              (int)lpRow->m_bFileNo, row.m_szPath, row.m_szName);
        return FILECMD_NO_SUCH_FILE;
    }
    // A flush thread may grow the file meanwhile: its size read once.
    const long long llSize = TalvorLoadShared(&p->m_liFileSize);
    if (nTarget == llSize) return FILECMD_NONE;
    // A smaller file would cut blocks the engine holds; a size off the
    // sector grid cannot be written directly.
    if (nTarget < llSize || nTarget % DB_IO_ALIGN != 0 || p->m_pStorageFile == nullptr) {
        Trace("MemFileCMD", 1, 10060033,
              TALVOR_TEXT("修改文件大小的命令被拒绝,文件不能缩小,且大小须为512的倍数,文件号:%d,路径:%s,现有大小:%lld,要求大小:%lld",
                          "The command to change the file size was refused: a file cannot shrink, and its size must be a multiple of 512, file number: %d, path: %s, present size: %lld, size asked: %lld"),
              (int)p->m_bFileNo, p->m_lpszFilePath, llSize, nTarget);
        return FILECMD_RESIZE_FAILED;
    }
    LPTALVORPROGRESS lpProgress = m_pFlashback != nullptr ? m_pFlashback->GetTalvorProgress() : nullptr;
    int nResult = 0;
    // The flush thread's own growth reads the cached head without the
    // file's latch: it is held off the file while the size changes.
    const BOOL bCache = IsCacheFileType((BYTE)p->m_bFileType) && m_pTalvorCacheStorage != nullptr;
    if (bCache && !m_pTalvorCacheStorage->PauseFile(p->m_bFileNo)) return FILECMD_RESIZE_FAILED;
    {
        WorkBuffer work(m_lpBuffer, m_nBufferSize);
        nResult = p->m_pStorageFile->ChangeFileSize(lpCritSection, p, m_pMemoryFileHead->m_nEndTimestamp,
                                                    m_pMemoryFileHead->m_nBeginTimestamp, work.Buffer(), m_lpHeadBuf,
                                                    nTarget, work.Size(), lpProgress);
    }
    if (bCache) m_pTalvorCacheStorage->ResumeFile();
    if (nResult == 0) return FILECMD_NONE;
    Trace("MemFileCMD", 1, 10060032,
          TALVOR_TEXT("系统收到修改物理文件路径的命令,但写入新文件失败,文件路径:%s,内存文件名:%s",
                      "The system received the command to modify the physical file path but failed to write to the new file, file path: %s, memory file name: %s"),
          row.m_szPath, row.m_szName);
    return FILECMD_RESIZE_FAILED;
}

// ---------------------------------------------------------------- delete

BYTE CBreltMemStorageModule::FileCmdDelete(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMBLOCKHEAD lpBlock,
                                           LPFILE_MEMDBFILEINFO lpRow)
{
    RowText row(lpRow);
    const BYTE bFileNo = lpRow->m_bFileNo;
    stu_FILEINFO* p = FindStorageInfo(bFileNo);
    if (p == nullptr) {
        Trace("MemFileCMD", 1, 10060041,
              TALVOR_TEXT("系统收到删除物理文件路径的命令,但未找到指定的文件信息,拒绝执行,原文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received the command to delete the physical file path but did not find the specified file information,so the system refused to execute, the original file number: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, row.m_szPath, row.m_szName);
        return FILECMD_NO_SUCH_FILE;
    }
    // The cache's threads are held off the file and a flush already under
    // way is waited out (it holds the backend's latch), before the backend
    // and its handles go: a descriptor closed under a flush could be reused
    // by another file.
    const BOOL bCache = IsCacheFileType((BYTE)p->m_bFileType) && m_pTalvorCacheStorage != nullptr;
    // The flush loops look at every file by number, whatever its mode.
    const BOOL bPause = m_pTalvorCacheStorage != nullptr;
    // A thread that will not leave the file may still use its backend: the
    // delete waits for the next walk, the command left where it stands.
    if (bPause && !m_pTalvorCacheStorage->PauseFile(bFileNo)) return FILECMD_DELETE;
    if (bCache) {
        if (p->m_pStorageFile != nullptr) {
            CTalvorCriticalSectionPtr wait(&static_cast<CTalvorFileStorage*>(p->m_pStorageFile)->m_crit, lpCritSection);
        }
    }
    UnlinkStorageInfo(p);
    TalvorStoreShared(&m_arFileInfo[bFileNo], nullptr);
    if (p->m_pStorageFile != nullptr) p->m_pStorageFile->Release();
    Talvor_CloseFile(p->m_hFile);
    Talvor_CloseFile(p->m_hFile2);
    usleep(DELETE_RELEASE_PAUSE_US);
    // A row that still named the file on disk once the file is gone would
    // refuse the next start: the row goes dropped to the disk first, and a
    // file whose row cannot be written stays where it is.
    lpRow->m_bDropFlag = 1;
    BOOL bListed = CommitFileListRow(lpCritSection, lpBlock, lpRow, FILECMD_NONE);
    BOOL bAllowed = bListed && FilePathAllowed(p->m_lpszFilePath, 10060045);
    if (bAllowed && CTalvorFileIO::Current()->Unlink(p->m_lpszFilePath) == 0) {
        TalvorSyncParentDirectory(p->m_lpszFilePath);
        Trace("MemFileCMD", 3, 10060043,
              TALVOR_TEXT("删除磁盘文件成功,原文件号:%d,文件路径:%s,内存文件名:%s",
                          "Deleted disk file successfully, original file number: %d, file path: %s, memory file name: %s"),
              (int)bFileNo, p->m_lpszFilePath, p->m_lpszTablespaceName);
    } else {
        Trace("MemFileCMD", 1, 10060042,
              TALVOR_TEXT("系统收到删除物理文件路径的命令,但删除磁盘文件失败,错误码:%d,原文件号:%d,文件路径:%s,内存文件名:%s",
                          "The system received the command to delete the physical file path but failed to delete the disk file, error code: %d, original file number: %d, file path: %s, memory file name: %s"),
              bAllowed ? errno : EPERM, (int)bFileNo, p->m_lpszFilePath, p->m_lpszTablespaceName);
    }
    free(p);
    if (bPause) m_pTalvorCacheStorage->ResumeFile();
    return FILECMD_NONE;
}
