// InspectReport.h — the inspector's report, in words or as JSON.
#pragma once

#include "DbFileCheck.h"
#include "TerminalProgress.h"

#include <cstdio>
#include <string>
#include <vector>

namespace talvorinspect {

struct InspectResult {
    std::string m_strSystemPath;
    bool m_bCheck = false;
    bool m_bLoaded = false;
    CDbChecker* m_pChecker = nullptr;
    std::vector<DBFINDING> m_vFindings;
    CTalvorTerminalProgress* m_pProgress = nullptr;  // drawn only on a terminal
};

// Any thread; holds no latch.
void PrintWords(const InspectResult& st, FILE* pOut);
void PrintJson(const InspectResult& st, FILE* pOut);

// One finding as the one line the report gives it.
std::string FindingLine(const DBFINDING& st);

} // namespace talvorinspect
