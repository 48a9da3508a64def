// FaultFileIO.cpp — the fault-injecting file layer.
//
// Power loss is kept as a journal of changes the medium may not hold yet.
// A write keeps the bytes it replaced and the size before it; a truncation
// keeps the tail it cut. Losing power undoes every such change newest first
// (which gives back the file as its last sync left it), then applies again
// the ones chosen to survive, oldest first. The undo goes through a
// descriptor of the layer's own on the same inode, so that it reaches a
// file whose writer used O_DIRECT, closed it, or whose name is gone.
// Name changes wait for a sync of each directory they touched; undoing a
// rename or unlink brings the replaced or removed file back from a
// descriptor held on it since.
#include "FaultFileIO.h"

#include "TempTree.h"
#include "TestFiles.h"

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace talvortest {

namespace {

const size_t NO_LIMIT = (size_t)-1;

bool IsTransfer(FileOp eOp) { return eOp == FileOp::PRead || eOp == FileOp::PWrite; }

// The calls that change the medium, which a dead device refuses.
bool ChangesMedium(FileOp eOp)
{
    static const FileOp arOps[] = {FileOp::PWrite, FileOp::FSync,  FileOp::FDataSync,     FileOp::FTruncate,
                                   FileOp::Fallocate, FileOp::Rename, FileOp::Unlink, FileOp::MkDir,
                                   FileOp::SyncDirectory, FileOp::Chmod, FileOp::FChmod};
    return std::find(std::begin(arOps), std::end(arOps), eOp) != std::end(arOps);
}

std::string ParentDir(const std::string& strPath)
{
    size_t nSlash = strPath.rfind('/');
    if (nSlash == std::string::npos) return ".";
    return nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}

std::string ReadAllOf(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return std::string();
    return ReadFdAt(fd, 0, (long long)st.st_size);
}

// A file the layer held on by descriptor comes back under strPath.
void RecreateFrom(int fdHeld, const std::string& strPath)
{
    struct stat st;
    if (fdHeld < 0 || fstat(fdHeld, &st) != 0) return;
    std::string strData = ReadAllOf(fdHeld);
    int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 07777);
    if (fd < 0) return;
    WriteFdAt(fd, 0, strData);
    fchmod(fd, st.st_mode & 07777);
    close(fd);
}

bool KeyOfPath(const std::string& strPath, std::pair<dev_t, ino_t>* pKey, bool bFollow)
{
    struct stat st;
    if ((bFollow ? stat(strPath.c_str(), &st) : lstat(strPath.c_str(), &st)) != 0) return false;
    *pKey = std::make_pair(st.st_dev, st.st_ino);
    return true;
}

// Writes through a descriptor opened O_SYNC or O_DSYNC are on the medium
// when the call returns.
bool SyncsItself(int fd)
{
    int nFlags = fcntl(fd, F_GETFL);
    return nFlags >= 0 && (nFlags & O_DSYNC) != 0; // O_SYNC includes O_DSYNC
}

const useconds_t IN_FLIGHT_GRACE_US = 1000;

int FailWith(int nErrno) { return errno = nErrno, -1; }

} // namespace

FaultFileIO::FaultFileIO() {}

FaultFileIO::~FaultFileIO()
{
    // A thread of the code under test (a trace writer, say) may be inside a
    // call of this layer when the test ends its scope: it is let go and
    // waited out, after a moment for one that took the layer just before it
    // was taken out to enter.
    Release();
    usleep(IN_FLIGHT_GRACE_US);
    while (m_nInFlight.load() > 0) usleep(IN_FLIGHT_GRACE_US);
    for (Change& c : m_vChanges)
        if (c.m_fdHeld >= 0) close(c.m_fdHeld);
    for (auto& it : m_mapUndoFds) close(it.second);
}

// ------------------------------------------------------------ setting up

