// Numbers and dates as text from outside: the decimal parser (and its
// printer, which must take back whatever the parser made), the free-form and
// the format-driven date parsers, and the time parser.
#include "TalvorDate.h"
#include "TalvorDecimal.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

void FuzzDecimal(const std::string& strText)
{
    st_VARDATA stValue;
    memset(&stValue, 0, sizeof(stValue));
    if (CTalvorDecimal::Convert2Decimal(strText.data(), (int)strText.size(), &stValue) == 0) {
        char szOut[TALVOR_DECIMAL_TEXT_BYTES];
        CTalvorDecimal::PrintDecimal(&stValue, szOut);
    }
    ToNumber(strText.data(), (int)strText.size());
    StringToInt(strText.c_str());
}

void FuzzDates(const std::string& strText, const std::string& strFormat)
{
    CTalvorDate date;
    TALVORDATEPARTS stParts;
    date.ParseDate(strText.data(), (int)strText.size(), stParts);
    CTalvorDate::ParseDate(strText.c_str(), strFormat.c_str(), stParts, 2026);
    TALVORTIME stTime;
    memset(&stTime, 0, sizeof(stTime));
    CTalvorDate::ParseTime(stTime, strText.data(), (int)strText.size());
}

} // namespace

// The input is the text, then optionally a NUL and a date format.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* lpData, size_t nSize)
{
    if (nSize > 4096) return 0;
    std::string strAll((const char*)lpData, nSize);
    size_t nNul = strAll.find('\0');
    std::string strText = strAll.substr(0, nNul);
    std::string strFormat = nNul == std::string::npos ? "YYYY-MM-DD HH24:MI:SS" : strAll.substr(nNul + 1);
    strFormat = strFormat.substr(0, strFormat.find('\0'));
    FuzzDecimal(strText);
    FuzzDates(strText, strFormat);
    return 0;
}
