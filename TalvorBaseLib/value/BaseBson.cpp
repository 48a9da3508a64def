// BaseBson.cpp — the life of a plan buffer: construction, its memory
// sources, the main and temporary buffers, growth, and going back to a
// remembered state. Allocation inside the buffer is in BaseBsonMain.cpp, the
// buffer sections in BaseBsonSection.cpp.
#include "BaseBsonInternal.h"

#include <cstring>
#include <new>

namespace {

// Block for a main buffer of nSize bytes: the free front room and the plan,
// a whole multiple of the grow step and always a step more than the cleared
// value, so never exactly full. 0 when it would not fit 32 bits.
UINT MainBlockSize(UINT nSize)
{
    unsigned long long n = (unsigned long long)nSize + BSON_FRONT_ROOM;
    n = (n & ~(unsigned long long)(BSON_GROW_STEP - 1)) + BSON_GROW_STEP;
    return n > 0xFFFFFFFFull ? 0 : (UINT)n;
}

}  // namespace

int CBsonPageSource::AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool)
{
    return m_pOwner->AllocMemoryBufferPool(lpBuffer, nSize, pCookie, bBufferPool);
}

void CBsonPageSource::FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie)
{
    m_pOwner->FreeMemoryBufferPool(lpBuffer, pCookie);
}

void CTalvorBufferPoolEx::SetBson(CBaseBson* pBson)
{
    m_pBson = pBson == nullptr ? nullptr : &pBson->m_stPageSource;
}

void CTalvorBufferPoolEx2::SetBson(CBaseBson* pBson)
{
    m_pBson = pBson == nullptr ? nullptr : &pBson->m_stPageSource;
}

CBaseBson::CBaseBson() : m_pMasterBson(nullptr), m_pMemoryBson(nullptr), m_stPageSource(this)
{
    m_bAllowBsonSection = FALSE;
    m_bNoneExecutePlan = FALSE;
    m_nBsonStartOffset = 0;
    m_nDefaultBufferSectionSize = BSON_DEFAULT_SECTION_SIZE;
    *reinterpret_cast<LPBYTE*>(m_lpBsonMetaSpace) = nullptr;
    ClearState();
    m_stBufferPool.SetPoolPageSize(BSON_POOL_PAGE);
    m_stBufferPool.SetBson(this);
}

CBaseBson::~CBaseBson()
{
    ReleaseAreas();
}

// Every counter and area pointer as after construction; the settings
// (sources, flags, start offset, default section size) are left alone.
void CBaseBson::ClearState()
{
    m_lpBuf = nullptr;
    m_lpBufPtr = nullptr;
    m_lpBuffer = nullptr;
    m_nFreeBufferSize = 0;
    m_nExecutePlanDataSize = 0;
    m_nAutoRelease = BSON_BUFFER_FOREIGN;
    m_nBsonBufferSize = 0;
    m_nBsonDataSize = 0;
    m_lpBsonSectionArray = nullptr;
    m_nBsonSectionArrayCount = 0;
    m_nBsonSectionNum = 0;
    m_lpBsonCurrentSection = nullptr;
    m_nBsonCurrentDataSize = 0;
    m_nBsonCurrentSectionNo = 0;
    m_nBsonCurrentSectionSize = 0;
    m_lpCurrentSection = m_lpRecordSection = m_lpStepSection = nullptr;
    m_nCurrentDataSize = m_nCurrentSectionSize = m_nCurrentSectionNo = 0;
    m_nCurrentRecordDataSize = m_nCurrentRecordSectionSize = m_nCurrentRecordSectionNo = 0;
    m_nCurrentStepDataSize = m_nCurrentStepSectionSize = m_nCurrentStepSectionNo = 0;
    memset(m_arrBufferSection, 0, sizeof(m_arrBufferSection));
    m_lpBufferSectionArray = m_arrBufferSection;
    m_nSectionArrayCount = BSON_INLINE_SECTIONS;
    m_nBufferSectionNum = 0;
    m_nSectionStartOffset = 0;
    m_bChangeSection = FALSE;
    m_lpPreRecordHead = nullptr;
    m_lpPreExecuteStep = nullptr;
    m_lpPreBlockInfo = nullptr;
    m_lpTempBuffer = nullptr;
    m_lpTempBufferPtr = nullptr;
    m_nTempBufferSize = 0;
    m_nTempDataSize = 0;
    m_lpBsonMetaBuf = m_lpBsonMetaSpace;
    m_nBsonMetaPos = BSON_META_LINK;
    m_nBsonMetaSize = BSON_META_SPACE;
    ForgetOrigin();
}

