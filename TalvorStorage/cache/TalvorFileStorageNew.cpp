// TalvorFileStorageNew.cpp — adding a cache-mode file: the file is made at
// its full size with its head area, opened, and its pages put into the
// chain the cache holds for it.
#include "TalvorFileStorage.h"

#include "CacheFileHeadArea.h"
#include "DbFileLayout.h"
#include "TalvorCacheStorage.h"
#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

const long long NEWFILE_MIN_SIZE = 4194304;
const size_t PROGRESS_TITLE_KEEP = 120;  // a long path shows its last 120 characters
const size_t PROGRESS_TITLE_MAX = 124;

void StartProgress(LPTALVORPROGRESS lpProgress, LPFILEINFO pFileInfo)
{
    if (lpProgress == nullptr) return;
    memset(lpProgress->m_lpTitle, 0, sizeof(lpProgress->m_lpTitle));
    const char* lpszPath = pFileInfo->m_lpszFilePath;
    size_t nLen = strlen(lpszPath);
    const char* lpShown = nLen > PROGRESS_TITLE_MAX ? lpszPath + nLen - PROGRESS_TITLE_KEEP : lpszPath;
    size_t nShown = strlen(lpShown);
    memcpy(lpProgress->m_lpTitle, lpShown, nShown < PROGRESS_TITLE_MAX ? nShown : PROGRESS_TITLE_MAX);
    lpProgress->m_nPos = 0;
    lpProgress->m_nTotal = (int)(pFileInfo->m_liFileSize / DB_MIB);
}

void SetProgress(LPTALVORPROGRESS lpProgress, LPFILEINFO pFileInfo, long long llDone)
{
    TalvorSetLoadSize(pFileInfo, llDone);
    if (lpProgress != nullptr) lpProgress->m_nPos = (int)(llDone / DB_MIB);
}

} // namespace

