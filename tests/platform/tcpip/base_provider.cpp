// Loading the base provider, and the upcalls that it is given.
#include "tests/platform/tcpip/base_provider.h"

#include <cstring>

namespace {

int WSPAPI QueueApc(LPWSATHREADID thread, LPWSAUSERAPC procedure, DWORD_PTR context, LPINT error) {
    if (QueueUserAPC(reinterpret_cast<PAPCFUNC>(procedure), thread->ThreadHandle, context) != 0) return 0;
    *error = WSAEINVAL;
    return SOCKET_ERROR;
}

int WSPAPI OpenCurrentThread(LPWSATHREADID thread, LPINT error) {
    thread->ThreadHandle = OpenThread(THREAD_ALL_ACCESS, FALSE, GetCurrentThreadId());
    if (thread->ThreadHandle != nullptr) return 0;
    *error = WSAENOBUFS;
    return SOCKET_ERROR;
}

int WSPAPI CloseThread(LPWSATHREADID thread, LPINT) {
    return CloseHandle(thread->ThreadHandle) ? 0 : SOCKET_ERROR;
}

SOCKET WSPAPI KeepHandle(DWORD, SOCKET proposed, LPINT) {
    return proposed;
}

}  // namespace

void BaseProvider::Load() {
    before_ = platform::CountResources();
    module_ = LoadLibraryA(QX_TCPIP_MODULE);
    ASSERT_NE(module_, nullptr);
    const auto startup =
        reinterpret_cast<LPWSPSTARTUP>(reinterpret_cast<void*>(GetProcAddress(module_, "WSPStartup")));
    ASSERT_NE(startup, nullptr);
    WSPUPCALLTABLE upcalls = {};
    upcalls.lpWPUQueueApc = QueueApc;
    upcalls.lpWPUOpenCurrentThread = OpenCurrentThread;
    upcalls.lpWPUCloseThread = CloseThread;
    upcalls.lpWPUModifyIFSHandle = KeepHandle;
    WSPDATA data;
    WSAPROTOCOL_INFOW info = Protocol(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(startup(MAKEWORD(1, 1), &data, &info, upcalls, &Table), WSAVERNOTSUPPORTED);
    ASSERT_EQ(startup(MAKEWORD(2, 2), &data, &info, upcalls, &Table), 0);
}

void BaseProvider::Unload(bool cleanUp) {
    if (cleanUp) {
        EXPECT_EQ(Table.lpWSPCleanup(&Error), 0);
    }
    EXPECT_TRUE(FreeLibrary(module_));
    module_ = nullptr;
}

void BaseProvider::TearDown() {
    if (module_ != nullptr) Unload();
    EXPECT_EQ(platform::SettleTo(before_), "");
}

WSAPROTOCOL_INFOW BaseProvider::Protocol(int family, int type, int protocol) {
    WSAPROTOCOL_INFOW info = {};
    info.iAddressFamily = family;
    info.iSocketType = type;
    info.iProtocol = protocol;
    info.dwCatalogEntryId = 1001;
    info.szProtocol[0] = u'T';
    return info;
}

SOCKET BaseProvider::Stream(int family) {
    WSAPROTOCOL_INFOW info = Protocol(family, SOCK_STREAM, IPPROTO_TCP);
    const SOCKET s = CALL(Socket, family, SOCK_STREAM, IPPROTO_TCP, &info, 0, WSA_FLAG_OVERLAPPED);
    EXPECT_NE(s, INVALID_SOCKET) << Error;
    return s;
}

SOCKET BaseProvider::Datagram(int family) {
    WSAPROTOCOL_INFOW info = Protocol(family, SOCK_DGRAM, IPPROTO_UDP);
    const SOCKET s = CALL(Socket, family, SOCK_DGRAM, IPPROTO_UDP, &info, 0, WSA_FLAG_OVERLAPPED);
    EXPECT_NE(s, INVALID_SOCKET) << Error;
    return s;
}

void BaseProvider::Abort(SOCKET s) {
    const linger abort = {1, 0};
    EXPECT_EQ(
        CALL(SetSockOpt, s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof(abort)), 0)
        << Error;
    Close(s);
}

sockaddr_in BaseProvider::At(const char* address, int port) {
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<u_short>(port));
    name.sin_addr.s_addr = inet_addr(address);
    return name;
}

int BaseProvider::PortOf(const sockaddr_in& name) {
    return ntohs(name.sin_port);
}

std::string BaseProvider::Text(const sockaddr_in& name) {
    return std::string(inet_ntoa(name.sin_addr)) + ":" + std::to_string(PortOf(name));
}

