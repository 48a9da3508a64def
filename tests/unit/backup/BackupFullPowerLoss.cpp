// The daemon's own full backup against the offline verifier: power lost at any write to the backup file — the write lost,
// torn at a sector boundary, or whole, the device taking nothing after it,
// so that the daemon cannot remove its partial file either — leaves a file
// the verifier accepts only when it is the whole backup.
#include "BackupFixture.h"
#include "BreltMemStorage.h"
#include "DatabaseKit.h"
#include "DbFileLayout.h"
#include "ModuleTestKit.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace backuptest;
using namespace talvortest;

namespace {

const long long MIB = 1048576;
const long long FULL_TIMESTAMP = 4400123;

// A database file of the test: number, type, size and used part.
struct FilePlan {
    BYTE m_bFileNo;
    BYTE m_bFileType;
    long long m_nSize;
    long long m_nFree;
};

// Used parts of about 9 MiB against the daemon's 4 MiB output half: the
// copies take several writes, the last one a padded sector.
const FilePlan FILE_PLANS[] = {
    {2, FILETYPE_DATA, 8 * MIB, 5 * MIB + 3 * 512},
    {3, FILETYPE_BTREEINDEX, 4 * MIB, 3 * MIB + 512},
    {4, FILETYPE_KVINDEX, 2 * MIB, 1 * MIB},
};

class BackupFullTest : public ::testing::Test {
protected:
    BackupFullTest() : m_tree("buffercachesize=0\r\nundoareasize=8\r\n") {}

    void SetUp() override
    {
        ASSERT_TRUE(m_tree.Ok());
        MakeDatabase();
        ASSERT_EQ(S_OK, Start());
        m_strArchive = m_tree.Dir() + "Archive/";
        m_strBackup = m_strArchive + "Backup/TalvorBackup" + std::to_string(FULL_TIMESTAMP) + ".fbk";
    }
    void TearDown() override
    {
        if (!m_pModule) return;
        ReleaseModuleFiles(*m_pModule);
        m_pModule.reset();
    }

    std::string PathOf(BYTE bFileNo)
    {
        return bFileNo == 1 ? m_tree.Dir() + "System.dbf" : m_tree.Dir() + "F" + std::to_string(bFileNo) + ".dbf";
    }

    void MakeDatabase()
    {
        std::vector<FILE_MEMDBFILEINFO> vRows;
        vRows.push_back(Row(1, FILETYPE_SYSTEM, DB_SYSTEMFILE_SIZE));
        for (const FilePlan& f : FILE_PLANS) {
            vRows.push_back(Row(f.m_bFileNo, f.m_bFileType, f.m_nSize));
            ASSERT_TRUE(
                WriteWholeFile(PathOf(f.m_bFileNo), MakeFileBytes(f.m_bFileType, f.m_bFileNo, f.m_nSize, f.m_nFree)));
        }
        DBSYSFILEPLAN stPlan;
        ASSERT_TRUE(DbPlanSystemFile((int)vRows.size(), DB_SYSTEMFILE_LISTBLOCK_SIZE, DB_SYSTEMFILE_SIZE, &stPlan));
        std::string strSystem((size_t)DB_SYSTEMFILE_SIZE, '\0');
        ASSERT_TRUE(DbBuildSystemFile(stPlan, vRows.data(), 0x77, "Db", m_tree.Dir().c_str(), (LPBYTE)&strSystem[0],
                                      DB_SYSTEMFILE_SIZE));
        ASSERT_TRUE(WriteWholeFile(PathOf(1), strSystem));
    }

    FILE_MEMDBFILEINFO Row(BYTE bFileNo, BYTE bFileType, long long nSize)
    {
        FILE_MEMDBFILEINFO stRow;
        memset(&stRow, 0, sizeof(stRow));
        stRow.m_bFileNo = bFileNo;
        stRow.m_bFileType = bFileType;
        snprintf(stRow.m_lpszFilePath, sizeof(stRow.m_lpszFilePath), "%s", PathOf(bFileNo).c_str());
        snprintf(stRow.m_lpszTablespaceName, sizeof(stRow.m_lpszTablespaceName), "F%d", bFileNo);
        stRow.m_nFileSize = nSize;
        return stRow;
    }

