// RecordLayout.cpp — the shared records against their byte layout.
//
// Each field list below gives the offsets and widths as literal numbers,
// independent of offsetof. A round trip writes a distinct little-endian value
// at every listed offset of a raw buffer, reads it back through the record,
// then does the reverse: assigns through the record and checks the raw bytes.
// A field at the wrong place, of the wrong width, or overlapping another
// field fails one of the two directions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "MemDBCommonDef.h"

namespace {

// A value for the field at `off` with no zero byte, differing from its
// neighbours, so that a read from a shifted position cannot match.
uint64_t Pattern(size_t off, size_t width)
{
    uint64_t x = off * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 32;
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) {
        BYTE b = static_cast<BYTE>(x >> (8 * i));
        v |= uint64_t(b ? b : 0x5A) << (8 * i);
    }
    return v;
}

void PutLE(BYTE* p, uint64_t v, size_t width)
{
    for (size_t i = 0; i < width; ++i) p[i] = static_cast<BYTE>(v >> (8 * i));
}

uint64_t GetLE(const BYTE* p, size_t width)
{
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= uint64_t(p[i]) << (8 * i);
    return v;
}

template <class F>
uint64_t AsBits(F v, size_t width)
{
    uint64_t u = static_cast<uint64_t>(v);
    return width >= 8 ? u : u & ((uint64_t(1) << (8 * width)) - 1);
}

template <class T>
using FieldType = std::remove_cv_t<std::remove_reference_t<T>>;

}  // namespace

#define LAYOUT_WRITE_RAW(f, off, w) PutLE(raw + (off), Pattern(off, w), w);
#define LAYOUT_CHECK_READ(f, off, w)                                  \
    EXPECT_EQ(sizeof(rec->f), size_t(w)) << #f " width";              \
    EXPECT_EQ(AsBits(rec->f, w), Pattern(off, w)) << #f " read at " #off;
#define LAYOUT_SET(f, off, w) rec->f = static_cast<FieldType<decltype(rec->f)>>(Pattern(off, w));
#define LAYOUT_CHECK_BYTES(f, off, w) \
    EXPECT_EQ(GetLE(raw + (off), w), Pattern(off, w)) << #f " written at " #off;

// Both directions over one field list, in a zeroed buffer of `bufsize` bytes
// (larger than the record where entries follow it).
#define LAYOUT_ROUND_TRIP(T, FIELDS, bufsize)                 \
    do {                                                      \
        std::vector<BYTE> store(bufsize, 0);                  \
        BYTE* raw = store.data();                             \
        T* rec = reinterpret_cast<T*>(raw);                   \
        FIELDS(LAYOUT_WRITE_RAW)                              \
        FIELDS(LAYOUT_CHECK_READ)                             \
        std::fill(store.begin(), store.end(), BYTE(0));       \
        FIELDS(LAYOUT_SET)                                    \
        FIELDS(LAYOUT_CHECK_BYTES)                            \
    } while (0)

