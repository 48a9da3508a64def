// talvor-mkdb — makes a new database in a directory, as the engine's
// installer would, and looks into the images of a running daemon.
//
//   talvor-mkdb --dir DIR [--name NAME] [--data-file MIB]... [--btree-file MIB]...
//               [--kv-file MIB]... [--table-file MIB]... [--index-file MIB]...
//               [--redo-groups N] [--redo-size MIB]
//
// --table-file and --index-file make cache-mode files (at least 4 MiB).
//   talvor-mkdb --inspect DIR
//   talvor-mkdb --dump-image FILENO OUT
//   talvor-mkdb --dump-cache OUT [BYTES]
#include "DbFileLayout.h"
#include "MkdbTool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace talvormkdb;

namespace {

void Usage()
{
    fprintf(stderr,
            "usage: talvor-mkdb --dir DIR [--name NAME] [--data-file MIB]... [--btree-file MIB]...\n"
            "                   [--kv-file MIB]... [--table-file MIB]... [--index-file MIB]...\n"
            "                   [--redo-groups N] [--redo-size MIB]\n"
            "       talvor-mkdb --inspect DIR\n"
            "       talvor-mkdb --dump-image FILENO OUT\n"
            "       talvor-mkdb --dump-cache OUT [BYTES]\n");
}

bool ParseNumber(const char* lpText, long long nMin, long long nMax, long long* pnValue)
{
    if (lpText == nullptr || *lpText == '\0') return false;
    char* lpEnd = nullptr;
    long long n = strtoll(lpText, &lpEnd, 10);
    if (*lpEnd != '\0' || n < nMin || n > nMax) return false;
    *pnValue = n;
    return true;
}

// A file of at most 1 TiB; the smallest must hold head, maps and a block.
const long long MAX_FILE_MIB = 1048576;

int ParseMake(int argc, char** argv, MakeRequest* pRequest)
{
    for (int i = 1; i < argc; i++) {
        std::string strArg = argv[i];
        const char* lpValue = i + 1 < argc ? argv[i + 1] : nullptr;
        long long n = 0;
        if (strArg == "--dir" && lpValue != nullptr) {
            pRequest->m_strDir = lpValue;
        } else if (strArg == "--name" && lpValue != nullptr) {
            pRequest->m_strName = lpValue;
        } else if ((strArg == "--data-file" || strArg == "--btree-file" || strArg == "--kv-file") &&
                   ParseNumber(lpValue, 1, MAX_FILE_MIB, &n)) {
            BYTE bType = strArg == "--data-file" ? FILETYPE_DATA
                         : strArg == "--btree-file" ? FILETYPE_BTREEINDEX : FILETYPE_KVINDEX;
            pRequest->m_vFiles.push_back({bType, n});
        } else if ((strArg == "--table-file" || strArg == "--index-file") &&
                   ParseNumber(lpValue, DB_CACHEFILE_MIN_SIZE / DB_MIB, MAX_FILE_MIB, &n)) {
            pRequest->m_vFiles.push_back({strArg == "--table-file" ? FILETYPE_TABLE : FILETYPE_INDEX, n});
        } else if (strArg == "--redo-groups" && ParseNumber(lpValue, REDOGROUP_MIN, REDOGROUP_MAX, &n)) {
            pRequest->m_nRedoGroups = (int)n;
        } else if (strArg == "--redo-size" && ParseNumber(lpValue, 1, 2047, &n)) {
            pRequest->m_nRedoSizeMiB = (int)n;
        } else {
            fprintf(stderr, "talvor-mkdb: bad or incomplete argument: %s\n", argv[i]);
            return 2;
        }
        i++;
    }
    if (pRequest->m_strDir.empty()) {
        fprintf(stderr, "talvor-mkdb: --dir is required\n");
        return 2;
    }
    if (pRequest->m_strName.empty() || pRequest->m_strName.size() > 31) {
        fprintf(stderr, "talvor-mkdb: the database name must have 1 to 31 characters\n");
        return 2;
    }
    if ((int)pRequest->m_vFiles.size() > DB_MAX_DATABASE_FILES) {
        fprintf(stderr, "talvor-mkdb: at most %d database files\n", DB_MAX_DATABASE_FILES);
        return 2;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && strcmp(argv[1], "--inspect") == 0) {
        if (argc != 3) {
            Usage();
            return 2;
        }
        return InspectDatabase(argv[2]);
    }
    if (argc >= 2 && strcmp(argv[1], "--dump-image") == 0) {
        long long nFileNo = 0;
        if (argc != 4 || !ParseNumber(argv[2], 1, 255, &nFileNo)) {
            Usage();
            return 2;
        }
        return DumpImage((int)nFileNo, argv[3]);
    }
    if (argc >= 2 && strcmp(argv[1], "--dump-cache") == 0) {
        long long nBytes = -1;
        if ((argc != 3 && argc != 4) || (argc == 4 && !ParseNumber(argv[3], 0, 1LL << 40, &nBytes))) {
            Usage();
            return 2;
        }
        return DumpCache(argv[2], nBytes);
    }
    MakeRequest stRequest;
    int nResult = ParseMake(argc, argv, &stRequest);
    if (nResult != 0) {
        Usage();
        return nResult;
    }
    return MakeDatabase(stRequest);
}
