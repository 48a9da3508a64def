// TalvorTrace.cpp — formatting and the sink switch of the trace front.
#include "TalvorTrace.h"

#include <cstdarg>
#include <cstdio>

// Beside the front that reads it, so that whatever traces needs nothing else
// of this folder; InitLanguageSetting sets it.
int g_nLanguage_Chinese = 1;

namespace {

LPTALVORTRACESINK g_pTraceSink = nullptr;
thread_local LPTALVORTRACEHOLD t_pTraceHold = nullptr;
thread_local void* t_pTraceHoldContext = nullptr;

// Without a log service a line still reaches a person: one write per line,
// so lines of different threads do not interleave.
void StandardErrorSink(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, LPCTSTR szLog)
{
    fprintf(stderr, "%ld %ld %s %s\n", (long)lLogLevel, (long)lLogErrorCode, szFuncationName ? szFuncationName : "",
            szLog ? szLog : "");
}

} // namespace

LPTALVORTRACESINK TraceInstallSink(LPTALVORTRACESINK pSink)
{
    return __atomic_exchange_n(&g_pTraceSink, pSink, __ATOMIC_ACQ_REL);
}

void Trace(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, const char* fmt, ...)
{
    char szText[TRACE_TEXT_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(szText, TRACE_TEXT_LIMIT, fmt, args);
    va_end(args);
    Trace0(szFuncationName, lLogLevel, lLogErrorCode, szText);
}

void TraceHoldThisThread(LPTALVORTRACEHOLD pHold, void* pContext)
{
    t_pTraceHold = pHold;
    t_pTraceHoldContext = pContext;
}

void Trace0(LPCTSTR szFuncationName, LONG lLogLevel, LONG lLogErrorCode, LPCTSTR szLog)
{
    if (t_pTraceHold != nullptr) {
        t_pTraceHold(t_pTraceHoldContext, szFuncationName, lLogLevel, lLogErrorCode, szLog);
        return;
    }
    LPTALVORTRACESINK pSink = __atomic_load_n(&g_pTraceSink, __ATOMIC_ACQUIRE);
    if (pSink == nullptr) pSink = StandardErrorSink;
    pSink(szFuncationName, lLogLevel, lLogErrorCode, szLog);
}
