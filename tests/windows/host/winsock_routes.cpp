// Winsock's functions, and where the host has them.
#include <winsock2.h>

#include <ws2spi.h>

#include "platform/winsock/host.h"
#include "platform/winsock/layered_handle_windows.h"
#include "platform/winsock/upcalls.h"
#include "tests/windows/host/routing.h"

namespace platform {

namespace {

template <class Function>
void* Address(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

std::vector<Route> WinsockRoutes() {
    using namespace winsock_host;
    static constexpr char kWinsock[] = "ws2_32.dll";
    static constexpr char kExtensions[] = "mswsock.dll";
    return {
        {kWinsock, "WSAStartup", Address(HostWSAStartup)},
        {kWinsock, "WSACleanup", Address(HostWSACleanup)},
        {kWinsock, "WSAEnumProtocolsA", Address(HostWSAEnumProtocolsA)},
        {kWinsock, "WSAEnumProtocolsW", Address(HostWSAEnumProtocolsW)},
        {kWinsock, "WSAAddressToStringA", Address(HostWSAAddressToStringA)},
        {kWinsock, "WSAAddressToStringW", Address(HostWSAAddressToStringW)},
        {kWinsock, "WSAStringToAddressA", Address(HostWSAStringToAddressA)},
        {kWinsock, "WSAStringToAddressW", Address(HostWSAStringToAddressW)},
        {kWinsock, "socket", Address(HostSocket)},
        {kWinsock, "WSASocketA", Address(HostWSASocketA)},
        {kWinsock, "WSASocketW", Address(HostWSASocketW)},
        {kWinsock, "closesocket", Address(HostCloseSocket)},
        {kWinsock, "bind", Address(HostBind)},
        {kWinsock, "listen", Address(HostListen)},
        {kWinsock, "connect", Address(HostConnect)},
        {kWinsock, "WSAConnect", Address(HostWSAConnect)},
        {kWinsock, "accept", Address(HostAccept)},
        {kWinsock, "WSAAccept", Address(HostWSAAccept)},
        {kWinsock, "WSAJoinLeaf", Address(HostWSAJoinLeaf)},
        {kWinsock, "shutdown", Address(HostShutdown)},
        {kWinsock, "WSASendDisconnect", Address(HostWSASendDisconnect)},
        {kWinsock, "WSARecvDisconnect", Address(HostWSARecvDisconnect)},
        {kWinsock, "WSADuplicateSocketA", Address(HostWSADuplicateSocketA)},
        {kWinsock, "WSADuplicateSocketW", Address(HostWSADuplicateSocketW)},
        {kWinsock, "ioctlsocket", Address(HostIoctlSocket)},
        {kWinsock, "WSAIoctl", Address(HostWSAIoctl)},
        {kWinsock, "getsockopt", Address(HostGetSockOpt)},
        {kWinsock, "setsockopt", Address(HostSetSockOpt)},
        {kWinsock, "getpeername", Address(HostGetPeerName)},
        {kWinsock, "getsockname", Address(HostGetSockName)},
        {kWinsock, "WSAGetQOSByName", Address(HostWSAGetQOSByName)},
        {kWinsock, "send", Address(HostSend)},
        {kWinsock, "sendto", Address(HostSendTo)},
        {kWinsock, "recv", Address(HostRecv)},
        {kWinsock, "recvfrom", Address(HostRecvFrom)},
        {kWinsock, "WSASend", Address(HostWSASend)},
        {kWinsock, "WSASendTo", Address(HostWSASendTo)},
        {kWinsock, "WSARecv", Address(HostWSARecv)},
        {kWinsock, "WSARecvFrom", Address(HostWSARecvFrom)},
        {kWinsock, "WSAGetOverlappedResult", Address(HostWSAGetOverlappedResult)},
        {kWinsock, "select", Address(HostSelect)},
        {kWinsock, "__WSAFDIsSet", Address(HostWSAFDIsSet)},
        {kWinsock, "WSAAsyncSelect", Address(HostWSAAsyncSelect)},
        {kWinsock, "WSAEventSelect", Address(HostWSAEventSelect)},
        {kWinsock, "WSAEnumNetworkEvents", Address(HostWSAEnumNetworkEvents)},
        {kWinsock, "WSACreateEvent", Address(HostWSACreateEvent)},
        {kWinsock, "WSACloseEvent", Address(HostWSACloseEvent)},
        {kWinsock, "WSASetEvent", Address(HostWSASetEvent)},
        {kWinsock, "WSAResetEvent", Address(HostWSAResetEvent)},
        {kWinsock, "WSAWaitForMultipleEvents", Address(HostWSAWaitForMultipleEvents)},
        {kWinsock, "WSCEnumProtocols", Address(HostWSCEnumProtocols)},
        {kWinsock, "WSCGetProviderPath", Address(HostWSCGetProviderPath)},
        {kWinsock, "WPUCompleteOverlappedRequest", Address(HostWPUCompleteOverlappedRequest)},
        {kExtensions, "AcceptEx", Address(HostAcceptEx)},
        {kExtensions, "GetAcceptExSockaddrs", Address(HostGetAcceptExSockaddrs)},
        {kExtensions, "TransmitFile", Address(HostTransmitFile)},
        {"kernel32.dll", "CreateIoCompletionPort", Address(HostCreateIoCompletionPort)},
        {"kernel32.dll", "GetQueuedCompletionStatus", Address(HostGetQueuedCompletionStatus)},
    };
}

}  // namespace platform
