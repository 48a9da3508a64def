// BreltMemStorage.cpp — the module's lifecycle: coming up, the idle loop of
// the main thread, and going down, each in its fixed order.
#include "BreltMemStorage.h"

#include "ConfigHelper.h"
#include "CrashContainment.h"
#include "LogManager.h"
#include "TalvorCacheStorage.h"
#include "TalvorError.h"
#include "TalvorFlashback.h"
#include "TalvorMemoryStorage.h"
#include "DbFileLayout.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

volatile sig_atomic_t g_bEixt = 0;

CBreltMemStorageModule _AtlModule;

namespace {

const int WORK_BUFFER_SIZE = 0x100000;
// Idle turns of the main loop at 1 ms before it only waits to be woken.
const int IDLE_QUIET_LOOPS = 1000;
// The longest quiet wait: a stop and a crashed thread wake it at once.
const UINT IDLE_WAKE_WAIT_MS = 1000;
// How long the stop waits for standby threads to let go of their slots.
const long long STANDBY_SLOT_WAIT_MS = 30000;
const UINT STANDBY_SLOT_POLL_MS = 1;
// How long the stop waits for the storage thread to finish what it runs. A
// file command or a pass over a large database may take minutes; past this
// the thread is taken to be stuck.
const UINT STORAGE_THREAD_STOP_WAIT_MS = 600000;

} // namespace

CBreltMemStorageModule::CBreltMemStorageModule()
{
    ResetFields();
    // Not among the fields a restart resets: a standby thread may hold it.
    InitializeCriticalTalvor(&m_critStandby);
    TalvorSetLatchRank(&m_critStandby, LATCHRANK_STANDBYSLOT);
    m_nStandbysLeaving = 0;
}

CBreltMemStorageModule::~CBreltMemStorageModule()
{
    TalvorStoreShared(&m_bExit, TRUE);
    StopStandbys();
    // A thread that outlived the bounded wait may still take the latch.
    if (StandbySlotsTaken() == 0 && TalvorLoadShared(&m_nStandbysLeaving) == 0) DeleteCriticalTalvor(&m_critStandby);
}

void CBreltMemStorageModule::ResetFields()
{
    memset(&m_crit, 0, sizeof(m_crit));
    m_crit.m_nThreadID = TALVOR_NO_OWNER;
    m_nSysFileLoadSize = 0;
    m_lpBuffer = nullptr;
    m_nBufferSize = 0;
    m_lpHeadBuf = nullptr;
    m_hEvent = nullptr;
    m_hStorageEvent = nullptr;
    m_lpSystemFileInfo = nullptr;
    m_pStorageInfo = nullptr;
    memset(m_arFileInfo, 0, sizeof(m_arFileInfo));
    m_pFlashback = nullptr;
    m_pMemoryFileHead = nullptr;
    m_nLRUPercent = 80;
    m_nFileCache = 0;
    memset(m_cConfigPath, 0, sizeof(m_cConfigPath));
    m_bAutoStartService = TRUE;
    m_ulLocalIP = 0;
    m_pTalvorCacheStorage = nullptr;
    m_pCacheBridge = nullptr;
    m_hTalvorStorageThread = 0;
    memset(m_arTalvorStandby, 0, sizeof(m_arTalvorStandby));
    m_bExit = FALSE;
    m_bServing = FALSE;
    m_bRingsUnopened = FALSE;
    m_nClusterNodeType = 0;
    m_nStorageStopWaitMs = STORAGE_THREAD_STOP_WAIT_MS;
    m_bStorageThreadLive = FALSE;
    m_nClearedRedoLogMaxID = 0;
}

// The ini file lies beside the executable.
void CBreltMemStorageModule::BuildConfigPath()
{
    char szExe[MAX_PATH] = {0};
    GetModuleFileName(nullptr, szExe, sizeof(szExe));
    char* pSlash = strrchr(szExe, '/');
    if (pSlash != nullptr) pSlash[1] = '\0';
    // A directory too long for the path leaves it cut; the ini then fails to
    // read and the refusal is traced.
    size_t nDir = strnlen(szExe, sizeof(m_cConfigPath) - sizeof("TalvorConfig.ini"));
    memcpy(m_cConfigPath, szExe, nDir);
    memcpy(m_cConfigPath + nDir, "TalvorConfig.ini", sizeof("TalvorConfig.ini"));
}

