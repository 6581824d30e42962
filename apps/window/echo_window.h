// A window whose messages are the network: it connects, sends a text, and collects its echo, all in the
// message loop of the thread that made it, as programs did when they had one thread.
#pragma once

#include "apps/shared/exchange_report.h"
#include "apps/shared/winsock_session.h"

#include <winsock2.h>

#include <windows.h>

#include <string>

class EchoWindow {
  public:
    /// Throws std::runtime_error when there is no window to be had.
    EchoWindow();
    ~EchoWindow();
    EchoWindow(const EchoWindow&) = delete;
    EchoWindow& operator=(const EchoWindow&) = delete;

    /// Sends `text` over a connection of its own and runs the message loop until as many bytes have come
    /// back, or something has failed.
    ExchangeResult Exchange(const sockaddr_in& server, const std::string& text);

  private:
    static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

    void Begin(const sockaddr_in& server);
    void OnNetworkEvent(SOCKET socket, int event, int error);
    void Send();
    void Receive();
    void End(const char* step, int error);

    HWND window_ = nullptr;
    UniqueSocket socket_;
    std::string text_;
    std::size_t sent_ = 0;
    std::string received_;
    ExchangeResult result_;
};
