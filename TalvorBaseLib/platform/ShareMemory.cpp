// ShareMemory.cpp — SysV segments by key.
#include "ShareMemory.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

MFID CShareMemory::CreateShareMemory(key_t nKey, size_t nMemSize, LPCTSTR, BOOL& bExists)
{
    int nId = shmget(nKey, nMemSize, IPC_CREAT | IPC_EXCL | 0666);
    if (nId > 0) {
        bExists = FALSE;
        return nId;
    }
    if (nId == 0) {
        // Id 0 means "no segment" to every caller, so it cannot be handed
        // out: remove it and ask again.
        usleep(1000);
        if (shmctl(0, IPC_RMID, nullptr) != 0) {
            usleep(100000);
            shmctl(0, IPC_RMID, nullptr);
        }
        usleep(1000);
        nId = shmget(nKey, nMemSize, IPC_CREAT | IPC_EXCL | 0666);
        if (nId != -1) {
            bExists = FALSE;
            return nId;
        }
    }
    if (errno != EEXIST) return 0;
    bExists = TRUE;
    nId = shmget(nKey, nMemSize, IPC_CREAT | 0666);
    return nId == -1 ? 0 : nId;
}

BOOL CShareMemory::DestoryShareMemory(MFID& nMemId)
{
    BOOL bDone = shmctl(nMemId, IPC_RMID, nullptr) == 0;
    if (!bDone) {
        usleep(10000);
        bDone = shmctl(nMemId, IPC_RMID, nullptr) == 0;
    }
    nMemId = 0;
    return bDone;
}

MFID CShareMemory::OpenShareMemory(key_t nKey, LPCTSTR) { return shmget(nKey, 0, 0); }

BOOL CShareMemory::CloseShareMemory(MFID& nMemId)
{
    nMemId = 0;
    return TRUE;
}

void* CShareMemory::ShMemAttach(MFID nMemId, void* pMemaddr, int nFlag)
{
    void* p = shmat(nMemId, pMemaddr, nFlag);
    return p == (void*)-1 ? nullptr : p;
}

BOOL CShareMemory::ShMemDetach(LPBYTE& pMemaddr)
{
    BOOL bDone = shmdt(pMemaddr) == 0;
    pMemaddr = nullptr;
    return bDone;
}

size_t CShareMemory::ShareMemorySize(MFID nMemId)
{
    struct shmid_ds ds;
    if (shmctl(nMemId, IPC_STAT, &ds) != 0) return 0;
    return ds.shm_segsz;
}

void CShareMemory::ZeroShareMemory(LPBYTE lpFrom, size_t nSize)
{
    const uintptr_t nPage = (uintptr_t)sysconf(_SC_PAGESIZE);
    uintptr_t nBegin = (uintptr_t)lpFrom;
    uintptr_t nEnd = nBegin + nSize;
    uintptr_t nPagesFrom = (nBegin + nPage - 1) / nPage * nPage;
    uintptr_t nPagesTo = nEnd / nPage * nPage;
    if (nPagesFrom >= nPagesTo || madvise((void*)nPagesFrom, nPagesTo - nPagesFrom, MADV_REMOVE) != 0) {
        memset(lpFrom, 0, nSize);
        return;
    }
    memset(lpFrom, 0, nPagesFrom - nBegin);
    memset((void*)nPagesTo, 0, nEnd - nPagesTo);
}
