// What the engine writes for the storage thread, from outside: the command
// record of the channel area, the storage command byte of the system head,
// and the rows of the file list with their file commands. A good database
// made by the maker's builders is brought up, the input is laid over the
// engine's side of it, and the thread's handlers run once each.
//
// Input: byte 0 the storage command, then the command record, then pieces
// (u32 offset, u16 length, bytes) laid on the system image at offset modulo
// the used part of the image.
#include "FuzzKeptModule.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

void LayPieces(LPBYTE lpImage, long long nUsed, const uint8_t* p, size_t n)
{
    size_t nAt = 0;
    while (nAt + 6 <= n) {
        uint32_t nOffset = (uint32_t)p[nAt] | ((uint32_t)p[nAt + 1] << 8) | ((uint32_t)p[nAt + 2] << 16) |
                           ((uint32_t)p[nAt + 3] << 24);
        size_t nLength = (size_t)p[nAt + 4] | ((size_t)p[nAt + 5] << 8);
        nAt += 6;
        if (nLength > n - nAt) nLength = n - nAt;
        long long nAtImage = (long long)(nOffset % (uint32_t)nUsed);
        if ((long long)nLength > nUsed - nAtImage) nLength = (size_t)(nUsed - nAtImage);
        memcpy(lpImage + nAtImage, p + nAt, nLength);
        nAt += nLength;
    }
}

void Serve(CBreltMemStorageModule& m, LPTALVORCRITICALSECTION lpCrit, BYTE bStorageCmd)
{
    LPTALVORCOMMAND lpCmd = m.m_pFlashback->GetClusterCommand();
    UINT nRedoLogMaxID = m.m_pMemoryFileHead->m_nRedoLogMaxID;
    if (lpCmd != nullptr && lpCmd->m_bCommandType != 0) m.ClusterCommand(lpCrit, lpCmd, nullptr, nRedoLogMaxID);
    if (bStorageCmd & 1) m.FileCMD(lpCrit);
    if (bStorageCmd & 2) m.RunSavePass(lpCrit, (bStorageCmd & 4) ? TRUE : FALSE, 0, nRedoLogMaxID);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static talvorfuzz::CKeptModule s_module;
    if (!talvorfuzz::ModuleIni()) abort();
    const talvorfuzz::MadeFiles& db = talvorfuzz::MadeDatabase();
    if (!db.m_bOk) abort();
    if (nSize < 1 + sizeof(TALVORCOMMAND)) return 0;
    CBreltMemStorageModule& m = s_module.Ready(db);
    LPTALVORCOMMAND lpCmd = m.m_pFlashback->GetClusterCommand();
    if (lpCmd != nullptr) memcpy((void*)lpCmd, lpData + 1, sizeof(TALVORCOMMAND));
    LayPieces(m.m_lpSystemFileInfo->m_pFileAddr, db.m_nSystemUsed, lpData + 1 + sizeof(TALVORCOMMAND),
              nSize - 1 - sizeof(TALVORCOMMAND));
    Serve(m, s_module.Crit(), lpData[0]);
    s_module.After();
    return 0;
}