// ---------------------------------------------------------------------------
// Field lists: (field, offset, width).
// ---------------------------------------------------------------------------
#define SYSTEMFILEHEAD_FIELDS(X)                                                                   \
    X(m_nDataFlag, 0, 4) X(m_nTimestamp, 4, 8) X(m_bFileNo, 12, 1) X(m_bStatus, 13, 1)             \
    X(m_bFileType, 14, 1) X(m_bSaveFlag, 15, 1) X(m_usDatabaseGuid, 16, 2) X(m_nBlockNum, 18, 4)   \
    X(m_nMaxObjectNum, 22, 4) X(m_nCurrentObjectNum, 26, 4) X(m_nFileTotalSize, 30, 8)             \
    X(m_nFileHeaderSize, 38, 4) X(m_nBlockMapStructSize, 42, 4) X(m_nBlockMapSize, 46, 4)          \
    X(m_nBlockMapStartOffset, 50, 4) X(m_nObjectInfoOffset, 54, 4) X(m_nBlockStartOffset, 58, 8)   \
    X(m_nInnerMaxNo, 66, 4) X(m_nUndoTimestamp, 70, 4) X(m_nUndoPreTimestamp, 74, 4)               \
    X(m_nFileFreePos, 78, 8) X(m_nMaxBlockMapNum, 86, 4) X(m_usShardNo, 90, 2)                     \
    X(m_usReserved, 92, 2) X(m_nReserved[0], 94, 4) X(m_nReserved[2], 102, 4)                      \
    X(m_nVersion, 106, 4) X(m_nObjectMaxID, 110, 4) X(m_bFileMaxNo, 114, 1)                        \
    X(m_bSysTimeChange, 115, 1) X(m_bStorageCMD, 116, 1) X(m_bCurrentRedoGroup, 117, 1)            \
    X(m_nRedoLogMaxID, 118, 4) X(m_nBeginTimestamp, 122, 8) X(m_nEndTimestamp, 130, 8)             \
    X(m_nFreeBlockOffset, 138, 8) X(m_bForbidSaveFlag, 146, 1) X(m_bTableFileStatus, 147, 1)       \
    X(m_bIndexFileStatus, 148, 1) X(m_bReservedData, 149, 1) X(m_nCacheTableTimestamp, 150, 8)     \
    X(m_nCacheIndexTimestamp, 158, 8) X(m_cDatabaseName[0], 166, 1) X(m_cDatabaseName[31], 197, 1) \
    X(m_cDatabasePath[0], 198, 1) X(m_cDatabasePath[259], 457, 1)                                  \
    X(m_lpArchiveDesPath[0], 458, 1) X(m_lpArchiveDesPath[511], 969, 1)                            \
    X(m_bReservedParameter[0], 1206, 4) X(m_bReservedParameter[3], 1218, 4)                        \
    X(m_stFileObject[0].m_nID, 1222, 4) X(m_stFileObject[0].m_nFullBlockMapOffset, 1226, 8)        \
    X(m_stFileObject[0].m_nFreeBlockMapOffset, 1234, 8) X(m_stFileObject[1].m_nID, 1278, 4)        \
    X(m_stFileObject[99].m_nID, 6766, 4) X(m_stFileObject[99].m_bSaveFlag, 6819, 1)                \
    X(m_usTableTimestampNum, 6822, 2) X(m_bOpenFileUseBuffer, 6824, 1) X(m_bTReserved, 6825, 1)    \
    X(m_arTableTimestamp[0], 6826, 8) X(m_arTableTimestamp[511], 10914, 8)                         \
    X(m_usIndexTimestampNum, 10922, 2) X(m_bIReserved[0], 10924, 1) X(m_bIReserved[1], 10925, 1)   \
    X(m_aIndexTimestamp[0], 10926, 8) X(m_aIndexTimestamp[511], 15014, 8)                          \
    X(m_arReserved[0], 15022, 8) X(m_arReserved[65], 15542, 8) X(m_nLastTimestamp, 15550, 8)       \
    X(m_nSafeTimestamp, 15558, 8) X(m_nStandbyTimestamp, 15566, 8) X(m_nStandbyLogNo, 15574, 4)    \
    X(m_nStandbyLogOffset, 15578, 4) X(m_bReserved[0], 15654, 4)                                   \
    X(m_bReserved[9], 15690, 4) X(m_nClusterToken, 15694, 8) X(m_lpData[0], 15702, 1)              \
    X(m_lpData[15], 15717, 1)

// The two parameter blocks, every int at its place in the documented order.
#define SYSTEMFILEHEAD_PARAMS(X)                                                                    \
    X(m_nProcesses, 970, 4) X(m_nTalvorVirtualPort, 974, 4) X(m_nTCPListenIP, 978, 4)               \
    X(m_nTCPListenPort, 982, 4) X(m_nTCPTimeout, 986, 4) X(m_nServerTraceLevel, 990, 4)             \
    X(m_nServerEfficiencyTrace, 994, 4) X(m_nTransactionIsolationLevel, 998, 4)                     \
    X(m_nServerWriteUndoMode, 1002, 4) X(m_nServerExecuteTimeMonitor, 1006, 4)                      \
    X(m_nServerCaseSensitive, 1010, 4) X(m_nMemoryTemporarySize, 1014, 4)                           \
    X(m_nMemoryUndoSize, 1018, 4) X(m_nMemoryProcessSize, 1022, 4) X(m_nDebugDumpFile, 1026, 4)     \
    X(m_nMemorySQLPlanMaxSize, 1030, 4) X(m_nMemoryRecordsetPlanMaxSize, 1034, 4)                   \
    X(m_nPersistenceIntervals, 1038, 4) X(m_nWriteUndoDelayTime, 1042, 4)                           \
    X(m_nWriteRedoOnlineGroups, 1046, 4) X(m_nWriteRedoMaxSize, 1050, 4)                            \
    X(m_nWriteTraceMaxSize, 1054, 4) X(m_nBlockDataSize, 1058, 4) X(m_nBlockBTreeIndexSize, 1062, 4) \
    X(m_nBlockBTreeDataSize, 1066, 4) X(m_nBlockHashIndexSize, 1070, 4)                             \
    X(m_nBlockHashIndexChainMaxSize, 1074, 4) X(m_nBlockHashIndexExpandRatio, 1078, 4)              \
    X(m_nBlockUsedRatio, 1082, 4) X(m_nBlockInsertMaxUseRatio, 1086, 4)                             \
    X(m_nBlockFreeRatio, 1090, 4) X(m_nBlockReorganizeRatio, 1094, 4)                               \
    X(m_nBlockRecycleRatio, 1098, 4) X(m_nObjectTransactionMaxNum, 1102, 4)                         \
    X(m_nTransactionLogicSlotCount, 1106, 4) X(m_nTransactionLogicTimeout, 1110, 4)                 \
    X(m_nTalvorReadWriteMode, 1114, 4) X(m_nTalvorClusterMode, 1118, 4)                             \
    X(m_nTalvorPGAMaxSize, 1122, 4) X(m_nLockWaitTimeout, 1126, 4) X(m_nRSCTwophaseCommit, 1130, 4) \
    X(m_nTalvorArchiveType, 1134, 4) X(m_nTalvorActiveLogTime, 1138, 4)                             \
    X(m_nTalvorBufferCacheSize, 1142, 4) X(m_nTalvorTimeZone, 1146, 4)                              \
    X(m_nTalvorVirtualIP, 1150, 4) X(m_nMySQLListenPort, 1154, 4) X(m_nAutoCommit, 1158, 4)         \
    X(m_nConnectTimeout, 1162, 4) X(m_nUniqueChecks, 1166, 4) X(m_nWaitTimeout, 1170, 4)            \
    X(m_nDefaultPasswordLifetime, 1174, 4) X(m_nMaxPacketSize, 1178, 4)                             \
    X(m_nSupportNativeJson, 1182, 4) X(m_nMemoryFileWarningSize, 1186, 4)                           \
    X(m_nDiskFileWarningSize, 1190, 4) X(m_nUndoRetention, 1194, 4) X(m_nEventScheduler, 1198, 4)   \
    X(m_nTalvorDevelopMode, 1202, 4)

