// File commands over a loaded database, asked in a row of the list as the
// engine asks them, also with the device dying or the power going midway.
#include "DbFileLayout.h"
#include "FaultFileIO.h"
#include "PersistenceDb.h"
#include "TalvorCacheStorage.h"
#include "TalvorMemoryStorage.h"
#include "TestFiles.h"

#include <map>
#include <sys/stat.h>

using namespace talvortest;

namespace {

// The process's open descriptors (the listing's own among them, each time).
size_t OpenDescriptors() { return ListFiles("/proc/self/fd/").size(); }

struct RowSpec {
    BYTE m_bCommand;
    BYTE m_bFileNo;
    BYTE m_bFileType;
    std::string m_strPath;
    std::string m_strName;
    long long m_nFileSize;
};

// The engine's side of the file list over a database of its own.
class ListEngine {
public:
    explicit ListEngine(long long nFileSize = 4 * DB_MIB, int nBlocks = 16) : m_db(nFileSize, nBlocks) {}
    LPFILE_MEMDBFILEINFO Row(BYTE bFileNo) { return m_db.Row(bFileNo); }
    LPSYSTEMBLOCKHEAD ListBlock() { return m_db.ListBlock(); }
    void MarkListChanged() { m_db.MarkListChanged(); }
    // Writes a command into a row, as the engine: an add appends a row.
    LPFILE_MEMDBFILEINFO Ask(const RowSpec& stAsk)
    {
        LPFILE_MEMDBFILEINFO lpRow = stAsk.m_bCommand == FILECMD_ADD ? nullptr : Row(stAsk.m_bFileNo);
        if (lpRow == nullptr) {
            LPSYSTEMBLOCKHEAD lpBlock = ListBlock();
            lpRow = (LPFILE_MEMDBFILEINFO)((LPBYTE)lpBlock + lpBlock->m_nBlockHeadSize +
                                           lpBlock->m_nDataNum * sizeof(FILE_MEMDBFILEINFO));
            memset(lpRow, 0, sizeof(*lpRow));
            lpRow->m_bFileNo = stAsk.m_bFileNo;
            lpRow->m_bFileType = stAsk.m_bFileType;
            lpRow->m_nMaxObjectNum = 64;
            snprintf(lpRow->m_lpszTablespaceName, sizeof(lpRow->m_lpszTablespaceName), "%s", stAsk.m_strName.c_str());
            talvorpeer::PeerFence();
            lpBlock->m_nDataNum = lpBlock->m_nDataNum + 1;
        }
        if (!stAsk.m_strPath.empty())
            snprintf(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), "%s", stAsk.m_strPath.c_str());
        if (stAsk.m_nFileSize > 0) lpRow->m_nFileSize = stAsk.m_nFileSize;
        talvorpeer::PeerFence();
        lpRow->m_bFileCMD = stAsk.m_bCommand;
        MarkListChanged();
        return lpRow;
    }
    // The engine takes its request back: the row names strPath and nSize
    // (when given) and carries no command.
    void TakeBack(LPFILE_MEMDBFILEINFO lpRow, const std::string& strPath = "", long long nSize = 0)
    {
        if (!strPath.empty())
            snprintf(lpRow->m_lpszFilePath, sizeof(lpRow->m_lpszFilePath), "%s", strPath.c_str());
        if (nSize > 0) lpRow->m_nFileSize = nSize;
        lpRow->m_bFileCMD = 0;
        MarkListChanged();
    }
    HRESULT Walk() { return m_db.Module().FileCMD(&m_db.m_stCrit); }
    HRESULT WalkUnder(FaultFileIO& io)
    {
        ScopedFileIO scope(&io);
        return Walk();
    }
    // The engine drops a row (a refused add).
    void Drop(LPFILE_MEMDBFILEINFO lpRow)
    {
        lpRow->m_bDropFlag = 1;
        lpRow->m_bFileCMD = FILECMD_NONE;
        MarkListChanged();
    }
    void Rename(BYTE bFileNo, const std::string& strName)
    {
        snprintf(Row(bFileNo)->m_lpszTablespaceName, sizeof(Row(bFileNo)->m_lpszTablespaceName), "%s", strName.c_str());
        MarkListChanged();
    }
    // The storage thread's turn: the walk, then the pass.
    void Serve()
    {
        EXPECT_EQ(S_OK, m_db.Module().FileCMD(&m_db.m_stCrit));
        m_db.Pass();
    }
    // Each live row of the list on disk through fn; false when the list
    // does not read whole.
    bool ForDiskRows(const std::function<void(const FILE_MEMDBFILEINFO&)>& fn)
    {
        std::string s = ReadWholeFile(m_db.SystemPath());
        return !s.empty() && DBCHAIN_OK == DbForEachFileListRow((LPBYTE)&s[0], (long long)s.size(),
                                                               [&](LPSYSTEMBLOCKHEAD, LPFILE_MEMDBFILEINFO lpRow) {
                                                                   if (lpRow->m_bDropFlag != 1) fn(*lpRow);
                                                                   return true;
                                                               });
    }
    // The first live row of bFileNo on disk (an empty row if none); their count.
    FILE_MEMDBFILEINFO DiskRow(BYTE bFileNo, int* pnRows = nullptr)
    {
        FILE_MEMDBFILEINFO st;
        memset(&st, 0, sizeof(st));
        int nRows = 0;
        ForDiskRows([&](const FILE_MEMDBFILEINFO& r) {
            if (r.m_bFileNo == bFileNo && nRows++ == 0) memcpy(&st, &r, sizeof(st));
        });
        if (pnRows != nullptr) *pnRows = nRows;
        return st;
    }
    int LiveRowsOnDisk(BYTE bFileNo)
    {
        int nRows = 0;
        DiskRow(bFileNo, &nRows);
        return nRows;
    }
    // Empty when every live row of the list on disk names a file that is
    // there, of at least the row's size (the system file's row aside).
    std::string ListAgreesWithFiles()
    {
        std::string strWhy;
        if (!ForDiskRows([&](const FILE_MEMDBFILEINFO& r) {
                std::string strPath(r.m_lpszFilePath, strnlen(r.m_lpszFilePath, sizeof(r.m_lpszFilePath)));
                if (r.m_bFileNo != 1 && (r.m_bFileCMD != 0 || FileSizeOf(strPath) < Val(r.m_nFileSize)))
                    strWhy += "row " + std::to_string(r.m_bFileNo) + ": " + strPath + " command " +
                              std::to_string(r.m_bFileCMD) + " size " + std::to_string(FileSizeOf(strPath)) + "; ";
            }))
            strWhy += "list damaged";
        return strWhy;
    }
    // A stop as a kill leaves it: the images stay for the next start.
    void KillStop()
    {
        for (stu_FILEINFO* p = m_db.Module().m_pStorageInfo; p != nullptr; p = p->m_pNext)
            if (p->m_pStorageFile != nullptr) static_cast<CTalvorMemoryStorage*>(p->m_pStorageFile)->KeepSegmentOnRelease();
        static_cast<CTalvorMemoryStorage*>(m_db.Module().m_lpSystemFileInfo->m_pStorageFile)->KeepSegmentOnRelease();
        m_db.Stop();
    }
    std::string NewPath(const std::string& strName) { return m_db.m_tree.Dir() + strName; }
    HRESULT Restart()
    {
        m_db.Stop();
        return m_db.Start();
    }

