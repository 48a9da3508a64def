// TalvorContainers.cpp — the three hash maps.
#include "CommonDataDef.h"

#include <sys/time.h>

namespace {

// Seconds from 1601-01-01 to 1970-01-01.
const long long g_nFileTimeEpochGap = 11644473600LL;
const long long g_nTicksPerSecond = 10000000LL;
const long long g_nTicksPerMicrosecond = 10LL;
// Shifts of the string hash repeat with this period.
const int g_nStringHashPeriod = 24;

// Each byte counts as a signed char, shifted by its place; the sum wraps in
// 32 bits. Its absolute value is taken unsigned: the absolute value of
// INT_MIN as an int is INT_MIN itself, and a negative bucket would index in
// front of the table.
UINT StringHash(const char* lpKey, int nMaxBytes)
{
    UINT nSum = 0;
    for (int i = 0; (nMaxBytes < 0 || i < nMaxBytes) && lpKey[i] != '\0'; ++i) {
        nSum += (UINT)(int)(signed char)lpKey[i] << (i % g_nStringHashPeriod);
    }
    return (int)nSum < 0 ? 0u - nSum : nSum;
}

long long FileTimeNow()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return ((long long)tv.tv_sec + g_nFileTimeEpochGap) * g_nTicksPerSecond + (long long)tv.tv_usec * g_nTicksPerMicrosecond;
}

}  // namespace

// ---------------------------------------------------------------------------
// CTalvorMapString

CTalvorMapString::CTalvorMapString()
    : m_nIndex(0), m_nDataCount(TALVOR_MAPSTRING_BUCKETS), m_nDataNum(0), m_lpBaseData(m_arData), m_arData{},
      m_arTempData{}
{
}

CTalvorMapString::~CTalvorMapString()
{
    DeleteHeapNodes();
}

// Only the bytes a node can hold count, so that a cut key hashes to the bucket
// it is stored in and a walk that hashes a stored name again finds its place.
int CTalvorMapString::GetPos(const char* lpKey) const
{
    return (int)(StringHash(lpKey, TALVOR_MAPSTRING_NAME - 1) % (UINT)m_nDataCount);
}

stu_MapString_BaseData* CTalvorMapString::FindNamed(const char* lpKey) const
{
    for (stu_MapString_BaseData* pNode = m_lpBaseData[GetPos(lpKey)]; pNode != nullptr; pNode = pNode->m_lpNext) {
        if (pNode->m_lpszDataID[0] != '\0' && strcmp(pNode->m_lpszDataID, lpKey) == 0) return pNode;
    }
    return nullptr;
}

stu_MapString_BaseData* CTalvorMapString::FindFreeInChain(int nPos) const
{
    for (stu_MapString_BaseData* pNode = m_lpBaseData[nPos]; pNode != nullptr; pNode = pNode->m_lpNext) {
        if (pNode->m_lpszDataID[0] == '\0') return pNode;
    }
    return nullptr;
}

stu_MapString_BaseData* CTalvorMapString::NewNode(int nPos)
{
    stu_MapString_BaseData* pNode = nullptr;
    if (m_nIndex < TALVOR_CONTAINER_INLINE) pNode = &m_arTempData[m_nIndex++];
    else pNode = new (std::nothrow) stu_MapString_BaseData;
    if (pNode == nullptr) return nullptr;
    pNode->m_lpNext = m_lpBaseData[nPos];
    m_lpBaseData[nPos] = pNode;
    return pNode;
}

int CTalvorMapString::Set(const char* lpKey, UINT nValue)
{
    if (lpKey == nullptr || lpKey[0] == '\0') return TALVOR_MAP_NO_MEMORY;
    stu_MapString_BaseData* pNode = FindNamed(lpKey);
    if (pNode != nullptr) {
        pNode->m_nData = nValue;
        return TALVOR_MAP_REPLACED;
    }
    int nPos = GetPos(lpKey);
    pNode = FindFreeInChain(nPos);
    if (pNode == nullptr) pNode = NewNode(nPos);
    if (pNode == nullptr) return TALVOR_MAP_NO_MEMORY;
    memset(pNode->m_lpszDataID, 0, sizeof(pNode->m_lpszDataID));
    strncpy(pNode->m_lpszDataID, lpKey, TALVOR_MAPSTRING_NAME - 1);
    pNode->m_nData = nValue;
    ++m_nDataNum;
    return TALVOR_MAP_NEW;
}

