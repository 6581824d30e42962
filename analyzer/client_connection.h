// One client's connection: the frame that it has begun, and the answers that it is to get and when. It knows
// nothing of other clients.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analyzer/frame_handler.h"
#include "analyzer/sockets.h"

using ServerTime = std::chrono::steady_clock::time_point;

class ClientConnection {
  public:
    /// Takes the socket over. `port` is the client's.
    ClientConnection(SocketHandle socket, std::uint16_t port, std::unique_ptr<FrameHandler> handler,
                     ServerTime now)
        : socket_(socket), port_(port), arrived_(now), handler_(std::move(handler)) {}

    /// Reads once, at most as much as `scratch` holds, and hands every whole frame to the handler. False when
    /// the connection is to be closed.
    bool Receive(std::vector<unsigned char>& scratch, ServerTime now);

    /// Sends what is due and can be sent now. False when the connection is to be closed.
    bool Send(ServerTime now);

    /// Why it is to be closed; empty when the client has simply gone.
    const char* EndReason() const { return endReason_; }

    /// "process 4321, port 50123", or "port 50123" while it has asked nothing.
    std::string Name() const;

    SocketHandle Socket() const { return socket_.Get(); }
    ServerTime Arrived() const { return arrived_; }
    /// The process that its last frame named; null before the first.
    const std::optional<std::uint32_t>& Process() const { return process_; }
    bool InputEnded() const { return inputEnded_; }
    /// Bytes of a frame that isn't all there, and since when there are any.
    std::size_t UnfinishedBytes() const { return in_.size(); }
    ServerTime FrameStarted() const { return frameStarted_; }
    /// Bytes of answers, those that are held back included.
    std::size_t UnsentBytes() const { return out_.size() - sent_ + delayedBytes_; }
    bool SendsNow() const { return !out_.empty(); }
    /// When an answer that is held back is due next, or the handler wants to be called.
    std::optional<ServerTime> NextDue() const;

  private:
    bool End(const char* reason);
    bool TakeLargeFrame(const unsigned char* bytes, std::size_t count, ServerTime now);
    bool TakeFrames(const unsigned char* bytes, std::size_t count, std::size_t& taken, ServerTime now);
    void KeepRest(const unsigned char* rest, std::size_t count, bool begins, ServerTime now);
    bool Obey(const Reply& reply, std::size_t begin, ServerTime now);
    void Delay(std::size_t begin, ServerTime due);
    bool CallHandler(ServerTime now);
    void ReleaseDue(ServerTime now);

    const OwnedSocket socket_;
    const std::uint16_t port_;
    const ServerTime arrived_;
    const std::unique_ptr<FrameHandler> handler_;
    const char* endReason_ = "";
    std::optional<std::uint32_t> process_;
    bool inputEnded_ = false;
    std::vector<unsigned char> in_;
    ServerTime frameStarted_;
    /// Bytes to send, of which the first `sent_` are gone.
    std::vector<unsigned char> out_;
    std::size_t sent_ = 0;
    /// Answers that are held back, by when they are due, and their bytes.
    std::multimap<ServerTime, std::vector<unsigned char>> delayed_;
    std::size_t delayedBytes_ = 0;
    /// When the handler wants to be called.
    std::optional<ServerTime> callAt_;
};
