// TalvorRestoreMark.h — the mark of a restore under way, beside the system
// file: "<system file>.restoring".
//
// A restore rewrites every file of a database one after the other. Set
// before the first byte is written and removed only after the last file is
// on the medium, the mark tells a later start that the files on disk may be
// a mixture of the old database and the restored one: such a start is
// refused until the restore is run again to its end.
#pragma once

#include "TypeDef.h"

#include <cstddef>

// The mark's path for the system file lpSystemFile; FALSE when it does not
// fit nSize bytes.
BOOL TalvorRestoreMarkPath(const char* lpSystemFile, char* lpOut, size_t nSize);
// Makes the mark durable (the file and its directory entry). Any thread.
BOOL TalvorSetRestoreMark(const char* lpSystemFile);
// Removes the mark durably; TRUE also when there was none.
BOOL TalvorClearRestoreMark(const char* lpSystemFile);
BOOL TalvorRestoreMarkPresent(const char* lpSystemFile);
