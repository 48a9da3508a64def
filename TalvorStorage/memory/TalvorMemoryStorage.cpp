// TalvorMemoryStorage.cpp — opening a memory-mode file and bringing it into
// its segment, releasing it, and the small operations.
#include "TalvorMemoryStorage.h"

#include "DbFileLayout.h"
#include "TalvorTrace.h"
#include "ShareMemory.h"
#include "TalvorFileIO.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Transfers between a file and its image go in pieces of this size.
const long long LOAD_PIECE_SIZE = 8388608;
// Reads a load keeps in flight after the first piece.
const int LOAD_PIECES_IN_FLIGHT = 2;
// A file whose size differs from its row is taken at its size on disk only
// if this much of it can be read.
const int SIZE_PROBE_BYTES = 8192;
const int READBLOCK_TRIES = 3;

// Smallest file that can hold the head its type implies.
long long MinimumFileSize(BYTE bFileType)
{
    return bFileType == FILETYPE_SYSTEM ? (long long)sizeof(SYSTEMFILEHEAD) : (long long)sizeof(BASEFILEHEAD);
}

void TraceHeadMark(BYTE bFileType, int nFound, int nExpected, const char* lpszPath)
{
    switch (bFileType) {
    case FILETYPE_SYSTEM:
        Trace("Initialize", 1, 40001012,
              TALVOR_TEXT("系统文件的头数据不正确,校验码:%d[%d]", "Header data for system file is incorrect, check code: %d[%d]"),
              nFound, nExpected);
        break;
    case FILETYPE_DATA:
        Trace("Initialize", 1, 40001013,
              TALVOR_TEXT("从数据文件读取的数据内容中的头信息不正确,文件校验码:%d[%d],路径:%s",
                          "Header information in data content read from data file is incorrect, file check code: %d[%d], path: %s"),
              nFound, nExpected, lpszPath);
        break;
    case FILETYPE_BTREEINDEX:
        Trace("Initialize", 1, 40001014,
              TALVOR_TEXT("从B树索引文件读取的数据内容中的头信息不正确,文件校验码:%d[%d],路径:%s",
                          "Header information in data content read from b-tree index file is incorrect, file check code: %d[%d], path: %s"),
              nFound, nExpected, lpszPath);
        break;
    default:
        Trace("Initialize", 1, 40001015,
              TALVOR_TEXT("从KV索引文件读取的数据内容中的头信息不正确,文件校验码:%d[%d],路径:%s",
                          "Header information in data content read from KV index file is incorrect, file check code: %d[%d], path: %s"),
              nFound, nExpected, lpszPath);
        break;
    }
}

} // namespace

CTalvorMemoryStorage::CTalvorMemoryStorage() : m_pFileInfo(nullptr), m_pFlashback(nullptr) {}

CTalvorMemoryStorage::~CTalvorMemoryStorage() {}

int CTalvorMemoryStorage::OpenFlags(BYTE bFileType, BOOL bCreate)
{
    int nFlags = bFileType == FILETYPE_SYSTEM ? O_RDWR : (O_RDWR | O_DIRECT | O_SYNC);
    if (bCreate) nFlags |= O_CREAT | O_EXCL;
    return nFlags | O_CLOEXEC;
}

int CTalvorMemoryStorage::OpenExistingFile()
{
    LPFILEINFO p = m_pFileInfo;
    int fd = CTalvorFileIO::Current()->Open(p->m_lpszFilePath, OpenFlags((BYTE)p->m_bFileType, FALSE), 0666);
    int nErr = errno;
    CTalvorFileIO::Current()->Chmod(p->m_lpszFilePath, 0666);
    if (fd < 0) {
        Trace("Initialize", 0, 40001001,
              TALVOR_TEXT("打开文件失败,错误:%s(%d),路径:%s", "Failed to open file, error: %s(%d), path: %s"),
              strerror(nErr), nErr, p->m_lpszFilePath);
        return 1;
    }
    p->m_hFile = Talvor_MakeFileHandle(fd);
    if (p->m_hFile == nullptr) {
        CTalvorFileIO::Current()->Close(fd);
        Trace("Initialize", 0, 40001001,
              TALVOR_TEXT("打开文件失败,错误:%s(%d),路径:%s", "Failed to open file, error: %s(%d), path: %s"),
              strerror(ENOMEM), ENOMEM, p->m_lpszFilePath);
        return 1;
    }
    return 0;
}

