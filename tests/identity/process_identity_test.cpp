// The two background queries on scripted windows and certificates, and the life of the thread that runs them.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/locker.h"
#include "identity/host_process.h"
#include "identity/process_identity.h"
#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/debug_output.h"
#include "platform/testing/machine.h"
#include "platform/testing/resource_counts.h"
#include "provider/process_state.h"

namespace {

class ProcessIdentity : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string message;
        machine_ = *platform::ParseMachine("", "test", &message);
        platform::SetMachineForTest(machine_);
        CurrentProcessId = GetCurrentProcessId();
        before_ = platform::CountResources();
        InitializeLocks();
    }

    void TearDown() override {
        StopProcessInfoCollection();
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
        std::strcpy(MainWindowTitle, "<Unknown>");
        std::strcpy(ImageSignerSubject, "<Unknown>");
    }

    void SetWindows(std::vector<platform::MachineWindow> windows) {
        machine_.windows = std::move(windows);
        platform::SetMachineForTest(machine_);
    }

    void SetSigner(const std::string& subject) {
        machine_.certificateSubject = subject;
        platform::SetMachineForTest(machine_);
    }

    static std::pair<std::string, std::string> TitleAndSigner() {
        Locker lock(IdentityLock);
        return {MainWindowTitle, ImageSignerSubject};
    }

    platform::Machine machine_;
    platform::ResourceCounts before_;
    platform::DebugOutputCapture debugOutput_;
};

platform::Fault FaultAt(const char* function, int nth = 1) {
    platform::Fault fault;
    fault.function = function;
    fault.nth = nth;
    return fault;
}

TEST_F(ProcessIdentity, TheFirstWindowOfTheProcessDecidesTheTitle) {
    constexpr std::uint32_t kStranger = 0x7ffffff0;
    const platform::MachineWindow stranger{"Stranger", false, kStranger};
    const struct {
        const char* what;
        std::vector<platform::MachineWindow> windows;
        std::string title;
        const char* line;
    } cases[] = {
        {"no window at all", {}, "<Unknown>", nullptr},
        {"other processes' windows", {stranger}, "<Unknown>", nullptr},
        {"among strangers", {stranger, {"Main"}, {"Second"}}, "Main", nullptr},
        {"owned by another", {{"Dialog", false, 0, 1}, {"Owner"}}, "Owner", nullptr},
        {"without a title", {{""}}, "", nullptr},
        {"longer than is read", {{std::string(300, 'x')}}, std::string(254, 'x'), nullptr},
        {"cut inside a character", {{std::string(253, 'x') + "\u00e9"}}, std::string(253, 'x'), nullptr},
        {"as long as is read",
         {{std::string(252, 'x') + "\u00e9"}},
         std::string(252, 'x') + "\u00e9",
         nullptr},
        {"hung before another",
         {{"Hung", true}, {"Fine"}},
         "<Unknown>",
         "ERROR:Didn't get text of window title."},
    };
    const platform::ScopedClockRate fast(1000);
    for (const auto& row : cases) {
        SetWindows(row.windows);
        const std::size_t linesBefore = debugOutput_.Texts().size();
        EXPECT_EQ(GetMainWindowTitle(), row.title) << row.what;
        EXPECT_EQ(debugOutput_.Texts().size(), linesBefore + (row.line == nullptr ? 0 : 1)) << row.what;
        if (row.line != nullptr) {
            EXPECT_TRUE(debugOutput_.Contains(row.line)) << row.what;
        }
    }
}

