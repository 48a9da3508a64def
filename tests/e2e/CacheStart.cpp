// End-to-end: a database with cache-mode files starts with the shared cache
// (its head and the pages each file hangs in it are checked at unit level):
// the files grow to their reserve (a kernel that will not give a segment is
// refused like the rollback area's in StartRefusals), the images and the
// cache that outlived a killed daemon are kept by a start that fails (the cache's take-over is
// checked at unit level and after a kill in the cache crash test), and a
// normal end leaves no cache.
#include "DatabaseLoadKit.h"
#include "MemDBCacheDef.h"

using namespace talvortest;

namespace {

const int CACHE_MIB = 64;
const long long PAGE = 16384;

// The first nBytes of the daemon's cache; empty when there is none.
std::string DumpCache(DaemonSandbox& box, long long nBytes)
{
    std::string strOut = box.Root() + "/cache.bin";
    unlink(strOut.c_str());
    if (box.Run({MkdbPath(), "--dump-cache", strOut, std::to_string(nBytes)}, 30000) != 0) return std::string();
    std::string strData = ReadWholeFile(strOut);
    unlink(strOut.c_str());
    return strData;
}

const long long GROWN = 4 * E2E_MIB + 2 * 64 * E2E_MIB;

// The file has grown to its reserve, and its head on disk, written after
// the zeros, says so.
bool GrownOnDisk(const std::string& strPath)
{
    return FileSizeOf(strPath) == GROWN && Val(RecordOnDisk<TABLEFILEHEAD>(strPath).m_nFileTotalSize) == GROWN;
}

} // namespace

// Images and a cache that outlived a killed daemon may hold the engine's
// work that never reached the disk: a start that fails after taking them
// over leaves them for the next start.
TEST(CacheStart, FilesGrowAndAFailedStartKeepsTheImagesAndTheCacheAKilledDaemonLeft)
{
    DaemonSandbox box;
    pid_t pid = StartDb(box, {"--data-file", "8", "--btree-file", "4", "--kv-file", "4", "--table-file", "4",
                              "--index-file", "4"}, "", CACHE_MIB);
    ASSERT_GT(pid, 0);
    // A file with no more than 128 MiB unused grows by 64 MiB at a time in
    // the flush threads' idle moments, its head on disk following.
    for (const char* lpName : {"Table5.dbf", "Index6.dbf"})
        ASSERT_TRUE(WaitUntil([&] { return GrownOnDisk(box.DataDir() + lpName); }, 60000, 20)) << lpName;
    box.Signal(pid, SIGKILL);
    ASSERT_NE(-1, box.WaitExit(pid, 10000));
    std::string strKeep4 = DumpImage(box, 4);
    ASSERT_FALSE(strKeep4.empty());

    // File 2 is loaded last; without its image and with a damaged head on
    // disk, the start fails after the cache and files 4 and 3 were taken over.
    ASSERT_EQ(0, box.Run({"ipcrm", "-M", std::to_string(0x514E4602)}, 10000));
    const std::string strWhole = ReadWholeFile(box.DataDir() + "Data2.dbf");
    ASSERT_GT(strWhole.size(), 64u);
    std::string strData = strWhole;
    memset(&strData[0], 0, 16);
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "Data2.dbf", strData));
    std::string strBefore = DumpCache(box, 4 * E2E_MIB);
    ASSERT_EQ((size_t)(4 * E2E_MIB), strBefore.size()) << "the killed daemon left no cache";
    EXPECT_EQ(0, box.RunDaemon());
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(1u, CountOf(strTrace, "Talvor storage service started!")) << "the second start failed\n" << strTrace;
    Inspection st = Inspect(box, box.DataDir());
    EXPECT_TRUE(st.m_bSystemImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[3].m_bImage) << st.m_strText;
    EXPECT_TRUE(st.m_mapFiles[4].m_bImage) << st.m_strText;
    EXPECT_TRUE(strKeep4 == DumpImage(box, 4)) << "the kept image is the one the killed daemon left";
    std::string strKept = DumpCache(box, 4 * E2E_MIB);
    ASSERT_EQ(strBefore.size(), strKept.size()) << "the cache is still there";
    EXPECT_TRUE(strBefore.substr(0, (size_t)(2 * PAGE)) == strKept.substr(0, (size_t)(2 * PAGE)));

    // With its head whole again the next start serves, and a normal end
    // leaves no cache.
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "Data2.dbf", strWhole));
    pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    EXPECT_TRUE(StopDaemon(box, pid));
    EXPECT_TRUE(DumpCache(box, PAGE).empty()) << "a normal end leaves no cache";
}
