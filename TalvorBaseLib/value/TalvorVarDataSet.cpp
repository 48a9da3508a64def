// TalvorVarDataSet.cpp — setting, borrowing and moving typed values, and the
// helpers the other typed-value sources share.

#include "TalvorBufferPool.h"
#include "TalvorDate.h"
#include "TalvorDecimal.h"
#include "TalvorVarDataInternal.h"

#include <climits>
#include <cstring>
#include <new>

namespace talvorvar {

long long IntOf(const st_VARDATA& v)
{
    switch (v.m_vt) {
    case TALVOR_VT_BIGINT: return v.m_llValue;
    case TALVOR_VT_TINY: return (signed char)(v.m_nValue & 0xFF);
    case TALVOR_VT_SMALL: return (short)(v.m_nValue & 0xFFFF);
    case TALVOR_VT_ENUM: return v.m_enumValue;
    default: return v.m_nValue;
    }
}

const char* TextOf(const st_VARDATA& v, int& nLen)
{
    nLen = v.m_nStrLen;
    const char* p = v.m_lpszValue;
    if (p == nullptr || nLen <= 0) {
        nLen = 0;
        return "";
    }
    while (nLen > 0 && p[nLen - 1] == 0) --nLen;
    return p;
}

bool IsHexText(const st_VARDATA& v)
{
    return v.m_vt == TALVOR_VT_HEX || (IsTextType(v.m_vt) && v.m_bCharset == TALVOR_TEXT_HEX_LITERAL);
}

bool DaysOf(const st_VARDATA& v, double& dDays)
{
    if (v.m_vt == TALVOR_VT_DATETIME) {
        dDays = v.m_dblValue;
        return true;
    }
    DATE d = 0;
    int nResult = v.m_vt == TALVOR_VT_DATE ? CTalvorDate::ConvertVariantTime(d, v.m_stDate)
                                           : CTalvorDate::ConvertVariantTime(d, v.m_stTime);
    dDays = d;
    return nResult == 0;
}

void CopyForParse(const char* p, int nLen, char* szOut)
{
    if (nLen > kParseBytes - 1) nLen = kParseBytes - 1;
    if (nLen > 0) memcpy(szOut, p, (size_t)nLen);
    szOut[nLen > 0 ? nLen : 0] = 0;
}

bool TextAsDate(const char* p, int nLen, double& dDays)
{
    // A date text is short; anything longer the parser refuses anyway.
    const int MAX_DATE_TEXT = 63;
    if (nLen <= 0 || nLen > MAX_DATE_TEXT) return false;
    CTalvorDate parser;
    DATE d = 0;
    if (parser.ParseDate(p, nLen, d) != 0) return false;
    dDays = d;
    return true;
}

void MakeNull(st_VARDATA& v)
{
    memset(&v, 0, sizeof(v));
    v.m_vt = TALVOR_VT_NULL;
}

void MakeBigInt(st_VARDATA& v, long long ll)
{
    memset(&v, 0, sizeof(v));
    v.m_vt = TALVOR_VT_BIGINT;
    v.m_llValue = ll;
}

void MakeDouble(st_VARDATA& v, double d)
{
    memset(&v, 0, sizeof(v));
    v.m_vt = TALVOR_VT_DOUBLE;
    v.m_dblValue = d;
}

} // namespace talvorvar

using namespace talvorvar;

namespace {

// Clears the value union, keeping the four flag bytes and the count.
void ClearUnion(st_VARDATA& v)
{
    memset(&v.m_bSign, 0, sizeof(st_VARDATA) - offsetof(st_VARDATA, m_bSign) - sizeof(int));
}

bool LengthFits(int nLen) { return nLen >= 0 && nLen <= TALVOR_VARDATA_MAX_TEXT; }

// An owned, NUL-ended copy; null when memory is short.
char* OwnedCopy(const void* p, int nLen)
{
    char* pNew = new (std::nothrow) char[(size_t)nLen + 1];
    if (pNew == nullptr) return nullptr;
    if (nLen > 0) memcpy(pNew, p, (size_t)nLen);
    pNew[nLen] = 0;
    return pNew;
}

} // namespace

