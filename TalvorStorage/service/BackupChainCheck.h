// BackupChainCheck.h — what a restore believes of a backup file before it
// uses a byte of it.
//
// A backup file is input from outside: a cut copy, a file of another chain
// or a damaged one must never steer a read or a write. Every offset and
// length a restore takes from a backup is checked here against the backup's
// size, its record and its page, and the same checks run twice: once over
// the whole chain before the running database is removed, and again at
// each use, so that no path of the restore depends on the first pass alone.
//
// Every refusal is traced where it is found; callers only pass FALSE on.
#pragma once

#include "MemDBBackupDef.h"
#include "TalvorBackupChain.h"
#include "TypeDef.h"

class CTalvorDirectFile;

// The levels of a chain have one byte.
inline constexpr int BACKUP_CHAIN_LEVELS = BACKUP_CHAIN_LINKS_MAX;
// A database file larger than this is taken for a damaged size: a restore
// would otherwise fill terabytes of zeros.
inline constexpr long long BACKUP_RESTORE_FILE_MAX = 1LL << 40;
// A backup lists at most one record per file number.
inline constexpr int BACKUP_RECORDS_MAX = 256;

// A chain checked link by link: m_arTimestamp[i] is the backup of level i,
// up to m_nTopLevel; m_szSystemFile the path of the system file its full
// backup restores (its first record), where the restore mark goes.
typedef struct _BACKUPCHAIN {
    int m_nTopLevel;
    long long m_arTimestamp[BACKUP_CHAIN_LEVELS];
    char m_szSystemFile[sizeof(((STRUCT_BACKUP_FILEINFO*)nullptr)->m_lpszFilePath)];
} BACKUPCHAIN, *LPBACKUPCHAIN;

// Reads the head area of pFile into a new aligned buffer (lpHeadArea, which
// the caller frees, also after FALSE) and checks its fixed part: marks,
// version, the size rule of the head area, the count of records, a level-0
// head without a reference and an incremental one with an older one, and
// the name nTimestamp. TRUE when all hold. Any thread; no latch.
BOOL TalvorReadBackupHead(CTalvorDirectFile* pFile, long long nTimestamp, LPBYTE& lpHeadArea);

// Checks every record of a head that passed TalvorReadBackupHead: paths,
// sizes, data ranges inside the backup, and for an incremental backup every
// page chain and item (read through lpPage, BACKUP_INCREMENT_PAGE_SIZE
// bytes). TRUE when all hold. Any thread; no latch.
BOOL TalvorCheckBackupRecords(CTalvorDirectFile* pFile, const BACKUPFILEHEAD* lpHead, LPBYTE lpPage);

// One page of an incremental record read from nPagePos: mark, size, count of
// items, a next page that lies further on inside the record's data, and
// every item inside the record's data and its target file. TRUE when all
// hold. Any thread; pure.
BOOL TalvorCheckIncrementPage(const BACKUPFILEHEAD* lpHead, int nRecord, long long nPagePos,
                              const BACKUPINCREMENTHEAD* lpPageHead);

// lpLower, the head of the backup that lpUpper names by its reference, is
// of the level just below, carries that timestamp and the same database
// identity. TRUE when it fits (traced otherwise). Any thread; pure.
BOOL TalvorCheckBackupLinkOrder(const BACKUPFILEHEAD* lpUpper, const BACKUPFILEHEAD* lpLower);

// Traces that the backup nTimestamp, expected at nExpected, is of level
// nActual. Any thread.
void TalvorTraceBackupLevel(const char* lpFunction, int nExpected, long long nTimestamp, int nActual);
