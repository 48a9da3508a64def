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

// A backup is written under its path plus this until it is whole.
inline constexpr char BACKUP_PART_SUFFIX[] = ".part";
// The part name of the backup path lpPath into lpPart (at least
// BACKUP_PATH_MAX bytes); a path TalvorBackupFilePath made always fits.
// Any thread; pure.
void TalvorBackupPartPath(const char* lpPath, char* lpPart);

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
