// Restore from a backup chain over a real database: a real full backup and
// incremental backups laid out by the test's own writer. Chains the daemon
// took, and command 46 on a usable chain, run end to end.
#include "BackupIncrementFixture.h"
#include "FaultFileIO.h"
#include "LogManager.h"
#include "MemDBBackupDef.h"
#include "PersistenceDb.h"
#include "TalvorBackupFile.h"
#include "TalvorRestoreMark.h"
#include "TestFiles.h"

#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

using namespace backuptest;
using namespace talvortest;

namespace {

const int DB_FILES = 4;
const int PATH_FIELD = 512;

std::string BuildIncrement(long long nTimestamp, long long nRefer, BYTE bLevel, USHORT usGuid,
                           const std::vector<IncFile>& vFiles)
{
    std::string strOut = IncrementImage(vFiles, nTimestamp, nRefer, bLevel);
    ((LPBACKUPFILEHEAD)&strOut[0])->m_usDataBaseGuid = usGuid;
    return strOut;
}

// What a file holds once the pieces of an incremental are written into it.
void ApplyPieces(std::string& strFile, const std::vector<Piece>& vPieces)
{
    for (const Piece& piece : vPieces) {
        size_t nEnd = (size_t)piece.m_nFilePos + piece.m_strBytes.size();
        if (strFile.size() < nEnd) strFile.resize(nEnd, '\0');
        strFile.replace((size_t)piece.m_nFilePos, piece.m_strBytes.size(), piece.m_strBytes);
    }
}

std::string RandomBytes(size_t nSize, std::mt19937& rng)
{
    std::string s(nSize, '\0');
    for (char& c : s) c = (char)(rng() & 0xFF);
    return s;
}

// The fault layer in force over the database's files; the trace (and
// strArchive when given) passes through untouched. The layer is held, not
// derived from: the trace writer may still be calling it as the scope ends,
// and a derived layer's destructor changes its vtable under that call.
struct DbFileIO {
    explicit DbFileIO(const std::string& strLog, const std::string& strArchive = std::string())
    {
        m_io.PassThrough(strLog);
        if (!strArchive.empty()) m_io.PassThrough(strArchive);
    }
    FaultFileIO* operator->() { return &m_io; }
    // Every open for writing (but of strExcept), unlink and mkdir from here
    // on is kept, for ExpectNoTouch.
    void WatchTouches(const std::string& strExcept = std::string())
    {
        m_io.OnCall(FileOp::Open, [this, strExcept](const FileCall& call) {
            if ((call.m_nFlags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0 && call.m_strPath != strExcept)
                m_vTouched.push_back("open " + call.m_strPath);
        });
        m_io.OnCall(FileOp::Unlink, [this](const FileCall& call) { m_vTouched.push_back("unlink " + call.m_strPath); });
        m_io.OnCall(FileOp::MkDir, [this](const FileCall& call) { m_vTouched.push_back("mkdir " + call.m_strPath); });
    }
    void ExpectNoTouch()
    {
        for (const std::string& strTouched : m_vTouched) ADD_FAILURE() << strTouched;
        for (const FileWrite& w : m_io.Writes()) ADD_FAILURE() << "written: " << w.m_strPath;
    }
    FaultFileIO m_io;
    ScopedFileIO m_scope{&m_io};
    std::vector<std::string> m_vTouched;
};

BACKUPFILEHEAD* HeadOf(std::string& strBackup) { return (BACKUPFILEHEAD*)&strBackup[0]; }
BACKUPINCREMENTITEM* ItemAt(std::string& strBackup, long long nPagePos, int i)
{
    return (BACKUPINCREMENTITEM*)&strBackup[(size_t)nPagePos + 20 + (size_t)i * sizeof(BACKUPINCREMENTITEM)];
}

class Restore : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_db.MakeStartAndSave();
        m_lpCmd = m_db.Module().m_pFlashback->GetClusterCommand();
        m_strArchive = m_db.m_tree.Dir() + "Archive";
        snprintf(m_db.Head()->m_lpArchiveDesPath, sizeof(m_db.Head()->m_lpArchiveDesPath), "%s", m_strArchive.c_str());
        m_strNewFile = m_db.m_tree.Dir() + "Sub/F5.dbf";
    }
    std::string BackupPath(long long nTimestamp) const
    {
        return m_strArchive + "/Backup/TalvorBackup" + std::to_string(nTimestamp) + ".fbk";
    }
    HRESULT Run(BYTE bCommand)
    {
        m_lpCmd->m_bForbidSaveFlag = 1;
        // With the database taken apart the engine has no head to flag.
        if (m_db.Head() != nullptr) m_db.Head()->m_bForbidSaveFlag = 1;
        m_lpCmd->m_bCommandType = bCommand;
        return m_db.Module().ClusterCommand(&m_db.m_stCrit, m_lpCmd, m_db.Module().m_pFlashback->GetProgress(),
                                            m_db.m_nRedoLogMaxID);
    }
    // A backup by command 40 at the engine's last timestamp; the files as
    // they stand on disk after it (the pass it runs first is done).
    long long FullBackup(std::vector<std::string>& vCopy)
    {
        long long nTimestamp = m_db.Head()->m_nEndTimestamp;
        m_lpCmd->m_nTimestamp = nTimestamp;
        m_lpCmd->m_bAbort = 0;
        EXPECT_EQ(S_OK, Run(CLUSTERCMD_FULLBACKUP));
        EXPECT_EQ(CLUSTERRESULT_OK, Val(m_lpCmd->m_bResult)) << m_db.m_tree.Trace();
        vCopy = CopyFiles();
        return nTimestamp;
    }
    std::vector<std::string> CopyFiles() const
    {
        std::vector<std::string> v;
        for (int n = 1; n <= DB_FILES; n++) v.push_back(ReadWholeFile(m_db.PathOf(n)));
        return v;
    }
    void RemoveDatabaseFiles()
    {
        for (int n = 1; n <= DB_FILES; n++) unlink(m_db.PathOf(n).c_str());
        unlink(m_strNewFile.c_str());
    }
    BOOL RestoreTo(long long nTimestamp)
    {
        CBreltMemStorageModule restorer;
        TALVORPROGRESS stProgress = {};
        std::string strArchive = m_strArchive;
        strArchive.resize(PATH_FIELD, '\0');
        return restorer.RecoverIncrement(&m_db.m_stCrit, &stProgress, &strArchive[0], PATH_FIELD, nTimestamp);
    }
    void ExpectFiles(const std::vector<std::string>& vExpected)
    {
        for (int n = 1; n <= DB_FILES; n++) {
            SCOPED_TRACE(m_db.PathOf(n));
            EXPECT_TRUE(ReadWholeFile(m_db.PathOf(n)) == vExpected[(size_t)n - 1]) << "file " << n;
        }
    }
    // The record of file nFileNo as an incremental lists it.
    IncFile Unchanged(int nFileNo) const
    {
        const BYTE bNo = (BYTE)nFileNo;
        return {{bNo, bNo, m_vSizes[(size_t)nFileNo - 1], 0, 0, 0, m_db.PathOf(nFileNo)}, {}};
    }

