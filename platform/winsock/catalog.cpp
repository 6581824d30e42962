// The present catalog, and the making and searching of catalogs.
#include "platform/winsock/catalog.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>

namespace winsock_host {
namespace {

// Never destroyed: modules that are detached at process exit still ask.
struct CatalogState {
    std::mutex mutex;  // leaf
    std::shared_ptr<const Catalog> current;
    std::optional<Catalog> forTest;
};

CatalogState& State() {
    static CatalogState& state = *new CatalogState;
    return state;
}

Catalog MakeCatalog() {
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        if (State().forTest) return *State().forTest;
    }
    return LoadConfiguredCatalog();
}

constexpr DWORD kStreamServices = XP1_GUARANTEED_DELIVERY | XP1_GUARANTEED_ORDER | XP1_GRACEFUL_CLOSE |
                                  XP1_EXPEDITED_DATA | XP1_IFS_HANDLES;
constexpr DWORD kDatagramServices = XP1_CONNECTIONLESS | XP1_MESSAGE_ORIENTED | XP1_SUPPORT_BROADCAST |
                                    XP1_SUPPORT_MULTIPOINT | XP1_IFS_HANDLES;

struct BaseRow {
    DWORD id;
    int family;
    int type;
    int protocol;
    int protocolMaxOffset;  // further protocol numbers that the entry serves
    DWORD services;
    DWORD flags;
    DWORD messageSize;  // largest message, 0 for a stream
    const char* name;
};

constexpr BaseRow kBaseRows[] = {
    {kTcpEntry, AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, kStreamServices, PFL_MATCHES_PROTOCOL_ZERO, 0,
     "TCP/IP"},
    {kUdpEntry, AF_INET, SOCK_DGRAM, IPPROTO_UDP, 0, kDatagramServices, PFL_MATCHES_PROTOCOL_ZERO, 65467,
     "UDP/IP"},
    {kRawEntry, AF_INET, SOCK_RAW, IPPROTO_IP, 255, kDatagramServices, PFL_MATCHES_PROTOCOL_ZERO | PFL_HIDDEN,
     32768, "RAW/IP"},
    {kTcp6Entry, AF_INET6, SOCK_STREAM, IPPROTO_TCP, 0, kStreamServices, PFL_MATCHES_PROTOCOL_ZERO, 0,
     "TCP/IPv6"},
    {kUdp6Entry, AF_INET6, SOCK_DGRAM, IPPROTO_UDP, 0, kDatagramServices, PFL_MATCHES_PROTOCOL_ZERO, 65467,
     "UDP/IPv6"},
};

void SetName(WSAPROTOCOL_INFOW& info, const WideString& name) {
    const std::size_t length = std::min<std::size_t>(name.size(), WSAPROTOCOL_LEN);
    std::copy_n(name.begin(), length, info.szProtocol);
    info.szProtocol[length] = 0;
}

bool MakesSockets(const WSAPROTOCOL_INFOW& info) {
    return info.ProtocolChain.ChainLen != LAYERED_PROTOCOL;
}

bool ServesProtocol(const WSAPROTOCOL_INFOW& info, int protocol) {
    if (protocol == 0) return (info.dwProviderFlags & PFL_MATCHES_PROTOCOL_ZERO) != 0;
    return protocol >= info.iProtocol && protocol <= info.iProtocol + info.iProtocolMaxOffset;
}

}  // namespace

const CatalogEntry* Catalog::FindById(DWORD id) const {
    for (const CatalogEntry& entry : entries) {
        if (entry.info.dwCatalogEntryId == id) return &entry;
    }
    return nullptr;
}

const CatalogEntry* Catalog::FindByProvider(const GUID& provider) const {
    for (const CatalogEntry& entry : entries) {
        if (std::memcmp(&entry.info.ProviderId, &provider, sizeof(provider)) == 0) return &entry;
    }
    return nullptr;
}

const CatalogEntry* Catalog::FindByFamily(int family) const {
    for (const CatalogEntry& entry : entries) {
        if (MakesSockets(entry.info) && entry.info.iAddressFamily == family) return &entry;
    }
    return nullptr;
}

const CatalogEntry* Catalog::FindBySocketKind(int family, int type, int protocol, int* error) const {
    if (family == AF_UNSPEC && type == 0 && protocol == 0) {
        *error = WSAEINVAL;
        return nullptr;
    }
    // The error names the first argument that no entry could satisfy together with those before it.
    *error = WSAEAFNOSUPPORT;
    for (const CatalogEntry& entry : entries) {
        const WSAPROTOCOL_INFOW& info = entry.info;
        if (!MakesSockets(info) || (family != AF_UNSPEC && family != info.iAddressFamily)) continue;
        if (*error == WSAEAFNOSUPPORT) *error = WSAESOCKTNOSUPPORT;
        if (type != 0 && type != info.iSocketType) continue;
        *error = WSAEPROTONOSUPPORT;
        if (ServesProtocol(info, protocol)) return &entry;
    }
    return nullptr;
}

