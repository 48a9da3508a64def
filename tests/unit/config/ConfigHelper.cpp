// Configuration: the ini as a tree, the splice that rewrites it, its
// crash-safe replacement, the update list shared with the engine (played by
// attaching the segment by its key, under the named semaphore), and the
// file-direct GetPrivateProfile* / WritePrivateProfile*.
#include "ConfigHelper.h"
#include "FaultFileIO.h"
#include "MemDBCommonDef.h"
#include "TalvorFileIO.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace talvortest;

namespace {

// A private directory with one ini file; the singleton is closed afterwards so
// that no test sees another's tree or list.
class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        ASSERT_NE(ConfigHelper::s_pInstance.get(), nullptr);
        ClearList();
    }
    void TearDown() override
    {
        TalvorConfigClose();
        ClearList();
    }
    static void ClearList()
    {
        SharedMemoryUpdate* p = ConfigHelper::s_pInstance->sharedList();
        if (p != nullptr) memset(p, 0, sizeof(*p));
    }
    bool Load(const std::string& text)
    {
        EXPECT_TRUE(WriteWholeFile(m_path, text));
        return TalvorConfigInit(m_path.c_str());
    }
    std::string Get(const char* app, const char* key, const char* def = "<none>")
    {
        char buf[256];
        int r = TalvorConfigGetValueString(app, key, def, buf, sizeof(buf));
        return r == 0 ? std::string(buf) : std::string("<-1>");
    }
    std::string Disk() { return PathExists(m_path) ? ReadWholeFile(m_path) : "<missing>"; }
    // The files in the directory, to see that no temporary is left.
    size_t DirEntries() { return ListFiles(m_tree.Dir()).size(); }

    TempTree m_tree{"cfg"};
    const std::string m_dir = m_tree.Root(), m_path = m_dir + "/TalvorConfig.ini";
};


// A text taken from the string's own buffer must survive the reallocation.
TEST(ConfigTString, SetValueFromItsOwnBuffer)
{
    ConfigHelper::TString t;
    ASSERT_TRUE(t.SetValue(std::string(100, 'x').c_str()));
    ASSERT_TRUE(t.SetValue(t.m_pData + 10, 50));
    EXPECT_EQ(std::string(t.c_str()), std::string(50, 'x'));
}


// Integers of both readers are in ConfigIntegers.cpp. A text is cut to
// iSize - 1 and terminated; an empty value is a value, not the default.
TEST_F(ConfigTest, DuplicateKeysFirstWinsSetReplacesTheFirstAndTextsAreCut)
{
    ASSERT_TRUE(Load("[Net]\nPort=1\nPORT=2\nempty=\nbig=99999999999\n"));
    char buf[8];
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(TalvorConfigGetValueString("Net", "big", "d", buf, 4), 0);
    EXPECT_TRUE(std::string(buf) == "999" && buf[4] == 'z');
    EXPECT_EQ(Get("Net", "empty", "dflt"), "");
    EXPECT_EQ(Get("Net", "port"), "1");
    ASSERT_TRUE(TalvorConfigSetValueString("Net", "PoRt", "3"));
    EXPECT_EQ(Get("Net", "PORT"), "3");
    EXPECT_EQ(Disk(), "[Net]\nPoRt=3\r\nPORT=2\nempty=\nbig=99999999999\n");
}

TEST_F(ConfigTest, MalformedFilesFailToLoad)
{
    EXPECT_FALSE(Load("key=1\n[S]\na=1\n"));     // key before any section
    // A repeated section invalidates the file; what came before stays read.
    EXPECT_FALSE(Load("[A]\nx=1\n[B]\ny=2\n[a]\nz=3\n"));
    EXPECT_EQ(Get("A", "x") + Get("B", "y") + Get("A", "z"), "12<none>");
    // A missing file fails; an empty one in ConfigIniTest.EmptyFileIsReadAgainForABoundedTime.
    EXPECT_FALSE(TalvorConfigInit((m_dir + "/absent.ini").c_str()));
}

