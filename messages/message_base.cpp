// See message_base.h.
#include "messages/message_base.h"

#include <winsock2.h>

#include <windows.h>

#include <algorithm>
#include <new>

#include "base/atomic.h"
#include "base/trace.h"
#include "messages/message_limits.h"
#include "messages/text_cut.h"

namespace {

constexpr std::uint32_t kLengthWordSize = 4;
constexpr std::uint32_t kUnknownEnd = 0xFFFFFFFF;

const DWORD ThisProcessId = GetCurrentProcessId();
Atomic<std::uint32_t> MessageCounter{0};

std::uint32_t NextMessageId() {
    const std::uint32_t count = MessageCounter.FetchAdd(1) + 1;
    return (static_cast<std::uint32_t>(ThisProcessId) << 16) | (count & 0xFFFF);
}

/// Runs the body of a public operation; an exception becomes one traced line, `failure` with its reason, and
/// false.
template <typename Body>
bool Attempt(const char* failure, Body body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        Trace("%s Error=%s", failure, error.what());
    } catch (...) {
        Trace("%s Unknown error.", failure);
    }
    return false;
}

}  // namespace

MessageBase::MessageBase()
    : HeaderSize(kFrameHeaderSize),
      FreeFunction(nullptr),
      AllocFunction(nullptr),
      MessageId(0),
      header_{0, nullptr},
      DataLength(-1),
      frameEnd_(kUnknownEnd) {
    // A constructor that throws runs no destructor of its own class.
    try {
        ResetHeader();
    } catch (...) {
        MessageBase::ReleaseBuffers();
        throw;
    }
}

MessageBase::~MessageBase() {
    MessageBase::ReleaseBuffers();
}

void MessageBase::ResetHeader() {
    MessageId = NextMessageId();
    if (HeaderSize > 0) {
        header_ = MessageBase::AllocateBuffer(HeaderSize);
        chain_.AddBuffer(header_);
        chain_.SetPosition(0);
    }
    ForgetFrame();
}

void MessageBase::ForgetFrame() {
    DataLength = -1;
    frameEnd_ = kUnknownEnd;
}

std::uint32_t MessageBase::ReadableEnd() const {
    return std::min(frameEnd_, chain_.GetTotalLength());
}

bool MessageBase::Serialize() {
    return Attempt("Failed to serialize an LSP messsage.", [this] {
        const std::uint32_t fieldsOffset = chain_.GetTotalLength();
        std::vector<BufferPiece>& fieldBuffers = GetFieldBuffers();
        for (const BufferPiece& piece : fieldBuffers)
            chain_.AddBuffer(piece);
        fieldBuffers.clear();
        chain_.SetPosition(fieldsOffset);
        WriteFields();
        chain_.SetPosition(0);
        WriteUInt32(chain_.GetTotalLength());
        WriteUInt32(fieldsOffset);
        return true;
    });
}

bool MessageBase::Deserialize() {
    ForgetFrame();
    return Attempt("Failed to deserialize an LSP messsage.", [this] {
        switch (GetFrameState()) {
            case FrameState::kUnreadable:
                throw MessageError("Invalid received buffer. No frame has the length that it announces");
            case FrameState::kIncomplete:
                throw MessageError(
                    "Invalid received buffer. Received length is smaller then expected length");
            case FrameState::kWhole:
                break;
        }
        chain_.SetPosition(0);
        std::uint32_t total = 0;
        std::uint32_t fieldsOffset = 0;
        ReadUInt32(total);
        ReadUInt32(fieldsOffset);
        if (fieldsOffset > total) {
            throw MessageError(
                "Invalid received buffer. Received length is smaller then expected data length");
        }
        frameEnd_ = total;
        chain_.SetPosition(fieldsOffset);
        ReadFields();
        DataLength = static_cast<std::int32_t>(fieldsOffset) - static_cast<std::int32_t>(kFrameHeaderSize);
        return true;
    });
}

