// End-to-end: the daemon is killed (SIGKILL) at random moments while the
// engine stand-in commits, many times over, bounded in count and time.
// After each kill the files on disk are checked against the stand-in's
// journal: the committed timestamp must never cover a change that is not on
// disk. At the end the segments are removed and the daemon starts from the
// disk alone, and the check holds again.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <gtest/gtest.h>
#include <random>

using namespace talvortest;

namespace {

const int MAX_KILLS = 15;
const int MAX_SECONDS = 60;

} // namespace

TEST(KillRestart, CommittedTimestampNeverCoversAChangeMissingFromDisk)
{
    ASSERT_TRUE(MkdbBuilt());
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
    WriteDbIni(box, box.DataDir(), "persistenceintervals=1\r\n");
    std::string strJournal = box.Root() + "/journal";
    auto Verify = [&](std::string* pOut) {
        return box.Run({PeerPath(), "verify", "--journal", strJournal, "--system", box.DataDir() + "System.dbf"}, 60000,
                       pOut);
    };

    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    pid_t peer = box.Spawn({PeerPath(), "data", "--journal", strJournal, "--live", "--count", "100000000",
                            "--pause-us", "500", "--seconds", std::to_string(MAX_SECONDS + 30), "--pass-every", "400"},
                           "peer");
    ASSERT_GT(peer, 0);

    std::mt19937 rng((unsigned)time(nullptr));
    long long nStart = NowMs();
    int nKills = 0;
    long long nViolations = 0, nLastCommitted = -1, nAdvances = 0;
    std::string strFirstBad;
    while (nKills < MAX_KILLS &&
           NowMs() - nStart < MAX_SECONDS * 1000LL) {
        if (nKills > 0) {
            pid = box.StartDaemon();
            ASSERT_GT(pid, 0);
        }
        usleep(300000 + rng() % 2700000);
        box.Signal(pid, SIGKILL);
        box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS);
        nKills++;
        std::string strOut;
        int rc = Verify(&strOut);
        long long nBad = NumberAfter(strOut, "violations: ");
        long long nCommitted = NumberAfter(strOut, "committed timestamp on disk: ");
        if (nCommitted > nLastCommitted) nAdvances++;
        nLastCommitted = nCommitted;
        if (rc != 0 || nBad != 0) {
            nViolations += nBad > 0 ? nBad : 1;
            if (strFirstBad.empty()) strFirstBad = strOut;
        }
    }
    box.Signal(peer, SIGKILL);
    box.WaitExit(peer, 10000);
    printf("kills: %d, violations: %lld, commits seen advancing: %lld, last committed timestamp: %lld\n", nKills,
           nViolations, nAdvances, nLastCommitted);
    EXPECT_EQ(0, nViolations) << strFirstBad;
    EXPECT_GE(nKills, 5);
    EXPECT_GE(nAdvances, 2);

    // A start from the disk alone: the segments go, the daemon loads.
    ASSERT_EQ(0, box.Run({"ipcrm", "--all=shm"}, 10000));
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    std::string strOut;
    EXPECT_EQ(0, Verify(&strOut)) << strOut;
    EXPECT_EQ(nLastCommitted, NumberAfter(strOut, "committed timestamp on disk: ")) << strOut;
}
