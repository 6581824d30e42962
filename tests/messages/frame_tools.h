// Frames as flat bytes, for tests that look at or damage what is on the wire.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "messages/analyzer_messages.h"

using Bytes = std::vector<unsigned char>;

/// An array that GetAllBuffers and its kin handed out.
struct PieceArray {
    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;

    PieceArray() = default;
    PieceArray(const PieceArray&) = delete;
    PieceArray& operator=(const PieceArray&) = delete;
    ~PieceArray() { delete[] pieces; }

    Bytes Flat() const {
        Bytes flat;
        for (std::uint32_t index = 0; index < count; ++index) {
            flat.insert(flat.end(), pieces[index].data, pieces[index].data + pieces[index].length);
        }
        return flat;
    }
};

/// The whole chain.
inline Bytes ChainOf(MessageBase& message) {
    PieceArray all;
    return message.GetAllBuffers(all.pieces, all.count, false) ? all.Flat() : Bytes();
}

/// The frame of a message that was not serialised yet.
inline Bytes FrameOf(MessageBase& message) {
    return message.Serialize() ? ChainOf(message) : Bytes();
}

/// An answer that blocks, with `dataLength` bytes of data.
inline Bytes ResponseFrame(std::uint32_t requestId, std::uint32_t dataLength = 0) {
    LSPAnalyzerMessageResponse response;
    Bytes data(dataLength, 'd');
    const BufferPiece piece{dataLength, data.data()};
    response.SetDataBuffers(&piece, 1, 0, false);
    response.RequestId = requestId;
    response.Action = ActionBlock;
    return FrameOf(response);
}

/// Makes the chain of `message` point into `frame`, in pieces of `pieceSize` bytes; `frame` must outlive its
/// use.
inline void Feed(MessageBase& message, Bytes& frame, std::size_t pieceSize = 0xFFFFFFFF) {
    message.ClearBuffers();
    for (std::size_t begin = 0; begin < frame.size(); begin += pieceSize) {
        const std::size_t length = std::min(pieceSize, frame.size() - begin);
        message.AddDataBuffer({static_cast<std::uint32_t>(length), frame.data() + begin}, false);
        if (length < pieceSize) break;
    }
}

inline std::uint32_t WordAt(const Bytes& frame, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, frame.data() + offset, sizeof(word));
    return word;
}

inline void SetWord(Bytes& frame, std::size_t offset, std::uint32_t word) {
    std::memcpy(frame.data() + offset, &word, sizeof(word));
}
