// End-to-end: a database with cache-mode files starts with the shared cache.
// The files' head pages and first map blocks hang in the cache as they stand
// on disk, the files grow to their reserve, a kernel that will not give the
// segment refuses the start by name, and a cache that outlived a killed
// daemon is kept by a start that fails (its take-over is checked at unit
// level and after a kill in the cache crash test).
#include "DatabaseLoadKit.h"
#include "MemDBCacheDef.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>

using namespace talvortest;

namespace {

const int CACHE_MIB = 64;
const long long PAGE = 16384;
const std::vector<std::string> DB_FILES = {"System.dbf", "Data2.dbf", "Table3.dbf", "Index4.dbf"};

void MakeCacheDb(DaemonSandbox& box)
{
    ASSERT_EQ(0, MakeDb(box, box.DataDir(), {"--data-file", "8", "--table-file", "4", "--index-file", "4"}));
    WriteDbIni(box, box.DataDir(), "", CACHE_MIB);
}

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

// strPage with the 8 bytes at nOffset cleared: the cache-only link of a page.
std::string WithoutLink(std::string strPage, size_t nOffset)
{
    memset(&strPage[nOffset], 0, sizeof(long long));
    return strPage;
}

// Checks that file nFileNo's head page, its extended head pages and its
// first map block stand in the cache as on disk, apart from the links that
// only the cache has, chained in file order.
void ExpectFileInCache(const std::string& strCache, const std::string& strFile, int nFileNo, int nMark, int nExMark)
{
    const CacheBufferHead* h = (const CacheBufferHead*)strCache.data();
    long long llHead = (long long)Val(h->m_nFileInfoNo[nFileNo]) * PAGE;
    ASSERT_GT(llHead, 0) << "file " << nFileNo << " has no head page in the cache";
    ASSERT_LE(llHead + PAGE, (long long)strCache.size());
    const TABLEFILEHEAD* lpHead = (const TABLEFILEHEAD*)(strCache.data() + llHead);
    EXPECT_EQ(nMark, Val(lpHead->m_nDataFlag));
    EXPECT_EQ(nFileNo, (int)Val(lpHead->m_bFileNo));
    // The size and the stamp in the head follow the file as it grows.
    std::string strCachedHead(strCache.data() + llHead, (size_t)PAGE);
    std::string strDiskHead = strFile.substr(0, (size_t)PAGE);
    for (size_t nField : {offsetof(TABLEFILEHEAD, m_nFileTotalSize), offsetof(TABLEFILEHEAD, m_nTimestamp)}) {
        memset(&strCachedHead[nField], 0, 8);
        memset(&strDiskHead[nField], 0, 8);
    }
    const size_t nLink = offsetof(TABLEFILEHEAD, m_nCacheStartOffset);
    EXPECT_TRUE(WithoutLink(strCachedHead, nLink) == WithoutLink(strDiskHead, nLink)) << "head of file " << nFileNo;

    long long llPage = Val(lpHead->m_nCacheStartOffset);
    long long llOnDisk = Val(lpHead->m_nNextFileHeadOffset);
    const size_t nExLink = offsetof(TABLEFILEHEADEX, m_nNextFileHeadCacheOffset);
    for (int nEx = 1; llOnDisk != 0; nEx++) {
        ASSERT_LE(nEx, 16) << "the extended heads of file " << nFileNo << " loop";
        ASSERT_GE(llPage, 2 * PAGE);
        ASSERT_LE(llPage + PAGE, (long long)strCache.size());
        ASSERT_LE(llOnDisk + PAGE, (long long)strFile.size());
        const TABLEFILEHEADEX* lpEx = (const TABLEFILEHEADEX*)(strCache.data() + llPage);
        EXPECT_EQ(nExMark, Val(lpEx->m_nDataFlag));
        EXPECT_TRUE(WithoutLink(std::string(strCache.data() + llPage, (size_t)PAGE), nExLink) ==
                    WithoutLink(strFile.substr((size_t)llOnDisk, (size_t)PAGE), nExLink))
            << "extended head " << nEx << " of file " << nFileNo;
        llOnDisk = Val(lpEx->m_nNextFileHeadOffset);
        llPage = Val(lpEx->m_nNextFileHeadCacheOffset);
    }
    ASSERT_GE(llPage, 2 * PAGE);
    ASSERT_EQ(0, llPage % PAGE);
    ASSERT_LE(llPage + PAGE, (long long)strCache.size());
    const BASEFILEBLOCKMAPHEAD_CACHE* lpMap = (const BASEFILEBLOCKMAPHEAD_CACHE*)(strCache.data() + llPage);
    EXPECT_EQ(0x4D444E51, Val(lpMap->m_nDataFlag));
    EXPECT_EQ(1, Val(lpMap->m_nMapNo));
    long long llMapOnDisk = Val(lpHead->m_nBlockMapStartOffset);
    ASSERT_LE(llMapOnDisk + PAGE, (long long)strFile.size());
    const size_t nMapLink = offsetof(BASEFILEBLOCKMAPHEAD_CACHE, m_nNextBlockMapOffset_Cache);
    EXPECT_TRUE(WithoutLink(std::string(strCache.data() + llPage, (size_t)PAGE), nMapLink) ==
                WithoutLink(strFile.substr((size_t)llMapOnDisk, (size_t)PAGE), nMapLink))
        << "first map block of file " << nFileNo;
}

const long long GROWN = 4 * E2E_MIB + 2 * 64 * E2E_MIB;

// The file has grown to its reserve, and its head on disk, written after
// the zeros, says so.
bool GrownOnDisk(const std::string& strPath)
{
    if (FileSizeOf(strPath) != GROWN) return false;
    std::string strHead = ReadFileAt(strPath, 0, sizeof(TABLEFILEHEAD));
    return strHead.size() == sizeof(TABLEFILEHEAD) && Val(((const TABLEFILEHEAD*)strHead.data())->m_nFileTotalSize) == GROWN;
}

} // namespace

