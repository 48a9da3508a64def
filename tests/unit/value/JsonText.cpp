// The JSON text helpers against Python's json module on generated documents,
// valid and mutated. Where our rules differ on purpose the expectation is
// adjusted: only the escapes \" \\ \r \n \t are accepted; only a text
// from "{" to "}" or "[" to "]" is checked (others give 0); generated
// documents stay below the depth limit; NaN and Infinity are refused; the
// lenient set checks only strings and brackets, so there valid JSON must be
// accepted and what it refuses the strict set refuses too.

#include "PythonReference.h"
#include "TalvorJsonText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

const char* const kPythonCheck = R"PY(
import json, sys
def refuse(c): raise ValueError(c)
for line in sys.stdin:
    raw = bytes.fromhex(line.strip())
    try:
        text = raw.decode('utf-8')
    except UnicodeDecodeError:
        print('skip'); continue
    try:
        v = json.loads(text, parse_constant=refuse)
    except Exception:
        print('bad'); continue
    if isinstance(v, str):
        print('str ' + v.encode('utf-8', 'surrogatepass').hex())
    else:
        print('ok')
)PY";

using talvortest::HexOf;

// One answer line per sample.
std::vector<std::string> AskPython(const std::vector<std::string>& samples) {
    std::vector<std::string> lines;
    for (const std::string& s : samples) lines.push_back(HexOf(s));
    return talvortest::RunPythonReference(kPythonCheck, lines);
}

class Generator {
public:
    explicit Generator(unsigned nSeed) : m_rng(nSeed) {}

    std::string Document() { return Container(0, Pick(2) != 0); }

    std::string String() {
        std::string s = "\"";
        const int n = (int)Pick(8);
        for (int i = 0; i < n; ++i) s += StringPiece();
        return s + "\"";
    }

    // Breaks or bends a document by one edit of a byte that matters to JSON,
    // never its first or last byte: the result stays a shape that is checked.
    std::string Mutate(std::string s) {
        static const std::string kBytes = "{}[]\",:\\ 0-.eE+tfnulx\t\n\r\x01/bu";
        if (s.size() < 3) return s;
        const size_t nAt = 1 + Pick((unsigned)s.size() - 2);
        switch (Pick(3)) {
        case 0: s.erase(nAt, 1); break;
        case 1: s.insert(nAt, 1, kBytes[Pick((unsigned)kBytes.size())]); break;
        default: s[nAt] = kBytes[Pick((unsigned)kBytes.size())]; break;
        }
        return s;
    }

private:
    unsigned Pick(unsigned n) { return m_rng() % n; }

    std::string Space() { return std::vector<std::string>{"", "", "", " ", "\n", "\t ", "\r\n"}[Pick(7)]; }

    std::string StringPiece() {
        static const char* const kPieces[] = {
            "a", "Z", " ", "\\\"", "\\\\", "\\n", "\\r", "\\t", "\\/", "\\b", "\\f", "\\u0041", "\\u00e9",
            "\\u4e2d", "\\ud83d\\ude00", "\xc3\xa9", "\xe4\xb8\xad", "\xf0\x9f\x98\x80", "{", "]", ":", ",", "'",
        };
        return kPieces[Pick(sizeof(kPieces) / sizeof(kPieces[0]))];
    }

    std::string Number() {
        return std::vector<std::string>{"0", "-0", "12", "-7", "3.25", "1e5", "2E-3", "-0.5e+10", "100"}[Pick(9)];
    }

    std::string Value(int nDepth) {
        static const char* const kWords[] = {"true", "false", "null"};
        const unsigned nKind = Pick(nDepth < kMaxDepth ? 8 : 6);
        if (nKind >= 6) return Container(nDepth + 1, nKind == 6);
        return nKind < 2 ? String() : nKind == 2 ? Number() : kWords[nKind - 3];
    }

    // An object or an array of up to three members.
    std::string Container(int nDepth, bool bObject) {
        std::string s = (bObject ? "{" : "[") + Space();
        const int n = (int)Pick(4);
        for (int i = 0; i < n; ++i) {
            if (i) s += "," + Space();
            if (bObject) s += String() + Space() + ":" + Space();
            s += Value(nDepth) + Space();
        }
        return s + (bObject ? "}" : "]");
    }

    static constexpr int kMaxDepth = 5;
    std::mt19937 m_rng;
};

