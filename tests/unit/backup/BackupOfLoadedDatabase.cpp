// The daemon's incremental backup of a loaded database against the offline
// verifier, with the power lost at any write of it.
#include "BackupFixture.h"
#include "PersistenceDb.h"

using namespace backuptest;
using namespace talvortest;

TEST(BackupOfLoadedDatabase, PowerLossAtAnyWriteOfAnIncrementalBackup)
{
    PersistenceDb db(24 * 1048576LL, 320);
    db.MakeStartAndSave();
    std::string strArchive = db.m_tree.Dir() + "Archive/";
    const long long nFull = db.Head()->m_nEndTimestamp;
    volatile BYTE bAbort = 0;
    ASSERT_TRUE(db.Module().BackupFull(&db.m_stCrit, nullptr, &strArchive[0], (int)strArchive.size() + 1,
                                       nFull, 3, 50, 0x0100007F, bAbort));
    // Blocks of file 2 changed after the full backup and saved, as the
    // command's pass saves before a backup.
    long long nRef = 0;
    for (int b = 40; b < 46; b++) {
        long long ts = db.BeginTransaction();
        if (nRef == 0) nRef = ts;
        db.ChangeRow(2, b, 1, ts * 5, ts);
        db.EndTransaction(ts);
    }
    ASSERT_EQ(CBreltMemStorageModule::SAVEPASS_DONE, db.Pass());
    const long long nLevel1 = db.Head()->m_nEndTimestamp;
    PowerLossAtEveryWrite(strArchive + "Backup/TalvorBackup" + std::to_string(nLevel1) + ".fbk",
                          db.m_tree.LogDir(), 6, {{"lost", -1, 0}, {"torn at 512", 0, 512}, {"whole", 0, 0}},
                          [&] {
                              return db.Module().BackupIncremental(&db.m_stCrit, nullptr, &strArchive[0],
                                                                   (int)strArchive.size() + 1, 1, nLevel1,
                                                                   nRef, 3, 50, 0x0100007F, bAbort);
                          });
}
