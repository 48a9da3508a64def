// TalvorVarDataPrint.cpp — printing typed values and measuring what they
// print to; the text conversions in place.

#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorString.h"
#include "TalvorVarDataInternal.h"

#include <cmath>
#include <cstdio>
#include <cstring>

using namespace talvorvar;

namespace {

// The text of a value that is not text, into sz of kNumberTextBytes.
int PrintNumber(const VARDATA& v, char* sz)
{
    switch (v.m_vt) {
    case TALVOR_VT_BIGINT: return snprintf(sz, kNumberTextBytes, "%lld", v.m_llValue);
    case TALVOR_VT_DOUBLE: return snprintf(sz, kNumberTextBytes, "%f", v.m_dblValue);
    case TALVOR_VT_DECIMAL: return CTalvorDecimal::PrintDecimal(&v, sz);
    case TALVOR_VT_DATETIME: return CTalvorDate::FormatDateTime(v.m_dblValue, sz, 0);
    case TALVOR_VT_DATE: return CTalvorDate::FormatDate(v.m_stDate, sz);
    case TALVOR_VT_TIME: return CTalvorDate::FormatTime(v.m_stTime, sz);
    default: return snprintf(sz, kNumberTextBytes, "%d", (int)IntOf(v));
    }
}

} // namespace

int ConvertVarData2String(const VARDATA& v, char* lpszOut)
{
    if (IsVoid(v.m_vt)) {
        if (lpszOut != nullptr) *lpszOut = 0;
        return 0;
    }
    if (IsTextType(v.m_vt)) {
        int nLen = 0;
        const char* p = TextOf(v, nLen);
        if (lpszOut != nullptr) {
            memcpy(lpszOut, p, (size_t)nLen);
            lpszOut[nLen] = 0;
        }
        return nLen;
    }
    char sz[kNumberTextBytes];
    int nLen = PrintNumber(v, sz);
    if (lpszOut != nullptr) memcpy(lpszOut, sz, (size_t)nLen + 1);
    return nLen;
}

int GetIntegerFigure(long long llValue)
{
    unsigned long long u = llValue < 0 ? 0ULL - (unsigned long long)llValue : (unsigned long long)llValue;
    int n = llValue < 0 ? 2 : 1;
    while (u >= 10) {
        u /= 10;
        ++n;
    }
    return n;
}

int GetDoubleFigure(double dValue)
{
    const double REST_LIMIT = 1e-10;
    const int MAX_FRACTION = 17;
    if (!std::isfinite(dValue)) return 3;  // "nan", "inf"
    double a = fabs(dValue);
    int n = dValue < 0 ? 1 : 0;
    double dInt = floor(a);
    for (n += 1; dInt >= 10; dInt = floor(dInt / 10)) ++n;
    double dRest = a - floor(a);
    int nFraction = 0;
    while (dRest > REST_LIMIT && nFraction < MAX_FRACTION) {
        dRest *= 10;
        dRest -= floor(dRest);
        ++nFraction;
    }
    return nFraction > 0 ? n + 1 + nFraction : n;
}

int GetStringFigure(const char* lpszText, int nLen, BOOL bQuote)
{
    if (lpszText == nullptr || nLen < 0) nLen = 0;
    bool bObject = nLen >= 2 && lpszText[0] == '{' && lpszText[nLen - 1] == '}';
    return bQuote && !bObject ? nLen + 2 : nLen;
}

int st_VARDATA::Covert2String(CTalvorBufferPool* pPool)
{
    if (IsTextType(m_vt) || IsVoid(m_vt)) return 0;
    return ChangeTypeCore(pPool, pPool != nullptr ? TALVOR_VT_TEXT : TALVOR_VT_VARTEXT);
}

int st_VARDATA::CovertString2Data(CTalvorBufferPool* pPool, BYTE nType)
{
    if (!IsTextType(m_vt)) return TALVOR_VARDATA_TYPE_ERROR;
    return ChangeTypeCore(pPool, nType);
}

int st_VARDATA::CovertString2Data(CTalvorBufferPool* pPool, const char* lpszText, int nLen, BYTE nType)
{
    int nResult = SetData(pPool, lpszText, nLen);
    return nResult != 0 ? nResult : ChangeTypeCore(pPool, nType);
}

int st_VARDATA::CovertStringToNumber()
{
    if (!IsTextType(m_vt)) return TALVOR_VARDATA_TYPE_ERROR;
    st_VARDATA n;
    GetCompatibleNumberValue(n);
    Free();
    m_vt = n.m_vt;
    memcpy(&m_bSign, &n.m_bSign, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
    return 0;
}

BOOL st_VARDATA::IsAllWildcard() const
{
    if (!IsTextType(m_vt)) return FALSE;
    int nLen = 0;
    const char* p = TextOf(*this, nLen);
    if (nLen == 0) return FALSE;
    for (int i = 0; i < nLen; ++i)
        if (p[i] != '%' && p[i] != TALVOR_LIKE_ANY) return FALSE;
    return TRUE;
}
