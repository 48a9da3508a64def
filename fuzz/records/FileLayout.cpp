// The layout helpers every reader of a database file trusts: the file list
// walk of a system image, the object table of a memory-mode image and the
// walk of each object's two map chains, master and slave. The image is
// allocated at its exact size so that a step past it is caught.
#include "DbFileLayout.h"
#include "FuzzImage.h"

#include <cstdint>
#include <cstdlib>

namespace {

// The maker's system file keeps its file list in the first 256 KiB; a smaller bound keeps the runs fast.
const uint32_t MAX_IMAGE = 512 * 1024;

void WalkFileList(LPBYTE lpImage, long long nSize)
{
    long long nRows = 0;
    DbForEachFileListRow(lpImage, nSize, [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
        nRows += lpRow->m_bFileNo;  // each row handed out is read
        return true;
    });
    for (int nFileNo : {1, 2, 255}) DbFindFileListRow(lpImage, nSize, (BYTE)nFileNo);
}

void WalkObjects(LPBYTE lpImage, long long nSize)
{
    if (nSize < (long long)sizeof(BASEFILEHEAD)) return;
    int nBlockMapSize = ((LPBASEFILEHEAD)lpImage)->m_nBlockMapSize;
    for (int nEntry = 0; nEntry < 64; nEntry++) {
        LPBASEFILEOBJECTDEF lpObject = DbMemoryFileObject(lpImage, nSize, nEntry);
        if (lpObject == nullptr) break;
        for (long long nFirst : {(long long)lpObject->m_nFullBlockMapOffset, (long long)lpObject->m_nFreeBlockMapOffset}) {
            for (long long nDelta : {0LL, (long long)nBlockMapSize}) {
                long long nBad = 0, nLength = 0;
                DbCheckMapChain(lpImage, nSize, nFirst, nDelta, &nBad, &nLength);
                DbWalkMapChain(lpImage, nSize, nFirst, nDelta, &nBad, [&](long long, LPBASEFILEBLOCKMAP lpEntry) {
                    return DbSystemBlockFits(lpImage, nSize, lpEntry->m_nBlockOffset) || lpEntry->m_nBlockOffset != 0;
                });
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::CFuzzImage image(lpData, nSize, 512, MAX_IMAGE);
    if (!image.Ok()) return 0;
    LPBYTE lpImage = (LPBYTE)malloc(image.ImageSize());
    if (lpImage == nullptr) return 0;
    image.Fill(lpImage);
    if (image.TagA() & 1)
        WalkObjects(lpImage, image.ImageSize());
    else
        WalkFileList(lpImage, image.ImageSize());
    free(lpImage);
    return 0;
}
