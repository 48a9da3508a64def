// MkdbTool.h — the database maker: makes a new database as an installer
// would, and looks into the images of a running one.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

#include <string>
#include <vector>

namespace talvormkdb {

// One database file to make, in command-line order.
struct FileRequest {
    BYTE m_bFileType;
    long long m_nSizeMiB;
};

struct MakeRequest {
    std::string m_strDir;
    std::string m_strName = "Talvor";
    std::vector<FileRequest> m_vFiles;
    int m_nRedoGroups = 3;
    int m_nRedoSizeMiB = 16;
};

// Makes the database; 0 on success. Refuses (1) to touch an existing one.
int MakeDatabase(const MakeRequest& stRequest);

// Prints, for every file of the database in strDir, whether its image is
// in shared memory and whether it equals the file below the free offset and
// is zero above it; and the progress record of the channel. 0 when it could
// read the system file.
int InspectDatabase(const std::string& strDir);

// Copies the image of file bFileNo to strOut; 0, or 2 when there is none.
int DumpImage(int nFileNo, const std::string& strOut);
// The shared cache's first nBytes (all for a negative nBytes) into strOut;
// prints "cache size N". 2 when there is no cache.
int DumpCache(const std::string& strOut, long long nBytes);

} // namespace talvormkdb
