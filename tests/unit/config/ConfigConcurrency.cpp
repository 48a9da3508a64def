// Configuration beside a live engine: the lock on the ini both processes
// take, the bounded re-read of a file caught mid-rewrite, an engine dead
// holding "CONFIGHELPER", and one rule for section heads in every reader.
// The engine is plain system calls.
#include "ConfigHelper.h"
#include "FaultFileIO.h"
#include "MemDBCommonDef.h"
#include "TalvorFileIO.h"
#include "TempTree.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace talvortest;

namespace {

// The engine's lock: open without truncating, lock, and start again when the
// daemon renamed a new file over the path meanwhile. -1 on failure.
int EngineLock(const std::string& path, int nOp)
{
    for (;;) {
        int fd = open(path.c_str(), O_RDWR);
        if (fd < 0) return -1;
        if (flock(fd, nOp) != 0) {
            close(fd);
            return -1;
        }
        struct stat a, b;
        if (fstat(fd, &a) == 0 && stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino)
            return fd;
        close(fd);
    }
}

// The engine's rewrite in place: truncate, then the text in two writes with a
// yield between, so that a reader without the lock can meet either cut.
bool EngineRewrite(int fd, const std::string& text)
{
    if (ftruncate(fd, 0) != 0) return false;
    size_t nHalf = text.size() / 2;
    if (pwrite(fd, text.data(), nHalf, 0) != (ssize_t)nHalf) return false;
    sched_yield();
    return pwrite(fd, text.data() + nHalf, text.size() - nHalf, (off_t)nHalf) == (ssize_t)(text.size() - nHalf);
}

// A daemon call left waiting for the engine's lock gives up after this long.
const int LOCK_REACHED_MS = 10000;

class ConfigIniTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        ASSERT_NE(ConfigHelper::s_pInstance.get(), nullptr);
        InitThreadCritSection(&m_crit);
    }
    void TearDown() override
    {
        CTalvorFileIO::Install(nullptr);
        TalvorConfigClose();
        SharedMemoryUpdate* p = ConfigHelper::s_pInstance->sharedList();
        if (p != nullptr) memset(p, 0, sizeof(*p));
    }
    int DaemonInt(const char* app, const char* key) { return TalvorConfigGetValueInt(app, key, -1); }
    int ProfileInt(const char* app, const char* key) { return GetPrivateProfileInt(app, key, -1, m_path.c_str()); }
    std::string Disk() { return PathExists(m_path) ? ReadWholeFile(m_path) : "<missing>"; }
    // Counts the locks (not the unlocks) the daemon's code takes through
    // the layer, and runs m_onLock(n) before the nth.
    void CountLocks()
    {
        m_io.OnCall(FileOp::Flock, [this](const FileCall& call) {
            if ((call.m_nFlags & (LOCK_SH | LOCK_EX)) == 0) return;
            int n = ++m_nLocks;
            if (m_onLock) m_onLock(n);
        });
    }
    // Counts the reads of the whole file begun (reads at its start).
    void CountWholeReads()
    {
        m_io.OnCall(FileOp::PRead, [this](const FileCall& call) {
            if (call.m_nOffset == 0) m_nWholeReads++;
        });
    }

    TempTree m_tree{"cfgc"};
    const std::string m_path = m_tree.Path("TalvorConfig.ini");
    FaultFileIO m_io;
    std::atomic<int> m_nLocks{0};
    std::atomic<int> m_nWholeReads{0};
    std::function<void(int)> m_onLock;
    TALVORCRITICALSECTION m_crit;
};


// What the daemon's code does to the ini while the engine is in the middle of
// its rewrite: read it at start, read one key, set one key through the tree,
// set one key file-direct.
enum IniOp { OP_LOAD, OP_PROFILE_READ, OP_TREE_SET, OP_PROFILE_SET };
const char* const kIniOpNames[] = {"Load", "ProfileRead", "TreeSet", "ProfileSet"};

class IniLockTest : public ConfigIniTest, public ::testing::WithParamInterface<IniOp> {};