HRESULT CBreltMemStorageModule::PreMessageLoop(int)
{
    ResetFields();
    InitializeCriticalTalvor(&m_crit);
    TalvorSetLatchRank(&m_crit, LATCHRANK_MODULE);
    BuildConfigPath();

    if (!TalvorConfigInit(m_cConfigPath)) {
        InitLogSystem();
        Trace0("TalvorStorage", 3, 10000000, TALVOR_TEXT("Talvor读取配置文件失败!", "Talvor failed to read config!"));
        usleep(256000);
        ExitLogSystem();
        return E_FAIL;
    }
    InitLanguageSetting(TRUE);
    if (!InitLogSystem()) return E_FAIL;

    Trace0("TalvorStorage", 3, 10000000,
           TALVOR_TEXT("Talvor专业存储服务启动......", "Talvor Professional Storage Service Start......"));
    TalvorStoreShared(&g_bEixt, 0);
    m_hEvent = CreateEventSem(nullptr, SEMNAME_SERVICE);
    if (m_hEvent == nullptr) {
        Trace("TalvorStorage", 2, 10000010,
              TALVOR_TEXT("Talvor存储服务检测到相同的服务正在运行,程序退出(%d)!",
                          "Talvor Storage Service detects that the same service is running and the program exits(%d)!"),
              errno);
        return E_FAIL;
    }
    m_hStorageEvent = CreateEventSem(nullptr, SEMNAME_STORAGEEVENT);
    if (m_hStorageEvent == nullptr) {
        Trace("TalvorStorage", 2, 10000011,
              TALVOR_TEXT("Talvor存储服务检测到相同的服务正在运行,程序退出(%d)!",
                          "Talvor Storage Service detects that the same service is running and the program exits(%d)!"),
              errno);
        return E_FAIL;
    }
    return S_OK;
}

HRESULT CBreltMemStorageModule::PostMessageLoop()
{
    TALVORCRITICALSECTION stCritSection;
    InitThreadCritSection(&stCritSection);
    LPTALVORCRITICALSECTION lpCritSection = &stCritSection;

    m_nBufferSize = WORK_BUFFER_SIZE;
    m_lpBuffer = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(WORK_BUFFER_SIZE);
    m_lpHeadBuf = (LPBYTE)CTalvorCacheStorage::get_aligned_buffer(WORK_BUFFER_SIZE);
    if (m_lpBuffer == nullptr || m_lpHeadBuf == nullptr) {
        Trace("PostMessageLoop", 1, 10010002,
              TALVOR_TEXT("分配工作缓冲区失败(%d字节)!", "Failed to allocate the work buffers (%d bytes)!"),
              WORK_BUFFER_SIZE);
        FreeData(lpCritSection);
        return E_FAIL;
    }

    HRESULT hr = InitSysEnvironment(lpCritSection, TRUE, FALSE);
    if (hr == E_RESTORE_UNFINISHED) return ServeUntilRestored(lpCritSection);
    if (FAILED(hr)) {
        Trace0("PostMessageLoop", 1, 10010002,
               TALVOR_TEXT("Talvor存储服务加载配置环境失败!", "Talvor storage service loading configuration environment failed!"));
        FreeData(lpCritSection);
        return hr;
    }
    if (!SetLogSystemFileHead(m_pMemoryFileHead, m_nClusterNodeType, m_pFlashback)) {
        FreeData(lpCritSection);
        return E_FAIL;
    }
    // A failure here ends the process with its shared memory left in place.
    if (!m_pFlashback->InitRollback(lpCritSection, m_pMemoryFileHead->m_nMemoryUndoSize)) return E_FAIL;

    hr = LoadFile(lpCritSection);
    if (FAILED(hr)) {
        Trace0("PostMessageLoop", 1, 10010003,
               TALVOR_TEXT("Talvor存储服务加载文件到内存失败!", "Talvor storage service failed to load files into memory!"));
        FreeData(lpCritSection);
        return hr;
    }
    if (m_pTalvorCacheStorage != nullptr) {
        hr = m_pTalvorCacheStorage->CreateEventAndThread();
        if (FAILED(hr)) {
            Trace0("PostMessageLoop", 1, 10010003,
                   TALVOR_TEXT("Talvor存储服务创建命名事件和线程失败!",
                               "Talvor Storage Service failed to create named events and threads!"));
            FreeData(lpCritSection);
            return hr;
        }
        hr = m_pTalvorCacheStorage->InitCacheHead(lpCritSection);
        if (FAILED(hr)) {
            FreeData(lpCritSection);
            return hr;
        }
    }

    // Ready: from here the engine may work.
    m_pMemoryFileHead->m_bStatus = 0;
    UINT nRedoLogMaxID = TalvorLoadShared(&m_pMemoryFileHead->m_nRedoLogMaxID);
    m_pFlashback->GetStorageMemHead()->m_TalvorProgress.m_nStatus = 2;
    m_bServing = TRUE;
    Trace0("PostMessageLoop", 3, 10010000, TALVOR_TEXT("Talvor存储服务已启动!", "Talvor storage service started!"));

    hr = StartStorageThread();
    if (hr != S_OK) return hr;

    IdleUntilStop();
    return StopService(lpCritSection, nRedoLogMaxID);
}

