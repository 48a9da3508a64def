// FuzzModule.h — a module object brought up on the system file in the fuzz
// directory, as the start brings it up, and given back as the stop does
// (without its trace and configuration steps).
#pragma once

#include "BreltMemStorage.h"
#include "ConfigHelper.h"
#include "FuzzFiles.h"
#include "FuzzQuiet.h"
#include "ModuleTestKit.h"
#include "TalvorFileIO.h"
#include "TalvorFlashback.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace talvorfuzz {

// The product's file calls, held to the process's own directories: a call
// that would make, change or remove a file anywhere else is refused
// (EACCES). An input names paths of its own choosing (an archive
// destination, the new place of a moved file), and the code under test
// writes there as it would for an operator; a fuzzer must not write where
// it was given no room. Reads go anywhere.
class CConfinedFileIO : public CTalvorFileIO {
public:
    int Open(const char* lpPath, int nFlags, mode_t nMode) override
    {
        const int WRITES = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND;
        if ((nFlags & WRITES) != 0 && !Inside(lpPath)) return Refuse();
        return CTalvorFileIO::Open(lpPath, nFlags, nMode);
    }
    int Rename(const char* lpFrom, const char* lpTo) override
    {
        return Inside(lpFrom) && Inside(lpTo) ? CTalvorFileIO::Rename(lpFrom, lpTo) : Refuse();
    }
    int Unlink(const char* lpPath) override { return Inside(lpPath) ? CTalvorFileIO::Unlink(lpPath) : Refuse(); }
    int MkDir(const char* lpPath, mode_t nMode) override
    {
        return Inside(lpPath) ? CTalvorFileIO::MkDir(lpPath, nMode) : Refuse();
    }
    int Chmod(const char* lpPath, mode_t nMode) override
    {
        return Inside(lpPath) ? CTalvorFileIO::Chmod(lpPath, nMode) : Refuse();
    }

private:
    // Under one of the process's directories, with no step upwards.
    static bool Inside(const char* lpPath)
    {
        if (lpPath == nullptr || strstr(lpPath, "/..") != nullptr) return false;
        for (const std::string* pDir : {&FuzzDir(), &RamDir()})
            if (strncmp(lpPath, pDir->c_str(), pDir->size()) == 0) return true;
        return false;
    }
    static int Refuse()
    {
        errno = EACCES;
        return -1;
    }
};

// The ini of the fuzz directory: the database lives there, messages in
// English, no cache. Once per process.
inline bool ModuleIni()
{
    static bool s_bOk = [] {
        static CConfinedFileIO s_confined;
        CTalvorFileIO::Install(&s_confined);
        QuietTrace();
        std::string strIni = FuzzDir() + "TalvorConfig.ini";
        std::string strText = "[System]\r\ndatabasepath=" + FuzzDir() +
                              "\r\nLanguage=0\r\nbuffercachesize=0\r\nundoareasize=8\r\n";
        return WriteFileBytes(strIni, strText.data(), strText.size()) && TalvorConfigInit(strIni.c_str());
    }();
    return s_bOk;
}

inline std::string SystemFilePath() { return FuzzDir() + "System.dbf"; }

// A module on the made database, up as the start brings it, with the save
// pass's buffers; a made database that does not come up is a fault.
inline void BringUpMadeModule(CBreltMemStorageModule& m, TALVORCRITICALSECTION& stCrit)
{
    InitThreadCritSection(&stCrit);
    // As the daemon knows its ini: a rebuild (after a restore an input ran)
    // reads the configuration again from this path, and an empty one would
    // leave every later bring-up without its database directory.
    snprintf(m.m_cConfigPath, sizeof(m.m_cConfigPath), "%sTalvorConfig.ini", FuzzDir().c_str());
    HRESULT hr = m.InitSysEnvironment(&stCrit, TRUE, FALSE);
    if (hr == S_OK) hr = m.LoadFile(&stCrit);
    if (hr != S_OK) abort();
    m.m_nBufferSize = 0x100000;
    m.m_lpBuffer = (LPBYTE)get_aligned_buffer(0x100000);
    m.m_lpHeadBuf = (LPBYTE)get_aligned_buffer(0x100000);
}

// Gives back what BringUpMadeModule took.
inline void ReleaseMadeModule(CBreltMemStorageModule& m)
{
    talvortest::ReleaseModuleFiles(m);
    free(m.m_lpBuffer);
    free(m.m_lpHeadBuf);
}

} // namespace talvorfuzz
