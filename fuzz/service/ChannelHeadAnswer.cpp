// The engine's answer to channel command 3, from outside: the save pass of
// a running engine asks it for a consistent copy of a file's head, and the
// engine answers with its result code, the head in the channel's data area
// and (damaged or not) the channel's data offset and total size. A good
// database made by the maker's builders is brought up, the files are
// marked changed (the stand-in's rows written first, if asked), and a
// stand-in thread answers each request of one pass with the input; requests
// for other files get "not a file of ours", after which the pass falls back
// to the live image.
//
// Input: u8 file number answered | u8 flags | i32 result | i32 data offset
// | i32 total size | the bytes the engine puts at the data area. Flags: bit 0
// the offset and size are laid over the channel's own, bit 1 the system
// file is marked changed, bit 2 the data file is, bit 3 the answer comes
// only after the daemon waited a turn, bit 4 the stand-in first writes a
// row into each of ROW_BLOCKS new blocks of the data file (as the seed
// "data-rows" was made).
#include "FuzzKeptModule.h"
#include "PeerImage.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

const size_t ANSWER_HEAD = 14;
const BYTE FLAG_LAY_GEOMETRY = 1;
const BYTE FLAG_MARK_SYSTEM = 2;
const BYTE FLAG_MARK_DATA = 4;
const BYTE FLAG_LATE = 8;
const BYTE FLAG_ROWS = 16;
const int ROW_BLOCKS = 4;
const long long ROW_PREPARED_AT = 2500;
const long long ROW_WRITTEN_AT = 2600;
const int ANSWER_NOT_OURS = 5;

struct Answer {
    BYTE m_bFileNo;
    BYTE m_bFlags;
    int m_nResult;
    int m_nDataOffset;
    int m_nTotalSize;
    const uint8_t* m_lpBytes;
    size_t m_nBytes;
};

template <class T>
T Le(const uint8_t* p)
{
    T v;
    memcpy(&v, p, sizeof(v));
    return v;
}

// The engine's side of the channel, one thread: the command byte is read
// first and written last, as the engine's contract says.
class CAnswerer {
public:
    CAnswerer(CTalvorFlashback& fb, const Answer& a) : m_fb(fb), m_a(a) {}
    void Start() { m_thread = std::thread([this] { Run(); }); }
    void Stop()
    {
        m_bStop.store(true);
        if (m_thread.joinable()) m_thread.join();
    }

private:
    void Run()
    {
        LPSTORAGEMEMHEAD lpHead = m_fb.GetStorageMemHead();
        bool bWaited = false;
        while (!m_bStop.load()) {
            BYTE bCommand = TalvorLoadShared(&lpHead->m_bCommandType);
            if (bCommand == PEERCMD_NONE || ((m_a.m_bFlags & FLAG_LATE) && !bWaited)) {
                bWaited = bCommand != PEERCMD_NONE;
                WaitForSingleObject(m_fb.m_hFlashBackEvent, 1);
                continue;
            }
            bWaited = false;
            BYTE bFileNo = TalvorLoadShared(&lpHead->m_bFileNo);
            int nResult = bCommand == PEERCMD_FLASHBACKHEAD && bFileNo != m_a.m_bFileNo ? ANSWER_NOT_OURS : m_a.m_nResult;
            if (bCommand == PEERCMD_FLASHBACKHEAD && bFileNo == m_a.m_bFileNo) Lay(lpHead);
            TalvorStoreShared(&lpHead->m_nResult, nResult);
            TalvorStoreShared(&lpHead->m_bCommandType, (BYTE)PEERCMD_NONE);
            SetEvent(m_fb.m_hFlashBackFinishedEvent);
        }
    }

    void Lay(LPSTORAGEMEMHEAD lpHead)
    {
        size_t nRoom = (size_t)STORAGEMEM_SEGMENT_SIZE - sizeof(STORAGEMEMHEAD);
        memcpy(m_fb.m_pStorageMemFileAddr + sizeof(STORAGEMEMHEAD), m_a.m_lpBytes,
               m_a.m_nBytes < nRoom ? m_a.m_nBytes : nRoom);
        if (!(m_a.m_bFlags & FLAG_LAY_GEOMETRY)) return;
        TalvorStoreShared(&lpHead->m_nFileDataOffset, m_a.m_nDataOffset);
        TalvorStoreShared(&lpHead->m_nFileTotalSize, m_a.m_nTotalSize);
    }

