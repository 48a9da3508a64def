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

} // namespace talvorfuzz
