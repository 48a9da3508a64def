// The JSON text helpers against Python's json module on documents, sound
// and bent. Where our rules differ on purpose the expectation is
// adjusted: only the escapes \" \\ \r \n \t are accepted; only a text
// from "{" to "}" or "[" to "]" is checked (others give 0); the
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
    try: text = raw.decode('utf-8')
    except UnicodeDecodeError: print('skip'); continue
    try: v = json.loads(text, parse_constant=refuse)
    except Exception: print('bad'); continue
    print('str ' + v.encode('utf-8', 'surrogatepass').hex() if isinstance(v, str) else 'ok')
)PY";

using talvortest::HexOf;

// Sound documents with every kind of value, escape and space between; each
// is checked as it is and bent by random edits of bytes that matter to JSON,
// never the first or last byte: the result stays a shape that is checked.
const char* const kSeeds[] = {
    "{\"a\" : [0, -0, 12, 3.25, 1e5, 2E-3, -0.5e+10],\r\n\"b\\\"\\\\\": {\"c\":\t\"\\n\\r\\t\"}, \"d\": []}",
    "[true, false, null, {}, [[[[\"\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\"]]]], \"{]:,'\"]",
    "[\"\\/\\b\\f\", \"\\u0041\\u4e2d\\ud83d\\ude00\", {\"x\": {\"y\": [1, {\"z\": null}]}}]"};

std::string Bend(std::string s, std::mt19937& rng) {
    static const std::string kBytes = "{}[]\",:\\ 0-.eE+tfnulx\t\n\r\x01/bu";
    for (int nEdits = (int)(rng() % 3); nEdits > 0; --nEdits) {
        const size_t nAt = 1 + rng() % (s.size() - 2);
        const char c = kBytes[rng() % kBytes.size()];
        const unsigned nEdit = rng() % 3;
        if (nEdit == 0) s.erase(nAt, 1);
        else if (nEdit == 1) s.insert(nAt, 1, c);
        else s[nAt] = c;
    }
    return s;
}

// A JSON string of pieces: escapes of every kind, UTF-8, bytes that are
// structure outside a string.
std::string RandomString(std::mt19937& rng) {
    static const char* const kPieces[] = {
        "a", " ", "\\\"", "\\\\", "\\n", "\\r", "\\t", "\\/", "\\b", "\\f", "\\u0041", "\\u4e2d",
        "\\ud83d\\ude00", "\xc3\xa9", "\xe4\xb8\xad", "\xf0\x9f\x98\x80", "{", "]", ":", ",", "'"};
    std::string s = "\"";
    for (int n = (int)(rng() % 8); n > 0; --n) s += kPieces[rng() % (sizeof(kPieces) / sizeof(kPieces[0]))];
    return s + "\"";
}

// Whether a document that is valid JSON holds an escape the check refuses.
bool HasForeignEscape(const std::string& s) {
    bool bInString = false;
    for (size_t i = 0; i < s.size(); ++i) {
        if (!bInString || s[i] == '"') {
            bInString = !bInString && s[i] == '"';
            continue;
        }
        if (s[i] == '\\' && std::string("/bfu").find(s[++i]) != std::string::npos) return true;
    }
    return false;
}

bool Valid(const std::string& s, BOOL bMysql) {
    const int n = TalvorJsonCheckValid(s.data(), (int)s.size(), bMysql);
    EXPECT_TRUE(n == 0 || n == TALVOR_ERROR_JSON_INVALID) << n;
    return n == 0;
}

}  // namespace