int CTalvorMapString::Get(const char* lpKey, UINT& nValue) const
{
    if (lpKey == nullptr || lpKey[0] == '\0') return TALVOR_MAP_ABSENT;
    const stu_MapString_BaseData* pNode = FindNamed(lpKey);
    if (pNode == nullptr) return TALVOR_MAP_ABSENT;
    nValue = pNode->m_nData;
    return 0;
}

UINT CTalvorMapString::Remove(const char* lpKey)
{
    if (lpKey == nullptr || lpKey[0] == '\0') return 0;
    stu_MapString_BaseData* pNode = FindNamed(lpKey);
    if (pNode == nullptr) return 0;
    memset(pNode->m_lpszDataID, 0, sizeof(pNode->m_lpszDataID));
    --m_nDataNum;
    return pNode->m_nData;
}

stu_MapString_BaseData* CTalvorMapString::FirstNamedFrom(int nBucket) const
{
    for (int i = nBucket; i < m_nDataCount; ++i) {
        for (stu_MapString_BaseData* pNode = m_lpBaseData[i]; pNode != nullptr; pNode = pNode->m_lpNext) {
            if (pNode->m_lpszDataID[0] != '\0') return pNode;
        }
    }
    return nullptr;
}

LPVOID CTalvorMapString::GetHeadPosition() const
{
    return FirstNamedFrom(0);
}

void CTalvorMapString::GetNext(LPVOID& pos, char*& lpKey, UINT& nValue) const
{
    stu_MapString_BaseData* pNode = static_cast<stu_MapString_BaseData*>(pos);
    if (pNode == nullptr) {
        lpKey = nullptr;
        nValue = 0;
        return;
    }
    lpKey = pNode->m_lpszDataID;
    nValue = pNode->m_nData;
    stu_MapString_BaseData* pNext = pNode->m_lpNext;
    while (pNext != nullptr && pNext->m_lpszDataID[0] == '\0') pNext = pNext->m_lpNext;
    if (pNext == nullptr) pNext = FirstNamedFrom(GetPos(pNode->m_lpszDataID) + 1);
    pos = pNext;
}

int CTalvorMapString::Count() const
{
    int nCount = 0;
    for (int i = 0; i < m_nDataCount; ++i) {
        for (stu_MapString_BaseData* pNode = m_lpBaseData[i]; pNode != nullptr; pNode = pNode->m_lpNext) {
            if (pNode->m_lpszDataID[0] != '\0') ++nCount;
        }
    }
    return nCount;
}

BOOL CTalvorMapString::IsInline(const stu_MapString_BaseData* pNode) const
{
    return pNode >= m_arTempData && pNode < m_arTempData + TALVOR_CONTAINER_INLINE;
}

void CTalvorMapString::DeleteHeapNodes()
{
    if (m_nIndex < TALVOR_CONTAINER_INLINE) return;
    for (int i = 0; i < m_nDataCount; ++i) {
        stu_MapString_BaseData* pNode = m_lpBaseData[i];
        while (pNode != nullptr) {
            stu_MapString_BaseData* pNext = pNode->m_lpNext;
            if (!IsInline(pNode)) delete pNode;
            pNode = pNext;
        }
    }
}

void CTalvorMapString::Clear()
{
    DeleteHeapNodes();
    memset(m_arData, 0, sizeof(m_arData));
    m_nIndex = 0;
    m_nDataNum = 0;
}

// Deleting without the reset would leave the buckets pointing at freed
// nodes for the next Set to walk.
void CTalvorMapString::Free()
{
    Clear();
}

// ---------------------------------------------------------------------------
// CTalvorMapInt64

namespace {

// Bits 60 to 62 take no part in the bucket; the high word is folded into the
// low one so that keys differing only above bit 31 still spread.
const unsigned long long g_nInt64KindBits = 7ULL << 60;

}  // namespace

