// MemDBBackupDef.h — the records of a backup file: the head area at offset 0
// (a fixed part and one record per database file), and the pages of an
// incremental backup. Byte-packed; the daemon that writes them, the restore
// that reads them and the operator's verifier share this one definition.
#pragma once

#include "TypeDef.h"

#include <cstddef>

inline constexpr int BACKUP_VERSION = 0x5000000;
inline constexpr int BACKUP_FILEFLAG = 0x41444B42;  // "BKDA"
inline constexpr int BACKUP_HEAD_ALIGN = 8192;
inline constexpr char BACKUP_DATAFLAG[8] = "Talvor";

// m_bLevel of a backup head.
enum : BYTE {
    BACKUPLEVEL_FULL = 0,
    BACKUPLEVEL_INCREMENT1 = 1,
    BACKUPLEVEL_INCREMENT2 = 2,
};

#pragma pack(push, 1)

// One database file in a backup.
typedef struct _STRUCT_BACKUP_FILEINFO {
    BYTE m_bFileType;
    BYTE m_bFileNo;
    BYTE m_bReserved[2];
    long long m_nFileSize;
    int m_nFileHeaderSize;
    long long m_nFileFreeMemoryOffset;  // the copied bytes of a full backup: 0 to here
    char m_lpszFilePath[256];           // a restore writes to this path
    long long m_nDataStartOffset;
    long long m_nDataEndOffset;
} STRUCT_BACKUP_FILEINFO, *LPSTRUCT_BACKUP_FILEINFO;

// The fixed part of the head area; the records follow it.
typedef struct _BACKUPFILEHEAD {
    int m_nVersion;
    int m_nFileFlag;
    int m_nHeadSize;
    char m_pDataFlag[8];
    long long m_nTimestamp;
    long long m_nReferTimestamp;  // 0 in a full backup
    int m_nLogNo;
    USHORT m_usDataBaseGuid;
    BYTE m_bLevel;
    BYTE m_bReserved;
    FILETIME m_ftBackupTime;
    UINT m_ulHostIP;
    char m_pMachineName[32];
    char m_pUserName[24];
    int m_nFileNum;
    int m_nLogPos;
    int m_nReserved[3];
    STRUCT_BACKUP_FILEINFO m_stBackupFileInfo[1];
} BACKUPFILEHEAD, *LPBACKUPFILEHEAD;

// One piece of an incremental backup.
typedef struct _BACKUPINCREMENTITEM {
    int m_nBlockSize;
    int m_nBlockNo;
    BYTE m_nBlockType;
    BYTE m_bReserved[3];
    long long m_nBlockDataPos;
    long long m_nBlockFilePos;
} BACKUPINCREMENTITEM, *LPBACKUPINCREMENTITEM;

// A page of an incremental backup, always BACKUP_INCREMENT_PAGE_SIZE bytes in
// the file.
typedef struct _BACKUPINCREMENTHEAD {
    int m_nDataFlag;
    int m_nBlockSize;
    int m_nIncrementBlockNum;
    long long m_nNextPos;
    BACKUPINCREMENTITEM m_pBlockItem[1];
} BACKUPINCREMENTHEAD, *LPBACKUPINCREMENTHEAD;

#pragma pack(pop)

inline constexpr int BACKUP_FIXED_HEAD_SIZE = (int)offsetof(BACKUPFILEHEAD, m_stBackupFileInfo);
inline constexpr int BACKUP_INCREMENT_PAGE_SIZE = 8192;
inline constexpr int BACKUP_INCREMENT_FLAG = 0x48464E49;  // "INFH"
inline constexpr int BACKUP_INCREMENT_MAX_ITEMS = 290;

// m_nBlockType of an increment item.
enum : BYTE {
    BACKUPITEM_FILEHEAD = 1,
    BACKUPITEM_MAPBLOCK = 2,
    BACKUPITEM_DATABLOCK = 3,
};

// Size of the head area of nFileNum records: the fixed part and the records,
// rounded up to a multiple of 8192 (at least one record's room is counted).
inline constexpr int BackupHeadSize(int nFileNum)
{
    int nBytes = 428 + (nFileNum > 1 ? nFileNum - 1 : 0) * 296;
    return (nBytes + BACKUP_HEAD_ALIGN - 1) / BACKUP_HEAD_ALIGN * BACKUP_HEAD_ALIGN;
}

static_assert(sizeof(STRUCT_BACKUP_FILEINFO) == 296, "backup file record is 296 bytes");
static_assert(offsetof(STRUCT_BACKUP_FILEINFO, m_nFileSize) == 4 &&
                  offsetof(STRUCT_BACKUP_FILEINFO, m_nFileHeaderSize) == 12 &&
                  offsetof(STRUCT_BACKUP_FILEINFO, m_nFileFreeMemoryOffset) == 16 &&
                  offsetof(STRUCT_BACKUP_FILEINFO, m_lpszFilePath) == 24 &&
                  offsetof(STRUCT_BACKUP_FILEINFO, m_nDataStartOffset) == 280 &&
                  offsetof(STRUCT_BACKUP_FILEINFO, m_nDataEndOffset) == 288,
              "backup file record layout");
static_assert(BACKUP_FIXED_HEAD_SIZE == 132, "backup head fixed part is 132 bytes");
static_assert(offsetof(BACKUPFILEHEAD, m_nTimestamp) == 20 && offsetof(BACKUPFILEHEAD, m_nReferTimestamp) == 28 &&
                  offsetof(BACKUPFILEHEAD, m_nLogNo) == 36 && offsetof(BACKUPFILEHEAD, m_usDataBaseGuid) == 40 &&
                  offsetof(BACKUPFILEHEAD, m_bLevel) == 42 && offsetof(BACKUPFILEHEAD, m_ftBackupTime) == 44 &&
                  offsetof(BACKUPFILEHEAD, m_ulHostIP) == 52 && offsetof(BACKUPFILEHEAD, m_pMachineName) == 56 &&
                  offsetof(BACKUPFILEHEAD, m_pUserName) == 88 && offsetof(BACKUPFILEHEAD, m_nFileNum) == 112 &&
                  offsetof(BACKUPFILEHEAD, m_nLogPos) == 116,
              "backup head layout");
static_assert(sizeof(BACKUPINCREMENTITEM) == 28, "increment item is 28 bytes");
static_assert(offsetof(BACKUPINCREMENTITEM, m_nBlockDataPos) == 12 &&
                  offsetof(BACKUPINCREMENTITEM, m_nBlockFilePos) == 20,
              "increment item layout");
static_assert(offsetof(BACKUPINCREMENTHEAD, m_nNextPos) == 12 && offsetof(BACKUPINCREMENTHEAD, m_pBlockItem) == 20,
              "increment page layout");
static_assert(20 + BACKUP_INCREMENT_MAX_ITEMS * 28 <= BACKUP_INCREMENT_PAGE_SIZE, "a page holds its items");
static_assert(BackupHeadSize(1) == 8192 && BackupHeadSize(27) == 8192 && BackupHeadSize(28) == 16384,
              "head area rounding");
