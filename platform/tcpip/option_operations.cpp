// WSPGetSockOpt and WSPSetSockOpt. Plain options go straight to the kernel through one table; the rest is
// what Windows keeps differently: time-outs in milliseconds, buffer sizes as they were set, the exclusive use
// of an address, the protocol information, and the two context options.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include <ws2tcpip.h>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"

namespace tcpip {
namespace {

using kernel::Option;
using platform::PlatformCall;

enum Families : unsigned { kV4 = 1, kV6 = 2, kAny = 3 };
enum Kinds : unsigned { kStream = 1, kDatagram = 2, kAnyKind = 3 };

struct PlainOption {
    int level;
    int name;
    Option option;
    unsigned families;
    unsigned kinds;
    bool isFlag;
};

constexpr PlainOption kPlainOptions[] = {
    {SOL_SOCKET, SO_KEEPALIVE, Option::KeepAlive, kAny, kStream, true},
    {SOL_SOCKET, SO_BROADCAST, Option::Broadcast, kAny, kDatagram, true},
    {SOL_SOCKET, SO_DONTROUTE, Option::DontRoute, kAny, kAnyKind, true},
    {SOL_SOCKET, SO_OOBINLINE, Option::OutOfBandInline, kAny, kStream, true},
    {IPPROTO_TCP, TCP_NODELAY, Option::NoDelay, kAny, kStream, true},
    {IPPROTO_TCP, TCP_KEEPALIVE, Option::KeepIdleSeconds, kAny, kStream, false},
    {IPPROTO_TCP, TCP_MAXSEG, Option::MaxSegment, kAny, kStream, false},
    {IPPROTO_IP, IP_TOS, Option::TypeOfService, kV4, kAnyKind, false},
    {IPPROTO_IP, IP_DONTFRAGMENT, Option::DontFragment, kV4, kAnyKind, true},
    {IPPROTO_IPV6, IPV6_V6ONLY, Option::V6Only, kV6, kAnyKind, true},
};

const PlainOption* FindPlain(const Socket& socket, int level, int name) {
    const unsigned family = socket.v6 ? kV6 : kV4;
    const unsigned kind = socket.IsStream() ? kStream : kDatagram;
    const auto found =
        std::find_if(std::begin(kPlainOptions), std::end(kPlainOptions), [&](const PlainOption& row) {
            return row.level == level && row.name == name && (row.families & family) != 0 &&
                   (row.kinds & kind) != 0;
        });
    return found == std::end(kPlainOptions) ? nullptr : found;
}

bool KnowsLevel(int level) {
    return level == SOL_SOCKET || level == IPPROTO_TCP || level == IPPROTO_UDP || level == IPPROTO_IP ||
           level == IPPROTO_IPV6;
}

/// Reads a value of one byte or more, as Windows does: what the caller left out counts as zero.
int ReadNumber(const char* value, int length, int* number) {
    *number = 0;
    if (value == nullptr || length < 1) return WSAEFAULT;
    std::memcpy(number, value, static_cast<std::size_t>(std::min(length, 4)));
    return 0;
}

template <class Value>
int ReadValue(const char* value, int length, Value* result) {
    if (value == nullptr || length < static_cast<int>(sizeof(Value))) return WSAEFAULT;
    std::memcpy(result, value, sizeof(Value));
    return 0;
}

template <class Value>
int WriteValue(const Value& result, char* value, LPINT length) {
    if (*length < static_cast<int>(sizeof(Value))) return WSAEFAULT;
    std::memcpy(value, &result, sizeof(Value));
    *length = sizeof(Value);
    return 0;
}

/// Numbers go into what room there is, a single byte for a flag included.
int WriteNumber(int number, char* value, LPINT length) {
    if (*length < 1) return WSAEFAULT;
    *length = std::min(*length, 4);
    std::memcpy(value, &number, static_cast<std::size_t>(*length));
    return 0;
}

int SetPlain(Socket& socket, Option option, int number) {
    const int error = kernel::SetOption(socket.fd(), option, number);
    if (error != 0) return WinsockErrorFromErrno(error);
    // Before a connection the kernel's socket may still be exchanged, and the new one must get the option,
    // too.
    if (!socket.IsStream() || socket.state.load() == State::Connected) return 0;
    // A connected one has it from its listener and takes it no more.
    if (option == Option::V6Only) return 0;
    std::lock_guard<std::mutex> guard(socket.lock);
    for (AppliedOption& applied : socket.applied) {
        if (applied.option != option) continue;
        applied.value = number;
        return 0;
    }
    socket.applied.push_back({option, number});
    return 0;
}

int SetBufferSize(Socket& socket, int name, int size) {
    if (size < 0) return WSAEINVAL;
    const bool send = name == SO_SNDBUF;
    const int error = SetPlain(socket, send ? Option::SendBuffer : Option::ReceiveBuffer, size);
    if (error != 0) return error;
    std::lock_guard<std::mutex> guard(socket.lock);
    (send ? socket.options.sendBuffer : socket.options.receiveBuffer) = size;
    return 0;
}

int GetBufferSize(Socket& socket, int name, char* value, LPINT length) {
    const bool send = name == SO_SNDBUF;
    int size;
    {
        std::lock_guard<std::mutex> guard(socket.lock);
        size = send ? socket.options.sendBuffer : socket.options.receiveBuffer;
    }
    if (size < 0) {
        kernel::GetOption(socket.fd(), send ? Option::SendBuffer : Option::ReceiveBuffer, &size);
        size /= 2;  // the kernel counts its own overhead
    }
    return WriteNumber(size, value, length);
}

int SetLinger(Socket& socket, const linger& value) {
    const int error = kernel::SetLinger(socket.fd(), value.l_onoff != 0, value.l_linger);
    if (error != 0) return WinsockErrorFromErrno(error);
    std::lock_guard<std::mutex> guard(socket.lock);
    socket.options.lingerOn = value.l_onoff != 0;
    socket.options.lingerSeconds = value.l_linger;
    return 0;
}

/// Only one of the two ways to use an address can be asked for, and only before the bind.
int SetAddressUse(Socket& socket, int name, bool on) {
    std::lock_guard<std::mutex> guard(socket.lock);
    SocketOptions& options = socket.options;
    if (socket.bound.load()) return WSAEINVAL;
    if (on && (name == SO_REUSEADDR ? options.exclusiveAddress : options.reuseAddress)) return WSAEINVAL;
    (name == SO_REUSEADDR ? options.reuseAddress : options.exclusiveAddress) = on;
    return 0;
}

int UpdateAcceptContext(Socket& socket, const char* value, int length) {
    SOCKET handle = INVALID_SOCKET;
    const int error = ReadValue(value, length, &handle);
    if (error != 0) return error;
    const SocketUse listener(handle);
    if (!listener) return WSAENOTSOCK;
    if (listener->state.load() != State::Listening) return WSAEINVAL;
    if (socket.missingContext.load() != MissingContext::Accept) return WSAENOTCONN;
    socket.nonBlocking.store(listener->nonBlocking.load());
    socket.missingContext.store(MissingContext::None);
    return 0;
}

int UpdateConnectContext(Socket& socket) {
    if (socket.missingContext.load() != MissingContext::Connect) {
        return socket.RefreshConnect() == State::Connected ? 0 : WSAENOTCONN;
    }
    socket.missingContext.store(MissingContext::None);
    return 0;
}

int SetSocketLevel(Socket& socket, int name, const char* value, int length) {
    if (name == SO_UPDATE_ACCEPT_CONTEXT) return UpdateAcceptContext(socket, value, length);
    if (name == SO_UPDATE_CONNECT_CONTEXT) return UpdateConnectContext(socket);
    if (name == SO_LINGER) {
        linger requested;
        const int error = ReadValue(value, length, &requested);
        return error != 0 ? error : SetLinger(socket, requested);
    }
    int number = 0;
    const int error = ReadNumber(value, length, &number);
    if (error != 0) return error;
    switch (name) {
        case SO_SNDBUF:
        case SO_RCVBUF:
            return SetBufferSize(socket, name, number);
        case SO_SNDTIMEO:
            socket.sendTimeout.store(static_cast<DWORD>(number));
            return 0;
        case SO_RCVTIMEO:
            socket.receiveTimeout.store(static_cast<DWORD>(number));
            return 0;
        case SO_DONTLINGER:
            return SetLinger(socket, {static_cast<USHORT>(number != 0 ? 0 : 1), 0});
        case SO_REUSEADDR:
        case SO_EXCLUSIVEADDRUSE:
            return SetAddressUse(socket, name, number != 0);
        case SO_CONDITIONAL_ACCEPT: {
            std::lock_guard<std::mutex> guard(socket.lock);
            socket.options.conditionalAccept = number != 0;
            return 0;
        }
        case SO_DEBUG:
        case SO_OPENTYPE:
            return 0;
        default:
            return WSAENOPROTOOPT;
    }
}

int TakePendingError(Socket& socket) {
    std::lock_guard<std::mutex> guard(socket.lock);
    socket.RefreshConnectLocked();
    if (socket.pendingError != 0) return std::exchange(socket.pendingError, 0);
    if (socket.state.load() == State::Connecting) return 0;
    const int error = kernel::TakeError(socket.fd());
    socket.NoteReset(error);
    return WinsockErrorFromErrno(error);
}

/// Whole seconds since the connection was made, 0xFFFFFFFF without one.
DWORD ConnectTime(Socket& socket) {
    std::lock_guard<std::mutex> guard(socket.lock);
    if (socket.RefreshConnectLocked() != State::Connected) return 0xFFFFFFFF;
    return static_cast<DWORD>((platform::ClockNow() - socket.connectedAt) / 1000000000);
}

int WriteProtocolInfoA(const WSAPROTOCOL_INFOW& wide, char* value, LPINT length) {
    WSAPROTOCOL_INFOA narrow = {};
    // Both structures have the same fields up to the name.
    std::memcpy(&narrow, &wide, offsetof(WSAPROTOCOL_INFOA, szProtocol));
    for (int i = 0; i < WSAPROTOCOL_LEN && wide.szProtocol[i] != 0; ++i) {
        narrow.szProtocol[i] = wide.szProtocol[i] < 0x80 ? static_cast<CHAR>(wide.szProtocol[i]) : '?';
    }
    return WriteValue(narrow, value, length);
}

int GetSocketLevel(Socket& socket, int name, char* value, LPINT length) {
    const auto number = [&](std::uint32_t result) {
        return WriteNumber(static_cast<int>(result), value, length);
    };
    std::unique_lock<std::mutex> guard(socket.lock);
    const SocketOptions options = socket.options;
    guard.unlock();
    switch (name) {
        case SO_SNDBUF:
        case SO_RCVBUF:
            return GetBufferSize(socket, name, value, length);
        case SO_SNDTIMEO:
            return number(socket.sendTimeout.load());
        case SO_RCVTIMEO:
            return number(socket.receiveTimeout.load());
        case SO_LINGER:
            return WriteValue(linger{static_cast<USHORT>(options.lingerOn ? 1 : 0), options.lingerSeconds},
                              value, length);
        case SO_DONTLINGER:
            return number(options.lingerOn ? 0 : 1);
        case SO_REUSEADDR:
            return number(options.reuseAddress ? 1 : 0);
        case SO_EXCLUSIVEADDRUSE:
            return number(options.exclusiveAddress ? 1 : 0);
        case SO_CONDITIONAL_ACCEPT:
            return number(options.conditionalAccept ? 1 : 0);
        case SO_ERROR:
            return number(static_cast<std::uint32_t>(TakePendingError(socket)));
        case SO_TYPE:
            return number(static_cast<std::uint32_t>(socket.info.iSocketType));
        case SO_ACCEPTCONN:
            return number(socket.state.load() == State::Listening ? 1 : 0);
        case SO_CONNECT_TIME:
            return number(ConnectTime(socket));
        case SO_MAX_MSG_SIZE:
            return socket.IsStream() ? WSAENOPROTOOPT : number(65507);
        case SO_DEBUG:
        case SO_OPENTYPE:
        case SO_GROUP_ID:
        case SO_GROUP_PRIORITY:
            return number(0);
        case SO_PROTOCOL_INFOW:
            return WriteValue(socket.info, value, length);
        case SO_PROTOCOL_INFOA:
            return WriteProtocolInfoA(socket.info, value, length);
        default:
            return WSAENOPROTOOPT;
    }
}

}  // namespace

int WSPAPI TcpipSetSockOpt(SOCKET s, int level, int name, const char* value, int length, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPSetSockOpt", WSAENOBUFS, s, lpErrno, [&](PlatformCall&, const SocketUse& socket) {
            if (const PlainOption* plain = FindPlain(*socket, level, name)) {
                int number = 0;
                const int error = ReadNumber(value, length, &number);
                return error != 0
                           ? error
                           : SetPlain(*socket, plain->option, plain->isFlag ? (number != 0 ? 1 : 0) : number);
            }
            if (level == SOL_SOCKET) return SetSocketLevel(*socket, name, value, length);
            return KnowsLevel(level) ? WSAENOPROTOOPT : WSAEINVAL;
        });
}

int WSPAPI TcpipGetSockOpt(SOCKET s, int level, int name, char* value, LPINT length, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPGetSockOpt", WSAENOBUFS, s, lpErrno, [&](PlatformCall&, const SocketUse& socket) {
            if (value == nullptr || length == nullptr) return WSAEFAULT;
            if (const PlainOption* plain = FindPlain(*socket, level, name)) {
                int number = 0;
                const int error = kernel::GetOption(socket.fd(), plain->option, &number);
                if (error != 0) return WinsockErrorFromErrno(error);
                return WriteNumber(plain->isFlag ? (number != 0 ? 1 : 0) : number, value, length);
            }
            if (level == SOL_SOCKET) return GetSocketLevel(*socket, name, value, length);
            return KnowsLevel(level) ? WSAENOPROTOOPT : WSAEINVAL;
        });
}

}  // namespace tcpip
