// An analyzer inside the test process that does with each request what the test's script says: answers, keeps
// silent, sends garbage, closes, drips. It listens on a loopback port that the kernel chooses and decodes
// requests by their offsets on the wire, not with the library's own message classes. Threads: one that
// accepts and one per connection, on the machine's own sockets, outside Winsock and its counts. The script
// runs on the connection's thread; requests are collected under the analyzer's lock.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/loopback_stream.h"

/// A request as it came over the wire.
struct SeenRequest {
    std::size_t connection = 0;  // from 1, in the order of accepting
    std::uint32_t messageId = 0;
    std::uint32_t processId = 0;
    std::uint16_t localPort = 0;
    std::uint16_t remotePort = 0;
    std::array<std::uint8_t, 128> localAddress{};   // the whole storage
    std::array<std::uint8_t, 124> remoteAddress{};  // from the fifth byte of the storage on
    std::uint32_t socketType = 0;
    std::string userName;
    std::uint32_t protocol = 0;
    std::uint32_t flags = 0;
    std::string windowTitle;
    std::string imageSigner;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    std::uint32_t messageType = 0;
    std::uint32_t operation = 0;
    std::vector<std::uint8_t> data;

    /// "203.0.113.10:80", of an IPv4 destination.
    std::string Destination() const;
};

/// What an answer says. `requestId` is filled by AnalyzerConnection::Answer.
struct ScriptedAnswer {
    std::uint32_t action = 0;
    std::uint32_t flags = 0;
    std::uint32_t exemptProcessId = 0;
    std::uint32_t requestId = 0;
    std::uint32_t messageId = 0x7e57;
    std::string redirectTo;  // "127.0.0.1:8080", or empty for a blank address
    std::vector<std::uint8_t> data;
};

/// The frame of an answer, ready for the wire.
std::vector<std::uint8_t> AnswerFrame(const ScriptedAnswer& answer);

/// One accepted connection, as a script sees it.
class AnalyzerConnection {
  public:
    explicit AnalyzerConnection(LoopbackStream& stream) : stream_(stream) {}

    /// Answers the request that the script was called for.
    void Answer(const SeenRequest& request, ScriptedAnswer answer = {});

    /// Sends bytes as they are; false once the connection has ended.
    bool Send(const std::vector<std::uint8_t>& bytes);

    /// Ends the connection: in order, or with a reset.
    void Close();
    void Reset();

  private:
    LoopbackStream& stream_;
};

class ScriptedAnalyzer {
  public:
    using Script = std::function<void(const SeenRequest&, AnalyzerConnection&)>;

    /// Listens at once. Without a script every request is answered with "allow".
    explicit ScriptedAnalyzer(Script script = {});

    /// Ends every connection and waits for the threads.
    ~ScriptedAnalyzer();

    ScriptedAnalyzer(const ScriptedAnalyzer&) = delete;
    ScriptedAnalyzer& operator=(const ScriptedAnalyzer&) = delete;

    std::uint16_t Port() const { return listener_.Port(); }

    /// From the next request on.
    void SetScript(Script script);

    std::vector<SeenRequest> Requests() const;

    /// Wait until so many requests have come or connections have ended. False after 20 s without.
    bool WaitForRequests(std::size_t count) const;
    bool WaitForEnded(std::size_t count) const;

    std::size_t Accepted() const;

    /// Ends every connection that there is, in order or with a reset, as soon as its script has returned.
    void CloseConnections();
    void ResetConnections();

  private:
    struct Peer {
        LoopbackStream stream;
        std::atomic<bool> endsByReset{false};
        std::thread thread;
    };

    void AcceptConnections();
    void Serve(Peer& peer, std::size_t number);
    bool WaitUntil(const std::function<bool()>& condition) const;

    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    Script script_;                             // under lock_
    std::vector<SeenRequest> requests_;         // under lock_
    std::vector<std::unique_ptr<Peer>> peers_;  // under lock_
    std::size_t ended_ = 0;                     // under lock_
    std::atomic<bool> stopping_{false};
    LoopbackListener listener_;
    std::thread acceptor_;
};
