// BaseBsonStream.cpp — the check of a plan's byte stream that another
// process built. The stream is read only after every size and offset in its
// head, its section heads and its items has been found inside it: a plan
// with anything pointing past its bytes is refused whole, never followed.
#include "BaseBson.h"

#include <cstring>
#include <new>

namespace {

template <class T>
T ReadAt(const BYTE* lpData, UINT nOffset)
{
    T value;
    memcpy(&value, lpData + nOffset, sizeof(T));
    return value;
}

const UINT g_nFirstSectionRoom = 16;

UINT ItemSizeOf(BYTE bType)
{
    return bType == BSON_SECTION_RECORDS ? (UINT)sizeof(RECORDHEAD) : (UINT)sizeof(EXECUTESTEP);
}

UINT HeadSizeOf(BYTE bType)
{
    return bType == BSON_SECTION_DATA ? (UINT)sizeof(BUFFERSECTIONHEAD)
                                      : (UINT)(sizeof(BUFFERSECTIONHEAD) + sizeof(RECORDSECTIONHEAD));
}

}  // namespace

CPlanStreamView::CPlanStreamView()
    : m_lpData(nullptr), m_nSize(0), m_nMainSize(0), m_nSectionNum(0), m_nSectionRoom(0), m_pSectionOffset(nullptr)
{
}

CPlanStreamView::~CPlanStreamView()
{
    delete[] m_pSectionOffset;
}

void CPlanStreamView::Reset()
{
    m_lpData = nullptr;
    m_nSize = 0;
    m_nMainSize = 0;
    m_nSectionNum = 0;
}

int CPlanStreamView::Attach(const BYTE* lpData, UINT nSize)
{
    Reset();
    if (lpData == nullptr || nSize < sizeof(EXECUTEPLANBSON)) return BSON_DAMAGED_PLAN;
    UINT nTotal = ReadAt<UINT>(lpData, offsetof(EXECUTEPLANBSON, m_nTotalDataSize));
    UINT nMain = ReadAt<UINT>(lpData, offsetof(EXECUTEPLANBSON, m_nBsonDataSize));
    UINT nStart = ReadAt<UINT>(lpData, offsetof(EXECUTEPLANBSON, m_nSectionStartOffset));
    if (nTotal > nSize || nMain < sizeof(EXECUTEPLANBSON) || nMain > nTotal) return BSON_DAMAGED_PLAN;
    if (nStart == 0 ? nMain != nTotal : nStart != nMain) return BSON_DAMAGED_PLAN;
    m_lpData = lpData;
    m_nSize = nTotal;
    m_nMainSize = nMain;
    int nResult = nStart == 0 ? BSON_OK : ReadSections(nStart, nTotal);
    if (nResult == BSON_OK) nResult = CheckHead();
    if (nResult == BSON_OK) nResult = CheckChains();
    if (nResult == BSON_OK) nResult = CheckItems();
    if (nResult != BSON_OK) Reset();
    return nResult;
}

int CPlanStreamView::KeepSection(UINT nOffset)
{
    if (m_nSectionNum >= BSON_MAX_BUFFER_SECTIONS) return BSON_DAMAGED_PLAN;
    if (m_nSectionNum == m_nSectionRoom) {
        UINT nRoom = m_nSectionRoom == 0 ? g_nFirstSectionRoom : m_nSectionRoom * 2;
        UINT* pNew = new (std::nothrow) UINT[nRoom];
        if (pNew == nullptr) return BSON_NO_MEMORY;
        if (m_nSectionNum > 0) memcpy(pNew, m_pSectionOffset, m_nSectionNum * sizeof(UINT));
        delete[] m_pSectionOffset;
        m_pSectionOffset = pNew;
        m_nSectionRoom = nRoom;
    }
    m_pSectionOffset[m_nSectionNum++] = nOffset;
    return BSON_OK;
}

// The sections must tile the stream from nStart to its end in order, each
// pointing at the one right behind it, as SetSectionOffset lays them out.
int CPlanStreamView::ReadSections(UINT nStart, UINT nTotal)
{
    UINT nOffset = nStart;
    while (nOffset != 0) {
        if (nOffset > nTotal || nTotal - nOffset < sizeof(BUFFERSECTIONHEAD)) return BSON_DAMAGED_PLAN;
        BUFFERSECTIONHEAD stHead;
        memcpy(&stHead, m_lpData + nOffset, sizeof(stHead));
        BYTE bType = stHead.m_bSectionType;
        if (bType < BSON_SECTION_DATA || bType > BSON_SECTION_STEPS) return BSON_DAMAGED_PLAN;
        UINT nUsed = stHead.m_nSectionDataSize;
        if (nUsed < HeadSizeOf(bType) || nUsed > nTotal - nOffset) return BSON_DAMAGED_PLAN;
        if (bType != BSON_SECTION_DATA && (nUsed - HeadSizeOf(bType)) % ItemSizeOf(bType) != 0)
            return BSON_DAMAGED_PLAN;
        UINT nEnd = nOffset + nUsed;
        UINT nNext = stHead.m_nNextSectionOffset;
        if (nNext != 0 ? nNext != nEnd : nEnd != nTotal) return BSON_DAMAGED_PLAN;
        int nResult = KeepSection(nOffset);
        if (nResult != BSON_OK) return nResult;
        nOffset = nNext;
    }
    return BSON_OK;
}

const BUFFERSECTIONHEAD* CPlanStreamView::SectionHead(UINT nSectionNo) const
{
    if (nSectionNo == 0 || nSectionNo > m_nSectionNum) return nullptr;
    return reinterpret_cast<const BUFFERSECTIONHEAD*>(m_lpData + m_pSectionOffset[nSectionNo - 1]);
}

