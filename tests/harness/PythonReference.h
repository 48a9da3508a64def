// PythonReference.h — checking against a reference no one here wrote: a
// Python script (its standard library: decimal, datetime, json) answers one
// line of input with one line of output.
#pragma once

#include <string>
#include <vector>

namespace talvortest {

// Runs strCommand through the shell and gives back its output lines,
// newlines taken off (none when it cannot run).
std::vector<std::string> RunForLines(const std::string& strCommand);

// Runs python3 on strScript with vLines (each ended by a newline) on its
// standard input and gives back its output lines, newlines taken off.
// Fewer lines than asked (none when python3 cannot run) is the caller's to
// check.
std::vector<std::string> RunPythonReference(const std::string& strScript, const std::vector<std::string>& vLines);

// The bytes of strBytes in lower-case hexadecimal, as Python's bytes.hex()
// writes them.
std::string HexOf(const std::string& strBytes);

} // namespace talvortest
