// CacheFileHeadArea.cpp — building the head area of a new cache-mode file.
#include "CacheFileHeadArea.h"

#include "DbFileLayout.h"

#include <cstring>

namespace {

const int CACHEHEAD_MAX_EXHEADS = 255;  // m_bExHeadNo is one byte

void BuildHead(const CACHEHEADAREADEF& stDef, int nExHeads, LPBYTE lpBuf)
{
    // Both heads share their first fields; the table head's names serve.
    LPTABLEFILEHEAD lpHead = (LPTABLEFILEHEAD)lpBuf;
    BOOL bTable = stDef.m_bFileType == FILETYPE_TABLE;
    lpHead->m_nDataFlag = bTable ? TABLEFILE_DATAFLAG : INDEXFILE_DATAFLAG;
    lpHead->m_nTimestamp = stDef.m_nTimestamp;
    lpHead->m_bFileNo = stDef.m_bFileNo;
    lpHead->m_bFileType = stDef.m_bFileType;
    lpHead->m_usDatabaseGuid = stDef.m_usDatabaseGuid;
    lpHead->m_nMaxObjectNum = (UINT)stDef.m_nMaxObjectNum;
    lpHead->m_nFileTotalSize = stDef.m_nFileSize;
    lpHead->m_nInnerMaxNo = 1;
    lpHead->m_nFileHeaderSize = CACHE_PAGE_SIZE;
    lpHead->m_nBlockMapSize = CACHE_PAGE_SIZE;
    lpHead->m_nBlockMapStructSize = (int)sizeof(BASEFILEBLOCKMAP_CACHE);
    lpHead->m_nBlockMapStartOffset = (int)DbCacheBlockMapStartOffset(nExHeads);
    lpHead->m_nBlockStartOffset = DbCacheBlockStartOffset(nExHeads);
    lpHead->m_nFileFreeMemoryOffset = DbCacheBlockStartOffset(nExHeads);
    lpHead->m_nMaxBlockMapNum = CACHE_MAX_BLOCKMAP_NUM;
    lpHead->m_nHeadMaxObjectNum = (USHORT)(bTable ? TABLEFILEHEAD_OBJECT_NUM : INDEXFILEHEAD_OBJECT_NUM);
    lpHead->m_nNextFileHeadOffset = nExHeads > 0 ? CACHE_PAGE_SIZE : 0;
}

void BuildExtendedHeads(const CACHEHEADAREADEF& stDef, int nExHeads, LPBYTE lpBuf)
{
    BOOL bTable = stDef.m_bFileType == FILETYPE_TABLE;
    for (int k = 1; k <= nExHeads; k++) {
        // The index page agrees with the table page up to its objects.
        LPTABLEFILEHEADEX lpEx = (LPTABLEFILEHEADEX)(lpBuf + (long long)k * CACHE_PAGE_SIZE);
        lpEx->m_nDataFlag = bTable ? TABLEFILEEX_DATAFLAG : INDEXFILEEX_DATAFLAG;
        lpEx->m_bFileNo = stDef.m_bFileNo;
        lpEx->m_bFileType = stDef.m_bFileType;
        lpEx->m_bExHeadNo = (BYTE)k;
        lpEx->m_nExHeadMaxObjectNum = (USHORT)(bTable ? TABLEFILEHEADEX_OBJECT_NUM : INDEXFILEHEADEX_OBJECT_NUM);
        lpEx->m_nNextFileHeadOffset = k < nExHeads ? (long long)(k + 1) * CACHE_PAGE_SIZE : 0;
    }
}

} // namespace

long long CacheHeadAreaSize(BYTE bFileType, int nMaxObjectNum)
{
    if (nMaxObjectNum < 0) return 0;
    int nExHeads = DbCacheExtendedHeadCount(bFileType, nMaxObjectNum);
    return nExHeads < 0 ? 0 : DbCacheBlockStartOffset(nExHeads);
}

BOOL CacheBuildHeadArea(const CACHEHEADAREADEF& stDef, LPBYTE lpBuf, long long nBufSize, int* pnExHeads)
{
    if (lpBuf == nullptr || stDef.m_nMaxObjectNum < 0) return FALSE;
    int nExHeads = DbCacheExtendedHeadCount(stDef.m_bFileType, stDef.m_nMaxObjectNum);
    if (nExHeads < 0 || nExHeads > CACHEHEAD_MAX_EXHEADS) return FALSE;
    long long nArea = DbCacheBlockStartOffset(nExHeads);
    if (nBufSize < nArea || stDef.m_nFileSize < nArea) return FALSE;
    memset(lpBuf, 0, (size_t)nArea);
    BuildHead(stDef, nExHeads, lpBuf);
    BuildExtendedHeads(stDef, nExHeads, lpBuf);
    LPBASEFILEBLOCKMAPHEAD_CACHE lpMap = (LPBASEFILEBLOCKMAPHEAD_CACHE)(lpBuf + DbCacheBlockMapStartOffset(nExHeads));
    lpMap->m_nDataFlag = BLOCKMAP_CACHE_DATAFLAG;
    lpMap->m_nMapNo = 1;
    lpMap->m_nTimestamp = stDef.m_nTimestamp;
    if (pnExHeads != nullptr) *pnExHeads = nExHeads;
    return TRUE;
}