const BYTE* CPlanStreamView::Resolve(UINT nAddrID, UINT nBytes) const
{
    if (m_lpData == nullptr) return nullptr;
    UINT nSection = nAddrID >> 16;
    unsigned long long nOffset = nAddrID & 0xFFFFu;
    unsigned long long nEnd = nOffset + nBytes;
    if (nSection == 0) return nEnd <= m_nMainSize ? m_lpData + nOffset : nullptr;
    // Overflow sections never travel with a stream.
    if (nSection & BSON_OVERFLOW_SECTION) return nullptr;
    const BUFFERSECTIONHEAD* lpHead = SectionHead(nSection);
    if (lpHead == nullptr) return nullptr;
    UINT nUsed = ReadAt<UINT>(reinterpret_cast<const BYTE*>(lpHead), offsetof(BUFFERSECTIONHEAD, m_nSectionDataSize));
    if (nOffset < sizeof(BUFFERSECTIONHEAD) || nEnd > nUsed) return nullptr;
    return reinterpret_cast<const BYTE*>(lpHead) + nOffset;
}

BOOL CPlanStreamView::IdIsSound(UINT nAddrID) const
{
    return nAddrID == 0 || Resolve(nAddrID, 1) != nullptr;
}

int CPlanStreamView::CheckHead() const
{
    static const size_t arOffsets[] = {offsetof(EXECUTEPLANBSON, m_nObjectMapOffset),
                                       offsetof(EXECUTEPLANBSON, m_nExetendedParamOffset),
                                       offsetof(EXECUTEPLANBSON, m_nPrivateDataOffset),
                                       offsetof(EXECUTEPLANBSON, m_nCommandOffset)};
    for (size_t nField : arOffsets) {
        UINT nOffset = ReadAt<UINT>(m_lpData, (UINT)nField);
        if (nOffset >= m_nMainSize) return BSON_DAMAGED_PLAN;
    }
    if (m_lpData[offsetof(EXECUTEPLANBSON, m_nSqlOffset)] >= m_nMainSize) return BSON_DAMAGED_PLAN;
    if (!IdIsSound(ReadAt<UINT>(m_lpData, offsetof(EXECUTEPLANBSON, m_nFreeSectionAddrID)))) return BSON_DAMAGED_PLAN;
    if (!IdIsSound(ReadAt<UINT>(m_lpData, offsetof(EXECUTEPLANBSON, m_nNextPlanAddrID)))) return BSON_DAMAGED_PLAN;
    return BSON_OK;
}

// Each chain link names a section of the same kind that links back.
int CPlanStreamView::CheckChains() const
{
    for (UINT nNo = 1; nNo <= m_nSectionNum; nNo++) {
        const BYTE* lpHead = reinterpret_cast<const BYTE*>(SectionHead(nNo));
        BYTE bType = lpHead[0];
        if (bType == BSON_SECTION_DATA) continue;
        RECORDSECTIONHEAD stChain = ReadAt<RECORDSECTIONHEAD>(lpHead, sizeof(BUFFERSECTIONHEAD));
        if (stChain.m_sNextSectionNo != 0) {
            const BYTE* lpNext = reinterpret_cast<const BYTE*>(SectionHead(stChain.m_sNextSectionNo));
            if (lpNext == nullptr || lpNext[0] != bType) return BSON_DAMAGED_PLAN;
            RECORDSECTIONHEAD stBack = ReadAt<RECORDSECTIONHEAD>(lpNext, sizeof(BUFFERSECTIONHEAD));
            if (stBack.m_sPreSectionNo != nNo) return BSON_DAMAGED_PLAN;
        }
        if (stChain.m_sPreSectionNo != 0) {
            const BYTE* lpPre = reinterpret_cast<const BYTE*>(SectionHead(stChain.m_sPreSectionNo));
            if (lpPre == nullptr || lpPre[0] != bType) return BSON_DAMAGED_PLAN;
        }
    }
    return BSON_OK;
}

// Ids inside records and steps must name bytes of the stream.
int CPlanStreamView::CheckItems() const
{
    for (UINT nNo = 1; nNo <= m_nSectionNum; nNo++) {
        const BYTE* lpHead = reinterpret_cast<const BYTE*>(SectionHead(nNo));
        BYTE bType = lpHead[0];
        if (bType == BSON_SECTION_DATA) continue;
        UINT nUsed = ReadAt<UINT>(lpHead, offsetof(BUFFERSECTIONHEAD, m_nSectionDataSize));
        UINT nItem = ItemSizeOf(bType);
        for (UINT nPos = HeadSizeOf(bType); nPos + nItem <= nUsed; nPos += nItem) {
            const BYTE* lpItem = lpHead + nPos;
            UINT nFirst, nSecond;
            if (bType == BSON_SECTION_RECORDS) {
                nFirst = ReadAt<UINT>(lpItem, offsetof(RECORDHEAD, m_nFieldDataAddrID));
                nSecond = ReadAt<UINT>(lpItem, offsetof(RECORDHEAD, m_nOldRecordAddrID));
            } else {
                nFirst = ReadAt<UINT>(lpItem, offsetof(EXECUTESTEP, m_nRecordAddrID));
                nSecond = ReadAt<UINT>(lpItem, offsetof(EXECUTESTEP, m_nNextPlanAddrID));
            }
            if (!IdIsSound(nFirst) || !IdIsSound(nSecond)) return BSON_DAMAGED_PLAN;
        }
    }
    return BSON_OK;
}
