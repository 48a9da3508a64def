// PeerRedo.cpp — the job "redo": commits as the engine makes them, seen from
// the redo ring.
//
// Each commit raises m_nEndTimestamp of the system head and then appends one
// whole record (head, body, and the trailer for the types that carry one) at
// the write position, split across the end of the area where it falls. The
// ring is never overrun: one byte always stays free, and for room the job
// waits on "Global\TalvorSysLogEmptyEvent" in bounded steps. A burst of
// records is followed by one post of "Global\TalvorSysLogEvent". A seal can
// be forced with m_bFlushFlag 2. The exact stream can be written to a file,
// so that a test can compare it with the logs and their archives.
#include "PeerArgs.h"
#include "PeerClock.h"
#include "PeerJobs.h"
#include "PeerRedo.h"

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
#include <vector>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vRedoOptions = {
    {"records", true, "records to commit (default 1000)"},
    {"size", true, "every record has this many bytes (default: a mix of sizes)"},
    {"max-size", true, "largest record of the mix (default: the ring's data area less one byte)"},
    {"seed", true, "seed of the mix and the bodies (default 1)"},
    {"burst", true, "records between two posts of the ring event (default 16)"},
    {"seal-at", true, "force a seal (m_bFlushFlag 2) after this record (repeatable as a list a,b,c)"},
    {"seal-end", false, "force a seal after the last record"},
    {"out", true, "write the exact stream of records committed to this file, once the run ends"},
    {"timeout", true, "milliseconds to wait for room or for the drain (default 60000)"},
    {"no-drain", false, "do not wait until the daemon has drained the ring"},
    {"rate", true, "commit at most this many records a second, evenly (default: as fast as the ring takes them)"},
    {"commit-times", true, "write \"timestamp microseconds\" (wall clock) of every record as it is committed to this file"},
};

const int RING_HEAD_SIZE = (int)sizeof(FILE_TRACEMEMFILEHEAD);
const UINT ROOM_WAIT_MS = 10;

struct RedoSession {
    LPBYTE m_pRing = nullptr;
    int m_nRingSize = 0;
    HEVENTTYPE m_hLogEvent = nullptr;
    HEVENTTYPE m_hEmptyEvent = nullptr;
    LPSYSTEMFILEHEAD m_pSystemHead = nullptr;
    LPBYTE m_pSystemImage = nullptr;
    long long m_nTimeoutMs = 60000;
    long long m_nBytes = 0;
    long long m_nPosts = 0;
    long long m_nRoomWaits = 0;
    long long m_nResets = 0;
    long long m_nTimestamp = 0;
    unsigned long long m_nRand = 1;
    FILE* m_pOut = nullptr;
    FILE* m_pTimes = nullptr;
    long long m_nRate = 0;

    LPFILE_TRACEMEMFILEHEAD Head() const { return (LPFILE_TRACEMEMFILEHEAD)m_pRing; }
    int DataSize() const { return m_nRingSize - RING_HEAD_SIZE; }
    unsigned long long Next()
    {
        m_nRand ^= m_nRand << 13;
        m_nRand ^= m_nRand >> 7;
        m_nRand ^= m_nRand << 17;
        return m_nRand;
    }
    void Post()
    {
        SetEvent(m_hLogEvent);
        m_nPosts++;
    }
};

