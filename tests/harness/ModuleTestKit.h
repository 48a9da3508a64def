// ModuleTestKit.h — helpers for tests that drive the module object directly.
#pragma once

#include "BreltMemStorage.h"

namespace talvortest {

// Gives back what a started module holds — file list, system file, flashback
// object — as FreeData does, without its trace and configuration steps.
void ReleaseModuleFiles(CBreltMemStorageModule& m);

} // namespace talvortest
