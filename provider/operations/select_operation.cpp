// WSPSelect: the application's handles go down as lower sockets and come back as the application's own.
// Handles that are not this layer's go down unchanged. The records stand on the stack, so that a call that a
// clean-up overtakes has nothing of the layer's heap in hands.
#include <array>
#include <cstddef>

#include "base/caller_memory.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"

namespace {

constexpr std::size_t kSetCapacity = FD_SETSIZE;

/// One handle of one set.
struct SelectRecord {
    SOCKET ApplicationSocket;
    SOCKET LowerSocket;
    SocketContext* Context;  ///< referenced; null for a foreign handle
};

/// Adds a socket to a set that holds each once.
bool AddToSet(SOCKET s, fd_set* set) {
    for (unsigned int i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) return false;
    }
    if (set->fd_count >= kSetCapacity) return false;
    set->fd_array[set->fd_count++] = s;
    return true;
}

/// One of the three sets of a call, in both worlds. Drops its references when it goes.
class TranslatedSet {
  public:
    explicit TranslatedSet(fd_set* application) : application_(application) { lower_.fd_count = 0; }
    ~TranslatedSet() {
        INT ignored = 0;
        for (unsigned int i = 0; i < count_; ++i)
            DerefSocketContext(records_[i].Context, &ignored);
    }
    TranslatedSet(const TranslatedSet&) = delete;
    TranslatedSet& operator=(const TranslatedSet&) = delete;

    /// False for a set that can't be read. Of one that is too large, what fits is translated.
    bool Translate() {
        if (application_ == nullptr) return true;
        SOCKET handles[kSetCapacity];
        unsigned int count = 0;
        if (!GuardedCall([&]() noexcept {
                count = application_->fd_count;
                tooLarge_ = count > kSetCapacity;
                if (tooLarge_) count = kSetCapacity;
                std::memcpy(handles, application_->fd_array, count * sizeof(SOCKET));
            })) {
            return false;
        }
        for (unsigned int i = 0; i < count; ++i)
            AddHandle(handles[i]);
        return true;
    }

    bool IsTooLarge() const { return tooLarge_; }

    /// The context that stands first, or null when no handle has one.
    SocketContext* FirstContext() const {
        for (unsigned int i = 0; i < count_; ++i) {
            if (records_[i].Context != nullptr) return records_[i].Context;
        }
        return nullptr;
    }

    fd_set* Lower() { return application_ != nullptr ? &lower_ : nullptr; }

    /// Makes the application's set hold its ready handles; `*remaining` counts those not yet reported, each
    /// once over all three sets. `reported` collects them.
    void StoreReady(int* remaining, std::array<SOCKET, 3 * kSetCapacity>* reported,
                    unsigned int* reportedCount) {
        if (application_ == nullptr) return;
        application_->fd_count = 0;
        for (unsigned int i = 0; i<count_&& * remaining> 0; ++i) {
            const SelectRecord& record = records_[i];
            if (!UpcallTable.lpWPUFDIsSet(record.LowerSocket, &lower_)) continue;
            if (!AddToSet(record.ApplicationSocket, application_)) continue;
            bool known = false;
            for (unsigned int j = 0; j < *reportedCount && !known; ++j) {
                known = (*reported)[j] == record.ApplicationSocket;
            }
            if (known) continue;
            (*reported)[(*reportedCount)++] = record.ApplicationSocket;
            --*remaining;
        }
    }

  private:
    void AddHandle(SOCKET s) {
        INT ignored = 0;
        SelectRecord& record = records_[count_++];
        record.ApplicationSocket = s;
        record.Context = FindAndRefSocketContext(s, &ignored);
        record.LowerSocket =
            record.Context != nullptr ? static_cast<SOCKET>(record.Context->ProviderSocket) : s;
        AddToSet(record.LowerSocket, &lower_);
    }

    fd_set* application_;
    fd_set lower_;
    std::array<SelectRecord, kSetCapacity> records_;
    unsigned int count_ = 0;
    bool tooLarge_ = false;
};

}  // namespace

int WSPAPI WSPSelect(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                     LPINT error) {
    *error = 0;
    TranslatedSet reads(readSet);
    TranslatedSet writes(writeSet);
    TranslatedSet excepts(exceptSet);
    if (!reads.Translate() || !writes.Translate() || !excepts.Translate()) return Fail(WSAEFAULT, error);

    SocketContext* context = reads.FirstContext();
    if (context == nullptr) context = writes.FirstContext();
    if (context == nullptr) context = excepts.FirstContext();
    if (context == nullptr) return Fail(WSAEINVAL, error);
    if (reads.IsTooLarge() || writes.IsTooLarge() || excepts.IsTooLarge()) return Fail(WSAENOBUFS, error);
    LspEntry* const provider = context->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPSelect(nfds, reads.Lower(), writes.Lower(), excepts.Lower(),
                                                     timeout, error);
    });
    if (result == SOCKET_ERROR) return SOCKET_ERROR;

    std::array<SOCKET, 3 * kSetCapacity> reported;
    unsigned int reportedCount = 0;
    int remaining = result;
    if (!GuardedCall([&]() noexcept {
            reads.StoreReady(&remaining, &reported, &reportedCount);
            writes.StoreReady(&remaining, &reported, &reportedCount);
            excepts.StoreReady(&remaining, &reported, &reportedCount);
        })) {
        return Fail(WSAEFAULT, error);
    }
    return result;
}
