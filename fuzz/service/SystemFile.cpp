// The system file from outside: the start's checks of its head and its file
// list (both chains, every block, every row), then the refusals of the
// files the list names before any of them is loaded.
#include "FuzzImage.h"
#include "FuzzModule.h"

#include <cstdint>
#include <memory>

namespace {

// The maker's system file is 4 MiB; its head, maps and list lie in the
// first 256 KiB, the rest is zeros.
const uint32_t MAX_IMAGE = 4 * 1048576;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    if (!talvorfuzz::ModuleIni()) abort();
    talvorfuzz::CFuzzImage image(lpData, nSize, 512, MAX_IMAGE);
    if (!image.Ok() || !image.WriteFile(talvorfuzz::SystemFilePath())) return 0;
    std::unique_ptr<CBreltMemStorageModule> pModule(new CBreltMemStorageModule());
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    if (pModule->InitSysEnvironment(&stCrit, TRUE, FALSE) == S_OK) pModule->LoadFile(&stCrit);
    talvortest::ReleaseModuleFiles(*pModule);
    return 0;
}
