// TempTree.h — the tests' one temporary directory tree: made fresh under
// /tmp, removed with everything in it at the end (kept when the
// environment names TALVOR_KEEP_SANDBOX, to look at after a failure).
#pragma once

#include <string>

namespace talvortest {

// Removes strPath with everything under it, going on past what cannot be
// removed; links are removed, never followed.
void RemoveTree(const std::string& strPath);

class TempTree {
public:
    // /tmp/talvor-<lpTag>-XXXXXX
    explicit TempTree(const char* lpTag = "test");
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    // False when the directory could not be made.
    bool Ok() const { return !m_strRoot.empty(); }
    // The directory without and with a trailing "/".
    const std::string& Root() const { return m_strRoot; }
    std::string Dir() const { return m_strRoot + "/"; }
    std::string Path(const std::string& strName) const { return Dir() + strName; }
    // Writes a file of the tree (directories of strName must exist); its path.
    std::string File(const std::string& strName, const std::string& strText) const;

private:
    std::string m_strRoot;
};

} // namespace talvortest
