// The daemon's own trace: the queue from many threads to one writer, its
// bound, teardown while others trace, and retention of the files by count
// and by total size over one series at a time.
#include "TraceLogFixture.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <thread>
#include <unistd.h>

using namespace talvortest;

namespace {

class TraceLog : public TraceLogFixture {
protected:
    // Names with distinct stamps, in the order of their stamps.
    static std::string ServiceName(int i)
    {
        char sz[64];
        snprintf(sz, sizeof(sz), "TalvorService2024%02d%02d120000.log", 1 + i / 28, 1 + i % 28);
        return sz;
    }
    void StartWriter() { ASSERT_EQ(0, CLogManager::instance().StartTraceThreads(FALSE)); }
    // Waits for the writer to empty the queue, then stops it.
    bool DrainAndStop()
    {
        bool bDrained = WaitUntil([] { return CLogManager::instance().GetQueuedBytes() == 0; }, 20000);
        CLogManager::instance().StopTraceThreads(30);
        return bDrained;
    }
};

// The heart of the queue: every line of every producer arrives once, whole,
// and in its producer's order, also across the switches of the file at its
// size limit (files opened within one second must not empty each other).
TEST_F(TraceLog, ManyThreadsGiveExactlyAllLinesIntactAcrossFileSwitches)
{
    const int N = 8, M = 2000;
    const size_t nMax = 65536;
    UseFileMaxSize((int)nMax);
    StartWriter();
    std::vector<std::thread> threads;
    std::atomic<int> nReady{0};
    auto Text = [](int t, int i) { return "T" + std::to_string(t) + "-L" + std::to_string(i) + "-" + std::string(t * 37 % 200, 'a' + t); };
    for (int t = 0; t < N; t++)
        threads.emplace_back([t, &nReady] {
            for (nReady++; nReady.load() < N;) std::this_thread::yield();
            std::string strPad(t * 37 % 200, 'a' + t);
            for (int i = 0; i < M; i++) Trace("Producer", 3, 20000000 + t, "T%d-L%d-%s", t, i, strPad.c_str());
        });
    for (std::thread& th : threads) th.join();
    ASSERT_TRUE(DrainAndStop());
    CLogManager::instance().WriteAllTrace();
    // About 2.4 MB of lines: some 37 files, fewer than the 50 the series keeps.
    std::vector<std::string> files = Series("TalvorStorage");
    ASSERT_GE(files.size(), 10u);
    std::vector<int> vNext(N, 0);
    for (size_t i = 0; i < files.size(); i++) {
        std::string strBody = BodyOf(ReadWholeFile(files[i]));
        // A file closes once it holds the limit, with the line that crossed it.
        EXPECT_TRUE(i + 1 == files.size() || (strBody.size() >= nMax && strBody.size() < nMax + 512)) << files[i] << ": " << strBody.size();
        std::vector<TraceLine> lines;
        ASSERT_TRUE(ParseLines(strBody, lines)) << files[i];
        for (const TraceLine& line : lines) {
            int t = (int)(line.m_nCode - 20000000);
            ASSERT_TRUE(t >= 0 && t < N) << line.m_strText;
            ASSERT_EQ(Text(t, vNext[t]++), line.m_strText);
        }
    }
    for (int t = 0; t < N; t++) EXPECT_EQ(M, vNext[t]);
    EXPECT_EQ(0u, CLogManager::instance().GetDroppedLines());
}

TEST_F(TraceLog, FullQueueDropsAndSaysHowMany)
{
    const long long nLimit = 64 * 1024;
    CLogManager::instance().SetQueueLimit(nLimit);
    const int nLines = 5000;
    std::string strText(100, 'q');
    for (int i = 0; i < nLines; i++) Trace0("Storm", 3, 1, strText.c_str());
    EXPECT_LE(CLogManager::instance().GetQueuedBytes(), nLimit);
    UINT nDropped = CLogManager::instance().GetDroppedLines();
    ASSERT_GT(nDropped, 0u);
    std::vector<TraceLine> lines = DaemonLines();
    int nKept = 0;
    for (const TraceLine& line : lines) nKept += line.m_strText == strText;
    EXPECT_EQ(nLines, nKept + (int)nDropped);
    EXPECT_TRUE(HasText(lines, 20010011, "The trace queue was full (65536 bytes): " + std::to_string(nDropped) + " lines were dropped"));
    EXPECT_EQ(0u, CLogManager::instance().GetDroppedLines());
}

// Teardown while other threads trace: no line may touch a freed manager,
// and every line is written whole once, or counted in a note of the lines
// the queue dropped or could not write; a line traced after a teardown
// makes the manager anew and is kept. Each thread traces a few numbered
// lines in every generation of the manager, so the work stays bounded
// however slowly the machine runs.
TEST_F(TraceLog, TeardownWhileOthersTraceIsSafe)
{
    const int THREADS = 3, CYCLES = 150, LINES_PER_CYCLE = 12;
    std::atomic<int> nCycle{0};
    std::atomic<bool> bStop{false};
    std::atomic<long long> nCalls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&, t] {
            long long nSeq = 0;
            for (int nSeen = -1, nNow; !bStop.load();) {
                if ((nNow = nCycle.load()) == nSeen) {
                    std::this_thread::sleep_for(std::chrono::microseconds(50));
                    continue;
                }
                nSeen = nNow;
                // Spread over the generation, so that some lines meet its teardown.
                for (int i = 0; i < LINES_PER_CYCLE && !bStop.load(); i++) {
                    Trace("Busy", 3, 1, "busy %d %lld", t, nSeq++), nCalls++;
                    std::this_thread::sleep_for(std::chrono::microseconds(60));
                }
            }
        });
    // Every generation leaves a file of its own, and the series keeps only
    // the last 50: the files are read and removed as they are closed.
    std::map<std::pair<int, long long>, int> mapSeen;
    long long nAccounted = 0;
    size_t nTorn = 0;
    auto Harvest = [&] {
        for (const std::string& strFile : Series("TalvorStorage")) {
            std::vector<TraceLine> lines;
            nTorn += !ParseLines(BodyOf(ReadWholeFile(strFile)), lines);
            unlink(strFile.c_str());
            for (const TraceLine& line : lines) {
                const char* lpText = line.m_strText.c_str();
                int t = -1;
                long long nSeq = -1;
                char cAfter = 0;
                unsigned nCount = 0;
                if (sscanf(lpText, "busy %d %lld%c", &t, &nSeq, &cAfter) == 2 && t >= 0 && t < THREADS)
                    mapSeen[{t, nSeq}]++;
                else if (sscanf(lpText, "The trace queue was full (%*d bytes): %u lines were dropped", &nCount) == 1 ||
                         sscanf(lpText, "%u trace lines were lost", &nCount) == 1)
                    nAccounted += nCount;
                else
                    nTorn += line.m_strText.compare(0, 5, "busy ") == 0; // a torn text
            }
        }
    };
    for (int i = 0; i < CYCLES; i++, nCycle++) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        ExitLogSystem();
        Harvest();
        ASSERT_NE(nullptr, CLogManager::GetInstancePtr());
        CLogManager::instance().Init();
    }
    bStop = true;
    for (std::thread& th : threads) th.join();
    ExitLogSystem();
    Harvest();
    EXPECT_GT(nCalls.load(), 30);
    EXPECT_LE(nCalls.load(), (long long)THREADS * LINES_PER_CYCLE * (CYCLES + 1));
    EXPECT_EQ(0u, nTorn) << "torn lines";
    for (const auto& seen : mapSeen)
        EXPECT_EQ(1, seen.second) << "line " << seen.first.first << " " << seen.first.second << " written more than once";
    EXPECT_EQ(nCalls.load(), (long long)mapSeen.size() + nAccounted);
}

