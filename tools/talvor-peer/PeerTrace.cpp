// PeerTrace.cpp — the job "trace": the engine's side of the trace ring.
//
// The engine has no log file of its own: it writes its text into the ring,
// filling the area to its last byte before it wraps, keeps its process id in
// the head and posts "Global\TalvorSysTraceEvent"; the daemon copies the
// bytes, unread, into the "TalvorService" series. Whoever comes first makes
// the ring and writes its head. The ring is never overrun: when it is full
// the job waits for the daemon, within a deadline.
#include "PeerArgs.h"
#include "PeerClock.h"
#include "PeerJobs.h"

#include "LinuxCommonAPI.h"
#include "LogManager.h"
#include "MemDBCommonDef.h"
#include "ShareMemory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vTraceOptions = {
    {"pid", true, "process id the engine puts into the ring head (default: this process)"},
    {"file", true, "write the bytes of this file first"},
    {"text", true, "then write this text ..."},
    {"repeat", true, "... this many times (default 1)"},
    {"title", false, "put a line start with time, thread, level and code before each text"},
    {"chunk", true, "largest piece written between two posts (default 4096)"},
    {"timeout", true, "milliseconds to wait for room or for the daemon (default 30000)"},
    {"no-drain", false, "do not wait until the daemon has read everything"},
};

struct TraceRingSession {
    LPBYTE m_pRing = nullptr;
    int m_nRingSize = 0;
    MFID m_nShmId = 0;
    HEVENTTYPE m_hEvent = nullptr;
    int m_nChunk = 4096;
    long long m_nTimeoutMs = 30000;
    long long m_nWritten = 0;

    LPFILE_TRACEMEMFILEHEAD Head() const { return (LPFILE_TRACEMEMFILEHEAD)m_pRing; }
};

int OpenRing(TraceRingSession& s)
{
    BOOL bExists = FALSE;
    MFID nId = CShareMemory::CreateShareMemory(SHMKEY_TRACERING, TRACERING_SEGMENT_SIZE, SHMNAME_TRACERING, bExists);
    // A ring of another size made by somebody else is taken as it is.
    if (nId <= 0 && bExists) nId = CShareMemory::OpenShareMemory(SHMKEY_TRACERING, SHMNAME_TRACERING);
    if (nId <= 0) {
        fprintf(stderr, "talvor-peer: cannot open the trace ring %s: %s\n", SHMNAME_TRACERING, strerror(errno));
        return PEER_IPC;
    }
    size_t nSize = CShareMemory::ShareMemorySize(nId);
    s.m_nRingSize = nSize != 0 ? (int)nSize : TRACERING_SEGMENT_SIZE;
    s.m_pRing = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    if (s.m_pRing == nullptr || s.m_nRingSize <= (int)sizeof(FILE_TRACEMEMFILEHEAD)) {
        fprintf(stderr, "talvor-peer: cannot attach the trace ring %s: %s\n", SHMNAME_TRACERING, strerror(errno));
        return PEER_IPC;
    }
    s.m_nShmId = nId;
    if (!bExists) TraceRingInitHead(s.m_pRing, s.m_nRingSize, TRACEMEM_FILETYPE_TRACE);
    s.m_hEvent = CreateEventSem(nullptr, SEMNAME_TRACEEVENT);
    if (s.m_hEvent == nullptr) {
        fprintf(stderr, "talvor-peer: cannot open the event %s: %s\n", SEMNAME_TRACEEVENT, strerror(errno));
        return PEER_IPC;
    }
    return PEER_OK;
}

// Writes all bytes in pieces of at most m_nChunk, posting after each; waits
// (posting) while the ring is full.
int WriteBytes(TraceRingSession& s, const BYTE* p, long long nLen)
{
    while (nLen > 0) {
        int nPiece = nLen < s.m_nChunk ? (int)nLen : s.m_nChunk;
        long long nDeadline = NowMs() + s.m_nTimeoutMs;
        while (nPiece > 0) {
            int n = TraceRingWrite(s.m_pRing, s.m_nRingSize, p, nPiece);
            if (n == 0) {
                if (NowMs() > nDeadline) {
                    fprintf(stderr, "talvor-peer: the trace ring stayed full for %lld ms\n", s.m_nTimeoutMs);
                    return PEER_TIMEOUT;
                }
                SetEvent(s.m_hEvent);
                usleep(1000);
                continue;
            }
            p += n;
            nPiece -= n;
            nLen -= n;
            s.m_nWritten += n;
        }
        SetEvent(s.m_hEvent);
    }
    return PEER_OK;
}

