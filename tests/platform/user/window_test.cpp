// Windows and messages as Windows documents them: natively of the stand-in, on Windows of the system itself.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/wine.h"

namespace {

constexpr char kClass[] = "class of a test";
constexpr UINT kNote = WM_APP + 1;  // noted with its arguments, answered with the second
constexpr UINT kAskBack = WM_APP + 2;
constexpr UINT kWait = WM_APP + 3;

/// What the procedure was called with, on the thread that runs it.
std::vector<UINT> Seen;
LRESULT CreateAnswer = 0;
std::promise<void>* Entered = nullptr;
std::future<void>* Leave = nullptr;

LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_NCCREATE:
        case WM_CREATE:
        case WM_DESTROY:
        case WM_NCDESTROY:
            Seen.push_back(message);
            if (message == WM_CREATE) return CreateAnswer;
            break;
        case kNote:
            return lParam;
        case kAskBack:
            return SendMessageA(reinterpret_cast<HWND>(wParam), kNote, 0, lParam + 1);
        case kWait:
            Entered->set_value();
            Leave->wait();
            return 0;
        default:
            break;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

HINSTANCE Instance() {
    return GetModuleHandleA(nullptr);
}

ATOM Register() {
    WNDCLASSA windowClass{};
    windowClass.lpfnWndProc = Procedure;
    windowClass.hInstance = Instance();
    windowClass.lpszClassName = kClass;
    return RegisterClassA(&windowClass);
}

HWND Make(const char* name = "", HWND owner = nullptr, DWORD style = WS_OVERLAPPEDWINDOW) {
    return CreateWindowExA(0, kClass, name, owner == HWND_MESSAGE ? 0 : style, 0, 0, 10, 10, owner, nullptr,
                           Instance(), nullptr);
}

/// A thread with a window and a message loop, which ends with WM_QUIT. It keeps what it was posted.
class LoopingThread {
  public:
    LoopingThread() {
        std::promise<HWND> made;
        thread_ = std::thread([this, &made] {
            const HWND window = Make("of a thread", HWND_MESSAGE);
            made.set_value(window);
            MSG message;
            while (GetMessageA(&message, nullptr, 0, 0) > 0) {
                if (message.message == kNote) noted_.push_back(message.wParam);
                DispatchMessageA(&message);
            }
            exitCode_ = message.wParam;
        });
        window_ = made.get_future().get();
    }
    ~LoopingThread() { End(); }

    HWND window() const { return window_; }

    /// What was posted, in order; the thread ends.
    std::vector<WPARAM> End() {
        if (thread_.joinable()) {
            PostMessageA(window_, WM_QUIT, 17, 0);
            thread_.join();
        }
        return noted_;
    }
    WPARAM ExitCode() const { return exitCode_; }

  private:
    std::thread thread_;
    HWND window_ = nullptr;
    std::vector<WPARAM> noted_;
    WPARAM exitCode_ = 0;
};

class WindowTest : public testing::Test {
  protected:
    void SetUp() override {
        Seen.clear();
        CreateAnswer = 0;
        ASSERT_NE(Register(), 0);
    }
    void TearDown() override { EXPECT_TRUE(UnregisterClassA(kClass, Instance())) << GetLastError(); }

    /// The last error of a call that is to fail.
    static DWORD ErrorOf(bool succeeded) { return succeeded ? 0 : GetLastError(); }
};

TEST_F(WindowTest, ClassesAreKnownOnceAndStayWhileTheyAreUsed) {
    EXPECT_EQ(ErrorOf(Register() != 0), static_cast<DWORD>(ERROR_CLASS_ALREADY_EXISTS));
    const HWND window = Make();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(ErrorOf(UnregisterClassA(kClass, Instance())), static_cast<DWORD>(ERROR_CLASS_HAS_WINDOWS));
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClassA(kClass, Instance()));
    EXPECT_EQ(ErrorOf(UnregisterClassA(kClass, Instance())), static_cast<DWORD>(ERROR_CLASS_DOES_NOT_EXIST));
    EXPECT_EQ(Make(), nullptr);
    if (Keeps(Documented::kUnknownClassIsNotFound)) {
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANNOT_FIND_WND_CLASS));
    }
    const ATOM atom = Register();
    const HWND byAtom = CreateWindowExA(0, reinterpret_cast<LPCSTR>(static_cast<ULONG_PTR>(atom)), "", 0, 0,
                                        0, 0, 0, HWND_MESSAGE, nullptr, Instance(), nullptr);
    EXPECT_NE(byAtom, nullptr);
    EXPECT_TRUE(DestroyWindow(byAtom));
}

