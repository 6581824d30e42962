// Every limit of the analyzer protocol in one place. What arrives on the wire is checked against these before
// anything is allocated or waited for.
#pragma once

#include <cstdint>

/// The two length words in front of every frame.
constexpr std::uint32_t kFrameHeaderSize = 8;

/// Longest frame that is taken from the wire; one that announces more (or a negative length) is unreadable.
constexpr std::uint32_t kMaxFrameLength = 16u * 1024 * 1024;

/// Longest text of a field, in bytes. Longer ones are cut on sending and refused on receiving.
constexpr std::uint32_t kMaxStringLength = 2048;

/// Most bytes asked for in one read while a frame is received.
constexpr std::uint32_t kMaxReadSize = 4096;

/// One wait for bytes of a frame. Time-outs are counted in such slices.
constexpr long kReceiveSliceSeconds = 3;

/// A direct wait for an answer ends with the first time-out beyond these (5: the sixth, about 18 s of
/// silence) ...
constexpr std::uint32_t kDirectWaitTimeouts = 5;

/// ... and in all after this long, so that an analyzer that sends a byte now and then can't hold an
/// application's thread.
constexpr std::uint32_t kDirectWaitMilliseconds = 60000;

/// A send that goes out in parts may take so long in all.
constexpr std::uint32_t kSendMilliseconds = 10000;

/// Idle messages of each kind that the pool keeps.
constexpr std::uint32_t kPoolLimit = 128;

/// Whether a frame may announce this length. A negative one lies beyond the limit.
constexpr bool IsReadableFrameLength(std::uint32_t announcedLength) {
    return announcedLength >= kFrameHeaderSize && announcedLength <= kMaxFrameLength;
}