TEST_F(ConfigTest, EightSectionsLoadSevenAndOnlyOneMoreFitsInMemory)
{
    std::string text;
    for (int i = 1; i <= 8; i++) text += "[S" + std::to_string(i) + "]\nk=" + std::to_string(i) + "\n";
    ASSERT_TRUE(Load(text));
    EXPECT_EQ(Get("S7", "k"), "7");
    EXPECT_EQ(Get("S8", "k"), "<none>");
    // The eighth section exists on disk though not in memory: the key is
    // spliced into it there, and the section takes the last slot.
    ASSERT_TRUE(TalvorConfigSetValueString("S8", "n", "x"));
    EXPECT_EQ(Get("S8", "n"), "x");
    EXPECT_EQ(Get("S8", "k"), "<none>");
    EXPECT_EQ(Disk(), text + "\r\nn=x");
    std::string before = Disk();
    EXPECT_FALSE(TalvorConfigSetValueString("S9", "n", "x"));
    EXPECT_EQ(Disk(), before);
}

// A new section lives in memory only: ConfigSharedTest.EngineItemsAreTakenInAndDaemonItemsStandInOrder.
TEST_F(ConfigTest, EmptyNamesAreRefused)
{
    const std::string text = "# head comment\n[System]\na=1\n";
    ASSERT_TRUE(Load(text));
    EXPECT_FALSE(TalvorConfigSetValueString("  ", "a", "1"));
    EXPECT_FALSE(TalvorConfigSetValueString("System", "\r\n", "1"));
    EXPECT_EQ(Disk(), text);
}


struct SpliceCase {
    const char* name;
    const char* before;
    const char* app;
    const char* key;
    const char* value;
    const char* after;
};

const SpliceCase kSpliceCases[] = {
    // A: replace.
    {"ReplaceMiddleLf", "[S]\na=1\nb=2\n", "S", "a", "9", "[S]\na=9\r\nb=2\n"},
    {"ReplaceLastLineNoEnd", "[S]\na=1", "S", "a", "9", "[S]\na=9"},
    {"ReplaceMiddleCrLf", "[S]\r\na=1\r\nb=2\r\n", "S", "a", "9", "[S]\r\na=9\r\nb=2\r\n"},
    {"ReplaceIndentedCaseFolded", "[ sys ]\n  A = 1 \nb=2\n", "SYS", "a", "x y", "[ sys ]\na=x y\r\nb=2\n"},
    // B: insert in front of the next head (comments above it stay above the new line).
    {"InsertBeforeHeadLf", "[S]\na=1\n\n# next\n[T]\nx=1\n", "S", "n", "5",
     "[S]\na=1\n\n# next\nn=5\r\n[T]\nx=1\n"},
    {"KeyOfLaterSectionUntouched", "[S]\na=1\n[T]\nb=1\n", "S", "b", "2", "[S]\na=1\nb=2\r\n[T]\nb=1\n"},
    {"InsertIntoEmptySection", "[S]\n[T]\nk=1\n", "S", "k", "2", "[S]\nk=2\r\n[T]\nk=1\n"},
    // C: append to the last section.
    {"AppendLf", "[S]\na=1\n", "S", "n", "5", "[S]\na=1\n\r\nn=5"},
    {"AppendNoEnd", "[S]\na=1", "S", "n", "5", "[S]\na=1\r\nn=5"},
    // The byte-order mark stays.
    {"BomAppend", "\xEF\xBB\xBF[S]\r\n", "S", "a", "2", "\xEF\xBB\xBF[S]\r\n\r\na=2"},
};

TEST_F(ConfigTest, SetWritesExactlyTheSplicedBytes)
{
    for (const SpliceCase& c : kSpliceCases) {
        ASSERT_TRUE(Load(c.before)) << c.name;
        ASSERT_TRUE(TalvorConfigSetValueString(c.app, c.key, c.value)) << c.name;
        EXPECT_EQ(Disk(), std::string(c.after)) << c.name;
    }
}


