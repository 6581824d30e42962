// All split connections of the process by their relay index, and the ways to reach one.
//
// `RelayTableLock` guards the table, a connection's `LifeLock` its life: whoever uses a connection holds that
// shared, and taking it out of the table waits for all of them. Then comes its `DataLock`. The table's lock
// is taken before a connection's, never with one of those held, and left as soon as they are held.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <memory>
#include <vector>

#include "relay/split/relay_connection.h"

/// How a hold may use the connection's fields.
enum class DataAccess { kShared, kExclusive };

/// A connection in use: its LifeLock shared and its DataLock. Converts to false when there was none.
class RelayHold {
  public:
    RelayHold(RelayConnection* connection, DataAccess access) : connection_(connection), access_(access) {}
    ~RelayHold() { Release(); }
    RelayHold(const RelayHold&) = delete;
    RelayHold& operator=(const RelayHold&) = delete;

    explicit operator bool() const { return connection_ != nullptr; }
    RelayConnection* operator->() const { return connection_; }
    RelayConnection& operator*() const { return *connection_; }

    /// From a shared hold to an exclusive one: another thread may act in between.
    void UpgradeDataLock();
    /// From an exclusive hold to a shared one, with nobody in between.
    void DowngradeDataLock();

    /// Ends the hold before the scope does.
    void Release();

  private:
    RelayConnection* connection_;
    DataAccess access_;
};

/// The connection of an index, held, or none. No hold on any connection may be had.
RelayHold FindRelayConnection(DWORD relayIndex, DataAccess access = DataAccess::kShared);

/// The connection of the application's socket behind a context, held, or none.
RelayHold FindRelayConnectionOf(const SocketContext& context, DataAccess access = DataAccess::kShared);

/// An index for a connection with this spy socket. It may be in use still.
DWORD NextRelayIndex(SOCKET spySocket);

/// Puts a new connection into the table under an index that no other has, among those that wait to be paired.
/// 0 when the relay has been stopped, or without memory: the sockets that it names are the caller's then.
DWORD InsertRelayConnection(std::unique_ptr<RelayConnection> connection);

/// Takes a connection out of the table once nobody uses it, and frees it. Its sockets have been closed. The
/// caller has no hold on any connection.
void RemoveRelayConnection(DWORD relayIndex);

/// The connections whose application's socket has not been accepted yet, oldest first. Throws std::bad_alloc.
std::vector<DWORD> UnpairedConnections();
/// How many they are.
DWORD UnpairedCount();
/// The connection waits for no accept any more.
void ForgetUnpaired(DWORD relayIndex);

/// Keeps the table from being closed for a scope; converts to false when it has been. What is posted
/// meanwhile reaches the worker, which is told to end only afterwards. The caller has no hold on any
/// connection.
class OpenTableHold {
  public:
    OpenTableHold();
    ~OpenTableHold();
    OpenTableHold(const OpenTableHold&) = delete;
    OpenTableHold& operator=(const OpenTableHold&) = delete;

    explicit operator bool() const { return lock_ != nullptr; }

  private:
    ReaderWriterLock* lock_ = nullptr;
};

/// From now on none can be inserted; until OpenRelayTable.
void CloseRelayTable();
void OpenRelayTable();
/// The index of any connection, 0 when there is none.
DWORD AnyRelayConnection();

/// Frees the table at detach, when no other thread is left in it.
void DestroyRelayTable();
