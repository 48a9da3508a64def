// TalvorFileStorage.cpp — life of a cache-mode file's backend: construction
// and release, opening the two handles, and the small operations that read
// the file's cached head.
#include "TalvorFileStorage.h"

#include "TalvorCacheStorage.h"
#include "TalvorCacheFlush.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/statfs.h>


namespace {

const size_t FILESTORE_MAX_DIR_PATH = 254;  // longer paths get no directories
const size_t MAX_PATH_COPY = 256;

// Drain bound of the destructor: every good FlushBuffer cleans one buffer.
const int FILESTORE_DRAIN_CALLS = 2 * FILESTORE_BUFFER_NUM;

// Opens lpszPath and gives it mode 0666; -1 with errno on failure.
int OpenWithMode(const char* lpszPath, int nFlags)
{
    int fd = CTalvorFileIO::Current()->Open(lpszPath, nFlags | O_CLOEXEC, 0666);
    int nErr = errno;
    if (fd >= 0) CTalvorFileIO::Current()->Chmod(lpszPath, 0666);
    errno = nErr;
    return fd;
}

} // namespace

LPTABLEFILEHEAD CTalvorFileStorage::CachedHead(LPFILEINFO pFileInfo) const
{
    CTalvorCacheStorage* pCache = m_pTalvorCacheStorage;
    if (pCache == nullptr || pFileInfo == nullptr || pCache->m_pCacheBufferHead == nullptr) return nullptr;
    LPCacheBufferHead lpHead = pCache->m_pCacheBufferHead;
    UINT nBlock = lpHead->m_nFileInfoNo[pFileInfo->m_bFileNo];
    UINT nBlockNum = lpHead->m_nBlockBufNum;
    if (nBlock == 0 || nBlock > nBlockNum) return nullptr;
    long long llOffset = (long long)nBlock * CACHE_BLOCK_SIZE;
    if (llOffset + CACHE_BLOCK_SIZE > pCache->m_llCacheBufferSize) return nullptr;
    return (LPTABLEFILEHEAD)(pCache->m_pCacheBufferAddr + llOffset);
}

CTalvorFileStorage::CTalvorFileStorage(CTalvorCacheStorage* pTalvorCacheStorage)
    : m_nFlushCount(0), m_pFileInfo(nullptr), m_pFlashback(nullptr), m_pTalvorCacheStorage(pTalvorCacheStorage),
      m_pCacheLRUHead(nullptr), m_pCacheLRUTail(nullptr), m_bBuffered(FALSE)
{
    memset(m_arCacheBuffer, 0, sizeof(m_arCacheBuffer));
    memset(m_arCacheHash, 0, sizeof(m_arCacheHash));
    InitializeCriticalTalvor(&m_crit);
    TalvorSetLatchRank(&m_crit, LATCHRANK_FILESTORE);
    if (pTalvorCacheStorage != nullptr && pTalvorCacheStorage->m_bFileCache) AllocateBuffers();
}

CTalvorFileStorage::~CTalvorFileStorage()
{
    if (m_pFileInfo != nullptr) {
        TALVORCRITICALSECTION stCrit;
        InitThreadCritSection(&stCrit);
        int nResult = -1;
        for (int i = 0; i < FILESTORE_DRAIN_CALLS; i++) {
            nResult = FlushBuffer(&stCrit);
            if (nResult != 0) break;
        }
        if (nResult != -1 && CheckFlush()) {
            int nLeft = 0;
            for (const stu_Cache_Buffer& b : m_arCacheBuffer)
                if (b.m_nStatus == FILEBUF_WHOLE_CHANGED || b.m_nStatus == FILEBUF_PARTS_CHANGED) nLeft++;
            Trace("~CTalvorFileStorage", 0, 80012010,
                  TALVOR_TEXT("释放文件时写缓冲区仍有未写入磁盘的修改,路径:%s,缓冲区数:%d",
                              "Write buffers still hold changes not on disk when the file is released, path: %s, buffers: %d"),
                  Path(), nLeft);
        }
        Talvor_CloseFile(m_pFileInfo->m_hFile);
        Talvor_CloseFile(m_pFileInfo->m_hFile2);
        m_pFileInfo->m_pStorageFile = nullptr;
    }
    FreeBuffers();
    DeleteCriticalTalvor(&m_crit);
}

