// TalvorVarDataField.cpp — the field buffer form of one value: its size and
// its reading back into a typed value.

#include "TalvorDecimal.h"
#include "TalvorVarDataInternal.h"

#include <climits>
#include <cstring>

using namespace talvorvar;

namespace {

const int FLAG_BYTES = 1;
const int SHORT_TEXT_HEAD = 2;  // flag and length byte
const int LONG_TEXT_HEAD = 6;   // flag, 255 and a 32-bit length
const BYTE LAST_FIELD_TYPE = TALVOR_VT_SMALL;

int DecimalFieldLen(BYTE bPrecision)
{
    const int UNKNOWN_PRECISION_LEN = 19;
    if (bPrecision == TALVOR_DECIMAL_QUOTIENT) return UNKNOWN_PRECISION_LEN;
    if (bPrecision <= 2) return 4;
    if (bPrecision <= 4) return 5;
    if (bPrecision <= 7) return 6;
    if (bPrecision <= 9) return 7;
    int nPrecision = bPrecision < TALVOR_DECIMAL_MAX_DIGITS ? bPrecision : TALVOR_DECIMAL_MAX_DIGITS;
    return (nPrecision - 1) / 9 * 4 + 7;
}

bool IsFieldText(BYTE bType)
{
    return bType == TALVOR_VT_FIXTEXT || bType == TALVOR_VT_VARTEXT || bType == TALVOR_VT_TEXT ||
           bType == TALVOR_VT_BINARY;
}

// Where the text of a field buffer starts and how long it is.
void FieldText(const BYTE* lpBuffer, int& nOffset, int& nLen)
{
    if (lpBuffer[FLAG_BYTES] != TALVOR_FIELD_LONG_TEXT) {
        nOffset = SHORT_TEXT_HEAD;
        nLen = lpBuffer[FLAG_BYTES];
        return;
    }
    nOffset = LONG_TEXT_HEAD;
    memcpy(&nLen, lpBuffer + SHORT_TEXT_HEAD, sizeof(nLen));
}

// Bytes a field buffer of bType needs to be read, from what it holds; -1
// when the buffer is too short to tell, or for a length below 0.
int NeededBytes(BYTE bType, const BYTE* lpBuffer, int nBufferLen)
{
    if (!IsFieldText(bType)) {
        int nNeed = 0;
        return GetFieldBufferLen(bType, 0, 0, nNeed) == 0 ? nNeed : 0;
    }
    if (nBufferLen < SHORT_TEXT_HEAD) return -1;
    if (lpBuffer[FLAG_BYTES] == TALVOR_FIELD_LONG_TEXT && nBufferLen < LONG_TEXT_HEAD) return -1;
    int nOffset = 0, nLen = 0;
    FieldText(lpBuffer, nOffset, nLen);
    if (nLen < 0 || nLen > nBufferLen - nOffset) return -1;
    return nOffset + nLen;
}

} // namespace

int GetFieldBufferLen(BYTE bType, BYTE bCharLen, int nLen, int& nBufferLen)
{
    if (nLen < 0) return TALVOR_VARDATA_BAD_TYPE;
    switch (bType) {
    case TALVOR_VT_NULL: nBufferLen = 0; return 0;
    case TALVOR_VT_INT: case TALVOR_VT_TIME: case TALVOR_VT_DATE: nBufferLen = 5; return 0;
    case TALVOR_VT_BIGINT: case TALVOR_VT_DOUBLE: case TALVOR_VT_DATETIME: nBufferLen = 9; return 0;
    case TALVOR_VT_TINY: nBufferLen = 2; return 0;
    case TALVOR_VT_SMALL: case TALVOR_VT_ENUM: nBufferLen = 3; return 0;
    case TALVOR_VT_PREFIXTEXT:
        if (nLen > INT_MAX - 1) return TALVOR_VARDATA_BAD_TYPE;
        nBufferLen = nLen + 1;
        return 0;
    case TALVOR_VT_DECIMAL: nBufferLen = DecimalFieldLen(bCharLen); return 0;
    default: break;
    }
    if (!IsFieldText(bType) || nLen > INT_MAX - LONG_TEXT_HEAD) return TALVOR_VARDATA_BAD_TYPE;
    nBufferLen = nLen + (nLen > TALVOR_FIELD_SHORT_TEXT ? LONG_TEXT_HEAD : SHORT_TEXT_HEAD);
    return 0;
}

int GetValueFromFieldBuffer(BYTE bType, const BYTE* lpBuffer, VARDATA& v)
{
    if (bType == TALVOR_VT_EMPTY || bType > LAST_FIELD_TYPE || bType == TALVOR_VT_PREFIXTEXT || lpBuffer == nullptr)
        return 0;
    const BYTE* p = lpBuffer + FLAG_BYTES;
    switch (bType) {
    case TALVOR_VT_NULL: v.SetNull(); return 0;
    case TALVOR_VT_INT: {
        int n;
        memcpy(&n, p, sizeof(n));
        v.SetData(n);
        return 0;
    }
    case TALVOR_VT_TINY: v.SetData((int)(signed char)p[0]); return 0;
    case TALVOR_VT_SMALL: {
        short s;
        memcpy(&s, p, sizeof(s));
        v.SetData((int)s);
        return 0;
    }
    case TALVOR_VT_BIGINT: case TALVOR_VT_DOUBLE: case TALVOR_VT_DATETIME: case TALVOR_VT_TIME:
    case TALVOR_VT_DATE: {
        int nBytes = st_VARDATA::GetDataLen(bType);
        v.SetNull();
        v.m_vt = bType;
        memcpy(&v.m_llValue, p, (size_t)nBytes);
        return 0;
    }
    default: break;
    }
    if (!IsFieldText(bType)) return 0;
    int nOffset = 0, nLen = 0;
    FieldText(lpBuffer, nOffset, nLen);
    if (bType == TALVOR_VT_BINARY) return v.SetBinaryData(lpBuffer + nOffset, nLen);
    v.AttachString((char*)(lpBuffer + nOffset), nLen, TALVOR_VT_VARTEXT);
    return 0;
}

int GetValueFromFieldBuffer(BYTE bType, const BYTE* lpBuffer, int nBufferLen, VARDATA& v)
{
    int nNeed = lpBuffer == nullptr ? -1 : NeededBytes(bType, lpBuffer, nBufferLen);
    if (nNeed < 0 || nNeed > nBufferLen) {
        v.SetNull();
        return TALVOR_VARDATA_BAD_TYPE;
    }
    return GetValueFromFieldBuffer(bType, lpBuffer, v);
}
