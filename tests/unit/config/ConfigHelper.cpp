// Configuration: the ini as a tree, the splice that rewrites it, its
// crash-safe replacement, the update list shared with the engine (played by
// attaching the segment by its key, under the named semaphore), the
// file-direct GetPrivateProfile* / WritePrivateProfile*, and all of it beside
// a live engine: the lock on the ini both processes take, the bounded re-read
// of a file caught mid-rewrite, an engine dead holding "CONFIGHELPER", and one
// rule for section heads in every reader. The engine is plain system calls.
#include "ConfigHelper.h"
#include "FaultFileIO.h"
#include "MemDBCommonDef.h"
#include "PythonReference.h"
#include "TalvorFileIO.h"
#include "TempTree.h"
#include "TestClock.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <random>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <sys/file.h>
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
        InitThreadCritSection(&m_crit);
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
    int DaemonInt(const char* app, const char* key) { return TalvorConfigGetValueInt(app, key, -1); }
    int ProfileInt(const char* app, const char* key) { return GetPrivateProfileInt(app, key, -1, m_path.c_str()); }
    // Both readers over one file of [S] k0=..., k1=..., ...
    void ExpectInts(const std::vector<std::pair<std::string, int>>& vCases)
    {
        std::string strText = "[S]\n";
        for (size_t i = 0; i < vCases.size(); ++i) strText += "k" + std::to_string(i) + "=" + vCases[i].first + "\n";
        ASSERT_TRUE(Load(strText));
        for (size_t i = 0; i < vCases.size(); ++i) {
            const std::string strKey = "k" + std::to_string(i);
            EXPECT_EQ(TalvorConfigGetValueInt("S", strKey.c_str(), -5), vCases[i].second) << "[" << vCases[i].first << "]";
            EXPECT_EQ(GetPrivateProfileInt("S", strKey.c_str(), -5, m_path.c_str()), vCases[i].second)
                << "[" << vCases[i].first << "]";
        }
    }
    // The files in the directory, to see that no temporary is left.
    size_t DirEntries() { return ListFiles(m_tree.Dir()).size(); }

    TempTree m_tree{"cfg"};
    const std::string m_dir = m_tree.Root(), m_path = m_dir + "/TalvorConfig.ini";
    TALVORCRITICALSECTION m_crit;
};


// A text taken from the string's own buffer must survive the reallocation.
TEST(ConfigTString, SetValueFromItsOwnBuffer)
{
    ConfigHelper::TString t;
    ASSERT_TRUE(t.SetValue(std::string(100, 'x').c_str()));
    ASSERT_TRUE(t.SetValue(t.m_pData + 10, 50));
    EXPECT_EQ(std::string(t.c_str()), std::string(50, 'x'));
}


// A text is cut to iSize - 1 and terminated; an empty value is a value, not the default.
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

// Integers: both readers read a value as the decimal parser reads SQL text.
// The tree keeps a "#" and a tab in a value where the file-direct reader cuts
// and trims; an integer reads the same through both all the same. strtol read
// "1e3" as 1 and "12abc" as 12. Values longer than any fixed buffer are read
// whole: cut, the first four would read as 1, 0, 0 and 12.
TEST_F(ConfigTest, BothReadersReadIntegersLikeTheDecimalParser)
{
    const std::string strZeros(100, '0');
    ExpectInts({
        {"1." + strZeros + "e5", 100000}, {strZeros + strZeros + "7", 7}, {"-" + strZeros + "123", -123},
        {"12" + std::string(80, ' ') + "x", 0},
        // A fraction is cut, not rounded.
        {"+42", 42}, {"  17  ", 17}, {"\t17", 17}, {"-12.9", -12}, {"-0.9", 0},
        {"1e3", 1000}, {"0x1F", 31}, {"-0x10", -16}, {"b'101'", 5},
        {"2147483647", INT_MAX}, {"2147483648", INT_MAX}, {"-2147483648", INT_MIN}, {"-2147483649", INT_MIN},
        {"99999999999999999999999999999999999999999", INT_MAX},  // held at the limit, never wrapped
        {"12abc", 0}, {"", 0}, {"- 5", 0}, {"1 2", 0},
        {"12 # port", 12}, {"# 12", 0}, {"1#2", 1},  // a comment is no part of a number
    });
}

