// BaseBsonCondition.cpp — what other parts of the value library keep in a
// plan's buffer: the chain of conditions of a statement, and the texts of a
// row value that refer to the plan by offset.
#include "BaseBson.h"

#include <cstring>

namespace {

// A condition record in the main buffer or an overflow section, sections
// allowed for this one allocation. Address 0 means "no root", so on an
// empty buffer a few bytes are left in front.
int AllocCondition(CBaseBson* pBson, CONDITIONITEM*& lpItem, UINT& nAddr)
{
    BOOL bAllow = pBson->m_bAllowBsonSection;
    pBson->m_bAllowBsonSection = TRUE;
    volatile UINT nGot = 0;
    LPBYTE p = nullptr;
    int nResult = pBson->AllocFromBsonBuffer(sizeof(CONDITIONITEM), nGot, p);
    if (nResult == BSON_OK && nGot == 0) {
        p = nullptr;
        nResult = pBson->AllocFromBsonBuffer(sizeof(CONDITIONITEM), nGot, p);
    }
    pBson->m_bAllowBsonSection = bAllow;
    if (nResult != BSON_OK) return nResult;
    lpItem = reinterpret_cast<CONDITIONITEM*>(p);
    nAddr = nGot;
    return BSON_OK;
}

}  // namespace

int AddCondition(CBaseBson* pBson, BYTE bConditionType, UINT nConditionOffset, BYTE bLogicOperator,
                 UINT& nRootOffset)
{
    if (nConditionOffset == 0) return BSON_OK;
    if (pBson == nullptr) return BSON_BAD_PARAMETER;
    CONDITIONITEM* lpRoot = nullptr;
    if (nRootOffset != 0) {
        lpRoot = reinterpret_cast<CONDITIONITEM*>(pBson->GetAddrFromAddrID(nRootOffset, sizeof(CONDITIONITEM)));
        if (lpRoot == nullptr) return BSON_DAMAGED_PLAN;
        if (lpRoot->m_bSecond == BSON_CONDITION_OPEN) {
            lpRoot->m_bSecond = bConditionType;
            lpRoot->m_bLogicOperator = bLogicOperator;
            lpRoot->m_nRightOffset = nConditionOffset;
            return BSON_OK;
        }
    }
    CONDITIONITEM* lpItem = nullptr;
    UINT nAddr = 0;
    int nResult = AllocCondition(pBson, lpItem, nAddr);
    if (nResult != BSON_OK) return nResult;
    if (nRootOffset == 0) {
        lpItem->m_bFirst = bConditionType;
        lpItem->m_bSecond = BSON_CONDITION_OPEN;
        lpItem->m_nLeftOffset = nConditionOffset;
        lpItem->m_nRightOffset = 0;
    } else {
        lpItem->m_bFirst = BSON_CONDITION_JOIN;
        lpItem->m_bSecond = bConditionType;
        lpItem->m_bLogicOperator = bLogicOperator;
        lpItem->m_nLeftOffset = nRootOffset;
        lpItem->m_nRightOffset = nConditionOffset;
    }
    nRootOffset = nAddr;
    return BSON_OK;
}

namespace {

BOOL IsBorrowedText(const st_VARDATA& v)
{
    switch (v.m_vt) {
    case TALVOR_VT_FIXTEXT:
    case TALVOR_VT_VARTEXT:
    case TALVOR_VT_TEXT:
    case TALVOR_VT_BINARY:
    case TALVOR_VT_PREFIXTEXT:
        return v.m_bAutoRelease == 0;
    default:
        return FALSE;
    }
}

}  // namespace

int st_MULTIVARDATA::GetMultiStringData(CBaseBson* pBson)
{
    if (pBson == nullptr) return BSON_BAD_PARAMETER;
    int nResult = BSON_OK;
    // The members lie behind each other past the one declared.
    st_VARDATA* pValues = m_arrVarData;
    for (int i = 0; i < m_bNum; i++) {
        st_VARDATA& v = pValues[i];
        if (!IsBorrowedText(v)) continue;
        LPBYTE p = nullptr;
        if (v.m_nStrLen >= 0) p = pBson->GetDataAt((UINT)v.m_nStringDataOffset, (UINT)v.m_nStrLen);
        if (p == nullptr && !(v.m_nStrLen == 0)) {
            // The bytes it names are not the plan's: never followed.
            v.SetNull();
            nResult = BSON_DAMAGED_PLAN;
            continue;
        }
        v.m_lpszValue = reinterpret_cast<char*>(p);
    }
    return nResult;
}
