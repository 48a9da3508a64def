// TalvorFileIO.h — the one thin layer every database, log and backup file
// goes through: open, positional read and write, sync, truncate, close.
//
// Positional calls only: no descriptor carries a shared seek position, so
// threads never race on one. Tests install a twin (CTalvorFileIO::Install)
// that fails the k-th write or drops everything not yet synced, to prove that
// what the daemon commits is on disk first.
#pragma once

#include "TypeDef.h"

#include <fcntl.h>
#include <sys/stat.h>

class CTalvorFileIO {
public:
    virtual ~CTalvorFileIO() {}
    virtual int Open(const char* lpPath, int nFlags, mode_t nMode);
    virtual ssize_t PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset);
    virtual ssize_t PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset);
    virtual int FSync(int fd);
    virtual int FTruncate(int fd, off_t nSize);
    virtual int Close(int fd);
    // flock(2): an advisory lock on the whole file, held by this open file
    // description until it is unlocked or closed. 0 or -1 with errno.
    virtual int Flock(int fd, int nOperation);

    // The layer in force; never null.
    static CTalvorFileIO* Current();
    // Puts pIO in force (null restores the plain one) and returns the old one.
    static CTalvorFileIO* Install(CTalvorFileIO* pIO);
};

// Whole transfers: loop over short reads and writes and EINTR. TRUE only when
// every byte moved; a read that meets the end of the file is a failure.
BOOL TalvorReadFull(int fd, void* lpBuf, size_t nSize, off_t nOffset);
BOOL TalvorWriteFull(int fd, const void* lpBuf, size_t nSize, off_t nOffset);
