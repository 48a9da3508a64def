// TalvorStorageDef.cpp — the settings every subsystem of the daemon reads.
#include "TalvorStorageDef.h"

int g_nWriteBlockLog = 0;
int g_nForceFlushLog = 0;
int g_nCluster = 0;
int g_nNodeIdentity = 0;
