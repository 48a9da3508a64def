// BreltMemStorageConfig.cpp — the parameters of the service: read from the
// ini into the system head, where the engine finds them, and written back.
//
// Most keys land in the head; a few in the module or in globals. Keys are
// read in a fixed order because some defaults depend on earlier keys.
#include "BreltMemStorage.h"

#include "ConfigHelper.h"
#include "DbFileLayout.h"
#include "TalvorTrace.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

const char SECTION_SYSTEM[] = "System";
const char SECTION_CONFIG[] = "Config";
// Integer keys read with this default are known to be absent.
const int KEY_NOT_SET = 77;

// Dotted text to a host-order address; 0 for empty text or no address.
UINT DottedToHost(const char* lpszText)
{
    struct in_addr addr;
    if (lpszText == nullptr || lpszText[0] == '\0' || inet_pton(AF_INET, lpszText, &addr) != 1) return 0;
    return ntohl(addr.s_addr);
}

UINT ReadAddress(const char* lpSection, const char* lpKey, const char* lpDefault)
{
    char szText[64] = {0};
    TalvorConfigGetValueString(lpSection, lpKey, lpDefault, szText, sizeof(szText));
    return DottedToHost(szText);
}

int ReadInt(const char* lpKey, int nDefault) { return TalvorConfigGetValueInt(SECTION_SYSTEM, lpKey, nDefault); }

int Clamp(int nValue, int nLow, int nHigh) { return nValue < nLow ? nLow : (nValue > nHigh ? nHigh : nValue); }

// "undoareasize": a tiny area is raised well above the floor, a huge one
// held below the segment limit.
int UndoAreaSize(int nValue)
{
    if (nValue < 8) return 32;
    if (nValue >= 4096) return 4000;
    return nValue;
}

// "processprivatearea" in MiB, stored in bytes.
int ProcessPrivateArea(int nValue)
{
    return nValue >= 1 && nValue <= 128 ? nValue * (int)DB_MIB : 0x200000;
}

// "buffercachesize": 0 means no cache at all.
int BufferCacheSize(int nValue) { return nValue != 0 && nValue < 32 ? 64 : nValue; }

int EventScheduler(const char* lpszText)
{
    return strcmp(lpszText, "1") == 0 || strcasecmp(lpszText, "ON") == 0 ? 1 : 0;
}

void ReadArchiveDestination(LPSYSTEMFILEHEAD lpHead)
{
    memset(lpHead->m_lpArchiveDesPath, 0, sizeof(lpHead->m_lpArchiveDesPath));
    TalvorConfigGetValueString(SECTION_SYSTEM, "archivedespath", "", lpHead->m_lpArchiveDesPath,
                               (int)sizeof(lpHead->m_lpArchiveDesPath) - 1);
}

void WriteInt(const char* lpKey, int nValue, LPTALVORCRITICALSECTION lpCritSection)
{
    char szValue[16];
    snprintf(szValue, sizeof(szValue), "%d", nValue);
    TalvorConfigSetValueString(SECTION_SYSTEM, lpKey, szValue, lpCritSection);
}

void WriteDotted(const char* lpKey, UINT nAddress, LPTALVORCRITICALSECTION lpCritSection)
{
    char szValue[20];
    snprintf(szValue, sizeof(szValue), "%d.%d.%d.%d", (int)((nAddress >> 24) & 0xFF), (int)((nAddress >> 16) & 0xFF),
             (int)((nAddress >> 8) & 0xFF), (int)(nAddress & 0xFF));
    TalvorConfigSetValueString(SECTION_SYSTEM, lpKey, szValue, lpCritSection);
}

} // namespace

