// TalvorBackupVerifyCore.h — the pieces the verifier's two halves share: the
// record checks of the head area (TalvorBackupVerify.cpp) and the walk of
// an incremental backup's pages (TalvorBackupVerifyIncrement.cpp). Not for
// callers outside the verifier. Every function runs on the verifying thread,
// holds no latch and reports through the report it is given; each returns
// the report's status, BACKUPVERIFY_WHOLE while nothing was found.
#pragma once

#include "TalvorBackupVerify.h"

// Records the first finding; later ones leave it standing.
int BackupVerifyRefuse(LPBACKUPVERIFYREPORT pReport, int nStatus, const char* lpFormat, ...)
    __attribute__((format(printf, 3, 4)));

// Reads nSize bytes at nOffset of the backup; past the end of the file the
// backup is cut (TRUNCATED), a failed read is UNREADABLE.
int BackupVerifyRead(int fd, void* lpBuf, long long nSize, long long nOffset, const char* lpWhat,
                     LPBACKUPVERIFYREPORT pReport);

// The copy of a database file's head at nOffset: the mark of the record's
// type, its number and type, its total size. Fills the restore item's head
// timestamp (pItem may be null).
int BackupVerifyCopiedHead(int fd, const STRUCT_BACKUP_FILEINFO& stRecord, long long nOffset,
                           LPBACKUPRESTOREITEM pItem, LPBACKUPVERIFYREPORT pReport);

// The pages of a changed file in an incremental backup, from the record's
// data start to its data end, with the marks of every copied piece. Fills
// the restore item's pieces and bytes.
int BackupVerifyIncrementFile(int fd, const STRUCT_BACKUP_FILEINFO& stRecord, int nIndex,
                              LPBACKUPRESTOREITEM pItem, LPBACKUPVERIFYREPORT pReport);