// The size on disk wins. The system file's row is refreshed from it at
// start; any other file must show that it can be read before its row's size
// is overruled.
BOOL CTalvorMemoryStorage::SettleFileSize()
{
    LPFILEINFO p = m_pFileInfo;
    int fd = Talvor_FileDescriptor(p->m_hFile);
    struct stat st;
    long long nTrueSize = CTalvorFileIO::Current()->FStat(fd, &st) == 0 ? (long long)st.st_size : 0;
    if (p->m_bFileType != FILETYPE_SYSTEM && nTrueSize != p->m_liFileSize) {
        LPBYTE lpProbe = (LPBYTE)get_aligned_buffer(SIZE_PROBE_BYTES);
        BOOL bRead = lpProbe != nullptr && TalvorReadFull(fd, lpProbe, SIZE_PROBE_BYTES, 0);
        int nErr = errno;
        free(lpProbe);
        if (!bRead) {
            Trace("Initialize", 1, 40001003,
                  TALVOR_TEXT("文件大小与系统文件记录不同且无法读取文件头,错误:%s(%d),路径:%s,磁盘大小:%lld,记录大小:%lld",
                              "The file size differs from the system file and its head cannot be read, error: %s(%d), path: %s, size on disk: %lld, recorded size: %lld"),
                  strerror(nErr), nErr, p->m_lpszFilePath, nTrueSize, p->m_liFileSize);
            return FALSE;
        }
    }
    p->m_liFileSize = nTrueSize;
    m_nDiskFileSize = nTrueSize;
    if (nTrueSize < MinimumFileSize((BYTE)p->m_bFileType)) {
        Trace("Initialize", 1, 40001011,
              TALVOR_TEXT("文件太小,容不下文件头,路径:%s,文件大小:%lld", "The file is too small to hold a file head, path: %s, file size: %lld"),
              p->m_lpszFilePath, nTrueSize);
        return FALSE;
    }
    return TRUE;
}

long long CTalvorMemoryStorage::DiskHeadSize()
{
    int fd = Talvor_FileDescriptor(m_pFileInfo->m_hFile);
    LPBYTE lpProbe = (LPBYTE)get_aligned_buffer(SIZE_PROBE_BYTES);
    long long nSize = -1;
    if (lpProbe != nullptr && TalvorReadFull(fd, lpProbe, SIZE_PROBE_BYTES, 0))
        nSize = ((LPBASEFILEHEAD)lpProbe)->m_nFileTotalSize;
    free(lpProbe);
    return nSize;
}

