// TalvorSqlText.h — cutting names, passwords, strings and JSON keys out of
// SQL text.
//
// The cutters share one result code: 0 a bad name, 1 a quoted one, 2 a plain
// one (exceptions stated per function). Letters are ASCII letters; "name
// characters" after the first are letters, digits, "_", "#" and "$".
//
// Thread-safety: every function works on the caller's buffers alone and may
// run on any thread.
#pragma once

#include "TypeDef.h"

#define TALVOR_NAME_BAD 0
#define TALVOR_NAME_QUOTED 1
#define TALVOR_NAME_PLAIN 2

// Status of a JSON key of the wrong form: "Keyword format was invalid when
// parsing json".
#define TALVOR_ERROR_JSON_KEY_FORMAT 8502

// An object name. In double quotes: kept as it stands; in backquotes:
// upper-cased; 1 to 63 bytes between the quotes (nLen 3 to 65). Plain: a
// letter, "_" or "#" first, then name characters, upper-cased; read up to
// the NUL, not nLen, and longer than 64 bytes is bad. lpszOut needs 65 bytes
// and is NUL-terminated.
int CopyNameFromSql(const char* lpszText, int nLen, char* lpszOut);

// A user name: as CopyNameFromSql, also in single quotes, and nothing is
// upper-cased; a plain name starts with a letter and is cut at 64 bytes.
int CopyUserNameFromSql(const char* lpszText, int nLen, char* lpszOut);

// A database name, case kept. Quoted in any of the three ways: result 2, no
// length limit (the caller gives nLen - 1 bytes of room). Plain: the
// CopyNameFromSql character rule, up to 63 bytes.
int CopyDatabaseNameFromSql(const char* lpszText, int nLen, char* lpszOut);

// A password in single or double quotes (1) or a plain word of name
// characters (2), case kept. nMax 0: no limit; otherwise a plain word is cut
// at nMax bytes and a quoted one over nMax is bad. lpszOut needs the result's
// length + 1.
int CopyPassWordFromSql(const char* lpszText, int nLen, char* lpszOut, int nMax);

// A string literal in single quotes, at least 2 bytes, into nOutSize bytes.
// Result: 0 bad, 2 doesn't fit (with its NUL), 1 copied.
int CopyStringFromSql(const char* lpszText, int nLen, char* lpszOut, int nOutSize);

// A JSON key. Without bDoubleQuote: text in double or single quotes gives
// nKeyLen = nDataLen - 2, other text nKeyLen = nDataLen; an empty quoted
// string is TALVOR_ERROR_JSON_KEY_FORMAT. With bDoubleQuote only text in
// double quotes of at least 3 bytes is accepted. Result: 0 or the error.
int CheckJsonString(const char* lpszData, int nDataLen, int& nKeyLen, BOOL bDoubleQuote);