FrameState MessageBase::GetFrameState() {
    if (GetTotalLength() < kLengthWordSize) return FrameState::kIncomplete;
    const std::uint32_t announced = GetExpectedLength();
    if (!IsReadableFrameLength(announced)) return FrameState::kUnreadable;
    return announced > GetTotalLength() ? FrameState::kIncomplete : FrameState::kWhole;
}

std::int32_t MessageBase::GetExcessLength() {
    return static_cast<std::int32_t>(GetTotalLength() - GetExpectedLength());
}

std::uint32_t MessageBase::GetTotalLength() {
    return chain_.GetTotalLength();
}

std::uint32_t MessageBase::GetExpectedLength() {
    if (chain_.GetTotalLength() < kLengthWordSize) return kLengthWordSize;
    std::uint32_t expected = 0;
    const bool read = Attempt("Failed to get expected length on an LSP messsage.", [this, &expected] {
        chain_.SetPosition(0);
        ReadUInt32(expected);
        return true;
    });
    return read ? expected : 0;
}

void MessageBase::ReleaseBuffers() {
    ClearBuffers();
    OwnedBuffers.ReleaseAll(FreeFunction);
}

BufferPiece MessageBase::AllocateBuffer(std::uint32_t size) {
    return OwnedBuffers.Allocate(size, AllocFunction);
}

bool MessageBase::ClearBuffers() {
    ForgetFrame();
    chain_.Clear();
    return true;
}

bool MessageBase::GetDataBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy) {
    return Attempt("Failed to get data buffers on an LSP messsage.", [&] {
        // Below 0 in a chain that is shorter than a header, which as a length is more than the chain has.
        const auto available = static_cast<std::int32_t>(ReadableEnd() - header_.length);
        const std::int32_t length = DataLength >= 0 && DataLength <= available ? DataLength : available;
        chain_.GetSubBuffers(header_.length, static_cast<std::uint32_t>(length), outArray, outCount, copy);
        return true;
    });
}

bool MessageBase::GetAllBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy) {
    return Attempt("Failed to get all buffers on an LSP messsage.", [&] {
        chain_.GetAllBuffers(outArray, outCount, copy);
        return true;
    });
}

bool MessageBase::SetTotalLength(std::uint32_t length) {
    ForgetFrame();
    return chain_.Truncate(length);
}

void MessageBase::GetSubBuffers(std::uint32_t start, std::uint32_t length, BufferPiece*& outArray,
                                std::uint32_t& outCount, bool copy, bool detach) {
    outArray = nullptr;
    outCount = 0;
    try {
        chain_.GetSubBuffers(start, length, outArray, outCount, copy);
    } catch (const std::exception& error) {
        Trace("Failed to get sub buffers on an LSP message. startIndex = %d, length = %d, Error=%s",
              static_cast<int>(start), static_cast<int>(length), error.what());
        return;
    } catch (...) {
        Trace("Failed to get sub buffers on an LSP message. startIndex = %d, length = %d, Unknown error",
              static_cast<int>(start), static_cast<int>(length));
        return;
    }
    if (!detach) return;
    for (std::uint32_t index = 0; index < outCount; ++index)
        OwnedBuffers.GiveAwayFrom(outArray[index].data);
}

bool MessageBase::SetBuffers(const BufferPiece* pieces, std::uint32_t count, bool own) {
    const bool set = Attempt("Failed to set buffers on an LSP messsage.", [&] {
        ClearBuffers();
        for (std::uint32_t index = 0; index < count; ++index)
            chain_.AddBuffer(pieces[index]);
        chain_.SetPosition(0);
        if (own) OwnedBuffers.Take(pieces, count);
        return true;
    });
    if (!set) ClearBuffers();
    return set;
}

