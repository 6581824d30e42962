// See spy_answers.h. A frame's bytes stay where they were received. The rest of a buffer that a frame has not
// filled takes the next receive, so that a frame that comes in small pieces needs no more memory than one
// that comes whole.
#include "relay/split/spy_answers.h"

#include <algorithm>
#include <utility>

#include "base/trace.h"
#include "messages/buffer_arena.h"
#include "messages/message_limits.h"
#include "relay/channel/pending_responses.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_flow.h"
#include "relay/split/relay_requests.h"

namespace {

constexpr std::int32_t kSuspiciousLength = 0x100000;
/// What a receive asks for while answers come faster than they are read. An idle connection waits with less.
constexpr DWORD kBusyReadBytes = 16384;

/// A response that what is received can be put into; empty without memory.
PooledResponse TakeEmptyFrame() {
    PooledResponse frame = TakeResponse();
    if (frame != nullptr) frame->ClearBuffers();
    return frame;
}

/// What has been received of the frame that comes next.
struct ReceivedSoFar {
    PooledResponse Frame;
    unsigned char* End = nullptr;  ///< behind its last byte
    bool FillsBuffer = true;       ///< in the buffer of the receive, whose rest lies behind it
};

/// Takes the bytes behind a frame along as the beginning of the next one: a part of the buffer that becomes a
/// buffer of its own. False without memory.
bool BeginNext(unsigned char* bytes, DWORD count, ReceivedSoFar* next) {
    PooledResponse frame = TakeEmptyFrame();
    if (frame == nullptr || !ArenaMarkAllocated(bytes)) return false;
    if (!frame->AddDataBuffer({count, bytes}, true)) {
        ArenaFree(bytes);
        return false;
    }
    next->Frame = std::move(frame);
    next->End = bytes + count;
    next->FillsBuffer = false;
    return true;
}

/// Sends the data of an answer to a side. False when the connection can't go on.
bool SendToSide(PooledResponse response, const RelaySide& side, RelayHold& connection) {
    if (!IsLive(*connection, side) || response->DataLength == 0) return true;
    PooledPerIOData record = AcquirePerIOData(side.Send, (*connection).*side.Socket, connection->RelayIndex);
    if (record == nullptr || response->DataLength < 0) return false;
    BufferPiece* pieces = nullptr;
    std::uint32_t count = 0;
    if (!response->GetDataBuffers(pieces, count, false)) return false;
    record->MessageBuffers.reset(pieces);
    record->MessageBufferCount = count;
    record->Bytes = static_cast<DWORD>(response->DataLength);
    record->Response = std::move(response);
    const DWORD bytes = record->Bytes;
    ((*connection).*side.PendingBytes).FetchAdd(bytes);
    if (PostRelaySend(std::move(record), *connection)) return true;
    ((*connection).*side.PendingBytes).FetchAdd(0 - bytes);
    return false;
}

/// Acts on a whole frame; false when it is none, or the connection can't go on.
bool HandleResponseRelayData(PooledResponse response, RelayHold& connection) {
    if (!response->Deserialize()) {
        Trace("ERROR:Failed to deserialize the response for relay index %d\n",
              static_cast<int>(connection->RelayIndex));
        return false;
    }
    if (DeliverResponse(response)) return true;
    switch (response->Action) {
        case ActionSendToClient:
            return SendToSide(std::move(response), kClientSide, connection);
        case ActionSendToServer:
            return SendToSide(std::move(response), kServerSide, connection);
        case ActionCloseClient:
            CloseRelaySide(connection, kClientSide, SideEnd::kByAnalyzer);
            RepostRelayReceives(connection);
            return true;
        case ActionCloseServer:
            CloseRelaySide(connection, kServerSide, SideEnd::kByAnalyzer);
            RepostRelayReceives(connection);
            return true;
        default:
            return true;
    }
}

/// Handles the whole frames that `received` begins with; what is left in it is the beginning of the next one,
/// if anything. False when the stream can't be read any further.
bool HandleFrames(ReceivedSoFar* received, RelayHold& connection) {
    while (received->Frame != nullptr && connection->SpySocket != INVALID_SOCKET) {
        LSPAnalyzerMessageResponse& frame = *received->Frame;
        const FrameState state = frame.GetFrameState();
        if (state == FrameState::kUnreadable) return false;
        if (state == FrameState::kIncomplete) return true;
        if (static_cast<std::int32_t>(frame.GetExpectedLength()) > kSuspiciousLength)
            Trace("ERROR:Received a message greater than 1MB!!! Must be an error!");
        ReceivedSoFar next;
        next.FillsBuffer = false;
        const auto excess = static_cast<DWORD>(frame.GetExcessLength());
        if (excess > 0) {
            if (!BeginNext(received->End - excess, excess, &next)) return false;
            frame.SetTotalLength(frame.GetTotalLength() - excess);
        }
        if (!HandleResponseRelayData(std::move(received->Frame), connection)) return false;
        *received = std::move(next);
    }
    return true;
}

/// Bytes to ask for. After a receive that was filled there is more, perhaps several frames.
DWORD NextSize(LSPAnalyzerMessageResponse* current, bool filled) {
    if (filled) return kBusyReadBytes;
    if (current == nullptr) return kMaxReadSize;
    return std::min(static_cast<DWORD>(-current->GetExcessLength()), DWORD{kMaxReadSize});
}

/// The record for the next receive: into the rest of the buffer that `current` has not filled, or a buffer of
/// its own. Empty without memory.
PooledPerIOData NextReceive(const RelayConnection& connection, PooledResponse current, BufferPiece rest,
                            bool filled) {
    PooledPerIOData record = AcquirePerIOData(RelayOpSpyRecv, connection.SpySocket, connection.RelayIndex);
    if (record == nullptr) return nullptr;
    const DWORD wanted = NextSize(current.get(), filled);
    if (current != nullptr && rest.length > 0) {
        record->Buffer = {std::min(wanted, DWORD{rest.length}), rest.data};
        record->BufferSize = rest.length;
        record->BufferIsPartials = true;
    } else if (!AllocateBuffer(record.get(), wanted)) {
        return nullptr;
    }
    record->PartialMessage = std::move(current);
    return record;
}

/// Puts what was received behind what the frame has so far. False without memory.
bool Append(PerIOData* record, DWORD bytes, ReceivedSoFar* received) {
    PooledResponse frame = std::move(record->PartialMessage);
    if (frame == nullptr) frame = TakeEmptyFrame();
    if (frame == nullptr) return false;
    const BufferPiece piece = {bytes, record->Buffer.data};
    const bool added =
        record->BufferIsPartials ? frame->AddReceivedBytes(piece) : frame->AddDataBuffer(piece, true);
    if (!added) {
        // The bytes may lie in the frame's memory.
        record->PartialMessage = std::move(frame);
        return false;
    }
    received->Frame = std::move(frame);
    received->End = piece.data + bytes;
    record->Buffer = {0, nullptr};
    record->BufferIsPartials = false;
    return true;
}

void GiveUp(RelayHold& connection) {
    const int index = static_cast<int>(connection->RelayIndex);
    Trace("ERROR:Failed to handle a message for original socket %d.", index);
    Trace("ERROR:Closing entire relay connection because couldn't process a spy message, %d.", index);
    // Nothing after this can be understood, so the channel goes too.
    CloseEntireRelayConnection(connection, true);
}

}  // namespace

bool PostFirstSpyReceive(RelayHold& connection) {
    connection->SpyReceivePosted = true;
    if (PostRelayReceive(connection->SpySocket, kMaxReadSize, RelayOpSpyRecv, connection->RelayIndex))
        return true;
    connection->SpyReceivePosted = false;
    return false;
}

void OnSpyData(PooledPerIOData record, DWORD bytes, RelayHold& connection) {
    const DWORD room = record->BufferSize - bytes;
    const bool filled = bytes == record->Buffer.length;
    ReceivedSoFar received;
    if (!Append(record.get(), bytes, &received) || !HandleFrames(&received, connection)) {
        GiveUp(connection);
        return;
    }
    if (connection->SpySocket == INVALID_SOCKET) return;
    // The rest of a buffer whose frames have all been handled went with them.
    const BufferPiece rest = {received.FillsBuffer ? room : 0, received.End};
    PooledPerIOData next = NextReceive(*connection, std::move(received.Frame), rest, filled);
    if (next == nullptr) {
        GiveUp(connection);
        return;
    }
    PostSpyReceive(std::move(next), connection);
}

void OnSpyClosed(RelayHold& connection) {
    CloseEntireRelayConnection(connection, true);
}
