// The operations that the layer answers or translates: select, options, extension functions, overlapped
// results, duplicated and joined sockets, address conversion.
#include <mswsock.h>

#include <thread>

#include "platform/testing/clock.h"
#include "provider/operations/extension_functions.h"
#include "provider/overlapped/caller_record.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

using AnsweredOperations = FakeSocket;

// ---- Select

struct SelectFake {
    fd_set asked[3];
    fd_set ready[3];
    int result = 0;
};
SelectFake* Select = nullptr;

int WSPAPI LowerSelect(int, fd_set* reads, fd_set* writes, fd_set* excepts, const PTIMEVAL, LPINT) {
    fd_set* const sets[3] = {reads, writes, excepts};
    for (int i = 0; i < 3; ++i) {
        Select->asked[i].fd_count = 0;
        if (sets[i] == nullptr) continue;
        Select->asked[i] = *sets[i];
        *sets[i] = Select->ready[i];
    }
    return Select->result;
}

fd_set SetOf(std::initializer_list<SOCKET> sockets) {
    fd_set set;
    FD_ZERO(&set);
    for (const SOCKET s : sockets)
        FD_SET(s, &set);
    return set;
}

std::vector<SOCKET> Members(const fd_set& set) {
    return {set.fd_array, set.fd_array + set.fd_count};
}

TEST_F(AnsweredOperations, SelectSpeaksLowerSocketsBelowAndOursAbove) {
    SelectFake select;
    Select = &select;
    Lower().lpWSPSelect = LowerSelect;
    const SOCKET a = MakeSocket();
    const SOCKET b = MakeSocket();
    const SOCKET lowerA = ContextOf(a)->ProviderSocket;
    const SOCKET lowerB = ContextOf(b)->ProviderSocket;
    const SOCKET foreign = 0x77;

    fd_set reads = SetOf({foreign, a, b});
    fd_set writes = SetOf({b, a});
    select.ready[0] = SetOf({lowerB, foreign});
    select.ready[1] = SetOf({lowerB, lowerA});
    select.result = 3;
    error_ = WSAEINVAL;
    EXPECT_EQ(WSPSelect(0, &reads, &writes, nullptr, nullptr, &error_), 3);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(Members(select.asked[0]), (std::vector<SOCKET>{foreign, lowerA, lowerB}));
    EXPECT_EQ(Members(select.asked[1]), (std::vector<SOCKET>{lowerB, lowerA}));
    EXPECT_EQ(Members(reads), (std::vector<SOCKET>{foreign, b}));
    EXPECT_EQ(Members(writes), (std::vector<SOCKET>{b, a})) << "b was counted with the reads already";
    EXPECT_EQ(ContextOf(a)->RefCount, 0);

    select.result = 0;
    reads = SetOf({a});
    EXPECT_EQ(WSPSelect(0, &reads, nullptr, nullptr, nullptr, &error_), 0);
    EXPECT_EQ(reads.fd_count, 0u);

    select.result = SOCKET_ERROR;
    reads = SetOf({a});
    EXPECT_EQ(WSPSelect(0, &reads, nullptr, nullptr, nullptr, &error_), SOCKET_ERROR);
    EXPECT_EQ(Members(reads), (std::vector<SOCKET>{a})) << "a failure leaves the sets alone";
    Close(a);
    Close(b);
}

TEST_F(AnsweredOperations, SelectRefusesWhatItCantTranslate) {
    fd_set foreign = SetOf({0x77});
    fd_set empty = SetOf({});
    const auto refusal = [&](fd_set* reads, fd_set* writes) {
        return ErrorOf(WSPSelect(0, reads, writes, nullptr, nullptr, &error_) == 0);
    };
    EXPECT_EQ(refusal(&foreign, &empty), WSAEINVAL);
    EXPECT_EQ(refusal(nullptr, nullptr), WSAEINVAL);

    struct {
        unsigned int fd_count = 65;
        SOCKET fd_array[65];
    } large;
    for (SOCKET& member : large.fd_array)
        member = s_;
    EXPECT_EQ(refusal(reinterpret_cast<fd_set*>(&large), nullptr), WSAENOBUFS);
    for (SOCKET& member : large.fd_array)
        member = 0x77;
    EXPECT_EQ(refusal(reinterpret_cast<fd_set*>(&large), nullptr), WSAEINVAL) << "none is the layer's";
    EXPECT_EQ(refusal(&empty, reinterpret_cast<fd_set*>(8)), WSAEFAULT);
    EXPECT_EQ(context_->RefCount, 0);
}