    CTalvorFlashback& m_fb;
    const Answer& m_a;
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

void MarkChanged(CBreltMemStorageModule& m, BYTE bFileNo)
{
    stu_FILEINFO* pFile = m.GetFileInfo(bFileNo);
    if (pFile != nullptr && pFile->m_pFileAddr != nullptr) ((LPBASEFILEHEAD)pFile->m_pFileAddr)->m_bSaveFlag = 1;
}

// The engine's transaction: blocks prepared, a row in each, the end stamp
// published last.
void WriteRows(CBreltMemStorageModule& m)
{
    stu_FILEINFO* pFile = m.GetFileInfo(talvorfuzz::FUZZ_DATA_FILENO);
    if (pFile == nullptr || pFile->m_pFileAddr == nullptr) abort();
    LPBYTE lpImage = pFile->m_pFileAddr;
    long long nSize = pFile->m_liFileSize;
    if (!talvorpeer::PeerPrepareFile(lpImage, nSize, ROW_BLOCKS, ROW_PREPARED_AT)) abort();
    std::vector<long long> vBlocks = talvorpeer::PeerFileBlocks(lpImage, nSize);
    for (size_t i = 0; i < vBlocks.size(); i++)
        talvorpeer::PeerChangeRow(lpImage, nSize, talvorfuzz::FUZZ_DATA_FILENO, vBlocks[i], (int)i, 300 + (long long)i,
                                  ROW_WRITTEN_AT);
    TalvorStoreShared(&m.m_pMemoryFileHead->m_nEndTimestamp, ROW_WRITTEN_AT);
}

void Pass(CBreltMemStorageModule& m, TALVORCRITICALSECTION& stCrit, const Answer& a)
{
    CTalvorFlashback& fb = *m.m_pFlashback;
    LPSTORAGEMEMHEAD lpHead = fb.GetStorageMemHead();
    if (lpHead == nullptr) abort();
    if (a.m_bFlags & FLAG_ROWS) WriteRows(m);
    if (a.m_bFlags & FLAG_MARK_SYSTEM) MarkChanged(m, SYSTEMFILE_FILENO);
    if (a.m_bFlags & FLAG_MARK_DATA) MarkChanged(m, 2);
    TalvorStoreShared(&lpHead->m_nCycleTime, 1);
    TalvorStoreShared(&lpHead->m_bService, (BYTE)SERVICESTATE_RUNNING);
    CAnswerer answerer(fb, a);
    answerer.Start();
    UINT nRedoLogMaxID = m.m_pMemoryFileHead->m_nRedoLogMaxID;
    m.RunSavePass(&stCrit, FALSE, 0, nRedoLogMaxID);
    answerer.Stop();
    // The channel outlives the module in this process: the next input
    // starts from the channel as the daemon sets it up.
    TalvorStoreShared(&lpHead->m_bService, (BYTE)SERVICESTATE_STOPPED);
    lpHead->m_nFileDataOffset = sizeof(STORAGEMEMHEAD);
    lpHead->m_nFileTotalSize = STORAGEMEM_SEGMENT_SIZE;
    lpHead->m_nCycleTime = STORAGEMEM_CYCLETIME_MS;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static talvorfuzz::CKeptModule s_module;
    if (!talvorfuzz::ModuleIni()) abort();
    const talvorfuzz::MadeFiles& db = talvorfuzz::MadeDatabase();
    if (!db.m_bOk) abort();
    if (nSize < ANSWER_HEAD) return 0;
    Answer a{lpData[0], lpData[1], Le<int32_t>(lpData + 2), Le<int32_t>(lpData + 6), Le<int32_t>(lpData + 10),
             lpData + ANSWER_HEAD, nSize - ANSWER_HEAD};
    CBreltMemStorageModule& m = s_module.Ready(db);
    Pass(m, *s_module.Crit(), a);
    s_module.After();
    return 0;
}
