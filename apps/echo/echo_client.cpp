// The echo client's state machine: connect, then (send all, receive all, compare) per round; see the header.
#include "apps/echo/echo_client.h"

#include "apps/echo/completion_port.h"
#include "apps/shared/winsock_session.h"

#include <memory>
#include <string>
#include <vector>

namespace {

struct Connection : Operation {
    UniqueSocket socket;
    int number = 0;
    int round = 0;
    std::size_t done = 0;  ///< bytes of the message sent or received so far
    std::string message;
    std::string echo;
};

class LoadRun {
  public:
    LoadRun(const sockaddr_in& server, const EchoLoad& load) : server_(server), load_(load) {}

    EchoOutcome Run(const std::function<void()>& whenConnected);

  private:
    void Connect(Connection* connection);
    void ConnectOverlapped(Connection* connection);
    void StartRound(Connection* connection);
    void Send(Connection* connection);
    void Receive(Connection* connection);
    void Finish(const Completion& completion);
    void FinishConnect(Connection* connection);
    void FinishReceive(Connection* connection, DWORD bytes);
    void Await();
    void Started(Connection* connection, bool succeeded);
    void Fail(Connection* connection, int error);

    const sockaddr_in server_;
    const EchoLoad load_;
    CompletionPort completions_;
    std::vector<std::unique_ptr<Connection>> connections_;
    int outstanding_ = 0;
    EchoOutcome outcome_;
};

EchoOutcome LoadRun::Run(const std::function<void()>& whenConnected) {
    for (int i = 0; i < load_.connections; ++i) {
        connections_.push_back(std::make_unique<Connection>());
        connections_.back()->number = i;
        Connect(connections_.back().get());
    }
    Await();
    whenConnected();
    const DWORD begin = GetTickCount();
    for (const auto& connection : connections_) {
        if (connection->socket.IsOpen()) StartRound(connection.get());
    }
    Await();
    outcome_.elapsedMilliseconds = GetTickCount() - begin;
    for (const auto& connection : connections_) {
        if (connection->socket.IsOpen()) shutdown(connection->socket.Get(), SD_SEND);
        connection->socket.Close();
    }
    return outcome_;
}

/// Takes packets until none is outstanding. When nothing comes in time every unfinished connection is
/// closed, which ends what is outstanding, since the records must outlive their operations.
void LoadRun::Await() {
    while (outstanding_ > 0) {
        const Completion completion = completions_.Wait(load_.timeoutMilliseconds);
        if (completion.operation) {
            --outstanding_;
            Finish(completion);
            continue;
        }
        for (const auto& connection : connections_) {
            if (connection->round < load_.rounds) Fail(connection.get(), WSAETIMEDOUT);
        }
    }
}

void LoadRun::Connect(Connection* connection) {
    connection->socket =
        UniqueSocket(WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    const SOCKET socket = connection->socket.Get();
    const bool ready = connection->socket.IsOpen() && completions_.Associate(socket);
    if (ready && load_.connectEx) {
        ConnectOverlapped(connection);
    } else if (ready && connect(socket, reinterpret_cast<const sockaddr*>(&server_), sizeof(server_)) == 0) {
        ++outcome_.connected;
    } else {
        Fail(connection, WSAGetLastError());
    }
}

void LoadRun::ConnectOverlapped(Connection* connection) {
    const SOCKET socket = connection->socket.Get();
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    if (bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == SOCKET_ERROR) {
        Fail(connection, WSAGetLastError());
        return;
    }
    const LPFN_CONNECTEX connectEx = FindConnectEx(socket);
    connection->Prepare(Operation::Kind::Connect);
    Started(connection, connectEx(socket, reinterpret_cast<const sockaddr*>(&server_), sizeof(server_),
                                  nullptr, 0, nullptr, connection) != FALSE);
}

void LoadRun::StartRound(Connection* connection) {
    if (connection->round == load_.rounds) {
        ++outcome_.finished;
        return;
    }
    // Every message differs from its neighbours in time and place, so that a mixed-up echo shows.
    connection->message.resize(load_.messageBytes);
    for (std::size_t i = 0; i < load_.messageBytes; ++i) {
        connection->message[i] =
            static_cast<char>(static_cast<std::size_t>(connection->number * 31 + connection->round * 7) + i);
    }
    connection->echo.assign(load_.messageBytes, '\0');
    connection->done = 0;
    Send(connection);
}

void LoadRun::Send(Connection* connection) {
    connection->Prepare(Operation::Kind::Send);
    WSABUF buffer = {static_cast<ULONG>(load_.messageBytes - connection->done),
                     connection->message.data() + connection->done};
    Started(connection, WSASend(connection->socket.Get(), &buffer, 1, nullptr, 0, connection, nullptr) == 0);
}

void LoadRun::Receive(Connection* connection) {
    connection->Prepare(Operation::Kind::Receive);
    WSABUF buffer = {static_cast<ULONG>(load_.messageBytes - connection->done),
                     connection->echo.data() + connection->done};
    DWORD flags = 0;
    Started(connection,
            WSARecv(connection->socket.Get(), &buffer, 1, nullptr, &flags, connection, nullptr) == 0);
}

void LoadRun::Finish(const Completion& completion) {
    auto* const connection = static_cast<Connection*>(completion.operation);
    if (!connection->socket.IsOpen()) return;
    if (completion.error != 0) {
        Fail(connection, static_cast<int>(completion.error));
        return;
    }
    switch (connection->kind) {
        case Operation::Kind::Connect:
            FinishConnect(connection);
            break;
        case Operation::Kind::Send:
            connection->done += completion.bytes;
            if (connection->done < load_.messageBytes) {
                Send(connection);
            } else {
                connection->done = 0;
                Receive(connection);
            }
            break;
        case Operation::Kind::Receive:
            FinishReceive(connection, completion.bytes);
            break;
        case Operation::Kind::Accept:
            break;
    }
}

void LoadRun::FinishConnect(Connection* connection) {
    if (setsockopt(connection->socket.Get(), SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0) ==
        SOCKET_ERROR) {
        Fail(connection, WSAGetLastError());
    } else {
        ++outcome_.connected;
    }
}

void LoadRun::FinishReceive(Connection* connection, DWORD bytes) {
    if (bytes == 0) {
        Fail(connection, WSAECONNRESET);
        return;
    }
    connection->done += bytes;
    if (connection->done < load_.messageBytes) {
        Receive(connection);
        return;
    }
    ++(connection->echo == connection->message ? outcome_.echoes : outcome_.wrong);
    ++connection->round;
    StartRound(connection);
}

/// Notes an operation's start: a packet will come, or the connection has failed.
void LoadRun::Started(Connection* connection, bool succeeded) {
    int error = 0;
    if (IsStarted(succeeded, &error)) {
        ++outstanding_;
    } else {
        Fail(connection, error);
    }
}

void LoadRun::Fail(Connection* connection, int error) {
    if (outcome_.firstError == 0) outcome_.firstError = error;
    connection->socket.Close();
}

}  // namespace

EchoOutcome RunEchoLoad(const sockaddr_in& server, const EchoLoad& load,
                        const std::function<void()>& whenConnected) {
    return LoadRun(server, load).Run(whenConnected);
}
