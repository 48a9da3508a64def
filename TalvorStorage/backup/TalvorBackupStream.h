// TalvorBackupStream.h — the data of a backup file, written in order over
// direct I/O while the next piece is read.
//
// Pieces of any length are packed back to back into one of two aligned
// buffers; a full buffer goes to the stream's writer thread, and packing
// goes on in the other while it is written. Only whole sectors are ever
// written; Finish writes the last partial sector padded, cuts the file to
// its true end and syncs it, so that whatever is written after (the head of
// the backup) lands behind data already on the medium.
//
// One producer thread (the caller) and the stream's own writer thread.
#pragma once

#include "TypeDef.h"

#include <pthread.h>

class CTalvorBackupStream {
public:
    CTalvorBackupStream();
    // Abandons a stream not finished: the writer thread ends, nothing more
    // is written.
    ~CTalvorBackupStream();
    CTalvorBackupStream(const CTalvorBackupStream&) = delete;
    CTalvorBackupStream& operator=(const CTalvorBackupStream&) = delete;

    // Data begins at nStart (a multiple of 512) of fd. nBufSize (a multiple
    // of 512) per buffer. FALSE when the buffers cannot be had. Without a
    // writer thread the stream writes on the caller's thread.
    BOOL Begin(int fd, long long nStart, int nBufSize);
    // nSize bytes more. FALSE once a write has failed (see FailedAt).
    BOOL Append(const BYTE* lpData, long long nSize);
    // Everything written, the file cut to nEnd and synced. FALSE on a failed
    // write, cut or sync (errno kept in FailedErrno).
    BOOL Finish(long long nEnd);
    // Where the failed write began, and its errno: caller's thread, only
    // after Append or Finish returned FALSE (which ordered them after the
    // writer's failure).
    long long FailedAt() const { return m_nFailedAt; }
    int FailedErrno() const { return m_nFailedErrno; }
    // Bytes appended so far.
    long long Appended() const { return m_nAppended; }

private:
    static void* WriterThread(void* lpParam);
    // Hands the buffer in hand to the writer and takes the other one.
    BOOL Submit(int nBytes);
    BOOL WaitIdle();
    // Whether a write failed so far; caller's thread, takes m_mutex when
    // there is a writer thread.
    BOOL HasFailed();
    BOOL WriteNow(const BYTE* lpBuf, int nBytes, long long nPos);
    void Stop();

    int m_fd;
    LPBYTE m_arBuf[2];
    int m_nBufSize;
    int m_nCurrent;
    int m_nUsed;
    long long m_nNextPos;   // file position of the buffer in hand
    long long m_nAppended;
    long long m_nFailedAt;
    int m_nFailedErrno;
    // The writer's job, under m_mutex.
    pthread_t m_hThread;
    BOOL m_bThread;
    pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;
    const BYTE* m_lpJob;
    int m_nJobBytes;
    long long m_nJobPos;
    BOOL m_bJob;
    BOOL m_bStop;
    BOOL m_bFailed;
};
