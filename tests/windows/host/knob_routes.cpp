// Where the system functions of the modules under test lead: to the stand-in's scripted parts, or through a
// fault point and the counting of what is made to the system's own function.
#include <winsock2.h>

#include <windows.h>

#include "platform/kernel/debug_output.h"
#include "platform/kernel/fault_points.h"
#include "platform/system/certificates.h"
#include "platform/user/top_level_windows.h"
#include "platform/winsock/layered_handle_windows.h"
#include "tests/windows/host/clock_waits.h"
#include "tests/windows/host/resource_tracking.h"
#include "tests/windows/host/routing.h"
#include "tests/windows/host/scripted_system.h"

namespace platform {

namespace {

/// A function of the stand-in, called as Windows functions are.
template <auto function>
struct Called;

template <class Result, class... Arguments, Result (*function)(Arguments...)>
struct Called<function> {
    static Result WINAPI Call(Arguments... arguments) { return function(arguments...); }
};

/// The system's function behind a fault point. Point::After sees the result and the arguments.
template <class Point, class Function = decltype(Point::Real())>
struct Guarded;

template <class Point, class Result, class... Arguments>
struct Guarded<Point, Result(WINAPI*)(Arguments...)> {
    static Result WINAPI Call(Arguments... arguments) {
        PlatformCall call(Point::kName, Point::kError);
        if (call.Fails()) return Result{};
        if constexpr (Point::kTracked) {
            return Point::Run(arguments...);
        } else {
            return Point::Real()(arguments...);
        }
    }
};

// A fault point that fails with the function's zero: null or FALSE, as these functions do.
#define QX_POINT(function, error)                       \
    struct function##Point {                            \
        static constexpr const char* kName = #function; \
        static constexpr DWORD kError = error;          \
        static constexpr bool kTracked = false;         \
        static auto Real() { return &::function; }      \
    };

// The same for a function that does more, mostly counting its results; Run is what it does when it does not
// fail.
#define QX_TRACKED(function, error, parameters, ...)    \
    struct function##Point {                            \
        static constexpr const char* kName = #function; \
        static constexpr DWORD kError = error;          \
        static constexpr bool kTracked = true;          \
        static auto Real() { return &::function; }      \
        static auto Run parameters { __VA_ARGS__ }      \
    };

QX_POINT(GetModuleHandleW, ERROR_MOD_NOT_FOUND)
QX_POINT(GetModuleFileNameW, ERROR_MOD_NOT_FOUND)
QX_POINT(LoadLibraryA, ERROR_MOD_NOT_FOUND)
QX_POINT(LoadLibraryW, ERROR_MOD_NOT_FOUND)
QX_POINT(FreeLibrary, ERROR_MOD_NOT_FOUND)
QX_POINT(GetProcAddress, ERROR_PROC_NOT_FOUND)
QX_POINT(ExpandEnvironmentStringsA, ERROR_NOT_ENOUGH_MEMORY)
QX_POINT(ExpandEnvironmentStringsW, ERROR_NOT_ENOUGH_MEMORY)
QX_POINT(MultiByteToWideChar, ERROR_INVALID_PARAMETER)
QX_POINT(WideCharToMultiByte, ERROR_INVALID_PARAMETER)
QX_POINT(PostQueuedCompletionStatus, ERROR_NO_SYSTEM_RESOURCES)
QX_POINT(SetEvent, ERROR_INVALID_HANDLE)
QX_POINT(ResetEvent, ERROR_INVALID_HANDLE)
QX_POINT(DuplicateHandle, ERROR_INVALID_HANDLE)
QX_POINT(QueueUserAPC, ERROR_NOT_ENOUGH_MEMORY)
QX_POINT(CancelIoEx, ERROR_NOT_FOUND)
QX_POINT(GetModuleHandleExW, ERROR_MOD_NOT_FOUND)
QX_POINT(RegisterClassA, ERROR_NOT_ENOUGH_MEMORY)
QX_POINT(UnregisterClassA, ERROR_CLASS_DOES_NOT_EXIST)
QX_POINT(CreateWindowExA, ERROR_NOT_ENOUGH_MEMORY)
QX_POINT(DestroyWindow, ERROR_INVALID_WINDOW_HANDLE)
QX_POINT(PostMessageA, ERROR_NOT_ENOUGH_QUOTA)

QX_TRACKED(CreateEventA, ERROR_NOT_ENOUGH_MEMORY,
           (LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL initial, LPCSTR name),
           return TrackHandle(::CreateEventA(security, manual, initial, name), TrackedKind::kEvent);)
QX_TRACKED(CreateEventW, ERROR_NOT_ENOUGH_MEMORY,
           (LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL initial, LPCWSTR name),
           return TrackHandle(::CreateEventW(security, manual, initial, name), TrackedKind::kEvent);)