void FaultFileIO::FailCall(FileOp eOp, long long nNth, int nErrno, long long nTimes)
{ Locked([&] { m_vRules.push_back({eOp, nNth, nTimes, nErrno}); }); }
void FaultFileIO::FailNext(FileOp eOp, int nErrno, long long nTimes)
{ Locked([&] { m_vRules.push_back({eOp, m_arCalls[(int)eOp] + 1, nTimes, nErrno}); }); }
void FaultFileIO::CutTransfer(FileOp eOp, long long nNth, size_t nBytes)
{ Locked([&] { m_mapCuts[std::make_pair((int)eOp, nNth)] = nBytes; }); }
void FaultFileIO::ReadsEndAt(long long nBytes) { Locked([&] { m_nReadsEndAt = nBytes; }); }
void FaultFileIO::ChopTransfers(size_t nChunk, bool bInterrupt)
{ Locked([&] { m_nChunk = nChunk; m_bInterrupt = bInterrupt; m_bInterruptNext = true; }); }
void FaultFileIO::FillAfter(size_t nBytes, int nErrno) { Locked([&] { m_nFillLeft = (long long)nBytes; m_nFillErrno = nErrno; }); }
void FaultFileIO::DieAfter(FileOp eOp, long long nCalls) { Locked([&] { m_eDieOp = eOp; m_nDieAfter = nCalls; }); }

void FaultFileIO::Hold(FileOp eOp) { Locked([&] { m_arHold[(int)eOp] = true; }); }

bool FaultFileIO::WaitHeld(long long nTimeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cvHold.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_nHeld > 0; });
}

void FaultFileIO::Release()
{
    Locked([&] {
        for (bool& bHold : m_arHold) bHold = false;
        m_cvHold.notify_all();
    });
}

long long FaultFileIO::Held() const { return Locked([&] { return m_nHeld; }); }

void FaultFileIO::OnCall(FileOp eOp, FileHook fnHook) { Locked([&] { m_mapHooks[(int)eOp] = std::move(fnHook); }); }
void FaultFileIO::AfterCall(FileOp eOp, FileHook fnHook) { Locked([&] { m_mapAfterHooks[(int)eOp] = std::move(fnHook); }); }
void FaultFileIO::PassThrough(const std::string& strPrefix) { Locked([&] { m_vPassThrough.push_back(strPrefix); }); }

// ------------------------------------------------------------ looking back

long long FaultFileIO::Calls(FileOp eOp) const { return Locked([&] { return m_arCalls[(int)eOp]; }); }
long long FaultFileIO::BytesRead() const { return Locked([&] { return m_nBytesRead; }); }
std::vector<FileWrite> FaultFileIO::Writes() const { return Locked([&] { return m_vWrites; }); }

std::vector<UnsyncedChange> FaultFileIO::Unsynced() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<UnsyncedChange> v;
    for (const Change& c : m_vChanges) {
        if (c.m_eKind == CHANGE_WRITE)
            v.push_back({c.m_strPath, c.m_nOffset, (long long)c.m_strNew.size(), false});
        else if (c.m_eKind == CHANGE_TRUNCATE)
            v.push_back({c.m_strPath, c.m_nOffset, 0, true});
    }
    return v;
}

// ------------------------------------------------------------ power loss

void FaultFileIO::LosePower(NameLoss eNames) { LosePowerKeeping({}, eNames); }

void FaultFileIO::LosePowerKeeping(const std::vector<size_t>& vKeep, NameLoss eNames)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<bool> vKept;
    for (size_t n : vKeep) {
        if (n >= vKept.size()) vKept.resize(n + 1, false);
        vKept[n] = true;
    }
    LosePowerLocked(vKept, eNames);
}

void FaultFileIO::LosePowerLocked(const std::vector<bool>& vKeep, NameLoss eNames)
{
    std::vector<Change*> vData;
    for (Change& c : m_vChanges)
        if (c.m_eKind == CHANGE_WRITE || c.m_eKind == CHANGE_TRUNCATE) vData.push_back(&c);
    // Back to the last synced state, newest change first.
    for (auto it = vData.rbegin(); it != vData.rend(); ++it) {
        Change& c = **it;
        auto itFd = m_mapUndoFds.find(c.m_key);
        if (itFd == m_mapUndoFds.end()) continue;
        // The old size first for a truncation (its tail goes back in), after
        // the old bytes for a write (a growth is cut again).
        if (c.m_eKind == CHANGE_TRUNCATE && ftruncate(itFd->second, (off_t)c.m_nOldSize) != 0) continue;
        WriteFdAt(itFd->second, c.m_nOffset, c.m_strOld);
        if (c.m_eKind == CHANGE_WRITE && ftruncate(itFd->second, (off_t)c.m_nOldSize) != 0) continue;
    }
    // The survivors, in their order.
    for (size_t i = 0; i < vData.size(); i++) {
        if (i >= vKeep.size() || !vKeep[i]) continue;
        Change& c = *vData[i];
        auto itFd = m_mapUndoFds.find(c.m_key);
        if (itFd == m_mapUndoFds.end()) continue;
        if (c.m_eKind == CHANGE_TRUNCATE)
            (void)!ftruncate(itFd->second, (off_t)c.m_nOffset);
        else
            WriteFdAt(itFd->second, c.m_nOffset, c.m_strNew);
    }
    for (auto& it : m_mapUndoFds) fsync(it.second);
    if (eNames == NameLoss::Undo) {
        for (auto it = m_vChanges.rbegin(); it != m_vChanges.rend(); ++it)
            if (it->m_eKind != CHANGE_WRITE && it->m_eKind != CHANGE_TRUNCATE) UndoNameLocked(*it);
    }
    for (Change& c : m_vChanges)
        if (c.m_fdHeld >= 0) close(c.m_fdHeld);
    m_vChanges.clear();
    for (auto& it : m_mapUndoFds) close(it.second);
    m_mapUndoFds.clear();
}

