// TalvorTrace.h — the front of the trace log: how any part of the daemon
// (and of the base library) reports what happened.
//
// Failures are written where they happen. A call formats the line and hands
// it to the sink in force; the log service installs its sink (the queue to
// the daemon's trace file) when it is linked in, before main runs. Without a
// sink — a tool or a test that links only the lower libraries — lines go to
// standard error, so nothing is ever silently dropped.
//
// This header depends on nothing above the platform layer, which is what
// lets every subsystem trace without reaching up to the log service.
#pragma once

#include "TypeDef.h"

extern int g_nLanguage_Chinese;

// Every message exists in Chinese and English; the call site passes both and
// the language switch picks one.
#define TALVOR_TEXT(zh, en) (g_nLanguage_Chinese == 1 ? (zh) : (en))

// The longest text of one line; longer texts are cut.
inline constexpr int TRACE_TEXT_SIZE = 20480;
inline constexpr int TRACE_TEXT_LIMIT = 20472;

// The only reporting path of the daemon. Any thread, any time, any latch
// held (the sink takes only its own latch, inside a signal-deferral region).
void Trace(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void Trace0(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, LPCTSTR szLog);

// Where a finished line goes. It must be safe from any thread.
typedef void (*LPTALVORTRACESINK)(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, LPCTSTR szLog);

// Puts pSink in force (null restores standard error) and returns the sink
// that was in force. Any thread; a line being written meanwhile reaches one
// of the two.
LPTALVORTRACESINK TraceInstallSink(LPTALVORTRACESINK pSink);

// Where the lines of one thread are held instead of written: a thread that
// reads ahead for another hands its lines over with what it read, so that
// they appear on the other's side when, and only if, that result is used.
typedef void (*LPTALVORTRACEHOLD)(void* pContext, LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode,
                                  LPCTSTR szLog);

// From now on the calling thread's lines go to pHold with pContext instead
// of the sink in force; a null pHold ends the hold. Calling thread only; it
// does not touch the lines of any other thread.
void TraceHoldThisThread(LPTALVORTRACEHOLD pHold, void* pContext);