#define SYSTEMFILEHEAD_PARAMS2(X)                                                     \
    X(m_nAutoIncrementIncrement, 15582, 4) X(m_nAutoIncrementOffset, 15586, 4)        \
    X(m_nBackLog, 15590, 4) X(m_nBulkInsertBufferSize, 15594, 4)                      \
    X(m_nCharacterSetDatabase, 15598, 4) X(m_nCharacterSetFileSystem, 15602, 4)       \
    X(m_nCharacterSetServer, 15606, 4) X(m_nCharacterSetSystem, 15610, 4)             \
    X(m_nCheckProxyUsers, 15614, 4) X(m_nCompletionType, 15618, 4)                    \
    X(m_nConcurrentInsert, 15622, 4) X(m_nInteractiveTimeout, 15626, 4)               \
    X(m_nNetReadTimeout, 15630, 4) X(m_nNetWriteTimeout, 15634, 4)                    \
    X(m_nNetRetryCount, 15638, 4) X(m_nUpdatableViewsWithLimit, 15642, 4)             \
    X(m_nSkipNameResolve, 15646, 4) X(m_nTableNamesLower, 15650, 4)

#define SYSTEMBLOCKHEAD_FIELDS(X)                                                                \
    X(m_nDataFlag, 0, 4) X(m_nBlockNo, 4, 4) X(m_nTimestamp, 8, 8) X(m_nLockTimestamp, 16, 8)    \
    X(m_nBlockSize, 24, 4) X(m_nBlockHeadSize, 28, 4) X(m_bStatus, 32, 1) X(m_bFileNo, 33, 1)    \
    X(m_bSaveFlag, 34, 1) X(m_bFullFlag, 35, 1) X(m_nObjectID, 36, 4) X(m_nInnerMaxNo, 40, 4)    \
    X(m_nDataInsertOffset, 44, 4) X(m_nVarDataInsertOffset, 48, 4)                               \
    X(m_nBlockDataStructSize, 52, 4) X(m_nDataNum, 56, 4)

#define FILE_MEMDBFILEINFO_FIELDS(X)                                                             \
    X(m_nInnerNo, 0, 4) X(m_bFileNo, 4, 1) X(m_bFileType, 5, 1) X(m_bFileCMD, 6, 1)              \
    X(m_bDropFlag, 7, 1) X(m_lpszFilePath[0], 8, 1) X(m_lpszFilePath[255], 263, 1)               \
    X(m_lpszTablespaceName[0], 264, 1) X(m_lpszTablespaceName[63], 327, 1)                       \
    X(m_nFileSize, 328, 8) X(m_nLoadSize, 336, 8) X(m_nMaxObjectNum, 344, 4)

#define TALVORCOMMAND_FIELDS(X)                                                                  \
    X(m_ulIP, 0, 4) X(m_nMethod, 0, 4) X(m_ulLocalIP, 4, 4) X(m_nBufferSize, 4, 4)               \
    X(m_nTimestamp, 8, 8) X(m_nTimestamp2, 16, 8) X(m_nLogNo, 24, 4) X(m_nLogPos, 28, 4)         \
    X(m_usPort, 32, 2) X(m_bCommandType, 34, 1) X(m_bResult, 35, 1) X(m_bForbidSaveFlag, 36, 1)  \
    X(m_bAbort, 37, 1) X(m_bLevel, 38, 1) X(m_bFileNo, 38, 1) X(m_bReserved[0], 39, 1)           \
    X(m_bReserved[2], 41, 1)