int CTalvorFileStorage::Release()
{
    delete this;
    return 0;
}

const char* CTalvorFileStorage::Path() const { return m_pFileInfo != nullptr ? m_pFileInfo->m_lpszFilePath : ""; }

int CTalvorFileStorage::Fd() const { return m_pFileInfo != nullptr ? Talvor_FileDescriptor(m_pFileInfo->m_hFile) : -1; }

int CTalvorFileStorage::Fd2() const
{
    return m_pFileInfo != nullptr ? Talvor_FileDescriptor(m_pFileInfo->m_hFile2) : -1;
}

int CTalvorFileStorage::SaveChange2File(LPTALVORCRITICALSECTION, LPFILEINFO, long long, long long, LPBYTE, LPBYTE,
                                        BOOL, BOOL&)
{
    return 0;
}

int CTalvorFileStorage::Save2File(LPFILEINFO, BOOL, LPTALVORPROGRESS) { return 0; }

long long CTalvorFileStorage::GetFreeMemoryOffset(LPFILEINFO pFileInfo)
{
    LPTABLEFILEHEAD lpHead = CachedHead(pFileInfo);
    return lpHead != nullptr ? (long long)lpHead->m_nFileFreeMemoryOffset : 0;
}

int CTalvorFileStorage::GetHeadSize(LPFILEINFO pFileInfo)
{
    LPTABLEFILEHEAD lpHead = CachedHead(pFileInfo);
    return lpHead != nullptr ? lpHead->m_nFileHeaderSize : 0;
}

long long CTalvorFileStorage::GetFileTimestamp(LPFILEINFO pFileInfo)
{
    LPTABLEFILEHEAD lpHead = CachedHead(pFileInfo);
    return lpHead != nullptr ? (long long)lpHead->m_nTimestamp : 0;
}

BOOL CTalvorFileStorage::CheckSpace(LPFILEINFO pFileInfo)
{
    LPTABLEFILEHEAD lpHead = CachedHead(pFileInfo);
    if (lpHead == nullptr) return TRUE;
    return (long long)lpHead->m_nFileTotalSize - (long long)lpHead->m_nFileFreeMemoryOffset > FILESTORE_SPACE_RESERVE
               ? TRUE
               : FALSE;
}

BOOL CTalvorFileStorage::CheckFlush()
{
    for (const stu_Cache_Buffer& b : m_arCacheBuffer) {
        int nStatus = b.m_nStatus;
        if (nStatus == FILEBUF_WHOLE_CHANGED || nStatus == FILEBUF_PARTS_CHANGED) return TRUE;
    }
    return FALSE;
}

int CTalvorFileStorage::OpenFile(LPTALVORCRITICALSECTION, LPFILEINFO pFileInfo, BYTE bOpenFileUseBuffer)
{
    if (pFileInfo == nullptr) return 1;
    m_pFileInfo = pFileInfo;
    if (!IsCacheFileType((BYTE)pFileInfo->m_bFileType)) {
        Trace("OpenFile", 0, 80009001,
              TALVOR_TEXT("缓存文件类型不正确,文件类型:%d", "Cache file type is incorrect, file type: %d"),
              (int)pFileInfo->m_bFileType);
        return 1;
    }
    int fd = -1, fd2 = -1;
    int nErr = OpenDescriptors(bOpenFileUseBuffer, fd, fd2);
    if (nErr != 0) {
        Trace("OpenFile", 0, 80009002,
              TALVOR_TEXT("打开文件失败,错误:%s(%d),路径:%s", "Failed to open file, error: %s(%d), path: %s"),
              strerror(nErr), nErr, pFileInfo->m_lpszFilePath);
        return 1;
    }
    long long llSize = (long long)CTalvorFileIO::Current()->LSeek(fd, 0, SEEK_END);
    LONG nCode = 0;
    if (llSize != pFileInfo->m_liFileSize) {
        Trace("OpenFile", 1, 80009003,
              TALVOR_TEXT("文件大小异常,系统文件记录的文件大小为:%lld,而实际获取的文件大小为:%lld,文件路径为:%s",
                          "File size exception, the file size recorded by the system file is: %lld, while the actual file size obtained is: %lld, the file path is: %s"),
              pFileInfo->m_liFileSize, llSize, pFileInfo->m_lpszFilePath);
        nCode = 80009003;
    } else if (m_pTalvorCacheStorage == nullptr) {
        nCode = 80009004;
        Trace0("OpenFile", 1, nCode, TALVOR_TEXT("缓存指针为空", "The cache pointer is empty"));
    }
    if (nCode != 0) {
        CTalvorFileIO::Current()->Close(fd);
        CTalvorFileIO::Current()->Close(fd2);
        return 1;
    }
    return TakeDescriptors(fd, fd2) == 0 ? 0 : 1;
}