    PersistenceDb m_db;
};

class FileCommands : public ::testing::Test, public ListEngine {
protected:
    void SetUp() override { m_db.MakeStartAndSave(); }
};

} // namespace

// Paths and names compare without regard to case; with "buffercachesize" = 0
// there is no cache-mode file. A second system file stops the block's walk:
// the add behind it waits, and the unsettled block stays off the disk.
TEST_F(FileCommands, RefusedAddsAnswerTheirCodesAndMakeNothing)
{
    const struct {
        BYTE m_bNo, m_bType;
        std::string m_strPath;
        const char* m_lpName;
        BYTE m_bAnswer;
    } arCases[] = {
        {2, FILETYPE_DATA, NewPath("N.dbf"), "N", FILECMD_ADD_NUMBERTAKEN},
        {9, FILETYPE_DATA, NewPath("f3.DBF"), "P", FILECMD_PATHTAKEN},
        {10, FILETYPE_DATA, NewPath("Name.dbf"), "f4", FILECMD_ADD_NAMETAKEN},
        {11, FILETYPE_TABLE, NewPath("T.dbf"), "T", FILECMD_ADD_FAILED},
        {14, FILETYPE_DATA, m_db.SystemPath(), "SP", FILECMD_PATHTAKEN},
        {15, FILETYPE_DATA, NewPath("NoName.dbf"), "", FILECMD_ADD_FAILED},
        {12, FILETYPE_SYSTEM, NewPath("S.dbf"), "S", FILECMD_ADD_SYSTEMFILE},
        {13, FILETYPE_DATA, NewPath("After.dbf"), "After", FILECMD_ADD},
    };
    std::vector<LPFILE_MEMDBFILEINFO> vRows;
    for (const auto& c : arCases) vRows.push_back(Ask({FILECMD_ADD, c.m_bNo, c.m_bType, c.m_strPath, c.m_lpName, 4 * DB_MIB}));
    Serve();
    for (size_t i = 0; i < vRows.size(); i++) {
        SCOPED_TRACE(arCases[i].m_strPath);
        EXPECT_EQ(arCases[i].m_bAnswer, Val(vRows[i]->m_bFileCMD));
        if (i == 0) continue;
        EXPECT_EQ(nullptr, m_db.File(arCases[i].m_bNo));
        EXPECT_EQ(i == 4, PathExists(arCases[i].m_strPath));
    }
    EXPECT_EQ("", ListAgreesWithFiles());
    ASSERT_EQ(S_OK, Restart()) << m_db.m_tree.Trace();
    EXPECT_EQ(nullptr, m_db.File(13));
}