// Generated numbers (signs, blanks, fractions, exponents, values past the
// range) against int(Decimal(text)) held at the int limits.
TEST_F(ConfigTest, GeneratedIntegersAgainstPythonDecimal)
{
    const char* const kReference = R"PY(
import sys
from decimal import Decimal
for line in sys.stdin:
    v = int(Decimal(line.strip()))
    print(max(-2**31, min(2**31 - 1, v)))
)PY";
    std::mt19937_64 rng(8021);
    std::vector<std::string> vValues;
    for (int i = 0; i < 600; ++i) {
        std::string s;
        if (rng() % 3 == 0) s += rng() % 2 ? "-" : "+";
        int nDigits = 1 + (int)(rng() % 14);
        for (int d = 0; d < nDigits; ++d) s += (char)('0' + rng() % 10);
        if (rng() % 3 == 0) {
            s += ".";
            for (int d = (int)(rng() % 5); d >= 0; --d) s += (char)('0' + rng() % 10);
        }
        if (rng() % 4 == 0) s += "e" + std::string(rng() % 2 ? "-" : "") + std::to_string(rng() % 12);
        vValues.push_back(std::string(rng() % 3, ' ') + s + std::string(rng() % 3, ' '));
    }
    std::vector<std::string> vRef = RunPythonReference(kReference, vValues);
    ASSERT_EQ(vRef.size(), vValues.size());
    std::vector<std::pair<std::string, int>> vCases;
    for (size_t i = 0; i < vValues.size(); ++i) vCases.push_back({vValues[i], std::stoi(vRef[i])});
    ExpectInts(vCases);
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
    {"ReplaceIndentedCaseFolded", "[ sys ]\n  A = 1 \nb=2\n", "SYS", "a", "x y", "[ sys ]\na=x y\r\nb=2\n"},
    // B: insert in front of the next head (comments above it stay above the new line).
    {"InsertBeforeHeadLf", "[S]\na=1\n\n# next\n[T]\nx=1\n", "S", "n", "5",
     "[S]\na=1\n\n# next\nn=5\r\n[T]\nx=1\n"},
    {"KeyOfLaterSectionUntouched", "[S]\na=1\n[T]\nb=1\n", "S", "b", "2", "[S]\na=1\nb=2\r\n[T]\nb=1\n"},
    {"InsertIntoEmptySection", "[S]\n[T]\nk=1\n", "S", "k", "2", "[S]\nk=2\r\n[T]\nk=1\n"},
    // C: append to the last section.
    {"AppendLf", "[S]\na=1\n", "S", "n", "5", "[S]\na=1\n\r\nn=5"},
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

// File-direct: a key is replaced where it stands; a value or name that would
// break the file's lines is refused with nothing written.
TEST_F(ConfigTest, ProfileWriteEditsInPlaceAndRefusesBrokenNames)
{
    ASSERT_TRUE(WriteWholeFile(m_path, "[System]\r\n  language = 0 # old\r\nother=1\r\n\r\n[Next]\r\nx=1"));
    ASSERT_TRUE(WritePrivateProfileString("system", "LANGUAGE", "2", m_path.c_str()));
    const std::string before = "[System]\r\n  LANGUAGE=2\r\nother=1\r\n\r\n[Next]\r\nx=1";
    EXPECT_EQ(Disk(), before);
    EXPECT_FALSE(WritePrivateProfileString("S", "k", "two\nlines", m_path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("S]", "k", "v", m_path.c_str()));
    EXPECT_FALSE(WritePrivateProfileString("S", "k=", "v", m_path.c_str()));
    EXPECT_EQ(Disk(), before);
}


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

class ConfigIniTest : public ConfigTest {
protected:
    void TearDown() override
    {
        CTalvorFileIO::Install(nullptr);
        ConfigTest::TearDown();
    }
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

    FaultFileIO m_io;
    std::atomic<int> m_nLocks{0};
    std::atomic<int> m_nWholeReads{0};
    std::function<void(int)> m_onLock;
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

    ASSERT_TRUE(WriteWholeFile(m_path, ""));
    m_onLock = nullptr;
    EXPECT_FALSE(TalvorConfigInit(m_path.c_str()));
    EXPECT_EQ(ProfileInt("S", "a"), -1);

    // The file-direct writer keeps what a late writer put there.
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
    {"HeadPaddedWithTabs", "[System]\nk=1\n\t[\tConfig\t]\t\nk=2\n", "Config", "k", 2, "System", "k", 1},
    {"UnclosedHeadIsNoHead", "[System]\nk=1\n[Config\nk=2\n", "System", "k", 1, "Config", "k", -1},
    {"CommentedHeadIsNoHead", "[System]\nk=1\n#[Config]\nk=2\n", "System", "k", 1, "Config", "k", -1},
    {"LoneCrLineEnds", "[System]\rk=1\r[Config] ; c\rk=2\r", "Config", "k", 2, "System", "k", 1},
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
