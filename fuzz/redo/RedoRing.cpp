// The redo ring from outside: its head (sizes, read and write positions,
// log numbers) and the engine's records in it, drained by the writer's
// passes into fresh group files, then the stop. The ring is the input as it
// stands, in a buffer of exactly its size.
#include "FuzzRedo.h"

#include <cstdint>
#include <cstdlib>

namespace {

const size_t MAX_RING = 65536;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    if (nSize < sizeof(FILE_TRACEMEMFILEHEAD) || nSize > MAX_RING) return 0;
    talvorfuzz::RemoveGroupFiles();
    LPBYTE lpRing = (LPBYTE)malloc(nSize);
    if (lpRing == nullptr) return 0;
    memcpy(lpRing, lpData, nSize);
    {
        talvorfuzz::CFuzzRedo redo;
        if (redo.Init(lpRing, (int)nSize)) redo.Run(4, 16);
    }
    free(lpRing);
    return 0;
}