int CTalvorMemoryStorage::AttachSegment(BOOL& bExists)
{
    LPFILEINFO p = m_pFileInfo;
    bExists = FALSE;
    MFID nShmId = CShareMemory::CreateShareMemory(FileImageShmKey(p->m_bFileNo), (size_t)p->m_liFileSize, nullptr, bExists);
    // A segment smaller than the file is not handed out at the file's size;
    // it is taken at its own and judged below.
    if (nShmId == 0 && bExists)
        nShmId = CShareMemory::CreateShareMemory(FileImageShmKey(p->m_bFileNo), 0, nullptr, bExists);
    if (nShmId == 0) {
        int nErr = errno;
        Trace("Initialize", 1, 40001007,
              TALVOR_TEXT("打开内存文件失败,错误:%s(%d),内存文件:%s,文件大小:%lld",
                          "Open memory file failed, error: %s(%d), memory file: %s, file size: %lld"),
              strerror(nErr), nErr, p->m_lpszTablespaceName, p->m_liFileSize);
        return 1;
    }
    // A segment that survived must match the file, or the image and the file
    // would disagree on every offset past the shorter one. It is left alone:
    // it may hold the engine's unsaved work.
    if (bExists) {
        long long nSegSize = (long long)CShareMemory::ShareMemorySize(nShmId);
        // The system file grows on command while its image keeps its size
        // until a start makes it anew: an image of the size before the
        // growth is the engine's, and is taken over at that size.
        // Any other file: a growth that the process did not live to finish
        // leaves the file longer than its head says and its image at the
        // old size; the head on disk tells, and the image is taken over at
        // its size (the tail is zeros nobody uses yet).
        if (p->m_bFileType != FILETYPE_SYSTEM && nSegSize < p->m_liFileSize &&
            nSegSize >= MinimumFileSize((BYTE)p->m_bFileType) && DiskHeadSize() <= nSegSize &&
            DiskHeadSize() > 0) {
            Trace("Initialize", 3, 40001019,
                  TALVOR_TEXT("文件的增长未完成,保留下来的内存文件按其大小接管,内存文件:%s,内存大小:%lld,文件大小:%lld",
                              "The file's growth did not finish, and the memory file that survived is taken over at its size, memory file: %s, memory size: %lld, file size: %lld"),
                  p->m_lpszTablespaceName, nSegSize, p->m_liFileSize);
            p->m_liFileSize = nSegSize;
        }
        if (p->m_bFileType == FILETYPE_SYSTEM && nSegSize < p->m_liFileSize &&
            nSegSize >= MinimumFileSize(FILETYPE_SYSTEM)) {
            Trace("Initialize", 3, 40001018,
                  TALVOR_TEXT("保留下来的系统内存文件小于已增长的系统文件,按其大小接管,内存文件:%s,内存大小:%lld,文件大小:%lld",
                              "The system memory file that survived is smaller than the grown system file and is taken over at its size, memory file: %s, memory size: %lld, file size: %lld"),
                  p->m_lpszTablespaceName, nSegSize, p->m_liFileSize);
            p->m_liFileSize = nSegSize;
        }
        if (nSegSize != p->m_liFileSize) {
            Trace("Initialize", 1, 40001009,
                  TALVOR_TEXT("保留下来的内存文件与文件大小不同,内存文件:%s,内存大小:%lld,文件大小:%lld",
                              "The memory file that survived has another size than the file, memory file: %s, memory size: %lld, file size: %lld"),
                  p->m_lpszTablespaceName, nSegSize, p->m_liFileSize);
            return 1;
        }
    }
    p->m_nShmId = nShmId;
    p->m_pFileAddr = (LPBYTE)CShareMemory::ShMemAttach(nShmId, nullptr, 0);
    if (p->m_pFileAddr == nullptr) {
        int nErr = errno;
        Trace("Initialize", 1, 40001008,
              TALVOR_TEXT("内存文件映射内存失败,错误:%s(%d),内存文件:%s", "Memory file mapping memory failure, error: %s(%d), memory file: %s"),
              strerror(nErr), nErr, p->m_lpszTablespaceName);
        return 1;
    }
    return 0;
}

