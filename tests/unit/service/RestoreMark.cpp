// The mark of a restore under way: a start over files a restore left half
// rewritten is refused with a line that says so, until the mark is gone;
// the mark, once set, survives a power loss, and so does its removal.
#include "FaultFileIO.h"
#include "PersistenceDb.h"
#include "TalvorRestoreMark.h"

using namespace talvortest;

TEST(RestoreMark, AStartOverAnUnfinishedRestoreIsRefusedWithItsReason)
{
    PersistenceDb db;
    ASSERT_TRUE(db.MakeDatabase());
    ASSERT_TRUE(TalvorSetRestoreMark(db.SystemPath().c_str()));
    EXPECT_EQ(E_FAIL, db.Start());
    EXPECT_EQ(nullptr, db.Head());
    EXPECT_TRUE(db.m_tree.Traced("A restore into this database did not finish")) << db.m_tree.Trace();
    EXPECT_TRUE(db.m_tree.Traced(db.SystemPath()));
    db.Stop();
    ASSERT_TRUE(TalvorClearRestoreMark(db.SystemPath().c_str()));
    EXPECT_EQ(S_OK, db.Start());
    EXPECT_NE(nullptr, db.Head());
}

TEST(RestoreMark, TheMarkAndItsRemovalSurviveAPowerLoss)
{
    PersistenceDb db;
    ASSERT_TRUE(db.MakeDatabase());
    const std::string strSystem = db.SystemPath();
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        ASSERT_TRUE(TalvorSetRestoreMark(strSystem.c_str()));
        io.LosePower();
    }
    EXPECT_TRUE(TalvorRestoreMarkPresent(strSystem.c_str()));
    {
        FaultFileIO io;
        ScopedFileIO scoped(&io);
        ASSERT_TRUE(TalvorClearRestoreMark(strSystem.c_str()));
        io.LosePower();
    }
    EXPECT_FALSE(TalvorRestoreMarkPresent(strSystem.c_str()));
    // Clearing with no mark is no failure.
    EXPECT_TRUE(TalvorClearRestoreMark(strSystem.c_str()));
}
