// TalvorBackupChain.cpp — the link rule and the offline check of a chain.
#include "TalvorBackupChain.h"

#include "TalvorBackupFile.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

int RefuseChain(LPBACKUPCHAINREPORT pReport, int nStatus, const char* lpFormat, ...)
    __attribute__((format(printf, 3, 4)));

int RefuseChain(LPBACKUPCHAINREPORT pReport, int nStatus, const char* lpFormat, ...)
{
    pReport->m_nStatus = nStatus;
    va_list args;
    va_start(args, lpFormat);
    vsnprintf(pReport->m_szFinding, sizeof(pReport->m_szFinding), lpFormat, args);
    va_end(args);
    return nStatus;
}

// The path of the backup nTimestamp beside lpszUpper; FALSE when it does
// not fit the report.
BOOL LowerLinkPath(const char* lpszUpper, long long nTimestamp, char* lpPath)
{
    const char* lpSlash = strrchr(lpszUpper, '/');
    int nDirLen = lpSlash == nullptr ? 0 : (int)(lpSlash - lpszUpper) + 1;
    int n = snprintf(lpPath, BACKUP_CHAIN_PATH_MAX, "%.*sTalvorBackup%lld.fbk", nDirLen, lpszUpper, nTimestamp);
    return n > 0 && n < BACKUP_CHAIN_PATH_MAX;
}

BACKUPLINKFACTS FactsOfReport(const BACKUPVERIFYREPORT& stLink)
{
    BACKUPLINKFACTS st;
    st.m_nLevel = stLink.m_nLevel;
    st.m_nTimestamp = stLink.m_nTimestamp;
    st.m_nReferTimestamp = stLink.m_nReferTimestamp;
    st.m_usDataBaseGuid = stLink.m_usDataBaseGuid;
    return st;
}

const char* LinkFaultText(int nFault)
{
    switch (nFault) {
    case BACKUPLINK_LEVEL: return "is not of the level just below";
    case BACKUPLINK_TIMESTAMP: return "does not carry the timestamp the backup above refers to";
    case BACKUPLINK_IDENTITY: return "is a backup of another database";
    default: return "fits";
    }
}

// Verifies link nLink at its path in the report; the chain's status.
int VerifyLink(LPBACKUPCHAINREPORT pReport, int nLink, LPBACKUPVERIFYREPORT pScratch)
{
    BACKUPCHAINLINK& stLink = pReport->m_arLink[nLink];
    pReport->m_nLinkNum = nLink + 1;
    int nStatus = TalvorVerifyBackup(stLink.m_szPath, pScratch);
    stLink.m_nStatus = nStatus;
    stLink.m_nTimestamp = pScratch->m_nTimestamp;
    stLink.m_nReferTimestamp = pScratch->m_nReferTimestamp;
    stLink.m_nLevel = pScratch->m_nLevel;
    if (nStatus == BACKUPVERIFY_WHOLE) return BACKUPVERIFY_WHOLE;
    // A lower link that cannot be opened because it is not there is a gap
    // in the chain, not a damaged file.
    if (nLink > 0 && pScratch->m_nOpenErrno == ENOENT) {
        stLink.m_nStatus = BACKUPVERIFY_MISSINGLINK;
        return RefuseChain(pReport, BACKUPVERIFY_MISSINGLINK, "link %d: %s is missing", nLink, stLink.m_szPath);
    }
    return RefuseChain(pReport, nStatus, "link %d: %s: %s", nLink, stLink.m_szPath, pScratch->m_szFinding);
}

int WalkChain(const char* lpszTopPath, LPBACKUPCHAINREPORT pReport, LPBACKUPVERIFYREPORT pScratch)
{
    if (snprintf(pReport->m_arLink[0].m_szPath, BACKUP_CHAIN_PATH_MAX, "%s", lpszTopPath) >= BACKUP_CHAIN_PATH_MAX)
        return RefuseChain(pReport, BACKUPVERIFY_UNREADABLE, "the path %.64s... is too long", lpszTopPath);
    BACKUPLINKFACTS stUpper = {};
    // Each link is one level below the one above and the top has at most
    // BACKUP_CHAIN_LINKS_MAX - 1, so the walk ends at a full backup or
    // refuses within the report's room.
    for (int nLink = 0; nLink < BACKUP_CHAIN_LINKS_MAX; nLink++) {
        if (VerifyLink(pReport, nLink, pScratch) != BACKUPVERIFY_WHOLE) return pReport->m_nStatus;
        BACKUPLINKFACTS stLower = FactsOfReport(*pScratch);
        int nFault = nLink == 0 ? BACKUPLINK_FITS : TalvorBackupLinkFault(stUpper, stLower);
        if (nFault != BACKUPLINK_FITS) {
            pReport->m_arLink[nLink].m_nStatus = BACKUPVERIFY_BADLINK;
            return RefuseChain(pReport, BACKUPVERIFY_BADLINK, "link %d: %s %s (level %d, timestamp %lld)", nLink,
                               pReport->m_arLink[nLink].m_szPath, LinkFaultText(nFault), stLower.m_nLevel,
                               stLower.m_nTimestamp);
        }
        if (stLower.m_nLevel == BACKUPLEVEL_FULL) return BACKUPVERIFY_WHOLE;
        if (nLink + 1 == BACKUP_CHAIN_LINKS_MAX) break;
        if (!LowerLinkPath(pReport->m_arLink[nLink].m_szPath, stLower.m_nReferTimestamp,
                           pReport->m_arLink[nLink + 1].m_szPath))
            return RefuseChain(pReport, BACKUPVERIFY_UNREADABLE, "link %d: its path is too long", nLink + 1);
        stUpper = stLower;
    }
    return RefuseChain(pReport, BACKUPVERIFY_BADLINK, "the chain has more than %d links", BACKUP_CHAIN_LINKS_MAX);
}

} // namespace

BACKUPLINKFACTS TalvorBackupLinkFactsOf(const BACKUPFILEHEAD* lpHead)
{
    BACKUPLINKFACTS st;
    st.m_nLevel = lpHead->m_bLevel;
    st.m_nTimestamp = lpHead->m_nTimestamp;
    st.m_nReferTimestamp = lpHead->m_nReferTimestamp;
    st.m_usDataBaseGuid = lpHead->m_usDataBaseGuid;
    return st;
}

int TalvorBackupLinkFault(const BACKUPLINKFACTS& stUpper, const BACKUPLINKFACTS& stLower)
{
    if (stLower.m_nLevel != stUpper.m_nLevel - 1) return BACKUPLINK_LEVEL;
    if (stLower.m_nTimestamp != stUpper.m_nReferTimestamp) return BACKUPLINK_TIMESTAMP;
    if (stLower.m_usDataBaseGuid != stUpper.m_usDataBaseGuid) return BACKUPLINK_IDENTITY;
    return BACKUPLINK_FITS;
}

int TalvorVerifyBackupChain(const char* lpszTopPath, LPBACKUPCHAINREPORT pReport)
{
    memset(pReport, 0, sizeof(*pReport));
    pReport->m_nStatus = BACKUPVERIFY_WHOLE;
    LPBACKUPVERIFYREPORT pScratch = new (std::nothrow) BACKUPVERIFYREPORT;
    if (pScratch == nullptr) return RefuseChain(pReport, BACKUPVERIFY_NOMEMORY, "no memory for a link's report");
    int nStatus = WalkChain(lpszTopPath, pReport, pScratch);
    delete pScratch;
    return nStatus;
}
