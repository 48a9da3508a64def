// BaseBsonMain.cpp — allocation in the main buffer and in the overflow
// sections that catch what it cannot hold, the plain appends, and the
// encoding of one field value.
#include "BaseBsonInternal.h"

#include <cstring>
#include <new>

// Result: nSize when a block of nSize bytes fits at the end of the main
// buffer and would get an id of its own there; 0 otherwise.
UINT CBaseBson::MainIdRoom(UINT nSize) const
{
    if (m_lpBuffer == nullptr || m_nBsonDataSize > m_nBsonBufferSize) return 0;
    if (nSize > m_nBsonBufferSize - m_nBsonDataSize) return 0;
    if (m_nBsonDataSize < m_nBsonStartOffset) return 0;
    if (m_nBsonDataSize - m_nBsonStartOffset >= BSON_ID_OFFSET_LIMIT) return 0;
    return nSize;
}

int CBaseBson::AllocFromBsonBuffer(UINT nSize, volatile UINT& addr, LPBYTE& ptr)
{
    if (nSize == 0) {
        addr = 0;
        return BSON_OK;
    }
    if (m_lpBuffer == nullptr) {
        unsigned long long nFirst = ((unsigned long long)nSize & ~(unsigned long long)(BSON_GROW_STEP - 1)) + BSON_GROW_STEP;
        if (nFirst > 0xFFFFFFFFull) return BSON_NO_MEMORY;
        int nResult = TakeMainBuffer((UINT)nFirst);
        if (nResult != BSON_OK) return nResult;
    }
    if (ptr != nullptr) return ExtendInMain(nSize, addr, ptr);
    if (MainIdRoom(nSize) == 0) {
        if (!m_bAllowBsonSection) return BSON_NO_MEMORY;
        return AllocFromOverflow(nSize, ptr, addr);
    }
    ptr = m_lpBuffer + m_nBsonDataSize;
    memset(ptr, 0, nSize);
    addr = m_nBsonDataSize - m_nBsonStartOffset;
    m_nBsonDataSize += nSize;
    m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    m_nExecutePlanDataSize += nSize;
    return BSON_OK;
}

// The block at ptr becomes nSize bytes long. Its bytes are kept, the new
// ones zeroed; the end of the data never moves back, so a block extended
// in the middle of the plan cannot cut off the blocks behind it.
int CBaseBson::ExtendInMain(UINT nSize, volatile UINT& addr, LPBYTE& ptr)
{
    if (ptr < m_lpBuffer || ptr > m_lpBuffer + m_nBsonBufferSize) return BSON_PAST_END;
    UINT nOffset = (UINT)(ptr - m_lpBuffer);
    unsigned long long nEnd = (unsigned long long)nOffset + nSize;
    if (nEnd > m_nBsonBufferSize) return BSON_PAST_END;
    if (nEnd > m_nBsonDataSize) {
        memset(m_lpBuffer + m_nBsonDataSize, 0, (size_t)(nEnd - m_nBsonDataSize));
        m_nExecutePlanDataSize += (UINT)nEnd - m_nBsonDataSize;
        m_nBsonDataSize = (UINT)nEnd;
        m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    }
    addr = nOffset - m_nBsonStartOffset;
    return BSON_OK;
}

int CBaseBson::AllocFromBsonBufferEx(UINT nSize, UINT& addr, LPBYTE& ptr)
{
    if (m_lpBuffer == nullptr) {
        unsigned long long nFirst = ((unsigned long long)nSize & ~(unsigned long long)(BSON_GROW_STEP - 1)) + BSON_GROW_STEP;
        if (nFirst > 0xFFFFFFFFull) return BSON_NO_MEMORY;
        int nResult = TakeMainBuffer((UINT)nFirst);
        if (nResult != BSON_OK) return nResult;
    }
    UINT nAligned = (m_nBsonDataSize + 3u) & ~3u;
    if (nAligned < m_nBsonDataSize || nAligned > m_nBsonBufferSize || nAligned < m_nBsonStartOffset) return BSON_NO_MEMORY;
    if (nSize > m_nBsonBufferSize - nAligned || nAligned - m_nBsonStartOffset >= BSON_ID_OFFSET_LIMIT) return BSON_NO_MEMORY;
    memset(m_lpBuffer + m_nBsonDataSize, 0, nAligned - m_nBsonDataSize);
    ptr = m_lpBuffer + nAligned;
    addr = nAligned - m_nBsonStartOffset;
    m_nExecutePlanDataSize += nAligned + nSize - m_nBsonDataSize;
    m_nBsonDataSize = nAligned + nSize;
    m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    return BSON_OK;
}

int CBaseBson::AllocFromBsonBufferSection(int nSize, LPBYTE& ptr, volatile UINT& addr)
{
    if (!m_bAllowBsonSection || nSize < 0) return BSON_NO_MEMORY;
    return AllocFromOverflow((UINT)nSize, ptr, addr);
}

