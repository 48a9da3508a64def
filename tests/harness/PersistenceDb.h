// PersistenceDb.h — what the persistence tests share: a database of one
// file of each memory-mode type run by a module of its own (no storage
// thread), the engine's changes made with the stand-in's own code and kept
// in a journal, and the check of the files on disk against that journal.
#pragma once

#include "BreltMemStorage.h"
#include "DatabaseKit.h"
#include "DbFileLayout.h"
#include "ModuleTestKit.h"
#include "PeerJournal.h"
#include "TalvorFlashback.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace talvortest {

// A database of the system file and files 2 (data), 3 (B-tree), 4 (KV),
// loaded into a module of the test's own.
class PersistenceDb {
public:
    explicit PersistenceDb(long long nFileSize = 4 * 1048576LL, int nBlocks = 16)
        : m_tree("buffercachesize=0\r\nundoareasize=8\r\n"), m_nFileSize(nFileSize), m_nBlocks(nBlocks)
    {
    }
    ~PersistenceDb() { Stop(); }

    std::string SystemPath() const { return m_tree.Dir() + "System.dbf"; }
    std::string PathOf(int nFileNo) const
    {
        return nFileNo == 1 ? SystemPath() : m_tree.Dir() + "F" + std::to_string(nFileNo) + ".dbf";
    }

    bool MakeDatabase()
    {
        std::vector<FILE_MEMDBFILEINFO> vRows;
        for (int nFileNo = 1; nFileNo <= 4; nFileNo++) {
            FILE_MEMDBFILEINFO stRow;
            memset(&stRow, 0, sizeof(stRow));
            stRow.m_bFileNo = (BYTE)nFileNo;
            stRow.m_bFileType = (BYTE)nFileNo;  // 1 system, 2 data, 3 B-tree, 4 KV
            snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", PathOf(nFileNo).c_str());
            snprintf(stRow.m_lpszTablespaceName, sizeof(stRow.m_lpszTablespaceName), "F%d", nFileNo);
            stRow.m_nFileSize = nFileNo == 1 ? DB_SYSTEMFILE_SIZE : m_nFileSize;
            stRow.m_nMaxObjectNum = 64;
            vRows.push_back(stRow);
            if (nFileNo > 1 && !WriteWholeFile(PathOf(nFileNo), MakeFileBytes((BYTE)nFileNo, (BYTE)nFileNo, m_nFileSize, 0)))
                return false;
        }
        DBSYSFILEPLAN stPlan;
        if (!DbPlanSystemFile((int)vRows.size(), DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stPlan)) return false;
        std::string strSystem((size_t)DB_SYSTEMFILE_SIZE, '\0');
        if (!DbBuildSystemFile(stPlan, vRows.data(), 0x77, "Db", m_tree.Dir().c_str(), (LPBYTE)&strSystem[0],
                               DB_SYSTEMFILE_SIZE))
            return false;
        return WriteWholeFile(SystemPath(), strSystem);
    }

