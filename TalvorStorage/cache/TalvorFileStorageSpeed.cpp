// TalvorFileStorageSpeed.cpp — the read speed test of a cache-mode file on
// an operator's command: 4 GiB read in one of ten patterns, timed.
#include "TalvorFileStorage.h"

#include "TalvorCacheStorage.h"
#include "TalvorTrace.h"

#include <cstdio>
#include <cstdlib>
#include <sys/time.h>

namespace {

const long long SPEED_TOTAL_BYTES = 4LL * 1024 * 1048576;
const int SPEED_SMALL_READ = 16384;
const int SPEED_LARGE_READ = 262144;
const int SPEED_TYPE_OWN_BUFFER = 100;
const int SPEED_TYPE_RANDOM = 8;
const int SPEED_TYPE_LARGE = 9;
const unsigned SPEED_RANDOM_SEED = 100;

// One pattern: read size, reads, step from one read to the next, where a
// wrap starts again, its failure code and its title.
struct SpeedPattern {
    int nReadSize;
    long long nReads;
    long long nStep;
    long long nWrapStart;
    LONG nFailCode;
    const char* lpszTitle;
};

bool PatternOf(int nType, int nBufferSize, SpeedPattern& stPattern)
{
    static const int arSkip[] = {0, 1, 2, 3, 7, 15, 31};
    static const char* arTitle[] = {"以%dKB方式顺序读取",    "以%dKB方式间隔读取",    "以%dKB方式间隔2块读取",
                                    "以%dKB方式间隔3块读取", "以%dKB方式间隔7块读取", "以%dKB方式间隔15块读取",
                                    "以%dKB方式间隔31块读取"};
    if (nType >= 1 && nType <= 7) {
        stPattern = {SPEED_SMALL_READ, SPEED_TOTAL_BYTES / SPEED_SMALL_READ,
                     (long long)SPEED_SMALL_READ * (1 + arSkip[nType - 1]), nType == 1 ? 0 : SPEED_SMALL_READ,
                     nType == 1 ? 80010001 : 80010002, arTitle[nType - 1]};
        return true;
    }
    if (nType == SPEED_TYPE_RANDOM) {
        stPattern = {SPEED_SMALL_READ, SPEED_TOTAL_BYTES / SPEED_SMALL_READ, 0, 0, 80010003, "以%dKB方式随机读取"};
        return true;
    }
    if (nType == SPEED_TYPE_LARGE) {
        stPattern = {SPEED_LARGE_READ, SPEED_TOTAL_BYTES / SPEED_LARGE_READ, SPEED_LARGE_READ, 0, 80010004,
                     "以%dKB方式顺序读取"};
        return true;
    }
    if (nType == SPEED_TYPE_OWN_BUFFER) {
        int nSize = nBufferSize / 1024 * 1024;
        if (nSize <= 0) return false;
        stPattern = {nSize, (SPEED_TOTAL_BYTES + nSize - 1) / nSize, nSize, 0, 80010005, "以%dKB方式顺序读取"};
        return true;
    }
    return false;
}

double SecondsSince(const timeval& tStart)
{
    timeval tEnd;
    gettimeofday(&tEnd, nullptr);
    return (double)(tEnd.tv_sec - tStart.tv_sec) + (double)(tEnd.tv_usec - tStart.tv_usec) / 1e6;
}

} // namespace

void CTalvorFileStorage::TestSpeed(LPTALVORCRITICALSECTION lpCritSection, LPBYTE lpBuffer, int nType,
                                   int nBufferSize)
{
    if (m_pFileInfo == nullptr) return;
    CTalvorCriticalSectionPtr lock(&m_crit, lpCritSection);
    SpeedPattern stPattern = {0, 0, 0, 0, 0, "以%dKB方式顺序读取"};
    bool bKnown = PatternOf(nType, nBufferSize, stPattern);
    long long llFileSize = m_pFileInfo->m_liFileSize;
    // A file too small for one read after a wrap would read the same place
    // for ever: nothing is read then.
    if (bKnown && llFileSize < stPattern.nWrapStart + 2LL * stPattern.nReadSize) bKnown = false;
    LPBYTE lpOwn = nullptr;
    if (bKnown && (nType == SPEED_TYPE_OWN_BUFFER || stPattern.nReadSize > SPEED_LARGE_READ || lpBuffer == nullptr)) {
        lpOwn = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer((size_t)stPattern.nReadSize);
        if (lpOwn == nullptr) bKnown = false;
        lpBuffer = lpOwn;
    }
    char szTitle[64];
    snprintf(szTitle, sizeof(szTitle), stPattern.lpszTitle, stPattern.nReadSize / 1024);
    long long nBlocks = llFileSize / SPEED_SMALL_READ;
    srand(SPEED_RANDOM_SEED);
    timeval tStart;
    gettimeofday(&tStart, nullptr);
    long long nDoneReads = 0, llPos = 0;
    for (; bKnown && nDoneReads < stPattern.nReads; nDoneReads++) {
        if (nType == SPEED_TYPE_RANDOM) {
            // Random places, kept inside the file so that no read meets its end.
            llPos = (long long)((unsigned)abs(rand()) >> 14) % nBlocks * SPEED_SMALL_READ;
        } else if (llPos + stPattern.nReadSize >= llFileSize) {
            llPos = stPattern.nWrapStart;
        }
        int nErr = 0;
        long long nGot = 0;
        if (!ReadTries(Fd(), lpBuffer, stPattern.nReadSize, llPos, nErr, nGot)) {
            Trace("TestSpeed", 1, stPattern.nFailCode,
                  TALVOR_TEXT("从物理文件读取数据失败,错误码:%d,路径:%s,读取位置:%lld,读取大小:%d",
                              "Failed to read data from physical file, error code: %d, path: %s, read location: %lld, read size: %d"),
                  nErr, Path(), llPos, stPattern.nReadSize);
            free(lpOwn);
            return;
        }
        if (nType != SPEED_TYPE_RANDOM) llPos += stPattern.nStep;
    }
    double dSeconds = SecondsSince(tStart);
    free(lpOwn);
    Trace("TestSpeed", 1, 80010000,
          TALVOR_TEXT("物理文件读取测试[%s]完成,路径:%s,读取大小:4GB,读取次数:%d,读取时间:%.6f秒,读取速度:%.2fMBps",
                      "Physical file reading test [%s] completed, path: %s, read size: 4GB, read times: %d, read time: %.6f seconds, read speed: %.2fMBps"),
          szTitle, Path(), (int)nDoneReads, dSeconds, dSeconds > 0 ? 4096.0 / dSeconds : 0.0);
}
