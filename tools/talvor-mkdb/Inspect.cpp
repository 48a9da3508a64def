// Inspect.cpp — looks into the shared images of a running daemon, read
// only, and compares each with its file. Run it in the daemon's IPC
// namespace.
#include "DbFileCheck.h"
#include "DbFileLayout.h"
#include "MkdbTool.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace talvormkdb {

namespace {

const long long COMPARE_PIECE = 8388608;

// A read-only view of one segment.
struct ImageView {
    LPBYTE m_lpAddr = nullptr;
    long long m_nSize = 0;

    bool Attach(int nKey)
    {
        int nId = shmget(nKey, 0, 0);
        if (nId < 0) return false;
        struct shmid_ds ds;
        if (shmctl(nId, IPC_STAT, &ds) != 0) return false;
        void* p = shmat(nId, nullptr, SHM_RDONLY);
        if (p == (void*)-1) return false;
        m_lpAddr = (LPBYTE)p;
        m_nSize = (long long)ds.shm_segsz;
        return true;
    }
    ~ImageView()
    {
        if (m_lpAddr != nullptr) shmdt(m_lpAddr);
    }
};

// The system file from disk, read-only, by the reader the offline inspector
// uses.
bool ReadFileBytes(const char* lpszPath, std::string* pstrData)
{
    int fd = CTalvorFileIO::Current()->Open(lpszPath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    long long nSize = 0;
    LPBYTE lpData = DbReadWholeFile(fd, &nSize);
    CTalvorFileIO::Current()->Close(fd);
    if (lpData == nullptr) return false;
    pstrData->assign((const char*)lpData, (size_t)nSize);
    free(lpData);
    return true;
}

// First offset in [0, nFree) where image and file differ, and first non-zero
// offset of the image in [nFree, size); -1 for none.
void CompareWithFile(const ImageView& stImage, const char* lpszPath, long long nFree, long long* pnDiff,
                     long long* pnNonZero)
{
    *pnDiff = -1;
    *pnNonZero = -1;
    FILE* f = fopen(lpszPath, "rb");
    if (f == nullptr) {
        *pnDiff = 0;
        return;
    }
    std::string strBuf(COMPARE_PIECE, '\0');
    long long nEnd = nFree < stImage.m_nSize ? nFree : stImage.m_nSize;
    for (long long nPos = 0; nPos < nEnd && *pnDiff < 0;) {
        size_t nWant = (size_t)(nEnd - nPos < COMPARE_PIECE ? nEnd - nPos : COMPARE_PIECE);
        size_t nGot = fread(&strBuf[0], 1, nWant, f);
        for (size_t i = 0; i < nWant; i++) {
            if (i >= nGot || (BYTE)strBuf[i] != stImage.m_lpAddr[nPos + (long long)i]) {
                *pnDiff = nPos + (long long)i;
                break;
            }
        }
        nPos += (long long)nWant;
    }
    fclose(f);
    for (long long nPos = nEnd > 0 ? nEnd : 0; nPos < stImage.m_nSize; nPos++) {
        if (stImage.m_lpAddr[nPos] != 0) {
            *pnNonZero = nPos;
            break;
        }
    }
}

void PrintFile(const FILE_MEMDBFILEINFO& stRow)
{
    char szPath[sizeof(stRow.m_lpszFilePath) + 1] = {0};
    memcpy(szPath, stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath));
    struct stat st;
    long long nDiskSize = stat(szPath, &st) == 0 ? (long long)st.st_size : -1;
    ImageView stImage;
    if (!stImage.Attach(FileImageShmKey(stRow.m_bFileNo))) {
        printf("file=%d type=%d image=none size=%lld loadsize=%lld path=%s\n", stRow.m_bFileNo, stRow.m_bFileType,
               nDiskSize, stRow.m_nLoadSize, szPath);
        return;
    }
    long long nFree = stImage.m_nSize >= (long long)sizeof(BASEFILEHEAD)
                          ? ((LPBASEFILEHEAD)stImage.m_lpAddr)->m_nFileFreeMemoryOffset
                          : 0;
    long long nDiff = -1, nNonZero = -1;
    CompareWithFile(stImage, szPath, nFree, &nDiff, &nNonZero);
    printf("file=%d type=%d image=yes size=%lld imagesize=%lld free=%lld loadsize=%lld firstdiff=%lld "
           "firstnonzeroafterfree=%lld path=%s\n",
           stRow.m_bFileNo, stRow.m_bFileType, nDiskSize, stImage.m_nSize, nFree, stRow.m_nLoadSize, nDiff, nNonZero,
           szPath);
}

void PrintProgress()
{
    ImageView stChannel;
    if (!stChannel.Attach(SHMKEY_STORAGEMEM) || stChannel.m_nSize < (long long)sizeof(STORAGEMEMHEAD)) {
        printf("progress=none\n");
        return;
    }
    const TALVORPROGRESS& st = ((LPSTORAGEMEMHEAD)stChannel.m_lpAddr)->m_TalvorProgress;
    char szTitle[sizeof(st.m_lpTitle) + 1] = {0};
    memcpy(szTitle, st.m_lpTitle, sizeof(st.m_lpTitle));
    printf("progress status=%d pos=%d total=%d title=%s\n", st.m_nStatus, st.m_nPos, st.m_nTotal, szTitle);
}

} // namespace

