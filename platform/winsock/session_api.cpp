// Start, end, the catalog as applications see it, and addresses as text.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/winsock/catalog.h"
#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"

namespace winsock_host {
namespace {

constexpr WORD kHighestVersion = MAKEWORD(2, 2);
constexpr DWORD kLongestAddressText = 1024;  // more than any provider writes

bool IsOffered(const WSAPROTOCOL_INFOW& info, const int* protocols) {
    if (info.ProtocolChain.ChainLen == LAYERED_PROTOCOL || (info.dwProviderFlags & PFL_HIDDEN) != 0)
        return false;
    if (protocols == nullptr) return true;
    for (; *protocols != 0; ++protocols) {
        if (*protocols == info.iProtocol) return true;
    }
    return false;
}

// The entries that applications may see, as WSAEnumProtocols delivers them.
template <class Info, class Convert>
int EnumProtocols(const int* protocols, Info* buffer, LPDWORD length, Convert convert) {
    if (!IsStarted()) return FailWith(WSANOTINITIALISED, SOCKET_ERROR);
    if (length == nullptr) return FailWith(WSAEFAULT, SOCKET_ERROR);
    const std::shared_ptr<const Catalog> catalog = CurrentCatalog();
    const auto offered = [&](const CatalogEntry& entry) { return IsOffered(entry.info, protocols); };
    const auto count = std::count_if(catalog->entries.begin(), catalog->entries.end(), offered);
    const DWORD needed = static_cast<DWORD>(static_cast<std::size_t>(count) * sizeof(Info));
    if (*length < needed) {
        *length = needed;
        return FailWith(WSAENOBUFS, SOCKET_ERROR);
    }
    if (count == 0) return 0;
    if (buffer == nullptr) return FailWith(WSAEFAULT, SOCKET_ERROR);
    for (const CatalogEntry& entry : catalog->entries) {
        if (offered(entry)) *buffer++ = convert(entry.info);
    }
    return static_cast<int>(count);
}

// The provider that turns addresses into text and back: the entry that the caller names, or the family's
// first. Within a CallScope; null with the last error set.
Provider* AddressProvider(const DWORD* catalogEntryId, int family) {
    if (!IsStarted()) return FailWith<Provider*>(WSANOTINITIALISED, nullptr);
    const std::shared_ptr<const Catalog> catalog = CurrentCatalog();
    const CatalogEntry* entry =
        catalogEntryId != nullptr ? catalog->FindById(*catalogEntryId) : catalog->FindByFamily(family);
    Provider* provider = entry == nullptr ? nullptr : ProviderOfEntry(entry->info.dwCatalogEntryId);
    return provider != nullptr ? provider : FailWith<Provider*>(WSAEINVAL, nullptr);
}

template <class Operation>
INT CallAddressProvider(Provider* provider, Operation operation) {
    if (provider == nullptr) return SOCKET_ERROR;
    int error = 0;
    const WSPPROC_TABLE* operations = provider->Operations(&error);
    if (operations == nullptr) return FailWith(error, SOCKET_ERROR);
    WSAPROTOCOL_INFOW info = provider->info();
    return CallProvider(*operations, SOCKET_ERROR,
                        [&](const WSPPROC_TABLE& table, LPINT e) { return operation(table, &info, e); });
}

INT AddressToText(LPSOCKADDR address, DWORD addressLength, const DWORD* entryId, LPWSTR text,
                  LPDWORD textLength) {
    if (address == nullptr || text == nullptr || textLength == nullptr ||
        addressLength < sizeof(ADDRESS_FAMILY)) {
        return FailWith(WSAEFAULT, SOCKET_ERROR);
    }
    CallScope scope;
    return CallAddressProvider(AddressProvider(entryId, address->sa_family),
                               [&](const WSPPROC_TABLE& table, LPWSAPROTOCOL_INFOW info, LPINT error) {
                                   return table.lpWSPAddressToString(address, addressLength, info, text,
                                                                     textLength, error);
                               });
}

INT TextToAddress(LPWSTR text, INT family, const DWORD* entryId, LPSOCKADDR address, LPINT addressLength) {
    if (text == nullptr || address == nullptr || addressLength == nullptr)
        return FailWith(WSAEFAULT, SOCKET_ERROR);
    CallScope scope;
    return CallAddressProvider(AddressProvider(entryId, family), [&](const WSPPROC_TABLE& table,
                                                                     LPWSAPROTOCOL_INFOW info, LPINT error) {
        return table.lpWSPStringToAddress(text, family, info, address, addressLength, error);
    });
}

void FillStartData(WORD version, LPWSADATA data) {
    *data = {};
    data->wVersion = version;
    data->wHighVersion = kHighestVersion;
    std::strcpy(data->szDescription, "WinSock 2.0");
    std::strcpy(data->szSystemStatus, "Running");
}

}  // namespace

int WSAAPI HostWSAStartup(WORD version, LPWSADATA data) {
    HostCall call("WSAStartup", WSASYSNOTREADY);
    if (call.Faulted()) return static_cast<int>(call.error());
    if (data == nullptr) return WSAEFAULT;
    if (LOBYTE(version) == 0) return WSAVERNOTSUPPORTED;
    // Low byte first: 2.2 is the highest version there is, and 1.x are served as they were.
    const bool above = LOBYTE(version) > 2 || (LOBYTE(version) == 2 && HIBYTE(version) > 2);
    const bool aboveFirst = LOBYTE(version) == 1 && HIBYTE(version) > 1;
    const int error = StartSession();
    if (error == 0)
        FillStartData(above ? kHighestVersion : aboveFirst ? WORD{MAKEWORD(1, 1)} : version, data);
    return error;
}

int WSAAPI HostWSACleanup() {
    HostCall call("WSACleanup", WSAENETDOWN);
    if (call.Fails()) return SOCKET_ERROR;
    const int error = EndSession();
    return error == 0 ? 0 : FailWith(error, SOCKET_ERROR);
}

int WSAAPI HostWSAEnumProtocolsW(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length) {
    HostCall call("WSAEnumProtocolsW", WSAENETDOWN);
    if (call.Fails()) return SOCKET_ERROR;
    return EnumProtocols(protocols, buffer, length, [](const WSAPROTOCOL_INFOW& info) { return info; });
}

int WSAAPI HostWSAEnumProtocolsA(LPINT protocols, LPWSAPROTOCOL_INFOA buffer, LPDWORD length) {
    HostCall call("WSAEnumProtocolsA", WSAENETDOWN);
    if (call.Fails()) return SOCKET_ERROR;
    return EnumProtocols(protocols, buffer, length, ToAnsi);
}

INT WSAAPI HostWSAAddressToStringW(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info,
                                   LPWSTR text, LPDWORD textLength) {
    HostCall call("WSAAddressToStringW", WSAEINVAL);
    if (call.Fails()) return SOCKET_ERROR;
    return AddressToText(address, addressLength, info != nullptr ? &info->dwCatalogEntryId : nullptr, text,
                         textLength);
}

INT WSAAPI HostWSAAddressToStringA(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOA info,
                                   LPSTR text, LPDWORD textLength) {
    HostCall call("WSAAddressToStringA", WSAEINVAL);
    if (call.Fails()) return SOCKET_ERROR;
    if (text == nullptr || textLength == nullptr) return FailWith(WSAEFAULT, SOCKET_ERROR);
    WCHAR wide[kLongestAddressText];
    DWORD wideLength = std::min(*textLength, kLongestAddressText);
    const INT result = AddressToText(address, addressLength,
                                     info != nullptr ? &info->dwCatalogEntryId : nullptr, wide, &wideLength);
    if (result != 0) {
        if (GetLastError() == WSAEFAULT) *textLength = wideLength;
        return result;
    }
    const std::string narrow = Narrow(wide);
    const DWORD needed = static_cast<DWORD>(narrow.size()) + 1;
    const bool fits = needed <= *textLength;
    *textLength = needed;
    if (!fits) return FailWith(WSAEFAULT, SOCKET_ERROR);
    std::memcpy(text, narrow.c_str(), needed);
    return 0;
}

INT WSAAPI HostWSAStringToAddressW(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                                   LPINT addressLength) {
    HostCall call("WSAStringToAddressW", WSAEINVAL);
    if (call.Fails()) return SOCKET_ERROR;
    return TextToAddress(text, family, info != nullptr ? &info->dwCatalogEntryId : nullptr, address,
                         addressLength);
}

INT WSAAPI HostWSAStringToAddressA(LPSTR text, INT family, LPWSAPROTOCOL_INFOA info, LPSOCKADDR address,
                                   LPINT addressLength) {
    HostCall call("WSAStringToAddressA", WSAEINVAL);
    if (call.Fails()) return SOCKET_ERROR;
    if (text == nullptr) return FailWith(WSAEFAULT, SOCKET_ERROR);
    WideString wide = Widen(text);
    return TextToAddress(wide.data(), family, info != nullptr ? &info->dwCatalogEntryId : nullptr, address,
                         addressLength);
}

}  // namespace winsock_host
