// Kernel functions: objects and waits, threads and APCs, completion ports, critical sections, TLS, heaps,
// modules, environment, time, errors, exceptions. What each one reproduces and leaves out is listed in
// platform/README.md.
#pragma once

#include <windef.h>
#include <winerror.h>
#include <winnt.h>

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)
#define INFINITE 0xFFFFFFFF
#define WAIT_OBJECT_0 (STATUS_WAIT_0 + 0)
#define WAIT_ABANDONED_0 (STATUS_ABANDONED_WAIT_0 + 0)
#define WAIT_ABANDONED WAIT_ABANDONED_0
#define WAIT_IO_COMPLETION STATUS_USER_APC
#define WAIT_FAILED static_cast<DWORD>(0xFFFFFFFF)
#define STILL_ACTIVE STATUS_PENDING
#define CREATE_SUSPENDED 0x00000004
#define HANDLE_FLAG_INHERIT 0x00000001
#define TLS_OUT_OF_INDEXES static_cast<DWORD>(0xFFFFFFFF)

#define LMEM_FIXED 0x0000
#define LMEM_MOVEABLE 0x0002
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)

#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x1
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x2
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x4

#define EXCEPTION_ACCESS_VIOLATION STATUS_ACCESS_VIOLATION
#define EXCEPTION_IN_PAGE_ERROR STATUS_IN_PAGE_ERROR
#define EXCEPTION_ILLEGAL_INSTRUCTION STATUS_ILLEGAL_INSTRUCTION
#define EXCEPTION_INT_DIVIDE_BY_ZERO STATUS_INTEGER_DIVIDE_BY_ZERO
#define EXCEPTION_INT_OVERFLOW STATUS_INTEGER_OVERFLOW
#define EXCEPTION_FLT_DIVIDE_BY_ZERO STATUS_FLOAT_DIVIDE_BY_ZERO
#define EXCEPTION_FLT_INVALID_OPERATION STATUS_FLOAT_INVALID_OPERATION
#define EXCEPTION_STACK_OVERFLOW STATUS_STACK_OVERFLOW

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

// The layout has unnamed members, as the system's own headers do.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;
#pragma GCC diagnostic pop
static_assert(sizeof(OVERLAPPED) == 8 + 3 * sizeof(void*), "Windows' layout on every target");

/// Opaque but for its size; a section that was never initialised is told from one that was.
typedef struct _RTL_CRITICAL_SECTION {
    ULONG_PTR Opaque[8];
} RTL_CRITICAL_SECTION, CRITICAL_SECTION, *PCRITICAL_SECTION, *LPCRITICAL_SECTION;

typedef struct _SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    LPVOID lpMinimumApplicationAddress;
    LPVOID lpMaximumApplicationAddress;
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
} SYSTEM_INFO, *LPSYSTEM_INFO;

typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID parameter);
typedef LPTHREAD_START_ROUTINE PTHREAD_START_ROUTINE;
typedef void(CALLBACK* PAPCFUNC)(ULONG_PTR parameter);

extern "C" {

// Handles
BOOL WINAPI CloseHandle(HANDLE object);
BOOL WINAPI GetHandleInformation(HANDLE object, LPDWORD flags);
BOOL WINAPI DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, LPHANDLE target,
                            DWORD access, BOOL inherit, DWORD options);

// Events, semaphores, waits
HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                           LPCSTR name);
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                           LPCWSTR name);
BOOL WINAPI SetEvent(HANDLE event);
BOOL WINAPI ResetEvent(HANDLE event);
HANDLE WINAPI CreateSemaphoreA(LPSECURITY_ATTRIBUTES attributes, LONG initialCount, LONG maximumCount,
                               LPCSTR name);
HANDLE WINAPI CreateSemaphoreW(LPSECURITY_ATTRIBUTES attributes, LONG initialCount, LONG maximumCount,
                               LPCWSTR name);
BOOL WINAPI ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LPLONG previousCount);
DWORD WINAPI WaitForSingleObject(HANDLE object, DWORD milliseconds);
DWORD WINAPI WaitForSingleObjectEx(HANDLE object, DWORD milliseconds, BOOL alertable);
DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds);
DWORD WINAPI WaitForMultipleObjectsEx(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds,
                                      BOOL alertable);
void WINAPI Sleep(DWORD milliseconds);
DWORD WINAPI SleepEx(DWORD milliseconds, BOOL alertable);

