// TalvorReadAhead.h — a range read in pieces, several ahead of the reader.
//
// A backup reads a file piece by piece and packs each piece before it asks
// for the next. Read one at a time, the disk idles while a piece is packed
// and holds one transfer while it could hold several. Here each piece is
// read by a short-lived thread of its own into one of a ring of buffers,
// up to READAHEAD_DEPTH pieces ahead, and handed out in order.
//
// One consumer thread (the caller). A reading thread owns its buffer and
// its result from its start to its join; the caller reads them only after
// the join, so no latch is needed. The read function runs on those threads
// (or on the caller's, when no thread can be made), several at once.
#pragma once

#include "LinuxCommonAPI.h"
#include "TypeDef.h"

inline constexpr int READAHEAD_DEPTH = 3;

// Reads nSize bytes of the range at nPos into lpBuf; 0 on success, else the
// code to report. Called on any thread, several at once.
typedef int (*LPREADAHEADREAD)(void* lpContext, long long nPos, LPBYTE lpBuf, int nSize);

class CTalvorReadAhead {
public:
    CTalvorReadAhead();
    // Waits for the reads in flight; frees the buffers.
    ~CTalvorReadAhead();
    CTalvorReadAhead(const CTalvorReadAhead&) = delete;
    CTalvorReadAhead& operator=(const CTalvorReadAhead&) = delete;

    // Takes READAHEAD_DEPTH aligned buffers of nBufSize bytes: lpFirst (the
    // caller's, which must outlive the reader; may be null) and new ones for
    // the rest. FALSE when they cannot be had.
    BOOL Init(LPBYTE lpFirst, int nBufSize);
    // Starts reading [0, nLength) through pRead in pieces of nPiece bytes
    // (at most the buffer size; the last one shorter). Waits first for a
    // range started before. pRead may run with lpContext until Stop, the
    // next Start, a failed Next or the destructor: lpContext must live until
    // then. Caller's thread.
    void Start(LPREADAHEADREAD pRead, void* lpContext, long long nLength, int nPiece);
    // The next piece in order: TRUE with its place, size and bytes (valid
    // until the next call), FALSE at the end of the range or at a failed
    // read (then nResult is the read's code, not 0, nPos and nSize are the
    // failed piece's, and no later piece is handed out). Caller's thread.
    BOOL Next(long long& nPos, int& nSize, LPBYTE& lpBuf, int& nResult);
    // Waits for every read in flight; nothing more is read. Caller's thread.
    void Stop();

private:
    struct PIECE {
        CTalvorReadAhead* m_pOwner;
        LPBYTE m_lpBuf;
        long long m_nPos;
        int m_nSize;
        int m_nResult;
        HTHREADTYPE m_hThread;
        BOOL m_bRunning; // a thread reads it; joined before it is handed out
        BOOL m_bStarted;
        BOOL m_bOwned; // freed with the reader
    };
    static void* ReadThread(void* lpParam);
    // Starts the read of the piece at m_nNextStart into slot nIndex, if any
    // is left.
    void Launch(int nIndex);
    void Join(PIECE& piece);

    PIECE m_arPiece[READAHEAD_DEPTH];
    LPREADAHEADREAD m_pRead;
    void* m_lpContext;
    long long m_nLength;
    int m_nPiece;
    long long m_nNextStart; // where the next piece to launch begins
    int m_nNextOut;         // slot of the next piece to hand out
    int m_nHeld;            // slot handed out last, refilled at the next call; -1 none
    BOOL m_bFailed;
};
