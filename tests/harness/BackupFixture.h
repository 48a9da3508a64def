// BackupFixture.h — small database files and full backups of them, made
// here and not by the daemon, so that the verifier is tested against the
// file format and not against the writer it is meant to check. The writer
// keeps the daemon's order (place-holder head area, the copied files in
// pieces, the finished head area) and goes through the file layer, so that
// a fault layer sees every write.
#pragma once

#include "MemDBBackupDef.h"
#include "MemDBCommonDef.h"
#include "FaultFileIO.h"
#include "TalvorBackupVerify.h"
#include "TalvorFileIO.h"
#include "TempTree.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace backuptest {

// One database file to back up.
// m_nFree is the used part, what a full backup copies; m_nHeadSize and
// m_nTimestamp go into its head.
struct DbFile {
    BYTE m_bFileType, m_bFileNo;
    long long m_nFileSize, m_nFree;
    int m_nHeadSize;
    long long m_nTimestamp;
    std::string m_strPath;
};

const long long BACKUP_TIMESTAMP = 880044;
const int BACKUP_LOGNO = 17;
const int BACKUP_LOGPOS = 4150;

// The bytes of a database file: a head that names it, a pattern that
// differs from file to file and from offset to offset up to the used part,
// zero from there to its size.
inline std::string DbFileBytes(const DbFile& f)
{
    std::string strData((size_t)f.m_nFileSize, '\0');
    for (long long i = 0; i < f.m_nFree; i++)
        strData[(size_t)i] = (char)(((i * 131) >> 3) ^ (i >> 11) ^ (f.m_bFileNo * 29));
    if (f.m_nFree >= (long long)sizeof(BASEFILEHEAD)) {
        BASEFILEHEAD stHead;
        memset(&stHead, 0, sizeof(stHead));
        stHead.m_nDataFlag = FileHeadDataFlag(f.m_bFileType);
        stHead.m_nTimestamp = f.m_nTimestamp;
        stHead.m_bFileNo = f.m_bFileNo;
        stHead.m_bFileType = f.m_bFileType;
        stHead.m_nFileTotalSize = f.m_nFileSize;
        stHead.m_nFileHeaderSize = f.m_nHeadSize;
        stHead.m_nFileFreeMemoryOffset = f.m_nFree;
        memcpy(&strData[0], &stHead, sizeof(stHead));
    }
    return strData;
}

// A database of every file type, of odd sizes: a system file, a data file
// whose used part is not a multiple of 512, an index file with nothing used
// (a record whose copy is empty), a B-tree and a KV file, a table and an
// index file of the cache mode.
inline std::vector<DbFile> SampleFiles(const talvortest::TempTree& tree)
{
    std::vector<DbFile> v = {
        {FILETYPE_SYSTEM, 1, 1048576, 300032, 15718, 9001, ""},
        {FILETYPE_DATA, 2, 262144, 70001, 4096, 9002, ""},
        {FILETYPE_BTREEINDEX, 3, 131072, 0, 4096, 0, ""},
        {FILETYPE_KVINDEX, 5, 131072, 40960, 4096, 9005, ""},
        {FILETYPE_TABLE, 7, 524288, 49152, 16384, 9007, ""},
        {FILETYPE_INDEX, 9, 393216, 32768 + 16384, 16384, 9009, ""},
    };
    for (DbFile& f : v) f.m_strPath = tree.Path("File" + std::to_string(f.m_bFileNo) + ".dbf");
    return v;
}

// nCount files: the system file and nCount - 1 small data files.
inline std::vector<DbFile> ManyFiles(const talvortest::TempTree& tree, int nCount)
{
    std::vector<DbFile> v;
    v.push_back({FILETYPE_SYSTEM, 1, 65536, 16384, 15718, 1, tree.Path("System.dbf")});
    for (int i = 2; i <= nCount; i++)
        v.push_back({FILETYPE_DATA, (BYTE)i, 8192, 1024 + i, 512, i, tree.Path("Data" + std::to_string(i) + ".dbf")});
    return v;
}

// The head area as it is first written: the fixed part filled in, the
// records zero.
inline std::string PlaceholderHead(int nFileNum)
{
    std::string strHead((size_t)BackupHeadSize(nFileNum), '\0');
    LPBACKUPFILEHEAD lpHead = (LPBACKUPFILEHEAD)&strHead[0];
    lpHead->m_nVersion = BACKUP_VERSION;
    lpHead->m_nFileFlag = BACKUP_FILEFLAG;
    lpHead->m_nHeadSize = BackupHeadSize(nFileNum);
    memcpy(lpHead->m_pDataFlag, BACKUP_DATAFLAG, sizeof(lpHead->m_pDataFlag));
    lpHead->m_nTimestamp = BACKUP_TIMESTAMP;
    lpHead->m_nLogNo = BACKUP_LOGNO;
    lpHead->m_nLogPos = BACKUP_LOGPOS;
    lpHead->m_usDataBaseGuid = 0x5A5A;
    lpHead->m_ulHostIP = 0x0100007F;
    lpHead->m_nFileNum = nFileNum;
    lpHead->m_ftBackupTime.dwLowDateTime = 0x12345678;
    lpHead->m_ftBackupTime.dwHighDateTime = 0x01DB0000;
    return strHead;
}

inline LPSTRUCT_BACKUP_FILEINFO Record(std::string& strBackup, int nIndex)
{
    return (LPSTRUCT_BACKUP_FILEINFO)&strBackup[BACKUP_FIXED_HEAD_SIZE + (size_t)nIndex * sizeof(STRUCT_BACKUP_FILEINFO)];
}

