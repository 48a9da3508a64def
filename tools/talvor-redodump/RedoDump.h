// RedoDump.h — the operator's dump of redo group and archive files: every
// record with its position, size, type and timestamp, or with --stats a
// summary per file. A damaged file is refused with the offset of the damage.
// It never writes: every file is opened read-only.
#pragma once

#include <cstdio>

namespace talvorredodump {

inline constexpr int REDODUMP_WHOLE = 0;    // every file read to its end
inline constexpr int REDODUMP_REFUSED = 1;  // a file was damaged (or none was found)
inline constexpr int REDODUMP_USAGE = 2;

// "talvor-redodump [--stats] FILE|DIR...": the exit status. The dump goes to
// pOut, usage errors to pErr. Any thread; holds no latch.
int RunRedoDump(int argc, char** argv, FILE* pOut, FILE* pErr);

// Dumps one file; REDODUMP_WHOLE or REDODUMP_REFUSED.
int DumpRedoFile(const char* lpszPath, bool bStats, FILE* pOut);

} // namespace talvorredodump
