// Loading and starting a lower provider: every way in which that fails has a number of its own, leaves
// nothing behind and doesn't hinder the next try.
#include <optional>

#include "platform/kernel/fault_points.h"
#include "platform/testing/catalog.h"
#include "tests/platform/kernel/environment_variable.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/scripted_provider.h"

namespace {

constexpr int kOperations = sizeof(WSPPROC_TABLE) / sizeof(void*);
constexpr int kCleanupSlot = offsetof(WSPPROC_TABLE, lpWSPCleanup) / sizeof(void*);

#ifdef _WIN32
constexpr char kLibraryOfAnotherKind[] = "kernel32.dll";
#else
constexpr char kLibraryOfAnotherKind[] = "libm.so.6";
#endif

class LowerProvider : public FakeWinsock {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        provider_.emplace();
        entry_ = &Entry(SOCK_STREAM);
        entry_->LowerStartupCount = 0;
        RegisterLibrary(ScriptedProviderModule::Path());
    }
    void TearDown() override {
        FreeCatalog();
        provider_.reset();
        FakeWinsock::TearDown();
    }

    static void RegisterLibrary(const winsock_host::WideString& path) {
        winsock_host::SetCatalogForTest(winsock_host::MakeBaseCatalog(path));
        winsock_host::DropCatalog();
    }
    static void RegisterLibrary(const std::string& path) { RegisterLibrary(winsock_host::Widen(path)); }

    int ErrorOfStart(LPWSAPROTOCOL_INFOW info = nullptr) {
        return ErrorOf(EnsureProviderStarted(entry_, info, &error_) == 0);
    }

    /// A start fails so, and another one works.
    void ExpectFailure(int error, const std::string& what) {
        SCOPED_TRACE(what);
        const int startups = (*provider_)->Startups();
        const int cleanups = (*provider_)->Cleanups();
        EXPECT_EQ(ErrorOfStart(), error);
        EXPECT_EQ(entry_->LowerStartupCount, 0);
        EXPECT_EQ(entry_->Module, nullptr);
        EXPECT_EQ((*provider_)->Startups() - startups, (*provider_)->Cleanups() - cleanups);
        platform::DisarmFaults();
        RegisterLibrary(ScriptedProviderModule::Path());
        (*provider_)->ScriptStartup(0);
        EXPECT_EQ(ErrorOfStart(), 0);
        EXPECT_EQ(entry_->LowerStartupCount, 1);
        INT ignored = 0;
        CleanUpLowerProvider(entry_, false, &ignored);
        FreeLibrary(entry_->Module);
        entry_->Module = nullptr;
    }

    std::optional<ScriptedProviderModule> provider_;
    LspEntry* entry_ = nullptr;
};

TEST_F(LowerProvider, EveryFailureHasItsNumberAndLeavesNothing) {
    winsock_host::SetCatalogForTest({});
    winsock_host::DropCatalog();
    ExpectFailure(WSAEINVAL, "no path is registered");

    RegisterLibrary(std::string(MAX_PATH + 10, 'x'));
    ExpectFailure(WSAEFAULT, "the registered path is too long");
    const ScopedVariable variable("QX_TEST_LONG_PATH", std::string(MAX_PATH, 'x').c_str());
    RegisterLibrary("%QX_TEST_LONG_PATH%");
    ExpectFailure(ERROR_INSUFFICIENT_BUFFER, "the path is too long once it is expanded");
    RegisterLibrary("no-such-library.so");
    ExpectFailure(ERROR_MOD_NOT_FOUND, "the library is missing");
    RegisterLibrary(kLibraryOfAnotherKind);
    ExpectFailure(ERROR_PROC_NOT_FOUND, "the library is no provider");
    (*provider_)->ScriptStartup(WSAVERNOTSUPPORTED);
    ExpectFailure(WSAVERNOTSUPPORTED, "its start-up fails");
    for (int slot = 0; slot < kOperations; ++slot) {
        if (slot == kCleanupSlot) continue;
        (*provider_)->ScriptStartup(0, slot);
        ExpectFailure(WSAEINVALIDPROCTABLE, "an incomplete table, slot " + std::to_string(slot));
    }
    (*provider_)->ScriptStartup(0, kCleanupSlot);
    EXPECT_EQ(ErrorOfStart(), WSAEINVALIDPROCTABLE) << "which can't be ended";
    EXPECT_EQ(entry_->Module, nullptr);
}

TEST_F(LowerProvider, APathThatCantBeExpandedIsTriedInTheNarrowCharacterSet) {
    for (const bool alsoNarrow : {true, false}) {
        platform::ArmFault({"ExpandEnvironmentStringsW"});
        if (alsoNarrow) platform::ArmFault({"ExpandEnvironmentStringsA"});
        EXPECT_EQ(ErrorOfStart() == 0, !alsoNarrow);
        EXPECT_EQ(platform::FaultsStruck(), alsoNarrow ? 2 : 1);
        platform::DisarmFaults();
    }
}

TEST_F(LowerProvider, ABaseProviderIsStartedForItsOwnEntryAndALayerForTheNamedOne) {
    WSAPROTOCOL_INFOW named = entry_->LayerProvider;
    const DWORD own = entry_->NextProvider.dwCatalogEntryId;
    const struct {
        int chainLength;
        LPWSAPROTOCOL_INFOW info;
        DWORD expected;
    } rows[] = {{1, &named, own}, {2, &named, named.dwCatalogEntryId}, {2, nullptr, own}};
    for (const auto& row : rows) {
        entry_->NextProvider.ProtocolChain.ChainLen = row.chainLength;
        EXPECT_EQ(ErrorOfStart(row.info), 0);
        EXPECT_EQ((*provider_)->StartupInfo().dwCatalogEntryId, row.expected);
        EXPECT_EQ((*provider_)->StartupVersion(), MAKEWORD(2, 2));
        EXPECT_EQ((*provider_)->Upcalls().lpWPUCreateSocketHandle, UpcallTable.lpWPUCreateSocketHandle);
        EXPECT_EQ(ErrorOfStart(row.info), 0) << "it is started already";
        EXPECT_EQ(entry_->LowerStartupCount, 1);
        INT ignored = 0;
        CleanUpLowerProvider(entry_, false, &ignored);
        FreeLibrary(entry_->Module);
        entry_->Module = nullptr;
    }
    EXPECT_EQ((*provider_)->Startups(), 3);
    EXPECT_EQ((*provider_)->Cleanups(), 3);
}

TEST_F(LowerProvider, NoneIsStartedForACatalogThatHasBeenFreed) {
    {
        CatalogHold hold;
        {
            const Locker lock(CatalogLock);
            hold.Take();
        }
        EXPECT_FALSE(FreeCatalog());
        EXPECT_EQ(ErrorOfStart(), WSANOTINITIALISED) << "there is none";
        BuildCatalog();
        EXPECT_EQ(ErrorOfStart(), WSANOTINITIALISED) << "there is another one";
        EXPECT_EQ((*provider_)->Startups(), 0);
    }
    EXPECT_EQ(platform::CountResources().heaps, 1) << "the end of the hold released the first";
}

}  // namespace
