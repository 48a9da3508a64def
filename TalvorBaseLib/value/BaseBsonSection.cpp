// BaseBsonSection.cpp — the buffer sections of a plan: the table, the open
// data, record and step sections with the items handed out of them, the
// links that make them one byte stream, and ids back to addresses.
#include "BaseBsonInternal.h"

#include <cstring>

namespace {

RECORDSECTIONHEAD* ChainOf(LPBUFFERSECTIONHEAD lpHead)
{
    return reinterpret_cast<RECORDSECTIONHEAD*>(lpHead + 1);
}

UINT MakeSectionAddr(UINT nSectionNo, UINT nOffset)
{
    return (nSectionNo << 16) | (nOffset & 0xFFFFu);
}

}  // namespace

CBaseBson* CBaseBson::GetRootBson()
{
    CBaseBson* pRoot = this;
    // A loop of masters ends where the walk gives up; that plan serves.
    for (int i = 0; i < BSON_MAX_CHAIN && pRoot->m_pMasterBson != nullptr && pRoot->m_pMasterBson != pRoot; i++)
        pRoot = pRoot->m_pMasterBson;
    return pRoot;
}

int CBaseBson::GrowSectionTable()
{
    UINT nCount = m_nSectionArrayCount * 2;
    if (nCount > BSON_MAX_BUFFER_SECTIONS + 1) return BSON_NO_MEMORY;
    LPBYTE* lpArray = nullptr;
    int nResult = AllocBsonMetaData((int)nCount, lpArray);
    if (nResult != BSON_OK) return nResult;
    memcpy(lpArray, m_lpBufferSectionArray, m_nSectionArrayCount * sizeof(LPBYTE));
    m_lpBufferSectionArray = lpArray;
    m_nSectionArrayCount = nCount;
    return BSON_OK;
}

int CBaseBson::AllocBufferSection(UINT nSize, LPBYTE& lpSection)
{
    if (m_nBufferSectionNum >= BSON_MAX_BUFFER_SECTIONS) return BSON_NO_MEMORY;
    if (m_nBufferSectionNum >= m_nSectionArrayCount) {
        int nResult = GrowSectionTable();
        if (nResult != BSON_OK) return nResult;
    }
    UINT nGiven = nSize < sizeof(BUFFERSECTIONHEAD) ? (UINT)sizeof(BUFFERSECTIONHEAD) : nSize;
    LPBYTE lpBlock = m_stMemoryPool.Alloc(nGiven);
    if (lpBlock == nullptr) return BSON_NO_MEMORY;
    memset(lpBlock, 0, sizeof(BUFFERSECTIONHEAD));
    m_lpBufferSectionArray[m_nBufferSectionNum++] = lpBlock;
    m_nExecutePlanDataSize += sizeof(BUFFERSECTIONHEAD);
    lpSection = lpBlock;
    return BSON_OK;
}

int CBaseBson::OpenSection(BYTE bType, UINT nSize, LPBUFFERSECTIONHEAD& lpHead, UINT& nSectionNo)
{
    LPBYTE lpSection = nullptr;
    int nResult = AllocBufferSection(nSize, lpSection);
    if (nResult != BSON_OK) return nResult;
    lpHead = reinterpret_cast<LPBUFFERSECTIONHEAD>(lpSection);
    lpHead->m_bSectionType = bType;
    nSectionNo = m_nBufferSectionNum;
    return BSON_OK;
}

int CBaseBson::AllocFromBufferSection(UINT nSize, UINT& addr, LPBYTE& ptr)
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) return pRoot->AllocFromBufferSection(nSize, addr, ptr);
    if (nSize > 0xFFFFFFFFu - sizeof(BUFFERSECTIONHEAD)) return BSON_NO_MEMORY;
    UINT nNeed = nSize + (UINT)sizeof(BUFFERSECTIONHEAD);
    if (nNeed < m_nDefaultBufferSectionSize) nNeed = m_nDefaultBufferSectionSize;
    BOOL bFull = m_lpCurrentSection == nullptr || m_nCurrentDataSize >= BSON_ID_OFFSET_LIMIT ||
                 nSize > m_nCurrentSectionSize - m_nCurrentDataSize;
    if (bFull) {
        LPBUFFERSECTIONHEAD lpHead = nullptr;
        UINT nNo = 0;
        int nResult = OpenSection(BSON_SECTION_DATA, nNeed, lpHead, nNo);
        if (nResult != BSON_OK) return nResult;
        if (m_lpCurrentSection != nullptr) {
            m_lpCurrentSection->m_nSectionDataSize = m_nCurrentDataSize;
            m_bChangeSection = TRUE;
        }
        m_lpCurrentSection = lpHead;
        m_nCurrentSectionNo = nNo;
        m_nCurrentSectionSize = nNeed;
        m_nCurrentDataSize = sizeof(BUFFERSECTIONHEAD);
    }
    ptr = reinterpret_cast<LPBYTE>(m_lpCurrentSection) + m_nCurrentDataSize;
    memset(ptr, 0, nSize);
    addr = MakeSectionAddr(m_nCurrentSectionNo, m_nCurrentDataSize);
    m_nCurrentDataSize += nSize;
    m_nExecutePlanDataSize += nSize;
    return BSON_OK;
}