void CBaseBson::ForgetOrigin()
{
    m_bHasOrigin = FALSE;
    m_nOriginFreeBufferSize = m_nOriginExecutePlanDataSize = 0;
    m_nOriginBsonBufferSize = m_nOriginBsonDataSize = 0;
    m_nOriginBsonSectionNum = 0;
    m_lpOriginBsonCurrentSection = nullptr;
    m_nOriginBsonCurrentDataSize = m_nOriginBsonCurrentSectionNo = m_nOriginBsonCurrentSectionSize = 0;
    m_lpOriginCurrentSection = m_lpOriginRecordSection = m_lpOriginStepSection = nullptr;
    m_nOriginCurrentDataSize = m_nOriginCurrentSectionSize = m_nOriginCurrentSectionNo = 0;
    m_nOriginCurrentRecordDataSize = m_nOriginCurrentRecordSectionSize = m_nOriginCurrentRecordSectionNo = 0;
    m_nOriginCurrentStepDataSize = m_nOriginCurrentStepSectionSize = m_nOriginCurrentStepSectionNo = 0;
    m_nOriginBufferSectionNum = 0;
    m_bOriginChangeSection = FALSE;
    m_lpOriginPreRecordHead = nullptr;
    m_lpOriginPreExecuteStep = nullptr;
    m_lpOriginPreBlockInfo = nullptr;
    m_bOriginPreRecordFlag = m_bOriginPreStepFlag = m_bOriginPreBlockFlag = 0;
}

void CBaseBson::GiveBack(LPBYTE& lpBlock, void*& pCookie)
{
    if (lpBlock != nullptr) FreeMemoryBufferPool(lpBlock, pCookie);
    lpBlock = nullptr;
    pCookie = nullptr;
}

// Pool pages go back before the memory pool is emptied: with this plan as
// their source they are blocks of that pool.
void CBaseBson::ReleaseAreas()
{
    if (m_nAutoRelease == BSON_BUFFER_OWNED) GiveBack(m_lpBuf, m_lpBufPtr);
    GiveBack(m_lpTempBuffer, m_lpTempBufferPtr);
    m_stBufferPool.Free();
    m_stMemoryPool.FreeAll();
    ReleaseMeta();
    ClearState();
}

void CBaseBson::ReleaseMeta()
{
    LPBYTE p = m_lpBsonMetaBuf;
    while (p != nullptr) {
        LPBYTE pNext = *reinterpret_cast<LPBYTE*>(p);
        if (p != m_lpBsonMetaSpace) delete[] p;
        p = pNext;
    }
    *reinterpret_cast<LPBYTE*>(m_lpBsonMetaSpace) = nullptr;
    m_lpBsonMetaBuf = m_lpBsonMetaSpace;
    m_nBsonMetaPos = BSON_META_LINK;
    m_nBsonMetaSize = BSON_META_SPACE;
}

void CBaseBson::Free()
{
    ReleaseAreas();
    m_nDefaultBufferSectionSize = BSON_DEFAULT_SECTION_SIZE;
}

int CBaseBson::AllocMemoryBufferPool(LPBYTE& lpBuffer, UINT& nSize, void*& pCookie, BOOL bBufferPool)
{
    if (m_pMemoryBson != nullptr && m_pMemoryBson != this)
        return m_pMemoryBson->AllocMemoryBufferPool(lpBuffer, nSize, pCookie, bBufferPool);
    lpBuffer = m_stMemoryPool.Alloc(nSize);
    pCookie = nullptr;
    return lpBuffer == nullptr ? BSON_NO_MEMORY : BSON_OK;
}