    // Made, loaded, blocks prepared in every file and saved by one pass:
    // where most tests begin. A failure is fatal to the test.
    void MakeStartAndSave()
    {
        ASSERT_TRUE(MakeDatabase());
        ASSERT_EQ(S_OK, Start());
        PrepareFiles();
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, Pass());
    }

    // Loads the database as the daemon does at start (segments that exist
    // are taken over), with the work buffers of the module.
    HRESULT Start()
    {
        m_pModule.reset(new CBreltMemStorageModule());
        InitThreadCritSection(&m_stCrit);
        HRESULT hr = m_pModule->InitSysEnvironment(&m_stCrit, TRUE, FALSE);
        if (hr == S_OK) hr = m_pModule->LoadFile(&m_stCrit);
        m_pModule->m_nBufferSize = 0x100000;
        m_pModule->m_lpBuffer = (LPBYTE)get_aligned_buffer(0x100000);
        m_pModule->m_lpHeadBuf = (LPBYTE)get_aligned_buffer(0x100000);
        m_nRedoLogMaxID = Head() != nullptr ? Head()->m_nRedoLogMaxID : 0;
        return hr;
    }
    void Stop()
    {
        if (!m_pModule) return;
        CBreltMemStorageModule& m = *m_pModule;
        talvortest::ReleaseModuleFiles(m);
        free(m.m_lpBuffer);
        free(m.m_lpHeadBuf);
        m_pModule.reset();
    }
    CBreltMemStorageModule& Module() { return *m_pModule; }
    LPSYSTEMFILEHEAD Head() { return m_pModule ? m_pModule->m_pMemoryFileHead : nullptr; }
    stu_FILEINFO* File(int nFileNo) { return m_pModule->m_arFileInfo[nFileNo]; }
    LPBYTE Image(int nFileNo) { return File(nFileNo)->m_pFileAddr; }
    LPBASEFILEHEAD FileHead(int nFileNo) { return (LPBASEFILEHEAD)Image(nFileNo); }

    // One pass of the module as the storage thread runs it.
    int Pass(BOOL bForce = FALSE) { return m_pModule->RunSavePass(&m_stCrit, bForce, 0, m_nRedoLogMaxID); }

    // --- The engine.
    long long BeginTransaction() { return Head()->m_nEndTimestamp + 1; }
    void EndTransaction(long long nTimestamp) { TalvorStoreShared(&Head()->m_nEndTimestamp, nTimestamp); }
    // Blocks in every database file, as one transaction.
    void PrepareFiles()
    {
        long long ts = BeginTransaction();
        for (int n = 2; n <= 4; n++)
            ASSERT_TRUE(talvorpeer::PeerPrepareFile(Image(n), File(n)->m_liFileSize, m_nBlocks, ts));
        EndTransaction(ts);
        for (int n = 2; n <= 4; n++) m_mapBlocks[n] = talvorpeer::PeerFileBlocks(Image(n), File(n)->m_liFileSize);
    }
    void ChangeRow(int nFileNo, int nBlock, int nSlot, long long nValue, long long ts)
    {
        long long nOffset = m_mapBlocks[nFileNo][(size_t)nBlock];
        talvorpeer::PeerChangeRow(Image(nFileNo), File(nFileNo)->m_liFileSize, nFileNo, nOffset, nSlot, nValue, ts);
        m_vJournal.push_back({ts, nFileNo, nOffset, nSlot, nValue});
    }
    // nCount transactions of one random row change each.
    void RandomChanges(int nCount, std::mt19937& rng)
    {
        for (int i = 0; i < nCount; i++) {
            long long ts = BeginTransaction();
            int nFileNo = 2 + (int)(rng() % 3);
            ChangeRow(nFileNo, (int)(rng() % m_mapBlocks[nFileNo].size()), (int)(rng() % 8), (long long)rng(), ts);
            EndTransaction(ts);
        }
    }
    long long BlockOffset(int nFileNo, int nBlock) { return m_mapBlocks[nFileNo][(size_t)nBlock]; }

    // --- The file list in the system image, as the engine edits it.
    LPFILE_MEMDBFILEINFO Row(BYTE bFileNo) { return DbFindFileListRow(Image(1), File(1)->m_liFileSize, bFileNo); }
    // The list block with room, where the engine appends a row.
    LPSYSTEMBLOCKHEAD ListBlock()
    {
        LPBASEFILEOBJECTDEF lpObject = DbFileListObject(Head());
        LPBASEFILEBLOCKMAP lpEntry = (LPBASEFILEBLOCKMAP)(Image(1) + lpObject->m_nFreeBlockMapOffset);
        return (LPSYSTEMBLOCKHEAD)(Image(1) + lpEntry->m_nBlockOffset);
    }
    // The engine's edit of the list, in its order: row, then the command
    // byte (both done by the caller), then the flags that make the pass
    // look, then the timestamp.
    void MarkListChanged()
    {
        LPSYSTEMBLOCKHEAD lpBlock = ListBlock();
        long long ts = BeginTransaction();
        lpBlock->m_nTimestamp = ts;
        lpBlock->m_bSaveFlag = 1;
        LPBASEFILEOBJECTDEF lpObject = DbFileListObject(Head());
        lpObject->m_nFinishedTimestamp = ts;
        lpObject->m_bSaveFlag = 1;
        talvorpeer::PeerFence();
        Head()->m_nTimestamp = ts;
        EndTransaction(ts);
    }

    // --- The disk.
    long long CommittedOnDisk() const
    {
        std::string s = ReadWholeFile(SystemPath());
        if (s.size() < sizeof(SYSTEMFILEHEAD)) return -1;
        return Val(((LPSYSTEMFILEHEAD)&s[0])->m_nBeginTimestamp);
    }
    // Empty when every map entry of file nFileNo on disk names a block
    // whose head on disk is whole (the block mark and the entry's number);
    // else the first entry that does not, told.
    std::string MapsNameWholeBlocksOnDisk(int nFileNo) const
    {
        std::string s = ReadWholeFile(PathOf(nFileNo));
        long long nSize = (long long)s.size();
        if (nSize < (long long)sizeof(BASEFILEHEAD)) return "file shorter than its head";
        const BYTE* lpFile = (const BYTE*)s.data();
        const BASEFILEHEAD* lpHead = (const BASEFILEHEAD*)lpFile;
        long long nMapSize = lpHead->m_nBlockMapSize;
        if (nMapSize < (long long)sizeof(BASEFILEBLOCKMAPHEAD)) return "map size " + std::to_string(nMapSize);
        long long nMap = lpHead->m_nBlockMapStartOffset;
        for (int nStep = 0; nMap != 0; nStep++) {
            if (nStep > nSize / nMapSize || nMap < 0 || nMap + nMapSize > nSize)
                return "map block at " + std::to_string(nMap) + " outside the file";
            const BASEFILEBLOCKMAPHEAD* lpMap = (const BASEFILEBLOCKMAPHEAD*)(lpFile + nMap);
            if (lpMap->m_nBlockMapNum < 0 || lpMap->m_nBlockMapNum > DbMaxBlockMapNum((int)nMapSize))
                return "map block at " + std::to_string(nMap) + " counts " + std::to_string(lpMap->m_nBlockMapNum);
            for (int i = 0; i < lpMap->m_nBlockMapNum; i++) {
                BASEFILEBLOCKMAP stEntry;
                memcpy(&stEntry, lpFile + DbMapEntryOffset(nMap, i), sizeof(stEntry));
                long long nBlock = stEntry.m_nBlockOffset;
                const BLOCKHEAD* lpBlock = (const BLOCKHEAD*)(lpFile + nBlock);
                if (nBlock <= 0 || nBlock + (long long)sizeof(BLOCKHEAD) > nSize ||
                    lpBlock->m_nDataFlag != BLOCK_DATAFLAG || lpBlock->m_nBlockNo != stEntry.m_nBlockNo)
                    return "entry of block " + std::to_string(stEntry.m_nBlockNo) + " names " + std::to_string(nBlock) +
                           ", where no such block is";
            }
            nMap = lpMap->m_nNextBlockMapOffset;
        }
        return std::string();
    }
    talvorpeer::PeerCheckResult CheckDisk(long long nCommitted) const
    {
        std::vector<std::string> vFiles(5);
        const BYTE* arFiles[256] = {nullptr};
        long long arSizes[256] = {0};
        for (int n = 2; n <= 4; n++) {
            vFiles[(size_t)n] = ReadWholeFile(PathOf(n));
            arFiles[n] = (const BYTE*)vFiles[(size_t)n].data();
            arSizes[n] = (long long)vFiles[(size_t)n].size();
        }
        return talvorpeer::PeerCheckFiles(m_vJournal, nCommitted, arFiles, arSizes);
    }

    DatabaseDir m_tree;
    long long m_nFileSize;
    int m_nBlocks;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
    TALVORCRITICALSECTION m_stCrit;
    UINT m_nRedoLogMaxID = 0;
    std::map<int, std::vector<long long>> m_mapBlocks;
    std::vector<talvorpeer::PeerChange> m_vJournal;
};

} // namespace talvortest
