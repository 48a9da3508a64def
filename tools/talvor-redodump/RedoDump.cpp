// RedoDump.cpp — one redo file: its head, then its records from offset 50.
//
// A sealed or archived log says how many bytes count; every byte up to there
// must be whole records, and anything else is damage. An open log has no
// such size: its records end where the first bytes that are no record of
// this log stand (zeros of the preallocation, or an older log's records),
// and that is its end, not damage.
#include "RedoDump.h"

#include "MemDBCommonDef.h"
#include "RedoLogFormat.h"
#include "TalvorFileIO.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace talvorredodump {

namespace {

const long long FILETIME_UNIX_EPOCH_SECONDS = 11644473600LL;
const long long FILETIME_TICKS_PER_SECOND = 10000000LL;
const size_t WINDOW_MIN = 1 << 22;

// A read-only window over the file, grown to hold the largest record.
struct RedoReader {
    int m_fd = -1;
    long long m_nFileSize = 0;
    LPBYTE m_lpBuf = nullptr;
    size_t m_nCap = 0;
    long long m_nStart = 0;
    long long m_nLen = 0;

    ~RedoReader()
    {
        free(m_lpBuf);
        if (m_fd >= 0) CTalvorFileIO::Current()->Close(m_fd);
    }
    // The bytes [nPos, nPos + nNeed) (fewer at the end of the file), or null.
    const BYTE* At(long long nPos, long long nNeed, long long* pnHave)
    {
        if (nPos + nNeed > m_nFileSize) nNeed = m_nFileSize - nPos;
        if (nNeed < 0) nNeed = 0;
        if (nPos < m_nStart || nPos + nNeed > m_nStart + m_nLen) {
            size_t nWant = (size_t)nNeed > WINDOW_MIN ? (size_t)nNeed : WINDOW_MIN;
            if (nWant > m_nCap) {
                LPBYTE p = (LPBYTE)realloc(m_lpBuf, nWant);
                if (p == nullptr) return nullptr;
                m_lpBuf = p;
                m_nCap = nWant;
            }
            long long nRead = m_nFileSize - nPos < (long long)m_nCap ? m_nFileSize - nPos : (long long)m_nCap;
            if (nRead > 0 && !TalvorReadFull(m_fd, m_lpBuf, (size_t)nRead, (off_t)nPos)) return nullptr;
            m_nStart = nPos;
            m_nLen = nRead;
        }
        *pnHave = nNeed;
        return m_lpBuf + (nPos - m_nStart);
    }
};

struct RedoStats {
    long long m_nRecords = 0;
    long long m_nBytes = 0;
    long long m_nMinSize = 0, m_nMaxSize = 0;
    long long m_nMinTimestamp = 0, m_nMaxTimestamp = 0;
    long long m_nUntimed = 0;
    long long m_arTypes[256] = {0};

