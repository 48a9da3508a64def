// talvor-inspect — looks at a stopped database without writing a byte.
//
//   talvor-inspect [--check] [--json] DIR
//
// Exit status 0 when the system file could be read (and, with --check, no
// damage was found); 1 when it could not, or --check found damage, one
// line per finding; 2 for a bad command line.
#include "InspectTool.h"

#include <cstdio>

int main(int argc, char** argv)
{
    return talvorinspect::RunInspectTool(argc, argv, stdout, stderr);
}
