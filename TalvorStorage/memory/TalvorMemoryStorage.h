// TalvorMemoryStorage.h — the backend of a memory-mode file (types 1 to 4):
// one disk file and one SysV segment of exactly its size, in which the
// engine reads and changes the file.
//
// The segment of file number n has the key 0x514E4600 + n and outlives the
// daemon: found at start, it is kept as it is and the file is not read.
// The class keeps no lock of its own: calls that change a file come from one
// thread at a time (the start, then the storage thread), while the engine
// works in the image.
//
// Split by concern: TalvorMemoryStorage.cpp (open, load, release, the small
// operations), TalvorMemoryStorageFile.cpp (create, write out whole, make
// directories), TalvorMemoryStorageResize.cpp (grow),
// TalvorMemoryStorageSave.cpp (the save pass).
#pragma once

#include "FileListHolder.h"
#include "LinuxCommonAPI.h"
#include "MemoryMapOnDisk.h"
#include "MemDBCommonDef.h"
#include "TalvorStorageDef.h"
#include "TypeDef.h"

#include <cstring>

class CTalvorMemoryStorage : public IVirtualStorageFile {
public:
    CTalvorMemoryStorage();
    virtual ~CTalvorMemoryStorage();

    int Release() override;
    int Initialize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                   CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress,
                   BYTE bOpenFileUseBuffer) override;
    int SaveChange2File(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                        long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, BOOL bForce,
                        BOOL& bFlashbackFlag) override;
    int ChangeFileSize(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, long long nTimestamp,
                       long long nLastSaveTimestamp, LPBYTE lpBuffer, LPBYTE lpHeadBuf, long long nFileSize,
                       int nBufferSize, LPTALVORPROGRESS lpTalvorProgress) override;
    int NewFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, LPBYTE& lpBuffer, int& nInPutBufSize,
                USHORT usDatabaseGuid, CTalvorFlashback* pFlashback, LPTALVORPROGRESS lpTalvorProgress,
                BYTE bOpenFileUseBuffer) override;
    int Save2File(LPFILEINFO pFileInfo, BOOL bNewFile, LPTALVORPROGRESS lpTalvorProgress) override;
    int LoadBlock(LPTALVORCRITICALSECTION lpCritSection, BYTE bFileNo, UINT nBlockNo, long long& llFileBlockOffset,
                  int nBlockSize, LPBYTE lpBuf) override;
    int FlushBlock(LPTALVORCRITICALSECTION lpCritSection, stu_CacheFlush* pCacheFlush, LPBYTE lpBuffer) override;
    int ChangeFilePath(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, char* lpszFilePath,
                       LPBYTE lpBuffer, int nBufferSize, LPTALVORPROGRESS lpTalvorProgress,
                       BYTE bOpenFileUseBuffer) override;
    long long GetFreeMemoryOffset(LPFILEINFO pFileInfo) override;
    int OpenFile(LPTALVORCRITICALSECTION lpCritSection, LPFILEINFO pFileInfo, BYTE bOpenFileUseBuffer) override;
    int GetHeadSize(LPFILEINFO pFileInfo) override;
    int ReadBlock(LPTALVORCRITICALSECTION lpCritSection, long long llPos, LPBYTE lpBuf, int nSize) override;
    long long GetFileTimestamp(LPFILEINFO pFileInfo) override;
    BOOL CheckSpace(LPFILEINFO pFileInfo) override;
    void TestSpeed(LPTALVORCRITICALSECTION lpCritSection, LPBYTE lpBuffer, int nType, int nBufferSize) override;
    BOOL CheckFlush() override;
    int FlushBuffer(LPTALVORCRITICALSECTION lpCritSection) override;

    // Makes the directories of a file's path. 0 for an empty path, else 1
    // whatever happened: the creation of the file tells.
    BOOL MakeDir(char* lpszFilePath);
    // Takes the file back to lpszPath, a whole copy of it that the list on
    // disk still names: opened there, the present handle closed, the path
    // the descriptor's. 0, or 1 with the present file kept (traced).
    // Storage thread (a move that could not be finished).
    int SwitchBackTo(const char* lpszPath);

    // TRUE when Initialize took over a segment that outlived an earlier run
    // of the daemon: it may hold the engine's work not yet on disk.
    BOOL TookOverSegment() const { return m_bTookOver; }
    // Release then detaches the segment and leaves it for the next start.
    void KeepSegmentOnRelease() { m_bKeepSegment = TRUE; }
    // The file on disk was written by something other than this object (its
    // bytes laid back from outside): nothing the save pass knows of its map
    // blocks there holds any more. Storage thread, no latch.
    void FileWrittenOutside() { m_stMapOnDisk.Forget(); }
    // The system file's object only: the holder its pass asks about the
    // rows of the file list (null: rows go as the image has them). Set once,
    // before the first pass, on the thread that starts the file.
    void SetFileListHolder(ITalvorFileListHolder* pHolder) { m_pListHolder = pHolder; }

    LPFILEINFO m_pFileInfo;
    CTalvorFlashback* m_pFlashback;

private:
    BOOL m_bTookOver = FALSE;
    BOOL m_bKeepSegment = FALSE;
    // The file's size on disk at start; the system file's image may be
    // smaller (grown on command, taken over at its old size).
    long long m_nDiskFileSize = 0;
    // The map blocks the save pass last wrote and synced; forgotten by every
    // other writer of the file.
    CMemoryMapOnDisk m_stMapOnDisk;
    ITalvorFileListHolder* m_pListHolder = nullptr;

    // Open flags by type: the system file takes small writes at odd offsets
    // and is opened plain; the others are direct and synchronous.
    static int OpenFlags(BYTE bFileType, BOOL bCreate);
    int OpenExistingFile();
    BOOL SettleFileSize();
    int AttachSegment(BOOL& bExists);
    // The size the head on disk gives the file; -1 when it cannot be read.
    long long DiskHeadSize();
    int LoadImage(LPTALVORPROGRESS lpTalvorProgress, long long nTotalProgress);
    int CheckImageHead();
    // Creates and attaches a segment of nSize bytes under the file's key,
    // which must be new: a segment found there is not ours to keep or remove.
    // Failures are traced under lpszFunc with nOpenCode or nMapCode.
    int MakeFreshSegment(LPFILEINFO p, long long nSize, const char* lpszFunc, LONG nOpenCode, LONG nMapCode);
};