    void Add(const BASEEXECUTEPLANHEAD& st)
    {
        long long nSize = st.m_nTotalDataSize;
        if (m_nRecords == 0 || nSize < m_nMinSize) m_nMinSize = nSize;
        if (nSize > m_nMaxSize) m_nMaxSize = nSize;
        if (st.m_nTimestamp == 0) {
            m_nUntimed++;
        } else {
            if (m_nMinTimestamp == 0 || st.m_nTimestamp < m_nMinTimestamp) m_nMinTimestamp = st.m_nTimestamp;
            if (st.m_nTimestamp > m_nMaxTimestamp) m_nMaxTimestamp = st.m_nTimestamp;
        }
        m_nRecords++;
        m_nBytes += nSize;
        m_arTypes[st.m_nType]++;
    }
};

void FormatFileTime(long long nTicks, char* lpText, size_t nSize)
{
    long long nSeconds = nTicks / FILETIME_TICKS_PER_SECOND - FILETIME_UNIX_EPOCH_SECONDS;
    time_t t = (time_t)nSeconds;
    struct tm stTm;
    if (nTicks <= 0 || nSeconds < 0 || gmtime_r(&t, &stTm) == nullptr) {
        snprintf(lpText, nSize, "filetime %lld", nTicks);
        return;
    }
    snprintf(lpText, nSize, "%04d-%02d-%02d %02d:%02d:%02d UTC", stTm.tm_year + 1900, stTm.tm_mon + 1, stTm.tm_mday,
             stTm.tm_hour, stTm.tm_min, stTm.tm_sec);
}

const char* HeadProblem(int nProblem)
{
    switch (nProblem) {
    case REDOHEAD_FLAG: return "the file does not start with \"TalvorLog\": no redo file";
    case REDOHEAD_VERSION: return "a version this program does not read";
    case REDOHEAD_STATE: return "a group state past 3";
    case REDOHEAD_SIZE: return "a sealed size below the head or past the end of the file";
    default: return "?";
    }
}

void PrintHead(const char* lpszPath, const MF_REDOLOGFILEHEAD& h, long long nFileSize, FILE* pOut)
{
    char szTime[64];
    long long nTicks = 0;
    memcpy(&nTicks, &h.m_ftCreateTime, sizeof(nTicks));
    FormatFileTime(nTicks, szTime, sizeof(szTime));
    fprintf(pOut, "file: %s\n", lpszPath);
    fprintf(pOut, "  log %u, %s (state %d), %u bytes that count of %lld, identity %u, timestamps %lld to %lld, written %s\n",
            h.m_nSequenceNO, RedoGroupStateName(h.m_bState), h.m_bState, h.m_nEffectiveSize, nFileSize,
            (UINT)h.m_usDatabaseGuid, (long long)h.m_nBeginTimestamp, (long long)h.m_nEndTimestamp, szTime);
}

void PrintStats(const RedoStats& s, FILE* pOut)
{
    fprintf(pOut, "  records: %lld, bytes: %lld, sizes %lld to %lld, timestamps %lld to %lld, %lld without timestamp\n",
            s.m_nRecords, s.m_nBytes, s.m_nMinSize, s.m_nMaxSize, s.m_nMinTimestamp, s.m_nMaxTimestamp, s.m_nUntimed);
    fprintf(pOut, "  by type:");
    for (int i = 0; i < 256; i++)
        if (s.m_arTypes[i] != 0) fprintf(pOut, " %d:%lld", i, s.m_arTypes[i]);
    fprintf(pOut, "\n");
}

struct HeldRecord {
    long long m_nPos;
    long long m_nSize;
    BASEEXECUTEPLANHEAD m_stHead;
};

void PrintRecord(const HeldRecord& r, const MF_REDOLOGFILEHEAD& h, bool bStats, RedoStats* pStats, FILE* pOut)
{
    if (!bStats)
        fprintf(pOut, "  log %u at %lld: size %lld, type %d, timestamp %lld, transaction %u\n", h.m_nSequenceNO, r.m_nPos,
                r.m_nSize, r.m_stHead.m_nType, (long long)r.m_stHead.m_nTimestamp, (UINT)r.m_stHead.m_usTransactionNo);
    pStats->Add(r.m_stHead);
}

int Refuse(const char* lpszPath, long long nOffset, const char* lpText, FILE* pOut)
{
    fprintf(pOut, "refused: %s at offset %lld: %s\n", lpszPath, nOffset, lpText);
    return REDODUMP_REFUSED;
}

// The records from 50 to nEnd; REDODUMP_REFUSED (told) on damage in a
// sealed log.
int WalkRecords(RedoReader& r, const char* lpszPath, const MF_REDOLOGFILEHEAD& h, bool bStats, FILE* pOut)
{
    const bool bSealed = h.m_nEffectiveSize != 0;
    const long long nEnd = bSealed ? (long long)h.m_nEffectiveSize : r.m_nFileSize;
    RedoStats s;
    std::vector<HeldRecord> vHeld;
    long long nPos = REDOLOGFILE_HEAD_SIZE;
    char szText[160];
    while (nPos < nEnd) {
        long long nHave = 0;
        const BYTE* lpHead = r.At(nPos, EXECUTEPLANHEAD_SIZE, &nHave);
        if (lpHead == nullptr) return Refuse(lpszPath, nPos, strerror(errno), pOut);
        BASEEXECUTEPLANHEAD st;
        memset(&st, 0, sizeof(st));
        memcpy(&st, lpHead, (size_t)nHave < sizeof(st) ? (size_t)nHave : sizeof(st));
        long long nRecord = REDORECORD_NONE;
        if (nHave == EXECUTEPLANHEAD_SIZE && st.m_nDataFlag == EXECUTEPLAN_DATAFLAG &&
            st.m_nTotalDataSize >= (UINT)EXECUTEPLANHEAD_SIZE) {
            const BYTE* lpRecord = r.At(nPos, st.m_nTotalDataSize, &nHave);
            if (lpRecord == nullptr) return Refuse(lpszPath, nPos, strerror(errno), pOut);
            nRecord = RedoRecordAt(lpRecord, nEnd - nPos < nHave ? nEnd - nPos : nHave);
        } else if (nHave < EXECUTEPLANHEAD_SIZE && bSealed) {
            nRecord = REDORECORD_NOT_WHOLE;
        }
        bool bStale = nRecord > 0 && st.m_nTimestamp != 0 && st.m_nTimestamp < h.m_nBeginTimestamp;
        if (nRecord <= 0 || bStale) {
            if (!bSealed) {
                fprintf(pOut, "  the open log's records end at %lld\n", nPos);
                break;
            }
            if (bStale)
                snprintf(szText, sizeof(szText), "a record of timestamp %lld, older than the log's begin %lld",
                         (long long)st.m_nTimestamp, (long long)h.m_nBeginTimestamp);
            else if (nRecord == REDORECORD_NOT_WHOLE)
                snprintf(szText, sizeof(szText), "a record of %u bytes runs past the sealed end %lld",
                         (UINT)st.m_nTotalDataSize, nEnd);
            else
                snprintf(szText, sizeof(szText), "no record here (mark 0x%08X, size %u, or no trailer)",
                         (UINT)st.m_nDataFlag, (UINT)st.m_nTotalDataSize);
            return Refuse(lpszPath, nPos, szText, pOut);
        }
        // In an open log a record without timestamp proves nothing (a stale
        // one of the group's previous log looks the same): such records are
        // held back until a record with a timestamp of this log follows.
        vHeld.push_back({nPos, nRecord, st});
        if (bSealed || st.m_nTimestamp != 0) {
            for (const HeldRecord& r : vHeld) PrintRecord(r, h, bStats, &s, pOut);
            vHeld.clear();
        }
        nPos += nRecord;
    }
    if (!vHeld.empty())
        fprintf(pOut, "  %zu record%s without timestamp from %lld on not shown: nothing proves %s this log's\n",
                vHeld.size(), vHeld.size() == 1 ? "" : "s", vHeld[0].m_nPos, vHeld.size() == 1 ? "it" : "them");
    if (bStats) PrintStats(s, pOut);
    fprintf(pOut, "  end: %lld records, %lld bytes\n", s.m_nRecords, s.m_nBytes);
    return REDODUMP_WHOLE;
}

} // namespace