TEST(CacheStart, CacheModeFilesHangInTheCacheAndGrowToTheirReserve)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeCacheDb(box);
    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();

    std::string strSystem = DumpImage(box, 1);
    ASSERT_GE(strSystem.size(), sizeof(SYSTEMFILEHEAD));
    EXPECT_EQ(CACHE_MIB, Val(((LPSYSTEMFILEHEAD)strSystem.data())->m_nTalvorBufferCacheSize));

    // A file with no more than 128 MiB unused grows by 64 MiB at a time in
    // the flush threads' idle moments, its head on disk following.
    const long long llGrown = GROWN;
    for (const char* lpName : {"Table3.dbf", "Index4.dbf"}) {
        std::string strPath = box.DataDir() + lpName;
        EXPECT_TRUE(WaitUntil([&] { return GrownOnDisk(strPath); }, 60000, 20))
            << lpName << " has " << FileSizeOf(strPath) << " bytes\n" << box.ReadDaemonTrace();
    }
    std::string strCache = DumpCache(box, 4 * E2E_MIB);
    ASSERT_EQ((size_t)(4 * E2E_MIB), strCache.size());
    const CacheBufferHead* h = (const CacheBufferHead*)strCache.data();
    EXPECT_EQ(CACHEBUFFER_DATAFLAG, Val(h->m_nDataFlag));
    EXPECT_EQ(CACHESTATUS_READY, (int)Val(h->m_bStatus));
    EXPECT_EQ(CACHE_MIB * E2E_MIB, Val(h->m_llCacheTotalSize));
    std::string strTable = ReadWholeFile(box.DataDir() + "Table3.dbf");
    std::string strIndex = ReadWholeFile(box.DataDir() + "Index4.dbf");
    ExpectFileInCache(strCache, strTable, 3, 0x46444243, 0x45444243);
    ExpectFileInCache(strCache, strIndex, 4, 0x46424243, 0x45424243);
    for (const std::string* p : {&strTable, &strIndex})
        EXPECT_EQ(llGrown, Val(((const TABLEFILEHEAD*)p->data())->m_nFileTotalSize));

    box.Signal(pid, SIGTERM);
    EXPECT_EQ(0, box.WaitExit(pid, DAEMON_STOP_TIMEOUT_MS));
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(1u, CountOf(strTrace, "StorageFlushThread thread closed!")) << strTrace;
    EXPECT_EQ(1u, CountOf(strTrace, "StorageIndexFlushThread thread closed!")) << strTrace;
    EXPECT_TRUE(DumpCache(box, PAGE).empty()) << "a normal end leaves no cache";
}

