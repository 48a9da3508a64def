// End-to-end: the engine stand-in keeps changing rows of every file type
// while the passes it asks for run, keeping old row versions in the daemon's
// rollback area, its tables spread over several objects and map blocks; it
// answers some head requests "nothing to save", holds the daemon off now
// and then, and asks it to resize a file (a command it refuses).
// After every pass that commits, the data files on disk hold each row
// exactly as it was at the committed timestamp (rows changed later show
// their older value, rows born later are absent), and every index row holds
// its committed change or a later one. Bounded in time.
#include "DatabaseLoadKit.h"

using namespace talvortest;

namespace {

const int RUN_SECONDS = 15;

} // namespace

TEST(FlashbackConsistency, EveryCommitOnDiskIsTheImageAsOfItsTimestamp)
{
    DaemonSandbox box;
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--data-file", "8", "--btree-file", "4", "--kv-file", "4"}));
    // Passes only when the stand-in asks, so that none runs while it reads
    // the disk.
    WriteDbIni(box, box.DataDir(), "persistenceintervals=300\r\nundoareasize=8\r\n");
    std::string strJournal = box.Root() + "/journal";
    std::string strSystem = box.DataDir() + "System.dbf";
    const long long nSystemSize = (long long)ReadWholeFile(strSystem).size();

    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    std::string strOut;
    int rc = Peer(box, {"data", "--journal", strJournal, "--live", "--check-exact", strSystem, "--count", "100000000",
                        "--seconds", std::to_string(RUN_SECONDS), "--pause-us", "200", "--pass-every", "40", "--blocks",
                        "8", "--slots", "24", "--objects", "3", "--map-blocks", "3", "--nothing-to-save", "25",
                        "--forbid-every-ms", "2500", "--forbid-ms", "400", "--file-command-every", "1500"},
                  &strOut, (RUN_SECONDS + 60) * 1000);
    EXPECT_EQ(0, rc) << strOut << box.ReadDaemonTrace();
    EXPECT_EQ(0, NumberAfter(strOut, "violations ")) << strOut;
    // The check ran often, rows changed while passes ran, and commits left
    // rows behind the image: what was checked is the rollback.
    EXPECT_GE(NumberAfter(strOut, "exact checks "), 5) << strOut;
    EXPECT_GT(NumberAfter(strOut, "changes during passes "), 0) << strOut;
    EXPECT_GT(NumberAfter(strOut, "rows behind the image "), 0) << strOut;
    EXPECT_GT(NumberAfter(strOut, "file commands asked "), 0) << strOut;
    EXPECT_EQ(NumberAfter(strOut, "file commands asked "), NumberAfter(strOut, ", done ")) << strOut;
    long long nLast = NumberAfter(strOut, "last timestamp ");
    ASSERT_GT(nLast, 0) << strOut;

    // The stop's last pass leaves every row at its newest value.
    EXPECT_TRUE(StopDaemon(box, pid));
    std::string strVerify = VerifyJournal(box, strJournal, strSystem, nLast, true);
    EXPECT_NE(std::string::npos, strVerify.find("exact: rows checked")) << strVerify;
    EXPECT_EQ(0, NumberAfter(strVerify, "behind the newest ")) << strVerify;
    // The file list on disk carries no request and the sizes the maker gave.
    std::string strList = ReadWholeFile(strSystem);
    int nRows = 0;
    EXPECT_EQ(DBCHAIN_OK, DbForEachFileListRow((LPBYTE)&strList[0], (long long)strList.size(),
                                               [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
                                                   nRows++;
                                                   EXPECT_EQ(FILECMD_NONE, Val(lpRow->m_bFileCMD)) << nRows;
                                                   if (lpRow->m_bFileNo < 2) return true;
                                                   EXPECT_EQ(lpRow->m_bFileNo <= 3 ? 8 * DB_MIB : 4 * DB_MIB,
                                                             Val(lpRow->m_nFileSize))
                                                       << (int)lpRow->m_bFileNo;
                                                   return true;
                                               }));
    EXPECT_EQ(5, nRows);
    // Each file command grew the system file by 4 MiB from where the file
    // ended, never from a stale size.
    EXPECT_EQ(nSystemSize + NumberAfter(strOut, ", done ") * 4 * DB_MIB, (long long)strList.size());
}
