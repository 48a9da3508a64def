// TraceCapture.h — the trace lines written while a capture is in force,
// from every thread, for tests that check what the code under test told.
// One capture at a time; the previous sink comes back with its end.
#pragma once

#include "TalvorTrace.h"

#include <mutex>
#include <string>
#include <vector>

namespace talvortest {

struct CapturedLine {
    long m_nLevel, m_nCode;
    std::string m_strFunction, m_strText;
    // "level code function text", as the tests match it.
    std::string Joined() const
    {
        return std::to_string(m_nLevel) + " " + std::to_string(m_nCode) + " " + m_strFunction + " " + m_strText;
    }
};

class TraceCapture {
public:
    TraceCapture() : m_pOld(TraceInstallSink(&Sink)) { Clear(); }
    ~TraceCapture() { TraceInstallSink(m_pOld); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // Thread: any.
    std::vector<CapturedLine> Lines() const
    {
        std::lock_guard<std::mutex> g(s_lock);
        return s_vLines;
    }
    std::string Text() const
    {
        std::string s;
        for (const CapturedLine& l : Lines()) s += l.Joined() + "\n";
        return s;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> g(s_lock);
        s_vLines.clear();
    }
    // A line of nCode whose text holds strText.
    bool Has(long nCode, const std::string& strText) const
    {
        for (const CapturedLine& l : Lines())
            if (l.m_nCode == nCode && l.m_strText.find(strText) != std::string::npos) return true;
        return false;
    }

private:
    static inline std::mutex s_lock;
    static inline std::vector<CapturedLine> s_vLines;
    static void Sink(LPCTSTR szFunction, LONG nLevel, LONG nCode, LPCTSTR szText)
    {
        std::lock_guard<std::mutex> g(s_lock);
        s_vLines.push_back({nLevel, nCode, szFunction != nullptr ? szFunction : "", szText != nullptr ? szText : ""});
    }

    LPTALVORTRACESINK m_pOld;
};

} // namespace talvortest