// The engine holds the exclusive lock and has emptied the file to rewrite it.
// The daemon's call must wait for the lock, not read the empty or the old
// file: it then sees the engine's new key, and a write keeps it.
TEST_P(IniLockTest, WaitsForTheEnginesRewriteAndKeepsItsKey)
{
    const IniOp op = GetParam();
    ASSERT_TRUE(WriteWholeFile(m_path, "[S]\na=1\n[Tail]\nend=1\n"));
    ASSERT_TRUE(TalvorConfigInit(m_path.c_str()));
    int fdEngine = EngineLock(m_path, LOCK_EX);
    ASSERT_GE(fdEngine, 0);
    ASSERT_EQ(ftruncate(fdEngine, 0), 0);

    CountLocks();
    // The lock is held up to the replacement, so that no rewrite by the
    // engine falls between the read and the rename and is lost.
    std::atomic<int> nUnlockedRenames{0};
    m_io.OnCall(FileOp::Rename, [&](const FileCall&) {
        int fd = open(m_path.c_str(), O_RDWR);
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) nUnlockedRenames++;
        close(fd);
    });
    CTalvorFileIO::Install(&m_io);
    std::atomic<bool> bDone{false};
    std::atomic<int> nResult{-1};
    std::thread daemon([&] {
        switch (op) {
        case OP_LOAD: nResult = TalvorConfigInit(m_path.c_str()) ? 1 : 0; break;
        case OP_PROFILE_READ: nResult = GetPrivateProfileInt("S", "e", -1, m_path.c_str()); break;
        case OP_TREE_SET: {
            TALVORCRITICALSECTION crit;
            InitThreadCritSection(&crit);
            nResult = TalvorConfigSetValueString("S", "d", "2", &crit) ? 1 : 0;
            break;
        }
        case OP_PROFILE_SET: nResult = WritePrivateProfileString("S", "d", "2", m_path.c_str()); break;
        }
        bDone = true;
    });
    // Until the call reaches the lock (or, were it not to lock, gives up).
    EXPECT_TRUE(WaitUntil([&] { return m_nLocks > 0 || bDone; }, LOCK_REACHED_MS));
    ASSERT_TRUE(EngineRewrite(fdEngine, "[S]\na=1\ne=1\n[Tail]\nend=1\n"));
    close(fdEngine);
    daemon.join();
    CTalvorFileIO::Install(nullptr);

    EXPECT_EQ(m_nLocks, 1) << "the call met the emptied file instead of waiting for the lock";
    EXPECT_EQ(nUnlockedRenames, 0) << "the lock was given back before the replacement";
    EXPECT_EQ(ProfileInt("S", "e"), 1);
    EXPECT_EQ(ProfileInt("Tail", "end"), 1);
    EXPECT_EQ(nResult, 1);
    if (op == OP_LOAD) EXPECT_EQ(DaemonInt("S", "e"), 1);
    if (op == OP_TREE_SET || op == OP_PROFILE_SET) EXPECT_EQ(ProfileInt("S", "d"), 2);
}

INSTANTIATE_TEST_SUITE_P(Ops, IniLockTest, ::testing::Values(OP_LOAD, OP_PROFILE_READ, OP_TREE_SET, OP_PROFILE_SET),
                         [](const ::testing::TestParamInfo<IniOp>& i) { return std::string(kIniOpNames[i.param]); });

// The daemon replaces the file by renaming a new one over it. A reader that
// opened the old file and won its lock after the rename must read the new one.
TEST_F(ConfigIniTest, LockWonOnAReplacedFileIsTakenAgainOnTheNewOne)
{
    ASSERT_TRUE(WriteWholeFile(m_path, "[S]\na=1\n"));
    int fdHolder = EngineLock(m_path, LOCK_EX);
    ASSERT_GE(fdHolder, 0);

    std::atomic<int> nOpens{0};
    m_io.AfterCall(FileOp::Open, [&](const FileCall& call) {
        if (call.m_nResult >= 0 && call.m_strPath == m_path) nOpens++;
    });
    CTalvorFileIO::Install(&m_io);
    std::atomic<bool> bLoaded{false};
    std::thread daemon([&] { bLoaded = TalvorConfigInit(m_path.c_str()); });
    EXPECT_TRUE(WaitUntil([&] { return nOpens > 0; }, LOCK_REACHED_MS));
    const std::string tmp = m_path + ".new";
    ASSERT_TRUE(WriteWholeFile(tmp, "[S]\na=3\n"));
    ASSERT_EQ(rename(tmp.c_str(), m_path.c_str()), 0);
    close(fdHolder);
    daemon.join();
    CTalvorFileIO::Install(nullptr);

    EXPECT_TRUE(bLoaded);
    EXPECT_EQ(DaemonInt("S", "a"), 3);
    EXPECT_EQ(nOpens, 2);
}


