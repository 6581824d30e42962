// What server and client need of completion ports: the port itself, records that know their operation, and
// the extension functions that only WSAIoctl gives out.
//
// A record is in the system's hands from the moment an operation on it is started (successfully or pending)
// until its packet is taken from the port: it may be neither moved, reused nor freed meanwhile. An operation
// that succeeds at once sends its packet all the same.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <windows.h>

/// One outstanding operation; the derived record holds what belongs to it.
struct Operation : OVERLAPPED {
    enum class Kind { Accept, Connect, Receive, Send };

    Operation() : OVERLAPPED() {}

    /// Makes the record ready for an operation of this kind.
    void Prepare(Kind nextKind) {
        static_cast<OVERLAPPED&>(*this) = OVERLAPPED();
        kind = nextKind;
    }

    Kind kind = Kind::Accept;
};

/// A finished operation. `operation` is null for a wake-up packet and when the wait timed out.
struct Completion {
    Operation* operation = nullptr;
    DWORD bytes = 0;
    DWORD error = 0;  ///< 0, the operation's Windows error, or WAIT_TIMEOUT
};

/// Owner of a completion port. Any number of threads may wait on it.
class CompletionPort {
  public:
    /// Throws std::runtime_error.
    CompletionPort();
    ~CompletionPort();
    CompletionPort(const CompletionPort&) = delete;
    CompletionPort& operator=(const CompletionPort&) = delete;

    /// From now on the socket's overlapped operations report here. False with the error in GetLastError().
    bool Associate(SOCKET socket);

    /// The next packet, or WAIT_TIMEOUT after `milliseconds`.
    Completion Wait(DWORD milliseconds);

    /// Lets one waiting thread return with a null operation and no error.
    void Wake();

  private:
    HANDLE port_;
};

/// True when a call on a record has left a packet to come: it succeeded or is pending. `*error` is 0 then,
/// else the Winsock error of the call.
bool IsStarted(bool succeeded, int* error);

/// The extension functions of the socket's provider. They throw std::runtime_error when it has none.
LPFN_ACCEPTEX FindAcceptEx(SOCKET socket);
LPFN_CONNECTEX FindConnectEx(SOCKET socket);
