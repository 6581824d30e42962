// A window of the calling thread that keeps the network events that are posted to it.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <vector>

/// One event as the application is told it.
struct NetworkEvent {
    SOCKET socket;
    int event;
    int error;

    bool operator==(const NetworkEvent& other) const {
        return socket == other.socket && event == other.event && error == other.error;
    }
};

inline void PrintTo(const NetworkEvent& shown, std::ostream* out) {
    *out << "socket " << shown.socket << " event " << shown.event << " error " << shown.error;
}

class MessageWindow {
  public:
    static constexpr UINT kMessage = WM_APP + 7;

    MessageWindow() {
        WNDCLASSA windowClass{};
        windowClass.lpfnWndProc = DefWindowProcA;
        windowClass.hInstance = GetModuleHandleA(nullptr);
        windowClass.lpszClassName = kClass;
        RegisterClassA(&windowClass);
        window_ = CreateWindowExA(0, kClass, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, windowClass.hInstance,
                                  nullptr);
        EXPECT_NE(window_, nullptr) << GetLastError();
    }
    ~MessageWindow() { Destroy(); }
    MessageWindow(const MessageWindow&) = delete;
    MessageWindow& operator=(const MessageWindow&) = delete;

    HWND handle() const { return window_; }

    void Destroy() {
        if (window_ != nullptr) DestroyWindow(window_);
        window_ = nullptr;
    }

    int Select(SOCKET s, LONG events) const { return WSAAsyncSelect(s, window_, kMessage, events); }

    /// Waits for the next event, in the thread's message loop.
    NetworkEvent Next() const {
        MSG message;
        while (GetMessageA(&message, nullptr, 0, 0) > 0) {
            if (message.hwnd == window_ && message.message == kMessage) return EventOf(message);
            DispatchMessageA(&message);
        }
        ADD_FAILURE() << "the message loop ended";
        return {INVALID_SOCKET, 0, 0};
    }

    /// Waits for this event of this socket; what comes before it is dropped.
    NetworkEvent Await(SOCKET s, int event) const {
        for (;;) {
            const NetworkEvent next = Next();
            if (next.event == 0 || (next.socket == s && next.event == event)) return next;
        }
    }

    /// What is there without waiting.
    std::vector<NetworkEvent> Pending() const {
        std::vector<NetworkEvent> events;
        MSG message;
        while (PeekMessageA(&message, window_, kMessage, kMessage, PM_REMOVE))
            events.push_back(EventOf(message));
        return events;
    }

  private:
    static constexpr char kClass[] = "message window of a test";

    static NetworkEvent EventOf(const MSG& message) {
        return {static_cast<SOCKET>(message.wParam), WSAGETSELECTEVENT(message.lParam),
                WSAGETSELECTERROR(message.lParam)};
    }

    HWND window_ = nullptr;
};
