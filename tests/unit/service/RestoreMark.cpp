// The mark of a restore under way survives a power loss, and so does its
// removal. A start refused over the mark is the restore's tests'.
#include "FaultFileIO.h"
#include "PersistenceDb.h"
#include "TalvorRestoreMark.h"

using namespace talvortest;

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