bool MessageBase::SetDataBuffers(const BufferPiece* pieces, std::uint32_t count, std::uint32_t maxLength,
                                 bool own) {
    if (pieces == nullptr) return true;
    const bool set = Attempt("Failed to set data buffers on an LSP messsage.", [&] {
        ClearBuffers();
        header_ = MessageBase::AllocateBuffer(HeaderSize);
        chain_.AddBuffer(header_);
        std::uint32_t limit = maxLength != 0 ? maxLength : 0xFFFFFFFF;
        for (std::uint32_t index = 0; index < count; ++index) {
            if (limit < pieces[index].length) {
                chain_.AddBuffer({limit, pieces[index].data});
                break;
            }
            chain_.AddBuffer(pieces[index]);
            limit -= pieces[index].length;
        }
        chain_.SetPosition(0);
        if (own) OwnedBuffers.Take(pieces, count);
        return true;
    });
    if (!set) ClearBuffers();
    return set;
}

bool MessageBase::AddDataBuffer(BufferPiece piece, bool own) {
    return Attempt("Failed to add data buffer on an LSP messsage.", [&] {
        ForgetFrame();
        // The record first: it can be taken back when the chain can't grow.
        if (own) OwnedBuffers.Take(&piece, 1);
        try {
            chain_.AddBuffer(piece);
        } catch (...) {
            if (own) OwnedBuffers.GiveAwayLast();
            throw;
        }
        return true;
    });
}

bool MessageBase::AddReceivedBytes(BufferPiece piece) {
    return Attempt("Failed to add data buffer on an LSP messsage.", [&] {
        ForgetFrame();
        chain_.AddContiguous(piece);
        return true;
    });
}

void MessageBase::ReserveBytes(std::uint32_t size) {
    const std::uint32_t room = chain_.GetRemaining();
    if (room < size) chain_.AddBuffer(AllocateBuffer(size - room));
}

void MessageBase::WriteBytes(const void* source, std::uint32_t size) {
    ReserveBytes(size);
    chain_.WriteAt(source, size);
    chain_.Move(size);
}

MessageBase& MessageBase::WriteUInt32(std::uint32_t value) {
    WriteBytes(&value, sizeof(value));
    return *this;
}

MessageBase& MessageBase::WriteString(const std::string& text) {
    if (text.size() > kMaxStringLength) {
        Trace("Writing a big string of length = %d", static_cast<int>(text.size()));
    }
    const std::uint32_t length = StringSize(text) - kLengthWordSize;
    WriteUInt32(length);
    WriteBytes(text.data(), length);
    return *this;
}

std::uint32_t MessageBase::StringSize(const std::string& text) {
    return kLengthWordSize + static_cast<std::uint32_t>(FittingLength(text, kMaxStringLength));
}

void MessageBase::ReadBytes(void* destination, std::uint32_t size) {
    const std::uint32_t end = ReadableEnd();
    const std::uint32_t position = chain_.GetPosition();
    if (position > end || end - position < size) {
        Trace("length = %d, position = %d, size = %d", static_cast<int>(end), static_cast<int>(position),
              static_cast<int>(size));
        throw MessageError("Cannot read from buffer. Not enough data.");
    }
    chain_.ReadAt(destination, size);
    chain_.Move(size);
}

MessageBase& MessageBase::ReadUInt32(std::uint32_t& value) {
    ReadBytes(&value, sizeof(value));
    return *this;
}

MessageBase& MessageBase::ReadString(std::string& text) {
    std::uint32_t length = 0;
    ReadUInt32(length);
    if (length > kMaxStringLength) {
        Trace("String too big when deserializing: length = %d, total = %d", static_cast<int>(length),
              static_cast<int>(chain_.GetTotalLength()));
        throw MessageError("Cannot read from buffer. String too big.");
    }
    char characters[kMaxStringLength + 1];
    ReadBytes(characters, length);
    characters[length] = '\0';
    try {
        text.assign(characters);
    } catch (const std::bad_alloc&) {
        // A text that can't be kept is worth less than the rest of the message.
        text.clear();
    }
    return *this;
}