/// A window of a thread that answers when it looks for messages, which it does only when told to.
class SleepyWindow {
  public:
    SleepyWindow(const char* title, bool looks) {
        std::promise<HWND> made;
        thread_ = std::thread([this, title, looks, &made] {
            WNDCLASSA windowClass{};
            windowClass.lpfnWndProc = DefWindowProcA;
            windowClass.hInstance = GetModuleHandleA(nullptr);
            windowClass.lpszClassName = "window with a title";
            RegisterClassA(&windowClass);
            const HWND window = CreateWindowExA(0, windowClass.lpszClassName, title, WS_OVERLAPPEDWINDOW, 0,
                                                0, 10, 10, nullptr, nullptr, windowClass.hInstance, nullptr);
            made.set_value(window);
            MSG message;
            if (!looks) mayLook_.get_future().wait();
            while (GetMessageA(&message, nullptr, 0, 0) > 0)
                DispatchMessageA(&message);
            DestroyWindow(window);
        });
        window_ = made.get_future().get();
    }
    ~SleepyWindow() {
        mayLook_.set_value();
        PostMessageA(window_, WM_QUIT, 0, 0);
        thread_.join();
    }
    SleepyWindow(const SleepyWindow&) = delete;
    SleepyWindow& operator=(const SleepyWindow&) = delete;

    HWND handle() const { return window_; }

  private:
    std::promise<void> mayLook_;
    std::thread thread_;
    HWND window_ = nullptr;
};

TEST_F(ProcessIdentity, WindowsThatTheProcessHasMadeCount) {
    {
        const SleepyWindow window("Real", true);
        EXPECT_EQ(GetMainWindowTitle(), "Real");
        HiddenWindowThread = GetWindowThreadProcessId(window.handle(), nullptr);
        EXPECT_EQ(GetMainWindowTitle(), "<Unknown>") << "the layer's own is not the application's";
        HiddenWindowThread = 0;
    }
    const platform::ScopedClockRate fast(100);
    const SleepyWindow hung("Hung", false);
    EXPECT_EQ(GetMainWindowTitle(), "<Unknown>");
    EXPECT_TRUE(debugOutput_.Contains("ERROR:Didn't get text of window title."));
}

TEST_F(ProcessIdentity, ATitleThatCannotBeReadIsUnknown) {
    SetWindows({{"Main"}});
    {
        const platform::ScopedFault fault(FaultAt("EnumWindows"));
        EXPECT_EQ(GetMainWindowTitle(), "<Unknown>");
        EXPECT_TRUE(debugOutput_.Contains("ERROR:Failed to enumerate windows. Error = "));
    }
    {
        const platform::ScopedFault fault(FaultAt("SendMessageTimeoutA", 2));
        EXPECT_EQ(GetMainWindowTitle(), "<Unknown>");
        EXPECT_TRUE(debugOutput_.Contains("ERROR:Failed to get main window title text. Hwnd = "));
    }
    EXPECT_EQ(GetMainWindowTitle(), "Main");
}

TEST_F(ProcessIdentity, TheSignerIsReadOrEmptyAndNothingStays) {
    EXPECT_EQ(GetImageSignerSubject(), "") << "not signed";
    EXPECT_TRUE(debugOutput_.Texts().empty());
    SetSigner("Demo Signer");
    const struct {
        const char* function;
        int nth;
        const char* line;
    } failures[] = {
        {"GetModuleFileNameA", 1, "ERROR:Can't get module file name while getting cert subject. Error = "},
        {"CryptMsgGetParam", 1, "ERROR:Unable to get Signer Info size. Error = "},
        {"LocalAlloc", 1, "ERROR:Unable to allocate memory for Cert Info.\n"},
        {"CryptMsgGetParam", 2, "ERROR:CryptMsgGetParam failed with "},
        {"CertFindCertificateInStore", 1, "ERROR:Couldn't find certificate in store. "},
        {"CertGetNameStringA", 1, "ERROR:Couldn't get subject length. "},
        {"LocalAlloc", 2, "ERROR:Couldn't alloc subject. "},
    };
    const platform::ResourceCounts held = platform::CountResources();
    for (const auto& failure : failures) {
        const platform::ScopedFault fault(FaultAt(failure.function, failure.nth));
        EXPECT_EQ(GetImageSignerSubject(), "") << failure.line;
        EXPECT_TRUE(debugOutput_.Contains(failure.line)) << failure.line;
        EXPECT_EQ(platform::DescribeGrowth(held, platform::CountResources()), "") << failure.line;
    }
    EXPECT_EQ(GetImageSignerSubject(), "Demo Signer");
    EXPECT_EQ(platform::DescribeGrowth(held, platform::CountResources()), "");
}

