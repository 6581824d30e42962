// A copy of the whole Winsock catalog, read for a short look and given back.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

class ProtocolList {
  public:
    /// Reads the catalog into memory of `heap`. On failure the list converts to false and `*error` is
    /// WSAENOBUFS (no memory) or the catalog's own error.
    ProtocolList(HANDLE heap, LPINT error);
    ~ProtocolList();
    ProtocolList(const ProtocolList&) = delete;
    ProtocolList& operator=(const ProtocolList&) = delete;

    explicit operator bool() const { return entries_ != nullptr; }
    LONG Count() const { return count_; }
    const WSAPROTOCOL_INFOW& operator[](LONG index) const { return entries_[index]; }

    /// The entry with this catalog id, or null.
    const WSAPROTOCOL_INFOW* FindById(DWORD id) const;

  private:
    HANDLE heap_;
    WSAPROTOCOL_INFOW* entries_ = nullptr;
    LONG count_ = 0;
};