    // The chain of the refusal tests: the full backup, a level 1 that
    // changes file 2 over two pages and creates a file, a level 2 that
    // changes file 3.
    void MakeChain(std::mt19937& rng)
    {
        std::vector<std::string> vFull;
        m_nFull = FullBackup(vFull);
        for (const std::string& s : vFull) m_vSizes.push_back((long long)s.size());
        m_usGuid = Val(m_db.Head()->m_usDatabaseGuid);
        m_nLevel1 = m_nFull + 10;
        m_nLevel2 = m_nFull + 20;
        std::vector<IncFile> v1 = {Unchanged(1), Unchanged(2), Unchanged(3), Unchanged(4)};
        for (int i = 0; i < 300; i++)
            v1[1].m_vPieces.push_back({BACKUPITEM_DATABLOCK, 0, 0, (long long)(rng() % (m_vSizes[1] - 700)),
                                       RandomBytes(1 + rng() % 700, rng)});
        v1.push_back({{2, 5, 1 << 20, 0, 0, 0, m_strNewFile},
                      {{BACKUPITEM_FILEHEAD, 0, 0, 0, RandomBytes(512, rng)}}});
        m_vLevel1 = v1;
        std::vector<IncFile> v2 = {Unchanged(1), Unchanged(2), Unchanged(3), Unchanged(4)};
        v2[2].m_vPieces.push_back({BACKUPITEM_DATABLOCK, 0, 0, 16384, RandomBytes(4096, rng)});
        m_vLevel2 = v2;
        m_arChain[0] = ReadWholeFile(BackupPath(m_nFull));
        m_arChain[1] = BuildIncrement(m_nLevel1, m_nFull, 1, m_usGuid, v1);
        m_arChain[2] = BuildIncrement(m_nLevel2, m_nLevel1, 2, m_usGuid, v2);
    }
    void WriteChain(const std::string* arChain)
    {
        const long long arTimestamps[3] = {m_nFull, m_nLevel1, m_nLevel2};
        for (int i = 0; i < 3; i++) {
            if (arChain[i].empty())
                unlink(BackupPath(arTimestamps[i]).c_str());
            else
                ASSERT_TRUE(WriteWholeFile(BackupPath(arTimestamps[i]), arChain[i]));
        }
    }