// The channel head, the command record and progress record at their
// absolute positions inside it.
#define STORAGEMEMHEAD_FIELDS(X)                                                                 \
    X(m_nFileTotalSize, 0, 4) X(m_nFileHeaderSize, 4, 4) X(m_nFileDataOffset, 8, 4)              \
    X(m_nBlockNo, 12, 4) X(m_nCycleTime, 16, 4) X(m_nResult, 20, 4) X(m_nTimestamp, 24, 8)       \
    X(m_bCommandType, 32, 1) X(m_bFileNo, 33, 1) X(m_bService, 34, 1) X(m_bStorage, 35, 1)       \
    X(m_bStandbyThreads, 36, 1) X(m_ClusterCommand.m_ulIP, 37, 4)                                \
    X(m_ClusterCommand.m_nTimestamp, 45, 8) X(m_ClusterCommand.m_nLogPos, 65, 4)                 \
    X(m_ClusterCommand.m_usPort, 69, 2) X(m_ClusterCommand.m_bCommandType, 71, 1)                \
    X(m_ClusterCommand.m_bResult, 72, 1) X(m_ClusterCommand.m_bForbidSaveFlag, 73, 1)            \
    X(m_ClusterCommand.m_bFileNo, 75, 1) X(m_TalvorProgress.m_lpTitle[0], 79, 1)                 \
    X(m_TalvorProgress.m_lpTitle[127], 206, 1) X(m_TalvorProgress.m_nTotal, 207, 4)              \
    X(m_TalvorProgress.m_nPos, 211, 4) X(m_TalvorProgress.m_nStatus, 215, 4)                     \
    X(m_nBackupTimestamp, 219, 8) X(m_nStorageID, 227, 4) X(m_lpszFilePath[0], 231, 1)           \
    X(m_lpszFilePath[255], 486, 1)

#define BASEFILEHEAD_FIELDS(X)                                                                   \
    X(m_nDataFlag, 0, 4) X(m_nTimestamp, 4, 8) X(m_bFileNo, 12, 1) X(m_bStatus, 13, 1)           \
    X(m_bFileType, 14, 1) X(m_bSaveFlag, 15, 1) X(m_usDatabaseGuid, 16, 2) X(m_nBlockNum, 18, 4) \
    X(m_nMaxObjectNum, 22, 4) X(m_nCurrentObjectNum, 26, 4) X(m_nFileTotalSize, 30, 8)           \
    X(m_nFileHeaderSize, 38, 4) X(m_nBlockMapStructSize, 42, 4) X(m_nBlockMapSize, 46, 4)        \
    X(m_nBlockMapStartOffset, 50, 4) X(m_nObjectInfoOffset, 54, 4)                               \
    X(m_nBlockStartOffset, 58, 8) X(m_nInnerMaxNo, 66, 4) X(m_nReserved2, 70, 8)                 \
    X(m_nFileFreeMemoryOffset, 78, 8) X(m_nMaxBlockMapNum, 86, 4) X(m_nReserved[0], 90, 4)       \
    X(m_nReserved[3], 102, 4)

#define FILE_TRACEMEMFILEHEAD_FIELDS(X)                                                          \
    X(m_nDataFlag, 0, 4) X(m_nFileTotalSize, 4, 4) X(m_nFileHeaderSize, 8, 4)                    \
    X(m_nItemSize, 12, 4) X(m_nWiteLogMinDuration, 16, 4) X(m_nWiteLogMaxDuration, 20, 4)        \
    X(m_bFileType, 24, 1) X(m_bFlushFlag, 25, 1) X(m_bWriting, 26, 1) X(m_bStatus, 27, 1)        \
    X(m_nWritePos, 28, 4) X(m_nReadPos, 32, 4) X(m_nTimestamp, 36, 8) X(m_nStartTime, 44, 8)     \
    X(m_nLogNo, 52, 4) X(m_nLogPos, 56, 4) X(m_nLogArchiveNo, 60, 4) X(m_nProcessID, 60, 4)      \
    X(m_bReadException, 64, 1) X(m_bReserved[0], 65, 1) X(m_bReserved[2], 67, 1)

#define MF_REDOLOGFILEHEAD_FIELDS(X)                                                             \
    X(m_lpszFileFlag[0], 0, 1) X(m_lpszFileFlag[9], 9, 1) X(m_nEffectiveSize, 10, 4)             \
    X(m_usDatabaseGuid, 14, 2) X(m_nSequenceNO, 16, 4) X(m_nVersion, 20, 4) X(m_bState, 24, 1)   \
    X(m_bReserved, 25, 1) X(m_ftCreateTime.dwLowDateTime, 26, 4)                                 \
    X(m_ftCreateTime.dwHighDateTime, 30, 4) X(m_nBeginTimestamp, 34, 8)                          \
    X(m_nEndTimestamp, 42, 8)

