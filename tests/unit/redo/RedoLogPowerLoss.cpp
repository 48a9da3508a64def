// Unit: power loss and failing calls while a group is sealed and while
// sealed groups are archived. The fault layer cuts the power before each
// call that changes the disk, dropping the unsynced changes (all of them, or
// any subset); the tree as the cut leaves it is copied aside, and a new start
// on the copy must succeed, every log the ring called archived must be whole
// in the archive, and every sealed log must be whole in its group.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <map>
#include <set>
#include <sys/stat.h>

using namespace talvortest;

namespace {

const FileOp CHANGING_OPS[] = {FileOp::PWrite, FileOp::FSync, FileOp::FDataSync, FileOp::Rename,
                               FileOp::SyncDirectory, FileOp::Unlink, FileOp::Open};

MF_REDOLOGFILEHEAD HeadOf(const std::string& s)
{
    MF_REDOLOGFILEHEAD h;
    memset(&h, 0, sizeof(h));
    if (s.size() >= sizeof(h)) memcpy(&h, s.data(), sizeof(h));
    return h;
}

// The nth subset of n changes: all dropped, all kept, then each one kept
// alone, then (for few changes) every other combination.
bool SubsetOf(size_t nChanges, int nSubset, std::vector<size_t>& vKeep)
{
    vKeep.clear();
    if (nSubset == 0) return true;
    if (nSubset == 1) {
        for (size_t i = 0; i < nChanges; i++) vKeep.push_back(i);
        return true;
    }
    if ((size_t)nSubset < 2 + nChanges) {
        vKeep.push_back((size_t)nSubset - 2);
        return true;
    }
    if (nChanges > 5) return false;
    size_t nMask = (size_t)nSubset - 2 - nChanges;
    if (nMask >= ((size_t)1 << nChanges)) return false;
    for (size_t i = 0; i < nChanges; i++)
        if (nMask & ((size_t)1 << i)) vKeep.push_back(i);
    return true;
}

class RedoPowerLoss : public RedoFixture {
protected:
    void SetUp() override
    {
        RedoFixture::SetUp();
        memcpy(&m_stTemplate, m_pHead, sizeof(m_stTemplate));
    }

    void StartOver(const std::string& strRun)
    {
        delete m_pRedo;
        m_pRedo = nullptr;
        free(m_pRing);
        m_pRing = nullptr;
        m_strDir = m_tree.Dir() + strRun + "/";
        ASSERT_EQ(0, mkdir(m_strDir.c_str(), 0755));
        memcpy(m_pHead, &m_stTemplate, sizeof(m_stTemplate));
        m_pHead->m_nTalvorArchiveType = 1;
        snprintf(m_pHead->m_lpArchiveDesPath, sizeof(m_pHead->m_lpArchiveDesPath), "%sA", m_strDir.c_str());
        m_bExit = FALSE;
        memset(&m_st, 0, sizeof(m_st));
        m_strStream.clear();
        m_vLogs.clear();
        MakeRing(8192);
    }

    // One record a log, three logs, the writer stopped (which seals the
    // last); the bodies kept in m_vLogs.
    void WriteThreeLogsAndStop()
    {
        for (int i = 0; i < 3; i++) {
            std::string s = Record(3000, 1, i + 1);
            ASSERT_EQ(3000, TraceRingWrite(m_pRing, m_nRingSize, s.data(), 3000));
            m_vLogs.push_back(s);
            m_pRedo->WritePass(m_st, &m_stCrit);
            m_pRedo->WritePass(m_st, &m_stCrit);
        }
        m_bExit = TRUE;
        for (int i = 0; i < 100 && !m_pRedo->WritePass(m_st, &m_stCrit); i++) {
        }
    }

    // Three logs of one record each, sealed (the last by the stop), none
    // archived; their bodies kept by number.
    void SealThreeLogs()
    {
        ASSERT_TRUE(InitRedo());
        m_pRedo->StartWriter(m_st);
        WriteThreeLogsAndStop();
        for (int g = 0; g < 3; g++) ASSERT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(g)->m_bState) << g;
    }