int InspectDatabase(const std::string& strDir)
{
    // The live rows when the daemon runs, else those on disk.
    std::string strSystemPath = strDir + "/" + DB_SYSTEMFILE_NAME;
    ImageView stSystem;
    std::string strDisk;
    LPBYTE lpImage = nullptr;
    long long nSize = 0;
    if (stSystem.Attach(FileImageShmKey(SYSTEMFILE_FILENO))) {
        // Rows are only read here; the walk takes a writable pointer type.
        lpImage = stSystem.m_lpAddr;
        nSize = stSystem.m_nSize;
        printf("system image=yes imagesize=%lld status=%d\n", nSize,
               nSize >= (long long)sizeof(SYSTEMFILEHEAD) ? ((LPSYSTEMFILEHEAD)lpImage)->m_bStatus : -1);
    } else if (ReadFileBytes(strSystemPath.c_str(), &strDisk)) {
        lpImage = (LPBYTE)&strDisk[0];
        nSize = (long long)strDisk.size();
        printf("system image=none\n");
    } else {
        fprintf(stderr, "talvor-mkdb: cannot read %s: %s\n", strSystemPath.c_str(), strerror(errno));
        return 1;
    }
    int nResult = DbForEachFileListRow(lpImage, nSize, [](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bDropFlag == 1) return true;
        FILE_MEMDBFILEINFO stRow = *lpRow;
        PrintFile(stRow);
        return true;
    });
    if (nResult != DBCHAIN_OK) printf("filelist=damaged(%d)\n", nResult);
    PrintProgress();
    return 0;
}

namespace {

// The first nBytes of a segment (all of it for a negative nBytes) into strOut.
int DumpSegment(const ImageView& stImage, const std::string& strOut, long long nBytes)
{
    long long nSize = nBytes < 0 || nBytes > stImage.m_nSize ? stImage.m_nSize : nBytes;
    FILE* f = fopen(strOut.c_str(), "wb");
    if (f == nullptr) {
        fprintf(stderr, "talvor-mkdb: cannot write %s: %s\n", strOut.c_str(), strerror(errno));
        return 1;
    }
    bool bDone = fwrite(stImage.m_lpAddr, 1, (size_t)nSize, f) == (size_t)nSize;
    bDone = fclose(f) == 0 && bDone;
    return bDone ? 0 : 1;
}

} // namespace

int DumpImage(int nFileNo, const std::string& strOut)
{
    ImageView stImage;
    if (!stImage.Attach(FileImageShmKey((BYTE)nFileNo))) {
        fprintf(stderr, "talvor-mkdb: no image of file %d\n", nFileNo);
        return 2;
    }
    return DumpSegment(stImage, strOut, -1);
}

int DumpCache(const std::string& strOut, long long nBytes)
{
    ImageView stImage;
    if (!stImage.Attach(SHMKEY_CACHEBUFFER)) {
        fprintf(stderr, "talvor-mkdb: no shared cache\n");
        return 2;
    }
    printf("cache size %lld\n", stImage.m_nSize);
    return DumpSegment(stImage, strOut, nBytes);
}

} // namespace talvormkdb