    // The redo service over the running head, as the daemon starts it: a
    // rebuild starts it again and fails without it.
    void StartRedo()
    {
        ASSERT_TRUE(SetLogSystemFileHead(m_db.Head(), m_db.Module().m_nClusterNodeType, m_db.Module().m_pFlashback));
    }
    // Stopped before the trace is read: reading it starts the log system
    // afresh, which a live redo writer does not survive.
    void StopRedo() { SysClearTalvorLog(); }
    // Command 46 with the module's configuration, so that a rebuild reads
    // the ini as the daemon does.
    void RunRestoreCommand(long long nTimestamp)
    {
        snprintf(m_db.Module().m_cConfigPath, sizeof(m_db.Module().m_cConfigPath), "%s",
                 m_db.m_tree.IniPath().c_str());
        m_lpCmd->m_nTimestamp = nTimestamp;
        ASSERT_EQ(S_OK, Run(CLUSTERCMD_RESTORE));
        EXPECT_EQ(CLUSTERCMD_FINISHED, Val(m_lpCmd->m_bCommandType));
    }
    // The files the chain of level 1 gives (its new file in strNew).
    std::vector<std::string> Level1Files(const std::vector<std::string>& vFull, std::string& strNew) const
    {
        std::vector<std::string> v = vFull;
        ApplyPieces(v[1], m_vLevel1[1].m_vPieces);
        strNew.clear();
        ApplyPieces(strNew, m_vLevel1[4].m_vPieces);
        return v;
    }

    PersistenceDb m_db;
    LPTALVORCOMMAND m_lpCmd = nullptr;
    std::string m_strArchive;
    std::string m_strNewFile;
    long long m_nFull = 0, m_nLevel1 = 0, m_nLevel2 = 0;
    USHORT m_usGuid = 0;
    std::vector<long long> m_vSizes;
    std::vector<IncFile> m_vLevel1, m_vLevel2;
    std::string m_arChain[3];
};

} // namespace

// Into an empty tree. The points above the full backup are compared file
// by file by the power-loss test.
TEST_F(Restore, FromAnEmptyTreeUnusedPartsAreZerosAndALowerLevelsNewFileHasOnlyItsPieces)
{
    std::mt19937 rng(5);
    m_db.RandomChanges(60, rng);
    MakeChain(rng);
    std::vector<std::string> vFull = CopyFiles();
    // Files whose used part is shorter than their size: the restore must
    // fill the rest with zeros.
    int nShort = 0;
    for (int i = 0; i < DB_FILES; i++) {
        const STRUCT_BACKUP_FILEINFO* pRecord = Record(m_arChain[0], i);
        nShort += Val(pRecord->m_nFileFreeMemoryOffset) < Val(pRecord->m_nFileSize) ? 1 : 0;
    }
    ASSERT_GT(nShort, 0);
    m_db.Stop();
    WriteChain(m_arChain);
    // Into an empty tree but for one file that stands, of another size.
    RemoveDatabaseFiles();
    ASSERT_TRUE(WriteWholeFile(m_db.PathOf(2), std::string(100, 'x')));
    ASSERT_TRUE(RestoreTo(m_nFull));
    ExpectFiles(vFull);
    EXPECT_FALSE(PathExists(m_strNewFile));
    // Made by the level 1, not listed by the level 2: not zero-filled to the
    // size its record names.
    RemoveDatabaseFiles();
    ASSERT_TRUE(RestoreTo(m_nLevel2));
    std::string strNew;
    Level1Files(vFull, strNew);
    EXPECT_TRUE(ReadWholeFile(m_strNewFile) == strNew);
    // Again over a longer file at that path (a start grows it to its row's
    // size): none of its bytes may show through.
    ASSERT_TRUE(WriteWholeFile(m_strNewFile, std::string(1 << 20, '\xEE')));
    ASSERT_TRUE(RestoreTo(m_nLevel2));
    EXPECT_TRUE(ReadWholeFile(m_strNewFile) == strNew) << "size " << FileSizeOf(m_strNewFile);
}

