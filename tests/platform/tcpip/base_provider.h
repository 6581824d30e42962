// The base provider as Winsock drives it: loaded as a module, started with an upcall table, called through
// its table of operations. Every helper reports what the operation did with its error out-parameter in
// `Error`.
#pragma once

#include <winsock2.h>

#include <gtest/gtest.h>
#include <mswsock.h>
#include <ws2spi.h>
#include <ws2tcpip.h>

#include <string>
#include <vector>

#include "platform/system/machine.h"
#include "platform/testing/resource_counts.h"
#include "tests/platform/wine.h"

/// Calls one operation of the table with `Error` as its last argument.
#define CALL(operation, ...) Table.lpWSP##operation(__VA_ARGS__, &Error)

class BaseProvider : public testing::Test {
  protected:
    void SetUp() override { Load(); }
    void TearDown() override;

    void Load();
    /// Cleans up, when it is still to be done, and unloads the module.
    void Unload(bool cleanUp = true);

    static WSAPROTOCOL_INFOW Protocol(int family, int type, int protocol);

    SOCKET Stream(int family = AF_INET);
    SOCKET Datagram(int family = AF_INET);
    void Close(SOCKET s) { EXPECT_EQ(CALL(CloseSocket, s), 0) << Error; }
    /// Closes with a reset of the connection.
    void Abort(SOCKET s);

    static sockaddr_in At(const char* address, int port);
    static int PortOf(const sockaddr_in& name);
    sockaddr_in NameOf(SOCKET s);
    static std::string Text(const sockaddr_in& name);

    /// Bound to a free port of 127.0.0.1; the listener also listens.
    SOCKET Bound(SOCKET s);
    SOCKET Listener(sockaddr_in* name);

    /// The same on ::1; INVALID_SOCKET on a machine without IPv6.
    SOCKET ListenerV6(sockaddr_in6* name);

    /// A port of 127.0.0.1 on which nobody listens, kept taken by a socket of the provider.
    sockaddr_in RefusingName();

    /// A connected pair.
    void Connect(SOCKET* client, SOCKET* server);

    template <class Name>
    int Connect(SOCKET s, const Name& name) {
        return CALL(Connect, s, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr, nullptr,
                    nullptr, nullptr);
    }
    SOCKET Accept(SOCKET listener) { return CALL(Accept, listener, nullptr, nullptr, nullptr, 0); }

    int Send(SOCKET s, const std::string& text, DWORD flags = 0);
    /// What one receive of at most `size` bytes gives; "error N" when it fails.
    std::string Receive(SOCKET s, ULONG size = 100, DWORD flags = 0);

    int SetNonBlocking(SOCKET s, ULONG on);
    int SetNumber(SOCKET s, int level, int name, int value);
    int GetNumber(SOCKET s, int level, int name);

    /// Waits up to ten seconds until the socket is in the set: 'r', 'w' or 'e'.
    bool WaitFor(SOCKET s, char set);

    /// Receives the bytes of a port's next packet; its overlapped record and error in the out-parameters.
    DWORD NextPacket(HANDLE port, OVERLAPPED** overlapped, DWORD* error, DWORD milliseconds = 10000);

    template <class Function>
    Function Extension(SOCKET s, GUID id) {
        Function function = nullptr;
        DWORD returned = 0;
        EXPECT_EQ(CALL(Ioctl, s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function,
                       sizeof(function), &returned, nullptr, nullptr, nullptr),
                  0);
        return function;
    }

    WSPPROC_TABLE Table = {};
    /// Every thread has its own, so that all but the asserting helpers may be used on any thread.
    static inline thread_local int Error = 0;

  private:
    HMODULE module_ = nullptr;
    platform::ResourceCounts before_;
};

/// A machine with these routes and nothing else out of the ordinary.
platform::Machine MachineWithRoutes(const std::vector<platform::MachineRoute>& routes);
