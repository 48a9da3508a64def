// TalvorWideText.cpp — wide copies of text in pool memory.

#include "TalvorBufferPool.h"
#include "TalvorCharset.h"

#include <climits>

wchar_t* TalvorConvertWChar(const char* lpszText, int nLen, CTalvorBufferPool* pPool) {
    if (lpszText == nullptr || pPool == nullptr) return nullptr;
    const int nUnits = TalvorUTF82Unicode(lpszText, nLen, nullptr, 0);
    if (nUnits < 0) return nullptr;
    // The byte count must fit the pool's 32-bit request.
    const unsigned long long nBytes = ((unsigned long long)nUnits + 1) * sizeof(wchar_t);
    if (nBytes > UINT_MAX) return nullptr;
    wchar_t* lpWide = reinterpret_cast<wchar_t*>(pPool->AllocBuffer((UINT)nBytes));
    if (lpWide == nullptr) return nullptr;
    if (TalvorUTF82Unicode(lpszText, nLen, lpWide, nUnits + 1) != nUnits) return nullptr;
    return lpWide;
}