TEST_F(Restore, TheMarkStandsAtEveryWriteAndAPowerLossLeavesAWholeDatabaseOrAStartThatRefuses)
{
    std::mt19937 rng(23);
    MakeChain(rng);
    const std::vector<std::string> vOriginal = CopyFiles();
    m_db.Stop();
    WriteChain(m_arChain);
    // The point the chain restores.
    std::string strNew;
    std::vector<std::string> vRestored = Level1Files(vOriginal, strNew);
    ApplyPieces(vRestored[2], m_vLevel2[2].m_vPieces);
    // A run to its end counts the writes; the mark stands at every write to
    // a database file, and is gone after the last.
    const std::string strSystem = m_db.SystemPath();
    long long nWrites = 0, nDatabaseWrites = 0, nUnmarked = 0;
    {
        DbFileIO io(m_db.m_tree.LogDir());
        io->OnCall(FileOp::PWrite, [&](const FileCall& call) {
            // Neither a backup nor the mark is a database file.
            if (call.m_strPath.rfind(m_strArchive + "/", 0) == 0 || call.m_strPath.find(".restoring") != std::string::npos)
                return;
            nDatabaseWrites++;
            if (!TalvorRestoreMarkPresent(strSystem.c_str())) nUnmarked++;
        });
        ASSERT_TRUE(RestoreTo(m_nLevel2));
        nWrites = io->Calls(FileOp::PWrite);
    }
    ASSERT_GT(nWrites, 10);
    EXPECT_GT(nDatabaseWrites, 0);
    EXPECT_EQ(0, nUnmarked);
    EXPECT_FALSE(TalvorRestoreMarkPresent(strSystem.c_str()));
    int nRefused = 0;
    for (long long nDieAt : {1LL, 2LL, 3LL, nWrites / 4, nWrites / 2, nWrites - 2, nWrites - 1, nWrites}) {
        SCOPED_TRACE(nDieAt);
        for (int n = 1; n <= DB_FILES; n++) ASSERT_TRUE(WriteWholeFile(m_db.PathOf(n), vOriginal[(size_t)n - 1]));
        unlink(m_strNewFile.c_str());
        ASSERT_TRUE(TalvorClearRestoreMark(strSystem.c_str()));
        {
            DbFileIO io(m_db.m_tree.LogDir());
            io->DieAfter(FileOp::PWrite, nDieAt);
            EXPECT_FALSE(RestoreTo(m_nLevel2));
            io->LosePower();
        }
        // The backups themselves are never written.
        const long long arTimestamps[3] = {m_nFull, m_nLevel1, m_nLevel2};
        for (int i = 0; i < 3; i++) EXPECT_TRUE(ReadWholeFile(BackupPath(arTimestamps[i])) == m_arChain[i]);
        const size_t nTraceBefore = m_db.m_tree.Trace().size();
        HRESULT hr = m_db.Start();
        std::vector<std::string> vNow = CopyFiles();
        m_db.Stop();
        if (hr == S_OK) {
            // Started: on the database as it was before, whole.
            EXPECT_TRUE(vNow == vOriginal) << "a start on a mixture of old and restored files";
        } else {
            nRefused++;
            EXPECT_NE(std::string::npos,
                      m_db.m_tree.Trace().substr(nTraceBefore).find("A restore into this database did not finish"));
        }
    }
    // Once a database file was written, only a refusal is right.
    EXPECT_GE(nRefused, 6);
    // Run again to its end, the restore gives the chain's point and a start.
    ASSERT_TRUE(RestoreTo(m_nLevel2));
    EXPECT_TRUE(CopyFiles() == vRestored);
    EXPECT_EQ(S_OK, m_db.Start());
}