void FaultFileIO::UndoNameLocked(const Change& c)
{
    FileKey key;
    switch (c.m_eKind) {
    case CHANGE_CREATE:
        // Whatever holds the name now came after the create, and its own
        // change was undone before this one (a removed file brought back).
        unlink(c.m_strPath.c_str());
        break;
    case CHANGE_RENAME:
        if (!KeyOfPath(c.m_strFrom, &key, false)) rename(c.m_strPath.c_str(), c.m_strFrom.c_str());
        if (c.m_fdHeld >= 0) RecreateFrom(c.m_fdHeld, c.m_strPath);
        break;
    case CHANGE_UNLINK:
        if (!KeyOfPath(c.m_strPath, &key, false)) RecreateFrom(c.m_fdHeld, c.m_strPath);
        break;
    case CHANGE_MKDIR:
        // A directory whose name never reached the medium takes everything
        // in it along, synced or not.
        RemoveTree(c.m_strPath);
        break;
    default:
        break;
    }
}

// ------------------------------------------------------------ bookkeeping

bool FaultFileIO::Passes(const std::string& strPath) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& strPrefix : m_vPassThrough)
        if (strPath.compare(0, strPrefix.size(), strPrefix) == 0) return true;
    return false;
}

std::string FaultFileIO::PathOfFd(int fd)
{
    if (fd < 0) return std::string();
    char szLink[64], szPath[4096];
    snprintf(szLink, sizeof(szLink), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(szLink, szPath, sizeof(szPath) - 1);
    return n > 0 ? std::string(szPath, (size_t)n) : std::string();
}

FileCall FaultFileIO::MakeCall(FileOp eOp, const std::string& strPath, long long nOffset, long long nSize, int nFlags)
{
    return FileCall{eOp, 0, strPath, nOffset, nSize, nFlags, 0};
}

// Counts the call, runs its hook, holds it while its kind is held, and
// tells whether it fails. A transfer also learns how many bytes it may move
// at most.
FaultFileIO::Verdict FaultFileIO::Judge(FileCall& call)
{
    const FileOp eOp = call.m_eOp;
    Verdict v;
    auto Failing = [](int nErrno) { return Verdict{true, nErrno, NO_LIMIT}; };
    FileHook fnHook;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        call.m_nNth = ++m_arCalls[(int)eOp];
        auto it = m_mapHooks.find((int)eOp);
        if (it != m_mapHooks.end()) fnHook = it->second;
    }
    if (fnHook) fnHook(call);
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_arHold[(int)eOp]) {
        m_nHeld++;
        m_cvHold.notify_all();
        m_cvHold.wait(lock, [&] { return !m_arHold[(int)eOp]; });
    }
    if (m_nDieAfter >= 0 && ChangesMedium(eOp)) {
        long long nBefore = eOp == m_eDieOp ? call.m_nNth - 1 : m_arCalls[(int)m_eDieOp];
        if (nBefore >= m_nDieAfter) return Failing(EIO);
    }
    for (const Rule& r : m_vRules) {
        if (r.m_eOp != eOp || call.m_nNth < r.m_nFrom) continue;
        if (r.m_nTimes != FAULT_ALWAYS && call.m_nNth >= r.m_nFrom + r.m_nTimes) continue;
        return Failing(r.m_nErrno);
    }
    if (!IsTransfer(eOp)) return v;
    if (m_bInterrupt) {
        m_bInterruptNext = !m_bInterruptNext;
        if (!m_bInterruptNext) return Failing(EINTR);
    }
    v.m_nLimit = m_nChunk > 0 ? m_nChunk : NO_LIMIT;
    auto itCut = m_mapCuts.find(std::make_pair((int)eOp, call.m_nNth));
    if (itCut != m_mapCuts.end()) v.m_nLimit = std::min(v.m_nLimit, itCut->second);
    if (eOp == FileOp::PRead && m_nReadsEndAt >= 0) {
        long long nLeft = m_nReadsEndAt - call.m_nOffset;
        // Moving nothing and saying so is the end of the file.
        if (nLeft <= 0) return Failing(0);
        v.m_nLimit = std::min(v.m_nLimit, (size_t)nLeft);
    }
    if (eOp != FileOp::PWrite) return v;
    if (m_nFillLeft == 0) return Failing(m_nFillErrno);
    if (m_nFillLeft > 0) v.m_nLimit = std::min(v.m_nLimit, (size_t)m_nFillLeft);
    return v;
}

