// WSPIoctl. Every code here is answered at once; an overlapped call gets its completion all the same.
#include <cstring>

#include <mstcpip.h>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/kernel_descriptor.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/overlapped.h"

namespace tcpip {
namespace {

/// The two buffers of a call. A value that does not fit is WSAEFAULT.
struct Buffers {
    const void* in;
    DWORD inLength;
    void* out;
    DWORD outLength;
    DWORD returned = 0;

    template <class Value>
    int Read(Value* value) const {
        if (in == nullptr || inLength < sizeof(Value)) return WSAEFAULT;
        std::memcpy(value, in, sizeof(Value));
        return 0;
    }
    template <class Value>
    int Write(const Value& value) {
        if (out == nullptr || outLength < sizeof(Value)) return WSAEFAULT;
        std::memcpy(out, &value, sizeof(Value));
        returned = sizeof(Value);
        return 0;
    }
};

int SetBlocking(Socket& socket, const Buffers& buffers) {
    ULONG nonBlocking = 0;
    const int error = buffers.Read(&nonBlocking);
    if (error != 0) return error;
    // Events need a socket that does not block.
    if (nonBlocking == 0 && socket.eventMask.load() != 0) return WSAEINVAL;
    // The kernel's own mode follows at the first call that depends on it.
    socket.nonBlocking.store(nonBlocking != 0);
    return 0;
}

int SetKeepAlive(Socket& socket, const Buffers& buffers) {
    tcp_keepalive values;
    const int error = buffers.Read(&values);
    if (error != 0) return error;
    if (!socket.IsStream()) return WSAEOPNOTSUPP;
    const auto seconds = [](ULONG milliseconds) { return static_cast<int>((milliseconds + 999) / 1000); };
    int kernelError = 0;
    if (values.onoff != 0 && values.keepalivetime != 0) {
        kernelError =
            kernel::SetOption(socket.fd(), kernel::Option::KeepIdleSeconds, seconds(values.keepalivetime));
    }
    if (kernelError == 0 && values.onoff != 0 && values.keepaliveinterval != 0) {
        kernelError = kernel::SetOption(socket.fd(), kernel::Option::KeepIntervalSeconds,
                                        seconds(values.keepaliveinterval));
    }
    if (kernelError == 0) {
        kernelError = kernel::SetOption(socket.fd(), kernel::Option::KeepAlive, values.onoff != 0 ? 1 : 0);
    }
    return WinsockErrorFromErrno(kernelError);
}

int ExtensionFunction(Buffers* buffers) {
    GUID id;
    const int error = buffers->Read(&id);
    if (error != 0) return error;
    void* function = FindExtensionFunction(id);
    return function == nullptr ? WSAEINVAL : buffers->Write(function);
}

int TakeDescriptor(Socket& socket, const Buffers& buffers) {
    int descriptor = -1;
    int error = buffers.Read(&descriptor);
    if (error != 0) return error;
    std::lock_guard<std::mutex> guard(socket.lock);
    error = socket.ReplaceFdLocked(descriptor);
    if (error != 0) return error;
    Endpoint local = AnyEndpoint(socket.v6);
    kernel::LocalName(socket.fd(), &local);
    socket.bound.store(local.port != 0);
    int listens = 0;
    kernel::GetOption(socket.fd(), kernel::Option::Listens, &listens);
    if (listens != 0) socket.state.store(State::Listening, std::memory_order_release);
    return 0;
}

int Control(const SocketUse& socket, SOCKET handle, DWORD code, Buffers* buffers) {
    switch (code) {
        case FIONBIO:
            return SetBlocking(*socket, *buffers);
        case FIONREAD: {
            int bytes = 0;
            const int error = kernel::BytesReadable(socket.fd(), &bytes);
            return error != 0 ? WinsockErrorFromErrno(error) : buffers->Write(static_cast<ULONG>(bytes));
        }
        case SIOCATMARK: {
            // TRUE: no urgent data is left to be read.
            bool atMark = false;
            const int error = socket->IsStream() ? kernel::AtMark(socket.fd(), &atMark) : 0;
            return error != 0 ? WinsockErrorFromErrno(error)
                              : buffers->Write(static_cast<ULONG>(atMark ? 0 : 1));
        }
        case kHandOutDescriptor:
            socket->kernelRules.store(true);
            return buffers->Write(socket.fd());
        case kTakeDescriptor:
            return TakeDescriptor(*socket, *buffers);
        case SIO_KEEPALIVE_VALS:
            return SetKeepAlive(*socket, *buffers);
        case SIO_GET_EXTENSION_FUNCTION_POINTER:
            return ExtensionFunction(buffers);
        case SIO_BASE_HANDLE:
        case SIO_BSP_HANDLE:
        case SIO_BSP_HANDLE_SELECT:
        case SIO_BSP_HANDLE_POLL:
        case SIO_QUERY_TARGET_PNP_HANDLE:
            return buffers->Write(handle);
        case SIO_UDP_CONNRESET:
            return socket->IsStream() ? WSAEOPNOTSUPP : 0;
        default:
            return WSAEOPNOTSUPP;
    }
}

}  // namespace

int WSPAPI TcpipIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                      LPDWORD returned, WSAOVERLAPPED* overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                      LPWSATHREADID thread, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPIoctl", WSAENETDOWN, s, lpErrno, [&](platform::PlatformCall&, const SocketUse& socket) {
            if (returned == nullptr && overlapped == nullptr) return WSAEFAULT;
            Buffers buffers = {in, inLength, out, outLength};
            const int error = Control(socket, s, code, &buffers);
            if (error != 0) return error;
            if (returned != nullptr) *returned = buffers.returned;
            if (overlapped == nullptr || !socket->overlapped) return 0;
            return CompleteAtOnce(socket.pointer(), {overlapped, routine, thread}, buffers.returned);
        });
}

}  // namespace tcpip
