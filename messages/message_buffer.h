// A message as a chain of separately allocated pieces, with one position at which it is read and written. The
// chain, or any byte range of it, goes to the socket as a gather list without copying.
//
// The chain records its pieces and never owns their memory: the message that holds it does. One thread at a
// time. Invariant: a valid position has absolutePosition = lengths of the pieces before pieceIndex +
// pieceOffset. Only Truncate can leave the position behind the end; reads, writes and moves then find no
// bytes left.
#pragma once

#include <cstdint>
#include <exception>
#include <vector>

/// One piece, laid out as a WSABUF, so that an array of pieces is an array of WSABUFs.
struct BufferPiece {
    std::uint32_t length;
    unsigned char* data;
};

/// A place in the chain. `pieceIndex` is the piece count at the very end; `pieceOffset` is 0 there.
struct BufferPosition {
    std::uint32_t pieceIndex;
    std::uint32_t pieceOffset;
    std::uint32_t absolutePosition;
};

/// What the message classes throw among themselves; carries a fixed text, so that throwing allocates no
/// string.
class MessageError : public std::exception {
  public:
    explicit MessageError(const char* literalText) : text_(literalText) {}
    const char* what() const noexcept override { return text_; }

  private:
    const char* text_;
};

class MessageBuffer {
  public:
    /// Position of an empty or cleared chain, before SetPosition.
    static constexpr std::uint32_t kInvalidPosition = 0xFFFFFFFF;

    /// No pieces, total length 0, invalid position. Throws std::bad_alloc.
    MessageBuffer();

    /// Appends a piece (empty ones too); the position stays. Throws with nothing changed: std::bad_alloc, or
    /// MessageError when the total would pass 32 bits.
    void AddBuffer(BufferPiece piece);

    /// As AddBuffer, but a piece that begins where the last one ends in memory lengthens that one instead.
    void AddContiguous(BufferPiece piece);

    std::uint32_t GetTotalLength() const { return totalLength_; }

    /// Absolute position, kInvalidPosition when invalid.
    std::uint32_t GetPosition() const { return position_.absolutePosition; }

    /// Bytes between the position and the end; 0 when the position is invalid.
    std::uint32_t GetRemaining() const;

    /// Copies into (out of) the chain at the position, which stays. The result is `length`, or 0 with nothing
    /// copied when fewer bytes remain.
    std::uint32_t WriteAt(const void* source, std::uint32_t length);
    std::uint32_t ReadAt(void* destination, std::uint32_t length) const;

    /// Moves the position forward; false, with the position as it was, when the target lies beyond the end.
    /// On an invalid position only Move(0) succeeds.
    bool Move(std::uint32_t count);

    /// Moves forward as far as Move would, ignoring a failure.
    MessageBuffer& operator+=(std::uint32_t count);

    /// Places the position (the end is a valid place). Throws MessageError "New position too large" and keeps
    /// the position when it lies beyond the end.
    void SetPosition(std::uint32_t absolutePosition);

    /// Shortens the chain; false when `newTotalLength` exceeds the total. Pieces that fall away stay with
    /// their owner; the position stays as it is.
    bool Truncate(std::uint32_t newTotalLength) noexcept;

    /// The pieces that cover exactly [start, start + length), in a new[] array that the caller releases with
    /// delete[]; with `copy` each piece's memory is a new[] array of the caller's too. Throws MessageError
    /// "Length exceeds the available buffer." or std::bad_alloc; nothing is returned or leaked then.
    void GetSubBuffers(std::uint32_t start, std::uint32_t length, BufferPiece*& outArray,
                       std::uint32_t& outCount, bool copy) const;

    /// All pieces, under the same rules.
    void GetAllBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy) const;

    /// Forgets every piece; the position becomes invalid.
    void Clear() noexcept;

  private:
    /// Calls visit(bytes, count) for each stretch of the `length` bytes at the position, all of which are
    /// there.
    template <typename Visit>
    void VisitBytes(std::uint32_t length, Visit visit) const;

    std::vector<BufferPiece> pieces_;
    BufferPosition position_;
    std::uint32_t totalLength_;
};