// A failed rewrite keeps the change in memory and leaves one whole text and
// no temporary, also after a power loss: the old text when a write, a sync or
// the rename failed. The next rewrite splices into the disk's text (not
// memory's) and is on the medium when it returns.
TEST_F(ConfigTest, FailedRewriteLeavesOneWholeTextAndTheNextOneSurvivesAPowerLoss)
{
    ASSERT_TRUE(Load("[S]\na=1\nb=2\n"));
    // The steps that may leave either text go first, so that after the loop
    // the disk's value of the key differs from memory's.
    const struct {
        FileOp m_eOp;
        int m_nErrno;
        long long m_nTimes;
        size_t m_nFirstCutTo; // 0: the first call fails too
        bool m_bOldStays;
    } arCases[] = {
        {FileOp::Open, EIO, 1, 0, false},                {FileOp::LSeek, EIO, 1, 0, false},
        {FileOp::Close, EIO, 1, 0, false},               {FileOp::SyncDirectory, EIO, 1, 0, false},
        {FileOp::PWrite, ENOSPC, FAULT_ALWAYS, 0, true}, {FileOp::FSync, EIO, FAULT_ALWAYS, 0, true},
        {FileOp::PWrite, ENOSPC, FAULT_ALWAYS, 4, true}, {FileOp::Rename, EIO, FAULT_ALWAYS, 0, true},
    };
    int nValue = 0;
    for (const auto& c : arCases) {
        SCOPED_TRACE(::testing::Message() << "op " << (int)c.m_eOp << ", first cut to " << c.m_nFirstCutTo);
        const std::string strBefore = Disk();
        const std::string strValue = "v" + std::to_string(++nValue);
        FaultFileIO io;
        if (c.m_nFirstCutTo > 0) io.CutTransfer(c.m_eOp, 1, c.m_nFirstCutTo);
        io.FailCall(c.m_eOp, c.m_nFirstCutTo > 0 ? 2 : 1, c.m_nErrno, c.m_nTimes);
        {
            ScopedFileIO scope(&io);
            bool bSet = TalvorConfigSetValueString("S", "a", strValue.c_str());
            if (c.m_bOldStays) {
                EXPECT_TRUE(bSet);
                EXPECT_EQ(Disk(), strBefore);
            }
            EXPECT_EQ(DirEntries(), 1u) << "a temporary was left behind";
            io.LosePower();
        }
        EXPECT_EQ(Get("S", "a"), strValue);
        const std::string strAfter = Disk();
        EXPECT_TRUE(strAfter == strBefore || (!c.m_bOldStays && strAfter == "[S]\na=" + strValue + "\r\nb=2\n"))
            << strAfter;
        EXPECT_EQ(DirEntries(), 1u);
    }
    std::string strExpect = Disk();
    strExpect.replace(strExpect.find("b=2\n"), 4, "b=3\r\n");
    {
        FaultFileIO io;
        ScopedFileIO scope(&io);
        ASSERT_TRUE(TalvorConfigSetValueString("S", "b", "3"));
        io.LosePower();
    }
    EXPECT_EQ(Disk(), strExpect);
    EXPECT_EQ(DirEntries(), 1u);
}

TEST_F(ConfigTest, RewriteKeepsModeAndFollowsSymbolicLinks)
{
    const std::string real = m_dir + "/real.ini";
    const std::string link = m_dir + "/link.ini";
    ASSERT_TRUE(WriteWholeFile(real, "[S]\na=1\n"));
    ASSERT_EQ(chmod(real.c_str(), 0640), 0);
    ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
    ASSERT_TRUE(TalvorConfigInit(link.c_str()));
    ASSERT_TRUE(TalvorConfigSetValueString("S", "a", "2"));
    struct stat stLink, stReal;
    EXPECT_TRUE(lstat(link.c_str(), &stLink) == 0 && S_ISLNK(stLink.st_mode));
    EXPECT_TRUE(stat(real.c_str(), &stReal) == 0 && (stReal.st_mode & 07777) == 0640u);
    EXPECT_EQ(ReadWholeFile(real), "[S]\na=2\r\n");
}