// Opens the next section of records or steps, chained to the one before.
int CBaseBson::OpenChainSection(BYTE bType, LPBUFFERSECTIONHEAD& lpSection, UINT& nDataSize, UINT& nSectionSize,
                                UINT& nSectionNo)
{
    LPBUFFERSECTIONHEAD lpHead = nullptr;
    UINT nNo = 0;
    int nResult = OpenSection(bType, m_nDefaultBufferSectionSize, lpHead, nNo);
    if (nResult != BSON_OK) return nResult;
    ChainOf(lpHead)->m_sPreSectionNo = (USHORT)nSectionNo;
    ChainOf(lpHead)->m_sNextSectionNo = 0;
    m_nExecutePlanDataSize += sizeof(RECORDSECTIONHEAD);
    if (lpSection != nullptr) {
        lpSection->m_nSectionDataSize = nDataSize;
        ChainOf(lpSection)->m_sNextSectionNo = (USHORT)nNo;
    }
    lpSection = lpHead;
    nSectionNo = nNo;
    nSectionSize = m_nDefaultBufferSectionSize;
    nDataSize = sizeof(BUFFERSECTIONHEAD) + sizeof(RECORDSECTIONHEAD);
    return BSON_OK;
}

// One zeroed item of nItemSize in the open section of its kind, opening a
// further one when it is full; bNewSection tells that one was opened behind
// an earlier section of the kind.
int CBaseBson::AllocItem(BYTE bType, UINT nItemSize, LPBYTE& lpItem, UINT& addr, BOOL& bNewSection)
{
    LPBUFFERSECTIONHEAD* ppSection = &m_lpCurrentSection;
    UINT* pDataSize = &m_nCurrentDataSize;
    UINT* pSectionSize = &m_nCurrentSectionSize;
    UINT* pSectionNo = &m_nCurrentSectionNo;
    if (bType == BSON_SECTION_RECORDS) {
        ppSection = &m_lpRecordSection;
        pDataSize = &m_nCurrentRecordDataSize;
        pSectionSize = &m_nCurrentRecordSectionSize;
        pSectionNo = &m_nCurrentRecordSectionNo;
    } else if (bType == BSON_SECTION_STEPS) {
        ppSection = &m_lpStepSection;
        pDataSize = &m_nCurrentStepDataSize;
        pSectionSize = &m_nCurrentStepSectionSize;
        pSectionNo = &m_nCurrentStepSectionNo;
    }
    bNewSection = FALSE;
    BOOL bFull = *ppSection == nullptr || *pDataSize >= BSON_ID_OFFSET_LIMIT ||
                 (unsigned long long)*pDataSize + nItemSize > *pSectionSize;
    if (bFull) {
        BOOL bHadSection = *ppSection != nullptr;
        int nResult;
        if (bType == BSON_SECTION_DATA) {
            UINT nSize = m_nDefaultBufferSectionSize < 40 ? 40 : m_nDefaultBufferSectionSize;
            LPBUFFERSECTIONHEAD lpHead = nullptr;
            UINT nNo = 0;
            nResult = OpenSection(BSON_SECTION_DATA, nSize, lpHead, nNo);
            if (nResult != BSON_OK) return nResult;
            if (bHadSection) {
                (*ppSection)->m_nSectionDataSize = *pDataSize;
                m_bChangeSection = TRUE;
            }
            *ppSection = lpHead;
            *pSectionNo = nNo;
            *pSectionSize = nSize;
            *pDataSize = sizeof(BUFFERSECTIONHEAD);
        } else {
            nResult = OpenChainSection(bType, *ppSection, *pDataSize, *pSectionSize, *pSectionNo);
            if (nResult != BSON_OK) return nResult;
        }
        bNewSection = bHadSection;
    }
    lpItem = reinterpret_cast<LPBYTE>(*ppSection) + *pDataSize;
    memset(lpItem, 0, nItemSize);
    addr = MakeSectionAddr(*pSectionNo, *pDataSize);
    *pDataSize += nItemSize;
    m_nExecutePlanDataSize += nItemSize;
    return BSON_OK;
}