#define BASEEXECUTEPLANHEAD_FIELDS(X)                                                            \
    X(m_nTotalDataSize, 0, 4) X(m_nDataFlag, 4, 4) X(m_nType, 8, 1) X(m_bVersion, 9, 1)          \
    X(m_bWriteLog, 10, 1) X(m_bDatabaseNo, 11, 1) X(m_usTransactionNo, 12, 2)                    \
    X(m_bObjectMapNum, 14, 1) X(m_bImplementClass, 15, 1) X(m_nTimestamp, 16, 8)

// m_bIsService is a bool and is checked on its own.
#define SHAREDMEMORYUPDATE_FIELDS(X)                                                             \
    X(m_iLength, 0, 4) X(m_smpItems[0].m_lpModule[0], 5, 1) X(m_smpItems[0].m_lpModule[49], 54, 1) \
    X(m_smpItems[0].m_lpKey[0], 55, 1) X(m_smpItems[0].m_lpKey[49], 104, 1)                      \
    X(m_smpItems[0].m_lpValue[0], 105, 1) X(m_smpItems[0].m_lpValue[99], 204, 1)                 \
    X(m_smpItems[1].m_lpModule[0], 205, 1) X(m_smpItems[79].m_lpModule[0], 15805, 1)             \
    X(m_smpItems[79].m_lpValue[99], 16004, 1)

// Blocks and their record slots.
#define BLOCKHEAD_FIELDS(X)                                                                      \
    X(m_nDataFlag, 0, 4) X(m_nBlockNo, 4, 4) X(m_nTimestamp, 8, 8) X(m_nLockTimestamp, 16, 8)    \
    X(m_nBlockSize, 24, 4) X(m_nBlockHeadSize, 28, 4) X(m_bStatus, 32, 1) X(m_bFileNo, 33, 1)    \
    X(m_bSaveFlag, 34, 1) X(m_bThreadNum, 35, 1) X(m_bLinkType, 36, 1) X(m_bNodeType, 37, 1)     \
    X(m_bFlushCode, 38, 1) X(m_bFlushFlag, 39, 1) X(m_nObjectID, 40, 4)                          \
    X(m_nBlockDataStructSize, 44, 1) X(m_bReserved, 45, 1) X(m_usRemoveDataSize, 46, 2)          \
    X(m_nInnerMaxNo, 48, 4) X(m_nDataInsertOffset, 52, 4) X(m_nVarDataInsertOffset, 56, 4)       \
    X(m_nFreeDataOffset, 60, 4) X(m_nRecyclableSpaceSize, 64, 4) X(m_nVarDataAllocOffset, 68, 4) \
    X(m_nReserved, 72, 4)

#define BLOCKDATASTRUCT_FIELDS(X)                                                                \
    X(m_nInnerNo, 0, 4) X(m_bLockStatus, 4, 1) X(m_bDataStatus, 5, 1) X(m_sToken, 6, 2)          \
    X(m_nVarDataOffset, 8, 4) X(m_nVarDataLength, 12, 4) X(m_nNextDataID, 16, 8)                 \
    X(m_nTimestamp, 24, 8)

// Map pages, with entries behind their heads.
#define BASEFILEBLOCKMAPHEAD_FIELDS(X)                                                           \
    X(m_nDataFlag, 0, 4) X(m_nBlockMapNum, 4, 4) X(m_nTimestamp, 8, 8) X(m_bSaveFlag, 16, 1)     \
    X(m_nMapNo, 20, 4) X(m_nNextBlockMapOffset, 24, 8) X(m_pBlockMap[0].m_nBlockNo, 32, 4)       \
    X(m_pBlockMap[0].m_nBlockOffset, 36, 8) X(m_pBlockMap[0].m_nNextOffset, 44, 8)               \
    X(m_pBlockMap[1].m_nBlockNo, 52, 4)

#define BASEFILEBLOCKMAPHEAD_CACHE_FIELDS(X)                                                     \
    X(m_nDataFlag, 0, 4) X(m_nBlockMapNum, 4, 4) X(m_nTimestamp, 8, 8) X(m_bSaveFlag, 16, 1)     \
    X(m_bStatus, 17, 1) X(m_nMapNo, 20, 4) X(m_nNextBlockMapOffset, 24, 8)                       \
    X(m_nNextBlockMapOffset_Cache, 32, 8) X(m_pBlockMap[0].m_nBlockNo, 40, 4)                    \
    X(m_pBlockMap[0].m_nBlockSize, 44, 4) X(m_pBlockMap[0].m_nNextBlockNo, 48, 4)                \
    X(m_pBlockMap[0].m_nID, 52, 4) X(m_pBlockMap[0].m_nBlockOffset, 56, 8)                       \
    X(m_pBlockMap[679].m_nBlockNo, 16336, 4) X(m_pBlockMap[679].m_nBlockOffset, 16352, 8)

