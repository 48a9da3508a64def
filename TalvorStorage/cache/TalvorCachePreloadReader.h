// TalvorCachePreloadReader.h — the thread that reads a file's next piece
// while the start-up thread copies the blocks of the current one into the
// cache. The reader only reads the file into a buffer it is handed; it never
// touches the cache, so the free chain and the preload's cursor stay with
// the start-up thread alone.
//
// One read is in hand at a time. What the read traces is held back with its
// result and written on the start-up thread when that result is taken, so a
// failed read is reported at the very point where a read of the start-up
// thread's own would have been, and a read ahead that turns out not to be
// needed (the cache filled, the map ended) leaves no line at all.
#pragma once

#include "LinuxCommonAPI.h"
#include "TalvorStorageDef.h"
#include "TalvorTrace.h"
#include "TypeDef.h"

// How long one wait of either side lasts before it looks again, in ms.
inline constexpr UINT PRELOAD_READER_SLICE_MS = 100;
// How long Stop waits for the thread to end once it holds no read, in ms.
inline constexpr UINT PRELOAD_READER_JOIN_MS = 10000;
// Lines one read may hold back; any beyond pass straight on to the sink.
inline constexpr int PRELOAD_HELD_LINES = 4;
inline constexpr int PRELOAD_HELD_FUNC = 64;

// States of the read in hand.
enum : int { PRELOADREAD_NONE = 0, PRELOADREAD_ASKED = 1, PRELOADREAD_DONE = 2 };

struct PreloadHeldLine {
    char m_szFunc[PRELOAD_HELD_FUNC];
    LONG m_lLevel;
    LONG m_lCode;
    char m_szText[TRACE_TEXT_SIZE];
};

class CPreloadReader {
public:
    // Starts the reader of one file's sweep. The object, or null when its
    // memory or its thread cannot be had (nothing is left behind then; the
    // sweep reads on its own). pExit: the cache's stop flag, which ends an
    // idle reader. Start-up thread, no latch held.
    static CPreloadReader* Start(IVirtualStorageFile* pFile, volatile BYTE* pExit);
    // Forgets the read in hand (waiting for it to end, its lines dropped),
    // ends and joins the thread, and frees the object. TRUE when the thread
    // was joined; FALSE when it could not be within PRELOAD_READER_JOIN_MS:
    // then the object is left to it, never freed under a running read.
    // Start-up thread, no latch held.
    static BOOL Stop(CPreloadReader* p);

    // Asks for nLen bytes at llPos into lpBuf, read through the file's
    // ReadBlock. FALSE when a read is still in hand (nothing asked then).
    // Start-up thread; lpBuf is the reader's until the read is taken or
    // forgotten.
    BOOL Ask(long long llPos, LPBYTE lpBuf, int nLen);
    // Where the read in hand was asked; PRELOADREAD_NONE when none is.
    int State() const { return m_nState; }
    long long AskedPos() const { return m_llPos; }
    int AskedLen() const { return m_nLen; }
    LPBYTE AskedBuffer() const { return m_lpBuf; }
    // Waits for the read in hand and gives its result as ReadBlock gave it:
    // 0, or 1 on failure. Its lines stay held until Surface or Forget. A
    // reader that ended (on m_bExit) before taking the read leaves it to the
    // caller: it is done here, with lpCritSection, its lines held the same
    // way. Waits in slices of PRELOAD_READER_SLICE_MS for as long as the
    // read runs, as a read of the caller's own would. 1 when no read is in
    // hand. Start-up thread, no latch held.
    int Wait(LPTALVORCRITICALSECTION lpCritSection);
    // Writes the held lines of the read waited for, in their order, on the
    // calling thread, and ends the read. Start-up thread.
    void Surface();
    // Ends the read in hand without a line of it: waits for it if the
    // reader has it, never reads in its place. Start-up thread.
    void Forget();

private:
    CPreloadReader(IVirtualStorageFile* pFile, volatile BYTE* pExit);
    ~CPreloadReader();
    static void* ReaderThread(LPVOID lpParam);
    static void HoldLine(void* pContext, LPCTSTR szFunc, LONG lLevel, LONG lCode, LPCTSTR szLog);
    void Run();
    int ReadHeld(LPTALVORCRITICALSECTION lpCritSection);
    BOOL IsDone() const;
    BOOL IsGone() const;
    void WaitForTheReader();

    IVirtualStorageFile* m_pFile;
    volatile BYTE* m_pExit;
    HTHREADTYPE m_hThread = 0;
    EVENTTYPE m_semAsk;   // posted by the start-up thread: a read, or the stop
    EVENTTYPE m_semDone;  // posted by the reader: a read done, or its end
    int m_bStop = 0;      // atomic: the start-up thread wants the reader gone
    int m_bGone = 0;      // atomic: the reader left its loop and takes no read
    int m_bDone = 0;      // atomic: the read asked has its result
    int m_nState = PRELOADREAD_NONE;  // start-up thread only
    long long m_llPos = 0;
    LPBYTE m_lpBuf = nullptr;
    int m_nLen = 0;
    int m_nResult = 0;
    int m_nHeld = 0;
    PreloadHeldLine m_arHeld[PRELOAD_HELD_LINES];
};
