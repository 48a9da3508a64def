// TalvorJsonText.h — the JSON text helpers the JSON SQL functions stand on:
// a validity check, and the taking out of one value with its escapes
// resolved.
//
// Texts are bytes with an explicit length; none of these functions reads a
// byte at or behind that length, and none needs a NUL.
//
// Thread-safety: every function works on the caller's buffers alone and may
// run on any thread.
#pragma once

#include "TypeDef.h"

// Result of a JSON text that doesn't hold together.
#define TALVOR_ERROR_JSON_INVALID 8519
// Result when the caller's buffer is too small.
#define TALVOR_ERROR_JSON_NO_ROOM 87

// Nesting the MySQL rule set accepts; the lenient one goes deeper.
#define TALVOR_JSON_MYSQL_MAX_DEPTH 100
#define TALVOR_JSON_MAX_DEPTH 1024

// Tests an object or array: nLen bytes from "{" to "}" or "[" to "]", the
// closing one the last byte (lpText[nLen - 1]). A text of another shape or
// under 2 bytes isn't tested and gives 0.
// - Always: strings close; after a backslash only " \ r n t follow; a raw
//   tab, CR or LF in a string is refused; brackets pair by kind, and the
//   first one closes at the end; nesting up to TALVOR_JSON_MAX_DEPTH.
// - bMysqlFun set, the stricter set: in addition the full JSON grammar
//   (keys are strings, ":" and "," where they belong, numbers and the
//   literals true, false and null by their exact form), no raw byte below
//   0x20 in a string, nesting up to TALVOR_JSON_MYSQL_MAX_DEPTH.
// Result: 0 valid (or not tested), TALVOR_ERROR_JSON_INVALID.
int TalvorJsonCheckValid(const char* lpText, int nLen, BOOL bMysqlFun);

// The bytes nLen bytes of string content (no quotes) take with their escapes
// resolved: \" \\ \/ \b \f \n \r \t to their byte, \uXXXX (and a surrogate
// pair of two) to UTF-8; any other escaped byte stands for itself, and a
// backslash at the very end is dropped. Result: that count, 0 for null.
int TalvorJsonCalcDataLen(const char* lpData, int nLen);

// Writes what TalvorJsonCalcDataLen counts to lpDes, which must hold that
// many bytes; no NUL is added. Result: the bytes written.
int TalvorJsonCopyData(const char* lpData, int nLen, char* lpDes);

// Takes one value out of nLen bytes, white space at both ends removed: an
// object, an array, a number or a literal comes as it stands; a string in
// double quotes loses them and has its escapes resolved.
// - lpDesBuf null: only measures; nDesLen receives the bytes of the value.
// - lpDesBuf given: nDesLen comes in as its size, which must hold the value
//   and a closing NUL, and goes out as the bytes of the value.
// Result: 0; TALVOR_ERROR_JSON_INVALID for a string whose closing quote is
// missing; TALVOR_ERROR_JSON_NO_ROOM when the buffer is too small (nDesLen
// then receives the bytes needed, and nothing is written).
int TalvorJsonGetData(const char* lpJsonBuf, int nLen, char* lpDesBuf, int& nDesLen);
