// TalvorKeywordParse.h — what one token of SQL text is.
//
// GetKeyword gives a class below 100 (identifier, string, number, operator,
// punctuation) or a keyword's id from 100 up. The short and the obvious
// tokens are settled by their bytes alone; the rest go through a hash table
// built once over the static keyword rows, compared word by word. The CRC-32
// of the SQL function CRC32 is reached through the same object and computed
// by TalvorCRC32.
//
// Thread safety: the first instance() call builds the singleton without a
// lock and belongs to one thread (the start of the process); from then on
// every lookup only reads and is safe on any thread, each caller with its own
// output buffer. DestoryInstance must not race any use. No latch is taken or
// expected.
#pragma once

#include "TypeDef.h"

// Token classes.
#define TALVOR_TOKEN_IDENTIFIER 1
#define TALVOR_TOKEN_STRING 2
#define TALVOR_TOKEN_INTEGER 3
#define TALVOR_TOKEN_DECIMAL 4
#define TALVOR_TOKEN_NUL 5
#define TALVOR_TOKEN_BIT 6
#define TALVOR_TOKEN_HEX_0X 7
#define TALVOR_TOKEN_HEX_X 8
#define TALVOR_TOKEN_BACKQUOTE 10
#define TALVOR_TOKEN_SINGLE_QUOTE 11
#define TALVOR_TOKEN_DOUBLE_QUOTE 12
#define TALVOR_TOKEN_SEMICOLON 13
#define TALVOR_TOKEN_COMMA 14
#define TALVOR_TOKEN_POINT 15
#define TALVOR_TOKEN_LPAREN 16
#define TALVOR_TOKEN_RPAREN 17
#define TALVOR_TOKEN_LBRACKET 18
#define TALVOR_TOKEN_RBRACKET 19
#define TALVOR_TOKEN_LBRACE 20
#define TALVOR_TOKEN_RBRACE 21
#define TALVOR_TOKEN_CONCAT 22
#define TALVOR_TOKEN_PLUS 23
#define TALVOR_TOKEN_MINUS 24
#define TALVOR_TOKEN_STAR 25
#define TALVOR_TOKEN_SLASH 26
#define TALVOR_TOKEN_PERCENT 27
#define TALVOR_TOKEN_EQUAL 28
#define TALVOR_TOKEN_ARROW 29
#define TALVOR_TOKEN_LARROW 30
#define TALVOR_TOKEN_NOT 31
#define TALVOR_TOKEN_NOT_EQUAL 32
#define TALVOR_TOKEN_GREATER 33
#define TALVOR_TOKEN_LESS 34
#define TALVOR_TOKEN_GREATER_EQUAL 35
#define TALVOR_TOKEN_LESS_EQUAL 36
#define TALVOR_TOKEN_ASSIGN 37
#define TALVOR_TOKEN_AT 38
#define TALVOR_TOKEN_QUESTION 39
#define TALVOR_TOKEN_DOLLAR 40
#define TALVOR_TOKEN_COLON 41
#define TALVOR_TOKEN_EMPTY 42
#define TALVOR_TOKEN_AND_AND 43
#define TALVOR_TOKEN_AMPERSAND 44
#define TALVOR_TOKEN_CARET 45
#define TALVOR_TOKEN_BAR 46
#define TALVOR_TOKEN_SHIFT_LEFT 47
#define TALVOR_TOKEN_SHIFT_RIGHT 48
#define TALVOR_TOKEN_TILDE 49
#define TALVOR_TOKEN_JSON_UNQUOTE 50
#define TALVOR_TOKEN_NULL_SAFE_EQUAL 51
// Ids from here up are keywords.
#define TALVOR_KEYWORD_FIRST_ID 100

// Width of a keyword row's name, NUL-padded; names are compared as 32-bit
// words, so every byte of it counts.
#define TALVOR_KEYWORD_NAME 28
// Tokens this long or longer are never looked up.
#define TALVOR_KEYWORD_MAX_TOKEN TALVOR_KEYWORD_NAME
// Zero bytes GetKeyword writes behind the token.
#define TALVOR_KEYWORD_PAD 4
// Items of the hash table, and the buckets the hash really uses.
#define TALVOR_KEYWORD_ITEMS 4096
#define TALVOR_KEYWORD_BUCKETS 4093

struct TALVORKEYWORDDATA {
    char m_lpszKeyword[TALVOR_KEYWORD_NAME];  // upper case, zero-filled
    UINT m_nKeyworkID;                        // 0 ends the table
};
typedef const TALVORKEYWORDDATA* LPTALVORKEYWORDDATA;

class CTalvorKeywordParse {
public:
    struct stu_Talvor_Keyword_Item {
        LPTALVORKEYWORDDATA m_pKeyword;  // null: a free bucket
        stu_Talvor_Keyword_Item* m_pNext;
    };

    // Result: the singleton, built at the first call; null when it could not
    // be built (no memory), and the next call tries again.
    static CTalvorKeywordParse* instance();
    // Gives the singleton and its chains back; the next instance() builds
    // it again.
    static void DestoryInstance();

    // Result: the class or keyword id of the nLen bytes at lpKeyword (a
    // negative nLen counts as 0). Only those bytes are read, never the one
    // behind. When the token is looked up, lpszData (room for nLen + 4
    // bytes) receives it with a to z in upper case and four zero bytes
    // behind; a null lpszData is allowed. bAnsiQuotes: double quotes delimit
    // identifiers, else strings. An unknown word is an identifier (1).
    int GetKeyword(const char* lpKeyword, int nLen, char* lpszData, BOOL bAnsiQuotes) const;
    // Result: as above, for a caller that wants no copy of the token.
    int GetKeyword(const char* lpKeyword, int nLen, BOOL bAnsiQuotes) const;
    // Result: the standard CRC-32 of nLen bytes; 0 when nLen is below 1.
    UINT CRC32Encrypt(const char* lpData, int nLen) const;

    // Result: the keyword rows, ending at a row with id 0.
    static LPTALVORKEYWORDDATA GetKeywordTable() { return m_arKeyworData; }
    // Result: the bucket of a NUL-padded name readable for 28 bytes, or for
    // 4 bytes past its last non-NUL byte.
    static UINT HashKeyword(const char* lpName);

private:
    CTalvorKeywordParse();
    ~CTalvorKeywordParse();
    BOOL Initialize();
    BOOL AddRow(LPTALVORKEYWORDDATA pRow);
    int ClassifyLong(const char* lp, int nLen, BOOL bAnsiQuotes) const;
    int ClassifyOther(const char* lp, int nLen, BOOL bAnsiQuotes) const;
    int Lookup(const char* lp, int nLen, char* lpszData) const;

    stu_Talvor_Keyword_Item m_arHashData[TALVOR_KEYWORD_ITEMS];

    static CTalvorKeywordParse* m_pSinstance;
    static const TALVORKEYWORDDATA m_arKeyworData[];

    CTalvorKeywordParse(const CTalvorKeywordParse&) = delete;
    CTalvorKeywordParse& operator=(const CTalvorKeywordParse&) = delete;
};
