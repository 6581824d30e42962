// The text that stands for a context in messages.
#include "provider/contexts/socket_context.h"

#include <ws2tcpip.h>

#include <cstdio>

namespace {

constexpr DWORD kIpv4AddressLength = 16;
constexpr DWORD kIpv6AddressLength = 28;

}  // namespace

ContextText DescribeContext(const SocketContext* context) {
    ContextText text;
    if (context == nullptr) {
        std::snprintf(text.text_, sizeof(text.text_), "Context is empty");
        return text;
    }
    SOCKADDR_STORAGE destination = context->DestinationAddress.Load();
    char address[64];
    DWORD length = sizeof(address);
    const DWORD lastError = GetLastError();
    const bool known =
        WSAAddressToStringA(reinterpret_cast<LPSOCKADDR>(&destination),
                            destination.ss_family == AF_INET6 ? kIpv6AddressLength : kIpv4AddressLength,
                            nullptr, address, &length) != SOCKET_ERROR;
    SetLastError(lastError);

    std::snprintf(
        text.text_, sizeof(text.text_),
        "Connection[%d] [relay:%d,ly:%d,pv:%d,spy:%d] - [%s]:[%d] - [prot:%d] [flags:%d,%d,%d,%d,%d,%d,%d]",
        context->SocketType, static_cast<int>(context->RelayIndex), static_cast<int>(context->LayeredSocket),
        static_cast<int>(context->ProviderSocket), static_cast<int>(context->SpySocket),
        known ? address : "<undefined>", context->DestinationAddress.Port(),
        static_cast<int>(context->Protocol), static_cast<int>(context->Own || context->LocalDestination),
        static_cast<int>(context->ReportTraffic), static_cast<int>(context->InspectData),
        static_cast<int>(context->RelayWanted), static_cast<int>(context->CountTraffic),
        static_cast<int>(context->Split), static_cast<int>(context->AnalyzerServes));
    return text;
}
