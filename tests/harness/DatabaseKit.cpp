// DatabaseKit.cpp — the database directory, image segments, made files.
#include "DatabaseKit.h"

#include "DaemonSandbox.h"

#include <sys/shm.h>

namespace talvortest {

namespace {

const int FILE_NUMBERS = 256;

} // namespace

void RemoveImageSegments()
{
    for (int n = 0; n < FILE_NUMBERS; n++) {
        int nId = shmget(FileImageShmKey((BYTE)n), 0, 0);
        if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    }
}

bool SegmentExists(BYTE bFileNo) { return shmget(FileImageShmKey(bFileNo), 0, 0) >= 0; }

DatabaseDir::DatabaseDir(const std::string& strExtraIni) : m_tree("unit"), m_nLanguage(g_nLanguage_Chinese)
{
    // A log manager from an earlier tree would keep that tree's directories.
    ExitLogSystem();
    g_nLanguage_Chinese = 0;
    m_bIniRead = WriteIni(strExtraIni);
    m_bLogUp = InitLogSystem() != FALSE;
    RemoveImageSegments();
}

DatabaseDir::~DatabaseDir()
{
    RemoveImageSegments();
    ExitLogSystem();
    TalvorConfigClose();
    g_nLanguage_Chinese = m_nLanguage;
}

bool DatabaseDir::WriteIni(const std::string& strExtra)
{
    return WriteWholeFile(IniPath(), "[System]\r\ndatabasepath=" + Dir() + "\r\nLanguage=0\r\n" + strExtra) &&
           TalvorConfigInit(IniPath().c_str());
}

bool DatabaseDir::UseIni(const std::string& strText)
{
    if (!WriteWholeFile(IniPath(), strText)) return false;
    TalvorConfigClose();
    return TalvorConfigInit(IniPath().c_str());
}

std::string DatabaseDir::Trace() const
{
    ExitLogSystem();
    InitLogSystem();
    return DaemonTraceIn(LogDir());
}

std::string MakeFileBytes(BYTE bFileType, BYTE bFileNo, long long nSize, long long nFreeOffset, long long nJunkFrom,
                          BYTE bSeed)
{
    DBMEMFILEPLAN stPlan;
    if (!DbPlanMemoryFile(bFileType, nSize, 64, DbDefaultBlockSize(bFileType), &stPlan)) return std::string();
    std::string strData((size_t)nSize, '\0');
    DbBuildMemoryFile(stPlan, bFileNo, 0x5151, (LPBYTE)&strData[0], nSize);
    for (long long i = stPlan.m_nFreeOffset; i < nFreeOffset; i++) strData[(size_t)i] = (char)PatternByte(i, bSeed);
    if (nJunkFrom > 0)
        for (long long i = nJunkFrom; i < nSize; i++) strData[(size_t)i] = (char)PatternByte(i, bSeed);
    if (nFreeOffset > stPlan.m_nFreeOffset) ((LPBASEFILEHEAD)&strData[0])->m_nFileFreeMemoryOffset = nFreeOffset;
    return strData;
}

} // namespace talvortest
