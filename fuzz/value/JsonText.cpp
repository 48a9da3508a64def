// JSON text from outside: the validity check in both modes, and the taking
// out of one value with its escapes resolved, measured and then copied into
// exactly the room the measure asked for.
#include "TalvorJsonText.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    if (nSize > 65536) return 0;
    // A private copy with nothing behind it, so a read past nLen is seen.
    char* lpText = (char*)malloc(nSize ? nSize : 1);
    if (lpText == nullptr) return 0;
    memcpy(lpText, lpData, nSize);
    int nLen = (int)nSize;
    TalvorJsonCheckValid(lpText, nLen, FALSE);
    TalvorJsonCheckValid(lpText, nLen, TRUE);
    int nNeed = TalvorJsonCalcDataLen(lpText, nLen);
    if (nNeed >= 0) {
        char* lpOut = (char*)malloc((size_t)nNeed + 1);
        if (lpOut != nullptr) {
            int nWrote = TalvorJsonCopyData(lpText, nLen, lpOut);
            if (nWrote != nNeed) abort();
            free(lpOut);
        }
    }
    int nDesLen = 0;
    if (TalvorJsonGetData(lpText, nLen, nullptr, nDesLen) == 0 && nDesLen >= 0) {
        int nRoom = nDesLen + 1;
        char* lpOut = (char*)malloc((size_t)nRoom);
        if (lpOut != nullptr) {
            TalvorJsonGetData(lpText, nLen, lpOut, nRoom);
            free(lpOut);
        }
    }
    free(lpText);
    return 0;
}
