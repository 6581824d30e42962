// TransmitFile and TransmitPackets: pieces of memory and ranges of files, sent in order as one request.
#include <mswsock.h>

#include <memory>
#include <utility>

#include "platform/tcpip/operations.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/piece_source.h"
#include "platform/tcpip/transfer.h"

namespace tcpip {
namespace {

using platform::DiskFile;

constexpr std::uint64_t kMostBytes = 0x7FFFFFFE;
constexpr DWORD kWorkerFlags =
    TF_WRITE_BEHIND | TF_USE_DEFAULT_WORKER | TF_USE_SYSTEM_THREAD | TF_USE_KERNEL_APC;

std::shared_ptr<DiskFile> FileOf(HANDLE handle) {
    return platform::ReferenceHandleAs<DiskFile>(handle, platform::ObjectKind::kFile);
}

/// What a size of 0 means: all that there is.
std::uint64_t WholeIfZero(DWORD size) {
    return size == 0 ? ~std::uint64_t{0} : size;
}

/// Sends all pieces before it returns, whatever the socket's mode is.
int SendPieces(Socket& socket, PieceSource* pieces) {
    for (;;) {
        kernel::IoBuffer piece;
        int error = pieces->Next(&piece);
        if (error != 0 || piece.size == 0) return error;
        error = SendWhole(socket, piece);
        if (error != 0) return error;
    }
}

int CheckTransmission(Socket& socket, const PieceSource& pieces, DWORD flags) {
    if (!socket.IsStream()) return WSAEOPNOTSUPP;
    if ((flags & ~(kWorkerFlags | TF_DISCONNECT | TF_REUSE_SOCKET)) != 0) return WSAEINVAL;
    if ((flags & TF_REUSE_SOCKET) != 0 && (flags & TF_DISCONNECT) == 0) return WSAEINVAL;
    if (pieces.Size() > kMostBytes) return WSAEINVAL;
    return CheckSendState(socket, false);
}

int Transmit(const SocketUse& socket, std::unique_ptr<PieceSource> pieces, OVERLAPPED* overlapped,
             DWORD flags) {
    int error = CheckTransmission(*socket, *pieces, flags);
    if (error != 0) return error;
    if (overlapped == nullptr) {
        error = SendPieces(*socket, pieces.get());
        if (error != 0) return error;
        const std::lock_guard<std::mutex> guard(socket->lock);
        return socket->DisconnectLocked(flags);
    }
    RequestPointer request = MakeRequest(socket.pointer(), {overlapped, nullptr, nullptr}, RequestKind::Send);
    if (request == nullptr) return WSAENOBUFS;
    request->source = std::move(pieces);
    request->disconnectFlags = flags;
    return StartRequest(*socket, kWrite, std::move(request), nullptr, nullptr);
}

int TransmitFileAndBuffers(const SocketUse& socket, HANDLE handle, DWORD size,
                           const TRANSMIT_FILE_BUFFERS* buffers, OVERLAPPED* overlapped, DWORD flags) {
    const std::shared_ptr<DiskFile> file = FileOf(handle);
    if (handle != nullptr && file == nullptr) return WSA_INVALID_HANDLE;
    auto pieces = std::make_unique<PieceSource>();
    if (buffers != nullptr) pieces->AddMemory(buffers->Head, buffers->HeadLength);
    std::uint64_t end = 0;
    if (file != nullptr) {
        const std::uint64_t offset = overlapped == nullptr
                                         ? file->position()
                                         : std::uint64_t{overlapped->OffsetHigh} << 32 | overlapped->Offset;
        end = offset + pieces->AddFile(file, offset, WholeIfZero(size));
    }
    if (buffers != nullptr) pieces->AddMemory(buffers->Tail, buffers->TailLength);
    const int error = Transmit(socket, std::move(pieces), overlapped, flags);
    if (error == 0 && overlapped == nullptr && file != nullptr) file->SetPosition(end);
    return error;
}

int AddElement(const TRANSMIT_PACKETS_ELEMENT& element, PieceSource* pieces) {
    if ((element.dwElFlags & TP_ELEMENT_MEMORY) != 0) {
        pieces->AddMemory(element.pBuffer, element.cLength);
        return 0;
    }
    if ((element.dwElFlags & TP_ELEMENT_FILE) == 0) return WSAEINVAL;
    std::shared_ptr<DiskFile> file = FileOf(element.hFile);
    if (file == nullptr) return WSA_INVALID_HANDLE;
    const LONGLONG offset = element.nFileOffset.QuadPart;
    const std::uint64_t begin = offset == -1 ? file->position() : static_cast<std::uint64_t>(offset);
    pieces->AddFile(std::move(file), begin, WholeIfZero(element.cLength));
    return 0;
}

int TransmitElements(const SocketUse& socket, const TRANSMIT_PACKETS_ELEMENT* elements, DWORD count,
                     OVERLAPPED* overlapped, DWORD flags) {
    if (elements == nullptr && count > 0) return WSAEFAULT;
    auto pieces = std::make_unique<PieceSource>();
    for (DWORD i = 0; i < count; ++i) {
        const int error = AddElement(elements[i], pieces.get());
        if (error != 0) return error;
    }
    return Transmit(socket, std::move(pieces), overlapped, flags);
}

}  // namespace

BOOL WINAPI TcpipTransmitFile(SOCKET s, HANDLE file, DWORD size, DWORD, LPOVERLAPPED overlapped,
                              LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    return RunExtension("lower TransmitFile", WSAENOBUFS, s, [&](const SocketUse& socket) {
        return TransmitFileAndBuffers(socket, file, size, buffers, overlapped, flags);
    });
}

BOOL WINAPI TcpipTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT elements, DWORD count, DWORD,
                                 LPOVERLAPPED overlapped, DWORD flags) {
    return RunExtension("lower TransmitPackets", WSAENOBUFS, s, [&](const SocketUse& socket) {
        return TransmitElements(socket, elements, count, overlapped, flags);
    });
}

}  // namespace tcpip
