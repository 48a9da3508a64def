// End-to-end: talvor-inspect on databases made by talvor-mkdb, each with one
// damage put in by hand where a real fault would leave it. Each damage must
// come out as a finding line naming the file and the byte offset. (The files
// a real daemon wrote, sound, are checked after every step of FileCommands.)
#include "DatabaseLoadKit.h"

#include <functional>

using namespace talvortest;

namespace {

template <class T>
bool WriteValue(const std::string& strPath, long long nOffset, T v)
{
    return WriteFileAt(strPath, nOffset, std::string((const char*)&v, sizeof(v)));
}

std::vector<std::string> DamageLines(const std::string& strOut)
{
    std::vector<std::string> v;
    std::istringstream in(strOut);
    std::string strLine;
    while (std::getline(in, strLine))
        if (strLine.rfind("damage: ", 0) == 0) v.push_back(strLine);
    return v;
}

class InspectTool : public ::testing::Test {
protected:
    void MakeIn(const std::string& strDir)
    {
        m_strDir = strDir;
        ASSERT_EQ(0, MakeDb(m_box, m_strDir, {"--data-file", "4", "--btree-file", "2", "--table-file", "4",
                                              "--index-file", "4"}));
    }
    std::string Path(const std::string& strName) const { return m_strDir + strName; }
    // Where the map entry of block 1 of a memory-mode file lies.
    long long FirstEntryOffset(const std::string& strFile)
    {
        return DbMapEntryOffset(RecordOnDisk<BASEFILEHEAD>(strFile, 0).m_nBlockMapStartOffset, 0);
    }

    DaemonSandbox m_box;
    std::string m_strDir;
};

bool Names(const std::string& strLine, const std::string& strKind, int nFileNo, long long nOffset)
{
    std::string strHead = "damage: " + strKind + ": file " + std::to_string(nFileNo) + " ";
    return strLine.rfind(strHead, 0) == 0 &&
           (nOffset < 0 || strLine.find(" at offset " + std::to_string(nOffset) + ":") != std::string::npos);
}

// The finding a damage must give: its kind, file and offset (-1: any), and
// a piece of its text (empty: none asked).
struct Finding {
    std::string m_strKind;
    int m_nFileNo;
    long long m_nOffset;
    std::string m_strText;
};
typedef std::vector<Finding> Findings;

} // namespace

// One damage per database, put where a real fault would leave it: the
// check fails with exactly the findings that name them, one line each.
TEST_F(InspectTool, EachDamageIsFoundOnALineThatNamesItsFileAndOffset)
{
    const struct {
        const char* m_lpWhat;
        std::function<Findings()> m_fnDamage;
    } arCases[] = {
        {"a memory-mode chain that comes back on itself",
         [&] {
             std::string strData = Path("Data2.dbf");
             BASEFILEHEAD h = RecordOnDisk<BASEFILEHEAD>(strData, 0);
             BASEFILEOBJECTDEF o = RecordOnDisk<BASEFILEOBJECTDEF>(strData, h.m_nObjectInfoOffset);
             EXPECT_NE(0, (int)o.m_nID);
             long long nFirst = o.m_nFreeBlockMapOffset != 0 ? o.m_nFreeBlockMapOffset : o.m_nFullBlockMapOffset;
             EXPECT_TRUE(WriteValue<long long>(strData, nFirst + offsetof(BASEFILEBLOCKMAP, m_nNextOffset), nFirst));
             return Findings{{"loop", 2, nFirst, ""}};
         }},
        // A damaged head may give a block area that starts before the file:
        // a negative block offset must still be refused by the file's bounds.
        {"a negative block offset",
         [&] {
             std::string strData = Path("Data2.dbf");
             long long nEntry = FirstEntryOffset(strData);
             EXPECT_TRUE(WriteValue<long long>(strData, offsetof(BASEFILEHEAD, m_nBlockStartOffset), -(1LL << 40)));
             EXPECT_TRUE(WriteValue<long long>(strData, nEntry + offsetof(BASEFILEBLOCKMAP, m_nBlockOffset), -4096));
             return Findings{{"bound", 2, nEntry, ""}};
         }},
        // The 80 bytes of a commit, cut after 60 by a power loss: the
        // persisted-up-to timestamp got its new low half, the newest
        // committed one kept its old value.
        {"a torn commit",
         [&] {
             std::string strSystem = Path("System.dbf");
             std::string strPart = ReadFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, SYSTEMFILE_DYNAMIC_SIZE);
             EXPECT_EQ((size_t)SYSTEMFILE_DYNAMIC_SIZE, strPart.size());
             long long nBegin = 5000, nEnd = 5000;
             memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nBegin, 8);
             memcpy(&strPart[offsetof(SYSTEMFILEHEAD, m_nEndTimestamp) - SYSTEMFILE_DYNAMIC_OFFSET], &nEnd, 8);
             EXPECT_TRUE(WriteFileAt(strSystem, SYSTEMFILE_DYNAMIC_OFFSET, strPart.substr(0, 60)));
             return Findings{{"commit", 1, (long long)offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp), "5000"}};
         }},
        // Damages in three files at once: each is found and told on a line of
        // its own, none hides the ones after it.
        {"a memory-mode block whose mark is gone, an entry past the file, a commit",
         [&] {
             std::string strData = Path("Data2.dbf"), strIndex = Path("BTree3.dbf");
             long long nBlock = RecordOnDisk<BASEFILEBLOCKMAP>(strData, FirstEntryOffset(strData)).m_nBlockOffset;
             EXPECT_GT(nBlock, 0);
             EXPECT_TRUE(WriteValue<int>(strData, nBlock, 0x58585858));
             EXPECT_TRUE(WriteValue<UINT>(strData, nBlock + offsetof(BASEBLOCKHEAD, m_nBlockNo), 9));
             long long nEntry = FirstEntryOffset(strIndex);
             EXPECT_TRUE(WriteValue<long long>(strIndex, nEntry + offsetof(BASEFILEBLOCKMAP, m_nBlockOffset), 1LL << 40));
             EXPECT_TRUE(WriteValue<long long>(Path("System.dbf"), offsetof(SYSTEMFILEHEAD, m_nBeginTimestamp), 77));
             return Findings{{"commit", 1, -1, ""}, {"mark", 2, nBlock, "0x58585858"}, {"bound", 3, nEntry, ""}};
         }},
        {"a missing file",
         [&] {
             EXPECT_EQ(0, unlink(Path("BTree3.dbf").c_str()));
             return Findings{{"read", 3, -1, ""}};
         }},
    };
    int nCase = 0;
    for (const auto& c : arCases) {
        SCOPED_TRACE(c.m_lpWhat);
        ASSERT_NO_FATAL_FAILURE(MakeIn(m_box.Root() + "/case" + std::to_string(nCase++) + "/"));
        Findings vWant = c.m_fnDamage();
        std::string strOut;
        EXPECT_EQ(1, m_box.Run({ToolPath("talvor-inspect"), "--check", m_strDir}, 60000, &strOut)) << strOut;
        std::vector<std::string> v = DamageLines(strOut);
        ASSERT_EQ(vWant.size(), v.size()) << strOut;
        for (size_t i = 0; i < v.size(); i++) {
            EXPECT_TRUE(Names(v[i], vWant[i].m_strKind, vWant[i].m_nFileNo, vWant[i].m_nOffset)) << v[i];
            EXPECT_NE(std::string::npos, v[i].find(vWant[i].m_strText)) << v[i];
        }
    }
}
