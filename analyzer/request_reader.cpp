// See request_reader.h.
#include "analyzer/request_reader.h"

#include <cstring>

#include "analyzer/frame_handler.h"
#include "messages/message_limits.h"

namespace {

/// Where the address begins within a socket address.
constexpr std::size_t kAddressOffset = 4;

std::uint32_t AddressIn(const sockaddr_storage& storage) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&storage) + kAddressOffset;
    return (std::uint32_t(bytes[0]) << 24) | (std::uint32_t(bytes[1]) << 16) |
           (std::uint32_t(bytes[2]) << 8) | bytes[3];
}

}  // namespace

bool ReadFrameLength(const unsigned char* start, std::size_t& length) {
    std::uint32_t announced = 0;
    std::memcpy(&announced, start, sizeof(announced));
    length = announced;
    return announced >= kFrameHeaderSize && IsReadableFrameLength(announced);
}

bool RequestReader::Read(const unsigned char* frame, std::size_t length) {
    // Read in place; the message doesn't write to a chain that it deserialises.
    const BufferPiece piece{static_cast<std::uint32_t>(length), const_cast<unsigned char*>(frame)};
    if (!message_.SetBuffers(&piece, 1, false) || !message_.Deserialize()) return false;
    data_ = frame + kFrameHeaderSize;
    return message_.DataLength >= 0;
}

void RequestReader::Fill(Request& request) const {
    request.messageId = message_.MessageId;
    request.operation = message_.Operation;
    request.processId = message_.ProcessId;
    request.user = message_.UserName;
    request.window = message_.WindowTitle;
    request.signer = message_.ImageSigner;
    request.local = {AddressIn(message_.LocalAddress), message_.LocalPort};
    request.destination = {AddressIn(message_.RemoteAddress), message_.RemotePort};
    request.socketType = message_.SocketType;
    request.protocol = message_.Protocol;
    request.flags = message_.Flags;
    request.bytesSent = message_.BytesSent;
    request.bytesReceived = message_.BytesReceived;
    request.dataLength = static_cast<std::uint32_t>(message_.DataLength);
}
