// The rollback area from outside: a block copy taken back to a timestamp,
// each row's chain of versions walked down the area the engine writes, the
// values joined from their pieces, and the re-copy from the live block when
// a row is torn. Block and area are each allocated at their exact size.
//
// Input: u64 target timestamp | u8 block size (in 512-byte units, 1 to 32)
// | the block copy (zeros where the input ends early) | the rest is the area.
#include "FuzzQuiet.h"
#include "TalvorFlashback.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const size_t MAX_AREA = 1 << 20;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::QuietTrace();
    if (nSize < 9) return 0;
    long long nTimestamp = 0;
    memcpy(&nTimestamp, lpData, 8);
    int nBlockSize = 512 * (1 + lpData[8] % 32);
    size_t nAt = 9;
    size_t nBlockBytes = nSize - nAt < (size_t)nBlockSize ? nSize - nAt : (size_t)nBlockSize;
    LPBYTE lpBlock = (LPBYTE)calloc(1, (size_t)nBlockSize);
    LPBYTE lpLive = (LPBYTE)calloc(1, (size_t)nBlockSize);
    nAt += nBlockBytes;
    size_t nArea = nSize - nAt;
    if (nArea > MAX_AREA) nArea = MAX_AREA;
    LPBYTE lpArea = (LPBYTE)malloc(nArea ? nArea : 1);
    if (lpBlock != nullptr && lpLive != nullptr && lpArea != nullptr) {
        memcpy(lpBlock, lpData + 9, nBlockBytes);
        memcpy(lpLive, lpBlock, (size_t)nBlockSize);
        memcpy(lpArea, lpData + nAt, nArea);
        static CTalvorFlashback s_flashback;
        s_flashback.SetRollbackArea(lpArea, (UINT)nArea);
        UINT nBlockNo = ((LPBASEBLOCKHEAD)lpBlock)->m_nBlockNo;
        s_flashback.FlashbackData(2, (int)nBlockNo, nBlockSize, nTimestamp, lpBlock, lpLive);
        s_flashback.SetRollbackArea(nullptr, 0);
    }
    free(lpArea);
    free(lpLive);
    free(lpBlock);
    return 0;
}
