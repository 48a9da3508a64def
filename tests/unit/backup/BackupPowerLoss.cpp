// The daemon's own full and incremental backups against the offline
// verifier, with the power lost at any write to the backup file.
#include "BackupFixture.h"
#include "BreltMemStorage.h"
#include "DatabaseKit.h"
#include "DbFileLayout.h"
#include "ModuleTestKit.h"

#include <memory>
#include <numeric>

using namespace backuptest;
using namespace talvortest;

namespace {

const long long MIB = 1048576;
const long long FULL_TIMESTAMP = 4400123;

struct FilePlan { BYTE m_bFileNo; BYTE m_bFileType; long long m_nSize; long long m_nFree; };

// Used parts of about 9 MiB against the daemon's 4 MiB output half: the
// copies take several writes, the last one a padded sector.
const FilePlan FILE_PLANS[] = {
    {1, FILETYPE_SYSTEM, DB_SYSTEMFILE_SIZE, 0},
    {2, FILETYPE_DATA, 8 * MIB, 5 * MIB + 3 * 512},
    {3, FILETYPE_BTREEINDEX, 4 * MIB, 3 * MIB + 512},
    {4, FILETYPE_KVINDEX, 2 * MIB, 1 * MIB},
};

class BackupFullTest : public ::testing::Test {
protected:
    BackupFullTest() : m_tree("buffercachesize=0\r\nundoareasize=8\r\n"), m_vPlans(std::begin(FILE_PLANS), std::end(FILE_PLANS)) {}

    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        MakeDatabase();
        m_pModule.reset(new CBreltMemStorageModule());
        InitThreadCritSection(&m_stCrit);
        ASSERT_EQ(S_OK, m_pModule->InitSysEnvironment(&m_stCrit, TRUE, FALSE));
        ASSERT_EQ(S_OK, m_pModule->LoadFile(&m_stCrit));
    }
    void TearDown() override
    {
        if (m_pModule) ReleaseModuleFiles(*m_pModule);
    }
    std::string PathOf(BYTE bFileNo)
    {
        return bFileNo == 1 ? m_tree.Dir() + "System.dbf" : m_tree.Dir() + "F" + std::to_string(bFileNo) + ".dbf";
    }
    void MakeDatabase()
    {
        std::vector<FILE_MEMDBFILEINFO> vRows(m_vPlans.size());
        memset(vRows.data(), 0, vRows.size() * sizeof(FILE_MEMDBFILEINFO));
        for (size_t i = 0; i < vRows.size(); i++) {
            FILE_MEMDBFILEINFO& stRow = vRows[i];
            const FilePlan& f = m_vPlans[i];
            stRow.m_bFileNo = f.m_bFileNo;
            stRow.m_bFileType = f.m_bFileType;
            stRow.m_nFileSize = f.m_nSize;
            snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", PathOf(f.m_bFileNo).c_str());
            snprintf(stRow.m_lpszTablespaceName, sizeof(stRow.m_lpszTablespaceName), "F%d", f.m_bFileNo);
            if (i == 0) continue;
            ASSERT_TRUE(WriteWholeFile(PathOf(f.m_bFileNo),
                                       MakeFileBytes(f.m_bFileType, f.m_bFileNo, f.m_nSize, f.m_nFree)));
        }
        DBSYSFILEPLAN stPlan;
        ASSERT_TRUE(DbPlanSystemFile((int)vRows.size(), DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stPlan));
        std::string strSystem((size_t)DB_SYSTEMFILE_SIZE, '\0');
        ASSERT_TRUE(DbBuildSystemFile(stPlan, vRows.data(), 0x77, "Db", m_tree.Dir().c_str(), (LPBYTE)&strSystem[0],
                                      DB_SYSTEMFILE_SIZE));
        ASSERT_TRUE(WriteWholeFile(PathOf(1), strSystem));
    }

    DatabaseDir m_tree;
    std::vector<FilePlan> m_vPlans;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
    TALVORCRITICALSECTION m_stCrit;
};

} // namespace

