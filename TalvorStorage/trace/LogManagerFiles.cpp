// LogManagerFiles.cpp — the files of both series: their names, their heads,
// and the retention that keeps each series within its count and size.
#include "LogManager.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

const char STORAGE_COLUMNS[] = "Timestamp Thread Level Code FuncationName Description";
const char SERVICE_COLUMNS[] = "Timestamp               Thread\tLevel    Code     FuncationName\t\tDescription";
static_assert(sizeof(STORAGE_COLUMNS) - 1 == 53, "the daemon's column line");
static_assert(sizeof(SERVICE_COLUMNS) - 1 == 75, "the engine's column line");
const char UTF8_MARK[] = "\xEF\xBB\xBF";
const int OPEN_TRIES = 5;
// Names of one series within one second: the first plain, then _01.._99.
const int NAME_CLASH_SUFFIXES = 99;

bool Earlier(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

bool SameTime(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

struct SeriesScan {
    unsigned long long m_nTotal; // 64-bit: a 32-bit sum wraps past 4 GiB and hides an overrun
    int m_nCount;
    bool m_bHasOldest;
    struct timespec m_tOldest;
    char m_szOldest[NAME_MAX + 1];
};

// One pass over the directory. The oldest file is the one of the smallest
// ctime before now; files of one instant go by name, which holds their time.
BOOL ScanSeries(const char* lpDir, const char* lpPrefix, SeriesScan& scan)
{
    memset(&scan, 0, sizeof(scan));
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    DIR* pDir = pIO->OpenDir(lpDir);
    if (pDir == nullptr) return FALSE;
    struct timespec tNow;
    clock_gettime(CLOCK_REALTIME, &tNow);
    size_t nPrefix = strlen(lpPrefix);
    while (struct dirent* pEntry = readdir(pDir)) {
        const char* lpName = pEntry->d_name;
        if (strcmp(lpName, ".") == 0 || strcmp(lpName, "..") == 0) continue;
        if (strncmp(lpName, lpPrefix, nPrefix) != 0) continue;
        char szPath[PATH_MAX];
        snprintf(szPath, sizeof(szPath), "%s%s", lpDir, lpName);
        struct stat st;
        if (pIO->Stat(szPath, &st) != 0) break;
        if (S_ISDIR(st.st_mode)) continue;
        scan.m_nTotal += (unsigned long long)st.st_size;
        scan.m_nCount++;
        if (!Earlier(st.st_ctim, tNow)) continue;
        bool bOlder = !scan.m_bHasOldest || Earlier(st.st_ctim, scan.m_tOldest) ||
                      (SameTime(st.st_ctim, scan.m_tOldest) && strcmp(lpName, scan.m_szOldest) < 0);
        if (bOlder) {
            scan.m_bHasOldest = true;
            scan.m_tOldest = st.st_ctim;
            snprintf(scan.m_szOldest, sizeof(scan.m_szOldest), "%s", lpName);
        }
    }
    pIO->CloseDir(pDir);
    return TRUE;
}

} // namespace

void TraceExecutableDir(char* lpDir, size_t nSize)
{
    char szExe[MAX_PATH] = {0};
    GetModuleFileName(nullptr, szExe, sizeof(szExe));
    char* pSlash = strrchr(szExe, '/');
    if (pSlash != nullptr) pSlash[1] = '\0';
    snprintf(lpDir, nSize, "%s", szExe);
}

BOOL TraceBuildFileName(const char* lpDir, const char* lpSeries, char* lpPath, size_t nSize)
{
    SYSTEMTIME st;
    GetLocalTime(&st);
    char szStamp[32];
    snprintf(szStamp, sizeof(szStamp), "%04d%02d%02d%02d%02d%02d", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
             st.wSecond);
    snprintf(lpPath, nSize, "%s%s%s.log", lpDir, lpSeries, szStamp);
    // Opening empties a file of the same second: take the next free name.
    for (int i = 1; i <= NAME_CLASH_SUFFIXES && TalvorPathExists(lpPath); i++)
        snprintf(lpPath, nSize, "%s%s%s_%02d.log", lpDir, lpSeries, szStamp, i);
    return TRUE;
}

CTalvorAppendFile* TraceOpenNewFile(const char* lpPath)
{
    CTalvorAppendFile* pFile = nullptr;
    for (int i = 0; i < OPEN_TRIES && pFile == nullptr; i++) {
        pFile = CTalvorAppendFile::Create(lpPath);
        if (pFile == nullptr && i + 1 < OPEN_TRIES) usleep(1000);
    }
    if (pFile != nullptr) CTalvorFileIO::Current()->Chmod(lpPath, 0666);
    return pFile;
}

void TraceMachineBlock(char* lpBuf, size_t nSize)
{
    struct utsname un;
    memset(&un, 0, sizeof(un));
    uname(&un);
    struct sysinfo si;
    memset(&si, 0, sizeof(si));
    sysinfo(&si);
    unsigned long nUnit = si.mem_unit != 0 ? si.mem_unit : 1;
    snprintf(lpBuf, nSize,
             "Nodename: %s\r\nSystem: %s\r\nHardware: %s\r\nVersion: %s, %s\r\nToalRam: %luMB, FreeRam: %luMB, "
             "SharedRam: %luMB, BufferRam: %luMB, TotalSwap: %luMB, FreeSwap: %luMB, Procs: %d\r\n",
             un.nodename, un.sysname, un.machine, un.release, un.version, (si.totalram * nUnit) >> 20,
             (si.freeram * nUnit) >> 20, (si.sharedram * nUnit) >> 20, (si.bufferram * nUnit) >> 20,
             (si.totalswap * nUnit) >> 20, (si.freeswap * nUnit) >> 20, (int)si.procs);
}

void TraceWriteStorageHead(CTalvorAppendFile* pFile)
{
    char szMachine[2048];
    TraceMachineBlock(szMachine, sizeof(szMachine));
    pFile->AppendText(UTF8_MARK);
    pFile->AppendFormat("%s\r\n\r\n", szMachine);
    pFile->AppendText(STORAGE_COLUMNS);
}

void TraceWriteServiceHead(CTalvorAppendFile* pFile, int nProcessID)
{
    char szMachine[2048];
    TraceMachineBlock(szMachine, sizeof(szMachine));
    pFile->AppendText(UTF8_MARK);
    pFile->AppendFormat("Service processid:%d\r\n%s\r\n\r\n", nProcessID, szMachine);
    pFile->AppendText(SERVICE_COLUMNS);
}

// Runs only when a new file of the series is about to be opened.
BOOL CLogManager::LogFileManage(LPCTSTR pFileName)
{
    char szDir[MAX_PATH + 8];
    if (m_lpTraceDir != nullptr)
        snprintf(szDir, sizeof(szDir), "%s", m_lpTraceDir);
    else
        TraceExecutableDir(szDir, sizeof(szDir));
    char szPrefix[MAX_PATH];
    snprintf(szPrefix, sizeof(szPrefix), "%s", pFileName != nullptr ? pFileName : "");
    size_t nPrefix = strlen(szPrefix);
    if (nPrefix > 0) szPrefix[nPrefix - 1] = '\0';
    for (int nPass = 0;; nPass++) {
        SeriesScan scan;
        if (!ScanSeries(szDir, szPrefix, scan)) return FALSE;
        if (scan.m_nTotal <= TRACE_SERIES_MAX_BYTES && scan.m_nCount <= TRACE_SERIES_MAX_FILES) return TRUE;
        // At most ten files go at one opening; the rest waits for the next.
        if (nPass >= TRACE_SERIES_MAX_REMOVALS || !scan.m_bHasOldest) return TRUE;
        char szPath[PATH_MAX];
        snprintf(szPath, sizeof(szPath), "%s%s", szDir, scan.m_szOldest);
        if (CTalvorFileIO::Current()->Unlink(szPath) != 0) return TRUE;
    }
}
