// InspectReport.cpp — the control data of the system head, the file list,
// each file's head and map summary, and the findings.
#include "InspectReport.h"

#include "DbFileLayout.h"

#include <cstring>

namespace talvorinspect {

namespace {

struct Parameter {
    const char* m_lpKey;  // the ini key that sets it
    int m_nValue;
};

std::string Text(const char* lpText, size_t nMax) { return std::string(lpText, strnlen(lpText, nMax)); }

std::string Dotted(UINT nIP)
{
    char sz[32];
    snprintf(sz, sizeof(sz), "%u.%u.%u.%u", (nIP >> 24) & 255, (nIP >> 16) & 255, (nIP >> 8) & 255, nIP & 255);
    return sz;
}

std::vector<Parameter> Parameters(const SYSTEMFILEHEAD* h)
{
    return {
        {"processes", h->m_nProcesses},
        {"listenport", h->m_nTCPListenPort},
        {"clustervipport", h->m_nTalvorVirtualPort},
        {"mysqlport", h->m_nMySQLListenPort},
        {"persistenceintervals", h->m_nPersistenceIntervals},
        {"undoareasize", h->m_nMemoryUndoSize},
        {"processprivatearea", h->m_nMemoryProcessSize / 1048576},
        {"buffercachesize", h->m_nTalvorBufferCacheSize},
        {"ReadUseBuffer", h->m_bOpenFileUseBuffer},
        {"MaxTransaction", h->m_nObjectTransactionMaxNum},
        {"innodb_lock_wait_timeout", h->m_nLockWaitTimeout},
        {"archivetype", h->m_nTalvorArchiveType},
        {"autocommit", h->m_nAutoCommit},
        {"autoincrementstep", h->m_nAutoIncrementIncrement},
        {"autoincrementoffset", h->m_nAutoIncrementOffset},
        {"waittimeout", h->m_nWaitTimeout},
        {"interactive_timeout", h->m_nInteractiveTimeout},
        {"net_read_timeout", h->m_nNetReadTimeout},
        {"net_write_timeout", h->m_nNetWriteTimeout},
        {"net_retry_count", h->m_nNetRetryCount},
        {"max_allowed_packet", h->m_nMaxPacketSize},
        {"back_log", h->m_nBackLog},
        {"charcomparenocase", h->m_nServerCaseSensitive},
        {"support_native_json", h->m_nSupportNativeJson},
        {"skip_name_resolve", h->m_nSkipNameResolve},
        {"event_scheduler", h->m_nEventScheduler},
        {"undo_retention", h->m_nUndoRetention},
        {"EfficiencyTrace", h->m_nServerEfficiencyTrace},
        {"DebugDumpFile", h->m_nDebugDumpFile},
        {"pgamaxsize", h->m_nTalvorPGAMaxSize},
        {"TableNamesLower", h->m_nTableNamesLower},
        {"Talvor_Develop_Mode", h->m_nTalvorDevelopMode},
    };
}

const char* MarkText(int nFlag, char* lpBuf)
{
    for (int i = 0; i < 4; i++) {
        char c = (char)((nFlag >> (8 * i)) & 0xFF);
        lpBuf[i] = c >= 0x20 && c < 0x7F ? c : '.';
    }
    lpBuf[4] = '\0';
    return lpBuf;
}

void PrintControlData(const SYSTEMFILEHEAD* h, FILE* pOut)
{
    fprintf(pOut, "database: %s (identity %u, shard %u)\n", Text(h->m_cDatabaseName, sizeof(h->m_cDatabaseName)).c_str(),
            (UINT)h->m_usDatabaseGuid, (UINT)h->m_usShardNo);
    fprintf(pOut, "directory recorded: %s\n", Text(h->m_cDatabasePath, sizeof(h->m_cDatabasePath)).c_str());
    fprintf(pOut, "format version: %d\n", h->m_nVersion);
    fprintf(pOut, "state: %s\n", h->m_bStatus == 0 ? "ready or stopped cleanly (status 0)"
                                                     : "starting, or not stopped cleanly (status 1)");
    fprintf(pOut, "persisted up to timestamp: %lld\n", (long long)h->m_nBeginTimestamp);
    fprintf(pOut, "newest committed timestamp: %lld\n", (long long)h->m_nEndTimestamp);
    fprintf(pOut, "cache flushed up to: tables %lld, indexes %lld\n", (long long)h->m_nCacheTableTimestamp,
            (long long)h->m_nCacheIndexTimestamp);
    fprintf(pOut, "redo: next log number %u (so the current log is %u), current group %d of %d, groups of %d bytes\n",
            (UINT)h->m_nRedoLogMaxID, h->m_nRedoLogMaxID > 0 ? (UINT)h->m_nRedoLogMaxID - 1 : 0,
            (int)h->m_bCurrentRedoGroup, h->m_nWriteRedoOnlineGroups, h->m_nWriteRedoMaxSize);
    fprintf(pOut, "archive: type %d, destinations \"%s\"\n", h->m_nTalvorArchiveType,
            Text(h->m_lpArchiveDesPath, sizeof(h->m_lpArchiveDesPath)).c_str());
    fprintf(pOut, "standby position: log %d, offset %d, timestamp %lld\n", h->m_nStandbyLogNo, h->m_nStandbyLogOffset,
            (long long)h->m_nStandbyTimestamp);
    fprintf(pOut, "listen address: %s\n", Dotted((UINT)h->m_nTCPListenIP).c_str());
    fprintf(pOut, "parameters recorded in the system file (the ini's values replace them at every start):");
    for (const Parameter& p : Parameters(h)) fprintf(pOut, " %s=%d", p.m_lpKey, p.m_nValue);
    fprintf(pOut, "\n");
}

void PrintFileWords(const DBFILESUMMARY& f, bool bCheck, FILE* pOut)
{
    fprintf(pOut, "file %d: %s %s (%s)%s\n", f.m_bFileNo, DbFileTypeName(f.m_bFileType), f.m_szPath, f.m_szName,
            f.m_bDropFlag == 1 ? " dropped" : "");
    if (f.m_bDropFlag == 1) return;
    fprintf(pOut, "  size: listed %lld, on disk %lld\n", f.m_nListSize, f.m_nDiskSize);
    if (!f.m_bHeadRead) return;
    char szMark[5];
    fprintf(pOut, "  head: mark %s, file %d, type %d, identity %u, timestamp %lld, %u blocks, objects %d of %d\n",
            MarkText(f.m_nDataFlag, szMark), f.m_bHeadFileNo, f.m_bHeadFileType, (UINT)f.m_usDatabaseGuid, f.m_nTimestamp,
            f.m_nBlockNum, f.m_nCurrentObjectNum, f.m_nMaxObjectNum);
    fprintf(pOut, "  layout: head %d bytes, first map at %lld (%d bytes each), blocks from %lld, free from %lld of %lld\n",
            f.m_nHeaderSize, f.m_nBlockMapStartOffset, f.m_nBlockMapSize, f.m_nBlockStartOffset, f.m_nFreeOffset,
            f.m_nFileTotalSize);
    if (IsCacheFileType(f.m_bFileType)) fprintf(pOut, "  persisted up to timestamp: %lld\n", f.m_nPersistentTimestamp);
    if (bCheck)
        fprintf(pOut, "  walked: %d map blocks, %lld map entries, %lld blocks, %d objects in use, %d extended heads\n",
                f.m_nMapBlocks, f.m_nMapEntries, f.m_nBlocksChecked, f.m_nObjectsInUse, f.m_nExtendedHeads);
}

void JsonString(const char* lpText, FILE* pOut)
{
    fputc('"', pOut);
    for (const unsigned char* p = (const unsigned char*)lpText; *p != 0; p++) {
        if (*p == '"' || *p == '\\')
            fprintf(pOut, "\\%c", *p);
        else if (*p < 0x20)
            fprintf(pOut, "\\u%04x", *p);
        else
            fputc(*p, pOut);
    }
    fputc('"', pOut);
}

void JsonFile(const DBFILESUMMARY& f, FILE* pOut)
{
    fprintf(pOut, "{\"file\":%d,\"type\":", f.m_bFileNo);
    JsonString(DbFileTypeName(f.m_bFileType), pOut);
    fprintf(pOut, ",\"path\":");
    JsonString(f.m_szPath, pOut);
    fprintf(pOut, ",\"name\":");
    JsonString(f.m_szName, pOut);
    fprintf(pOut, ",\"dropped\":%s,\"listed_size\":%lld,\"disk_size\":%lld,\"head_read\":%s", f.m_bDropFlag == 1 ? "true" : "false",
            f.m_nListSize, f.m_nDiskSize, f.m_bHeadRead ? "true" : "false");
    if (f.m_bHeadRead)
        fprintf(pOut,
                ",\"mark\":%d,\"head_file\":%d,\"head_type\":%d,\"identity\":%u,\"timestamp\":%lld,\"total_size\":%lld,"
                "\"free_offset\":%lld,\"blocks\":%u,\"objects\":%d,\"max_objects\":%d,\"head_size\":%d,\"map_size\":%d,"
                "\"map_start\":%lld,\"block_start\":%lld,\"persisted_timestamp\":%lld",
                f.m_nDataFlag, f.m_bHeadFileNo, f.m_bHeadFileType, (UINT)f.m_usDatabaseGuid, f.m_nTimestamp,
                f.m_nFileTotalSize, f.m_nFreeOffset, f.m_nBlockNum, f.m_nCurrentObjectNum, f.m_nMaxObjectNum,
                f.m_nHeaderSize, f.m_nBlockMapSize, f.m_nBlockMapStartOffset, f.m_nBlockStartOffset,
                f.m_nPersistentTimestamp);
    fprintf(pOut, ",\"map_blocks\":%d,\"map_entries\":%lld,\"blocks_checked\":%lld,\"objects_in_use\":%d,\"findings\":%d}",
            f.m_nMapBlocks, f.m_nMapEntries, f.m_nBlocksChecked, f.m_nObjectsInUse, f.m_nFindings);
}

void JsonControl(const SYSTEMFILEHEAD* h, FILE* pOut)
{
    fprintf(pOut, "\"database\":{\"name\":");
    JsonString(Text(h->m_cDatabaseName, sizeof(h->m_cDatabaseName)).c_str(), pOut);
    fprintf(pOut, ",\"directory\":");
    JsonString(Text(h->m_cDatabasePath, sizeof(h->m_cDatabasePath)).c_str(), pOut);
    fprintf(pOut,
            ",\"identity\":%u,\"version\":%d,\"status\":%d,\"persisted_timestamp\":%lld,\"committed_timestamp\":%lld,"
            "\"cache_table_timestamp\":%lld,\"cache_index_timestamp\":%lld,\"next_log_number\":%u,\"current_group\":%d,"
            "\"groups\":%d,\"group_size\":%d,\"archive_type\":%d,\"archive_path\":",
            (UINT)h->m_usDatabaseGuid, h->m_nVersion, h->m_bStatus, (long long)h->m_nBeginTimestamp,
            (long long)h->m_nEndTimestamp, (long long)h->m_nCacheTableTimestamp, (long long)h->m_nCacheIndexTimestamp,
            (UINT)h->m_nRedoLogMaxID, h->m_bCurrentRedoGroup, h->m_nWriteRedoOnlineGroups, h->m_nWriteRedoMaxSize,
            h->m_nTalvorArchiveType);
    JsonString(Text(h->m_lpArchiveDesPath, sizeof(h->m_lpArchiveDesPath)).c_str(), pOut);
    fprintf(pOut, ",\"parameters\":{");
    bool bFirst = true;
    for (const Parameter& p : Parameters(h)) {
        fprintf(pOut, "%s\"%s\":%d", bFirst ? "" : ",", p.m_lpKey, p.m_nValue);
        bFirst = false;
    }
    fprintf(pOut, "}}");
}

} // namespace

std::string FindingLine(const DBFINDING& st)
{
    char szLine[1024];
    if (st.m_nOffset >= 0)
        snprintf(szLine, sizeof(szLine), "damage: %s: file %d %s at offset %lld: %s", DbCheckKindName(st.m_nKind),
                 st.m_bFileNo, st.m_szPath, st.m_nOffset, st.m_szText);
    else
        snprintf(szLine, sizeof(szLine), "damage: %s: file %d %s: %s", DbCheckKindName(st.m_nKind), st.m_bFileNo,
                 st.m_szPath, st.m_szText);
    return szLine;
}

void PrintWords(const InspectResult& st, FILE* pOut)
{
    fprintf(pOut, "system file: %s\n", st.m_strSystemPath.c_str());
    const SYSTEMFILEHEAD* h = st.m_pChecker->SystemHead();
    if (h != nullptr) PrintControlData(h, pOut);
    if (st.m_bLoaded) {
        fprintf(pOut, "files: %d listed\n", st.m_pChecker->FileCount());
        for (int i = 0; i < st.m_pChecker->FileCount(); i++) PrintFileWords(st.m_pChecker->File(i), st.m_bCheck, pOut);
    }
    PrintRedoGroupWords(st.m_vGroups, pOut);
    if (st.m_bLoaded)
        fprintf(pOut, "backups looked for under: \"%s\" (%s)\n", st.m_strArchivePath.c_str(),
                st.m_strIniPath.empty() ? "as the system file records it" : ("from " + st.m_strIniPath).c_str());
    PrintBackupWords(st.m_vBackups, pOut);
    for (const DBFINDING& f : st.m_vFindings) fprintf(pOut, "%s\n", FindingLine(f).c_str());
    if (!st.m_bLoaded)
        fprintf(pOut, "result: the system file cannot be read\n");
    else if (st.m_bCheck)
        fprintf(pOut, "result: %s\n", st.m_vFindings.empty() ? "clean"
                                                              : (std::to_string(st.m_vFindings.size()) + (st.m_vFindings.size() == 1 ? " finding" : " findings")).c_str());
}

void PrintJson(const InspectResult& st, FILE* pOut)
{
    fprintf(pOut, "{\"system_file\":");
    JsonString(st.m_strSystemPath.c_str(), pOut);
    fprintf(pOut, ",\"readable\":%s,\"checked\":%s,", st.m_bLoaded ? "true" : "false", st.m_bCheck ? "true" : "false");
    const SYSTEMFILEHEAD* h = st.m_pChecker->SystemHead();
    if (h != nullptr) {
        JsonControl(h, pOut);
        fprintf(pOut, ",");
    }
    fprintf(pOut, "\"files\":[");
    for (int i = 0; st.m_bLoaded && i < st.m_pChecker->FileCount(); i++) {
        if (i > 0) fprintf(pOut, ",");
        JsonFile(st.m_pChecker->File(i), pOut);
    }
    fprintf(pOut, "],\"redo_groups\":[");
    for (size_t i = 0; i < st.m_vGroups.size(); i++) {
        const InspectedGroup& g = st.m_vGroups[i];
        fprintf(pOut, "%s{\"group\":%d,\"path\":", i > 0 ? "," : "", g.m_nGroup);
        JsonString(g.m_strPath.c_str(), pOut);
        fprintf(pOut, ",\"problem\":");
        JsonString(g.m_strProblem.c_str(), pOut);
        fprintf(pOut, ",\"log\":%u,\"state\":%d,\"effective_size\":%u}", g.m_nLogNo, g.m_bState, g.m_nEffectiveSize);
    }
    fprintf(pOut, "],\"backups\":[");
    for (size_t i = 0; i < st.m_vBackups.size(); i++) {
        const InspectedBackup& b = st.m_vBackups[i];
        fprintf(pOut, "%s{\"path\":", i > 0 ? "," : "");
        JsonString(b.m_strPath.c_str(), pOut);
        fprintf(pOut, ",\"verified\":%s,\"status\":", b.m_bVerified ? "true" : "false");
        JsonString(b.m_strStatus.c_str(), pOut);
        fprintf(pOut, ",\"finding\":");
        JsonString(b.m_strFinding.c_str(), pOut);
        fprintf(pOut, ",\"level\":%d,\"timestamp\":%lld}", b.m_nLevel, b.m_nTimestamp);
    }
    fprintf(pOut, "],\"findings\":[");
    for (size_t i = 0; i < st.m_vFindings.size(); i++) {
        const DBFINDING& f = st.m_vFindings[i];
        fprintf(pOut, "%s{\"kind\":\"%s\",\"file\":%d,\"path\":", i > 0 ? "," : "", DbCheckKindName(f.m_nKind), f.m_bFileNo);
        JsonString(f.m_szPath, pOut);
        fprintf(pOut, ",\"offset\":%lld,\"text\":", f.m_nOffset);
        JsonString(f.m_szText, pOut);
        fprintf(pOut, "}");
    }
    fprintf(pOut, "],\"clean\":%s}\n", st.m_bLoaded && st.m_vFindings.empty() ? "true" : "false");
}

} // namespace talvorinspect
