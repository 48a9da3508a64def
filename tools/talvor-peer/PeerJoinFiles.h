// PeerJoinFiles.h — what a joining node takes from the node that copies
// the database to it, and what it refuses. Everything in a file's
// information and in a piece's parameters comes from the network: a path is
// never followed (only its last part is taken, in the node's own
// directory), and a size, an offset or a length past the node's bounds, or
// out of the order the copy must have, is refused before a byte is written.
#pragma once

#include "MemDBNodeDef.h"

#include <string>

namespace talvorpeer {

struct JoinLimits {
    long long m_nMaxFileSize = 16LL << 30;
    UINT m_nMaxPiece = 8u << 20;
};

// The file of the copy that is being received.
struct JoinFileInHand {
    bool m_bOpen = false;
    BYTE m_bFileNo = 0;
    long long m_nSize = 0;
    long long m_nFree = 0;  // the bytes that come
    long long m_nNext = 0;  // the offset the next piece must have
};

// The name the file at lpPath (a field of nField bytes) is taken under: the
// path's last part. False, with strWhy, when the field has no end, a part of
// the path is "..", or the name is empty, "." or "..", longer than 128, or
// holds anything but letters, digits, '.', '_' and '-'.
bool JoinFileName(const char* lpPath, size_t nField, std::string& strName, std::string& strWhy);

// Whether a file's information may be taken: the numbers of head and
// information agree and are not 0, a known file type, a size within the
// bounds, used bytes within the size, a tablespace name with an end.
bool JoinInfoAllowed(const MF_MASTERSLAVE_FILEINFO& stInfo, const MF_CLUSTER_FILETRANSFER& stParam,
                     const JoinLimits& stLimits, std::string& strWhy);

// Whether a piece of nLength bytes may be taken for the file in hand: the
// same file, the next offset, a length within the bound, within the used
// bytes, and the last piece exactly at their end.
bool JoinPieceAllowed(const JoinFileInHand& stFile, const MF_CLUSTER_FILETRANSFER& stParam, UINT nLength,
                      const JoinLimits& stLimits, std::string& strWhy);

// Makes the copied system file at strSystemPath name the node's own
// directory strDir (ending in '/'): the head's database path, and every
// row of the file list as strDir and the last part of its path, where the
// files were taken. A copy that still named the sending node's files would
// have a daemon started on it open those. False, with strWhy, when the file
// cannot be read, its list is damaged, or a path would not fit.
bool JoinRelocateSystemFile(const std::string& strSystemPath, const std::string& strDir, std::string& strWhy);

} // namespace talvorpeer
