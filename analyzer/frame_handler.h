// What the server asks for every frame that has arrived. The server knows nothing of messages, the handler
// nothing of sockets. Both run on the server's one thread.
#pragma once

#include <cstddef>
#include <cstdint>
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
    /// The process that the frame comes from, as it says itself.
    std::uint32_t processId = 0;
};

class FrameHandler {
  public:
    virtual ~FrameHandler() = default;

    /// A whole frame, its length words included. Bytes to send are appended to `out`.
    virtual Reply OnFrame(const unsigned char* frame, std::size_t length,
                          std::vector<unsigned char>& out) = 0;
};

/// Length words of a frame as they stand on the wire. False when a frame may not announce this length.
bool ReadFrameLength(const unsigned char* start, std::size_t& length);
