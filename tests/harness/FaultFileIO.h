// FaultFileIO.h — the one fault-injecting file layer of the tests. Put in
// force in place of CTalvorFileIO (ScopedFileIO), it passes every call on to
// the system and can, on demand:
//  * fail the Nth call of a kind (open, pread, pwrite, fsync, rename, ...)
//    with a chosen errno, once, several times or from then on;
//  * cut a read or a write short, chop every transfer into small pieces
//    and interrupt every other one (EINTR), let reads meet an end of file
//    early, or fill the device after N bytes;
//  * let the device die after the Nth call of a kind, or hang calls of a
//    kind until the test releases them;
//  * lose power: every write and truncation not yet covered by an fsync of
//    its file is undone (all of them, or any chosen subset kept), and every
//    create, rename, unlink and mkdir not followed by a sync of its
//    directory may be undone as well (an undone mkdir takes all in it).
// It counts every call and byte, logs every write, and lets a test act
// before and after each call of a kind (OnCall, AfterCall). Calls on paths
// under a pass-through prefix (a trace directory, say) are neither counted
// nor failed nor tracked. All methods are thread-safe; hooks and held
// calls wait on the calling thread outside the layer's lock.
#pragma once

#include "TalvorFileIO.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace talvortest {

enum class FileOp { Open, PRead, PWrite, FSync, FDataSync, FTruncate, Close, Flock, Rename, Unlink, MkDir,
                    SyncDirectory, Stat, FStat, LSeek, Chmod, FChmod, OpenDir, CloseDir, Fallocate };
inline constexpr int FILE_OP_COUNT = (int)FileOp::Fallocate + 1;

// nTimes of FailCall: the Nth call and every one after it.
inline constexpr long long FAULT_ALWAYS = -1;

// One call as a hook sees it. m_nOffset and m_nSize are those of a
// transfer or a truncation, m_nFlags those of an open or a flock;
// m_nResult is set for AfterCall only.
struct FileCall {
    FileOp m_eOp;
    long long m_nNth;
    std::string m_strPath;
    long long m_nOffset, m_nSize;
    int m_nFlags;
    long long m_nResult;
};
typedef std::function<void(const FileCall&)> FileHook;

// One pwrite that reached the layer, in the order of arrival.
struct FileWrite {
    std::string m_strPath;
    long long m_nOffset, m_nSize, m_nResult;  // the size asked; the result returned (-1 failed)
};

// A change the medium does not hold yet: a write of m_nSize bytes at
// m_nOffset, or (m_bTruncate) a truncation to m_nOffset bytes.
struct UnsyncedChange {
    std::string m_strPath;
    long long m_nOffset, m_nSize;
    bool m_bTruncate;
};

// What a power loss does to names made, moved or removed without a sync of
// their directory.
enum class NameLoss { Undo, Keep };

class FaultFileIO : public CTalvorFileIO {
public:
    FaultFileIO();
    ~FaultFileIO() override;
    FaultFileIO(const FaultFileIO&) = delete;
    FaultFileIO& operator=(const FaultFileIO&) = delete;