TEST_F(WindowTest, AWindowIsToldOfItsBeginningAndItsEnd) {
    const HWND window = Make("title");
    const HWND owned = Make("owned", window, WS_POPUP);
    ASSERT_NE(owned, nullptr);
    EXPECT_EQ(Seen, (std::vector<UINT>{WM_NCCREATE, WM_CREATE, WM_NCCREATE, WM_CREATE}));
    EXPECT_EQ(GetAncestor(owned, GA_ROOTOWNER), window);
    const HWND overlapped = Make("overlapped", window);
    EXPECT_EQ(GetAncestor(overlapped, GA_ROOTOWNER), overlapped) << "only pop-up windows show their owners";
    EXPECT_TRUE(DestroyWindow(overlapped));
    Seen.clear();
    EXPECT_EQ(FindWindowA(kClass, "owned"), owned);
    char text[8];
    EXPECT_EQ(SendMessageA(window, WM_GETTEXT, 4, reinterpret_cast<LPARAM>(text)), 3);
    EXPECT_STREQ(text, "tit");
    EXPECT_EQ(SetWindowLongPtrA(window, GWLP_USERDATA, 5), 0);
    EXPECT_EQ(SetWindowLongPtrA(window, GWLP_USERDATA, 6), 5);
    std::thread([&] {
        EXPECT_EQ(ErrorOf(DestroyWindow(window)), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    }).join();
    PostMessageA(owned, kNote, 1, 1);
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_FALSE(IsWindow(owned)) << "goes with its owner";
    EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(std::count(Seen.begin(), Seen.end(), WM_DESTROY), 2);
    MSG message;
    EXPECT_FALSE(PeekMessageA(&message, nullptr, kNote, kNote, PM_REMOVE)) << "its messages went with it";
    EXPECT_EQ(ErrorOf(PostMessageA(window, kNote, 1, 1)), static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE));

    CreateAnswer = -1;
    Seen.clear();
    EXPECT_EQ(Make("refused"), nullptr);
    EXPECT_EQ(Seen.back(), static_cast<UINT>(WM_NCDESTROY));
    EXPECT_EQ(FindWindowA(kClass, nullptr), nullptr);
}

TEST_F(WindowTest, PostedMessagesComeInOrderFromAnyThread) {
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    LoopingThread looping;
    std::vector<std::thread> posters;
    for (int poster = 0; poster < kThreads; ++poster) {
        posters.emplace_back([&looping, poster] {
            for (int i = 0; i < kEach; ++i)
                EXPECT_TRUE(
                    PostMessageA(looping.window(), kNote, static_cast<WPARAM>(poster * kEach + i), 0));
        });
    }
    for (std::thread& poster : posters)
        poster.join();
    const std::vector<WPARAM> noted = looping.End();
    EXPECT_EQ(looping.ExitCode(), 17u);
    ASSERT_EQ(noted.size(), static_cast<std::size_t>(kThreads * kEach));
    std::vector<WPARAM> next(kThreads);
    for (const WPARAM value : noted)
        EXPECT_EQ(value % kEach, next[value / kEach]++) << "the order of each thread";
    EXPECT_FALSE(IsWindow(looping.window())) << "its thread has ended";
    EXPECT_FALSE(PostMessageA(looping.window(), kNote, 1, 1));
}

TEST_F(WindowTest, FiltersPeeksAndTheQuitMessage) {
    const HWND window = Make("", HWND_MESSAGE);
    const HWND other = Make("", HWND_MESSAGE);
    MSG message;
    while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
    }
    PostQuitMessage(5);
    PostMessageA(window, kNote, 1, 0);
    PostMessageA(other, kNote, 2, 0);
    PostMessageA(window, kNote + 50, 3, 0);
    EXPECT_TRUE(PeekMessageA(&message, window, kNote + 50, kNote + 60, PM_NOREMOVE));
    EXPECT_EQ(message.wParam, 3u);
    EXPECT_EQ(GetMessageA(&message, other, 0, 0), TRUE);
    EXPECT_EQ(message.wParam, 2u);
    for (const WPARAM wanted : {1u, 3u}) {
        EXPECT_EQ(GetMessageA(&message, nullptr, 0, 0), TRUE) << "before the end of the loop";
        EXPECT_EQ(message.hwnd, window);
        EXPECT_EQ(message.wParam, wanted);
    }
    EXPECT_EQ(GetMessageA(&message, nullptr, 0, 0), FALSE);
    EXPECT_EQ(message.message, static_cast<UINT>(WM_QUIT));
    EXPECT_EQ(message.wParam, 5u);
    EXPECT_FALSE(PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) << "it is there once";
    EXPECT_TRUE(DestroyWindow(other));
    EXPECT_EQ(GetMessageA(&message, other, 0, 0), -1);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE));
    EXPECT_TRUE(DestroyWindow(window));
}

TEST_F(WindowTest, SentMessagesRunOnTheWindowsThread) {
    LoopingThread looping;
    const HWND own = Make("", HWND_MESSAGE);
    EXPECT_EQ(SendMessageA(own, kNote, 0, 11), 11) << "its own thread needs no loop";
    EXPECT_EQ(SendMessageA(looping.window(), kNote, 0, 12), 12);
    // While it waits for the answer, the sender answers others.
    EXPECT_EQ(SendMessageA(looping.window(), kAskBack, reinterpret_cast<WPARAM>(own), 20), 21);
    DWORD process = 0;
    EXPECT_NE(GetWindowThreadProcessId(looping.window(), &process), GetCurrentThreadId());
    EXPECT_EQ(process, GetCurrentProcessId());
    EXPECT_TRUE(DestroyWindow(own));
}

TEST_F(WindowTest, AThreadThatDoesNotLookAnswersNobody) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::future<void> mayLeave = leave.get_future();
    Entered = &entered;
    Leave = &mayLeave;
    std::optional<LoopingThread> looping(std::in_place);
    const HWND window = looping->window();
    PostMessageA(window, kWait, 0, 0);
    entered.get_future().wait();
    DWORD_PTR answer = 0;
    SetLastError(0);
    EXPECT_EQ(SendMessageTimeoutA(window, kNote, 0, 1, SMTO_NORMAL, 20, &answer), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_TIMEOUT));
    // One who waits without a limit gets an end with the thread's.
    auto waiting = std::async(std::launch::async, [window] { return SendMessageA(window, kNote, 0, 3); });
    PostMessageA(window, WM_QUIT, 0, 0);
    leave.set_value();
    looping.reset();
    const LRESULT ended = waiting.get();
    EXPECT_TRUE(ended == 0 || ended == 3);
    EXPECT_EQ(SendMessageA(window, kNote, 0, 3), 0);
}

}  // namespace