// Cache-mode heads: the prefix, then the first and last entries of a page.
#define TABLEFILEHEAD_FIELDS(X)                                                                  \
    X(m_nDataFlag, 0, 4) X(m_nBlockNum, 18, 4) X(m_nFileFreeMemoryOffset, 78, 8)                 \
    X(m_nMaxBlockMapNum, 86, 4) X(m_nNextFileHeadOffset, 90, 8) X(m_nHeadMaxObjectNum, 98, 2)    \
    X(m_usReserved, 100, 2) X(m_nReserved, 102, 4) X(m_nCacheStartOffset, 106, 8)                \
    X(m_nPersistentTimestamp, 114, 8) X(m_nFreeBlockMapNo[0], 122, 4)                            \
    X(m_nFreeBlockMapNo[9], 158, 4) X(m_stFileObject[0].m_nID, 162, 4)                           \
    X(m_stFileObject[0].m_nFullBlockNo, 166, 4) X(m_stFileObject[0].m_nFreeBlockNo, 170, 4)      \
    X(m_stFileObject[0].m_nRecordNum, 174, 8) X(m_stFileObject[0].m_nAutoIncrement, 182, 8)      \
    X(m_stFileObject[0].m_bObjectType, 190, 1) X(m_stFileObject[505].m_nID, 16322, 4)            \
    X(m_stFileObject[505].m_bObjectType, 16350, 1)

#define INDEXFILEHEAD_FIELDS(X)                                                                  \
    X(m_nDataFlag, 0, 4) X(m_nHeadMaxObjectNum, 98, 2) X(m_nPersistentTimestamp, 114, 8)         \
    X(m_nFreeBlockNo, 122, 4) X(m_stRootMap[0].m_nIndexID, 126, 4)                               \
    X(m_stRootMap[0].m_nBlockNo, 130, 4) X(m_stRootMap[0].m_nRecycleMapNo, 134, 4)               \
    X(m_stRootMap[0].m_bFieldNum, 138, 1) X(m_stRootMap[0].m_bFieldType[0], 139, 1)              \
    X(m_stRootMap[0].m_bFieldType[8], 147, 1) X(m_stRootMap[0].m_bSaveFlag, 148, 1)              \
    X(m_stRootMap[676].m_nIndexID, 16350, 4) X(m_stRootMap[676].m_bSaveFlag, 16372, 1)

#define TABLEFILEHEADEX_FIELDS(X)                                                                \
    X(m_nDataFlag, 0, 4) X(m_bFileNo, 4, 1) X(m_bFileType, 5, 1) X(m_bExHeadNo, 6, 1)            \
    X(m_nExHeadMaxObjectNum, 8, 2) X(m_nNextFileHeadOffset, 10, 8)                               \
    X(m_nNextFileHeadCacheOffset, 18, 8) X(m_stFileObject[0].m_nID, 26, 4)                       \
    X(m_stFileObject[510].m_bObjectType, 16374, 1)

#define INDEXFILEHEADEX_FIELDS(X)                                                                \
    X(m_nDataFlag, 0, 4) X(m_nExHeadMaxObjectNum, 8, 2) X(m_nNextFileHeadCacheOffset, 18, 8)     \
    X(m_stRootMap[0].m_nIndexID, 26, 4) X(m_stRootMap[680].m_bSaveFlag, 16368, 1)

// ---------------------------------------------------------------------------

TEST(RecordLayout, SystemFileHeadMatchesDocumentedBytes)
{
    EXPECT_EQ(sizeof(SYSTEMFILEHEAD), 15718u);
    LAYOUT_ROUND_TRIP(SYSTEMFILEHEAD, SYSTEMFILEHEAD_FIELDS, 15718);
}

TEST(RecordLayout, SystemParametersMatchDocumentedBytes)
{
    LAYOUT_ROUND_TRIP(SYSTEMFILEHEAD, SYSTEMFILEHEAD_PARAMS, 15718);
    LAYOUT_ROUND_TRIP(SYSTEMFILEHEAD, SYSTEMFILEHEAD_PARAMS2, 15718);
}

TEST(RecordLayout, FileListAndChannelRecordsMatchDocumentedBytes)
{
    EXPECT_EQ(sizeof(SYSTEMBLOCKHEAD), 60u);
    EXPECT_EQ(sizeof(FILE_MEMDBFILEINFO), 348u);
    EXPECT_EQ(sizeof(STORAGEMEMHEAD), 487u);
    EXPECT_EQ(sizeof(TALVORCOMMAND), 42u);
    EXPECT_EQ(sizeof(TALVORPROGRESS), 140u);
    LAYOUT_ROUND_TRIP(SYSTEMBLOCKHEAD, SYSTEMBLOCKHEAD_FIELDS, 60);
    LAYOUT_ROUND_TRIP(FILE_MEMDBFILEINFO, FILE_MEMDBFILEINFO_FIELDS, 348);
    LAYOUT_ROUND_TRIP(STORAGEMEMHEAD, STORAGEMEMHEAD_FIELDS, 487);
    LAYOUT_ROUND_TRIP(TALVORCOMMAND, TALVORCOMMAND_FIELDS, 42);
}

