// See fake_winsock.h.
#include "tests/provider/fake_winsock.h"

#include "platform/testing/catalog.h"
#include "provider/contexts/catalog_teardown.h"
#include "provider/contexts/handle_locks.h"
#include "provider/interception.h"

namespace {

FakeState* State = nullptr;

// ---- Winsock above

SOCKET WSPAPI CreateHandle(DWORD entry, DWORD_PTR context, LPINT error) {
    if (Fake().createHandleError != 0) {
        *error = Fake().createHandleError;
        return INVALID_SOCKET;
    }
    SOCKET handle;
    {
        const std::lock_guard<std::mutex> lock(Fake().mutex);
        Fake().handleEntry = entry;
        handle = Fake().nextHandle++;
        Fake().handles[handle] = context;
    }
    if (Fake().handleMade) Fake().handleMade(handle);
    return handle;
}

int WSPAPI QueryHandle(SOCKET s, PDWORD_PTR context, LPINT error) {
    const std::lock_guard<std::mutex> lock(Fake().mutex);
    const auto found = Fake().handles.find(s);
    if (found == Fake().handles.end()) {
        *error = WSAEINVAL;
        return SOCKET_ERROR;
    }
    *context = found->second;
    return 0;
}

int WSPAPI CloseHandleOfSocket(SOCKET s, LPINT error) {
    if (Fake().closeHandleError != 0) {
        *error = Fake().closeHandleError;
        return SOCKET_ERROR;
    }
    const std::lock_guard<std::mutex> lock(Fake().mutex);
    if (Fake().handles.erase(s) == 1) return 0;
    *error = WSAENOTSOCK;
    return SOCKET_ERROR;
}

// ---- The lower provider below

SOCKET WSPAPI LowerSocket(int, int, int, LPWSAPROTOCOL_INFOW info, GROUP, DWORD flags, LPINT) {
    Fake().socketInfo = *info;
    Fake().socketFlags = flags;
    return Fake().nextLowerSocket++;
}

int WSPAPI LowerCloseSocket(SOCKET s, LPINT error) {
    if (Fake().closeError != 0) {
        *error = Fake().closeError;
        return SOCKET_ERROR;
    }
    Fake().closed.push_back(s);
    return 0;
}

int WSPAPI LowerConnect(SOCKET, const sockaddr* name, int namelen, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                        LPINT error) {
    Fake().connected.push_back(DescribeName(name, namelen));
    if (Fake().connectError == 0) return 0;
    if (Fake().connectError != FakeState::kUnnamed) *error = Fake().connectError;
    return SOCKET_ERROR;
}

int WSPAPI LowerGetSockName(SOCKET, sockaddr* name, LPINT namelen, LPINT) {
    const sockaddr_in local = MakeAddress("127.0.0.1", 7777);
    std::memcpy(name, &local, sizeof(local));
    *namelen = sizeof(local);
    return 0;
}

int WSPAPI LowerSetSockOpt(SOCKET, int, int, const char*, int, LPINT) {
    return 0;
}

int WSPAPI LowerCleanup(LPINT) {
    ++Fake().cleanups;
    return 0;
}

}  // namespace

FakeState& Fake() {
    return *State;
}

sockaddr_in MakeAddress(const char* text, unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(text);
    address.sin_port = htons(port);
    return address;
}

std::string DescribeName(const sockaddr* name, int namelen) {
    sockaddr_in address;
    std::memcpy(&address, name, sizeof(address));
    return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port)) + " " +
           std::to_string(namelen);
}

void FakeWinsock::SetUp() {
    before_ = platform::CountResources();
    State = new FakeState;
    InitializeLocks();
    InitializeHandleLocks();
    ThreadSlot = TlsAlloc();
    winsock_host::Catalog catalog = winsock_host::MakeBaseCatalog({});
    winsock_host::AddLayer(catalog, {});
    winsock_host::SetCatalogForTest(catalog);
    winsock_host::DropCatalog();

    UpcallTable = {};
    UpcallTable.lpWPUCreateSocketHandle = CreateHandle;
    UpcallTable.lpWPUQuerySocketHandleContext = QueryHandle;
    UpcallTable.lpWPUCloseSocketHandle = CloseHandleOfSocket;
    UpcallTable.lpWPUFDIsSet = __WSAFDIsSet;
    BuildCatalog();
}