TEST(JsonValidity, AgreesWithPythonOnBentDocumentsAndDecodesStringsAsItDoes) {
    std::mt19937 rng(2024);
    std::vector<std::string> docs, lines;
    for (int i = 0; i < 6000; ++i) docs.push_back(i % 4 == 3 ? RandomString(rng) : Bend(kSeeds[i % 3], rng));
    for (const std::string& s : docs) lines.push_back(HexOf(s));
    const std::vector<std::string> answers = talvortest::RunPythonReference(kPythonCheck, lines);
    ASSERT_EQ(answers.size(), docs.size()) << "python3 with its json module is needed";
    int nCompared = 0, nValid = 0;
    for (size_t i = 0; i < docs.size(); ++i) {
        const std::string& s = docs[i];
        if (answers[i] == "skip") continue;
        if (answers[i].substr(0, 4) == "str ") {
            // Surrounding white space is taken off first; the value fills
            // exactly the room it asks for.
            const std::string text = " \t" + s + "\r\n", inner = s.substr(1, s.size() - 2);
            int nLen = 0;
            ASSERT_EQ(TalvorJsonGetData(text.data(), (int)text.size(), nullptr, nLen), 0);
            std::vector<char> buf((size_t)nLen + 1, '\x7f');
            int nRoom = nLen + 1;
            ASSERT_EQ(TalvorJsonGetData(text.data(), (int)text.size(), buf.data(), nRoom), 0);
            ASSERT_TRUE(nRoom == nLen && buf[(size_t)nLen] == 0) << s;
            ASSERT_EQ(HexOf(std::string(buf.data(), (size_t)nLen)), answers[i].substr(4)) << s;
            ASSERT_EQ(TalvorJsonCalcDataLen(inner.data(), (int)inner.size()), nLen) << s;
            continue;
        }
        const bool bExpected = answers[i] == "ok" && !HasForeignEscape(s);
        const bool bStrict = Valid(s, TRUE), bLenient = Valid(s, FALSE);
        ASSERT_EQ(bStrict, bExpected) << s;
        // Valid JSON passes the lenient set too; what it refuses, the strict
        // set refuses as well.
        ASSERT_TRUE((!bExpected || bLenient) && (bLenient || !bStrict)) << s;
        ++nCompared;
        nValid += bExpected;
    }
    // Both kinds, or the compare proves nothing.
    EXPECT_GT(nValid, 400);
    EXPECT_GT(nCompared - nValid, 1500);
}

TEST(JsonValidity, RulesOfBothSets) {
    struct Case { const char* m_lpszText; bool m_bLenient, m_bStrict; };
    const Case cases[] = {
        {"", true, true}, {"x", true, true}, {"{]", true, true}, {" {}", true, true},  // shapes not checked at all
        {"{a:1}", true, false},                  // the lenient set checks structure only
        {"[\"a\x01b\"]", true, false},           // other control byte: strict only
        {"[\"\\u0041\"]", false, false},         // \u is outside the escape set
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
}

TEST(JsonValues, OtherValuesRoomAndBadStrings) {
    // Text, room, answer, and the value it gives (with too little room: the
    // length asked for).
    const int NO_ROOM = TALVOR_ERROR_JSON_NO_ROOM, BAD = TALVOR_ERROR_JSON_INVALID;
    struct Case { std::string s; int nRoom, nResult; std::string strOut; };
    const Case arCases[] = {{"  {\"a\": [1, 2]}\n", 64, 0, "{\"a\": [1, 2]}"}, {"\t-12.5e3 ", 64, 0, "-12.5e3"},
                            {"\"abc\"", 4, 0, "abc"}, {"\"abc\"", 3, NO_ROOM, "3"},  // room for the NUL, and a byte less
                            {"\"abc", 64, BAD, ""}, {"\"ab\\\"", 64, BAD, ""}, {"\"ab\\\\\"", 64, 0, "ab\\"},
                            {"   ", 64, 0, ""}};
    for (const Case& c : arCases) {
        std::vector<char> buf(64, '\x7f');
        int nLen = c.nRoom;
        EXPECT_EQ(TalvorJsonGetData(c.s.data(), (int)c.s.size(), buf.data(), nLen), c.nResult) << c.s;
        EXPECT_EQ(c.nResult == NO_ROOM ? std::to_string(nLen) : c.nResult ? "" : std::string(buf.data(), nLen), c.strOut) << c.s;
    }
    // A cut \u escape or a trailing backslash never reads past the text.
    const char arCut[] = {'a', '\\', 'u', '4', '1'};
    EXPECT_EQ(TalvorJsonCalcDataLen(arCut, 5), 4);
    const char arSlash[] = {'a', '\\'};
    EXPECT_EQ(TalvorJsonCalcDataLen(arSlash, 2), 1);
}