TEST_F(FileCommands, HostilePathsAreRefused)
{
    std::string strOutside = m_db.m_tree.Root() + "-outside";
    mkdir(strOutside.c_str(), 0777);
    // The last fills its field with no terminator: refused, not cut.
    const std::string arPaths[] = {m_db.m_tree.Dir() + "../escape.dbf", strOutside + "/evil.dbf", "relative.dbf",
                                   m_db.m_tree.Dir() + "./dot.dbf",     "/etc/talvor-evil.dbf",
                                   m_db.m_tree.Dir() + std::string(300, 'x')};
    BYTE bNo = 20;
    for (const std::string& strPath : arPaths) {
        LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_ADD, bNo, FILETYPE_DATA, "", "E" + std::to_string(bNo), 4 * DB_MIB});
        memcpy(lpRow->m_lpszFilePath, strPath.c_str(), std::min(strPath.size() + 1, sizeof(lpRow->m_lpszFilePath)));
        ASSERT_EQ(S_OK, Walk());
        EXPECT_EQ(FILECMD_ADD_FAILED, Val(lpRow->m_bFileCMD)) << strPath;
        EXPECT_EQ(nullptr, m_db.File(bNo++)) << strPath;
        Drop(lpRow);
    }
    // A link inside the database that leads out is no way out either.
    ASSERT_EQ(0, symlink(strOutside.c_str(), (m_db.m_tree.Dir() + "link").c_str()));
    LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_MOVE, 3, 0, m_db.m_tree.Dir() + "link/moved.dbf", "", 0});
    ASSERT_EQ(S_OK, Walk());
    EXPECT_EQ(FILECMD_MOVE_FAILED, Val(lpRow->m_bFileCMD));
    for (const char* lpName : {"/evil.dbf", "/moved.dbf"}) EXPECT_FALSE(PathExists(strOutside + lpName));
    EXPECT_FALSE(PathExists(m_db.m_tree.Root() + "/escape.dbf"));
    EXPECT_TRUE(PathExists(m_db.PathOf(3)));
    rmdir(strOutside.c_str());
    // A list block whose rows are of another size is not walked at all.
    ListBlock()->m_nBlockDataStructSize = 352;
    EXPECT_EQ(E_FAIL, Walk());
    ListBlock()->m_nBlockDataStructSize = (int)sizeof(FILE_MEMDBFILEINFO);
}

TEST_F(FileCommands, AFailedAddLeavesNothingBehind)
{
    struct Fault {
        const char* m_lpWhat;
        std::function<void(FaultFileIO&)> m_fnArm;
    };
    const Fault arFaults[] = {
        {"no room", [](FaultFileIO& io) { io.FillAfter(DB_MIB + 4096, ENOSPC); }},
        {"unwritable directory", [](FaultFileIO& io) { io.FailCall(FileOp::Open, 1, EACCES, FAULT_ALWAYS); }},
        {"directory sync", [](FaultFileIO& io) { io.FailNext(FileOp::SyncDirectory, EIO); }},
    };
    BYTE bNo = 40;
    for (const Fault& fault : arFaults) {
        SCOPED_TRACE(fault.m_lpWhat);
        size_t nFds = OpenDescriptors();
        std::string strPath = NewPath("Failed" + std::to_string(bNo) + ".dbf");
        LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_ADD, bNo, FILETYPE_DATA, strPath, "Failed" + std::to_string(bNo), 4 * DB_MIB});
        FaultFileIO io;
        fault.m_fnArm(io);
        ASSERT_EQ(S_OK, WalkUnder(io));
        EXPECT_EQ(FILECMD_ADD_FAILED, Val(lpRow->m_bFileCMD));
        EXPECT_FALSE(PathExists(strPath));
        EXPECT_EQ(nullptr, m_db.Module().m_arFileInfo[bNo]);
        for (stu_FILEINFO* p = m_db.Module().m_pStorageInfo; p != nullptr; p = p->m_pNext) EXPECT_NE(bNo, p->m_bFileNo);
        EXPECT_EQ(nFds, OpenDescriptors());
        Drop(lpRow);
        m_db.Pass();
        bNo++;
    }
}

