// PeerCacheCheck.cpp — the job "cache-check": after the daemon stopped,
// every block the cache job posted (post_F_N.bin of its --dump-dir) is
// compared with the block where the file's map on disk places it, as the
// daemon must have written it. It says so block by block.
#include "PeerArgs.h"
#include "PeerCache.h"
#include "PeerJobs.h"

#include <dirent.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace talvorpeer {

namespace {

const std::vector<OptionSpec> g_vCheckOptions = {
    {"data-dir", true, "the database directory (TableF.dbf / IndexF.dbf)"},
    {"dump-dir", true, "the --dump-dir of the cache job"},
};

bool ReadAll(const std::string& strPath, std::string* pstrData)
{
    std::ifstream in(strPath, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    *pstrData = ss.str();
    return true;
}

// "post_F_N.bin" -> F, N.
bool ParsePosted(const char* lpszName, int* pnFile, unsigned* pnBlock)
{
    char szTail[8] = {0};
    return sscanf(lpszName, "post_%d_%u%7s", pnFile, pnBlock, szTail) == 3 && strcmp(szTail, ".bin") == 0 &&
           *pnFile > 0 && *pnFile < 256 && *pnBlock > 0;
}

} // namespace

long long PeerCacheDiskBlockOffset(const std::string& strFile, UINT nBlockNo)
{
    if (strFile.size() < 2 * (size_t)CACHE_PAGE_SIZE) return -1;
    const TABLEFILEHEAD* lpHead = (const TABLEFILEHEAD*)strFile.data();
    long long llMap = lpHead->m_nBlockMapStartOffset;
    int nMax = lpHead->m_nMaxBlockMapNum;
    if (llMap <= 0 || llMap + CACHE_PAGE_SIZE > (long long)strFile.size() || nBlockNo == 0 || (int)nBlockNo > nMax)
        return -1;
    const BASEFILEBLOCKMAPHEAD_CACHE* lpMap = (const BASEFILEBLOCKMAPHEAD_CACHE*)(strFile.data() + llMap);
    if (lpMap->m_nDataFlag != BLOCKMAP_CACHE_DATAFLAG || (int)nBlockNo > lpMap->m_nBlockMapNum) return -1;
    long long llAt = lpMap->m_pBlockMap[nBlockNo - 1].m_nBlockOffset;
    if (lpMap->m_pBlockMap[nBlockNo - 1].m_nBlockNo != nBlockNo || llAt <= 0 ||
        llAt + PEERCACHE_BLOCK_SIZE > (long long)strFile.size())
        return -1;
    return llAt;
}

std::string CacheCheckJobUsage()
{
    return "usage: talvor-peer cache-check --data-dir DIR --dump-dir DIR\n"
           "Compares every block the cache job posted with the file on disk; prints one line a block\n"
           "and \"checked N blocks, M differ\".\n\n" +
           DescribeOptions(g_vCheckOptions);
}

int RunCacheCheckJob(const std::vector<std::string>& args)
{
    CPeerArgs opts;
    if (!opts.Parse(args, g_vCheckOptions) || !opts.Has("data-dir") || !opts.Has("dump-dir")) {
        fprintf(stderr, "talvor-peer cache-check: %s\n%s", opts.Error().empty() ? "both directories are needed" : opts.Error().c_str(),
                CacheCheckJobUsage().c_str());
        return PEER_USAGE;
    }
    std::string strData = opts.GetString("data-dir", "") + "/";
    std::string strDump = opts.GetString("dump-dir", "");
    DIR* pDir = opendir(strDump.c_str());
    if (pDir == nullptr) {
        fprintf(stderr, "talvor-peer cache-check: cannot read %s\n", strDump.c_str());
        return PEER_INPUT;
    }
    std::map<std::pair<int, unsigned>, std::string> mapPosted;
    for (struct dirent* e = readdir(pDir); e != nullptr; e = readdir(pDir)) {
        int nFile = 0;
        unsigned nBlock = 0;
        if (ParsePosted(e->d_name, &nFile, &nBlock)) mapPosted[{nFile, nBlock}] = strDump + "/" + e->d_name;
    }
    closedir(pDir);
    std::map<int, std::string> mapFiles;
    int nDiffer = 0;
    for (const auto& it : mapPosted) {
        int nFile = it.first.first;
        if (mapFiles.count(nFile) == 0) {
            std::string strBytes;
            for (const char* lpKind : {"Table", "Index"})
                if (strBytes.empty()) ReadAll(strData + lpKind + std::to_string(nFile) + ".dbf", &strBytes);
            mapFiles[nFile] = strBytes;
        }
        const std::string& strFile = mapFiles[nFile];
        std::string strPosted;
        long long llAt = PeerCacheDiskBlockOffset(strFile, it.first.second);
        bool bSame = false;
        if (llAt > 0 && ReadAll(it.second, &strPosted) && strPosted.size() == (size_t)PEERCACHE_BLOCK_SIZE) {
            PeerCacheDiskImage((LPBYTE)&strPosted[0]);
            bSame = strFile.compare((size_t)llAt, (size_t)PEERCACHE_BLOCK_SIZE, strPosted) == 0;
        }
        long long llTs = strPosted.size() >= sizeof(BASEBLOCKHEAD) ? ((const BASEBLOCKHEAD*)strPosted.data())->m_nTimestamp : -1;
        printf("file %d block %u at %lld: %s (timestamp %lld)\n", nFile, it.first.second, llAt,
               bSame ? "on disk as posted" : "DIFFERS", llTs);
        if (!bSame) nDiffer++;
    }
    printf("checked %zu blocks, %d differ\n", mapPosted.size(), nDiffer);
    return nDiffer == 0 && !mapPosted.empty() ? PEER_OK : PEER_INPUT;
}

} // namespace talvorpeer
