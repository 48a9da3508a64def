// TalvorReadAhead.cpp — a ring of pieces, each read by its own thread and
// taken back by a join.
#include "TalvorReadAhead.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

CTalvorReadAhead::CTalvorReadAhead()
    : m_pRead(nullptr), m_lpContext(nullptr), m_nLength(0), m_nPiece(0), m_nNextStart(0), m_nNextOut(0), m_nHeld(-1),
      m_bFailed(FALSE)
{
    memset(m_arPiece, 0, sizeof(m_arPiece));
}

CTalvorReadAhead::~CTalvorReadAhead()
{
    Stop();
    for (PIECE& piece : m_arPiece)
        if (piece.m_bOwned) free(piece.m_lpBuf);
}

BOOL CTalvorReadAhead::Init(LPBYTE lpFirst, int nBufSize)
{
    assert(nBufSize > 0);
    for (PIECE& piece : m_arPiece) {
        piece.m_pOwner = this;
        piece.m_bOwned = &piece != &m_arPiece[0] || lpFirst == nullptr;
        piece.m_lpBuf = piece.m_bOwned ? (LPBYTE)get_aligned_buffer((size_t)nBufSize) : lpFirst;
        if (piece.m_lpBuf == nullptr) return FALSE;
    }
    return TRUE;
}

void* CTalvorReadAhead::ReadThread(void* lpParam)
{
    PIECE* pPiece = (PIECE*)lpParam;
    CTalvorReadAhead* p = pPiece->m_pOwner;
    pPiece->m_nResult = p->m_pRead(p->m_lpContext, pPiece->m_nPos, pPiece->m_lpBuf, pPiece->m_nSize);
    return nullptr;
}

void CTalvorReadAhead::Launch(int nIndex)
{
    PIECE& piece = m_arPiece[nIndex];
    assert(!piece.m_bRunning);
    piece.m_bStarted = FALSE;
    if (m_bFailed || m_nNextStart >= m_nLength) return;
    piece.m_nPos = m_nNextStart;
    piece.m_nSize = (int)(m_nLength - m_nNextStart < m_nPiece ? m_nLength - m_nNextStart : m_nPiece);
    piece.m_nResult = 0;
    piece.m_bStarted = TRUE;
    m_nNextStart += piece.m_nSize;
    piece.m_bRunning = CreateJoinableThread(&piece.m_hThread, ReadThread, &piece) == 0 ? TRUE : FALSE;
    // Without a thread the piece is read when it is asked for.
}

void CTalvorReadAhead::Join(PIECE& piece)
{
    if (!piece.m_bRunning) return;
    pthread_join(piece.m_hThread, nullptr);
    piece.m_bRunning = FALSE;
}

void CTalvorReadAhead::Start(LPREADAHEADREAD pRead, void* lpContext, long long nLength, int nPiece)
{
    assert(nPiece > 0);
    Stop();
    m_pRead = pRead;
    m_lpContext = lpContext;
    m_nLength = nLength;
    m_nPiece = nPiece;
    m_nNextStart = 0;
    m_nNextOut = 0;
    m_nHeld = -1;
    m_bFailed = FALSE;
    for (int i = 0; i < READAHEAD_DEPTH; i++) Launch(i);
}

BOOL CTalvorReadAhead::Next(long long& nPos, int& nSize, LPBYTE& lpBuf, int& nResult)
{
    nResult = 0;
    // The piece handed out last is the caller's until now: its slot reads on.
    if (m_nHeld >= 0) Launch(m_nHeld);
    m_nHeld = -1;
    PIECE& piece = m_arPiece[m_nNextOut];
    if (m_bFailed || !piece.m_bStarted) return FALSE;
    if (piece.m_bRunning)
        Join(piece);
    else
        piece.m_nResult = m_pRead(m_lpContext, piece.m_nPos, piece.m_lpBuf, piece.m_nSize);
    piece.m_bStarted = FALSE;
    nPos = piece.m_nPos;
    nSize = piece.m_nSize;
    if (piece.m_nResult != 0) {
        // Pieces after a failed one are never handed out, nor read on.
        m_bFailed = TRUE;
        Stop();
        nResult = piece.m_nResult;
        return FALSE;
    }
    lpBuf = piece.m_lpBuf;
    m_nHeld = m_nNextOut;
    m_nNextOut = (m_nNextOut + 1) % READAHEAD_DEPTH;
    return TRUE;
}

void CTalvorReadAhead::Stop()
{
    for (PIECE& piece : m_arPiece) {
        Join(piece);
        piece.m_bStarted = FALSE;
    }
    m_nHeld = -1;
}
