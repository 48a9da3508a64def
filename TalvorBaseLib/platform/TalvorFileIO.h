// TalvorFileIO.h — the one thin layer every database, log, trace, undo,
// archive and configuration file goes through: open, positional read and
// write, sync, truncate, close, and the name operations (rename, unlink,
// mkdir, directory sync, stat, list).
//
// Positional calls only: no descriptor carries a shared seek position, so
// threads never race on one. Tests install a twin (CTalvorFileIO::Install)
// that fails the k-th call of a kind, cuts writes short, or drops everything
// not yet synced, to prove that what the daemon commits is on disk first.
// Every method returns what the system call of the same name returns and
// sets errno the same way; none holds a latch, and any thread may call any
// of them at any time.
#pragma once

#include "TypeDef.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

class CTalvorFileIO {
public:
    virtual ~CTalvorFileIO() {}
    // open(2): a descriptor, or -1.
    virtual int Open(const char* lpPath, int nFlags, mode_t nMode);
    // pread(2) / pwrite(2): bytes moved (possibly fewer than asked), or -1.
    virtual ssize_t PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset);
    virtual ssize_t PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset);
    // fsync(2) / fdatasync(2): 0 once the file's data is on the medium.
    virtual int FSync(int fd);
    virtual int FDataSync(int fd);
    virtual int FTruncate(int fd, off_t nSize);
    // fallocate(2), mode 0: the range reserved on the medium and reading as
    // zero, the file grown to cover it. 0, or -1 with errno (EOPNOTSUPP where
    // the file system cannot: the caller writes the zeros itself).
    virtual int Fallocate(int fd, off_t nOffset, off_t nLength);
    virtual int Close(int fd);
    // flock(2): an advisory lock on the whole file, held by this open file
    // description until it is unlocked or closed. 0 or -1 with errno.
    virtual int Flock(int fd, int nOperation);
    // rename(2), unlink(2), mkdir(2): 0 or -1. A new, moved or removed
    // name is durable only after SyncDirectory of its directory.
    virtual int Rename(const char* lpFrom, const char* lpTo);
    virtual int Unlink(const char* lpPath);
    virtual int MkDir(const char* lpPath, mode_t nMode);
    // Opens the directory, fsyncs and closes it: 0 or -1.
    virtual int SyncDirectory(const char* lpDir);
    // stat(2) (follows links) / fstat(2): 0 or -1.
    virtual int Stat(const char* lpPath, struct stat* pStat);
    virtual int FStat(int fd, struct stat* pStat);
    // lseek(2): the new offset, or -1. Only for asking a size
    // (SEEK_END): transfers never use the descriptor's position.
    virtual off_t LSeek(int fd, off_t nOffset, int nWhence);
    virtual int Chmod(const char* lpPath, mode_t nMode);
    virtual int FChmod(int fd, mode_t nMode);
    // opendir(3) / closedir(3); entries are read with readdir(3).
    virtual DIR* OpenDir(const char* lpPath);
    virtual int CloseDir(DIR* pDir);

    // The layer in force; never null.
    static CTalvorFileIO* Current();
    // Puts pIO in force (null restores the plain one) and returns the old one.
    static CTalvorFileIO* Install(CTalvorFileIO* pIO);
};

// Whole transfers: loop over short reads and writes and EINTR. TRUE only when
// every byte moved; a read that meets the end of the file is a failure.
BOOL TalvorReadFull(int fd, void* lpBuf, size_t nSize, off_t nOffset);
BOOL TalvorWriteFull(int fd, const void* lpBuf, size_t nSize, off_t nOffset);

// TRUE when the path names something (stat through the layer succeeds).
BOOL TalvorPathExists(const char* lpPath);
// Syncs the directory that holds lpPath (its text up to the last "/", or
// "." without one): 0 or -1.
int TalvorSyncParentDirectory(const char* lpPath);

// A file written from its start on, in order, through the layer: a
// position of its own instead of the descriptor's, and a buffer that gathers
// small pieces into few writes (stdio's way, without stdio's lock, which a
// crashed writer could leave taken). One thread writes a file at a time; the
// caller serialises, the object holds no latch.
class CTalvorAppendFile {
public:
    // Creates or empties lpPath (O_RDWR | O_CREAT | O_TRUNC, mode 0666
    // before the umask). Null with errno set when the file cannot be opened
    // or no memory is left; the buffer is optional (unbuffered without it).
    static CTalvorAppendFile* Create(const char* lpPath);
    // Writes what is buffered, closes and frees; TRUE when every byte
    // reached the file. pFile may be null.
    static BOOL Close(CTalvorAppendFile* pFile);
    // Closes and frees without writing what is buffered: for a file whose
    // writer was interrupted in the middle of a piece.
    static void Abandon(CTalvorAppendFile* pFile);

    // Appends nLen bytes; FALSE when a write failed (the bytes are lost).
    BOOL Append(const void* lpData, size_t nLen);
    BOOL AppendText(const char* lpText);
    // printf into the file; FALSE on a format or write failure.
    BOOL AppendFormat(const char* lpFormat, ...) __attribute__((format(printf, 2, 3)));
    // Writes what is buffered. FALSE when a write failed.
    BOOL Flush();
    // Bytes appended so far, buffered ones included.
    long long Size() const { return m_nFilePos + (long long)m_nBuffered; }
    int Descriptor() const { return m_fd; }

private:
    CTalvorAppendFile(int fd, char* lpBuffer);
    ~CTalvorAppendFile();
    CTalvorAppendFile(const CTalvorAppendFile&) = delete;
    CTalvorAppendFile& operator=(const CTalvorAppendFile&) = delete;

    int m_fd;
    char* m_lpBuffer;
    size_t m_nBuffered;
    long long m_nFilePos; // where the next flushed byte goes
};