void CBaseBson::FreeMemoryBufferPool(LPBYTE lpBuffer, void* pCookie)
{
    if (m_pMemoryBson != nullptr && m_pMemoryBson != this) {
        m_pMemoryBson->FreeMemoryBufferPool(lpBuffer, pCookie);
        return;
    }
    if (lpBuffer != nullptr && pCookie == nullptr) m_stMemoryPool.Free(lpBuffer);
}

// A zeroed block of nBlock bytes from the plan's source of memory, with its
// cookie; BSON_OK, or the source's failure (nothing kept).
int CBaseBson::TakeZeroedBlock(UINT nBlock, LPBYTE& lpBlock, void*& pCookie)
{
    UINT nGiven = nBlock;
    lpBlock = nullptr;
    pCookie = nullptr;
    int nResult = AllocMemoryBufferPool(lpBlock, nGiven, pCookie, FALSE);
    if (nResult != BSON_OK) return nResult;
    if (lpBlock == nullptr || nGiven < nBlock) {
        FreeMemoryBufferPool(lpBlock, pCookie);
        return BSON_NO_MEMORY;
    }
    memset(lpBlock, 0, nBlock);
    return BSON_OK;
}

// lpBlock of nBlock bytes becomes the owned main buffer; the plan's data
// size is kept.
void CBaseBson::UseMainBlock(LPBYTE lpBlock, void* pCookie, UINT nBlock)
{
    m_lpBuf = lpBlock;
    m_lpBufPtr = pCookie;
    m_lpBuffer = lpBlock + BSON_FRONT_ROOM;
    m_nBsonBufferSize = nBlock - BSON_FRONT_ROOM;
    m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    m_nAutoRelease = BSON_BUFFER_OWNED;
}

// A main buffer for nSize bytes, zeroed, owned; the plan is empty.
int CBaseBson::TakeMainBuffer(UINT nSize)
{
    UINT nBlock = MainBlockSize(nSize);
    if (nBlock == 0) return BSON_NO_MEMORY;
    LPBYTE lpBlock = nullptr;
    void* pCookie = nullptr;
    int nResult = TakeZeroedBlock(nBlock, lpBlock, pCookie);
    if (nResult != BSON_OK) return nResult;
    m_nBsonDataSize = 0;
    UseMainBlock(lpBlock, pCookie, nBlock);
    return BSON_OK;
}

int CBaseBson::TakeTempBuffer(BOOL bLent)
{
    UINT nSize = bLent ? BSON_TEMP_LENT : BSON_TEMP_OWN;
    UINT nGiven = nSize;
    LPBYTE lpBlock = nullptr;
    void* pCookie = nullptr;
    int nResult = AllocMemoryBufferPool(lpBlock, nGiven, pCookie, FALSE);
    if (nResult != BSON_OK) return nResult;
    if (lpBlock == nullptr) return BSON_NO_MEMORY;
    m_lpTempBuffer = lpBlock;
    m_lpTempBufferPtr = pCookie;
    m_nTempBufferSize = nSize;
    m_nTempDataSize = 0;
    return BSON_OK;
}

// A plan that lends to this one must not borrow from it: the requests
// would go round for ever.
BOOL CBaseBson::LendsBack(const CBaseBson* pMemory) const
{
    for (int i = 0; pMemory != nullptr && i < BSON_MAX_CHAIN; i++) {
        if (pMemory == this) return TRUE;
        pMemory = pMemory->m_pMemoryBson;
    }
    return pMemory != nullptr;
}

int CBaseBson::AllocBsonBuffer(CBaseBson* pMemory, UINT nSize)
{
    if (pMemory == this) pMemory = nullptr;
    if (LendsBack(pMemory)) return BSON_BAD_PARAMETER;
    ReleaseAreas();
    m_pMemoryBson = pMemory;
    int nResult = TakeMainBuffer(nSize);
    if (nResult != BSON_OK) return nResult;
    nResult = TakeTempBuffer(m_pMemoryBson != nullptr);
    if (nResult != BSON_OK) {
        GiveBack(m_lpBuf, m_lpBufPtr);
        ClearState();
    }
    return nResult;
}

