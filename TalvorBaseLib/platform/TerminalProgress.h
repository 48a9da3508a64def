// TerminalProgress.h — the progress of long work, for a person at a
// terminal: one line that rewrites itself in place. Where the stream is no
// terminal (a log, a pipe, a service) nothing is printed at all, so that
// only results reach it. Used by the operator's tools.
#pragma once

#include <cstdio>

class CTalvorTerminalProgress {
public:
    // pOut is the stream to draw on; it is used only when it is a terminal.
    explicit CTalvorTerminalProgress(FILE* pOut);
    ~CTalvorTerminalProgress();
    CTalvorTerminalProgress(const CTalvorTerminalProgress&) = delete;
    CTalvorTerminalProgress& operator=(const CTalvorTerminalProgress&) = delete;

    // TRUE when anything will be drawn.
    bool Active() const { return m_pOut != nullptr; }
    // Draws "pct%  pos of total unit  title" over the line (at most ten
    // times a second, and always when the title changes or pos reaches
    // total). One thread; no latch.
    void Show(const char* lpTitle, long long nPos, long long nTotal, const char* lpUnit);
    // Ends the line, so that what follows starts on a line of its own.
    void End();

private:
    FILE* m_pOut;
    bool m_bDrawn;
    long long m_nLastMs;
    char m_szTitle[128];
};