int DumpRedoFile(const char* lpszPath, bool bStats, FILE* pOut)
{
    RedoReader r;
    r.m_fd = CTalvorFileIO::Current()->Open(lpszPath, O_RDONLY | O_CLOEXEC, 0);
    struct stat st;
    if (r.m_fd < 0 || CTalvorFileIO::Current()->FStat(r.m_fd, &st) != 0)
        return Refuse(lpszPath, 0, strerror(errno), pOut);
    r.m_nFileSize = (long long)st.st_size;
    MF_REDOLOGFILEHEAD h;
    memset(&h, 0, sizeof(h));
    if (r.m_nFileSize < (long long)sizeof(h) || !TalvorReadFull(r.m_fd, &h, sizeof(h), 0))
        return Refuse(lpszPath, 0, "shorter than a redo file's head of 50 bytes", pOut);
    long long nOffset = 0;
    int nProblem = RedoCheckFileHead(h, r.m_nFileSize, &nOffset);
    if (nProblem != REDOHEAD_OK) return Refuse(lpszPath, nOffset, HeadProblem(nProblem), pOut);
    PrintHead(lpszPath, h, r.m_nFileSize, pOut);
    if (h.m_bState == REDOGROUP_EMPTY && h.m_nSequenceNO == 0) {
        fprintf(pOut, "  no log in this group yet\n");
        return REDODUMP_WHOLE;
    }
    return WalkRecords(r, lpszPath, h, bStats, pOut);
}

} // namespace talvorredodump