int CBaseBson::ReAllocBsonBuffer(UINT nSize)
{
    if (m_lpBuffer == nullptr) return TakeMainBuffer(nSize);
    UINT nBlock = MainBlockSize(nSize);
    if (nBlock == 0) return BSON_NO_MEMORY;
    // A smaller block could not take the plan that is there.
    if (nBlock - BSON_FRONT_ROOM <= m_nBsonBufferSize) return BSON_OK;
    LPBYTE lpBlock = nullptr;
    void* pCookie = nullptr;
    int nResult = TakeZeroedBlock(nBlock, lpBlock, pCookie);
    if (nResult != BSON_OK) return nResult;
    memcpy(lpBlock + BSON_FRONT_ROOM, m_lpBuffer, m_nBsonBufferSize);
    if (m_nAutoRelease == BSON_BUFFER_OWNED) GiveBack(m_lpBuf, m_lpBufPtr);
    UseMainBlock(lpBlock, pCookie, nBlock);
    return BSON_OK;
}

int CBaseBson::SetBuffer(LPBYTE lpBuffer, int nSize, int nDataSize)
{
    if (nSize < 0 || nDataSize < 0 || nDataSize > nSize || (lpBuffer == nullptr && nSize > 0))
        return BSON_BAD_PARAMETER;
    if (m_nAutoRelease == BSON_BUFFER_OWNED) GiveBack(m_lpBuf, m_lpBufPtr);
    ForgetOrigin();
    m_lpBuf = lpBuffer;
    m_lpBufPtr = nullptr;
    m_lpBuffer = lpBuffer;
    m_nAutoRelease = BSON_BUFFER_FOREIGN;
    m_nBsonBufferSize = (UINT)nSize;
    m_nBsonDataSize = (UINT)nDataSize;
    m_nFreeBufferSize = (UINT)(nSize - nDataSize);
    m_nExecutePlanDataSize = (UINT)nDataSize;
    return BSON_OK;
}

LPBYTE CBaseBson::DetachBuffer()
{
    LPBYTE lpPlan = m_lpBuffer;
    ForgetOrigin();
    m_lpBuf = nullptr;
    m_lpBufPtr = nullptr;
    m_lpBuffer = nullptr;
    m_nAutoRelease = BSON_BUFFER_FOREIGN;
    m_nBsonBufferSize = 0;
    m_nBsonDataSize = 0;
    m_nFreeBufferSize = 0;
    return lpPlan;
}

UINT CBaseBson::GetExecutePlanDataSize()
{
    return m_nExecutePlanDataSize - m_nBsonStartOffset;
}

int CBaseBson::ConvertAddrID2Addr(UINT /*nAddrID*/, LPBYTE& lpAddr)
{
    lpAddr = nullptr;
    return 1;
}

void CBaseBson::GetSectionBufferAddr(UINT /*nSectionNo*/, LPBYTE& /*lpAddr*/)
{
}

LPBYTE CBaseBson::ConvertOffset2Addr(UINT nOffset)
{
    if (m_lpBuffer == nullptr) return nullptr;
    unsigned long long n = (unsigned long long)nOffset + m_nBsonStartOffset;
    if (n == 0 || n >= 0xFFFFFFFFull || n >= m_nBsonBufferSize) return nullptr;
    return m_lpBuffer + n;
}

LPBYTE CBaseBson::GetDataAt(UINT nOffset, UINT nBytes)
{
    LPBYTE p = ConvertOffset2Addr(nOffset);
    if (p == nullptr) return nullptr;
    unsigned long long nEnd = (unsigned long long)nOffset + m_nBsonStartOffset + nBytes;
    return nEnd <= m_nBsonDataSize ? p : nullptr;
}

LPEXECUTEPLANBSON CBaseBson::GetExecutePlan()
{
    if (m_bNoneExecutePlan || m_lpBuffer == nullptr || m_nBsonBufferSize < sizeof(EXECUTEPLANBSON)) return nullptr;
    return reinterpret_cast<LPEXECUTEPLANBSON>(m_lpBuffer);
}

