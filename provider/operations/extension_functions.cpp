// One shape for all six: find the socket's context, make sure of the lower function, then either hand an
// overlapped request to the manager or call the lower function with lower sockets.
#include "provider/operations/extension_functions.h"

#include <cstring>

#include "base/atomic.h"
#include "base/caller_memory.h"
#include "base/trace.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/overlapped/overlapped_manager.h"

namespace {

struct KnownExtension {
    GUID Id;
    ExtensionFunction Function;
};

constexpr KnownExtension kExtensions[] = {
    {WSAID_TRANSMITFILE, ExtensionFunction::kTransmitFile},
    {WSAID_ACCEPTEX, ExtensionFunction::kAcceptEx},
    {WSAID_CONNECTEX, ExtensionFunction::kConnectEx},
    {WSAID_DISCONNECTEX, ExtensionFunction::kDisconnectEx},
    {WSAID_TRANSMITPACKETS, ExtensionFunction::kTransmitPackets},
    {{0xf689d7c8, 0x6f1f, 0x436b, {0x8a, 0x53, 0xe5, 0x4f, 0xe3, 0x51, 0xc3, 0x22}},
     ExtensionFunction::kWsaRecvMsg},
};
constexpr GUID kGetAcceptExSockaddrs = WSAID_GETACCEPTEXSOCKADDRS;

const KnownExtension& Known(ExtensionFunction function) {
    for (const KnownExtension& known : kExtensions) {
        if (known.Function == function) return known;
    }
    return kExtensions[0];
}

template <class Function>
ULONG_PTR AddressBits(Function function) {
    static_assert(sizeof(function) == sizeof(ULONG_PTR), "a function's address is as wide as a pointer");
    ULONG_PTR bits;
    std::memcpy(&bits, &function, sizeof(bits));
    return bits;
}

/// Asks the lower provider for a function unless `*slot` has it.
template <class Function>
bool LoadInto(SocketContext* context, const GUID& knownId, Atomic<Function>* slot) {
    if (slot->Acquire() != nullptr) return true;
    LspEntry* const provider = context->Provider;
    GUID id = knownId;
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

/// Runs one extension function on `s`. `queue(context, &error)` puts an overlapped request to the manager and
/// `direct(lower functions, lower socket)` calls the lower function; both tell success.
template <class Queue, class Direct>
BOOL RunExtension(SOCKET s, ExtensionFunction function, bool isOverlapped, Queue queue, Direct direct) {
    INT error = 0;
    BOOL result = FALSE;
    {
        const ContextReference context(s, &error);
        if (context && !LoadLowerExtension(context.Get(), function)) {
            error = WSAEFAULT;
        } else if (context && isOverlapped) {
            result = queue(context.Get(), &error) ? TRUE : FALSE;
        } else if (context) {
            LspEntry* const provider = context->Provider;
            result = CallLower(provider, BOOL{FALSE}, &error, [&]() noexcept {
                const BOOL done = direct(provider->Extensions, context->ProviderSocket) ? TRUE : FALSE;
                if (!done) error = WSAGetLastError();
                return done;
            });
        }
    }
    if (!result) WSASetLastError(error);
    return result;
}

OverlappedOperation* Prepare(SocketContext* context, OverlappedType type, LPOVERLAPPED overlapped,
                             LPINT error) {
    return PrepareOverlappedOperation(context, type, nullptr, 0, overlapped, nullptr, nullptr, error);
}

bool Queue(OverlappedOperation* operation, SocketContext* context, LPINT error) {
    *error = QueueOverlappedOperation(operation, context);
    return *error == 0;
}

/// The accepting socket of an overlapped AcceptEx is in use until the request has completed.
void CountAccept(SocketContext* accepting) {
    if (!AcquireSocketLock(accepting)) return;
    ++accepting->OutstandingAsync;
    ReleaseSocketLock(accepting);
}

}  // namespace

bool FindExtensionFunction(const GUID& id, ExtensionFunction* function) {
    for (const KnownExtension& known : kExtensions) {
        if (std::memcmp(&known.Id, &id, sizeof(id)) != 0) continue;
        *function = known.Function;
        return true;
    }
    return false;
}

bool IsForwardedExtension(const GUID& id) {
    return std::memcmp(&kGetAcceptExSockaddrs, &id, sizeof(id)) == 0;
}

ULONG_PTR LayerExtensionAddress(ExtensionFunction function) {
    switch (function) {
        case ExtensionFunction::kTransmitFile:
            return AddressBits(&LayerTransmitFile);
        case ExtensionFunction::kAcceptEx:
            return AddressBits(&LayerAcceptEx);
        case ExtensionFunction::kConnectEx:
            return AddressBits(&LayerConnectEx);
        case ExtensionFunction::kDisconnectEx:
            return AddressBits(&LayerDisconnectEx);
        case ExtensionFunction::kTransmitPackets:
            return AddressBits(&LayerTransmitPackets);
        case ExtensionFunction::kWsaRecvMsg:
            return AddressBits(&LayerWSARecvMsg);
    }
    return 0;
}

bool LoadLowerExtension(SocketContext* context, ExtensionFunction function) {
    LowerExtensions& lower = context->Provider->Extensions;
    const GUID& id = Known(function).Id;
    switch (function) {
        case ExtensionFunction::kTransmitFile:
            return LoadInto(context, id, &lower.TransmitFile);
        case ExtensionFunction::kAcceptEx:
            return LoadInto(context, id, &lower.AcceptEx);
        case ExtensionFunction::kConnectEx:
            return LoadInto(context, id, &lower.ConnectEx);
        case ExtensionFunction::kDisconnectEx:
            return LoadInto(context, id, &lower.DisconnectEx);
        case ExtensionFunction::kTransmitPackets:
            return LoadInto(context, id, &lower.TransmitPackets);
        case ExtensionFunction::kWsaRecvMsg:
            return LoadInto(context, id, &lower.WSARecvMsg);
    }
    return false;
}

BOOL WINAPI LayerTransmitFile(SOCKET s, HANDLE file, DWORD bytesToWrite, DWORD bytesPerSend,
                              LPOVERLAPPED overlapped, LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    return RunExtension(
        s, ExtensionFunction::kTransmitFile, overlapped != nullptr,
        [&](SocketContext* context, LPINT error) {
            OverlappedOperation* const operation =
                Prepare(context, OverlappedType::kTransmitFile, overlapped, error);
            if (operation == nullptr) return false;
            operation->TransmitFile = {file, bytesToWrite, bytesPerSend, buffers, flags};
            return Queue(operation, context, error);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.TransmitFile(lowerSocket, file, bytesToWrite, bytesPerSend, nullptr, buffers, flags);
        });
}

BOOL WINAPI LayerAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                          DWORD localLength, DWORD remoteLength, LPDWORD bytesReceived,
                          LPOVERLAPPED overlapped) {
    INT error = 0;
    const ContextReference acceptingContext(accepting, &error);
    if (!acceptingContext) {
        WSASetLastError(error);
        return FALSE;
    }
    const SOCKET lowerAccepting = acceptingContext->ProviderSocket;
    return RunExtension(
        listener, ExtensionFunction::kAcceptEx, overlapped != nullptr,
        [&](SocketContext* context, LPINT queueError) {
            OverlappedOperation* const operation =
                Prepare(context, OverlappedType::kAcceptEx, overlapped, queueError);
            if (operation == nullptr) return false;
            operation->AcceptEx = {accepting,   lowerAccepting, output, receiveLength,
                                   localLength, remoteLength,   0};
            CountAccept(acceptingContext.Get());
            return Queue(operation, context, queueError);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.AcceptEx(lowerSocket, lowerAccepting, output, receiveLength, localLength,
                                  remoteLength, bytesReceived, nullptr);
        });
}

