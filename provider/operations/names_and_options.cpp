// Questions about a socket that the layer answers itself, so that the application sees its own view of it:
// the address it connected to, the layer's catalog entry, its own handle as an option value.
#include <cstddef>
#include <cstring>

#include "base/caller_memory.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"

#include <mswsock.h>

namespace {

/// The destination that the application gave, whatever the lower socket is connected to.
int AnswerWithDestination(const SocketContext* context, sockaddr* name, LPINT namelen, LPINT error) {
    const SOCKADDR_STORAGE destination = context->DestinationAddress.Load();
    const INT stored = context->DestinationAddressLength;
    const INT length = stored < 0 ? 0 : stored < kLongestName ? stored : kLongestName;
    bool fits = false;
    const bool readable = namelen != nullptr && GuardedCall([&]() noexcept {
                              fits = name != nullptr && *namelen >= length;
                              if (fits) std::memcpy(name, &destination, static_cast<std::size_t>(length));
                              *namelen = length;
                          });
    if (readable && fits) return 0;
    return Fail(WSAEFAULT, error);
}

/// The narrow form of an entry.
bool ConvertProtocolInfo(const WSAPROTOCOL_INFOW& wide, WSAPROTOCOL_INFOA* narrow) {
    static_assert(offsetof(WSAPROTOCOL_INFOW, szProtocol) == offsetof(WSAPROTOCOL_INFOA, szProtocol),
                  "the fields before the name are the same");
    std::memset(narrow, 0, sizeof(*narrow));
    std::memcpy(narrow, &wide, offsetof(WSAPROTOCOL_INFOW, szProtocol));
    return WideCharToMultiByte(CP_ACP, 0, wide.szProtocol, -1, narrow->szProtocol, sizeof(narrow->szProtocol),
                               nullptr, nullptr) != 0;
}

/// Copies `size` bytes out when the application's buffer holds them.
int AnswerWithBytes(const void* answer, int size, char* value, LPINT length, LPINT error) {
    bool fits = false;
    bool readable = value != nullptr && length != nullptr;
    readable = readable && GuardedCall([&]() noexcept {
                   fits = *length >= size;
                   if (!fits) return;
                   std::memcpy(value, answer, static_cast<std::size_t>(size));
                   *length = size;
               });
    if (readable && fits) return 0;
    return Fail(WSAEFAULT, error);
}

int AnswerWithProtocolInfo(const WSAPROTOCOL_INFOW& info, int option, char* value, LPINT length,
                           LPINT error) {
    if (option == SO_PROTOCOL_INFOW) return AnswerWithBytes(&info, sizeof(info), value, length, error);
    WSAPROTOCOL_INFOA narrow;
    if (!ConvertProtocolInfo(info, &narrow)) return Fail(WSAEFAULT, error);
    return AnswerWithBytes(&narrow, sizeof(narrow), value, length, error);
}

}  // namespace

int WSPAPI WSPGetPeerName(SOCKET s, sockaddr* name, LPINT namelen, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    if (context->Split) return AnswerWithDestination(context.Get(), name, namelen, error);
    LspEntry* const provider = context->Provider;
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetPeerName(context->ProviderSocket, name, namelen, error);
    });
}

int WSPAPI WSPGetSockOpt(SOCKET s, int level, int option, char* value, LPINT length, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    LspEntry* const provider = context->Provider;
    if (level == SOL_SOCKET && (option == SO_PROTOCOL_INFOW || option == SO_PROTOCOL_INFOA)) {
        return AnswerWithProtocolInfo(provider->LayerProvider, option, value, length, error);
    }
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetSockOpt(context->ProviderSocket, level, option, value,
                                                         length, error);
    });
}

int WSPAPI WSPSetSockOpt(SOCKET s, int level, int option, const char* value, int length, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    LspEntry* const provider = context->Provider;
    const auto setLower = [&](const char* lowerValue, int lowerLength) {
        return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
            return provider->LowerProcedures.lpWSPSetSockOpt(context->ProviderSocket, level, option,
                                                             lowerValue, lowerLength, error);
        });
    };
    if (level != SOL_SOCKET || option != SO_UPDATE_ACCEPT_CONTEXT) return setLower(value, length);

    // The value names the listening socket, which the lower provider knows by another handle.
    SOCKET listening = INVALID_SOCKET;
    if (value == nullptr || length < static_cast<int>(sizeof(listening)) ||
        !GuardedCall([&]() noexcept { std::memcpy(&listening, value, sizeof(listening)); })) {
        return Fail(WSAEFAULT, error);
    }
    const ContextReference listener(listening, error);
    if (!listener) return SOCKET_ERROR;
    const SOCKET lowerListening = listener->ProviderSocket;
    return setLower(reinterpret_cast<const char*>(&lowerListening), sizeof(lowerListening));
}
