// One shape for all six: find the socket's context, make sure of the lower function, then either hand an
// overlapped request to the manager or call the lower function with lower sockets.
#include "provider/operations/extension_functions.h"

#include <cstring>

#include "base/atomic.h"
#include "base/caller_memory.h"
#include "base/trace.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/overlapped/overlapped_manager.h"
#include "provider/overlapped/overlapped_records.h"

namespace {

template <auto kFunction>
ULONG_PTR AddressBits() {
    const auto function = kFunction;
    static_assert(sizeof(function) == sizeof(ULONG_PTR), "a function's address is as wide as a pointer");
    ULONG_PTR bits;
    std::memcpy(&bits, &function, sizeof(bits));
    return bits;
}

/// Asks the lower provider for a function unless `*slot` has it.
template <class Function>
bool LoadInto(SocketContext* context, GUID id, Atomic<Function>* slot) {
    if (slot->Acquire() != nullptr) return true;
    LspEntry* const provider = context->Provider;
    Function function = nullptr;
    DWORD bytes = 0;
    INT error = 0;
    const int result = CallLower(provider, SOCKET_ERROR, &error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPIoctl(
            context->ProviderSocket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function,
            sizeof(function), &bytes, nullptr, nullptr, nullptr, &error);
    });
    if (result == SOCKET_ERROR || function == nullptr) return false;
    slot->Publish(function);
    return true;
}

template <auto kSlot>
bool Load(SocketContext* context, const GUID& id) {
    return LoadInto(context, id, &(context->Provider->Extensions.*kSlot));
}

constexpr ExtensionFunction kTransmitFile = {WSAID_TRANSMITFILE, AddressBits<&LayerTransmitFile>,
                                             Load<&LowerExtensions::TransmitFile>};
constexpr ExtensionFunction kAcceptEx = {WSAID_ACCEPTEX, AddressBits<&LayerAcceptEx>,
                                         Load<&LowerExtensions::AcceptEx>};
constexpr ExtensionFunction kConnectEx = {WSAID_CONNECTEX, AddressBits<&LayerConnectEx>,
                                          Load<&LowerExtensions::ConnectEx>};
constexpr ExtensionFunction kDisconnectEx = {WSAID_DISCONNECTEX, AddressBits<&LayerDisconnectEx>,
                                             Load<&LowerExtensions::DisconnectEx>};
constexpr ExtensionFunction kTransmitPackets = {WSAID_TRANSMITPACKETS, AddressBits<&LayerTransmitPackets>,
                                                Load<&LowerExtensions::TransmitPackets>};
constexpr ExtensionFunction kWsaRecvMsg = {WSAID_WSARECVMSG, AddressBits<&LayerWSARecvMsg>,
                                           Load<&LowerExtensions::WSARecvMsg>};
constexpr const ExtensionFunction* kExtensions[] = {&kTransmitFile, &kAcceptEx,        &kConnectEx,
                                                    &kDisconnectEx, &kTransmitPackets, &kWsaRecvMsg};
constexpr GUID kGetAcceptExSockaddrs = WSAID_GETACCEPTEXSOCKADDRS;

/// Runs one extension function on `s`: with a record of the application's as an overlapped request of `type`,
/// for which `fill(operation)` stores the arguments, else by `direct(lower functions, lower socket)`, which
/// tells success. `bytes`, or null, is where the application wants the count of a request that is done. What
/// the layer does with its own sockets goes down as it is. `freesSocket`: a socket that it succeeds on may be
/// connected anew.
template <class Fill, class Direct>
BOOL RunExtension(SOCKET s, const ExtensionFunction& function, OverlappedType type,
                  const CallerNotice& notice, LPDWORD bytes, Fill fill, Direct direct,
                  bool freesSocket = false) {
    INT error = 0;
    BOOL result = FALSE;
    {
        const ContextReference context(s, &error);
        if (context && !LoadLowerExtension(context.Get(), function)) {
            error = WSAEFAULT;
        } else if (context && notice.Overlapped != nullptr && !context->OwnedByLayer) {
            OverlappedOperation* const operation =
                PrepareOverlappedOperation(context.Get(), type, notice, {}, &error);
            if (operation != nullptr) {
                fill(operation);
                const Outcome queued = QueueOverlappedOperation(operation, context.Get());
                error = queued.Error;
                result = error == 0;
                if (result && bytes != nullptr) GuardedCall([&]() noexcept { *bytes = queued.Bytes; });
            }
        } else if (context) {
            LspEntry* const provider = context->Provider;
            result = CallLower(provider, BOOL{FALSE}, &error, [&]() noexcept {
                // What an earlier call has left is not this one's error.
                WSASetLastError(0);
                const BOOL done = direct(provider->Extensions, context->ProviderSocket) ? TRUE : FALSE;
                if (!done) error = WSAGetLastError();
                return done;
            });
            if (result && freesSocket) NotifyReuse(context.Get());
        }
    }
    if (!result) WSASetLastError(error);
    return result;
}

