// TalvorBackupStream.h — the data of a backup file, written in order over
// direct I/O while the next piece is packed.
//
// Pieces of any length are packed back to back into one of three aligned
// buffers; a full buffer is handed to a writer thread of its own, and
// packing goes on in the next. Two writes are thus in flight while a third
// buffer fills: a disk behind a virtual or striped device moves more bytes
// with a queue than with one transfer at a time. Only whole sectors are ever
// written; Finish waits for every write, writes the last partial sector
// padded, cuts the file to its true end and syncs it, so that whatever is
// written after (the head of the backup) lands behind data already on the
// medium.
//
// One producer thread (the caller). Each write thread owns its buffer from
// its start to its join; everything it reports is read after the join, so
// the stream needs no latch. Without a thread (none could be made) a buffer
// is written on the caller's thread.
#pragma once

#include "LinuxCommonAPI.h"
#include "TypeDef.h"

// The buffers of a stream: one packed while the others are written.
inline constexpr int BACKUPSTREAM_BUFFERS = 3;

class CTalvorBackupStream {
public:
    CTalvorBackupStream();
    // Abandons a stream not finished: the writes in flight end, nothing
    // more is written.
    ~CTalvorBackupStream();
    CTalvorBackupStream(const CTalvorBackupStream&) = delete;
    CTalvorBackupStream& operator=(const CTalvorBackupStream&) = delete;

    // Data begins at nStart (a multiple of 512) of fd. nBufSize (a multiple
    // of 512) per buffer. FALSE when the buffers cannot be had.
    BOOL Begin(int fd, long long nStart, int nBufSize);
    // nSize bytes more. FALSE once a write is known to have failed (see
    // FailedAt); a write still in flight may fail after a TRUE.
    BOOL Append(const BYTE* lpData, long long nSize);
    // Every write ended, the file cut to nEnd and synced. FALSE on a failed
    // write, cut or sync (errno kept in FailedErrno).
    BOOL Finish(long long nEnd);
    // Where the first failed write seen began (in the order the buffers were
    // handed out), and its errno: only after Append or Finish returned FALSE.
    long long FailedAt() const { return m_nFailedAt; }
    int FailedErrno() const { return m_nFailedErrno; }
    // Bytes appended so far.
    long long Appended() const { return m_nAppended; }

private:
    // One buffer and the write that carries it out.
    struct WRITEJOB {
        int m_fd;
        LPBYTE m_lpBuf;
        int m_nBytes;
        long long m_nPos;
        HTHREADTYPE m_hThread;
        BOOL m_bRunning; // a thread writes it; joined before the buffer is touched
        BOOL m_bDone;
        int m_nErrno;
    };
    static void* WriteThread(void* lpParam);
    static void WriteJob(WRITEJOB* pJob);
    // Sends the buffer in hand (nBytes, whole sectors) and takes the next,
    // waiting for the write that last used it.
    BOOL Submit(int nBytes);
    // Waits for the write of buffer nIndex, if any, and notes its failure.
    void Reap(int nIndex);
    void ReapAll();
    void Fail(long long nPos, int nErrno);

    int m_fd;
    WRITEJOB m_arJob[BACKUPSTREAM_BUFFERS];
    int m_nBufSize;
    int m_nCurrent;
    int m_nUsed;
    long long m_nNextPos;   // file position of the buffer in hand
    long long m_nAppended;
    long long m_nFailedAt;
    int m_nFailedErrno;
    BOOL m_bFailed;
};