// ---- Options

TEST_F(AnsweredOperations, ProtocolInformationIsTheLayersOwn) {
    const WSAPROTOCOL_INFOW& layer = Entry(SOCK_STREAM).LayerProvider;
    WSAPROTOCOL_INFOW wide;
    WSAPROTOCOL_INFOA narrow;
    const auto query = [&](int option, void* value, INT length) {
        return ErrorOf(WSPGetSockOpt(s_, SOL_SOCKET, option, static_cast<char*>(value), &length, &error_) ==
                       0);
    };
    EXPECT_EQ(query(SO_PROTOCOL_INFOW, &wide, sizeof(wide)), 0);
    EXPECT_EQ(std::memcmp(&wide, &layer, sizeof(wide)), 0);
    EXPECT_EQ(query(SO_PROTOCOL_INFOA, &narrow, sizeof(narrow)), 0);
    EXPECT_EQ(narrow.dwCatalogEntryId, layer.dwCatalogEntryId);
    std::string name(narrow.szProtocol);
    EXPECT_TRUE(std::equal(name.begin(), name.end(), layer.szProtocol));
    EXPECT_EQ(query(SO_PROTOCOL_INFOW, &wide, 627), WSAEFAULT);
    EXPECT_EQ(query(SO_PROTOCOL_INFOA, &wide, 371), WSAEFAULT);
    Lower().lpWSPDuplicateSocket = Callback([](SOCKET, DWORD, LPWSAPROTOCOL_INFOW info, LPINT) {
        *info = WSAPROTOCOL_INFOW{};
        info->dwProviderReserved = 99;
        return 0;
    });
    EXPECT_EQ(WSPDuplicateSocket(s_, 1, &wide, &error_), 0);
    EXPECT_EQ(wide.dwCatalogEntryId, layer.dwCatalogEntryId) << "the target process comes to the layer";
    EXPECT_EQ(wide.dwProviderReserved, 99u) << "with what the lower provider left for itself";
}

SOCKET AcceptContextListener = 0;

TEST_F(AnsweredOperations, AcceptContextNamesTheListenerByItsLowerSocket) {
    Lower().lpWSPSetSockOpt = Callback([](SOCKET, int, int option, const char* value, int length, LPINT) {
        if (option == SO_UPDATE_ACCEPT_CONTEXT && length == sizeof(SOCKET)) {
            std::memcpy(&AcceptContextListener, value, sizeof(SOCKET));
        }
        return 0;
    });
    const SOCKET accepted = MakeSocket();
    const auto update = [&](SOCKET listener, int length) {
        return ErrorOf(WSPSetSockOpt(accepted, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT,
                                     reinterpret_cast<const char*>(&listener), length, &error_) == 0);
    };
    EXPECT_EQ(update(s_, sizeof(s_)), 0);
    EXPECT_EQ(AcceptContextListener, context_->ProviderSocket);
    EXPECT_EQ(update(0x77, sizeof(SOCKET)), WSAENOTSOCK);
    EXPECT_EQ(update(s_, 2), WSAEFAULT);
    EXPECT_EQ(context_->RefCount + ContextOf(accepted)->RefCount, 0);
    Close(accepted);
}

SOCKET LeafSocket = 0;