Catalog MakeBaseCatalog(const WideString& path) {
    Catalog catalog;
    for (const BaseRow& row : kBaseRows) {
        CatalogEntry entry;
        WSAPROTOCOL_INFOW& info = entry.info;
        info.dwServiceFlags1 = row.services;
        info.dwProviderFlags = row.flags;
        info.ProviderId = kBaseProviderId;
        info.dwCatalogEntryId = row.id;
        info.ProtocolChain.ChainLen = BASE_PROTOCOL;
        info.iVersion = 2;
        info.iAddressFamily = row.family;
        info.iMaxSockAddr = row.family == AF_INET6 ? 28 : 16;
        info.iMinSockAddr = info.iMaxSockAddr;
        info.iSocketType = row.type;
        info.iProtocol = row.protocol;
        info.iProtocolMaxOffset = row.protocolMaxOffset;
        info.iNetworkByteOrder = BIGENDIAN;
        info.iSecurityScheme = SECURITY_PROTOCOL_NONE;
        info.dwMessageSize = row.messageSize;
        SetName(info, Widen(row.name));
        entry.path = path;
        catalog.entries.push_back(std::move(entry));
    }
    return catalog;
}

void AddLayer(Catalog& catalog, const WideString& path) {
    CatalogEntry layer;
    layer.info.dwProviderFlags = PFL_HIDDEN;
    layer.info.ProviderId = kLayerProviderId;
    layer.info.dwCatalogEntryId = kLayerEntry;
    layer.info.ProtocolChain.ChainLen = LAYERED_PROTOCOL;
    layer.info.iVersion = 2;
    SetName(layer.info, Widen("Layer"));
    layer.path = path;

    std::vector<CatalogEntry> entries;
    DWORD id = kFirstChainEntry;
    for (const CatalogEntry& base : catalog.entries) {
        if (base.info.ProtocolChain.ChainLen != BASE_PROTOCOL) continue;
        CatalogEntry chain = base;
        chain.path = path;
        chain.info.ProviderId = kLayerProviderId;
        chain.info.ProviderId.Data1 += id;  // every chain has an id of its own
        chain.info.dwCatalogEntryId = id++;
        chain.info.ProtocolChain.ChainLen = 2;
        chain.info.ProtocolChain.ChainEntries[0] = kLayerEntry;
        chain.info.ProtocolChain.ChainEntries[1] = base.info.dwCatalogEntryId;
        // A layer's handles are made by Winsock; no system call takes them for files.
        chain.info.dwServiceFlags1 &= ~static_cast<DWORD>(XP1_IFS_HANDLES);
        SetName(chain.info, Widen("Layer over [") + base.info.szProtocol + Widen("]"));
        entries.push_back(std::move(chain));
    }
    entries.insert(entries.end(), catalog.entries.begin(), catalog.entries.end());
    entries.push_back(std::move(layer));
    catalog.entries = std::move(entries);
}

std::shared_ptr<const Catalog> CurrentCatalog() {
    {
        std::lock_guard<std::mutex> lock(State().mutex);
        if (State().current != nullptr) return State().current;
    }
    auto made = std::make_shared<const Catalog>(MakeCatalog());
    std::lock_guard<std::mutex> lock(State().mutex);
    if (State().current == nullptr) State().current = std::move(made);
    return State().current;
}

void DropCatalog() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().current = nullptr;
}

WideString Widen(const std::string& text) {
    const int length = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    WideString wide(static_cast<std::size_t>(std::max(length, 0)), 0);
    if (length > 0) {
        MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    }
    return wide;
}

std::string Narrow(const WCHAR* text) {
    const int length = WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) return std::string();
    std::string narrow(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, -1, narrow.data(), length, nullptr, nullptr);
    narrow.pop_back();
    return narrow;
}

WSAPROTOCOL_INFOA ToAnsi(const WSAPROTOCOL_INFOW& wide) {
    WSAPROTOCOL_INFOA ansi{};
    // The two structures differ in the name alone, which stands last.
    std::memcpy(&ansi, &wide, offsetof(WSAPROTOCOL_INFOA, szProtocol));
    const std::string name = Narrow(wide.szProtocol);
    std::copy_n(name.begin(), std::min<std::size_t>(name.size(), WSAPROTOCOL_LEN), ansi.szProtocol);
    return ansi;
}

WSAPROTOCOL_INFOW ToWide(const WSAPROTOCOL_INFOA& ansi) {
    WSAPROTOCOL_INFOW wide{};
    std::memcpy(&wide, &ansi, offsetof(WSAPROTOCOL_INFOA, szProtocol));
    SetName(wide, Widen(std::string(ansi.szProtocol, strnlen(ansi.szProtocol, WSAPROTOCOL_LEN))));
    return wide;
}

void SetCatalogForTest(Catalog catalog) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().forTest = std::move(catalog);
}

void ResetCatalogForTest() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().forTest.reset();
}

}  // namespace winsock_host
