// Access rights, wait and status codes, exception codes, module notifications, and the interlocked
// operations.
#pragma once

#include <windef.h>

#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000
#define GENERIC_WRITE 0x40000000
#define FILE_WRITE_DATA 0x0002
#define FILE_APPEND_DATA 0x0004

#define THREAD_SUSPEND_RESUME 0x0002
#define THREAD_SET_CONTEXT 0x0010
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define DUPLICATE_CLOSE_SOURCE 0x00000001
#define DUPLICATE_SAME_ACCESS 0x00000002

#define MAXIMUM_WAIT_OBJECTS 64
#define MAXDWORD 0xffffffff

typedef LONG NTSTATUS;
#define STATUS_WAIT_0 static_cast<DWORD>(0x00000000L)
#define STATUS_ABANDONED_WAIT_0 static_cast<DWORD>(0x00000080L)
#define STATUS_USER_APC static_cast<DWORD>(0x000000C0L)
#define STATUS_PENDING static_cast<DWORD>(0x00000103L)

#define STATUS_ACCESS_VIOLATION static_cast<DWORD>(0xC0000005L)
#define STATUS_IN_PAGE_ERROR static_cast<DWORD>(0xC0000006L)
#define STATUS_ILLEGAL_INSTRUCTION static_cast<DWORD>(0xC000001DL)
#define STATUS_FLOAT_DIVIDE_BY_ZERO static_cast<DWORD>(0xC000008EL)
#define STATUS_FLOAT_INVALID_OPERATION static_cast<DWORD>(0xC0000090L)
#define STATUS_INTEGER_DIVIDE_BY_ZERO static_cast<DWORD>(0xC0000094L)
#define STATUS_INTEGER_OVERFLOW static_cast<DWORD>(0xC0000095L)
#define STATUS_STACK_OVERFLOW static_cast<DWORD>(0xC00000FDL)

#define EXCEPTION_NONCONTINUABLE 0x1

#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3

#define HEAP_NO_SERIALIZE 0x00000001
#define HEAP_GENERATE_EXCEPTIONS 0x00000004
#define HEAP_ZERO_MEMORY 0x00000008

#define REG_SZ 1
#define REG_DWORD 4
#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_CREATE_LINK 0x0020
#define KEY_WOW64_64KEY 0x0100
#define KEY_READ \
    ((STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY) & ~SYNCHRONIZE)
#define KEY_ALL_ACCESS                                                                                      \
    ((STANDARD_RIGHTS_ALL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_ENUMERATE_SUB_KEYS | \
      KEY_NOTIFY | KEY_CREATE_LINK) &                                                                       \
     ~SYNCHRONIZE)

#define PROCESSOR_ARCHITECTURE_AMD64 9

// Interlocked operations: full barriers, results as on Windows (Increment and Decrement give the new value,
// the others the old one).
inline LONG InterlockedIncrement(volatile LONG* target) {
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(volatile LONG* target) {
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(volatile LONG* target, LONG value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchangeAdd(volatile LONG* target, LONG value) {
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedAnd(volatile LONG* target, LONG value) {
    return __atomic_fetch_and(target, value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedOr(volatile LONG* target, LONG value) {
    return __atomic_fetch_or(target, value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(volatile LONG* target, LONG value, LONG comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
inline LONG64 InterlockedIncrement64(volatile LONG64* target) {
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedDecrement64(volatile LONG64* target) {
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedExchange64(volatile LONG64* target, LONG64 value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedExchangeAdd64(volatile LONG64* target, LONG64 value) {
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedCompareExchange64(volatile LONG64* target, LONG64 value, LONG64 comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
inline PVOID InterlockedExchangePointer(PVOID volatile* target, PVOID value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* target, PVOID value, PVOID comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
#define MemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
