// PeerFileCommand.h — the engine asking the daemon to change its set of
// files, as the engine does: it fills a file's row of the list in the system
// image, writes the command into the row's m_bFileCMD, marks the list
// changed, writes m_bStorageCMD = 1 and waits (bounded) for 32; the result
// stands in the row. The engine then settles the row: a success stays, a
// refused add is dropped, a refused move or resize takes the old value back;
// a new memory-mode file's image is laid out as a new file is, as the engine
// completes what the daemon made.
//
// Two users: the data job asks a resize of the system file now and then in
// the middle of its transactions, and the job "file" is an operator's front
// (add, move, resize, drop) over the same code.
#pragma once

#include "PeerData.h"

#include <string>
#include <vector>

namespace talvorpeer {

// What the engine asks of one file.
struct PeerFileRequest {
    BYTE m_bCommand = 0;       // FILECMD_ADD, _MOVE, _RESIZE or _DELETE
    BYTE m_bFileNo = 0;
    BYTE m_bFileType = 0;      // add
    std::string m_strPath;     // add, move
    std::string m_strName;     // add: the memory file name
    long long m_nFileSize = 0; // add, resize (bytes)
    int m_nMaxObjectNum = 64;  // add
};

// The result of a request: the row's answer, or one of these.
enum {
    PEERFILE_NO_ROW = -1,      // no live row of that number (or, for an add, no room in the list)
    PEERFILE_UNANSWERED = -2,  // no 32 within the time given
    PEERFILE_NOT_FORMATTED = -3, // added, but the new image could not be laid out
};

// Carries out one request on the daemon and settles the row. nTimeoutMs
// bounds the wait for 32; with bLive the channel is served meanwhile.
int PeerAskFileCommand(CPeerEngine& engine, const PeerFileRequest& request, bool bLive, long long nTimeoutMs);

struct FileCommandAsker {
    long long m_nEvery = 0;     // after every N transactions; 0 never
    long long m_nAsked = 0, m_nDone = 0, m_nWrong = 0, m_nUnanswered = 0;
    int m_nLastAnswer = -1;
    bool m_bDue = false;

    // After transaction nDone (from 0): a request falls due every m_nEvery
    // transactions, and is asked once nothing else is asked of the daemon
    // (bFree): the system file grows by 4 MiB. False when the daemon did not
    // answer, or answered anything but success.
    bool Step(CPeerEngine& engine, long long nDone, bool bLive, bool bFree);
    bool Broken() const { return m_nWrong > 0 || m_nUnanswered > 0; }
};

// file: the operator's front.
int RunFileJob(const std::vector<std::string>& args);
std::string FileJobUsage();

} // namespace talvorpeer
