// PeerJournal.h — the stand-in's record of what it committed, and the check
// of a database's files against it. Header-only, shared with the tests.
//
// A line "C ts fileno blockoffset slot value" is written for each row
// change before the transaction's m_nEndTimestamp is raised, so the journal
// holds every change that any committed timestamp can cover (and perhaps a
// last one that was never committed, which no check requires).
#pragma once

#include "PeerImage.h"

#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace talvorpeer {

struct PeerChange {
    long long m_nTimestamp;
    int m_nFileNo;
    long long m_nBlockOffset;
    int m_nSlot;
    long long m_nValue;
};

inline std::string PeerJournalLine(const PeerChange& c)
{
    char sz[128];
    snprintf(sz, sizeof(sz), "C %lld %d %lld %d %lld\n", c.m_nTimestamp, c.m_nFileNo, c.m_nBlockOffset, c.m_nSlot,
             c.m_nValue);
    return sz;
}

inline std::vector<PeerChange> PeerParseJournal(const std::string& strText)
{
    std::vector<PeerChange> v;
    size_t nPos = 0;
    while (nPos < strText.size()) {
        size_t nEnd = strText.find('\n', nPos);
        if (nEnd == std::string::npos) break;  // a last line cut by a kill
        PeerChange c;
        if (sscanf(strText.c_str() + nPos, "C %lld %d %lld %d %lld", &c.m_nTimestamp, &c.m_nFileNo, &c.m_nBlockOffset,
                   &c.m_nSlot, &c.m_nValue) == 5)
            v.push_back(c);
        nPos = nEnd + 1;
    }
    return v;
}

struct PeerCheckResult {
    long long m_nRequired = 0;    // rows whose committed value must be on disk
    long long m_nViolations = 0;  // of those, not there (or torn)
    long long m_nNewer = 0;       // rows on disk newer than the commit (allowed)
    std::string m_strFirst;       // the first violation, told
};

// lpFiles[n] is file n's bytes (its size in pnSizes[n]), or null. Every row
// whose last change at or before nCommitted is in the journal must hold that
// change, or a later journalled one, whole.
inline PeerCheckResult PeerCheckFiles(const std::vector<PeerChange>& vJournal, long long nCommitted,
                                      const BYTE* const* lpFiles, const long long* pnSizes)
{
    typedef std::tuple<int, long long, int> RowId;
    std::map<RowId, std::map<long long, long long>> mapRows;  // row -> ts -> value
    for (const PeerChange& c : vJournal)
        mapRows[RowId(c.m_nFileNo, c.m_nBlockOffset, c.m_nSlot)][c.m_nTimestamp] = c.m_nValue;
    PeerCheckResult r;
    for (const auto& row : mapRows) {
        int nFileNo = std::get<0>(row.first);
        long long nBlock = std::get<1>(row.first);
        int nSlot = std::get<2>(row.first);
        auto itNeed = row.second.upper_bound(nCommitted);
        if (itNeed == row.second.begin()) continue;  // nothing committed yet
        --itNeed;
        r.m_nRequired++;
        const BYTE* lpFile = nFileNo >= 0 && nFileNo < 256 ? lpFiles[nFileNo] : nullptr;
        long long nTs = 0, nValue = 0;
        int nState = -1;
        if (lpFile != nullptr && PeerRowOffset(nBlock, nSlot) + (long long)sizeof(PEERROW) <= pnSizes[nFileNo])
            nState = PeerReadRow(lpFile, nBlock, nSlot, nFileNo, &nTs, &nValue);
        bool bOk = false;
        if (nState == 1 && nTs >= itNeed->first) {
            auto itHave = row.second.find(nTs);
            bOk = itHave != row.second.end() && itHave->second == nValue;
            if (bOk && nTs > itNeed->first) r.m_nNewer++;
        }
        if (!bOk) {
            if (r.m_nViolations == 0) {
                char sz[256];
                snprintf(sz, sizeof(sz),
                         "file %d block %lld slot %d: needs ts %lld value %lld, disk has state %d ts %lld value %lld",
                         nFileNo, nBlock, nSlot, itNeed->first, itNeed->second, nState, nTs, nValue);
                r.m_strFirst = sz;
            }
            r.m_nViolations++;
        }
    }
    return r;
}

} // namespace talvorpeer
