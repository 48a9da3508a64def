// TalvorBackupVerify.h — the offline check of a backup file: is it whole,
// and what would a restore from it write?
//
// A backup is written head area first as a place-holder (records all
// zero), then the copied files (a full backup) or the chained pages and
// pieces of the changed files (an incremental one), then the head area again
// with the records filled in. A file cut anywhere in that course, or a head
// torn while it was rewritten, must never pass for a backup: a restore from
// it would write files that look like a database and are not one. The
// verifier therefore accepts a file only when the head, every record, every
// page and the marks of what was copied agree with one another and with the
// length of the file.
//
// It reads through CTalvorFileIO only and writes nothing, holds no latch,
// keeps no state between calls and may run on any thread, the daemon's
// included. Memory use is bounded by the largest head area (256 records)
// and one page, whatever the size of the backup.
#pragma once

#include "MemDBBackupDef.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

// What the verifier found; the first finding decides.
enum {
    BACKUPVERIFY_WHOLE = 0,        // a whole backup
    BACKUPVERIFY_UNREADABLE = 1,   // cannot be opened or read
    BACKUPVERIFY_TRUNCATED = 2,    // shorter than its head or its records say
    BACKUPVERIFY_BADHEAD = 3,      // fixed part of the head is not a backup head
    BACKUPVERIFY_UNFINISHED = 4,   // a record is still zero: place-holder or torn head
    BACKUPVERIFY_BADRECORD = 5,    // a record out of bounds or at odds with another
    BACKUPVERIFY_BADMARK = 6,      // a copied head, map or block is not what its record or item says
    BACKUPVERIFY_BADPAGE = 7,      // an incremental backup's page or item out of place
    BACKUPVERIFY_NOMEMORY = 8,     // the head area could not be allocated
    // Of a chain only (TalvorBackupChain.h):
    BACKUPVERIFY_MISSINGLINK = 9,  // the backup a link refers to is not there
    BACKUPVERIFY_BADLINK = 10,     // a link of another level, timestamp or database
};

// Longest finding text, terminator included.
inline constexpr int BACKUPVERIFY_FINDING_MAX = 512;

// One file a restore from the backup would write.
typedef struct _BACKUPRESTOREITEM {
    char m_lpszFilePath[256];
    BYTE m_bFileNo;
    BYTE m_bFileType;
    long long m_nFileSize;       // size the restored file gets (zero past the copy)
    long long m_nCopiedSize;     // bytes taken from the backup into the file
    int m_nPieceNum;             // pieces written: 1 for a full copy, the items of an increment
    long long m_nHeadTimestamp;  // m_nTimestamp of the copied head; 0 with no copy
} BACKUPRESTOREITEM, *LPBACKUPRESTOREITEM;

// The verifier's answer. About 75 KiB: allocate it, do not put it on a
// thread's stack.
typedef struct _BACKUPVERIFYREPORT {
    int m_nStatus;                                   // BACKUPVERIFY_*
    char m_szFinding[BACKUPVERIFY_FINDING_MAX];      // the first finding; "" when whole
    long long m_nBackupFileSize;                     // length of the backup file; -1 unknown
    int m_nOpenErrno;                                // errno of a failed open; 0 once open
    // From the fixed head, valid once it carried the marks of a backup head
    // (m_bHeadKnown); its sizes may still be refused.
    BOOL m_bHeadKnown;
    long long m_nTimestamp;
    long long m_nReferTimestamp;
    int m_nLevel;
    int m_nLogNo;
    int m_nLogPos;
    int m_nFileNum;
    int m_nHeadSize;
    USHORT m_usDataBaseGuid;
    FILETIME m_ftBackupTime;
    // Files a restore would write, in record order. With a refusal, the
    // records checked before the finding.
    int m_nItemNum;
    BACKUPRESTOREITEM m_arItem[MAX_FILE_NUM];
} BACKUPVERIFYREPORT, *LPBACKUPVERIFYREPORT;

// Checks the backup file lpszPath and fills *pReport (every field reset
// first). Returns pReport->m_nStatus: BACKUPVERIFY_WHOLE only for a whole
// backup — a full one, or an incremental one whose pages and pieces all
// hold together (whether the backups below it exist is not looked at). Reads
// the head area whole, one head per full copy, and of an incremental backup
// each page and the first bytes of each piece; never writes. Any thread,
// no latch held or taken.
int TalvorVerifyBackup(const char* lpszPath, LPBACKUPVERIFYREPORT pReport);

// The name of a status for messages ("whole", "truncated", ...).
const char* TalvorBackupVerifyStatusName(int nStatus);
