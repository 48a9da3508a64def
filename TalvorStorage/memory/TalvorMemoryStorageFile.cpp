// TalvorMemoryStorageFile.cpp — the operations that make or remake a
// memory-mode file on disk: create it, grow it, write the image out whole,
// and make the directories of a path.
#include "TalvorMemoryStorage.h"

#include "DbFileLayout.h"
#include "TalvorTrace.h"
#include "ShareMemory.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const long long TRANSFER_PIECE_SIZE = 8388608;
const long long NEWFILE_BUFFER_MAX = 1048576;
const int PROGRESS_TITLE_KEEP = 120;  // a long path shows its last 120 characters
const int PROGRESS_TITLE_MAX = 124;

void SetProgressTitle(LPTALVORPROGRESS lpProgress, const char* lpszPath)
{
    memset(lpProgress->m_lpTitle, 0, sizeof(lpProgress->m_lpTitle));
    size_t nLen = strlen(lpszPath);
    const char* lpShown = nLen > (size_t)PROGRESS_TITLE_MAX ? lpszPath + nLen - PROGRESS_TITLE_KEEP : lpszPath;
    size_t nShown = strlen(lpShown);
    memcpy(lpProgress->m_lpTitle, lpShown, nShown < (size_t)PROGRESS_TITLE_MAX ? nShown : (size_t)PROGRESS_TITLE_MAX);
}

bool PathExists(const char* lpszPath)
{
    int fd = CTalvorFileIO::Current()->Open(lpszPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    CTalvorFileIO::Current()->Close(fd);
    return true;
}

// Creates a file that must not exist yet; -1 on failure, errno kept.
int CreateNewFile(const char* lpszPath, int nFlags)
{
    int fd = CTalvorFileIO::Current()->Open(lpszPath, nFlags, 0666);
    int nErr = errno;
    CTalvorFileIO::Current()->Chmod(lpszPath, 0666);
    errno = nErr;
    return fd;
}

} // namespace

int CTalvorMemoryStorage::MakeFreshSegment(LPFILEINFO p, long long nSize, const char* lpszFunc, LONG nOpenCode,
                                           LONG nMapCode)
{
    BOOL bExists = FALSE;
    MFID nShmId = CShareMemory::CreateShareMemory(FileImageShmKey(p->m_bFileNo), (size_t)nSize, nullptr, bExists);
    if (nShmId == 0 || bExists) {
        int nErr = bExists ? EEXIST : errno;
        Trace(lpszFunc, 1, nOpenCode,
              TALVOR_TEXT("执行添加文件命令时,打开内存文件失败,错误:%s(%d),内存文件:%s,文件大小:%lld",
                          "When executing add file command, open memory file failed, error: %s(%d), memory file: %s, file size: %lld"),
              strerror(nErr), nErr, p->m_lpszTablespaceName, nSize);
        return 1;
    }
    p->m_nShmId = nShmId;
    p->m_pFileAddr = (LPBYTE)CShareMemory::ShMemAttach(nShmId, nullptr, 0);
    if (p->m_pFileAddr == nullptr) {
        int nErr = errno;
        Trace(lpszFunc, 1, nMapCode,
              TALVOR_TEXT("执行添加文件命令时,内存文件映射内存失败,错误:%s(%d),内存文件:%s",
                          "When executing the add file command, memory file mapping memory failure, error: %s(%d), memory file: %s"),
              strerror(nErr), nErr, p->m_lpszTablespaceName);
        return 1;
    }
    return 0;
}

BOOL CTalvorMemoryStorage::MakeDir(char* lpszFilePath) { return MakeDirs(lpszFilePath, 256, TRUE); }

