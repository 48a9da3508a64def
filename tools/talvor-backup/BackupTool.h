// BackupTool.h — the operator's tool for backup files. Its one verb,
// verify, reads a backup (or a whole chain of them) through the offline
// verifier and prints what it found and what a restore from it would
// write; it never writes a file.
#pragma once

#include <cstdio>

namespace talvorbackup {

// Exit statuses of the tool.
inline constexpr int BACKUPTOOL_WHOLE = 0;    // a whole backup
inline constexpr int BACKUPTOOL_REFUSED = 1;  // not a backup a restore may use
inline constexpr int BACKUPTOOL_USAGE = 2;    // bad command line

// "talvor-backup verify FILE" and "talvor-backup verify --chain FILE": the
// exit status. Findings go to pOut, usage
// errors to pErr. Any thread; holds no latch.
int RunBackupTool(int argc, char** argv, FILE* pOut, FILE* pErr);

// Verifies lpszPath and prints the report to pOut: BACKUPTOOL_WHOLE or
// BACKUPTOOL_REFUSED.
int VerifyBackupFile(const char* lpszPath, FILE* pOut);

// Verifies the chain that ends in lpszTopPath, one line per link, and
// prints the verdict: BACKUPTOOL_WHOLE or BACKUPTOOL_REFUSED.
int VerifyBackupChain(const char* lpszTopPath, FILE* pOut);

} // namespace talvorbackup
