// TalvorMemoryStorageResize.cpp — growing a memory-mode file, which remakes
// its segment: the image is saved whole, the file grows, the old segment
// goes, a new one of the new size is filled from the file.
//
// Progress runs in two halves: *m_pLoadSize from 0 to half the size while
// the zeros are written, from there to the full size while the file is read
// back.
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

const long long RELOAD_PIECE_SIZE = 8388608;
// The engine may still touch the old segment for a moment after it is
// marked for removal; the new one is made only after this pause.
const useconds_t SEGMENT_REMAKE_PAUSE_US = 1000000;

} // namespace

int CTalvorMemoryStorage::ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo,
                                         long long nTimestamp, long long nLastSaveTimestamp, LPBYTE lpBuffer,
                                         LPBYTE lpHeadBuf, long long nFileSize, int nBufferSize, LPTALVORPROGRESS)
{
    m_stMapOnDisk.Forget();
    LPFILEINFO p = pFileInfo != nullptr ? pFileInfo : m_pFileInfo;
    if (p == nullptr) return 1;
    if (p->m_pFileAddr == nullptr) {
        Trace("ChangeFileSize", 1, 40003001,
              TALVOR_TEXT("修改文件大小时内存指针为空,文件路径:%s", "Memory pointer was empty when modifying file size, file path: %s"),
              p->m_lpszFilePath);
        return 1;
    }
    // A piece size below one sector would never end the loop below.
    if (lpBuffer == nullptr || nBufferSize < DB_IO_ALIGN) {
        Trace("ChangeFileSize", 1, 40003007,
              TALVOR_TEXT("修改文件大小时工作缓冲区无效,文件路径:%s,缓冲区大小:%d",
                          "The work buffer is not usable when modifying file size, file path: %s, buffer size: %d"),
              p->m_lpszFilePath, nBufferSize);
        return 1;
    }

    // A smaller file would cut blocks the engine holds, and a size off the
    // sector grid cannot be written through the direct descriptor.
    if (nFileSize < p->m_liFileSize || nFileSize % DB_IO_ALIGN != 0) {
        Trace("ChangeFileSize", 1, 40003008,
              TALVOR_TEXT("文件不能缩小,且大小须为512的倍数,文件路径:%s,现有大小:%lld,要求大小:%lld",
                          "A file cannot shrink, and its size must be a multiple of 512, file path: %s, present size: %lld, size asked: %lld"),
              p->m_lpszFilePath, p->m_liFileSize, nFileSize);
        return 1;
    }

    // The image goes to disk in full first: it is about to be rebuilt from
    // the file.
    BOOL bFlashbackFlag = FALSE;
    int nResult = SaveChange2File(lpCritSection, p, nTimestamp, nLastSaveTimestamp, lpBuffer, lpHeadBuf, TRUE,
                                  bFlashbackFlag);
    if (nResult != 0) return nResult;

    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)p->m_pFileAddr;
    const long long nOldSize = p->m_liFileSize;
    int fd = Talvor_FileDescriptor(p->m_hFile);
    struct stat st;
    if (fd < 0 || CTalvorFileIO::Current()->FStat(fd, &st) != 0) {
        int nErr = fd < 0 ? EBADF : errno;
        Trace("ChangeFileSize", 1, 40003002,
              TALVOR_TEXT("执行添加文件命令时移动文件指针失败,错误:%s(%d),路径:%s",
                          "Failed to move file pointer when executing add file command, error: %s(%d), path: %s"),
              strerror(nErr), nErr, p->m_lpszFilePath);
        return 1;
    }

    // The image's head keeps the old size until the file has grown: a
    // failure leaves the file, the image and the head as they were.
    memset(lpBuffer, 0, (size_t)nBufferSize);
    for (long long nPos = p->m_liFileSize; nPos < nFileSize;) {
        int nPiece = (int)(nFileSize - nPos < nBufferSize ? nFileSize - nPos : nBufferSize);
        TalvorSetLoadSize(p, nPos / 2);
        if (!TalvorWriteFull(fd, lpBuffer, (size_t)nPiece, (off_t)nPos)) {
            int nErr = errno;
            Trace("ChangeFileSize", 1, nPiece == nBufferSize ? 40003003 : 40003004,
                  TALVOR_TEXT("执行添加文件命令时,创建新文件后写入数据失败,错误:%s(%d),路径:%s,写入位置:%lld,写入大小:%d",
                              "When executing add file command, data writing after creating a new file failed, error: %s(%d), path: %s, write location: %lld, write size: %d"),
                  strerror(nErr), nErr, p->m_lpszFilePath, nPos, nPiece);
            CTalvorFileIO::Current()->FTruncate(fd, (off_t)nOldSize);
            TalvorSetLoadSize(p, nOldSize);
            return 1;
        }
        nPos += nPiece;
    }

    long long nActual = CTalvorFileIO::Current()->FStat(fd, &st) == 0 ? (long long)st.st_size : -1;
    if (nActual != nFileSize) {
        Trace("ChangeFileSize", 1, 40003005,
              TALVOR_TEXT("文件大小异常,文件需要增长到:%lld,实际获得的文件大小为:%lld,文件路径:%s",
                          "File size exception, the file size needs to grow to: %lld, and the actual size of the obtained file is: %lld, file path: %s"),
              nFileSize, nActual, p->m_lpszFilePath);
        CTalvorFileIO::Current()->FTruncate(fd, (off_t)nOldSize);
        TalvorSetLoadSize(p, nOldSize);
        return 1;
    }

    // The old segment's name goes before the head that announces the new
    // size reaches the disk: a process that dies from here on leaves no
    // segment of the old size behind for the next start to take over
    // against a larger file. The image stays attached until the head is out.
    CShareMemory::DestoryShareMemory(p->m_nShmId);
    lpHead->m_nFileTotalSize = nFileSize;
    int nHeadSize = lpHead->m_nFileHeaderSize;
    BOOL bWritten = nHeadSize > 0 && nHeadSize <= p->m_liFileSize;
    if (!bWritten) errno = EINVAL;
    bWritten = bWritten && TalvorWriteFull(fd, p->m_pFileAddr, (size_t)nHeadSize, 0);
    if (!bWritten) {
        int nErr = errno;
        Trace("ChangeFileSize", 1, 40003006,
              TALVOR_TEXT("从内存写入物理文件失败,错误:%s(%d),路径:%s,写入位置:0,写入大小:%d",
                          "Failed to write from memory to physical file, error: %s(%d), path: %s, write location: 0, write size: %d"),
              strerror(nErr), nErr, p->m_lpszFilePath, nHeadSize);
        // The file keeps its old head: it goes back to the old size, and the
        // image (whose name is gone) is made again from it below.
        lpHead->m_nFileTotalSize = nOldSize;
        CTalvorFileIO::Current()->FTruncate(fd, (off_t)nOldSize);
        nFileSize = nOldSize;
        nResult = 1;
    }
    p->m_liFileSize = nFileSize;

    CShareMemory::ShMemDetach(p->m_pFileAddr);
    p->m_pFileAddr = nullptr;
    p->m_nShmId = 0;
    usleep(SEGMENT_REMAKE_PAUSE_US);

    if (MakeFreshSegment(p, nFileSize, "ChangeFileSize", 40003010, 40003011) != 0) return 1;

    // Unlike the load at start, the whole file is read: the zeros just
    // written are where the engine will grow into.
    for (long long nPos = 0; nPos < nFileSize;) {
        int nPiece = (int)(nFileSize - nPos < RELOAD_PIECE_SIZE ? nFileSize - nPos : RELOAD_PIECE_SIZE);
        TalvorSetLoadSize(p, nPos / 2 + nFileSize / 2);
        errno = 0;
        if (!TalvorReadFull(fd, p->m_pFileAddr + nPos, (size_t)nPiece, (off_t)nPos)) {
            int nErr = errno != 0 ? errno : EIO;
            Trace("ChangeFileSize", 1, nPiece == RELOAD_PIECE_SIZE ? 40003020 : 40003021,
                  TALVOR_TEXT("执行添加文件命令时,从物理文件读取数据失败,错误:%s(%d),路径:%s,读取位置:%lld,读取大小:%d",
                              "When executing the add file command, reading data from the physical file failed, error: %s(%d), path: %s, read location: %lld, read size: %d"),
                  strerror(nErr), nErr, p->m_lpszFilePath, nPos, nPiece);
            return 1;
        }
        nPos += nPiece;
    }
    TalvorSetLoadSize(p, nFileSize);
    if (nResult != 0) return nResult;
    Trace("ChangeFileSize", 3, 40003098,
          TALVOR_TEXT("成功修改文件大小,文件路径:%s,文件大小:%lld", "Successfully modified the file size, file path: %s, file size: %lld"),
          p->m_lpszFilePath, nFileSize);
    return 0;
}
