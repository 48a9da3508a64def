// TalvorOverlapCopy.cpp — one reader thread per piece, joined before its
// buffer is written: the only state the two threads share is the piece
// being read, handed over by the join.
#include "TalvorOverlapCopy.h"

#include "LinuxCommonAPI.h"

#include <cassert>
#include <cerrno>
#include <pthread.h>

namespace {

struct PIECEREAD {
    CTalvorDirectFile* m_pSource;
    long long m_nPos;
    LPBYTE m_lpBuf;
    int m_nSize;
    BOOL m_bGood;
    int m_nErrno;
};

void ReadPiece(PIECEREAD* pRead)
{
    pRead->m_bGood = pRead->m_pSource->ReadAt(pRead->m_nPos, pRead->m_lpBuf, pRead->m_nSize);
    pRead->m_nErrno = pRead->m_bGood ? 0 : errno;
}

void* ReadPieceThread(void* lpParam)
{
    ReadPiece((PIECEREAD*)lpParam);
    return nullptr;
}

int PieceSize(long long nLength, long long nDone, int nBufSize)
{
    return (int)(nLength - nDone < nBufSize ? nLength - nDone : nBufSize);
}

BOOL Fail(OVERLAPCOPYFAULT* pFault, OVERLAPCOPYSTAGE eStage, long long nPos, int nSize, int nErrno)
{
    if (pFault != nullptr) *pFault = OVERLAPCOPYFAULT{eStage, nPos, nSize, nErrno};
    return FALSE;
}

} // namespace

BOOL TalvorOverlapCopy(CTalvorDirectFile* pSource, long long nSourcePos, CTalvorDirectFile* pTarget,
                       long long nTargetPos, long long nLength, LPBYTE lpBuf[2], int nBufSize,
                       LPOVERLAPCOPYPROGRESS pProgress, void* lpContext, OVERLAPCOPYFAULT* pFault)
{
    assert(nBufSize > 0 && nBufSize % DIRECTFILE_SECTOR == 0);
    if (pFault != nullptr) *pFault = OVERLAPCOPYFAULT{OVERLAPCOPY_DONE, 0, 0, 0};
    if (nLength <= 0) return TRUE;
    PIECEREAD stRead = {pSource, nSourcePos, lpBuf[0], PieceSize(nLength, 0, nBufSize), FALSE, 0};
    ReadPiece(&stRead);
    int nCurrent = 0;
    for (long long nDone = 0;;) {
        if (!stRead.m_bGood) return Fail(pFault, OVERLAPCOPY_READ, stRead.m_nPos, stRead.m_nSize, stRead.m_nErrno);
        const int nPiece = stRead.m_nSize;
        const long long nNext = nDone + nPiece;
        // The next piece is read into the other buffer while this one is written.
        PIECEREAD stNext = {pSource, nSourcePos + nNext, lpBuf[1 - nCurrent], PieceSize(nLength, nNext, nBufSize),
                            FALSE, 0};
        HTHREADTYPE hReader = 0;
        BOOL bReading = nNext < nLength && CreateJoinableThread(&hReader, ReadPieceThread, &stNext) == 0;
        BOOL bWritten = pTarget->WriteAt(nTargetPos + nDone, lpBuf[nCurrent], nPiece);
        int nWriteErrno = errno;
        if (bReading) pthread_join(hReader, nullptr);
        if (!bWritten) return Fail(pFault, OVERLAPCOPY_WRITE, nTargetPos + nDone, nPiece, nWriteErrno);
        nDone = nNext;
        if (pProgress != nullptr) pProgress(lpContext, nDone);
        if (nDone >= nLength) return TRUE;
        if (!bReading) ReadPiece(&stNext);
        stRead = stNext;
        nCurrent = 1 - nCurrent;
    }
}
