// TalvorNumberText.cpp — numbers in and out of text, and the bit sets.

#include "TalvorNumberText.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kMaxBase = 36;
constexpr int kMinBase = 2;
constexpr int kBitsInValue = 64;
constexpr double kDoubleTolerance = 1e-6;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return kMaxBase;
}

bool IsHexDigit(char c) { return DigitValue(c) < 16; }

bool IsSizeSuffix(const char* p) {
    const char c = (char)(*p & ~0x20);
    if (c != 'K' && c != 'M' && c != 'G' && c != 'T') return false;
    if (p[1] == 0) return true;
    return (p[1] & ~0x20) == 'B' && p[2] == 0;
}

bool AllHex(const char* p) {
    for (; *p; ++p) {
        if (!IsHexDigit(*p)) return false;
    }
    return true;
}

}  // namespace

int IsNumber(const char* lpszText) {
    if (lpszText == nullptr) return TALVOR_NUMBER_NONE;
    const char* p = lpszText;
    if (*p == '-') ++p;
    if (*p == 0) return TALVOR_NUMBER_INTEGER;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) return AllHex(p + 2) ? TALVOR_NUMBER_HEX_OR_SIZE : TALVOR_NUMBER_NONE;
    int nDigits = 0, nPoints = 0;
    const char* q = p;
    for (; *q; ++q) {
        if (IsDigit(*q)) ++nDigits;
        else if (*q == '.') ++nPoints;
        else break;
    }
    if (*q == 0) {
        if (nPoints == 0) return TALVOR_NUMBER_INTEGER;
        return (nPoints == 1 && nDigits > 0) ? TALVOR_NUMBER_POINT : TALVOR_NUMBER_NONE;
    }
    if (nPoints == 0 && nDigits > 0 && IsSizeSuffix(q)) return TALVOR_NUMBER_HEX_OR_SIZE;
    return AllHex(p) ? TALVOR_NUMBER_HEX_OR_SIZE : TALVOR_NUMBER_NONE;
}

double ToDouble(const char* lpszText) {
    const int nKind = IsNumber(lpszText);
    if (nKind != TALVOR_NUMBER_INTEGER && nKind != TALVOR_NUMBER_POINT) return 0.0;
    return strtod(lpszText, nullptr);
}

long long HexStringToNumber(const char* lpszText) {
    constexpr size_t kPrefix = 2;
    if (lpszText == nullptr || strnlen(lpszText, kPrefix + 1) <= kPrefix) return 0;
    unsigned long long ullValue = 0;
    for (const char* p = lpszText + kPrefix; IsHexDigit(*p); ++p) ullValue = (ullValue << 4) | (unsigned)DigitValue(*p);
    return (long long)ullValue;
}

long long GetHexEncodedData(const char* lpData, int nLen) {
    constexpr int kMaxBytes = 8;
    if (lpData == nullptr || nLen <= 0) return 0;
    if (nLen > kMaxBytes) nLen = kMaxBytes;
    unsigned long long ullValue = 0;
    for (int i = 0; i < nLen; ++i) ullValue = (ullValue << 8) | (BYTE)lpData[i];
    return (long long)ullValue;
}

int ConvertBitToNumber(const char* lpszText, long long& llValue, int& nBits) {
    llValue = 0;
    nBits = 0;
    if (lpszText == nullptr) return TALVOR_ERROR_INVALID_DATA;
    const char* p = lpszText;
    while (*p == '0') ++p;
    if (*p != 'b' && *p != 'B') return TALVOR_ERROR_INVALID_DATA;
    ++p;
    const bool bQuoted = *p == '\'';
    if (bQuoted) ++p;
    unsigned long long ullValue = 0;
    int nCount = 0;
    for (; *p == '0' || *p == '1'; ++p, ++nCount) {
        if (nCount == kBitsInValue) return TALVOR_ERROR_INVALID_DATA;
        ullValue = (ullValue << 1) | (unsigned)(*p - '0');
    }
    if (bQuoted && *p++ != '\'') return TALVOR_ERROR_INVALID_DATA;
    if (*p != 0 || (!bQuoted && nCount == 0)) return TALVOR_ERROR_INVALID_DATA;
    llValue = (long long)ullValue;
    nBits = nCount;
    return 0;
}

int ConvertBitToString(long long nValue, int nLen, char* lpszOut) {
    if (nLen < 1) nLen = 1;
    if (nLen > kBitsInValue) nLen = kBitsInValue;
    int nOut = 0;
    lpszOut[nOut++] = 'b';
    lpszOut[nOut++] = '\'';
    for (int i = nLen - 1; i >= 0; --i) lpszOut[nOut++] = (char)('0' + (((unsigned long long)nValue >> i) & 1));
    lpszOut[nOut++] = '\'';
    lpszOut[nOut] = 0;
    return nOut;
}

