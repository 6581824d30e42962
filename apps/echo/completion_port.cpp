// Completion ports for the echo programs; see the header.
#include "apps/echo/completion_port.h"

#include "apps/shared/winsock_session.h"

#include <stdexcept>
#include <string>

namespace {

template <typename Function>
Function FindExtension(SOCKET socket, GUID id, const char* name) {
    Function function = nullptr;
    DWORD bytes = 0;
    if (WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function, sizeof(function),
                 &bytes, nullptr, nullptr) == SOCKET_ERROR) {
        ThrowLastWinsockError(std::string("the provider has no ") + name);
    }
    return function;
}

}  // namespace

CompletionPort::CompletionPort() : port_(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)) {
    if (!port_)
        throw std::runtime_error("cannot create a completion port: " + std::to_string(GetLastError()));
}

CompletionPort::~CompletionPort() {
    CloseHandle(port_);
}

bool CompletionPort::Associate(SOCKET socket) {
    return CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket), port_, 0, 0) != nullptr;
}

Completion CompletionPort::Wait(DWORD milliseconds) {
    Completion completion;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    if (!GetQueuedCompletionStatus(port_, &completion.bytes, &key, &overlapped, milliseconds)) {
        completion.error = GetLastError();
    }
    completion.operation = static_cast<Operation*>(overlapped);
    return completion;
}

void CompletionPort::Wake() {
    PostQueuedCompletionStatus(port_, 0, 0, nullptr);
}

bool IsStarted(bool succeeded, int* error) {
    *error = succeeded ? 0 : WSAGetLastError();
    if (*error == WSA_IO_PENDING) *error = 0;
    return *error == 0;
}

LPFN_ACCEPTEX FindAcceptEx(SOCKET socket) {
    return FindExtension<LPFN_ACCEPTEX>(socket, WSAID_ACCEPTEX, "AcceptEx");
}

LPFN_CONNECTEX FindConnectEx(SOCKET socket) {
    return FindExtension<LPFN_CONNECTEX>(socket, WSAID_CONNECTEX, "ConnectEx");
}