int CTalvorFileStorage::OpenDescriptors(BYTE bOpenFileUseBuffer, int& fd, int& fd2)
{
    int nDirect = bOpenFileUseBuffer == 0 ? (O_DIRECT | O_SYNC) : 0;
    fd = OpenWithMode(m_pFileInfo->m_lpszFilePath, O_RDWR | nDirect);
    fd2 = fd >= 0 ? OpenWithMode(m_pFileInfo->m_lpszFilePath, O_RDONLY | nDirect) : -1;
    if (fd >= 0 && fd2 >= 0) return 0;
    int nErr = errno;
    if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
    fd = fd2 = -1;
    return nErr != 0 ? nErr : EIO;
}

int CTalvorFileStorage::TakeDescriptors(int fd, int fd2)
{
    void* hFile = Talvor_MakeFileHandle(fd);
    void* hFile2 = hFile != nullptr ? Talvor_MakeFileHandle(fd2) : nullptr;
    if (hFile2 == nullptr) {
        free(hFile);
        CTalvorFileIO::Current()->Close(fd);
        CTalvorFileIO::Current()->Close(fd2);
        return ENOMEM;
    }
    Talvor_CloseFile(m_pFileInfo->m_hFile);
    Talvor_CloseFile(m_pFileInfo->m_hFile2);
    m_pFileInfo->m_hFile = hFile;
    m_pFileInfo->m_hFile2 = hFile2;
    return 0;
}

int CTalvorFileStorage::OpenHandles(BYTE bOpenFileUseBuffer)
{
    int fd = -1, fd2 = -1;
    int nErr = OpenDescriptors(bOpenFileUseBuffer, fd, fd2);
    return nErr != 0 ? nErr : TakeDescriptors(fd, fd2);
}

BOOL CTalvorFileStorage::MakeDir(char* lpszFilePath)
{
    if (lpszFilePath == nullptr || lpszFilePath[0] == '\0') return FALSE;
    if (TalvorPathExists(lpszFilePath)) return TRUE;
    if (strlen(lpszFilePath) > FILESTORE_MAX_DIR_PATH) return TRUE;
    MakeDirs(lpszFilePath, MAX_PATH_COPY, FALSE);
    return TRUE;
}

void CTalvorFileStorage::ChechDiskFree(LPFILEINFO pFileInfo)
{
    ITalvorCacheModule* pModule = m_pTalvorCacheStorage != nullptr ? m_pTalvorCacheStorage->m_pCacheModule : nullptr;
    if (pFileInfo == nullptr || pModule == nullptr) return;
    char szDir[MAX_PATH_COPY];
    snprintf(szDir, sizeof(szDir), "%s", pFileInfo->m_lpszFilePath);
    char* lpSlash = strrchr(szDir, '/');
    if (lpSlash != nullptr) lpSlash[1] = '\0';
    struct statfs stFs;
    if (statfs(szDir, &stFs) != 0) return;
    long long nFreeMiB = (long long)stFs.f_bsize * (long long)stFs.f_bfree / 1048576;
    pModule->OnFileSpaceChange((BYTE)pFileInfo->m_bFileType, nFreeMiB);
}