int ConvSpecifiedStringToDecimal(const char* lpszSrc, int nFromBase, long long& llValue) {
    llValue = 0;
    const bool bSigned = nFromBase < 0;
    const int nBase = bSigned ? -nFromBase : nFromBase;
    if (lpszSrc == nullptr || nBase < kMinBase || nBase > kMaxBase) return TALVOR_ERROR_INVALID_DATA;
    const char* p = lpszSrc;
    const bool bNegative = *p == '-';
    if (bNegative) ++p;
    // Saturate rather than wrap: CONV of a too long text gives the limit.
    const unsigned long long ullLimit = bSigned ? (bNegative ? 1ull << 63 : (1ull << 63) - 1) : ~0ull;
    unsigned long long ullValue = 0;
    for (; DigitValue(*p) < nBase; ++p) {
        const unsigned nDigit = (unsigned)DigitValue(*p);
        if (ullValue > (ullLimit - nDigit) / (unsigned)nBase) {
            ullValue = ullLimit;
            break;
        }
        ullValue = ullValue * (unsigned)nBase + nDigit;
    }
    llValue = (long long)(bNegative ? 0 - ullValue : ullValue);
    return 0;
}

int ConvDecimalToSpecifiedString(long long llValue, int nToBase, char* lpszOut) {
    const bool bSigned = nToBase < 0;
    const int nBase = bSigned ? -nToBase : nToBase;
    if (lpszOut == nullptr) return 0;
    lpszOut[0] = 0;
    if (nBase < kMinBase || nBase > kMaxBase) return 0;
    const bool bNegative = bSigned && llValue < 0;
    unsigned long long ullValue = bNegative ? 0 - (unsigned long long)llValue : (unsigned long long)llValue;
    char szDigits[kBitsInValue + 1];
    int nDigits = 0;
    do {
        szDigits[nDigits++] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[ullValue % (unsigned)nBase];
        ullValue /= (unsigned)nBase;
    } while (ullValue != 0);
    int nOut = 0;
    if (bNegative) lpszOut[nOut++] = '-';
    while (nDigits > 0) lpszOut[nOut++] = szDigits[--nDigits];
    lpszOut[nOut] = 0;
    return nOut;
}

int CompareDouble(double a, double b) {
    if (fabs(a - b) < kDoubleTolerance) return 0;
    return a < b ? -1 : 1;
}

int TrimTailZero(char* lpszText, BOOL bCheck) {
    if (lpszText == nullptr) return 0;
    int nLen = (int)strlen(lpszText);
    if (!bCheck) {
        const char* lpPoint = strchr(lpszText, '.');
        if (lpPoint == nullptr || strchr(lpPoint + 1, '.') != nullptr) return 0;
    }
    while (nLen > 0 && lpszText[nLen - 1] == '0') --nLen;
    if (nLen > 0 && lpszText[nLen - 1] == '.') --nLen;
    lpszText[nLen] = 0;
    return nLen;
}

#define TALVOR_CONVERT(T, FORMAT, CAST)                          \
    char* TalvorConvert(char* lpszOut, T value) {                \
        return lpszOut + sprintf(lpszOut, FORMAT, (CAST)value);  \
    }
TALVOR_CONVERT(signed char, "%d", int)
TALVOR_CONVERT(unsigned char, "%u", unsigned)
TALVOR_CONVERT(short, "%d", int)
TALVOR_CONVERT(unsigned short, "%u", unsigned)
TALVOR_CONVERT(int, "%d", int)
TALVOR_CONVERT(unsigned int, "%u", unsigned)
TALVOR_CONVERT(long long, "%lld", long long)
TALVOR_CONVERT(unsigned long long, "%llu", unsigned long long)
#undef TALVOR_CONVERT

int TalvorLog2(long long n) {
    if (n < 2) return 0;
    return kBitsInValue - __builtin_clzll((unsigned long long)(n - 1));
}

double TalvorLog(double dBase, double x) { return log(x) / log(dBase); }

int GetFirstNoZeroValue(int nCount, ...) {
    if (nCount < 1) return 0;
    va_list args;
    va_start(args, nCount);
    int nFirst = 0, nLast = 0;
    for (int i = 0; i < nCount; ++i) {
        nLast = va_arg(args, int);
        if (nFirst == 0) nFirst = nLast;
    }
    va_end(args);
    if (nLast != 0 && nLast < nFirst) return nLast;
    return nFirst;
}

void AddRel(BYTE bObjectNo, relbitmap& rel) {
    if (bObjectNo < 1 || bObjectNo > kBitsInValue) return;
    rel = (relbitmap)((unsigned long long)rel | (1ull << (bObjectNo - 1)));
}

relbitmap BmsAdd(relbitmap a, relbitmap b) { return a | b; }

BOOL BmsOverlap(relbitmap a, relbitmap b) { return (a & b) != 0; }

BOOL BmsIsSubset(relbitmap a, relbitmap b) { return (a & ~b) == 0; }