    // --- Faults. Calls of each kind count from 1 over the layer's life.
    // Calls nNth to nNth + nTimes - 1 of eOp fail with nErrno. For PRead
    // and PWrite an nErrno of 0 moves nothing and returns 0.
    void FailCall(FileOp eOp, long long nNth, int nErrno, long long nTimes = 1);
    // The next nTimes calls of eOp fail.
    void FailNext(FileOp eOp, int nErrno, long long nTimes = 1);
    // The Nth pread or pwrite (eOp) moves only its first nBytes: a torn
    // write, or a read that meets a file being rewritten.
    void CutTransfer(FileOp eOp, long long nNth, size_t nBytes);
    // Every pread and pwrite moves at most nChunk bytes; with bInterrupt
    // every other one of them fails with EINTR first.
    void ChopTransfers(size_t nChunk, bool bInterrupt);
    // Every pread meets the end of the file at nBytes, whatever its size
    // says: a file another writer has cut.
    void ReadsEndAt(long long nBytes);
    // The device takes nBytes more bytes; then every pwrite fails with
    // nErrno (0: moves nothing and returns 0).
    void FillAfter(size_t nBytes, int nErrno);
    // The device dies once nCalls calls of eOp were made: every later call
    // that changes the medium (pwrite, syncs, truncate, rename, unlink,
    // mkdir, chmod) fails with EIO.
    void DieAfter(FileOp eOp, long long nCalls);
    // Calls of eOp from now on wait, before they reach the system, until
    // Release: a disk that hangs.
    void Hold(FileOp eOp);
    // True once a call waits in Hold (within nTimeoutMs).
    bool WaitHeld(long long nTimeoutMs);
    // Lets every waiting call go on; later ones are not held.
    void Release();
    // Calls that have waited in Hold so far.
    long long Held() const;
    // fnHook runs at every call of eOp: before it (OnCall), or after it with
    // its result (AfterCall). Null removes the hook.
    void OnCall(FileOp eOp, FileHook fnHook);
    void AfterCall(FileOp eOp, FileHook fnHook);
    // Paths that start with strPrefix pass straight through.
    void PassThrough(const std::string& strPrefix);

    // --- What happened.
    long long Calls(FileOp eOp) const;
    long long BytesRead() const;
    std::vector<FileWrite> Writes() const;

    // --- Power loss.
    // The changes a power loss would take now, oldest first.
    std::vector<UnsyncedChange> Unsynced() const;
    // Every unsynced change goes.
    void LosePower(NameLoss eNames = NameLoss::Undo);
    // The unsynced changes whose places in Unsynced() are in vKeep reach the
    // medium (in their order), the others go.
    void LosePowerKeeping(const std::vector<size_t>& vKeep, NameLoss eNames = NameLoss::Undo);

    // --- The layer.
    int Open(const char* lpPath, int nFlags, mode_t nMode) override;
    ssize_t PRead(int fd, void* lpBuf, size_t nSize, off_t nOffset) override;
    ssize_t PWrite(int fd, const void* lpBuf, size_t nSize, off_t nOffset) override;
    int FSync(int fd) override;
    int FDataSync(int fd) override;
    int FTruncate(int fd, off_t nSize) override;
    // Tracked as a truncation to the grown size: a power loss before the
    // file's fsync takes the growth back.
    int Fallocate(int fd, off_t nOffset, off_t nLength) override;
    int Close(int fd) override;
    int Flock(int fd, int nOperation) override;
    int Rename(const char* lpFrom, const char* lpTo) override;
    int Unlink(const char* lpPath) override;
    int MkDir(const char* lpPath, mode_t nMode) override;
    int SyncDirectory(const char* lpDir) override;
    int Stat(const char* lpPath, struct stat* pStat) override;
    int FStat(int fd, struct stat* pStat) override;
    off_t LSeek(int fd, off_t nOffset, int nWhence) override;
    int Chmod(const char* lpPath, mode_t nMode) override;
    int FChmod(int fd, mode_t nMode) override;
    DIR* OpenDir(const char* lpPath) override;
    int CloseDir(DIR* pDir) override;

private:
    typedef std::pair<dev_t, ino_t> FileKey;

    struct Rule { FileOp m_eOp; long long m_nFrom, m_nTimes; int m_nErrno; };
    enum ChangeKind { CHANGE_WRITE, CHANGE_TRUNCATE, CHANGE_CREATE, CHANGE_RENAME, CHANGE_UNLINK, CHANGE_MKDIR };
    struct Change {
        ChangeKind m_eKind;
        FileKey m_key;              // the file written or truncated
        std::string m_strPath;      // path (rename: the new one)
        std::string m_strFrom;      // rename: the old path
        long long m_nOffset = 0;    // write: where; truncate: the new size
        long long m_nOldSize = 0;   // write, truncate: the size before
        std::string m_strOld;       // write: bytes before; truncate: the cut tail
        std::string m_strNew;       // write: bytes written
        int m_fdHeld = -1;          // rename: the replaced file; unlink: the removed one
        std::vector<FileKey> m_vDirs; // directories still to be synced
    };
    // Where the call stands once counted: go on, or fail.
    struct Verdict { bool m_bFail = false; int m_nErrno = 0; size_t m_nLimit = (size_t)-1; };