// A writer without the lock has emptied the file and not yet written it: the
// read is made again until the text is there, and a file that stays empty is
// refused after a bounded number of reads, as before.
TEST_F(ConfigIniTest, EmptyFileIsReadAgainForABoundedTime)
{
    const std::string text = "[S]\na=5\n";
    ASSERT_TRUE(WriteWholeFile(m_path, ""));
    CountLocks();
    m_onLock = [&](int n) {
        if (n == 3) WriteWholeFile(m_path, text);
    };
    CTalvorFileIO::Install(&m_io);
    EXPECT_TRUE(TalvorConfigInit(m_path.c_str()));
    EXPECT_EQ(DaemonInt("S", "a"), 5);
    EXPECT_EQ(m_nLocks, 3);

    ASSERT_TRUE(WriteWholeFile(m_path, ""));
    m_onLock = nullptr;
    m_nLocks = 0;
    EXPECT_FALSE(TalvorConfigInit(m_path.c_str()));
    EXPECT_EQ(m_nLocks, CONFIG_INI_READ_TRIES);
    m_nLocks = 0;
    EXPECT_EQ(ProfileInt("S", "a"), -1);
    EXPECT_EQ(m_nLocks, CONFIG_INI_READ_TRIES);

    // The file-direct writer fills a file that stayed empty, and keeps what a
    // late writer put there.
    m_nLocks = 0;
    EXPECT_TRUE(WritePrivateProfileString("T", "b", "1", m_path.c_str()));
    EXPECT_EQ(m_nLocks, CONFIG_INI_READ_TRIES);
    EXPECT_EQ(Disk(), "[T]\nb=1\n");
    ASSERT_TRUE(WriteWholeFile(m_path, ""));
    m_nLocks = 0;
    m_onLock = [&](int n) {
        if (n == 2) WriteWholeFile(m_path, text);
    };
    EXPECT_TRUE(WritePrivateProfileString("T", "b", "1", m_path.c_str()));
    EXPECT_EQ(Disk(), text + "[T]\nb=1\n");
}

// A read that ends before the size the file had, or after which the file's
// size or time moved, met a rewrite: it is made again.
TEST_F(ConfigIniTest, ReadThatEndsEarlyOrSeesTheFileMoveIsMadeAgain)
{
    const std::string text = "[S]\na=5\nb=6\n";
    ASSERT_TRUE(WriteWholeFile(m_path, text));
    CountWholeReads();
    // The first read is cut short: half, then the end of the file.
    m_io.CutTransfer(FileOp::PRead, 1, text.size() / 2);
    m_io.FailCall(FileOp::PRead, 2, 0);
    // The second is whole, but the file grows right after it.
    m_io.AfterCall(FileOp::PRead, [&](const FileCall& call) {
        if (call.m_nNth != 3) return;
        int fdOther = open(m_path.c_str(), O_WRONLY | O_APPEND);
        EXPECT_EQ(write(fdOther, "c=7\n", 4), 4);
        close(fdOther);
    });
    CTalvorFileIO::Install(&m_io);
    EXPECT_TRUE(TalvorConfigInit(m_path.c_str()));
    EXPECT_EQ(m_nWholeReads, 3);
    EXPECT_EQ(DaemonInt("S", "b"), 6);
    EXPECT_EQ(DaemonInt("S", "c"), 7);
}

