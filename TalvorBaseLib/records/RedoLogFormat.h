// RedoLogFormat.h — reading the redo log's own framing: the head of a group
// or archive file and the records behind it, for every reader of the files
// (the standby threads, the redo dump). Pure functions over bytes; no I/O.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

// What RedoRecordAt says of the bytes at a position.
inline constexpr long long REDORECORD_NOT_WHOLE = 0;  // fewer bytes than the record needs
inline constexpr long long REDORECORD_NONE = -1;      // the bytes are no record

// The record at lpAt with nLeft bytes behind it: its size when it is whole
// and sound (mark, a size of at least its head, and the trailer where its
// type carries one), REDORECORD_NOT_WHOLE when it needs more bytes than
// nLeft, REDORECORD_NONE when it is no record. Any thread.
long long RedoRecordAt(const BYTE* lpAt, long long nLeft);

// What RedoCheckFileHead found wrong, or REDOHEAD_OK.
enum : int {
    REDOHEAD_OK = 0,
    REDOHEAD_FLAG = 1,      // the file does not start with "TalvorLog"
    REDOHEAD_VERSION = 2,   // a version other than REDOLOGFILE_VERSION
    REDOHEAD_STATE = 3,     // a group state past REDOGROUP_ARCHIVED
    REDOHEAD_SIZE = 4,      // a sealed size below the head or past the file
};

// Checks a head read from a file of nFileSize bytes; *pnOffset (may be
// null) receives the offset of the field at fault. Any thread.
int RedoCheckFileHead(const MF_REDOLOGFILEHEAD& stHead, long long nFileSize, long long* pnOffset);
// "empty", "open", "sealed", "archived" or "unknown".
const char* RedoGroupStateName(BYTE bState);
