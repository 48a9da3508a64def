// MemoryStorageTestKit.h — what the memory storage and system file tests
// share: a private directory with an ini and a trace log, database files
// made through the same layout the maker uses, a file layer that counts and
// fails on demand, and a sweep of image segments between tests.
//
// Each test binary runs in its own IPC namespace, so the fixed image keys
// are the test's own; the sweep only guards one test from the next.
#pragma once

#include "ConfigHelper.h"
#include "DbFileLayout.h"
#include "LogManager.h"
#include "MemDBCommonDef.h"
#include "TalvorFileIO.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace talvortest {

// Fields of byte-packed records may lie on any byte: assertions take them
// by value, never by reference.
template <class T>
T Val(T v)
{
    return v;
}

inline std::string ReadAll(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline bool WriteAll(const std::string& strPath, const std::string& strData)
{
    std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
    out << strData;
    return static_cast<bool>(out);
}

inline void RemoveImageSegments()
{
    for (int n = 0; n < 256; n++) {
        int nId = shmget(FileImageShmKey((BYTE)n), 0, 0);
        if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    }
}

inline bool SegmentExists(BYTE bFileNo) { return shmget(FileImageShmKey(bFileNo), 0, 0) >= 0; }

// A private directory with TalvorConfig.ini naming it as the database
// directory, and the trace log in its Log/.
class TempTree {
public:
    explicit TempTree(const std::string& strExtraIni = "")
    {
        char szTemplate[] = "/tmp/talvor-unit-XXXXXX";
        if (mkdtemp(szTemplate) != nullptr) m_strDir = std::string(szTemplate) + "/";
        WriteIni(strExtraIni);
        g_nLanguage_Chinese = 0;
        InitLogSystem();
        RemoveImageSegments();
    }
    ~TempTree()
    {
        RemoveImageSegments();
        ExitLogSystem();
        TalvorConfigClose();
        if (m_strDir.size() > 10 && getenv("TALVOR_KEEP_SANDBOX") == nullptr) {
            std::string strCmd = "rm -rf '" + m_strDir + "'";
            int rc = system(strCmd.c_str());
            (void)rc;
        }
    }
    const std::string& Dir() const { return m_strDir; }
    std::string IniPath() const { return m_strDir + "TalvorConfig.ini"; }
    void WriteIni(const std::string& strExtra)
    {
        WriteAll(IniPath(), "[System]\r\ndatabasepath=" + m_strDir + "\r\nLanguage=0\r\n" + strExtra);
        TalvorConfigInit(IniPath().c_str());
    }
    // Everything traced so far: the log is closed (which writes what is
    // queued) and opened again.
    std::string Trace() const
    {
        ExitLogSystem();
        InitLogSystem();
        std::string strAll;
        std::string strLog = m_strDir + "Log/";
        DIR* pDir = opendir(strLog.c_str());
        if (pDir == nullptr) return strAll;
        std::vector<std::string> vNames;
        while (struct dirent* p = readdir(pDir))
            if (strncmp(p->d_name, "TalvorStorage", 13) == 0) vNames.push_back(p->d_name);
        closedir(pDir);
        std::sort(vNames.begin(), vNames.end());
        for (const std::string& s : vNames) strAll += ReadAll(strLog + s);
        return strAll;
    }
    bool Traced(const std::string& strText) const { return Trace().find(strText) != std::string::npos; }

private:
    std::string m_strDir;
};

// A byte that depends on the offset, never 0, so that a shifted or missing
// piece shows.
inline BYTE PatternByte(long long nOffset, BYTE bSeed)
{
    return (BYTE)(((nOffset * 131) >> 9) + (nOffset >> 17) + bSeed) | 1;
}

// A memory-mode file as the maker makes it, then filled with the pattern
// from the end of block 1 to nFreeOffset (moved there), and with nJunkFrom
// on (if above 0) with the pattern too, bytes a load must not read.
inline std::string MakeFileBytes(BYTE bFileType, BYTE bFileNo, long long nSize, long long nFreeOffset,
                                 long long nJunkFrom = 0, BYTE bSeed = 7)
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

// Counts reads and writes, and fails the next m_nFailReads reads.
class CountingFileIO : public CTalvorFileIO {
public:
    ssize_t PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset) override
    {
        m_nReads++;
        if (m_nFailReads > 0) {
            m_nFailReads--;
            errno = EIO;
            return -1;
        }
        ssize_t n = CTalvorFileIO::PRead(fd, lpBuf, nSize, nOffset);
        if (n > 0) m_nReadBytes += n;
        return n;
    }
    ssize_t PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset) override
    {
        m_nWrites++;
        ssize_t n = CTalvorFileIO::PWrite(fd, lpBuf, nSize, nOffset);
        if (n > 0) m_nWriteBytes += n;
        return n;
    }
    long long m_nReads = 0, m_nReadBytes = 0, m_nWrites = 0, m_nWriteBytes = 0;
    int m_nFailReads = 0;
};

// Puts a layer in force for a scope.
class ScopedFileIO {
public:
    explicit ScopedFileIO(CTalvorFileIO* pIO) : m_pOld(CTalvorFileIO::Install(pIO)) {}
    ~ScopedFileIO() { CTalvorFileIO::Install(m_pOld); }

private:
    CTalvorFileIO* m_pOld;
};

} // namespace talvortest