// The engine's view: the segment attached by its key, the semaphore by name.
class EngineSide {
public:
    EngineSide()
    {
        int id = shmget(SHMKEY_CONFIGUPDATE, 0, 0);
        void* p = id > 0 ? shmat(id, nullptr, 0) : (void*)-1;
        if (p != (void*)-1) m_pList = (SharedMemoryUpdate*)p;
        sem_t* s = sem_open(SEMNAME_CONFIGHELPER, 0);
        if (s != SEM_FAILED) m_pSem = s;
    }
    ~EngineSide()
    {
        if (m_pList != nullptr) shmdt(m_pList);
        if (m_pSem != nullptr) sem_close(m_pSem);
    }
    // Posts items as the engine does: under the semaphore, taking the list
    // over when the daemon wrote it last.
    void Post(const std::vector<std::vector<std::string>>& items)
    {
        sem_wait(m_pSem);
        if (!m_pList->m_bIsService) {
            m_pList->m_bIsService = true;
            m_pList->m_iLength = 0;
        }
        for (const auto& it : items) {
            SharedMemoryItem& item = m_pList->m_smpItems[m_pList->m_iLength++];
            item = SharedMemoryItem{};
            for (int i = 0; i < 3; i++) strcpy(i == 0 ? item.m_lpModule : i == 1 ? item.m_lpKey : item.m_lpValue, it[i].c_str());
        }
        sem_post(m_pSem);
    }
    SharedMemoryUpdate* m_pList = nullptr;
    sem_t* m_pSem = nullptr;
};

class ConfigSharedTest : public ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        ASSERT_NE(m_engine.m_pList, nullptr) << "update segment not found by its key";
        ASSERT_NE(m_engine.m_pSem, nullptr) << "semaphore CONFIGHELPER missing";
        InitThreadCritSection(&m_crit);
    }
    void ExpectLatchFree()
    {
        EXPECT_EQ(ConfigHelper::m_csCriticalSection.m_nLockFlag, 0);
        EXPECT_EQ(m_crit.m_nCritPos, 0);
        int n = -1;
        sem_getvalue(m_engine.m_pSem, &n);
        EXPECT_EQ(n, 1) << "CONFIGHELPER semaphore left taken or over-posted";
    }
    EngineSide m_engine;
    TALVORCRITICALSECTION m_crit;
};

// The lock-free read does not look at the list; the thread-safe one takes
// the engine's items in (to memory and the file) and zeroes the list. A
// daemon set takes pending engine items in before it takes the list over,
// and its own items then stand one after the other. (The take-in after a
// stuck semaphore is in ConfigIniTest.OneStuckSemaphoreCostsOneWait.)
TEST_F(ConfigSharedTest, EngineItemsAreTakenInAndDaemonItemsStandInOrder)
{
    ASSERT_TRUE(Load("[System]\nlistenport=8000\nb=1\n"));
    SharedMemoryUpdate* p = m_engine.m_pList;
    m_engine.Post({{"System", "listenport", "8100"}, {"Config", "clustervip", "1.2.3.4"}});
    EXPECT_EQ(TalvorConfigGetValueInt("System", "listenport", 0), 8000);
    EXPECT_EQ(p->m_iLength, 2u);
    EXPECT_EQ(TalvorConfigGetValueInt("System", "listenport", 0, &m_crit), 8100);
    EXPECT_EQ(Get("Config", "clustervip"), "1.2.3.4");
    EXPECT_EQ(p->m_iLength, 0u);
    EXPECT_FALSE(p->m_bIsService);
    EXPECT_EQ(Disk(), "[System]\nlistenport=8100\r\nb=1\n");

    m_engine.Post({{"System", "listenport", "engine"}});
    ASSERT_TRUE(TalvorConfigSetValueString("System", "b", "daemon", &m_crit));
    EXPECT_EQ(Get("System", "listenport"), "engine"); // not lost by the take-over
    EXPECT_EQ(Disk(), "[System]\nlistenport=engine\r\nb=daemon\r\n");
    ASSERT_TRUE(TalvorConfigSetValueString("System", "c", "3", &m_crit));
    EXPECT_EQ(p->m_iLength, 2u);
    EXPECT_FALSE(p->m_bIsService);
    const SharedMemoryItem* it = p->m_smpItems;
    EXPECT_EQ((std::vector<std::string>{"System", "b", "daemon", "c", "3"}),
              (std::vector<std::string>{it[0].m_lpModule, it[0].m_lpKey, it[0].m_lpValue, it[1].m_lpKey, it[1].m_lpValue}));
    // Our own list is not taken in by our own reads, and the lock-free
    // setter tells the engine nothing.
    EXPECT_EQ(TalvorConfigGetValueInt("System", "c", 0, &m_crit), 3);
    ASSERT_TRUE(TalvorConfigSetValueString("System", "d", "4"));
    EXPECT_EQ(p->m_iLength, 2u);
    ExpectLatchFree();
}

