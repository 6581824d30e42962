// Base of every message exchanged with the analyzer: the frame (two length words, data section, fields), the
// typed reads and writes of the fields, and the piece-level operations that carry relayed data without
// copying it.
//
// A message owns the memory in OwnedBuffers and is used by one thread at a time. Operations
// that return a bool catch every exception, trace one line and return false. Constructors, ResetHeader,
// AllocateBuffer and the field reads and writes throw (std::bad_alloc, MessageError); the callers of the
// first catch them. All integers on the wire are little-endian, the order of the machines that run this.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "messages/message_buffer.h"
#include "messages/owned_pieces.h"

/// What a chain begins with.
enum class FrameState {
    kIncomplete,  ///< a frame of which bytes are missing
    kWhole,       ///< a frame; bytes of the next one may lie behind it
    kUnreadable,  ///< a length that no frame has, so nothing behind it can be told apart either
};

class MessageBase {
  public:
    /// Makes the header piece and a fresh MessageId. Throws std::bad_alloc.
    MessageBase();
    MessageBase(const MessageBase&) = delete;
    MessageBase& operator=(const MessageBase&) = delete;

    virtual ~MessageBase();

    /// Appends the prepared field pieces, writes the fields and the two length words. Once per use of the
    /// message.
    virtual bool Serialize();

    /// Checks the frame at the start of the chain, reads its fields and sets DataLength. Bytes after the
    /// frame are not looked at, whatever the frame says of the lengths in it. On false the fields read so far
    /// are set, DataLength is unknown and the chain is unchanged.
    virtual bool Deserialize();

    /// Total length minus expected length: negative while bytes of the frame are missing, 0 with exactly one
    /// frame, positive when bytes of a following frame are there.
    virtual std::int32_t GetExcessLength();

    /// Length of the chain.
    virtual std::uint32_t GetTotalLength();

    /// The frame's TotalLength word; 4 while the chain holds fewer than 4 bytes; 0 on failure.
    virtual std::uint32_t GetExpectedLength();

    /// Clears the chain and releases all owned memory.
    virtual void ReleaseBuffers();

  protected:
    virtual void WriteFields() = 0;
    virtual void ReadFields() = 0;
    /// The pieces prepared for the fields; Serialize appends them to the chain and empties the array.
    virtual std::vector<BufferPiece>& GetFieldBuffers() = 0;

  public:
    /// A zero-filled piece that the message owns; {0, null} for size 0. Throws std::bad_alloc.
    virtual BufferPiece AllocateBuffer(std::uint32_t size);

    /// Whether the frame at the start of the chain can be read. Every reader asks this before it waits for
    /// more bytes or takes the frame; to Deserialize, all but kWhole is malformed.
    FrameState GetFrameState();

    /// New MessageId, new header piece at the start of the chain, DataLength unknown. Throws std::bad_alloc.
    void ResetHeader();

    /// Forgets the pieces of the chain; owned memory is not released.
    bool ClearBuffers();

    /// Pieces covering the data section (everything after the header when DataLength is unknown or makes no
    /// sense). The array, and with `copy` the memory of its pieces, are new[] memory of the caller's.
    bool GetDataBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy);

    /// Every piece of the chain, under the same rules.
    bool GetAllBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy);

    /// Cuts the chain; false when `length` exceeds its total. DataLength becomes unknown.
    bool SetTotalLength(std::uint32_t length);

    /// Pieces covering [start, start + length), under the same rules; null and 0 on failure. With `detach`
    /// the first owned buffer that begins one of them, and every buffer recorded after it, are the caller's
    /// to release.
    void GetSubBuffers(std::uint32_t start, std::uint32_t length, BufferPiece*& outArray,
                       std::uint32_t& outCount, bool copy, bool detach);

    /// The chain becomes exactly these pieces. With `own` the message releases their memory; when false is
    /// returned they stay the caller's and the chain is empty. The same holds for the next one.
    bool SetBuffers(const BufferPiece* pieces, std::uint32_t count, bool own);

    /// The chain becomes a fresh header piece and up to `maxLength` bytes (0: all) of these pieces. Null: no
    /// change.
    bool SetDataBuffers(const BufferPiece* pieces, std::uint32_t count, std::uint32_t maxLength, bool own);

    /// Appends one piece. DataLength becomes unknown. When false is returned nothing was appended and the
    /// memory stays the caller's.
    bool AddDataBuffer(BufferPiece piece, bool own);

    /// As AddDataBuffer for bytes that the message owns already and that may lie right behind the last piece,
    /// which they lengthen then. Pieces of such a chain are not detached: one may cover two owned buffers.
    bool AddReceivedBytes(BufferPiece piece);

    std::uint32_t HeaderSize;
    BufferFreeFunction FreeFunction;
    BufferAllocFunction AllocFunction;
    /// (process id << 16) | (16-bit process-wide counter); answers refer to requests by it.
    std::uint32_t MessageId;

  protected:
    MessageBuffer chain_;
    BufferPiece header_;

  public:
    /// Length of the data section, known from a successful Deserialize to the next change of the chain,
    /// otherwise -1. Below 0 after Deserialize when the frame's FieldsOffset lies inside its header: such a
    /// frame is unreadable to whoever acts on it.
    std::int32_t DataLength;

  protected:
    /// Makes sure that `size` bytes can be written at the position without growing the chain again.
    void ReserveBytes(std::uint32_t size);

    /// Overwrite what the chain holds from the position on, append what doesn't fit, and move the position.
    void WriteBytes(const void* source, std::uint32_t size);
    MessageBase& WriteUInt32(std::uint32_t value);
    /// A text that is too long is cut between two characters.
    MessageBase& WriteString(const std::string& text);
    /// Bytes that WriteString writes, the text's length word included.
    static std::uint32_t StringSize(const std::string& text);

    /// Read at the position and move it. Throw MessageError when fewer bytes of the frame remain or a text is
    /// too long. A text ends at its first zero byte.
    void ReadBytes(void* destination, std::uint32_t size);
    MessageBase& ReadUInt32(std::uint32_t& value);
    MessageBase& ReadString(std::string& text);

  private:
    /// The chain changes: what is known of the frame in it holds no longer.
    void ForgetFrame();
    /// Where reads end: behind the frame while one is known, else behind the chain.
    std::uint32_t ReadableEnd() const;

    OwnedPieces OwnedBuffers;
    std::uint32_t frameEnd_;
};
