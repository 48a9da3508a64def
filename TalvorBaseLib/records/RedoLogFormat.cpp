// RedoLogFormat.cpp — the head of a redo file and the framing of a record.
#include "RedoLogFormat.h"

#include <cstddef>
#include <cstring>

long long RedoRecordAt(const BYTE* lpAt, long long nLeft)
{
    if (nLeft < EXECUTEPLANHEAD_SIZE) return REDORECORD_NOT_WHOLE;
    BASEEXECUTEPLANHEAD stHead;
    memcpy(&stHead, lpAt, sizeof(stHead));
    if (stHead.m_nDataFlag != EXECUTEPLAN_DATAFLAG || stHead.m_nTotalDataSize < (UINT)EXECUTEPLANHEAD_SIZE)
        return REDORECORD_NONE;
    long long nSize = stHead.m_nTotalDataSize;
    if (nSize > nLeft) return REDORECORD_NOT_WHOLE;
    if (RedoRecordHasTrailer(stHead.m_nType)) {
        UINT nTrailer = 0;
        memcpy(&nTrailer, lpAt + nSize - 4, 4);
        if (nTrailer != REDORECORD_TRAILER) return REDORECORD_NONE;
    }
    return nSize;
}

int RedoCheckFileHead(const MF_REDOLOGFILEHEAD& stHead, long long nFileSize, long long* pnOffset)
{
    long long nOffset = 0;
    int nResult = REDOHEAD_OK;
    if (memcmp(stHead.m_lpszFileFlag, REDOLOGFILE_FLAG, sizeof(REDOLOGFILE_FLAG)) != 0) {
        nResult = REDOHEAD_FLAG;
        nOffset = offsetof(MF_REDOLOGFILEHEAD, m_lpszFileFlag);
    } else if (stHead.m_nVersion != REDOLOGFILE_VERSION) {
        nResult = REDOHEAD_VERSION;
        nOffset = offsetof(MF_REDOLOGFILEHEAD, m_nVersion);
    } else if (stHead.m_bState > REDOGROUP_ARCHIVED) {
        nResult = REDOHEAD_STATE;
        nOffset = offsetof(MF_REDOLOGFILEHEAD, m_bState);
    } else if (stHead.m_nEffectiveSize != 0 &&
               (stHead.m_nEffectiveSize < (UINT)REDOLOGFILE_HEAD_SIZE || (long long)stHead.m_nEffectiveSize > nFileSize)) {
        nResult = REDOHEAD_SIZE;
        nOffset = offsetof(MF_REDOLOGFILEHEAD, m_nEffectiveSize);
    }
    if (pnOffset != nullptr) *pnOffset = nOffset;
    return nResult;
}

const char* RedoGroupStateName(BYTE bState)
{
    switch (bState) {
    case REDOGROUP_EMPTY: return "empty";
    case REDOGROUP_WRITING: return "open";
    case REDOGROUP_SEALED: return "sealed";
    case REDOGROUP_ARCHIVED: return "archived";
    default: return "unknown";
    }
}