    // fn run under the layer's lock; its result.
    template <class F>
    auto Locked(F fn) const -> decltype(fn())
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return fn();
    }
    bool Passes(const std::string& strPath) const;
    static std::string PathOfFd(int fd);
    static FileCall MakeCall(FileOp eOp, const std::string& strPath, long long nOffset = 0, long long nSize = 0,
                             int nFlags = 0);
    Verdict Judge(FileCall& call);
    // Runs the after-hook of the call with nResult (errno kept); nResult.
    long long Finish(FileCall& call, long long nResult);
    // The layer's descriptor on the file of fd, c begun as its change of
    // eKind (size before it); -1 when the change cannot be tracked.
    int BeginChangeLocked(ChangeKind eKind, int fd, const std::string& strPath, Change& c);
    // A call that changes nothing tracked: judged, then fnSystem (also on a
    // failure when bRunsOnFailure) unless it fails.
    long long Plain(FileCall call, bool bRunsOnFailure, const std::function<long long()>& fnSystem);
    int NameChange(FileCall& call, ChangeKind eKind, const char* lpTarget, const std::string& strFrom,
                   const std::function<int()>& fnSystem);
    int SizeChange(FileCall& call, int fd, const std::function<long long(long long)>& fnNewSize,
                   const std::function<int()>& fnCall);
    int SyncFile(FileOp eOp, int fd);
    int UndoFdLocked(const FileKey& key, int fd);
    void SyncedLocked(const FileKey& key, bool bDirectory);
    void TrackNameLocked(ChangeKind eKind, const std::string& strPath, const std::string& strFrom, int fdHeld);
    void UndoNameLocked(const Change& c);
    void LosePowerLocked(const std::vector<bool>& vKeep, NameLoss eNames);

    // Calls under way on any thread: the layer outlives them.
    struct InFlight {
        explicit InFlight(std::atomic<int>& n) : m_n(n) { m_n.fetch_add(1); }
        ~InFlight() { m_n.fetch_sub(1); }
        std::atomic<int>& m_n;
    };
    std::atomic<int> m_nInFlight{0};
    mutable std::mutex m_mutex;
    long long m_arCalls[FILE_OP_COUNT] = {};
    std::vector<Rule> m_vRules;
    std::map<std::pair<int, long long>, size_t> m_mapCuts;
    bool m_arHold[FILE_OP_COUNT] = {};
    std::condition_variable m_cvHold;
    size_t m_nChunk = 0;
    bool m_bInterrupt = false, m_bInterruptNext = true;
    long long m_nReadsEndAt = -1, m_nHeld = 0, m_nFillLeft = -1, m_nDieAfter = -1, m_nBytesRead = 0;
    int m_nFillErrno = 0;
    FileOp m_eDieOp = FileOp::PWrite;
    std::map<int, FileHook> m_mapHooks, m_mapAfterHooks;
    std::vector<std::string> m_vPassThrough;
    std::vector<FileWrite> m_vWrites;
    std::vector<Change> m_vChanges;
    std::map<FileKey, int> m_mapUndoFds;
};

// Puts a layer in force for a scope and the previous one back after it.
class ScopedFileIO {
public:
    explicit ScopedFileIO(CTalvorFileIO* pIO) : m_pOld(CTalvorFileIO::Install(pIO)) {}
    ~ScopedFileIO() { CTalvorFileIO::Install(m_pOld); }
    ScopedFileIO(const ScopedFileIO&) = delete;
    ScopedFileIO& operator=(const ScopedFileIO&) = delete;

private:
    CTalvorFileIO* m_pOld;
};

} // namespace talvortest
