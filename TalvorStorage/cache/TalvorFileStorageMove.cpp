// TalvorFileStorageMove.cpp — moving a cache-mode file to another path on a
// file command: copy, sync, reopen at the new place; the old file is the
// caller's to remove once the file list names the new one. The file
// command holds the file paused in the cache meanwhile, so the peer asks
// for no block of it.
#include "TalvorFileStorage.h"

#include "TalvorFileIO.h"
#include "TalvorTrace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

int CreateTarget(const char* lpszPath)
{
    int fd = CTalvorFileIO::Current()->Open(lpszPath, O_RDWR | O_CREAT | O_EXCL | O_DIRECT | O_SYNC | O_CLOEXEC, 0666);
    int nErr = errno;
    if (fd >= 0) CTalvorFileIO::Current()->Chmod(lpszPath, 0666);
    errno = nErr;
    return fd;
}

} // namespace

int CTalvorFileStorage::WriteOutAllBuffers()
{
    static const WriteOutCodes codes = {"ChangeFilePath", 80008012, 80008013};
    for (stu_Cache_Buffer& b : m_arCacheBuffer)
        if (WriteOutBuffer(&b, codes) != 0) return 1;
    return 0;
}

int CTalvorFileStorage::CopyFileTo(int fdTo, const char* lpszTo, LPBYTE lpBuffer, int nBufferSize)
{
    long long llSize = m_pFileInfo->m_liFileSize;
    for (long long llPos = 0; llPos < llSize;) {
        int nPiece = llSize - llPos < nBufferSize ? (int)(llSize - llPos) : nBufferSize;
        BOOL bFull = nPiece == nBufferSize;
        int nErr = 0;
        long long nDone = 0;
        if (!ReadTries(Fd(), lpBuffer, nPiece, llPos, nErr, nDone)) {
            Trace("ChangeFilePath", 1, bFull ? 80008004 : 80008006,
                  TALVOR_TEXT("从物理文件读取数据失败,错误:%s(%d),路径:%s,读取位置:%lld,读取大小:%d",
                              "Failed to read data from physical file, error: %s(%d), path: %s, read location: %lld, read size: %d"),
                  strerror(nErr), nErr, Path(), llPos, nPiece);
            return 1;
        }
        if (!WriteTries(fdTo, lpBuffer, nPiece, llPos, nErr, nDone)) {
            Trace("ChangeFilePath", 1, bFull ? 80008005 : 80008007,
                  TALVOR_TEXT("将内存数据写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "Failed to write memory data to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, lpszTo, llPos, nPiece);
            return 1;
        }
        llPos += nPiece;
        TalvorSetLoadSize(m_pFileInfo, llPos);
    }
    return 0;
}

int CTalvorFileStorage::ChangeFilePath(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo,
                                       char* lpszFilePath, LPBYTE lpBuffer, int nBufferSize, LPTALVORPROGRESS,
                                       BYTE bOpenFileUseBuffer)
{
    if (pFileInfo == nullptr || lpszFilePath == nullptr || lpBuffer == nullptr || nBufferSize <= 0 ||
        strlen(lpszFilePath) >= sizeof(pFileInfo->m_lpszFilePath))
        return 1;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    m_pFileInfo = pFileInfo;
    if (TalvorPathExists(lpszFilePath)) {
        Trace("ChangeFilePath", 1, 80008001,
              TALVOR_TEXT("修改物理文件路径命令失败,因为文件已存在,路径:%s",
                          "The command to modify the physical file path failed because the file already exists, path: %s"),
              lpszFilePath);
        return 1;
    }
    MakeDir(lpszFilePath);
    int fdTo = CreateTarget(lpszFilePath);
    if (fdTo < 0) {
        int nErr = errno;
        Trace("ChangeFilePath", 1, 80008002,
              TALVOR_TEXT("执行修改物理文件路径命令时,创建并打开文件失败,错误:%s(%d),路径:%s",
                          "When executing the command to modify the path of the physical file, failed to create and open the file, error: %s(%d), path: %s"),
              strerror(nErr), nErr, lpszFilePath);
        return 1;
    }
    // What the write buffers hold goes to the old file first, or the copy
    // would leave it behind.
    if (WriteOutAllBuffers() != 0 || CopyFileTo(fdTo, lpszFilePath, lpBuffer, nBufferSize) != 0) {
        CTalvorFileIO::Current()->Close(fdTo);
        return 1;
    }
    // The copy must be on the medium before anything names it.
    if (CTalvorFileIO::Current()->FSync(fdTo) != 0) {
        int nErr = errno;
        Trace("ChangeFilePath", 1, 80008014,
              TALVOR_TEXT("新文件同步到磁盘失败,错误:%s(%d),路径:%s", "Failed to sync the new file to disk, error: %s(%d), path: %s"),
              strerror(nErr), nErr, lpszFilePath);
        CTalvorFileIO::Current()->Close(fdTo);
        return 1;
    }
    CTalvorFileIO::Current()->Close(fdTo);
    // The old file stays on disk: the list on disk still names it, and the
    // caller removes it once the list names the new one.
    char szOldPath[sizeof(pFileInfo->m_lpszFilePath)];
    memcpy(szOldPath, pFileInfo->m_lpszFilePath, sizeof(szOldPath));
    Talvor_CloseFile(pFileInfo->m_hFile);
    Talvor_CloseFile(pFileInfo->m_hFile2);
    snprintf(pFileInfo->m_lpszFilePath, sizeof(pFileInfo->m_lpszFilePath), "%s", lpszFilePath);
    if (OpenFile(lpCritSection, pFileInfo, bOpenFileUseBuffer) != 0 || pFileInfo->m_hFile == nullptr) {
        int nErr = errno;
        Trace("ChangeFilePath", 1, 80008010,
              TALVOR_TEXT("加载文件信息到缓存失败,错误:%s(%d),文件路径:%s",
                          "Failed to load file information into cache, error: %s(%d), file path: %s"),
              strerror(nErr), nErr, lpszFilePath);
        // Back on the old file, which is whole.
        Talvor_CloseFile(pFileInfo->m_hFile);
        Talvor_CloseFile(pFileInfo->m_hFile2);
        memcpy(pFileInfo->m_lpszFilePath, szOldPath, sizeof(szOldPath));
        OpenFile(lpCritSection, pFileInfo, bOpenFileUseBuffer);
        return 1;
    }
    Trace("ChangeFilePath", 1, 80008011,
          TALVOR_TEXT("修改文件路径成功,文件路径:%s,文件大小:%lld", "Successfully modified file path, file path: %s, file size: %lld"),
          lpszFilePath, pFileInfo->m_liFileSize);
    return 0;
}