int OpenSession(RedoSession& s)
{
    BOOL bExists = FALSE;
    MFID nId = CShareMemory::CreateShareMemory(SHMKEY_REDORING, REDORING_SEGMENT_SIZE_SMALL, SHMNAME_REDORING, bExists);
    // The daemon may have made a larger ring: it is taken as it is.
    if (nId <= 0 && bExists) nId = CShareMemory::OpenShareMemory(SHMKEY_REDORING, SHMNAME_REDORING);
    if (nId <= 0) {
        fprintf(stderr, "talvor-peer: cannot open the redo ring %s: %s\n", SHMNAME_REDORING, strerror(errno));
        return PEER_IPC;
    }
    size_t nSize = CShareMemory::ShareMemorySize(nId);
    s.m_nRingSize = nSize != 0 ? (int)nSize : REDORING_SEGMENT_SIZE_SMALL;
    s.m_pRing = (LPBYTE)CShareMemory::ShMemAttach(nId, nullptr, 0);
    if (s.m_pRing == nullptr || s.m_nRingSize <= RING_HEAD_SIZE + 64) {
        fprintf(stderr, "talvor-peer: cannot attach the redo ring %s: %s\n", SHMNAME_REDORING, strerror(errno));
        return PEER_IPC;
    }
    if (!bExists) TraceRingInitHead(s.m_pRing, s.m_nRingSize, TRACEMEM_FILETYPE_REDO);
    // The head may claim less than the attachment: its own size counts.
    int nTotal = s.Head()->m_nFileTotalSize;
    if (nTotal > RING_HEAD_SIZE + 64 && nTotal < s.m_nRingSize) s.m_nRingSize = nTotal;
    s.m_hLogEvent = CreateEventSem(nullptr, SEMNAME_LOGEVENT);
    s.m_hEmptyEvent = CreateEventSem(nullptr, SEMNAME_LOGEMPTYEVENT);
    if (s.m_hLogEvent == nullptr || s.m_hEmptyEvent == nullptr) {
        fprintf(stderr, "talvor-peer: cannot open the redo events: %s\n", strerror(errno));
        return PEER_IPC;
    }
    // The system head, where commits raise m_nEndTimestamp; without a
    // running database the records still flow.
    MFID nSys = CShareMemory::OpenShareMemory(FileImageShmKey(SYSTEMFILE_FILENO), nullptr);
    if (nSys > 0) s.m_pSystemImage = (LPBYTE)CShareMemory::ShMemAttach(nSys, nullptr, 0);
    if (s.m_pSystemImage != nullptr) {
        s.m_pSystemHead = (LPSYSTEMFILEHEAD)s.m_pSystemImage;
        s.m_nTimestamp = TalvorLoadShared(&s.m_pSystemHead->m_nEndTimestamp);
    } else {
        fprintf(stderr, "talvor-peer: no system file image: m_nEndTimestamp is not raised\n");
    }
    return PEER_OK;
}

// The engine's answer to a writer that gave up on the ring: the ring is reset
// and the flag cleared. What stood in it is lost, and said so.
void ResetRingIfAsked(RedoSession& s)
{
    TalvorFlushCPU4Read();
    if (TalvorLoadShared(&s.Head()->m_bReadException) == REDOREAD_OK) return;
    TalvorStoreShared(&s.Head()->m_nWritePos, RING_HEAD_SIZE);
    TalvorStoreShared(&s.Head()->m_nReadPos, RING_HEAD_SIZE);
    TalvorFlushCPU4Write();
    TalvorStoreShared(&s.Head()->m_bReadException, REDOREAD_OK);
    s.m_nResets++;
    fprintf(stderr, "talvor-peer: the daemon stopped trusting the redo ring: it was reset\n");
}

// Appends all bytes, waiting (bounded) for room.
int AppendBytes(RedoSession& s, const BYTE* p, long long nLen)
{
    long long nDeadline = NowMs() + s.m_nTimeoutMs;
    while (nLen > 0) {
        int n = TraceRingWrite(s.m_pRing, s.m_nRingSize, p, nLen > 0x40000000 ? 0x40000000 : (int)nLen);
        if (n > 0) {
            p += n;
            nLen -= n;
            s.m_nBytes += n;
            continue;
        }
        if (NowMs() > nDeadline) {
            fprintf(stderr, "talvor-peer: the redo ring stayed full for %lld ms (write %d, read %d)\n", s.m_nTimeoutMs,
                    (int)TalvorLoadShared(&s.Head()->m_nWritePos), (int)TalvorLoadShared(&s.Head()->m_nReadPos));
            return PEER_TIMEOUT;
        }
        ResetRingIfAsked(s);
        // What is in the ring is handed over before waiting for room.
        s.Post();
        s.m_nRoomWaits++;
        WaitForSingleObject(s.m_hEmptyEvent, ROOM_WAIT_MS);
    }
    return PEER_OK;
}

