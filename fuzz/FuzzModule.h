// FuzzModule.h — a module object brought up on the system file in the fuzz
// directory, as the start brings it up, and given back as the stop does
// (without its trace and configuration steps).
#pragma once

#include "BreltMemStorage.h"
#include "ConfigHelper.h"
#include "FuzzFiles.h"
#include "FuzzQuiet.h"
#include "ModuleTestKit.h"
#include "TalvorFlashback.h"

#include <cstdlib>
#include <string>

namespace talvorfuzz {

// The ini of the fuzz directory: the database lives there, messages in
// English, no cache. Once per process.
inline bool ModuleIni()
{
    static bool s_bOk = [] {
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
