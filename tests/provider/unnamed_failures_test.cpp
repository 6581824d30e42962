// A lower provider that fails without an error: every operation has one for the application.
#include "provider/catalog/lower_call.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

/// SOCKET_ERROR or INVALID_SOCKET.
template <class Result, class... Arguments>
Result WSPAPI FailUnnamed(Arguments...) {
    return static_cast<Result>(-1);
}

template <class Result, class... Arguments>
void LetFail(Result(WSPAPI*& operation)(Arguments...)) {
    operation = FailUnnamed<Result, Arguments...>;
}

/// An argument that asks for nothing, or the place of the error.
template <class Argument>
Argument Plain(LPINT error) {
    if constexpr (std::is_same_v<Argument, LPINT>) return error;
    return Argument{};
}

/// The error of an operation on a socket with such arguments, or 0.
template <class Result, class... Arguments>
INT ErrorOfCall(Result(WSPAPI* operation)(SOCKET, Arguments...), SOCKET s) {
    INT error = WSAEISCONN;  // what an earlier call has left
    return operation(s, Plain<Arguments>(&error)...) != static_cast<Result>(-1) ? 0 : error;
}

using UnnamedFailures = FakeSocket;

TEST_F(UnnamedFailures, AreFailuresOfEveryOperation) {
    WSPPROC_TABLE& lower = Lower();
    const WSPPROC_TABLE working = lower;
    const auto onSocket = [&](auto& lowerOperation, auto operation) {
        LetFail(lowerOperation);
        return ErrorOfCall(operation, s_);
    };
    const struct {
        const char* what;
        INT error;
    } rows[] = {
        {"accept", onSocket(lower.lpWSPAccept, WSPAccept)},
        {"bind", onSocket(lower.lpWSPBind, WSPBind)},
        {"close", onSocket(lower.lpWSPCloseSocket, WSPCloseSocket)},
        {"duplicate", onSocket(lower.lpWSPDuplicateSocket, WSPDuplicateSocket)},
        {"enumerate events", onSocket(lower.lpWSPEnumNetworkEvents, WSPEnumNetworkEvents)},
        {"select events", onSocket(lower.lpWSPEventSelect, WSPEventSelect)},
        {"peer name", onSocket(lower.lpWSPGetPeerName, WSPGetPeerName)},
        {"socket name", onSocket(lower.lpWSPGetSockName, WSPGetSockName)},
        {"get option", onSocket(lower.lpWSPGetSockOpt, WSPGetSockOpt)},
        {"ioctl", onSocket(lower.lpWSPIoctl, WSPIoctl)},
        {"join", onSocket(lower.lpWSPJoinLeaf, WSPJoinLeaf)},
        {"listen", onSocket(lower.lpWSPListen, WSPListen)},
        {"receive", onSocket(lower.lpWSPRecv, WSPRecv)},
        {"disconnect receives", onSocket(lower.lpWSPRecvDisconnect, WSPRecvDisconnect)},
        {"receive from", onSocket(lower.lpWSPRecvFrom, WSPRecvFrom)},
        {"send", onSocket(lower.lpWSPSend, WSPSend)},
        {"disconnect sends", onSocket(lower.lpWSPSendDisconnect, WSPSendDisconnect)},
        {"send to", onSocket(lower.lpWSPSendTo, WSPSendTo)},
        {"set option", onSocket(lower.lpWSPSetSockOpt, WSPSetSockOpt)},
        {"shutdown", onSocket(lower.lpWSPShutdown, WSPShutdown)},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.error, WSAEINVAL) << row.what;

    LetFail(lower.lpWSPConnect);
    LetFail(lower.lpWSPSelect);
    LetFail(lower.lpWSPSocket);
    LetFail(lower.lpWSPCancelBlockingCall);
    LetFail(lower.lpWSPAddressToString);
    LetFail(lower.lpWSPStringToAddress);
    lower.lpWSPGetQOSByName = Callback([](SOCKET, LPWSABUF, LPQOS, LPINT) -> BOOL { return FALSE; });
    sockaddr_in address = MakeAddress("203.0.113.10", 80);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s_, &set);
    const LowerCall call(&Entry(SOCK_STREAM));
    INT* const e = &error_;
    const auto expectNamed = [&](bool succeeded) {
        EXPECT_EQ(ErrorOf(succeeded), WSAEINVAL);
        error_ = WSAEISCONN;
    };
    error_ = WSAEISCONN;
    expectNamed(WSPCancelBlockingCall(e) == 0);
    expectNamed(WSPConnect(s_, name, sizeof(address), nullptr, nullptr, nullptr, nullptr, e) == 0);
    expectNamed(WSPSelect(0, &set, nullptr, nullptr, nullptr, e) == 0);
    expectNamed(WSPSocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0, e) != INVALID_SOCKET);
    expectNamed(WSPAddressToString(nullptr, 0, &info, nullptr, nullptr, e) == 0);
    expectNamed(WSPStringToAddress(nullptr, AF_INET, &info, nullptr, nullptr, e) == 0);
    expectNamed(WSPGetQOSByName(s_, nullptr, nullptr, e) != FALSE);
    error_ = 0;
    lower = working;
}

}  // namespace
