// The inspector's walk of a database file over whatever bytes a damaged
// file holds. Tag A bit 1 clear: a memory-mode image (the system file's
// too) walked in memory, allocated at its exact size so that a step past it
// is caught; set: a cache-mode file, written to a file and walked page by
// page through reads. Bit 0 picks the kind within the mode (data or system;
// index or table).
#include "DbFileCheck.h"
#include "FuzzImage.h"

#include "TalvorFileIO.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

namespace {

const uint32_t MAX_IMAGE = 512 * 1024;
const uint8_t TAG_CACHE = 2;

void CountFinding(void* pContext, const DBFINDING* pFinding) { *(long long*)pContext += pFinding->m_nKind; }

void WalkMemory(CDbChecker& checker, DBFILESUMMARY& stFile, uint8_t bTag, LPBYTE lpImage, long long nSize)
{
    stFile.m_bFileNo = (BYTE)(bTag & 1 ? 2 : SYSTEMFILE_FILENO);
    stFile.m_bFileType = bTag & 1 ? FILETYPE_DATA : FILETYPE_SYSTEM;
    DbWalkMemoryImage(&checker, &stFile, lpImage, nSize);
}

void WalkCache(CDbChecker& checker, DBFILESUMMARY& stFile, uint8_t bTag, LPBYTE lpImage, long long nSize)
{
    static const std::string s_strPath = talvorfuzz::RamDir() + "cache.dbf";
    if (!talvorfuzz::WriteFileBytes(s_strPath, lpImage, (size_t)nSize)) return;
    int fd = CTalvorFileIO::Current()->Open(s_strPath.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return;
    stFile.m_bFileNo = 3;
    stFile.m_bFileType = bTag & 1 ? FILETYPE_INDEX : FILETYPE_TABLE;
    stFile.m_nDiskSize = nSize;
    DbCheckCacheFile(&checker, &stFile, fd, 0, TRUE);
    CTalvorFileIO::Current()->Close(fd);
}

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
    if (image.TagA() & TAG_CACHE)
        WalkCache(checker, stFile, image.TagA(), lpImage, image.ImageSize());
    else
        WalkMemory(checker, stFile, image.TagA(), lpImage, image.ImageSize());
    free(lpImage);
    return 0;
}