TEST_F(ProcessIdentity, TheLongestPathHasASignerAndALongerOneNone) {
    SetSigner("Demo Signer");
    for (const std::size_t length : {258, 259, 260}) {
        machine_.processImage = "C:\\" + std::string(length - 7, 'p') + ".exe";
        platform::SetMachineForTest(machine_);
        EXPECT_EQ(GetImageSignerSubject(), length < 260 ? "Demo Signer" : "") << length;
    }
}

TEST_F(ProcessIdentity, TextsThatDoNotFitAreCutBetweenCharacters) {
    SetSigner(std::string(kMaxStringLength - 1, 's') + "\u00e9");
    CollectProcessInfo(nullptr);
    EXPECT_EQ(TitleAndSigner().second, std::string(kMaxStringLength - 1, 's'));

    machine_.processImage = "C:\\" + std::string(kImagePathSize - 3 - 2, 'p') + "\u00e9.exe";
    platform::SetMachineForTest(machine_);
    {
        Locker lock(qx::GlobalLock);
        CaptureHostProcess();
        StopProcessInfoCollection();
    }
    Locker lock(IdentityLock);
    EXPECT_EQ(ProcessImagePath, "C:\\" + std::string(kImagePathSize - 3 - 2, 'p'));
}

TEST_F(ProcessIdentity, EachStartUpCollectsAnewUnlessACollectionRuns) {
    {
        const platform::ScopedFault fault(FaultAt("CreateThread"));
        StartProcessInfoCollection();
        EXPECT_TRUE(
            debugOutput_.Contains("ERROR:Failed to create the thread for getting process info, error = "));
    }
    for (const char* title : {"First", "Second"}) {
        SetWindows({{title}});
        // The one before may be about to end.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (TitleAndSigner().first != title && std::chrono::steady_clock::now() < deadline) {
            StartProcessInfoCollection();
            std::this_thread::yield();
        }
        EXPECT_EQ(TitleAndSigner(), std::make_pair(std::string(title), std::string()));
    }
    StopProcessInfoCollection();
    EXPECT_EQ(TitleAndSigner().first, "Second");

    // While one waits for a hung window, another start-up adds none.
    const platform::ScopedClockRate stopped(0);
    SetWindows({{"Hung", true}});
    StartProcessInfoCollection();
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    const platform::ResourceCounts held = platform::CountResources();
    StartProcessInfoCollection();
    EXPECT_EQ(platform::DescribeGrowth(held, platform::CountResources()), "");
    platform::AdvanceClock(1000);
    StopProcessInfoCollection();
}

TEST_F(ProcessIdentity, ACollectionThatGoesOnIsLeftAlone) {
    SetWindows({{"First"}});
    CollectProcessInfo(nullptr);
    SetWindows({{"Hung", true}});
    const platform::ScopedClockRate stopped(0);
    StartProcessInfoCollection();
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    const platform::ResourceCounts held = platform::CountResources();
    auto stop = std::async(std::launch::async, StopProcessInfoCollection);
    ASSERT_TRUE(platform::WaitForTimedWaits(2));
    platform::AdvanceClock(500);
    stop.get();
    EXPECT_EQ(TitleAndSigner().first, "First");
    StartProcessInfoCollection();
    EXPECT_EQ(platform::DescribeGrowth(held, platform::CountResources()), "") << "it still runs";
    platform::AdvanceClock(500);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (TitleAndSigner().first == "First" && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(TitleAndSigner().first, "<Unknown>") << "the window did not answer within a second";
}

}  // namespace