BOOL WINAPI LayerConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID sendBuffer, DWORD sendLength,
                           LPDWORD bytesSent, LPOVERLAPPED overlapped) {
    return RunExtension(
        s, ExtensionFunction::kConnectEx, overlapped != nullptr,
        [&](SocketContext* context, LPINT error) {
            SOCKADDR_STORAGE copy;
            if (!CopyCallerName(name, namelen, &copy)) {
                *error = WSAEFAULT;
                return false;
            }
            OverlappedOperation* const operation =
                Prepare(context, OverlappedType::kConnectEx, overlapped, error);
            if (operation == nullptr) return false;
            operation->ConnectEx = {copy, namelen, sendBuffer, sendLength, 0};
            return Queue(operation, context, error);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            Trace("ERROR: ConnectEx called with null overlapped data. This is not permitted in winsock!");
            return lower.ConnectEx(lowerSocket, name, namelen, sendBuffer, sendLength, bytesSent, nullptr);
        });
}

BOOL WINAPI LayerDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD reserved) {
    return RunExtension(
        s, ExtensionFunction::kDisconnectEx, overlapped != nullptr,
        [&](SocketContext* context, LPINT error) {
            OverlappedOperation* const operation =
                Prepare(context, OverlappedType::kDisconnectEx, overlapped, error);
            if (operation == nullptr) return false;
            operation->DisconnectEx = {flags, reserved};
            return Queue(operation, context, error);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.DisconnectEx(lowerSocket, nullptr, flags, reserved);
        });
}

BOOL WINAPI LayerTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT packets, DWORD count, DWORD sendSize,
                                 LPOVERLAPPED overlapped, DWORD flags) {
    return RunExtension(
        s, ExtensionFunction::kTransmitPackets, overlapped != nullptr,
        [&](SocketContext* context, LPINT error) {
            OverlappedOperation* const operation =
                Prepare(context, OverlappedType::kTransmitPackets, overlapped, error);
            if (operation == nullptr) return false;
            operation->TransmitPackets = {packets, count, sendSize, flags};
            return Queue(operation, context, error);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.TransmitPackets(lowerSocket, packets, count, sendSize, nullptr, flags);
        });
}

INT WINAPI LayerWSARecvMsg(SOCKET s, LPWSAMSG message, LPDWORD bytesReceived, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine) {
    const BOOL done = RunExtension(
        s, ExtensionFunction::kWsaRecvMsg, overlapped != nullptr,
        [&](SocketContext* context, LPINT error) {
            OverlappedOperation* const operation =
                PrepareOverlappedOperation(context, OverlappedType::kWsaRecvMsg, nullptr, 0, overlapped,
                                           completionRoutine, nullptr, error);
            if (operation == nullptr) return false;
            operation->WSARecvMsg = {message, 0};
            return Queue(operation, context, error);
        },
        [&](const LowerExtensions& lower, SOCKET lowerSocket) {
            return lower.WSARecvMsg(lowerSocket, message, bytesReceived, nullptr, completionRoutine) == 0;
        });
    return done ? 0 : SOCKET_ERROR;
}
