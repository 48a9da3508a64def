// A memory-mode database file from outside: opened as the start opens it
// (the checks of its head), then written out by the save pass, which walks
// its head, object table, map and object chains as the engine left them.
// The tags of the input say the file's type (2 to 4) and number.
#include "FuzzImage.h"
#include "TalvorMemoryStorage.h"
#include "ShareMemory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Files of this size load in a few pieces; the save pass of a bigger one
// teaches the fuzzer nothing a smaller one does not.
const uint32_t MAX_IMAGE = 2 * 1048576;
const int WORK_BUFFER = 0x100000;

BYTE FileTypeOf(uint8_t bTag) { return (BYTE)(FILETYPE_DATA + bTag % 3); }
BYTE FileNoOf(uint8_t bTag) { return bTag < 2 ? (BYTE)2 : (BYTE)bTag; }

struct Buffers {
    Buffers()
    {
        m_lpBuffer = (LPBYTE)aligned_alloc(4096, WORK_BUFFER);
        m_lpHead = (LPBYTE)aligned_alloc(4096, WORK_BUFFER);
    }
    LPBYTE m_lpBuffer;
    LPBYTE m_lpHead;
};

void OpenAndSave(LPFILEINFO p, BOOL bForce)
{
    static Buffers s_buf;
    CTalvorMemoryStorage* pStorage = new CTalvorMemoryStorage();
    p->m_pStorageFile = pStorage;
    if (pStorage->Initialize(nullptr, p, 1000, nullptr, nullptr, 0, 0) == 0) {
        BOOL bFlashback = FALSE;
        pStorage->SaveChange2File(nullptr, p, 2000, 1000, s_buf.m_lpBuffer, s_buf.m_lpHead, bForce, bFlashback);
        // A second pass over what the first one settled.
        pStorage->SaveChange2File(nullptr, p, 3000, 2000, s_buf.m_lpBuffer, s_buf.m_lpHead, bForce, bFlashback);
    }
    pStorage->Release();  // gives the object back too
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::CFuzzImage image(lpData, nSize, 512, MAX_IMAGE);
    if (!image.Ok()) return 0;
    BYTE bFileNo = FileNoOf(image.TagB());
    std::string strPath = talvorfuzz::FuzzDir() + "F" + std::to_string(bFileNo) + ".dbf";
    if (!image.WriteFile(strPath)) return 0;
    LPFILEINFO p = (LPFILEINFO)calloc(1, sizeof(FILEINFO));
    if (p == nullptr) return 0;
    long long nLoadSize = 0;
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", strPath.c_str());
    snprintf(p->m_lpszTablespaceName, sizeof(p->m_lpszTablespaceName), "F%d", bFileNo);
    p->m_bFileNo = bFileNo;
    p->m_bFileType = (char)FileTypeOf(image.TagA());
    p->m_liFileSize = image.ImageSize();
    p->m_pLoadSize = &nLoadSize;
    OpenAndSave(p, (image.TagA() & 0x80) ? TRUE : FALSE);
    free(p);
    return 0;
}
