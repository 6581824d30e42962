// See echo_window.h.
#include "apps/window/echo_window.h"

#include <stdexcept>

namespace {

constexpr char kClass[] = "qxwindow";
constexpr UINT kNetworkMessage = WM_APP + 1;

}  // namespace

LRESULT CALLBACK EchoWindow::Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* const self = reinterpret_cast<EchoWindow*>(GetWindowLongPtrA(window, GWLP_USERDATA));
    if (message == kNetworkMessage && self != nullptr) {
        self->OnNetworkEvent(static_cast<SOCKET>(wParam), WSAGETSELECTEVENT(lParam),
                             WSAGETSELECTERROR(lParam));
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

EchoWindow::EchoWindow() {
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = Procedure;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = kClass;
    RegisterClassA(&windowClass);
    window_ = CreateWindowExA(0, kClass, "Echo window", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, CW_USEDEFAULT,
                              CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr, windowClass.hInstance, nullptr);
    if (window_ == nullptr) throw std::runtime_error("no window: error " + std::to_string(GetLastError()));
    SetWindowLongPtrA(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
}

EchoWindow::~EchoWindow() {
    DestroyWindow(window_);
}

ExchangeResult EchoWindow::Exchange(const sockaddr_in& server, const std::string& text) {
    const DWORD begin = GetTickCount();
    result_ = {};
    text_ = text;
    sent_ = 0;
    received_.clear();
    Begin(server);
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
    result_.bytes = received_.size();
    result_.firstBodyLine = FirstLine(received_);
    result_.elapsedMilliseconds = GetTickCount() - begin;
    return result_;
}

void EchoWindow::Begin(const sockaddr_in& server) {
    socket_ = UniqueSocket(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (!socket_.IsOpen() || WSAAsyncSelect(socket_.Get(), window_, kNetworkMessage,
                                            FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE) != 0) {
        return End("socket", WSAGetLastError());
    }
    if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&server), sizeof(server)) != 0 &&
        WSAGetLastError() != WSAEWOULDBLOCK) {
        End("connect", WSAGetLastError());
    }
}

void EchoWindow::OnNetworkEvent(SOCKET socket, int event, int error) {
    // An event of an earlier connection may still be on its way.
    if (socket != socket_.Get()) return;
    switch (event) {
        case FD_CONNECT:
            if (error != 0) return End("connect", error);
            result_.peer = PeerOf(socket);
            return;
        case FD_WRITE:
            return Send();
        case FD_READ:
            return Receive();
        case FD_CLOSE:
            return End("receive", error != 0 ? error : WSAECONNRESET);
        default:
            return;
    }
}

/// Goes on with the next FD_WRITE when there is no room.
void EchoWindow::Send() {
    while (sent_ < text_.size()) {
        const int count =
            send(socket_.Get(), text_.data() + sent_, static_cast<int>(text_.size() - sent_), 0);
        if (count == SOCKET_ERROR) {
            if (WSAGetLastError() != WSAEWOULDBLOCK) End("send", WSAGetLastError());
            return;
        }
        sent_ += static_cast<std::size_t>(count);
    }
}

/// One receive for each FD_READ: the next one comes if there is more.
void EchoWindow::Receive() {
    char buffer[4096];
    const int count = recv(socket_.Get(), buffer, sizeof(buffer), 0);
    if (count == SOCKET_ERROR) {
        if (WSAGetLastError() != WSAEWOULDBLOCK) End("receive", WSAGetLastError());
        return;
    }
    received_.append(buffer, static_cast<std::size_t>(count));
    if (received_.size() >= text_.size()) End("receive", received_ == text_ ? 0 : WSAECONNABORTED);
}

/// Events that are still on their way find another socket, or none.
void EchoWindow::End(const char* step, int error) {
    Passed(step, error, &result_);
    socket_.Close();
    PostQuitMessage(0);
}
