// TalvorStorageDef.h — the daemon's own definitions: the runtime descriptor
// of one database file and the storage interface both backends implement.
// The on-disk and shared records themselves live in MemDBCommonDef.h.
#pragma once

#include "LinuxCommonAPI.h"
#include "MemDBCommonDef.h"
#include "TypeDef.h"

// Settings read from the ini at start, read by every subsystem afterwards.
extern int g_nWriteBlockLog;
extern int g_nForceFlushLog;
extern int g_nCluster;
extern int g_nNodeIdentity;

class IVirtualStorageFile;
class CTalvorFlashback;
struct stu_CacheFlush;

// The runtime descriptor of one file. Process-private; kept in the module's
// list m_pStorageInfo and in m_arFileInfo by file number.
typedef struct stu_FILEINFO {
    int m_nShmId;
    void* m_hFile;
    void* m_hFile2;
    LPBYTE m_pFileAddr;
    char m_lpszFilePath[256];
    char m_lpszTablespaceName[64];
    BYTE m_bFileNo;
    char m_bFileType;
    long long m_nTimestamp;
    int m_nMaxObjectNum;
    long long m_liFileSize;
    long long* m_pLoadSize;
    volatile BYTE* m_pSaveFlag;
    LPFILE_MEMDBFILEINFO m_lpFileInfo;
    IVirtualStorageFile* m_pStorageFile;
    stu_FILEINFO* m_pNext;
} FILEINFO, *LPFILEINFO;

// A file as the rest of the daemon sees it, whatever its mode. Every int
// result is 0 for success; a failure has been traced before it returns.
class IVirtualStorageFile {
public:
    virtual ~IVirtualStorageFile() {}
    virtual int Release() = 0;
    virtual int Initialize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                           CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress,
                           BYTE bOpenFileUseBuffer) = 0;
    virtual int SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                                long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, BOOL bForce,
                                BOOL& bFlashbackFlag) = 0;
    virtual int ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                               long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, long long nFileSize,
                               int nBufferSize, LPTALVORPROGRESS lpTalvorProgress) = 0;
    virtual int NewFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, LPBYTE& lpBuffer,
                        int& nInPutBufSize, USHORT usDatabaseGuid, CTalvorFlashback* pFlashback,
                        LPTALVORPROGRESS lpTalvorProgress, BYTE bOpenFileUseBuffer) = 0;
    virtual int Save2File(LPFILEINFO pFileInfo, BOOL bNewFile, LPTALVORPROGRESS lpTalvorProgress) = 0;
    virtual int LoadBlock(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, UINT nBlockNo,
                          long long& llFileBlockOffset, int nBlockSize, LPBYTE lpBuf) = 0;
    virtual int FlushBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* pCacheFlush, LPBYTE lpBuffer) = 0;
    virtual int ChangeFilePath(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, char* lpszFilePath,
                               LPBYTE lpBuffer, int nBufferSize, LPTALVORPROGRESS lpTalvorProgress,
                               BYTE bOpenFileUseBuffer) = 0;
    virtual long long GetFreeMemoryOffset(LPFILEINFO pFileInfo) = 0;
    virtual int OpenFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bOpenFileUseBuffer) = 0;
    virtual int GetHeadSize(LPFILEINFO pFileInfo) = 0;
    virtual int ReadBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize) = 0;
    virtual long long GetFileTimestamp(LPFILEINFO pFileInfo) = 0;
    virtual BOOL CheckSpace(LPFILEINFO pFileInfo) = 0;
    virtual void TestSpeed(LPTALVORCRITICALSECTION lpCritSection, LPBYTE lpBuffer, int nType, int nBufferSize) = 0;
    virtual BOOL CheckFlush() = 0;
    virtual int FlushBuffer(LPTALVORCRITICALSECTION lpCritSection) = 0;
};
