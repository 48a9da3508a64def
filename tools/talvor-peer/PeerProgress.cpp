// PeerProgress.cpp — the progress of the operator's fronts: the shared
// terminal line, or lines for scripts.
#include "PeerProgress.h"

#include "TerminalProgress.h"

#include <cstdio>

namespace talvorpeer {

namespace {

CTalvorTerminalProgress& Terminal()
{
    static CTalvorTerminalProgress s_progress(stdout);
    return s_progress;
}

} // namespace

int ChooseProgressOutput(bool bLinesAsked)
{
    if (bLinesAsked) return PROGRESSOUT_LINES;
    return Terminal().Active() ? PROGRESSOUT_TERMINAL : PROGRESSOUT_QUIET;
}

void ShowProgressChange(int nMode, const char* lpTitle, int nPos, int nTotal)
{
    if (nMode == PROGRESSOUT_LINES) {
        printf("progress title=%s pos=%d total=%d\n", lpTitle, nPos, nTotal);
        fflush(stdout);
    } else if (nMode == PROGRESSOUT_TERMINAL) {
        Terminal().Show(lpTitle, nPos, nTotal, "MiB");
    }
}

void EndProgressOutput(int nMode)
{
    if (nMode == PROGRESSOUT_TERMINAL) Terminal().End();
}

} // namespace talvorpeer
