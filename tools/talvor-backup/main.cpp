// talvor-backup — looks into backup files without touching them.
//
//   talvor-backup verify FILE
//   talvor-backup verify --chain FILE
//
// Exit status 0 only for a whole backup (full, or incremental with its own
// pages whole: the backups below it are not looked at) or, with --chain, a
// whole chain down to its full backup; 1 otherwise; 2 for a bad command
// line.
#include "BackupTool.h"

#include <cstdio>

int main(int argc, char** argv)
{
    return talvorbackup::RunBackupTool(argc, argv, stdout, stderr);
}