int CTalvorMemoryStorage::NewFile(LPTALVORCRITICALSECTION, LPFILEINFO pFileInfo, LPBYTE& lpBuffer, int& nInPutBufSize,
                                  USHORT usDatabaseGuid, CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress,
                                  BYTE)
{
    m_stMapOnDisk.Forget();
    if (pFileInfo == nullptr) return 1;
    long long nSize = pFileInfo->m_liFileSize;
    if (lpTalvorProgress != nullptr) {
        SetProgressTitle(lpTalvorProgress, pFileInfo->m_lpszFilePath);
        lpTalvorProgress->m_nPos = 0;
        lpTalvorProgress->m_nTotal = (int)(nSize / DB_MIB);
    }
    m_pFlashback = pFlashback;
    m_pFileInfo = pFileInfo;
    int nBufSize = (int)(nSize < NEWFILE_BUFFER_MAX ? nSize : NEWFILE_BUFFER_MAX);
    if (lpBuffer == nullptr || nBufSize <= 0 || nInPutBufSize < nBufSize) {
        Trace("NewFile", 1, 40004006,
              TALVOR_TEXT("执行添加文件命令时工作缓冲区不足,路径:%s,文件大小:%lld,缓冲区大小:%d",
                          "The work buffer is too small while executing the add file command, path: %s, file size: %lld, buffer size: %d"),
              pFileInfo->m_lpszFilePath, nSize, nInPutBufSize);
        return 1;
    }
    if (PathExists(pFileInfo->m_lpszFilePath)) {
        Trace("NewFile", 1, 40004001,
              TALVOR_TEXT("执行添加文件命令时文件已存在,创建文件失败,路径:%s",
                          "File creation failed because the file already exists while executing the add file command, path: %s"),
              pFileInfo->m_lpszFilePath);
        return 1;
    }
    MakeDir(pFileInfo->m_lpszFilePath);
    int fd = CreateNewFile(pFileInfo->m_lpszFilePath, OpenFlags((BYTE)pFileInfo->m_bFileType, TRUE));
    if (fd >= 0) {
        pFileInfo->m_hFile = Talvor_MakeFileHandle(fd);
        if (pFileInfo->m_hFile == nullptr) {
            CTalvorFileIO::Current()->Close(fd);
            fd = -1;
            errno = ENOMEM;
        }
    }
    if (fd < 0) {
        int nErr = errno;
        Trace("NewFile", 1, 40004002,
              TALVOR_TEXT("执行添加文件命令时创建并打开文件失败,错误:%s(%d),路径:%s",
                          "File creation and opening failed while executing the add file command, error: %s(%d), path: %s"),
              strerror(nErr), nErr, pFileInfo->m_lpszFilePath);
        return 1;
    }

    // The engine completes the head in the image; the daemon gives it only
    // what identifies the file.
    memset(lpBuffer, 0, (size_t)nBufSize);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)lpBuffer;
    lpHead->m_nDataFlag = FileHeadDataFlag((BYTE)pFileInfo->m_bFileType);
    lpHead->m_nTimestamp = 0;
    lpHead->m_bFileNo = pFileInfo->m_bFileNo;
    lpHead->m_bStatus = 0;
    lpHead->m_usDatabaseGuid = usDatabaseGuid;
    lpHead->m_nMaxObjectNum = pFileInfo->m_nMaxObjectNum;
    lpHead->m_nFileTotalSize = nSize;
    if (!TalvorWriteFull(fd, lpBuffer, (size_t)nBufSize, 0)) {
        int nErr = errno;
        Trace("NewFile", 1, 40004003,
              TALVOR_TEXT("执行添加文件命令时,创建新文件后写入第一块数据失败,错误:%s(%d),路径:%s",
                          "When executing add file command, failed to write the first piece of data after creating a new file, error: %s(%d), path: %s"),
              strerror(nErr), nErr, pFileInfo->m_lpszFilePath);
        return 1;
    }

    // The whole file is allocated on disk now, not as the engine fills it.
    memset(lpBuffer, 0, (size_t)nBufSize);
    for (long long nPos = nBufSize; nPos < nSize;) {
        int nPiece = (int)(nSize - nPos < nBufSize ? nSize - nPos : nBufSize);
        TalvorSetLoadSize(pFileInfo, nPos);
        if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nPos = (int)(nPos / DB_MIB);
        if (!TalvorWriteFull(fd, lpBuffer, (size_t)nPiece, (off_t)nPos)) {
            int nErr = errno;
            Trace("NewFile", 1, nPiece == nBufSize ? 40004004 : 40004005,
                  TALVOR_TEXT("执行添加文件命令时,创建新文件后写入数据失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "When executing add file command, data writing after creating a new file failed, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, pFileInfo->m_lpszFilePath, nPos, nPiece);
            return 1;
        }
        nPos += nPiece;
    }

    if (MakeFreshSegment(pFileInfo, nSize, "NewFile", 40004010, 40004011) != 0) return 1;
    // The new segment is zero; only the head comes from the file.
    if (!TalvorReadFull(fd, pFileInfo->m_pFileAddr, (size_t)nBufSize, 0)) return 1;

    TalvorSetLoadSize(pFileInfo, nSize);
    Trace("NewFile", 3, 40004098,
          TALVOR_TEXT("新文件添加成功,文件路径:%s,文件大小:%lld", "New file was added successfully, file path: %s, file size: %lld"),
          pFileInfo->m_lpszFilePath, nSize);
    if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nPos = (int)(nSize / DB_MIB);
    return 0;
}