BOOL FailExtension(INT error) {
    WSASetLastError(error);
    return FALSE;
}

}  // namespace

const ExtensionFunction* FindExtensionFunction(const GUID& id) {
    for (const ExtensionFunction* const known : kExtensions) {
        if (std::memcmp(&known->Id, &id, sizeof(id)) == 0) return known;
    }
    return nullptr;
}

bool IsForwardedExtension(const GUID& id) {
    return std::memcmp(&kGetAcceptExSockaddrs, &id, sizeof(id)) == 0;
}

BOOL WINAPI LayerTransmitFile(SOCKET s, HANDLE file, DWORD bytesToWrite, DWORD bytesPerSend,
                              LPOVERLAPPED overlapped, LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    return RunExtension(
        s, kTransmitFile, OverlappedType::kTransmitFile, {overlapped}, nullptr,
        [&](OverlappedOperation* operation) {
            operation->TransmitFile = {file, bytesToWrite, bytesPerSend, buffers, flags};
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.TransmitFile(lowerSocket, file, bytesToWrite, bytesPerSend, nullptr, buffers, flags);
        },
        (flags & TF_REUSE_SOCKET) != 0);
}

BOOL WINAPI LayerAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                          DWORD localLength, DWORD remoteLength, LPDWORD bytesReceived,
                          LPOVERLAPPED overlapped) {
    INT error = 0;
    const ContextReference acceptingContext(accepting, &error);
    if (!acceptingContext) return FailExtension(error);
    const SOCKET lowerAccepting = acceptingContext->ProviderSocket;
    return RunExtension(
        listener, kAcceptEx, OverlappedType::kAcceptEx, {overlapped}, bytesReceived,
        [&](OverlappedOperation* operation) {
            operation->AcceptEx = {accepting,   lowerAccepting, output, receiveLength,
                                   localLength, remoteLength,   0};
            // It is in use until the request has completed.
            CountRequest(acceptingContext.Get());
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.AcceptEx(lowerSocket, lowerAccepting, output, receiveLength, localLength,
                                  remoteLength, bytesReceived, overlapped);
        });
}

BOOL WINAPI LayerConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID sendBuffer, DWORD sendLength,
                           LPDWORD bytesSent, LPOVERLAPPED overlapped) {
    SOCKADDR_STORAGE copy;
    if (overlapped != nullptr && !CopyCallerName(name, namelen, &copy)) return FailExtension(WSAEFAULT);
    return RunExtension(
        s, kConnectEx, OverlappedType::kConnectEx, {overlapped}, bytesSent,
        [&](OverlappedOperation* operation) {
            operation->ConnectEx = {copy, namelen, sendBuffer, sendLength, 0, FALSE};
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            if (overlapped == nullptr)
                Trace("ERROR: ConnectEx called with null overlapped data. This is not permitted in winsock!");
            return lower.ConnectEx(lowerSocket, name, namelen, sendBuffer, sendLength, bytesSent, overlapped);
        });
}

BOOL WINAPI LayerDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD reserved) {
    return RunExtension(
        s, kDisconnectEx, OverlappedType::kDisconnectEx, {overlapped}, nullptr,
        [&](OverlappedOperation* operation) {
            operation->DisconnectEx = {flags, reserved};
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.DisconnectEx(lowerSocket, nullptr, flags, reserved);
        },
        (flags & TF_REUSE_SOCKET) != 0);
}

BOOL WINAPI LayerTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT packets, DWORD count, DWORD sendSize,
                                 LPOVERLAPPED overlapped, DWORD flags) {
    return RunExtension(
        s, kTransmitPackets, OverlappedType::kTransmitPackets, {overlapped}, nullptr,
        [&](OverlappedOperation* operation) {
            operation->TransmitPackets = {packets, count, sendSize, flags};
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.TransmitPackets(lowerSocket, packets, count, sendSize, nullptr, flags);
        },
        (flags & TF_REUSE_SOCKET) != 0);
}

INT WINAPI LayerWSARecvMsg(SOCKET s, LPWSAMSG message, LPDWORD bytesReceived, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine) {
    const BOOL done = RunExtension(
        s, kWsaRecvMsg, OverlappedType::kWsaRecvMsg, {overlapped, completionRoutine}, bytesReceived,
        [&](OverlappedOperation* operation) {
            operation->WSARecvMsg = {message, 0};
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.WSARecvMsg(lowerSocket, message, bytesReceived, nullptr, completionRoutine) == 0;
        });
    return done ? 0 : SOCKET_ERROR;
}
