// TalvorLatchOrder.h — which latch may be taken while which is held.
//
// A thread takes latches in rising rank only: while it holds a latch of rank
// r, it may take a latch of a higher rank, never one of a lower or the same
// rank (the same latch again is a recursion, which is allowed). Two threads
// that follow this can never wait for each other in a circle.
//
//   rank                 latch                                    may be held while taking
//   LATCHRANK_MODULE     module m_crit: file list, system file    —
//                        writes, storage commands
//   LATCHRANK_FLASHBACK  flashback m_crit: one request to the     module
//                        engine over the channel at a time
//   LATCHRANK_REDO       redo m_crit: group table and group       module, flashback
//                        files of the redo service
//   LATCHRANK_FILESTORE  file storage m_crit: the write buffers   module, flashback, redo
//                        of one cache-mode file
//   LATCHRANK_CACHEOPEN  cache m_crit: one request to a flush     module, flashback, redo,
//                        thread to open a file                    file storage
//   LATCHRANK_CACHECHAIN cache m_csCache: the free chain, file    module, flashback, redo,
//                        chains and load groups of the cache      file storage, cache open
//   LATCHRANK_CONFIG     configuration: the ini and its cache     module, flashback, redo
//   LATCHRANK_STANDBYSLOT                                         any of the above; while it
//                        module m_critStandby: the standby        is held nothing else is
//                        slots and the holds on their objects     taken, traced or waited for
//   LATCHRANK_TRACEWRITE trace m_critWrite: one writer of the     any of the above
//                        open trace file
//   LATCHRANK_TRACE      trace m_critTrace: the queue of lines    any (a line may be traced anywhere)
//
// Below every latch, and never held while one is taken: the crash registry's
// two list locks and the thread-slot lock of the platform (plain mutexes,
// held for a few instructions inside a crash deferral region).
//
// Debug builds check the rule for every latch taken through
// CTalvorCriticalSectionPtr with a thread record: TalvorSetLatchRank gives
// a latch its rank once, after InitializeCriticalTalvor; an unranked latch
// is not checked.
#pragma once

enum : int {
    LATCHRANK_NONE = 0,
    LATCHRANK_MODULE = 100,
    LATCHRANK_FLASHBACK = 200,
    LATCHRANK_REDO = 300,
    LATCHRANK_FILESTORE = 350,
    LATCHRANK_CACHEOPEN = 400,
    LATCHRANK_CACHECHAIN = 450,
    LATCHRANK_CONFIG = 500,
    LATCHRANK_STANDBYSLOT = 550,
    LATCHRANK_TRACEWRITE = 600,
    LATCHRANK_TRACE = 700,
};
