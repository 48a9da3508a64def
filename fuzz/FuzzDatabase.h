// FuzzDatabase.h — a good database of two files (system and one data file)
// made once per process by the maker's builders, written again before each
// input, for the targets that bring a module up and lay the engine's side
// over it.
#pragma once

#include "DbFileLayout.h"
#include "FuzzFiles.h"

#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace talvorfuzz {

inline constexpr long long FUZZ_DATA_FILE_SIZE = 1048576;

struct MadeFiles {
    std::vector<BYTE> m_vSystem;
    std::vector<BYTE> m_vData;
    long long m_nSystemUsed = 0;
    long long m_nDataUsed = 0;
    bool m_bOk = false;
};

inline constexpr const char* FUZZ_SYSTEM_FILE = "System.dbf";  // SystemFilePath() of FuzzModule.h
inline constexpr const char* FUZZ_DATA_FILE = "F2.dbf";
inline constexpr BYTE FUZZ_DATA_FILENO = 2;

inline std::string DataFilePath() { return FuzzDir() + FUZZ_DATA_FILE; }

inline FILE_MEMDBFILEINFO MadeRow(BYTE bFileNo, const std::string& strPath, long long nSize)
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

// The two files as the maker's builders make them for a database in strDir
// (the file list names the files there).
inline MadeFiles BuildMadeFiles(const std::string& strDir)
{
    MadeFiles db;
    FILE_MEMDBFILEINFO arRows[2] = {MadeRow(SYSTEMFILE_FILENO, strDir + FUZZ_SYSTEM_FILE, DB_SYSTEMFILE_SIZE),
                                    MadeRow(FUZZ_DATA_FILENO, strDir + FUZZ_DATA_FILE, FUZZ_DATA_FILE_SIZE)};
    DBSYSFILEPLAN stSys;
    DBMEMFILEPLAN stData;
    db.m_vSystem.assign((size_t)DB_SYSTEMFILE_SIZE, 0);
    db.m_vData.assign((size_t)FUZZ_DATA_FILE_SIZE, 0);
    db.m_bOk = DbPlanSystemFile(2, DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stSys) &&
               DbBuildSystemFile(stSys, arRows, 0x77, "Fuzz", strDir.c_str(), db.m_vSystem.data(), DB_SYSTEMFILE_SIZE) &&
               DbPlanMemoryFile(FILETYPE_DATA, FUZZ_DATA_FILE_SIZE, 64, DbDefaultBlockSize(FILETYPE_DATA), &stData) &&
               DbBuildMemoryFile(stData, FUZZ_DATA_FILENO, 0x77, db.m_vData.data(), FUZZ_DATA_FILE_SIZE);
    db.m_nSystemUsed = stSys.m_nFreeOffset;
    db.m_nDataUsed = stData.m_nFreeOffset;
    return db;
}

// Made once per process, in the fuzz directory.
inline const MadeFiles& MadeDatabase()
{
    static MadeFiles s_db = BuildMadeFiles(FuzzDir());
    return s_db;
}

// The used part of each file, and zeros (a hole) to its size: the bytes of
// the made files, written in a fraction of the time.
inline bool WriteUsed(const std::string& strPath, const std::vector<BYTE>& v, long long nUsed)
{
    return WriteFileBytes(strPath, v.data(), (size_t)nUsed) && truncate(strPath.c_str(), (off_t)v.size()) == 0;
}

inline bool WriteMadeDatabase(const MadeFiles& db)
{
    // A restore an earlier input ran may have left its mark, which keeps
    // any start off the files: it is no part of the made database.
    const std::string strMark = FuzzDir() + FUZZ_SYSTEM_FILE + ".restoring";
    unlink(strMark.c_str());
    unlink((strMark + ".new").c_str());
    return WriteUsed(FuzzDir() + FUZZ_SYSTEM_FILE, db.m_vSystem, db.m_nSystemUsed) &&
           WriteUsed(DataFilePath(), db.m_vData, db.m_nDataUsed);
}

} // namespace talvorfuzz