int CBaseBson::AllocFromBufferPool(UINT nSize, LPBYTE& ptr, BOOL bZero)
{
    if (m_lpTempBuffer != nullptr && m_nTempDataSize <= m_nTempBufferSize &&
        nSize <= m_nTempBufferSize - m_nTempDataSize) {
        ptr = m_lpTempBuffer + m_nTempDataSize;
        m_nTempDataSize += (nSize + 3u) & ~3u;
    } else {
        ptr = m_stBufferPool.AllocBuffer(nSize);
        if (ptr == nullptr) return BSON_NO_MEMORY;
    }
    if (bZero) memset(ptr, 0, nSize);
    return BSON_OK;
}

int CBaseBson::AllocBsonMetaData(int nCount, LPBYTE*& ptr)
{
    if (nCount <= 0 || (UINT)nCount > 0x7FFFFFF8u / sizeof(LPBYTE)) return BSON_NO_MEMORY;
    UINT nBytes = (UINT)nCount * (UINT)sizeof(LPBYTE);
    if ((unsigned long long)m_nBsonMetaPos + nBytes >= m_nBsonMetaSize) {
        unsigned long long nBlock = ((unsigned long long)nBytes + BSON_META_STEP + 7) / BSON_META_STEP * BSON_META_STEP;
        LPBYTE lpBlock = new (std::nothrow) BYTE[nBlock];
        if (lpBlock == nullptr) return BSON_NO_MEMORY;
        *reinterpret_cast<LPBYTE*>(lpBlock) = m_lpBsonMetaBuf;
        m_lpBsonMetaBuf = lpBlock;
        m_nBsonMetaSize = (UINT)nBlock;
        m_nBsonMetaPos = BSON_META_LINK;
    }
    ptr = reinterpret_cast<LPBYTE*>(m_lpBsonMetaBuf + m_nBsonMetaPos);
    memset(ptr, 0, nBytes);
    m_nBsonMetaPos += nBytes;
    return BSON_OK;
}

void CBaseBson::SetOriginState()
{
    m_bHasOrigin = TRUE;
    m_nOriginFreeBufferSize = m_nFreeBufferSize;
    m_nOriginExecutePlanDataSize = m_nExecutePlanDataSize;
    m_nOriginBsonBufferSize = m_nBsonBufferSize;
    m_nOriginBsonDataSize = m_nBsonDataSize;
    m_nOriginBsonSectionNum = m_nBsonSectionNum;
    m_lpOriginBsonCurrentSection = m_lpBsonCurrentSection;
    m_nOriginBsonCurrentDataSize = m_nBsonCurrentDataSize;
    m_nOriginBsonCurrentSectionNo = m_nBsonCurrentSectionNo;
    m_nOriginBsonCurrentSectionSize = m_nBsonCurrentSectionSize;
    m_lpOriginCurrentSection = m_lpCurrentSection;
    m_nOriginCurrentDataSize = m_nCurrentDataSize;
    m_nOriginCurrentSectionSize = m_nCurrentSectionSize;
    m_nOriginCurrentSectionNo = m_nCurrentSectionNo;
    m_lpOriginRecordSection = m_lpRecordSection;
    m_nOriginCurrentRecordDataSize = m_nCurrentRecordDataSize;
    m_nOriginCurrentRecordSectionSize = m_nCurrentRecordSectionSize;
    m_nOriginCurrentRecordSectionNo = m_nCurrentRecordSectionNo;
    m_lpOriginStepSection = m_lpStepSection;
    m_nOriginCurrentStepDataSize = m_nCurrentStepDataSize;
    m_nOriginCurrentStepSectionSize = m_nCurrentStepSectionSize;
    m_nOriginCurrentStepSectionNo = m_nCurrentStepSectionNo;
    m_nOriginBufferSectionNum = m_nBufferSectionNum;
    m_bOriginChangeSection = m_bChangeSection;
    m_lpOriginPreRecordHead = m_lpPreRecordHead;
    m_lpOriginPreExecuteStep = m_lpPreExecuteStep;
    m_lpOriginPreBlockInfo = m_lpPreBlockInfo;
    m_bOriginPreRecordFlag = m_lpPreRecordHead ? m_lpPreRecordHead->m_bFlag : 0;
    m_bOriginPreStepFlag = m_lpPreExecuteStep ? m_lpPreExecuteStep->m_bFlag : 0;
    m_bOriginPreBlockFlag = m_lpPreBlockInfo ? m_lpPreBlockInfo->m_bFlag : 0;
}