int CBaseBson::AllocRecord(LPRECORDHEAD& lpRecord, UINT& addr)
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) return pRoot->AllocRecord(lpRecord, addr);
    LPBYTE lpItem = nullptr;
    BOOL bNew = FALSE;
    int nResult = AllocItem(BSON_SECTION_RECORDS, sizeof(RECORDHEAD), lpItem, addr, bNew);
    if (nResult != BSON_OK) return nResult;
    if (bNew && m_lpPreRecordHead != nullptr) m_lpPreRecordHead->m_bFlag |= BSON_ITEM_CONTINUED;
    lpRecord = reinterpret_cast<LPRECORDHEAD>(lpItem);
    m_lpPreRecordHead = lpRecord;
    return BSON_OK;
}

int CBaseBson::AllocStep(LPEXECUTESTEP& lpStep, UINT& addr)
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) return pRoot->AllocStep(lpStep, addr);
    LPBYTE lpItem = nullptr;
    BOOL bNew = FALSE;
    int nResult = AllocItem(BSON_SECTION_STEPS, sizeof(EXECUTESTEP), lpItem, addr, bNew);
    if (nResult != BSON_OK) return nResult;
    lpStep = reinterpret_cast<LPEXECUTESTEP>(lpItem);
    if (bNew) {
        if (m_lpPreExecuteStep != nullptr) m_lpPreExecuteStep->m_bFlag = BSON_ITEM_CONTINUED;
        lpStep->m_bFlag = BSON_ITEM_CONTINUES;
    }
    m_lpPreExecuteStep = lpStep;
    return BSON_OK;
}

int CBaseBson::AllocBlockInfo(LPBLOCKINFO& lpBlockInfo, UINT& addr)
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) return pRoot->AllocBlockInfo(lpBlockInfo, addr);
    LPBYTE lpItem = nullptr;
    BOOL bNew = FALSE;
    int nResult = AllocItem(BSON_SECTION_DATA, sizeof(BLOCKINFO), lpItem, addr, bNew);
    if (nResult != BSON_OK) return nResult;
    lpBlockInfo = reinterpret_cast<LPBLOCKINFO>(lpItem);
    if (bNew) {
        if (m_lpPreBlockInfo != nullptr) m_lpPreBlockInfo->m_bFlag = BSON_ITEM_CONTINUED;
        lpBlockInfo->m_bFlag = BSON_ITEM_CONTINUES;
    }
    m_lpPreBlockInfo = lpBlockInfo;
    return BSON_OK;
}

// Bytes in use of section nSectionNo while it is the open one of its kind;
// 0 for a closed section.
UINT CBaseBson::OpenSectionDataSize(UINT nSectionNo, BYTE bType) const
{
    if (bType == BSON_SECTION_DATA && nSectionNo == m_nCurrentSectionNo) return m_nCurrentDataSize;
    if (bType == BSON_SECTION_RECORDS && nSectionNo == m_nCurrentRecordSectionNo) return m_nCurrentRecordDataSize;
    if (bType == BSON_SECTION_STEPS && nSectionNo == m_nCurrentStepSectionNo) return m_nCurrentStepDataSize;
    return 0;
}

UINT CBaseBson::SectionUsed(UINT nSectionNo) const
{
    LPBUFFERSECTIONHEAD lpHead = reinterpret_cast<LPBUFFERSECTIONHEAD>(m_lpBufferSectionArray[nSectionNo - 1]);
    UINT nOpen = OpenSectionDataSize(nSectionNo, lpHead->m_bSectionType);
    return nOpen != 0 ? nOpen : lpHead->m_nSectionDataSize;
}

