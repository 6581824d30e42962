// The echo server's operations, one function per packet kind; see the header for ownership and locks.
#include "apps/echo/echo_server.h"

#include "apps/shared/endpoint.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

constexpr std::size_t kOutstandingAccepts = 32;
constexpr DWORD kAcceptAddressBytes = sizeof(sockaddr_in) + 16;
constexpr std::size_t kBufferBytes = 4096;

}  // namespace

struct EchoServer::AcceptRecord : Operation {
    UniqueSocket socket;
    char addresses[2 * kAcceptAddressBytes] = {};
};

struct EchoServer::Connection : Operation {
    explicit Connection(UniqueSocket accepted) : socket(std::move(accepted)) {}

    /// Starts a receive into the whole buffer; false when no packet will come.
    bool StartReceive() {
        const std::lock_guard<std::mutex> hold(lock);
        Prepare(Kind::Receive);
        WSABUF buffer = {kBufferBytes, data};
        DWORD flags = 0;
        int error = 0;
        return IsStarted(WSARecv(socket.Get(), &buffer, 1, nullptr, &flags, this, nullptr) == 0, &error);
    }

    /// Starts a send of what is left of the data; false when no packet will come.
    bool StartSend() {
        const std::lock_guard<std::mutex> hold(lock);
        Prepare(Kind::Send);
        WSABUF buffer = {static_cast<ULONG>(length - sent), data + sent};
        int error = 0;
        return IsStarted(WSASend(socket.Get(), &buffer, 1, nullptr, 0, this, nullptr) == 0, &error);
    }

    /// Ends what is outstanding; later starts fail on the closed socket.
    void Close() {
        const std::lock_guard<std::mutex> hold(lock);
        socket.Close();
    }

    std::mutex lock;
    UniqueSocket socket;
    std::size_t length = 0;
    std::size_t sent = 0;
    char data[kBufferBytes] = {};
};

EchoServer::EchoServer(unsigned short port, int threads) {
    Listen(port);
    for (std::size_t i = 0; i < kOutstandingAccepts; ++i) {
        {
            const std::lock_guard<std::mutex> hold(lock_);
            ++accepts_;
        }
        PostAccept(new AcceptRecord);
    }
    for (int i = 0; i < threads; ++i)
        workers_.emplace_back([this] { Work(); });
}

EchoServer::~EchoServer() {
    {
        std::unique_lock<std::mutex> hold(lock_);
        stopping_ = true;
        listener_.Close();
        for (Connection* connection : connections_)
            connection->Close();
        allEnded_.wait(hold, [this] { return accepts_ == 0 && connections_.empty(); });
    }
    for (std::size_t i = 0; i < workers_.size(); ++i)
        completions_.Wake();
    for (std::thread& worker : workers_)
        worker.join();
}

EchoServer::Counts EchoServer::GetCounts() {
    const std::lock_guard<std::mutex> hold(lock_);
    return counts_;
}

void EchoServer::Listen(unsigned short port) {
    listener_ = UniqueSocket(WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    sockaddr_in address = LoopbackEndpoint(port);
    int length = sizeof(address);
    if (!listener_.IsOpen() ||
        bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == SOCKET_ERROR ||
        listen(listener_.Get(), SOMAXCONN) == SOCKET_ERROR ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &length) == SOCKET_ERROR ||
        !completions_.Associate(listener_.Get())) {
        ThrowLastWinsockError("cannot listen on port " + std::to_string(port));
    }
    port_ = ntohs(address.sin_port);
    acceptEx_ = FindAcceptEx(listener_.Get());
}

void EchoServer::Work() {
    for (;;) {
        const Completion completion = completions_.Wait(INFINITE);
        if (!completion.operation) return;
        switch (completion.operation->kind) {
            case Operation::Kind::Accept:
                FinishAccept(static_cast<AcceptRecord*>(completion.operation), completion.error);
                break;
            case Operation::Kind::Receive:
                FinishReceive(static_cast<Connection*>(completion.operation), completion);
                break;
            case Operation::Kind::Send:
                FinishSend(static_cast<Connection*>(completion.operation), completion);
                break;
            case Operation::Kind::Connect:
                break;
        }
    }
}

/// Starts to accept into a fresh socket; a record whose accept can't be started is released.
void EchoServer::PostAccept(AcceptRecord* record) {
    record->Prepare(Operation::Kind::Accept);
    record->socket =
        UniqueSocket(WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    int error = 0;
    {
        const std::lock_guard<std::mutex> hold(lock_);
        if (!stopping_) {
            DWORD received = 0;
            const bool succeeded =
                acceptEx_(listener_.Get(), record->socket.Get(), record->addresses, 0, kAcceptAddressBytes,
                          kAcceptAddressBytes, &received, record) != FALSE;
            if (IsStarted(succeeded, &error)) return;
        }
    }
    if (error != 0) std::fprintf(stderr, "qxecho: cannot accept: %s\n", DescribeWinsockError(error).c_str());
    ReleaseAccept(record);
}

void EchoServer::FinishAccept(AcceptRecord* record, DWORD error) {
    UniqueSocket accepted = std::move(record->socket);
    bool usable = error == 0;
    if (usable) {
        const std::lock_guard<std::mutex> hold(lock_);
        const SOCKET listener = listener_.Get();
        usable = setsockopt(accepted.Get(), SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT,
                            reinterpret_cast<const char*>(&listener), sizeof(listener)) == 0;
    }
    if (usable) StartConnection(std::move(accepted));
    PostAccept(record);
}

void EchoServer::StartConnection(UniqueSocket socket) {
    if (!completions_.Associate(socket.Get())) return;
    auto connection = std::make_unique<Connection>(std::move(socket));
    {
        const std::lock_guard<std::mutex> hold(lock_);
        if (stopping_) return;
        connections_.insert(connection.get());
        ++counts_.accepted;
        counts_.open = connections_.size();
        counts_.mostOpen = std::max(counts_.mostOpen, counts_.open);
    }
    Connection* const started = connection.release();
    if (!started->StartReceive()) Release(started);
}

void EchoServer::FinishReceive(Connection* connection, const Completion& completion) {
    connection->length = completion.bytes;
    connection->sent = 0;
    const bool goesOn = completion.error == 0 && completion.bytes > 0;
    if (!goesOn || !connection->StartSend()) Release(connection);
}

void EchoServer::FinishSend(Connection* connection, const Completion& completion) {
    connection->sent += completion.bytes;
    bool goesOn = completion.error == 0;
    if (goesOn)
        goesOn = connection->sent < connection->length ? connection->StartSend() : connection->StartReceive();
    if (!goesOn) Release(connection);
}

/// Frees a connection that has nothing outstanding.
void EchoServer::Release(Connection* connection) {
    {
        const std::lock_guard<std::mutex> hold(lock_);
        connections_.erase(connection);
        counts_.open = connections_.size();
        if (connections_.empty()) allEnded_.notify_all();
    }
    delete connection;
}

void EchoServer::ReleaseAccept(AcceptRecord* record) {
    delete record;
    const std::lock_guard<std::mutex> hold(lock_);
    --accepts_;
    if (accepts_ == 0) allEnded_.notify_all();
}
