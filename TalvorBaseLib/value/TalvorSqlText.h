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

// Results of PraseSqlHead.
#define TALVOR_ERROR_HEAD_START_CHARACTER 500  // "Unlawful start character error encountered when parsing commands"
#define TALVOR_ERROR_HEAD_CHARACTER 501        // "Invalid characters were found while parsing the command"
#define TALVOR_ERROR_HEAD_COMMAND 502          // "Invalid commands were found while parsing the command"
// Letters of the longest command word, and the room pCommandHead needs.
#define TALVOR_SQL_HEAD_MAX 12
#define TALVOR_SQL_HEAD_ROOM (TALVOR_SQL_HEAD_MAX + 1)

// A title (alias or label). Quoted in any of the three ways: result 1. A
// plain word goes through GetKeyword with ANSI quotes: a token of classes 5
// to 42 (punctuation, operators, literals that are no word) is copied and
// gives 0; a word gives 2. With bTalvor the copy is cut to 31 bytes and a
// backquoted title upper-cased; otherwise it is cut to 63 bytes.
// lpszTitle needs 32 or 64 bytes and is NUL-terminated. A null or empty text
// gives 0 with an empty title. Reads the keyword singleton (see
// TalvorKeywordParse.h).
int CopyTitleFromSql(const char* pData, int nDataLen, char* lpszTitle, BOOL bTalvor);

// Prepares a statement and finds its first word.
// - nPos comes in as the statement's first byte and nSqlLen as its end;
//   trailing semicolons and white space, and parentheses around the whole
//   text (only when the first one closes at the very end), are taken off
//   again and again by moving both. Quoted text does not count in the
//   pairing of parentheses.
// - Comments before the word are skipped: "--" and, with bComments, "#" to
//   the line's end; "/*" to "*/" (to the end when it never closes). For
//   "/*!" followed by digits, nStartPos receives the position behind the
//   digits and nEndPos the position behind the "*/"; both are 0 otherwise.
// - Each "(" before the word adds one to nBracket (which starts at 0).
// - The word's letters go to pCommandHead (TALVOR_SQL_HEAD_ROOM bytes,
//   NUL-terminated, case kept) and their count to nLen; on return nPos is
//   the position behind the word.
// Result: 0, also with nLen 0 when the text holds no word;
// TALVOR_ERROR_HEAD_CHARACTER when the word ends with anything but white
// space, "*" or ":"; TALVOR_ERROR_HEAD_COMMAND for more than 12 letters
// (never more than 12 are written); TALVOR_ERROR_HEAD_START_CHARACTER for
// any other byte before the word.
int PraseSqlHead(const char* lpszSql, BOOL bComments, int& nSqlLen, int& nPos, char* pCommandHead, int& nLen,
                 int& nBracket, int& nStartPos, int& nEndPos);