long long FaultFileIO::Finish(FileCall& call, long long nResult)
{
    int nErr = errno;
    FileHook fnHook;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_mapAfterHooks.find((int)call.m_eOp);
        if (it != m_mapAfterHooks.end()) fnHook = it->second;
    }
    call.m_nResult = nResult;
    if (fnHook) fnHook(call);
    errno = nErr;
    return nResult;
}

int FaultFileIO::UndoFdLocked(const FileKey& key, int fd)
{
    auto it = m_mapUndoFds.find(key);
    if (it != m_mapUndoFds.end()) return it->second;
    // A descriptor of our own: not O_DIRECT, and alive after the writer's
    // is closed or its name unlinked.
    char szLink[64];
    snprintf(szLink, sizeof(szLink), "/proc/self/fd/%d", fd);
    int fdUndo = open(szLink, O_RDWR | O_CLOEXEC);
    if (fdUndo >= 0) m_mapUndoFds[key] = fdUndo;
    return fdUndo;
}

void FaultFileIO::SyncedLocked(const FileKey& key, bool bDirectory)
{
    std::vector<Change> vKeep;
    for (Change& c : m_vChanges) {
        bool bData = c.m_eKind == CHANGE_WRITE || c.m_eKind == CHANGE_TRUNCATE;
        if (bData && !bDirectory && c.m_key == key) continue;
        if (!bData && bDirectory) {
            c.m_vDirs.erase(std::remove(c.m_vDirs.begin(), c.m_vDirs.end(), key), c.m_vDirs.end());
            if (c.m_vDirs.empty()) {
                if (c.m_fdHeld >= 0) close(c.m_fdHeld);
                continue;
            }
        }
        vKeep.push_back(std::move(c));
    }
    m_vChanges.swap(vKeep);
}

void FaultFileIO::TrackNameLocked(ChangeKind eKind, const std::string& strPath, const std::string& strFrom,
                                  int fdHeld)
{
    Change c;
    c.m_eKind = eKind;
    c.m_strPath = strPath;
    c.m_strFrom = strFrom;
    c.m_fdHeld = fdHeld;
    FileKey dir;
    if (KeyOfPath(ParentDir(strPath), &dir, true)) c.m_vDirs.push_back(dir);
    if (!strFrom.empty() && KeyOfPath(ParentDir(strFrom), &dir, true) &&
        std::find(c.m_vDirs.begin(), c.m_vDirs.end(), dir) == c.m_vDirs.end())
        c.m_vDirs.push_back(dir);
    m_vChanges.push_back(std::move(c));
}

int FaultFileIO::BeginChangeLocked(ChangeKind eKind, int fd, const std::string& strPath, Change& c)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    c.m_eKind = eKind;
    c.m_key = std::make_pair(st.st_dev, st.st_ino);
    c.m_strPath = strPath;
    c.m_nOldSize = (long long)st.st_size;
    return UndoFdLocked(c.m_key, fd);
}

long long FaultFileIO::Plain(FileCall call, bool bRunsOnFailure, const std::function<long long()>& fnSystem)
{
    InFlight guard(m_nInFlight);
    if (Passes(call.m_strPath)) return fnSystem();
    Verdict v = Judge(call);
    long long nResult = !v.m_bFail || bRunsOnFailure ? fnSystem() : 0;
    return Finish(call, v.m_bFail ? FailWith(v.m_nErrno) : nResult);
}

