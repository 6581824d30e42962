// See relay_connection_table.h. The table is made when the relay is first started, and ended by hand at
// detach, since other threads may still be inside it when the process exits. Without memory for it there are
// no connections.
#include "relay/split/relay_connection_table.h"

#include <algorithm>
#include <exception>
#include <new>
#include <unordered_map>
#include <utility>

#include "base/atomic.h"
#include "provider/contexts/socket_context.h"

namespace {

struct RelayConnectionTable {
    ReaderWriterLock RelayTableLock;
    std::unordered_map<DWORD, std::unique_ptr<RelayConnection>> Connections QX_GUARDED_BY(RelayTableLock);
    bool Closed QX_GUARDED_BY(RelayTableLock) = false;
    /// Leaf.
    OwnedCriticalSection UnpairedLock;
    std::vector<DWORD> Unpaired QX_GUARDED_BY(UnpairedLock);
};

Atomic<RelayConnectionTable*> Table;

WORD RelayIndexCounter QX_GUARDED_BY(RelayIndexLock) = 0;

/// Takes the locks of a connection whose table is held.
void Enter(RelayConnection* connection, DataAccess access) QX_NO_THREAD_SAFETY_ANALYSIS {
    connection->LifeLock.EnterShared();
    if (access == DataAccess::kExclusive) {
        connection->DataLock.EnterExclusive();
    } else {
        connection->DataLock.EnterShared();
    }
}

/// Waits until nobody uses a connection that nobody can find any more.
void AwaitUsers(RelayConnection* connection) {
    const ExclusiveHold life(connection->LifeLock);
    const ExclusiveHold data(connection->DataLock);
}

}  // namespace

void RelayHold::UpgradeDataLock() QX_NO_THREAD_SAFETY_ANALYSIS {
    if (access_ == DataAccess::kExclusive) return;
    connection_->DataLock.LeaveShared();
    connection_->DataLock.EnterExclusive();
    access_ = DataAccess::kExclusive;
}

void RelayHold::DowngradeDataLock() {
    if (access_ == DataAccess::kShared) return;
    connection_->DataLock.Downgrade();
    access_ = DataAccess::kShared;
}

void RelayHold::Release() QX_NO_THREAD_SAFETY_ANALYSIS {
    if (connection_ == nullptr) return;
    if (access_ == DataAccess::kExclusive) {
        connection_->DataLock.LeaveExclusive();
    } else {
        connection_->DataLock.LeaveShared();
    }
    connection_->LifeLock.LeaveShared();
    connection_ = nullptr;
}

RelayHold FindRelayConnection(DWORD relayIndex, DataAccess access) {
    RelayConnectionTable* const made = Table.Acquire();
    if (relayIndex == 0 || made == nullptr) return {nullptr, access};
    RelayConnectionTable& table = *made;
    const SharedHold hold(table.RelayTableLock);
    const auto found = table.Connections.find(relayIndex);
    if (found == table.Connections.end()) return {nullptr, access};
    Enter(found->second.get(), access);
    return {found->second.get(), access};
}

RelayHold FindRelayConnectionOf(const SocketContext& context, DataAccess access) {
    RelayConnectionTable* const made = Table.Acquire();
    if (context.RelayIndex == 0 || made == nullptr) return {nullptr, access};
    RelayConnectionTable& table = *made;
    const SharedHold hold(table.RelayTableLock);
    const auto found = table.Connections.find(context.RelayIndex);
    if (found == table.Connections.end()) return {nullptr, access};
    RelayConnection* const connection = found->second.get();
    Enter(connection, access);
    if (connection->OriginalSocket == context.LayeredSocket) return {connection, access};
    // The index was given out again, long after the connection of this socket had ended.
    const RelayHold another(connection, access);
    return {nullptr, access};
}

DWORD NextRelayIndex(SOCKET spySocket) {
    const Locker lock(RelayIndexLock);
    return (static_cast<DWORD>(spySocket) << 16) ^ RelayIndexCounter++;
}

DWORD InsertRelayConnection(std::unique_ptr<RelayConnection> connection) {
    if (Table.Acquire() == nullptr) return 0;
    RelayConnectionTable& table = *Table.Acquire();
    const ExclusiveHold hold(table.RelayTableLock);
    if (table.Closed) return 0;
    DWORD index = NextRelayIndex(connection->SpySocket);
    while (index == 0 || table.Connections.count(index) != 0)
        index = NextRelayIndex(connection->SpySocket);
    connection->RelayIndex = index;
    try {
        const Locker lock(table.UnpairedLock);
        table.Unpaired.reserve(table.Unpaired.size() + 1);
        table.Connections.emplace(index, std::move(connection));
        table.Unpaired.push_back(index);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return index;
}

void RemoveRelayConnection(DWORD relayIndex) {
    if (Table.Acquire() == nullptr) return;
    ForgetUnpaired(relayIndex);
    RelayConnectionTable& table = *Table.Acquire();
    std::unique_ptr<RelayConnection> removed;
    {
        const ExclusiveHold hold(table.RelayTableLock);
        const auto found = table.Connections.find(relayIndex);
        if (found == table.Connections.end()) return;
        AwaitUsers(found->second.get());
        removed = std::move(found->second);
        table.Connections.erase(found);
    }
}

std::vector<DWORD> UnpairedConnections() {
    if (Table.Acquire() == nullptr) return {};
    RelayConnectionTable& table = *Table.Acquire();
    const Locker lock(table.UnpairedLock);
    return table.Unpaired;
}

DWORD UnpairedCount() {
    if (Table.Acquire() == nullptr) return 0;
    RelayConnectionTable& table = *Table.Acquire();
    const Locker lock(table.UnpairedLock);
    return static_cast<DWORD>(table.Unpaired.size());
}

void ForgetUnpaired(DWORD relayIndex) {
    if (Table.Acquire() == nullptr) return;
    RelayConnectionTable& table = *Table.Acquire();
    const Locker lock(table.UnpairedLock);
    const auto found = std::find(table.Unpaired.begin(), table.Unpaired.end(), relayIndex);
    if (found != table.Unpaired.end()) table.Unpaired.erase(found);
}

OpenTableHold::OpenTableHold() QX_NO_THREAD_SAFETY_ANALYSIS {
    RelayConnectionTable* const table = Table.Acquire();
    if (table == nullptr) return;
    table->RelayTableLock.EnterShared();
    if (table->Closed) {
        table->RelayTableLock.LeaveShared();
    } else {
        lock_ = &table->RelayTableLock;
    }
}

OpenTableHold::~OpenTableHold() QX_NO_THREAD_SAFETY_ANALYSIS {
    if (lock_ != nullptr) lock_->LeaveShared();
}

void CloseRelayTable() {
    if (Table.Acquire() == nullptr) return;
    RelayConnectionTable& table = *Table.Acquire();
    const ExclusiveHold hold(table.RelayTableLock);
    table.Closed = true;
}

void OpenRelayTable() {
    if (RelayConnectionTable* const table = Table.Acquire(); table != nullptr) {
        const ExclusiveHold hold(table->RelayTableLock);
        table->Closed = false;
        return;
    }
    try {
        Table.Publish(new RelayConnectionTable());
    } catch (const std::exception&) {
        // Memory, or what a lock needs of the system.
    }
}

DWORD AnyRelayConnection() {
    if (Table.Acquire() == nullptr) return 0;
    RelayConnectionTable& table = *Table.Acquire();
    const SharedHold hold(table.RelayTableLock);
    return table.Connections.empty() ? 0 : table.Connections.begin()->first;
}

void DestroyRelayTable() {
    delete Table.Exchange(nullptr);
}
