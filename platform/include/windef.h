// Windows' basic types, with the sizes they have on Windows whatever the target: DWORD, ULONG and LONG are 32
// bits, WCHAR is 16, pointer-sized types follow the target. No function is declared here.
#pragma once

#include <cstddef>
#include <cstdint>

// One calling convention natively.
#define WINAPI
#define CALLBACK
#define NTAPI
#define VOID void

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

typedef char CHAR;
typedef char16_t WCHAR;
typedef unsigned char UCHAR, BYTE, BOOLEAN;
typedef short SHORT;
typedef unsigned short USHORT, WORD, ATOM;
typedef int INT, BOOL, LONG, INT32, LONG32, HRESULT, LSTATUS;
typedef unsigned int UINT, DWORD, ULONG, UINT32, ULONG32, DWORD32;
typedef long long LONGLONG, LONG64, INT64;
typedef unsigned long long ULONGLONG, DWORDLONG, ULONG64, DWORD64, UINT64;
typedef float FLOAT;
typedef double DOUBLE;

typedef std::intptr_t INT_PTR, LONG_PTR, SSIZE_T;
typedef std::uintptr_t UINT_PTR, ULONG_PTR, DWORD_PTR, SIZE_T;
typedef INT_PTR* PINT_PTR;
typedef ULONG_PTR *PULONG_PTR, *PDWORD_PTR, *PSIZE_T;

typedef void *PVOID, *LPVOID, *HANDLE;
typedef const void* LPCVOID;
typedef HANDLE *PHANDLE, *LPHANDLE;
typedef CHAR *PCHAR, *PSTR, *LPSTR;
typedef const CHAR *PCSTR, *LPCSTR, *LPCCH;
typedef WCHAR *PWCHAR, *PWSTR, *LPWSTR, *LPWCH;
typedef const WCHAR *PCWSTR, *LPCWSTR, *LPCWCH;
typedef UCHAR* PUCHAR;
typedef BYTE *PBYTE, *LPBYTE;
typedef SHORT* PSHORT;
typedef USHORT* PUSHORT;
typedef WORD *PWORD, *LPWORD;
typedef INT *PINT, *LPINT;
typedef UINT* PUINT;
typedef BOOL *PBOOL, *LPBOOL;
typedef LONG *PLONG, *LPLONG;
typedef DWORD *PDWORD, *LPDWORD;
typedef ULONG *PULONG, *LPULONG;
typedef LONGLONG* PLONGLONG;
typedef ULONGLONG* PULONGLONG;
typedef BOOLEAN* PBOOLEAN;

typedef INT_PTR(WINAPI* FARPROC)();
typedef INT_PTR(WINAPI* PROC)();

#define DECLARE_HANDLE(name) \
    struct name##__ {        \
        int unused;          \
    };                       \
    typedef struct name##__* name

DECLARE_HANDLE(HINSTANCE);
typedef HINSTANCE HMODULE;
DECLARE_HANDLE(HWND);
DECLARE_HANDLE(HKEY);
DECLARE_HANDLE(HICON);
DECLARE_HANDLE(HBRUSH);
DECLARE_HANDLE(HMENU);
typedef HICON HCURSOR;
typedef HKEY* PHKEY;

typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG_PTR LRESULT;

typedef struct _GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef GUID IID, CLSID;

inline bool operator==(const GUID& a, const GUID& b) {
    return __builtin_memcmp(&a, &b, sizeof(GUID)) == 0;
}
inline bool operator!=(const GUID& a, const GUID& b) {
    return !(a == b);
}
#define IsEqualGUID(a, b) ((a) == (b))

typedef union _LARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        LONG HighPart;
    };
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;

#define MAKEWORD(low, high) \
    (static_cast<WORD>((static_cast<DWORD_PTR>(low) & 0xff) | ((static_cast<DWORD_PTR>(high) & 0xff) << 8)))
#define MAKELONG(low, high)                                     \
    (static_cast<LONG>((static_cast<DWORD_PTR>(low) & 0xffff) | \
                       ((static_cast<DWORD_PTR>(high) & 0xffff) << 16)))
#define LOWORD(value) (static_cast<WORD>((DWORD_PTR)(value)&0xffff))
#define HIWORD(value) (static_cast<WORD>(((DWORD_PTR)(value) >> 16) & 0xffff))
#define LOBYTE(value) (static_cast<BYTE>(static_cast<DWORD_PTR>(value) & 0xff))
#define HIBYTE(value) (static_cast<BYTE>((static_cast<DWORD_PTR>(value) >> 8) & 0xff))
#define MAKELPARAM(low, high) (static_cast<LPARAM>(static_cast<DWORD>(MAKELONG(low, high))))

static_assert(sizeof(WCHAR) == 2 && sizeof(DWORD) == 4 && sizeof(LONG) == 4 &&
                  sizeof(ULONG_PTR) == sizeof(void*),
              "Windows' sizes on every target");
static_assert(sizeof(GUID) == 16 && sizeof(LARGE_INTEGER) == 8, "Windows' layouts on every target");
