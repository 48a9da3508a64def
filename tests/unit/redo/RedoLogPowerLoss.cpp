// Unit: power loss (before each call that changes the disk, any subset of
// the unsynced changes kept) during a seal and an archive: a start on what
// is left succeeds, and every log called archived or sealed is whole.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

#include <functional>
#include <numeric>
#include <set>

using namespace talvortest;

namespace {

const FileOp CHANGING_OPS[] = {FileOp::PWrite, FileOp::FSync, FileOp::FDataSync, FileOp::Rename,
                               FileOp::SyncDirectory, FileOp::Unlink, FileOp::Open};

// The nth subset of n changes: for few changes every combination, else all
// dropped, all kept, then each one kept alone.
bool SubsetOf(size_t nChanges, int nSubset, std::vector<size_t>& vKeep)
{
    vKeep.clear();
    const bool bAll = nChanges <= 5;
    for (size_t i = 0; i < nChanges; i++)
        if (bAll ? (nSubset & (1 << i)) != 0 : nSubset == 1 || (size_t)nSubset == i + 2) vKeep.push_back(i);
    return bAll ? nSubset < (1 << nChanges) : (size_t)nSubset < 2 + nChanges;
}

class RedoPowerLoss : public RedoFixture {
protected:
    // A fresh run that archives into A/.
    void StartOver(const std::string& strRun)
    {
        RedoFixture::StartOver(strRun, 8192);
        ArchiveInto(m_pHead, m_strDir);
    }

    static void Archive(CTalvorRedoLog* pRedo) { pRedo->m_nArchiveStopLimitMs = 2000, RunArchiver(pRedo); }

    // What came before is on the disk.
    static void SyncAll(FaultFileIO& io)
    {
        std::vector<size_t> v(io.Unsynced().size());
        std::iota(v.begin(), v.end(), 0);
        io.LosePowerKeeping(v, NameLoss::Keep);
    }

    // Cuts the power before the nth changing call of op() (or right after its
    // last one), keeping the nSubset-th subset of the unsynced changes, and
    // copies the tree to strCopy; fnAtCut sees the live object at that
    // moment. FALSE when op() made fewer calls or the subset does not exist.
    bool CutAt(FaultFileIO& io, long long nCall, int nSubset, const std::string& strCopy, const std::function<void()>& op,
               const std::function<void()>& fnAtCut)
    {
        long long nSeen = 0;
        bool bCut = false, bNoSubset = false;
        auto fnCut = [&] {
            std::vector<size_t> vKeep;
            bNoSubset = !SubsetOf(io.Unsynced().size(), nSubset, vKeep);
            if (bNoSubset) return;
            bCut = true;
            fnAtCut();
            io.LosePowerKeeping(vKeep, NameLoss::Undo);
            EXPECT_EQ(0, system(("cp -a '" + m_strDir + "' '" + strCopy + "'").c_str()));
        };
        FileHook fnHook = [&](const FileCall& call) {
            if (bCut || bNoSubset) return;
            if (call.m_eOp == FileOp::Open && (call.m_nFlags & O_CREAT) == 0) return;
            if (++nSeen == nCall) fnCut();
        };
        for (FileOp eOp : CHANGING_OPS) io.OnCall(eOp, fnHook);
        op();
        for (FileOp eOp : CHANGING_OPS) io.OnCall(eOp, nullptr);
        if (!bCut && !bNoSubset && nSeen == nCall - 1) fnCut();
        return bCut;
    }

    // fnCase for every cut (call, subset) in a fresh tree strTag...; it
    // says FALSE when there was no such cut and adds what is wrong to its
    // last argument. The number of cuts.
    typedef std::function<bool(long long, int, const std::string&, std::string&)> CutCase;
    int ForEachCut(const std::string& strTag, std::vector<std::string>& vFailed, const CutCase& fnCase)
    {
        int nCuts = 0;
        for (long long nCall = 1;; nCall++) {
            bool bAny = false;
            for (int nSubset = 0;; nSubset++) {
                const std::string strRun = strTag + "c" + std::to_string(nCall) + "s" + std::to_string(nSubset);
                StartOver(strRun);
                std::string strError;
                if (HasFatalFailure() || !fnCase(nCall, nSubset, m_tree.Dir() + strRun + "-cut/", strError)) break;
                bAny = true;
                nCuts++;
                if (!strError.empty()) vFailed.push_back("cut " + strRun + ": " + strError);
            }
            if (!bAny || HasFatalFailure()) return nCuts;
        }
    }