// A growth the device has no room for answers its failure and leaves the
// file, its head and its size as they were; once the engine takes the
// request back the file keeps taking passes and the next start loads it.
// (A move that fails is FileCommandMoveBack's.)
TEST_F(FileCommands, AGrowthWithNoRoomLeavesTheFileAsItWas)
{
    // A pass before the walk keeps the row with its command off the disk.
    LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_RESIZE, 2, 0, "", "", 12 * DB_MIB});
    m_db.Pass();
    EXPECT_EQ("", ListAgreesWithFiles());
    {
        FaultFileIO io;
        io.FillAfter(2 * DB_MIB, ENOSPC);
        ASSERT_EQ(S_OK, WalkUnder(io));
    }
    EXPECT_EQ(FILECMD_RESIZE_FAILED, Val(lpRow->m_bFileCMD));
    EXPECT_EQ(4 * DB_MIB, FileSizeOf(m_db.PathOf(2)));
    EXPECT_EQ(4 * DB_MIB, Val(m_db.FileHead(2)->m_nFileTotalSize));
    EXPECT_EQ(4 * DB_MIB, Val(m_db.File(2)->m_liFileSize));
    TakeBack(lpRow, "", 4 * DB_MIB);
    std::mt19937 rng(9);
    m_db.RandomChanges(50, rng);
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    EXPECT_EQ(0, m_db.CheckDisk(m_db.CommittedOnDisk()).m_nViolations);
    ASSERT_EQ(S_OK, Restart()) << m_db.m_tree.Trace();
}

// Files are written directly, a sector at a time: a size off the grid is
// refused for a data file and for the system file alike.
TEST_F(FileCommands, ResizesOffTheSectorGridAreRefused)
{
    const long long nSystem = FileSizeOf(m_db.SystemPath());
    for (BYTE bNo : {2, 1}) {
        const long long nSize = bNo == 1 ? nSystem : 4 * DB_MIB;
        LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_RESIZE, bNo, 0, "", "", nSize + DB_MIB + 100});
        ASSERT_EQ(S_OK, Walk());
        EXPECT_EQ(FILECMD_RESIZE_FAILED, Val(lpRow->m_bFileCMD)) << (int)bNo;
        EXPECT_EQ(nSize, FileSizeOf(m_db.PathOf(bNo))) << (int)bNo;
        TakeBack(lpRow, "", nSize);
    }
}

// A cache thread that will not leave a file (hung in a write): the move
// and the resize on it are refused with their failure answers and change
// nothing; the delete, which has no failure answer, is left standing.
TEST_F(FileCommands, CommandsOnAFileACacheThreadWillNotLeaveAreRefusedWhole)
{
    // A flush loop marked running that never answers a pause.
    CTalvorCacheStorage hung;
    TalvorStoreShared(&hung.m_arFlushLoopUp[0], 1);
    hung.m_nPauseDeadlineMs = 50;
    m_db.Module().m_pTalvorCacheStorage = &hung;
    // Files 2 and 3 taken for cache-mode files, the only ones a move or a
    // resize holds off the cache's threads.
    const BYTE bType2 = (BYTE)m_db.File(2)->m_bFileType, bType3 = (BYTE)m_db.File(3)->m_bFileType;
    m_db.File(2)->m_bFileType = FILETYPE_TABLE;
    m_db.File(3)->m_bFileType = FILETYPE_TABLE;
    const std::string strNew = NewPath("Moved.dbf");
    LPFILE_MEMDBFILEINFO lpMove = Ask({FILECMD_MOVE, 2, 0, strNew, "", 0});
    LPFILE_MEMDBFILEINFO lpResize = Ask({FILECMD_RESIZE, 3, 0, "", "", 12 * DB_MIB});
    LPFILE_MEMDBFILEINFO lpDelete = Ask({FILECMD_DELETE, 4, 0, "", "", 0});
    HRESULT hr = m_db.Module().FileCMD(&m_db.m_stCrit);
    m_db.File(2)->m_bFileType = bType2;
    m_db.File(3)->m_bFileType = bType3;
    m_db.Module().m_pTalvorCacheStorage = nullptr;
    ASSERT_EQ(S_OK, hr);
    EXPECT_EQ(FILECMD_MOVE_FAILED, Val(lpMove->m_bFileCMD));
    EXPECT_STREQ(m_db.PathOf(2).c_str(), lpMove->m_lpszFilePath);
    EXPECT_STREQ(m_db.PathOf(2).c_str(), m_db.File(2)->m_lpszFilePath);
    EXPECT_FALSE(PathExists(strNew));
    EXPECT_EQ(FILECMD_RESIZE_FAILED, Val(lpResize->m_bFileCMD));
    EXPECT_EQ(4 * DB_MIB, FileSizeOf(m_db.PathOf(3)));
    EXPECT_EQ(4 * DB_MIB, Val(m_db.File(3)->m_liFileSize));
    EXPECT_EQ(FILECMD_DELETE, Val(lpDelete->m_bFileCMD));
    EXPECT_NE(nullptr, m_db.File(4));
    EXPECT_TRUE(PathExists(m_db.PathOf(4)));
    EXPECT_EQ(0, TalvorLoadShared(&hung.m_bPauseFileNo)) << "a refused pause was left standing";
}

