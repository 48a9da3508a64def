// TalvorBackupFile.h — where a backup file lives and how its head area is
// laid out; shared by the daemon that writes backups, the restore that reads
// them and the operator's tools.
//
// A backup is named by its timestamp, in the directory "Backup/" under the
// first element of the archive destination list. The daemon only ever writes
// inside that directory: a first element that is empty, relative, or longer
// than the 220 characters the name rule allows is refused rather than cut or
// taken relative to the daemon's working directory.
#pragma once

#include "MemDBBackupDef.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

// Longest first element of the destination list that names a backup
// directory.
inline constexpr int BACKUP_DIR_MAX = 220;
// Room for a backup file's full path.
inline constexpr int BACKUP_PATH_MAX = BACKUP_DIR_MAX + 64;

// What TalvorBackupDirectory found.
enum {
    BACKUPDIR_OK = 0,
    BACKUPDIR_EMPTY = -1,     // no first element
    BACKUPDIR_RELATIVE = -2,  // not an absolute path
    BACKUPDIR_TOOLONG = -3,   // longer than BACKUP_DIR_MAX
};

// The backup directory of the list lpArchiveDesPath (at most nPathSize bytes,
// need not be terminated): its first element, "/" added when it lacks one,
// then "Backup/". BACKUPDIR_OK with the directory in lpDir (at least
// BACKUP_PATH_MAX bytes), or the reason it is refused (lpDir then empty).
// Any thread; pure.
int TalvorBackupDirectory(const char* lpArchiveDesPath, int nPathSize, char* lpDir);

// The full path "<directory>TalvorBackup<timestamp>.fbk" into lpPath (at least
// BACKUP_PATH_MAX bytes). BACKUPDIR_OK, or the refusal of the directory.
int TalvorBackupFilePath(const char* lpArchiveDesPath, int nPathSize, long long nTimestamp, char* lpPath);

// A backup's file name starts with this.
inline constexpr char BACKUP_FILE_PREFIX[] = "TalvorBackup";
// A backup is written under its path plus this until it is whole.
inline constexpr char BACKUP_PART_SUFFIX[] = ".part";
// How the name of a backup's part file ends.
inline constexpr char BACKUP_PART_NAME_END[] = ".fbk.part";
// How the name of a finished backup ends.
inline constexpr char BACKUP_NAME_END[] = ".fbk";
// True when the file name lpName (no directory) is BACKUP_FILE_PREFIX,
// something, then lpEnd (BACKUP_NAME_END or BACKUP_PART_NAME_END). Any
// thread; pure.
bool TalvorIsBackupName(const char* lpName, const char* lpEnd);
// The part name of the backup path lpPath into lpPart (at least
// BACKUP_PATH_MAX bytes); a path TalvorBackupFilePath made always fits.
// Any thread; pure.
void TalvorBackupPartPath(const char* lpPath, char* lpPart);

// The sector the writers commit a head area by.
inline constexpr int BACKUP_HEAD_SECTOR = 512;
static_assert(BACKUP_FIXED_HEAD_SIZE + 2 < BACKUP_HEAD_SECTOR, "the first record starts in the first sector");

// Writes the finished head area of a backup over its place-holder, so that
// no power loss leaves a head that reads as whole and is not: every sector
// but the first goes out and is synced, then the first, synced. A sector
// is written whole or not at all, and the first holds the start of the
// first record (its type and number), which no finished backup leaves
// empty: until that sector is on the medium the head reads as the
// place-holder's, which the verifier and the restore refuse, whatever part
// of the rest a power loss kept. Written in one piece, a head cut after its
// first sector could show a later record of an incremental backup with its
// name and without its data range, read as "unchanged". fd: opened for
// direct I/O; lpHeadArea aligned, nHeadSize a multiple of the sector. 0, or
// the errno of the write or sync that failed. Storage thread.
int TalvorCommitBackupHead(int fd, const BYTE* lpHeadArea, int nHeadSize);

// The fixed part of a backup head as both writers start it: marks, sizes,
// the point and origin of the backup and the time now; a full backup's
// level and reference (both zero) are left as the caller cleared them.
// Any thread; pure but for the clock.
void TalvorFillBackupHead(LPBACKUPFILEHEAD lpHead, int nHeadSize, int nFileNum, long long nTimestamp, int nLogNo,
                          int nLogPos, UINT ulLocalIP, USHORT usGuid);

// Now as a FILETIME: 100-nanosecond units since 1601.
FILETIME TalvorBackupTimeNow();
// The same for a given time of the Unix clock.
FILETIME TalvorBackupFileTime(long long nSeconds, long long nMicros);

// The progress record of a backup or a restore: the title shows a file's
// path (a path of 125 characters or more its last 120), the position a
// number of bytes in MiB (capped as every progress total is). A null record
// is left alone. Storage thread.
void TalvorBackupShowTitle(LPTALVORPROGRESS lpProgress, const char* lpszPath);
void TalvorBackupShowPos(LPTALVORPROGRESS lpProgress, long long nBytes);
// Position 0 and the total of nBytes, in MiB.
void TalvorBackupShowTotal(LPTALVORPROGRESS lpProgress, long long nBytes);