TEST(RecordLayout, DatabaseFileRecordsMatchDocumentedBytes)
{
    EXPECT_EQ(sizeof(BASEFILEHEAD), 106u);
    EXPECT_EQ(sizeof(BASEFILEOBJECTDEF), 56u);
    EXPECT_EQ(sizeof(BLOCKHEAD), 76u);
    LAYOUT_ROUND_TRIP(BASEFILEHEAD, BASEFILEHEAD_FIELDS, 106);
    LAYOUT_ROUND_TRIP(BLOCKHEAD, BLOCKHEAD_FIELDS, 76);
    LAYOUT_ROUND_TRIP(BLOCKDATASTRUCT, BLOCKDATASTRUCT_FIELDS, 32);
    LAYOUT_ROUND_TRIP(BASEFILEBLOCKMAPHEAD, BASEFILEBLOCKMAPHEAD_FIELDS, 72);
    // Cache-mode pages are whole 16384-byte pages.
    for (size_t n : {sizeof(TABLEFILEHEAD), sizeof(INDEXFILEHEAD), sizeof(TABLEFILEHEADEX),
                     sizeof(INDEXFILEHEADEX)})
        EXPECT_EQ(n, 16384u);
    LAYOUT_ROUND_TRIP(BASEFILEBLOCKMAPHEAD_CACHE, BASEFILEBLOCKMAPHEAD_CACHE_FIELDS, 16384);
    LAYOUT_ROUND_TRIP(TABLEFILEHEAD, TABLEFILEHEAD_FIELDS, 16384);
    LAYOUT_ROUND_TRIP(INDEXFILEHEAD, INDEXFILEHEAD_FIELDS, 16384);
    LAYOUT_ROUND_TRIP(TABLEFILEHEADEX, TABLEFILEHEADEX_FIELDS, 16384);
    LAYOUT_ROUND_TRIP(INDEXFILEHEADEX, INDEXFILEHEADEX_FIELDS, 16384);
}

TEST(RecordLayout, RingRedoAndConfigRecordsMatchDocumentedBytes)
{
    EXPECT_EQ(sizeof(FILE_TRACEMEMFILEHEAD), 68u);
    EXPECT_EQ(sizeof(MF_REDOLOGFILEHEAD), 50u);
    EXPECT_EQ(sizeof(BASEEXECUTEPLANHEAD), 24u);
    EXPECT_EQ(sizeof(SharedMemoryUpdate), 16005u);
    LAYOUT_ROUND_TRIP(FILE_TRACEMEMFILEHEAD, FILE_TRACEMEMFILEHEAD_FIELDS, 68);
    LAYOUT_ROUND_TRIP(MF_REDOLOGFILEHEAD, MF_REDOLOGFILEHEAD_FIELDS, 50);
    LAYOUT_ROUND_TRIP(BASEEXECUTEPLANHEAD, BASEEXECUTEPLANHEAD_FIELDS, 24);
    LAYOUT_ROUND_TRIP(SharedMemoryUpdate, SHAREDMEMORYUPDATE_FIELDS, CONFIGUPDATE_SEGMENT_SIZE);

    // The writer's side is one byte at 4, between the count and the items.
    std::vector<BYTE> seg(CONFIGUPDATE_SEGMENT_SIZE, 0);
    seg[4] = 1;
    auto* lpUpdate = reinterpret_cast<SharedMemoryUpdate*>(seg.data());
    EXPECT_TRUE(lpUpdate->m_bIsService);
    EXPECT_EQ(+lpUpdate->m_iLength, 0u);
    lpUpdate->m_bIsService = false;
    EXPECT_EQ(seg[4], 0);
}

// The system image is also read through BASEFILEHEAD by the memory backend:
// the common fields must land on the same bytes under both names.
// Fields are read by value (unary +): a packed field must never bind to a
// reference, as EXPECT_EQ's parameters would.
TEST(RecordLayout, SystemHeadReadsAsBaseFileHead)
{
    std::vector<BYTE> image(sizeof(SYSTEMFILEHEAD), 0);
    auto* lpSys = reinterpret_cast<SYSTEMFILEHEAD*>(image.data());
    const auto* lpBase = reinterpret_cast<const BASEFILEHEAD*>(image.data());
    lpSys->m_nDataFlag = SYSTEMFILE_DATAFLAG;
    lpSys->m_nTimestamp = 0x1122334455667788LL;
    lpSys->m_nFileTotalSize = 0x123456789ALL;
    lpSys->m_nFileHeaderSize = 15718;
    lpSys->m_nFileFreePos = 0x0BADC0FFEE0LL;
    lpSys->m_nMaxBlockMapNum = 13107;
    EXPECT_EQ(+lpBase->m_nDataFlag, SYSTEMFILE_DATAFLAG);
    EXPECT_EQ(+lpBase->m_nTimestamp, 0x1122334455667788LL);
    EXPECT_EQ(+lpBase->m_nFileTotalSize, 0x123456789ALL);
    EXPECT_EQ(+lpBase->m_nFileHeaderSize, 15718);
    EXPECT_EQ(+lpBase->m_nFileFreeMemoryOffset, 0x0BADC0FFEE0LL);
    EXPECT_EQ(+lpBase->m_nMaxBlockMapNum, 13107);
    // A commit writes exactly m_nInnerMaxNo .. m_nFreeBlockOffset.
    EXPECT_EQ(SYSTEMFILE_DYNAMIC_OFFSET, 66);
    EXPECT_EQ(SYSTEMFILE_DYNAMIC_OFFSET + SYSTEMFILE_DYNAMIC_SIZE, 146);
}

