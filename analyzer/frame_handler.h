// What the server asks for every frame that has arrived. The server knows nothing of messages, the handlers
// nothing of sockets. All run on the server's one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// What is to happen on the connection that a frame came from.
struct Reply {
    enum class Kind {
        kNone,   ///< nothing is sent
        kSend,   ///< the bytes that were appended
        kClose,  ///< the connection is closed
    };

    Kind kind = Kind::kNone;
    /// With kSend: how long the bytes are held back.
    std::uint32_t delayMilliseconds = 0;
    /// When OnTime is to be called, if it isn't to be called sooner already. 0: there is no need.
    std::uint32_t callMilliseconds = 0;
};

/// The other end of one connection's talk; it ends with the connection.
class FrameHandler {
  public:
    virtual ~FrameHandler() = default;

    /// A whole frame, its length words included. Bytes to send are appended to `out`.
    virtual Reply OnFrame(const unsigned char* frame, std::size_t length,
                          std::vector<unsigned char>& out) = 0;

    /// The time that a reply named has come.
    virtual Reply OnTime(std::vector<unsigned char>& out) = 0;

    /// The process that the last frame came from, as it says itself.
    virtual std::uint32_t ProcessId() const = 0;
};

class FrameHandlers {
  public:
    virtual ~FrameHandlers() = default;

    /// The handler of a new connection, which must not outlive this.
    virtual std::unique_ptr<FrameHandler> OnConnection() = 0;
};

/// Length words of a frame as they stand on the wire. False when a frame may not announce this length.
bool ReadFrameLength(const unsigned char* start, std::size_t& length);
