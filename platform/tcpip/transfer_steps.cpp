// One system call of a transfer, its error as Windows tells it, and what is left to do.
#include "platform/tcpip/transfer_steps.h"

#include <cerrno>

#include "platform/tcpip/error_table.h"

namespace tcpip {

int SendError(Socket& socket, int error) {
    if (error == EPIPE && socket.sendShut.load()) return WSAESHUTDOWN;
    if (error == EDESTADDRREQ) return WSAENOTCONN;
    socket.NoteReset(error);
    return WinsockErrorFromErrno(error);
}

int ReceiveError(Socket& socket, const kernel::Transfer& transfer, unsigned flags) {
    // Without urgent data the kernel fails at once, where Windows waits for some.
    if (transfer.error == EINVAL && (flags & kernel::kOutOfBand) != 0) return WSAEWOULDBLOCK;
    if (transfer.error == ECONNREFUSED && !socket.IsStream()) return WSAECONNRESET;
    socket.NoteReset(transfer.error);
    if (transfer.error == 0 && transfer.bytes == 0 && socket.connectionReset.load()) return WSAECONNRESET;
    return WinsockErrorFromErrno(transfer.error);
}

kernel::Transfer SendOnce(Socket& socket, const kernel::IoBuffer* buffers, std::size_t count, unsigned flags,
                          const Endpoint* to) {
    kernel::Transfer transfer = kernel::Send(socket.fd(), buffers, count, flags, to);
    if (transfer.error == ECONNREFUSED && !socket.IsStream() && !socket.kernelRules) {
        socket.resetPending.store(true);
        transfer = kernel::Send(socket.fd(), buffers, count, flags, to);
    }
    return transfer;
}

bool NothingReadable(const Socket& socket) {
    kernel::PollEntry entry = {socket.fd(), static_cast<short>(kernel::kReadable), 0};
    int error = 0;
    return kernel::Poll(&entry, 1, 0, &error) == 0;
}

void Advance(std::vector<kernel::IoBuffer>* buffers, std::size_t* first, std::size_t bytes) {
    while (*first < buffers->size() && bytes >= (*buffers)[*first].size) {
        bytes -= (*buffers)[*first].size;
        ++*first;
    }
    if (bytes == 0) return;
    kernel::IoBuffer& piece = (*buffers)[*first];
    piece.data = static_cast<char*>(piece.data) + bytes;
    piece.size -= bytes;
}

}  // namespace tcpip
