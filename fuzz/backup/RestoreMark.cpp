// The mark a restore that did not finish left beside the system file, from
// outside: a torn or damaged mark, or a file of another kind under its name,
// is read no further than a mark goes, and is given back only whole. What a
// read gives holds together: written again as a mark, it reads back the
// same, and only a file of exactly a mark's size is ever read whole.
//
// Input: the mark file's bytes. The seeds are marks as the restore writes
// them (fuzz/MakeSeeds.cpp).
#include "FuzzFiles.h"
#include "TalvorRestoreMark.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

const std::string& SystemPath()
{
    static std::string s_strPath = talvorfuzz::RamDir() + "System.dbf";
    return s_strPath;
}

bool SameMark(const TALVORRESTOREMARK& a, const TALVORRESTOREMARK& b)
{
    return memcmp(a.m_lpArchiveDesPath, b.m_lpArchiveDesPath, sizeof(a.m_lpArchiveDesPath)) == 0 &&
           a.m_nTimestamp == b.m_nTimestamp && a.m_nRedoLogMaxID == b.m_nRedoLogMaxID &&
           a.m_usDatabaseGuid == b.m_usDatabaseGuid;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    const std::string strMark = SystemPath() + ".restoring";
    if (!talvorfuzz::WriteFileBytes(strMark, lpData, nSize)) abort();
    TALVORRESTOREMARK stMark;
    memset(&stMark, 0x5A, sizeof(stMark));
    int nRead = TalvorReadRestoreMark(SystemPath().c_str(), stMark);
    if (nRead < RESTOREMARK_READ || nRead > RESTOREMARK_DAMAGED) abort();
    if (nRead != RESTOREMARK_READ) return 0;
    // A whole mark is a file of one size only: what the writer makes.
    static size_t s_nMarkSize = [] {
        TALVORRESTOREMARK stAny;
        memset(&stAny, 0, sizeof(stAny));
        const std::string strProbe = talvorfuzz::RamDir() + "Probe.dbf";
        if (!TalvorSetRestoreMark(strProbe.c_str(), stAny)) abort();
        struct stat st;
        if (stat((strProbe + ".restoring").c_str(), &st) != 0) abort();
        TalvorClearRestoreMark(strProbe.c_str());
        return (size_t)st.st_size;
    }();
    if (nSize != s_nMarkSize) abort();
    // Written again, it reads back the same.
    if (!TalvorSetRestoreMark(SystemPath().c_str(), stMark)) abort();
    TALVORRESTOREMARK stAgain;
    memset(&stAgain, 0, sizeof(stAgain));
    if (TalvorReadRestoreMark(SystemPath().c_str(), stAgain) != RESTOREMARK_READ || !SameMark(stMark, stAgain)) abort();
    return 0;
}