int CTalvorMemoryStorage::Save2File(LPFILEINFO pFileInfo, BOOL bNewFile, LPTALVORPROGRESS)
{
    m_stMapOnDisk.Forget();
    LPFILEINFO p = pFileInfo != nullptr ? pFileInfo : m_pFileInfo;
    if (p == nullptr) return 1;
    void* hNewFile = nullptr;
    if (bNewFile) {
        if (PathExists(p->m_lpszFilePath)) {
            Trace("Save2File", 1, 40005001,
                  TALVOR_TEXT("修改物理文件路径命令失败,文件已存在,路径:%s",
                              "The command to modify the physical file path failed because the file already exists, path: %s"),
                  p->m_lpszFilePath);
            return 1;
        }
        MakeDir(p->m_lpszFilePath);
        int fd = CreateNewFile(p->m_lpszFilePath, OpenFlags((BYTE)p->m_bFileType, TRUE));
        if (fd >= 0) {
            hNewFile = Talvor_MakeFileHandle(fd);
            if (hNewFile == nullptr) {
                CTalvorFileIO::Current()->Close(fd);
                fd = -1;
                errno = ENOMEM;
            }
        }
        if (fd < 0) {
            int nErr = errno;
            Trace("Save2File", 1, 40005002,
                  TALVOR_TEXT("执行修改物理文件路径命令时,创建并打开文件失败,错误:%s(%d),路径:%s",
                              "When executing the command to modify the path of the physical file, failed to create and open the file, error: %s(%d), path: %s"),
                  strerror(nErr), nErr, p->m_lpszFilePath);
            return 1;
        }
    } else if (p->m_hFile == nullptr) {
        Trace("Save2File", 1, 40005003,
              TALVOR_TEXT("将内存数据写入物理文件时,文件句柄无效,路径:%s",
                          "When writing memory data to a physical file, the file handle was an invalid value, path: %s"),
              p->m_lpszFilePath);
        return 1;
    }
    if (p->m_pFileAddr == nullptr) {
        Trace("Save2File", 1, 40005004,
              TALVOR_TEXT("将内存数据写入物理文件时,内存指针为空,路径:%s",
                          "When writing memory data to a physical file, memory pointer was null, path: %s"),
              p->m_lpszFilePath);
        Talvor_CloseFile(hNewFile);
        return 1;
    }
    int fd = Talvor_FileDescriptor(bNewFile ? hNewFile : p->m_hFile);
    long long nSize = p->m_liFileSize;
    for (long long nPos = 0; nPos < nSize;) {
        int nPiece = (int)(nSize - nPos < TRANSFER_PIECE_SIZE ? nSize - nPos : TRANSFER_PIECE_SIZE);
        if (bNewFile) TalvorSetLoadSize(p, nPos);
        if (!TalvorWriteFull(fd, p->m_pFileAddr + nPos, (size_t)nPiece, (off_t)nPos)) {
            int nErr = errno;
            Trace("Save2File", 1, nPiece == TRANSFER_PIECE_SIZE ? 40005005 : 40005006,
                  TALVOR_TEXT("将内存数据写入物理文件失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "Failed to write memory data to physical file, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, p->m_lpszFilePath, nPos, nPiece);
            Talvor_CloseFile(hNewFile);
            return 1;
        }
        nPos += nPiece;
    }
    if (!bNewFile) return 0;
    TalvorSetLoadSize(p, nSize);
    // The old disk file stays where it was; removing it is the caller's.
    Talvor_CloseFile(p->m_hFile);
    p->m_hFile = hNewFile;
    Trace("Save2File", 1, 40005098,
          TALVOR_TEXT("成功修改文件路径,文件路径:%s,文件大小:%lld", "Successfully modified file path, file path: %s, file size: %lld"),
          p->m_lpszFilePath, nSize);
    return 0;
}

int CTalvorMemoryStorage::SwitchBackTo(const char* lpszPath)
{
    m_stMapOnDisk.Forget();
    LPFILEINFO p = m_pFileInfo;
    if (p == nullptr) return 1;
    int fd = CTalvorFileIO::Current()->Open(lpszPath, OpenFlags((BYTE)p->m_bFileType, FALSE), 0666);
    void* hFile = fd >= 0 ? Talvor_MakeFileHandle(fd) : nullptr;
    if (hFile == nullptr) {
        int nErr = fd < 0 ? errno : ENOMEM;
        if (fd >= 0) CTalvorFileIO::Current()->Close(fd);
        Trace("Save2File", 1, 40005007,
              TALVOR_TEXT("无法回到原文件,错误:%s(%d),路径:%s", "Could not take the file back to its old place, error: %s(%d), path: %s"),
              strerror(nErr), nErr, lpszPath);
        return 1;
    }
    Talvor_CloseFile(p->m_hFile);
    p->m_hFile = hFile;
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", lpszPath);
    return 0;
}