HRESULT CBreltMemStorageModule::ServeUntilRestored(LPTALVORCRITICALSECTION lpCritSection)
{
    // Nothing was opened: the descriptor is all the refusal left.
    ReleaseSystemFile();
    // No image of an earlier run was taken over; any made from here on is
    // this run's.
    m_bServing = TRUE;
    m_bRingsUnopened = TRUE;
    StartLogSystemOwnLines();
    Trace0("PostMessageLoop", 2, 10010008,
           TALVOR_TEXT("数据库未打开:只执行集群命令,直到重新执行恢复",
                       "No database is open: only cluster commands are served until the restore is run again"));
    HRESULT hr = StartStorageThread();
    if (hr != S_OK) {
        FreeData(lpCritSection);
        return hr;
    }
    IdleUntilStop();
    UINT nRedoLogMaxID = m_pMemoryFileHead != nullptr ? TalvorLoadShared(&m_pMemoryFileHead->m_nRedoLogMaxID) : 0;
    return StopService(lpCritSection, nRedoLogMaxID);
}

HRESULT CBreltMemStorageModule::StartStorageThread()
{
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) {
        Trace("PostMessageLoop", 1, 10010001,
              TALVOR_TEXT("存储线程参数初始化失败(%d),错误码:%d", "Initialization of Storage thread parameter failed (%d), error code: %d"),
              rc, errno);
        return 9503;
    }
    rc = pthread_attr_setstacksize(&attr, (size_t)g_nThreadStackSize);
    if (rc != 0) {
        Trace("PostMessageLoop", 1, 10010003,
              TALVOR_TEXT("设置存储线程栈大小(%d)参数失败(%d),错误码:%d",
                          "Failure to set Storage thread stack size (%d) parameter (%d), error code: %d"),
              g_nThreadStackSize, rc, errno);
        pthread_attr_destroy(&attr);
        return 9503;
    }
    rc = pthread_create(&m_hTalvorStorageThread, &attr, TalvorStorageThread, this);
    if (rc != 0) {
        Trace("PostMessageLoop", 1, 10010004,
              TALVOR_TEXT("创建存储线程失败(%d),错误码:%d", "Failure to create Storage thread (%d), error code: %d"), rc,
              errno);
        pthread_attr_destroy(&attr);
        return 9503;
    }
    rc = pthread_attr_destroy(&attr);
    if (rc != 0) {
        Trace("PostMessageLoop", 1, 10010005,
              TALVOR_TEXT("销毁存储线程参数失败(%d),错误码:%d", "Failure to destroy Storage thread parameter (%d), error code: %d"),
              rc, errno);
    }
    return S_OK;
}