int CBaseBson::AllocFromOverflow(UINT nSize, LPBYTE& ptr, volatile UINT& addr)
{
    BOOL bRoom = m_lpBsonCurrentSection != nullptr && m_nBsonCurrentDataSize < BSON_ID_OFFSET_LIMIT &&
                 m_nBsonCurrentDataSize <= m_nBsonCurrentSectionSize &&
                 nSize <= m_nBsonCurrentSectionSize - m_nBsonCurrentDataSize;
    if (!bRoom) {
        int nResult = AllocBsonBufferSection(nSize);
        if (nResult != BSON_OK) return nResult;
    }
    ptr = m_lpBsonCurrentSection + m_nBsonCurrentDataSize;
    memset(ptr, 0, nSize);
    addr = (m_nBsonCurrentSectionNo << 16) | (m_nBsonCurrentDataSize & 0xFFFFu);
    m_nBsonCurrentDataSize += nSize;
    OverflowUsed(m_lpBsonCurrentSection) = m_nBsonCurrentDataSize;
    return BSON_OK;
}

// The block is an arena block with the masked size rule, linked behind the
// arena's current block so that the arena goes on carving where it was.
// Where the mask would cut the block below what it must hold, the block
// is sized as any other arena block.
int CBaseBson::AllocOverflowBlock(UINT nCapacity, LPBYTE& lpSection)
{
    unsigned long long nBytes = (unsigned long long)nCapacity + sizeof(BSONOVERFLOWHEAD);
    unsigned long long nBlock = (nBytes + BSON_META_STEP) & 0x1F0000ull;
    if (nBlock < nBytes) nBlock = (nBytes + BSON_META_STEP + 7) / BSON_META_STEP * BSON_META_STEP;
    LPBYTE lpBlock = new (std::nothrow) BYTE[nBlock];
    if (lpBlock == nullptr) return BSON_NO_MEMORY;
    BSONOVERFLOWHEAD* pHead = reinterpret_cast<BSONOVERFLOWHEAD*>(lpBlock);
    LPBYTE* ppArenaLink = reinterpret_cast<LPBYTE*>(m_lpBsonMetaBuf);
    pHead->m_lpNextBlock = *ppArenaLink;
    *ppArenaLink = lpBlock;
    pHead->m_nCapacity = nCapacity;
    pHead->m_nUsed = 0;
    lpSection = lpBlock + sizeof(BSONOVERFLOWHEAD);
    return BSON_OK;
}

int CBaseBson::GrowOverflowArray()
{
    UINT nCount = m_nBsonSectionArrayCount == 0 ? BSON_OVERFLOW_FIRST_ARRAY : m_nBsonSectionArrayCount * 2;
    if (nCount > BSON_OVERFLOW_MAX_ARRAY) return BSON_NO_MEMORY;
    LPBYTE* lpArray = nullptr;
    int nResult = AllocBsonMetaData((int)nCount, lpArray);
    if (nResult != BSON_OK) return nResult;
    if (m_nBsonSectionArrayCount > 0) memcpy(lpArray, m_lpBsonSectionArray, m_nBsonSectionArrayCount * sizeof(LPBYTE));
    m_lpBsonSectionArray = lpArray;
    m_nBsonSectionArrayCount = nCount;
    return BSON_OK;
}

int CBaseBson::AllocBsonBufferSection(UINT nSize)
{
    if (m_nBsonSectionNum >= BSON_MAX_OVERFLOW_SECTIONS) return BSON_NO_MEMORY;
    if (m_nBsonSectionNum >= m_nBsonSectionArrayCount) {
        int nResult = GrowOverflowArray();
        if (nResult != BSON_OK) return nResult;
    }
    LPBYTE& lpSlot = m_lpBsonSectionArray[m_nBsonSectionNum];
    BOOL bSmall = nSize <= m_nDefaultBufferSectionSize;
    if (!bSmall || lpSlot == nullptr || OverflowHead(lpSlot)->m_nCapacity < nSize) {
        unsigned long long nRounded = bSmall ? m_nDefaultBufferSectionSize
                                             : ((unsigned long long)nSize + BSON_OVERFLOW_ROUND - 1) /
                                                   BSON_OVERFLOW_ROUND * BSON_OVERFLOW_ROUND;
        if (nRounded > 0xFFFFFFFFull - sizeof(BSONOVERFLOWHEAD)) return BSON_NO_MEMORY;
        LPBYTE lpSection = nullptr;
        int nResult = AllocOverflowBlock((UINT)nRounded, lpSection);
        if (nResult != BSON_OK) return nResult;
        lpSlot = lpSection;
    }
    m_nBsonSectionNum++;
    m_lpBsonCurrentSection = lpSlot;
    m_nBsonCurrentDataSize = 0;
    OverflowUsed(lpSlot) = 0;
    m_nBsonCurrentSectionSize = OverflowHead(lpSlot)->m_nCapacity;
    m_nBsonCurrentSectionNo = m_nBsonSectionNum | BSON_OVERFLOW_SECTION;
    return BSON_OK;
}

