// PeerArgs.cpp — option parsing for the jobs of the engine stand-in.
#include "PeerArgs.h"

#include <cerrno>
#include <cstdlib>

namespace talvorpeer {

bool CPeerArgs::Parse(const std::vector<std::string>& args, const std::vector<OptionSpec>& defs)
{
    for (size_t i = 0; i < args.size(); i++) {
        const std::string& strArg = args[i];
        if (strArg.compare(0, 2, "--") != 0) {
            m_strError = "unexpected argument: " + strArg;
            return false;
        }
        std::string strName = strArg.substr(2);
        const OptionSpec* pDef = nullptr;
        for (const OptionSpec& def : defs) {
            if (strName == def.m_lpName) pDef = &def;
        }
        if (pDef == nullptr) {
            m_strError = "unknown option: " + strArg;
            return false;
        }
        if (!pDef->m_bTakesValue) {
            m_mapValues[strName] = "";
            continue;
        }
        if (i + 1 >= args.size()) {
            m_strError = "option " + strArg + " needs a value";
            return false;
        }
        m_mapValues[strName] = args[++i];
    }
    return true;
}

std::string CPeerArgs::GetString(const std::string& strName, const std::string& strDefault) const
{
    auto it = m_mapValues.find(strName);
    return it == m_mapValues.end() ? strDefault : it->second;
}

bool CPeerArgs::GetInt(const std::string& strName, long long nDefault, long long nMin, long long nMax,
                       long long& nValue) const
{
    auto it = m_mapValues.find(strName);
    if (it == m_mapValues.end()) {
        nValue = nDefault;
        return true;
    }
    const char* lpText = it->second.c_str();
    char* pEnd = nullptr;
    errno = 0;
    long long n = strtoll(lpText, &pEnd, 10);
    if (errno != 0 || pEnd == lpText || *pEnd != '\0' || n < nMin || n > nMax) return false;
    nValue = n;
    return true;
}

std::string DescribeOptions(const std::vector<OptionSpec>& defs)
{
    std::string strText;
    for (const OptionSpec& def : defs) {
        std::string strLeft = std::string("  --") + def.m_lpName + (def.m_bTakesValue ? " VALUE" : "");
        if (strLeft.size() < 22) strLeft.resize(22, ' ');
        strText += strLeft + " " + def.m_lpHelp + "\n";
    }
    return strText;
}

} // namespace talvorpeer
