// CacheFileHeadArea.h — the head area of a new cache-mode file (types 10
// and 11): the head page, the extended head pages its objects need, and
// the first map block, built in one buffer. The daemon writes it when it
// adds a file; the database maker writes the same bytes.
//
// With F objects in the head and X in each extended page (506 and 511 in a
// table file, 677 and 681 in an index file), a file of N objects needs
// E = 0 extended pages when N <= F, else ceil((N - F) / X). Extended page k
// (from 1) lies at k x 16384, the first map block at (E + 1) x 16384, and
// the area is T = (E + 2) x 16384 bytes; blocks start behind it.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

// What the head of a new file records of it.
typedef struct _CACHEHEADAREADEF {
    BYTE m_bFileNo;
    BYTE m_bFileType;          // FILETYPE_TABLE or FILETYPE_INDEX
    USHORT m_usDatabaseGuid;
    int m_nMaxObjectNum;
    long long m_nFileSize;     // m_nFileTotalSize of the head
    long long m_nTimestamp;    // of the head and the first map block
} CACHEHEADAREADEF, *LPCACHEHEADAREADEF;

// T, the bytes of the head area; 0 for a type other than 10 and 11 or a
// negative object count. Any thread.
long long CacheHeadAreaSize(BYTE bFileType, int nMaxObjectNum);

// Zeroes T bytes of lpBuf and builds the area in them. FALSE, with lpBuf
// untouched, for a bad type or count, a buffer smaller than T, more than
// 255 extended pages, or a file size below T. *pnExHeads (may be null)
// receives E. Any thread; the caller owns lpBuf.
BOOL CacheBuildHeadArea(const CACHEHEADAREADEF& stDef, LPBYTE lpBuf, long long nBufSize, int* pnExHeads);