// The engine writes a row's fields before its command byte. A pass between
// the two must write the path and size the daemon holds (the block's other
// rows as the engine left them); once the commands are done, the new ones.
TEST_F(FileCommands, AnEditBeforeItsCommandByteNamesWhatTheDaemonHolds)
{
    const std::string strOld = m_db.PathOf(3);
    const std::string strNew = NewPath("sub/Moved3.dbf");
    LPFILE_MEMDBFILEINFO lpMove = Row(3);
    LPFILE_MEMDBFILEINFO lpGrow = Row(4);
    snprintf(lpMove->m_lpszFilePath, sizeof(lpMove->m_lpszFilePath), "%s", strNew.c_str());
    lpGrow->m_nFileSize = 12 * DB_MIB;
    Rename(2, "Renamed2");
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    EXPECT_STREQ("Renamed2", DiskRow(2).m_lpszTablespaceName);
    EXPECT_STREQ(strOld.c_str(), DiskRow(3).m_lpszFilePath);
    EXPECT_EQ(4 * DB_MIB, Val(DiskRow(4).m_nFileSize));
    EXPECT_EQ("", ListAgreesWithFiles());
    EXPECT_STREQ(strNew.c_str(), lpMove->m_lpszFilePath);
    EXPECT_EQ(12 * DB_MIB, Val(lpGrow->m_nFileSize));
    EXPECT_FALSE(PathExists(strNew));

    lpMove->m_bFileCMD = FILECMD_MOVE;
    lpGrow->m_bFileCMD = FILECMD_RESIZE;
    MarkListChanged();
    FaultFileIO io;
    ASSERT_EQ(S_OK, WalkUnder(io));
    {
        ScopedFileIO scope(&io);
        m_db.Pass();
    }
    EXPECT_EQ(FILECMD_NONE, Val(lpMove->m_bFileCMD));
    EXPECT_EQ(FILECMD_NONE, Val(lpGrow->m_bFileCMD));
    EXPECT_STREQ(strNew.c_str(), m_db.File(3)->m_lpszFilePath);
    EXPECT_EQ(12 * DB_MIB, Val(m_db.File(4)->m_liFileSize));
    // The pass wrote the block, with the row as the daemon now holds it.
    int nBlockWrites = 0;
    for (const FileWrite& w : io.Writes())
        nBlockWrites += w.m_strPath == m_db.SystemPath() && w.m_nOffset == (LPBYTE)ListBlock() - m_db.Image(1) &&
                        w.m_nSize == ListBlock()->m_nBlockSize;
    EXPECT_EQ(1, nBlockWrites);
    EXPECT_STREQ(strNew.c_str(), DiskRow(3).m_lpszFilePath);
    EXPECT_EQ(12 * DB_MIB, Val(DiskRow(4).m_nFileSize));
    EXPECT_EQ("", ListAgreesWithFiles());
}

// Rows the engine is making for an add, before their command byte: no file
// stands behind them, whether their number is free or another file's. Their
// block stays off the disk (a dropped row does not hold it) until the add is
// answered; then the list on disk names the new file, once.
TEST_F(FileCommands, AnAddBeforeItsCommandByteStaysOffTheDisk)
{
    // A row the engine dropped long ago holds nothing back.
    Drop(Ask({FILECMD_ADD, 7, FILETYPE_DATA, NewPath("Gone7.dbf"), "Gone7", 4 * DB_MIB}));
    Rename(2, "Renamed2");
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    EXPECT_STREQ("Renamed2", DiskRow(2).m_lpszTablespaceName);
    // A row that claims the system file's number is not the system file's.
    LPFILE_MEMDBFILEINFO lpClaim = Ask({FILECMD_ADD, SYSTEMFILE_FILENO, FILETYPE_DATA, NewPath("One.dbf"), "One", 4 * DB_MIB});
    lpClaim->m_bFileCMD = FILECMD_NONE;
    MarkListChanged();
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
    EXPECT_EQ(1, LiveRowsOnDisk(SYSTEMFILE_FILENO));
    Drop(lpClaim);
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());

    std::string strNameOnDisk = "Renamed2";
    for (BYTE bFileNo : {(BYTE)6, (BYTE)3}) {
        SCOPED_TRACE((int)bFileNo);
        const std::string strName = "Add" + std::to_string(bFileNo), strPath = NewPath(strName + ".dbf");
        const bool bTaken = bFileNo == 3;
        LPFILE_MEMDBFILEINFO lpRow = Ask({FILECMD_ADD, bFileNo, FILETYPE_DATA, strPath, strName, 4 * DB_MIB});
        lpRow->m_bFileCMD = FILECMD_NONE;
        Rename(2, "Again" + std::to_string(bFileNo));
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        EXPECT_EQ(bTaken ? 1 : 0, LiveRowsOnDisk(bFileNo));
        EXPECT_STREQ(strNameOnDisk.c_str(), DiskRow(2).m_lpszTablespaceName);
        EXPECT_EQ("", ListAgreesWithFiles());
        EXPECT_STREQ(strPath.c_str(), lpRow->m_lpszFilePath);
        EXPECT_EQ(bFileNo, Val(lpRow->m_bFileNo));
        // The engine writes the command byte; a pass that comes before the
        // walk holds the block back and leaves it to a later one, which no
        // new mark asks for; the daemon answers, and the engine drops a
        // refused row.
        lpRow->m_bFileCMD = FILECMD_ADD;
        MarkListChanged();
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        Serve();
        EXPECT_EQ(bTaken ? FILECMD_ADD_NUMBERTAKEN : FILECMD_NONE, Val(lpRow->m_bFileCMD));
        if (bTaken) {
            Drop(lpRow);
            ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, m_db.Pass());
        }
        EXPECT_STREQ(bTaken ? m_db.PathOf(3).c_str() : strPath.c_str(), DiskRow(bFileNo).m_lpszFilePath);
        EXPECT_EQ(1, LiveRowsOnDisk(bFileNo));
        strNameOnDisk = "Again" + std::to_string(bFileNo);
        EXPECT_STREQ(strNameOnDisk.c_str(), DiskRow(2).m_lpszTablespaceName);
        EXPECT_EQ("", ListAgreesWithFiles());
    }
    ASSERT_EQ(S_OK, Restart()) << m_db.m_tree.Trace();
    ASSERT_NE(nullptr, m_db.File(6));
    EXPECT_STREQ(NewPath("Add6.dbf").c_str(), m_db.File(6)->m_lpszFilePath);
    EXPECT_STREQ(m_db.PathOf(3).c_str(), m_db.File(3)->m_lpszFilePath);
    EXPECT_EQ(nullptr, m_db.File(7));
}