    void RunArchiver(CTalvorRedoLog* pRedo)
    {
        TalvorStoreShared(&pRedo->m_bArchiveExit, TRUE);
        pRedo->m_nArchiveStopLimitMs = 2000;
        // The sealed groups are there from the start: no wait for a seal.
        SetEvent(pRedo->m_hArchiveEvent);
        void* hFile = nullptr;
        void* hSrc = nullptr;
        pRedo->ArchiveFile(hFile, hSrc);
    }

    // Cuts the power before the nth changing call of op() (or right after its
    // last one), keeping the nSubset-th subset of the unsynced changes, and
    // copies the tree to strCopy; fnAtCut sees the live object at that
    // moment. FALSE when op() made fewer calls or the subset does not exist.
    bool CutAt(FaultFileIO& io, long long nCall, int nSubset, const std::string& strCopy, const std::function<void()>& op,
               const std::function<void()>& fnAtCut, bool& bNoSubset)
    {
        long long nSeen = 0;
        bool bCut = false;
        bNoSubset = false;
        auto fnCut = [&] {
            std::vector<size_t> vKeep;
            if (!SubsetOf(io.Unsynced().size(), nSubset, vKeep)) {
                bNoSubset = true;
                return;
            }
            bCut = true;
            fnAtCut();
            io.LosePowerKeeping(vKeep, NameLoss::Undo);
            std::string strCmd = "cp -a '" + m_strDir + "' '" + strCopy + "'";
            EXPECT_EQ(0, system(strCmd.c_str()));
        };
        FileHook fnHook = [&](const FileCall& call) {
            if (bCut || bNoSubset) return;
            if (call.m_eOp == FileOp::Open && (call.m_nFlags & O_CREAT) == 0) return;
            if (++nSeen == nCall) fnCut();
        };
        for (FileOp eOp : CHANGING_OPS) io.OnCall(eOp, fnHook);
        op();
        for (FileOp eOp : CHANGING_OPS) io.OnCall(eOp, nullptr);
        // One cut more: right after the last call.
        if (!bCut && !bNoSubset && nSeen == nCall - 1) fnCut();
        return bCut;
    }

    // A start on the copy, with a new ring (the machine went down).
    CTalvorRedoLog* StartOn(const std::string& strDir, LPSYSTEMFILEHEAD pHead, LPBYTE pRing, int nRingSize)
    {
        CTalvorRedoLog* pRedo = new CTalvorRedoLog();
        pRedo->SetRingSize(nRingSize);
        BOOL bOk = pRedo->Init(pHead, 0, &m_bExit, (char*)strDir.c_str(), (char*)pRing, nullptr, nullptr, FALSE, nullptr);
        EXPECT_TRUE(bOk);
        return pRedo;
    }

    // Log n's archive copy in the tree strDir: "" if whole, else what is wrong.
    std::string ArchiveProblem(const std::string& strDir, UINT nLog)
    {
        std::string strCopy = ReadWholeFile(strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log");
        if (strCopy.empty()) return "log " + std::to_string(nLog) + " missing; ";
        MF_REDOLOGFILEHEAD h = HeadOf(strCopy);
        if (h.m_nSequenceNO != nLog || h.m_bState != REDOGROUP_ARCHIVED || h.m_nEffectiveSize != strCopy.size() ||
            strCopy.substr(REDOLOGFILE_HEAD_SIZE) != m_vLogs[nLog - 1])
            return "log " + std::to_string(nLog) + " torn; ";
        return "";
    }

    SYSTEMFILEHEAD m_stTemplate;
    std::vector<std::string> m_vLogs;
};

} // namespace

