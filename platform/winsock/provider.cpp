// Starting providers, and the last clean-up.
#include "platform/winsock/provider.h"

#include <windows.h>

#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "platform/winsock/host_seam.h"
#include "platform/winsock/layered_handle.h"
#include "platform/winsock/socket_table.h"
#include "platform/winsock/thread_record.h"
#include "platform/winsock/upcalls.h"

namespace winsock_host {

// All providers of one session, from the first start to the last clean-up.
class Session {
  public:
    explicit Session(const Catalog& catalog) {
        for (const CatalogEntry& entry : catalog.entries)
            providers_.push_back(std::make_unique<Provider>(entry));
    }

    Provider* Find(DWORD catalogEntryId) const noexcept {
        for (const auto& provider : providers_) {
            if (provider->info().dwCatalogEntryId == catalogEntryId) return provider.get();
        }
        return nullptr;
    }

    /// Tells every started provider that its work is over.
    void Stop() noexcept {
        for (const auto& provider : providers_)
            provider->Stop();
    }

    void Unload() noexcept {
        for (const auto& provider : providers_)
            provider->Unload();
    }

    std::atomic<void*> parser{nullptr};  // see RememberedParser

  private:
    std::vector<std::unique_ptr<Provider>> providers_;
};

namespace {

enum class Phase { kStopped, kStarted, kStopping };

struct SessionState {
    std::recursive_mutex
        startMutex;      // outermost lock of the host; held while providers are started and stopped
    int startCount = 0;  // guarded by startMutex
    std::atomic<Phase> phase{Phase::kStopped};
    std::atomic<Session*> session{nullptr};
    std::vector<Session*> abandoned;  // guarded by startMutex: some thread never left their code
};

// Never destroyed: modules that are detached at process exit still call.
SessionState& State() noexcept {
    alignas(SessionState) static unsigned char place[sizeof(SessionState)];
    static SessionState& state = *new (place) SessionState;
    return state;
}

constexpr WORD kVersion = MAKEWORD(2, 2);

bool IsComplete(const WSPPROC_TABLE& table) {
    const auto* slots = reinterpret_cast<void* const*>(&table);
    for (std::size_t i = 0; i < sizeof(table) / sizeof(void*); ++i) {
        if (slots[i] == nullptr) return false;
    }
    return true;
}

// A layer's sockets are closed by its clean-up, a base provider's by the base provider's. What is left is
// forgotten.
void ForgetSockets() noexcept {
    Sockets.Clear([](SOCKET s, SocketTable::Owner owner) {
        if (owner.layered) CloseLayeredHandle(s);
    });
}

HMODULE LoadProviderLibrary(const WideString& path) {
    WCHAR expanded[MAX_PATH];
    const DWORD length = ExpandEnvironmentStringsW(path.c_str(), expanded, MAX_PATH);
    return length == 0 || length > MAX_PATH ? nullptr : LoadLibraryW(expanded);
}

}  // namespace

const WSPPROC_TABLE* Provider::Start(int* error) noexcept {
    SessionState& state = State();
    // Nobody starts a provider while the others end, and nobody waits for that end here: it may wait for us.
    if (state.phase.load() != Phase::kStarted) {
        *error = WSANOTINITIALISED;
        return nullptr;
    }
    std::lock_guard<std::recursive_mutex> lock(state.startMutex);
    if (started_.load()) return &table_;
    if (starting_) {
        *error = WSAEPROVIDERFAILEDINIT;  // the provider needs itself to start
        return nullptr;
    }
    starting_ = true;
    *error = LoadAndStart();
    starting_ = false;
    if (*error != 0) {
        Unload();
        return nullptr;
    }
    started_.store(true, std::memory_order_release);
    return &table_;
}

int Provider::LoadAndStart() noexcept {
    module_ = LoadProviderLibrary(entry_.path);
    if (module_ == nullptr) return WSAEPROVIDERFAILEDINIT;
    const auto startup =
        reinterpret_cast<LPWSPSTARTUP>(reinterpret_cast<void*>(GetProcAddress(module_, "WSPStartup")));
    if (startup == nullptr) return WSAEPROVIDERFAILEDINIT;
    table_ = {};
    data_ = {};
    WSAPROTOCOL_INFOW info = entry_.info;
    int error = 0;
    {
        ProviderBoundary boundary;
        error = startup(kVersion, &data_, &info, TheUpcallTable(), &table_);
    }
    // An application is told Winsock's own errors only; what else a provider failed with is the provider's
    // affair.
    if (error != 0) return error >= WSABASEERR ? error : WSAEPROVIDERFAILEDINIT;
    if (IsComplete(table_) && data_.wVersion == kVersion) return 0;
    error = IsComplete(table_) ? WSAVERNOTSUPPORTED : WSAEINVALIDPROCTABLE;
    if (table_.lpWSPCleanup != nullptr) {
        ProviderBoundary boundary;
        int ignored = 0;
        table_.lpWSPCleanup(&ignored);
    }
    return error;
}

void Provider::Stop() noexcept {
    if (!started_.load()) return;
    ProviderBoundary boundary;
    int ignored = 0;
    table_.lpWSPCleanup(&ignored);
}

void Provider::Unload() noexcept {
    if (module_ == nullptr) return;
    started_.store(false);
    FreeLibrary(module_);
    module_ = nullptr;
}

bool IsStarted() noexcept {
    return State().phase.load() != Phase::kStopped;
}

Provider* ProviderOfEntry(DWORD catalogEntryId) noexcept {
    const Session* session = State().session.load();
    return session == nullptr ? nullptr : session->Find(catalogEntryId);
}

std::atomic<void*>* RememberedParser() noexcept {
    Session* session = State().session.load();
    return session == nullptr ? nullptr : &session->parser;
}

int StartSession() noexcept {
    SessionState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.startMutex);
    if (state.phase.load() == Phase::kStopping)
        return WSASYSNOTREADY;  // called by a provider that is being ended
    if (state.startCount == 0) {
        try {
            DropCatalog();
            state.session.store(new Session(*CurrentCatalog()));
        } catch (const std::bad_alloc&) {
            return WSASYSNOTREADY;
        }
        state.phase.store(Phase::kStarted);
    }
    ++state.startCount;
    return 0;
}

int EndSession() noexcept {
    SessionState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.startMutex);
    if (state.startCount == 0) return WSANOTINITIALISED;
    if (--state.startCount > 0) return 0;

    // The providers still call Winsock while they end, to close their own sockets first of all.
    state.phase.store(Phase::kStopping);
    Session* session = state.session.load();
    session->Stop();
    state.phase.store(Phase::kStopped);
    state.session.store(nullptr);
    ForgetSockets();
    const bool idle = WaitForOtherThreadsCalls();
    ForgetSockets();  // also what a call that was still under way made meanwhile
    if (idle) {
        session->Unload();
        delete session;
    } else {
        state.abandoned.push_back(
            session);  // better a library too many than code that vanishes under a thread
    }
    DropCatalog();
    CloseThreadIds();
    return 0;
}

}  // namespace winsock_host
