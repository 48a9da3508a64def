// talvor-redodump — every record of redo group and archive files, without
// writing a byte.
//
//   talvor-redodump [--stats] FILE|DIR...
//
// Exit status 0 when every file was read to its end; 1 when a file was
// refused (its line gives the offset of the damage) or a directory held no
// redo file; 2 for a bad command line.
#include "RedoDump.h"

#include <cstdio>

int main(int argc, char** argv)
{
    return talvorredodump::RunRedoDump(argc, argv, stdout, stderr);
}