TEST_F(RedoPowerLoss, CutAtAnyCallOfTheArchiverLeavesEveryLogCalledArchivedWhole)
{
    int nCuts = 0;
    std::vector<std::string> vFailed;
    for (long long nCall = 1;; nCall++) {
        bool bAny = false;
        for (int nSubset = 0;; nSubset++) {
            const std::string strRun = "c" + std::to_string(nCall) + "s" + std::to_string(nSubset);
            StartOver(strRun);
            FaultFileIO io;
            ScopedFileIO scoped(&io);
            SealThreeLogs();
            if (HasFatalFailure()) return;
            // What came before is on the disk.
            io.LosePowerKeeping(std::vector<size_t>([&] {
                std::vector<size_t> v;
                for (size_t i = 0; i < io.Unsynced().size(); i++) v.push_back(i);
                return v;
            }()), NameLoss::Keep);
            int nCalledArchived = 0;
            std::set<UINT> setArchived;
            const std::string strCopy = m_tree.Dir() + strRun + "-cut/";
            bool bNoSubset = false;
            bool bCut = CutAt(io, nCall, nSubset, strCopy, [&] { RunArchiver(m_pRedo); },
                              [&] {
                                  nCalledArchived = Ring()->m_nLogArchiveNo;
                                  // The machine is down: this archiver's
                                  // further work does not count.
                                  m_pRedo->m_nArchiveStopLimitMs = -1;
                                  for (int g = 0; g < 3; g++)
                                      if (m_pRedo->GetGroup(g)->m_bState == REDOGROUP_ARCHIVED)
                                          setArchived.insert((UINT)m_pRedo->GetGroup(g)->m_nSequenceNO);
                              },
                              bNoSubset);
            if (!bCut) break;
            bAny = true;
            nCuts++;
            std::string strError;
            for (int n = 1; n <= nCalledArchived; n++) strError += ArchiveProblem(strCopy, (UINT)n);
            for (UINT n : setArchived) strError += ArchiveProblem(strCopy, n);
            // The next start archives what is left, whole.
            SYSTEMFILEHEAD stHead;
            memcpy(&stHead, m_pHead, sizeof(stHead));
            snprintf(stHead.m_lpArchiveDesPath, sizeof(stHead.m_lpArchiveDesPath), "%sA", strCopy.c_str());
            std::vector<BYTE> vRing((size_t)m_nRingSize);
            TraceRingInitHead(vRing.data(), m_nRingSize, TRACEMEM_FILETYPE_REDO);
            {
                ScopedFileIO plain(nullptr);
                CTalvorRedoLog* pRedo = StartOn(strCopy, &stHead, vRing.data(), m_nRingSize);
                RunArchiver(pRedo);
                for (UINT n = 1; n <= 3; n++) strError += ArchiveProblem(strCopy, n);
                delete pRedo;
            }
            if (!strError.empty()) vFailed.push_back("cut before call " + std::to_string(nCall) + ", subset " +
                                                     std::to_string(nSubset) + ": " + strError);
        }
        if (!bAny) break;
    }
    printf("cuts: %d\n", nCuts);
    EXPECT_GT(nCuts, 20);
    std::string strFailed;
    for (size_t i = 0; i < vFailed.size() && i < 10; i++) strFailed += vFailed[i] + "\n";
    EXPECT_TRUE(vFailed.empty()) << vFailed.size() << " of " << nCuts << " cuts:\n" << strFailed;
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
        for (long long nCall = 1;; nCall++) {
            bool bAny = false;
            for (int nSubset = 0;; nSubset++) {
                const std::string strRun =
                    "f" + std::to_string(nForce) + "c" + std::to_string(nCall) + "s" + std::to_string(nSubset);
                StartOver(strRun);
                FaultFileIO io;
                ScopedFileIO scoped(&io);
                ASSERT_TRUE(InitRedo());
                m_pRedo->m_nForceFlushLog = nForce;
                io.LosePowerKeeping(std::vector<size_t>([&] {
                    std::vector<size_t> v;
                    for (size_t i = 0; i < io.Unsynced().size(); i++) v.push_back(i);
                    return v;
                }()), NameLoss::Keep);
                m_pRedo->StartWriter(m_st);
                std::string strLog;
                const std::string strCopy = m_tree.Dir() + strRun + "-cut/";
                bool bNoSubset = false;
                // Two stretches drained into one log, then the engine's seal.
                bool bCut = CutAt(io, nCall, nSubset, strCopy,
                                  [&] {
                                      for (int i = 0; i < 2; i++) {
                                          std::string s = Record(700 + 100 * i, 1, i + 1);
                                          TraceRingWrite(m_pRing, m_nRingSize, s.data(), (int)s.size());
                                          strLog += s;
                                          m_pRedo->WritePass(m_st, &m_stCrit);
                                      }
                                      Ring()->m_bFlushFlag = REDOFLUSH_SEAL;
                                      m_pRedo->WritePass(m_st, &m_stCrit);
                                  },
                                  [] {}, bNoSubset);
                if (!bCut) break;
                bAny = true;
                nCuts++;
                std::string strError;
                std::string strGroup = ReadWholeFile(strCopy + "Redo0.log");
                MF_REDOLOGFILEHEAD h = HeadOf(strGroup);
                if (nForce != 0 && h.m_bState == REDOGROUP_SEALED &&
                    (h.m_nEffectiveSize != 50 + strLog.size() || strGroup.substr(50, strLog.size()) != strLog))
                    strError += "sealed log torn on the disk; ";
                SYSTEMFILEHEAD stHead;
                memcpy(&stHead, m_pHead, sizeof(stHead));
                std::vector<BYTE> vRing((size_t)m_nRingSize);
                TraceRingInitHead(vRing.data(), m_nRingSize, TRACEMEM_FILETYPE_REDO);
                {
                    ScopedFileIO plain(nullptr);
                    CTalvorRedoLog* pRedo = StartOn(strCopy, &stHead, vRing.data(), m_nRingSize);
                    // Whatever the start keeps sealed is whole records of the stream.
                    LPTALVORREDOGROUP p = pRedo->GetGroup(0);
                    if (p->m_bState == REDOGROUP_SEALED) {
                        std::string strAfter = ReadWholeFile(strCopy + "Redo0.log");
                        std::string strBody = strAfter.substr(50, (size_t)p->m_nEffectiveSize - 50);
                        if (strBody != strLog.substr(0, strBody.size()) ||
                            (!strBody.empty() && strBody.size() != 700 && strBody.size() != strLog.size()))
                            strError += "log sealed after the start torn (" + std::to_string(strBody.size()) + " bytes); ";
                    }
                    delete pRedo;
                }
                if (!strError.empty())
                    vFailed.push_back("forceflushlog " + std::to_string(nForce) + ", cut before call " +
                                      std::to_string(nCall) + ", subset " + std::to_string(nSubset) + ": " + strError);
            }
            if (!bAny) break;
        }
    }
    EXPECT_GT(nCuts, 20);
    std::string strFailed;
    for (size_t i = 0; i < vFailed.size() && i < 10; i++) strFailed += vFailed[i] + "\n";
    EXPECT_TRUE(vFailed.empty()) << vFailed.size() << " of " << nCuts << " cuts:\n" << strFailed;
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
    ASSERT_EQ(REDOGROUP_SEALED, m_pRedo->GetGroup(0)->m_bState);
    ASSERT_EQ(50 + 1500, m_pRedo->GetGroup(0)->m_nEffectiveSize);
    delete m_pRedo;
    m_pRedo = nullptr;
    ASSERT_TRUE(WriteFileAt(m_strDir + "Redo0.log", 50 + 700, Record(800, 1, 5)));

    std::vector<BYTE> vRing((size_t)m_nRingSize);
    TraceRingInitHead(vRing.data(), m_nRingSize, TRACEMEM_FILETYPE_REDO);
    CTalvorRedoLog* pRedo = StartOn(m_strDir, m_pHead, vRing.data(), m_nRingSize);
    EXPECT_EQ(REDOGROUP_SEALED, pRedo->GetGroup(0)->m_bState);
    EXPECT_EQ(50 + 700, +pRedo->GetGroup(0)->m_nEffectiveSize);
    std::string strGroup = ReadWholeFile(m_strDir + "Redo0.log");
    MF_REDOLOGFILEHEAD h = HeadOf(strGroup);
    EXPECT_EQ(50u + 700u, +h.m_nEffectiveSize);
    EXPECT_TRUE(strGroup.substr(50, 700) == strOwn);
    delete pRedo;
}