void FakeWinsock::BuildCatalog() {
    ASSERT_TRUE(CreatePrivateHeap());
    ContextAddedEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const Locker lock(CatalogLock);
    INT error = 0;
    ASSERT_TRUE(EnumerateLspCatalog(&CatalogEntries, &CatalogCount, &error)) << error;
    for (LONG i = 0; i < CatalogCount; ++i) {
        WSPPROC_TABLE& lower = CatalogEntries[i].LowerProcedures;
        lower.lpWSPSocket = LowerSocket;
        lower.lpWSPCloseSocket = LowerCloseSocket;
        lower.lpWSPConnect = LowerConnect;
        lower.lpWSPGetSockName = LowerGetSockName;
        lower.lpWSPSetSockOpt = LowerSetSockOpt;
        lower.lpWSPCleanup = LowerCleanup;
        CatalogEntries[i].LowerStartupCount = 1;
    }
}

void FakeWinsock::TearDown() {
    FreeCatalog();
    winsock_host::ResetCatalogForTest();
    winsock_host::DropCatalog();
    TlsFree(ThreadSlot);
    ThreadSlot = TLS_OUT_OF_INDEXES;
    DeleteHandleLocks();
    DeleteLocks();
    EXPECT_TRUE(Fake().handles.empty()) << "a handle of Winsock's was not given back";
    EXPECT_EQ(platform::SettleTo(before_), "");
    delete State;
    State = nullptr;
}

LspEntry& FakeWinsock::Entry(int type) {
    const Locker lock(CatalogLock);
    LONG i = 0;
    while (CatalogEntries[i].NextProvider.iAddressFamily != AF_INET ||
           CatalogEntries[i].NextProvider.iSocketType != type) {
        ++i;
    }
    return CatalogEntries[i];
}

SOCKET FakeWinsock::MakeSocket(int type) {
    INT error = 0;
    const SOCKET s = WSPSocket(AF_INET, type, 0, nullptr, 0, 0, &error);
    EXPECT_NE(s, INVALID_SOCKET) << error;
    return s;
}

SocketContext* FakeWinsock::ContextOf(SOCKET s) {
    return reinterpret_cast<SocketContext*>(Fake().handles.at(s));
}

void FakeWinsock::Close(SOCKET s) {
    INT error = 0;
    EXPECT_EQ(WSPCloseSocket(s, &error), 0) << error;
}

bool FakeWinsock::FreeCatalog(bool detaching) {
    INT ignored = 0;
    const Locker lock(qx::GlobalLock);
    return FreeLspCatalog(detaching, &ignored);
}

// ---- The interception

void InterceptConnect(SocketContext* context, ConnectTarget* target) {
    if (Fake().verdict) Fake().verdict(context, target);
    if (target->way != ConnectTarget::Way::kThroughRelay) return;
    if (!Fake().split || !Fake().split(context, target)) target->way = ConnectTarget::Way::kSplitFailed;
}
void NotifyReuse(SocketContext*) {}

void AbandonSplit(SocketContext*) {
    ++Fake().abandonedSplits;
}
bool IsReceiveLookedAt(const SocketContext*) {
    return static_cast<bool>(Fake().received);
}
bool AnalyzeReceived(SocketContext* context, const WSABUF* buffers, DWORD count, const DWORD* bytesReceived) {
    return AnalyzeReceivedFrom(context, buffers, count, bytesReceived, nullptr);
}
void AnalyzeSent(SocketContext* context, const WSABUF*, DWORD) {
    if (Fake().sent) Fake().sent(context);
}
bool AnalyzeReceivedFrom(SocketContext* context, const WSABUF* buffers, DWORD, const DWORD* bytesReceived,
                         const sockaddr* from) {
    {
        const std::lock_guard<std::mutex> lock(Fake().mutex);
        Fake().receivedBytes.push_back(*bytesReceived);
    }
    if (Fake().received) Fake().received(context, buffers, from);
    return context->Blocked != FALSE;
}
void AnalyzeSentTo(SocketContext* context, const WSABUF* buffers, DWORD count, const sockaddr*) {
    AnalyzeSent(context, buffers, count);
}
void NotifyBind(SocketContext* context, const sockaddr*, int) {
    if (Fake().bound) Fake().bound(context);
}
void NotifyClose(SocketContext*) {}
void AbandonWaits(SocketContext*) {
    if (Fake().waitsAbandoned) Fake().waitsAbandoned();
}
