// PythonReference.cpp — a script and its input in a temporary tree, the
// output read through a pipe.
#include "PythonReference.h"

#include "TempTree.h"
#include "TestFiles.h"

#include <cstdio>
#include <cstdlib>

namespace talvortest {

std::vector<std::string> RunForLines(const std::string& strCommand)
{
    std::vector<std::string> vOut;
    FILE* pPipe = popen(strCommand.c_str(), "r");
    if (pPipe == nullptr) return vOut;
    char* pLine = nullptr;
    size_t nCapacity = 0;
    for (ssize_t n; (n = getline(&pLine, &nCapacity, pPipe)) > 0;) vOut.emplace_back(pLine, n - (pLine[n - 1] == '\n'));
    free(pLine);
    pclose(pPipe);
    return vOut;
}

std::vector<std::string> RunPythonReference(const std::string& strScript, const std::vector<std::string>& vLines)
{
    TempTree tree("reference");
    if (!tree.Ok()) return {};
    std::string strInput;
    for (const std::string& s : vLines) strInput += s + "\n";
    std::string strScriptPath = tree.File("reference.py", strScript);
    std::string strInputPath = tree.File("input", strInput);
    return RunForLines("python3 '" + strScriptPath + "' < '" + strInputPath + "'");
}

std::string HexOf(const std::string& strBytes)
{
    std::string strOut;
    for (unsigned char c : strBytes) strOut += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return strOut;
}

} // namespace talvortest