void st_VARDATA::Init() { memset(this, 0, sizeof(*this)); }

void st_VARDATA::Free()
{
    if (MayOwn(m_vt) && m_bAutoRelease && m_lpszValue != nullptr) delete[] m_lpszValue;
    if (IsTextType(m_vt)) {
        m_bAutoRelease = 0;
        m_lpszValue = nullptr;
        m_nStrLen = 0;
    }
}

void st_VARDATA::SetNull()
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_NULL;
}

void st_VARDATA::SetData(int nValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_INT;
    m_nValue = nValue;
}

void st_VARDATA::SetData(UINT uValue) { SetData((long long)uValue); }

void st_VARDATA::SetData(long long llValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_BIGINT;
    m_llValue = llValue;
}

void st_VARDATA::SetData(unsigned long long ullValue)
{
    if (ullValue <= (unsigned long long)LLONG_MAX) {
        SetData((long long)ullValue);
        return;
    }
    Free();
    ClearUnion(*this);
    CTalvorDecimal::Convert2Decimal(ullValue, this);
}

void st_VARDATA::SetData(double dblValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_DOUBLE;
    m_dblValue = dblValue;
}

void st_VARDATA::SetData(BYTE bValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_TINY;
    m_nValue = bValue;
}

void st_VARDATA::SetData(char chValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_TINY;
    m_nValue = (signed char)chValue;
}

void st_VARDATA::SetData(short sValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_SMALL;
    m_nValue = sValue;
}

void st_VARDATA::SetData(const TALVORDATE& stDate)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_DATE;
    m_stDate = stDate;
}

void st_VARDATA::SetData(const TALVORTIME& stTime)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_TIME;
    m_stTime = stTime;
}

void st_VARDATA::SetDateTime(double dtValue)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_DATETIME;
    m_dblValue = dtValue;
}

int st_VARDATA::SetData(const char* lpszText, int nLen)
{
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_NULL;
    if (!LengthFits(nLen) || (lpszText == nullptr && nLen > 0)) return TALVOR_VARDATA_NO_MEMORY;
    char* pNew = OwnedCopy(lpszText, nLen);
    if (pNew == nullptr) return TALVOR_VARDATA_NO_MEMORY;
    m_vt = TALVOR_VT_VARTEXT;
    m_bAutoRelease = 1;
    m_lpszValue = pNew;
    m_nStrLen = nLen;
    return 0;
}

int st_VARDATA::SetData(CTalvorBufferPool* pPool, const char* lpszText, int nLen)
{
    if (pPool == nullptr) return SetData(lpszText, nLen);
    Free();
    ClearUnion(*this);
    m_vt = TALVOR_VT_NULL;
    if (!LengthFits(nLen) || (lpszText == nullptr && nLen > 0)) return TALVOR_VARDATA_NO_MEMORY;
    char* pNew = (char*)pPool->AllocBuffer((UINT)nLen + 1);
    if (pNew == nullptr) return TALVOR_VARDATA_NO_MEMORY;
    if (nLen > 0) memcpy(pNew, lpszText, (size_t)nLen);
    pNew[nLen] = 0;
    m_vt = TALVOR_VT_TEXT;
    m_lpszValue = pNew;
    m_nStrLen = nLen;
    return 0;
}

