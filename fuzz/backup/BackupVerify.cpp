// A backup file from outside, as an operator hands it to talvor-backup
// verify: the verifier ends on any bytes, reads inside the file and its own
// buffers only, and what it accepts holds together — every file the restore
// would write lies inside the backup, no more records than the head counts,
// a finding exactly when it refuses.
//
// Input: the backup file in the form of FuzzImage.h (any length, no
// alignment). The seeds are whole full and incremental backups and a
// place-holder head, made as the unit tests make them (fuzz/MakeSeeds.cpp).
#include "FuzzImage.h"
#include "TalvorBackupVerify.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

const uint32_t MAX_IMAGE = 1048576;

const std::string& BackupPath()
{
    static std::string s_strPath = talvorfuzz::RamDir() + "TalvorBackup1.fbk";
    return s_strPath;
}

// The report says no more than the file can hold.
void CheckReport(const BACKUPVERIFYREPORT& r, long long nFileSize)
{
    if (r.m_nStatus < BACKUPVERIFY_WHOLE || r.m_nStatus > BACKUPVERIFY_NOMEMORY) abort();
    if ((r.m_nStatus == BACKUPVERIFY_WHOLE) != (r.m_szFinding[0] == '\0')) abort();
    if (memchr(r.m_szFinding, '\0', sizeof(r.m_szFinding)) == nullptr) abort();
    if (r.m_nItemNum < 0 || r.m_nItemNum > MAX_FILE_NUM) abort();
    if (r.m_nStatus != BACKUPVERIFY_WHOLE) return;
    if (!r.m_bHeadKnown || r.m_nBackupFileSize != nFileSize || r.m_nItemNum != r.m_nFileNum) abort();
    long long nCopied = r.m_nHeadSize;
    for (int i = 0; i < r.m_nItemNum; i++) {
        const BACKUPRESTOREITEM& it = r.m_arItem[i];
        if (memchr(it.m_lpszFilePath, '\0', sizeof(it.m_lpszFilePath)) == nullptr || it.m_lpszFilePath[0] == '\0')
            abort();
        if (it.m_nCopiedSize < 0 || it.m_nCopiedSize > it.m_nFileSize || it.m_nPieceNum < 0) abort();
        if (r.m_nLevel == BACKUPLEVEL_FULL && it.m_nPieceNum > 1) abort();
        nCopied += it.m_nCopiedSize;
    }
    if (nCopied > nFileSize) abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    static LPBACKUPVERIFYREPORT s_pReport = new (std::nothrow) BACKUPVERIFYREPORT;
    if (s_pReport == nullptr) abort();
    talvorfuzz::CFuzzImage image(lpData, nSize, 0, MAX_IMAGE, 1);
    if (!image.Ok() || !image.WriteFile(BackupPath())) return 0;
    TalvorVerifyBackup(BackupPath().c_str(), s_pReport);
    CheckReport(*s_pReport, image.ImageSize());
    return 0;
}
