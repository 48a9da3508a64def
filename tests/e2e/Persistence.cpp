// End-to-end: the daemon with the engine stand-in committing changes. Every
// change up to the committed timestamp is on disk while the daemon runs and
// after it stops; the stop's last pass commits the last change; a lost
// engine is marked and saving goes on from the image.
#include "DatabaseLoadKit.h"

#include <csignal>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

class Persistence : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(MkdbBuilt());
        ASSERT_TRUE(m_box.Ok());
        ASSERT_EQ(0, MakeDb(m_box, m_box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
        WriteDbIni(m_box, m_box.DataDir(), "persistenceintervals=1\r\n");
        m_strJournal = m_box.Root() + "/journal";
    }
    int Verify(std::string* pOut, long long nAtLeast = 0)
    {
        return m_box.Run({PeerPath(), "verify", "--journal", m_strJournal, "--system", m_box.DataDir() + "System.dbf",
                          "--at-least", std::to_string(nAtLeast)},
                         60000, pOut);
    }
    DaemonSandbox m_box;
    std::string m_strJournal;
};

} // namespace

TEST_F(Persistence, LiveEngineCommitsReachTheDiskAndTheStopCommitsTheLast)
{
    pid_t pid = m_box.StartServing();
    ASSERT_GT(pid, 0) << m_box.ReadDaemonTrace();
    std::string strOut;
    ASSERT_EQ(0, m_box.Run({PeerPath(), "data", "--journal", m_strJournal, "--live", "--count", "600", "--pause-us",
                            "1500", "--pass-every", "150", "--seed", "3"},
                           120000, &strOut))
        << strOut;
    long long nLast = NumberAfter(strOut, "last timestamp ");
    ASSERT_GT(nLast, 600);
    EXPECT_EQ(std::string::npos, strOut.find("channel answers 0")) << strOut;
    // While the daemon runs: what is committed is on disk.
    std::string strVerify;
    EXPECT_EQ(0, Verify(&strVerify)) << strVerify;
    m_box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, m_box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    EXPECT_EQ(0, Verify(&strVerify, nLast)) << strVerify << m_box.ReadDaemonTrace();
    EXPECT_NE(std::string::npos, strVerify.find("violations: 0")) << strVerify;
    EXPECT_EQ(std::string::npos, m_box.ReadDaemonTrace().find("50002001"));
}

TEST_F(Persistence, KilledEngineIsDeclaredLostAndSavingGoesOn)
{
    pid_t pid = m_box.StartServing();
    ASSERT_GT(pid, 0) << m_box.ReadDaemonTrace();
    pid_t peer = m_box.Spawn({PeerPath(), "data", "--journal", m_strJournal, "--live", "--count", "100000",
                              "--pause-us", "1000", "--seconds", "60"},
                             "peer");
    ASSERT_GT(peer, 0);
    usleep(1500000);
    m_box.Signal(peer, SIGKILL);
    m_box.WaitExit(peer, 10000);
    // m_bService stays 1; the next pass asks, waits 10 s, and goes on.
    ASSERT_TRUE(m_box.WaitForTrace("50002001", 30000)) << m_box.ReadDaemonTrace();
    m_box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, m_box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    std::string strVerify;
    EXPECT_EQ(0, Verify(&strVerify)) << strVerify;
    // Everything the killed engine committed was saved from the image.
    std::string strJournal = ReadWholeFile(m_strJournal);
    size_t nLines = 0;
    for (char c : strJournal) nLines += c == '\n';
    EXPECT_GT(nLines, 100u);
    EXPECT_NE(std::string::npos, strVerify.find("violations: 0")) << strVerify;
}
