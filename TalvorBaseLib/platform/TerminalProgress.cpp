// TerminalProgress.cpp — the rewriting progress line.
#include "TerminalProgress.h"

#include "LinuxCommonAPI.h"

#include <cstring>
#include <ctime>
#include <unistd.h>

namespace {

const long long REDRAW_EVERY_MS = 100;

} // namespace

CTalvorTerminalProgress::CTalvorTerminalProgress(FILE* pOut)
    : m_pOut(pOut != nullptr && isatty(fileno(pOut)) == 1 ? pOut : nullptr), m_bDrawn(false), m_nLastMs(0)
{
    m_szTitle[0] = '\0';
}

CTalvorTerminalProgress::~CTalvorTerminalProgress() { End(); }

void CTalvorTerminalProgress::Show(const char* lpTitle, long long nPos, long long nTotal, const char* lpUnit)
{
    if (m_pOut == nullptr) return;
    if (lpTitle == nullptr) lpTitle = "";
    long long nNow = TalvorMonotonicMs();
    bool bNewTitle = strncmp(lpTitle, m_szTitle, sizeof(m_szTitle) - 1) != 0;
    if (!bNewTitle && nPos < nTotal && m_bDrawn && nNow - m_nLastMs < REDRAW_EVERY_MS) return;
    strncpy(m_szTitle, lpTitle, sizeof(m_szTitle) - 1);
    m_szTitle[sizeof(m_szTitle) - 1] = '\0';
    m_nLastMs = nNow;
    int nPercent = nTotal > 0 ? (int)(nPos * 100 / nTotal) : 0;
    // "\033[K" clears what a longer earlier line left behind.
    fprintf(m_pOut, "\r%3d%%  %lld of %lld %s  %s\033[K", nPercent, nPos, nTotal, lpUnit, m_szTitle);
    fflush(m_pOut);
    m_bDrawn = true;
}

void CTalvorTerminalProgress::End()
{
    if (m_pOut == nullptr || !m_bDrawn) return;
    fprintf(m_pOut, "\n");
    fflush(m_pOut);
    m_bDrawn = false;
}