int CTalvorFileStorage::WriteNewFileBody(int fd, LPBYTE lpBuffer, int nBufSize, long long llFrom,
                                         LPTALVORPROGRESS lpTalvorProgress)
{
    long long llSize = m_pFileInfo->m_liFileSize;
    memset(lpBuffer, 0, (size_t)nBufSize);
    for (long long llPos = llFrom; llPos < llSize;) {
        int nPiece = llSize - llPos < nBufSize ? (int)(llSize - llPos) : nBufSize;
        int nErr = 0;
        long long nDone = 0;
        if (!WriteTries(fd, lpBuffer, nPiece, llPos, nErr, nDone)) {
            Trace("NewFile", 1, nPiece == nBufSize ? 80006004 : 80006005,
                  TALVOR_TEXT("执行添加文件命令时,创建新文件后写入数据失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "When executing add file command, data writing after creating a new file failed, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, Path(), llPos, nPiece);
            return 1;
        }
        llPos += nPiece;
        SetProgress(lpTalvorProgress, m_pFileInfo, llPos);
    }
    return 0;
}

int CTalvorFileStorage::CreateNewFile(LPBYTE lpBuffer, long long nArea, int nBufSize,
                                      LPTALVORPROGRESS lpTalvorProgress)
{
    MakeDir(m_pFileInfo->m_lpszFilePath);
    int fd = CTalvorFileIO::Current()->Open(m_pFileInfo->m_lpszFilePath, O_RDWR | O_CREAT | O_DIRECT | O_SYNC | O_CLOEXEC,
                                            0666);
    int nErr = errno;
    CTalvorFileIO::Current()->Chmod(m_pFileInfo->m_lpszFilePath, 0666);
    if (fd < 0) {
        Trace("NewFile", 1, 80006003,
              TALVOR_TEXT("执行添加文件命令时,创建并打开文件失败,错误:%s(%d),路径:%s",
                          "Failed to create and open file when executing add file command, error: %s(%d), path: %s"),
              strerror(nErr), nErr, Path());
        return 1;
    }
    long long nDone = 0;
    int nResult = 0;
    if (!WriteTries(fd, lpBuffer, (int)nArea, 0, nErr, nDone)) {
        Trace("NewFile", 1, 10111052,
              TALVOR_TEXT("执行添加文件命令时,创建新文件后写入第一块数据失败,错误:%s(%d),路径:%s",
                          "Failed to write the first piece of data after creating a new file, when executing add file command,error: %s(%d), path: %s"),
              strerror(nErr), nErr, Path());
        nResult = 1;
    } else {
        nResult = WriteNewFileBody(fd, lpBuffer, nBufSize, nArea, lpTalvorProgress);
    }
    CTalvorFileIO::Current()->Close(fd);
    return nResult;
}

int CTalvorFileStorage::OpenThroughFlushThread(LPTALVORCRITICALSECTION lpCritSection, BYTE bOpenFileUseBuffer)
{
    // The flush threads that take open requests come with the flush
    // pipelines; until then the file is opened here with the same checks.
    int nResult = OpenFile(lpCritSection, m_pFileInfo, bOpenFileUseBuffer);
    int nErr = errno;
    if (nResult == 0 && m_pFileInfo->m_hFile != nullptr && m_pFileInfo->m_hFile2 != nullptr) return 0;
    Trace("NewFile", 1, 80006010,
          TALVOR_TEXT("加载文件信息到缓存失败,错误:%s(%d),文件路径:%s",
                      "Failed to load file information into cache, error: %s(%d), file path: %s"),
          strerror(nErr), nErr, Path());
    return 1;
}

int CTalvorFileStorage::NewFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, LPBYTE& lpBuffer,
                                int& nInPutBufSize, USHORT usDatabaseGuid, CTalvorFlashback* pFlashback,
                                LPTALVORPROGRESS lpTalvorProgress, BYTE bOpenFileUseBuffer)
{
    if (pFileInfo == nullptr) return 1;
    StartProgress(lpTalvorProgress, pFileInfo);
    m_pFlashback = pFlashback;
    m_pFileInfo = pFileInfo;
    long long llSize = pFileInfo->m_liFileSize;
    if (llSize < NEWFILE_MIN_SIZE) {
        Trace("NewFile", 1, 80006001,
              TALVOR_TEXT("执行添加文件命令失败,因为文件大小:%lld小于4M,路径:%s",
                          "Failed to execute the add file command,because file size: %lld is less than 4M, path: %s"),
              llSize, Path());
        return 1;
    }
    if (TalvorPathExists(pFileInfo->m_lpszFilePath)) {
        Trace("NewFile", 1, 80006002,
              TALVOR_TEXT("执行添加文件命令失败,因为文件已存在,路径:%s",
                          "Failed to execute add file command because the file already exists, path: %s"),
              Path());
        return 1;
    }
    // A file of another type is refused before anything is made on disk.
    BYTE bFileType = (BYTE)pFileInfo->m_bFileType;
    long long nArea = CacheHeadAreaSize(bFileType, pFileInfo->m_nMaxObjectNum);
    if (nArea == 0 || m_pTalvorCacheStorage == nullptr) return 1;
    if (lpBuffer == nullptr || nInPutBufSize < nArea || nInPutBufSize % DB_IO_ALIGN != 0) {
        LPBYTE lpNew = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer((size_t)nArea);
        if (lpNew == nullptr) return 1;
        free(lpBuffer);
        lpBuffer = lpNew;
        nInPutBufSize = (int)nArea;
    }
    CACHEHEADAREADEF stDef = {pFileInfo->m_bFileNo, bFileType, usDatabaseGuid, pFileInfo->m_nMaxObjectNum, llSize,
                              pFileInfo->m_nTimestamp};
    int nExHeads = 0;
    if (!CacheBuildHeadArea(stDef, lpBuffer, nInPutBufSize, &nExHeads)) return 1;
    if (CreateNewFile(lpBuffer, nArea, nInPutBufSize, lpTalvorProgress) != 0) return 1;
    if (OpenThroughFlushThread(lpCritSection, bOpenFileUseBuffer) != 0) return 1;
    int nErr = 0;
    long long nDone = 0;
    if (!ReadTries(Fd(), lpBuffer, (int)nArea, 0, nErr, nDone)) return 1;
    int nResult = m_pTalvorCacheStorage->NewFile2Cache(lpCritSection, pFileInfo->m_bFileNo, bFileType, lpBuffer, nExHeads);
    if (nResult != 0) return nResult;
    SetProgress(lpTalvorProgress, pFileInfo, llSize);
    ChechDiskFree(pFileInfo);
    Trace("NewFile", 3, 80006020,
          TALVOR_TEXT("新文件添加成功,文件路径:%s,文件大小:%lld", "New file was added successfully, file path: %s, file size: %lld"),
          Path(), llSize);
    return 0;
}
