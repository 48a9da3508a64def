// TalvorDirectFile.h — a file opened for direct, synchronous I/O that can
// still be read and written at any offset and length.
//
// Direct I/O takes whole sectors from aligned buffers only. Backup files
// pack pieces of arbitrary length back to back, and a restore writes blocks
// where their files keep them; both go through this one class, which turns
// each transfer into aligned sector windows over its own buffer (reading
// the edges of a partly covered window first) and passes aligned transfers
// from aligned buffers straight through. A write never leaves sectors past
// the logical end behind: Close and Finish cut the file back to it.
//
// One object per open file, used by one thread at a time.
#pragma once

#include "TypeDef.h"

#include <sys/types.h>

inline constexpr int DIRECTFILE_SECTOR = 512;

class CTalvorDirectFile {
public:
    CTalvorDirectFile();
    ~CTalvorDirectFile();
    CTalvorDirectFile(const CTalvorDirectFile&) = delete;
    CTalvorDirectFile& operator=(const CTalvorDirectFile&) = delete;

    // Opens lpPath with nFlags plus O_DIRECT | O_CLOEXEC, and O_SYNC with
    // bSync (mode 0666 when created). FALSE with errno set when it cannot be
    // opened or the window buffer cannot be had. Without bSync the writer
    // syncs where its order needs it (Finish).
    BOOL Open(const char* lpPath, int nFlags, BOOL bSync = TRUE);
    // Closes (after cutting the file back to its logical end when it was
    // written); TRUE when that cut succeeded. Safe when not open.
    BOOL Close();
    BOOL IsOpen() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }
    // Size of the file on disk at open, grown by the writes since.
    long long Size() const { return m_nLogicalEnd; }

    // nSize bytes at nPos into lpOut (any alignment). Bytes past the end of
    // the file read as zero. FALSE on an I/O error (errno set).
    BOOL ReadAt(long long nPos, void* lpOut, long long nSize);
    // nSize bytes of lpData at nPos. FALSE on an I/O error (errno set).
    BOOL WriteAt(long long nPos, const void* lpData, long long nSize);
    // Grows the file to nSize with the new range reserved on the medium and
    // reading as zero, without writing it. FALSE with errno set; EOPNOTSUPP
    // where the file system cannot reserve (the caller writes zeros).
    BOOL ExtendZeroed(long long nSize);
    // The file cut to its logical end, and synced. FALSE with errno set.
    BOOL Finish();

private:
    BOOL ReadDirect(long long nPos, LPBYTE lpDst, long long nSize);
    BOOL ReadWindow(long long nStart, int nLen);
    BOOL WriteWindow(long long nStart, int nLen);

    int m_fd;
    LPBYTE m_lpWindow;
    long long m_nLogicalEnd;
    BOOL m_bWritten;
};
