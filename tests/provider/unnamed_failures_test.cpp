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

void LetAllFail(WSPPROC_TABLE& lower) {
    LetFail(lower.lpWSPAccept);
    LetFail(lower.lpWSPAddressToString);
    LetFail(lower.lpWSPBind);
    LetFail(lower.lpWSPCancelBlockingCall);
    LetFail(lower.lpWSPCloseSocket);
    LetFail(lower.lpWSPConnect);
    LetFail(lower.lpWSPDuplicateSocket);
    LetFail(lower.lpWSPEnumNetworkEvents);
    LetFail(lower.lpWSPEventSelect);
    LetFail(lower.lpWSPGetPeerName);
    LetFail(lower.lpWSPGetSockName);
    LetFail(lower.lpWSPGetSockOpt);
    lower.lpWSPGetQOSByName = Callback([](SOCKET, LPWSABUF, LPQOS, LPINT) -> BOOL { return FALSE; });
    LetFail(lower.lpWSPIoctl);
    LetFail(lower.lpWSPJoinLeaf);
    LetFail(lower.lpWSPListen);
    LetFail(lower.lpWSPRecv);
    LetFail(lower.lpWSPRecvDisconnect);
    LetFail(lower.lpWSPRecvFrom);
    LetFail(lower.lpWSPSelect);
    LetFail(lower.lpWSPSend);
    LetFail(lower.lpWSPSendDisconnect);
    LetFail(lower.lpWSPSendTo);
    LetFail(lower.lpWSPSetSockOpt);
    LetFail(lower.lpWSPShutdown);
    LetFail(lower.lpWSPSocket);
    LetFail(lower.lpWSPStringToAddress);
}

using UnnamedFailures = FakeSocket;

TEST_F(UnnamedFailures, AreFailuresOfEveryOperation) {
    sockaddr_in address = MakeAddress("203.0.113.10", 80);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    INT length = sizeof(address);
    WSABUF buffer{};
    QOS qos{};
    WSANETWORKEVENTS events{};
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    WCHAR text[4] = {};
    DWORD bytes = 0;
    DWORD flags = 0;
    char value[4] = {};
    fd_set set;
    INT* const e = &error_;
    const struct {
        const char* what;
        std::function<bool()> succeeds;
    } rows[] = {
        {"WSPAccept", [&] { return WSPAccept(s_, nullptr, nullptr, nullptr, 0, e) != INVALID_SOCKET; }},
        {"WSPAddressToString", [&] { return WSPAddressToString(name, 16, &info, text, &bytes, e) == 0; }},
        {"WSPBind", [&] { return WSPBind(s_, name, length, e) == 0; }},
        {"WSPCancelBlockingCall",
         [&] {
             const LowerCall call(&Entry(SOCK_STREAM));
             return WSPCancelBlockingCall(e) == 0;
         }},
        {"WSPCloseSocket", [&] { return WSPCloseSocket(s_, e) == 0; }},
        {"WSPConnect",
         [&] { return WSPConnect(s_, name, length, nullptr, nullptr, nullptr, nullptr, e) == 0; }},
        {"WSPDuplicateSocket", [&] { return WSPDuplicateSocket(s_, 1, &info, e) == 0; }},
        {"WSPEnumNetworkEvents", [&] { return WSPEnumNetworkEvents(s_, nullptr, &events, e) == 0; }},
        {"WSPEventSelect", [&] { return WSPEventSelect(s_, nullptr, FD_READ, e) == 0; }},
        {"WSPGetPeerName", [&] { return WSPGetPeerName(s_, name, &length, e) == 0; }},
        {"WSPGetSockName", [&] { return WSPGetSockName(s_, name, &length, e) == 0; }},
        {"WSPGetSockOpt", [&] { return WSPGetSockOpt(s_, SOL_SOCKET, SO_TYPE, value, &length, e) == 0; }},
        {"WSPGetQOSByName", [&] { return WSPGetQOSByName(s_, &buffer, &qos, e) != FALSE; }},
        {"WSPIoctl",
         [&] {
             return WSPIoctl(s_, FIONREAD, nullptr, 0, value, 4, &bytes, nullptr, nullptr, nullptr, e) == 0;
         }},
        {"WSPJoinLeaf",
         [&] {
             return WSPJoinLeaf(s_, name, length, nullptr, nullptr, nullptr, nullptr, JL_BOTH, e) !=
                    INVALID_SOCKET;
         }},
        {"WSPListen", [&] { return WSPListen(s_, 5, e) == 0; }},
        {"WSPRecv",
         [&] { return WSPRecv(s_, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, e) == 0; }},
        {"WSPRecvDisconnect", [&] { return WSPRecvDisconnect(s_, &buffer, e) == 0; }},
        {"WSPRecvFrom",
         [&] {
             return WSPRecvFrom(s_, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, nullptr, nullptr,
                                e) == 0;
         }},
        {"WSPSelect", [&] { return WSPSelect(0, &set, nullptr, nullptr, nullptr, e) == 0; }},
        {"WSPSend", [&] { return WSPSend(s_, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, e) == 0; }},
        {"WSPSendDisconnect", [&] { return WSPSendDisconnect(s_, &buffer, e) == 0; }},
        {"WSPSendTo",
         [&] { return WSPSendTo(s_, &buffer, 1, &bytes, 0, name, 16, nullptr, nullptr, nullptr, e) == 0; }},
        {"WSPSetSockOpt", [&] { return WSPSetSockOpt(s_, SOL_SOCKET, SO_LINGER, value, 4, e) == 0; }},
        {"WSPShutdown", [&] { return WSPShutdown(s_, SD_SEND, e) == 0; }},
        {"WSPSocket", [&] { return WSPSocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0, e) != INVALID_SOCKET; }},
        {"WSPStringToAddress",
         [&] { return WSPStringToAddress(text, AF_INET, &info, name, &length, e) == 0; }},
    };
    const WSPPROC_TABLE working = Lower();
    LetAllFail(Lower());
    for (const auto& row : rows) {
        FD_ZERO(&set);
        FD_SET(s_, &set);
        error_ = WSAEISCONN;  // what an earlier call has left
        EXPECT_EQ(ErrorOf(row.succeeds()), WSAEINVAL) << row.what;
    }
    Lower() = working;
}

}  // namespace
