// The daemon takes no arguments and always ends with status 0: a refusal to
// start is told in the trace log, not by the exit status.
#include "BreltMemStorage.h"

int main() { return RunTalvorStorage(); }
