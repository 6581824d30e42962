// An echo server the way Windows servers are built: AcceptEx with a stock of accepts outstanding, overlapped
// receives and sends, and worker threads on one completion port.
//
// Every record has exactly one operation outstanding and belongs to it: the worker that takes its packet
// starts the next operation or frees the record. `lock_` guards the listener, the set of connections and
// `stopping_`; each connection's own lock keeps its socket open while an operation is started on it, and is
// taken after `lock_`.
#pragma once

#include "apps/echo/completion_port.h"
#include "apps/shared/winsock_session.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <vector>

class EchoServer {
  public:
    /// Starts to listen on 127.0.0.1:`port` (0: a free one) and to serve with `threads` workers. Throws
    /// std::runtime_error.
    EchoServer(unsigned short port, int threads);

    /// Closes every socket and returns when all operations have ended and all workers are gone.
    ~EchoServer();

    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    unsigned short Port() const { return port_; }

    struct Counts {
        std::size_t accepted = 0;
        std::size_t open = 0;
        std::size_t mostOpen = 0;
    };
    Counts GetCounts();

  private:
    struct AcceptRecord;
    struct Connection;

    void Listen(unsigned short port);
    void Work();
    void PostAccept(AcceptRecord* record);
    void FinishAccept(AcceptRecord* record, DWORD error);
    void StartConnection(UniqueSocket socket);
    void FinishReceive(Connection* connection, const Completion& completion);
    void FinishSend(Connection* connection, const Completion& completion);
    void Release(Connection* connection);
    void ReleaseAccept(AcceptRecord* record);

    UniqueSocket listener_;
    unsigned short port_ = 0;
    LPFN_ACCEPTEX acceptEx_ = nullptr;
    CompletionPort completions_;
    std::vector<std::thread> workers_;

    std::mutex lock_;
    std::condition_variable allEnded_;
    bool stopping_ = false;
    std::size_t accepts_ = 0;
    std::unordered_set<Connection*> connections_;
    Counts counts_;
};
