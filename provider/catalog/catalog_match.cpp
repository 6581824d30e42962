// The choice of the layer's entry for a protocol entry that Winsock starts the layer with: four ways, each
// tried over all entries before the next.
#include "provider/catalog/catalog.h"
#include "provider/catalog/protocol_list.h"
#include "provider/process_state.h"

namespace {

/// What an entry is compared by when its id says nothing.
bool SameProtocol(const WSAPROTOCOL_INFOW& first, const WSAPROTOCOL_INFOW& second) {
    return first.iAddressFamily == second.iAddressFamily && first.iSocketType == second.iSocketType &&
           first.iProtocol == second.iProtocol &&
           SameServiceFlags(first.dwServiceFlags1, second.dwServiceFlags1);
}

int ChainLength(const WSAPROTOCOL_INFOW& info) {
    const int length = info.ProtocolChain.ChainLen;
    return length < MAX_PROTOCOL_CHAIN ? length : MAX_PROTOCOL_CHAIN;
}

LspEntry* MatchById(const WSAPROTOCOL_INFOW& info, LspEntry* array, LONG count) {
    for (LONG i = 0; i < count; ++i) {
        if (array[i].LayerProvider.dwCatalogEntryId == info.dwCatalogEntryId) return &array[i];
    }
    return nullptr;
}

/// Another layer above this one: its chain names one of our entries. A chain that names our base entry says
/// only that we are in it, not which entry of ours, so it ends the search.
LspEntry* MatchByChain(const WSAPROTOCOL_INFOW& info, LspEntry* array, LONG count) {
    for (LONG i = 0; i < count; ++i) {
        for (int link = 1; link < ChainLength(info); ++link) {
            const DWORD id = info.ProtocolChain.ChainEntries[link];
            if (id == array[i].LayerBaseId) return nullptr;
            if (id == array[i].LayerProvider.dwCatalogEntryId) return &array[i];
        }
    }
    return nullptr;
}

LspEntry* MatchByProtocol(const WSAPROTOCOL_INFOW& info, LspEntry* array, LONG count) {
    for (LONG i = 0; i < count; ++i) {
        if (SameProtocol(array[i].LayerProvider, info)) return &array[i];
    }
    return nullptr;
}

/// The entry that one chain of the catalog leads to.
LspEntry* MatchLink(const WSAPROTOCOL_INFOW& chain, DWORD link, LspEntry* array, LONG count) {
    for (LONG i = 0; i < count; ++i) {
        const WSAPROTOCOL_INFOW& layer = array[i].LayerProvider;
        if (link == layer.ProtocolChain.ChainEntries[0] && SameProtocol(chain, layer)) return &array[i];
        if (link == layer.dwCatalogEntryId && array[i].LowerStartupCount == 0) return &array[i];
    }
    return nullptr;
}

/// Entries that were added above ours since the catalog was read.
LspEntry* MatchByCatalog(const WSAPROTOCOL_INFOW& info, LspEntry* array, LONG count) {
    INT error = 0;
    const ProtocolList catalog(PrivateHeap, &error);
    if (!catalog) return nullptr;
    DWORD topId = info.ProtocolChain.ChainEntries[0];
    if (catalog.FindById(topId) == nullptr) topId = 0;
    for (LONG i = 0; i < catalog.Count(); ++i) {
        const WSAPROTOCOL_INFOW& chain = catalog[i];
        if (chain.ProtocolChain.ChainEntries[0] != topId) continue;
        for (int link = 1; link < ChainLength(chain); ++link) {
            LspEntry* const entry = MatchLink(chain, chain.ProtocolChain.ChainEntries[link], array, count);
            if (entry != nullptr) return entry;
        }
    }
    return nullptr;
}

}  // namespace

bool SameServiceFlags(DWORD first, DWORD second) {
    return ((first ^ second) & ~static_cast<DWORD>(XP1_IFS_HANDLES)) == 0;
}

LspEntry* FindMatchingLspEntryForProtocolInfo(const WSAPROTOCOL_INFOW* info, LspEntry* array, LONG count) {
    if (info == nullptr) return nullptr;
    LspEntry* entry = MatchById(*info, array, count);
    if (entry == nullptr) entry = MatchByChain(*info, array, count);
    if (entry == nullptr) entry = MatchByProtocol(*info, array, count);
    if (entry == nullptr) entry = MatchByCatalog(*info, array, count);
    return entry;
}
