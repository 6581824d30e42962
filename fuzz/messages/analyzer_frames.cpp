// Frames as anyone could send them: read whole as a request or a response, and cut out of a stream that
// arrives in reads of any size. Input: byte 0 bit 0 says request or response, byte 1 the size of a piece, the
// rest is the stream. Pieces of the first pass are separate heap blocks of their exact size, so that a byte
// read beyond one is seen.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "messages/analyzer_messages.h"
#include "messages/buffer_arena.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

/// What every reader of a frame asks of it. True when it could be read.
bool ReadFrame(MessageBase& message) {
    const std::int32_t excess = message.GetExcessLength();
    const bool read = message.Deserialize();
    if (read) Require(excess >= 0 && message.DataLength >= -8);
    BufferPiece* data = nullptr;
    std::uint32_t count = 0;
    if (message.GetDataBuffers(data, count, true)) {
        for (std::uint32_t index = 0; index < count; ++index)
            delete[] data[index].data;
    }
    delete[] data;
    return read;
}

/// A request that was read says the same when it is sent again.
void Resend(const LSPAnalyzerMessage& read) {
    LSPAnalyzerMessage copy;
    copy.UserName = read.UserName;
    copy.WindowTitle = read.WindowTitle;
    copy.ImageSigner = read.ImageSigner;
    copy.Operation = read.Operation;
    Require(copy.Serialize());
    Require(copy.Deserialize());
    Require(copy.UserName == read.UserName && copy.WindowTitle == read.WindowTitle &&
            copy.ImageSigner == read.ImageSigner && copy.Operation == read.Operation);
}

template <typename Message>
void ReadInPieces(const std::uint8_t* stream, std::size_t size, std::size_t pieceSize) {
    std::vector<std::unique_ptr<unsigned char[]>> memory;
    Message message;
    message.ClearBuffers();
    for (std::size_t at = 0; at < size; at += pieceSize) {
        const std::size_t length = std::min(pieceSize, size - at);
        memory.emplace_back(new unsigned char[length]);
        std::memcpy(memory.back().get(), stream + at, length);
        message.AddDataBuffer({static_cast<std::uint32_t>(length), memory.back().get()}, false);
    }
    const bool read = ReadFrame(message);
    if (message.GetFrameState() == FrameState::kWhole) {
        // What lies behind a frame makes no difference to it.
        Require(message.SetTotalLength(message.GetExpectedLength()));
        Require(message.Deserialize() == read);
    }
    if (!read) return;
    if constexpr (std::is_same_v<Message, LSPAnalyzerMessage>) Resend(message);
}

/// As the relay takes answers off its channel: whole reads are appended, and what exceeds a frame goes to the
/// next.
template <typename Message>
void CutStream(const std::uint8_t* stream, std::size_t size, std::size_t readSize) {
    auto message = std::make_unique<Message>(ArenaAlloc, ArenaFree);
    message->ClearBuffers();
    for (std::size_t at = 0; at < size; at += readSize) {
        const std::size_t length = std::min(readSize, size - at);
        unsigned char* memory = ArenaAlloc(static_cast<std::uint32_t>(readSize));
        std::memcpy(memory, stream + at, length);
        Require(message->AddDataBuffer({static_cast<std::uint32_t>(readSize), memory}, true));
        const std::uint32_t received =
            message->GetTotalLength() - static_cast<std::uint32_t>(readSize - length);
        Require(message->SetTotalLength(received));
        for (;;) {
            const FrameState state = message->GetFrameState();
            if (state == FrameState::kUnreadable) return;
            if (state == FrameState::kIncomplete) break;
            const std::int32_t excess = message->GetExcessLength();
            auto next = std::make_unique<Message>(ArenaAlloc, ArenaFree);
            next->ClearBuffers();
            if (excess > 0) {
                BufferPiece* rest = nullptr;
                std::uint32_t count = 0;
                const auto tail = static_cast<std::uint32_t>(excess);
                message->GetSubBuffers(message->GetTotalLength() - tail, tail, rest, count, false, true);
                Require(count != 0);
                ArenaMarkAllocated(rest[0].data);
                Require(next->SetBuffers(rest, count, true));
                delete[] rest;
                Require(message->SetTotalLength(message->GetTotalLength() - tail));
            }
            ReadFrame(*message);
            message = std::move(next);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const bool request = (data[0] & 1) != 0;
    const std::size_t pieceSize = 1 + data[1];
    TheBufferArena().Init(4096);
    if (request) {
        ReadInPieces<LSPAnalyzerMessage>(data + 2, size - 2, pieceSize);
        CutStream<LSPAnalyzerMessage>(data + 2, size - 2, pieceSize);
    } else {
        ReadInPieces<LSPAnalyzerMessageResponse>(data + 2, size - 2, pieceSize);
        CutStream<LSPAnalyzerMessageResponse>(data + 2, size - 2, pieceSize);
    }
    for (const ArenaBlock& block : TheBufferArena().BlocksForTest())
        Require(block.liveStarts.empty());
    DestroyBufferArena();
    return 0;
}
