// PeerProgress.h — where the progress of a long command goes. On a terminal
// one line rewrites itself as the work moves; with --progress-lines each
// change is a line "progress title=T pos=P total=N" for scripts; otherwise
// nothing, so that a log or a pipe gets only the result.
#pragma once

namespace talvorpeer {

enum {
    PROGRESSOUT_QUIET = 0,
    PROGRESSOUT_TERMINAL = 1,
    PROGRESSOUT_LINES = 2,
};

// The mode for this run: lines when asked, else the terminal when stdout is
// one, else quiet. Any thread; no latch.
int ChooseProgressOutput(bool bLinesAsked);
// One change of the progress (MiB done of MiB in all), in the chosen mode.
void ShowProgressChange(int nMode, const char* lpTitle, int nPos, int nTotal);
// Ends the terminal's rewriting line before the result is printed.
void EndProgressOutput(int nMode);

} // namespace talvorpeer
