// InspectTool.h — the offline inspector of a database directory: the system
// head's control data in words, the file list, each file's head and maps;
// with --check every mark, chain and bound, one line per finding; --json
// for scripts. It never writes: every file is opened read-only.
#pragma once

#include <cstdio>

namespace talvorinspect {

// Exit statuses.
inline constexpr int INSPECT_CLEAN = 0;    // read (and with --check, no damage)
inline constexpr int INSPECT_DAMAGE = 1;   // damage found, or the system file unreadable
inline constexpr int INSPECT_USAGE = 2;

struct InspectOptions {
    const char* m_lpszDir = nullptr;   // the database directory, or a system file
    const char* m_lpszIni = nullptr;   // the daemon's ini, or null for the installation's place
    bool m_bCheck = false;
    bool m_bJson = false;
    bool m_bProgress = false;          // progress on pErr when it is a terminal
};

// "talvor-inspect [--check] [--json] [--ini FILE] DIR": the exit status. The report goes
// to pOut, usage errors and progress to pErr; progress only when pErr is a
// terminal. Any thread; holds no latch.
int RunInspectTool(int argc, char** argv, FILE* pOut, FILE* pErr);

// Inspects with the given options; INSPECT_CLEAN or INSPECT_DAMAGE.
int InspectDatabaseDir(const InspectOptions& stOptions, FILE* pOut, FILE* pErr);

} // namespace talvorinspect