TEST_F(ConfigSharedTest, OverlongTextsAreNotPostedAndNeverOverrun)
{
    ASSERT_TRUE(Load("[System]\ndatabasepath=/old/\n"));
    ConfigHelper* h = ConfigHelper::s_pInstance.get();
    SharedMemoryUpdate* p = m_engine.m_pList;
    const std::string s49(49, 's'), s50(50, 's'), v99(99, 'v'), v100(100, 'v');
    // Exactly at the limit: posted and terminated.
    ASSERT_TRUE(h->AddItemToSharedadd(s49.c_str(), s49.c_str(), v99.c_str(), false));
    EXPECT_TRUE(p->m_smpItems[0].m_lpModule[49] == 0 && p->m_smpItems[0].m_lpKey[49] == 0 &&
                p->m_smpItems[0].m_lpValue[99] == 0);
    // Guard bytes in the next item show any overrun.
    memset(&p->m_smpItems[1], 0x5A, sizeof(SharedMemoryItem));
    EXPECT_FALSE(h->AddItemToSharedadd(s50.c_str(), "k", "v", false));
    EXPECT_FALSE(h->AddItemToSharedadd("S", "k", v100.c_str(), false));
    EXPECT_EQ(p->m_iLength, 1u);
    // Through the thread-safe setter: the local change stands, the engine is
    // not told, and nothing past the list's fields was touched.
    const std::string path(150, 'p');
    ASSERT_TRUE(TalvorConfigSetValueString("System", "databasepath", path.c_str(), &m_crit));
    EXPECT_EQ(Get("System", "databasepath"), path);
    EXPECT_EQ(Disk(), "[System]\ndatabasepath=" + path + "\r\n");
    EXPECT_EQ(p->m_iLength, 1u);
    const unsigned char* g = (const unsigned char*)&p->m_smpItems[1];
    for (size_t i = 0; i < sizeof(SharedMemoryItem); i++) ASSERT_EQ(g[i], 0x5A) << i;
    // An engine item that is overlong and pending does not make us drop it:
    // the take-in happens first and only our item is refused.
    m_engine.Post({{"System", "x", "1"}});
    EXPECT_TRUE(TalvorConfigSetValueString("System", "y", v100.c_str(), &m_crit));
    EXPECT_EQ(Get("System", "x"), "1");
    ExpectLatchFree();
}

TEST_F(ConfigSharedTest, GarbledEngineListIsReadWithinBounds)
{
    ASSERT_TRUE(Load("[S]\n"));
    SharedMemoryUpdate* p = m_engine.m_pList;
    sem_wait(m_engine.m_pSem);
    // A count beyond the array and fields without terminators.
    for (int i = 0; i < CONFIGUPDATE_MAX_ITEMS; i++) {
        SharedMemoryItem& item = p->m_smpItems[i];
        memset(&item, 'z', sizeof(item));
        strcpy(item.m_lpModule, "S");
        snprintf(item.m_lpKey, sizeof(item.m_lpKey), "k%d", i);
    }
    memset(p->m_smpItems[0].m_lpKey, 'K', sizeof(p->m_smpItems[0].m_lpKey));
    p->m_iLength = 0xFFFFFFFFu;
    *(BYTE*)&p->m_bIsService = 7; // any non-zero byte means the engine wrote it
    sem_post(m_engine.m_pSem);

    char buf[256];
    EXPECT_EQ(TalvorConfigGetValueString("S", "k1", "", buf, sizeof(buf), &m_crit), 0);
    EXPECT_EQ(std::string(buf), std::string(99, 'z')); // cut at the field, not beyond
    EXPECT_EQ(Get("S", std::string(49, 'K').c_str()), std::string(99, 'z'));
    EXPECT_EQ(Get("S", "k79"), std::string(99, 'z'));
    EXPECT_EQ(p->m_iLength, 0u);
    ExpectLatchFree();
}

