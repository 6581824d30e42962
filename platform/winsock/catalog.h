// The Winsock catalog: which protocols exist, which provider library serves each of them, and in which order
// they are considered. Three kinds of entry: base (chain length 1), the hidden entry that names a layer
// (chain length 0), and layered chains (length 2 and more), whose first element is the layer's hidden entry.
//
// A Catalog is a plain value. The process's current catalog is replaced as a whole when Winsock is started
// for the first time or anew; the functions below take no lock of the host but a leaf.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <memory>
#include <string>
#include <vector>

namespace winsock_host {

using WideString = std::basic_string<WCHAR>;

struct CatalogEntry {
    WSAPROTOCOL_INFOW info{};
    WideString path;  // the provider's library, as registered: %VARIABLES% are not expanded
};

struct Catalog {
    std::vector<CatalogEntry> entries;

    const CatalogEntry* FindById(DWORD id) const;
    const CatalogEntry* FindByProvider(const GUID& provider) const;

    /// The first entry that makes sockets of the family; null when there is none.
    const CatalogEntry* FindByFamily(int family) const;

    /// The first entry that serves the three arguments of socket(), or null with the error that socket()
    /// fails with.
    const CatalogEntry* FindBySocketKind(int family, int type, int protocol, int* error) const;
};

constexpr GUID kBaseProviderId = {
    0xe70f1aa0, 0xab8b, 0x11cf, {0x8c, 0xa3, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92}};
constexpr GUID kLayerProviderId = {
    0x5d0b7a3e, 0x91c4, 0x4f62, {0xa7, 0xd8, 0x3e, 0x6c, 0x2b, 0x90, 0xf4, 0x15}};

constexpr DWORD kTcpEntry = 1001;
constexpr DWORD kUdpEntry = 1002;
constexpr DWORD kRawEntry = 1003;
constexpr DWORD kTcp6Entry = 1004;
constexpr DWORD kUdp6Entry = 1005;
constexpr DWORD kLayerEntry = 1010;
constexpr DWORD kFirstChainEntry = 1011;

/// The five base entries (TCP, UDP and raw sockets of IPv4, TCP and UDP of IPv6), all served by the library
/// at `path`. The base provider of the stand-in refuses raw sockets.
Catalog MakeBaseCatalog(const WideString& path);

/// Puts a layer in front: its hidden entry, and a chain over every base entry, ahead of the base entries so
/// that sockets go through the layer.
void AddLayer(Catalog& catalog, const WideString& path);

/// The catalog of this process, made at first use and kept until it is dropped.
std::shared_ptr<const Catalog> CurrentCatalog();

/// The next CurrentCatalog makes it anew; for the start of Winsock.
void DropCatalog();

/// `catalog` is what Winsock finds from its next start on.
void SetCatalogForTest(Catalog catalog);

/// Back to the configured catalog, in the same way.
void ResetCatalogForTest();

/// The catalog that the target's settings describe. Defined per target.
Catalog LoadConfiguredCatalog();

/// Zero-terminated narrow text in the ANSI code page as wide text, and back; characters that don't convert
/// are replaced.
WideString Widen(const std::string& text);
std::string Narrow(const WCHAR* text);

/// The same entry with its name in the ANSI code page, and back.
WSAPROTOCOL_INFOA ToAnsi(const WSAPROTOCOL_INFOW& wide);
WSAPROTOCOL_INFOW ToWide(const WSAPROTOCOL_INFOA& ansi);

}  // namespace winsock_host
