// PeerFileCommand.cpp — see PeerFileCommand.h.
#include "PeerFileCommand.h"

#include "DbFileLayout.h"
#include "PeerImage.h"

#include <unistd.h>

namespace talvorpeer {

namespace {

const int ANSWER_WAIT_POLLS = 60000;  // of 500 us: 30 s
const long long RESIZE_STEP = 4 * DB_MIB;

// The list block holding the row of the first database file, and the row.
bool FindRow(CPeerEngine& engine, BYTE bFileNo, LPSYSTEMBLOCKHEAD* plpBlock, LPFILE_MEMDBFILEINFO* plpRow)
{
    *plpRow = nullptr;
    DbForEachFileListRow(engine.m_lpSystem, engine.m_nSystemSize, [&](LPSYSTEMBLOCKHEAD lpBlock, LPFILE_MEMDBFILEINFO lpRow) {
        if (lpRow->m_bFileNo != bFileNo) return true;
        *plpBlock = lpBlock;
        *plpRow = lpRow;
        return false;
    });
    return *plpRow != nullptr;
}

// One transaction that marks the list block and the list object changed,
// so that the next pass writes the list as it stands.
void MarkListChanged(CPeerEngine& engine, LPSYSTEMBLOCKHEAD lpBlock)
{
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    long long ts = lpHead->m_nEndTimestamp + 1;
    lpBlock->m_nTimestamp = ts;
    lpBlock->m_bSaveFlag = 1;
    LPBASEFILEOBJECTDEF lpObject = DbFileListObject(lpHead);
    lpObject->m_nFinishedTimestamp = ts;
    lpObject->m_bSaveFlag = 1;
    PeerFence();
    lpHead->m_nTimestamp = ts;
    lpHead->m_nEndTimestamp = ts;
}

} // namespace

bool FileCommandAsker::Step(CPeerEngine& engine, long long nDone, bool bLive, bool bFree)
{
    if (m_nEvery > 0 && (nDone + 1) % m_nEvery == 0) m_bDue = true;
    if (!m_bDue || !bFree || engine.m_vFiles.empty()) return true;
    m_bDue = false;
    LPSYSTEMBLOCKHEAD lpBlock = nullptr;
    LPFILE_MEMDBFILEINFO lpRow = nullptr;
    if (!FindRow(engine, (BYTE)engine.m_vFiles.front(), &lpBlock, &lpRow)) return true;
    const long long nSize = lpRow->m_nFileSize;
    lpRow->m_nFileSize = nSize + RESIZE_STEP;
    PeerFence();
    lpRow->m_bFileCMD = FILECMD_RESIZE;
    MarkListChanged(engine, lpBlock);
    LPSYSTEMFILEHEAD lpHead = engine.Head();
    lpHead->m_bStorageCMD = 1;
    SetEvent(engine.m_hStorage);
    m_nAsked++;
    int i = 0;
    for (; i < ANSWER_WAIT_POLLS && lpHead->m_bStorageCMD != 32; i++) {
        if (bLive) engine.ServeChannel();
        usleep(500);
    }
    m_nLastAnswer = lpRow->m_bFileCMD;
    if (i == ANSWER_WAIT_POLLS)
        m_nUnanswered++;
    else if (m_nLastAnswer == FILECMD_RESIZE_FAILED)
        m_nRefused++;
    else
        m_nWrong++;
    // The engine takes a refused request back.
    lpRow->m_nFileSize = nSize;
    PeerFence();
    lpRow->m_bFileCMD = FILECMD_NONE;
    MarkListChanged(engine, lpBlock);
    return !Broken();
}

} // namespace talvorpeer
