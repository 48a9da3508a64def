// PeerJoinFiles.cpp — the refusals of a joining node.
#include "PeerJoinFiles.h"

#include "DbFileLayout.h"
#include "MemDBCommonDef.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <cstring>

namespace talvorpeer {

namespace {

const size_t LONGEST_NAME = 128;

bool NameChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

bool KnownFileType(BYTE bType)
{
    return bType == FILETYPE_SYSTEM || bType == FILETYPE_DATA || bType == FILETYPE_BTREEINDEX ||
           bType == FILETYPE_KVINDEX || bType == FILETYPE_TABLE || bType == FILETYPE_INDEX;
}

} // namespace

bool JoinFileName(const char* lpPath, size_t nField, std::string& strName, std::string& strWhy)
{
    size_t nLen = strnlen(lpPath, nField);
    if (nLen == nField) {
        strWhy = "path without an end";
        return false;
    }
    std::string strPath(lpPath, nLen);
    // Every part is looked at, not only the last: a path that climbs is a
    // sender that is not to be trusted with any of it.
    for (size_t nAt = 0; nAt <= strPath.size();) {
        size_t nEnd = strPath.find('/', nAt);
        if (nEnd == std::string::npos) nEnd = strPath.size();
        if (strPath.compare(nAt, nEnd - nAt, "..") == 0) {
            strWhy = "path climbs out: " + strPath;
            return false;
        }
        nAt = nEnd + 1;
    }
    size_t nSlash = strPath.rfind('/');
    strName = nSlash == std::string::npos ? strPath : strPath.substr(nSlash + 1);
    if (strName.empty() || strName == "." || strName.size() > LONGEST_NAME) {
        strWhy = "no usable file name: " + strPath;
        return false;
    }
    for (char c : strName) {
        if (!NameChar(c)) {
            strWhy = "file name with a character not taken: " + strPath;
            return false;
        }
    }
    return true;
}

bool JoinInfoAllowed(const MF_MASTERSLAVE_FILEINFO& stInfo, const MF_CLUSTER_FILETRANSFER& stParam,
                     const JoinLimits& stLimits, std::string& strWhy)
{
    if (stInfo.m_bFileNo == 0 || stInfo.m_bFileNo != stParam.m_bFileNo) {
        strWhy = "file numbers of head and information differ or are 0";
        return false;
    }
    if (!KnownFileType(stInfo.m_bFileType)) {
        strWhy = "unknown file type " + std::to_string(stInfo.m_bFileType);
        return false;
    }
    if (stInfo.m_nFileSize <= 0 || stInfo.m_nFileSize > stLimits.m_nMaxFileSize) {
        strWhy = "file size " + std::to_string(stInfo.m_nFileSize) + " out of bounds";
        return false;
    }
    if (stInfo.m_nFileFreeMemoryOffset < 0 || stInfo.m_nFileFreeMemoryOffset > stInfo.m_nFileSize) {
        strWhy = "used bytes " + std::to_string(stInfo.m_nFileFreeMemoryOffset) + " out of the file";
        return false;
    }
    if (strnlen(stInfo.m_lpszTablespaceName, sizeof(stInfo.m_lpszTablespaceName)) == sizeof(stInfo.m_lpszTablespaceName)) {
        strWhy = "tablespace name without an end";
        return false;
    }
    return true;
}

bool JoinPieceAllowed(const JoinFileInHand& stFile, const MF_CLUSTER_FILETRANSFER& stParam, UINT nLength,
                      const JoinLimits& stLimits, std::string& strWhy)
{
    if (!stFile.m_bOpen || stParam.m_bFileNo != stFile.m_bFileNo) {
        strWhy = "a piece of no file in hand";
        return false;
    }
    if (stParam.m_bDataType != FILETRANSFER_DATA && stParam.m_bDataType != FILETRANSFER_LAST) {
        strWhy = "unknown data type " + std::to_string(stParam.m_bDataType);
        return false;
    }
    if (stParam.m_llFileOffset != stFile.m_nNext) {
        strWhy = "piece at " + std::to_string(stParam.m_llFileOffset) + ", expected " + std::to_string(stFile.m_nNext);
        return false;
    }
    if (nLength == 0 || nLength > stLimits.m_nMaxPiece) {
        strWhy = "piece of " + std::to_string(nLength) + " bytes out of bounds";
        return false;
    }
    long long nEnd = stParam.m_llFileOffset + (long long)nLength;
    bool bLast = stParam.m_bDataType == FILETRANSFER_LAST;
    if (nEnd > stFile.m_nFree || (bLast && nEnd != stFile.m_nFree) || (!bLast && nEnd == stFile.m_nFree)) {
        strWhy = "piece ending at " + std::to_string(nEnd) + " against " + std::to_string(stFile.m_nFree) + " used bytes";
        return false;
    }
    return true;
}

bool JoinRelocateSystemFile(const std::string& strSystemPath, const std::string& strDir, std::string& strWhy)
{
    int fd = open(strSystemPath.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < (off_t)sizeof(SYSTEMFILEHEAD)) {
        strWhy = "cannot read the system file " + strSystemPath;
        if (fd >= 0) close(fd);
        return false;
    }
    std::vector<BYTE> vFile((size_t)st.st_size);
    bool bDone = pread(fd, vFile.data(), vFile.size(), 0) == (ssize_t)vFile.size();
    bool bFits = true;
    int nResult = DBCHAIN_OK;
    if (bDone) {
        nResult = DbForEachFileListRow(vFile.data(), (long long)vFile.size(), [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
            char szPath[sizeof(lpRow->m_lpszFilePath) + 1] = {0};
            memcpy(szPath, lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath));
            const char* lpName = strrchr(szPath, '/');
            std::string strNew = strDir + (lpName != nullptr ? lpName + 1 : szPath);
            if (strNew.size() >= sizeof(lpRow->m_lpszFilePath)) {
                bFits = false;
                return false;
            }
            memset(lpRow->m_lpszFilePath, 0, sizeof(lpRow->m_lpszFilePath));
            memcpy(lpRow->m_lpszFilePath, strNew.data(), strNew.size());
            return true;
        });
    }
    LPSYSTEMFILEHEAD lpHead = (LPSYSTEMFILEHEAD)vFile.data();
    bFits = bFits && strDir.size() < sizeof(lpHead->m_cDatabasePath);
    if (bDone && nResult == DBCHAIN_OK && bFits) {
        memset(lpHead->m_cDatabasePath, 0, sizeof(lpHead->m_cDatabasePath));
        memcpy(lpHead->m_cDatabasePath, strDir.data(), strDir.size());
        bDone = pwrite(fd, vFile.data(), vFile.size(), 0) == (ssize_t)vFile.size() && fsync(fd) == 0;
    }
    close(fd);
    if (!bDone || nResult != DBCHAIN_OK || !bFits) {
        strWhy = !bFits ? "a path of the copy would not fit" : nResult != DBCHAIN_OK ? "the file list is damaged" : "cannot rewrite the system file";
        return false;
    }
    return true;
}

} // namespace talvorpeer