int WriteFile(TraceRingSession& s, const std::string& strPath)
{
    FILE* pFile = fopen(strPath.c_str(), "rb");
    if (pFile == nullptr) {
        fprintf(stderr, "talvor-peer: cannot read %s: %s\n", strPath.c_str(), strerror(errno));
        return PEER_INPUT;
    }
    BYTE arBuf[65536];
    int rc = PEER_OK;
    size_t n;
    while (rc == PEER_OK && (n = fread(arBuf, 1, sizeof(arBuf), pFile)) > 0) rc = WriteBytes(s, arBuf, (long long)n);
    fclose(pFile);
    return rc;
}

// The start of an engine line, in the daemon's own shape.
std::string EngineTitle()
{
    SYSTEMTIME st;
    GetLocalTime(&st);
    char szTitle[128];
    snprintf(szTitle, sizeof(szTitle), "\r\n%04d-%02d-%02d %02d:%02d:%02d.%03d %d\t% 2d   % 10d %s ", st.wYear, st.wMonth,
             st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds, (int)GetCurrentThreadId(), 3, 0,
             "TalvorService");
    return szTitle;
}

int WaitForDrain(TraceRingSession& s)
{
    long long nDeadline = NowMs() + s.m_nTimeoutMs;
    for (;;) {
        TalvorFlushCPU4Read();
        if (TalvorLoadShared(&s.Head()->m_nReadPos) == TalvorLoadShared(&s.Head()->m_nWritePos)) return PEER_OK;
        if (NowMs() > nDeadline) {
            fprintf(stderr, "talvor-peer: the daemon did not read the trace ring within %lld ms\n", s.m_nTimeoutMs);
            return PEER_TIMEOUT;
        }
        SetEvent(s.m_hEvent);
        usleep(10000);
    }
}

} // namespace

std::string TraceJobUsage()
{
    return "usage: talvor-peer trace [options]\n"
           "Writes text into the trace ring (" +
           std::string(SHMNAME_TRACERING) + ") as the engine does, and posts " + SEMNAME_TRACEEVENT +
           ".\n\noptions:\n" + DescribeOptions(g_vTraceOptions);
}

int RunTraceJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    long long nPid = 0, nRepeat = 0, nChunk = 0, nTimeout = 0;
    bool bOk = opts.Parse(args, g_vTraceOptions) && opts.GetInt("pid", getpid(), 0, 0x7FFFFFFF, nPid) &&
               opts.GetInt("repeat", 1, 0, 1LL << 40, nRepeat) && opts.GetInt("chunk", 4096, 1, 1 << 20, nChunk) &&
               opts.GetInt("timeout", 30000, 1, 24LL * 3600 * 1000, nTimeout);
    if (!bOk) {
        fprintf(stderr, "talvor-peer trace: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                TraceJobUsage().c_str());
        return PEER_USAGE;
    }
    TraceRingSession s;
    s.m_nChunk = (int)nChunk;
    s.m_nTimeoutMs = nTimeout;
    int rc = OpenRing(s);
    if (rc != PEER_OK) return rc;
    // The id comes before the text, so the daemon files the text under it.
    s.Head()->m_nProcessID = (int)nPid;
    TalvorFlushCPU4Write();

    if (opts.Has("file")) rc = WriteFile(s, opts.GetString("file", ""));
    const std::string strText = opts.GetString("text", "");
    for (long long i = 0; rc == PEER_OK && opts.Has("text") && i < nRepeat; i++) {
        std::string strPiece = opts.Has("title") ? EngineTitle() + strText : strText;
        rc = WriteBytes(s, (const BYTE*)strPiece.data(), (long long)strPiece.size());
    }
    SetEvent(s.m_hEvent);
    if (rc == PEER_OK && !opts.Has("no-drain")) rc = WaitForDrain(s);
    printf("trace: wrote %lld bytes as process %d; write position %d, read position %d\n", s.m_nWritten, (int)nPid,
           (int)TalvorLoadShared(&s.Head()->m_nWritePos), (int)TalvorLoadShared(&s.Head()->m_nReadPos));
    CShareMemory::ShMemDetach(s.m_pRing);
    CloseEvent(s.m_hEvent);
    return rc;
}

} // namespace talvorpeer