// Whether a document that is valid JSON holds an escape the check refuses.
bool HasForeignEscape(const std::string& s) {
    bool bInString = false;
    for (size_t i = 0; i < s.size(); ++i) {
        if (!bInString) {
            bInString = s[i] == '"';
            continue;
        }
        if (s[i] == '"') bInString = false;
        if (s[i] != '\\') continue;
        const char c = s[++i];
        if (c == '/' || c == 'b' || c == 'f' || c == 'u') return true;
    }
    return false;
}

bool Valid(const std::string& s, BOOL bMysql) {
    const int n = TalvorJsonCheckValid(s.data(), (int)s.size(), bMysql);
    EXPECT_TRUE(n == 0 || n == TALVOR_ERROR_JSON_INVALID) << n;
    return n == 0;
}

}  // namespace

TEST(JsonValidity, AgreesWithPythonOnGeneratedDocuments) {
    Generator gen(2024);
    std::vector<std::string> docs;
    for (int i = 0; i < 3000; ++i) {
        docs.push_back(gen.Document());
        for (int k = 0; k < 3; ++k) docs.push_back(gen.Mutate(docs.back()));
    }
    const std::vector<std::string> answers = AskPython(docs);
    ASSERT_EQ(answers.size(), docs.size()) << "python3 with its json module is needed";
    int nCompared = 0, nValid = 0;
    for (size_t i = 0; i < docs.size(); ++i) {
        const std::string& s = docs[i];
        if (answers[i] == "skip") continue;
        const bool bExpected = answers[i] == "ok" && !HasForeignEscape(s);
        const bool bStrict = Valid(s, TRUE), bLenient = Valid(s, FALSE);
        ASSERT_EQ(bStrict, bExpected) << s;
        // Valid JSON passes the lenient set too; what it refuses, the strict
        // set refuses as well.
        ASSERT_TRUE(!bExpected || bLenient) << s;
        ASSERT_TRUE(bLenient || !bStrict) << s;
        ++nCompared;
        nValid += bExpected;
    }
    // Both kinds, or the compare proves nothing.
    EXPECT_GT(nValid, 1500);
    EXPECT_GT(nCompared - nValid, 3000);
    EXPECT_GT(nCompared, 9000);
}

TEST(JsonValidity, RulesOfBothSets) {
    // Shapes that are not tested at all.
    for (const char* s : {"", "x", "{]", " {}"}) {
        EXPECT_EQ(TalvorJsonCheckValid(s, (int)strlen(s), TRUE), 0) << s;
        EXPECT_EQ(TalvorJsonCheckValid(s, (int)strlen(s), FALSE), 0) << s;
    }
    struct Case { const char* m_lpszText; bool m_bLenient, m_bStrict; };
    const Case cases[] = {
        {"{\"a\":}", true, false},               // structure only
        {"{a:1}", true, false},                  // bare key
        {"[1,]", true, false},                   // trailing comma
        {"[01]", true, false},                   // leading zero
        {"[\"a\tb\"]", false, false},            // raw tab in a string
        {"[\"a\nb\"]", false, false},            // raw LF
        {"[\"a\x01b\"]", true, false},           // other control byte: strict only
        {"[\"\\q\"]", false, false},             // unknown escape
        {"[\"\\u0041\"]", false, false},         // \u is outside the escape set
        {"[\"\\\"\"]", true, true},              // escaped quote
        {"[]]", false, false},                   // closes before the end
        {"[{]]", false, false},                  // crossed brackets
        {"[\"abc]", false, false},               // string never closes
        {"[1e]", true, false},
    };
    for (const Case& c : cases) {
        const int n = (int)strlen(c.m_lpszText);
        EXPECT_EQ(TalvorJsonCheckValid(c.m_lpszText, n, FALSE) == 0, c.m_bLenient) << c.m_lpszText;
        EXPECT_EQ(TalvorJsonCheckValid(c.m_lpszText, n, TRUE) == 0, c.m_bStrict) << c.m_lpszText;
    }
}

