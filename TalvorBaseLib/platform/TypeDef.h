// TypeDef.h — the Windows-shaped vocabulary the whole code base is written
// against, mapped onto fixed-width POSIX types.
//
// Every record that lies on disk, in shared memory or on the wire is built
// from these names, so their widths are part of the contract with the engine:
// they are pinned by static_assert below and must never change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

typedef unsigned char BYTE;
typedef BYTE* LPBYTE;
typedef int32_t BOOL;
typedef uint16_t USHORT;
typedef uint16_t WORD;
typedef uint32_t UINT;
typedef uint32_t DWORD;
typedef UINT* LPUINT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef void* LPVOID;
typedef void* HANDLE;
typedef char TCHAR;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef const char* LPCTSTR;
typedef char* LPTSTR;

// HRESULT is a signed 32-bit type: 0x80004005 must compare below zero.
typedef int32_t HRESULT;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define S_OK ((HRESULT)0)
#define E_FAIL ((HRESULT)0x80004005)
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)

// Results of the wait functions, as plain numbers.
#define WAIT_OBJECT_0 0
#define WAIT_TIMEOUT 258
#define WAIT_FAILED (-1)

#define MAX_PATH 260

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *LPFILETIME;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME, *LPSYSTEMTIME;

typedef void* LPSECURITY_ATTRIBUTES;

// Events are POSIX semaphores; threads are pthreads.
typedef sem_t EVENTTYPE;
typedef sem_t* HEVENTTYPE;
typedef pthread_t HTHREADTYPE;
typedef pthread_mutex_t CRITICAL_SECTION;
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

// A SysV shared memory segment id; 0 means "no segment" throughout.
typedef int MFID;

static_assert(sizeof(BOOL) == 4, "BOOL is 32-bit");
static_assert(sizeof(UINT) == 4, "UINT is 32-bit");
static_assert(sizeof(USHORT) == 2, "USHORT is 16-bit");
static_assert(sizeof(LONGLONG) == 8, "LONGLONG is 64-bit");
static_assert(sizeof(FILETIME) == 8, "FILETIME is 64-bit");
static_assert(sizeof(SYSTEMTIME) == 16, "SYSTEMTIME is 8 WORDs");
static_assert(HRESULT(0x80004005) < 0, "HRESULT must be signed");