BOOL CBaseBson::AppendRaw(const void* lpData, UINT nLen)
{
    if (m_lpBuffer == nullptr || m_nBsonDataSize > m_nBsonBufferSize) return FALSE;
    if (nLen > m_nBsonBufferSize - m_nBsonDataSize) return FALSE;
    if (nLen > 0) memcpy(m_lpBuffer + m_nBsonDataSize, lpData, nLen);
    m_nBsonDataSize += nLen;
    m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    m_nExecutePlanDataSize += nLen;
    return TRUE;
}

BOOL CBaseBson::AppendByte(BYTE bValue)
{
    return AppendRaw(&bValue, sizeof(bValue));
}

BOOL CBaseBson::AppendShort(short sValue)
{
    return AppendRaw(&sValue, sizeof(sValue));
}

BOOL CBaseBson::AppendInt32(int nValue)
{
    return AppendRaw(&nValue, sizeof(nValue));
}

BOOL CBaseBson::AppendInt64(long long llValue)
{
    return AppendRaw(&llValue, sizeof(llValue));
}

BOOL CBaseBson::AppendDouble(double dblValue)
{
    return AppendRaw(&dblValue, sizeof(dblValue));
}

BOOL CBaseBson::AppendBuffer(const void* lpData, UINT nLen)
{
    if (lpData == nullptr && nLen > 0) return FALSE;
    return AppendRaw(lpData, nLen);
}

namespace {

BOOL IsTextValue(const VARDATA& v)
{
    switch (v.m_vt) {
    case TALVOR_VT_FIXTEXT:
    case TALVOR_VT_VARTEXT:
    case TALVOR_VT_TEXT:
    case TALVOR_VT_BINARY:
    case TALVOR_VT_PREFIXTEXT:
    case TALVOR_VT_HEX:
        return TRUE;
    default:
        return FALSE;
    }
}

// Bytes the field takes, the field number included; 0 for a type without
// a layout, or text that a value of another type cannot give.
UINT FieldBytes(BYTE bType, const VARDATA& v)
{
    switch (bType) {
    case TALVOR_VT_INT:
        return 5;
    case TALVOR_VT_BIGINT:
    case TALVOR_VT_DOUBLE:
    case TALVOR_VT_DATETIME:
        return 9;
    case TALVOR_VT_FIXTEXT:
    case TALVOR_VT_VARTEXT:
    case TALVOR_VT_TEXT:
    case TALVOR_VT_BINARY:
        if (!IsTextValue(v) || v.m_nStrLen < 0 || (v.m_nStrLen > 0 && v.m_lpszValue == nullptr)) return 0;
        if ((UINT)v.m_nStrLen > 0x7FFFFFF0u) return 0;
        return 5 + (UINT)v.m_nStrLen;
    case TALVOR_VT_TINY:
        return 2;
    case TALVOR_VT_SMALL:
        return 3;
    default:
        return 0;
    }
}

void EncodeField(BYTE bType, BYTE bFieldNo, const VARDATA& v, LPBYTE p)
{
    p[0] = bFieldNo;
    switch (bType) {
    case TALVOR_VT_INT: {
        int n = v.m_nValue;
        memcpy(p + 1, &n, 4);
        break;
    }
    case TALVOR_VT_BIGINT: {
        long long ll = v.m_llValue;
        memcpy(p + 1, &ll, 8);
        break;
    }
    case TALVOR_VT_DOUBLE:
    case TALVOR_VT_DATETIME: {
        double d = v.m_dblValue;
        memcpy(p + 1, &d, 8);
        break;
    }
    case TALVOR_VT_TINY:
        p[1] = (BYTE)v.m_nValue;
        break;
    case TALVOR_VT_SMALL: {
        short s = (short)v.m_nValue;
        memcpy(p + 1, &s, 2);
        break;
    }
    default: {
        int nLen = v.m_nStrLen;
        memcpy(p + 1, &nLen, 4);
        if (nLen > 0) memcpy(p + 5, v.m_lpszValue, (size_t)nLen);
        break;
    }
    }
}

}  // namespace

int CBaseBson::WriteFieldData(BYTE bType, BYTE bFieldNo, VARDATA& vValue, LPBYTE lpPos)
{
    UINT nBytes = FieldBytes(bType, vValue);
    if (nBytes == 0) return 0;
    volatile UINT nAddr = 0;
    LPBYTE p = lpPos;
    if (AllocFromBsonBuffer(nBytes, nAddr, p) != BSON_OK) return 0;
    EncodeField(bType, bFieldNo, vValue, p);
    return (int)nBytes;
}