namespace {

std::mutex g_mxLines;
std::vector<std::string> g_vLines;

void KeepLine(LPCTSTR szFunction, LONG nLevel, LONG nCode, LPCTSTR szText)
{
    std::lock_guard<std::mutex> lock(g_mxLines);
    g_vLines.push_back(std::to_string(nLevel) + " " + std::to_string(nCode) + " " + szFunction + " " + szText);
}

// A failure line: level 1, and the error of the failed call in it.
bool FailureTraced()
{
    std::lock_guard<std::mutex> lock(g_mxLines);
    for (const std::string& s : g_vLines)
        if (s.compare(0, 2, "1 ") == 0 && s.find("(5)") != std::string::npos) return true;
    return false;
}

const FileOp FAILING_OPS[] = {FileOp::Open, FileOp::PRead, FileOp::PWrite, FileOp::FSync,
                              FileOp::FDataSync, FileOp::Rename, FileOp::SyncDirectory};

const char* OpName(FileOp eOp)
{
    switch (eOp) {
    case FileOp::Open: return "open";
    case FileOp::PRead: return "pread";
    case FileOp::PWrite: return "pwrite";
    case FileOp::FSync: return "fsync";
    case FileOp::FDataSync: return "fdatasync";
    case FileOp::Rename: return "rename";
    case FileOp::SyncDirectory: return "directory sync";
    default: return "?";
    }
}

} // namespace