int st_VARDATA::SetData(CTalvorBufferPool* pPool, const st_VARDATA& src)
{
    if (&src == this) return 0;
    if (!IsTextType(src.m_vt)) {
        Free();
        memcpy(this, &src, sizeof(*this));
        return 0;
    }
    // The source may be borrowed from this value's own buffer: copy first,
    // give back after.
    st_VARDATA old;
    memcpy(&old, this, sizeof(old));
    memcpy(this, &src, sizeof(*this));
    m_bAutoRelease = 0;
    m_lpszValue = nullptr;
    // A negative length reads as empty everywhere, so it copies as empty.
    int nLen = src.m_lpszValue == nullptr || src.m_nStrLen < 0 ? 0 : src.m_nStrLen;
    int nResult = 0;
    if (!LengthFits(nLen)) nResult = TALVOR_VARDATA_NO_MEMORY;
    else if (pPool != nullptr && src.m_vt != TALVOR_VT_HEX) {
        char* pNew = (char*)pPool->AllocBuffer((UINT)nLen + 1);
        if (pNew == nullptr) nResult = TALVOR_VARDATA_NO_MEMORY;
        else {
            if (nLen > 0) memcpy(pNew, src.m_lpszValue, (size_t)nLen);
            pNew[nLen] = 0;
            m_lpszValue = pNew;
        }
    } else {
        m_lpszValue = OwnedCopy(src.m_lpszValue, nLen);
        if (m_lpszValue == nullptr) nResult = TALVOR_VARDATA_NO_MEMORY;
        else {
            m_bAutoRelease = 1;
            if (m_vt != TALVOR_VT_BINARY && m_vt != TALVOR_VT_HEX) m_vt = TALVOR_VT_VARTEXT;
        }
    }
    if (nResult != 0) {
        ClearUnion(*this);
        m_vt = TALVOR_VT_NULL;
    }
    old.Free();
    return nResult;
}

int st_VARDATA::SetDataEx(CTalvorBufferPool* pPool, st_VARDATA& src)
{
    int nResult = SetData(pPool, src);
    if (&src != this) src.Free();
    return nResult;
}

void st_VARDATA::AttachString(char* lpszText, int nLen, BYTE bType)
{
    Free();
    ClearUnion(*this);
    m_vt = IsTextType(bType) && bType != TALVOR_VT_HEX ? bType : TALVOR_VT_VARTEXT;
    m_lpszValue = lpszText;
    m_nStrLen = lpszText == nullptr || nLen < 0 ? 0 : nLen;
}

void st_VARDATA::AttachBuffer(char* lpBuffer, int nLen, BOOL bAutoRelease)
{
    AttachString(lpBuffer, nLen, TALVOR_VT_VARTEXT);
    m_bAutoRelease = bAutoRelease && lpBuffer != nullptr ? 1 : 0;
}

void st_VARDATA::AttachBinaryData(void* lpData, int nLen, BOOL bAutoRelease)
{
    AttachString((char*)lpData, nLen, TALVOR_VT_BINARY);
    m_bAutoRelease = bAutoRelease && lpData != nullptr ? 1 : 0;
}

char* st_VARDATA::DetachBuffer()
{
    if (!IsTextType(m_vt)) return nullptr;
    char* p = m_lpszValue;
    m_bAutoRelease = 0;
    SetNull();
    return p;
}

int st_VARDATA::SetBinaryData(const void* lpData, int nLen)
{
    int nResult = SetData((const char*)lpData, nLen);
    if (nResult == 0) m_vt = TALVOR_VT_BINARY;
    return nResult;
}

const BYTE* st_VARDATA::GetBinaryData(int& nLen) const
{
    if (!IsTextType(m_vt) || m_lpszValue == nullptr || m_nStrLen <= 0) {
        nLen = 0;
        return nullptr;
    }
    nLen = m_nStrLen;
    return (const BYTE*)m_lpszValue;
}

void st_VARDATA::Swap(CTalvorBufferPool* /*pPool*/, st_VARDATA& other)
{
    // Ownership travels with the bytes, so a plain exchange keeps one owner.
    st_VARDATA t;
    memcpy(&t, this, sizeof(t));
    memcpy(this, &other, sizeof(t));
    memcpy(&other, &t, sizeof(t));
}
