// TalvorBackupChain.h — a backup chain: a full backup and the incremental
// backups stacked on it, each naming the one below by its timestamp.
//
// A restore applies every link from the full backup up, so one missing,
// torn or foreign link turns the result into a mixture of two databases or
// two points in time. The rule that binds a link to the one below is kept
// here once, for the daemon's restore and the operator's offline check.
#pragma once

#include "MemDBBackupDef.h"
#include "TalvorBackupVerify.h"
#include "TypeDef.h"

// The levels of a chain have one byte, so a chain has at most this many
// links.
inline constexpr int BACKUP_CHAIN_LINKS_MAX = 256;
// Room for the path of a link in the offline report.
inline constexpr int BACKUP_CHAIN_PATH_MAX = 1024;

// What binds one backup to the one it refers to.
typedef struct _BACKUPLINKFACTS {
    int m_nLevel;
    long long m_nTimestamp;
    long long m_nReferTimestamp;
    USHORT m_usDataBaseGuid;
} BACKUPLINKFACTS;

// How a lower backup fits the one above it.
enum {
    BACKUPLINK_FITS = 0,
    BACKUPLINK_LEVEL = 1,      // not of the level just below
    BACKUPLINK_TIMESTAMP = 2,  // not the timestamp the upper one refers to
    BACKUPLINK_IDENTITY = 3,   // a backup of another database
};

// The facts of a backup head. Any thread; pure.
BACKUPLINKFACTS TalvorBackupLinkFactsOf(const BACKUPFILEHEAD* lpHead);

// BACKUPLINK_FITS when stLower is the backup stUpper stands on: of the level
// just below, with the timestamp stUpper refers to and the same database
// identity; else the first rule it breaks, in the order above. Any thread;
// pure.
int TalvorBackupLinkFault(const BACKUPLINKFACTS& stUpper, const BACKUPLINKFACTS& stLower);

// One link as the offline check found it, top first.
typedef struct _BACKUPCHAINLINK {
    char m_szPath[BACKUP_CHAIN_PATH_MAX];
    int m_nStatus;  // BACKUPVERIFY_*: the link's own verdict, or how it fits the link above
    long long m_nTimestamp;
    long long m_nReferTimestamp;
    int m_nLevel;
} BACKUPCHAINLINK;

// The offline check of a whole chain. About 270 KiB: allocate it.
typedef struct _BACKUPCHAINREPORT {
    int m_nStatus;                               // BACKUPVERIFY_*; the first finding decides
    char m_szFinding[BACKUPVERIFY_FINDING_MAX];  // names the link; "" when whole
    int m_nLinkNum;                              // links looked at, the failing one included
    BACKUPCHAINLINK m_arLink[BACKUP_CHAIN_LINKS_MAX];
} BACKUPCHAINREPORT, *LPBACKUPCHAINREPORT;

// Checks the chain that ends in the backup lpszTopPath: that backup and
// each one below it, found by its name "TalvorBackup<timestamp>.fbk" in the
// same directory, down to the full backup; each must be whole
// (TalvorVerifyBackup) and fit the link above. Returns pReport->m_nStatus:
// BACKUPVERIFY_WHOLE when a restore to the top's timestamp may use the chain.
// Reads only, through CTalvorFileIO. Any thread; no latch held or taken.
int TalvorVerifyBackupChain(const char* lpszTopPath, LPBACKUPCHAINREPORT pReport);
