// BreltMemStorageThread.cpp — the storage thread: it polls its command
// sources and runs the periodic persistence pass.
#include "BreltMemStorage.h"

#include "CrashContainment.h"
#include "LogManager.h"

#include <unistd.h>

void* CBreltMemStorageModule::TalvorStorageThread(void* lpParam)
{
    CBreltMemStorageModule* pModule = (CBreltMemStorageModule*)lpParam;
    TALVORCRITICALSECTION stCritSection;
    InitThreadCritSection(&stCritSection);

    pModule->SetThreadData(TalvorStorageThread, lpParam, &pModule->m_hTalvorStorageThread);
    jmp_buf* pJmp = pModule->GetLongJmp();
    if (pJmp != nullptr && setjmp(*pJmp) != 0) {
        // Back from a fault: give back what the abandoned frames held.
        TalvorCriticalRelease(&stCritSection);
        pModule->RemoveThreadData();
        pthread_exit(nullptr);
    }
    if (CrashTestFaultDue("storage")) {
        // Faults holding a latch, so that a test sees it given back.
        CTalvorCriticalSectionPtr guard(&pModule->m_crit, &stCritSection);
        CrashTestFault();
    } else if (CrashTestAsked("storage")) {
        // Restarted: the latch the crash held can be taken again.
        CTalvorCriticalSectionPtr guard(&pModule->m_crit, &stCritSection);
        Trace0("TalvorStorageThread", 3, 10099001,
               TALVOR_TEXT("测试：存储线程重启后取得了m_crit", "test: the restarted storage thread took m_crit"));
    }
    while (g_bEixt == 0) usleep(1000);
    pModule->RemoveThreadData();
    return nullptr;
}

HRESULT CBreltMemStorageModule::SaveChange2File(LPTALVORCRITICALSECTION, BOOL, int, UINT)
{
    // No file has a persistence backend yet: there is nothing to save.
    return S_OK;
}
