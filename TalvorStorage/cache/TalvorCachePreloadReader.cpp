// TalvorCachePreloadReader.cpp — the read-ahead thread of the preload.
//
// The handshake is two unnamed semaphores and three flags. The start-up
// thread fills in the request and posts m_semAsk; the reader reads, fills
// in the result, sets m_bDone and posts m_semDone. The reader leaves its
// loop only while it holds no read, and says so with m_bGone before its last
// post, so a request that finds the reader gone is still untouched and the
// start-up thread can read it itself.
#include "TalvorCachePreloadReader.h"

#include <cstdio>
#include <new>

CPreloadReader::CPreloadReader(IVirtualStorageFile* pFile, volatile BYTE* pExit) : m_pFile(pFile), m_pExit(pExit)
{
    InitEvent(m_semAsk);
    InitEvent(m_semDone);
}

CPreloadReader::~CPreloadReader()
{
    FreeEvent(m_semAsk);
    FreeEvent(m_semDone);
}

CPreloadReader* CPreloadReader::Start(IVirtualStorageFile* pFile, volatile BYTE* pExit)
{
    if (pFile == nullptr || pExit == nullptr) return nullptr;
    CPreloadReader* p = new (std::nothrow) CPreloadReader(pFile, pExit);
    if (p == nullptr) return nullptr;
    if (CreateJoinableThread(&p->m_hThread, ReaderThread, p) != 0) {
        delete p;
        return nullptr;
    }
    return p;
}

BOOL CPreloadReader::Stop(CPreloadReader* p)
{
    if (p == nullptr) return TRUE;
    p->Forget();
    __atomic_store_n(&p->m_bStop, 1, __ATOMIC_RELEASE);
    SetEvent(p->m_semAsk);
    if (TalvorWaitForSingleThread(p->m_hThread, PRELOAD_READER_JOIN_MS) != WAIT_OBJECT_0) {
        Trace("InitCacheHead", 1, 60010030,
              TALVOR_TEXT("预加载读线程未能在%u毫秒内结束", "The preload reader did not end within %u ms"),
              PRELOAD_READER_JOIN_MS);
        return FALSE;
    }
    delete p;
    return TRUE;
}

void* CPreloadReader::ReaderThread(LPVOID lpParam)
{
    ((CPreloadReader*)lpParam)->Run();
    return nullptr;
}

void CPreloadReader::Run()
{
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    for (;;) {
        BOOL bAsked = WaitForSingleObject(m_semAsk, PRELOAD_READER_SLICE_MS) == WAIT_OBJECT_0;
        if (__atomic_load_n(&m_bStop, __ATOMIC_ACQUIRE) != 0) break;
        if (bAsked) {
            m_nResult = ReadHeld(&stCrit);
            __atomic_store_n(&m_bDone, 1, __ATOMIC_RELEASE);
            SetEvent(m_semDone);
            continue;
        }
        // Idle: a stop of the daemon ends the reader; a read asked after
        // this falls to the start-up thread.
        if (TalvorLoadShared(m_pExit) != 0) break;
    }
    __atomic_store_n(&m_bGone, 1, __ATOMIC_RELEASE);
    SetEvent(m_semDone);
}

void CPreloadReader::HoldLine(void* pContext, LPCTSTR szFunc, LONG lLevel, LONG lCode, LPCTSTR szLog)
{
    CPreloadReader* p = (CPreloadReader*)pContext;
    if (p->m_nHeld >= PRELOAD_HELD_LINES) {
        // Never lost: past the room a line goes out at once.
        TraceHoldThisThread(nullptr, nullptr);
        Trace0(szFunc, lLevel, lCode, szLog);
        TraceHoldThisThread(HoldLine, p);
        return;
    }
    PreloadHeldLine& l = p->m_arHeld[p->m_nHeld++];
    snprintf(l.m_szFunc, sizeof(l.m_szFunc), "%s", szFunc != nullptr ? szFunc : "");
    snprintf(l.m_szText, sizeof(l.m_szText), "%s", szLog != nullptr ? szLog : "");
    l.m_lLevel = lLevel;
    l.m_lCode = lCode;
}

int CPreloadReader::ReadHeld(LPTALVORCRITICALSECTION lpCritSection)
{
    m_nHeld = 0;
    TraceHoldThisThread(HoldLine, this);
    int nResult = m_pFile->ReadBlock(lpCritSection, m_llPos, m_lpBuf, m_nLen) != 0 ? 1 : 0;
    TraceHoldThisThread(nullptr, nullptr);
    return nResult;
}

BOOL CPreloadReader::Ask(long long llPos, LPBYTE lpBuf, int nLen)
{
    if (m_nState != PRELOADREAD_NONE) return FALSE;
    m_llPos = llPos;
    m_lpBuf = lpBuf;
    m_nLen = nLen;
    m_nResult = 1;
    __atomic_store_n(&m_bDone, 0, __ATOMIC_RELEASE);
    m_nState = PRELOADREAD_ASKED;
    SetEvent(m_semAsk);
    return TRUE;
}

BOOL CPreloadReader::IsDone() const { return __atomic_load_n(&m_bDone, __ATOMIC_ACQUIRE) != 0 ? TRUE : FALSE; }

BOOL CPreloadReader::IsGone() const { return __atomic_load_n(&m_bGone, __ATOMIC_ACQUIRE) != 0 ? TRUE : FALSE; }

// Until the reader has finished the read in hand or has ended without it.
void CPreloadReader::WaitForTheReader()
{
    // The reader sets m_bDone before it can set m_bGone, so after m_bGone
    // a second look at m_bDone is final.
    while (!IsDone() && !IsGone()) WaitForSingleObject(m_semDone, PRELOAD_READER_SLICE_MS);
}

int CPreloadReader::Wait(LPTALVORCRITICALSECTION lpCritSection)
{
    if (m_nState == PRELOADREAD_DONE) return m_nResult;
    if (m_nState != PRELOADREAD_ASKED) return 1;
    WaitForTheReader();
    if (!IsDone()) m_nResult = ReadHeld(lpCritSection);
    m_nState = PRELOADREAD_DONE;
    return m_nResult;
}

void CPreloadReader::Surface()
{
    for (int i = 0; i < m_nHeld; i++)
        Trace0(m_arHeld[i].m_szFunc, m_arHeld[i].m_lLevel, m_arHeld[i].m_lCode, m_arHeld[i].m_szText);
    m_nHeld = 0;
    m_nState = PRELOADREAD_NONE;
}

void CPreloadReader::Forget()
{
    if (m_nState == PRELOADREAD_ASKED) WaitForTheReader();
    m_nHeld = 0;
    m_nState = PRELOADREAD_NONE;
}