BOOL CBreltMemStorageModule::ReadSysConfigParam(LPTALVORCRITICALSECTION, LPSYSTEMFILEHEAD lpHead)
{
    if (lpHead == nullptr) return FALSE;
    m_nClusterNodeType = TalvorConfigGetValueInt(SECTION_CONFIG, "clusternode", 0);
    TalvorConfigGetValueString(SECTION_SYSTEM, "databasename", "Talvor", lpHead->m_cDatabaseName,
                               (int)sizeof(lpHead->m_cDatabaseName));
    lpHead->m_nProcesses = ReadInt("processes", 512);
    lpHead->m_nTCPListenIP = (int)ReadAddress(SECTION_SYSTEM, "listenip", "0.0.0.0");
    m_ulLocalIP = ReadAddress(SECTION_SYSTEM, "clusterlocalip", "");
    UINT nVirtualIP = ReadAddress(SECTION_CONFIG, "clustervip", "0.0.0.0");
    lpHead->m_nTalvorVirtualIP = nVirtualIP == 0x7F000001 ? 0 : (int)nVirtualIP;
    lpHead->m_nTCPListenPort = ReadInt("listenport", 8000);
    lpHead->m_nTalvorVirtualPort = TalvorConfigGetValueInt(SECTION_CONFIG, "clustervipport", lpHead->m_nTCPListenPort);
    lpHead->m_nMySQLListenPort = ReadInt("mysqlport", 3306);
    m_bAutoStartService = ReadInt("AutoStartService", 1);
    lpHead->m_nDebugDumpFile = ReadInt("DebugDumpFile", 0);
    lpHead->m_nServerCaseSensitive = ReadInt("charcomparenocase", 0);
    lpHead->m_nAutoCommit = ReadInt("autocommit", 1);
    lpHead->m_nAutoIncrementIncrement = ReadInt("autoincrementstep", 1);
    lpHead->m_nAutoIncrementOffset = ReadInt("autoincrementoffset", 1);
    lpHead->m_nWaitTimeout = ReadInt("waittimeout", 28800);
    lpHead->m_nMaxPacketSize = ReadInt("max_allowed_packet", 33554432);
    lpHead->m_nSupportNativeJson = ReadInt("support_native_json", 0);
    lpHead->m_nSkipNameResolve = ReadInt("skip_name_resolve", 1);
    char szText[64] = {0};
    TalvorConfigGetValueString(SECTION_SYSTEM, "event_scheduler", "", szText, sizeof(szText));
    lpHead->m_nEventScheduler = EventScheduler(szText);
    lpHead->m_nNetReadTimeout = ReadInt("net_read_timeout", 300);
    lpHead->m_nNetRetryCount = ReadInt("net_retry_count", 100);
    lpHead->m_nNetWriteTimeout = ReadInt("net_write_timeout", 60);
    lpHead->m_nInteractiveTimeout = ReadInt("interactive_timeout", 28800);
    lpHead->m_nLockWaitTimeout = ReadInt("innodb_lock_wait_timeout", 180);
    lpHead->m_nObjectTransactionMaxNum = Clamp(ReadInt("MaxTransaction", 1000), 32, 1020);
    m_nLRUPercent = Clamp(ReadInt("LRUPercent", 80), 2, 98);
    m_nFileCache = ReadInt("FileCache", 1);
    lpHead->m_nMemoryUndoSize = UndoAreaSize(ReadInt("undoareasize", 256));
    lpHead->m_nMemoryProcessSize = ProcessPrivateArea(ReadInt("processprivatearea", 2));
    lpHead->m_nPersistenceIntervals = ReadInt("persistenceintervals", 3);
    lpHead->m_nTalvorBufferCacheSize = BufferCacheSize(ReadInt("buffercachesize", 1024));
    lpHead->m_nTalvorArchiveType = ReadInt("archivetype", 0);
    ReadArchiveDestination(lpHead);
    int nValue = ReadInt("TableNamesLower", KEY_NOT_SET);
    if (nValue != KEY_NOT_SET) lpHead->m_nTableNamesLower = nValue;
    lpHead->m_nUndoRetention = ReadInt("undo_retention", lpHead->m_nUndoRetention != 0 ? lpHead->m_nUndoRetention : 30);
    lpHead->m_nServerEfficiencyTrace = ReadInt("EfficiencyTrace", 0);
    lpHead->m_bOpenFileUseBuffer = (BYTE)ReadInt("ReadUseBuffer", 0);
    lpHead->m_nBackLog = ReadInt("back_log", 256);
    lpHead->m_nTalvorPGAMaxSize = ReadInt("pgamaxsize", 0);
    nValue = ReadInt("Talvor_Develop_Mode", KEY_NOT_SET);
    if (nValue != KEY_NOT_SET) lpHead->m_nTalvorDevelopMode = nValue;
    g_nWriteBlockLog = ReadInt("writeblocklog", 0);
    g_nForceFlushLog = ReadInt("forceflushlog", 1);
    g_nCluster = ReadInt("cluster", 0);
    g_nNodeIdentity = ReadInt("clusternode", 0);
    return TRUE;
}