CTalvorMapInt64::CTalvorMapInt64()
    : m_bAllocMemory(FALSE), m_nDataCount(TALVOR_MAPINT64_BUCKETS), m_lpBaseData(m_arData), m_arData{}
{
}

CTalvorMapInt64::~CTalvorMapInt64()
{
    DeleteChains();
}

int CTalvorMapInt64::GetPos(long long nKey) const
{
    unsigned long long nMixed = ((unsigned long long)nKey & ~g_nInt64KindBits) + (unsigned long long)(nKey >> 32);
    return (int)(nMixed % (unsigned long long)m_nDataCount);
}

int CTalvorMapInt64::Find(long long nKey) const
{
    for (const stu_Map_BaseData* pNode = &m_lpBaseData[GetPos(nKey)]; pNode != nullptr; pNode = pNode->m_lpNext) {
        if (pNode->m_nData == nKey) return 1;
    }
    return 0;
}

int CTalvorMapInt64::Set(long long nKey)
{
    stu_Map_BaseData* pHead = &m_lpBaseData[GetPos(nKey)];
    if (pHead->m_nData == 0) {
        pHead->m_nData = nKey;
        return 0;
    }
    if (Find(nKey)) return 0;
    stu_Map_BaseData* pNode = new (std::nothrow) stu_Map_BaseData;
    if (pNode == nullptr) return TALVOR_MAP_NO_MEMORY;
    pNode->m_nData = nKey;
    pNode->m_lpNext = pHead->m_lpNext;
    pHead->m_lpNext = pNode;
    m_bAllocMemory = TRUE;
    return 0;
}

void CTalvorMapInt64::DeleteChains()
{
    if (!m_bAllocMemory) return;
    for (int i = 0; i < m_nDataCount; ++i) {
        stu_Map_BaseData* pNode = m_lpBaseData[i].m_lpNext;
        while (pNode != nullptr) {
            stu_Map_BaseData* pNext = pNode->m_lpNext;
            delete pNode;
            pNode = pNext;
        }
    }
}

void CTalvorMapInt64::Clear()
{
    DeleteChains();
    m_bAllocMemory = FALSE;
    m_nDataCount = TALVOR_MAPINT64_BUCKETS;
    m_lpBaseData = m_arData;
    memset(m_arData, 0, sizeof(m_arData));
}

// ---------------------------------------------------------------------------
// CTalvorMapCache

CTalvorMapCache::CTalvorMapCache(int nCount) : m_nDataCount(0), m_nDataNum(0), m_lpBaseData(nullptr)
{
    if (nCount <= 0) return;
    m_lpBaseData = new (std::nothrow) stu_MapCache_BaseData[nCount];
    if (m_lpBaseData == nullptr) return;
    memset(static_cast<void*>(m_lpBaseData), 0, sizeof(stu_MapCache_BaseData) * (size_t)nCount);
    m_nDataCount = nCount;
}

CTalvorMapCache::~CTalvorMapCache()
{
    DeleteChains();
    delete[] m_lpBaseData;
}

int CTalvorMapCache::GetPos(const char* lpKey) const
{
    return (int)(StringHash(lpKey, -1) % (UINT)m_nDataCount);
}

stu_MapCache_BaseData* CTalvorMapCache::FindNode(const char* lpKey) const
{
    for (stu_MapCache_BaseData* pNode = &m_lpBaseData[GetPos(lpKey)]; pNode != nullptr; pNode = pNode->m_lpNext) {
        if (pNode->m_lpszData != nullptr && strcmp(pNode->m_lpszData, lpKey) == 0) return pNode;
    }
    return nullptr;
}