TEST(JsonValidity, DepthIsBoundedNotRecursive) {
    auto Nest = [](int nDepth) { return std::string(nDepth, '[') + std::string(nDepth, ']'); };
    EXPECT_TRUE(Valid(Nest(TALVOR_JSON_MYSQL_MAX_DEPTH), TRUE));
    EXPECT_FALSE(Valid(Nest(TALVOR_JSON_MYSQL_MAX_DEPTH + 1), TRUE));
    EXPECT_TRUE(Valid(Nest(TALVOR_JSON_MAX_DEPTH), FALSE));
    EXPECT_FALSE(Valid(Nest(TALVOR_JSON_MAX_DEPTH + 1), FALSE));
    // A million levels must be refused quickly, not overflow the stack.
    const std::string deep = Nest(1000000);
    EXPECT_FALSE(Valid(deep, TRUE));
    EXPECT_FALSE(Valid(deep, FALSE));
}

TEST(JsonValues, StringsDecodeAsPythonDecodesThem) {
    Generator gen(77);
    std::vector<std::string> strings;
    for (int i = 0; i < 4000; ++i) strings.push_back(gen.String());
    const std::vector<std::string> answers = AskPython(strings);
    ASSERT_EQ(answers.size(), strings.size()) << "python3 with its json module is needed";
    for (size_t i = 0; i < strings.size(); ++i) {
        ASSERT_EQ(answers[i].substr(0, 4), "str ") << strings[i];
        // Surrounding white space is taken off first.
        const std::string text = " \t" + strings[i] + "\r\n";
        int nLen = 0;
        ASSERT_EQ(TalvorJsonGetData(text.data(), (int)text.size(), nullptr, nLen), 0);
        std::vector<char> buf((size_t)nLen + 1, '\x7f');
        int nRoom = nLen + 1;
        ASSERT_EQ(TalvorJsonGetData(text.data(), (int)text.size(), buf.data(), nRoom), 0);
        ASSERT_EQ(nRoom, nLen);
        ASSERT_EQ(buf[(size_t)nLen], 0);
        ASSERT_EQ(HexOf(std::string(buf.data(), (size_t)nLen)), answers[i].substr(4)) << strings[i];
        // The inner helpers agree with the whole.
        const std::string inner = strings[i].substr(1, strings[i].size() - 2);
        ASSERT_EQ(TalvorJsonCalcDataLen(inner.data(), (int)inner.size()), nLen);
    }
}

TEST(JsonValues, OtherValuesRoomAndBadStrings) {
    auto Get = [](const std::string& s, int nRoom, int& nLen, std::string& out) {
        std::vector<char> buf(64, '\x7f');
        nLen = nRoom;
        const int n = TalvorJsonGetData(s.data(), (int)s.size(), nRoom ? buf.data() : nullptr, nLen);
        out.assign(buf.data(), nRoom && n == 0 ? (size_t)nLen : 0);
        return n;
    };
    int nLen = 0;
    std::string out;
    EXPECT_EQ(Get("  {\"a\": [1, 2]}\n", 64, nLen, out), 0);
    EXPECT_EQ(out, "{\"a\": [1, 2]}");
    EXPECT_EQ(Get("\t-12.5e3 ", 64, nLen, out), 0);
    EXPECT_EQ(out, "-12.5e3");
    // Exactly the room for the value and its NUL, and one byte less.
    EXPECT_EQ(Get("\"abc\"", 4, nLen, out), 0);
    EXPECT_EQ(out, "abc");
    EXPECT_EQ(Get("\"abc\"", 3, nLen, out), TALVOR_ERROR_JSON_NO_ROOM);
    EXPECT_EQ(nLen, 3);
    EXPECT_EQ(Get("\"abc", 64, nLen, out), TALVOR_ERROR_JSON_INVALID);
    EXPECT_EQ(Get("\"ab\\\"", 64, nLen, out), TALVOR_ERROR_JSON_INVALID);
    EXPECT_EQ(Get("\"ab\\\\\"", 64, nLen, out), 0);
    EXPECT_EQ(out, "ab\\");
    EXPECT_EQ(Get("   ", 64, nLen, out), 0);
    EXPECT_EQ(nLen, 0);
    // A cut \u escape or a trailing backslash never reads past the text.
    const char arCut[] = {'a', '\\', 'u', '4', '1'};
    EXPECT_EQ(TalvorJsonCalcDataLen(arCut, 5), 4);
    const char arSlash[] = {'a', '\\'};
    EXPECT_EQ(TalvorJsonCalcDataLen(arSlash, 2), 1);
}