TEST_F(AnsweredOperations, JoinedLeafIsTheRootOrASocketOfItsOwn) {
    Lower().lpWSPJoinLeaf =
        Callback([](SOCKET, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS, DWORD, LPINT error) {
            if (LeafSocket == INVALID_SOCKET) *error = WSAENETDOWN;
            return LeafSocket;
        });
    const auto join = [&] {
        return WSPJoinLeaf(s_, nullptr, 0, nullptr, nullptr, nullptr, nullptr, JL_BOTH, &error_);
    };
    LeafSocket = context_->ProviderSocket;
    EXPECT_EQ(join(), s_);
    LeafSocket = 0x6100;
    const SOCKET leaf = join();
    EXPECT_EQ(ContextOf(leaf)->ProviderSocket, 0x6100u);
    Close(leaf);
    LeafSocket = INVALID_SOCKET;
    EXPECT_EQ(join(), INVALID_SOCKET);
    EXPECT_EQ(error_, WSAENETDOWN);
}

// ---- Extension functions

BOOL WINAPI LowerConnectEx(SOCKET, const sockaddr*, int, PVOID, DWORD, LPDWORD, LPOVERLAPPED overlapped) {
    return overlapped == nullptr ? TRUE : FALSE;
}

int WSPAPI LowerIoctl(SOCKET, DWORD code, LPVOID input, DWORD, LPVOID output, DWORD, LPDWORD bytes,
                      LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
    const GUID connectEx = WSAID_CONNECTEX;
    const GUID sockaddrs = WSAID_GETACCEPTEXSOCKADDRS;
    *bytes = sizeof(void*);
    if (code != SIO_GET_EXTENSION_FUNCTION_POINTER) return 0;
    if (std::memcmp(input, &connectEx, sizeof(GUID)) == 0) {
        const LPFN_CONNECTEX function = LowerConnectEx;
        std::memcpy(output, &function, sizeof(function));
        return 0;
    }
    if (std::memcmp(input, &sockaddrs, sizeof(GUID)) == 0) {
        std::memset(output, 0x11, sizeof(void*));
        return 0;
    }
    *error = WSAEINVAL;
    return SOCKET_ERROR;
}

