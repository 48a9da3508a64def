// PeerArgs.h — the options of one job of the engine stand-in: "--name value"
// pairs and bare "--flag" switches, each job declaring which it knows.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace talvorpeer {

struct OptionSpec {
    const char* m_lpName;   // without the leading "--"
    bool m_bTakesValue;
    const char* m_lpHelp;
};

class CPeerArgs {
public:
    // False (with m_strError set) on an unknown option or a missing value.
    bool Parse(const std::vector<std::string>& args, const std::vector<OptionSpec>& defs);
    bool Has(const std::string& strName) const { return m_mapValues.count(strName) != 0; }
    std::string GetString(const std::string& strName, const std::string& strDefault) const;
    // False when the value is not a whole number within the limits.
    bool GetInt(const std::string& strName, long long nDefault, long long nMin, long long nMax, long long& nValue) const;
    const std::string& Error() const { return m_strError; }

private:
    std::map<std::string, std::string> m_mapValues;
    std::string m_strError;
};

// "  --name VALUE   help" lines for a usage text.
std::string DescribeOptions(const std::vector<OptionSpec>& defs);

} // namespace talvorpeer
