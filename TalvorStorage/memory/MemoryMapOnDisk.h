// MemoryMapOnDisk.h — the map blocks of one memory-mode file as this process
// last wrote them to the file, so that a save pass can leave out a map block
// whose bytes the file already holds. A pass over a few scattered blocks
// would otherwise write every map block of the file each time.
//
// The copy is only ever a statement about bytes this process wrote and
// synced, or read back after a sync: it is forgotten after a write or sync
// that failed, and whenever
// anything but the save pass writes the file (a whole write-out, a resize,
// a move). It is held to MAPONDISK_MAX_BYTES; map blocks past that are
// simply written every pass.
//
// Thread: the caller of the save pass (the storage thread); no latch of its
// own, as the file's save pass runs on one thread at a time.
#pragma once

#include "TypeDef.h"

inline constexpr long long MAPONDISK_MAX_BYTES = 64LL * 1048576;

class CMemoryMapOnDisk {
public:
    CMemoryMapOnDisk() = default;
    ~CMemoryMapOnDisk() { Forget(); }
    CMemoryMapOnDisk(const CMemoryMapOnDisk&) = delete;
    CMemoryMapOnDisk& operator=(const CMemoryMapOnDisk&) = delete;

    // TRUE when map block nIndex of the chain (from 0) was last written at
    // nOffset with exactly the nSize bytes at lpBytes, and that write was
    // synced.
    BOOL Holds(long long nIndex, long long nOffset, const BYTE* lpBytes, long long nSize) const;
    // Map block nIndex was just written at nOffset with these bytes. Held
    // back (not yet a statement about the disk) until Synced.
    void Written(long long nIndex, long long nOffset, const BYTE* lpBytes, long long nSize);
    // The writes since the last Synced are on the medium.
    void Synced();
    // Learns the map chain from the file itself, as a load leaves it: the
    // file is synced first, so that what is read is what the medium holds,
    // then each map block from nFirstMap on is read at its place, following
    // the chain as read, held to nFileSize and to as many blocks as the file
    // can hold. Result: TRUE when the whole chain is known; FALSE (nothing
    // known) when a sync, a read or an allocation failed or the chain left
    // the file. fd may be opened for direct I/O; nMapSize is the head's map
    // size. Thread: the loading thread, before any save pass of the file.
    BOOL LearnFromFile(int fd, long long nFirstMap, long long nMapSize, long long nFileSize);
    // Nothing is known about the file on disk any more.
    void Forget();

private:
    struct Entry {
        long long m_nOffset;  // where the bytes went; -1: nothing known
        BOOL m_bSynced;
    };
    BOOL Reserve(long long nBlocks, long long nSize);

    Entry* m_pEntries = nullptr;
    LPBYTE m_lpBytes = nullptr;  // m_nBlocks copies of m_nMapSize bytes
    long long m_nBlocks = 0;
    long long m_nMapSize = 0;
};