namespace {

// One piece of a file read into its place in the image.
struct LOADPIECE {
    int m_fd;
    LPBYTE m_lpDst;
    int m_nSize;
    long long m_nPos;
    BOOL m_bRead;  // FALSE: past the free offset, left zero
    BOOL m_bGood;
    int m_nErrno;
};

void ReadLoadPiece(LOADPIECE* pPiece)
{
    if (!pPiece->m_bRead) return;
    errno = 0;
    pPiece->m_bGood = TalvorReadFull(pPiece->m_fd, pPiece->m_lpDst, (size_t)pPiece->m_nSize, (off_t)pPiece->m_nPos);
    pPiece->m_nErrno = pPiece->m_bGood ? 0 : (errno != 0 ? errno : EIO);
}

void* ReadLoadPieceThread(void* lpParam)
{
    ReadLoadPiece((LOADPIECE*)lpParam);
    return nullptr;
}

// The pieces read, the second (if any) on a short-lived thread of its own
// while this one reads the first: a disk serves two reads in flight faster
// than one after the other, above all while it still writes back what was
// just written to it (a restore). Inline when no thread can be had. The
// join hands the piece over; the two never touch the same bytes. pfnLoaded
// is told each piece's position once all before it are in.
template <class FnLoaded>
void ReadLoadPieces(LOADPIECE* arPieces, int nCount, FnLoaded pfnLoaded)
{
    HTHREADTYPE hReader = 0;
    BOOL bHelper = nCount > 1 && arPieces[1].m_bRead &&
                   CreateJoinableThread(&hReader, ReadLoadPieceThread, &arPieces[1]) == 0;
    pfnLoaded(arPieces[0].m_nPos);
    ReadLoadPiece(&arPieces[0]);
    if (nCount < 2) return;
    if (arPieces[0].m_bGood) pfnLoaded(arPieces[1].m_nPos);
    if (bHelper)
        pthread_join(hReader, nullptr);
    else
        ReadLoadPiece(&arPieces[1]);
}

// The end of the last piece a load reads: pieces that begin past the free
// offset are left out.
long long LoadReadEnd(long long nFreeOffset, long long nSize)
{
    if (nFreeOffset < 0) return LOAD_PIECE_SIZE;
    long long nLastStart = nFreeOffset / LOAD_PIECE_SIZE * LOAD_PIECE_SIZE;
    return nLastStart + LOAD_PIECE_SIZE < nSize ? nLastStart + LOAD_PIECE_SIZE : nSize;
}

// Faults the pages of a fresh segment in ahead of the reads, on a thread of
// its own. A direct read into pages not yet there makes them first, zeroing
// each, and that costs about as much again as the read: done ahead, it
// overlaps the reads instead of delaying each. The pages are made as the
// kernel makes them for a read (MADV_POPULATE_WRITE never changes a byte),
// so a read that gets to a page first loses nothing; the thread stops at
// the first refusal, and the reads fault in what is left.
class CSegmentPrefault {
public:
    CSegmentPrefault() = default;
    CSegmentPrefault(const CSegmentPrefault&) = delete;
    CSegmentPrefault& operator=(const CSegmentPrefault&) = delete;
    ~CSegmentPrefault() { Stop(); }

    // Starts on [lpFrom, lpFrom + nBytes), lpFrom page-aligned. Without a
    // thread nothing is done ahead.
    void Start(LPBYTE lpFrom, long long nBytes)
    {
        if (m_bRunning || nBytes <= 0) return;
        m_lpFrom = lpFrom;
        m_nBytes = nBytes;
        m_bRunning = CreateJoinableThread(&m_hThread, Run, this) == 0;
    }
    // Ends the thread at its next chunk and waits for it.
    void Stop()
    {
        if (!m_bRunning) return;
        m_bStop.store(true, std::memory_order_relaxed);
        pthread_join(m_hThread, nullptr);
        m_bRunning = FALSE;
    }

private:
    static void* Run(void* lpParam)
    {
        CSegmentPrefault* pThis = (CSegmentPrefault*)lpParam;
        const long long CHUNK = 2097152;
        for (long long nDone = 0; nDone < pThis->m_nBytes; nDone += CHUNK) {
            if (pThis->m_bStop.load(std::memory_order_relaxed)) break;
            long long nChunk = pThis->m_nBytes - nDone < CHUNK ? pThis->m_nBytes - nDone : CHUNK;
            if (madvise(pThis->m_lpFrom + nDone, (size_t)nChunk, MADV_POPULATE_WRITE) != 0) break;
        }
        return nullptr;
    }

