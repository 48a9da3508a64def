// TalvorError.h — the language switch, the two error tables shared with the
// engine, character conversion and the small readers of machine facts.
//
// Every text the system shows exists in Chinese and in English; a call site
// picks its text by testing g_nLanguage_Chinese for equality with 1. The two
// tables hold the same codes in the same ascending order, and the lookup is a
// binary search that relies on that.
//
// The /proc readers each have a variant that takes the path(s) to read, so
// that any file of the same shape can be fed to them; the public forms only
// supply the real paths. None of them trusts the file: every field is read
// into a bounded buffer and anything malformed reads as zero.
#pragma once

#include "TypeDef.h"

#include <cstddef>
#include <cstdio>

// --- Language and thread stack -------------------------------------------

// 1 Chinese, any other value English. 1 until InitLanguageSetting has run.
extern int g_nLanguage_Chinese;

// The configuration value that means "key not set, decide for yourself".
#define TALVOR_CONFIG_UNSET 77
#define TALVOR_MAX_THREAD_STACK_MIB 10

// Reads "Language" and "threadstacksize" of section "System". TRUE: through
// the configuration singleton, which TalvorConfigInit must have loaded.
// FALSE: straight from TalvorConfig.ini beside the executable. Main thread
// only, before any other thread starts.
void InitLanguageSetting(BOOL bService);

// The same, file-direct from the given ini file.
void InitLanguageSettingFromFile(const char* lpszIniPath);

// Applies two raw configuration values: a stack size in MiB (above 0: that
// many, at most 10; otherwise 1 MiB) and a language (77: the time zone
// decides).
void ApplyLanguageSetting(int nLanguage, int nStackSizeMiB);

// TRUE when the local zone is UTC+8 on 1 January 2017 (standard time).
BOOL IsLocalZoneUtcPlus8();

// Path of "TalvorConfig.ini" in the executable's directory. FALSE (and an
// empty string) when the executable's path cannot be had or does not fit.
BOOL GetConfigPathBesideExe(char* lpszPath, size_t nSize);

// --- Error tables ----------------------------------------------------------

#define TALVOR_ERROR_COUNT 782
#define TALVOR_ERROR_TEXT_SIZE 160

typedef struct stu_TalvorError_Def {
    int nErrorNO;
    char lpszDescription[TALVOR_ERROR_TEXT_SIZE]; // UTF-8, NUL-terminated
} TALVORERROR_DEF;

static_assert(sizeof(TALVORERROR_DEF) == 164, "a table row is 164 bytes");

extern const TALVORERROR_DEF g_pTalvorErrorDef[TALVOR_ERROR_COUNT];  // Chinese
extern const TALVORERROR_DEF g_pTalvorErrorDefE[TALVOR_ERROR_COUNT]; // English

#define TALVOR_UNKNOWN_ERROR_ZH "未知错误码"
#define TALVOR_UNKNOWN_ERROR_EN "Unknown error!"

// Text of a code; the unknown-code text for a code not in the table. The
// result points into constant data and is never freed.
const char* GetErrorDescription(int nErrorNO);
const char* GetErrorDescriptionE(int nErrorNO);

// --- Character conversion ---------------------------------------------------

// iconv from pSrcCode to pDestCode. The destination is zeroed first and always
// keeps one byte for the terminator. 0 on success, 1 on failure (unknown
// character set, bad input, or no room).
int CodeConvert(const char* pSrcCode, const char* pDestCode, char* pSrcBuf, size_t nSrcLen, char* pDestBuf,
                size_t nDestLen);

// "utf-8" to "gb2312" into a zero-filled new[] buffer of twice the length plus
// one. Null on failure. The caller frees it with delete[].
char* UTF8ConvertAnsi(char* pSrc);

// --- Machine facts ----------------------------------------------------------

// MemTotal, MemFree and MemAvailable of /proc/meminfo in kB, each taken only
// from the line in its own position (first, second, third); 0 otherwise.
void get_mem_info(long long& nTotal, long long& nAvailable, long long& nMaxAvailable);
void get_mem_info_from(const char* lpszPath, long long& nTotal, long long& nAvailable, long long& nMaxAvailable);

// Processor load in percent over one second; blocks for that second.
void get_cpu_info(int& nCpuRate);

// One reading of the aggregate "cpu" line of a stat file.
typedef struct _TALVORCPUSAMPLE {
    unsigned long long ullTotal; // user+nice+system+idle+iowait+irq+softirq
    unsigned long long ullIdle;
} TALVORCPUSAMPLE;

// FALSE when the file cannot be opened or has no "cpu" line with seven
// counters.
BOOL read_cpu_sample_from(const char* lpszPath, TALVORCPUSAMPLE* pSample);
// Load in percent between two readings, rounded; 0 when no time passed or the
// counters went backwards. Always within 0..100.
int cpu_rate_between(const TALVORCPUSAMPLE& first, const TALVORCPUSAMPLE& second);

// Memory of this process: VmSize, VmPeak, VmRSS, VmHWM of /proc/<pid>/status
// in kB, and the seventh number of /proc/<pid>/statm. Missing values are 0.
void get_processmem_info(long long& virtotalmem, long long& virpeakmem, long long& phytotalmem,
                         long long& phypeakmem, long long& dirtypage);
void get_processmem_info_from(const char* lpszStatusPath, const char* lpszStatmPath, long long& virtotalmem,
                              long long& virpeakmem, long long& phytotalmem, long long& phypeakmem,
                              long long& dirtypage);

// --- Stacks by the debugger -------------------------------------------------

// Both return the bytes placed in the buffer (always NUL-terminated when
// buffer_size > 0), and 0 when gdb is missing or the script cannot start.
int get_specified_thread_stacktrace_of_current_process(int thread_id, char* backtrace_buffer, int buffer_size);
int get_all_thread_stacktrace_of_specified_process(char* process_name, char* backtrace_buffer, int buffer_size);

// TRUE when an executable "gdb" is on PATH and the version probe says so.
BOOL is_debugger_available();

// Runs a shell script through popen and appends its output lines to the
// buffer until the pipe ends or one byte of room is left. Returns the bytes
// placed; 0 when the script cannot start.
int run_script_into_buffer(const char* lpszScript, char* lpBuffer, int nBufferSize);

// --- Small functions --------------------------------------------------------

// Folds ASCII letters to upper case in place; returns its argument.
char* strupr(char* lpsz);
// Absolute value. The most negative value, which has no positive twin,
// saturates to the largest one instead of staying negative.
long long _abs64(long long nValue);
// TRUE for an ASCII letter, for '.', '/', a digit, and for '_'.
BOOL IsCharacter(char c);