TEST_F(Restore, ATornForeignOrDamagedChainIsRefusedBeforeAByteOfAnyDatabaseFileIsWritten)
{
    std::mt19937 rng(9);
    MakeChain(rng);
    m_db.Stop();
    struct Case {
        const char* m_lpName;
        const char* m_lpTraced;
        std::function<void(std::string* arChain)> m_fnDamage;
        long long m_nTop = 0;  // 0: the level 2
    };
    // Positions inside the chain as it stands. A cut anywhere past a
    // record's start fails that record's one range check: one cut each.
    const long long nL1File2 = Val(Record(m_arChain[1], 1)->m_nDataStartOffset);
    const long long nL1Page2 = Val(PageAt(m_arChain[1], nL1File2)->m_nNextPos);
    const long long nL0File2End = Val(Record(m_arChain[0], 1)->m_nDataEndOffset);
    ASSERT_NE(0, nL1Page2);
    auto Page2 = [=](std::string* c) { return PageAt(c[1], nL1Page2); };
    auto Item = [=](std::string* c, int i) { return ItemAt(c[1], nL1File2, i); };
    auto Path4 = [](std::string& s, const char* lpPath) { strcpy(Record(s, 3)->m_lpszFilePath, lpPath); };
    const std::vector<Case> vCases = {
        {"level 2 cut inside the head", "not whole or not a backup", [](std::string* c) { c[2].resize(100); }},
        {"level 2 cut at the end of its head area", "not whole", [](std::string* c) { c[2].resize(8191); }},
        {"full cut between two files' data", "lies past the backup's end",
         [=](std::string* c) { c[0].resize((size_t)nL0File2End); }},
        {"level 1 cut inside its first page", "increment range is wrong",
         [=](std::string* c) { c[1].resize((size_t)nL1File2 + 100); }},
        {"missing middle link", "backup file!", [](std::string* c) { c[1].clear(); }},
        {"wrong version of the full", "wrong version or mark", [](std::string* c) { HeadOf(c[0])->m_nVersion = 0x5000001; }},
        {"wrong file mark of level 1", "wrong version or mark", [](std::string* c) { c[1][4] = 'X'; }},
        {"wrong data mark of level 2", "wrong version or mark", [](std::string* c) { c[2][17] = 'q'; }},
        {"wrong page mark", "wrong mark, size or count", [=](std::string* c) { Page2(c)->m_nDataFlag = 0x48464E4A; }},
        {"a page of 291 items", "wrong mark, size or count", [=](std::string* c) { Page2(c)->m_nIncrementBlockNum = 291; }},
        {"a page chain that loops", "next page is not further on", [=](std::string* c) { Page2(c)->m_nNextPos = nL1File2; }},
        {"a piece past its file's size", "outside the database file's size",
         [=](std::string* c) { Item(c, 7)->m_nBlockFilePos = Val(Record(c[1], 1)->m_nFileSize); }},
        {"a piece outside its file's data", "outside the file's data", [=](std::string* c) { Item(c, 7)->m_nBlockDataPos = 0; }},
        {"a negative piece length", "wrong type or length", [=](std::string* c) { Item(c, 0)->m_nBlockSize = -8; }},
        {"a relative path", "not a whole absolute file path", [=](std::string* c) { Path4(c[2], "F4.dbf"); }},
        {"a path that names a directory", "not a whole absolute file path", [=](std::string* c) { Path4(c[2], "/tmp/x/"); }},
        {"a file head piece placed past the file's start", "outside the database file's size",
         [=](std::string* c) { Item(c, 7)->m_nBlockType = BACKUPITEM_FILEHEAD, Item(c, 7)->m_nBlockFilePos = 512; }},
        {"a level 1 range shorter than a page", "increment range is wrong",
         [=](std::string* c) { Record(c[1], 1)->m_nDataEndOffset = nL1File2 + 100; }},
        {"a path that steps up", "steps up", [=](std::string* c) { Path4(c[0], "/tmp/x/../F4.dbf"); }},
        {"a head area of the wrong size", "head area size", [](std::string* c) { HeadOf(c[0])->m_nHeadSize = 16384; }},
        {"a full backup of no file", "count of files", [](std::string* c) { HeadOf(c[0])->m_nFileNum = 0; }},
        {"a full record that claims more than its used part", "does not fit its used size",
         [](std::string* c) { Record(c[0], 1)->m_nFileFreeMemoryOffset -= 512; }},
        {"a level 2 of another database", "database identity differ",
         [this](std::string* c) { HeadOf(c[2])->m_usDataBaseGuid = (USHORT)(m_usGuid + 1); }},
        {"a level 1 that names itself as its full", "reference timestamp does not fit",
         [this](std::string* c) { HeadOf(c[1])->m_nReferTimestamp = m_nLevel1; }},
    };
    for (const Case& c : vCases) {
        SCOPED_TRACE(c.m_lpName);
        std::string arChain[3] = {m_arChain[0], m_arChain[1], m_arChain[2]};
        c.m_fnDamage(arChain);
        WriteChain(arChain);
        DbFileIO io(m_db.m_tree.LogDir());
        io.WatchTouches();
        const size_t nTraceBefore = m_db.m_tree.Trace().size();
        EXPECT_FALSE(RestoreTo(c.m_nTop != 0 ? c.m_nTop : m_nLevel2));
        // Told by this refusal, not by an earlier one.
        std::string strTold = m_db.m_tree.Trace().substr(nTraceBefore);
        EXPECT_NE(std::string::npos, strTold.find(c.m_lpTraced)) << strTold;
        io.ExpectNoTouch();
    }
    // The same chain undamaged restores: the refusals came from the damage.
    WriteChain(m_arChain);
    EXPECT_TRUE(RestoreTo(m_nLevel2));
    EXPECT_TRUE(PathExists(m_strNewFile));
}