TEST_F(AnsweredOperations, ExtensionFunctionsAreTheLayersButForOne) {
    Lower().lpWSPIoctl = LowerIoctl;
    const auto fetch = [&](GUID id, DWORD inputLength, void* output, DWORD outputLength) {
        DWORD bytes = 0;
        return ErrorOf(WSPIoctl(s_, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, inputLength, output,
                                outputLength, &bytes, nullptr, nullptr, nullptr, &error_) == 0);
    };
    void* function = nullptr;
    EXPECT_EQ(fetch(WSAID_TRANSMITFILE, 16, &function, sizeof(function)), 0)
        << "missing below is found when called";
    EXPECT_EQ(function, reinterpret_cast<void*>(&LayerTransmitFile));
    EXPECT_EQ(fetch(WSAID_CONNECTEX, 16, &function, sizeof(function)), 0);
    EXPECT_EQ(function, reinterpret_cast<void*>(&LayerConnectEx));
    EXPECT_EQ(fetch(WSAID_GETACCEPTEXSOCKADDRS, 16, &function, sizeof(function)), 0);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(function) & 0xFF, 0x11u) << "the lower provider's";
    const GUID unknown = {1, 2, 3, {}};
    EXPECT_EQ(fetch(unknown, 16, &function, sizeof(function)), WSAEINVAL);
    EXPECT_EQ(fetch(WSAID_CONNECTEX, 15, &function, sizeof(function)), WSAEFAULT);
    EXPECT_EQ(fetch(WSAID_CONNECTEX, 16, &function, sizeof(function) - 1), WSAEFAULT);
    EXPECT_EQ(fetch(WSAID_CONNECTEX, 16, nullptr, sizeof(function)), WSAEFAULT);

    EXPECT_TRUE(LayerConnectEx(s_, nullptr, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_FALSE(LayerTransmitFile(s_, nullptr, 0, 0, nullptr, nullptr, 0));
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_FALSE(LayerDisconnectEx(0x77, nullptr, 0, 0));
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

LPWSAOVERLAPPED_COMPLETION_ROUTINE IoctlRoutine = nullptr;
LPWSATHREADID IoctlThread = nullptr;

TEST_F(AnsweredOperations, AnIoctlThatIsNotOverlappedGoesDownAsItIs) {
    Lower().lpWSPIoctl =
        Callback([](SOCKET, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPWSAOVERLAPPED,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread, LPINT) {
            IoctlRoutine = routine;
            IoctlThread = thread;
            return 0;
        });
    const LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = Callback([](DWORD, DWORD, LPWSAOVERLAPPED, DWORD) {});
    WSATHREADID thread{};
    DWORD bytes = 0;
    EXPECT_EQ(WSPIoctl(s_, FIONREAD, nullptr, 0, nullptr, 0, &bytes, nullptr, routine, &thread, &error_), 0);
    EXPECT_EQ(IoctlRoutine, routine);
    EXPECT_EQ(IoctlThread, &thread);
}

TEST_F(AnsweredOperations, LowerHandleIsToldOnlyByALayeredProvidersStandIn) {
    Lower().lpWSPIoctl = LowerIoctl;
    SOCKET lower = 0;
    DWORD bytes = 0;
    WSAOVERLAPPED record{};
    const auto query = [&](void* output, DWORD length, LPDWORD count, LPWSAOVERLAPPED overlapped = nullptr) {
        return ErrorOf(WSPIoctl(s_, SIO_QUERY_TARGET_PNP_HANDLE, nullptr, 0, output, length, count,
                                overlapped, nullptr, nullptr, &error_) == 0);
    };
    EXPECT_EQ(query(&lower, sizeof(lower), &bytes), 0);
    EXPECT_EQ(lower, 0u) << "a base provider answers itself";
    Entry(SOCK_STREAM).NextProvider.ProtocolChain.ChainLen = 2;
    Lower().lpWSPIoctl = nullptr;  // not called
    EXPECT_EQ(query(&lower, sizeof(lower), &bytes), 0);
    EXPECT_EQ(lower, context_->ProviderSocket);
    EXPECT_EQ(bytes, sizeof(SOCKET));
    const auto unwritable = reinterpret_cast<LPDWORD>(8);
    for (const LPWSAOVERLAPPED overlapped : {LPWSAOVERLAPPED{nullptr}, &record}) {
        EXPECT_EQ(query(nullptr, sizeof(lower), &bytes, overlapped), WSAEFAULT);
        EXPECT_EQ(query(&lower, sizeof(lower) - 1, &bytes, overlapped), WSAEFAULT);
        EXPECT_EQ(query(&lower, sizeof(lower), nullptr, overlapped), WSAEFAULT);
        EXPECT_EQ(query(&lower, sizeof(lower), unwritable, overlapped), WSAEFAULT);
    }
    EXPECT_FALSE(IsOverlappedInProgress(&record));
    EXPECT_EQ(context_->OutstandingAsync, 0u);
}

// ---- Overlapped results

TEST_F(AnsweredOperations, OverlappedResultIsReadFromTheRecord) {
    const auto complete = [](WSAOVERLAPPED* record, DWORD error) {
        record->InternalHigh = 42;
        record->Offset = 3;
        record->OffsetHigh = error;
        __atomic_store_n(&record->Internal, 0, __ATOMIC_RELEASE);
    };
    DWORD bytes = 0;
    DWORD flags = 0;
    WSAOVERLAPPED record{};
    const auto result = [&](BOOL wait) {
        return ErrorOf(WSPGetOverlappedResult(0, &record, &bytes, wait, &flags, &error_) != FALSE);
    };

    record.Internal = kOperationInProgress;
    EXPECT_EQ(result(FALSE), WSA_IO_INCOMPLETE);
    complete(&record, 0);
    EXPECT_EQ(result(FALSE), 0);
    EXPECT_EQ(bytes, 42u);
    EXPECT_EQ(flags, 3u);
    complete(&record, WSAECONNRESET);
    EXPECT_EQ(result(TRUE), WSAECONNRESET);
    EXPECT_EQ(ErrorOf(WSPGetOverlappedResult(0, nullptr, &bytes, FALSE, &flags, &error_) != FALSE),
              WSAEFAULT);

    // With an event (whose lowest bit is no part of the handle) the wait ends when it is set ...
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    record.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | 1);
    record.Internal = kOperationInProgress;
    std::thread worker([&] {
        complete(&record, 0);
        SetEvent(event);
    });
    EXPECT_EQ(result(TRUE), 0);
    worker.join();
    record.Internal = kOperationInProgress;
    EXPECT_EQ(result(TRUE), WSA_IO_PENDING) << "set too early";
    CloseHandle(event);

    // ... without one the record is looked at again and again, for three minutes.
    record.hEvent = nullptr;
    const platform::ScopedClockRate fast(20000);
    EXPECT_EQ(result(TRUE), WSA_IO_PENDING);
}

// ---- Address conversion

WSAPROTOCOL_INFOW ConverterInfo;
std::vector<ULONG_PTR> ConverterArguments;

template <class... Arguments>
INT NoteConversion(LPWSAPROTOCOL_INFOW info, Arguments... arguments) {
    ConverterInfo = *info;
    ConverterArguments = {(ULONG_PTR)arguments...};
    return 0;
}

TEST_F(AnsweredOperations, AddressesAreConvertedByTheNamedProtocol) {
    Lower().lpWSPAddressToString =
        Callback([](LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOW info, LPWSTR text, LPDWORD room,
                    LPINT) { return NoteConversion(info, address, length, text, room); });
    Lower().lpWSPStringToAddress =
        Callback([](LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address, LPINT room,
                    LPINT) { return NoteConversion(info, text, family, address, room); });
    WCHAR text[4] = {};
    DWORD length = 4;
    INT room = sizeof(sockaddr);
    sockaddr address{};
    const auto bits = [](const void* pointer) { return reinterpret_cast<ULONG_PTR>(pointer); };
    const auto toText = [&](LPWSAPROTOCOL_INFOW info) {
        return ErrorOf(WSPAddressToString(&address, 9, info, text, &length, &error_) == 0);
    };
    const auto toAddress = [&](LPWSAPROTOCOL_INFOW info) {
        return ErrorOf(WSPStringToAddress(text, AF_INET, info, &address, &room, &error_) == 0);
    };
    WSAPROTOCOL_INFOW info = Entry(SOCK_STREAM).LayerProvider;
    info.dwServiceFlags1 ^= XP1_IFS_HANDLES;
    // A base provider is given its own entry; a layer, which has more than one, the one that was named.
    for (const int chainLength : {1, 2}) {
        WSAPROTOCOL_INFOW& lower = Entry(SOCK_STREAM).NextProvider;
        lower.ProtocolChain.ChainLen = chainLength;
        const DWORD expected = chainLength == 1 ? lower.dwCatalogEntryId : info.dwCatalogEntryId;
        EXPECT_EQ(toText(&info), 0);
        EXPECT_EQ(ConverterInfo.dwCatalogEntryId, expected);
        EXPECT_EQ(ConverterArguments, (std::vector<ULONG_PTR>{bits(&address), 9, bits(text), bits(&length)}));
        EXPECT_EQ(toAddress(&info), 0);
        EXPECT_EQ(ConverterInfo.dwCatalogEntryId, expected);
        EXPECT_EQ(ConverterArguments,
                  (std::vector<ULONG_PTR>{bits(text), AF_INET, bits(&address), bits(&room)}));
    }
    WSAPROTOCOL_INFOW others[4] = {info, info, info, info};
    others[0].iAddressFamily = AF_APPLETALK;
    others[1].iSocketType = SOCK_DGRAM;
    others[2].iProtocol = 99;
    others[3].dwServiceFlags1 ^= XP1_CONNECT_DATA;
    for (WSAPROTOCOL_INFOW& other : others) {
        EXPECT_EQ(toText(&other), WSAEINVAL) << &other - others;
        EXPECT_EQ(toAddress(&other), WSAEINVAL) << &other - others;
    }
    const auto unreadable = reinterpret_cast<LPWSAPROTOCOL_INFOW>(8);
    EXPECT_EQ(toText(nullptr), WSAEINVAL);
    EXPECT_EQ(toAddress(nullptr), WSAEINVAL);
    EXPECT_EQ(toText(unreadable), WSAEFAULT);
    EXPECT_EQ(toAddress(unreadable), WSAEFAULT);
}

}  // namespace
