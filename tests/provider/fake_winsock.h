// The provider's operations called directly, between a fake Winsock above (handles and their contexts) and a
// fake lower provider below, whose operations a test puts into the entry's table as it needs them. What the
// interception would decide is decided by the test as well. One test at a time per process.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/testing/resource_counts.h"
#include "provider/catalog/catalog.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "provider/operations/operations.h"
#include "provider/process_state.h"

/// What the fakes were asked and what they answer. Reset before each test.
struct FakeState {
    // Winsock above.
    std::mutex mutex;  // of the handles
    std::map<SOCKET, DWORD_PTR> handles;
    SOCKET nextHandle = 0x1000;
    int createHandleError = 0;
    int closeHandleError = 0;
    DWORD handleEntry = 0;                   // the catalog id of the last handle
    std::function<void(SOCKET)> handleMade;  // before whoever asked for it knows it

    // The lower provider below.
    SOCKET nextLowerSocket = 0x5000;
    std::vector<SOCKET> closed;  // lower sockets, in order
    int closeError = 0;
    int cleanups = 0;
    DWORD socketFlags = 0;
    WSAPROTOCOL_INFOW socketInfo{};
    std::vector<std::string> connected;  // "address:port length"
    int connectError = 0;                // kUnnamed: fails without one
    static constexpr int kUnnamed = -1;

    // The interception; unset ones do nothing.
    std::function<bool(SocketContext*, ConnectTarget*)> verdict;
    std::function<bool(SocketContext*, ConnectTarget*)> split;
    int abandonedSplits = 0;
    std::function<void(SocketContext*, const WSABUF*, const sockaddr* from)> received;
    std::function<void(SocketContext*)> sent;
    std::function<void(SocketContext*)> bound;
    std::function<void()> waitsAbandoned;
    std::vector<DWORD> receivedBytes;  // as the analysis was told; under the mutex
};

FakeState& Fake();

/// Entries for TCP and UDP over a base provider, started, with the fake operations in place.
class FakeWinsock : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// The layer's entry that serves this kind of socket.
    LspEntry& Entry(int type);
    WSPPROC_TABLE& Lower() { return Entry(SOCK_STREAM).LowerProcedures; }

    /// A socket of the layer's; its context is alive until the socket is closed.
    static SOCKET MakeSocket(int type = SOCK_STREAM);
    static SocketContext* ContextOf(SOCKET s);

    /// Closes it and expects that to work.
    static void Close(SOCKET s);

    /// As the first start-up does.
    void BuildCatalog();

    /// As the last clean-up does, or a detach. True when nothing was held by a call under way.
    static bool FreeCatalog(bool detaching = false);

    /// The error of the call just made, or 0; its result has to say the same.
    int ErrorOf(bool succeeded) {
        const INT error = std::exchange(error_, 0);
        EXPECT_EQ(succeeded, error == 0);
        return error;
    }

    INT error_ = 0;

  private:
    platform::ResourceCounts before_;
};

/// With a socket, from before the test until after it.
class FakeSocket : public FakeWinsock {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        s_ = MakeSocket();
        context_ = ContextOf(s_);
    }
    void TearDown() override {
        Close(s_);
        FakeWinsock::TearDown();
    }

    SOCKET s_ = INVALID_SOCKET;
    SocketContext* context_ = nullptr;
};

/// 127.0.0.1 or another address, as connect and sendto want it.
sockaddr_in MakeAddress(const char* text, unsigned short port);

/// An IPv4 address as a lower provider got it: "203.0.113.10:80 16", the length behind it.
std::string DescribeName(const sockaddr* name, int namelen);
