// DbFileCheck.h — an offline look at a whole database: the system file's
// control data, its file list, and each file's head and maps; on request a
// walk of every mark, chain and bound of every file, each damage told once
// as a finding.
//
// It only ever reads: every file is opened O_RDONLY through CTalvorFileIO,
// so a damaged database is looked at exactly as the disk holds it. A memory-
// mode file is read whole (the daemon mirrors it whole too); a cache-mode
// file is read page by page, since it may be far larger than memory.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

// What kind of damage a finding is.
enum : int {
    DBCHECK_READ = 1,      // the file is missing or cannot be read
    DBCHECK_HEAD = 2,      // a head field contradicts the file or the list
    DBCHECK_MARK = 3,      // a record does not carry its mark
    DBCHECK_LOOP = 4,      // a chain comes back to where it passed
    DBCHECK_BOUND = 5,     // an offset or number points past what exists
    DBCHECK_COMMIT = 6,    // the committed control data contradict each other
    DBCHECK_FILELIST = 7,  // the file list itself is wrong
};

// "read", "head", ...; "?" for an unknown kind.
const char* DbCheckKindName(int nKind);
// "system", "data", "btree-index", "kv-index", "table", "index" or "unknown".
const char* DbFileTypeName(BYTE bFileType);

typedef struct _DBFINDING {
    int m_nKind;              // DBCHECK_*
    BYTE m_bFileNo;
    long long m_nOffset;      // byte offset in the file, -1 when none applies
    char m_szPath[257];
    char m_szText[384];
} DBFINDING, *LPDBFINDING;

// Called once for each finding, on the checking thread.
typedef void (*LPDBFINDINGFN)(void* pContext, const DBFINDING* pFinding);
// Called before each file is looked at (nIndex from 0 of nCount files).
typedef void (*LPDBPROGRESSFN)(void* pContext, int nIndex, int nCount, const char* lpszPath);

// What the report says of one file.
typedef struct _DBFILESUMMARY {
    BYTE m_bFileNo;
    BYTE m_bFileType;           // as the list records it
    BYTE m_bDropFlag;
    char m_szPath[257];
    char m_szName[65];
    long long m_nListSize;      // m_nFileSize of its row
    long long m_nDiskSize;      // -1 when the file cannot be opened
    BOOL m_bHeadRead;           // the fields below hold the head's values
    int m_nDataFlag;
    BYTE m_bHeadFileNo;
    BYTE m_bHeadFileType;
    USHORT m_usDatabaseGuid;
    long long m_nTimestamp;
    long long m_nFileTotalSize;
    long long m_nFreeOffset;
    UINT m_nBlockNum;
    int m_nMaxObjectNum;
    int m_nCurrentObjectNum;
    int m_nHeaderSize;
    int m_nBlockMapSize;
    long long m_nBlockMapStartOffset;
    long long m_nBlockStartOffset;
    long long m_nPersistentTimestamp;  // cache mode; in memory mode the oldest object's
    // Filled by the walk only.
    int m_nObjectsInUse;
    int m_nMapBlocks;
    long long m_nMapEntries;
    int m_nExtendedHeads;
    long long m_nBlocksChecked;
    int m_nFindings;
} DBFILESUMMARY, *LPDBFILESUMMARY;

inline constexpr int DBCHECK_MAX_FILES = MAX_FILE_NUM;

class CDbChecker {
public:
    CDbChecker(LPDBFINDINGFN pFinding, LPDBPROGRESSFN pProgress, void* pContext);
    ~CDbChecker();
    CDbChecker(const CDbChecker&) = delete;
    CDbChecker& operator=(const CDbChecker&) = delete;

    // Reads the system file and its file list. FALSE when no head could be
    // had (a finding says why); the list may still be partial on TRUE.
    // One thread; no latch.
    BOOL Load(const char* lpszSystemPath);
    // The system head as read; null before a successful Load.
    const SYSTEMFILEHEAD* SystemHead() const { return (const SYSTEMFILEHEAD*)m_lpSystem; }
    // Entry 0 is the system file, then the rows of the list in list order.
    int FileCount() const { return m_nFiles; }
    const DBFILESUMMARY& File(int i) const { return m_arFiles[i]; }

    // Fills in each file's head (bWalk FALSE), or also walks every map,
    // chain and block (bWalk TRUE), reporting what it finds. Returns the
    // number of findings in all. One thread; no latch.
    int Run(BOOL bWalk);
    int Findings() const { return m_nFindings; }

    // Used by the per-mode walkers.
    void Report(int nKind, LPDBFILESUMMARY pFile, long long nOffset, const char* lpFormat, ...)
        __attribute__((format(printf, 5, 6)));

private:
    void CheckSystemHead();
    void CheckCommit();
    void CheckFileList();
    void CheckListRows();
    void LookAtFile(LPDBFILESUMMARY pFile, BOOL bWalk);

    LPDBFINDINGFN m_pFinding;
    LPDBPROGRESSFN m_pProgress;
    void* m_pContext;
    LPBYTE m_lpSystem;
    long long m_nSystemSize;
    int m_nFiles;
    int m_nFindings;
    DBFILESUMMARY* m_arFiles;
};

// The per-mode walkers (DbFileCheckMemory.cpp, DbFileCheckCache.cpp). fd is
// open read-only; usGuid is the system head's. They fill the summary and
// report through pChecker.
void DbCheckMemoryFile(CDbChecker* pChecker, LPDBFILESUMMARY pFile, int fd, USHORT usGuid, BOOL bWalk);
void DbCheckCacheFile(CDbChecker* pChecker, LPDBFILESUMMARY pFile, int fd, USHORT usGuid, BOOL bWalk);
// Walks the map blocks, the object chains and every block of a memory-mode
// image already in memory (the system file included).
void DbWalkMemoryImage(CDbChecker* pChecker, LPDBFILESUMMARY pFile, const BYTE* lpImage, long long nSize);

// Reads the whole file at fd into a new buffer (free()); null when it cannot.
LPBYTE DbReadWholeFile(int fd, long long* pnSize);