namespace {

// One command of the engine, asked of a fresh database.
struct CrashCommand {
    const char* m_lpName;
    std::function<void(ListEngine&)> m_fnAsk;
};

// Files of the least size the commands take: the set-up of every crash is
// a database made anew.
const long long CRASH_FILE_SIZE = DB_MIB;
const int CRASH_BLOCKS = 4;

const CrashCommand g_arCrashCommands[] = {
    {"add", [](ListEngine& e) { e.Ask({FILECMD_ADD, 6, FILETYPE_DATA, e.NewPath("sub/Add6.dbf"), "Add6", CRASH_FILE_SIZE}); }},
    {"move", [](ListEngine& e) { e.Ask({FILECMD_MOVE, 3, 0, e.NewPath("sub/Moved3.dbf"), "", 0}); }},
    {"resize", [](ListEngine& e) { e.Ask({FILECMD_RESIZE, 4, 0, "", "", 2 * CRASH_FILE_SIZE}); }},
    {"delete", [](ListEngine& e) { e.Ask({FILECMD_DELETE, 2, 0, "", "", 0}); }},
    {"system resize", [](ListEngine& e) {
         e.Ask({FILECMD_RESIZE, 1, 0, "", "", e.m_db.File(1)->m_liFileSize + CRASH_FILE_SIZE});
     }},
};

// The calls that change the medium, each a place where the device may die.
const FileOp g_arCrashOps[] = {FileOp::PWrite,  FileOp::FSync, FileOp::FDataSync, FileOp::SyncDirectory,
                               FileOp::Unlink,  FileOp::MkDir, FileOp::FTruncate, FileOp::Rename,
                               FileOp::Fallocate};

enum CrashKind { CRASH_KILL, CRASH_POWER };

// Where the device dies: once m_nNth calls of m_eOp were made, m_nAt
// calls that change the medium in all.
struct CrashPoint {
    FileOp m_eOp;
    long long m_nNth;
    size_t m_nAt;
};

// A run of calls of one kind in a row (the chunks of a copy, the pages of
// a growth) repeats one step: its first and last calls stand where the
// steps meet, and a call in CRASH_RUN_STRIDE for its middle.
const long long CRASH_RUN_EDGE = 2;
const long long CRASH_RUN_STRIDE = 6;

// The places of death in a run whose medium-changing calls are vSequence:
// before the first call, and after each call but the middle of a long run
// of one kind ("after the k-th write" and "before the next sync" are one).
std::vector<CrashPoint> CrashPoints(const std::vector<FileOp>& vSequence)
{
    std::vector<CrashPoint> vPoints = {{vSequence.empty() ? FileOp::PWrite : vSequence[0], 0, 0}};
    std::map<FileOp, long long> mapNth;
    size_t nRunStart = 0;
    for (size_t i = 0; i < vSequence.size(); i++) {
        if (vSequence[i] != vSequence[nRunStart]) nRunStart = i;
        size_t nRunEnd = nRunStart;
        while (nRunEnd + 1 < vSequence.size() && vSequence[nRunEnd + 1] == vSequence[i]) nRunEnd++;
        long long nInRun = (long long)(i - nRunStart), nToEnd = (long long)(nRunEnd - i);
        long long nNth = ++mapNth[vSequence[i]];
        if (nInRun < CRASH_RUN_EDGE || nToEnd < CRASH_RUN_EDGE || nInRun % CRASH_RUN_STRIDE == 0)
            vPoints.push_back({vSequence[i], nNth, i + 1});
    }
    return vPoints;
}

// A clean run of the command and the pass after it gives the order of the
// calls that change the medium (and is checked by fnClean); then the device
// dies at each place of it that fnTaken takes (given where the pass began),
// killed or powered off, and the next start must load what the disk and the
// images hold. fnHook, when given, sees every such call before it is made,
// in every run.
void CrashAtEveryPoint(const CrashCommand& command, const std::function<bool(const CrashPoint&, size_t)>& fnTaken,
                       const std::function<void(ListEngine&)>& fnClean = nullptr,
                       const std::function<void(ListEngine&, const FileCall&)>& fnHook = nullptr)
{
    std::vector<FileOp> vSequence;
    size_t nPassStart = 0;
    auto Run = [&](ListEngine& e, FaultFileIO& io, CrashKind eKind, bool bRecord) {
        for (FileOp eOp : g_arCrashOps)
            io.OnCall(eOp, [&e, &fnHook, &vSequence, bRecord](const FileCall& call) {
                if (bRecord) vSequence.push_back(call.m_eOp);
                if (fnHook) fnHook(e, call);
            });
        command.m_fnAsk(e);
        ScopedFileIO scope(&io);
        e.m_db.Module().FileCMD(&e.m_db.m_stCrit);
        if (bRecord) nPassStart = vSequence.size();
        e.m_db.Pass();
        if (eKind == CRASH_POWER) io.LosePower(NameLoss::Undo);
    };
    {
        ListEngine e(CRASH_FILE_SIZE, CRASH_BLOCKS);
        e.m_db.MakeStartAndSave();
        FaultFileIO io;
        Run(e, io, CRASH_KILL, true);
        if (fnClean) fnClean(e);
        e.m_db.Stop();
        RemoveImageSegments();
    }
    ASSERT_FALSE(vSequence.empty());
    for (const CrashPoint& point : CrashPoints(vSequence)) {
        if (!fnTaken(point, nPassStart)) continue;
        for (CrashKind eKind : {CRASH_KILL, CRASH_POWER}) {
            ListEngine e(CRASH_FILE_SIZE, CRASH_BLOCKS);
            e.m_db.MakeStartAndSave();
            FaultFileIO io;
            io.DieAfter(point.m_eOp, point.m_nNth);
            Run(e, io, eKind, false);
            // The process is gone (its images stay, or go with the power);
            // the next start must load what the disk and the images hold.
            const std::string strWhere = "device dead after call " + std::to_string(point.m_nNth) + " of kind " +
                                         std::to_string((int)point.m_eOp) + (eKind == CRASH_KILL ? ", killed" : ", power lost");
            if (eKind == CRASH_KILL) {
                e.KillStop();
            } else {
                e.m_db.Stop();
                RemoveImageSegments();
            }
            EXPECT_EQ("", e.ListAgreesWithFiles()) << strWhere;
            EXPECT_EQ(S_OK, e.m_db.Start()) << strWhere << "\n" << e.m_db.m_tree.Trace();
            e.m_db.Stop();
            RemoveImageSegments();
            if (::testing::Test::HasFailure()) return;
        }
    }
}

} // namespace