sockaddr_in BaseProvider::NameOf(SOCKET s) {
    sockaddr_in name = {};
    int length = sizeof(name);
    EXPECT_EQ(CALL(GetSockName, s, reinterpret_cast<sockaddr*>(&name), &length), 0) << Error;
    return name;
}

SOCKET BaseProvider::Bound(SOCKET s) {
    const sockaddr_in name = At("127.0.0.1", 0);
    EXPECT_EQ(CALL(Bind, s, reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0) << Error;
    return s;
}

SOCKET BaseProvider::Listener(sockaddr_in* name) {
    const SOCKET s = Bound(Stream());
    EXPECT_EQ(CALL(Listen, s, SOMAXCONN), 0) << Error;
    *name = NameOf(s);
    return s;
}

SOCKET BaseProvider::ListenerV6(sockaddr_in6* name) {
    const SOCKET s = Stream(AF_INET6);
    *name = {};
    name->sin6_family = AF_INET6;
    name->sin6_addr = in6addr_loopback;
    int length = sizeof(*name);
    if (CALL(Bind, s, reinterpret_cast<const sockaddr*>(name), length) != 0) return INVALID_SOCKET;
    EXPECT_EQ(CALL(Listen, s, SOMAXCONN), 0) << Error;
    EXPECT_EQ(CALL(GetSockName, s, reinterpret_cast<sockaddr*>(name), &length), 0) << Error;
    return s;
}

sockaddr_in BaseProvider::RefusingName() {
    return NameOf(Bound(Stream()));
}

void BaseProvider::Connect(SOCKET* client, SOCKET* server) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    *client = Stream();
    ASSERT_EQ(Connect(*client, name), 0) << Error;
    *server = Accept(listener);
    ASSERT_NE(*server, INVALID_SOCKET) << Error;
    Close(listener);
}

int BaseProvider::Send(SOCKET s, const std::string& text, DWORD flags) {
    WSABUF buffer = {static_cast<ULONG>(text.size()), const_cast<char*>(text.data())};
    DWORD sent = 0;
    const int result = CALL(Send, s, &buffer, 1, &sent, flags, nullptr, nullptr, nullptr);
    return result == 0 ? static_cast<int>(sent) : result;
}

std::string BaseProvider::Receive(SOCKET s, ULONG size, DWORD flags) {
    std::string text(size, '\0');
    WSABUF buffer = {size, &text[0]};
    DWORD received = 0;
    if (CALL(Recv, s, &buffer, 1, &received, &flags, nullptr, nullptr, nullptr) != 0) {
        return "error " + std::to_string(Error);
    }
    text.resize(received);
    return text;
}

int BaseProvider::SetNonBlocking(SOCKET s, ULONG on) {
    DWORD returned = 0;
    return CALL(Ioctl, s, FIONBIO, &on, sizeof(on), nullptr, 0, &returned, nullptr, nullptr, nullptr);
}

int BaseProvider::SetNumber(SOCKET s, int level, int name, int value) {
    return CALL(SetSockOpt, s, level, name, reinterpret_cast<const char*>(&value), sizeof(value));
}

int BaseProvider::GetNumber(SOCKET s, int level, int name) {
    int value = -1;
    int length = sizeof(value);
    EXPECT_EQ(CALL(GetSockOpt, s, level, name, reinterpret_cast<char*>(&value), &length), 0) << Error;
    // Some flags come as one byte.
    return length == 1 ? static_cast<unsigned char>(value) : value;
}

bool BaseProvider::WaitFor(SOCKET s, char set) {
    fd_set sets[3];
    for (fd_set& each : sets) {
        FD_ZERO(&each);
        FD_SET(s, &each);
    }
    timeval timeout = {10, 0};
    fd_set* read = set == 'r' ? &sets[0] : nullptr;
    fd_set* write = set == 'w' ? &sets[1] : nullptr;
    fd_set* except = set == 'e' ? &sets[2] : nullptr;
    return CALL(Select, 0, read, write, except, &timeout) == 1;
}

DWORD BaseProvider::NextPacket(HANDLE port, OVERLAPPED** overlapped, DWORD* error, DWORD milliseconds) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    *overlapped = nullptr;
    *error = GetQueuedCompletionStatus(port, &bytes, &key, overlapped, milliseconds) ? 0 : GetLastError();
    return bytes;
}

platform::Machine MachineWithRoutes(const std::vector<platform::MachineRoute>& routes) {
    platform::Machine machine = *platform::TheMachine();
    machine.routes = routes;
    return machine;
}