QX_TRACKED(CreateThread, ERROR_NOT_ENOUGH_MEMORY,
           (LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE start, LPVOID argument,
            DWORD flags, LPDWORD id),
           return TrackHandle(::CreateThread(security, stack, start, argument, flags, id),
                              TrackedKind::kThread);)
QX_TRACKED(TerminateThread, ERROR_ACCESS_DENIED, (HANDLE thread, DWORD exitCode),
           return TerminateInWait(thread, exitCode);)
QX_TRACKED(CloseHandle, ERROR_INVALID_HANDLE, (HANDLE handle), ForgetHandle(handle);
           return ::CloseHandle(handle);)
QX_TRACKED(HeapCreate, ERROR_NOT_ENOUGH_MEMORY, (DWORD options, SIZE_T initial, SIZE_T maximum),
           const HANDLE heap = ::HeapCreate(options, initial, maximum);
           TrackHeap(heap); return heap;)
QX_TRACKED(HeapDestroy, ERROR_INVALID_HANDLE, (HANDLE heap), ForgetHeap(heap); return ::HeapDestroy(heap);)
QX_TRACKED(HeapAlloc, ERROR_NOT_ENOUGH_MEMORY, (HANDLE heap, DWORD flags, SIZE_T size),
           void* const block = ::HeapAlloc(heap, flags, size);
           if (block != nullptr) CountHeapBlock(heap, 1); return block;)
QX_TRACKED(HeapFree, ERROR_INVALID_PARAMETER, (HANDLE heap, DWORD flags, LPVOID block),
           const BOOL freed = ::HeapFree(heap, flags, block);
           if (freed && block != nullptr) CountHeapBlock(heap, -1); return freed;)
QX_TRACKED(LocalAlloc, ERROR_NOT_ENOUGH_MEMORY, (UINT flags, SIZE_T size),
           const HLOCAL block = ::LocalAlloc(flags, size);
           if (block != nullptr) CountLocalBlock(1); return block;)

HLOCAL WINAPI FreeLocal(HLOCAL block) {
    PlatformCall call("LocalFree", ERROR_INVALID_HANDLE);
    if (call.Fails()) return block;
    if (block != nullptr) CountLocalBlock(-1);
    return LocalFree(block);
}

HANDLE WINAPI MakeCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads) {
    PlatformCall call("CreateIoCompletionPort", ERROR_NO_SYSTEM_RESOURCES);
    if (call.Fails()) return nullptr;
    const HANDLE made = winsock_host::HostCreateIoCompletionPort(file, port, key, threads);
    return port == nullptr ? TrackHandle(made, TrackedKind::kCompletionPort) : made;
}

BOOL WINAPI TakePacket(HANDLE port, LPDWORD bytes, PULONG_PTR key, LPOVERLAPPED* overlapped,
                       DWORD milliseconds) {
    PlatformCall call("GetQueuedCompletionStatus", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    return winsock_host::HostGetQueuedCompletionStatus(port, bytes, key, overlapped, milliseconds);
}

BOOL WINAPI SetNotificationModes(HANDLE file, UCHAR flags) {
    PlatformCall call("SetFileCompletionNotificationModes", ERROR_INVALID_FUNCTION);
    if (call.Fails()) return FALSE;
    return call.IsIgnored() ? TRUE : SetFileCompletionNotificationModes(file, flags);
}

DWORD WINAPI AllocateTls() {
    PlatformCall call("TlsAlloc", ERROR_NO_MORE_ITEMS);
    return call.Fails() ? TLS_OUT_OF_INDEXES : TlsAlloc();
}

DWORD WINAPI WaitForOne(HANDLE handle, DWORD milliseconds) {
    PlatformCall call("WaitForSingleObject", ERROR_INVALID_HANDLE);
    return call.Fails() ? WAIT_FAILED : WaitOnClock(handle, milliseconds);
}

DWORD WINAPI WaitForSeveral(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    PlatformCall call("WaitForMultipleObjects", ERROR_INVALID_HANDLE);
    return call.Fails() ? WAIT_FAILED : WaitForSeveralOnClock(count, handles, all, milliseconds);
}

BOOL WINAPI TakeMessage(LPMSG message, HWND window, UINT first, UINT last) {
    PlatformCall call("GetMessageA", ERROR_INVALID_WINDOW_HANDLE);
    return call.Fails() ? -1 : GetMessageA(message, window, first, last);
}

void WINAPI SleepAwhile(DWORD milliseconds) {
    const PlatformScope scope;
    SleepOnClock(milliseconds);
}

template <class Function>
void* Address(Function* function) {
    return reinterpret_cast<void*>(function);
}

template <class Point>
Route At(const char* library = "kernel32.dll") {
    return {library, Point::kName, Address(&Guarded<Point>::Call)};
}

template <auto function>
Route To(const char* library, const char* name) {
    return {library, name, Address(&Called<function>::Call)};
}

}  // namespace

