// The providers behind the catalog's entries, and Winsock's start and end, which decide when they are loaded.
//
// There is one Provider per catalog entry from the first WSAStartup to the last WSACleanup. It is loaded and
// started at the first need, and cleaned up and unloaded by the last WSACleanup. Starting and stopping run
// under one recursive lock, which a provider's WSPStartup and WSPCleanup are called with; looking up what is
// started takes no lock.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <atomic>

#include "platform/winsock/catalog.h"

namespace winsock_host {

class Provider {
  public:
    explicit Provider(const CatalogEntry& entry) : entry_(entry) {}
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    const WSAPROTOCOL_INFOW& info() const { return entry_.info; }

    /// True when the provider's sockets are handles of the system, which applications get as they are.
    bool MakesSystemHandles() const { return (entry_.info.dwServiceFlags1 & XP1_IFS_HANDLES) != 0; }

    /// The provider's operations; starts it first if need be. Null with the error when it cannot be started
    /// or Winsock is ending.
    const WSPPROC_TABLE* Operations(int* error) noexcept {
        return started_.load(std::memory_order_acquire) ? &table_ : Start(error);
    }

  private:
    friend class Session;

    const WSPPROC_TABLE* Start(int* error) noexcept;
    int LoadAndStart() noexcept;
    void Stop() noexcept;
    void Unload() noexcept;

    const CatalogEntry entry_;
    std::atomic<bool> started_{false};
    // Below: written under the start lock before started_ is set, and read after it was seen set.
    bool starting_ = false;
    HMODULE module_ = nullptr;
    WSPPROC_TABLE table_{};
    WSPDATA data_{};
};

/// True between the first WSAStartup and the end of the last WSACleanup.
bool IsStarted() noexcept;

/// The provider of a catalog entry, started or not; null when there is no such entry or Winsock is not
/// started. Valid within a CallScope.
Provider* ProviderOfEntry(DWORD catalogEntryId) noexcept;

/// Where the session keeps a base provider's parser of accept buffers; null when Winsock is not started.
/// Valid within a CallScope.
std::atomic<void*>* RememberedParser() noexcept;

/// WSAStartup and WSACleanup without their arguments' checks: 0 or the error.
int StartSession() noexcept;
int EndSession() noexcept;

}  // namespace winsock_host