// The device dies after every call that changes it, of every kind, in turn
// (a sample of the middle of a run of one kind) — then the process is
// killed, or the power goes: each command leaves a list and files that the
// next start loads. The pass after a command commits the list block the
// command left, the same steps whatever the command was: each of its places
// is taken by one command in turn, the pass's start by every one.
TEST(FileCommandCrashes, EveryStepOfEveryCommandLeavesADatabaseThatStarts)
{
    RemoveImageSegments();
    const size_t nCommands = sizeof(g_arCrashCommands) / sizeof(g_arCrashCommands[0]);
    for (size_t nCommand = 0; nCommand < nCommands; nCommand++) {
        SCOPED_TRACE(g_arCrashCommands[nCommand].m_lpName);
        CrashAtEveryPoint(g_arCrashCommands[nCommand], [&](const CrashPoint& point, size_t nPassStart) {
            return point.m_nAt <= nPassStart || (point.m_nAt - nPassStart) % nCommands == nCommand;
        });
        if (HasFailure()) return;
    }
}

// A move whose copy is whole but whose row cannot reach the list on disk
// goes back to the old file, which the list on disk names again: the copy
// goes when the old row is back on the medium, and stays when even that is
// not known; the passes that follow write where the next start will read.
TEST(FileCommandMoveBack, AMoveTheListCannotRecordGoesBackToTheOldFile)
{
    for (long long nFailures : {1LL, FAULT_ALWAYS}) {
        ListEngine e;
        e.m_db.MakeStartAndSave();
        std::mt19937 rng(17);
        const std::string strNew = e.NewPath("Unrecorded3.dbf");
        LPFILE_MEMDBFILEINFO lpRow = e.Ask({FILECMD_MOVE, 3, 0, strNew, "", 0});
        {
            FaultFileIO io;
            // Only the list's own write is synced by a call: the copy is
            // written through a synchronous descriptor.
            io.FailCall(FileOp::FSync, 1, EIO, nFailures);
            ScopedFileIO scope(&io);
            ASSERT_EQ(S_OK, e.m_db.Module().FileCMD(&e.m_db.m_stCrit));
            EXPECT_GE(io.Calls(FileOp::FSync), 1);
        }
        EXPECT_EQ(FILECMD_MOVE_FAILED, Val(lpRow->m_bFileCMD));
        EXPECT_STREQ(e.m_db.PathOf(3).c_str(), e.m_db.File(3)->m_lpszFilePath);
        EXPECT_EQ(nFailures == 1, !PathExists(strNew)) << nFailures;
        EXPECT_TRUE(PathExists(e.m_db.PathOf(3)));
        EXPECT_STREQ(e.m_db.PathOf(3).c_str(), e.DiskRow(3).m_lpszFilePath);
        // The engine takes the request back; the file keeps taking passes.
        e.TakeBack(lpRow, e.m_db.PathOf(3));
        e.m_db.RandomChanges(100, rng);
        ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, e.m_db.Pass());
        long long nCommitted = e.m_db.CommittedOnDisk();
        talvorpeer::PeerCheckResult r = e.m_db.CheckDisk(nCommitted);
        EXPECT_EQ(0, r.m_nViolations) << r.m_strFirst;
        EXPECT_GT(r.m_nRequired, 0);
    }
}