    LPBYTE m_lpFrom = nullptr;
    long long m_nBytes = 0;
    std::atomic<bool> m_bStop{false};
    HTHREADTYPE m_hThread = 0;
    BOOL m_bRunning = FALSE;
};

} // namespace

// Reads the file into a new segment, two pieces at a time after the first.
// Pieces that begin past the head's free offset are not read: the format
// keeps those bytes zero, and a new segment is zero already (shmget
// guarantees it), so leaving them untouched is the same image without
// committing memory the file never used. The first piece is read alone: it
// brings the head whose free offset decides the others.
int CTalvorMemoryStorage::LoadImage(LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress)
{
    LPFILEINFO p = m_pFileInfo;
    int fd = Talvor_FileDescriptor(p->m_hFile);
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)p->m_pFileAddr;
    long long nSize = p->m_liFileSize;
    // The load size and progress tell the bytes before a piece once they
    // are all in.
    auto Loaded = [&](long long nBefore) {
        TalvorSetLoadSize(p, nBefore);
        if (lpTalvorProgress != nullptr) lpTalvorProgress->m_nPos = (int)((nTotalProgress + nBefore) / DB_MIB);
    };
    CSegmentPrefault stPrefault;
    for (long long nPos = 0; nPos < nSize;) {
        if (nPos == LOAD_PIECE_SIZE)
            stPrefault.Start(p->m_pFileAddr + nPos, LoadReadEnd(lpHead->m_nFileFreeMemoryOffset, nSize) - nPos);
        LOADPIECE arPieces[LOAD_PIECES_IN_FLIGHT];
        int nCount = 0;
        const int nMax = nPos == 0 ? 1 : LOAD_PIECES_IN_FLIGHT;
        for (; nCount < nMax && nPos < nSize; nCount++) {
            int nPiece = (int)(nSize - nPos < LOAD_PIECE_SIZE ? nSize - nPos : LOAD_PIECE_SIZE);
            BOOL bRead = nPos == 0 || nPos <= lpHead->m_nFileFreeMemoryOffset;
            arPieces[nCount] = LOADPIECE{fd, p->m_pFileAddr + nPos, nPiece, nPos, bRead, TRUE, 0};
            nPos += nPiece;
        }
        ReadLoadPieces(arPieces, nCount, Loaded);
        for (int i = 0; i < nCount; i++) {
            if (arPieces[i].m_bGood) continue;
            int nErr = arPieces[i].m_nErrno;
            Trace("Initialize", 1, 40001010,
                  TALVOR_TEXT("从物理文件读取数据失败,错误:%s(%d),路径:%s,读取位置:%lld,读取大小:%d",
                              "Failed to read data from physical file, error: %s(%d), path: %s, read location: %lld, read size: %d"),
                  strerror(nErr), nErr, p->m_lpszFilePath, arPieces[i].m_nPos, arPieces[i].m_nSize);
            return 1;
        }
    }
    TalvorSetLoadSize(p, nSize);
    return 0;
}