TEST_F(BackupFullTest, PowerLossAtAnyWriteLeavesNoFileTakenForWhole)
{
    const std::string strArchive = m_tree.Dir() + "Archive/";
    // The file is written with direct I/O: a write torn by the disk stops
    // at a sector.
    PowerLossAtEveryWrite(strArchive + "Backup/TalvorBackup" + std::to_string(FULL_TIMESTAMP) + ".fbk",
                          m_tree.LogDir(), 4,
                          {{"lost", -1, 0}, {"torn at 512", 0, 512}, {"torn at 4096", 0, 4096},
                           {"whole", 0, 0}},
                          [&] {
                              std::string strList = strArchive + ";/nowhere/else/";
                              volatile BYTE bAbort = 0;
                              return m_pModule->BackupFull(&m_stCrit, nullptr, &strList[0],
                                                           (int)strList.size() + 1, FULL_TIMESTAMP, 7, 50,
                                                           0x0100007F, bAbort);
                          });
}

// A database of the system file and one data file: the data file's record
// is the last, and it straddles the head area's first two sectors, its path
// in the first and its data range in the second.
class TwoFileBackupTest : public BackupFullTest {
protected:
    TwoFileBackupTest() { m_vPlans.resize(2); }
};

// The power goes during any write of an incremental backup, and the disk
// keeps whatever was sent to it, the cut write up to a sector included:
// nothing the backup leaves, under its name or as its part file, is then
// taken for whole unless it is. A final head written in one piece and cut
// after its first sector showed the data file with its path and without
// its data range, read as unchanged: a whole backup without the file's
// changes.
TEST_F(TwoFileBackupTest, AnIncrementalBackupCutAfterAnySectorIsNeverTakenForWhole)
{
    // The data file changed at the reference: its head, on disk and in its
    // image, carries that stamp, so that the backup copies its head.
    const long long nChanged = 5;
    std::string strFile = ReadWholeFile(PathOf(2));
    ASSERT_GE(strFile.size(), sizeof(BASEFILEHEAD));
    memcpy(&strFile[offsetof(BASEFILEHEAD, m_nTimestamp)], &nChanged, sizeof(nChanged));
    ASSERT_TRUE(WriteWholeFile(PathOf(2), strFile));
    ((LPBASEFILEHEAD)m_pModule->m_arFileInfo[2]->m_pFileAddr)->m_nTimestamp = nChanged;
    const std::string strArchive = m_tree.Dir() + "Archive/";
    const std::string strPath = strArchive + "Backup/TalvorBackup" + std::to_string(FULL_TIMESTAMP) + ".fbk";
    auto Backup = [&] {
        std::string strList = strArchive;
        volatile BYTE bAbort = 0;
        return m_pModule->BackupIncremental(&m_stCrit, nullptr, &strList[0], (int)strList.size() + 1, 1,
                                            FULL_TIMESTAMP, nChanged, 7, 50, 0x0100007F, bAbort);
    };
    long long nWrites = 0;
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_tree.LogDir());
        ASSERT_TRUE(Backup());
        nWrites = io.Calls(FileOp::PWrite);
    }
    std::string strWhole = ReadWholeFile(strPath);
    ASSERT_GE(strWhole.size(), (size_t)BackupHeadSize(2));
    ASSERT_EQ(2, Val(Record(strWhole, 1)->m_bFileNo));
    ASSERT_NE(0, Val(Record(strWhole, 1)->m_nDataStartOffset)) << "the data file has no data: the cut cannot show";
    long long nExamined = 0;
    for (long long k = 1; k <= nWrites; k++) {
        for (size_t nTorn : {(size_t)512, (size_t)1024, (size_t)4096}) {
            unlink(strPath.c_str());
            {
                FaultFileIO io;
                ScopedFileIO scoped(&io);
                io.PassThrough(m_tree.LogDir());
                io.DieAfter(FileOp::PWrite, k);
                io.CutTransfer(FileOp::PWrite, k, nTorn);
                EXPECT_FALSE(Backup()) << "write " << k;
                std::vector<size_t> vAll(io.Unsynced().size());
                std::iota(vAll.begin(), vAll.end(), 0);
                io.LosePowerKeeping(vAll, NameLoss::Keep);
            }
            // Neither the name nor the part file a cut leaves is taken for
            // whole unless it is.
            for (const std::string& strLeft : {strPath, strPath + ".part"}) {
                if (!PathExists(strLeft)) continue;
                nExamined++;
                EXPECT_TRUE(Verified(strLeft).Status() != BACKUPVERIFY_WHOLE || SameBackup(ReadWholeFile(strLeft), strWhole))
                    << strLeft << ", write " << k << ", torn at " << nTorn;
            }
        }
    }
    EXPECT_GE(nExamined, nWrites) << "the cuts left nothing to examine";
}
