// Addresses to text and back: no socket is involved, so the entry is chosen by the protocol that the caller
// names.
#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/operations/operations.h"

namespace {

/// The entry above the named protocol with its lower provider started, kept by the hold, or null with
/// `*error`.
LspEntry* FindConverter(LPWSAPROTOCOL_INFOW info, CatalogHold* hold, LPINT error) {
    WSAPROTOCOL_INFOW wanted;
    if (info == nullptr || !GuardedCall([&]() noexcept { wanted = *info; })) {
        *error = info == nullptr ? WSAEINVAL : WSAEFAULT;
        return nullptr;
    }
    LspEntry* found = nullptr;
    {
        const Locker lock(CatalogLock);
        hold->Take();
        for (LONG i = 0; CatalogEntries != nullptr && i < CatalogCount && found == nullptr; ++i) {
            const WSAPROTOCOL_INFOW& lower = CatalogEntries[i].NextProvider;
            if (lower.iAddressFamily == wanted.iAddressFamily && lower.iSocketType == wanted.iSocketType &&
                lower.iProtocol == wanted.iProtocol &&
                SameServiceFlags(lower.dwServiceFlags1, wanted.dwServiceFlags1)) {
                found = &CatalogEntries[i];
            }
        }
    }
    if (found == nullptr) {
        *error = WSAEINVAL;
        return nullptr;
    }
    return EnsureProviderStarted(found, &wanted, error) == 0 ? found : nullptr;
}

LPWSAPROTOCOL_INFOW InfoForLower(LspEntry* provider, LPWSAPROTOCOL_INFOW info) {
    return provider->LowerIsLayered() ? info : &provider->NextProvider;
}

}  // namespace

INT WSPAPI WSPAddressToString(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info, LPWSTR text,
                              LPDWORD textLength, LPINT error) {
    CatalogHold hold;
    LspEntry* const provider = FindConverter(info, &hold, error);
    if (provider == nullptr) return SOCKET_ERROR;
    return CallLower(provider, INT{SOCKET_ERROR}, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPAddressToString(
            address, addressLength, InfoForLower(provider, info), text, textLength, error);
    });
}

INT WSPAPI WSPStringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                              LPINT addressLength, LPINT error) {
    CatalogHold hold;
    LspEntry* const provider = FindConverter(info, &hold, error);
    if (provider == nullptr) return SOCKET_ERROR;
    return CallLower(provider, INT{SOCKET_ERROR}, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPStringToAddress(text, family, InfoForLower(provider, info),
                                                              address, addressLength, error);
    });
}