// The main thread's life while serving: restart crashed threads, else sleep.
// After a quiet second it waits to be woken (the TERM handler and the crash
// registry post), one look a second at most: an idle daemon's main thread
// then costs next to nothing, and a stop or a crash is still seen at once.
void CBreltMemStorageModule::IdleUntilStop()
{
    int nQuietLoops = 0;
    while (TalvorLoadShared(&g_bEixt) == 0) {
        if (CrashHasCrashedThreads()) {
            CrashAutoRecoverCrashedThreads();
            nQuietLoops = 0;
        } else {
            if (nQuietLoops < IDLE_QUIET_LOOPS) {
                usleep(1000);
                nQuietLoops++;
            } else {
                CrashWaitForMainWork(IDLE_WAKE_WAIT_MS);
            }
        }
    }
    LogTermSignalSender();
}

BOOL CBreltMemStorageModule::WaitStorageThreadEnd(UINT nWaitMs)
{
    HTHREADTYPE hThread = m_hTalvorStorageThread;
    if (hThread == 0) return TRUE;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    long long nNanos = (long long)ts.tv_nsec + (long long)(nWaitMs % 1000) * 1000000LL;
    ts.tv_sec += (time_t)(nWaitMs / 1000) + (time_t)(nNanos / 1000000000LL);
    ts.tv_nsec = (long)(nNanos % 1000000000LL);
    if (pthread_timedjoin_np(hThread, nullptr, &ts) != 0) return FALSE;
    m_hTalvorStorageThread = 0;
    return TRUE;
}

HRESULT CBreltMemStorageModule::StopService(LPTALVORCRITICALSECTION lpCritSection, UINT nRedoLogMaxID)
{
    TalvorStoreShared(&m_bExit, TRUE);
    if (m_pMemoryFileHead != nullptr) {
        // A save pass copies the system image under the latch.
        CTalvorCriticalSectionPtr guard(&m_crit, lpCritSection);
        TalvorStoreShared(&m_pMemoryFileHead->m_bForbidSaveFlag, 0);
    }
    int nService = m_pFlashback->WaitServiceStop(lpCritSection);
    // With the engine lost, the last pass writes its dirty blocks itself.
    // The flush threads are ended first: two writers of one file's blocks
    // and buffers at once could leave an older copy last on disk.
    if (m_pTalvorCacheStorage != nullptr && nService == 2) {
        m_pTalvorCacheStorage->Free();
        m_pTalvorCacheStorage->FlushFileBlock(lpCritSection);
    }
    // The storage thread sees the stop flag on its own and ends after the
    // command it runs. Until it has, its images, buffers and latch are in
    // use: the last pass and the release wait for it. A thread that does not
    // end keeps them; the process ends with the segments in place, and the
    // next start takes them over.
    if (!WaitStorageThreadEnd(m_nStorageStopWaitMs)) {
        m_bStorageThreadLive = TRUE;
        Trace("StopService", 1, 10010006,
              TALVOR_TEXT("存储线程在%u毫秒内未结束:最后一次保存未执行,文件、映像和缓冲区留在内存中",
                          "The storage thread did not end within %u ms: the last save was not run, and its files, images and buffers are left in memory"),
              m_nStorageStopWaitMs);
        FreeData(lpCritSection);
        return S_OK;
    }
    usleep(1000);
    SaveChange2File(lpCritSection, FALSE, 0, nRedoLogMaxID);
    usleep(1000);
    FreeData(lpCritSection);
    return S_OK;
}

namespace {

// One file of a failed start: its image is kept when it was taken over.
void KeepImageIfTakenOver(stu_FILEINFO* p)
{
    if (p == nullptr || p->m_pStorageFile == nullptr || !IsMemoryFileType((BYTE)p->m_bFileType)) return;
    CTalvorMemoryStorage* pStorage = static_cast<CTalvorMemoryStorage*>(p->m_pStorageFile);
    if (!pStorage->TookOverSegment()) return;
    pStorage->KeepSegmentOnRelease();
    Trace("FreeData", 2, 10010007,
          TALVOR_TEXT("启动失败,保留上次运行留下的文件映像,文件号:%d,路径:%s",
                      "The start failed: the image an earlier run left is kept for the next start, file number: %d, path: %s"),
          (int)p->m_bFileNo, p->m_lpszFilePath);
}

} // namespace