// The size of the next record of the mix: mostly small, some of a few
// hundred KiB, now and then anything up to the largest.
long long NextSize(RedoSession& s, long long nFixed, long long nMax, BYTE bType)
{
    long long nMin = RedoRecordHasTrailer(bType) ? EXECUTEPLANHEAD_SIZE + 4 : EXECUTEPLANHEAD_SIZE;
    if (nFixed > 0) return nFixed < nMin ? nMin : nFixed;
    unsigned long long r = s.Next();
    long long nTop;
    switch (r % 100) {
    case 0: case 1: case 2:
        nTop = nMax;
        break;
    case 3: case 4: case 5: case 6: case 7: case 8: case 9: case 10: case 11: case 12:
        nTop = 256 * 1024;
        break;
    default:
        nTop = 4096;
        break;
    }
    if (nTop > nMax) nTop = nMax;
    if (nTop < nMin) return nMin;
    return nMin + (long long)((r >> 8) % (unsigned long long)(nTop - nMin + 1));
}

void BuildRecord(RedoSession& s, std::vector<BYTE>& vRecord, long long nSize, BYTE bType)
{
    vRecord.resize((size_t)nSize);
    for (size_t i = EXECUTEPLANHEAD_SIZE; i + 8 <= vRecord.size(); i += 8) {
        unsigned long long r = s.Next();
        memcpy(&vRecord[i], &r, 8);
    }
    for (size_t i = vRecord.size() & ~(size_t)7; i < vRecord.size(); i++) vRecord[i] = (BYTE)s.Next();
    BASEEXECUTEPLANHEAD stHead;
    memset(&stHead, 0, sizeof(stHead));
    stHead.m_nTotalDataSize = (UINT)nSize;
    stHead.m_nDataFlag = EXECUTEPLAN_DATAFLAG;
    stHead.m_nType = bType;
    stHead.m_bVersion = 1;
    stHead.m_bWriteLog = 1;
    stHead.m_usTransactionNo = (USHORT)(s.Next() & 0xFFFF);
    // Some record kinds carry no timestamp.
    stHead.m_nTimestamp = (bType == 12) ? 0 : ++s.m_nTimestamp;
    memcpy(&vRecord[0], &stHead, sizeof(stHead));
    if (RedoRecordHasTrailer(bType)) {
        UINT nTrailer = REDORECORD_TRAILER;
        memcpy(&vRecord[(size_t)nSize - 4], &nTrailer, 4);
    }
}

// The next record of the run, drawn from the session's generator.
void MakeRecord(RedoSession& s, std::vector<BYTE>& vRecord, long long nFixed, long long nMax)
{
    BYTE bType = (BYTE)(s.Next() % 21);
    BuildRecord(s, vRecord, NextSize(s, nFixed, nMax, bType), bType);
}

// The generator's state: a run's records are a function of it alone.
struct RecordDraw {
    unsigned long long m_nRand;
    long long m_nTimestamp;
};

// Writes the first nRecords records drawn from stFrom to pOut, drawing them
// again: an engine writes no such file, so the commits never wait for it,
// and no copy of the stream is held meanwhile. The session's generator is
// left as it was. Result: false when a write failed.
bool WriteStream(RedoSession& s, FILE* pOut, RecordDraw stFrom, long long nRecords, long long nFixed, long long nMax)
{
    RecordDraw stNow = {s.m_nRand, s.m_nTimestamp};
    s.m_nRand = stFrom.m_nRand;
    s.m_nTimestamp = stFrom.m_nTimestamp;
    std::vector<BYTE> vRecord;
    bool bDone = true;
    for (long long i = 0; bDone && i < nRecords; i++) {
        MakeRecord(s, vRecord, nFixed, nMax);
        bDone = fwrite(vRecord.data(), 1, vRecord.size(), pOut) == vRecord.size();
    }
    s.m_nRand = stNow.m_nRand;
    s.m_nTimestamp = stNow.m_nTimestamp;
    return bDone;
}