TEST(CacheStart, AKernelLimitBelowTheCacheRefusesTheStartByName)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeCacheDb(box);
    // The limit belongs to the sandbox's IPC namespace alone.
    ASSERT_EQ(0, box.Run({"sh", "-c", "echo 33554432 > /proc/sys/kernel/shmmax"}, 10000));
    std::map<std::string, std::string> mapBefore = Snapshot(box.DataDir(), DB_FILES);
    EXPECT_EQ(0, box.RunDaemon());
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(std::string::npos, strTrace.find("Talvor storage service started!")) << strTrace;
    EXPECT_EQ(1u, CountOf(strTrace, "60001005 Initialize Open memory file failed, error: ")) << strTrace;
    EXPECT_EQ(1u, CountOf(strTrace, "file size: " + std::to_string(CACHE_MIB * E2E_MIB))) << strTrace;
    EXPECT_TRUE(mapBefore == Snapshot(box.DataDir(), DB_FILES)) << "a refused start writes nothing";
    EXPECT_TRUE(DumpCache(box, PAGE).empty());
}

TEST(CacheStart, ACacheAKilledDaemonLeftIsKeptByAFailedStart)
{
    ASSERT_TRUE(MkdbBuilt()) << "build talvor-mkdb first";
    DaemonSandbox box;
    ASSERT_TRUE(box.Ok());
    MakeCacheDb(box);
    pid_t pid = box.StartServing();
    ASSERT_GT(pid, 0) << box.ReadDaemonTrace();
    ASSERT_TRUE(WaitUntil([&] { return GrownOnDisk(box.DataDir() + "Index4.dbf"); }, 60000, 20));
    ASSERT_TRUE(WaitUntil([&] { return GrownOnDisk(box.DataDir() + "Table3.dbf"); }, 60000, 20));
    box.Signal(pid, SIGKILL);
    ASSERT_NE(-1, box.WaitExit(pid, 10000));
    const long long llHeadArea = 2 * PAGE;

    // A start that fails after taking the cache over leaves it for the next.
    ASSERT_EQ(0, box.Run({"ipcrm", "-M", std::to_string(0x514E4602)}, 10000));
    std::string strData = ReadWholeFile(box.DataDir() + "Data2.dbf");
    ASSERT_GT(strData.size(), 64u);
    memset(&strData[0], 0, 16);
    ASSERT_TRUE(WriteWholeFile(box.DataDir() + "Data2.dbf", strData));
    std::string strBefore = DumpCache(box, 4 * E2E_MIB);
    EXPECT_EQ(0, box.RunDaemon());
    std::string strTrace = box.ReadDaemonTrace();
    EXPECT_EQ(1u, CountOf(strTrace, "Talvor storage service started!")) << "the second start failed\n" << strTrace;
    EXPECT_EQ(1u, CountOf(strTrace, "10010008 FreeData The start failed: the shared cache an earlier run left is kept "
                                  "for the next start"))
        << strTrace;
    std::string strKept = DumpCache(box, 4 * E2E_MIB);
    ASSERT_EQ(strBefore.size(), strKept.size()) << "the cache is still there";
    EXPECT_TRUE(strBefore.substr(0, (size_t)llHeadArea) == strKept.substr(0, (size_t)llHeadArea));
}
