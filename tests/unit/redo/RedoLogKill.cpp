// Unit: the writer killed before and after every write to a group file, a
// new one started on what the kill left (ring and head in shared memory, the
// group files): the logs joined in number order must be the engine's stream,
// byte for byte, with no gap, no record lost and none twice.
#include "FaultFileIO.h"
#include "RedoLogFixture.h"

#include <csignal>
#include <map>
#include <sys/wait.h>

using namespace talvortest;

namespace {

const int CHILD_DONE = 3; // the child ran to its end without being killed

enum class KillAt { BeforeWrite, AfterWrite, InsideConsume };

// The kill inside the writer's hand-over of a piece: the nth time it passes
// the chosen point between the stores of the ring's fields.
int g_nKillPoint = 0;
long long g_nKillAt = 0;
long long g_nPointsSeen = 0;

void KillAtPoint(int nPoint)
{
    if (nPoint == g_nKillPoint && ++g_nPointsSeen == g_nKillAt) kill(getpid(), SIGKILL);
}

class RedoKill : public RedoFixture {
protected:
    // Every run starts over: fresh group files, ring and head.
    void StartOver(const std::string& strRun)
    {
        RedoFixture::StartOver(strRun, 4096);
        ASSERT_EQ(0, mkdir((m_strDir + "collected").c_str(), 0755));
    }

    // Each log's body in a file of its own (the kit's plain I/O, so that no
    // kill lands in it).
    void Keep(UINT nLogNo, const std::string& strBody) override
    {
        ASSERT_TRUE(WriteWholeFile(m_strDir + "collected/" + std::to_string(nLogNo), strBody));
    }

    // The engine's work from where the shared count stands: the ring filled,
    // the writer drained, now and then a pass with the ring not yet full.
    void ProduceFrom(const std::string& strStream, const std::vector<size_t>& vBoundaries)
    {
        size_t nRecord = 0;
        while (nRecord < vBoundaries.size() && vBoundaries[nRecord] <= (size_t)m_pShared->m_nProduced) nRecord++;
        for (int nStall = 0; (size_t)m_pShared->m_nProduced < strStream.size();) {
            size_t nDone = (size_t)m_pShared->m_nProduced;
            int n = TraceRingWrite(m_pRing, m_nRingSize, strStream.data() + nDone, (int)(strStream.size() - nDone));
            m_pShared->m_nProduced += n;
            nStall = n == 0 ? (Pass(), nStall + 1) : 0;
            // The writer gave up on the ring: the engine would reset it, and
            // what it held is lost.
            if (nStall >= 1000) return (void)(m_bStalled = true);
            for (; nRecord < vBoundaries.size() && vBoundaries[nRecord] <= (size_t)m_pShared->m_nProduced; nRecord++)
                if (nRecord % 3 == 0) Pass();
        }
    }

    // The collected logs in number order; "" and a message on a gap.
    std::string Joined(std::string& strError)
    {
        std::map<UINT, std::string> mapLogs;
        for (const std::string& strPath : ListFiles(m_strDir + "collected/"))
            mapLogs[(UINT)atoi(strPath.c_str() + strPath.rfind('/') + 1)] = ReadWholeFile(strPath);
        // Numbered 1 to n, no gap.
        if (!mapLogs.empty() && (mapLogs.begin()->first != 1 || mapLogs.rbegin()->first != mapLogs.size()))
            strError += "a gap in the log numbers; ";
        std::string strAll;
        for (const auto& kv : mapLogs) strAll += kv.second;
        return strAll;
    }

    // A stream that wraps the small ring and the groups many times: records
    // larger than a quarter of the ring (drained in two or more pieces),
    // larger than the whole ring, records without timestamp (a stale one
    // looks like a fresh one), types with and without trailer.
    void MakeStream(std::string& strStream, std::vector<size_t>& vBoundaries)
    {
        const int arSizes[] = {24, 300, 1500, 28, 700, 2600, 5000, 90, 1100, 40, 3300, 200};
        long long nTs = 0;
        for (int i = 0; i < 48; i++) {
            strStream += Record(arSizes[i % 12] + (i % 5) * 4, (BYTE)(i % 7 == 3 ? 12 : 1 + i % 3), i % 4 == 1 ? 0 : ++nTs);
            vBoundaries.push_back(strStream.size());
        }
    }

