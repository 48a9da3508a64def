// BaseFunNumberText.cpp — numbers written as text and read back: bases 2,
// 8, 16 and CONV's 2 to 36, FORMAT with its groups of three, and the
// number formats of TO_CHAR.
#include "BaseFunInternal.h"
#include "TalvorDecimal.h"
#include "TalvorNumberText.h"

#include <cmath>
#include <cstdio>
#include <cstring>

using namespace talvorfun;

namespace {

// Places behind the point FORMAT goes to at most.
const int kMaxFormatPlaces = 30;
// Room for a number's digits rounded to kMaxFormatPlaces, with commas.
const int kFormatBytes = talvorvar::kNumberTextBytes + 2 * kMaxFormatPlaces;
// CONV's bases, by absolute value.
const int kMinBase = 2;
const int kMaxBase = 36;
// Room for 64 binary digits and a sign.
const int kDigitsBytes = 72;

// The 64-bit integer a number function works on: text read as decimal
// digits (its longest head), anything else through GetCompatibleBigInt,
// which cuts a double as reading its text form's digits would.
unsigned long long UnsignedOf(const VARDATA& v)
{
    if (!talvorvar::IsTextType(v.m_vt)) return (unsigned long long)v.GetCompatibleBigInt();
    TextView t;
    ReadText(v, t);
    char sz[kScratchBytes];
    talvorvar::TrimmedCopy(t.p, t.n, sz);
    long long ll = 0;
    ConvSpecifiedStringToDecimal(sz, 10, ll);
    return (unsigned long long)ll;
}

int BaseText(CTalvorBufferPool* pool, VARDATA& value, int nBase, VARDATA& result)
{
    if (IsNullArg(value)) return SetNullResult(result);
    char sz[kDigitsBytes];
    int n = ConvDecimalToSpecifiedString((long long)UnsignedOf(value), nBase, sz);
    return SetText(pool, sz, n, result);
}

// The exact decimal digits of v, sign first, into sz. Doubles print to
// nPlaces places, with bScaleRound rounded first as FORMAT rounds them.
int ExactDigits(const VARDATA& v, int nPlaces, bool bScaleRound, char* sz)
{
    if (talvorvar::IsIntType(v.m_vt)) return snprintf(sz, kScratchBytes, "%lld", v.GetCompatibleBigInt());
    if (v.m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimal::PrintDecimal(&v, sz);
    double d = v.GetCompatibleDouble();
    if (!std::isfinite(d) || fabs(d) > 1e300) return -1;
    // A double is rounded as the SQL functions round one: scaled, then to
    // the nearest integer with ties to even, then printed.
    double dScaled = d * pow(10.0, nPlaces);
    if (bScaleRound && std::isfinite(dScaled)) d = rint(dScaled) / pow(10.0, nPlaces);
    return snprintf(sz, kScratchBytes, "%.*f", nPlaces, d);
}

// Rounds the digits of sz (sign, digits, point, digits) half away from
// zero to nPlaces, padding with zeros: the integer digits into lpInt and
// the places into lpFrac. Result: whether the number is negative and not 0.
bool RoundDigits(const char* sz, int nPlaces, char* lpInt, int& nInt, char* lpFrac)
{
    bool bNeg = sz[0] == '-';
    if (bNeg || sz[0] == '+') ++sz;
    const char* lpPoint = strchr(sz, '.');
    int nIntDigits = lpPoint ? (int)(lpPoint - sz) : (int)strlen(sz);
    const char* lpFracSrc = lpPoint ? lpPoint + 1 : "";
    // Work buffer: a leading 0 for the carry, the integer digits, the places.
    char work[kFormatBytes];
    int n = 0;
    work[n++] = '0';
    memcpy(work + n, sz, (size_t)nIntDigits);
    n += nIntDigits;
    int nFracSrc = (int)strlen(lpFracSrc);
    for (int i = 0; i < nPlaces; ++i) work[n++] = i < nFracSrc ? lpFracSrc[i] : '0';
    if (nPlaces < nFracSrc && lpFracSrc[nPlaces] >= '5') {
        int k = n - 1;
        while (work[k] == '9') work[k--] = '0';
        ++work[k];
    }
    int nStart = 0;
    while (nStart < n - nPlaces - 1 && work[nStart] == '0') ++nStart;
    nInt = n - nPlaces - nStart;
    memcpy(lpInt, work + nStart, (size_t)nInt);
    memcpy(lpFrac, work + n - nPlaces, (size_t)nPlaces);
    bool bZero = true;
    for (int i = nStart; i < n; ++i) bZero = bZero && work[i] == '0';
    return bNeg && !bZero;
}

// The number rounded to nPlaces, with commas when bGroup (FORMAT, which
// also rounds a double scaled). Result: the length, or -1 when it is no
// finite number.
int FormatNumber(const VARDATA& v, int nPlaces, bool bGroup, char* lpOut)
{
    char sz[kScratchBytes], szInt[kScratchBytes + 4], szFrac[kMaxFormatPlaces + 1];
    if (ExactDigits(v, nPlaces, bGroup, sz) < 0) return -1;
    int nInt = 0;
    bool bNeg = RoundDigits(sz, nPlaces, szInt, nInt, szFrac);
    int n = 0;
    if (bNeg) lpOut[n++] = '-';
    for (int i = 0; i < nInt; ++i) {
        if (bGroup && i > 0 && (nInt - i) % 3 == 0) lpOut[n++] = ',';
        lpOut[n++] = szInt[i];
    }
    if (nPlaces > 0) {
        lpOut[n++] = '.';
        memcpy(lpOut + n, szFrac, (size_t)nPlaces);
        n += nPlaces;
    }
    lpOut[n] = 0;
    return n;
}

} // namespace

char CBaseFunManager::IntToHex(int nNibble) { return "0123456789ABCDEF"[nNibble & 15]; }

int CBaseFunManager::GetDecimalBySingleHex(char ch)
{
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

BOOL CBaseFunManager::CheckHexStringValid(const char* lpSrc, int nLen)
{
    for (int i = 0; i < nLen; ++i)
        if (GetDecimalBySingleHex(lpSrc[i]) < 0) return FALSE;
    return TRUE;
}

int CBaseFunManager::LongLongToOct(unsigned long long ull, char* lpszOut)
{
    return ConvDecimalToSpecifiedString((long long)ull, 8, lpszOut);
}

int CBaseFunManager::LongLongToHex(unsigned long long ull, char* lpszOut)
{
    return ConvDecimalToSpecifiedString((long long)ull, 16, lpszOut);
}

void CBaseFunManager::StringToHex(const char* lpSrc, int nLen, char* lpszOut)
{
    for (int i = 0; i < nLen; ++i) {
        lpszOut[2 * i] = IntToHex((unsigned char)lpSrc[i] >> 4);
        lpszOut[2 * i + 1] = IntToHex((unsigned char)lpSrc[i]);
    }
    lpszOut[2 * nLen] = 0;
}

int CBaseFunManager::Bin(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result)
{
    return BaseText(pool, value, 2, result);
}

int CBaseFunManager::Oct(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result)
{
    return BaseText(pool, value, 8, result);
}

int CBaseFunManager::Hex(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result)
{
    if (IsNullArg(value)) return SetNullResult(result);
    if (!talvorvar::IsTextType(value.m_vt)) {
        double d = value.GetCompatibleDouble();
        // A fraction rounds to the nearest integer, as the SQL function does.
        unsigned long long ull = value.m_vt == TALVOR_VT_DOUBLE || value.m_vt == TALVOR_VT_DECIMAL
                                     ? (unsigned long long)(long long)llround(d)
                                     : (unsigned long long)value.GetCompatibleBigInt();
        char sz[kDigitsBytes];
        return SetText(pool, sz, LongLongToHex(ull, sz), result);
    }
    TextView t;
    ReadText(value, t);
    char* lpOut = nullptr;
    int nRet = NewText(pool, 2LL * t.n, result, lpOut);
    if (lpOut != nullptr) StringToHex(t.p, t.n, lpOut);
    return nRet;
}

int CBaseFunManager::UnHex(CTalvorBufferPool* pool, VARDATA& value, VARDATA& result)
{
    if (IsNullArg(value)) return SetNullResult(result);
    TextView t;
    ReadText(value, t);
    if (!CheckHexStringValid(t.p, t.n)) return SetNullResult(result);
    int nOdd = t.n % 2;
    char* lpOut = nullptr;
    int nRet = NewText(pool, (t.n + 1) / 2, result, lpOut, TALVOR_VT_BINARY);
    if (lpOut == nullptr) return nRet;
    int j = 0;
    if (nOdd) lpOut[j++] = (char)GetDecimalBySingleHex(t.p[0]);
    for (int i = nOdd; i < t.n; i += 2)
        lpOut[j++] = (char)(GetDecimalBySingleHex(t.p[i]) * 16 + GetDecimalBySingleHex(t.p[i + 1]));
    return 0;
}

int CBaseFunManager::Conv(CTalvorBufferPool* pool, VARDATA& value, VARDATA& from, VARDATA& to, VARDATA& result)
{
    if (IsNullArg(value) || IsNullArg(from) || IsNullArg(to)) return SetNullResult(result);
    long long nFrom = IntArg(from), nTo = IntArg(to);
    if (llabs(nFrom) < kMinBase || llabs(nFrom) > kMaxBase || llabs(nTo) < kMinBase || llabs(nTo) > kMaxBase)
        return SetNullResult(result);
    long long ll = 0;
    if (talvorvar::IsTextType(value.m_vt)) {
        TextView t;
        ReadText(value, t);
        char sz[kScratchBytes];
        talvorvar::CopyForParse(t.p, t.n, sz);
        if (ConvSpecifiedStringToDecimal(sz, (int)nFrom, ll) != 0) return SetNullResult(result);
    } else {
        ll = value.GetCompatibleBigInt();
    }
    char sz[kDigitsBytes];
    return SetText(pool, sz, ConvDecimalToSpecifiedString(ll, (int)nTo, sz), result);
}

int CBaseFunManager::Format(CTalvorBufferPool* pool, VARDATA& value, VARDATA& digits, VARDATA& result)
{
    if (IsNullArg(value) || IsNullArg(digits)) return SetNullResult(result);
    long long nPlaces = IntArg(digits);
    if (nPlaces < 0) nPlaces = 0;
    if (nPlaces > kMaxFormatPlaces) nPlaces = kMaxFormatPlaces;
    char sz[kFormatBytes + kScratchBytes / 3];
    int n = FormatNumber(value, (int)nPlaces, true, sz);
    if (n < 0) return SetNullResult(result);
    return SetText(pool, sz, n, result);
}

BOOL CBaseFunManager::IsNumberFormat(const char* lpszFormat, int nLen)
{
    if (lpszFormat == nullptr || nLen <= 0) return FALSE;
    for (int i = 0; i < nLen; ++i) {
        char ch = lpszFormat[i];
        if (ch != '0' && ch != '9' && ch != '.' && ch != 'D' && ch != 'd') return FALSE;
    }
    return TRUE;
}

int CBaseFunManager::NumberToChar(CTalvorBufferPool* pool, VARDATA& value, const char* lpszFormat, VARDATA& result)
{
    if (IsNullArg(value) || lpszFormat == nullptr) return SetNullResult(result);
    int nLen = (int)strnlen(lpszFormat, kScratchBytes);
    if (!IsNumberFormat(lpszFormat, nLen)) return SetNullResult(result);
    int nPoint = -1;
    for (int i = 0; i < nLen; ++i) {
        bool bPoint = lpszFormat[i] == '.' || lpszFormat[i] == 'D' || lpszFormat[i] == 'd';
        if (bPoint && nPoint >= 0) return SetNullResult(result);
        if (bPoint) nPoint = i;
    }
    int nPlaces = nPoint < 0 ? 0 : nLen - nPoint - 1;
    if (nPlaces > kMaxFormatPlaces) return SetNullResult(result);
    char sz[kFormatBytes];
    int n = FormatNumber(value, nPlaces, false, sz);
    if (n < 0) return SetNullResult(result);
    return SetText(pool, sz, n, result);
}