// The record of f in a backup head, its data range left to the caller.
inline void FillRecord(const DbFile& f, STRUCT_BACKUP_FILEINFO* p)
{
    p->m_bFileType = f.m_bFileType;
    p->m_bFileNo = f.m_bFileNo;
    p->m_nFileSize = f.m_nFileSize;
    p->m_nFileHeaderSize = f.m_nHeadSize;
    p->m_nFileFreeMemoryOffset = f.m_nFree;
    snprintf(p->m_lpszFilePath, sizeof(p->m_lpszFilePath), "%s", f.m_strPath.c_str());
}

// The finished head area of a backup of vFiles, copies laid out back to
// back behind it.
inline std::string FinishedHead(const std::vector<DbFile>& vFiles)
{
    std::string strHead = PlaceholderHead((int)vFiles.size());
    long long nPos = (long long)strHead.size();
    for (size_t i = 0; i < vFiles.size(); i++) {
        const DbFile& f = vFiles[i];
        LPSTRUCT_BACKUP_FILEINFO p = Record(strHead, (int)i);
        FillRecord(f, p);
        p->m_nDataStartOffset = nPos;
        nPos += f.m_nFree;
        p->m_nDataEndOffset = nPos;
    }
    return strHead;
}

// The whole backup of vFiles, in memory.
inline std::string WholeBackup(const std::vector<DbFile>& vFiles)
{
    std::string strBackup = FinishedHead(vFiles);
    for (const DbFile& f : vFiles) strBackup += DbFileBytes(f).substr(0, (size_t)f.m_nFree);
    return strBackup;
}

// Verifies strPath; the report lives as long as the object.
class Verified {
public:
    explicit Verified(const std::string& strPath) : m_pReport(new BACKUPVERIFYREPORT)
    {
        TalvorVerifyBackup(strPath.c_str(), m_pReport.get());
    }
    int Status() const { return m_pReport->m_nStatus; }
    const BACKUPVERIFYREPORT& Report() const { return *m_pReport; }
    std::string Finding() const { return m_pReport->m_szFinding; }

private:
    std::unique_ptr<BACKUPVERIFYREPORT> m_pReport;
};

// The verifier's status for strImage once fnChange has spoilt it (written
// at strPath); a finding exactly when it is not whole.
inline int StatusAfterChange(const std::string& strPath, std::string strImage,
                             const std::function<void(std::string&)>& fnChange)
{
    fnChange(strImage);
    EXPECT_TRUE(talvortest::WriteWholeFile(strPath, strImage));
    Verified v(strPath);
    EXPECT_EQ(v.Status() == BACKUPVERIFY_WHOLE, v.Finding().empty()) << v.Finding();
    return v.Status();
}

// Two backups of the same files differ in the time they were taken only.
inline bool SameBackup(std::string strA, const std::string& strB)
{
    const size_t nTimeAt = offsetof(BACKUPFILEHEAD, m_ftBackupTime);
    if (strA.size() != strB.size() || strA.size() < BACKUP_FIXED_HEAD_SIZE) return false;
    strA.replace(nTimeAt, sizeof(FILETIME), strB, nTimeAt, sizeof(FILETIME));
    return strA == strB;
}

// How the write the power takes ends: lost, torn at a sector, or whole.
struct PowerCut { const char* m_lpName; long long m_nDieAfterDelta; size_t m_nTorn; };

// fnBackup writes strPath; the power goes at each of its writes in turn, the
// device taking nothing after it (so the daemon cannot remove its partial
// file either). The backup is never done, the verifier takes the file for
// whole only when it is the whole backup, and a done backup survives a loss
// right after it.
inline void PowerLossAtEveryWrite(const std::string& strPath, const std::string& strLogDir,
                                  long long nMinWrites, const std::vector<PowerCut>& vCuts,
                                  const std::function<BOOL()>& fnBackup)
{
    using namespace talvortest;
    // fnBackup under a fault layer that fnSetUp prepared; its result, and
    // what fnAfter does with the layer before it goes.
    auto UnderLayer = [&](const std::function<void(FaultFileIO&)>& fnSetUp,
                          const std::function<void(FaultFileIO&)>& fnAfter) {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(strLogDir);
        fnSetUp(io);
        BOOL bDone = fnBackup();
        fnAfter(io);
        return bDone;
    };
    long long nWrites = 0;
    ASSERT_TRUE(UnderLayer([](FaultFileIO&) {}, [&](FaultFileIO& io) { nWrites = io.Calls(FileOp::PWrite); }));
    std::string strWhole = ReadWholeFile(strPath);
    ASSERT_GE(nWrites, nMinWrites);
    for (long long k = 1; k <= nWrites; k++) {
        for (const PowerCut& c : vCuts) {
            unlink(strPath.c_str());
            BOOL bDone = UnderLayer(
                [&](FaultFileIO& io) {
                    io.DieAfter(FileOp::PWrite, k + c.m_nDieAfterDelta);
                    if (c.m_nTorn > 0) io.CutTransfer(FileOp::PWrite, k, c.m_nTorn);
                },
                [](FaultFileIO& io) { io.LosePower(NameLoss::Keep); });
            Verified v(strPath);
            if (v.Status() == BACKUPVERIFY_WHOLE) {
                EXPECT_TRUE(SameBackup(ReadWholeFile(strPath), strWhole))
                    << "write " << k << ", " << c.m_lpName;
            }
            // Done only once the head is synced behind the data.
            EXPECT_FALSE(bDone) << "write " << k << ", " << c.m_lpName;
        }
    }
    ASSERT_TRUE(UnderLayer([](FaultFileIO&) {}, [](FaultFileIO& io) { io.LosePower(NameLoss::Undo); }));
    Verified v(strPath);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    EXPECT_TRUE(SameBackup(ReadWholeFile(strPath), strWhole));
}

} // namespace backuptest