// A start that fails never removes an image it did not make: one that
// outlived an earlier run may hold the engine's work not yet on disk, and the
// next start takes it over again.
void CBreltMemStorageModule::KeepTakenOverImages()
{
    KeepImageIfTakenOver(m_lpSystemFileInfo);
    for (stu_FILEINFO* p = m_pStorageInfo; p != nullptr; p = p->m_pNext) KeepImageIfTakenOver(p);
}

void CBreltMemStorageModule::ReleaseFileList()
{
    stu_FILEINFO* pInfo = m_pStorageInfo;
    m_pStorageInfo = nullptr;
    while (pInfo != nullptr) {
        stu_FILEINFO* pNext = pInfo->m_pNext;
        if (pInfo->m_pStorageFile != nullptr) pInfo->m_pStorageFile->Release();
        if (pInfo->m_bFileNo != 0 && m_arFileInfo[pInfo->m_bFileNo] == pInfo) m_arFileInfo[pInfo->m_bFileNo] = nullptr;
        free(pInfo);
        pInfo = pNext;
    }
}

void CBreltMemStorageModule::WaitForStandbySlots()
{
    // By the clock, not by a count of pauses: a pause may return early, and
    // a standby still inside its connect must not outlive the module.
    WaitEventUntil(nullptr, STANDBY_SLOT_WAIT_MS, STANDBY_SLOT_POLL_MS,
                   [&] { return StandbySlotsTaken() == 0 && TalvorLoadShared(&m_nStandbysLeaving) == 0; });
    usleep(STANDBY_SLOT_POLL_MS * 1000);
}

void CBreltMemStorageModule::ReleaseSystemFile()
{
    if (m_lpSystemFileInfo == nullptr) return;
    m_pMemoryFileHead = nullptr;
    if (m_pFlashback != nullptr) m_pFlashback->m_pMemoryFileHead = nullptr;
    if (m_lpSystemFileInfo->m_pStorageFile != nullptr) m_lpSystemFileInfo->m_pStorageFile->Release();
    if (m_arFileInfo[1] == m_lpSystemFileInfo) m_arFileInfo[1] = nullptr;
    free(m_lpSystemFileInfo);
    m_lpSystemFileInfo = nullptr;
}

HRESULT CBreltMemStorageModule::FreeData(LPTALVORCRITICALSECTION lpCritSection)
{
    TalvorConfigInit(m_cConfigPath);
    TalvorStoreShared(&m_bExit, TRUE);
    usleep(1000);
    LPSYSTEMFILEHEAD lpHead = m_pMemoryFileHead;
    if (lpHead != nullptr && lpHead->m_nDataFlag == SYSTEMFILE_DATAFLAG)
        WriteSysConfigParam(lpCritSection, lpHead, FALSE, TRUE);
    ReleaseCache();
    // Standby threads read the redo service and the head: they end first
    // (they see m_bExit).
    WaitForStandbySlots();
    // What a storage thread that would not end still holds is never freed
    // under it: the file list and its images, the system file, the work
    // buffers, the channel, the latch, its wake-up and its crash record.
    const BOOL bKeepHeld = m_bStorageThreadLive;
    if (!m_bServing) KeepTakenOverImages();
    if (!bKeepHeld) ReleaseFileList();
    if (lpHead != nullptr)
        Trace0("TalvorStorage", 3, 10000001, TALVOR_TEXT("Talvor存储服务已停止", "Talvor storage service stopped"));
    SetLogSystemFileHead(nullptr, 0, nullptr);
    WaitForStandbySlots();
    if (!bKeepHeld) {
        ReleaseSystemFile();
        free(m_lpBuffer);
        m_lpBuffer = nullptr;
        free(m_lpHeadBuf);
        m_lpHeadBuf = nullptr;
        delete m_pFlashback;
        m_pFlashback = nullptr;
        CrashFreeThreadLists();
        DeleteCriticalTalvor(&m_crit);
    }
    Trace0("FreeData", 3, 10010000, TALVOR_TEXT("Talvor存储服务已关闭!", "Talvor storage service closed!"));
    ExitLogSystem();
    if (!bKeepHeld) CloseEvent(m_hStorageEvent);
    CloseEvent(m_hEvent);
    TalvorConfigClose();
    return S_OK;
}