int CTalvorMemoryStorage::CheckImageHead()
{
    LPFILEINFO p = m_pFileInfo;
    BYTE bFileType = (BYTE)p->m_bFileType;
    if (bFileType > FILETYPE_KVINDEX) return 0;  // type 5 has no head of its own
    LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)p->m_pFileAddr;
    int nExpected = FileHeadDataFlag(bFileType);
    if (lpHead->m_nDataFlag != nExpected) {
        TraceHeadMark(bFileType, lpHead->m_nDataFlag, nExpected, p->m_lpszFilePath);
        return 1;
    }
    if (lpHead->m_bFileNo != p->m_bFileNo) {
        Trace("Initialize", 1, 40001016,
              TALVOR_TEXT("文件头信息中记录的文件号与系统文件中的不一致,文件号:%d[%d],路径:%s",
                          "The file number recorded in the file header information is inconsistent with that in the system file, file number: %d[%d], path: %s"),
              lpHead->m_bFileNo, p->m_bFileNo, p->m_lpszFilePath);
        return 1;
    }
    // The engine takes the file's extent from its head: an image shorter
    // than that would be overrun at the first access past its end.
    long long nHeadSize = lpHead->m_nFileTotalSize;
    // A grown system file's head tells the size on disk, which its image
    // reaches at the next start that makes it anew.
    long long nLimit = bFileType == FILETYPE_SYSTEM && m_bTookOver ? m_nDiskFileSize : p->m_liFileSize;
    if (nHeadSize > nLimit) {
        Trace("Initialize", 1, 40001017,
              TALVOR_TEXT("文件比其头信息记录的短,路径:%s,文件大小:%lld,头信息记录大小:%lld",
                          "The file is shorter than its head says, path: %s, file size: %lld, size in the head: %lld"),
              p->m_lpszFilePath, p->m_liFileSize, nHeadSize);
        return 1;
    }
    return 0;
}

int CTalvorMemoryStorage::Initialize(LPTALVORCRITICALSECTION, LPFILEINFO pFileInfo, long long nTimestamp,
                                     CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress,
                                     long long nTotalProgress, BYTE)
{
    m_stMapOnDisk.Forget();
    m_pFileInfo = pFileInfo;
    m_pFlashback = pFlashback;
    if (pFileInfo == nullptr || pFileInfo->m_bFileType < 1 || pFileInfo->m_bFileType > 5) return 1;
    if (OpenExistingFile() != 0) return 1;
    if (!SettleFileSize()) return 1;
    BOOL bExists = FALSE;
    if (AttachSegment(bExists) != 0) return 1;
    m_bTookOver = bExists;
    if (bExists) {
        // The engine's image survived us: it is newer than the file.
        TalvorSetLoadSize(pFileInfo, pFileInfo->m_liFileSize);
    } else if (LoadImage(lpTalvorProgress, nTotalProgress) != 0) {
        return 1;
    }
    if (CheckImageHead() != 0) return 1;
    // A loaded image holds the file's map as the file does: knowing it spares
    // the first save pass of this run writing every map block again. An
    // image taken over is newer than the file, and its map may be too.
    if (!bExists) {
        LPBASEFILEHEAD lpHead = (LPBASEFILEHEAD)pFileInfo->m_pFileAddr;
        m_stMapOnDisk.LearnFromFile(Talvor_FileDescriptor(pFileInfo->m_hFile), lpHead->m_nBlockMapStartOffset,
                                    lpHead->m_nBlockMapSize, m_nDiskFileSize);
    }
    // The image counts as saved up to the start of this run, so that the
    // first save pass compares against it.
    if (pFileInfo->m_bFileType != FILETYPE_SYSTEM) pFileInfo->m_nTimestamp = nTimestamp;
    return 0;
}

int CTalvorMemoryStorage::Release()
{
    m_stMapOnDisk.Forget();
    LPFILEINFO p = m_pFileInfo;
    if (p != nullptr) {
        Talvor_CloseFile(p->m_hFile);
        if (p->m_pFileAddr != nullptr) CShareMemory::ShMemDetach(p->m_pFileAddr);
        if (p->m_nShmId != 0 && !m_bKeepSegment) {
            usleep(1000);
            CShareMemory::DestoryShareMemory(p->m_nShmId);
        }
        p->m_pStorageFile = nullptr;
    }
    delete this;
    return 0;
}

// SaveChange2File, the save pass, lives in TalvorMemoryStorageSave.cpp.

