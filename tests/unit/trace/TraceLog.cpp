// The daemon's own trace: the shape of a line, the queue from many threads
// to one writer, its bound, rotation of the file, and tracing before the log
// system exists and after it is gone.
#include "TraceLogFixture.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

using namespace talvortest;

namespace {

class TraceLog : public TraceLogFixture {
protected:
    void StartWriter() { ASSERT_EQ(0, CLogManager::instance().StartTraceThreads(FALSE)); }
    // Waits for the writer to empty the queue, then stops it.
    bool DrainAndStop(long long nMs = 20000)
    {
        bool bDrained = WaitUntil([] { return CLogManager::instance().GetQueuedBytes() == 0; }, nMs);
        CLogManager::instance().StopTraceThreads(30);
        return bDrained;
    }
};

TEST_F(TraceLog, LongTextAndLongTitleAreCutAtTheirBounds)
{
    std::string strLong(30000, 'x');
    strLong[20470] = 'E';
    strLong[20471] = 'Z';
    Trace("F", 1, 2, "%s", strLong.c_str());
    Trace0(std::string(300, 'f').c_str(), 3, 7, "the text");
    std::vector<TraceLine> lines = DaemonLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(20471u, lines[0].m_strText.size());
    EXPECT_EQ('E', lines[0].m_strText.back());
    // 127 characters of title (its "\r\n" included), then the text at once.
    std::string strBody = SeriesBody("TalvorStorage");
    size_t nLine = strBody.rfind("\r\n");
    ASSERT_NE(std::string::npos, nLine);
    EXPECT_EQ("the text", strBody.substr(nLine + 127));
    EXPECT_EQ('f', strBody[nLine + 126]);
}

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
    for (int t = 0; t < N; t++) {
        threads.emplace_back([t, &nReady] {
            nReady++;
            while (nReady.load() < N) std::this_thread::yield();
            std::string strPad(t * 37 % 200, 'a' + t);
            for (int i = 0; i < M; i++) Trace("Producer", 3, 20000000 + t, "T%d-L%d-%s", t, i, strPad.c_str());
        });
    }
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
        if (i + 1 < files.size())
            EXPECT_TRUE(strBody.size() >= nMax && strBody.size() < nMax + 512) << files[i] << ": " << strBody.size();
        std::vector<TraceLine> lines;
        ASSERT_TRUE(ParseLines(strBody, lines)) << files[i];
        for (const TraceLine& line : lines) {
            int t = (int)(line.m_nCode - 20000000);
            ASSERT_TRUE(t >= 0 && t < N) << line.m_strText;
            ASSERT_EQ("T" + std::to_string(t) + "-L" + std::to_string(vNext[t]++) + "-" + std::string(t * 37 % 200, 'a' + t),
                      line.m_strText);
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
    std::string strNote = "The trace queue was full (65536 bytes): " + std::to_string(nDropped) + " lines were dropped";
    EXPECT_TRUE(HasText(lines, 20010011, strNote));
    EXPECT_EQ(0u, CLogManager::instance().GetDroppedLines());
}

TEST_F(TraceLog, UnwritableLogDirectoryLosesLinesCountedAndTracingGoesOn)
{
    // A file where the database directory should be: nothing below it can
    // be made, not even by root.
    WriteWholeFile(m_strRoot + "/blocked", "x");
    UseIni("[System]\r\ndatabasepath=" + m_strRoot + "/blocked/\r\n");
    ASSERT_TRUE(InitLogSystem());
    StartWriter();
    for (int i = 0; i < 200; i++) Trace0("F", 3, i, "nowhere to go");
    ASSERT_TRUE(DrainAndStop(10000));

    // Once the directory can be written, the loss is told in the file.
    UseIni("[System]\r\ndatabasepath=" + m_strRoot + "/\r\n");
    ASSERT_TRUE(CLogManager::instance().Init());
    CLogManager::instance().m_nNextOpenTryMs = 0;
    Trace0("F", 3, 1, "back again");
    std::vector<TraceLine> lines = DaemonLines();
    EXPECT_TRUE(HasText(lines, 20010012, "200 trace lines were lost") && HasText(lines, 1, "back again"))
        << SeriesBody("TalvorStorage");
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
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([&, t] {
            long long nSeq = 0;
            int nSeen = -1;
            while (!bStop.load()) {
                int nNow = nCycle.load();
                if (nNow == nSeen) {
                    std::this_thread::sleep_for(std::chrono::microseconds(50));
                    continue;
                }
                nSeen = nNow;
                // Spread over the generation, so that some lines meet its
                // teardown.
                for (int i = 0; i < LINES_PER_CYCLE && !bStop.load(); i++) {
                    Trace("Busy", 3, 1, "busy %d %lld", t, nSeq++);
                    nCalls++;
                    std::this_thread::sleep_for(std::chrono::microseconds(60));
                }
            }
        });
    }
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
    for (int i = 0; i < CYCLES; i++) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        ExitLogSystem();
        Harvest();
        ASSERT_NE(nullptr, CLogManager::GetInstancePtr());
        CLogManager::instance().Init();
        nCycle++;
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

} // namespace
