// What the engine writes for the storage thread, from outside: the command
// record of the channel area, the storage command byte of the system head,
// and the rows of the file list with their file commands. A good database
// made by the maker's builders is brought up, the input is laid over the
// engine's side of it, and the thread's handlers run once each.
//
// Input: byte 0 the storage command, then the command record, then pieces
// (u32 offset, u16 length, bytes) laid on the system image at offset modulo
// the used part of the image.
#include "DbFileLayout.h"
#include "FuzzModule.h"
#include "TalvorCacheStorage.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

const long long DATA_FILE_SIZE = 1048576;

struct Database {
    std::vector<BYTE> m_vSystem;
    std::vector<BYTE> m_vData;
    long long m_nSystemUsed = 0;
    long long m_nDataUsed = 0;
    bool m_bOk = false;
};

FILE_MEMDBFILEINFO Row(BYTE bFileNo, const std::string& strPath, long long nSize)
{
    FILE_MEMDBFILEINFO stRow;
    memset(&stRow, 0, sizeof(stRow));
    stRow.m_bFileNo = bFileNo;
    stRow.m_bFileType = bFileNo;  // 1 system, 2 data
    snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", strPath.c_str());
    snprintf(stRow.m_lpszTablespaceName, sizeof(stRow.m_lpszTablespaceName), "F%d", bFileNo);
    stRow.m_nFileSize = nSize;
    stRow.m_nMaxObjectNum = 64;
    return stRow;
}

const Database& MadeDatabase()
{
    static Database s_db = [] {
        Database db;
        std::string strDir = talvorfuzz::FuzzDir();
        FILE_MEMDBFILEINFO arRows[2] = {Row(1, talvorfuzz::SystemFilePath(), DB_SYSTEMFILE_SIZE),
                                        Row(2, strDir + "F2.dbf", DATA_FILE_SIZE)};
        DBSYSFILEPLAN stSys;
        DBMEMFILEPLAN stData;
        db.m_vSystem.assign((size_t)DB_SYSTEMFILE_SIZE, 0);
        db.m_vData.assign((size_t)DATA_FILE_SIZE, 0);
        db.m_bOk = DbPlanSystemFile(2, DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stSys) &&
                   DbBuildSystemFile(stSys, arRows, 0x77, "Fuzz", strDir.c_str(), db.m_vSystem.data(),
                                     DB_SYSTEMFILE_SIZE) &&
                   DbPlanMemoryFile(FILETYPE_DATA, DATA_FILE_SIZE, 64, DbDefaultBlockSize(FILETYPE_DATA), &stData) &&
                   DbBuildMemoryFile(stData, 2, 0x77, db.m_vData.data(), DATA_FILE_SIZE);
        db.m_nSystemUsed = stSys.m_nFreeOffset;
        db.m_nDataUsed = stData.m_nFreeOffset;
        return db;
    }();
    return s_db;
}

// The used part of each file, and zeros (a hole) to its size: the bytes of
// the made files, written in a fraction of the time.
bool WriteUsed(const std::string& strPath, const std::vector<BYTE>& v, long long nUsed)
{
    return talvorfuzz::WriteFileBytes(strPath, v.data(), (size_t)nUsed) && truncate(strPath.c_str(), (off_t)v.size()) == 0;
}

bool WriteDatabase(const Database& db)
{
    return WriteUsed(talvorfuzz::SystemFilePath(), db.m_vSystem, db.m_nSystemUsed) &&
           WriteUsed(talvorfuzz::FuzzDir() + "F2.dbf", db.m_vData, db.m_nDataUsed);
}

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
    if (!talvorfuzz::ModuleIni()) abort();
    const Database& db = MadeDatabase();
    if (!db.m_bOk) abort();
    if (nSize < 1 + sizeof(TALVORCOMMAND) || !WriteDatabase(db)) return 0;
    std::unique_ptr<CBreltMemStorageModule> pModule(new CBreltMemStorageModule());
    CBreltMemStorageModule& m = *pModule;
    TALVORCRITICALSECTION stCrit;
    InitThreadCritSection(&stCrit);
    HRESULT hr = m.InitSysEnvironment(&stCrit, TRUE, FALSE);
    if (hr == S_OK) hr = m.LoadFile(&stCrit);
    if (hr != S_OK) abort();  // the made database must always come up
    m.m_nBufferSize = 0x100000;
    m.m_lpBuffer = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(0x100000);
    m.m_lpHeadBuf = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(0x100000);
    LPTALVORCOMMAND lpCmd = m.m_pFlashback->GetClusterCommand();
    if (lpCmd != nullptr) memcpy((void*)lpCmd, lpData + 1, sizeof(TALVORCOMMAND));
    LayPieces(m.m_lpSystemFileInfo->m_pFileAddr, db.m_nSystemUsed, lpData + 1 + sizeof(TALVORCOMMAND),
              nSize - 1 - sizeof(TALVORCOMMAND));
    Serve(m, &stCrit, lpData[0]);
    talvortest::ReleaseModuleFiles(m);
    free(m.m_lpBuffer);
    free(m.m_lpHeadBuf);
    return 0;
}