// The sections that were open then are open again: whatever closed them
// since (their size, the link to the next) is undone.
void CBaseBson::ReopenOriginSections()
{
    LPBUFFERSECTIONHEAD arHeads[3] = {m_lpCurrentSection, m_lpRecordSection, m_lpStepSection};
    for (int i = 0; i < 3; i++) {
        if (arHeads[i] == nullptr) continue;
        arHeads[i]->m_nSectionDataSize = 0;
        arHeads[i]->m_nNextSectionOffset = 0;
        if (i > 0) reinterpret_cast<RECORDSECTIONHEAD*>(arHeads[i] + 1)->m_sNextSectionNo = 0;
    }
}

int CBaseBson::ResetOriginState()
{
    if (!m_bHasOrigin) return BSON_BAD_PARAMETER;
    for (UINT i = m_nOriginBufferSectionNum; i < m_nBufferSectionNum; i++) {
        m_stMemoryPool.Free(m_lpBufferSectionArray[i]);
        m_lpBufferSectionArray[i] = nullptr;
    }
    m_nBufferSectionNum = m_nOriginBufferSectionNum;
    m_lpCurrentSection = m_lpOriginCurrentSection;
    m_nCurrentDataSize = m_nOriginCurrentDataSize;
    m_nCurrentSectionSize = m_nOriginCurrentSectionSize;
    m_nCurrentSectionNo = m_nOriginCurrentSectionNo;
    m_lpRecordSection = m_lpOriginRecordSection;
    m_nCurrentRecordDataSize = m_nOriginCurrentRecordDataSize;
    m_nCurrentRecordSectionSize = m_nOriginCurrentRecordSectionSize;
    m_nCurrentRecordSectionNo = m_nOriginCurrentRecordSectionNo;
    m_lpStepSection = m_lpOriginStepSection;
    m_nCurrentStepDataSize = m_nOriginCurrentStepDataSize;
    m_nCurrentStepSectionSize = m_nOriginCurrentStepSectionSize;
    m_nCurrentStepSectionNo = m_nOriginCurrentStepSectionNo;
    ReopenOriginSections();
    m_bChangeSection = m_bOriginChangeSection;
    // Overflow blocks stay in their slots, so building again takes none.
    m_nBsonSectionNum = m_nOriginBsonSectionNum;
    m_lpBsonCurrentSection = m_lpOriginBsonCurrentSection;
    m_nBsonCurrentDataSize = m_nOriginBsonCurrentDataSize;
    m_nBsonCurrentSectionNo = m_nOriginBsonCurrentSectionNo;
    m_nBsonCurrentSectionSize = m_nOriginBsonCurrentSectionSize;
    if (m_lpBsonCurrentSection != nullptr) OverflowUsed(m_lpBsonCurrentSection) = m_nBsonCurrentDataSize;
    // The buffer may have grown since; the plan in it is cut back.
    m_nBsonDataSize = m_nOriginBsonDataSize <= m_nBsonBufferSize ? m_nOriginBsonDataSize : m_nBsonBufferSize;
    m_nFreeBufferSize = m_nBsonBufferSize - m_nBsonDataSize;
    m_nExecutePlanDataSize = m_nOriginExecutePlanDataSize;
    m_lpPreRecordHead = m_lpOriginPreRecordHead;
    m_lpPreExecuteStep = m_lpOriginPreExecuteStep;
    m_lpPreBlockInfo = m_lpOriginPreBlockInfo;
    if (m_lpPreRecordHead) m_lpPreRecordHead->m_bFlag = m_bOriginPreRecordFlag;
    if (m_lpPreExecuteStep) m_lpPreExecuteStep->m_bFlag = m_bOriginPreStepFlag;
    if (m_lpPreBlockInfo) m_lpPreBlockInfo->m_bFlag = m_bOriginPreBlockFlag;
    return BSON_OK;
}