// The first start after installation reads only what an installer sets,
// and forgets any cluster the copied ini may have belonged to.
void CBreltMemStorageModule::ReadInstallConfigParam(LPSYSTEMFILEHEAD lpHead)
{
    m_nLRUPercent = Clamp(ReadInt("LRUPercent", 80), 2, 98);
    m_nFileCache = ReadInt("FileCache", 1);
    lpHead->m_nTCPListenIP = 0;
    lpHead->m_nTalvorBufferCacheSize = ReadInt("buffercachesize", lpHead->m_nTalvorBufferCacheSize);
    lpHead->m_nMemoryUndoSize = ReadInt("undoareasize", lpHead->m_nMemoryUndoSize);
    lpHead->m_bOpenFileUseBuffer = (BYTE)ReadInt("ReadUseBuffer", 0);
    lpHead->m_nTCPListenPort = ReadInt("listenport", 8000);
    lpHead->m_nTalvorVirtualPort = TalvorConfigGetValueInt(SECTION_CONFIG, "clustervipport", lpHead->m_nTCPListenPort);
    lpHead->m_nMySQLListenPort = ReadInt("mysqlport", 3306);
    lpHead->m_nTalvorArchiveType = ReadInt("archivetype", 0);
    ReadArchiveDestination(lpHead);
    TalvorConfigSetValueString(SECTION_CONFIG, "clusterlocalip", "");
    TalvorConfigSetValueString(SECTION_CONFIG, "clusterhostip", "");
    TalvorConfigSetValueString(SECTION_CONFIG, "clusterhostport", "");
    TalvorConfigSetValueString(SECTION_CONFIG, "clusternode", "0");
}