// With no head, a mark that cannot be trusted whole (or none) is no ground
// to write on: command 46 is refused, told, and touches no file.
TEST_F(Restore, CommandWithNoHeadAndADamagedOrMissingMarkIsRefusedAndWritesNothing)
{
    std::vector<std::string> vCopy;
    const long long nTimestamp = FullBackup(vCopy);
    StartRedo();
    // The restored head's own number is behind the one the running database
    // had reached: the mark must carry it over, with the identity.
    const UINT nRedo = Val(m_db.Head()->m_nRedoLogMaxID) + 7;
    m_db.Head()->m_nRedoLogMaxID = nRedo;
    const USHORT usGuid = Val(m_db.Head()->m_usDatabaseGuid);
    {
        // The device fills after 1 MiB: the database is taken apart, the
        // restore stops part-way and the mark stays.
        DbFileIO io(m_db.m_tree.LogDir(), m_strArchive);
        io->FillAfter(1 << 20, ENOSPC);
        RunRestoreCommand(nTimestamp);
    }
    ASSERT_EQ(nullptr, m_db.Head());
    const std::string strMark = m_db.SystemPath() + ".restoring";
    const std::string strGood = ReadWholeFile(strMark);
    ASSERT_FALSE(strGood.empty());
    const std::vector<std::pair<const char*, std::function<void(std::string&)>>> vCases = {  // none: no mark
        {"cut short", [](std::string& s) { s.resize(s.size() - 1); }},
        {"one byte long", [](std::string& s) { s.push_back('\n'); }},
        {"a byte of the path", [](std::string& s) { s[s.size() - 100] ^= 0x20; }},
        {"no mark", nullptr},
    };
    for (const auto& c : vCases) {
        SCOPED_TRACE(c.first);
        std::string strMarkNow = strGood;
        if (c.second) {
            c.second(strMarkNow);
            ASSERT_TRUE(WriteWholeFile(strMark, strMarkNow));
        } else {
            ASSERT_EQ(0, unlink(strMark.c_str()));
        }
        {
            DbFileIO io(m_db.m_tree.LogDir());
            // The configuration is read as the rebuild reads it (its file
            // opened for both ways); a write to it would still be seen.
            io.WatchTouches(m_db.m_tree.IniPath());
            RunRestoreCommand(nTimestamp);
            io.ExpectNoTouch();
        }
        EXPECT_EQ(nullptr, m_db.Head());
        EXPECT_EQ(1, Val(m_lpCmd->m_bForbidSaveFlag));
        EXPECT_TRUE(c.second ? ReadWholeFile(strMark) == strMarkNow : !PathExists(strMark));
    }
    // The mark put back whole, the same command restores: the refusals came
    // from the damage.
    ASSERT_TRUE(WriteWholeFile(strMark, strGood));
    RunRestoreCommand(nTimestamp);
    StopRedo();
    ASSERT_NE(nullptr, m_db.Head()) << m_db.m_tree.Trace();
    EXPECT_EQ(0, Val(m_lpCmd->m_bForbidSaveFlag));
    EXPECT_FALSE(TalvorRestoreMarkPresent(m_db.SystemPath().c_str()));
    EXPECT_EQ(usGuid, Val(m_db.Head()->m_usDatabaseGuid));
    EXPECT_EQ(nRedo, Val(m_db.Head()->m_nRedoLogMaxID));
    m_db.Stop();
    ExpectFiles(vCopy);
    // Told (read only now: reading the trace starts the log system afresh,
    // without the redo ring the rebuild needs).
    EXPECT_TRUE(m_db.m_tree.Traced("the restore is refused and no file is written"));
}