// The heart of it: a file that is read short every time is never taken for
// the whole, so no write puts a cut text back. The change stays in memory.
TEST_F(ConfigIniTest, FileReadShortIsNeverWrittenBack)
{
    const std::string text = "[S]\na=1\nb=2\n[T]\nc=3\n";
    ASSERT_TRUE(WriteWholeFile(m_path, text));
    ASSERT_TRUE(TalvorConfigInit(m_path.c_str()));
    CountWholeReads();
    // Every read meets the end halfway.
    m_io.ReadsEndAt((long long)text.size() / 2);
    CTalvorFileIO::Install(&m_io);
    EXPECT_TRUE(TalvorConfigSetValueString("S", "a", "9", &m_crit));
    EXPECT_EQ(m_nWholeReads, CONFIG_INI_READ_TRIES);
    EXPECT_FALSE(WritePrivateProfileString("T", "c", "9", m_path.c_str()));
    EXPECT_EQ(GetPrivateProfileInt("T", "c", -1, m_path.c_str()), -1);
    CTalvorFileIO::Install(nullptr);
    EXPECT_EQ(Disk(), text);
    EXPECT_EQ(DaemonInt("S", "a"), 9);
}


// An engine that died holding "CONFIGHELPER": the stop's twenty-odd sets and
// the reads between them cost one wait; they all reach memory and the file.
// When the semaphore is free again the list works as before, and a second
// stuck spell costs one more wait.
TEST_F(ConfigIniTest, OneStuckSemaphoreCostsOneWait)
{
    ASSERT_TRUE(WriteWholeFile(m_path, "[System]\nseed=0\n"));
    ASSERT_TRUE(TalvorConfigInit(m_path.c_str()));
    sem_t* pSem = sem_open(SEMNAME_CONFIGHELPER, 0);
    ASSERT_NE(pSem, SEM_FAILED);
    SharedMemoryUpdate* pList = ConfigHelper::s_pInstance->sharedList();
    ASSERT_NE(pList, nullptr);
    // The engine posted one change, then died holding the semaphore.
    pList->m_bIsService = true;
    pList->m_iLength = 1;
    strcpy(pList->m_smpItems[0].m_lpModule, "System");
    strcpy(pList->m_smpItems[0].m_lpKey, "fromengine");
    strcpy(pList->m_smpItems[0].m_lpValue, "1");
    ASSERT_EQ(sem_wait(pSem), 0);

    UINT nOldWait = ConfigSetSemaphoreWait(20);
    ULONG nWaits = ConfigSemaphoreTimeouts();
    for (int i = 0; i < 21; i++) {
        std::string key = "k" + std::to_string(i);
        EXPECT_TRUE(TalvorConfigSetValueString("System", key.c_str(), std::to_string(i).c_str(), &m_crit));
        EXPECT_EQ(TalvorConfigGetValueInt("System", key.c_str(), -1, &m_crit), i);
    }
    EXPECT_EQ(ConfigSemaphoreTimeouts() - nWaits, 1u);
    EXPECT_EQ(ProfileInt("System", "k20"), 20);
    EXPECT_EQ(pList->m_iLength, 1u); // the list was left alone
    EXPECT_TRUE(pList->m_bIsService);

    // Free again: the engine's change is taken in and ours posted.
    ASSERT_EQ(sem_post(pSem), 0);
    EXPECT_TRUE(TalvorConfigSetValueString("System", "after", "1", &m_crit));
    EXPECT_EQ(DaemonInt("System", "fromengine"), 1);
    EXPECT_FALSE(pList->m_bIsService);
    EXPECT_STREQ(pList->m_smpItems[0].m_lpKey, "after");

    // Stuck again: one more wait.
    ASSERT_EQ(sem_wait(pSem), 0);
    for (int i = 0; i < 5; i++) EXPECT_TRUE(TalvorConfigSetValueString("System", "again", "1", &m_crit));
    EXPECT_EQ(ConfigSemaphoreTimeouts() - nWaits, 2u);
    ASSERT_EQ(sem_post(pSem), 0);
    EXPECT_TRUE(TalvorConfigSetValueString("System", "last", "1", &m_crit));
    int nValue = -1;
    sem_getvalue(pSem, &nValue);
    EXPECT_EQ(nValue, 1);
    ConfigSetSemaphoreWait(nOldWait);
    sem_close(pSem);
}


