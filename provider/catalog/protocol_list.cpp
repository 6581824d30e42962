// See protocol_list.h.
#include "provider/catalog/protocol_list.h"

namespace {

/// How often a catalog that grew since its size was asked is read again.
constexpr int kReadAttempts = 4;

}  // namespace

ProtocolList::ProtocolList(HANDLE heap, LPINT error) : heap_(heap) {
    DWORD size = 0;
    *error = 0;
    int count = WSCEnumProtocols(nullptr, nullptr, &size, error);
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        if (count == SOCKET_ERROR && *error != WSAENOBUFS) break;
        if (entries_ != nullptr) HeapFree(heap_, 0, entries_);
        const SIZE_T bytes = size > sizeof(WSAPROTOCOL_INFOW) ? size : sizeof(WSAPROTOCOL_INFOW);
        entries_ = static_cast<WSAPROTOCOL_INFOW*>(HeapAlloc(heap_, 0, bytes));
        if (entries_ == nullptr) {
            *error = WSAENOBUFS;
            return;
        }
        count = WSCEnumProtocols(nullptr, entries_, &size, error);
        if (count != SOCKET_ERROR) {
            count_ = count;
            return;
        }
    }
    if (entries_ != nullptr) HeapFree(heap_, 0, entries_);
    entries_ = nullptr;
    if (*error == 0) *error = WSAENOBUFS;
}

ProtocolList::~ProtocolList() {
    if (entries_ != nullptr) HeapFree(heap_, 0, entries_);
}

const WSAPROTOCOL_INFOW* ProtocolList::FindById(DWORD id) const {
    for (LONG i = 0; i < count_; ++i) {
        if (entries_[i].dwCatalogEntryId == id) return &entries_[i];
    }
    return nullptr;
}
