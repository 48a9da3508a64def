// PeerData.h — the jobs "data" (the engine changing rows of memory-mode
// files and committing them, with a journal) and "verify" (the files on
// disk checked against that journal), and the engine's side of the channel.
#pragma once

#include "LinuxCommonAPI.h"
#include "PeerJournal.h"

#include <string>
#include <vector>

namespace talvorpeer {

class CPeerEngine {
public:
    // Attaches the channel and the system image and waits (bounded) for the
    // daemon's readiness; then attaches every memory-mode database file.
    bool Attach(int nWaitMs);
    // Ready: m_nStatus 2, or with m_bHeadReady a head whose m_bStatus is 0
    // (m_nStatus leaves 2 for good once a rebuild or a backup has run).
    bool StatusReady();
    bool m_bHeadReady = false;
    void SetLive(bool bLive);
    // Answers a waiting channel command 3 or 32, if any.
    void ServeChannel();
    LPSYSTEMFILEHEAD Head() { return (LPSYSTEMFILEHEAD)m_lpSystem; }

    LPSTORAGEMEMHEAD m_lpChannel = nullptr;
    LPBYTE m_lpSystem = nullptr;
    long long m_nSystemSize = 0;
    LPBYTE m_arImages[256] = {nullptr};
    long long m_arSizes[256] = {0};
    std::vector<int> m_vFiles;  // database files, types 2 to 4
    HEVENTTYPE m_hRequest = nullptr;
    HEVENTTYPE m_hDone = nullptr;
    HEVENTTYPE m_hStorage = nullptr;
    long long m_nAnswers = 0;
    // The daemon's rollback area, where old row versions are kept; null
    // when it has none.
    LPBYTE m_lpRollback = nullptr;
    UINT m_nRollbackSize = 0;
    // Share (percent) of head requests answered "nothing to save" (-2),
    // as the engine may, without a head; and how many were.
    int m_nNothingToSavePct = 0;
    long long m_nNothingToSave = 0;
    unsigned long long m_nRandom = 0x9E3779B97F4A7C15ULL;

private:
    void Answer(int nResult);
};

int RunDataJob(const std::vector<std::string>& args);
std::string DataJobUsage();
int RunVerifyJob(const std::vector<std::string>& args);
std::string VerifyJobUsage();

} // namespace talvorpeer
