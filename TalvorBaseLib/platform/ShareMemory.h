// ShareMemory.h — SysV shared memory by fixed numeric key.
//
// Either process may come first: CreateShareMemory reports through bExists
// whether the segment was new (the caller writes its head) or found (the
// caller keeps what it finds). A segment outlives both processes until
// DestoryShareMemory removes it; that survival is what lets a restarted
// daemon find the engine's data again.
#pragma once

#include "TypeDef.h"

#include <sys/ipc.h>

class CShareMemory {
public:
    static MFID CreateShareMemory(key_t nKey, size_t nMemSize, LPCTSTR lpName, BOOL& bExists);
    static BOOL DestoryShareMemory(MFID& nMemId);
    static MFID OpenShareMemory(key_t nKey, LPCTSTR lpName);
    static BOOL CloseShareMemory(MFID& nMemId);
    static void* ShMemAttach(MFID nMemId, void* pMemaddr, int nFlag);
    static BOOL ShMemDetach(LPBYTE& pMemaddr);
    static BOOL ShareMemoryExsist(MFID nMemId) { return nMemId > 0; }
    static BOOL GetShareMemorySuccess(MFID nMemId) { return nMemId != -1; }
    // Size in bytes of an existing segment, or 0 when it cannot be asked.
    static size_t ShareMemorySize(MFID nMemId);
    // Sets nSize bytes at lpFrom, inside an attached segment, to zero for
    // every process that has it attached. Whole pages are handed back to
    // the system instead of written, so clearing a large segment neither
    // touches nor keeps its memory; the ragged ends (and every page when
    // the system refuses) are written. Any thread; the caller owns the range.
    static void ZeroShareMemory(LPBYTE lpFrom, size_t nSize);
};
