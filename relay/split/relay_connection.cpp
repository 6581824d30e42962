// See relay_connection.h.
#include "relay/split/relay_connection.h"

#include "provider/guarded_sockets.h"

namespace {

/// Longer than any system tries to connect.
constexpr DWORD kConnectMilliseconds = 150000;

}  // namespace

const RelaySide kClientSide = {&RelayConnection::ClientSocket,
                               &RelayConnection::ClientConnected,
                               &RelayConnection::PendingClientSends,
                               &RelayConnection::PendingClientBytes,
                               &RelayConnection::ClientReceiveWanted,
                               &RelayConnection::ClientReceivePosted,
                               RelayOpClientRecv,
                               RelayOpClientSend,
                               OpClientData,
                               OpClientClosed};

const RelaySide kServerSide = {&RelayConnection::ServerSocket,
                               &RelayConnection::ServerConnected,
                               &RelayConnection::PendingServerSends,
                               &RelayConnection::PendingServerBytes,
                               &RelayConnection::ServerReceiveWanted,
                               &RelayConnection::ServerReceivePosted,
                               RelayOpServerRecv,
                               RelayOpServerSend,
                               OpServerData,
                               OpServerClosed};

const RelaySide& SideOf(DWORD operation) {
    return operation == RelayOpClientRecv || operation == RelayOpClientSend ? kClientSide : kServerSide;
}

const RelaySide& OtherSide(const RelaySide& side) {
    return &side == &kClientSide ? kServerSide : kClientSide;
}

ServerConnectWait::~ServerConnectWait() {
    SafeCloseHandle(done_);
}

void ServerConnectWait::End(bool connected) {
    connected_ = connected;
    SetEvent(done_);
}

bool ServerConnectWait::Await() const {
    return WaitForSingleObject(done_, kConnectMilliseconds) == WAIT_OBJECT_0 && connected_;
}
