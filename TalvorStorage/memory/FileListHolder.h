// FileListHolder.h — what the save pass of the system file asks of the
// module about the rows of the file list, without knowing the module.
#pragma once

#include "MemDBCommonDef.h"
#include "TypeDef.h"

// What the daemon holds behind the rows of the file list. The engine edits a
// row field by field and writes its command byte last; a save pass that ran
// between the two would put an edit on disk that nothing has carried out
// yet. Before a block of the list goes to disk, the system file's pass hands
// each row of its private copy of the block to the holder.
class ITalvorFileListHolder {
public:
    virtual ~ITalvorFileListHolder() {}
    // lpRow is the pass's private copy of the row that lies at lpLiveRow in
    // the system file's image (the image is never written through it).
    // The fields of lpRow that tell which file the daemon holds for that row
    // are set from what it holds. TRUE when the row may go to disk as lpRow
    // now stands; FALSE when no file stands behind a live row yet, and the
    // block must stay off the disk this pass.
    // Thread: the one that runs the save pass, with the module latch held
    // (the system file's pass runs under it); takes no latch.
    virtual BOOL SettleFileListRow(const FILE_MEMDBFILEINFO* lpLiveRow, LPFILE_MEMDBFILEINFO lpRow) = 0;
};