    HRESULT Start()
    {
        m_pModule.reset(new CBreltMemStorageModule());
        InitThreadCritSection(&m_stCrit);
        HRESULT hr = m_pModule->InitSysEnvironment(&m_stCrit, TRUE, FALSE);
        if (hr == S_OK) hr = m_pModule->LoadFile(&m_stCrit);
        return hr;
    }

    BOOL Backup()
    {
        std::string strList = m_strArchive + ";/nowhere/else/";
        std::vector<char> vList(strList.begin(), strList.end());
        vList.push_back('\0');
        volatile BYTE bAbort = 0;
        return m_pModule->BackupFull(&m_stCrit, nullptr, vList.data(), (int)vList.size(), FULL_TIMESTAMP, 7, 50,
                                     0x0100007F, bAbort);
    }

    DatabaseDir m_tree;
    std::unique_ptr<CBreltMemStorageModule> m_pModule;
    TALVORCRITICALSECTION m_stCrit;
    std::string m_strArchive;
    std::string m_strBackup;
};

// Two backups of the same files differ in the time they were taken only.
bool SameBackup(std::string strA, const std::string& strB)
{
    const size_t nTimeAt = offsetof(BACKUPFILEHEAD, m_ftBackupTime);
    if (strA.size() != strB.size() || strA.size() < BACKUP_FIXED_HEAD_SIZE) return false;
    strA.replace(nTimeAt, sizeof(FILETIME), strB, nTimeAt, sizeof(FILETIME));
    return strA == strB;
}

} // namespace

TEST_F(BackupFullTest, PowerLossAtAnyWriteLeavesNoFileTakenForWhole)
{
    ASSERT_TRUE(Backup());
    const std::string strWhole = ReadWholeFile(m_strBackup);
    long long nWrites = 0;
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_tree.LogDir());
        ASSERT_TRUE(Backup());
        nWrites = io.Calls(FileOp::PWrite);
    }
    ASSERT_TRUE(SameBackup(ReadWholeFile(m_strBackup), strWhole));
    ASSERT_GE(nWrites, 4);
    struct Cut {
        const char* m_lpName;
        long long m_nDieAfterDelta;
        size_t m_nTorn;
    };
    // The file is written with direct I/O: a write torn by the disk stops
    // at a sector.
    const Cut arCuts[] = {{"lost", -1, 0}, {"torn at 512", 0, 512}, {"torn at 4096", 0, 4096}, {"whole", 0, 0}};
    int nAccepted = 0;
    for (long long k = 1; k <= nWrites; k++) {
        for (const Cut& c : arCuts) {
            unlink(m_strBackup.c_str());
            BOOL bDone = FALSE;
            {
                FaultFileIO io;
                ScopedFileIO scoped(&io);
                io.PassThrough(m_tree.LogDir());
                io.DieAfter(FileOp::PWrite, k + c.m_nDieAfterDelta);
                if (c.m_nTorn > 0) io.CutTransfer(FileOp::PWrite, k, c.m_nTorn);
                bDone = Backup();
                io.LosePower(NameLoss::Keep);
            }
            Verified v(m_strBackup);
            bool bWhole = SameBackup(ReadWholeFile(m_strBackup), strWhole);
            if (v.Status() == BACKUPVERIFY_WHOLE) {
                nAccepted++;
                EXPECT_TRUE(bWhole) << "write " << k << " of " << nWrites << ", " << c.m_lpName;
            }
            // The backup is done only once its head is synced behind the
            // data: a device that dies after any write, the head's included,
            // leaves it not done.
            EXPECT_FALSE(bDone) << "write " << k << ", " << c.m_lpName;
        }
    }
    // A backup that ended done survives a power loss right after it whole.
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        io.PassThrough(m_tree.LogDir());
        ASSERT_TRUE(Backup());
        io.LosePower(NameLoss::Undo);
    }
    Verified v(m_strBackup);
    EXPECT_EQ(BACKUPVERIFY_WHOLE, v.Status()) << v.Finding();
    EXPECT_TRUE(SameBackup(ReadWholeFile(m_strBackup), strWhole));
    (void)nAccepted;
}
