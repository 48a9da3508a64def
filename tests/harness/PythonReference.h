// PythonReference.h — runs a Python script as a reference: one line of
// input per case on its standard input, one answer line per case back.
// Header-only, so that tests of the base library need none of the daemon.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace talvortest {

// The answers of lpScript to vLines, as many as there are lines (a missing
// answer fails the calling test and reads as empty).
inline std::vector<std::string> RunPythonReference(const char* lpScript, const std::vector<std::string>& vLines)
{
    char szScript[] = "/tmp/talvor_refXXXXXX";
    char szInput[] = "/tmp/talvor_ref_inXXXXXX";
    int fdScript = mkstemp(szScript);
    int fdInput = mkstemp(szInput);
    EXPECT_GE(fdScript, 0);
    EXPECT_GE(fdInput, 0);
    std::vector<std::string> vOut;
    if (fdScript < 0 || fdInput < 0) return std::vector<std::string>(vLines.size());
    FILE* fScript = fdopen(fdScript, "w");
    fputs(lpScript, fScript);
    fclose(fScript);
    FILE* fInput = fdopen(fdInput, "w");
    for (const std::string& s : vLines) fprintf(fInput, "%s\n", s.c_str());
    fclose(fInput);
    std::string strCommand = std::string("python3 ") + szScript + " < " + szInput;
    FILE* fOut = popen(strCommand.c_str(), "r");
    char szLine[4096];
    while (fOut != nullptr && fgets(szLine, sizeof(szLine), fOut) != nullptr) {
        szLine[strcspn(szLine, "\n")] = 0;
        vOut.push_back(szLine);
    }
    if (fOut != nullptr) pclose(fOut);
    unlink(szScript);
    unlink(szInput);
    EXPECT_EQ(vOut.size(), vLines.size()) << "the reference did not answer every line";
    vOut.resize(vLines.size());
    return vOut;
}

} // namespace talvortest