// The file that held strTarget before is held by descriptor, so that an
// undone rename or unlink can bring it back.
int FaultFileIO::NameChange(FileCall& call, ChangeKind eKind, const char* lpTarget, const std::string& strFrom,
                            const std::function<int()>& fnSystem)
{
    InFlight guard(m_nInFlight);
    if (Passes(call.m_strPath)) return fnSystem();
    Verdict v = Judge(call);
    if (v.m_bFail) return (int)Finish(call, FailWith(v.m_nErrno));
    std::unique_lock<std::mutex> lock(m_mutex);
    struct stat st;
    int fdOld = lstat(lpTarget, &st) == 0 && S_ISREG(st.st_mode) ? open(lpTarget, O_RDONLY | O_CLOEXEC) : -1;
    int rc = fnSystem();
    int nErr = errno;
    if (rc == 0)
        TrackNameLocked(eKind, lpTarget, strFrom, fdOld);
    else if (fdOld >= 0)
        close(fdOld);
    lock.unlock();
    errno = nErr;
    return (int)Finish(call, rc);
}

// ------------------------------------------------------------ the layer

int FaultFileIO::Open(const char* lpPath, int nFlags, mode_t nMode)
{
    InFlight guard(m_nInFlight);
    FileCall call = MakeCall(FileOp::Open, lpPath != nullptr ? lpPath : "", 0, 0, nFlags);
    if (Passes(call.m_strPath)) return CTalvorFileIO::Open(lpPath, nFlags, nMode);
    Verdict v = Judge(call);
    if (v.m_bFail) return (int)Finish(call, FailWith(v.m_nErrno));
    std::unique_lock<std::mutex> lock(m_mutex);
    struct stat stBefore;
    bool bExisted = lstat(lpPath, &stBefore) == 0;
    // Emptying a file with content is a change like a truncation.
    bool bEmpties = bExisted && (nFlags & O_TRUNC) != 0 && (nFlags & O_ACCMODE) != O_RDONLY &&
                    S_ISREG(stBefore.st_mode) && stBefore.st_size > 0;
    std::string strOld = bEmpties ? ReadWholeFile(lpPath) : std::string();
    int fd = CTalvorFileIO::Open(lpPath, nFlags, nMode);
    int nErr = errno;
    if (fd >= 0 && (nFlags & O_CREAT) != 0 && !bExisted)
        TrackNameLocked(CHANGE_CREATE, call.m_strPath, std::string(), -1);
    Change c;
    if (fd >= 0 && bEmpties && BeginChangeLocked(CHANGE_TRUNCATE, fd, call.m_strPath, c) >= 0) {
        c.m_nOldSize = (long long)stBefore.st_size;
        c.m_strOld = strOld;
        m_vChanges.push_back(std::move(c));
    }
    lock.unlock();
    errno = nErr;
    return (int)Finish(call, fd);
}

ssize_t FaultFileIO::PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset)
{
    InFlight guard(m_nInFlight);
    FileCall call = MakeCall(FileOp::PRead, PathOfFd(fd), (long long)nOffset, (long long)nSize);
    if (Passes(call.m_strPath)) return CTalvorFileIO::PRead(fd, lpBuf, nSize, nOffset);
    Verdict v = Judge(call);
    if (v.m_bFail) return (ssize_t)Finish(call, v.m_nErrno == 0 ? 0 : FailWith(v.m_nErrno));
    ssize_t n = CTalvorFileIO::PRead(fd, lpBuf, std::min(nSize, v.m_nLimit), nOffset);
    int nErr = errno;
    if (n > 0) Locked([&] { m_nBytesRead += n; });
    errno = nErr;
    return (ssize_t)Finish(call, n);
}