// An engine writes a second request into a move's row while the copy runs
// (as over a request a killed daemon left, which the next start resumes):
// the list names the copy the move made, never the path written meanwhile,
// whatever call the device dies after, killed or powered off.
TEST(FileCommandCrashes, AMoveOverwrittenInItsRowNamesOnlyTheCopyItMade)
{
    RemoveImageSegments();
    bool bAskedAgain = false;
    LPFILE_MEMDBFILEINFO lpRow = nullptr;
    const CrashCommand move = {"move", [&](ListEngine& e) {
                                   lpRow = e.Row(3);
                                   bAskedAgain = false;
                                   g_arCrashCommands[1].m_fnAsk(e);
                               }};
    // Before the copy's first write.
    auto fnAskAgain = [&](ListEngine& e, const FileCall& call) {
        if (call.m_eOp != FileOp::PWrite || bAskedAgain || call.m_strPath != e.NewPath("sub/Moved3.dbf")) return;
        bAskedAgain = true;
        e.Ask({FILECMD_MOVE, 3, 0, e.NewPath("sub/Second3.dbf"), "", 0});
    };
    auto fnClean = [&](ListEngine& e) {
        ASSERT_TRUE(bAskedAgain);
        const std::string strCopy = e.NewPath("sub/Moved3.dbf");
        EXPECT_EQ(FILECMD_NONE, Val(lpRow->m_bFileCMD));
        EXPECT_STREQ(strCopy.c_str(), lpRow->m_lpszFilePath);
        EXPECT_STREQ(strCopy.c_str(), e.m_db.File(3)->m_lpszFilePath);
        EXPECT_STREQ(strCopy.c_str(), e.DiskRow(3).m_lpszFilePath);
        EXPECT_EQ("", e.ListAgreesWithFiles());
    };
    CrashAtEveryPoint(move, [](const CrashPoint&, size_t) { return true; }, fnClean, fnAskAgain);
}

// A move refused: the path of another file (also in other letter case);
// the own path is no move.
TEST_F(FileCommands, RefusedMovesLeaveTheFileWhereItIs)
{
    LPFILE_MEMDBFILEINFO lpTaken = Ask({FILECMD_MOVE, 3, 0, m_db.m_tree.Dir() + "F4.DBF", "", 0});
    ASSERT_EQ(S_OK, Walk());
    EXPECT_EQ(FILECMD_PATHTAKEN, Val(lpTaken->m_bFileCMD));
    EXPECT_STREQ(m_db.PathOf(3).c_str(), m_db.File(3)->m_lpszFilePath);
    // The row no longer names file 4's path: a pass would write two files to one.
    EXPECT_STREQ(m_db.PathOf(3).c_str(), lpTaken->m_lpszFilePath);
    snprintf(lpTaken->m_lpszFilePath, sizeof(lpTaken->m_lpszFilePath), "%s", m_db.PathOf(3).c_str());
    lpTaken->m_bFileCMD = FILECMD_MOVE;
    ASSERT_EQ(S_OK, Walk());
    EXPECT_EQ(FILECMD_NONE, Val(lpTaken->m_bFileCMD));
    EXPECT_TRUE(PathExists(m_db.PathOf(3)));
}
