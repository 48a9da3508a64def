// TalvorBackupStream.cpp — whole-sector writes of a backup, several in
// flight, each buffer handed to its writer and taken back by a join.
#include "TalvorBackupStream.h"

#include "TalvorFileIO.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

const int SECTOR = 512;

} // namespace

CTalvorBackupStream::CTalvorBackupStream()
    : m_fd(-1), m_nBufSize(0), m_nCurrent(0), m_nUsed(0), m_nNextPos(0), m_nAppended(0), m_nFailedAt(-1),
      m_nFailedErrno(0), m_bFailed(FALSE)
{
    memset(m_arJob, 0, sizeof(m_arJob));
}

CTalvorBackupStream::~CTalvorBackupStream()
{
    ReapAll();
    for (WRITEJOB& job : m_arJob) free(job.m_lpBuf);
}

BOOL CTalvorBackupStream::Begin(int fd, long long nStart, int nBufSize)
{
    assert(nStart % SECTOR == 0 && nBufSize % SECTOR == 0 && nBufSize > 0);
    m_fd = fd;
    m_nBufSize = nBufSize;
    m_nNextPos = nStart;
    for (WRITEJOB& job : m_arJob) {
        job.m_lpBuf = (LPBYTE)get_aligned_buffer((size_t)nBufSize);
        if (job.m_lpBuf == nullptr) return FALSE;
    }
    return TRUE;
}

void CTalvorBackupStream::WriteJob(WRITEJOB* pJob)
{
    pJob->m_bDone = TalvorWriteFull(pJob->m_fd, pJob->m_lpBuf, (size_t)pJob->m_nBytes, (off_t)pJob->m_nPos);
    pJob->m_nErrno = pJob->m_bDone ? 0 : errno;
}

void* CTalvorBackupStream::WriteThread(void* lpParam)
{
    WriteJob((WRITEJOB*)lpParam);
    return nullptr;
}

void CTalvorBackupStream::Fail(long long nPos, int nErrno)
{
    if (m_bFailed) return;
    m_bFailed = TRUE;
    m_nFailedAt = nPos;
    m_nFailedErrno = nErrno;
}

void CTalvorBackupStream::Reap(int nIndex)
{
    WRITEJOB& job = m_arJob[nIndex];
    if (!job.m_bRunning) return;
    pthread_join(job.m_hThread, nullptr);
    job.m_bRunning = FALSE;
    if (!job.m_bDone) Fail(job.m_nPos, job.m_nErrno);
}

// In the order the buffers were handed out, so that the failure told is
// the earliest one seen.
void CTalvorBackupStream::ReapAll()
{
    for (int i = 1; i <= BACKUPSTREAM_BUFFERS; i++) Reap((m_nCurrent + i) % BACKUPSTREAM_BUFFERS);
}

BOOL CTalvorBackupStream::Submit(int nBytes)
{
    assert(nBytes % SECTOR == 0);
    WRITEJOB& job = m_arJob[m_nCurrent];
    assert(!job.m_bRunning);
    job.m_fd = m_fd;
    job.m_nBytes = nBytes;
    job.m_nPos = m_nNextPos;
    m_nNextPos += nBytes;
    m_nUsed = 0;
    if (m_bFailed) return FALSE;
    job.m_bRunning = CreateJoinableThread(&job.m_hThread, WriteThread, &job) == 0 ? TRUE : FALSE;
    if (!job.m_bRunning) {
        WriteJob(&job);
        if (!job.m_bDone) Fail(job.m_nPos, job.m_nErrno);
    }
    m_nCurrent = (m_nCurrent + 1) % BACKUPSTREAM_BUFFERS;
    Reap(m_nCurrent);
    return !m_bFailed;
}

BOOL CTalvorBackupStream::Append(const BYTE* lpData, long long nSize)
{
    while (nSize > 0) {
        if (m_bFailed) return FALSE;
        int nRoom = m_nBufSize - m_nUsed;
        int nTake = nSize < nRoom ? (int)nSize : nRoom;
        memcpy(m_arJob[m_nCurrent].m_lpBuf + m_nUsed, lpData, (size_t)nTake);
        m_nUsed += nTake;
        m_nAppended += nTake;
        lpData += nTake;
        nSize -= nTake;
        if (m_nUsed == m_nBufSize && !Submit(m_nBufSize)) return FALSE;
    }
    return !m_bFailed;
}

BOOL CTalvorBackupStream::Finish(long long nEnd)
{
    ReapAll();
    if (m_bFailed) return FALSE;
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    if (m_nUsed > 0) {
        LPBYTE lpBuf = m_arJob[m_nCurrent].m_lpBuf;
        int nPadded = (m_nUsed + SECTOR - 1) / SECTOR * SECTOR;
        memset(lpBuf + m_nUsed, 0, (size_t)(nPadded - m_nUsed));
        if (!TalvorWriteFull(m_fd, lpBuf, (size_t)nPadded, (off_t)m_nNextPos)) {
            Fail(m_nNextPos, errno);
            return FALSE;
        }
        m_nNextPos += nPadded;
        m_nUsed = 0;
    }
    if (m_nNextPos != nEnd && pIO->FTruncate(m_fd, (off_t)nEnd) != 0) {
        Fail(nEnd, errno);
        return FALSE;
    }
    if (pIO->FSync(m_fd) != 0) {
        Fail(nEnd, errno);
        return FALSE;
    }
    return TRUE;
}
