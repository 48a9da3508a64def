// TalvorDecimalText.cpp — integers read from text by way of the decimal
// parser, so configuration and SQL accept the same numbers.

#include "TalvorDecimal.h"

#include <climits>
#include <cstring>

namespace {

const int MAX_NUMBER_TEXT = 62;
const int SHIFT_K = 10, SHIFT_M = 20, SHIFT_G = 30, SHIFT_T = 40;

int SuffixShift(char c)
{
    switch (c) {
    case 'K': case 'k': return SHIFT_K;
    case 'M': case 'm': return SHIFT_M;
    case 'G': case 'g': return SHIFT_G;
    case 'T': case 't': return SHIFT_T;
    default: return -1;
    }
}

// Result: the decimal's integer, or FALSE when the text is no number.
bool TextInteger(const char* lpszText, int nLen, long long& llValue)
{
    st_VARDATA v;
    memset(&v, 0, sizeof(v));
    if (CTalvorDecimal::Convert2Decimal(lpszText, nLen, &v) != 0 || v.m_vt != TALVOR_VT_DECIMAL) return false;
    llValue = CTalvorDecimal::Convert2Int64(&v, FALSE);
    return true;
}

}  // namespace

long long ToNumber(const char* lpszText, int nLen)
{
    if (lpszText == nullptr || nLen < 1 || nLen > MAX_NUMBER_TEXT) return 0;
    int nNumberLen = nLen;
    if (nNumberLen > 1 && (lpszText[nNumberLen - 1] == 'B' || lpszText[nNumberLen - 1] == 'b') &&
        SuffixShift(lpszText[nNumberLen - 2]) >= 0)
        --nNumberLen;
    int nShift = SuffixShift(lpszText[nNumberLen - 1]);
    if (nShift >= 0) --nNumberLen;
    else if (nNumberLen != nLen) return 0;
    if (nShift < 0) nShift = 0;
    long long llValue;
    if (nNumberLen == 0 || !TextInteger(lpszText, nNumberLen, llValue)) return 0;
    // A size past the 64-bit range stops at its limit rather than wrapping.
    if (llValue > (LLONG_MAX >> nShift)) return LLONG_MAX;
    if (llValue < (LLONG_MIN >> nShift)) return LLONG_MIN;
    return (long long)((unsigned long long)llValue << nShift);
}

long long StringToLongLong(const char* lpszText)
{
    long long llValue;
    if (lpszText == nullptr || !TextInteger(lpszText, (int)strlen(lpszText), llValue)) return 0;
    return llValue;
}

int StringToInt(const char* lpszText)
{
    return lpszText != nullptr ? StringToInt(lpszText, (int)strlen(lpszText)) : 0;
}

int StringToInt(const char* lpszText, int nLen)
{
    long long llValue;
    if (lpszText == nullptr || !TextInteger(lpszText, nLen, llValue)) return 0;
    if (llValue > INT_MAX) return INT_MAX;
    if (llValue < INT_MIN) return INT_MIN;
    return (int)llValue;
}