// The mark, once set, survives a power loss with what it remembers, and so
// does its removal.
TEST(RestoreMark, TheMarkAndItsRemovalSurviveAPowerLoss)
{
    PersistenceDb db;
    ASSERT_TRUE(db.MakeDatabase());
    const std::string strSystem = db.SystemPath();
    TALVORRESTOREMARK stSet = {}, stGot = {};
    for (int i = 0; i < RESTOREMARK_PATH_SIZE; i++) stSet.m_lpArchiveDesPath[i] = (char)(i * 7 + 1);
    stSet.m_nTimestamp = 0x123456789ALL;
    stSet.m_nRedoLogMaxID = 0xFEDCBA98u;
    stSet.m_usDatabaseGuid = 0xBEEF;
    {
        // A longer file of a run before is replaced whole.
        ASSERT_TRUE(WriteWholeFile(strSystem + ".restoring", std::string(4096, 'z')));
        DbFileIO io(db.m_tree.LogDir());
        ASSERT_TRUE(TalvorSetRestoreMark(strSystem.c_str(), stSet));
        io->LosePower();
    }
    EXPECT_TRUE(TalvorRestoreMarkPresent(strSystem.c_str()));
    ASSERT_EQ(RESTOREMARK_READ, TalvorReadRestoreMark(strSystem.c_str(), stGot));
    EXPECT_EQ(0, memcmp(stSet.m_lpArchiveDesPath, stGot.m_lpArchiveDesPath, sizeof(stGot.m_lpArchiveDesPath)));
    EXPECT_EQ(stSet.m_nTimestamp, stGot.m_nTimestamp);
    EXPECT_EQ(stSet.m_nRedoLogMaxID, stGot.m_nRedoLogMaxID);
    EXPECT_EQ(stSet.m_usDatabaseGuid, stGot.m_usDatabaseGuid);
    // A new mark whose write fails (a full disk) leaves the old one whole.
    {
        DbFileIO io(db.m_tree.LogDir());
        io->FailNext(FileOp::PWrite, ENOSPC);
        TALVORRESTOREMARK stOther = stSet;
        stOther.m_nTimestamp++;
        EXPECT_FALSE(TalvorSetRestoreMark(strSystem.c_str(), stOther));
    }
    stGot = {};
    ASSERT_EQ(RESTOREMARK_READ, TalvorReadRestoreMark(strSystem.c_str(), stGot));
    EXPECT_EQ(stSet.m_nTimestamp, stGot.m_nTimestamp);
    EXPECT_FALSE(PathExists(strSystem + ".restoring.new"));
    {
        DbFileIO io(db.m_tree.LogDir());
        ASSERT_TRUE(TalvorClearRestoreMark(strSystem.c_str()));
        io->LosePower();
    }
    EXPECT_FALSE(TalvorRestoreMarkPresent(strSystem.c_str()));
    EXPECT_EQ(RESTOREMARK_ABSENT, TalvorReadRestoreMark(strSystem.c_str(), stGot));
    // Clearing with no mark is no failure.
    EXPECT_TRUE(TalvorClearRestoreMark(strSystem.c_str()));
}
