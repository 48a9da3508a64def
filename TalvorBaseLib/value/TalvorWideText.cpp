// TalvorWideText.cpp — wide copies of text in pool memory, and numbers as
// new wide texts.

#include "TalvorBufferPool.h"
#include "TalvorCharset.h"
#include "TalvorDecimal.h"

#include <climits>
#include <cstring>
#include <new>

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

namespace {

// A new wide copy of nLen bytes of ASCII text.
wchar_t* WidenNew(const char* lpszText, int nLen)
{
    wchar_t* lpWide = new (std::nothrow) wchar_t[(size_t)nLen + 1];
    if (lpWide == nullptr) return nullptr;
    for (int i = 0; i < nLen; ++i) lpWide[i] = (wchar_t)(unsigned char)lpszText[i];
    lpWide[nLen] = 0;
    return lpWide;
}

}  // namespace

wchar_t* TalvorDecimal2WChar(const st_VARDATA* lpValue)
{
    if (lpValue == nullptr) return nullptr;
    char szText[TALVOR_DECIMAL_TEXT_BYTES];
    return WidenNew(szText, CTalvorDecimal::PrintDecimal(lpValue, szText));
}

wchar_t* TalvorConvertNumber2WChar(long long llValue)
{
    st_VARDATA v;
    CTalvorDecimal::Convert2Decimal(llValue, &v);
    return TalvorDecimal2WChar(&v);
}

wchar_t* TalvorConvertNumber2WChar(double dblValue)
{
    st_VARDATA v;
    CTalvorDecimal::Convert2Decimal(dblValue, &v);
    return TalvorDecimal2WChar(&v);
}