// Every call of a seal and of the archiving that follows fails in turn
// (EIO): the failure is traced with its error, nothing torn is left under a
// log's name or in a sealed head, and a start after it archives every log
// whole.
TEST_F(RedoPowerLoss, FailingCallOfASealOrAnArchiveIsTracedAndTearsNothing)
{
    LPTALVORTRACESINK pOld = TraceInstallSink(KeepLine);
    int nFailures = 0;
    std::vector<std::string> vFailed;
    for (FileOp eOp : FAILING_OPS) {
        for (long long n = 1;; n++) {
            const std::string strRun = std::string("f") + std::to_string((int)eOp) + "n" + std::to_string(n);
            StartOver(strRun);
            long long nCalls = 0;
            {
                FaultFileIO io;
                ScopedFileIO scoped(&io);
                ASSERT_TRUE(InitRedo());
                // Seals that sync, so that their syncs fail in turn too.
                m_pRedo->m_nForceFlushLog = 1;
                m_pRedo->StartWriter(m_st);
                const long long nBase = io.Calls(eOp);
                io.FailCall(eOp, nBase + n, EIO);
                {
                    std::lock_guard<std::mutex> lock(g_mxLines);
                    g_vLines.clear();
                }
                // Three logs, the last sealed by the stop, then the archiver.
                WriteThreeLogsAndStop();
                RunArchiver(m_pRedo);
                nCalls = io.Calls(eOp) - nBase;
                delete m_pRedo;
                m_pRedo = nullptr;
            }
            if (nCalls < n) break;
            nFailures++;
            const std::string strCase = std::string(OpName(eOp)) + " " + std::to_string(n) + ": ";
            if (!FailureTraced()) vFailed.push_back(strCase + "not traced with its error");
            // Nothing torn under a log's name.
            std::string strError;
            for (UINT nLog = 1; nLog <= 3; nLog++) {
                std::string strPath = m_strDir + "A/ArchiveLog/Log" + std::to_string(nLog) + ".log";
                if (PathExists(strPath)) strError += ArchiveProblem(m_strDir, nLog);
            }
            // The next start archives every log, whole.
            m_bExit = FALSE;
            std::vector<BYTE> vRing((size_t)m_nRingSize);
            TraceRingInitHead(vRing.data(), m_nRingSize, TRACEMEM_FILETYPE_REDO);
            CTalvorRedoLog* pRedo = StartOn(m_strDir, m_pHead, vRing.data(), m_nRingSize);
            RunArchiver(pRedo);
            delete pRedo;
            for (UINT nLog = 1; nLog <= 3; nLog++) strError += ArchiveProblem(m_strDir, nLog);
            if (!strError.empty()) {
                std::lock_guard<std::mutex> lock(g_mxLines);
                for (const std::string& strLine : g_vLines) strError += "\n    " + strLine;
                vFailed.push_back(strCase + strError);
            }
        }
    }
    TraceInstallSink(pOld);
    printf("failed calls: %d\n", nFailures);
    EXPECT_GT(nFailures, 30);
    std::string strFailed;
    for (size_t i = 0; i < vFailed.size() && i < 10; i++) strFailed += vFailed[i] + "\n";
    EXPECT_TRUE(vFailed.empty()) << vFailed.size() << " of " << nFailures << " failures:\n" << strFailed;
}
