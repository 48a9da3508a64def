// TempTree.cpp — a fresh directory under /tmp, removed depth first.
#include "TempTree.h"

#include "TestFiles.h"

#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace talvortest {

namespace {

const char TREE_PREFIX[] = "/tmp/talvor-";
const int NFTW_OPEN_DIRS = 16;

// Goes on past what cannot be removed: the rest still goes.
int RemoveEntry(const char* lpPath, const struct stat*, int, struct FTW*)
{
    remove(lpPath);
    return 0;
}

} // namespace

void RemoveTree(const std::string& strPath)
{
    nftw(strPath.c_str(), RemoveEntry, NFTW_OPEN_DIRS, FTW_DEPTH | FTW_PHYS);
}

TempTree::TempTree(const char* lpTag)
{
    std::string strTemplate = std::string(TREE_PREFIX) + lpTag + "-XXXXXX";
    std::string strBuf = strTemplate;
    if (mkdtemp(&strBuf[0]) != nullptr) m_strRoot = strBuf;
}

TempTree::~TempTree()
{
    // Only what we made: a tree under /tmp/talvor-, never a link's target.
    if (m_strRoot.compare(0, strlen(TREE_PREFIX), TREE_PREFIX) != 0) return;
    if (getenv("TALVOR_KEEP_SANDBOX") != nullptr) return;
    RemoveTree(m_strRoot);
}

std::string TempTree::File(const std::string& strName, const std::string& strText) const
{
    std::string strPath = Path(strName);
    WriteWholeFile(strPath, strText);
    return strPath;
}

} // namespace talvortest
