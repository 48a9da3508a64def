// PeerFileCommand.h — the engine asking the daemon to change its file list
// in the middle of a data job: it writes a resize command into a file's row
// and posts storage command 1, as the engine does. The daemon serves no file
// command yet and must refuse it in the row, answer 32 and go on saving;
// the engine then takes its request back, as it does on a refusal.
#pragma once

#include "PeerData.h"

namespace talvorpeer {

struct FileCommandAsker {
    long long m_nEvery = 0;     // after every N transactions; 0 never
    long long m_nAsked = 0, m_nRefused = 0, m_nWrong = 0, m_nUnanswered = 0;
    int m_nLastAnswer = -1;
    bool m_bDue = false;

    // After transaction nDone (from 0): a request falls due every m_nEvery
    // transactions, and is asked once nothing else is asked of the daemon
    // (bFree); then waits (bounded) for the answer, serving the channel
    // meanwhile when bLive. False when the daemon did not answer or
    // answered anything but the refusal.
    bool Step(CPeerEngine& engine, long long nDone, bool bLive, bool bFree);
    bool Broken() const { return m_nWrong > 0 || m_nUnanswered > 0; }
};

} // namespace talvorpeer
