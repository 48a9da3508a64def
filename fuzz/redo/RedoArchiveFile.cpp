// A group file from outside as the archiver meets it: the start reads the
// group's head and walks the records of a sealed log (sealing it again
// behind its last whole record when they break off), then the archiver
// checks the head of each sealed group and copies the log to its
// destination. Whatever the archiver calls archived must be the whole log:
// the copy holds exactly the group's bytes up to its size, head included,
// and the group is reusable only then.
//
// Input: one group file in the form of FuzzImage.h. Tag A: which group it
// is; tag B bit 0: the group the system file calls current (0 or 1),
// bit 1: no archiving configured (the group is only marked), bit 2: the
// node is a standby (type 3, which never copies).
#include "FuzzImage.h"
#include "FuzzRedo.h"
#include "LogManager.h"

#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <vector>

namespace {

const uint32_t MAX_GROUP_FILE = 65536;
const int RING_DATA = 8192;
const int DES_PATH_ROOM = 1100;  // what PrepareDestinations may grow the list to

std::string ArchiveRoot()
{
    static std::string s_strDir = talvorfuzz::RedoDir() + "arch/";
    return s_strDir;
}

// Each input starts with no archive copies: the numbers the start raises
// past would otherwise depend on the inputs before it.
void RemoveArchiveCopies()
{
    std::string strDir = ArchiveRoot() + "ArchiveLog/";
    DIR* pDir = opendir(strDir.c_str());
    if (pDir == nullptr) return;
    while (struct dirent* pEntry = readdir(pDir))
        if (strcmp(pEntry->d_name, ".") != 0 && strcmp(pEntry->d_name, "..") != 0)
            unlink((strDir + pEntry->d_name).c_str());
    closedir(pDir);
}

std::vector<BYTE> ReadWhole(const std::string& strPath)
{
    std::vector<BYTE> v;
    int fd = open(strPath.c_str(), O_RDONLY);
    if (fd < 0) return v;
    BYTE buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) v.insert(v.end(), buf, buf + n);
    close(fd);
    return v;
}

// A log called archived with a copy: the copy is the group's log, whole.
void CheckCopy(int nGroup, const MF_REDOLOGFILEHEAD& stSealed)
{
    std::string strCopy = ArchiveRoot() + "ArchiveLog/Log" + std::to_string((int)stSealed.m_nSequenceNO) + ".log";
    std::vector<BYTE> vCopy = ReadWhole(strCopy);
    std::vector<BYTE> vGroup = ReadWhole(talvorfuzz::GroupFilePath(nGroup));
    MF_REDOLOGFILEHEAD stCopy;
    if (vCopy.size() != stSealed.m_nEffectiveSize || vCopy.size() < sizeof(stCopy) || vGroup.size() < vCopy.size())
        abort();
    memcpy(&stCopy, vCopy.data(), sizeof(stCopy));
    if (stCopy.m_bState != REDOGROUP_ARCHIVED || stCopy.m_nSequenceNO != stSealed.m_nSequenceNO) abort();
    if (memcmp(vCopy.data(), vGroup.data(), vCopy.size()) != 0) abort();
}

// The archiver's turns over the sealed groups, as its thread takes them
// during a stop (so that a failing copy gives up at once).
void Archive(CTalvorRedoLog& redo, SYSTEMFILEHEAD& stHead)
{
    char szPaths[DES_PATH_ROOM];
    memset(szPaths, 0, sizeof(szPaths));
    memcpy(szPaths, stHead.m_lpArchiveDesPath, sizeof(stHead.m_lpArchiveDesPath));
    char* arDes[REDO_MAX_DESTINATIONS] = {nullptr};
    int nDes = stHead.m_nTalvorArchiveType != 0 ? CTalvorRedoLog::PrepareDestinations(szPaths, arDes) : 0;
    LPBYTE lpBuffer = (LPBYTE)get_aligned_buffer(REDO_ARCHIVE_BUFFER_SIZE);
    if (lpBuffer == nullptr) return;
    TalvorStoreShared(&redo.m_bArchiveExit, TRUE);
    redo.m_nArchiveStopLimitMs = 0;
    void* hFile = nullptr;
    for (int nTurn = 0; nTurn < talvorfuzz::FUZZ_REDO_GROUPS; nTurn++) {
        int nGroup = redo.OldestSealedGroup();
        if (nGroup < 0) break;
        LPTALVORREDOGROUP pGroup = redo.GetGroup(nGroup);
        UINT nLogNo = pGroup->m_nSequenceNO;
        if (!redo.ArchiveGroup(nGroup, arDes, nDes, lpBuffer, hFile)) {
            if (pGroup->m_bState != REDOGROUP_SEALED) abort();  // a failed turn must leave it sealed
            break;
        }
        if (pGroup->m_bState != REDOGROUP_ARCHIVED || hFile != nullptr) abort();
        MF_REDOLOGFILEHEAD stNow;
        std::vector<BYTE> vGroup = ReadWhole(talvorfuzz::GroupFilePath(nGroup));
        if (vGroup.size() < sizeof(stNow)) abort();
        memcpy(&stNow, vGroup.data(), sizeof(stNow));
        if (stNow.m_bState != REDOGROUP_ARCHIVED || stNow.m_nSequenceNO != nLogNo) abort();
        bool bCopied = stHead.m_nTalvorArchiveType != 0 && redo.m_nClusterNodeType != 3 && nDes > 0 &&
                       stNow.m_nEffectiveSize > (UINT)REDOLOGFILE_HEAD_SIZE;
        if (bCopied) CheckCopy(nGroup, stNow);
    }
    free(lpBuffer);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    talvorfuzz::CFuzzImage image(lpData, nSize, 1, MAX_GROUP_FILE, 1);
    if (!image.Ok()) return 0;
    talvorfuzz::RemoveGroupFiles();
    RemoveArchiveCopies();
    int nGroup = image.TagA() % talvorfuzz::FUZZ_REDO_GROUPS;
    if (!image.WriteFile(talvorfuzz::GroupFilePath(nGroup))) return 0;
    // The other groups are there but empty, as after a crash during their
    // making: the start makes them again at once instead of waiting for
    // them to appear.
    for (int g = 0; g < talvorfuzz::FUZZ_REDO_GROUPS; g++)
        if (g != nGroup && !talvorfuzz::WriteFileBytes(talvorfuzz::GroupFilePath(g), "", 0)) return 0;
    int nRingSize = (int)sizeof(FILE_TRACEMEMFILEHEAD) + RING_DATA;
    std::vector<BYTE> vRing((size_t)nRingSize, 0);
    TraceRingInitHead(vRing.data(), nRingSize, TRACEMEM_FILETYPE_REDO);
    talvorfuzz::CFuzzRedo redo;
    SYSTEMFILEHEAD& stHead = redo.Head();
    stHead.m_bCurrentRedoGroup = (BYTE)(image.TagB() & 1);
    stHead.m_nTalvorArchiveType = (image.TagB() & 2) ? 0 : 1;
    snprintf(stHead.m_lpArchiveDesPath, sizeof(stHead.m_lpArchiveDesPath), "%s", ArchiveRoot().c_str());
    if (!redo.Init(vRing.data(), nRingSize)) return 0;
    redo.Redo()->m_nClusterNodeType = (image.TagB() & 4) ? 3 : 0;
    Archive(*redo.Redo(), stHead);
    return 0;
}