TEST(RecordLayout, MarksAndKeysSpellTheirLetters)
{
    struct {
        int nMark;
        const char* lpOnDisk;  // bytes as they stand in the file
    } marks[] = {
        {SYSTEMFILE_DATAFLAG, "QNSF"},     {DATAFILE_DATAFLAG, "QNDF"},
        {BTREEINDEXFILE_DATAFLAG, "QNBF"}, {KVINDEXFILE_DATAFLAG, "QNHF"},
        {BLOCKMAP_DATAFLAG, "QNMB"},       {BLOCK_DATAFLAG, "QNDB"},
        {VARDATA_DATAFLAG, "QNBV"},        {TABLEFILE_DATAFLAG, "CBDF"},
        {INDEXFILE_DATAFLAG, "CBBF"},      {TABLEFILEEX_DATAFLAG, "CBDE"},
        {INDEXFILEEX_DATAFLAG, "CBBE"},    {BLOCKMAP_CACHE_DATAFLAG, "QNDM"},
        {TRACEMEMFILE_DATAFLAG, "QNMT"},
    };
    for (const auto& m : marks) {
        BYTE b[4];
        PutLE(b, static_cast<UINT>(m.nMark), 4);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(b), 4), m.lpOnDisk);
    }

    // Keys read from the high byte down.
    struct {
        int nKey;
        const char* lpLetters;
    } keys[] = {{SHMKEY_STORAGEMEM, "QNSM"}, {SHMKEY_ROLLBACK, "QNRM"}, {SHMKEY_CACHEBUFFER, "QNCB"},
                {SHMKEY_TRACERING, "QNTR"},  {SHMKEY_REDORING, "QNLO"}};
    for (const auto& k : keys) {
        std::string s;
        for (int i = 3; i >= 0; --i) s += static_cast<char>((static_cast<UINT>(k.nKey) >> (8 * i)) & 0xFF);
        EXPECT_EQ(s, k.lpLetters);
    }
    EXPECT_EQ(FileImageShmKey(1), 0x514E4601);
    EXPECT_EQ(FileImageShmKey(255), 0x514E46FF);

    // Each file type finds its own head mark; unknown types find none.
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_SYSTEM), SYSTEMFILE_DATAFLAG);
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_DATA), DATAFILE_DATAFLAG);
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_BTREEINDEX), BTREEINDEXFILE_DATAFLAG);
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_KVINDEX), KVINDEXFILE_DATAFLAG);
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_TABLE), TABLEFILE_DATAFLAG);
    EXPECT_EQ(FileHeadDataFlag(FILETYPE_INDEX), INDEXFILE_DATAFLAG);
    for (BYTE t : {0, 5, 9, 12, 255}) EXPECT_EQ(FileHeadDataFlag(t), 0) << int(t);
    EXPECT_TRUE(IsCacheFileType(10) && IsCacheFileType(11));
    EXPECT_FALSE(IsCacheFileType(1) || IsCacheFileType(4) || IsCacheFileType(12));

    // Redo records of types 10..14 carry no trailer.
    EXPECT_TRUE(RedoRecordHasTrailer(9));
    EXPECT_FALSE(RedoRecordHasTrailer(10));
    EXPECT_FALSE(RedoRecordHasTrailer(14));
    EXPECT_TRUE(RedoRecordHasTrailer(15));
    BYTE trailer[4];
    PutLE(trailer, REDORECORD_TRAILER, 4);
    EXPECT_EQ(GetLE(trailer, 4), 0x100A1114u);

    // Semaphore names hold one literal backslash after "Global".
    for (const char* lpName : {SEMNAME_SERVICE, SEMNAME_STORAGEEVENT, SEMNAME_LOGEVENT,
                               SEMNAME_LOGEMPTYEVENT, SEMNAME_FLASHBACKEVENT, SEMNAME_FLASHBACKEND,
                               SEMNAME_TRACEEVENT, SEMNAME_CACHELOADEVENT_PREFIX}) {
        std::string s(lpName);
        EXPECT_EQ(s.compare(0, 7, "Global\\"), 0) << s;
        EXPECT_EQ(std::count(s.begin(), s.end(), '\\'), 1) << s;
    }
    EXPECT_EQ(std::string(SEMNAME_STORAGEEVENT).size(), 28u);
}
