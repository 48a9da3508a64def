// RedoLogFixture.h — what the unit tests of the redo object share: a
// private ring, real group files in a fresh directory, the engine's records
// and an archiver played by the test.
#pragma once

#include "LogManager.h"
#include "TalvorRedoLog.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>

namespace talvortest {

const int RING_HEAD = (int)sizeof(FILE_TRACEMEMFILEHEAD);

// The first failures of a sweep of nRuns runs, one a line; none expected.
inline void ExpectNoFailures(const std::vector<std::string>& vFailed, int nRuns)
{
    std::string strFailed;
    for (size_t i = 0; i < vFailed.size() && i < 10; i++) strFailed += vFailed[i] + "\n";
    EXPECT_TRUE(vFailed.empty()) << vFailed.size() << " of " << nRuns << " runs failed, first ones:\n" << strFailed;
}

// What a process leaves to the next one besides the files: the system head,
// the ring and the engine's count of bytes put into it, all in memory shared
// with a child that may be killed.
struct RedoShared {
    SYSTEMFILEHEAD m_stHead;
    volatile long long m_nProduced;
};

class RedoFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        m_strDir = m_tree.Dir();
        m_pShared = (RedoShared*)SharedAlloc(sizeof(RedoShared));
        m_pHead = &m_pShared->m_stHead;
        m_pHead->m_usDatabaseGuid = 0x4321;
        m_pHead->m_nWriteRedoOnlineGroups = 3, m_pHead->m_nWriteRedoMaxSize = 4096;
        m_pHead->m_nWriteUndoDelayTime = 1;
        m_stTemplate = *m_pHead;
        InitThreadCritSection(&m_stCrit);
    }
    void TearDown() override { delete m_pRedo, FreeRing(), munmap(m_pShared, sizeof(RedoShared)); }
    static void* SharedAlloc(size_t nSize)
    {
        void* p = mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(MAP_FAILED, p);
        return p;
    }
    void MakeRing(int nDataSize)
    {
        m_nRingSize = RING_HEAD + nDataSize;
        m_pRing = (LPBYTE)SharedAlloc((size_t)m_nRingSize);
        TraceRingInitHead(m_pRing, m_nRingSize, TRACEMEM_FILETYPE_REDO);
    }
    void FreeRing() { if (m_pRing != nullptr) munmap(m_pRing, (size_t)m_nRingSize); m_pRing = nullptr; }

    // A run of its own: fresh group files in strRun, the head as SetUp left
    // it, nothing written, a new ring of nDataSize.
    void StartOver(const std::string& strRun, int nDataSize)
    {
        delete m_pRedo;
        m_pRedo = nullptr;
        FreeRing();
        m_strDir = m_tree.Dir() + strRun + "/";
        ASSERT_EQ(0, mkdir(m_strDir.c_str(), 0755));
        *m_pHead = m_stTemplate;
        m_pShared->m_nProduced = 0;
        m_bExit = FALSE;
        memset(&m_st, 0, sizeof(m_st));
        m_strStream.clear(), m_vLogs.clear();
        m_nLastLogNo = 0;
        MakeRing(nDataSize);
    }

    // A redo object on a head, a directory and a ring; FALSE if its start failed.
    bool InitOn(CTalvorRedoLog*& pRedo, LPSYSTEMFILEHEAD pHead, const std::string& strDir, LPBYTE pRing)
    {
        pRedo = new CTalvorRedoLog();
        pRedo->SetRingSize(m_nRingSize);
        return pRedo->Init(pHead, 0, &m_bExit, (char*)strDir.c_str(), (char*)pRing, nullptr, nullptr, FALSE, nullptr);
    }
    bool InitRedo() { return InitOn(m_pRedo, m_pHead, m_strDir, m_pRing); }

    // The head archives into strDir + "A".
    static void ArchiveInto(LPSYSTEMFILEHEAD pHead, const std::string& strDir)
    {
        pHead->m_nTalvorArchiveType = 1;
        snprintf(pHead->m_lpArchiveDesPath, sizeof(pHead->m_lpArchiveDesPath), "%sA", strDir.c_str());
    }

    void StartRedo(int nDataSize)
    {
        MakeRing(nDataSize);
        ASSERT_TRUE(InitRedo());
        m_pRedo->StartWriter(m_st);
    }

    LPFILE_TRACEMEMFILEHEAD Ring() { return (LPFILE_TRACEMEMFILEHEAD)m_pRing; }

    // One record of the engine: head, body, trailer for the types that have one.
    std::string Record(int nSize, BYTE bType, long long nTimestamp)
    {
        std::string s((size_t)nSize, '\0');
        for (int i = EXECUTEPLANHEAD_SIZE; i < nSize; i++) s[(size_t)i] = (char)(m_nRand = m_nRand * 1103515245 + 12345);
        BASEEXECUTEPLANHEAD h = {};
        h.m_nTotalDataSize = (UINT)nSize;
        h.m_nDataFlag = EXECUTEPLAN_DATAFLAG;
        h.m_nType = bType;
        h.m_nTimestamp = nTimestamp;
        memcpy(&s[0], &h, sizeof(h));
        UINT t = REDORECORD_TRAILER;
        if (RedoRecordHasTrailer(bType)) memcpy(&s[(size_t)nSize - 4], &t, 4);
        return s;
    }

    bool SetGroupHead(int g, const MF_REDOLOGFILEHEAD& h) { return WriteFileAt(GroupPath(g), 0, std::string((const char*)&h, sizeof(h))); }
    static MF_REDOLOGFILEHEAD HeadOf(const std::string& s)
    {
        MF_REDOLOGFILEHEAD h = {};
        return memcpy(&h, s.data(), std::min(s.size(), sizeof(h))), h;
    }
    std::string GroupPath(int g) { return m_strDir + "Redo" + std::to_string(g) + ".log"; }
    MF_REDOLOGFILEHEAD GroupHead(int g) { return HeadOf(ReadWholeFile(GroupPath(g))); }

    // One record a log, three logs, the writer stopped (which seals the
    // last) and no archiver; the bodies kept in m_vLogs.
    void SealThreeLogs()
    {
        m_pRedo->StartWriter(m_st);
        for (int i = 0; i < 3; i++) {
            m_vLogs.push_back(Record(3000, 1, i + 1));
            ASSERT_EQ(3000, TraceRingWrite(m_pRing, m_nRingSize, m_vLogs.back().data(), 3000));
            for (int k = 0; k < 2; k++) m_pRedo->WritePass(m_st, &m_stCrit);
        }
        m_bExit = TRUE;
        for (int i = 0; i < 100 && !m_pRedo->WritePass(m_st, &m_stCrit); i++) continue;
        for (int g = 0; g < 3; g++) ASSERT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(g)->m_bState) << g;
    }

    // The archiver to its end condition; the sealed groups are there from
    // the start, so it waits for no seal. The copy handle it left open.
    static void* RunArchiver(CTalvorRedoLog* pRedo)
    {
        TalvorStoreShared(&pRedo->m_bArchiveExit, TRUE);
        SetEvent(pRedo->m_hArchiveEvent);
        void *hFile = nullptr, *hSrc = nullptr;
        pRedo->ArchiveFile(hFile, hSrc);
        return hFile;
    }

    // The sealed group of the lowest log number, or -1.
    int OldestSealed()
    {
        int nFound = -1;
        for (int g = 0; g < m_pRedo->m_nWriteRedoOnlineGroups; g++) {
            LPTALVORREDOGROUP p = m_pRedo->GetGroup(g);
            if (p->m_bState == REDOGROUP_SEALED &&
                (nFound < 0 || p->m_nSequenceNO < m_pRedo->GetGroup(nFound)->m_nSequenceNO))
                nFound = g;
        }
        return nFound;
    }

    // What the archiver does with a log's body.
    virtual void Keep(UINT, const std::string& strBody) { m_strLogs += strBody; }

    // Plays the archiver: every sealed group, oldest first, is taken out and
    // made reusable.
    void Harvest()
    {
        for (int g; (g = OldestSealed()) >= 0;) {
            LPTALVORREDOGROUP p = m_pRedo->GetGroup(g);
            std::string strFile = ReadWholeFile(GroupPath(g));
            MF_REDOLOGFILEHEAD h = HeadOf(strFile);
            EXPECT_TRUE(h.m_nSequenceNO == p->m_nSequenceNO && h.m_bState == REDOGROUP_SEALED &&
                        h.m_nEffectiveSize == (UINT)p->m_nEffectiveSize) << "the file's head is not the sealed group's";
            EXPECT_GT(+h.m_nSequenceNO, m_nLastLogNo) << "log numbers only grow";
            m_nLastLogNo = h.m_nSequenceNO;
            Keep(h.m_nSequenceNO, strFile.substr(REDOLOGFILE_HEAD_SIZE, h.m_nEffectiveSize - REDOLOGFILE_HEAD_SIZE));
            m_nSeals++;
            // Marked in the file too, as the archiver does.
            h.m_bState = p->m_bState = REDOGROUP_ARCHIVED;
            ASSERT_TRUE(SetGroupHead(g, h));
        }
    }

    // Appends bytes as the engine does, letting the writer drain when the
    // ring is full; every pass is followed by the archiver.
    void Produce(const std::string& s)
    {
        for (size_t nDone = 0, nStall = 0; nDone < s.size();) {
            int n = TraceRingWrite(m_pRing, m_nRingSize, s.data() + nDone, (int)(s.size() - nDone));
            nDone += (size_t)n;
            nStall = n == 0 ? (Pass(), nStall + 1) : 0;
            ASSERT_LT(nStall, 1000u) << "the writer never made room";
        }
        m_strStream += s;
    }
    bool Pass()
    {
        bool bEnded = m_pRedo->WritePass(m_st, &m_stCrit);
        return Harvest(), bEnded;
    }
    // The engine's seal request and the writer's next pass.
    bool Seal() { return Ring()->m_bFlushFlag = REDOFLUSH_SEAL, Pass(); }
    // Three records of 3000 bytes: one a log, logs 1 and 2 sealed, 3 open.
    void ThreeLogs() { for (int i = 0; i < 3; i++) Produce(Record(3000, 1, i + 1)), Pass(), Pass(); }
    void Stop()
    {
        m_bExit = TRUE;
        for (int i = 0; i < 5000 && !Pass(); i++) continue;
    }

    TempTree m_tree{"redo"};
    std::string m_strDir;
    RedoShared* m_pShared = nullptr;
    SYSTEMFILEHEAD m_stTemplate;
    LPSYSTEMFILEHEAD m_pHead = nullptr;
    LPBYTE m_pRing = nullptr;
    int m_nRingSize = 0;
    BOOL m_bExit = FALSE;
    CTalvorRedoLog* m_pRedo = nullptr;
    REDOWRITERSTATE m_st;
    TALVORCRITICALSECTION m_stCrit{};
    unsigned m_nRand = 7;
    std::string m_strStream, m_strLogs;
    std::vector<std::string> m_vLogs;
    UINT m_nLastLogNo = 0;
    int m_nSeals = 0;
};

} // namespace talvortest