    // One run: a child process writes the stream and is killed at the
    // nth write to a group file; the parent starts a new writer on what is
    // left and finishes. FALSE once n is past the last write.
    bool RunKilledAt(long long nWrite, KillAt eAt, const std::string& strStream, const std::vector<size_t>& vBoundaries,
                     int nPoint = 0)
    {
        pid_t pid = fork();
        if (pid == 0) {
            if (eAt == KillAt::InsideConsume) g_nKillPoint = nPoint, g_nKillAt = nWrite, g_pRedoTestPoint = KillAtPoint;
            FaultFileIO io;
            ScopedFileIO scoped(&io);
            long long nSeen = 0;
            FileHook fnKill = [&](const FileCall& call) {
                if (call.m_strPath.find("/Redo") == std::string::npos) return;
                if (++nSeen == nWrite) kill(getpid(), SIGKILL);
            };
            if (eAt == KillAt::BeforeWrite) io.OnCall(FileOp::PWrite, fnKill);
            if (eAt == KillAt::AfterWrite) io.AfterCall(FileOp::PWrite, fnKill);
            _exit(Live(strStream, vBoundaries) ? CHILD_DONE : 1);
        }
        int nStatus = 0;
        EXPECT_EQ(pid, waitpid(pid, &nStatus, 0));
        // Ran to its end: n is past the last write.
        EXPECT_TRUE(WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) == CHILD_DONE : WTERMSIG(nStatus) == SIGKILL) << nStatus;
        if (WIFEXITED(nStatus)) return false;
        // The next process on the same files, ring and head.
        delete m_pRedo;
        EXPECT_TRUE(Live(strStream, vBoundaries));
        return true;
    }

    // A writer process's life: a start on what is there, the rest of the
    // stream, a stop.
    bool Live(const std::string& strStream, const std::vector<size_t>& vBoundaries)
    {
        if (!InitRedo()) return false;
        m_pRedo->StartWriter(m_st);
        ProduceFrom(strStream, vBoundaries);
        Stop();
        return true;
    }

    struct KillCase { KillAt m_eAt; int m_nPoint; const char* m_szName; };

    // Kills at each case's nth moment for every n the stream reaches; each
    // joined stream must be the engine's, byte for byte.
    void RunKillCases(const std::vector<KillCase>& vCases)
    {
        std::string strStream;
        std::vector<size_t> vBoundaries;
        MakeStream(strStream, vBoundaries);
        int nRuns = 0;
        std::vector<std::string> vFailed;
        for (const KillCase& kc : vCases) {
            for (long long n = 1;; n++) {
                StartOver(std::to_string((int)kc.m_eAt) + "-" + std::to_string(kc.m_nPoint) + "-" + std::to_string(n));
                if (HasFatalFailure()) return;
                m_bStalled = false;
                if (!RunKilledAt(n, kc.m_eAt, strStream, vBoundaries, kc.m_nPoint)) break;
                nRuns++;
                std::string strError = m_bStalled ? "the writer stopped draining the ring; " : "";
                std::string strLogs = Joined(strError);
                if (strLogs != strStream)
                    strError += std::to_string(strLogs.size()) + " bytes logged, not the stream's " +
                                std::to_string(strStream.size()) + "; ";
                if (!strError.empty())
                    vFailed.push_back(std::string(kc.m_szName) + " " + std::to_string(n) + ": " + strError);
            }
        }
        EXPECT_GT(nRuns, 100) << "the stream must take many writes";
        ExpectNoFailures(vFailed, nRuns);
    }

    bool m_bStalled = false;
};

} // namespace

TEST_F(RedoKill, KilledBeforeOrAfterAnyWriteLosesNoRecordAndRevivesNone)
{
    RunKillCases({{KillAt::BeforeWrite, 0, "before write"}, {KillAt::AfterWrite, 0, "after write"}});
}

// Between the stores that hand a drained piece back to the engine: the
// file's size stored and the read position not yet is the moment that used
// to drain the piece a second time (a record's middle twice).
TEST_F(RedoKill, KilledWhileHandingBackAPieceDrainsItOnce)
{
    RunKillCases({{KillAt::InsideConsume, REDOPOINT_PENDING, "read position announced"},
                  {KillAt::InsideConsume, REDOPOINT_LOGPOS, "file size stored"},
                  {KillAt::InsideConsume, REDOPOINT_READPOS, "read position stored"}});
}