// The chain is searched even when the head is free: a head freed by Remove
// may stand in front of a live node of the same key, and filling it would
// hold the key twice.
int CTalvorMapCache::Set(char* lpKey, LPVOID lpValue)
{
    if (m_lpBaseData == nullptr || lpKey == nullptr) return TALVOR_MAP_NO_MEMORY;
    stu_MapCache_BaseData* pNode = FindNode(lpKey);
    if (pNode != nullptr) {
        // The same block set again must not be given back under the caller.
        if (pNode->m_lpData != lpValue) delete[] static_cast<BYTE*>(pNode->m_lpData);
        pNode->m_lpszData = lpKey;
        pNode->m_lpData = lpValue;
        pNode->m_nTime = FileTimeNow();
        return 0;
    }
    stu_MapCache_BaseData* pHead = &m_lpBaseData[GetPos(lpKey)];
    pNode = pHead;
    while (pNode != nullptr && pNode->m_lpszData != nullptr) pNode = pNode->m_lpNext;
    if (pNode == nullptr) {
        pNode = new (std::nothrow) stu_MapCache_BaseData;
        if (pNode == nullptr) return TALVOR_MAP_NO_MEMORY;
        pNode->m_lpNext = pHead->m_lpNext;
        pHead->m_lpNext = pNode;
    }
    pNode->m_lpszData = lpKey;
    pNode->m_lpData = lpValue;
    pNode->m_nTime = FileTimeNow();
    ++m_nDataNum;
    return 0;
}

LPVOID CTalvorMapCache::Get(const char* lpKey) const
{
    if (m_lpBaseData == nullptr || lpKey == nullptr) return nullptr;
    const stu_MapCache_BaseData* pNode = FindNode(lpKey);
    return pNode == nullptr ? nullptr : pNode->m_lpData;
}

LPVOID CTalvorMapCache::Remove(const char* lpKey)
{
    if (m_lpBaseData == nullptr || lpKey == nullptr) return nullptr;
    stu_MapCache_BaseData* pNode = FindNode(lpKey);
    if (pNode == nullptr) return nullptr;
    LPVOID lpValue = pNode->m_lpData;
    pNode->m_lpszData = nullptr;
    pNode->m_lpData = nullptr;
    return lpValue;
}

stu_MapCache_BaseData* CTalvorMapCache::FirstUsedFrom(int nBucket) const
{
    for (int i = nBucket; i < m_nDataCount; ++i) {
        for (stu_MapCache_BaseData* pNode = &m_lpBaseData[i]; pNode != nullptr; pNode = pNode->m_lpNext) {
            if (pNode->m_lpszData != nullptr) return pNode;
        }
    }
    return nullptr;
}

LPVOID CTalvorMapCache::GetHeadPosition() const
{
    return m_lpBaseData == nullptr ? nullptr : FirstUsedFrom(0);
}

void CTalvorMapCache::GetNext(LPVOID& pos, char*& lpKey, LPVOID& lpValue) const
{
    stu_MapCache_BaseData* pNode = static_cast<stu_MapCache_BaseData*>(pos);
    if (pNode == nullptr) {
        lpKey = nullptr;
        lpValue = nullptr;
        return;
    }
    lpKey = pNode->m_lpszData;
    lpValue = pNode->m_lpData;
    stu_MapCache_BaseData* pNext = pNode->m_lpNext;
    while (pNext != nullptr && pNext->m_lpszData == nullptr) pNext = pNext->m_lpNext;
    if (pNext == nullptr) pNext = FirstUsedFrom(GetPos(pNode->m_lpszData) + 1);
    pos = pNext;
}

int CTalvorMapCache::Count() const
{
    int nCount = 0;
    for (int i = 0; i < m_nDataCount; ++i) {
        for (const stu_MapCache_BaseData* pNode = &m_lpBaseData[i]; pNode != nullptr; pNode = pNode->m_lpNext) {
            if (pNode->m_lpszData != nullptr) ++nCount;
        }
    }
    return nCount;
}

void CTalvorMapCache::DeleteChains()
{
    for (int i = 0; i < m_nDataCount; ++i) {
        stu_MapCache_BaseData* pNode = m_lpBaseData[i].m_lpNext;
        while (pNode != nullptr) {
            stu_MapCache_BaseData* pNext = pNode->m_lpNext;
            delete pNode;
            pNode = pNext;
        }
    }
}

void CTalvorMapCache::Clear()
{
    DeleteChains();
    if (m_lpBaseData != nullptr) memset(static_cast<void*>(m_lpBaseData), 0, sizeof(stu_MapCache_BaseData) * (size_t)m_nDataCount);
    m_nDataNum = 0;
}