// Threads
HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                           LPVOID parameter, DWORD flags, LPDWORD threadId);
[[noreturn]] void WINAPI ExitThread(DWORD exitCode);
[[noreturn]] void WINAPI FreeLibraryAndExitThread(HMODULE module, DWORD exitCode);
BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode);
BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode);
HANDLE WINAPI OpenThread(DWORD access, BOOL inherit, DWORD threadId);
DWORD WINAPI QueueUserAPC(PAPCFUNC function, HANDLE thread, ULONG_PTR parameter);
HANDLE WINAPI GetCurrentProcess();
HANDLE WINAPI GetCurrentThread();
DWORD WINAPI GetCurrentProcessId();
DWORD WINAPI GetCurrentThreadId();

// Completion ports
#define OPEN_EXISTING 3
#define FILE_SHARE_READ 0x1
#define FILE_ATTRIBUTE_NORMAL 0x80
#define FILE_FLAG_OVERLAPPED 0x40000000
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu
HANDLE WINAPI CreateFileA(LPCSTR name, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE templateFile);
HANDLE WINAPI CreateFileW(LPCWSTR name, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE templateFile);
BOOL WINAPI ReadFile(HANDLE file, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED overlapped);
DWORD WINAPI SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method);

BOOL WINAPI CancelIoEx(HANDLE file, LPOVERLAPPED overlapped);
HANDLE WINAPI CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR key,
                                     DWORD concurrentThreads);
BOOL WINAPI GetQueuedCompletionStatus(HANDLE port, LPDWORD bytes, PULONG_PTR key, LPOVERLAPPED* overlapped,
                                      DWORD milliseconds);
BOOL WINAPI PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED overlapped);
#define FILE_SKIP_COMPLETION_PORT_ON_SUCCESS 0x1
#define FILE_SKIP_SET_EVENT_ON_HANDLE 0x2
BOOL WINAPI SetFileCompletionNotificationModes(HANDLE file, UCHAR flags);

// Critical sections
void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section);
BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section);
BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION section);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section);

// Thread-local storage
DWORD WINAPI TlsAlloc();
BOOL WINAPI TlsFree(DWORD index);
LPVOID WINAPI TlsGetValue(DWORD index);
BOOL WINAPI TlsSetValue(DWORD index, LPVOID value);

// Memory
HANDLE WINAPI HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize);
BOOL WINAPI HeapDestroy(HANDLE heap);
LPVOID WINAPI HeapAlloc(HANDLE heap, DWORD flags, SIZE_T size);
BOOL WINAPI HeapFree(HANDLE heap, DWORD flags, LPVOID block);
HANDLE WINAPI LocalAlloc(UINT flags, SIZE_T size);
HANDLE WINAPI LocalFree(HANDLE block);

// Modules and environment
HMODULE WINAPI LoadLibraryA(LPCSTR path);
HMODULE WINAPI LoadLibraryW(LPCWSTR path);
BOOL WINAPI FreeLibrary(HMODULE module);
FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);
HMODULE WINAPI GetModuleHandleA(LPCSTR name);
HMODULE WINAPI GetModuleHandleW(LPCWSTR name);
BOOL WINAPI GetModuleHandleExA(DWORD flags, LPCSTR name, HMODULE* module);
BOOL WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module);
DWORD WINAPI GetModuleFileNameA(HMODULE module, LPSTR path, DWORD size);
DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR path, DWORD size);
BOOL WINAPI DisableThreadLibraryCalls(HMODULE module);
DWORD WINAPI ExpandEnvironmentStringsA(LPCSTR source, LPSTR destination, DWORD size);
DWORD WINAPI ExpandEnvironmentStringsW(LPCWSTR source, LPWSTR destination, DWORD size);

// Machine and time
void WINAPI GetSystemInfo(LPSYSTEM_INFO info);
void WINAPI GetSystemTimeAsFileTime(LPFILETIME time);
DWORD WINAPI GetTickCount();
ULONGLONG WINAPI GetTickCount64();
BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* count);
BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* frequency);

// Errors, exceptions, debug output
DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD error);
void WINAPI RaiseException(DWORD code, DWORD flags, DWORD argumentCount, const ULONG_PTR* arguments);
void WINAPI OutputDebugStringA(LPCSTR text);

}  // extern "C"
