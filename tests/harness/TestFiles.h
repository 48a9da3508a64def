// TestFiles.h — reading and writing whole files, and listing a directory,
// for the tests' own look at the disk. These go to the system directly,
// never through the file layer, so that a fault layer in force neither
// counts nor fails them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace talvortest {

// The file's bytes; empty when it cannot be read.
std::string ReadWholeFile(const std::string& strPath);
// Creates or empties the file and writes strData; true when all of it went.
bool WriteWholeFile(const std::string& strPath, const std::string& strData);
// Writes strData over the file's bytes from nOffset on, in place.
bool WriteFileAt(const std::string& strPath, long long nOffset, const std::string& strData);
// Up to nSize bytes of the file from nOffset on; fewer at its end, empty
// when it cannot be read.
std::string ReadFileAt(const std::string& strPath, long long nOffset, long long nSize);
// The same on a descriptor open for reading.
std::string ReadFdAt(int fd, long long nOffset, long long nSize);
// Writes all of strData at nOffset of a descriptor open for writing.
bool WriteFdAt(int fd, long long nOffset, const std::string& strData);
// Size in bytes, or -1 when the path names nothing.
long long FileSizeOf(const std::string& strPath);
bool PathExists(const std::string& strPath);
// strDir + name of every entry whose name begins with strPrefix ("." and
// ".." aside), in name order.
std::vector<std::string> ListFiles(const std::string& strDir, const std::string& strPrefix = "");
// How often strWhat occurs in strText (a trace or a tool's output read
// back), overlapping occurrences counted.
size_t CountOf(const std::string& strText, const std::string& strWhat);

} // namespace talvortest