ssize_t FaultFileIO::PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset)
{
    InFlight guard(m_nInFlight);
    FileCall call = MakeCall(FileOp::PWrite, PathOfFd(fd), (long long)nOffset, (long long)nSize);
    if (Passes(call.m_strPath)) return CTalvorFileIO::PWrite(fd, lpBuf, nSize, nOffset);
    Verdict v = Judge(call);
    std::unique_lock<std::mutex> lock(m_mutex);
    if (v.m_bFail) {
        m_vWrites.push_back({call.m_strPath, (long long)nOffset, (long long)nSize, v.m_nErrno == 0 ? 0 : -1});
        lock.unlock();
        return (ssize_t)Finish(call, v.m_nErrno == 0 ? 0 : FailWith(v.m_nErrno));
    }
    size_t nMove = std::min(nSize, v.m_nLimit);
    // What the write replaces, read before it lands.
    Change c;
    int fdUndo = SyncsItself(fd) ? -1 : BeginChangeLocked(CHANGE_WRITE, fd, call.m_strPath, c);
    if (fdUndo >= 0) {
        c.m_nOffset = (long long)nOffset;
        c.m_strOld = ReadFdAt(fdUndo, (long long)nOffset, (long long)nMove);
    }
    ssize_t n = CTalvorFileIO::PWrite(fd, lpBuf, nMove, nOffset);
    int nErr = errno;
    m_vWrites.push_back({call.m_strPath, (long long)nOffset, (long long)nSize, (long long)n});
    if (n > 0) {
        if (m_nFillLeft > 0) m_nFillLeft -= std::min((long long)n, m_nFillLeft);
        if (fdUndo >= 0) {
            if ((size_t)n < c.m_strOld.size()) c.m_strOld.resize((size_t)n);
            c.m_strNew.assign((const char*)lpBuf, (size_t)n);
            m_vChanges.push_back(std::move(c));
        }
    }
    lock.unlock();
    errno = nErr;
    return (ssize_t)Finish(call, n);
}

int FaultFileIO::FSync(int fd) { return SyncFile(FileOp::FSync, fd); }
int FaultFileIO::FDataSync(int fd) { return SyncFile(FileOp::FDataSync, fd); }
// Either sync covers every change of the file, whichever descriptor made
// it; on a directory it makes the names in it durable.
int FaultFileIO::SyncFile(FileOp eOp, int fd)
{
    InFlight guard(m_nInFlight);
    FileCall call = MakeCall(eOp, PathOfFd(fd));
    bool bPasses = Passes(call.m_strPath);
    if (!bPasses) {
        Verdict v = Judge(call);
        if (v.m_bFail) return (int)Finish(call, FailWith(v.m_nErrno));
    }
    int rc = eOp == FileOp::FDataSync ? CTalvorFileIO::FDataSync(fd) : CTalvorFileIO::FSync(fd);
    if (bPasses) return rc;
    int nErr = errno;
    struct stat st;
    if (rc == 0 && fstat(fd, &st) == 0)
        Locked([&] { SyncedLocked(std::make_pair(st.st_dev, st.st_ino), S_ISDIR(st.st_mode)); });
    errno = nErr;
    return (int)Finish(call, rc);
}

// A change of a file's size (a truncation, or a growth by fallocate) as a
// power loss can take it back: the old size, and the bytes a shrink cuts.
// fnCall makes the change; its result is the call's.
int FaultFileIO::SizeChange(FileCall& call, int fd, const std::function<long long(long long)>& fnNewSize,
                            const std::function<int()>& fnCall)
{
    InFlight guard(m_nInFlight);
    if (Passes(call.m_strPath)) return fnCall();
    Verdict v = Judge(call);
    if (v.m_bFail) return (int)Finish(call, FailWith(v.m_nErrno));
    std::unique_lock<std::mutex> lock(m_mutex);
    Change c;
    int fdUndo = BeginChangeLocked(CHANGE_TRUNCATE, fd, call.m_strPath, c);
    if (fdUndo >= 0) {
        c.m_nOffset = fnNewSize(c.m_nOldSize);
        if (c.m_nOldSize > c.m_nOffset) c.m_strOld = ReadFdAt(fdUndo, c.m_nOffset, c.m_nOldSize - c.m_nOffset);
    }
    int rc = fnCall();
    int nErr = errno;
    if (rc == 0 && fdUndo >= 0) m_vChanges.push_back(std::move(c));
    lock.unlock();
    errno = nErr;
    return (int)Finish(call, rc);
}

int FaultFileIO::FTruncate(int fd, off_t nSize)
{
    FileCall call = MakeCall(FileOp::FTruncate, PathOfFd(fd), (long long)nSize);
    return SizeChange(
        call, fd, [&](long long) { return (long long)nSize; }, [&] { return CTalvorFileIO::FTruncate(fd, nSize); });
}

int FaultFileIO::Fallocate(int fd, off_t nOffset, off_t nLength)
{
    FileCall call = MakeCall(FileOp::Fallocate, PathOfFd(fd), (long long)nOffset, (long long)nLength);
    return SizeChange(
        call, fd, [&](long long nOld) { return std::max(nOld, (long long)(nOffset + nLength)); },
        [&] { return CTalvorFileIO::Fallocate(fd, nOffset, nLength); });
}