// Asks the writer to seal at the next record boundary and waits (bounded)
// until it has taken the request.
int ForceSeal(RedoSession& s)
{
    s.Post();
    long long nDeadline = NowMs() + s.m_nTimeoutMs;
    // Whatever is in the ring goes into the log that is sealed.
    __atomic_store_n(&s.Head()->m_bFlushFlag, (BYTE)REDOFLUSH_SEAL, __ATOMIC_RELEASE);
    s.Post();
    while (__atomic_load_n(&s.Head()->m_bFlushFlag, __ATOMIC_ACQUIRE) == REDOFLUSH_SEAL) {
        if (NowMs() > nDeadline) {
            fprintf(stderr, "talvor-peer: the daemon did not take the seal request within %lld ms\n", s.m_nTimeoutMs);
            return PEER_TIMEOUT;
        }
        usleep(1000);
    }
    return PEER_OK;
}

int WaitForDrain(RedoSession& s)
{
    long long nDeadline = NowMs() + s.m_nTimeoutMs;
    for (;;) {
        TalvorFlushCPU4Read();
        if (TalvorLoadShared(&s.Head()->m_nReadPos) == TalvorLoadShared(&s.Head()->m_nWritePos)) return PEER_OK;
        if (NowMs() > nDeadline) {
            fprintf(stderr, "talvor-peer: the daemon did not drain the redo ring within %lld ms\n", s.m_nTimeoutMs);
            return PEER_TIMEOUT;
        }
        ResetRingIfAsked(s);
        s.Post();
        usleep(5000);
    }
}

std::vector<long long> ParseList(const std::string& strList)
{
    std::vector<long long> v;
    size_t nPos = 0;
    while (nPos < strList.size()) {
        size_t nEnd = strList.find(',', nPos);
        if (nEnd == std::string::npos) nEnd = strList.size();
        v.push_back(atoll(strList.substr(nPos, nEnd - nPos).c_str()));
        nPos = nEnd + 1;
    }
    return v;
}

// With a rate, record i is due i / rate seconds after the first: a steady
// load that does not speed up to catch up after a slow moment beyond that.
void WaitForTurn(const RedoSession& s, long long nFirstUs, long long i)
{
    if (s.m_nRate <= 0) return;
    long long nDue = nFirstUs + (i - 1) * 1000000LL / s.m_nRate;
    long long nNow = WallMicros();
    if (nDue > nNow) usleep((useconds_t)(nDue - nNow));
}

// Commits nRecords records; nCommitted: how many went into the ring.
int Commit(RedoSession& s, long long nRecords, long long nFixed, long long nMax, long long nBurst,
           const std::vector<long long>& vSealAt, long long& nCommitted)
{
    std::vector<BYTE> vRecord;
    int rc = PEER_OK;
    const long long nFirstUs = WallMicros();
    for (long long i = 1; rc == PEER_OK && i <= nRecords; i++) {
        WaitForTurn(s, nFirstUs, i);
        MakeRecord(s, vRecord, nFixed, nMax);
        // The commit is visible before its redo.
        BASEEXECUTEPLANHEAD* pHead = (BASEEXECUTEPLANHEAD*)vRecord.data();
        if (s.m_pSystemHead != nullptr && pHead->m_nTimestamp > TalvorLoadShared(&s.m_pSystemHead->m_nEndTimestamp))
            TalvorStoreShared(&s.m_pSystemHead->m_nEndTimestamp, pHead->m_nTimestamp);
        ResetRingIfAsked(s);
        rc = AppendBytes(s, vRecord.data(), (long long)vRecord.size());
        if (rc != PEER_OK) break;
        nCommitted = i;
        if (i % nBurst == 0) s.Post();
        if (s.m_pTimes != nullptr) WriteTimeLine(s.m_pTimes, (long long)pHead->m_nTimestamp);
        for (long long nAt : vSealAt)
            if (nAt == i) rc = ForceSeal(s);
    }
    s.Post();
    return rc;
}

} // namespace

std::string RedoJobUsage()
{
    return "usage: talvor-peer redo [options]\n"
           "Commits records into the redo ring (" +
           std::string(SHMNAME_REDORING) + ") as the engine does, and posts " + SEMNAME_LOGEVENT +
           ".\n\noptions:\n" + DescribeOptions(g_vRedoOptions);
}

int RunRedoJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    RedoSession s;
    long long nRecords = 0, nSize = 0, nMaxSize = 0, nSeed = 0, nBurst = 0, nTimeout = 0;
    bool bOk = opts.Parse(args, g_vRedoOptions) && opts.GetInt("records", 1000, 0, 1LL << 40, nRecords) &&
               opts.GetInt("size", 0, 0, 0x7FFFFFFF, nSize) && opts.GetInt("max-size", 0, 0, 0x7FFFFFFF, nMaxSize) &&
               opts.GetInt("seed", 1, 1, 0x7FFFFFFFFFFFFFFFLL, nSeed) && opts.GetInt("burst", 16, 1, 1 << 30, nBurst) &&
               opts.GetInt("timeout", 60000, 1, 24LL * 3600 * 1000, nTimeout) &&
               opts.GetInt("rate", 0, 0, 1000000, s.m_nRate);
    if (!bOk) {
        fprintf(stderr, "talvor-peer redo: %s\n%s", opts.Error().empty() ? "bad value" : opts.Error().c_str(),
                RedoJobUsage().c_str());
        return PEER_USAGE;
    }
    s.m_nTimeoutMs = nTimeout;
    s.m_nRand = (unsigned long long)nSeed * 0x9E3779B97F4A7C15ULL | 1;
    int rc = OpenSession(s);
    if (rc != PEER_OK) return rc;
    if (nMaxSize == 0 || nMaxSize > s.DataSize() - 1) nMaxSize = s.DataSize() - 1;
    std::vector<long long> vSealAt = ParseList(opts.GetString("seal-at", ""));
    if (opts.Has("seal-end")) vSealAt.push_back(nRecords);
    if (opts.Has("out")) {
        s.m_pOut = fopen(opts.GetString("out", "").c_str(), "wb");
        if (s.m_pOut == nullptr) {
            fprintf(stderr, "talvor-peer: cannot open the stream file: %s\n", strerror(errno));
            return PEER_INPUT;
        }
    }
    if (opts.Has("commit-times")) {
        s.m_pTimes = fopen(opts.GetString("commit-times", "").c_str(), "w");
        if (s.m_pTimes == nullptr) {
            fprintf(stderr, "talvor-peer: cannot open the times file: %s\n", strerror(errno));
            return PEER_INPUT;
        }
    }
    const RecordDraw stFirst = {s.m_nRand, s.m_nTimestamp};
    long long nStart = NowMs(), nCommitted = 0;
    rc = Commit(s, nRecords, nSize, nMaxSize, nBurst, vSealAt, nCommitted);
    if (rc == PEER_OK && !opts.Has("no-drain")) rc = WaitForDrain(s);
    long long nMs = NowMs() - nStart;
    if (s.m_pOut != nullptr) {
        bool bWritten = WriteStream(s, s.m_pOut, stFirst, nCommitted, nSize, nMaxSize);
        if (!bWritten) fprintf(stderr, "talvor-peer: cannot write the stream file: %s\n", strerror(errno));
        if (fclose(s.m_pOut) != 0 || !bWritten) rc = PEER_INPUT;
    }
    if (s.m_pTimes != nullptr && fclose(s.m_pTimes) != 0) rc = PEER_INPUT;
    printf("redo: records=%lld bytes=%lld ms=%lld posts=%lld roomwaits=%lld resets=%lld lastts=%lld write=%d read=%d "
           "logno=%d logpos=%d exception=%d\n",
           nRecords, s.m_nBytes, nMs, s.m_nPosts, s.m_nRoomWaits, s.m_nResets, s.m_nTimestamp,
           (int)TalvorLoadShared(&s.Head()->m_nWritePos), (int)TalvorLoadShared(&s.Head()->m_nReadPos),
           (int)TalvorLoadShared(&s.Head()->m_nLogNo), (int)TalvorLoadShared(&s.Head()->m_nLogPos),
           (int)TalvorLoadShared(&s.Head()->m_bReadException));
    if (s.m_pSystemImage != nullptr) CShareMemory::ShMemDetach(s.m_pSystemImage);
    CShareMemory::ShMemDetach(s.m_pRing);
    CloseEvent(s.m_hLogEvent);
    CloseEvent(s.m_hEmptyEvent);
    return rc;
}

} // namespace talvorpeer