BOOL CBreltMemStorageModule::WriteSysConfigParam(LPTALVORCRITICALSECTION lpCritSection, LPSYSTEMFILEHEAD lpHead,
                                                 BOOL bRecover, BOOL bExit)
{
    if (lpHead == nullptr || lpHead->m_nDataFlag != SYSTEMFILE_DATAFLAG) return FALSE;
    lpHead->m_bStatus = 0;

    const char* lpszSystemFile = DB_SYSTEMFILE_NAME;
    if (m_lpSystemFileInfo != nullptr) {
        const char* lpSlash = strrchr(m_lpSystemFileInfo->m_lpszFilePath, '/');
        lpszSystemFile = lpSlash != nullptr ? lpSlash + 1 : m_lpSystemFileInfo->m_lpszFilePath;
    }
    // The head's texts are shared with the engine: copy them bounded.
    char szName[sizeof(lpHead->m_cDatabaseName) + 1] = {0};
    char szPath[sizeof(lpHead->m_cDatabasePath) + 1] = {0};
    memcpy(szName, lpHead->m_cDatabaseName, sizeof(lpHead->m_cDatabaseName));
    memcpy(szPath, lpHead->m_cDatabasePath, sizeof(lpHead->m_cDatabasePath));
    TalvorConfigSetValueString(SECTION_SYSTEM, "systemfile", lpszSystemFile, lpCritSection);
    TalvorConfigSetValueString(SECTION_SYSTEM, "databasename", szName, lpCritSection);
    TalvorConfigSetValueString(SECTION_SYSTEM, "databasepath", szPath, lpCritSection);
    WriteInt("processes", lpHead->m_nProcesses, lpCritSection);
    WriteInt("listenport", lpHead->m_nTCPListenPort, lpCritSection);
    WriteInt("DebugDumpFile", lpHead->m_nDebugDumpFile, lpCritSection);
    WriteInt("charcomparenocase", lpHead->m_nServerCaseSensitive, lpCritSection);
    WriteInt("undoareasize", lpHead->m_nMemoryUndoSize, lpCritSection);
    WriteInt("processprivatearea", lpHead->m_nMemoryProcessSize / (int)DB_MIB, lpCritSection);
    WriteInt("persistenceintervals", lpHead->m_nPersistenceIntervals, lpCritSection);
    WriteInt("buffercachesize", lpHead->m_nTalvorBufferCacheSize, lpCritSection);
    WriteInt("max_allowed_packet", lpHead->m_nMaxPacketSize, lpCritSection);
    WriteInt("autocommit", lpHead->m_nAutoCommit, lpCritSection);
    WriteInt("autoincrementstep", lpHead->m_nAutoIncrementIncrement, lpCritSection);
    WriteInt("autoincrementoffset", lpHead->m_nAutoIncrementOffset, lpCritSection);
    WriteInt("waittimeout", lpHead->m_nWaitTimeout, lpCritSection);
    WriteInt("support_native_json", lpHead->m_nSupportNativeJson, lpCritSection);
    WriteInt("pgamaxsize", lpHead->m_nTalvorPGAMaxSize, lpCritSection);

    if (bExit) {
        WriteDotted("listenip", (UINT)lpHead->m_nTCPListenIP, lpCritSection);
        if (!bRecover) {
            WriteInt("archivetype", lpHead->m_nTalvorArchiveType, lpCritSection);
            char szArchive[sizeof(lpHead->m_lpArchiveDesPath) + 1] = {0};
            memcpy(szArchive, lpHead->m_lpArchiveDesPath, sizeof(lpHead->m_lpArchiveDesPath));
            TalvorConfigSetValueString(SECTION_SYSTEM, "archivedespath", szArchive, lpCritSection);
            return TRUE;
        }
    } else {
        char szText[64] = {0};
        TalvorConfigGetValueString(SECTION_SYSTEM, "listenip", "0.0.0.0", szText, sizeof(szText), lpCritSection);
        lpHead->m_nTCPListenIP = (int)DottedToHost(szText);
        TalvorConfigGetValueString(SECTION_CONFIG, "clusterlocalip", "", szText, sizeof(szText), lpCritSection);
        m_ulLocalIP = DottedToHost(szText);
        m_nFileCache = TalvorConfigGetValueInt(SECTION_SYSTEM, "FileCache", 1, lpCritSection);
    }
    lpHead->m_nTalvorArchiveType = TalvorConfigGetValueInt(SECTION_SYSTEM, "archivetype", 0, lpCritSection);
    memset(lpHead->m_lpArchiveDesPath, 0, sizeof(lpHead->m_lpArchiveDesPath));
    TalvorConfigGetValueString(SECTION_SYSTEM, "archivedespath", "", lpHead->m_lpArchiveDesPath,
                               (int)sizeof(lpHead->m_lpArchiveDesPath) - 1, lpCritSection);
    if (TalvorConfigGetValueInt(SECTION_SYSTEM, "Talvor_Develop_Mode", KEY_NOT_SET, lpCritSection) != KEY_NOT_SET)
        TalvorConfigSetValueString(SECTION_SYSTEM, "Talvor_Develop_Mode", lpHead->m_nTalvorDevelopMode != 0 ? "1" : "0",
                                   lpCritSection);
    return TRUE;
}