    // A start on the copy, with a new ring (the machine went down).
    std::unique_ptr<CTalvorRedoLog> StartOn(const std::string& strDir, LPSYSTEMFILEHEAD pHead, std::vector<BYTE>& vRing)
    {
        vRing.assign((size_t)m_nRingSize, 0);
        TraceRingInitHead(vRing.data(), m_nRingSize, TRACEMEM_FILETYPE_REDO);
        CTalvorRedoLog* pRedo = nullptr;
        EXPECT_TRUE(InitOn(pRedo, pHead, strDir, vRing.data()));
        return std::unique_ptr<CTalvorRedoLog>(pRedo);
    }

    // Log n's archive copy in the tree strDir: "" if whole, else what is wrong.
    std::string ArchiveProblem(const std::string& strDir, UINT nLog)
    {
        std::string strCopy = ReadWholeFile(strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log");
        MF_REDOLOGFILEHEAD h = HeadOf(strCopy);
        if (strCopy.empty()) return "log " + std::to_string(nLog) + " missing; ";
        bool bWhole = h.m_nSequenceNO == nLog && h.m_bState == REDOGROUP_ARCHIVED && h.m_nEffectiveSize == strCopy.size() &&
                      strCopy.substr(REDOLOGFILE_HEAD_SIZE) == m_vLogs[nLog - 1];
        return bWhole ? "" : "log " + std::to_string(nLog) + " torn; ";
    }
};

} // namespace

TEST_F(RedoPowerLoss, CutAtAnyCallOfTheArchiverLeavesEveryLogCalledArchivedWhole)
{
    std::vector<std::string> vFailed;
    int nCuts = ForEachCut("", vFailed, [&](long long nCall, int nSubset, const std::string& strCopy, std::string& strError) {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        EXPECT_TRUE(InitRedo());
        SealThreeLogs();
        if (HasFatalFailure()) return false;
        SyncAll(io);
        // What the ring or a group calls archived at the cut.
        std::set<UINT> setArchived;
        bool bCut = CutAt(io, nCall, nSubset, strCopy, [&] { Archive(m_pRedo); }, [&] {
            for (int n = 1; n <= Ring()->m_nLogArchiveNo; n++) setArchived.insert((UINT)n);
            // The machine is down: this archiver's further work does not count.
            m_pRedo->m_nArchiveStopLimitMs = -1;
            for (int g = 0; g < 3; g++)
                if (m_pRedo->GetGroup(g)->m_bState == REDOGROUP_ARCHIVED) setArchived.insert(+m_pRedo->GetGroup(g)->m_nSequenceNO);
        });
        if (!bCut) return false;
        for (UINT n : setArchived) strError += ArchiveProblem(strCopy, n);
        // The next start archives what is left, whole.
        SYSTEMFILEHEAD stHead = *m_pHead;
        ArchiveInto(&stHead, strCopy);
        ScopedFileIO plain(nullptr);
        std::vector<BYTE> vRing;
        Archive(StartOn(strCopy, &stHead, vRing).get());
        for (UINT n = 1; n <= 3; n++) strError += ArchiveProblem(strCopy, n);
        return true;
    });
    EXPECT_GT(nCuts, 20);
    ExpectNoFailures(vFailed, nCuts);
}

// With "forceflushlog" 1 a head that says sealed on the disk speaks for
// every byte of the log; with 0 the seal stays in the page cache, and the
// start cuts a sealed log whose bytes a power loss took back to its last
// whole record. Either way no start keeps a torn log.
TEST_F(RedoPowerLoss, CutAtAnyCallOfASealLeavesNoTornLog)
{
    int nCuts = 0;
    std::vector<std::string> vFailed;
    for (int nForce : {1, 0}) {
        auto fnCase = [&](long long nCall, int nSubset, const std::string& strCopy, std::string& strError) {
            FaultFileIO io;
            ScopedFileIO scoped(&io);
            EXPECT_TRUE(InitRedo());
            m_pRedo->m_nForceFlushLog = nForce;
            SyncAll(io);
            m_pRedo->StartWriter(m_st);
            std::string strLog;
            // Two stretches drained into one log, then the engine's seal.
            bool bCut = CutAt(io, nCall, nSubset, strCopy, [&] {
                for (int i = 0; i < 2; i++) {
                    strLog += Record(700 + 100 * i, 1, i + 1);
                    TraceRingWrite(m_pRing, m_nRingSize, strLog.data() + 700 * i, 700 + 100 * i);
                    m_pRedo->WritePass(m_st, &m_stCrit);
                }
                Ring()->m_bFlushFlag = REDOFLUSH_SEAL;
                m_pRedo->WritePass(m_st, &m_stCrit);
            }, [] {});
            if (!bCut) return false;
            std::string strGroup = ReadWholeFile(strCopy + "Redo0.log");
            MF_REDOLOGFILEHEAD h = HeadOf(strGroup);
            if (nForce != 0 && h.m_bState == REDOGROUP_SEALED &&
                (h.m_nEffectiveSize != 50 + strLog.size() || strGroup.substr(50, strLog.size()) != strLog))
                strError += "sealed log torn on the disk; ";
            SYSTEMFILEHEAD stHead = *m_pHead;
            ScopedFileIO plain(nullptr);
            std::vector<BYTE> vRing;
            std::unique_ptr<CTalvorRedoLog> pRedo = StartOn(strCopy, &stHead, vRing);
            // Whatever the start keeps sealed is whole records of the stream.
            LPTALVORREDOGROUP p = pRedo->GetGroup(0);
            if (p->m_bState == REDOGROUP_SEALED) {
                std::string strBody = ReadWholeFile(strCopy + "Redo0.log").substr(50, (size_t)p->m_nEffectiveSize - 50);
                if (strBody != strLog.substr(0, strBody.size()) ||
                    (!strBody.empty() && strBody.size() != 700 && strBody.size() != strLog.size()))
                    strError += "log sealed after the start torn (" + std::to_string(strBody.size()) + " bytes); ";
            }
            return true;
        };
        nCuts += ForEachCut("f" + std::to_string(nForce), vFailed, fnCase);
    }
    EXPECT_GT(nCuts, 20);
    ExpectNoFailures(vFailed, nCuts);
}

// A power loss can leave a page of a sealed log with what the group held
// before: the records of its previous log, which may run on exactly to the
// sealed size. Older than the log's begin, they are not its own, and the
// start cuts the log behind its last own record.
TEST_F(RedoPowerLoss, SealedLogWhosePageHoldsThePreviousLogIsCutBehindItsOwnRecords)
{
    StartOver("stale");
    m_pHead->m_nEndTimestamp = 10;
    ASSERT_TRUE(InitRedo());
    m_pRedo->StartWriter(m_st);
    const std::string strOwn = Record(700, 1, 11);
    for (const std::string& s : {strOwn, Record(800, 1, 12)}) {
        ASSERT_EQ((int)s.size(), TraceRingWrite(m_pRing, m_nRingSize, s.data(), (int)s.size()));
        m_pRedo->WritePass(m_st, &m_stCrit);
    }
    Ring()->m_bFlushFlag = REDOFLUSH_SEAL;
    m_pRedo->WritePass(m_st, &m_stCrit);
    delete m_pRedo;
    m_pRedo = nullptr;
    ASSERT_TRUE(WriteFileAt(m_strDir + "Redo0.log", 50 + 700, Record(800, 1, 5)));

    std::vector<BYTE> vRing;
    std::unique_ptr<CTalvorRedoLog> pRedo = StartOn(m_strDir, m_pHead, vRing);
    EXPECT_EQ(REDOGROUP_SEALED, pRedo->GetGroup(0)->m_bState);
    EXPECT_EQ(50 + 700, +pRedo->GetGroup(0)->m_nEffectiveSize);
    std::string strGroup = ReadWholeFile(m_strDir + "Redo0.log");
    EXPECT_TRUE(HeadOf(strGroup).m_nEffectiveSize == 50 + 700 && strGroup.substr(50, 700) == strOwn);
}