int CTalvorMemoryStorage::ReadBlock(LPTALVORCRITICALSECTION, long long llPos, LPBYTE lpBuf, int nSize)
{
    LPFILEINFO p = m_pFileInfo;
    if (nSize < 1) {
        // A copy out of the image; the range comes from the caller, so it is
        // held to the image.
        long long nCount = -(long long)nSize;
        if (p == nullptr || p->m_pFileAddr == nullptr || lpBuf == nullptr || llPos < 0 ||
            llPos > p->m_liFileSize - nCount)
            return 1;
        memcpy(lpBuf, p->m_pFileAddr + llPos, (size_t)nCount);
        return 0;
    }
    int fd = p != nullptr ? Talvor_FileDescriptor(p->m_hFile) : -1;
    int nErr = 0;
    long long nDone = 0;
    bool bFailed = false;
    // A caller copies what it asked for (a backup takes the file piece by
    // piece): a short read is read on, never taken for the whole.
    for (int i = 0; i < READBLOCK_TRIES && nDone < nSize;) {
        ssize_t n = CTalvorFileIO::Current()->PRead(fd, lpBuf + nDone, (size_t)(nSize - nDone), (off_t)(llPos + nDone));
        if (n > 0) {
            nDone += n;
            continue;
        }
        if (n < 0) {
            nErr = errno;
            bFailed = true;
        }
        i++;
    }
    if (nDone == nSize) return 0;
    ssize_t nActual = (ssize_t)nDone;
    Trace("ReadBlock", 1, 40006001,
          TALVOR_TEXT("读取的文件数据块大小不正确,错误:%s(%d),路径:%s,读取大小:%d,实际返回大小:%d,文件偏移:%lld",
                      "The file data block size read is incorrect, error: %s(%d), path: %s, read size: %d, actual return size: %d, file offset: %lld"),
          strerror(nErr), nErr, p != nullptr ? p->m_lpszFilePath : "", nSize, bFailed ? -1 : (int)nActual, llPos);
    return 1;
}

int CTalvorMemoryStorage::LoadBlock(LPTALVORCRITICALSECTION, BYTE, UINT, long long&, int, LPBYTE) { return 0; }

int CTalvorMemoryStorage::FlushBlock(LPTALVORCRITICALSECTION, stu_CacheFlush*, LPBYTE) { return 0; }

// Memory mode moves a file with Save2File instead.
int CTalvorMemoryStorage::ChangeFilePath(LPTALVORCRITICALSECTION, LPFILEINFO, char*, LPBYTE, int, LPTALVORPROGRESS,
                                         BYTE)
{
    return 0;
}

long long CTalvorMemoryStorage::GetFreeMemoryOffset(LPFILEINFO pFileInfo)
{
    if (pFileInfo == nullptr || pFileInfo->m_pFileAddr == nullptr) return 0;
    return ((LPBASEFILEHEAD)pFileInfo->m_pFileAddr)->m_nFileFreeMemoryOffset;
}

int CTalvorMemoryStorage::OpenFile(LPTALVORCRITICALSECTION, LPFILEINFO, BYTE) { return 0; }

int CTalvorMemoryStorage::GetHeadSize(LPFILEINFO pFileInfo)
{
    if (pFileInfo == nullptr || pFileInfo->m_pFileAddr == nullptr) return 0;
    return ((LPBASEFILEHEAD)pFileInfo->m_pFileAddr)->m_nFileHeaderSize;
}

long long CTalvorMemoryStorage::GetFileTimestamp(LPFILEINFO pFileInfo)
{
    if (pFileInfo == nullptr || pFileInfo->m_pFileAddr == nullptr) return 0;
    return ((LPBASEFILEHEAD)pFileInfo->m_pFileAddr)->m_nTimestamp;
}

BOOL CTalvorMemoryStorage::CheckSpace(LPFILEINFO) { return TRUE; }

void CTalvorMemoryStorage::TestSpeed(LPTALVORCRITICALSECTION, LPBYTE, int, int) {}

BOOL CTalvorMemoryStorage::CheckFlush() { return FALSE; }

int CTalvorMemoryStorage::FlushBuffer(LPTALVORCRITICALSECTION) { return -1; }
