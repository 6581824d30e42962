// The way to the analyzer: the spy socket of each inspected socket, the destinations that are never asked
// about, what happens when the analyzer can't be reached, and the wait for an answer. Threads: application
// threads for contexts that they hold a reference to; the relay worker delivers answers. Nothing here holds a
// lock while it waits for the analyzer: `PendingResponseLock` is a leaf lock, held for a look at a table
// only.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"
#include "messages/message_pool.h"

struct SocketContext;

/// Time that the connect of a spy socket may take, in microseconds. Falls to a tenth of a second after an
/// attempt timed out, so that a stuck analyzer doesn't cost every connect of the process a second, and is
/// back at a second after an attempt that succeeded through the wait.
extern Atomic<DWORD> SpyConnectTimeout;
constexpr DWORD kSpyConnectTimeout = 1000000;
constexpr DWORD kSpyConnectTimeoutAfterFailure = 100000;

/// How long an answer that the relay worker reads is waited for, in milliseconds.
constexpr DWORD kResponseWaitMilliseconds = 60000;

/// Opens a spy socket, connects it to the analyzer and stores it in the context; one that the context already
/// holds is closed first. False, with INVALID_SOCKET stored and the failure traced, when that can't be done.
/// The socket is blocking, with sends and receives limited to 10 s, and exempt from interception.
bool ConnectSpySocket(SocketContext* context);

/// Closes the context's spy socket, if it holds one, and stores INVALID_SOCKET.
void CloseSpySocket(SocketContext* context);

/// The number at the start of the n-th (from 0) field of a text whose fields are divided by dots, cut to
/// eight bits: 4 for "4:80", 0 for a field without digits. Callers compare it as an unsigned byte.
signed char AddressOctet(const char* text, int n);

/// Whether the destination is loopback, private, broadcast or multicast, or the context's socket is neither
/// stream nor datagram: then nothing is asked and the flags ReportTraffic, InspectData, CountTraffic and
/// AnalyzerServes of the context are cleared. Every address that isn't AF_INET counts as local.
bool IsLocalDestination(SocketContext* context, const SOCKADDR_STORAGE& destination);

/// The same for the destination that the context holds.
bool IsLocalDestination(SocketContext* context);

/// Makes the channel ready for a request about `name`, or the context's destination when it is null. True
/// when the caller may go on: channel ready, or nothing to be asked. False when the analyzer could not be
/// reached; the fail-connect policy has been applied.
bool PrepareAnalyzerChannel(SocketContext* context, const sockaddr* name, int namelen);

/// Sets the context's `Blocked`, and returns true, when the machine is configured to refuse connections that
/// can't be asked about. The setting is read from the registry at most every 600 s.
bool ApplyFailConnectPolicy(SocketContext* context);

/// Registers a waiter for the answer to a request of a relayed context. Returns its event, which
/// WaitForResponse closes, or INVALID_HANDLE_VALUE when the context is null or not relayed, or memory or
/// handles ran out.
HANDLE CreateResponseWait(DWORD messageId, SocketContext* context);

/// Waits for the answer to a request: for the relay worker when `event` is a registered waiter's, otherwise
/// by reading the spy socket directly, for which the caller holds the context's SpyExchange; `abandoned` (may
/// be null) then ends the wait early. Applies what every answer carries: traffic flags, exempt process,
/// counters taken. Null means no answer: the spy socket has been closed.
PooledResponse WaitForResponse(DWORD messageId, SocketContext* context, HANDLE event,
                               const Atomic<bool>* abandoned = nullptr);

/// Wakes everyone who waits for an answer on this spy socket; they find none. Takes `PendingResponseLock`,
/// also with a relay record's locks held.
void WakeResponseWaiters(SOCKET spySocket);

/// Hands an answer to the waiter of its request. True: the response has been taken over. False: nobody waits,
/// and it stays the caller's.
bool DeliverResponse(PooledResponse& response);

/// Releases every registered waiter's event and every answer that nobody fetched. For the last clean-up and
/// the detach, when no application thread waits any more.
void ClearPendingResponses();