// Retention over one series: above 50 files or 1000 MiB the oldest by change
// time go (a name that sorts last may be the oldest); at the limits nothing
// goes; the other series is not counted; and a total past
// 4 GiB is not hidden by a 32-bit sum (4.5 GiB would read as 0.5 GiB).
TEST_F(TraceLog, RetentionByCountAndSizeRemovesTheOldestUntilWithin)
{
    const long long MIB = 1LL << 20;
    struct File {
        std::string m_strName;
        long long m_nSize;
    };
    struct Case {
        const char* m_lpWhat;
        const char* m_lpSeries;
        std::vector<File> m_vFiles;  // oldest first, a tick apart
        size_t m_nLeft;
        std::vector<std::string> m_vGone;
    };
    std::vector<File> vFifty;
    for (int i = 0; i < 50; i++) vFifty.push_back({ServiceName(i), 10});
    std::vector<File> vOverCount = {{"TalvorService20991231235959.log", 10}};
    vOverCount.insert(vOverCount.end(), vFifty.begin(), vFifty.end());
    for (int i = 0; i < 5; i++) vOverCount.push_back({"TalvorStorage2020010100000" + std::to_string(i) + ".log", 10});
    const Case arCases[] = {
        {"count over fifty", "TalvorService", vOverCount, 50, {"TalvorService20991231235959.log"}},
        {"fifty files", "TalvorService", vFifty, 50, {}},
        {"exactly 1000 MiB", "TalvorStorage",
         {{"TalvorStorage20240101000000.log", 500 * MIB}, {"TalvorStorage20240101000001.log", 500 * MIB}}, 2, {}},
        {"past 4 GiB", "TalvorService",
         {{"TalvorService20240101000000.log", 2048 * MIB},
          {"TalvorService20240101000001.log", 2048 * MIB},
          {"TalvorService20240101000002.log", 512 * MIB}},
         1, {"TalvorService20240101000000.log", "TalvorService20240101000001.log"}},
    };
    for (const Case& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        size_t nOther = 0;
        for (size_t i = 0; i < c.m_vFiles.size(); i++) {
            const File& f = c.m_vFiles[i];
            // A file of the given size is sparse: no blocks written.
            const std::string strPath = LogDir() + f.m_strName;
            ASSERT_TRUE(WriteWholeFile(strPath, "") && truncate(strPath.c_str(), f.m_nSize) == 0) << strPath;
            if (f.m_strName.rfind(c.m_lpSeries, 0) != 0) nOther++;
            // Change times of a few files, or of the first, must differ.
            if (i == 0 || c.m_vFiles.size() <= 3) std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
        ASSERT_TRUE(CLogManager::instance().LogFileManage((std::string(c.m_lpSeries) + "*").c_str()));
        EXPECT_EQ(c.m_nLeft, Series(c.m_lpSeries).size());
        for (const std::string& strGone : c.m_vGone) EXPECT_FALSE(PathExists(LogDir() + strGone)) << strGone;
        EXPECT_EQ(nOther, ListFiles(LogDir(), "").size() - Series(c.m_lpSeries).size()) << "the other series does not count";
        for (const File& f : c.m_vFiles) unlink((LogDir() + f.m_strName).c_str());
    }
}

} // namespace
