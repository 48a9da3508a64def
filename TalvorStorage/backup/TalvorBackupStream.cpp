// TalvorBackupStream.cpp — double-buffered whole-sector writes of a backup.
#include "TalvorBackupStream.h"

#include "LinuxCommonAPI.h"
#include "TalvorFileIO.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

const int SECTOR = 512;

} // namespace

CTalvorBackupStream::CTalvorBackupStream()
    : m_fd(-1), m_arBuf{nullptr, nullptr}, m_nBufSize(0), m_nCurrent(0), m_nUsed(0), m_nNextPos(0), m_nAppended(0),
      m_nFailedAt(-1), m_nFailedErrno(0), m_hThread(0), m_bThread(FALSE), m_lpJob(nullptr), m_nJobBytes(0),
      m_nJobPos(0), m_bJob(FALSE), m_bStop(FALSE), m_bFailed(FALSE)
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_cond_init(&m_cond, nullptr);
}

CTalvorBackupStream::~CTalvorBackupStream()
{
    Stop();
    free(m_arBuf[0]);
    free(m_arBuf[1]);
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
}

BOOL CTalvorBackupStream::Begin(int fd, long long nStart, int nBufSize)
{
    assert(nStart % SECTOR == 0 && nBufSize % SECTOR == 0 && nBufSize > 0);
    m_fd = fd;
    m_nBufSize = nBufSize;
    m_nNextPos = nStart;
    m_arBuf[0] = (LPBYTE)get_aligned_buffer((size_t)nBufSize);
    m_arBuf[1] = (LPBYTE)get_aligned_buffer((size_t)nBufSize);
    if (m_arBuf[0] == nullptr || m_arBuf[1] == nullptr) return FALSE;
    m_bThread = pthread_create(&m_hThread, nullptr, WriterThread, this) == 0 ? TRUE : FALSE;
    return TRUE;
}

void* CTalvorBackupStream::WriterThread(void* lpParam)
{
    CTalvorBackupStream* p = (CTalvorBackupStream*)lpParam;
    pthread_mutex_lock(&p->m_mutex);
    for (;;) {
        while (!p->m_bJob && !p->m_bStop) pthread_cond_wait(&p->m_cond, &p->m_mutex);
        if (!p->m_bJob) break;
        const BYTE* lpBuf = p->m_lpJob;
        int nBytes = p->m_nJobBytes;
        long long nPos = p->m_nJobPos;
        pthread_mutex_unlock(&p->m_mutex);
        BOOL bDone = TalvorWriteFull(p->m_fd, lpBuf, (size_t)nBytes, (off_t)nPos);
        int nErr = errno;
        pthread_mutex_lock(&p->m_mutex);
        if (!bDone && !p->m_bFailed) {
            p->m_bFailed = TRUE;
            p->m_nFailedAt = nPos;
            p->m_nFailedErrno = nErr;
        }
        p->m_bJob = FALSE;
        pthread_cond_broadcast(&p->m_cond);
    }
    pthread_mutex_unlock(&p->m_mutex);
    return nullptr;
}

BOOL CTalvorBackupStream::WriteNow(const BYTE* lpBuf, int nBytes, long long nPos)
{
    if (TalvorWriteFull(m_fd, lpBuf, (size_t)nBytes, (off_t)nPos)) return TRUE;
    m_bFailed = TRUE;
    m_nFailedAt = nPos;
    m_nFailedErrno = errno;
    return FALSE;
}

BOOL CTalvorBackupStream::WaitIdle()
{
    if (!m_bThread) return !m_bFailed;
    pthread_mutex_lock(&m_mutex);
    while (m_bJob) pthread_cond_wait(&m_cond, &m_mutex);
    BOOL bOk = !m_bFailed;
    pthread_mutex_unlock(&m_mutex);
    return bOk;
}

BOOL CTalvorBackupStream::Submit(int nBytes)
{
    assert(nBytes % SECTOR == 0);
    const BYTE* lpBuf = m_arBuf[m_nCurrent];
    long long nPos = m_nNextPos;
    m_nNextPos += nBytes;
    m_nCurrent ^= 1;
    m_nUsed = 0;
    if (!m_bThread) return WriteNow(lpBuf, nBytes, nPos);
    // The other buffer may still be on its way out: it is taken next.
    if (!WaitIdle()) return FALSE;
    pthread_mutex_lock(&m_mutex);
    m_lpJob = lpBuf;
    m_nJobBytes = nBytes;
    m_nJobPos = nPos;
    m_bJob = TRUE;
    pthread_cond_broadcast(&m_cond);
    pthread_mutex_unlock(&m_mutex);
    // The buffer now in hand was the one in flight before: WaitIdle saw its
    // write end.
    return TRUE;
}

BOOL CTalvorBackupStream::Append(const BYTE* lpData, long long nSize)
{
    while (nSize > 0) {
        int nRoom = m_nBufSize - m_nUsed;
        int nTake = nSize < nRoom ? (int)nSize : nRoom;
        memcpy(m_arBuf[m_nCurrent] + m_nUsed, lpData, (size_t)nTake);
        m_nUsed += nTake;
        m_nAppended += nTake;
        lpData += nTake;
        nSize -= nTake;
        if (m_nUsed == m_nBufSize && !Submit(m_nBufSize)) return FALSE;
    }
    return !HasFailed();
}

BOOL CTalvorBackupStream::HasFailed()
{
    if (!m_bThread) return m_bFailed;
    // The writer sets the failure and where it happened under the mutex;
    // taking it here also makes FailedAt and FailedErrno safe to read once
    // this said TRUE, since the writer never writes them again.
    pthread_mutex_lock(&m_mutex);
    BOOL bFailed = m_bFailed;
    pthread_mutex_unlock(&m_mutex);
    return bFailed;
}

BOOL CTalvorBackupStream::Finish(long long nEnd)
{
    if (!WaitIdle()) return FALSE;
    CTalvorFileIO* pIO = CTalvorFileIO::Current();
    if (m_nUsed > 0) {
        int nPadded = (m_nUsed + SECTOR - 1) / SECTOR * SECTOR;
        memset(m_arBuf[m_nCurrent] + m_nUsed, 0, (size_t)(nPadded - m_nUsed));
        if (!WriteNow(m_arBuf[m_nCurrent], nPadded, m_nNextPos)) return FALSE;
        m_nNextPos += nPadded;
        m_nUsed = 0;
    }
    if (m_nNextPos != nEnd && pIO->FTruncate(m_fd, (off_t)nEnd) != 0) {
        m_nFailedAt = nEnd;
        m_nFailedErrno = errno;
        return FALSE;
    }
    if (pIO->FSync(m_fd) != 0) {
        m_nFailedAt = nEnd;
        m_nFailedErrno = errno;
        return FALSE;
    }
    return TRUE;
}

void CTalvorBackupStream::Stop()
{
    if (!m_bThread) return;
    pthread_mutex_lock(&m_mutex);
    while (m_bJob) pthread_cond_wait(&m_cond, &m_mutex);
    m_bStop = TRUE;
    pthread_cond_broadcast(&m_cond);
    pthread_mutex_unlock(&m_mutex);
    pthread_join(m_hThread, nullptr);
    m_bThread = FALSE;
}
