// TalvorRestoreMark.h — the mark of a restore under way, beside the system
// file: "<system file>.restoring".
//
// A restore rewrites every file of a database one after the other. Set
// before the first byte is written and removed only after the last file is
// on the medium, the mark tells a later start that the files on disk may be
// a mixture of the old database and the restored one: such a start is
// refused until the restore is run again to its end.
//
// By then the database that named the archive is gone, so the mark keeps
// what running the restore again needs: where the chain lies, the point it
// was asked for, and the redo number and identity of the database it
// replaces, which the rebuild after it must not lose.
#pragma once

#include "TypeDef.h"

#include <cstddef>

// The archive destination list, as the system head holds it.
inline constexpr int RESTOREMARK_PATH_SIZE = 512;

// What a mark remembers.
typedef struct _TALVORRESTOREMARK {
    char m_lpArchiveDesPath[RESTOREMARK_PATH_SIZE];
    long long m_nTimestamp;   // the backup the restore was asked to reach
    UINT m_nRedoLogMaxID;     // of the database taken apart for it; 0 unknown
    USHORT m_usDatabaseGuid;  // its identity; 0 unknown
} TALVORRESTOREMARK;

// What reading a mark found.
enum {
    RESTOREMARK_READ = 0,        // read whole, its contents given
    RESTOREMARK_ABSENT = 1,      // no mark
    RESTOREMARK_UNREADABLE = 2,  // there, but it cannot be opened or read
    RESTOREMARK_WRONGSIZE = 3,   // shorter or longer than a mark (torn, or not one)
    RESTOREMARK_DAMAGED = 4,     // of the right size, but its marks or sum are wrong
};

// The mark's path for the system file lpSystemFile; FALSE when it does not
// fit nSize bytes.
BOOL TalvorRestoreMarkPath(const char* lpSystemFile, char* lpOut, size_t nSize);
// Writes stMark as the mark (replacing any older one) and makes it durable:
// the file and its directory entry. Any thread; no latch.
BOOL TalvorSetRestoreMark(const char* lpSystemFile, const TALVORRESTOREMARK& stMark);
// Reads the mark into stMark, never more bytes than a mark has; stMark is
// written only with RESTOREMARK_READ. Any thread; no latch.
int TalvorReadRestoreMark(const char* lpSystemFile, TALVORRESTOREMARK& stMark);
// Removes the mark durably; TRUE also when there was none.
BOOL TalvorClearRestoreMark(const char* lpSystemFile);
BOOL TalvorRestoreMarkPresent(const char* lpSystemFile);
