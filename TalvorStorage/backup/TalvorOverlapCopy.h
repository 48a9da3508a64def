// TalvorOverlapCopy.h — a range copied from one direct file to another with
// the next piece read while the one before is written: on one disk the two
// transfers overlap, where read-then-write would leave it idle half the time.
//
// The caller's thread writes; a short-lived reader thread per piece reads
// the next one. Without a thread (none could be made) the copy goes on
// read-then-write, so a copy never fails for want of one.
#pragma once

#include "TalvorDirectFile.h"

// What a failed copy ran into: the transfer, where it began, how long, errno.
enum OVERLAPCOPYSTAGE { OVERLAPCOPY_DONE = 0, OVERLAPCOPY_READ = 1, OVERLAPCOPY_WRITE = 2 };
struct OVERLAPCOPYFAULT {
    OVERLAPCOPYSTAGE m_eStage;
    long long m_nPos; // in the source for a read, in the target for a write
    int m_nSize;
    int m_nErrno;
};

// Called after each piece is written, with the bytes copied so far.
typedef void (*LPOVERLAPCOPYPROGRESS)(void* lpContext, long long nCopied);

// Copies nLength bytes at nSourcePos of pSource to nTargetPos of pTarget in
// pieces of at most nBufSize through the two aligned buffers lpBuf[0] and
// lpBuf[1] (each nBufSize bytes, a multiple of 512). TRUE when every byte
// was written; FALSE with pFault telling the first failed transfer (no later
// piece is written after a failure). Any thread; the two files and buffers
// are the caller's for the call's duration.
BOOL TalvorOverlapCopy(CTalvorDirectFile* pSource, long long nSourcePos, CTalvorDirectFile* pTarget,
                       long long nTargetPos, long long nLength, LPBYTE lpBuf[2], int nBufSize,
                       LPOVERLAPCOPYPROGRESS pProgress, void* lpContext, OVERLAPCOPYFAULT* pFault);