void CBaseBson::SetSectionOffset()
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) {
        pRoot->SetSectionOffset();
        return;
    }
    UINT nRunning = m_nBsonDataSize;
    for (UINT nNo = 1; nNo <= m_nBufferSectionNum; nNo++) {
        LPBUFFERSECTIONHEAD lpHead = reinterpret_cast<LPBUFFERSECTIONHEAD>(m_lpBufferSectionArray[nNo - 1]);
        UINT nOpen = OpenSectionDataSize(nNo, lpHead->m_bSectionType);
        if (nOpen != 0) lpHead->m_nSectionDataSize = nOpen;
        if (lpHead->m_nSectionDataSize < sizeof(BUFFERSECTIONHEAD))
            lpHead->m_nSectionDataSize = sizeof(BUFFERSECTIONHEAD);
        nRunning += lpHead->m_nSectionDataSize;
        lpHead->m_nNextSectionOffset = nNo < m_nBufferSectionNum ? nRunning : 0;
    }
    m_nSectionStartOffset = m_nBufferSectionNum > 0 ? m_nBsonDataSize : 0;
    LPEXECUTEPLANBSON lpPlan = GetExecutePlan();
    if (lpPlan != nullptr && m_nBsonDataSize >= sizeof(EXECUTEPLANBSON)) {
        lpPlan->m_nTotalDataSize = nRunning;
        lpPlan->m_nBsonDataSize = m_nBsonDataSize;
        lpPlan->m_nSectionStartOffset = m_nSectionStartOffset;
    }
}

UINT CBaseBson::CopyExecutePlan(LPBYTE lpOut, UINT nRoom)
{
    CBaseBson* pRoot = GetRootBson();
    if (pRoot != this) return pRoot->CopyExecutePlan(lpOut, nRoom);
    if (m_lpBuffer == nullptr || lpOut == nullptr) return 0;
    SetSectionOffset();
    unsigned long long nTotal = m_nBsonDataSize;
    for (UINT i = 0; i < m_nBufferSectionNum; i++)
        nTotal += reinterpret_cast<LPBUFFERSECTIONHEAD>(m_lpBufferSectionArray[i])->m_nSectionDataSize;
    if (nTotal > nRoom) return 0;
    memcpy(lpOut, m_lpBuffer, m_nBsonDataSize);
    UINT nPos = m_nBsonDataSize;
    for (UINT i = 0; i < m_nBufferSectionNum; i++) {
        UINT nUsed = reinterpret_cast<LPBUFFERSECTIONHEAD>(m_lpBufferSectionArray[i])->m_nSectionDataSize;
        memcpy(lpOut + nPos, m_lpBufferSectionArray[i], nUsed);
        nPos += nUsed;
    }
    return nPos;
}

LPBYTE CBaseBson::OverflowAddr(UINT nSection, UINT nOffset, UINT nBytes) const
{
    if (nSection == 0 || nSection > m_nBsonSectionNum) return nullptr;
    LPBYTE lpSection = m_lpBsonSectionArray[nSection - 1];
    unsigned long long nEnd = (unsigned long long)nOffset + nBytes;
    return nEnd <= OverflowHead(lpSection)->m_nUsed ? lpSection + nOffset : nullptr;
}

LPBYTE CBaseBson::GetAddrFromAddrID(UINT nAddrID, UINT nBytes)
{
    UINT nSection = nAddrID >> 16;
    UINT nOffset = nAddrID & 0xFFFFu;
    if (nSection == 0) {
        unsigned long long nEnd = (unsigned long long)nOffset + m_nBsonStartOffset + nBytes;
        if (m_lpBuffer == nullptr || nEnd > m_nBsonDataSize) return nullptr;
        return m_lpBuffer + nOffset + m_nBsonStartOffset;
    }
    if (nSection & BSON_OVERFLOW_SECTION) return OverflowAddr(nSection & ~BSON_OVERFLOW_SECTION, nOffset, nBytes);
    CBaseBson* pRoot = GetRootBson();
    if (nSection > pRoot->m_nBufferSectionNum || nOffset < sizeof(BUFFERSECTIONHEAD)) return nullptr;
    unsigned long long nEnd = (unsigned long long)nOffset + nBytes;
    if (nEnd > pRoot->SectionUsed(nSection)) return nullptr;
    return pRoot->m_lpBufferSectionArray[nSection - 1] + nOffset;
}
