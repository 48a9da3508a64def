// End-to-end: a start the daemon must refuse, as a new user meets it (no
// database, a rollback area it cannot have) or on a damaged database, exits
// with 0, changes no database file and leaves the line that names the cause
// in the trace log, every time, also where the process ends with its threads
// running (a wrong head mark of each file type is refused by its own message
// at unit level); the stop waits for a running engine, for as long as it
// runs or until it is found lost, and its last pass commits the engine's
// last change.
#include "DatabaseLoadKit.h"

#include <functional>
#include <thread>

using namespace talvortest;

namespace {

const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf", "BTree3.dbf", "KV4.dbf"};

void MakeSmallDb(DaemonSandbox& box)
{
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
}

// A set-up that changes the bytes of one file of the database.
std::function<void(DaemonSandbox&)> Damage(const char* lpFile, const std::function<void(std::string&)>& fnPatch)
{
    return [=](DaemonSandbox& box) {
        std::string strFile = ReadWholeFile(box.DataDir() + lpFile);
        fnPatch(strFile);
        ASSERT_TRUE(WriteWholeFile(box.DataDir() + lpFile, strFile));
    };
}

std::string InDir(std::string strLine, const std::string& strDir)
{
    size_t n = strLine.find('@');
    return n == std::string::npos ? strLine : strLine.replace(n, 1, strDir);
}

} // namespace

// Each refusal is told by its line (the database directory stands for "@")
// in every start, writes no byte of any database file and (refused before
// the images are made) leaves no image: a second start meets no semaphore
// or segment the first one left taken.
TEST(StartRefusals, EachRefusedStartExitsWithZeroAndIsToldEveryTime)
{
    const struct {
        const char* m_lpWhat;
        bool m_bDatabase;  // a database and an ini that would run it
        std::function<void(DaemonSandbox&)> m_fnSetUp;
        std::string m_strLine;
    } arCases[] = {
        {"no database", false, [](DaemonSandbox& box) { box.WriteDefaultIni(); },
         "   40001001 Initialize Failed to open file"},
        // Segments of up to 12 MiB: every image and ring fits, a 16 MiB undo
        // area does not, and the daemon ends with its threads running.
        {"rollback area", true,
         [](DaemonSandbox& box) {
             ASSERT_EQ(0, box.Run({"sh", "-c", "echo 12582912 > /proc/sys/kernel/shmmax"}, 10000));
         },
         "   50006010 InitRollback Open rollback memory file failed"},
        {"file shorter than its row", true,
         Damage("Data2.dbf", [](std::string& s) { s.resize((size_t)(4 * E2E_MIB)); }),
         "40001017 Initialize The file is shorter than its head says, path: @Data2.dbf, file size: 4194304, size in "
         "the head: 8388608"},
        {"a known file type no pass saves", true,
         Damage("System.dbf",
                [](std::string& s) {
                    LPFILE_MEMDBFILEINFO lpRow = DbFindFileListRow((LPBYTE)&s[0], (long long)s.size(), 3);
                    ASSERT_NE(nullptr, lpRow);
                    lpRow->m_bFileType = 5;
                }),
         "   10040003 LoadFile The database has a file of a type this service cannot save, so the start was "
         "refused, file number: 3, file type: 5, path: @BTree3.dbf"},
    };
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        if (c.m_bDatabase) {
            MakeSmallDb(box);
            WriteDbIni(box, box.DataDir());
        }
        ASSERT_NO_FATAL_FAILURE(c.m_fnSetUp(box));
        std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), DB_FILES);
        for (int i = 0; i < 2; i++) EXPECT_EQ(0, box.RunDaemon()) << "start " << i;
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
        EXPECT_EQ(2u, CountOf(strTrace, InDir(c.m_strLine, box.DataDir()))) << strTrace;
        EXPECT_TRUE(mapBefore == Snapshot(box.DataDir(), DB_FILES)) << "a refused start wrote to a file";
        // The rollback area is refused once the images are made.
        if (strcmp(c.m_lpWhat, "rollback area") == 0) continue;
        Inspection st = Inspect(box, box.DataDir());
        EXPECT_FALSE(st.m_bSystemImage) << st.m_strText;
        for (int n = 2; n <= 4; n++) EXPECT_FALSE(st.m_mapFiles[n].m_bImage) << n;
    }
}

TEST(StopWithEngine, TheStopWaitsForARunningEngineAndForOneFoundLost)
{
    for (bool bKill : {false, true}) {
        SCOPED_TRACE(bKill ? "engine killed" : "engine stops");
        DaemonSandbox box;
        ASSERT_TRUE(box.Ok());
        MakeSmallDb(box);
        WriteDbIni(box, box.DataDir());
        pid_t pid = box.StartServing();
        ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
        pid_t peer = box.Spawn({PeerPath(), "data", "--live", "--journal", box.Root() + "/journal", "--count", "4000",
                                "--pause-us", "1000", "--seconds", bKill ? "120" : "4"},
                               "peer");
        ASSERT_GT(peer, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // attached and running
        ASSERT_TRUE(box.IsRunning(peer));
        box.Signal(pid, SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_TRUE(box.IsRunning(pid)) << "the daemon stopped under a running engine";
        EXPECT_EQ(std::string::npos, box.ReadDaemonTrace().find("Talvor storage service closed!"));
        long long nLast = 0;
        if (bKill) {
            box.Signal(peer, SIGKILL);  // dies in the middle: m_bService stays 1
        } else {
            EXPECT_EQ(0, box.WaitExit(peer, 30000));
            std::string strPeerOut = ReadWholeFile(box.Root() + "/peer.out");
            nLast = NumberAfter(strPeerOut, "last timestamp ");
            EXPECT_GT(nLast, 0) << strPeerOut;
            EXPECT_EQ(std::string::npos, strPeerOut.find("channel answers 0")) << strPeerOut;
        }
        EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
        std::string strTrace = box.ReadDaemonTrace();
        EXPECT_NE(std::string::npos, strTrace.find("Talvor storage service closed!")) << strTrace;
        EXPECT_EQ(std::string::npos, strTrace.find("did not end within")) << strTrace;
        // A running engine is never declared lost.
        if (!bKill) {
            EXPECT_EQ(std::string::npos, strTrace.find("50002001")) << strTrace;
        }
        // What the engine committed is on the disk, up to its last change
        // when it ended before the stop's last pass.
        VerifyJournal(box, box.Root() + "/journal", box.DataDir() + "System.dbf", nLast);
    }
}
