// The inspector's walk of a memory-mode image (the system file's too): the
// map blocks, every block a map names, the object chains and the head and
// commit checks, over whatever bytes a damaged file holds. The image is
// allocated at its exact size so that a step past it is caught.
#include "DbFileCheck.h"
#include "FuzzImage.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const uint32_t MAX_IMAGE = 512 * 1024;

void CountFinding(void* pContext, const DBFINDING* pFinding) { *(long long*)pContext += pFinding->m_nKind; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::CFuzzImage image(lpData, nSize, 512, MAX_IMAGE);
    if (!image.Ok()) return 0;
    LPBYTE lpImage = (LPBYTE)malloc(image.ImageSize());
    if (lpImage == nullptr) return 0;
    image.Fill(lpImage);
    long long nSum = 0;
    CDbChecker checker(CountFinding, nullptr, &nSum);
    DBFILESUMMARY stFile;
    memset(&stFile, 0, sizeof(stFile));
    // Tag A odd: a data file; even: the system file (as the seeds are made).
    stFile.m_bFileNo = (BYTE)(image.TagA() & 1 ? 2 : SYSTEMFILE_FILENO);
    stFile.m_bFileType = image.TagA() & 1 ? FILETYPE_DATA : FILETYPE_SYSTEM;
    DbWalkMemoryImage(&checker, &stFile, lpImage, image.ImageSize());
    free(lpImage);
    return 0;
}
