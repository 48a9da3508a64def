// A group file from outside: the start reads every group's head, follows
// the newest log and walks the records of one left unsealed, sealing it
// behind its last whole record; the writer then goes on from there. The
// input is one group file (tag A: which group it is; tag B: the group the
// system file calls current); the other groups start absent.
#include "FuzzImage.h"
#include "FuzzRedo.h"
#include "LogManager.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

const uint32_t MAX_GROUP_FILE = 65536;
const int RING_DATA = 8192;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::CFuzzImage image(lpData, nSize, 1, MAX_GROUP_FILE, 1);
    if (!image.Ok()) return 0;
    talvorfuzz::RemoveGroupFiles();
    int nGroup = image.TagA() % talvorfuzz::FUZZ_REDO_GROUPS;
    if (!image.WriteFile(talvorfuzz::GroupFilePath(nGroup))) return 0;
    int nRingSize = (int)sizeof(FILE_TRACEMEMFILEHEAD) + RING_DATA;
    std::vector<BYTE> vRing((size_t)nRingSize, 0);
    TraceRingInitHead(vRing.data(), nRingSize, TRACEMEM_FILETYPE_REDO);
    talvorfuzz::CFuzzRedo redo;
    redo.Head().m_bCurrentRedoGroup = (BYTE)(image.TagB() % talvorfuzz::FUZZ_REDO_GROUPS);
    if (redo.Init(vRing.data(), nRingSize)) redo.Run(2, 8);
    return 0;
}