// A file, a key in it, and a key whose answer the file's structure decides.
// Every reader must give the same answer for both, and every writer must
// change the line the readers read and nothing else.
struct AgreeCase {
    const char* name;
    const char* text;
    const char* app;
    const char* key;
    int value;
    const char* probeApp;
    const char* probeKey;
    int probeValue; // -1: not in the file
};

const AgreeCase kAgreeCases[] = {
    {"HeadWithSemicolonComment", "[System]\nclusternode=1\n[Config] ; cluster\nclusternode=2\n", "Config",
     "clusternode", 2, "System", "clusternode", 1},
    {"HeadFollowedByKeyText", "[System]\nk=1\n[Config] x=9\nk=2\n", "Config", "k", 2, "Config", "x", -1},
    {"HeadWithSecondBracket", "[System]\nk=1\n[Config]]\nk=2\n", "Config", "k", 2, "System", "k", 1},
    {"HeadPaddedWithTabs", "[System]\nk=1\n\t[\tConfig\t]\t\nk=2\n", "Config", "k", 2, "System", "k", 1},
    {"HeadNameWithInnerBlank", "[System]\nk=1\n[ My Config ] ; c\nk=2\n", "My Config", "k", 2, "System", "k", 1},
    {"UnclosedHeadIsNoHead", "[System]\nk=1\n[Config\nk=2\n", "System", "k", 1, "Config", "k", -1},
    {"CommentedHeadIsNoHead", "[System]\nk=1\n#[Config]\nk=2\n", "System", "k", 1, "Config", "k", -1},
    {"IndentedCommentIsNoHead", "[System]\nk=1\n\t# [Config]\nj=2\n", "System", "j", 2, "Config", "j", -1},
    {"KeyPaddedWithTabs", "[Config] ; c\n\tk\t=\t7\t\nj=1\n", "Config", "k", 7, "Config", "j", 1},
    {"LoneCrLineEnds", "[System]\rk=1\r[Config] ; c\rk=2\r", "Config", "k", 2, "System", "k", 1},
    {"LoneCrBetweenKeys", "[System]\nk=1\rj=3\n", "System", "k", 1, "System", "j", 3},
    {"ByteOrderMarkThenHeadComment", "\xEF\xBB\xBF[Config] ; c\nk=5\n[System]\nk=1\n", "Config", "k", 5, "System",
     "k", 1},
    {"ValueWithHashComment", "[Config] ; c\nk = 8 # eight\n", "Config", "k", 8, "Config", "eight", -1},
};

TEST_F(ConfigIniTest, IniReadersAgreeOnTheSameKey)
{
    for (const AgreeCase& c : kAgreeCases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(WriteWholeFile(m_path, c.text));
        for (int nStep = 0; nStep < 3; nStep++) {
            if (nStep == 1) ASSERT_TRUE(TalvorConfigSetValueString(c.app, c.key, "4242"));
            if (nStep == 2) ASSERT_TRUE(WritePrivateProfileString(c.app, c.key, "4343", m_path.c_str()));
            // As written, after the tree's set, after the file-direct set.
            ASSERT_TRUE(TalvorConfigInit(m_path.c_str())) << "step " << nStep;
            const int nWant = nStep == 0 ? c.value : nStep == 1 ? 4242 : 4343;
            EXPECT_EQ(DaemonInt(c.app, c.key), nWant) << "step " << nStep << ": the tree";
            EXPECT_EQ(ProfileInt(c.app, c.key), nWant) << "step " << nStep << ": file-direct";
            EXPECT_EQ(DaemonInt(c.probeApp, c.probeKey), c.probeValue) << "step " << nStep << ": the tree, probe";
            EXPECT_EQ(ProfileInt(c.probeApp, c.probeKey), c.probeValue) << "step " << nStep << ": file-direct, probe";
        }
    }
}

} // namespace
