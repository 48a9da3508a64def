// FuzzQuiet.h — the daemon's trace goes nowhere during a fuzz run: every
// refusal would otherwise print a line per input. What a refusal says is
// checked by the unit tests; here only that it comes, bounded, matters.
#pragma once

#include "TalvorTrace.h"

namespace talvorfuzz {

inline void DropTrace(LPCTSTR, LONG, LONG, LPCTSTR) {}

inline bool QuietTrace()
{
    static bool s_bDone = (TraceInstallSink(DropTrace), true);
    return s_bDone;
}

} // namespace talvorfuzz
