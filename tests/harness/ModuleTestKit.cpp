#include "ModuleTestKit.h"

#include "TalvorFlashback.h"

#include <cstdlib>

namespace talvortest {

void ReleaseModuleFiles(CBreltMemStorageModule& m)
{
    // Standby threads read the module's channel until they end.
    m.StopStandbys();
    while (m.m_pStorageInfo != nullptr) {
        stu_FILEINFO* p = m.m_pStorageInfo;
        m.m_pStorageInfo = p->m_pNext;
        if (p->m_pStorageFile != nullptr) p->m_pStorageFile->Release();
        free(p);
    }
    if (m.m_lpSystemFileInfo != nullptr) {
        if (m.m_lpSystemFileInfo->m_pStorageFile != nullptr) m.m_lpSystemFileInfo->m_pStorageFile->Release();
        free(m.m_lpSystemFileInfo);
        m.m_lpSystemFileInfo = nullptr;
    }
    delete m.m_pFlashback;
    m.m_pFlashback = nullptr;
}

} // namespace talvortest