TEST_F(ConfigSharedTest, ConcurrentThreadSafeSetsLoseNothing)
{
    ASSERT_TRUE(Load("[S]\nseed=0\n"));
    const int kThreads = 4, kEach = 25;
    auto Key = [](int t, int i) { return "t" + std::to_string(t) + "k" + std::to_string(i); };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t, &Key] {
            TALVORCRITICALSECTION crit;
            InitThreadCritSection(&crit);
            for (int i = 0; i < kEach; i++) {
                std::string key = Key(t, i);
                TalvorConfigSetValueString("S", key.c_str(), std::to_string(i).c_str(), &crit);
                char buf[16];
                TalvorConfigGetValueString("S", key.c_str(), "", buf, sizeof(buf), &crit);
            }
        });
    }
    for (auto& th : threads) th.join();
    ASSERT_TRUE(TalvorConfigInit(m_path.c_str())); // what reached the disk
    for (int t = 0; t < kThreads; t++)
        for (int i = 0; i < kEach; i++) ASSERT_EQ(TalvorConfigGetValueInt("S", Key(t, i).c_str(), -1), i) << Key(t, i);
    EXPECT_EQ(m_engine.m_pList->m_iLength, (UINT)CONFIGUPDATE_MAX_ITEMS);
    ExpectLatchFree();
}


// File-direct: values end at a hash, names trim every blank, texts are cut.
TEST_F(ConfigTest, ProfileReadFindsWholeNamesAndCutsToTheBuffer)
{
    auto Read = [&](const char* app, const char* key, DWORD size = 256) {
        char buf[256];
        DWORD n = GetPrivateProfileString(app, key, "<d>", buf, size, m_path.c_str());
        EXPECT_LT(n, size);
        return std::string(buf, n);
    };
    ASSERT_TRUE(WriteWholeFile(m_path, "\xEF\xBB\xBF[S] ignored]\nlong=abcdefghij\nkey = a=b # c\nPort=1\nPORT=2\n"));
    EXPECT_EQ(Read("\ts ", " KEY\t"), "a=b"); // the names asked for are trimmed too
    EXPECT_EQ(Read("S", "port"), "1");
    EXPECT_EQ(Read("S", "Por"), "<d>");   // the name must end where the wanted one does
    EXPECT_EQ(Read("S", "long", 5), "abcd");
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(GetPrivateProfileString("S", "long", "d", buf, 1, m_path.c_str()), 0u);
    EXPECT_EQ(buf[0], 0);
}

TEST_F(ConfigTest, ProfileWriteFillsNewFilesAndEditsExistingOnes)
{
    ASSERT_TRUE(WritePrivateProfileString(" System\t", " Language ", "1", m_path.c_str()));
    EXPECT_EQ(Disk(), "[System]\nLanguage=1\n");

    ASSERT_TRUE(WriteWholeFile(m_path, "[System]\r\n  language = 0 # old\r\nother=1\r\n\r\n[Next]\r\nx=1"));
    ASSERT_TRUE(WritePrivateProfileString("system", "LANGUAGE", "2", m_path.c_str()));
    EXPECT_EQ(Disk(), "[System]\r\n  LANGUAGE=2\r\nother=1\r\n\r\n[Next]\r\nx=1");
    ASSERT_TRUE(WritePrivateProfileString("System", "added", "3", m_path.c_str()));
    EXPECT_EQ(Disk(), "[System]\r\n  LANGUAGE=2\r\nother=1\r\nadded=3\n\r\n[Next]\r\nx=1");
    ASSERT_TRUE(WritePrivateProfileString("Next", "y", "4", m_path.c_str()));
    EXPECT_EQ(Disk(), "[System]\r\n  LANGUAGE=2\r\nother=1\r\nadded=3\n\r\n[Next]\r\nx=1\ny=4\n");

    const std::string before = Disk();
    EXPECT_FALSE(WritePrivateProfileString("S", "k", "two\nlines", m_path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("S]", "k", "v", m_path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("S", "k=", "v", m_path.c_str()));
    EXPECT_EQ(Disk(), before);
}

} // namespace