std::vector<Route> KnobRoutes(bool waits) {
    std::vector<Route> routes = {
        At<GetModuleHandleWPoint>(),
        At<GetModuleHandleExWPoint>(),
        At<GetModuleFileNameWPoint>(),
        At<LoadLibraryAPoint>(),
        At<LoadLibraryWPoint>(),
        At<FreeLibraryPoint>(),
        At<GetProcAddressPoint>(),
        At<ExpandEnvironmentStringsAPoint>(),
        At<ExpandEnvironmentStringsWPoint>(),
        At<MultiByteToWideCharPoint>(),
        At<WideCharToMultiBytePoint>(),
        At<HeapCreatePoint>(),
        At<HeapDestroyPoint>(),
        At<HeapAllocPoint>(),
        At<HeapFreePoint>(),
        At<LocalAllocPoint>(),
        {"kernel32.dll", "LocalFree", Address(FreeLocal)},
        To<StandInGetSystemTimeAsFileTime>("kernel32.dll", "GetSystemTimeAsFileTime"),
        To<StandInGetTickCount>("kernel32.dll", "GetTickCount"),
        To<StandInOutputDebugStringA>("kernel32.dll", "OutputDebugStringA"),
        To<StandInGetModuleFileNameA>("kernel32.dll", "GetModuleFileNameA"),
        To<StandInGetModuleHandleA>("kernel32.dll", "GetModuleHandleA"),
        To<StandInRegOpenKeyExA>("advapi32.dll", "RegOpenKeyExA"),
        To<StandInRegQueryValueExA>("advapi32.dll", "RegQueryValueExA"),
        To<StandInRegCloseKey>("advapi32.dll", "RegCloseKey"),
        To<StandInGetUserNameExW>("secur32.dll", "GetUserNameExW"),
        To<StandInSHGetFolderPathA>("shell32.dll", "SHGetFolderPathA"),
        To<StandInEnumWindows>("user32.dll", "EnumWindows"),
        To<StandInGetWindowThreadProcessId>("user32.dll", "GetWindowThreadProcessId"),
        To<StandInGetAncestor>("user32.dll", "GetAncestor"),
        To<StandInSendMessageTimeoutA>("user32.dll", "SendMessageTimeoutA"),
        To<StandInIsWindow>("user32.dll", "IsWindow"),
        At<RegisterClassAPoint>("user32.dll"),
        At<UnregisterClassAPoint>("user32.dll"),
        At<CreateWindowExAPoint>("user32.dll"),
        At<DestroyWindowPoint>("user32.dll"),
        At<PostMessageAPoint>("user32.dll"),
        {"user32.dll", "GetMessageA", Address(TakeMessage)},
        To<StandInCryptQueryObject>("crypt32.dll", "CryptQueryObject"),
        To<StandInCryptMsgGetParam>("crypt32.dll", "CryptMsgGetParam"),
        To<StandInCryptMsgClose>("crypt32.dll", "CryptMsgClose"),
        To<StandInCertFindCertificateInStore>("crypt32.dll", "CertFindCertificateInStore"),
        To<StandInCertGetNameStringA>("crypt32.dll", "CertGetNameStringA"),
        To<StandInCertFreeCertificateContext>("crypt32.dll", "CertFreeCertificateContext"),
        To<StandInCertCloseStore>("crypt32.dll", "CertCloseStore"),
    };
    if (!waits) return routes;
    const Route ofModules[] = {
        At<CreateEventAPoint>(),
        At<CreateEventWPoint>(),
        At<CreateThreadPoint>(),
        At<CloseHandlePoint>(),
        At<PostQueuedCompletionStatusPoint>(),
        At<SetEventPoint>(),
        At<ResetEventPoint>(),
        At<DuplicateHandlePoint>(),
        At<QueueUserAPCPoint>(),
        {"kernel32.dll", "TlsAlloc", Address(AllocateTls)},
        At<TerminateThreadPoint>(),
        At<CancelIoExPoint>(),
        {"kernel32.dll", "SetFileCompletionNotificationModes", Address(SetNotificationModes)},
        {"kernel32.dll", "WaitForSingleObject", Address(WaitForOne)},
        {"kernel32.dll", "WaitForMultipleObjects", Address(WaitForSeveral)},
        {"kernel32.dll", "Sleep", Address(SleepAwhile)},
        // The Winsock routes came first: these slots lead to the host by now.
        {"", "CreateIoCompletionPort", Address(MakeCompletionPort),
         Address(winsock_host::HostCreateIoCompletionPort)},
        {"", "GetQueuedCompletionStatus", Address(TakePacket),
         Address(winsock_host::HostGetQueuedCompletionStatus)},
    };
    routes.insert(routes.end(), std::begin(ofModules), std::end(ofModules));
    return routes;
}

}  // namespace platform
