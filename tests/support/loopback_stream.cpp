// Streams of the other side, each the owner of one socket.
#include "tests/support/loopback_stream.h"

#include <utility>

#include "tests/support/loopback_socket.h"

LoopbackStream::~LoopbackStream() {
    loopback_socket::Close(descriptor_);
}

LoopbackStream& LoopbackStream::operator=(LoopbackStream&& other) noexcept {
    if (this != &other) {
        loopback_socket::Close(descriptor_);
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

bool LoopbackStream::ReadExactly(void* destination, std::size_t size) {
    auto* next = static_cast<char*>(destination);
    while (size > 0) {
        const std::size_t received = ReadSome(next, size);
        if (received == 0) return false;
        next += received;
        size -= received;
    }
    return true;
}

std::size_t LoopbackStream::ReadSome(void* destination, std::size_t size) {
    return loopback_socket::Receive(descriptor_, destination, size);
}

bool LoopbackStream::WriteAll(const void* source, std::size_t size) {
    const auto* next = static_cast<const char*>(source);
    while (size > 0) {
        const std::size_t sent = loopback_socket::Send(descriptor_, next, size);
        if (sent == 0) return false;
        next += sent;
        size -= sent;
    }
    return true;
}

void LoopbackStream::Interrupt() {
    const std::lock_guard<std::mutex> lock(resetting_);
    loopback_socket::Shutdown(descriptor_);
}

void LoopbackStream::StopReading() {
    const std::lock_guard<std::mutex> lock(resetting_);
    loopback_socket::StopReading(descriptor_);
}

void LoopbackStream::ResetPeer() {
    const std::lock_guard<std::mutex> lock(resetting_);
    descriptor_ = loopback_socket::Reset(descriptor_);
}

LoopbackListener::LoopbackListener(int backlog) : descriptor_(loopback_socket::Bind(port_)) {
    loopback_socket::Listen(descriptor_, backlog);
}

LoopbackListener::~LoopbackListener() {
    loopback_socket::Close(descriptor_);
}

bool LoopbackListener::Accept(LoopbackStream& stream) {
    const int accepted = loopback_socket::Accept(descriptor_);
    if (accepted < 0) return false;
    stream = LoopbackStream(accepted);
    return true;
}

bool LoopbackListener::HasConnection() const {
    return loopback_socket::HasConnection(descriptor_);
}

void LoopbackListener::Interrupt() {
    loopback_socket::InterruptAccept(descriptor_, port_);
}

ClosedPort::ClosedPort() : descriptor_(loopback_socket::Bind(port_)) {}

ClosedPort::~ClosedPort() {
    loopback_socket::Close(descriptor_);
}