int FaultFileIO::Rename(const char* lpFrom, const char* lpTo)
{
    FileCall call = MakeCall(FileOp::Rename, lpFrom);
    return NameChange(call, CHANGE_RENAME, lpTo, lpFrom, [&] { return CTalvorFileIO::Rename(lpFrom, lpTo); });
}

int FaultFileIO::Unlink(const char* lpPath)
{
    FileCall call = MakeCall(FileOp::Unlink, lpPath);
    return NameChange(call, CHANGE_UNLINK, lpPath, std::string(), [&] { return CTalvorFileIO::Unlink(lpPath); });
}

// A path mkdir makes was no regular file before: nothing is held.
int FaultFileIO::MkDir(const char* lpPath, mode_t nMode)
{
    FileCall call = MakeCall(FileOp::MkDir, lpPath);
    return NameChange(call, CHANGE_MKDIR, lpPath, std::string(),
                      [&] { return CTalvorFileIO::MkDir(lpPath, nMode); });
}

int FaultFileIO::SyncDirectory(const char* lpDir)
{
    InFlight guard(m_nInFlight);
    FileCall call = MakeCall(FileOp::SyncDirectory, lpDir);
    if (Passes(call.m_strPath)) return CTalvorFileIO::SyncDirectory(lpDir);
    Verdict v = Judge(call);
    if (v.m_bFail) return (int)Finish(call, FailWith(v.m_nErrno));
    int rc = CTalvorFileIO::SyncDirectory(lpDir);
    int nErr = errno;
    FileKey key;
    if (rc == 0 && KeyOfPath(lpDir, &key, true)) Locked([&] { SyncedLocked(key, true); });
    errno = nErr;
    return (int)Finish(call, rc);
}

// A failing close still gives the descriptor back, as Linux does.
int FaultFileIO::Close(int fd)
{ return (int)Plain(MakeCall(FileOp::Close, PathOfFd(fd)), true, [&] { return CTalvorFileIO::Close(fd); }); }
int FaultFileIO::CloseDir(DIR* pDir)
{
    return (int)Plain(MakeCall(FileOp::CloseDir, pDir != nullptr ? PathOfFd(dirfd(pDir)) : std::string()), true,
                      [&] { return CTalvorFileIO::CloseDir(pDir); });
}
int FaultFileIO::Flock(int fd, int nOp)
{ return (int)Plain(MakeCall(FileOp::Flock, PathOfFd(fd), 0, 0, nOp), false, [&] { return CTalvorFileIO::Flock(fd, nOp); }); }
int FaultFileIO::Stat(const char* lpPath, struct stat* pStat)
{ return (int)Plain(MakeCall(FileOp::Stat, lpPath), false, [&] { return CTalvorFileIO::Stat(lpPath, pStat); }); }
int FaultFileIO::FStat(int fd, struct stat* pStat)
{ return (int)Plain(MakeCall(FileOp::FStat, PathOfFd(fd)), false, [&] { return CTalvorFileIO::FStat(fd, pStat); }); }
off_t FaultFileIO::LSeek(int fd, off_t nOffset, int nWhence)
{
    return (off_t)Plain(MakeCall(FileOp::LSeek, PathOfFd(fd), (long long)nOffset, 0, nWhence), false,
                        [&] { return (long long)CTalvorFileIO::LSeek(fd, nOffset, nWhence); });
}
int FaultFileIO::Chmod(const char* lpPath, mode_t nMode)
{ return (int)Plain(MakeCall(FileOp::Chmod, lpPath), false, [&] { return CTalvorFileIO::Chmod(lpPath, nMode); }); }
int FaultFileIO::FChmod(int fd, mode_t nMode)
{ return (int)Plain(MakeCall(FileOp::FChmod, PathOfFd(fd)), false, [&] { return CTalvorFileIO::FChmod(fd, nMode); }); }

DIR* FaultFileIO::OpenDir(const char* lpPath)
{
    DIR* pDir = nullptr;
    Plain(MakeCall(FileOp::OpenDir, lpPath), false, [&] {
        pDir = CTalvorFileIO::OpenDir(lpPath);
        return pDir != nullptr ? 0LL : -1LL;
    });
    return pDir;
}

} // namespace talvortest
