// TalvorVarDataConvert.cpp — reading a typed value as a number or as text,
// and changing its type.

#include "TalvorBufferPool.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorNumberText.h"
#include "TalvorVarDataInternal.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace talvorvar;

namespace {

const double SECONDS_PER_DAY = 86400.0;

long long SaturateDouble(double d)
{
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return LLONG_MAX;
    if (d <= -9223372036854775808.0) return LLONG_MIN;
    return (long long)d;
}

int SaturateInt(long long ll)
{
    if (ll > INT_MAX) return INT_MAX;
    if (ll < INT_MIN) return INT_MIN;
    return (int)ll;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool EndsWithSizeSuffix(const char* sz)
{
    size_t n = strlen(sz);
    if (n > 0 && (sz[n - 1] == 'B' || sz[n - 1] == 'b')) --n;
    if (n == 0) return false;
    char c = sz[n - 1];
    return c == 'K' || c == 'k' || c == 'M' || c == 'm' || c == 'G' || c == 'g' || c == 'T' || c == 't';
}

} // namespace

int talvorvar::TextNumberKind(const char* sz)
{
    int nKind = IsNumber(sz);
    if (nKind != TALVOR_NUMBER_HEX_OR_SIZE) return nKind;
    const char* q = *sz == '-' ? sz + 1 : sz;
    if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X')) return nKind;
    // IsNumber takes "abc" for hexadecimal digits; without a "0x" in front
    // it is a number only when a decimal one starts it.
    char* pEnd = nullptr;
    strtod(sz, &pEnd);
    return pEnd == sz ? TALVOR_NUMBER_NONE : nKind;
}

void talvorvar::TrimmedCopy(const char* p, int nLen, char* szOut)
{
    while (nLen > 0 && IsBlank(*p)) ++p, --nLen;
    while (nLen > 0 && IsBlank(p[nLen - 1])) --nLen;
    CopyForParse(p, nLen, szOut);
}

namespace {

// "0x..." after an optional "-": a 64-bit integer while it stays below
// 0x7FFFFFFF, a decimal above (the digits may pass a signed 64-bit range).
void HexNumber(const char* sz, st_VARDATA& vOut)
{
    const long long HEX_INT_LIMIT = 0x7FFFFFFE;
    bool bNegative = *sz == '-';
    unsigned long long ull = (unsigned long long)HexStringToNumber(bNegative ? sz + 1 : sz);
    if (ull <= (unsigned long long)HEX_INT_LIMIT) {
        MakeBigInt(vOut, bNegative ? -(long long)ull : (long long)ull);
        return;
    }
    MakeNull(vOut);
    CTalvorDecimal::Convert2Decimal(ull, &vOut);
    if (bNegative && vOut.m_vt == TALVOR_VT_DECIMAL) vOut.m_bSign = 1;
}

// The number of a hexadecimal literal's bytes (big-endian, up to 8).
void HexLiteralNumber(const st_VARDATA& v, st_VARDATA& vOut)
{
    int nLen = 0;
    const char* p = TextOf(v, nLen);
    unsigned long long ull = (unsigned long long)GetHexEncodedData(p, nLen);
    if (ull <= (unsigned long long)LLONG_MAX) MakeBigInt(vOut, (long long)ull);
    else {
        MakeNull(vOut);
        CTalvorDecimal::Convert2Decimal(ull, &vOut);
    }
}

// The number a text stands for. bDateIsNull: a text the date parser takes
// whole is no number but NULL (arithmetic); otherwise it is read as a number.
void TextNumber(const st_VARDATA& v, bool bDateIsNull, st_VARDATA& vOut)
{
    if (IsHexText(v)) {
        HexLiteralNumber(v, vOut);
        return;
    }
    int nLen = 0;
    const char* p = TextOf(v, nLen);
    double dDays = 0;
    if (bDateIsNull && TextAsDate(p, nLen, dDays)) {
        MakeNull(vOut);
        return;
    }
    char sz[kParseBytes];
    TrimmedCopy(p, nLen, sz);
    switch (TextNumberKind(sz)) {
    case TALVOR_NUMBER_INTEGER:
        MakeNull(vOut);
        if (CTalvorDecimal::Convert2Decimal(sz, &vOut) != 0 || vOut.m_vt != TALVOR_VT_DECIMAL) MakeBigInt(vOut, 0);
        return;
    case TALVOR_NUMBER_HEX_OR_SIZE: {
        const char* q = *sz == '-' ? sz + 1 : sz;
        if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X')) HexNumber(sz, vOut);
        else if (EndsWithSizeSuffix(sz)) MakeBigInt(vOut, ToNumber(sz, (int)strlen(sz)));
        // Bare hexadecimal digits that begin with a number ("1e5", "12ab"):
        // that number.
        else MakeDouble(vOut, strtod(sz, nullptr));
        return;
    }
    case TALVOR_NUMBER_POINT: MakeDouble(vOut, strtod(sz, nullptr)); return;
    default: MakeBigInt(vOut, 0); return;
    }
}

} // namespace

bool talvorvar::TimeOfDays(double dDays, TALVORTIME& stTime)
{
    const long long SECONDS_PER_DAY_LL = 86400;
    if (!(dDays > -129.0 && dDays < 128.0)) return false;
    long long llSeconds = llround(dDays * SECONDS_PER_DAY);
    long long llDay = llSeconds >= 0 ? llSeconds / SECONDS_PER_DAY_LL : -((-llSeconds + SECONDS_PER_DAY_LL - 1) / SECONDS_PER_DAY_LL);
    if (llDay < SCHAR_MIN || llDay > SCHAR_MAX) return false;
    long long llRest = llSeconds - llDay * SECONDS_PER_DAY_LL;
    stTime.m_nDay = (signed char)llDay;
    stTime.m_bHour = (BYTE)(llRest / 3600);
    stTime.m_bMintue = (BYTE)(llRest / 60 % 60);
    stTime.m_bSecond = (BYTE)(llRest % 60);
    return true;
}

namespace {

// The text form of a value that is not text, NUL-ended. Result: its length.
int NumberText(const st_VARDATA& v, char* sz)
{
    switch (v.m_vt) {
    case TALVOR_VT_BIGINT: return snprintf(sz, kNumberTextBytes, "%lld", v.m_llValue);
    case TALVOR_VT_DOUBLE:
        snprintf(sz, kNumberTextBytes, "%f", v.m_dblValue);
        TrimTailZero(sz, FALSE);
        return (int)strlen(sz);
    case TALVOR_VT_DECIMAL: return CTalvorDecimal::PrintDecimal(&v, sz);
    case TALVOR_VT_DATETIME: return CTalvorDate::FormatDateTime(v.m_dblValue, sz, 0);
    case TALVOR_VT_DATE: return CTalvorDate::FormatDate(v.m_stDate, sz);
    case TALVOR_VT_TIME: return CTalvorDate::FormatTime(v.m_stTime, sz);
    default: return snprintf(sz, kNumberTextBytes, "%d", (int)IntOf(v));
    }
}

// Day number of any value for the date targets. Result: false for a value
// that names no day (then the target is NULL).
bool DaysForDate(const st_VARDATA& v, double& dDays)
{
    if (IsDateType(v.m_vt)) return DaysOf(v, dDays);
    if (IsTextType(v.m_vt) && !IsHexText(v)) {
        int nLen = 0;
        const char* p = TextOf(v, nLen);
        return TextAsDate(p, nLen, dDays);
    }
    dDays = v.GetCompatibleDouble();
    return std::isfinite(dDays);
}

} // namespace

void st_VARDATA::GetCompatibleNumberValue(st_VARDATA& vOut) const
{
    double dDays = 0;
    if (IsVoid(m_vt)) {
        memset(&vOut, 0, sizeof(vOut));
        vOut.m_vt = m_vt == TALVOR_VT_EMPTY ? TALVOR_VT_NULL : m_vt;
    } else if (IsIntType(m_vt)) MakeBigInt(vOut, IntOf(*this));
    else if (m_vt == TALVOR_VT_DOUBLE) MakeDouble(vOut, m_dblValue);
    else if (m_vt == TALVOR_VT_DECIMAL) memcpy(&vOut, this, sizeof(vOut));
    else if (IsDateType(m_vt)) {
        if (DaysOf(*this, dDays)) MakeDouble(vOut, dDays);
        else MakeNull(vOut);
    } else if (IsTextType(m_vt)) TextNumber(*this, true, vOut);
    else MakeNull(vOut);
}

long long st_VARDATA::GetCompatibleBigInt() const
{
    if (IsIntType(m_vt)) return IntOf(*this);
    if (m_vt == TALVOR_VT_DOUBLE || m_vt == TALVOR_VT_DATETIME) return SaturateDouble(m_dblValue);
    if (m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimal::Convert2Int64(this, TRUE);
    double dDays = 0;
    if (m_vt == TALVOR_VT_DATE || m_vt == TALVOR_VT_TIME) return DaysOf(*this, dDays) ? SaturateDouble(dDays) : 0;
    if (!IsTextType(m_vt)) return 0;
    st_VARDATA v;
    TextNumber(*this, false, v);
    if (v.m_vt == TALVOR_VT_DOUBLE && !IsHexText(*this)) {
        // A fraction in text rounds as the decimal it spells, not as the
        // nearest double: 2.5 is 3 and 0.49999999999999999 is 0.
        int nLen = 0;
        const char* p = TextOf(*this, nLen);
        char sz[kParseBytes];
        TrimmedCopy(p, nLen, sz);
        st_VARDATA d;
        if (IsNumber(sz) == TALVOR_NUMBER_POINT && CTalvorDecimal::Convert2Decimal(sz, &d) == 0 &&
            d.m_vt == TALVOR_VT_DECIMAL)
            return CTalvorDecimal::Convert2Int64(&d, TRUE);
    }
    return v.m_vt == TALVOR_VT_BIGINT || v.m_vt == TALVOR_VT_DECIMAL ? v.GetCompatibleBigInt() : SaturateDouble(v.m_dblValue);
}

int st_VARDATA::GetCompatibleInt() const { return SaturateInt(GetCompatibleBigInt()); }

double st_VARDATA::GetCompatibleDouble() const
{
    if (IsIntType(m_vt)) return (double)IntOf(*this);
    if (m_vt == TALVOR_VT_DOUBLE || m_vt == TALVOR_VT_DATETIME) return m_dblValue;
    if (m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimal::Convert2Double(this);
    double dDays = 0;
    if (m_vt == TALVOR_VT_DATE || m_vt == TALVOR_VT_TIME) return DaysOf(*this, dDays) ? dDays : 0.0;
    if (!IsTextType(m_vt)) return 0.0;
    st_VARDATA v;
    TextNumber(*this, false, v);
    return v.GetCompatibleDouble();
}

int st_VARDATA::GetCompatibleStringValue(CTalvorBufferPool* pPool, st_VARDATA& vOut) const
{
    if (IsVoid(m_vt)) {
        vOut.SetNull();
        return 0;
    }
    if (IsTextType(m_vt)) return vOut.SetData(pPool, *this);
    char sz[kNumberTextBytes];
    int nLen = NumberText(*this, sz);
    return vOut.SetData(pPool, sz, nLen);
}

int st_VARDATA::GetCharNum() const
{
    if (!IsTextType(m_vt)) {
        if (IsVoid(m_vt)) return 0;
        char sz[kNumberTextBytes];
        return NumberText(*this, sz);
    }
    int nLen = 0, nChars = 0;
    const char* p = TextOf(*this, nLen);
    for (int i = 0; i < nLen; ++i)
        if (((BYTE)p[i] & 0xC0) != 0x80) ++nChars;
    return nChars;
}

int st_VARDATA::GetDataLen(unsigned char bType)
{
    switch (bType) {
    case TALVOR_VT_INT: case TALVOR_VT_TIME: case TALVOR_VT_DATE: return 4;
    case TALVOR_VT_BIGINT: case TALVOR_VT_DOUBLE: case TALVOR_VT_DATETIME: return 8;
    case TALVOR_VT_TINY: return 1;
    case TALVOR_VT_SMALL: case TALVOR_VT_ENUM: return 2;
    default: return 0;
    }
}

int st_VARDATA::GetDataLen() const
{
    const int PREFIX_SHORT_LIMIT = 250, PREFIX_LONG = 5;
    if (IsTextType(m_vt)) {
        int nLen = m_lpszValue == nullptr || m_nStrLen < 0 ? 0 : m_nStrLen;
        if (m_vt != TALVOR_VT_PREFIXTEXT) return nLen;
        return nLen + (nLen > PREFIX_SHORT_LIMIT ? PREFIX_LONG : 1);
    }
    if (m_vt == TALVOR_VT_DECIMAL) return CTalvorDecimalBin::CalcBinLen(this);
    return GetDataLen(m_vt);
}

int st_VARDATA::ChangeType(CTalvorBufferPool* pPool, BYTE nType) { return ChangeTypeCore(pPool, nType); }

int st_VARDATA::ChangeTypeCore(CTalvorBufferPool* pPool, BYTE nType)
{
    if (nType == m_vt || IsVoid(m_vt)) return 0;
    double dDays = 0;
    st_VARDATA v;
    switch (nType) {
    case TALVOR_VT_NULL: SetNull(); return 0;
    case TALVOR_VT_INT: case TALVOR_VT_BIGINT: case TALVOR_VT_TINY: case TALVOR_VT_SMALL: {
        long long ll = GetCompatibleBigInt();
        if (nType == TALVOR_VT_BIGINT) SetData(ll);
        else if (nType == TALVOR_VT_INT) SetData(SaturateInt(ll));
        else if (nType == TALVOR_VT_TINY) SetData((char)(ll > SCHAR_MAX ? SCHAR_MAX : ll < SCHAR_MIN ? SCHAR_MIN : ll));
        else SetData((short)(ll > SHRT_MAX ? SHRT_MAX : ll < SHRT_MIN ? SHRT_MIN : ll));
        return 0;
    }
    case TALVOR_VT_DOUBLE: SetData(GetCompatibleDouble()); return 0;
    case TALVOR_VT_DECIMAL:
        if (IsTextType(m_vt) && !IsHexText(*this)) {
            // Digits as they stand: the decimal parser keeps the scale.
            int nLen = 0;
            const char* p = TextOf(*this, nLen);
            char sz[kParseBytes];
            TrimmedCopy(p, nLen, sz);
            MakeNull(v);
            if (CTalvorDecimal::Convert2Decimal(sz, &v) != 0) MakeNull(v);
        } else GetCompatibleNumberValue(v);
        if (v.m_vt == TALVOR_VT_BIGINT) {
            MakeNull(v);
            CTalvorDecimal::Convert2Decimal(GetCompatibleBigInt(), &v);
        } else if (v.m_vt == TALVOR_VT_DOUBLE) {
            double d = v.m_dblValue;
            MakeNull(v);
            CTalvorDecimal::Convert2Decimal(d, &v);
        }
        if (v.m_vt != TALVOR_VT_DECIMAL) MakeNull(v);
        Free();
        memcpy(&m_bSign, &v.m_bSign, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
        m_vt = v.m_vt;
        return 0;
    case TALVOR_VT_DATETIME:
        if (DaysForDate(*this, dDays)) SetDateTime(dDays);
        else SetNull();
        return 0;
    case TALVOR_VT_DATE: {
        TALVORDATE stDate;
        if (DaysForDate(*this, dDays) && CTalvorDate::ConvertDate(dDays, stDate) == 0) SetData(stDate);
        else SetNull();
        return 0;
    }
    case TALVOR_VT_TIME: {
        TALVORTIME stTime;
        int nLen = 0;
        const char* p = IsTextType(m_vt) ? TextOf(*this, nLen) : nullptr;
        if (p != nullptr && !IsHexText(*this) && CTalvorDate::ParseTime(stTime, p, nLen) == 0) SetData(stTime);
        else if (DaysForDate(*this, dDays) && TimeOfDays(dDays - (m_vt == TALVOR_VT_TIME ? 0 : floor(dDays)), stTime))
            SetData(stTime);
        else SetNull();
        return 0;
    }
    case TALVOR_VT_FIXTEXT: case TALVOR_VT_VARTEXT: case TALVOR_VT_TEXT: case TALVOR_VT_PREFIXTEXT: {
        if (IsTextType(m_vt) && m_vt != TALVOR_VT_HEX) {
            m_vt = nType == TALVOR_VT_VARTEXT || !m_bAutoRelease ? nType : m_vt;
            return 0;
        }
        v.Init();
        int nResult = GetCompatibleStringValue(pPool, v);
        if (nResult != 0) return nResult;
        Free();
        memcpy(this, &v, sizeof(v));
        if (!m_bAutoRelease) m_vt = nType;
        else if (m_vt == TALVOR_VT_HEX) m_vt = TALVOR_VT_VARTEXT;  // its bytes, now plain text
        m_bCharset = 0;
        return 0;
    }
    case TALVOR_VT_BINARY:
        if (m_vt != TALVOR_VT_VARTEXT) return TALVOR_VARDATA_TYPE_ERROR;
        if (m_lpszValue != nullptr && m_nStrLen > 0 && m_lpszValue[m_nStrLen - 1] == 0) --m_nStrLen;
        m_vt = TALVOR_VT_BINARY;
        return 0;
    default: return TALVOR_VARDATA_TYPE_ERROR;
    }
}

int st_VARDATA::GetCompatibleValue(CTalvorBufferPool* pPool, BYTE nType, st_VARDATA& vOut) const
{
    int nResult = vOut.SetData(pPool, *this);
    if (nResult != 0) return nResult;
    return vOut.ChangeTypeCore(pPool, nType);
}
